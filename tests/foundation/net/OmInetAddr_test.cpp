#include "foundation/net/OmInetAddr.h"

#include <gtest/gtest.h>

namespace {

TEST(OmInetAddrTest, ConstructorsAndEquality) {
  const OmInetAddr bytes(192, 168, 1, 20, 8080);
  EXPECT_TRUE(OmInetAddr(0xC0A80114u, 8080) == bytes);
  EXPECT_TRUE(OmInetAddr(bytes.ToSockaddr()) == bytes);
  EXPECT_EQ(bytes.AsString(true), "192.168.1.20:8080");
  EXPECT_EQ(OmInetAddr::AddressLoopback().AsString(false), "127.0.0.1");
  // Address equality ignores the port.
  EXPECT_TRUE(bytes.IsAddressEqual(OmInetAddr(192, 168, 1, 20, 1)));
  EXPECT_FALSE(bytes == OmInetAddr(192, 168, 1, 20, 1));
}

TEST(OmInetAddrTest, FromString) {
  const struct {
    const char* text;
    bool withPort;
    bool ok;
    const char* result;  // from 9.9.9.9:77
  } cases[] = {
      {"1.2.3.4:80", true, true, "1.2.3.4:80"},
      {"5.6.7.8:0", true, true, "5.6.7.8:77"},  // port 0 keeps the old one
      {"10.11.12.13", true, true, "10.11.12.13:77"},
      {"1.2.3.4:80", false, true, "1.2.3.4:77"},
      // Failures leave the address as it was.
      {"1.2.3.256", false, false, "9.9.9.9:77"},
      {"1.2.3", true, false, "9.9.9.9:77"},
      {"1.2.3.4:65536", true, false, "9.9.9.9:77"},
      {"4294967297.0.0.1", true, false, "9.9.9.9:77"},
      // IPv6: bare, or bracketed when a port may follow.
      {"2001:DB8::5", false, true, "[2001:db8::5]:77"},
      {"[::1]:4444", true, true, "[::1]:4444"},
      {"[::1]", true, true, "[::1]:77"},
      {"::ffff:10.1.2.3", false, true, "[::ffff:10.1.2.3]:77"},
      {"[::1]:4444", false, false, "9.9.9.9:77"},
      {"::1:4444:", true, false, "9.9.9.9:77"},
      {"[::1]:65536", true, false, "9.9.9.9:77"},
      {"[::1", true, false, "9.9.9.9:77"},
      {"fe80::1%lo", false, false, "9.9.9.9:77"},
      {"1:2:3:4:5:6:7:8:9", false, false, "9.9.9.9:77"},
  };
  for (const auto& c : cases) {
    OmInetAddr a(9, 9, 9, 9, 77);
    EXPECT_EQ(a.FromString(c.text, c.withPort), c.ok) << c.text;
    EXPECT_EQ(a.AsString(true), c.result) << c.text;
  }
}

TEST(OmInetAddrTest, IPv6FormsAndMappedPeers) {
  const OmInetAddr six = OmInetAddr::AddressLoopback6();
  OmInetAddr port6 = six;
  port6.Port(4444);
  EXPECT_EQ(port6.AsString(false), "::1");
  EXPECT_EQ(port6.AsPeerString(), "[::1]:4444");
  EXPECT_EQ(OmInetAddr(10, 1, 2, 3, 4444).AsPeerString(), "10.1.2.3");  // as logs always had it
  OmSockaddrInet sa;
  EXPECT_EQ(port6.ToSockaddr(sa), sizeof(sockaddr_in6));
  OmInetAddr back;
  ASSERT_TRUE(back.FromSockaddr(&sa.any, sizeof sa.v6));
  EXPECT_TRUE(back == port6);
  EXPECT_FALSE(six.IsAddressEqual(OmInetAddr()));  // :: is not 0.0.0.0
  EXPECT_FALSE(OmInetAddr::AddressAny6().IsAddressEqual(OmInetAddr()));

  OmInetAddr mapped;
  ASSERT_TRUE(mapped.FromString("[::ffff:10.1.2.3]:80", true));
  EXPECT_TRUE(mapped.IsMappedIPv4());
  EXPECT_TRUE(mapped.Unmapped() == OmInetAddr(10, 1, 2, 3, 80));
  EXPECT_TRUE(six.Unmapped() == six);
}

TEST(OmInetAddrTest, ListenTextIsStrict) {
  const struct {
    const char* text;
    bool ok;
    const char* result;
  } cases[] = {
      {"", true, "0.0.0.0:3579"},           {"::", true, "[::]:3579"},
      {"::1", true, "[::1]:3579"},          {"192.0.2.7", true, "192.0.2.7:3579"},
      {"[::1]", false, "9.9.9.9:3579"},     {"::1:", false, "9.9.9.9:3579"},
      {"1.2.3.4:80", false, "9.9.9.9:3579"}, {"010.0.0.1", false, "9.9.9.9:3579"},
      {"1.2.3.4 ", false, "9.9.9.9:3579"},  {"localhost", false, "9.9.9.9:3579"},
      {"2001:db8::/32", false, "9.9.9.9:3579"},
  };
  for (const auto& c : cases) {
    OmInetAddr a(9, 9, 9, 9, 77);
    EXPECT_EQ(a.FromListenText(c.text, 3579), c.ok) << c.text;
    EXPECT_EQ(a.AsString(true), c.result) << c.text;
  }
}

}  // namespace
