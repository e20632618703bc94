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

  LbsCommand command() const { return t.getCommand(); }
  Attrs attrs() {
    Attrs out;
    for (const LbsAttribute* a = t.getAttributes().getHead(); a != nullptr; a = a->next) {
      out.emplace_back(a->name.AsUtf8(), a->value.AsUtf8());
    }
    return out;
  }
};

const char kCreate[] =
    "<znalbreq type=\"create\"><host>10.1.2.3</host><port>5555</port><samplerate>1</samplerate>"
    "<windowsize>5</windowsize><replyfreq>10</replyfreq><percentchange>20</percentchange>"
    "<stat>cpu</stat><version>1.0</version></znalbreq>";

TEST(TransmissionTest, GetLineAnywhereIgnoresTheRest) {
  Parsed p("GET /?get&znalbinfo HTTP/1.1\r\nHost: probe\r\n\r\n"
           "<znalbreq type=\"create\"><host>h</host></znalbreq>");
  EXPECT_EQ(LbsCommand::GET, p.command());
  EXPECT_EQ(0u, p.t.getAttributes().getCount());
  EXPECT_TRUE(p.t.getCurrentValue() == "GET");
  EXPECT_EQ(&p.raw, &p.t.getRawTransmission());
  EXPECT_TRUE(p.t.isValid());

  // Case-sensitive: a lower-case get line is not the get form.
  Parsed lower("get /?get&znalbinfo");
  EXPECT_EQ(LbsCommand::UNKNOWN, lower.command());
}

TEST(TransmissionTest, CreateExampleKeepsAttributeOrder) {
  Parsed p(kCreate);
  EXPECT_EQ(LbsCommand::CREATE, p.command());
  EXPECT_TRUE(p.t.getCurrentValue() == "CREATE");
  const Attrs expected = {{"host", "10.1.2.3"}, {"port", "5555"},       {"samplerate", "1"},
                          {"windowsize", "5"},  {"replyfreq", "10"},    {"percentchange", "20"},
                          {"stat", "cpu"},      {"version", "1.0"}};
  EXPECT_EQ(expected, p.attrs());
  EXPECT_EQ(8u, p.t.getAttributes().getCount());
}

TEST(TransmissionTest, CommandWordForms) {
  EXPECT_EQ(LbsCommand::KILL, Parsed("<ZNALBREQ TYPE=\"Kill\"><ID>7</ID></ZNALBREQ>").command());
  EXPECT_EQ(LbsCommand::ADMIN, Parsed("<znalbreq type=admin></znalbreq>").command());
  EXPECT_EQ(LbsCommand::GET, Parsed("<znalbreq x=\"get\"></znalbreq>").command());
  // Text after the closing quote is ignored.
  EXPECT_EQ(LbsCommand::KILL, Parsed("<znalbreq type=\"kill\"junk></znalbreq>").command());
  // An unquoted word runs to the end of the tag content.
  EXPECT_EQ(LbsCommand::UNKNOWN, Parsed("<znalbreq type=kill/></znalbreq>").command());
  EXPECT_EQ(LbsCommand::UNKNOWN, Parsed("<znalbreq type=\"status\"></znalbreq>").command());
  EXPECT_EQ(LbsCommand::UNKNOWN, Parsed("<znalbreq type=></znalbreq>").command());
  EXPECT_EQ(LbsCommand::UNKNOWN, Parsed("<znalbreq create></znalbreq>").command());
}

TEST(TransmissionTest, UnclosedQuoteGivesUnknownButChildrenAreRead) {
  Parsed p("<znalbreq type=\"create><host>h</host></znalbreq>");
  EXPECT_EQ(LbsCommand::UNKNOWN, p.command());
  EXPECT_TRUE(p.t.getErrorText() == "Quoted value not terminated with a close quote");
  EXPECT_EQ((Attrs{{"host", "h"}}), p.attrs());

  Parsed atEnd("<znalbreq type=\"></znalbreq>");
  EXPECT_EQ(LbsCommand::UNKNOWN, atEnd.command());
  EXPECT_FALSE(atEnd.t.getErrorText().IsEmpty());

  EXPECT_TRUE(Parsed(kCreate).t.getErrorText().IsEmpty());
}

