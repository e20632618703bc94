// In-process load sources: written /proc and cgroup v2 files, a real cgroup v1, and the fall-back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "FakeEnv.h"
#include "agent/Globals.h"
#include "agent/Settings.h"
#include "measure/Cache.h"
#include "measure/CgroupSampler.h"
#include "measure/LoadSampler.h"
#include "measure/Pressure.h"

namespace {

namespace fs = std::filesystem;

void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

TEST(SamplerTest, ProcFiguresAsVmstatComputesThem) {
  const std::string root = TempDir();
  auto counters = [&](uint64_t idle, uint64_t busy, uint64_t swapIn) {
    write(root + "/stat", "cpu  " + std::to_string(busy) + " 0 0 " + std::to_string(idle) + " 0 0 0 0 0 0\ncpu0 1\n");
    write(root + "/vmstat", "pswpin " + std::to_string(swapIn) + "\npswpout 0\n");
  };
  write(root + "/meminfo", "MemTotal: 1000 kB\nMemFree:  300 kB\nSwapTotal: 500 kB\nSwapFree: 200 kB\n");
  counters(1000, 1000, 0);
  ProcSampler proc(root);
  LoadReading r;
  EXPECT_FALSE(proc.sample(10, r));  // primes
  counters(1075, 1025, 10);          // 75 of 100 ticks idle, 10 pages in over 2 s
  ASSERT_TRUE(proc.sample(12, r));
  EXPECT_EQ(r.idle, 75u);
  EXPECT_EQ(r.memFree, 300u);
  EXPECT_EQ(r.swapUsed, 300u);
  EXPECT_EQ(r.swapIn, static_cast<uint32_t>(10 * sysconf(_SC_PAGESIZE) / 1024 / 2));
  fs::remove_all(root);
}

// Idle against the quota or processors, memory under the limit, and pressure files.
TEST(SamplerTest, CgroupV2Fixture) {
  const unsigned cpus = ProcSampler::onlineProcessors();
  struct Case {
    const char* cpuMax;
    uint64_t usedUs, seconds;
    const char* memoryMax;
    uint32_t idle;
    uint64_t free;
  } cases[] = {
      {"25000 100000", 200000, 1, "104857600", 20, 51200},  // 0.2 of 0.25 used
      {"25000 100000", 900000, 2, "104857600", 0, 51200},   // throttled beyond: 0, not below
      {"50000 100000", 0, 1, "max", 100, 777},
      {"max 100000", 500000 * cpus, 1, "max", 50, 777},
  };
  const ProcSampler::Memory host{1000000, 777, 0, 0};
  for (const Case& c : cases) {
    const std::string dir = TempDir();
    write(dir + "/cpu.max", c.cpuMax);
    write(dir + "/memory.max", c.memoryMax);
    write(dir + "/memory.current", "52428800\n");
    write(dir + "/cpu.stat", "usage_usec 1000\nuser_usec 1\n");
    CgroupSampler cgroup;
    std::string why;
    ASSERT_TRUE(cgroup.open(dir, why)) << why;
    EXPECT_TRUE(cgroup.isV2());
    LoadReading r;
    EXPECT_FALSE(cgroup.sample(100, host, r));
    write(dir + "/cpu.stat", "usage_usec " + std::to_string(1000 + c.usedUs) + "\n");
    ASSERT_TRUE(cgroup.sample(100 + static_cast<double>(c.seconds), host, r)) << c.cpuMax;
    EXPECT_EQ(r.idle, c.idle) << c.cpuMax << " " << c.usedUs;
    EXPECT_EQ(r.memFree, c.free) << c.memoryMax;
    fs::remove_all(dir);
  }
  const std::string dir = TempDir();
  write(dir + "/cpu.pressure", "some avg10=12.50 avg60=3.00 avg300=1.00 total=4000000\n"
                               "full avg10=0.00 avg60=0.00 avg300=0.00 total=1\n");
  write(dir + "/io.pressure", "some avg10=1.00 avg60=0 avg300=0 total=5\n");
  const PressureFigures p = Pressure(dir).read();
  EXPECT_TRUE(p.some[PressureFigures::Cpu].present);
  EXPECT_DOUBLE_EQ(p.some[PressureFigures::Cpu].avg10, 12.5);
  EXPECT_EQ(p.some[PressureFigures::Cpu].totalUs, 4000000u);
  EXPECT_TRUE(p.full[PressureFigures::Cpu].present);
  EXPECT_FALSE(p.some[PressureFigures::Memory].present);  // no file: no figures, no error
  EXPECT_FALSE(p.full[PressureFigures::Io].present);
  fs::remove_all(dir);
}

// A tenth of a processor and a spinning child: saturated, whatever the host does.
TEST(SamplerTest, RealCgroupV1WithQuotaAndBusyChild) {
  const std::string base = "/sys/fs/cgroup/";
  const std::string name = "quelmtest" + std::to_string(getpid());
  for (const char* c : {"cpu", "cpuacct", "memory"}) {
    if (access((base + c).c_str(), W_OK) != 0 || mkdir((base + c + "/" + name).c_str(), 0755) != 0) {
      for (const char* d : {"cpu", "cpuacct", "memory"}) rmdir((base + d + "/" + name).c_str());
      GTEST_SKIP() << "needs a writable cgroup v1 hierarchy at " << base << c;
    }
  }
  write(base + "cpu/" + name + "/cpu.cfs_quota_us", "10000");
  write(base + "memory/" + name + "/memory.limit_in_bytes", "268435456");
  const pid_t child = fork();
  if (child == 0) {
    for (;;) {
    }
  }
  for (const char* c : {"cpu", "cpuacct", "memory"}) {
    write(base + c + "/" + name + "/cgroup.procs", std::to_string(child));
  }
  CgroupSampler cgroup;
  std::string why;
  EXPECT_TRUE(cgroup.open(base + "cpu/" + name, why)) << why;
  EXPECT_FALSE(cgroup.isV2());
  EXPECT_DOUBLE_EQ(cgroup.quotaProcessors(), 0.1);
  ProcSampler::Memory host;
  ProcSampler().readMemory(host);
  EXPECT_EQ(cgroup.memoryLimit(host), 262144u);  // found in the memory sibling
  LoadReading r;
  cgroup.sample(LoadSampler::steadyNow(), host, r);
  usleep(1000000);
  EXPECT_TRUE(cgroup.sample(LoadSampler::steadyNow(), host, r));
  EXPECT_LT(r.idle, 20u);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  for (const char* c : {"cpu", "cpuacct", "memory"}) EXPECT_EQ(rmdir((base + c + "/" + name).c_str()), 0);
}

unsigned observed = 0;
void observe(unsigned idle) { observed = idle; }

// The cgroup vanishes: the next sample is the host's.
TEST(SamplerTest, FallsBackToProcWhenTheCgroupVanishes) {
  const std::string dir = TempDir();
  write(dir + "/cpu.max", "100000 100000");
  write(dir + "/cpu.stat", "usage_usec 1\n");
  Settings settings;
  settings.loadSource = OmUniString("cgroup");
  settings.loadCgroup = OmUniString::FromUtf8(dir.c_str());
  Cache cache(4, settings.maxVirtualMemory, settings.maxPhysMemory);
  LoadSampler sampler(eventloop, settings, cache, &observe);
  ASSERT_TRUE(sampler.usingCgroup());
  sampler.takeSample(1);
  ASSERT_TRUE(sampler.takeSample(2));  // nothing used: idle 100
  EXPECT_EQ(observed, 100u);
  fs::remove_all(dir);
  usleep(30000);  // a few ticks of the host's real counters
  EXPECT_TRUE(sampler.takeSample(3));
  EXPECT_FALSE(sampler.usingCgroup());
  EXPECT_EQ(cache.getNumberOfSamples(), 2u);
}

}  // namespace
