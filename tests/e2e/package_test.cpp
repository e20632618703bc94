// The Debian package, built by cpack from this build's install rules into a
// temporary folder and unpacked there; and the sample configuration on the
// real probe.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

namespace fs = std::filesystem;

const std::string kKey = "varosa.config.quelmloadbalancing.";
const std::vector<std::string> kKeys = {
    "port",         "filter",       "probepath",        "logdirectory",
    "piddirectory", "windowsize",   "samplerate",       "hostlifetime",
    "mincachesize", "logfilter",    "maxvirtualmemory", "maxphysicalmemory",
    "multiprocessorfactor"};

struct Output {
  int status = -1;
  std::string text;  // standard output and error together
};

Output Shell(const std::string& command) {
  Output out;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.text.append(buf, n);
  const int status = pclose(p);
  out.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

bool Have(const std::string& program) {
  return Shell("command -v " + program + " >/dev/null").status == 0;
}

bool IsExecutableFile(const fs::path& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR) != 0;
}

// Builds the package once for all tests of the suite.
class PackageTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!Have("cpack") || !Have("dpkg-deb")) return;
    char tmpl[] = "/tmp/quelm-package-XXXXXX";
    dir_ = new fs::path(mkdtemp(tmpl));
    const Output built = Shell("cpack --config " QUELM_BINARY_DIR "/CPackConfig.cmake -B " +
                               (*dir_ / "out").string());
    buildLog_ = new std::string(built.text);
    for (const auto& entry : fs::directory_iterator(*dir_ / "out")) {
      if (entry.path().extension() == ".deb") deb_ = new fs::path(entry.path());
    }
    if (deb_ == nullptr) return;
    root_ = new fs::path(*dir_ / "root");
    Shell("dpkg-deb -x " + deb_->string() + " " + root_->string());
    Shell("dpkg-deb -e " + deb_->string() + " " + (*dir_ / "control").string());
  }

  static void TearDownTestSuite() {
    if (dir_ != nullptr) fs::remove_all(*dir_);
    delete dir_;
    delete deb_;
    delete root_;
    delete buildLog_;
    dir_ = deb_ = root_ = nullptr;
    buildLog_ = nullptr;
  }

  void SetUp() override {
    if (dir_ == nullptr) GTEST_SKIP() << "cpack or dpkg-deb missing";
    ASSERT_NE(deb_, nullptr) << *buildLog_;
  }

  static std::string Read(const std::string& relative) {
    return ProbeRunner::ReadFile((*root_ / relative).string());
  }

  static fs::path* dir_;
  static fs::path* deb_;
  static fs::path* root_;
  static std::string* buildLog_;
};

fs::path* PackageTest::dir_ = nullptr;
fs::path* PackageTest::deb_ = nullptr;
fs::path* PackageTest::root_ = nullptr;
std::string* PackageTest::buildLog_ = nullptr;

