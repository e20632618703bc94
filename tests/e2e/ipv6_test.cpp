// IPv6 with ipv6=1: a subscriber named by an IPv6 address gets its load
// packets on a listener of both families, the allow-list holds IPv6
// prefixes, and the metrics page is read over [::1].
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "probe_runner.h"

namespace {

bool HaveIpv6Loopback() {
  const int six = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 at{AF_INET6, 0, 0, in6addr_loopback, 0};
  const bool bound = bind(six, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0;
  close(six);
  return bound;
}

// Idle 77 at once: a threshold of 30 from a new host's 0 sends a packet.
const char kTool[] = "echo h1\necho h2\necho '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
                     "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nexec sleep 60 >&- <&-\n";

}  // namespace

TEST(Ipv6Test, SubscribersOverIpv6AndTheMetricsPageOverLoopback6) {
  if (!HaveIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  ProbeRunner probe;
  probe.SetTool(kTool);
  const int metricsPort = FreePort();
  probe.Set("ipv6", "1");
  probe.Set("subscriberallow", "2001:db8::/32, ::1");
  probe.Set("metricsport", std::to_string(metricsPort));
  probe.Set("metricsaddress", "::1");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());

  Ctl listener({"listen", "--port", "0", "--count", "1", "--timeout", "30000"});
  std::smatch m;
  std::string err;
  ASSERT_TRUE(Eventually(
      [&] { return std::regex_search(err = listener.Err(), m, std::regex("port (\\d+)\n")); }));
  auto create = [&](const std::string& id, const std::string& subscriber) {
    return RunCtl({"--port", std::to_string(probe.port()), "create", "--id", id, "--subscriber",
                   subscriber, "--stat", "cpu", "--percentchange", "30"});
  };
  EXPECT_EQ(create("1", "[::1]:" + m[1].str()).status, 0);
  EXPECT_EQ(create("2", "[2001:db9::1]:9").err, "quelmloadctl: Host not created\n");
  const Output got = listener.Finish();
  EXPECT_NE(got.out.find("<id>1</id>"), std::string::npos) << got.err;
  EXPECT_TRUE(probe.WaitForLog("sent to [::1]:" + m[1].str()));
  const std::string get = SendRequest(probe.port(), "GET /?get&znalbinfo");
  EXPECT_NE(get.find("<host>::1</host>"), std::string::npos) << get;  // as it was given

  const Output checked = Shell("curl -gsf --max-time 10 'http://[::1]:" +
                               std::to_string(metricsPort) + "/metrics' | promtool check metrics");
  EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

// listenaddress=::: the command and agent-check ports answer both families on
// one socket, and HAProxy takes the agent's weight over ::1.
TEST(Ipv6Test, PortsOnOneDualStackSocket) {
  if (!HaveIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  ASSERT_EQ(Shell("command -v haproxy && command -v socat").status, 0);
  ProbeRunner probe;
  probe.SetTool(kTool);
  const int agentPort = FreePort();
  probe.Set("listenaddress", "::");
  probe.Set("agentcheckport", std::to_string(agentPort));
  probe.Set("clientallow", "::1, 127.0.0.1");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  const std::string port = std::to_string(probe.port());
  const Output over6 = RunCtl({"--host", "::1", "--port", port, "get"});
  EXPECT_EQ(over6.status, 0) << over6.err;
  const Output over4 = RunCtl({"--host", "127.0.0.1", "--port", port, "get"});
  EXPECT_EQ(over4.status, 0) << over4.err;
  EXPECT_TRUE(probe.WaitForLog("Received new connection from [::1]:"));
  EXPECT_TRUE(probe.WaitForLog("Received new connection from 127.0.0.1."));

  const std::string dir = probe.dir();
  ProbeRunner::WriteFile(dir + "/haproxy.cfg",
      "global\n  stats socket " + dir + "/admin.sock level admin\n"
      "defaults\n  mode tcp\n  timeout connect 1s\n  timeout client 5s\n  timeout server 5s\n"
      "backend be\n  server web1 127.0.0.1:" + port + " weight 100 agent-check agent-addr ::1"
      " agent-port " + std::to_string(agentPort) + " agent-inter 100ms\n");
  Ctl haproxy({"/bin/sh", "-c", "exec haproxy -db -f " + dir + "/haproxy.cfg"});
  std::string state;
  EXPECT_TRUE(Eventually([&] {
    const Output o = Shell("echo 'show servers state be' | socat -t 5 - UNIX-CONNECT:" + dir +
                           "/admin.sock | awk '$4 == \"web1\" { print $7, $8 }'");
    // Ready, with the weight the probe gave (idle 77 and free memory), not the configured 100.
    return std::regex_match(state = o.out, std::regex("0 [1-9]\\d?\n"));
  }, 60s)) << state << haproxy.Err();
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}
