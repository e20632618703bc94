#include "foundation/string/OmUniString.h"

#include <vector>

#include <gtest/gtest.h>

#include "string_test_util.h"

namespace {

TEST(UniStringTest, ConstructionAndAccess) {
  OmUniString s("hello");
  EXPECT_EQ(s.Buffer().Length(), 10u);  // two bytes per unit, no terminator
  EXPECT_EQ(s, Units({'h', 'e', 'l', 'l', 'o'}));
  EXPECT_EQ(OmUniString("a\0b", 3).Length(), 3u);
  EXPECT_EQ(OmUniString("\xe9")[0], 0xe9);  // one unit per byte
  EXPECT_EQ(OmUniString(""), OmUniString());
  EXPECT_EQ(s.At(4), 'o');
  EXPECT_EQ(s.At(5), 0);  // bounds-checked
  EXPECT_EQ(OmUniString().At(0), 0);
}

TEST(UniStringTest, CopyOnWrite) {
  OmUniString a("hello");
  OmUniString b(a);
  EXPECT_TRUE(a.Buffer().SharesWith(b.Buffer()));
  b.SetAt(0, 'J');
  OmUniString c = a;
  c += OmUniString("!");
  OmUniString d(a);
  d.Substitute("l", "L");
  EXPECT_EQ(a, "hello");
  EXPECT_EQ(b, "Jello");
  EXPECT_EQ(c, "hello!");
  EXPECT_EQ(d, "heLLo");
}

TEST(UniStringTest, Ordering) {
  EXPECT_NE(OmUniString("abc"), OmUniString("ab"));
  EXPECT_NE(OmUniString(), OmUniString("a"));
  EXPECT_TRUE(OmUniString("x") == "x");
  EXPECT_TRUE(OmUniString("abc") < OmUniString("abd"));
  EXPECT_TRUE(OmUniString("ab") < OmUniString("abc"));
  EXPECT_FALSE(OmUniString("abc") < OmUniString("ab"));
  EXPECT_TRUE(OmUniString() < OmUniString("a"));
  EXPECT_FALSE(OmUniString("abc") < OmUniString("abc"));
  // By unit value, not by the bytes in memory.
  EXPECT_TRUE(Units({0x00ff}) < Units({0x0100}));
  EXPECT_FALSE(Units({0x0100}) < Units({0x00ff}));
}

TEST(UniStringTest, Search) {
  const OmUniString s("hello world");
  const OmUniString r("abcabc");
  const struct {
    long got;
    long expected;
  } cases[] = {
      {s.Search('l'), 2},
      {s.Search('z'), -1},
      {s.SearchFrom(3, 'l'), 3},
      {s.SearchFrom(4, 'l'), 9},
      {s.SearchFrom(50, 'l'), -1},
      {s.Search(OmUniString("world")), 6},
      {s.Search(OmUniString("worlds")), -1},
      {s.SearchFrom(5, OmUniString("o")), 7},
      {s.SearchFrom(8, OmUniString("o")), -1},
      {OmUniString().Search('a'), -1},
      {r.SearchReverse('a'), 3},
      {r.SearchReverseFrom(2, 'a'), 0},
      {r.SearchReverseFrom(1, 'c'), -1},
      {r.SearchReverseFrom(5, OmUniString("bc")), 4},
      {r.SearchReverseFrom(3, OmUniString("bc")), 1},
      {r.SearchReverseFrom(0, OmUniString("bc")), -1},
      {OmUniString().SearchReverse('a'), -1},
      {OmUniString("  \tx y").SearchFirstNotIn(" \t"), 3},
      {OmUniString(" \t ").SearchFirstNotIn(" \t"), -1},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(cases[i].got, cases[i].expected) << "case " << i;
  }
}

TEST(UniStringTest, SubstituteReplacesEveryOccurrence) {
  const struct {
    const char *text, *from, *to, *result;
    unsigned count;
  } cases[] = {
      {"a.b.c", ".", "..", "a..b..c", 2},  // inserted text is not scanned again
      {"aaa", "a", "aa", "aaaaaa", 3},
      {"aaa", "aa", "b", "ba", 1},  // left to right, no overlap
      {"abab", "ab", "", "", 2},
      {"hello", "xyz", "q", "hello", 0},
      {"$HOME/bin:$HOME", "$HOME", "/root", "/root/bin:/root", 2},
  };
  for (const auto& c : cases) {
    OmUniString s(c.text);
    EXPECT_EQ(s.Substitute(c.from, c.to), c.count) << c.text;
    EXPECT_EQ(s, c.result) << c.text;
  }
}

TEST(UniStringTest, Editing) {
  OmUniString s("hello");
  EXPECT_EQ(s.SubString(1, 3), "ell");
  EXPECT_EQ(s.SubString(1), "ello");
  EXPECT_EQ(s.SubString(3, 10), "lo");
  EXPECT_EQ(s.SubString(5, 2), "");
  EXPECT_EQ(s.SubString(10, 2), "");
  EXPECT_EQ(s + OmUniString("!"), "hello!");
  EXPECT_EQ(OmUniString() + s, "hello");
  OmUniString c;
  c.Append('x').Append(Units({'y', 'z'}).Units(), 2);
  EXPECT_EQ(c, "xyz");
  s = "held";
  s.Insert(3, "lo wor");
  s.Insert(0, ">");
  s.Insert(s.Length(), "<");
  EXPECT_EQ(s, ">hello word<");
  s.Remove(0, 1);
  s.Remove(2, 3);
  EXPECT_EQ(s, "he word<");
  s.Truncate(2);
  EXPECT_EQ(s, "he");
  s.Truncate(5);
  EXPECT_EQ(s.Length(), 5u);
  EXPECT_EQ(s.SubString(0, 2), "he");
  OmUniString p("ab");
  p.Pad(5, 'x');
  EXPECT_EQ(p, "abxxx");
  p.Pad(5, 'y');
  EXPECT_EQ(p, "abxxx");
  p.Pad(1, 'z');
  EXPECT_EQ(p, "a");
}

TEST(UniStringTest, CaseOfAsciiLettersOnly) {
  EXPECT_TRUE(OmUniString().MatchCaseless(OmUniString()));
  EXPECT_TRUE(OmUniString("HeLLo").MatchCaseless(OmUniString("hello")));
  EXPECT_FALSE(OmUniString("abc").MatchCaseless(OmUniString("abcd")));
  EXPECT_FALSE(OmUniString("abcd").MatchCaseless(OmUniString("abc")));
  EXPECT_FALSE(OmUniString("[").MatchCaseless(OmUniString("{")));
  for (OmUniString::Unit u : {'@', '[', '`', '{', '0', ' '}) {
    EXPECT_EQ(OmUniString::Lower(u), u) << u;
    EXPECT_EQ(OmUniString::Upper(u), u) << u;
  }
  EXPECT_EQ(OmUniString("AZaz-1").Lowered(), "azaz-1");
  EXPECT_EQ(OmUniString("AZaz-1").Uppered(), "AZAZ-1");
}

TEST(UniStringTest, SplitJoinAndHex) {
  std::vector<OmUniString> fields;
  Split(OmUniString(",a,,b,"), fields, ',');
  EXPECT_EQ(fields, (std::vector<OmUniString>{"", "a", "", "b", ""}));
  EXPECT_EQ(Join(fields, OmUniString::Unit(':')), ":a::b:");
  EXPECT_EQ(Join({"a", "b"}, OmUniString(", ")), "a, b");
  EXPECT_EQ(Join({"only"}, OmUniString::Unit(':')), "only");
  // Prefix, case and leading zeros are free; the digits are not.
  EXPECT_NE(Hex(static_cast<unsigned char>(0xab)).Lowered().Search(OmUniString("ab")), -1);
  EXPECT_NE(Hex(0xdeadbeefu).Lowered().Search(OmUniString("deadbeef")), -1);
  EXPECT_NE(Hex(0x1234567890abcdefULL).Lowered().Search(OmUniString("1234567890abcdef")), -1);
}

TEST(WildcardMatchTest, Patterns) {
  const struct {
    const char* pattern;
    std::vector<const char*> match, differ;
  } cases[] = {
      {"*", {"", "anything at all"}, {}},
      {"**", {""}, {}},
      {"", {""}, {"a"}},
      {"abc", {"abc"}, {"abcd", "ab"}},
      {"*error", {"error", "fatalerror"}, {"errors", "rror"}},
      {"?", {"a"}, {"", "ab"}},
      {"a?c", {"abc"}, {"ac"}},
      {"a*b*c", {"abc", "abbc", "abcbc", "aXcbXbYc"}, {"acb", "abcx", "bc"}},
      {"*a?", {"aab"}, {}},
      {"*.log", {"x.log.log"}, {}},
      {"ERR*", {}, {"error"}},
      {"a\\*", {"a\\bc"}, {}},  // without an escape unit a backslash is literal
  };
  for (const auto& c : cases) {
    for (const char* text : c.match)
      EXPECT_TRUE(OmWildcardMatch(c.pattern, text)) << c.pattern << " / " << text;
    for (const char* text : c.differ)
      EXPECT_FALSE(OmWildcardMatch(c.pattern, text)) << c.pattern << " / " << text;
  }
  EXPECT_TRUE(OmWildcardMatch("??", Units({0x4e2d, 0x6587})));
}

TEST(WildcardMatchTest, CaselessOtherUnitsAndEscape) {
  EXPECT_TRUE(OmWildcardMatch("*Fatal?rror", "quelm/FATALERROR", true));
  EXPECT_TRUE(OmWildcardMatch("a%c", "abbbc", false, '%', '_'));
  EXPECT_TRUE(OmWildcardMatch("a_c", "abc", false, '%', '_'));
  EXPECT_FALSE(OmWildcardMatch("a*c", "abc", false, '%', '_'));  // '*' is now ordinary
  EXPECT_TRUE(OmWildcardMatch("a\\*", "a*", false, '*', '?', '\\'));
  EXPECT_FALSE(OmWildcardMatch("a\\*", "ab", false, '*', '?', '\\'));
  EXPECT_TRUE(OmWildcardMatch("\\?*", "?x", false, '*', '?', '\\'));
  EXPECT_FALSE(OmWildcardMatch("\\?*", "xx", false, '*', '?', '\\'));
}

}  // namespace
