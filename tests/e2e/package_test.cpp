// The install layout of the package, from this build (the package itself: scripts/package-test.sh).

#include "probe_runner.h"

namespace {

const std::string kKey = "varosa.config.quelmloadbalancing.";

TEST(PackageTest, InstallLayoutUnitsAndSystemdVerify) {
  ProbeRunner folder;  // for its temporary folder only
  const std::string dir = folder.dir();
  const Output installed = Shell("DESTDIR=" + dir + "/root cmake --install " QUELM_BINARY_DIR
                                 " --prefix /usr >/dev/null");
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
  // The installed programs run; the pages, completion and kit are there.
  const Output help = Shell(dir + "/root/usr/bin/quelmloadctl --help 2>&1");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage: quelmloadctl", 0), 0u);
  for (const char* file : {"usr/sbin/quelmloadprobe", "usr/share/man/man8/quelmloadprobe.8",
                           "usr/share/man/man1/quelmloadctl.1",
                           "usr/share/man/man5/quelmloadbalancing.properties.5",
                           "usr/share/bash-completion/completions/quelmloadctl",
                           "usr/share/doc/quelmloadprobe/examples/quelmloadprobe-alerts.yml",
                           "usr/share/doc/quelmloadprobe/examples/quelmloadprobe-dashboard.json"}) {
    EXPECT_TRUE(fs::exists(dir + "/root/" + file)) << file;
  }
  // The unit's folders, private clients, foreground run as its user, clean stop signals, log rotation.
  const std::string unit = "root/usr/lib/systemd/system/quelmloadprobe.service",
                    props = "root/etc/quelmloadprobe/quelmloadbalancing.properties",
                    rotate = "root/etc/logrotate.d/quelmloadprobe";
  const std::pair<std::string, std::string> holds[] = {
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
      {props, "\n" + kKey + "clientallow=127.0.0.0/8,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,::1,fc00::/7\n"},
      {props, "\n" + kKey + "subscriberallow=127.0.0.0/8,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,::1,fc00::/7\n"},
      {rotate, "systemctl reload quelmloadprobe.service"},
      {rotate, "kill -HUP \"$(cat /run/quelmloadprobe/quelmloadprobe.pid)\""},
  };
  for (const auto& [file, text] : holds) {
    EXPECT_NE(ProbeRunner::ReadFile(dir + "/" + file).find(text), std::string::npos) << text;
  }
  const std::string unitText = ProbeRunner::ReadFile(dir + "/" + unit);
  EXPECT_EQ(unitText.find("Type=forking"), std::string::npos);

  if (Shell("command -v systemd-analyze").status != 0) GTEST_SKIP() << "no systemd-analyze";
  // verify wants the program to exist: this copy of the unit starts the unpacked one.
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
