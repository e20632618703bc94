#include "command/Quelm_LbsTransmission.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <random>
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
  const LbsCommand kUnknown = LbsCommand::UNKNOWN;
  const Attrs id7 = {{"id", "7"}};
  const struct {
    const char* text;
    LbsCommand command;
    Attrs attrs;
  } cases[] = {
      // The get line may sit inside an HTTP request; nothing else is read.
      {"GET /?get&znalbinfo HTTP/1.1\r\nHost: probe\r\n\r\n"
       "<znalbreq type=\"create\"><host>h</host></znalbreq>",
       LbsCommand::GET, {}},
      {"get /?get&znalbinfo", kUnknown, {}},
      {"<znalbreq type=\"create\"><host>10.1.2.3</host><port>5555</port><samplerate>1</samplerate>"
       "<windowsize>5</windowsize><replyfreq>10</replyfreq><percentchange>20</percentchange>"
       "<stat>cpu</stat><version>1.0</version></znalbreq>",
       LbsCommand::CREATE,
       {{"host", "10.1.2.3"}, {"port", "5555"}, {"samplerate", "1"}, {"windowsize", "5"},
        {"replyfreq", "10"}, {"percentchange", "20"}, {"stat", "cpu"}, {"version", "1.0"}}},
      {"<ZNALBREQ TYPE=\"Kill\"><ID>7</ID></ZNALBREQ>", LbsCommand::KILL, id7},
      {"<znalbreq type=admin></znalbreq>", LbsCommand::ADMIN, {}},
      {"<znalbreq x=\"get\"></znalbreq>", LbsCommand::GET, {}},
      {"<znalbreq type=\"kill\"junk><id>7</id></znalbreq>", LbsCommand::KILL, id7},
      // An unquoted word runs to the end of the tag content.
      {"<znalbreq type=kill/></znalbreq>", kUnknown, {}},
      {"<znalbreq type=\"status\"></znalbreq>", kUnknown, {}},
      // Only "znalbreq" and exactly one space make a request element.
      {"<znalbreq  type=\"kill\"><id>7</id></znalbreq>", kUnknown, {}},
      {"<znalbreq type=\"kill\" v=\"1\"><id>7</id></znalbreq>", kUnknown, {}},
      {"<request type=\"kill\"><id>7</id></request>", kUnknown, {}},
      {"\r\n<znalbreq type=\"kill\"><id>7</id></znalbreq>", LbsCommand::KILL, id7},
      // An unclosed quote leaves no command word; the children are still read.
      {"<znalbreq type=\"create><host>h</host></znalbreq>", kUnknown, {{"host", "h"}}},
      // Names are lowered, values kept verbatim, end tags of other names are content.
      {"<znalbreq type=\"create\"><host>a<b</host><HoSt> Srv.Example </HOST>"
       "<stat><b>1</b>2</x></stat></znalbreq>",
       LbsCommand::CREATE, {{"host", "a<b"}, {"host", " Srv.Example "}, {"stat", "<b>1</b>2</x>"}}},
      // A child without an end tag stops the reading; earlier ones stay.
      {"<znalbreq type=\"create\"><host>h</host><port>5<id>7</id></znalbreq>",
       LbsCommand::CREATE, {{"host", "h"}}},
      {"<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>\n", LbsCommand::KILL, id7},
      // A root without its end tag still gives its command, but no attributes.
      {"<znalbreq type=\"kill\"><id>7</id>", LbsCommand::KILL, {}},
      {"<znalbreq type=\"kill\"><id>7</></znalbreq>", LbsCommand::KILL, id7},
      {"", kUnknown, {}},
      {"</>", kUnknown, {}},
      {"<znalbreq ", kUnknown, {}},
  };
  for (const auto& c : cases) {
    Parsed p(c.text);
    EXPECT_EQ(c.command, p.t.getCommand()) << c.text;
    EXPECT_EQ(c.attrs, p.attrs()) << c.text;
    EXPECT_EQ(c.attrs.size(), p.t.getAttributes().getCount()) << c.text;
  }
  EXPECT_TRUE(Parsed("<znalbreq type=\"></znalbreq>").t.getErrorText() ==
              "Quoted value not terminated with a close quote");
}

