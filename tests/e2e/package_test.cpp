// The Debian package, built by cpack from this build's install rules into a
// temporary folder and unpacked there.

#include "probe_runner.h"

namespace {

const std::string kKey = "varosa.config.quelmloadbalancing.";

TEST(PackageTest, ContentsMaintainerDataAndSystemdVerify) {
  if (Shell("command -v cpack && command -v dpkg-deb").status != 0) GTEST_SKIP() << "no cpack";
  ProbeRunner folder;  // for its temporary folder only
  const std::string dir = folder.dir();
  const Output built = Shell("cd " + dir + " && cpack --config " QUELM_BINARY_DIR
                             "/CPackConfig.cmake -B out && dpkg-deb -x out/*.deb root && "
                             "dpkg-deb -e out/*.deb control && dpkg-deb -f out/*.deb Depends");
  ASSERT_EQ(built.status, 0) << built.out << built.err;
  // vmstat is the measuring tool.
  EXPECT_TRUE(std::regex_search(built.out, std::regex("\n.*\\bprocps\\b.*\n$"))) << built.out;
  // The packaged (stripped) programs run.
  const Output help = Shell(dir + "/root/usr/bin/quelmloadctl --help 2>&1");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage: quelmloadctl", 0), 0u);
  EXPECT_EQ(Shell("test -x " + dir + "/root/usr/sbin/quelmloadprobe").status, 0);
  // The configuration survives upgrades; the maintainer scripts are runnable shell.
  EXPECT_EQ(ProbeRunner::ReadFile(dir + "/control/conffiles"),
            "/etc/quelmloadprobe/quelmloadbalancing.properties\n/etc/logrotate.d/quelmloadprobe\n");
  for (const char* script : {"postinst", "prerm", "postrm"}) {
    EXPECT_EQ(Shell("test -x " + dir + "/control/" + script + " && sh -n " + dir + "/control/" +
                    script).status, 0) << script;
  }
  // The service user is made; the sample's folders are those the unit makes
  // and may write to; the unit runs the probe in the foreground as that user
  // and counts a stop by SIGINT, SIGTERM or SIGPIPE as success; every run's
  // .log and .csl are rotated, and the probe reopens its own.
  const std::string unit = "root/usr/lib/systemd/system/quelmloadprobe.service",
                    props = "root/etc/quelmloadprobe/quelmloadbalancing.properties",
                    rotate = "root/etc/logrotate.d/quelmloadprobe";
  const std::pair<std::string, std::string> holds[] = {
      {"control/postinst", "adduser --system --group --no-create-home --home /nonexistent "
                           "--quiet quelmloadprobe"},
      {props, "\n" + kKey + "logdirectory=/var/log/quelmloadprobe\n"},
      {props, "\n" + kKey + "piddirectory=/run/quelmloadprobe\n"},
      {unit, "\nExecStart=/usr/sbin/quelmloadprobe /etc/quelmloadprobe\n"},
      {unit, "\nUser=quelmloadprobe\n"},
      {unit, "\nExecReload=/bin/kill -HUP $MAINPID\n"},
      {unit, "\nSuccessExitStatus=91 92 94\n"},
      {unit, "\nRuntimeDirectory=quelmloadprobe\n"},
      {unit, "\nLogsDirectory=quelmloadprobe\n"},
      {unit, "\nStateDirectory=quelmloadprobe\n"},
      {unit, "\nType=notify\n"},
      {props, "\n" + kKey + "statefile=/var/lib/quelmloadprobe/subscriptions.state\n"},
      {props, "\n" + kKey + "systemd=1\n"},
      {"root/usr/lib/systemd/system/quelmloadprobe.socket", "\nListenStream=0.0.0.0:3579\n"},
      {unit, "\nReadWritePaths=/var/log/quelmloadprobe /run/quelmloadprobe\n"},
      {rotate, "/var/log/quelmloadprobe/*.log /var/log/quelmloadprobe/*.csl {"},
      {rotate, "systemctl reload quelmloadprobe.service"},
      {rotate, "kill -HUP \"$(cat /run/quelmloadprobe/quelmloadprobe.pid)\""},
  };
  for (const auto& [file, text] : holds) {
    EXPECT_NE(ProbeRunner::ReadFile(dir + "/" + file).find(text), std::string::npos) << text;
  }
  const std::string unitText = ProbeRunner::ReadFile(dir + "/" + unit);
  EXPECT_EQ(unitText.find("Type=forking"), std::string::npos);

  if (Shell("command -v systemd-analyze").status != 0) GTEST_SKIP() << "no systemd-analyze";
  // verify insists that the program exists, so this copy starts the
  // unpacked one; every other line is the packaged unit's.
  const std::string copy = std::regex_replace(
      unitText, std::regex("\nExecStart=/usr/sbin/"), "\nExecStart=" + dir + "/root/usr/sbin/");
  ASSERT_NE(copy, unitText);
  fs::create_directories(dir + "/verify");
  ProbeRunner::WriteFile(dir + "/verify/quelmloadprobe.service", copy);
  fs::copy_file(dir + "/root/usr/lib/systemd/system/quelmloadprobe.socket",
                dir + "/verify/quelmloadprobe.socket");
  const Output verify = Shell("systemd-analyze verify " + dir + "/verify/quelmloadprobe.socket " +
                              dir + "/verify/quelmloadprobe.service 2>&1");
  EXPECT_EQ(verify.status, 0) << verify.out;
  // Complaints about the host's own units are not ours.
  EXPECT_EQ(verify.out.find("quelmloadprobe"), std::string::npos) << verify.out;
}

}  // namespace
