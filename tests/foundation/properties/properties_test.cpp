#include "foundation/properties/OmProperties.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "foundation/string/OmTimeVal.h"

namespace {

class PropertiesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/props_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/test.properties";
  }
  void TearDown() override {
    OmTimeVal::SetClock(nullptr);
    std::filesystem::remove_all(dir_);
  }

  void Write(const std::string& content) { std::ofstream(path_, std::ios::binary) << content; }
  std::string Read() const {
    std::stringstream ss;
    ss << std::ifstream(path_, std::ios::binary).rdbuf();
    return ss.str();
  }
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
      {"no equals here\n=x\n", "", "x"},
      {"k=v", "k", "v"},  // last line without a line feed
      {" key = value \n", " key ", " value "},  // nothing is trimmed
      {" key = value \n", "key", "<absent>"},
      {"k=v\r\n", "k", "v\r"},
      {"k=\\u0041x\n", "k", "Ax"},
      // An escape that ends the value is left undecoded; only the backslash goes.
      {"k=\\u0041\n", "k", "u0041"},
      {"k=x\\u0041\n", "k", "xu0041"},
      {"k=\\q\n", "k", "q"},
      {"k=\\\\\n", "k", "\\"},
      {"k=\\\\n\n", "k", "\\n"},  // the produced backslash is not read again
      {"k=a\\nb\\tc\\rd\n", "k", "a\nb\tc\rd"},
      {"k=end\\\n", "k", "end\\"},
      {"k=\\u41zzy\n", "k", "Ay"},  // hex digits up to the first non-hex character
      {"k=1\nother=x\nk=2\n", "k", "2"},  // the last value wins
  };
  for (const auto& c : cases) {
    Write(c.content);
    OmProperties p;
    ASSERT_TRUE(p.Load(OmUniString(path_))) << c.content;
    EXPECT_EQ(Value(p, c.key), c.value) << c.content;
  }
  Write("no equals here\n#comment=x\n=x\nk=v\nk=w\n");
  OmProperties p;
  ASSERT_TRUE(p.Load(OmUniString(path_)));
  EXPECT_EQ(p.Length(), 2u);
}

TEST_F(PropertiesTest, EscapeTable) {
  const OmUniString::Unit e_acute = 0xe9, high = 0xabcd;
  const OmUniString text = OmUniString("a\n\r\tb\x01=\\# ") + OmUniString(&e_acute, 1);
  EXPECT_EQ(OmProperties::escapeString(text, OmProperties::kValue).AsUtf8(),
            "a\\n\\r\\tb\\u0001=\\# \\u00e9");
  EXPECT_EQ(OmProperties::escapeString(OmUniString(&high, 1), OmProperties::kValue).AsUtf8(),
            "\\uabcd");
  EXPECT_EQ(OmProperties::escapeString("x\ny", OmProperties::kComment).AsUtf8(), "x\n# y");
}

OmTimeVal FixedClock() { return OmTimeVal(0, 0); }

TEST_F(PropertiesTest, SaveFormat) {
  OmTimeVal::SetClock(FixedClock);
  OmProperties p;
  p.Put("k", "v=1");
  ASSERT_TRUE(p.Save(OmUniString(path_), "first\nsecond"));
  EXPECT_EQ(Read(),
            "# written by props\n# first\n# second\n\n# Written at: Thu, 01 Jan 1970 00:00:00 GMT"
            "\n\nk=v=1\n");
  EXPECT_FALSE(p.Save(OmUniString(dir_ + "/no/such/dir/x.properties"), "h"));
}

