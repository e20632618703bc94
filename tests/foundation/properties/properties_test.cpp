#include "foundation/properties/OmProperties.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "FakeEnv.h"

namespace {

class PropertiesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir();
    path_ = dir_ + "/test.properties";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  void Write(const std::string& content) { std::ofstream(path_, std::ios::binary) << content; }
  static std::string Value(const OmProperties& p, const std::string& key) {
    const OmUniString* v = p.Get(OmUniString(key));
    return v ? v->AsUtf8() : "<absent>";
  }

  std::string dir_;
  std::string path_;
};

TEST_F(PropertiesTest, LineSyntaxAndUnescaping) {
  const struct {
    const char *content, *key, *value;
  } cases[] = {
      {"a=b=c\n", "a", "b=c"},
      {"#a=b\n", "#a", "<absent>"},
      {" key = value \n", " key ", " value "},  // nothing is trimmed
      {"k=\\u0041x\n", "k", "Ax"},
      // An escape that ends the value is left undecoded; only the backslash goes.
      {"k=\\u0041\n", "k", "u0041"},
      {"k=\\q\n", "k", "q"},
      {"k=\\\\\n", "k", "\\"},
      {"k=a\\nb\\tc\n", "k", "a\nb\tc"},
      {"k=1\nother=x\nk=2\n", "k", "2"},  // the last value wins
  };
  for (const auto& c : cases) {
    Write(c.content);
    OmProperties p;
    ASSERT_TRUE(p.Load(OmUniString(path_))) << c.content;
    EXPECT_EQ(Value(p, c.key), c.value) << c.content;
  }
}

TEST_F(PropertiesTest, RoundTrip) {
  const OmUniString::Unit inner[] = {0xe9, 't', 0xe9};
  OmProperties p;
  p.Put("nl", "one\ntwo");
  p.Put("inner", OmUniString(inner, 3));
  ASSERT_TRUE(p.Save(OmUniString(path_), "header"));
  EXPECT_NE(ReadText(path_).find("nl=one\\ntwo\n"), std::string::npos) << ReadText(path_);

  OmProperties q;
  ASSERT_TRUE(q.Load(OmUniString(path_)));
  EXPECT_EQ(Value(q, "nl"), "one\ntwo");
  // An escape loads back only when more text follows it.
  const OmUniString::Unit back[] = {0xe9, 't', 'u', '0', '0', 'e', '9'};
  EXPECT_EQ(*q.Get("inner"), OmUniString(back, 7));
}

}  // namespace