TEST(TransmissionTest, RootMustBeZnalbreqWithOneSpace) {
  Parsed two("<znalbreq  type=\"kill\"><id>7</id></znalbreq>");
  EXPECT_EQ(LbsCommand::UNKNOWN, two.command());
  EXPECT_EQ(0u, two.t.getAttributes().getCount());

  Parsed other("<request type=\"kill\"><id>7</id></request>");
  EXPECT_EQ(LbsCommand::UNKNOWN, other.command());
  EXPECT_EQ(0u, other.t.getAttributes().getCount());

  // A second attribute in the root tag moves the element word past the name.
  Parsed more("<znalbreq type=\"kill\" v=\"1\"><id>7</id></znalbreq>");
  EXPECT_EQ(LbsCommand::UNKNOWN, more.command());

  // Leading text before the root tag is passed over.
  Parsed lead("\r\n<znalbreq type=\"kill\"><id>7</id></znalbreq>");
  EXPECT_EQ(LbsCommand::KILL, lead.command());
  EXPECT_EQ((Attrs{{"id", "7"}}), lead.attrs());
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

TEST(TransmissionTest, ValuesAreVerbatimNamesLowered) {
  Parsed p("<znalbreq type=\"create\"><host>a<b</host><HoSt> Srv.Example </HOST>"
           "<stat><b>1</b></stat></znalbreq>");
  EXPECT_EQ((Attrs{{"host", "a<b"}, {"host", " Srv.Example "}, {"stat", "<b>1</b>"}}), p.attrs());
  OmUniString value("untouched");
  EXPECT_FALSE(p.t.getAttributes().getByName("HOST", value));
  EXPECT_TRUE(value == "untouched");
}

TEST(TransmissionTest, BrokenChildrenKeepEarlierAttributes) {
  // A child without an end tag stops the reading.
  Parsed open("<znalbreq type=\"create\"><host>h</host><port>5<id>7</id></znalbreq>");
  EXPECT_EQ(LbsCommand::CREATE, open.command());
  EXPECT_EQ((Attrs{{"host", "h"}}), open.attrs());

  // Trailing text after the last child has no effect on the result.
  Parsed trailing("<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>\n");
  EXPECT_EQ(LbsCommand::KILL, trailing.command());
  EXPECT_EQ((Attrs{{"id", "7"}}), trailing.attrs());

  // Without its end tag the root still gives its command, but no attributes.
  Parsed rootOpen("<znalbreq type=\"kill\"><id>7</id>");
  EXPECT_EQ(LbsCommand::KILL, rootOpen.command());
  EXPECT_EQ(0u, rootOpen.t.getAttributes().getCount());

  // An empty end tag closes a child whose start tag holds no space.
  Parsed empty("<znalbreq type=\"kill\"><id>7</></znalbreq>");
  EXPECT_EQ((Attrs{{"id", "7"}}), empty.attrs());
}

TEST(TransmissionTest, DegenerateTextsAreUnknown) {
  for (const char* text : {"", "<", ">", "</>", "<>", "<></>", "/", "\"", "=", "< >", "<znalbreq "}) {
    Parsed p(text);
    EXPECT_EQ(LbsCommand::UNKNOWN, p.command()) << text;
    EXPECT_EQ(0u, p.t.getAttributes().getCount()) << text;
  }
}

TEST(TransmissionTest, ShowCommand) {
  Parsed p("");
  EXPECT_TRUE(p.t.showCommand(LbsCommand::CREATE) == "CREATE");
  EXPECT_TRUE(p.t.showCommand(LbsCommand::KILL) == "KILL");
  EXPECT_TRUE(p.t.showCommand(LbsCommand::ADMIN) == "ADMIN");
  EXPECT_TRUE(p.t.showCommand(LbsCommand::GET) == "GET");
  EXPECT_TRUE(p.t.showCommand(LbsCommand::UNKNOWN) == "UNKNOWN");
  EXPECT_TRUE(p.t.showCommand(static_cast<LbsCommand>(4)) == "UNKNOWN");
  EXPECT_TRUE(p.t.showCommand(static_cast<LbsCommand>(-1)) == "UNKNOWN");
}

TEST(TransmissionTest, ParseAttributeReturnsEndTagIndex) {
  Parsed p("");
  OmUniString value;
  EXPECT_EQ(7, p.t.parseAttribute(OmUniString("<a>x</a>tail"), value));
  EXPECT_TRUE(value == "x");

  // The end tag may name the element word instead of the whole content.
  EXPECT_EQ(19, p.t.parseAttribute(OmUniString("<Stat k=v>cpu</STAT>"), value));
  EXPECT_TRUE(value == "cpu");

  // A start tag that does not begin at 0 still counts; a mismatched end tag is content.
  EXPECT_EQ(14, p.t.parseAttribute(OmUniString("xx<a>1</b>2</a>"), value));
  EXPECT_TRUE(value == "1</b>2");

  value = "kept";
  EXPECT_EQ(0, p.t.parseAttribute(OmUniString(""), value));
  EXPECT_EQ(0, p.t.parseAttribute(OmUniString("<a>x</a"), value));
  EXPECT_EQ(0, p.t.parseAttribute(OmUniString("<a>x<"), value));
  EXPECT_EQ(0, p.t.parseAttribute(OmUniString("<a>x<</a>"), value));  // "<<" skips the '/'
  EXPECT_TRUE(value == "kept");
}

TEST(TransmissionTest, MarkupIsRecognisedByTheLowByte) {
  // 0x13C, 0x13E, 0x12F stand for '<', '>', '/'.
  const OmUniString::Unit units[] = {0x13C, 'h', 0x13E, 'v', 0x13C, 0x12F, 'h', 0x13E};
  Parsed p("");
  OmUniString value;
  EXPECT_EQ(7, p.t.parseAttribute(OmUniString(units, 8), value));
  EXPECT_TRUE(value == "v");
}

TEST(LbsAttributesTest, AddAndLookUp) {
  LbsAttributes a;
  EXPECT_EQ(1, a.addAttribute("stat", "cpu"));
  EXPECT_EQ(1, a.addAttribute("id", "7"));
  EXPECT_EQ(1, a.addAttribute("stat", "bogo"));
  EXPECT_EQ(1, a.addAttribute("stat", "vmem"));
  EXPECT_EQ(4u, a.getCount());

  OmUniString value;
  EXPECT_FALSE(a.getByName("Stat", value));
  EXPECT_TRUE(value.IsEmpty());

  OmUniString* two[2] = {};
  ASSERT_TRUE(a.getAllByName("stat", two, 2));
  EXPECT_TRUE(*two[0] == "cpu");
  EXPECT_TRUE(*two[1] == "bogo");

  OmUniString* none[3] = {};
  EXPECT_FALSE(a.getAllByName("port", none, 3));
  for (OmUniString* s : none) EXPECT_EQ(&LbsAttributes::NULLSTRING, s);
  EXPECT_FALSE(a.getAllByName("stat", none, 0));
}

TEST(TransmissionTest, RandomTextsNeverCrash) {
  const std::string alphabet = "<>/=\" az";
  std::mt19937 rng(12345);
  for (int i = 0; i < 4000; ++i) {
    std::string text = (i % 2 == 0) ? "<znalbreq type=" : "";
    const int len = static_cast<int>(rng() % 40);
    for (int j = 0; j < len; ++j) text += alphabet[rng() % alphabet.size()];

    Parsed p{OmUniString(text)};
    const int c = static_cast<int>(p.command());
    EXPECT_TRUE((c >= 0 && c < Quelm_LbsTransmission::arraySize) || c == 255) << text;
    unsigned n = 0;
    for (const LbsAttribute* a = p.t.getAttributes().getHead(); a != nullptr; a = a->next) ++n;
    EXPECT_EQ(n, p.t.getAttributes().getCount()) << text;
    EXPECT_TRUE(Parsed(OmUniString(text)).attrs() == p.attrs()) << text;
  }
}

}  // namespace
