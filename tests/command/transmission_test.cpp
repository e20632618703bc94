#include "command/Quelm_LbsTransmission.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "agent/MyLogger.h"
#include "foundation/log/OmLog.h"

namespace {

using Attrs = std::vector<std::pair<std::string, std::string>>;

// The parser keeps a reference to its text, so the text lives alongside it.
struct Parsed {
  explicit Parsed(const OmUniString& text) : raw(text), t(raw) {}
  OmUniString raw;
  Quelm_LbsTransmission t;

  Attrs attrs() {
    Attrs out;
    for (const LbsAttribute* a = t.getAttributes().getHead(); a != nullptr; a = a->next) {
      out.emplace_back(a->name.AsUtf8(), a->value.AsUtf8());
    }
    return out;
  }
};

TEST(TransmissionTest, CommandAndAttributes) {
  const struct {
    const char* text;
    LbsCommand command;
    Attrs attrs;
  } cases[] = {
      // The get line may sit inside an HTTP request; nothing else is read.
      {"GET /?get&znalbinfo HTTP/1.1\r\nHost: probe\r\n\r\n"
       "<znalbreq type=\"create\"><host>h</host></znalbreq>",
       LbsCommand::GET, {}},
      {"<znalbreq type=\"create\"><host>10.1.2.3</host><port>5555</port><samplerate>1</samplerate>"
       "<windowsize>5</windowsize><replyfreq>10</replyfreq><percentchange>20</percentchange>"
       "<stat>cpu</stat><version>1.0</version></znalbreq>",
       LbsCommand::CREATE,
       {{"host", "10.1.2.3"}, {"port", "5555"}, {"samplerate", "1"}, {"windowsize", "5"},
        {"replyfreq", "10"}, {"percentchange", "20"}, {"stat", "cpu"}, {"version", "1.0"}}},
      {"<ZNALBREQ TYPE=\"Kill\"><ID>7</ID></ZNALBREQ>", LbsCommand::KILL, {{"id", "7"}}},
      {"<znalbreq type=admin></znalbreq>", LbsCommand::ADMIN, {}},
      // Exactly one space makes a request element.
      {"<znalbreq  type=\"kill\"><id>7</id></znalbreq>", LbsCommand::UNKNOWN, {}},
      // An unclosed quote leaves no command word; the children are still read.
      {"<znalbreq type=\"create><host>h</host></znalbreq>", LbsCommand::UNKNOWN, {{"host", "h"}}},
      {"<znalbreq type=\"create\"><host>a<b</host></znalbreq>", LbsCommand::CREATE,
       {{"host", "a<b"}}},
  };
  for (const auto& c : cases) {
    Parsed p(c.text);
    EXPECT_EQ(c.command, p.t.getCommand()) << c.text;
    EXPECT_EQ(c.attrs, p.attrs()) << c.text;
  }
}

TEST(TransmissionTest, RepeatedChildrenAndLookups) {
  Parsed p("<znalbreq type=\"create\"><host>first</host><port>1</port><host>second</host>"
           "</znalbreq>");
  LbsAttributes& a = p.t.getAttributes();
  OmUniString value;
  ASSERT_TRUE(a.getByName("host", value));
  EXPECT_TRUE(value == "first");
  OmUniString* out[3] = {};
  ASSERT_TRUE(a.getAllByName("host", out, 3));
  EXPECT_TRUE(*out[0] == "first");
  EXPECT_TRUE(*out[1] == "second");
  EXPECT_EQ(&LbsAttributes::NULLSTRING, out[2]);
}

// Text after the children is one syntax error, logged as one line.
TEST(TransmissionTest, TrailingTextIsOneSyntaxError) {
  std::string dir = (std::filesystem::temp_directory_path() / "parserlogXXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(dir.data()));
  OmLog* previous = OmLog::Current();
  const OmUniString previousDir = OmLog::LogDirectory();
  MyLogger logger;
  OmLog::InitLogs(&logger, OmUniString(dir));
  ASSERT_TRUE(logger.SetupCSFilters({OmUniString("*/*/*:parser.csl")}));

  Parsed p("<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>");
  std::vector<std::string> lines;
  std::ifstream in(dir + "/parser.csl");
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  logger.SetupCSFilters({});
  OmLog::InitLogs(previous, previousDir);
  std::filesystem::remove_all(dir);

  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("category=quelmloadprobe/command/error,"));
  EXPECT_NE(std::string::npos, lines[0].find("at character position 1 because of "
                                             "[Syntax error in attribute name]"));
}

}  // namespace