TEST_F(PropertiesTest, RoundTrip) {
  const OmUniString::Unit e_acute = 0xe9;
  const OmUniString::Unit inner[] = {0xe9, 't', 0xe9};
  OmProperties p;
  p.Put("nl", "one\ntwo");
  p.Put("accent", OmUniString(&e_acute, 1));
  p.Put("inner", OmUniString(inner, 3));
  p.Put(" spaced ", " x ");
  ASSERT_TRUE(p.Save(OmUniString(path_), "header"));
  EXPECT_NE(Read().find("nl=one\\ntwo\n"), std::string::npos) << Read();
  EXPECT_NE(Read().find("accent=\\u00e9\n"), std::string::npos) << Read();

  OmProperties q;
  q.Put("kept", "1");
  q.Put("nl", "old");
  ASSERT_TRUE(q.Load(OmUniString(path_)));  // adds to what is there
  EXPECT_EQ(q.Length(), 5u);
  EXPECT_EQ(Value(q, "kept"), "1");
  EXPECT_EQ(Value(q, "nl"), "one\ntwo");
  EXPECT_EQ(Value(q, " spaced "), " x ");
  // An escape loads back only when more text follows it.
  EXPECT_EQ(Value(q, "accent"), "u00e9");
  const OmUniString::Unit back[] = {0xe9, 't', 'u', '0', '0', 'e', '9'};
  EXPECT_EQ(*q.Get("inner"), OmUniString(back, 7));

  q.Put("kept", "2");
  q.Remove("nl");
  q.Remove("missing");
  EXPECT_EQ(Value(q, "kept"), "2");
  EXPECT_EQ(Value(q, "nl"), "<absent>");
  EXPECT_EQ(q.Length(), 4u);
  EXPECT_FALSE(q.Load(OmUniString(dir_ + "/missing.properties")));
  EXPECT_EQ(q.Length(), 4u);
}

struct Entry {
  OmUniString key;
  int value;
  const OmUniString& Key() const { return key; }
};

std::unique_ptr<Entry> MakeEntry(unsigned i) {
  return std::make_unique<Entry>(Entry{OmUniString::CreateFromUnsigned(i), static_cast<int>(i)});
}

TEST(DictionaryTest, RebuildKeepsEveryEntryFindable) {
  OmDictionary<Entry> d(4, 0);
  EXPECT_EQ(d.RebuildThreshold(), 12u);
  for (unsigned i = 0; i < 200; ++i) ASSERT_TRUE(d.Insert(MakeEntry(i)));
  // 12 -> 16 buckets at the 13th entry, 48 -> 64 at the 49th, 192 -> 256 at the 193rd.
  EXPECT_EQ(d.BucketCount(), 256u);
  EXPECT_EQ(d.RebuildThreshold(), 768u);
  EXPECT_EQ(d.RebuildBudget(), 22u);
  EXPECT_EQ(d.Length(), 200u);
  for (unsigned i = 0; i < 200; ++i) {
    Entry* e = d.Find(OmUniString::CreateFromUnsigned(i));
    ASSERT_NE(e, nullptr) << i;
    EXPECT_EQ(e->value, static_cast<int>(i));
  }
  int seen = 0;
  d.ForEach([&seen](const Entry&) { ++seen; });
  EXPECT_EQ(seen, 200);
}

TEST(DictionaryTest, InsertRemoveIterateAndExpire) {
  OmDictionary<Entry> d(4, 10);
  // "a" hashes to 873 and "e" to 909 (bucket 1), "b" to 882 (bucket 2).
  for (const char* k : {"b", "e", "a"}) d.Insert(std::make_unique<Entry>(Entry{k, 0}));
  EXPECT_FALSE(d.Insert(std::make_unique<Entry>(Entry{"a", 1})));
  EXPECT_EQ(d.Find(OmUniString("a"))->value, 0);
  EXPECT_EQ(d.FindBucket(OmUniString("a")), 1u);
  std::string order;
  d.ForEach([&order](const Entry& e) { order += e.key.AsUtf8(); });
  EXPECT_EQ(order, "eab");
  EXPECT_TRUE(d.Remove(OmUniString("e")));
  EXPECT_FALSE(d.Remove(OmUniString("e")));

  for (unsigned i = 0; i < 3; ++i) d.Insert(MakeEntry(i));
  EXPECT_EQ(d.Expire(), 0u);
  d.SetExpiryLimit(2);
  EXPECT_EQ(d.Expire(), 3u);
  EXPECT_EQ(d.Length(), 2u);
  d.Flush();
  EXPECT_EQ(d.Length(), 0u);
  EXPECT_EQ(d.Find(OmUniString("b")), nullptr);
}

}  // namespace
