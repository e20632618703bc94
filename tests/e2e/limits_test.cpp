// Running out of descriptors: the probe pauses accepting instead of spinning,
// says so once, and serves normally again when connections are gone.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

// A non-blocking connect: with the probe's backlog full it stays pending.
int Connect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 &&
      errno != EINPROGRESS) {
    close(fd);
    return -1;
  }
  return fd;
}

long CpuTicks(pid_t pid) {
  const std::string stat = ProbeRunner::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t end = stat.rfind(')');
  if (end == std::string::npos) return -1;
  std::istringstream fields(stat.substr(end + 2));
  std::string skip;
  for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
  long utime = 0, stime = 0;
  fields >> utime >> stime;
  return utime + stime;
}

TEST(LimitsTest, OutOfDescriptorsPausesLogsOnceAndRecovers) {
#ifdef QUELM_SANITIZED
  // The sanitizer runtime itself needs descriptors (it probes memory through
  // a pipe), so a probe that has none left gives false reports there.
  GTEST_SKIP() << "not meaningful in a sanitized build";
#endif
  ProbeRunner probe;
  probe.SetOpenFileLimit(20);  // the probe itself needs about 12
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_TRUE(probe.WaitUntilPolling());

  // Idle connections until the probe has no descriptor left for more.
  std::vector<int> idle;
  for (int i = 0; i < 24; ++i) {
    const int fd = Connect(probe.port());
    if (fd >= 0) idle.push_back(fd);
  }
  ASSERT_TRUE(probe.WaitForLog("Failed to accept new connection [Reason: accept("));
  // Paused, not spinning: well under a tenth of a core over half a second.
  const long before = CpuTicks(probe.pid());
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LT(CpuTicks(probe.pid()) - before, 5);
  const std::string log = probe.Log();
  EXPECT_EQ(log.find("Failed to accept new connection"),
            log.rfind("Failed to accept new connection"));

  for (int fd : idle) close(fd);
  const std::string reply = SendRequest(probe.port(), "GET /?get&znalbinfo");
  EXPECT_NE(reply.find("No Updates</znalbreply>"), std::string::npos) << reply;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

}  // namespace
