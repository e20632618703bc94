#include "command/Quelm_LbsTransmission.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

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

}  // namespace
