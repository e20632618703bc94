// The command port under connection floods: many short connections, many
// idle ones. Afterwards the probe must serve normally, give back every
// descriptor and go quiet again (no spinning).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kGet = "GET /?get&znalbinfo";

bool IsGetReply(const std::string& reply) {
  return reply.starts_with("<?xml version=\"1.0\"?><znalbreply type=\"get\"><version>1.0</version>") &&
         reply.ends_with("No Updates</znalbreply>");
}

double CpuSeconds(pid_t pid) {
  const std::string stat = ProbeRunner::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream rest(stat.substr(close + 2));
  std::string field;
  for (int i = 3; i <= 13; ++i) rest >> field;  // state .. cmajflt
  unsigned long utime = 0, stime = 0;
  rest >> utime >> stime;
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long OpenDescriptors(pid_t pid) {
  long n = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    ++n;
  }
  return n;
}

// Share of one core the probe used over about a second of quiet.
double CpuShareOverASecond(pid_t pid) {
  const double before = CpuSeconds(pid);
  const Clock::time_point start = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  return (CpuSeconds(pid) - before) / std::chrono::duration<double>(Clock::now() - start).count();
}

// Waits until the probe holds at most (or, with atLeast, at least) n descriptors.
bool WaitForDescriptors(pid_t pid, long n, bool atLeast, std::chrono::milliseconds timeout) {
  const Clock::time_point end = Clock::now() + timeout;
  for (;;) {
    const long open = OpenDescriptors(pid);
    if (atLeast ? open >= n : open <= n) return true;
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

int ConnectNonBlocking(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 && errno != EINPROGRESS) {
    close(fd);
    return -1;
  }
  return fd;
}

struct BurstResult {
  int answered = 0;  // complete get replies
  int failed = 0;    // refused, reset, cut short or timed out
};

// `total` connections, `inFlight` at a time, each sending one get and
// reading its reply to the end (the probe ends the reply by shutting down
// its side). Bounded by `timeout` overall.
BurstResult Burst(int port, int total, int inFlight, std::chrono::milliseconds timeout) {
  struct Client {
    int fd = -1;
    bool sent = false;
    std::string reply;
  };
  BurstResult result;
  std::vector<Client> clients(static_cast<size_t>(inFlight));
  int started = 0;
  const Clock::time_point end = Clock::now() + timeout;
  auto finish = [&](Client& c, bool ok) {
    close(c.fd);
    c = Client();
    ok ? ++result.answered : ++result.failed;
  };
  auto refill = [&] {
    for (Client& c : clients) {
      if (c.fd < 0 && started < total) {
        ++started;
        c.fd = ConnectNonBlocking(port);
        if (c.fd < 0) ++result.failed;
      }
    }
  };
  refill();
  std::vector<pollfd> fds(clients.size());
  while (result.answered + result.failed < total && Clock::now() < end) {
    for (size_t i = 0; i < clients.size(); ++i) {
      fds[i] = {clients[i].fd, static_cast<short>(clients[i].sent ? POLLIN : POLLOUT), 0};
    }
    if (poll(fds.data(), fds.size(), 100) <= 0) continue;
    for (size_t i = 0; i < clients.size(); ++i) {
      Client& c = clients[i];
      if (c.fd < 0 || fds[i].revents == 0) continue;
      if (!c.sent) {
        c.sent = true;
        if (send(c.fd, kGet.data(), kGet.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(kGet.size())) {
          finish(c, false);
        }
        continue;
      }
      char buf[4096];
      const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
      if (n > 0) {
        c.reply.append(buf, static_cast<size_t>(n));
      } else if (n == 0) {
        finish(c, IsGetReply(c.reply));
      } else if (errno != EAGAIN) {
        finish(c, false);
      }
    }
    refill();
  }
  for (Client& c : clients) {
    if (c.fd >= 0) finish(c, false);
  }
  return result;
}

class FloodTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The test holds hundreds of sockets itself.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    if (files.rlim_cur < files.rlim_max) {
      files.rlim_cur = files.rlim_max;
      setrlimit(RLIMIT_NOFILE, &files);
    }
    if (files.rlim_cur < 700) GTEST_SKIP() << "descriptor limit " << files.rlim_cur << " too low";

    // A tool that reports once and then stays quiet, so that the probe's own
    // descriptors do not change while the test counts them.
    const std::string tool = probe_.dir() + "/tool";
    ProbeRunner::WriteScript(tool,
        "echo 'first header'\necho 'second header'\n"
        "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 90'\nexec sleep 30\n");
    probe_.Set("probepath", tool);
    probe_.Start();
    ASSERT_TRUE(probe_.WaitForPidFile());
    ASSERT_TRUE(probe_.WaitUntilPolling());
    ASSERT_TRUE(IsGetReply(SendRequest(probe_.port(), kGet)));
    // That get's circuit lives on for a second; count without it.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    baseDescriptors_ = OpenDescriptors(probe_.pid());
  }

  void TearDown() override {
    // SIGTERM, so that the probe stops its tool too.
    if (probe_.Running()) {
      EXPECT_EQ(probe_.Stop(SIGTERM), 604 & 0xFF);
    }
  }

  // After a flood: every descriptor given back, a get served, no spinning.
  void ExpectRecovered() {
    const pid_t pid = probe_.pid();
    EXPECT_TRUE(WaitForDescriptors(pid, baseDescriptors_, false, std::chrono::seconds(5)))
        << OpenDescriptors(pid) << " descriptors open, " << baseDescriptors_ << " before";
    const std::string reply = SendRequest(probe_.port(), kGet);
    EXPECT_TRUE(IsGetReply(reply)) << reply;
    EXPECT_LT(CpuShareOverASecond(pid), 0.2);
    EXPECT_TRUE(probe_.Running());
  }

  ProbeRunner probe_;
  long baseDescriptors_ = 0;
};

