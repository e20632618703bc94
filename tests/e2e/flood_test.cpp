// Connection floods: afterwards the probe serves, gives back its descriptors and goes quiet.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "bench/ProcStat.h"
#include "probe_runner.h"

namespace {

const std::string kGet = "GET /?get&znalbinfo";

bool IsGetReply(const std::string& reply) {
  return reply.starts_with("<?xml version=\"1.0\"?><znalbreply type=\"get\"><version>1.0<") &&
         reply.ends_with("No Updates</znalbreply>");
}

// Processor seconds the probe uses over a quiet half second.
double CpuOverHalfASecond(pid_t pid) {
  const double before = ReadProcSample(pid).cpuSeconds;
  std::this_thread::sleep_for(500ms);
  return ReadProcSample(pid).cpuSeconds - before;
}

TEST(FloodTest, BurstIdleConnectionsAndNoDescriptorsLeft) {
  // The test holds hundreds of sockets itself.
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 700) GTEST_SKIP() << "descriptor limit " << files.rlim_cur << " too low";

  // A tool that writes once and stays quiet: the probe's descriptors hold still.
  ProbeRunner probe;
  probe.SetTool("echo 'first header'\necho 'second header'\nexec sleep 600\n");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  const pid_t pid = probe.pid();
  const long base = ReadProcSample(pid).openDescriptors;
  auto descriptorsAtMost = [&](long n) { return ReadProcSample(pid).openDescriptors <= n; };
  auto expectRecovered = [&] {
    EXPECT_TRUE(Eventually([&] { return descriptorsAtMost(base); }))
        << ReadProcSample(pid).openDescriptors << " descriptors open, " << base << " before";
    const std::string reply = SendRequest(probe.port(), kGet);
    EXPECT_TRUE(IsGetReply(reply)) << reply;
    EXPECT_LT(CpuOverHalfASecond(pid), 0.1);
  };

  // 2,000 gets from 32 clients, beyond the backlog: all answered.
  std::atomic<int> answered = 0;
  std::vector<std::jthread> clients;
  for (int i = 0; i < 32; ++i) {
    clients.emplace_back([&, i] {
      for (int n = i < 16 ? 63 : 62; n > 0; --n) {  // 16 * 63 + 16 * 62
        answered += IsGetReply(SendRequest(probe.port(), kGet));
      }
    });
  }
  clients.clear();  // joins them
  EXPECT_EQ(answered, 2000);
  EXPECT_NE(probe.Log().find("Received new connection from 127.0.0.1."), std::string::npos);
  expectRecovered();

  // 500 idle connections (batches of the backlog): a descriptor each, holding up no one.
  std::vector<int> idle;
  while (idle.size() < 500) {
    for (int i = 0; i < 5; ++i) idle.push_back(Connect(probe.port(), SOCK_NONBLOCK));
    ASSERT_TRUE(Eventually([&] { return !descriptorsAtMost(base + long(idle.size()) - 1); }, 10s))
        << idle.size() << " connected, probe holds " << ReadProcSample(pid).openDescriptors - base;
  }
  EXPECT_EQ(ReadProcSample(pid).openDescriptors, base + 500);
  EXPECT_TRUE(IsGetReply(SendRequest(probe.port(), kGet)));
  EXPECT_LT(CpuOverHalfASecond(pid), 0.1);

#ifndef QUELM_SANITIZED
  // No descriptor left: accepting pauses, said once (the sanitizer needs some too).
  const rlimit few{rlim_t(base + 502), files.rlim_max};
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &few, nullptr), 0);
  for (int i = 0; i < 10; ++i) idle.push_back(Connect(probe.port(), SOCK_NONBLOCK));
  ASSERT_TRUE(probe.WaitForLog("Failed to accept new connection [Reason: accept("));
  EXPECT_LT(CpuOverHalfASecond(pid), 0.05);
  const std::string log = probe.Log(), failed = "Failed to accept new connection";
  EXPECT_EQ(log.find(failed), log.rfind(failed));
#endif

  // Still open: none of them was closed or answered by the probe.
  int replied = 0;
  for (int fd : idle) {
    char byte;
    replied += recv(fd, &byte, 1, MSG_DONTWAIT) >= 0;
    close(fd);
  }
  EXPECT_EQ(replied, 0);
  expectRecovered();
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

}  // namespace
