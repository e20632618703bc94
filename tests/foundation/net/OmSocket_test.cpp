#include "foundation/net/OmSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "FakeEnv.h"

namespace {

// Bind's waits only count (FakeEnv).
class OmSocketTest : public ::testing::Test {
 protected:
  // A TCP listener on 127.0.0.1 with a port chosen by the system.
  static void Listen(OmSocket& s, OmInetAddr& bound) {
    ASSERT_TRUE(s.Bind(OmInetAddr::AddressLoopback(), OmSocket::Stream, true))
        << s.LastError().Reason().AsAscii();
    ASSERT_TRUE(s.Listen(5));
    ASSERT_TRUE(s.LocalAddress(bound));
  }

  FakeEnv env_;
};

// Bind waits two (faked) seconds between attempts; verbose ones print a dot each.
TEST_F(OmSocketTest, BindInUseRetries) {
  const struct {
    int retries;
    bool verbose;
    int releaseOnSleep;
    bool ok;
    int sleeps;
    const char* err;
  } cases[] = {
      {3, true, 0, false, 3, "A socket is still in use, attempting 3 retries......\n"},
      {5, true, 2, true, 2, "A socket is still in use, attempting 5 retries....\n"},
      {2, false, 0, false, 2, ""},
      {0, true, 0, false, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.retries << " retries, verbose " << c.verbose);
    OmSocket holder;
    OmInetAddr bound;
    Listen(holder, bound);
    // Frees the port on the given wait so that a later attempt succeeds.
    env_.sleeps.clear();
    env_.onSleep = [&] {
      if (static_cast<int>(env_.sleeps.size()) == c.releaseOnSleep) holder.Close();
    };

    OmSocket s;
    testing::internal::CaptureStderr();
    EXPECT_EQ(s.Bind(bound, OmSocket::Stream, true, c.retries, c.verbose), c.ok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(env_.sleeps, std::vector<unsigned>(static_cast<size_t>(c.sleeps), 2u));
    if (!c.ok) {
      EXPECT_EQ(s.LastError().Errno(), EADDRINUSE);
      EXPECT_EQ(s.LastError().Call(), "bind");
      EXPECT_EQ(s.LastError().Args().AsAscii(),
                std::to_string(s.Fd()) + ",127.0.0.1:" + std::to_string(bound.GetPort()));
    }
  }
}

TEST_F(OmSocketTest, BindOtherFirstErrorGivesUpAtOnce) {
  // Not an address of this machine: EADDRNOTAVAIL, no traffic involved.
  const OmInetAddr foreign(203, 0, 113, 1, 4000);
  for (bool verbose : {false, true}) {
    OmSocket s;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(s.Bind(foreign, OmSocket::Datagram, true, 3, verbose));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(env_.sleeps.empty());
    EXPECT_EQ(s.LastError().Errno(), EADDRNOTAVAIL);
    EXPECT_EQ(s.LastError().Call(), "bind");
    EXPECT_EQ(s.LastError().Args().AsAscii(), std::to_string(s.Fd()) + ",203.0.113.1:4000");
  }
}

// Nothing waiting: EAGAIN, the connection server's cue to stop accepting.
TEST_F(OmSocketTest, AcceptWithNothingWaitingFails) {
  OmSocket listener, none;
  OmInetAddr bound;
  Listen(listener, bound);
  ASSERT_TRUE(listener.SetBlocking(false));
  EXPECT_EQ(none.AcceptFrom(listener.Fd()), OmStatus::Failure);
  EXPECT_TRUE(none.Fd() < 0 && none.LastError().Errno() == EAGAIN && none.LastError().Call() == "accept");
}

// One socket on "::" serves both families; IPv4 peers are not shown mapped.
TEST_F(OmSocketTest, DualStackListenerAcceptsBothFamilies) {
  OmSocket listener, taken;
  if (!listener.ListenOn(OmInetAddr::AddressAny6(), 5)) {
    GTEST_SKIP() << "no IPv6 here: " << listener.LastError().Reason().AsAscii();
  }
  OmInetAddr bound, held = OmInetAddr::AddressLoopback6();
  ASSERT_TRUE(listener.LocalAddress(bound) && listener.SetBlocking(true));
  for (OmInetAddr to : {OmInetAddr::AddressLoopback6(), OmInetAddr::AddressLoopback()}) {
    to.Port(bound.GetPort());
    OmSocket client, accepted;
    OmInetAddr clientAddr, peer;
    ASSERT_TRUE(client.Connect(to) && client.LocalAddress(clientAddr));
    ASSERT_EQ(accepted.AcceptFrom(listener, SOCK_CLOEXEC), OmStatus::Success);
    EXPECT_TRUE(accepted.RemoteAddress(peer) && peer == clientAddr && !peer.IsMappedIPv4());
  }
  // A failed bind names its IPv6 address in brackets.
  held.Port(bound.GetPort());
  EXPECT_FALSE(taken.ListenOn(held, 5));
  EXPECT_EQ(taken.LastError().Args().AsAscii(),
            std::to_string(taken.Fd()) + ",[::1]:" + std::to_string(bound.GetPort()));
}

}  // namespace
