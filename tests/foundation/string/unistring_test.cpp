#include "foundation/string/OmUniString.h"

#include <gtest/gtest.h>

#include "string_test_util.h"

namespace {

TEST(UniStringTest, ConstructionFromText) {
  OmUniString s("hello");
  EXPECT_EQ(s.Length(), 5u);
  EXPECT_EQ(s.Buffer().Length(), 10u);  // two bytes per unit, no terminator
  EXPECT_EQ(s[0], 'h');
  EXPECT_EQ(s[4], 'o');
  EXPECT_EQ(s, Units({'h', 'e', 'l', 'l', 'o'}));

  EXPECT_EQ(OmUniString("a\0b", 3).Length(), 3u);
  EXPECT_EQ(OmUniString("\xe9")[0], 0xe9);  // one unit per byte
  EXPECT_TRUE(OmUniString("").IsEmpty());
  EXPECT_EQ(OmUniString(""), OmUniString());
}

TEST(UniStringTest, AtIsBoundsChecked) {
  OmUniString s("ab");
  EXPECT_EQ(s.At(1), 'b');
  EXPECT_EQ(s.At(2), 0);
  EXPECT_EQ(OmUniString().At(0), 0);
}

TEST(UniStringTest, CopyOnWrite) {
  OmUniString a("hello");
  OmUniString b(a);
  EXPECT_TRUE(a.Buffer().SharesWith(b.Buffer()));
  b.SetAt(0, 'J');
  EXPECT_EQ(a, "hello");
  EXPECT_EQ(b, "Jello");

  OmUniString c = a;
  c += OmUniString("!");
  EXPECT_EQ(a, "hello");
  EXPECT_EQ(c, "hello!");
}

TEST(UniStringTest, Equality) {
  EXPECT_EQ(OmUniString("abc"), OmUniString("abc"));
  EXPECT_NE(OmUniString("abc"), OmUniString("abd"));
  EXPECT_NE(OmUniString("abc"), OmUniString("ab"));
  EXPECT_NE(OmUniString("ab"), OmUniString("abc"));
  EXPECT_NE(OmUniString(), OmUniString("a"));
  EXPECT_TRUE(OmUniString("x") == "x");
  EXPECT_TRUE(OmUniString("x") != "y");
}

TEST(UniStringTest, LessThan) {
  EXPECT_TRUE(OmUniString("abc") < OmUniString("abd"));
  EXPECT_FALSE(OmUniString("abd") < OmUniString("abc"));
  EXPECT_TRUE(OmUniString("ab") < OmUniString("abc"));
  EXPECT_FALSE(OmUniString("abc") < OmUniString("ab"));
  EXPECT_TRUE(OmUniString() < OmUniString("a"));
  EXPECT_FALSE(OmUniString("a") < OmUniString());
  EXPECT_FALSE(OmUniString("abc") < OmUniString("abc"));
  // Order is by unit value, not by the bytes in memory.
  EXPECT_TRUE(Units({0x00ff}) < Units({0x0100}));
  EXPECT_FALSE(Units({0x0100}) < Units({0x00ff}));
}

TEST(UniStringTest, Concatenation) {
  OmUniString a("ab");
  OmUniString b("cd");
  EXPECT_EQ(a + b, "abcd");
  EXPECT_EQ(a, "ab");
  EXPECT_EQ(b, "cd");
  EXPECT_EQ(OmUniString() + a, "ab");
  EXPECT_EQ(a + OmUniString(), "ab");
  OmUniString c;
  c.Append('x').Append(Units({'y', 'z'}).Units(), 2);
  EXPECT_EQ(c, "xyz");
}

TEST(UniStringTest, SubStringClips) {
  OmUniString s("hello");
  EXPECT_EQ(s.SubString(1, 3), "ell");
  EXPECT_EQ(s.SubString(1), "ello");
  EXPECT_EQ(s.SubString(3, 10), "lo");
  EXPECT_EQ(s.SubString(5, 2), "");
  EXPECT_EQ(s.SubString(10, 2), "");
  EXPECT_EQ(s.SubString(0, 0), "");
  EXPECT_EQ(s.SubString(0), "hello");
}

TEST(UniStringTest, SearchForward) {
  OmUniString s("hello world");
  EXPECT_EQ(s.Search('l'), 2);
  EXPECT_EQ(s.Search('z'), -1);
  EXPECT_EQ(s.SearchFrom(3, 'l'), 3);
  EXPECT_EQ(s.SearchFrom(4, 'l'), 9);
  EXPECT_EQ(s.SearchFrom(10, 'l'), -1);
  EXPECT_EQ(s.SearchFrom(50, 'l'), -1);
  EXPECT_EQ(s.Search(OmUniString("lo")), 3);
  EXPECT_EQ(s.Search(OmUniString("world")), 6);
  EXPECT_EQ(s.Search(OmUniString("worlds")), -1);
  EXPECT_EQ(s.SearchFrom(4, OmUniString("o")), 4);
  EXPECT_EQ(s.SearchFrom(5, OmUniString("o")), 7);
  EXPECT_EQ(s.SearchFrom(8, OmUniString("o")), -1);
  EXPECT_EQ(OmUniString().Search('a'), -1);
}

TEST(UniStringTest, SearchReverse) {
  OmUniString s("abcabc");
  EXPECT_EQ(s.SearchReverse('a'), 3);
  EXPECT_EQ(s.SearchReverse('c'), 5);
  EXPECT_EQ(s.SearchReverse('z'), -1);
  EXPECT_EQ(s.SearchReverseFrom(4, 'a'), 3);
  EXPECT_EQ(s.SearchReverseFrom(2, 'a'), 0);
  EXPECT_EQ(s.SearchReverseFrom(1, 'c'), -1);
  EXPECT_EQ(s.SearchReverseFrom(5, OmUniString("bc")), 4);
  EXPECT_EQ(s.SearchReverseFrom(3, OmUniString("bc")), 1);
  EXPECT_EQ(s.SearchReverseFrom(0, OmUniString("bc")), -1);
  EXPECT_EQ(s.SearchReverseFrom(5, OmUniString("xy")), -1);
  EXPECT_EQ(OmUniString().SearchReverse('a'), -1);
}

TEST(UniStringTest, SearchFirstNotIn) {
  OmUniString blanks(" \t");
  EXPECT_EQ(OmUniString("  \tx y").SearchFirstNotIn(blanks), 3);
  EXPECT_EQ(OmUniString("x").SearchFirstNotIn(blanks), 0);
  EXPECT_EQ(OmUniString(" \t ").SearchFirstNotIn(blanks), -1);
  EXPECT_EQ(OmUniString().SearchFirstNotIn(blanks), -1);
}

TEST(UniStringTest, SubstituteReplacesEveryOccurrence) {
  OmUniString s("a.b.c");
  EXPECT_EQ(s.Substitute(".", ".."), 2u);  // inserted text is not scanned again
  EXPECT_EQ(s, "a..b..c");

  OmUniString t("aaa");
  EXPECT_EQ(t.Substitute("a", "aa"), 3u);
  EXPECT_EQ(t, "aaaaaa");

  OmUniString u("aaa");
  EXPECT_EQ(u.Substitute("aa", "b"), 1u);  // left to right, no overlap
  EXPECT_EQ(u, "ba");

  OmUniString v("abab");
  EXPECT_EQ(v.Substitute("ab", ""), 2u);
  EXPECT_EQ(v, "");

  OmUniString w("hello");
  EXPECT_EQ(w.Substitute("xyz", "q"), 0u);
  EXPECT_EQ(w, "hello");

  OmUniString x("$HOME/bin:$HOME");
  EXPECT_EQ(x.Substitute("$HOME", "/root"), 2u);
  EXPECT_EQ(x, "/root/bin:/root");
}

TEST(UniStringTest, SubstituteOnACopyLeavesTheOriginal) {
  OmUniString a("x-y");
  OmUniString b(a);
  b.Substitute("-", "+");
  EXPECT_EQ(a, "x-y");
  EXPECT_EQ(b, "x+y");
}

TEST(UniStringTest, InsertAndRemove) {
  OmUniString s("held");
  s.Insert(3, "lo wor");
  EXPECT_EQ(s, "hello word");
  s.Insert(0, ">");
  EXPECT_EQ(s, ">hello word");
  s.Insert(s.Length(), "<");
  EXPECT_EQ(s, ">hello word<");
  s.Remove(0, 1);
  EXPECT_EQ(s, "hello word<");
  s.Remove(2, 3);
  EXPECT_EQ(s, "he word<");
  s.Remove(s.Length() - 1, 1);
  EXPECT_EQ(s, "he word");
}

TEST(UniStringTest, TruncateCutsAndExtends) {
  OmUniString s("hello");
  s.Truncate(2);
  EXPECT_EQ(s, "he");
  s.Truncate(5);
  EXPECT_EQ(s.Length(), 5u);
  EXPECT_EQ(s.SubString(0, 2), "he");
  s.Truncate(0);
  EXPECT_TRUE(s.IsEmpty());
}

TEST(UniStringTest, PadFillsOrTruncates) {
  OmUniString s("ab");
  s.Pad(5, 'x');
  EXPECT_EQ(s, "abxxx");
  s.Pad(5, 'y');
  EXPECT_EQ(s, "abxxx");
  s.Pad(1, 'z');
  EXPECT_EQ(s, "a");
  OmUniString e;
  e.Pad(3, '0');
  EXPECT_EQ(e, "000");
}

TEST(UniStringTest, MatchCaseless) {
  EXPECT_TRUE(OmUniString().MatchCaseless(OmUniString()));
  EXPECT_TRUE(OmUniString("").MatchCaseless(OmUniString()));
  EXPECT_TRUE(OmUniString("HeLLo").MatchCaseless(OmUniString("hello")));
  EXPECT_TRUE(OmUniString("get").MatchCaseless(OmUniString("GET")));
  EXPECT_FALSE(OmUniString("abc").MatchCaseless(OmUniString("abcd")));
  EXPECT_FALSE(OmUniString("abcd").MatchCaseless(OmUniString("abc")));
  EXPECT_FALSE(OmUniString("abc").MatchCaseless(OmUniString("abd")));
  EXPECT_FALSE(OmUniString().MatchCaseless(OmUniString("a")));
  // '[' and '{' are not the cases of one another.
  EXPECT_FALSE(OmUniString("[").MatchCaseless(OmUniString("{")));
}

TEST(UniStringTest, LowerAndUpperOfAscii) {
  EXPECT_EQ(OmUniString::Lower('A'), 'a');
  EXPECT_EQ(OmUniString::Lower('Z'), 'z');
  EXPECT_EQ(OmUniString::Lower('a'), 'a');
  EXPECT_EQ(OmUniString::Upper('a'), 'A');
  EXPECT_EQ(OmUniString::Upper('z'), 'Z');
  EXPECT_EQ(OmUniString::Upper('Q'), 'Q');
  // Neighbours of the letter ranges and other non-letters are unchanged.
  for (OmUniString::Unit u : {'@', '[', '`', '{', '0', '9', ' ', '-'}) {
    EXPECT_EQ(OmUniString::Lower(u), u) << u;
    EXPECT_EQ(OmUniString::Upper(u), u) << u;
  }
  EXPECT_EQ(OmUniString("MiXed-1").Lowered(), "mixed-1");
  EXPECT_EQ(OmUniString("MiXed-1").Uppered(), "MIXED-1");
}

TEST(UniStringTest, SplitKeepsEmptyFields) {
  std::vector<OmUniString> fields;
  Split(OmUniString("a,,b,"), fields, ',');
  ASSERT_EQ(fields.size(), 4u);
  EXPECT_EQ(fields[0], "a");
  EXPECT_EQ(fields[1], "");
  EXPECT_EQ(fields[2], "b");
  EXPECT_EQ(fields[3], "");

  std::vector<OmUniString> one;
  Split(OmUniString("abc"), one, ',');
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0], "abc");

  std::vector<OmUniString> leading;
  Split(OmUniString(",x"), leading, ',');
  ASSERT_EQ(leading.size(), 2u);
  EXPECT_EQ(leading[0], "");
  EXPECT_EQ(leading[1], "x");
}

