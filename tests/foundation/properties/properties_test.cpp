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
    std::ifstream in(path_, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  // Loads content and returns the value of key, or "<absent>".
  std::string LoadValue(const std::string& content, const std::string& key) {
    Write(content);
    props_ = std::make_unique<OmProperties>();
    EXPECT_TRUE(props_->Load(OmUniString(path_)));
    const OmUniString* v = props_->Get(OmUniString(key));
    return v ? v->AsUtf8() : "<absent>";
  }

  std::string dir_;
  std::string path_;
  std::unique_ptr<OmProperties> props_;
};

TEST_F(PropertiesTest, LineSyntax) {
  EXPECT_EQ(LoadValue("a=b=c\n", "a"), "b=c");
  EXPECT_EQ(LoadValue("#a=b\n", "#a"), "<absent>");
  EXPECT_EQ(props_->Length(), 0u);
  Write("no equals here\n#comment=x\n=x\nk=v");
  OmProperties p;
  ASSERT_TRUE(p.Load(OmUniString(path_)));
  EXPECT_EQ(p.Length(), 2u);
  ASSERT_NE(p.Get(""), nullptr);
  EXPECT_EQ(p.Get("")->AsUtf8(), "x");
  ASSERT_NE(p.Get("k"), nullptr);  // last line without a line feed
  EXPECT_EQ(p.Get("k")->AsUtf8(), "v");
}

TEST_F(PropertiesTest, NothingIsTrimmed) {
  EXPECT_EQ(LoadValue(" key = value \n", " key "), " value ");
  EXPECT_EQ(props_->Get("key"), nullptr);
  EXPECT_EQ(LoadValue("k=v\r\n", "k"), "v\r");
}

TEST_F(PropertiesTest, Unescaping) {
  EXPECT_EQ(LoadValue("k=\\u0041x\n", "k"), "Ax");
  // An escape that ends the value is left undecoded; only the backslash goes.
  EXPECT_EQ(LoadValue("k=\\u0041\n", "k"), "u0041");
  EXPECT_EQ(LoadValue("k=x\\u0041\n", "k"), "xu0041");
  EXPECT_EQ(LoadValue("k=\\q\n", "k"), "q");
  EXPECT_EQ(LoadValue("k=\\\\\n", "k"), "\\");
  EXPECT_EQ(LoadValue("k=\\\\n\n", "k"), "\\n");  // the produced backslash is not re-read
  EXPECT_EQ(LoadValue("k=a\\nb\\tc\\rd\n", "k"), "a\nb\tc\rd");
  EXPECT_EQ(LoadValue("k=end\\\n", "k"), "end\\");
  // Lenient hex: the digits parse up to the first non-hex character.
  EXPECT_EQ(LoadValue("k=\\u41zzy\n", "k"), "Ay");
  EXPECT_EQ(LoadValue("k=\\uzzzzy\n", "k"), std::string("\0y", 2));
}

TEST_F(PropertiesTest, EscapeTable) {
  OmUniString::Unit e_acute = 0xe9;
  OmUniString text = OmUniString("a\n\r\tb\x01=\\# ") + OmUniString(&e_acute, 1);
  EXPECT_EQ(OmProperties::escapeString(text, OmProperties::kValue).AsUtf8(),
            "a\\n\\r\\tb\\u0001=\\# \\u00e9");
  EXPECT_EQ(OmProperties::escapeString("x\ny", OmProperties::kComment).AsUtf8(), "x\n# y");
  OmUniString::Unit high = 0xABCD;
  EXPECT_EQ(OmProperties::escapeString(OmUniString(&high, 1), OmProperties::kValue).AsUtf8(),
            "\\uabcd");
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
}

TEST_F(PropertiesTest, RoundTrip) {
  OmUniString::Unit e_acute = 0xe9;
  OmProperties p;
  p.Put("nl", "one\ntwo");
  p.Put("accent", OmUniString(&e_acute, 1));
  p.Put(" spaced ", " x ");
  ASSERT_TRUE(p.Save(OmUniString(path_), "header"));
  std::string saved = Read();
  EXPECT_NE(saved.find("nl=one\\ntwo\n"), std::string::npos);
  // Nothing follows the escape here, so it loads back undecoded.
  EXPECT_NE(saved.find("accent=\\u00e9\n"), std::string::npos);

  OmProperties q;
  ASSERT_TRUE(q.Load(OmUniString(path_)));
  EXPECT_EQ(q.Length(), 3u);
  EXPECT_EQ(*q.Get("nl"), OmUniString("one\ntwo"));
  EXPECT_EQ(*q.Get(" spaced "), OmUniString(" x "));
  EXPECT_EQ(*q.Get("accent"), OmUniString("u00e9"));
}

