#include "command/Quelm_LbsTransmission.h"

#include <vector>

#include "AgentFixture.h"

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

// Text after the children is one syntax error.
using TransmissionLogTest = AgentTest;
TEST_F(TransmissionLogTest, TrailingTextIsOneSyntaxError) {
  Parsed p("<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>");
  EXPECT_EQ(1u, logged("quelmloadprobe/command/error"));
  EXPECT_EQ(1u, logged("at character position 1 because of [Syntax error in attribute name]"));
}

}  // namespace
