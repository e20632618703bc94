#include "foundation/net/OmSystemd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "foundation/net/OmSocket.h"

namespace {

TEST(OmSystemdTest, PassedCountOnlyForThisPid) {
  struct Case { const char* pid; const char* fds; int expected; };
  const Case cases[] = {{"42", "2", 2}, {"43", "2", 0}, {nullptr, "2", 0}, {"42", nullptr, 0},
                        {"42", "x", 0}, {"", "1", 0},   {"42", "-1", 0},   {"42", "0", 0},
                        {"4x2", "1", 0}, {"42", "99999999999", 0}};
  for (const Case& c : cases) EXPECT_EQ(c.expected, OmSystemd::PassedCount(c.pid, c.fds, 42)) << c.fds;
}

TEST(OmSystemdTest, WatchdogOnlyForThisPid) {
  EXPECT_EQ(30000000u, OmSystemd::WatchdogMicroseconds("30000000", nullptr, 42));
  EXPECT_EQ(30000000u, OmSystemd::WatchdogMicroseconds("30000000", "42", 42));
  EXPECT_EQ(0u, OmSystemd::WatchdogMicroseconds("30000000", "41", 42));
  EXPECT_EQ(0u, OmSystemd::WatchdogMicroseconds("3s", nullptr, 42));
  EXPECT_EQ(0u, OmSystemd::WatchdogMicroseconds(nullptr, nullptr, 42));
}

int ListeningOn(unsigned& port) {
  OmSocket s;
  OmInetAddr bound;
  if (!s.Bind(OmInetAddr::AddressLoopback(), OmSocket::Stream) || !s.Listen(4) ||
      !s.LocalAddress(bound)) {
    return -1;
  }
  port = bound.GetPort();
  return s.Release();
}

// Passed descriptors are matched by their listening port, each taken once;
// a datagram socket on the same port is no listener.
TEST(OmSystemdTest, TakesThePassedListenerOfAPort) {
  unsigned first = 0, second = 0;
  const int a = ListeningOn(first), b = ListeningOn(second);
  OmSocket udp;
  OmInetAddr on = OmInetAddr::AddressLoopback();
  on.Port(first);
  ASSERT_TRUE(udp.Bind(on, OmSocket::Datagram));
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  ASSERT_EQ(200, dup2(udp.Fd(), 200));
  ASSERT_EQ(201, dup2(a, 201));
  ASSERT_EQ(202, dup2(b, 202));
  close(a), close(b);
  OmSystemd::AcceptPassed(200, 3);
  EXPECT_NE(0, fcntl(202, F_GETFD) & FD_CLOEXEC);

  OmSocket taken, again, other;
  EXPECT_TRUE(OmSystemd::TakeListener(taken, second));
  EXPECT_EQ(202, taken.Fd());
  EXPECT_FALSE(OmSystemd::TakeListener(again, second));
  EXPECT_TRUE(OmSystemd::TakeListener(other, first));
  EXPECT_EQ(201, other.Fd());
  EXPECT_FALSE(OmSystemd::TakeListener(again, first));
  OmSystemd::Reset();
  close(200);
}

// A datagram reaches a socket named by a path and one in the abstract
// namespace; no NOTIFY_SOCKET is no manager, a bad one an error.
TEST(OmSystemdTest, NotifiesPathAndAbstractSockets) {
  const std::string path = "/tmp/omsystemd-" + std::to_string(getpid());
  for (const std::string& name : {path, "@omsystemd-" + std::to_string(getpid())}) {
    sockaddr_un address;
    socklen_t length = 0;
    ASSERT_TRUE(OmSystemd::NotifyAddress(name.c_str(), address, length));
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), length)) << name;
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    std::string reason;
    EXPECT_TRUE(OmSystemd::Notify("READY=1", reason)) << reason;
    char buf[64];
    const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    EXPECT_EQ("READY=1", std::string(buf, n > 0 ? static_cast<size_t>(n) : 0)) << name;
    close(fd);
  }
  unlink(path.c_str());
  std::string reason;
  setenv("NOTIFY_SOCKET", "relative", 1);
  EXPECT_FALSE(OmSystemd::Notify("READY=1", reason));
  EXPECT_NE(std::string::npos, reason.find("relative"));
  unsetenv("NOTIFY_SOCKET");
  EXPECT_TRUE(OmSystemd::Notify("READY=1", reason));
}

}  // namespace