TEST_F(FloodTest, BurstOfShortConnectionsIsServedAndLeavesNothingBehind) {
  // Up to 32 at once: more than the listen backlog, so some connects are
  // dropped and retried by TCP; all must still be answered.
  const BurstResult burst = Burst(probe_.port(), 2000, 32, std::chrono::seconds(30));
  EXPECT_EQ(burst.answered, 2000);
  EXPECT_EQ(burst.failed, 0);
  ExpectRecovered();
  EXPECT_NE(probe_.Log().find("Received new connection from 127.0.0.1."), std::string::npos);
}

TEST_F(FloodTest, IdleConnectionsCostOneDescriptorEachAndDoNotBlockOthers) {
  const pid_t pid = probe_.pid();
  // In batches no larger than the listen backlog, each accepted before the
  // next, so that TCP never has to retry a connect.
  std::vector<int> idle;
  while (idle.size() < 500) {
    for (int i = 0; i < 5; ++i) {
      const int fd = ConnectNonBlocking(probe_.port());
      ASSERT_GE(fd, 0);
      idle.push_back(fd);
    }
    ASSERT_TRUE(WaitForDescriptors(pid, baseDescriptors_ + static_cast<long>(idle.size()), true,
                                   std::chrono::seconds(5)))
        << idle.size() << " connected, probe holds " << OpenDescriptors(pid) - baseDescriptors_;
  }
  EXPECT_EQ(OpenDescriptors(pid), baseDescriptors_ + 500);

  // Waiting clients do not hold up a new one, nor keep the probe busy.
  const Clock::time_point start = Clock::now();
  const std::string reply = SendRequest(probe_.port(), kGet, std::chrono::seconds(5));
  EXPECT_TRUE(IsGetReply(reply)) << reply;
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
  EXPECT_LT(CpuShareOverASecond(pid), 0.2);

  // Still open: none of them was closed or answered by the probe.
  int answered = 0;
  for (int fd : idle) {
    char byte;
    if (recv(fd, &byte, 1, MSG_DONTWAIT) >= 0) ++answered;
  }
  EXPECT_EQ(answered, 0);

  for (int fd : idle) close(fd);
  ExpectRecovered();
}

}  // namespace
