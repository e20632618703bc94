#include "foundation/net/OmSystemd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "foundation/net/OmSocket.h"

namespace {

TEST(OmSystemdTest, VariablesCountOnlyForThisPid) {
  EXPECT_EQ(2, OmSystemd::PassedCount("42", "2", 42));
  for (const auto& [pid, fds] : {std::pair{"43", "2"}, {nullptr, "2"}, {"42", nullptr}, {"42", "x"},
                                 {"", "1"}, {"4x2", "1"}, {"42", "99999999999"}}) {
    EXPECT_EQ(0, OmSystemd::PassedCount(pid, fds, 42)) << (pid ? pid : "null");
  }
  EXPECT_EQ(30000000u, OmSystemd::WatchdogMicroseconds("30000000", nullptr, 42));
  EXPECT_EQ(30000000u, OmSystemd::WatchdogMicroseconds("30000000", "42", 42));
  EXPECT_EQ(0u, OmSystemd::WatchdogMicroseconds("30000000", "41", 42));
  EXPECT_EQ(0u, OmSystemd::WatchdogMicroseconds("3s", nullptr, 42));
}

// Passed listeners matched by port, each taken once; a datagram socket is none.
TEST(OmSystemdTest, TakesThePassedListenerOfAPort) {
  OmSocket udp, first, second;
  OmInetAddr a, b;
  ASSERT_TRUE(first.Bind(OmInetAddr::AddressLoopback(), OmSocket::Stream) && first.Listen(4) &&
              first.LocalAddress(a) && second.Bind(OmInetAddr::AddressLoopback(), OmSocket::Stream) &&
              second.Listen(4) && second.LocalAddress(b) && udp.Bind(a, OmSocket::Datagram));
  ASSERT_TRUE(dup2(udp.Fd(), 200) == 200 && dup2(first.Fd(), 201) == 201 && dup2(second.Fd(), 202) == 202);
  OmSystemd::AcceptPassed(200, 3);
  EXPECT_NE(0, fcntl(202, F_GETFD) & FD_CLOEXEC);
  OmSocket taken, other, none;
  EXPECT_TRUE(OmSystemd::TakeListener(taken, b.GetPort()) && taken.Fd() == 202);
  EXPECT_FALSE(OmSystemd::TakeListener(none, b.GetPort()));
  EXPECT_TRUE(OmSystemd::TakeListener(other, a.GetPort()) && other.Fd() == 201);
  EXPECT_FALSE(OmSystemd::TakeListener(none, a.GetPort()));
  OmSystemd::Reset();
  close(200);
}

// Notifications to a path or abstract name; none without NOTIFY_SOCKET, an error for a bad one.
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
  unsetenv("NOTIFY_SOCKET");
  EXPECT_TRUE(OmSystemd::Notify("READY=1", reason));
}

}  // namespace
