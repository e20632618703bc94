// The Debian package, built by cpack from this build's install rules into a
// temporary folder and unpacked there; and the sample configuration on the
// real probe.
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

namespace fs = std::filesystem;

const std::string kKey = "varosa.config.quelmloadbalancing.";

bool Have(const std::string& program) {
  return Shell("command -v " + program + " >/dev/null").status == 0;
}

bool IsProgram(const fs::path& path) {
  return fs::is_regular_file(path) &&
         (fs::status(path).permissions() & fs::perms::owner_exec) != fs::perms::none;
}

// Builds the package once for all tests of the suite: the data in root/, the
// control files in control/.
class PackageTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!Have("cpack") || !Have("dpkg-deb")) return;
    char tmpl[] = "/tmp/quelm-package-XXXXXX";
    dir_ = mkdtemp(tmpl);
    const Output cpack = Shell("cpack --config " QUELM_BINARY_DIR "/CPackConfig.cmake -B " +
                               (dir_ / "out").string());
    log_ = cpack.out + cpack.err;
    for (const auto& entry : fs::directory_iterator(dir_ / "out")) {
      if (entry.path().extension() == ".deb") deb_ = entry.path();
    }
    if (deb_.empty()) return;
    Shell("dpkg-deb -x " + deb_.string() + " " + (dir_ / "root").string());
    Shell("dpkg-deb -e " + deb_.string() + " " + (dir_ / "control").string());
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) fs::remove_all(dir_);
  }
  void SetUp() override {
    if (dir_.empty()) GTEST_SKIP() << "cpack or dpkg-deb missing";
    ASSERT_FALSE(deb_.empty()) << log_;
  }
  static std::string Read(const std::string& relative) {
    return ProbeRunner::ReadFile((dir_ / relative).string());
  }

  static inline fs::path dir_, deb_;
  static inline std::string log_;
};

TEST_F(PackageTest, FilesAtTheirPathsAndMaintainerData) {
  EXPECT_TRUE(IsProgram(dir_ / "root/usr/sbin/quelmloadprobe"));
  EXPECT_TRUE(IsProgram(dir_ / "root/usr/bin/quelmloadctl"));
  const std::string unit = Read("root/usr/lib/systemd/system/quelmloadprobe.service");
  const std::string props = Read("root/etc/quelmloadprobe/quelmloadbalancing.properties");
  const std::string rotate = Read("root/etc/logrotate.d/quelmloadprobe");
  // The packaged (stripped) client still runs.
  const Output help = Shell((dir_ / "root/usr/bin/quelmloadctl").string() + " --help 2>&1");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage: quelmloadctl", 0), 0u);

  // vmstat is the measuring tool; the configuration survives upgrades; the
  // service user is made; the maintainer scripts are runnable shell.
  EXPECT_TRUE(std::regex_search(Shell("dpkg-deb -f " + deb_.string() + " Depends").out,
                                std::regex("\\bprocps\\b")));
  EXPECT_EQ(Read("control/conffiles"),
            "/etc/quelmloadprobe/quelmloadbalancing.properties\n/etc/logrotate.d/quelmloadprobe\n");
  EXPECT_NE(Read("control/postinst")
                .find("adduser --system --group --no-create-home --home /nonexistent --quiet "
                      "quelmloadprobe"),
            std::string::npos);
  for (const char* script : {"postinst", "prerm", "postrm"}) {
    EXPECT_TRUE(IsProgram(dir_ / "control" / script)) << script;
    EXPECT_EQ(Shell("sh -n " + (dir_ / "control" / script).string()).status, 0) << script;
  }

  // The sample's settings, with the folders that the unit makes and may
  // write to; the unit runs the probe in the foreground as the service user
  // and counts a stop by SIGINT, SIGTERM or SIGPIPE as success.
  EXPECT_NE(props.find("\n" + kKey + "logdirectory=/var/log/quelmloadprobe\n"),
            std::string::npos);
  EXPECT_NE(props.find("\n" + kKey + "piddirectory=/run/quelmloadprobe\n"), std::string::npos);
  for (const char* line :
       {"ExecStart=/usr/sbin/quelmloadprobe /etc/quelmloadprobe", "User=quelmloadprobe",
        "ExecReload=/bin/kill -HUP $MAINPID", "SuccessExitStatus=91 92 94",
        "RuntimeDirectory=quelmloadprobe", "LogsDirectory=quelmloadprobe",
        "ReadWritePaths=/var/log/quelmloadprobe /run/quelmloadprobe"}) {
    EXPECT_NE(unit.find("\n" + std::string(line) + "\n"), std::string::npos) << line;
  }
  EXPECT_EQ(unit.find("Type=forking"), std::string::npos);
  // Every run's .log and .csl are rotated, and the probe reopens its own.
  EXPECT_NE(rotate.find("/var/log/quelmloadprobe/*.log /var/log/quelmloadprobe/*.csl {"),
            std::string::npos);
  EXPECT_NE(rotate.find("systemctl reload quelmloadprobe.service"), std::string::npos);
  EXPECT_NE(rotate.find("kill -HUP \"$(cat /run/quelmloadprobe/quelmloadprobe.pid)\""),
            std::string::npos);
}

