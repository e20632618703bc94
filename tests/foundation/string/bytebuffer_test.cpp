#include "foundation/string/OmByteBuffer.h"

#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

std::string Text(const OmByteBuffer& b) {
  return b.Length() == 0 ? std::string()
                         : std::string(reinterpret_cast<const char*>(b.Data()), b.Length());
}

TEST(ByteBufferTest, EmptyBufferAllocatesNothing) {
  OmByteBuffer empty;
  EXPECT_EQ(empty.Data(), nullptr);
  EXPECT_EQ(empty.RefCount(), 0u);
  EXPECT_EQ(empty.Length(), 0u);
  EXPECT_EQ(empty.Capacity(), 0u);
  EXPECT_TRUE(empty.IsEmpty());

  OmByteBuffer copy(empty);
  EXPECT_EQ(copy.Data(), nullptr);
  EXPECT_EQ(copy.RefCount(), 0u);
  EXPECT_FALSE(copy.SharesWith(empty));
}

TEST(ByteBufferTest, UniqueGivesAnEmptyBufferItsOwnRep) {
  OmByteBuffer b;
  b._Unique();
  EXPECT_EQ(b.RefCount(), 1u);
  EXPECT_EQ(b.Length(), 0u);
}

TEST(ByteBufferTest, ConstructionCopiesBytes) {
  const unsigned char raw[] = {0, 1, 255, 7};
  OmByteBuffer b(raw, sizeof raw);
  ASSERT_EQ(b.Length(), 4u);
  EXPECT_EQ(std::memcmp(b.Data(), raw, 4), 0);
  EXPECT_EQ(b.RefCount(), 1u);

  OmByteBuffer text("hello");
  EXPECT_EQ(Text(text), "hello");
}

TEST(ByteBufferTest, CopySharesTheRep) {
  OmByteBuffer a("hello");
  OmByteBuffer b(a);
  EXPECT_TRUE(a.SharesWith(b));
  EXPECT_EQ(a.Data(), b.Data());
  EXPECT_EQ(a.RefCount(), 2u);
  EXPECT_EQ(b.RefCount(), 2u);

  OmByteBuffer c;
  c = a;
  EXPECT_TRUE(c.SharesWith(a));
  EXPECT_EQ(a.RefCount(), 3u);
}

TEST(ByteBufferTest, DestroyingACopyReleasesItsShare) {
  OmByteBuffer a("hello");
  {
    OmByteBuffer b(a);
    EXPECT_EQ(a.RefCount(), 2u);
  }
  EXPECT_EQ(a.RefCount(), 1u);
  EXPECT_EQ(Text(a), "hello");
}

TEST(ByteBufferTest, ChangingACopyLeavesTheOriginal) {
  OmByteBuffer a("hello");
  OmByteBuffer b(a);
  b.MutableData()[0] = 'J';
  EXPECT_EQ(Text(a), "hello");
  EXPECT_EQ(Text(b), "Jello");
  EXPECT_FALSE(a.SharesWith(b));
  EXPECT_EQ(a.RefCount(), 1u);
  EXPECT_EQ(b.RefCount(), 1u);
}

TEST(ByteBufferTest, AppendToACopyLeavesTheOriginal) {
  OmByteBuffer a("abc");
  OmByteBuffer b(a);
  b.Append("def", 3);
  EXPECT_EQ(Text(a), "abc");
  EXPECT_EQ(Text(b), "abcdef");
}

TEST(ByteBufferTest, RemoveFromACopyLeavesTheOriginal) {
  OmByteBuffer a("abcdef");
  OmByteBuffer b(a);
  b.Remove(0, 3);
  EXPECT_EQ(Text(a), "abcdef");
  EXPECT_EQ(Text(b), "def");
}

TEST(ByteBufferTest, UnchangedCopiesStillShare) {
  OmByteBuffer a("hello");
  OmByteBuffer b(a);
  OmByteBuffer c(a);
  EXPECT_EQ(a.RefCount(), 3u);
  c.MutableData()[4] = '!';
  EXPECT_TRUE(a.SharesWith(b));
  EXPECT_EQ(a.RefCount(), 2u);
  EXPECT_EQ(c.RefCount(), 1u);
  EXPECT_EQ(Text(a), "hello");
  EXPECT_EQ(Text(b), "hello");
  EXPECT_EQ(Text(c), "hell!");
}

TEST(ByteBufferTest, SelfAssignmentKeepsTheBytes) {
  OmByteBuffer a("hello");
  OmByteBuffer& alias = a;
  a = alias;
  EXPECT_EQ(Text(a), "hello");
  EXPECT_EQ(a.RefCount(), 1u);
}

TEST(ByteBufferTest, MoveTakesTheRep) {
  OmByteBuffer a("hello");
  const unsigned char* data = a.Data();
  OmByteBuffer b(std::move(a));
  EXPECT_EQ(b.Data(), data);
  EXPECT_EQ(b.RefCount(), 1u);
  OmByteBuffer c;
  c = std::move(b);
  EXPECT_EQ(Text(c), "hello");
  EXPECT_EQ(c.RefCount(), 1u);
}

TEST(ByteBufferTest, FirstInsertGetsTheMinimumCapacity) {
  OmByteBuffer b;
  b.Append("x", 1);
  // (1 + 1/8 + 16) rounded down to a multiple of 16.
  EXPECT_EQ(b.Capacity(), 16u);
  EXPECT_EQ(b.Length(), 1u);
}

