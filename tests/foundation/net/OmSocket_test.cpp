#include "foundation/net/OmSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

// Counts Bind's waits instead of sleeping; optionally frees the port on the
// given wait so that a later attempt succeeds.
int g_sleeps = 0;
int g_releaseOnSleep = 0;
OmSocket* g_holder = nullptr;

unsigned FakeSleep(unsigned seconds) {
  EXPECT_EQ(seconds, 2u);
  ++g_sleeps;
  if (g_holder != nullptr && g_sleeps == g_releaseOnSleep) g_holder->Close();
  return 0;
}

class OmSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_sleeps = 0;
    g_releaseOnSleep = 0;
    g_holder = nullptr;
    previous_ = OmSocket::SetSleepFunction(FakeSleep);
  }
  void TearDown() override { OmSocket::SetSleepFunction(previous_); }

  // A TCP listener on 127.0.0.1 with a port chosen by the system.
  static void Listen(OmSocket& s, OmInetAddr& bound) {
    ASSERT_TRUE(s.Bind(OmInetAddr::AddressLoopback(), OmSocket::Stream, true))
        << s.LastError().Reason().AsAscii();
    ASSERT_TRUE(s.Listen(5));
    ASSERT_TRUE(s.LocalAddress(bound));
  }

  OmSocket::SleepFunction previous_ = nullptr;
};

// While the port is held, Bind waits two seconds (faked here) between attempts;
// verbose retries print one dot per attempt.
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
    EXPECT_TRUE(bound.IsAddressEqual(OmInetAddr::AddressLoopback()));
    EXPECT_NE(bound.GetPort(), 0u);
    EXPECT_EQ(holder.GetKind(), OmFile::kInetSocket);
    g_sleeps = 0;
    g_holder = &holder;
    g_releaseOnSleep = c.releaseOnSleep;

    OmSocket s;
    testing::internal::CaptureStderr();
    EXPECT_EQ(s.Bind(bound, OmSocket::Stream, true, c.retries, c.verbose), c.ok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(g_sleeps, c.sleeps);
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
    EXPECT_EQ(g_sleeps, 0);
    EXPECT_EQ(s.LastError().Errno(), EADDRNOTAVAIL);
    EXPECT_EQ(s.LastError().Call(), "bind");
    EXPECT_EQ(s.LastError().Args().AsAscii(), std::to_string(s.Fd()) + ",203.0.113.1:4000");
  }
}

TEST_F(OmSocketTest, BindLocalRemovesStalePath) {
  char dir[] = "/tmp/omsocket_testXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/sock";
  ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
  {
    OmSocket s;
    EXPECT_TRUE(s.Bind(OmSocketAddress(OmUniString(path.c_str())), OmSocket::Stream))
        << s.LastError().Reason().AsAscii();
    EXPECT_EQ(s.GetKind(), OmFile::kLocalSocket);
    EXPECT_TRUE(s.Listen(1));
  }
  ::unlink(path.c_str());
  ::rmdir(dir);
}

TEST_F(OmSocketTest, WriteMessageSendsOneDatagram) {
  OmSocket receiver, sender;
  OmInetAddr to, senderAddr, from;
  ASSERT_TRUE(receiver.Bind(OmInetAddr::AddressLoopback(), OmSocket::Datagram));
  ASSERT_TRUE(receiver.LocalAddress(to));
  ASSERT_TRUE(sender.Bind(OmInetAddr()));
  ASSERT_TRUE(sender.LocalAddress(senderAddr));
  long done = -7;
  EXPECT_EQ(sender.WriteMessage("hello", 5, done, to), OmFile::ioComplete);
  EXPECT_EQ(done, -7);  // left alone on a complete send
  char buf[64];
  EXPECT_EQ(receiver.ReadMessage(buf, sizeof buf, done, from), OmFile::ioPartial);
  EXPECT_EQ(std::string(buf, static_cast<size_t>(done)), "hello");
  EXPECT_TRUE(from.IsAddressEqual(OmInetAddr::AddressLoopback()));
  EXPECT_EQ(from.GetPort(), senderAddr.GetPort());
  // Nothing more waiting on a non-blocking socket.
  ASSERT_TRUE(receiver.SetBlocking(false));
  EXPECT_EQ(receiver.ReadMessage(buf, sizeof buf, done, from), OmFile::ioPartial);
  EXPECT_EQ(done, 0);

  OmSocket closed;
  EXPECT_EQ(closed.WriteMessage("hello", 5, done, OmInetAddr(127, 0, 0, 1, 9)), OmFile::ioError);
  EXPECT_EQ(closed.LastError().Errno(), EBADF);
  EXPECT_EQ(closed.LastError().Call(), "sendto");
  EXPECT_EQ(closed.LastError().Args(), "-1,<address>,5,127.0.0.1:9,16");
}

