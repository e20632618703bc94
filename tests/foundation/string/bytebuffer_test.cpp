#include "foundation/string/OmByteBuffer.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

std::string Text(const OmByteBuffer& b) {
  return b.Length() == 0 ? std::string()
                         : std::string(reinterpret_cast<const char*>(b.Data()), b.Length());
}

TEST(ByteBufferTest, EmptySelfAssignedAndMovedBuffers) {
  OmByteBuffer empty;
  EXPECT_EQ(empty.Data(), nullptr);
  EXPECT_EQ(empty.RefCount(), 0u);
  EXPECT_EQ(empty.Capacity(), 0u);
  OmByteBuffer copy(empty);
  EXPECT_EQ(copy.RefCount(), 0u);
  EXPECT_FALSE(copy.SharesWith(empty));
  copy._Unique();
  EXPECT_EQ(copy.RefCount(), 1u);
  EXPECT_EQ(copy.Length(), 0u);
  OmByteBuffer a("hello");
  OmByteBuffer& alias = a;
  a = alias;
  EXPECT_EQ(Text(a), "hello");
  EXPECT_EQ(a.RefCount(), 1u);
  const unsigned char* data = a.Data();
  OmByteBuffer b(std::move(a));
  OmByteBuffer c;
  c = std::move(b);
  EXPECT_EQ(c.Data(), data);
  EXPECT_EQ(c.RefCount(), 1u);
}

TEST(ByteBufferTest, CopiesShareUntilOneChanges) {
  OmByteBuffer a("hello");
  {
    OmByteBuffer b(a);
    OmByteBuffer c;
    c = a;
    EXPECT_TRUE(a.SharesWith(b) && a.SharesWith(c));
    EXPECT_EQ(a.RefCount(), 3u);
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
    EXPECT_EQ(b.RefCount(), 1u);
    EXPECT_EQ(a.RefCount(), 2u);
  }
}

TEST(ByteBufferTest, CapacityGrowth) {
  // Inserts grow to (length + length/8 + 16) & ~15 once the length reaches the capacity.
  OmByteBuffer b;
  b.Append("x", 1);
  EXPECT_EQ(b.Capacity(), 16u);
  b.Append("0123456789abcd", 14);
  EXPECT_EQ(b.Capacity(), 16u);
  b.Append("y", 1);
  EXPECT_EQ(b.Capacity(), 32u);
  EXPECT_EQ(Text(b), "x0123456789abcdy");

  const std::string big(200, 'b');
  OmByteBuffer c;
  c.Append(big.data(), big.size());
  EXPECT_EQ(c.Capacity(), 240u);

  // Reserve has a fixed slack and keeps the content.
  OmByteBuffer h("hello");
  h.Reserve(100);
  EXPECT_EQ(h.Capacity(), 112u);
  EXPECT_EQ(Text(h), "hello");
}

TEST(ByteBufferTest, InsertRemoveAndSetLength) {
  OmByteBuffer b("0123456789abcde");
  const std::string middle(40, '-');
  b.Insert(5, middle.size(), middle.data());  // across a growth
  EXPECT_EQ(Text(b), "01234" + middle + "56789abcde");
  b.Remove(5, middle.size());
  b.Insert(0, 1, "<");
  b.Insert(b.Length(), 1, ">");
  EXPECT_EQ(Text(b), "<0123456789abcde>");
  b.Remove(1, 10);
  EXPECT_EQ(Text(b), "<abcde>");
  b.SetLength(3);
  EXPECT_EQ(Text(b), "<ab");
  b.SetLength(40);
  EXPECT_EQ(b.Length(), 40u);
  EXPECT_EQ(Text(b).substr(0, 3), "<ab");
}

TEST(ByteBufferTest, HashValue) {
  EXPECT_EQ(OmByteBuffer().HashValue(), 0u);
  const unsigned char one_two[] = {1, 2};
  EXPECT_EQ(OmByteBuffer(one_two, 2).HashValue(), 11u);
  const unsigned char high[] = {0xff, 0x80};  // bytes are unsigned: 9 * 255 + 128
  EXPECT_EQ(OmByteBuffer(high, 2).HashValue(), 2423u);
  const std::string many(20, '\xff');
  uint32_t h = 0;
  for (unsigned char c : many) h = 9 * h + c;  // wraps in 32 bits
  EXPECT_EQ(OmByteBuffer(many.data(), many.size()).HashValue(), h);
}

TEST(ByteBufferTest, Equality) {
  EXPECT_EQ(OmByteBuffer("abc"), OmByteBuffer("abc"));
  EXPECT_NE(OmByteBuffer("abc"), OmByteBuffer("abd"));
  EXPECT_NE(OmByteBuffer("abc"), OmByteBuffer("ab"));
  EXPECT_NE(OmByteBuffer(), OmByteBuffer("a"));
  // An emptied buffer still has a rep but equals the null one.
  OmByteBuffer emptied("x");
  emptied.Remove(0, 1);
  EXPECT_EQ(emptied, OmByteBuffer());
  EXPECT_EQ(OmByteBuffer(), emptied);
}

}  // namespace
