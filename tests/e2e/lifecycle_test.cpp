// Start, pid file, real vmstat, logs, signals and stop; and a scripted tool's output.
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "probe_runner.h"

namespace {

// The probe's current vmstat child (runs are replaced), or 0.
int VmstatChild(const ProbeRunner& probe) {
  Output found;
  Eventually([&] {
    found = Shell("pgrep -x -f -P " + std::to_string(probe.pid()) + " '/usr/bin/vmstat -n 5 4'");
    return found.status == 0;
  });
  return std::atoi(found.out.c_str());
}

TEST(LifecycleTest, SampleConfigurationRealVmstatSighupAndSigterm) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // orphans become ours: a tool left running shows
  ProbeRunner probe;
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  EXPECT_EQ(ProbeRunner::ReadFile(probe.PidFilePath()), std::to_string(probe.pid()));
  EXPECT_NE(VmstatChild(probe), 0);
  const std::regex cached("have just been cached: idle=(\\d+), swap=\\d+, \nphysmemfree=\\d+, "
                          "swappedin=\\d+, swappedout=\\d+\\.");
  std::smatch sample;
  std::string log;
  ASSERT_TRUE(Eventually([&] { return std::regex_search(log = probe.Log(), sample, cached); }));
  EXPECT_LE(std::stoi(sample[1]), 100);
  // Every key of the sample is understood (a bad one would be named).
  EXPECT_EQ(log.find("varosa.config.quelmloadbalancing."), std::string::npos) << log;
  EXPECT_NE(log.find("Quelm loadprobe started."), std::string::npos);
  EXPECT_EQ(SendRequest(probe.port(), "GET /"),
            "Message is either too short or too long to be valid");

  // SIGHUP reopens the logs: the renamed one ends, a new one begins.
  const std::string rotated = probe.LogPath() + ".1";
  ASSERT_EQ(std::rename(probe.LogPath().c_str(), rotated.c_str()), 0);
  probe.Signal(SIGHUP);
  EXPECT_TRUE(Eventually([&] { return fs::exists(probe.LogPath()); }));

  const int tool = VmstatChild(probe);
  ASSERT_NE(tool, 0);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
  int status = 0;  // -1: the probe reaped it; else it was left to us
  EXPECT_TRUE(waitpid(tool, &status, 0) == -1 || WTERMSIG(status) == SIGKILL) << status;
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  EXPECT_FALSE(fs::exists(probe.PidFilePath()));
  log = probe.Log();
  EXPECT_EQ(log.find("Quelm loadprobe started."), std::string::npos);
  EXPECT_NE(log.find("The loadprobe was stopped by signal SIGTERM."), std::string::npos);
  EXPECT_NE(log.find("Quelm loadprobe stopped - exitcode 604."), std::string::npos);
  // The structured log holds the errors only (the bad request); both are private.
  const std::string csl = probe.Csl();
  EXPECT_NE(csl.find("category=quelmloadprobe/listener/error,"), std::string::npos);
  EXPECT_EQ(csl.find("/info,"), std::string::npos);
  EXPECT_EQ(csl.find("/moreinfo,"), std::string::npos);
  for (const std::string& path : {probe.LogPath(), probe.CslPath()}) {
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  }
}

std::string Status(int pid) { return ProbeRunner::ReadFile("/proc/" + std::to_string(pid) + "/status"); }
bool Holds(const std::string& text, const std::vector<std::string>& parts) {
  return std::all_of(parts.begin(), parts.end(), [&](auto& p) { return text.find(p) != std::string::npos; });
}