TEST_F(OmSocketTest, AcceptFrom) {
  OmSocket listener, client, accepted, none;
  OmInetAddr bound, clientAddr, peer;
  Listen(listener, bound);
  ASSERT_TRUE(listener.SetBlocking(false));
  EXPECT_EQ(none.AcceptFrom(listener.Fd()), OmStatus::Failure);  // nothing waiting
  EXPECT_LT(none.Fd(), 0);
  EXPECT_EQ(none.LastError().Errno(), EAGAIN);
  EXPECT_EQ(none.LastError().Call(), "accept");
  EXPECT_EQ(none.LastError().Args().AsAscii(), std::to_string(listener.Fd()) + ",0,0");

  ASSERT_TRUE(client.Connect(bound)) << client.LastError().Reason().AsAscii();
  ASSERT_TRUE(client.LocalAddress(clientAddr));
  ASSERT_TRUE(listener.SetBlocking(true));
  ASSERT_EQ(accepted.AcceptFrom(listener.Fd()), OmStatus::Success);
  ASSERT_TRUE(accepted.RemoteAddress(peer));
  EXPECT_TRUE(peer == clientAddr);
  long done = 0;
  EXPECT_EQ(client.Write("ping", 4, done), OmFile::ioComplete);
  char buf[8];
  EXPECT_EQ(accepted.Read(buf, 4, done), OmFile::ioComplete);
  EXPECT_EQ(std::string(buf, 4), "ping");
}

TEST_F(OmSocketTest, NonBlockingConnectCompletesOrIsRefused) {
  OmSocket listener;
  OmInetAddr bound;
  Listen(listener, bound);
  OmUniString reason;
  // A listening port, then the same port once nobody listens there.
  for (bool listening : {true, false}) {
    if (!listening) listener.Close();
    OmSocket client;
    ASSERT_TRUE(client.makesock(SOCK_STREAM, AF_INET));
    ASSERT_TRUE(client.SetBlocking(false));
    if (client.Connect(bound)) continue;
    if (client.LastError().Errno() == EINPROGRESS) {
      pollfd p{client.Fd(), POLLOUT, 0};
      ASSERT_EQ(::poll(&p, 1, 5000), 1);
      EXPECT_EQ(client.ConnectionComplete(reason),
                listening ? OmSocket::Connected : OmSocket::ConnectFailed);
      if (!listening) {
        EXPECT_NE(reason.Search(OmUniString("refused")), -1) << reason.AsAscii();
      }
    }
    if (!listening) {
      EXPECT_EQ(client.LastError().Errno(), ECONNREFUSED);
    }
  }
}

TEST_F(OmSocketTest, OptionsTakeEffectAndFailuresDescribeTheCall) {
  OmSocket s;
  ASSERT_TRUE(s.makesock(SOCK_DGRAM, AF_INET));
  auto option = [](const OmSocket& on, int level, int name) {
    int v = -1;
    socklen_t len = sizeof v;
    EXPECT_EQ(getsockopt(on.Fd(), level, name, &v, &len), 0);
    return v;
  };
  EXPECT_TRUE(s.SetReceiveBufferSize(16384));
  EXPECT_GE(s.GetReceiveBufferSize(), 16384);
  // The type of service is set only with VRX_SET_IP_TOS in the environment.
  ::unsetenv("VRX_SET_IP_TOS");
  EXPECT_TRUE(s.SetTypeOfService(OmSocket::LowDelay));
  EXPECT_EQ(option(s, IPPROTO_IP, IP_TOS), 0);
  ::setenv("VRX_SET_IP_TOS", "1", 1);
  const int expected[] = {0x02, 0x10, 0x04, 0x08};
  for (int type = 0; type < 4; ++type) {
    EXPECT_TRUE(s.SetTypeOfService(static_cast<OmSocket::serviceType>(type)));
    EXPECT_EQ(option(s, IPPROTO_IP, IP_TOS), expected[type]) << type;
  }
  OmSocket tcp;
  ASSERT_TRUE(tcp.makesock(SOCK_STREAM, AF_INET));
  EXPECT_TRUE(tcp.SetDelay(false));  // no delay is TCP_NODELAY on
  EXPECT_EQ(option(tcp, IPPROTO_TCP, TCP_NODELAY), 1);

  OmSocket closed;
  EXPECT_FALSE(closed.SetTypeOfService(OmSocket::Throughput));
  EXPECT_EQ(closed.LastError().Args().AsAscii(), "-1,IPPROTO_IP(" + std::to_string(IPPROTO_IP) +
                                                     "),IP_TOS(" + std::to_string(IP_TOS) +
                                                     "),(char*)(int 8),4");
  ::unsetenv("VRX_SET_IP_TOS");
  EXPECT_FALSE(closed.SetKeepAlive(true));
  EXPECT_EQ(closed.LastError().Call(), "setsockopt");
  EXPECT_EQ(closed.LastError().Errno(), EBADF);
  EXPECT_EQ(closed.LastError().Args().AsAscii(),
            "-1,SOL_SOCKET(" + std::to_string(SOL_SOCKET) + "),SO_KEEPALIVE(" +
                std::to_string(SO_KEEPALIVE) + "),(char*)(int 1),4");
  EXPECT_EQ(closed.GetReceiveBufferSize(), -1);
  EXPECT_EQ(closed.LastError().Call(), "getsockopt");
  EXPECT_FALSE(closed.makesock(SOCK_STREAM, 12345));
  EXPECT_EQ(closed.LastError().Call(), "socket");
}

}  // namespace
