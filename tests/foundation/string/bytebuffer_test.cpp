#include "foundation/string/OmByteBuffer.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string Text(const OmByteBuffer& b) {
  return b.Length() == 0 ? std::string()
                         : std::string(reinterpret_cast<const char*>(b.Data()), b.Length());
}

TEST(ByteBufferTest, CopiesShareUntilOneChanges) {
  OmByteBuffer a("hello");
  {
    OmByteBuffer b(a);
    EXPECT_TRUE(a.SharesWith(b));
    EXPECT_EQ(a.RefCount(), 2u);
  }
  EXPECT_EQ(a.RefCount(), 1u);

  // Every kind of change detaches the changed copy only.
  const struct {
    const char* what;
    void (*change)(OmByteBuffer&);
    const char* result;
  } changes[] = {
      {"MutableData", [](OmByteBuffer& b) { b.MutableData()[0] = 'J'; }, "Jello"},
      {"Append", [](OmByteBuffer& b) { b.Append("!", 1); }, "hello!"},
      {"Remove", [](OmByteBuffer& b) { b.Remove(0, 3); }, "lo"},
  };
  for (const auto& c : changes) {
    SCOPED_TRACE(c.what);
    OmByteBuffer b(a), untouched(a);
    c.change(b);
    EXPECT_EQ(Text(b), c.result);
    EXPECT_EQ(Text(a), "hello");
    EXPECT_FALSE(a.SharesWith(b));
    EXPECT_TRUE(a.SharesWith(untouched));
  }
}

TEST(ByteBufferTest, InsertAcrossGrowthAndRemove) {
  OmByteBuffer b("0123456789abcde");
  const std::string middle(40, '-');
  b.Insert(5, middle.size(), middle.data());
  EXPECT_EQ(Text(b), "01234" + middle + "56789abcde");
  b.Remove(5, middle.size() + 5);
  EXPECT_EQ(Text(b), "01234abcde");
  EXPECT_NE(b, OmByteBuffer("01234abcd"));
  b.Remove(0, 10);  // still has a rep but equals the null one
  EXPECT_EQ(b, OmByteBuffer());
}

}  // namespace
