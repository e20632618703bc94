#include "foundation/net/OmAddressRange.h"

#include <gtest/gtest.h>

namespace {

TEST(OmAddressRangeTest, ListsMembershipAtPrefixEdgesAndStrictParsing) {
  const struct {
    const char* list;
    const char* address;
    bool inside;
  } cases[] = {
      {" 10.1.2.3/8 , 192.168.1.7", "10.255.255.255", true}, {"10.0.0.0/8", "11.0.0.0", false},
      {"192.168.1.7", "192.168.1.8", false}, {"0.0.0.0/0", "255.255.255.255", true},
      {"172.16.0.0/12", "172.31.255.255", true}, {"172.16.0.0/12", "172.32.0.0", false},
      {"127.0.0.1/31", "127.0.0.0", true}, {"  ", "127.0.0.1", false},
      // IPv6 prefixes at their edges, within a byte and across bytes.
      {"2001:db8::/32", "2001:db8:ffff::1", true}, {"2001:db8::/32", "2001:db9::", false},
      {"2001:db8:8000::/33", "2001:db8:7fff::", false}, {"::1", "::2", false},
      {"fe80::/10", "febf::1", true}, {"fe80::/10", "fec0::1", false}, {"::/0", "10.0.0.1", true},
      // A mapped peer is the IPv4 client it stands for.
      {"10.0.0.0/8", "::ffff:10.9.8.7", true}, {"10.0.0.0/8", "::ffff:11.0.0.1", false},
      {"10.0.0.0/8", "::10.9.8.7", false}, {"::1, 127.0.0.1", "127.0.0.1", true},
  };
  for (const auto& c : cases) {
    OmAddressRangeList list;
    OmInetAddr a;
    ASSERT_TRUE(list.Parse(OmUniString(c.list)) && a.FromString(OmUniString(c.address), false));
    EXPECT_EQ(list.Contains(a), c.inside) << c.list << " " << c.address;
  }
  OmAddressRangeList list;
  ASSERT_TRUE(list.Parse(OmUniString("1.2.3.4")));
  for (const char* bad : {"10.0.0", "10.0.0.0.0", "256.0.0.1", "10.0.0.1/33", "10.0.0.1/", "1.2.3.4/8x",
                          "+1.2.3.4", "1.2.3.4junk", "0010.0.0.1", "1..2.3", "1.2.3.4,", "1.2.3.4,,5.6.7.8",
                          "2001:db8::/129", "2001:db8::/", "::1/-1", "2001:db8:::/32", "[::1]",
                          "fe80::1%lo", "::1/64x", "2001:db8::/0032", "1.2.3.4/::", "::g"}) {
    EXPECT_FALSE(list.Parse(OmUniString(bad))) << bad;
  }
  EXPECT_EQ(list.Size(), 1u);
}

}  // namespace
