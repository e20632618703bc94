#include "foundation/net/OmAddressRange.h"

#include <gtest/gtest.h>

namespace {

OmInetAddr addr(const char* text) {
  OmInetAddr a;
  EXPECT_TRUE(a.FromString(OmUniString(text), false)) << text;
  return a;
}

TEST(OmAddressRangeTest, MembershipAtTheEdgesOfEachPrefix) {
  struct Case {
    const char* range;
    const char* address;
    bool inside;
  } cases[] = {
      {"10.0.0.0/8", "10.255.255.255", true},  {"10.0.0.0/8", "11.0.0.0", false},
      {"10.1.2.3/8", "10.9.9.9", true},        {"192.168.1.7", "192.168.1.7", true},
      {"192.168.1.7", "192.168.1.8", false},   {"192.168.1.7/32", "192.168.1.6", false},
      {"0.0.0.0/0", "255.255.255.255", true},  {"172.16.0.0/12", "172.31.255.255", true},
      {"172.16.0.0/12", "172.32.0.0", false},  {"127.0.0.1/31", "127.0.0.0", true},
  };
  for (const Case& c : cases) {
    OmAddressRange range;
    ASSERT_TRUE(range.Parse(c.range)) << c.range;
    EXPECT_EQ(range.Contains(addr(c.address)), c.inside) << c.range << " " << c.address;
  }
}

TEST(OmAddressRangeTest, RejectsAnythingButADottedQuadWithAPrefix) {
  for (const char* bad : {"", "10.0.0", "10.0.0.0.0", "256.0.0.1", "10.0.0.1/33", "10.0.0.1/",
                          "10.0.0.1/8x", "10.0.0.1 ", "+1.2.3.4", "1.2.3.4junk", "0010.0.0.1",
                          "1..2.3", "a.b.c.d", "10.0.0.1/-1"}) {
    OmAddressRange range;
    EXPECT_FALSE(range.Parse(bad)) << bad;
    EXPECT_TRUE(range.Contains(addr("0.0.0.0"))) << "left unchanged by " << bad;
  }
}

TEST(OmAddressRangeListTest, ListsWithBlanksEmptyTextAndOneBadItem) {
  OmAddressRangeList list;
  ASSERT_TRUE(list.Parse(OmUniString(" 127.0.0.1 , 10.0.0.0/8,192.168.0.0/16")));
  EXPECT_EQ(list.Size(), 3u);
  EXPECT_TRUE(list.Contains(addr("10.20.30.40")));
  EXPECT_TRUE(list.Contains(addr("127.0.0.1")));
  EXPECT_FALSE(list.Contains(addr("127.0.0.2")));

  EXPECT_FALSE(list.Parse(OmUniString("127.0.0.1,,10.0.0.0/8")));
  EXPECT_FALSE(list.Parse(OmUniString("127.0.0.1,")));
  EXPECT_EQ(list.Size(), 3u) << "a failed parse keeps the list";

  ASSERT_TRUE(list.Parse(OmUniString("  ")));
  EXPECT_TRUE(list.IsEmpty());
  EXPECT_FALSE(list.Contains(addr("127.0.0.1")));
}

}  // namespace
