// The measuring tool as the probe runs it: real vmstat and scripted fakes.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

std::string CommandLine(int pid) {
  std::string text = ProbeRunner::ReadFile("/proc/" + std::to_string(pid) + "/cmdline");
  for (char& c : text) {
    if (c == '\0') c = ' ';
  }
  return text;
}

const char kHeader[] =
    "echo 'procs -----------memory---------- ---swap-- -----io---- -system-- ------cpu-----'\n"
    "echo ' r  b   swpd   free   buff  cache   si   so    bi    bo   in   cs us sy id wa st'\n"
    "echo ' 9  9      9      9      9      9    9    9     9     9    9    9  9  9  9  9  9'\n";

TEST(MeasureTest, RealVmstatRunsWithRateAndCountAndIsKilledAtStop) {
  ProbeRunner probe;
  probe.Set("samplerate", "5");
  probe.Set("windowsize", "3");
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  const std::vector<int> children = probe.Children();
  ASSERT_EQ(children.size(), 1u);
  EXPECT_EQ(CommandLine(children[0]), "/usr/bin/vmstat -n 5 4 ");

  ASSERT_TRUE(probe.WaitForLog("The following results have just been cached: idle=",
                               std::chrono::seconds(15)));
  const std::string log = probe.Log();
  const size_t at = log.find("have just been cached: idle=");
  const int idle = std::stoi(log.substr(at + 28));
  EXPECT_GE(idle, 0);
  EXPECT_LE(idle, 100);
  EXPECT_NE(log.find("physmemfree=", at), std::string::npos);

  EXPECT_EQ(probe.Stop(SIGTERM), 92);
  EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(children[0])));
}

TEST(MeasureTest, ScriptedToolSamplesClampsAndRaisesTheMaximum) {
  ProbeRunner probe;
  const std::string tool = probe.dir() + "/tool";
  // Each run prints the headers, the since-boot line and one sample; runs
  // alternate between two samples so the raised maximum shows.
  ProbeRunner::WriteScript(tool, std::string(kHeader) +
      "n=$(cat " + probe.dir() + "/runs 2>/dev/null || echo 0)\n"
      "echo $((n + 1)) > " + probe.dir() + "/runs\n"
      "if [ $n -eq 0 ]; then\n"
      "  echo ' 0  0 600000 123456   2084  40064   7    8     0     0   71   89  0  0 101  0  0'\n"
      "else\n"
      "  echo ' 0  0 550000 123456   2084  40064   1    2     0     0   71   89  0  0 50  0  0'\n"
      "fi\n");
  probe.Set("probepath", tool);
  probe.Set("maxvirtualmemory", "500");  // 512000 KiB
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_TRUE(probe.WaitForLog("idle=50, swap=50000"));
  const std::string log = probe.Log();
  EXPECT_NE(log.find("The following results have just been cached: idle=100, swap=0, "
                     "\nphysmemfree=123456, swappedin=7, swappedout=8."),
            std::string::npos);
  EXPECT_NE(log.find("The used/free virtual memory measured (600000 Kb) exceeds the amount "
                     "configured in quelmloadprobe.properties (512000 Kb)."),
            std::string::npos);
  // The since-boot line is never a sample.
  EXPECT_EQ(log.find("idle=9,"), std::string::npos);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

TEST(MeasureTest, SixteenColumnLayoutWhenHeadersHaveNoNames) {
  ProbeRunner probe;
  const std::string tool = probe.dir() + "/tool";
  ProbeRunner::WriteScript(tool,
      "echo 'first header'\n"
      "echo 'second header'\n"
      "echo '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
      "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\n"
      "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 79'\n");
  probe.Set("probepath", tool);
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_TRUE(probe.WaitForLog("idle=79,"));
  const std::string log = probe.Log();
  EXPECT_NE(log.find("idle=77, swap=785432, \nphysmemfree=2000, swappedin=5, swappedout=6."),
            std::string::npos);
  // The tool is started again after each run.
  for (int i = 0; i < 100 && ProbeRunner::ReadFile(probe.LogPath()).find("idle=77") ==
                                 ProbeRunner::ReadFile(probe.LogPath()).rfind("idle=77");
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  const std::string later = probe.Log();
  EXPECT_NE(later.find("idle=77"), later.rfind("idle=77"));
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

TEST(MeasureTest, ToolThatClosesItsOutputButLingersIsRestarted) {
  ProbeRunner probe;
  const std::string tool = probe.dir() + "/tool";
  // After its sample the tool closes its output and would sleep on: the
  // second end-of-file read restarts it without waiting for its death.
  ProbeRunner::WriteScript(tool,
      "echo 'first header'\n"
      "echo 'second header'\n"
      "echo '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
      "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 55'\n"
      "exec >&- <&-\n"
      "sleep 60\n");
  probe.Set("probepath", tool);
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_TRUE(probe.WaitForLog("idle=55,"));
  bool twice = false;
  for (int i = 0; i < 200 && !twice; ++i) {
    const std::string log = probe.Log();
    twice = log.find("idle=55,") != log.rfind("idle=55,");
    if (!twice) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  EXPECT_TRUE(twice);
  // The lingering run was killed (and, a moment later, reaped).
  for (int i = 0; i < 100 && probe.Children().size() > 1; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LE(probe.Children().size(), 1u);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

TEST(MeasureTest, GarbageIsReportedAsUnrecognisedData) {
  ProbeRunner probe;
  const std::string tool = probe.dir() + "/tool";
  ProbeRunner::WriteScript(tool,
      "echo 'first header'\n"
      "echo 'second header'\n"
      "echo 'since boot'\n"
      "echo 'this is not a sample'\n");
  probe.Set("probepath", tool);
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_TRUE(probe.WaitForLog("has not been recognised by the data filter."));
  EXPECT_NE(probe.Log().find("The data returned by " + tool +
                             " has not been recognised by the data filter. \nThe data was "
                             "\nthis is not a sample\n"),
            std::string::npos);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

TEST(MeasureTest, ToolThatCannotBeExecutedDoesNotCauseAForkStorm) {
  ProbeRunner probe;
  const std::string tool = probe.dir() + "/not-executable";
  ProbeRunner::WriteFile(tool, "just text\n");
  probe.Set("probepath", tool);
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  const std::vector<int> first = probe.Children();
  ASSERT_EQ(first.size(), 1u);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(probe.Children(), first);  // the same waiting child, no new forks
  // The failed child let go of the command port.
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

}  // namespace
