// IPv6 subscribers, IPv6 allow-lists, the metrics page over [::1] and a dual-stack listener.
#include "probe_runner.h"

TEST(Ipv6Test, SubscribersOverIpv6AndTheMetricsPageOverLoopback6) {
  if (!HasIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  ProbeRunner probe;
  // Idle 77 at once: a threshold of 30 from a new host's 0 sends a packet.
  probe.SetTool(kIdle77Tool);
  const int metricsPort = FreePort();
  probe.Set("ipv6", "1");
  probe.Set("subscriberallow", "2001:db8::/32, ::1");
  probe.Set("metricsport", std::to_string(metricsPort));
  probe.Set("metricsaddress", "::1");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());

  Ctl listener({"listen", "--port", "0", "--count", "1", "--timeout", "30000"});
  const std::string port = std::to_string(ListenPort(listener));
  ASSERT_NE(port, "0") << listener.Err();
  auto create = [&](const std::string& id, const std::string& subscriber) {
    return RunCtl({"--port", std::to_string(probe.port()), "create", "--id", id, "--subscriber",
                   subscriber, "--stat", "cpu", "--percentchange", "30"});
  };
  EXPECT_EQ(create("1", "[::1]:" + port).status, 0);
  EXPECT_EQ(create("2", "[2001:db9::1]:9").err, "quelmloadctl: Host not created\n");
  const Output got = listener.Finish();
  EXPECT_NE(got.out.find("<id>1</id>"), std::string::npos) << got.err;
  EXPECT_TRUE(probe.WaitForLog("sent to [::1]:" + port));
  const std::string get = SendRequest(probe.port(), "GET /?get&znalbinfo");
  EXPECT_NE(get.find("<host>::1</host>"), std::string::npos) << get;  // as it was given

  const Output checked = Shell("curl -gsf --max-time 10 'http://[::1]:" +
                               std::to_string(metricsPort) + "/metrics' | promtool check metrics");
  EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

// listenaddress=::: both families on one socket; HAProxy takes the agent's weight over ::1.
TEST(Ipv6Test, PortsOnOneDualStackSocket) {
  if (!HasIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  ASSERT_EQ(Shell("command -v haproxy && command -v socat").status, 0);
  ProbeRunner probe;
  probe.SetTool(kIdle77Tool);
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

  Ctl haproxy = StartHaproxy(probe.dir(), "127.0.0.1:" + port + " weight 100 agent-check agent-addr ::1"
                            " agent-port " + std::to_string(agentPort) + " agent-inter 100ms");
  std::string state;  // ready, with the probe's weight (idle 77 and free memory), not the configured 100
  const std::regex weighed("0 [1-9]\\d?\n");
  EXPECT_TRUE(Eventually([&] { return std::regex_match(state = HaproxyState(probe.dir()), weighed); }, 60s))
      << state << haproxy.Err();
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}