TEST_F(PackageTest, FilesControlDataAndSettings) {
  EXPECT_TRUE(std::regex_match(deb_->filename().string(),
                               std::regex("quelmloadprobe_\\d+\\.\\d+\\.\\d+_[a-z0-9]+\\.deb")))
      << *deb_;
  EXPECT_TRUE(IsExecutableFile(*root_ / "usr/sbin/quelmloadprobe"));
  EXPECT_TRUE(IsExecutableFile(*root_ / "usr/bin/quelmloadctl"));
  EXPECT_TRUE(fs::is_regular_file(*root_ / "usr/lib/systemd/system/quelmloadprobe.service"));
  EXPECT_TRUE(fs::is_regular_file(*root_ / "etc/quelmloadprobe/quelmloadbalancing.properties"));
  EXPECT_TRUE(fs::is_regular_file(*root_ / "etc/logrotate.d/quelmloadprobe"));
  // The packaged (stripped) client still runs.
  const Output help = Shell((*root_ / "usr/bin/quelmloadctl").string() + " --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.text.rfind("Usage: quelmloadctl", 0), 0u);

  // Control data and maintainer scripts.
  const Output fields = Shell("dpkg-deb -f " + deb_->string() + " Package Depends Maintainer");
  EXPECT_NE(fields.text.find("Package: quelmloadprobe\n"), std::string::npos) << fields.text;
  EXPECT_TRUE(std::regex_search(fields.text, std::regex("Depends: [^\n]*\\bprocps\\b")))
      << fields.text;
  EXPECT_TRUE(std::regex_search(fields.text, std::regex("Maintainer: \\S")));

  const fs::path control = *dir_ / "control";
  EXPECT_EQ(ProbeRunner::ReadFile((control / "conffiles").string()),
            "/etc/quelmloadprobe/quelmloadbalancing.properties\n"
            "/etc/logrotate.d/quelmloadprobe\n");
  EXPECT_TRUE(IsExecutableFile(control / "postinst"));
  EXPECT_TRUE(IsExecutableFile(control / "postrm"));
  EXPECT_NE(ProbeRunner::ReadFile((control / "postinst").string())
                .find("adduser --system --group --no-create-home --home /nonexistent --quiet "
                      "quelmloadprobe"),
            std::string::npos);
  if (Have("sh")) {
    for (const char* script : {"postinst", "prerm", "postrm"}) {
      EXPECT_EQ(Shell("sh -n " + (control / script).string()).status, 0) << script;
    }
  }

  // The configuration is complete and uses the folders the unit makes.
  const std::string props = Read("etc/quelmloadprobe/quelmloadbalancing.properties");
  for (const std::string& key : kKeys) {
    EXPECT_TRUE(std::regex_search(props, std::regex("\n" + kKey + key + "=\\S")))
        << key << " is not set";
  }
  EXPECT_NE(props.find("\n" + kKey + "logdirectory=/var/log/quelmloadprobe\n"),
            std::string::npos);
  EXPECT_NE(props.find("\n" + kKey + "piddirectory=/run/quelmloadprobe\n"), std::string::npos);
  EXPECT_EQ(props.find("directory=/tmp"), std::string::npos);

  // The unit runs the probe in the foreground, hardened, as its own user.
  const std::string unit = Read("usr/lib/systemd/system/quelmloadprobe.service");
  for (const char* line :
       {"ExecStart=/usr/sbin/quelmloadprobe /etc/quelmloadprobe", "User=quelmloadprobe",
        "ExecReload=/bin/kill -HUP $MAINPID", "Restart=on-failure",
        "SuccessExitStatus=91 92 94", "RuntimeDirectory=quelmloadprobe",
        "LogsDirectory=quelmloadprobe", "NoNewPrivileges=yes", "ProtectSystem=strict",
        "ReadWritePaths=/var/log/quelmloadprobe /run/quelmloadprobe", "ProtectHome=yes",
        "CapabilityBoundingSet=", "PrivateTmp=yes", "WantedBy=multi-user.target"}) {
    EXPECT_NE(unit.find("\n" + std::string(line) + "\n"), std::string::npos) << line;
  }
  EXPECT_EQ(unit.find("Type=forking"), std::string::npos);

  const std::string rotate = Read("etc/logrotate.d/quelmloadprobe");
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
  const std::string unit = Read("usr/lib/systemd/system/quelmloadprobe.service");
  const std::string probe = (*root_ / "usr/sbin/quelmloadprobe").string();
  const std::string copy = std::regex_replace(
      unit, std::regex("\nExecStart=/usr/sbin/quelmloadprobe "), "\nExecStart=" + probe + " ");
  ASSERT_NE(copy, unit);
  const fs::path checked = *dir_ / "verify" / "quelmloadprobe.service";
  fs::create_directories(checked.parent_path());
  ProbeRunner::WriteFile(checked.string(), copy);
  const Output verify = Shell("systemd-analyze verify " + checked.string());
  EXPECT_EQ(verify.status, 0) << verify.text;
  // Complaints about the host's own units are not ours.
  EXPECT_EQ(verify.text.find("quelmloadprobe"), std::string::npos) << verify.text;
}

// Every key of the sample is understood: the probe names no key in its log
// (a missing or bad value is always reported with its key).
TEST(SampleConfigurationTest, ProbeStartsWithoutAComplaint) {
  ProbeRunner probe;
  std::string sample =
      ProbeRunner::ReadFile(QUELM_SOURCE_DIR "/config/quelmloadbalancing.properties.sample");
  ASSERT_FALSE(sample.empty());
  const std::pair<std::string, std::string> local[] = {
      {"port", std::to_string(probe.port())},
      {"logdirectory", probe.logDir()},
      {"piddirectory", fs::path(probe.PidFilePath()).parent_path().string()}};
  for (const auto& [key, value] : local) {
    const std::string changed = std::regex_replace(
        sample, std::regex("\n" + kKey + key + "=[^\n]*\n"),
        "\n" + kKey + key + "=" + value + "\n");
    ASSERT_NE(changed, sample) << key;
    sample = changed;
  }
  ProbeRunner::WriteFile(probe.dir() + "/quelmloadbalancing.properties", sample);
  probe.StartWithArgs({probe.dir()});
  ASSERT_TRUE(probe.WaitForPidFile(std::chrono::seconds(60)));
  EXPECT_TRUE(probe.WaitForLog("Quelm loadprobe started."));
  EXPECT_EQ(probe.Log().find(kKey), std::string::npos) << probe.Log();
  EXPECT_EQ(probe.Stop(SIGTERM), 92) << ProbeRunner::ReadFile(probe.dir() + "/stderr.txt");
}

}  // namespace