TEST_F(PropertiesTest, EscapedCharacterBeforeMoreTextLoadsBack) {
  OmUniString::Unit units[] = {0xe9, 't', 0xe9};
  OmProperties p;
  p.Put("k", OmUniString(units, 3));
  ASSERT_TRUE(p.Save(OmUniString(path_), ""));
  OmProperties q;
  ASSERT_TRUE(q.Load(OmUniString(path_)));
  OmUniString::Unit expected[] = {0xe9, 't', 'u', '0', '0', 'e', '9'};
  EXPECT_EQ(*q.Get("k"), OmUniString(expected, 7));
}

TEST_F(PropertiesTest, LastOccurrenceWinsAndPutReplaces) {
  EXPECT_EQ(LoadValue("k=1\nother=x\nk=2\n", "k"), "2");
  EXPECT_EQ(props_->Length(), 2u);
  props_->Put("k", "3");
  EXPECT_EQ(*props_->Get("k"), OmUniString("3"));
  EXPECT_EQ(props_->Length(), 2u);
  props_->Remove("k");
  props_->Remove("missing");
  EXPECT_EQ(props_->Get("k"), nullptr);
  EXPECT_EQ(props_->Length(), 1u);
}

TEST_F(PropertiesTest, LoadAddsToExistingEntries) {
  OmProperties p;
  p.Put("kept", "1");
  p.Put("k", "old");
  Write("k=new\n");
  ASSERT_TRUE(p.Load(OmUniString(path_)));
  EXPECT_EQ(*p.Get("kept"), OmUniString("1"));
  EXPECT_EQ(*p.Get("k"), OmUniString("new"));
}

TEST_F(PropertiesTest, UnreadableOrUnwritableFile) {
  OmProperties p;
  p.Put("k", "v");
  EXPECT_FALSE(p.Load(OmUniString(dir_ + "/missing.properties")));
  EXPECT_EQ(p.Length(), 1u);
  EXPECT_FALSE(p.Save(OmUniString(dir_ + "/no/such/dir/x.properties"), "h"));
}

struct Entry {
  OmUniString key;
  int value;
  const OmUniString& Key() const { return key; }
};

TEST(DictionaryTest, RebuildKeepsEveryEntryFindable) {
  OmDictionary<Entry> d(4, 0);
  EXPECT_EQ(d.RebuildThreshold(), 12u);
  for (int i = 0; i < 200; ++i) {
    auto e = std::make_unique<Entry>();
    e->key = OmUniString::CreateFromUnsigned(static_cast<unsigned>(i));
    e->value = i;
    ASSERT_TRUE(d.Insert(std::move(e)));
  }
  // 12 -> 16 buckets at the 13th entry, 48 -> 64 at the 49th, 192 -> 256 at the 193rd.
  EXPECT_EQ(d.BucketCount(), 256u);
  EXPECT_EQ(d.RebuildThreshold(), 768u);
  EXPECT_EQ(d.RebuildBudget(), 22u);
  EXPECT_EQ(d.Length(), 200u);
  for (int i = 0; i < 200; ++i) {
    Entry* e = d.Find(OmUniString::CreateFromUnsigned(static_cast<unsigned>(i)));
    ASSERT_NE(e, nullptr) << i;
    EXPECT_EQ(e->value, i);
  }
  int seen = 0;
  d.ForEach([&seen](const Entry&) { ++seen; });
  EXPECT_EQ(seen, 200);
}

TEST(DictionaryTest, InsertRefusesEqualKeyAndIteratesInTableOrder) {
  OmDictionary<Entry> d(4, 0);
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
  d.Flush();
  EXPECT_EQ(d.Length(), 0u);
  EXPECT_EQ(d.Find(OmUniString("b")), nullptr);
}

TEST(DictionaryTest, ExpireDropsDownToTheLimit) {
  OmDictionary<Entry> d(4, 10);
  for (unsigned i = 0; i < 5; ++i) d.Insert(std::make_unique<Entry>(Entry{OmUniString::CreateFromUnsigned(i), 0}));
  EXPECT_EQ(d.Expire(), 0u);
  d.SetExpiryLimit(2);
  EXPECT_EQ(d.Expire(), 3u);
  EXPECT_EQ(d.Length(), 2u);
}

}  // namespace
