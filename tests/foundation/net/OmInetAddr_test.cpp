#include "foundation/net/OmInetAddr.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "foundation/net/OmSocketAddress.h"

namespace {

TEST(OmInetAddrTest, ConstructorsAgree) {
  EXPECT_EQ(OmInetAddr().AsString(true), "0.0.0.0:0");
  EXPECT_TRUE(OmInetAddr().IsAddressEqual(OmInetAddr::AddressAny()));
  EXPECT_EQ(OmInetAddr::AddressLoopback().AsString(false), "127.0.0.1");

  const OmInetAddr bytes(192, 168, 1, 20, 8080);
  in_addr in;
  ASSERT_EQ(inet_pton(AF_INET, "192.168.1.20", &in), 1);
  const sockaddr_in sa = bytes.ToSockaddr();
  EXPECT_EQ(sa.sin_family, AF_INET);
  EXPECT_EQ(ntohs(sa.sin_port), 8080);
  EXPECT_EQ(sa.sin_addr.s_addr, in.s_addr);
  OmInetAddr assigned;
  assigned = sa;
  for (const OmInetAddr& a : {OmInetAddr(0xC0A80114u, 8080), OmInetAddr(in, 8080), OmInetAddr(sa),
                              assigned}) {
    EXPECT_TRUE(a == bytes) << a.AsString(true).AsAscii();
  }
  EXPECT_EQ(bytes.AsUint32(), 0xC0A80114u);
  EXPECT_EQ(bytes.AsString(true), "192.168.1.20:8080");

  // Address equality ignores the port.
  EXPECT_TRUE(bytes.IsAddressEqual(OmInetAddr(192, 168, 1, 20, 1)));
  EXPECT_FALSE(bytes == OmInetAddr(192, 168, 1, 20, 1));
  EXPECT_FALSE(bytes.IsAddressEqual(OmInetAddr(192, 168, 1, 21, 8080)));
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
      {"0.0.0.0:65535", true, true, "0.0.0.0:65535"},
      {"1.2.3.4:80", false, true, "1.2.3.4:77"},
      {"1.2.3.256", false, false, "9.9.9.9:77"},
  };
  for (const auto& c : cases) {
    OmInetAddr a(9, 9, 9, 9, 77);
    EXPECT_EQ(a.FromString(c.text, c.withPort), c.ok) << c.text;
    EXPECT_EQ(a.AsString(true), c.result) << c.text;
  }
  for (const char* bad : {"1.2.3.256", "256.1.1.1", "1.2.3", "abc", "", "1.2.3.4:65536",
                          "4294967297.0.0.1", "1.2.3.-1"}) {
    OmInetAddr a(9, 9, 9, 9, 77);
    EXPECT_FALSE(a.FromString(bad, true)) << bad;
    EXPECT_EQ(a.AsString(true), "9.9.9.9:77") << bad;
  }
}

TEST(OmInetAddrTest, ReadAndWriteBytesAdvanceTheCursor) {
  unsigned char raw[10] = {0};
  unsigned char* out = raw + 1;
  OmInetAddr(127, 0, 0, 1).Write(out);
  OmInetAddr(1, 2, 3, 4).Write(out);
  EXPECT_EQ(out, raw + 9);
  EXPECT_EQ(raw[1], 127);
  EXPECT_EQ(raw[8], 4);

  const unsigned char* in = raw + 1;
  unsigned long remaining = 9;
  OmInetAddr a, b, c(7, 7, 7, 7);
  ASSERT_TRUE(a.Read(in, remaining));
  ASSERT_TRUE(b.Read(in, remaining));
  EXPECT_EQ(a.AsString(false), "127.0.0.1");
  EXPECT_EQ(b.AsString(false), "1.2.3.4");
  EXPECT_FALSE(c.Read(in, remaining));  // one byte left
  EXPECT_EQ(c.AsString(false), "7.7.7.7");
  EXPECT_EQ(in, raw + 9);
}

TEST(OmInetAddrTest, StreamAndSocketAddressLengths) {
  OmOSStream os;
  os << "to " << OmInetAddr(127, 0, 0, 1, 5000);
  EXPECT_EQ(os.Str(), "to 127.0.0.1:5000");
  EXPECT_EQ(OmSocketAddress(OmInetAddr::AddressLoopback()).Length(), 16u);
  const OmSocketAddress local(OmUniString("/tmp/sock"));
  EXPECT_EQ(local.Family(), AF_UNIX);
  EXPECT_EQ(local.Length(), 12u);
}

}  // namespace
