#include "foundation/net/OmInetAddr.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "foundation/net/OmSocketAddress.h"

namespace {

TEST(OmInetAddrTest, DefaultIsAnyAddressWithPortZero) {
  OmInetAddr a;
  EXPECT_EQ(a.AsString(true), "0.0.0.0:0");
  EXPECT_EQ(a.AsUint32(), 0u);
  EXPECT_TRUE(a.IsAddressEqual(OmInetAddr::AddressAny()));
  EXPECT_EQ(OmInetAddr::AddressLoopback().AsString(false), "127.0.0.1");
}

TEST(OmInetAddrTest, ConstructorsAgree) {
  const OmInetAddr bytes(192, 168, 1, 20, 8080);
  const OmInetAddr value(0xC0A80114u, 8080);
  in_addr in;
  ASSERT_EQ(inet_pton(AF_INET, "192.168.1.20", &in), 1);
  const OmInetAddr fromIn(in, 8080);
  sockaddr_in sa = bytes.ToSockaddr();
  EXPECT_EQ(sa.sin_family, AF_INET);
  EXPECT_EQ(ntohs(sa.sin_port), 8080);
  EXPECT_EQ(sa.sin_addr.s_addr, in.s_addr);
  const OmInetAddr fromSa(sa);

  for (const OmInetAddr* a : {&value, &fromIn, &fromSa}) {
    EXPECT_TRUE(*a == bytes) << a->AsString(true).AsAscii();
  }
  EXPECT_EQ(bytes.AsUint32(), 0xC0A80114u);
  EXPECT_EQ(bytes.AsString(true), "192.168.1.20:8080");
  EXPECT_EQ(bytes.AsString(false), "192.168.1.20");

  OmInetAddr assigned;
  assigned = sa;
  EXPECT_TRUE(assigned == bytes);
}

TEST(OmInetAddrTest, AddressEqualityIgnoresPort) {
  const OmInetAddr a(10, 0, 0, 1, 1);
  const OmInetAddr b(10, 0, 0, 1, 2);
  EXPECT_TRUE(a.IsAddressEqual(b));
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(a.IsAddressEqual(OmInetAddr(10, 0, 0, 2, 1)));
}

TEST(OmInetAddrTest, FromStringWithPort) {
  OmInetAddr a(9, 9, 9, 9, 77);
  EXPECT_TRUE(a.FromString("1.2.3.4:80", true));
  EXPECT_EQ(a.AsString(true), "1.2.3.4:80");

  // A port of 0 keeps the old one.
  EXPECT_TRUE(a.FromString("5.6.7.8:0", true));
  EXPECT_EQ(a.AsString(true), "5.6.7.8:80");

  // No port at all falls back to the address alone.
  EXPECT_TRUE(a.FromString("10.11.12.13", true));
  EXPECT_EQ(a.AsString(true), "10.11.12.13:80");

  EXPECT_TRUE(a.FromString("0.0.0.0:65535", true));
  EXPECT_EQ(a.GetPort(), 65535u);
}

TEST(OmInetAddrTest, FromStringWithoutPortIgnoresOne) {
  OmInetAddr a(9, 9, 9, 9, 77);
  EXPECT_TRUE(a.FromString("1.2.3.4:80", false));
  EXPECT_EQ(a.AsString(true), "1.2.3.4:77");
}

TEST(OmInetAddrTest, FromStringFailureLeavesAddressAlone) {
  OmInetAddr a(9, 9, 9, 9, 77);
  for (const char* bad : {"1.2.3.256", "256.1.1.1", "1.2.3", "abc", "", "1.2.3.4:65536",
                          "4294967297.0.0.1", "1.2.3.-1"}) {
    EXPECT_FALSE(a.FromString(bad, true)) << bad;
    EXPECT_EQ(a.AsString(true), "9.9.9.9:77") << bad;
  }
  EXPECT_FALSE(a.FromString("1.2.3.256", false));
  EXPECT_EQ(a.AsString(true), "9.9.9.9:77");
}

TEST(OmInetAddrTest, ReadAndWriteBytesAdvanceTheCursor) {
  unsigned char raw[10] = {0};
  unsigned char* out = raw + 1;
  OmInetAddr(127, 0, 0, 1).Write(out);
  OmInetAddr(1, 2, 3, 4).Write(out);
  EXPECT_EQ(out, raw + 9);
  EXPECT_EQ(raw[1], 127);
  EXPECT_EQ(raw[4], 1);
  EXPECT_EQ(raw[8], 4);

  const unsigned char* in = raw + 1;
  unsigned long remaining = 9;
  OmInetAddr a, b, c(7, 7, 7, 7);
  ASSERT_TRUE(a.Read(in, remaining));
  ASSERT_TRUE(b.Read(in, remaining));
  EXPECT_EQ(remaining, 1u);
  EXPECT_EQ(a.AsString(false), "127.0.0.1");
  EXPECT_EQ(b.AsString(false), "1.2.3.4");
  EXPECT_FALSE(c.Read(in, remaining));
  EXPECT_EQ(c.AsString(false), "7.7.7.7");
  EXPECT_EQ(in, raw + 9);
}

TEST(OmInetAddrTest, StreamsDottedAddressAndPort) {
  OmOSStream os;
  os << "to " << OmInetAddr(127, 0, 0, 1, 5000);
  EXPECT_EQ(os.Str(), "to 127.0.0.1:5000");
}

TEST(OmSocketAddressTest, Lengths) {
  EXPECT_EQ(OmSocketAddress(OmInetAddr::AddressLoopback()).Length(), 16u);
  const OmSocketAddress local(OmUniString("/tmp/sock"));
  EXPECT_EQ(local.Family(), AF_UNIX);
  EXPECT_EQ(local.Length(), 12u);
}

}  // namespace
