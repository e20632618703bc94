// The probe's life as an operator sees it: start, pid file, logs, signals, stop.
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

mode_t FileMode(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 0777;
}

TEST(LifecycleTest, StartsServesAndStopsOnSigterm) {
  ProbeRunner probe;
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  EXPECT_EQ(ProbeRunner::ReadFile(probe.PidFilePath()), std::to_string(probe.pid()));
  EXPECT_TRUE(probe.WaitForLog("Quelm loadprobe started."));

  EXPECT_EQ(probe.Stop(SIGTERM), 604 & 0xFF);
  EXPECT_FALSE(std::filesystem::exists(probe.PidFilePath()));
  const std::string log = probe.Log();
  EXPECT_NE(log.find("The loadprobe was stopped by signal SIGTERM."), std::string::npos);
  EXPECT_NE(log.find("Quelm loadprobe stopped - exitcode 604."), std::string::npos);
  EXPECT_EQ(FileMode(probe.LogPath()), 0600u);
}

TEST(LifecycleTest, SigintEndsWith603) {
  ProbeRunner probe;
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  EXPECT_EQ(probe.Stop(SIGINT), 603 & 0xFF);
  EXPECT_NE(probe.Log().find("Quelm loadprobe stopped - exitcode 603."), std::string::npos);
}

TEST(LifecycleTest, StructuredLogHoldsOnlyErrors) {
  ProbeRunner probe;
  probe.Unset("mincachesize");  // a missing key is an error message
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_EQ(probe.Stop(SIGTERM), 92);
  const std::string csl = probe.Csl();
  EXPECT_EQ(FileMode(probe.CslPath()), 0600u);
  EXPECT_NE(csl.find("category=quelmloadprobe/initialize/error,"), std::string::npos);
  EXPECT_EQ(csl.find("/info,"), std::string::npos);
  EXPECT_EQ(csl.find("/moreinfo,"), std::string::npos);
  EXPECT_NE(probe.Log().find("mincachesize does not exist"), std::string::npos);
}

TEST(LifecycleTest, SighupReopensRenamedLog) {
  ProbeRunner probe;
  probe.Start();
  ASSERT_TRUE(probe.WaitForPidFile());
  ASSERT_TRUE(probe.WaitForLog("Quelm loadprobe started."));
  const std::string rotated = probe.LogPath() + ".1";
  ASSERT_EQ(std::rename(probe.LogPath().c_str(), rotated.c_str()), 0);
  kill(probe.pid(), SIGHUP);
  // The stop message proves the probe carried on and wrote to the new file.
  for (int i = 0; i < 100 && !std::filesystem::exists(probe.LogPath()); ++i) {
    usleep(20000);
  }
  EXPECT_TRUE(std::filesystem::exists(probe.LogPath()));
  EXPECT_TRUE(probe.Running());
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
  EXPECT_NE(probe.Log().find("Quelm loadprobe stopped - exitcode 604."), std::string::npos);
  EXPECT_EQ(probe.Log().find("Quelm loadprobe started."), std::string::npos);
}

TEST(LifecycleTest, UnknownFilterEndsWithCode4BeforeThePidFile) {
  ProbeRunner probe;
  probe.Set("filter", "VmstatFilter");
  probe.Start();
  EXPECT_EQ(probe.Wait(), 4);
  EXPECT_FALSE(std::filesystem::exists(probe.PidFilePath()));
  const std::string log = probe.Log();
  EXPECT_NE(log.find("The filter named VmstatFilter was not recognised."), std::string::npos);
  EXPECT_NE(log.find("Quelm loadprobe stopped - exitcode 4."), std::string::npos);
}

TEST(LifecycleTest, BadPidDirectoryIsLoggedAndLeavesNoPidFile) {
  ProbeRunner probe;
  probe.Set("piddirectory", probe.dir() + "/missing");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  EXPECT_NE(probe.Log().find("The path " + probe.dir() +
                             "/missing does not exist or is not a directory."),
            std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(probe.dir() + "/missing/quelmloadprobe.pid"));
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

}  // namespace
