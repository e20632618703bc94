#include "foundation/string/OmUniString.h"

#include <vector>

#include <gtest/gtest.h>

#include "string_test_util.h"

namespace {

TEST(UniStringTest, SearchAndSubString) {
  const OmUniString s("hello world");
  EXPECT_EQ(s.Search('l'), 2);
  EXPECT_EQ(s.Search('z'), -1);
  EXPECT_EQ(s.Search(OmUniString("world")), 6);
  EXPECT_EQ(s.Search(OmUniString("worlds")), -1);
  EXPECT_EQ(OmUniString().Search('a'), -1);
  EXPECT_EQ(s.SubString(6), "world");
  EXPECT_EQ(s.SubString(9, 10), "ld");
  EXPECT_EQ(s.SubString(20, 2), "");
}

TEST(UniStringTest, SubstituteReplacesEveryOccurrence) {
  const struct {
    const char *text, *from, *to, *result;
    unsigned count;
  } cases[] = {
      {"a.b.c", ".", "..", "a..b..c", 2},  // inserted text is not scanned again
      {"aaa", "aa", "b", "ba", 1},         // left to right, no overlap
      {"hello", "xyz", "q", "hello", 0},
      {"$HOME/bin:$HOME", "$HOME", "/root", "/root/bin:/root", 2},
  };
  for (const auto& c : cases) {
    OmUniString s(c.text);
    EXPECT_EQ(s.Substitute(c.from, c.to), c.count) << c.text;
    EXPECT_EQ(s, c.result) << c.text;
  }
}

TEST(UniStringTest, SplitKeepsEmptyFields) {
  std::vector<OmUniString> fields;
  Split(OmUniString(",a,,b,"), fields, ',');
  EXPECT_EQ(fields, (std::vector<OmUniString>{"", "a", "", "b", ""}));
}

TEST(WildcardMatchTest, Patterns) {
  const struct {
    const char* pattern;
    std::vector<const char*> match, differ;
  } cases[] = {
      {"*", {"", "anything at all"}, {}},
      {"", {""}, {"a"}},
      {"abc", {"abc"}, {"abcd", "ab"}},
      {"*error", {"error", "fatalerror"}, {"errors", "rror"}},
      {"a?c", {"abc"}, {"ac"}},
      {"a*b*c", {"abc", "abcbc", "aXcbXbYc"}, {"acb", "abcx", "bc"}},
      {"*.log", {"x.log.log"}, {}},
      {"ERR*", {}, {"error"}},
  };
  for (const auto& c : cases) {
    for (const char* text : c.match)
      EXPECT_TRUE(OmWildcardMatch(c.pattern, text)) << c.pattern << " / " << text;
    for (const char* text : c.differ)
      EXPECT_FALSE(OmWildcardMatch(c.pattern, text)) << c.pattern << " / " << text;
  }
}

}  // namespace
