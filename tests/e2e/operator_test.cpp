// The probe's flags, quelmloadctl --json with jq, the shipped rules and dashboard in Prometheus, the man pages.
#include <sstream>

#include "probe_runner.h"

namespace {

const std::string kKey = "varosa.config.quelmloadbalancing.";
const std::string kExamples = QUELM_SOURCE_DIR "/packaging/examples/";

std::string Quote(const std::string& s) { return "'" + std::regex_replace(s, std::regex("'"), "'\\''") + "'"; }

double Sum(const std::string& page, const std::string& name) {
  double sum = 0;
  const std::regex line("\n" + name + "(\\{[^}]*\\})? (\\S+)");
  for (auto it = std::sregex_iterator(page.begin(), page.end(), line); it != std::sregex_iterator(); ++it) {
    sum += std::stod((*it)[2]);
  }
  return sum;
}

TEST(OperatorTest, FlagsPrintAndExitAndCheckConfigNamesTheBadKey) {
  ProbeRunner folder;
  const std::string good = folder.dir() + "/good", bad = folder.dir() + "/bad";
  fs::create_directories(good), fs::create_directories(bad);
  ProbeRunner::WriteFile(good + "/quelmloadbalancing.properties",
                         ProbeRunner::ReadFile(QUELM_BINARY_DIR "/packaging/quelmloadbalancing.properties") +
                             kKey + "logdirectory=" + folder.dir() + "\n" + kKey + "piddirectory=" + folder.dir() + "\n");
  ProbeRunner::WriteFile(bad + "/quelmloadbalancing.properties",
                         ProbeRunner::ReadFile(QUELM_SOURCE_DIR "/config/quelmloadbalancing.properties.sample") +
                             kKey + "logdirectory=" + folder.dir() + "\n" + kKey + "piddirectory=" + folder.dir() +
                             "\n" + kKey + "maxconnections=lots\n");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out, err;  // patterns each output must match
  } const cases[] = {
      {{"--version"}, 0, "^quelmloadprobe [0-9]+\\.[0-9]+\\.[0-9]+\n$", "^$"},
      {{"--help"}, 0, "^Usage: quelmloadprobe [^]*--check-config", "^$"},
      {{"--check-config"}, 1, "^$", "^Usage:"},
      // The packaged values, effective; nothing to say about them.
      {{"--check-config", good}, 0, "\n" + kKey + "subscriberallow=127\\.0\\.0\\.0/8,10\\.0\\.0\\.0/8,", "^$"},
      // A bad value: its key named, the default in effect, every key printed.
      {{"--check-config", bad}, 1, "\n" + kKey + "maxconnections=0\n[^]*metricsaddress=127\\.0\\.0\\.1\n",
       "attribute " + kKey + "maxconnections has the value"},
      {{"--check-config", folder.dir() + "/none"}, 1, "^" + kKey + "port=3579\n", "was not found"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args{QUELM_PROBE_BINARY};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Output run = RunCtl(args);
    SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
    EXPECT_EQ(run.status, c.status);
    EXPECT_TRUE(std::regex_search(run.out, std::regex(c.out))) << run.out;
    EXPECT_TRUE(std::regex_search(run.err, std::regex(c.err))) << run.err;
  }
  // scripts/run.sh's configuration (logs in ./var) starts without a message.
  EXPECT_EQ(Shell("cd " + folder.dir() + " && mkdir var && " QUELM_PROBE_BINARY " --check-config " QUELM_SOURCE_DIR
                  "/config 2>&1").out.find("quelmloadprobe/"), std::string::npos);
  // No check wrote a log file or a pid file.
  EXPECT_TRUE(Shell("ls " + folder.dir() + " | grep -E '\\.(log|csl|pid)$'").out.empty());
}

TEST(OperatorTest, ShippedRulesPassTheirTestsAndTheManPagesRender) {
  ASSERT_EQ(Shell("command -v promtool && command -v man").status, 0);
  const Output rules = Shell("cd " + kExamples + " && promtool test rules quelmloadprobe-alerts_test.yml 2>&1");
  EXPECT_EQ(rules.status, 0) << rules.out;
  for (const char* page : {"quelmloadprobe.8", "quelmloadctl.1", "quelmloadbalancing.properties.5"}) {
    const Output man = Shell("MANWIDTH=80 man --warnings -E UTF-8 -l " QUELM_BINARY_DIR "/packaging/man/" +
                             std::string(page));
    EXPECT_EQ(man.status, 0) << page;
    EXPECT_EQ(man.err, "") << page;
    EXPECT_GT(man.out.size(), 1000u) << page;
  }
  // Every key of the probe is listed with its default and the package's value.
  const Output keys = Shell("MANWIDTH=200 man -l " QUELM_BINARY_DIR "/packaging/man/quelmloadbalancing.properties.5"
                            " | grep -c 'Package: '");
  const Output count = Shell(QUELM_PROBE_BINARY " --check-config /nonexistent 2>/dev/null | wc -l");
  EXPECT_EQ(keys.out, count.out);
}

TEST(OperatorTest, CtlJsonForJqAndHealthyToolRunsAreNoRestarts) {
  ASSERT_EQ(Shell("command -v jq && command -v curl").status, 0);
  ProbeRunner probe;  // the real vmstat
  const int metrics = FreePort();
  probe.Set("metricsport", std::to_string(metrics));
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  const std::string ctl = QUELM_CTL_BINARY " --json --port " + std::to_string(probe.port());
  const std::pair<std::string, std::string> steps[] = {
      {"get", ".type == \"get\" and .connections == [] and (.port | type) == \"number\""},
      {"create --id 9 --subscriber 127.0.0.1:9 --stat cpu,vmem", ".type == \"create\" and .id == 9"},
      {"get", ".connections[0].id == 9 and .connections[0].port == 9 and (.stats | has(\"bogo\"))"},
      {"kill --id 8", ".type == \"error\""},
      {"kill --id 9", ".type == \"kill\" and .id == 9"},
  };
  for (const auto& [command, filter] : steps) {
    const Output run = Shell(ctl + " " + command + " | jq -e " + Quote(filter));
    EXPECT_EQ(run.status, 0) << command << ": " << run.out << run.err;
  }
  EXPECT_NE(Shell("curl -s http://127.0.0.1:" + std::to_string(metrics) + "/").out.find("href=\"/metrics\""),
            std::string::npos);
  // A run of vmstat lasts windowsize samples: two starts, so one healthy end.
  std::string page;
  EXPECT_TRUE(Eventually([&] { return Sum(page = MetricsPage(metrics), "quelmloadprobe_tool_runs_total") >= 2; }, 90s));
  EXPECT_EQ(Sum(page, "quelmloadprobe_tool_restarts_total"), 0) << page;
  EXPECT_EQ(Sum(page, "quelmloadprobe_build_info"), 1) << page;
  EXPECT_GE(Sum(page, "quelmloadprobe_agent_weight_ratio"), 0.01) << page;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

TEST(OperatorTest, PrometheusScrapesTheProbeRunsTheDashboardAndFiresOnAStalledTool) {
  ASSERT_EQ(Shell("command -v prometheus && command -v jq && command -v curl").status, 0);
  ProbeRunner probe;
  const int metrics = FreePort(), web = FreePort();
  // One sample, then silence (a stall every run); each run notes its descriptors.
  probe.SetTool("ls -l /proc/$$/fd | sed 's/.* \\([0-9]*\\) -> /\\1 /' >" + probe.dir() + "/fds\n"
                "echo h\necho h\necho '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nexec sleep 600\n");
  probe.Set("metricsport", std::to_string(metrics));
  probe.Set("toolstallintervals", "1");
  probe.Set("toolprocessgroup", "1");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());

  // The shipped rules as they are, but for their waiting times.
  const std::string dir = probe.dir();
  ProbeRunner::WriteFile(dir + "/rules.yml", std::regex_replace(ProbeRunner::ReadFile(kExamples + "quelmloadprobe-alerts.yml"),
                                                                std::regex("\n *for: [^\n]*"), ""));
  ProbeRunner::WriteFile(dir + "/prometheus.yml",
                         "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
                         "rule_files: [" + dir + "/rules.yml]\n"
                         "scrape_configs:\n  - job_name: quelmloadprobe\n"
                         "    static_configs: [{targets: ['127.0.0.1:" + std::to_string(metrics) + "']}]\n");
  Ctl prometheus({"/usr/bin/prometheus", "--config.file=" + dir + "/prometheus.yml",
                  "--storage.tsdb.path=" + dir + "/tsdb", "--web.listen-address=127.0.0.1:" + std::to_string(web)});
  const std::string api = "curl -sf --max-time 10 http://127.0.0.1:" + std::to_string(web) + "/api/v1/query --data-urlencode ";
  auto query = [&](const std::string& expr, const std::string& filter) {
    return Shell(api + Quote("query=" + expr) + " | jq -e " + Quote(filter)).status == 0;
  };
  ASSERT_TRUE(Eventually([&] { return query("up{job=\"quelmloadprobe\"}", ".data.result[0].value[1] == \"1\""); }, 60s))
      << prometheus.Err();
  EXPECT_TRUE(Eventually([&] {
    return query("quelmloadprobe_build_info", ".data.result[0].metric.version | test(\"^[0-9]+\\\\.\")");
  }));
  // Every panel's expression is one Prometheus takes.
  const Output exprs = Shell("jq -r '.panels[].targets[].expr' " + kExamples + "quelmloadprobe-dashboard.json");
  std::istringstream lines(exprs.out);
  int panels = 0;
  for (std::string expr; std::getline(lines, expr); ++panels) {
    expr = std::regex_replace(expr, std::regex("\\$instance"), ".*");
    EXPECT_TRUE(query(expr, ".status == \"success\"")) << expr;
  }
  EXPECT_GT(panels, 10);
  EXPECT_TRUE(Eventually([&] {
    return query("ALERTS{alertname=\"QuelmloadprobeToolRestarting\", alertstate=\"firing\"}", ".data.result | length == 1");
  }, 90s)) << MetricsPage(metrics);
  EXPECT_GT(Sum(MetricsPage(metrics), "quelmloadprobe_tool_restarts_total\\{reason=\"stall\"\\}"), 2);
  // The tool got its pipe and standard error, none of the probe's sockets.
  const std::string fds = "\n" + ProbeRunner::ReadFile(dir + "/fds");
  EXPECT_NE(fds.find("\n1 "), std::string::npos) << fds;
  EXPECT_FALSE(std::regex_search(fds, std::regex("\n([3-9]|[1-9][0-9]+) socket:"))) << fds;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

}  // namespace