TEST(UniStringTest, Join) {
  std::vector<OmUniString> list = {"a", "b", "c"};
  EXPECT_EQ(Join(list, OmUniString(", ")), "a, b, c");
  EXPECT_EQ(Join(list, OmUniString::Unit(':')), "a:b:c");
  EXPECT_EQ(Join({"only"}, OmUniString::Unit(':')), "only");
  EXPECT_EQ(Join({"a", "", "b"}, OmUniString::Unit(',')), "a,,b");
}

TEST(UniStringTest, HexHoldsTheDigits) {
  // Prefix, case and leading zeros are free; the digits themselves are not.
  EXPECT_NE(Hex(static_cast<unsigned char>(0xab)).Lowered().Search(OmUniString("ab")), -1);
  EXPECT_NE(Hex(static_cast<unsigned short>(0xbeef)).Lowered().Search(OmUniString("beef")), -1);
  EXPECT_NE(Hex(0xdeadbeefu).Lowered().Search(OmUniString("deadbeef")), -1);
  EXPECT_NE(Hex(0x1234567890abcdefULL).Lowered().Search(OmUniString("1234567890abcdef")), -1);
}

TEST(WildcardMatchTest, StarMatchesAnything) {
  EXPECT_TRUE(OmWildcardMatch("*", ""));
  EXPECT_TRUE(OmWildcardMatch("*", "anything at all"));
  EXPECT_TRUE(OmWildcardMatch("**", ""));
}