TEST_F(PackageTest, UnitPassesSystemdVerify) {
  if (!Have("systemd-analyze")) GTEST_SKIP() << "systemd-analyze missing";
  // verify insists that the program exists, so this copy starts the
  // unpacked one; every other line is the packaged unit's.
  const std::string unit = Read("root/usr/lib/systemd/system/quelmloadprobe.service");
  const std::string copy =
      std::regex_replace(unit, std::regex("\nExecStart=/usr/sbin/quelmloadprobe "),
                         "\nExecStart=" + (dir_ / "root/usr/sbin/quelmloadprobe").string() + " ");
  ASSERT_NE(copy, unit);
  const fs::path checked = dir_ / "verify" / "quelmloadprobe.service";
  fs::create_directories(checked.parent_path());
  ProbeRunner::WriteFile(checked.string(), copy);
  const Output verify = Shell("systemd-analyze verify " + checked.string() + " 2>&1");
  EXPECT_EQ(verify.status, 0) << verify.out;
  // Complaints about the host's own units are not ours.
  EXPECT_EQ(verify.out.find("quelmloadprobe"), std::string::npos) << verify.out;
}

// Every key of the sample is understood: the probe names no key in its log
// (a missing or bad value is always reported with its key).
TEST(SampleConfigurationTest, ProbeStartsWithoutAComplaint) {
  ProbeRunner probe;
  std::string sample =
      ProbeRunner::ReadFile(QUELM_SOURCE_DIR "/config/quelmloadbalancing.properties.sample");
  const std::pair<std::string, std::string> local[] = {
      {"port", std::to_string(probe.port())},
      {"logdirectory", probe.dir() + "/logs"},
      {"piddirectory", probe.dir() + "/run"}};
  for (const auto& [key, value] : local) {
    const std::string changed = std::regex_replace(
        sample, std::regex("\n" + kKey + key + "=[^\n]*\n"), "\n" + kKey + key + "=" + value + "\n");
    ASSERT_NE(changed, sample) << key;
    sample = changed;
  }
  ProbeRunner::WriteFile(probe.dir() + "/quelmloadbalancing.properties", sample);
  probe.StartWithArgs({probe.dir()});
  ASSERT_TRUE(probe.WaitForPidFile());
  EXPECT_TRUE(probe.WaitForLog("Quelm loadprobe started."));
  EXPECT_EQ(probe.Log().find(kKey), std::string::npos) << probe.Log();
  EXPECT_EQ(probe.Stop(SIGTERM), 92) << ProbeRunner::ReadFile(probe.dir() + "/stderr.txt");
}

}  // namespace