TEST(TransmissionTest, RepeatedChildrenAndLookups) {
  Parsed p("<znalbreq type=\"create\"><host>first</host><port>1</port><host>second</host>"
           "</znalbreq>");
  LbsAttributes& a = p.t.getAttributes();
  OmUniString value;
  EXPECT_FALSE(a.getByName("HOST", value));
  ASSERT_TRUE(a.getByName("host", value));
  EXPECT_TRUE(value == "first");

  OmUniString* out[3] = {};
  ASSERT_TRUE(a.getAllByName("host", out, 3));
  EXPECT_TRUE(*out[0] == "first");
  EXPECT_TRUE(*out[1] == "second");
  EXPECT_EQ(&LbsAttributes::NULLSTRING, out[2]);
  EXPECT_FALSE(a.getAllByName("id", out, 3));
  EXPECT_EQ(&LbsAttributes::NULLSTRING, out[0]);
}

TEST(TransmissionTest, MarkupIsRecognisedByTheLowByte) {
  // 0x13C, 0x13E, 0x12F stand for '<', '>', '/'.
  const OmUniString::Unit units[] = {0x13C, 'h', 0x13E, 'v', 0x13C, 0x12F, 'h', 0x13E};
  Parsed p("");
  OmUniString value;
  EXPECT_EQ(7, p.t.parseAttribute(OmUniString(units, 8), value));
  EXPECT_TRUE(value == "v");
}

TEST(TransmissionTest, RandomTextsNeverCrash) {
  const std::string alphabet = "<>/=\" az";
  std::mt19937 rng(12345);
  for (int i = 0; i < 4000; ++i) {
    std::string text = (i % 2 == 0) ? "<znalbreq type=" : "";
    const int len = static_cast<int>(rng() % 40);
    for (int j = 0; j < len; ++j) text += alphabet[rng() % alphabet.size()];

    Parsed p{OmUniString(text)};
    const int c = static_cast<int>(p.t.getCommand());
    EXPECT_TRUE((c >= 0 && c < Quelm_LbsTransmission::arraySize) || c == 255) << text;
    EXPECT_EQ(p.attrs().size(), p.t.getAttributes().getCount()) << text;
    EXPECT_TRUE(Parsed(OmUniString(text)).attrs() == p.attrs()) << text;
  }
}

// Sends every message to a structured log in a fresh directory, where each
// message is exactly one line. A logger of its own keeps the test free of the
// agent's global objects.
class TransmissionLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "parserlogXXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(pattern.data()));
    dir = pattern;
    previous = OmLog::Current();
    previousDir = OmLog::LogDirectory();
    OmLog::InitLogs(&logger, OmUniString(dir));
    ASSERT_TRUE(logger.SetupCSFilters({OmUniString("*/*/*:parser.csl")}));
  }

  void TearDown() override {
    logger.SetupCSFilters({});
    OmLog::InitLogs(previous, previousDir);
    std::filesystem::remove_all(dir);
  }

  MyLogger logger;
  std::string dir;
  OmLog* previous = nullptr;
  OmUniString previousDir;
};

TEST_F(TransmissionLogTest, EachUnreadablePartIsOneLineWithItsPosition) {
  const char* kSyntax = "category=quelmloadprobe/command/error,";
  const struct {
    const char* text;
    const char* category;  // nullptr: nothing is logged
    const char* detail;
  } cases[] = {
      {"<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>", nullptr, nullptr},
      {"GET /?get&znalbinfo HTTP/1.0", nullptr, nullptr},
      // An unclosed quote is kept in the transmission only.
      {"<znalbreq type=\"kill><id>7</id></znalbreq>", nullptr, nullptr},
      {"<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>", kSyntax,
       "parameter list%0a%0a%0a at character position 1 because of "
       "[Syntax error in attribute name]"},
      // Root without end tag: the scan runs off the end of the 30-character text.
      {"<znalbreq type=kill><id>7</id>", kSyntax, "at character position 30 because"},
      // Child without end tag: reported within the remainder holding that child.
      {"<znalbreq type=kill><id>7</id><port>5</znalbreq>", kSyntax,
       "list%0a<port>5%0a at character position 7 because"},
      // "</" without a closing '>' reports one past the end.
      {"<a>x</a", kSyntax, "at character position 8 because"},
      {"", kSyntax, "at character position 1 because"},
      {"<znalbreq type=kill><id>7</></znalbreq>", "category=quelmloadprobe/attribute/error,",
       "Failed to any attributes in <id>7</>."},
  };
  size_t logged = 0;
  for (const auto& c : cases) {
    OmUniString raw(c.text);
    Quelm_LbsTransmission t(raw);
    std::vector<std::string> lines;
    std::ifstream in(dir + "/parser.csl");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    if (c.category != nullptr) ++logged;
    ASSERT_EQ(logged, lines.size()) << c.text;
    if (c.category == nullptr) continue;
    EXPECT_NE(std::string::npos, lines.back().find(c.category)) << lines.back();
    EXPECT_NE(std::string::npos, lines.back().find(c.detail)) << lines.back();
  }
}

}  // namespace