TEST(WildcardMatchTest, LiteralPatterns) {
  EXPECT_TRUE(OmWildcardMatch("", ""));
  EXPECT_FALSE(OmWildcardMatch("", "a"));
  EXPECT_TRUE(OmWildcardMatch("abc", "abc"));
  EXPECT_FALSE(OmWildcardMatch("abc", "abcd"));
  EXPECT_FALSE(OmWildcardMatch("abcd", "abc"));
}

TEST(WildcardMatchTest, TrailingLiteral) {
  EXPECT_TRUE(OmWildcardMatch("*error", "error"));
  EXPECT_TRUE(OmWildcardMatch("*error", "fatalerror"));
  EXPECT_FALSE(OmWildcardMatch("*error", "errors"));
  EXPECT_FALSE(OmWildcardMatch("*error", "rror"));
  EXPECT_TRUE(OmWildcardMatch("quelm*", "quelmloadprobe"));
}

TEST(WildcardMatchTest, QuestionMatchesExactlyOneUnit) {
  EXPECT_TRUE(OmWildcardMatch("?", "a"));
  EXPECT_FALSE(OmWildcardMatch("?", ""));
  EXPECT_FALSE(OmWildcardMatch("?", "ab"));
  EXPECT_TRUE(OmWildcardMatch("a?c", "abc"));
  EXPECT_FALSE(OmWildcardMatch("a?c", "ac"));
  EXPECT_TRUE(OmWildcardMatch("??", Units({0x4e2d, 0x6587})));
}