TEST(ByteBufferTest, InsertGrowsWhenTheLengthReachesTheCapacity) {
  OmByteBuffer b;
  b.Append("x", 1);
  b.Append("0123456789abcd", 14);  // length 15, still below 16
  EXPECT_EQ(b.Capacity(), 16u);
  EXPECT_EQ(b.Length(), 15u);
  b.Append("y", 1);  // length 16 reaches the capacity: (16 + 2 + 16) & ~15
  EXPECT_EQ(b.Capacity(), 32u);
  EXPECT_EQ(b.Length(), 16u);
  EXPECT_EQ(Text(b), "x0123456789abcdy");
}

TEST(ByteBufferTest, LargeInsertCapacity) {
  std::string big(100, 'a');
  OmByteBuffer b;
  b.Append(big.data(), big.size());
  EXPECT_EQ(b.Capacity(), 128u);  // (100 + 12 + 16) & ~15

  std::string bigger(200, 'b');
  OmByteBuffer c;
  c.Append(bigger.data(), bigger.size());
  EXPECT_EQ(c.Capacity(), 240u);  // (200 + 25 + 16) = 241 & ~15
  EXPECT_EQ(Text(c), bigger);
}

TEST(ByteBufferTest, ReserveUsesFixedSlackAndKeepsTheLength) {
  OmByteBuffer b;
  b.Reserve(40);
  EXPECT_EQ(b.Capacity(), 48u);  // (40 + 16) & ~15
  EXPECT_EQ(b.Length(), 0u);

  OmByteBuffer h("hello");
  h.Reserve(100);
  EXPECT_EQ(h.Capacity(), 112u);  // (100 + 16) & ~15
  EXPECT_EQ(h.Length(), 5u);
  EXPECT_EQ(Text(h), "hello");
}

TEST(ByteBufferTest, InsertInTheMiddleMovesTheTail) {
  OmByteBuffer b("abcdef");
  b.Insert(2, 3, "XYZ");
  EXPECT_EQ(Text(b), "abXYZcdef");
  b.Insert(0, 1, "<");
  EXPECT_EQ(Text(b), "<abXYZcdef");
  b.Insert(b.Length(), 1, ">");
  EXPECT_EQ(Text(b), "<abXYZcdef>");
}

TEST(ByteBufferTest, InsertAcrossGrowthKeepsTheTail) {
  OmByteBuffer b("0123456789abcde");  // 15 bytes
  std::string middle(40, '-');
  b.Insert(5, middle.size(), middle.data());
  EXPECT_EQ(Text(b), "01234" + middle + "56789abcde");
}

TEST(ByteBufferTest, RemoveMovesTheTailDown) {
  OmByteBuffer b("abcdef");
  b.Remove(1, 2);
  EXPECT_EQ(Text(b), "adef");
  EXPECT_EQ(b.Length(), 4u);
  b.Remove(3, 1);
  EXPECT_EQ(Text(b), "ade");
  b.Remove(0, 3);
  EXPECT_EQ(b.Length(), 0u);
}

TEST(ByteBufferTest, SetLengthAndClear) {
  OmByteBuffer b("abcdef");
  b.SetLength(3);
  EXPECT_EQ(Text(b), "abc");
  b.SetLength(40);
  EXPECT_EQ(b.Length(), 40u);
  EXPECT_GE(b.Capacity(), 40u);
  EXPECT_EQ(std::memcmp(b.Data(), "abc", 3), 0);
  b.Clear();
  EXPECT_EQ(b.Length(), 0u);
}

TEST(ByteBufferTest, HashValue) {
  EXPECT_EQ(OmByteBuffer().HashValue(), 0u);
  const unsigned char one_two[] = {1, 2};
  EXPECT_EQ(OmByteBuffer(one_two, 2).HashValue(), 11u);
  // Bytes are unsigned: 9 * 255 + 128.
  const unsigned char high[] = {0xff, 0x80};
  EXPECT_EQ(OmByteBuffer(high, 2).HashValue(), 2423u);
  // Wraps in 32 bits.
  std::string many(20, '\xff');
  uint32_t h = 0;
  for (unsigned char c : many) h = 9 * h + c;
  EXPECT_EQ(OmByteBuffer(many.data(), many.size()).HashValue(), h);
}

TEST(ByteBufferTest, Equality) {
  EXPECT_EQ(OmByteBuffer("abc"), OmByteBuffer("abc"));
  EXPECT_NE(OmByteBuffer("abc"), OmByteBuffer("abd"));
  EXPECT_NE(OmByteBuffer("abc"), OmByteBuffer("ab"));
  EXPECT_NE(OmByteBuffer("ab"), OmByteBuffer("abc"));
  EXPECT_EQ(OmByteBuffer(), OmByteBuffer());
  EXPECT_NE(OmByteBuffer(), OmByteBuffer("a"));
  EXPECT_NE(OmByteBuffer("a"), OmByteBuffer());

  // An emptied buffer still has a rep but equals the null one.
  OmByteBuffer emptied("x");
  emptied.Remove(0, 1);
  EXPECT_EQ(emptied, OmByteBuffer());
  EXPECT_EQ(OmByteBuffer(), emptied);
}

}  // namespace