// The tool runs as the user from its first start, the probe from its pid file on.
TEST(LifecycleTest, StartedAsRootServesAsTheConfiguredUserAndGroup) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can switch users";
  const passwd* nobody = getpwnam("nobody");
  const gid_t daemon = getgrnam("daemon")->gr_gid;
  const std::string u = "\t" + std::to_string(nobody->pw_uid), g = "\t" + std::to_string(daemon);
  // The user keeps its own group (the kernel sorts them: daemon's first).
  const std::vector<std::string> ids = {"Uid:" + u + u + u + u + "\nGid:" + g + g + g + g + "\n",
                                        "Groups:" + g + " " + std::to_string(nobody->pw_gid) + " \n"};
  ProbeRunner probe;
  chmod(probe.dir().c_str(), 0755);
  for (const char* folder : {"/logs", "/run"}) chown((probe.dir() + folder).c_str(), nobody->pw_uid, daemon);
  probe.SetTool("exec /usr/bin/vmstat -n 1 2\n");  // short runs: started after the switch too
  probe.Set("user", "nobody"), probe.Set("group", "daemon");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  EXPECT_TRUE(fs::exists(probe.PidFilePath()) && Holds(Status(probe.pid()), ids));
  std::set<int> good, bad;  // each child once it runs vmstat: it took on the ids before exec
  EXPECT_TRUE(Eventually([&] {
    for (int child : probe.Children()) {
      const std::string status = Status(child);
      if (Holds(status, {"Name:\tvmstat\n"})) (Holds(status, ids) ? good : bad).insert(child);
    }
    return good.size() + bad.size() >= 3;
  }));
  EXPECT_TRUE(bad.empty());
  EXPECT_NE(SendRequest(probe.port(), "GET /?get&znalbinfo HTTP/1.0\r\n\r\n").find("<znalbreply"),
            std::string::npos);
  ASSERT_EQ(std::rename(probe.LogPath().c_str(), (probe.LogPath() + ".1").c_str()), 0);
  probe.Signal(SIGHUP);
  EXPECT_TRUE(Eventually([&] { return fs::exists(probe.LogPath()); }));
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
  EXPECT_FALSE(fs::exists(probe.PidFilePath()));
}

// An unexecutable tool's failed child waits a sample interval (30 s), not replaced at once.
TEST(LifecycleTest, BadPidDirectoryUnexecutableToolAndSigint) {
  ProbeRunner probe;
  probe.Set("piddirectory", probe.dir() + "/missing");
  probe.Set("samplerate", "30");
  probe.Set("probepath", probe.dir() + "/not-executable");
  ProbeRunner::WriteFile(probe.dir() + "/not-executable", "just text\n");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  EXPECT_TRUE(probe.WaitForLog("The path " + probe.dir() +
                               "/missing does not exist or is not a directory."));
  EXPECT_FALSE(fs::exists(probe.dir() + "/missing"));
  const std::vector<int> first = probe.Children();
  ASSERT_EQ(first.size(), 1u);
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(probe.Children(), first);
  EXPECT_EQ(probe.Stop(SIGINT), 603 & 0xFF);
  EXPECT_NE(probe.Log().find("Quelm loadprobe stopped - exitcode 603."), std::string::npos);
}

TEST(LifecycleTest, UnknownFilterEndsWithCode4BeforeThePidFile) {
  ProbeRunner probe;
  probe.Set("filter", "VmstatFilter");
  probe.Start();
  EXPECT_EQ(probe.Wait(), 4);
  EXPECT_FALSE(fs::exists(probe.PidFilePath()));
  const std::string log = probe.Log();
  EXPECT_NE(log.find("The filter named VmstatFilter was not recognised."), std::string::npos);
  EXPECT_NE(log.find("Quelm loadprobe stopped - exitcode 4."), std::string::npos);
}

// Garbage, then samples to clamp and above the memory maximum; idle below 94 keeps the speed estimate away.
TEST(MeasureTest, ScriptedToolClampsRaisesTheMaximumAndReportsGarbage) {
  ProbeRunner probe;
  const std::string runs = probe.dir() + "/runs";
  const std::string tool = probe.SetTool(
      "n=$(cat " + runs + " 2>/dev/null || echo 0)\necho $((n + 1)) > " + runs + "\n"
      "[ $n -ge 2 ] && exec sleep 600\n"
      "printf 'first header\\nsecond header\\n9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9\\n'\n"
      "[ $n -eq 0 ] && echo 'this is not a sample' && exit\n"
      "echo '0 0 0 600000 123456 2084 40064 7 8 0 0 71 89 0 0 101'\n"
      "echo '0 0 0 550000 123456 2084 40064 1 2 0 0 71 89 0 0 50'\n");
  probe.Set("maxvirtualmemory", "500");  // 512000 KiB
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
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
