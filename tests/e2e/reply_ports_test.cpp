// The agent check and metrics ports with HAProxy and promtool.
#include <poll.h>
#include <unistd.h>

#include "probe_runner.h"

namespace {

// A metric's value on the page, or -1.
double Metric(const std::string& page, const std::string& name) {
  std::smatch m;
  const std::regex line("\n" + std::regex_replace(name, std::regex("[{}\"]"), "\\$&") + " (\\S+)\n");
  return std::regex_search(page, m, line) ? std::stod(m[1]) : -1;
}

}  // namespace

TEST(ReplyPortsTest, HaproxyWeighsAndDrainsByTheProbeAndPromtoolReadsItsPage) {
  // The test command installs both: their absence is a failure, not a skip.
  ASSERT_EQ(Shell("command -v haproxy && command -v promtool && command -v socat").status, 0);
  ProbeRunner probe;
  const std::string dir = probe.dir();
  // Every run of the fake tool gives one sample with the idle figure in dir/idle.
  auto feed = [&](int idle) {
    ProbeRunner::WriteFile(dir + "/idle.new", "0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 " +
                                                  std::to_string(idle) + "\n");
    rename((dir + "/idle.new").c_str(), (dir + "/idle").c_str());
  };
  feed(80);
  probe.SetTool("printf 'first header\\nsecond header\\n1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1\\n'\n"
                "cat " + dir + "/idle\nsleep 0.2\n");
  const int agentPort = FreePort(), metricsPort = FreePort();
  probe.Set("agentcheckport", std::to_string(agentPort));
  probe.Set("agentcheckdrainidle", "30");
  probe.Set("agentcheckmemoryweight", "50");
  probe.Set("metricsport", std::to_string(metricsPort));
  // The command port's limits hold here too (a long timeout keeps idle clients open).
  probe.Set("maxconnections", "2");
  probe.Set("requesttimeout", "600");
  probe.Set("clientallow", "127.0.0.1");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());

  // The server itself is never connected to; only its agent is asked.
  Ctl haproxy = StartHaproxy(dir, "127.0.0.1:" + std::to_string(probe.port()) + " weight 100 agent-check agent-port " +
                                      std::to_string(agentPort) + " agent-inter 100ms");
  std::string state;
  auto serverIs = [&](const std::string& wanted) {
    return std::regex_match(state = HaproxyState(dir), std::regex(wanted + "\n"));
  };
  // Idle 80 and 99 % of virtual memory free, half and half: 90 %.
  EXPECT_TRUE(Eventually([&] { return serverIs("0 90"); }, 60s)) << state << haproxy.Err();
  feed(10);
  // Drained, its weight left as it was.
  EXPECT_TRUE(Eventually([&] { return serverIs("8 \\d+"); }, 60s)) << state;
  EXPECT_TRUE(probe.WaitForLog("The agent check now answers drain: average idle 10"));
  feed(40);  // (40 + 99) / 2
  EXPECT_TRUE(Eventually([&] { return serverIs("0 70"); }, 60s)) << state;

  // The page as promtool sees it, and its counters moving.
  const std::string url = "http://127.0.0.1:" + std::to_string(metricsPort);
  const Output checked = Shell("curl -sf --max-time 10 " + url + "/metrics | promtool check metrics");
  EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
  const std::string before = MetricsPage(metricsPort);
  EXPECT_EQ(Metric(before, "quelmloadprobe_cpu_idle_ratio"), 0.4) << before;
  // The host's stall figures, where the kernel keeps them.
  if (access("/proc/pressure/cpu", R_OK) == 0) {
    EXPECT_GE(Metric(before, "quelmloadprobe_pressure_cpu_waiting_seconds_total"), 0) << before;
    EXPECT_LE(Metric(before, "quelmloadprobe_pressure_cpu_waiting_ratio"), 1) << before;
  }
  EXPECT_GT(Metric(before, "quelmloadprobe_agent_checks_total"), 0);
  SendRequest(probe.port(), "GET /?get&znalbinfo");
  SendRequest(probe.port(), "GET /");
  SendRequest(probe.port(), CreateRequest("127.0.0.1", 9, 7));
  std::string after;
  EXPECT_TRUE(Eventually([&] {
    return Metric(after = MetricsPage(metricsPort), "quelmloadprobe_load_packets_sent_total") > 0;
  })) << after;
  for (const char* counter : {"quelmloadprobe_commands_total{type=\"get\"}",
                              "quelmloadprobe_commands_total{type=\"create\"}",
                              "quelmloadprobe_bad_requests_total{port=\"command\"}"}) {
    EXPECT_EQ(Metric(after, counter), Metric(before, counter) + 1) << counter;
  }
  EXPECT_GT(Metric(after, "quelmloadprobe_tool_runs_total"),
            Metric(before, "quelmloadprobe_tool_runs_total"));
  EXPECT_EQ(Metric(after, "quelmloadprobe_subscribers"), 1);
  // Other paths, other methods and garbage get an answer and a closed connection.
  EXPECT_EQ(Shell("curl -s -o /dev/null -w '%{http_code}' " + url + "/other").out, "404");
  EXPECT_EQ(SendRequest(metricsPort, "POST /metrics HTTP/1.1\r\n\r\n").substr(0, 12), "HTTP/1.1 405");
  EXPECT_EQ(SendRequest(metricsPort, "\x16\x03\x01 hello\n").substr(0, 12), "HTTP/1.1 400");
  EXPECT_EQ(SendRequest(metricsPort, std::string(5000, 'G')).substr(0, 12), "HTTP/1.1 431");
  // Complete, and in one read: still over the bound.
  EXPECT_EQ(SendRequest(metricsPort, "GET /metrics HTTP/1.1\r\nX: " + std::string(5000, 'x') + "\r\n\r\n")
                .substr(0, 12), "HTTP/1.1 431");
  EXPECT_EQ(SendRequest(agentPort, "agent-send text\n"), "ready 70%\n");
  // A client that clientallow does not name is closed unanswered.
  const Output refused = Shell("curl -s --interface 127.0.0.2 " + url + "/metrics; echo \" $?\"; "
                               "socat -T 10 - TCP:127.0.0.1:" + std::to_string(agentPort) +
                               ",bind=127.0.0.2 </dev/null");
  // curl's "empty reply", or "failure receiving" when the close resets the connection.
  EXPECT_TRUE(refused.out == " 52\n" || refused.out == " 56\n") << refused.out << refused.err;

  // At maxconnections a further client waits until one of the others ends.
  const int idle1 = Connect(metricsPort), idle2 = Connect(metricsPort), third = Connect(metricsPort);
  ASSERT_EQ(write(third, "GET /metrics HTTP/1.0\r\n\r\n", 25), 25);
  pollfd answer{third, POLLIN, 0};
  EXPECT_EQ(poll(&answer, 1, 1000), 0);
  close(idle1);
  EXPECT_EQ(poll(&answer, 1, 30000), 1);
  close(idle2), close(third);
  // A host left subscribed at the end counts as a leak in a sanitizer build.
  SendRequest(probe.port(), "<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>");
  EXPECT_EQ(probe.Stop(SIGTERM), 92) << ProbeRunner::ReadFile(dir + "/stderr.txt");
}

// loadsource=proc: samples without a tool child, in the get reply and on the page.
TEST(ReplyPortsTest, ProcSourceSamplesWithoutATool) {
  ProbeRunner probe;
  const int metricsPort = FreePort();
  probe.Set("loadsource", "proc");
  probe.Set("metricsport", std::to_string(metricsPort));
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  std::string page;
  EXPECT_TRUE(Eventually([&] {
    return Metric(page = MetricsPage(metricsPort), "quelmloadprobe_cached_samples") >= 1;
  }, 60s)) << page;
  EXPECT_TRUE(probe.Children().empty());
  const double idle = Metric(page, "quelmloadprobe_cpu_idle_ratio");
  EXPECT_TRUE(idle >= 0 && idle <= 1) << page;
  EXPECT_TRUE(std::regex_search(SendRequest(probe.port(), "GET /?get&znalbinfo"),
                                std::regex("<stats>cpu=[0-9]+ bogo=[0-9]+ vmem=[0-9]+ </stats>")));
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}
