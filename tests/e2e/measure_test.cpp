// A scripted measuring tool whose runs differ: a sample to clamp, a sample
// above the configured virtual memory, then output the filter cannot read.
// The real vmstat is in lifecycle_test.cpp, the 16-column layout and a
// lingering tool in command_test.cpp, an unexecutable tool in lifecycle_test.cpp.
#include <signal.h>

#include <string>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

TEST(MeasureTest, ScriptedToolClampsRaisesTheMaximumAndReportsGarbage) {
  ProbeRunner probe;
  const std::string runs = probe.dir() + "/runs";
  const std::string tool = probe.SetTool(
      "n=$(cat " + runs + " 2>/dev/null || echo 0)\necho $((n + 1)) > " + runs + "\n"
      "if [ $n -eq 0 ]; then\n"
      "  printf 'first header\\nsecond header\\nsince boot\\nthis is not a sample\\n'\n"
      "  exit\n"
      "fi\n"
      "[ $n -ge 3 ] && exec sleep 600\n"
      "echo 'procs -----------memory---------- ---swap-- -----io---- -system-- ------cpu-----'\n"
      "echo ' r  b   swpd   free   buff  cache   si   so    bi    bo   in   cs us sy id wa st'\n"
      "echo ' 9  9      9      9      9      9    9    9     9     9    9    9  9  9  9  9  9'\n"
      "if [ $n -eq 1 ]; then\n"
      "  echo ' 0  0 600000 123456   2084  40064   7    8     0     0   71   89  0  0 101  0  0'\n"
      "else\n"
      "  echo ' 0  0 550000 123456   2084  40064   1    2     0     0   71   89  0  0 50  0  0'\n"
      "fi\n");
  probe.Set("maxvirtualmemory", "500");  // 512000 KiB
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  // The raised maximum: 550000 KiB in use leaves 50000 free.
  ASSERT_TRUE(probe.WaitForLog("idle=50, swap=50000, \nphysmemfree=123456, swappedin=1, "
                               "swappedout=2.")) << probe.Log();
  const std::string log = probe.Log();
  EXPECT_NE(log.find("The following results have just been cached: idle=100, swap=0, "
                     "\nphysmemfree=123456, swappedin=7, swappedout=8."), std::string::npos);
  EXPECT_NE(log.find("The used/free virtual memory measured (600000 Kb) exceeds the amount "
                     "configured in quelmloadprobe.properties (512000 Kb)."), std::string::npos);
  EXPECT_NE(log.find("The data returned by " + tool + " has not been recognised by the data "
                     "filter. \nThe data was \nthis is not a sample\n"), std::string::npos);
  // The since-boot line is never a sample.
  EXPECT_EQ(log.find("idle=9,"), std::string::npos);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

}  // namespace