TEST(WildcardMatchTest, Backtracking) {
  EXPECT_TRUE(OmWildcardMatch("a*b*c", "abc"));
  EXPECT_TRUE(OmWildcardMatch("a*b*c", "aXbYc"));
  EXPECT_TRUE(OmWildcardMatch("a*b*c", "abbc"));
  EXPECT_TRUE(OmWildcardMatch("a*b*c", "abcbc"));
  EXPECT_TRUE(OmWildcardMatch("a*b*c", "aXcbXbYc"));
  EXPECT_FALSE(OmWildcardMatch("a*b*c", "acb"));
  EXPECT_FALSE(OmWildcardMatch("a*b*c", "abcx"));
  EXPECT_FALSE(OmWildcardMatch("a*b*c", "bc"));
  EXPECT_TRUE(OmWildcardMatch("*a?", "aab"));
  EXPECT_TRUE(OmWildcardMatch("*.log", "x.log.log"));
}

TEST(WildcardMatchTest, Caseless) {
  EXPECT_FALSE(OmWildcardMatch("ERR*", "error"));
  EXPECT_TRUE(OmWildcardMatch("ERR*", "error", true));
  EXPECT_TRUE(OmWildcardMatch("*Fatal?rror", "quelm/FATALERROR", true));
  EXPECT_FALSE(OmWildcardMatch("*Fatal?rror", "quelm/FATALERROR", false));
}

TEST(WildcardMatchTest, OtherWildcardUnits) {
  EXPECT_TRUE(OmWildcardMatch("a%c", "abbbc", false, '%', '_'));
  EXPECT_TRUE(OmWildcardMatch("a_c", "abc", false, '%', '_'));
  // '*' is then an ordinary unit.
  EXPECT_FALSE(OmWildcardMatch("a*c", "abc", false, '%', '_'));
  EXPECT_TRUE(OmWildcardMatch("a*c", "a*c", false, '%', '_'));
}

TEST(WildcardMatchTest, EscapeMakesTheNextUnitLiteral) {
  EXPECT_TRUE(OmWildcardMatch("a\\*", "a*", false, '*', '?', '\\'));
  EXPECT_FALSE(OmWildcardMatch("a\\*", "ab", false, '*', '?', '\\'));
  EXPECT_FALSE(OmWildcardMatch("a\\*", "a", false, '*', '?', '\\'));
  EXPECT_TRUE(OmWildcardMatch("\\?*", "?x", false, '*', '?', '\\'));
  EXPECT_FALSE(OmWildcardMatch("\\?*", "xx", false, '*', '?', '\\'));
  // Without an escape unit the backslash is literal and '*' stays a wildcard.
  EXPECT_TRUE(OmWildcardMatch("a\\*", "a\\bc"));
}

}  // namespace
