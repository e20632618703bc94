#include "foundation/net/OmInetAddr.h"

#include <gtest/gtest.h>

namespace {

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
      {"2001:DB8::5", false, true, "[2001:db8::5]:77"}, {"[::1]:4444", true, true, "[::1]:4444"},
      {"[::1]:4444", false, false, "9.9.9.9:77"},       {"[::1]:65536", true, false, "9.9.9.9:77"},
  };
  for (const auto& c : cases) {
    OmInetAddr a(9, 9, 9, 9, 77);
    EXPECT_EQ(a.FromString(c.text, c.withPort), c.ok) << c.text;
    EXPECT_EQ(a.AsString(true), c.result) << c.text;
  }
}

// Listen addresses are strict; logs name IPv6 peers with brackets and port.
TEST(OmInetAddrTest, ListenTextAndPeerText) {
  for (const char* bad : {"[::1]", "::1:", "1.2.3.4:80", "010.0.0.1", "1.2.3.4 ", "localhost"}) {
    OmInetAddr a(9, 9, 9, 9, 77);
    EXPECT_FALSE(a.FromListenText(bad, 3579)) << bad;
    EXPECT_EQ(a.AsString(true), "9.9.9.9:3579") << bad;
  }
  OmInetAddr a;
  EXPECT_TRUE(a.FromListenText("", 1) && a.AsPeerString() == "0.0.0.0");
  EXPECT_TRUE(a.FromListenText("::", 2) && a.AsPeerString() == "[::]:2");
  EXPECT_TRUE(a.FromString("::ffff:10.1.2.3", false) && a.Unmapped().AsPeerString() == "10.1.2.3");
}

}  // namespace
