// What an operator's worst client (or tool) can do, each attack against the
// packaged configuration with the agent-check and metrics ports open and
// only the ports, folders and tool redirected:
// the probe survives with its subscriptions, answers a get, gives its
// descriptors back and keeps its logs small. (On the sample configuration
// the first kills the probe with SIGPIPE, the second freezes it in the
// measuring tool's fork retries and the third fills its log folder.)
#include <sys/socket.h>
#include <unistd.h>

#include "bench/ProcStat.h"
#include "probe_runner.h"

namespace {

const std::string kGet = "GET /?get&znalbinfo";
#ifdef QUELM_SANITIZED
// The sanitizer's quarantine keeps freed memory, and replies cost it many
// times more: a smaller storm, and no memory bound.
constexpr int kStormHosts = 500;
constexpr long kMaxPeakKiB = 1L << 30;
#else
constexpr int kStormHosts = 2500;
constexpr long kMaxPeakKiB = 16L << 10;
#endif
const std::string kSample = "echo h\necho h\necho '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\n";

int Sockets(pid_t pid) {
  int n = 0;
  std::error_code ec;
  for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec))
    n += fs::read_symlink(fd.path(), ec).string().starts_with("socket:");
  return n;
}

int Hosts(int port) {  // subscriptions a get lists; -1 without a whole reply
  const std::string reply = SendRequest(port, kGet);
  int n = reply.ends_with("</znalbreply>") ? 0 : -1;
  for (size_t at = 0; n >= 0 && (at = reply.find("<connection>", at + 1)) != std::string::npos;) ++n;
  return n;
}

void Clients(int n, const std::function<void(int)>& client) {  // 8 at a time
  std::vector<std::jthread> threads;
  for (int t = 0; t < 8; ++t) threads.emplace_back([&, t] { for (int i = t; i < n; i += 8) client(i); });
}

std::string Create(const std::string& port, const std::string& id) {
  return "<znalbreq type=\"create\"><host>127.0.0.1</host><port>" + port + "</port><samplerate>5"
         "</samplerate><windowsize>3</windowsize><replyfreq>600000</replyfreq><percentchange>100</percentchange>"
         "<stat>cpu</stat><id>" + id + "</id><version>1.0</version></znalbreq>";
}

const std::string kVictim = "precious\n";  // a file planted links point at
int agentPort, metricsPort;  // of the probe under attack

const struct Attack {
  const char* name;
  std::string tool;
  int fileLimit, hosts;
  std::function<void(ProbeRunner&)> run;  // returns when the attackers have left
  std::function<void(ProbeRunner&)> plant = nullptr;  // before the probe starts
} kAttacks[] = {
    // Half close at once (the reply then meets a closed peer), half reset.
    {"reset storm during large replies", kSample + "exec sleep 600\n", 0, kStormHosts, [](ProbeRunner& p) {
       Clients(400, [&](int i) {
         const int fd = Connect(p.port());
         const linger reset{1, 0};
         if (i % 2 == 1) setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
         if (write(fd, kGet.data(), kGet.size()) > 0) close(fd);
       });
     }},
    // Held until the probe is at its cap (or out of descriptors) and has started the tool again.
    {"silent connections up to the descriptor limit", kSample + "sleep 1\n", 128, 10, [](ProbeRunner& p) {
       std::vector<int> silent;  // in batches of five, each accepted before the next
       auto full = [&] { return std::regex_search(p.Log(), std::regex("open connections;|Too many open files")); };
       while (!full() && silent.size() < 400) {
         for (int i = 0; i < 5; ++i) silent.push_back(Connect(p.port(), SOCK_NONBLOCK));
         Eventually([&] { return full() || Sockets(p.pid()) >= int(silent.size()); }, 10s);
       }
       const std::vector<int> before = p.Children();
       Eventually([&] { return !p.Children().empty() && p.Children() != before; }, 60s);
       for (int fd : silent) close(fd);
     }},
    {"flooding measuring tool", kSample + "exec yes '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\n", 0, 10,
     [](ProbeRunner& p) {
       const double cpu = ReadProcSample(p.pid()).cpuSeconds;  // until the probe has read for a while
       Eventually([&] { return ReadProcSample(p.pid()).cpuSeconds > cpu + 3; });
     }},
    // (iv) a resolver that never answers: resolver_test.cpp (a network of its own)
    // 1 MiB requests, 4 clients for 3 s: each logged copy is cut at logrequestlimit.
    {"requests of 1 MiB", kSample + "exec sleep 600\n", 0, 10, [](ProbeRunner& p) {
       const std::string huge(1 << 20, ',');
       const auto until = std::chrono::steady_clock::now() + 3s;
       Clients(4, [&](int) {
         while (std::chrono::steady_clock::now() < until) {
           const int fd = Connect(p.port());
           (void)!write(fd, huge.data(), huge.size());  // the probe closes after 512 bytes
           close(fd);
         }
       });
       EXPECT_TRUE(std::regex_search(p.Log(), std::regex("Request is \\[ ,{256}\\.\\.\\. \\(\\d+ bytes in all\\) \\]")));
       EXPECT_TRUE(p.WaitForLog(" messages number 30 were left out of the log since "));
     }},
    // Numbers that wrap: port 69980 would be 4444, id 4294967297 (or -4294967295) would be 1.
    {"numbers past their fields", kSample + "exec sleep 600\n", 0, 10, [](ProbeRunner& p) {
       const std::string kill = "<znalbreq type=\"kill\"><version>1.0</version><id>";
       for (const std::string& request : {Create("69980", "99"), Create("9", "4294967297"), Create("9", "7abc"),
                                          kill + "4294967297</id></znalbreq>", kill + "-4294967295</id></znalbreq>"}) {
         EXPECT_NE(SendRequest(p.port(), request).find("<error>get /Error parsing "), std::string::npos) << request;
       }
     }},
    // Links planted in the pid and log folders at a file the probe must not touch:
    // the pid file before start, the log file as a rotation would leave it.
    {"planted links to a root file", kSample + "exec sleep 600\n", 0, 10, [](ProbeRunner& p) {
       EXPECT_TRUE(p.WaitForLog("quelmloadprobe.pid was not opened: it is a symbolic link."));
       fs::rename(p.LogPath(), p.LogPath() + ".1");
       fs::create_symlink(p.dir() + "/victim", p.LogPath());
       p.Signal(SIGHUP);
       EXPECT_TRUE(Eventually([&] { return p.ReadFile(p.dir() + "/stderr.txt").find("is a symbolic link") != std::string::npos; }));
       fs::remove(p.LogPath());
     }, [](ProbeRunner& p) {
       ProbeRunner::WriteFile(p.dir() + "/victim", kVictim);
       fs::create_symlink(p.dir() + "/victim", p.PidFilePath());
     }},
    // 600 connections held on each reply port at 1,024 descriptors, with a lifetime
    // that lets none go: each port waits at its share of the one budget, the
    // reserve keeps the tool restarting, and each connection is let go a grace
    // after its answer while its client still holds it.
    {"connections held on both reply ports", kSample + "sleep 1\n", 1024, 10, [](ProbeRunner& p) {
       const int idle = Sockets(p.pid());
       const std::vector<int> before = p.Children();
       std::vector<int> held;
       for (int i = 0; i < 600; ++i) {
         held.push_back(Connect(agentPort)), held.push_back(Connect(metricsPort));
         (void)!write(held.back(), "GET /metrics HTTP/1.0\r\n\r\n", 25);
       }
       for (int i = 0; i < 20; ++i, std::this_thread::sleep_for(100ms)) {
         EXPECT_EQ(Hosts(p.port()), 10);
         EXPECT_LT(ReadProcSample(p.pid()).openDescriptors, 1024 - 16);  // the reserve, less files opened later
       }
       EXPECT_TRUE(SendRequest(agentPort, "\n").ends_with("\n"));
       EXPECT_TRUE(Eventually([&] {  // the tool restarted; the probe holds none of them
         const std::vector<int> now = p.Children();
         return !now.empty() && now != before && Sockets(p.pid()) == idle;
       }));
       char c;  // every one answered
       EXPECT_EQ(std::count_if(held.begin(), held.end(), [&](int fd) { return read(fd, &c, 1) != 1; }), 0);
       for (int fd : held) close(fd);
     }, [](ProbeRunner& p) { p.Set("requesttimeout", "600"); }},
};

class AttackTest : public ::testing::TestWithParam<int> {};

TEST_P(AttackTest, ThePackagedProbeSurvivesWithNothingLost) {
  const Attack& attack = kAttacks[GetParam()];
  SCOPED_TRACE(attack.name);
  ProbeRunner probe;
  probe.UsePackaged(), probe.SetTool(attack.tool), probe.LimitFiles(attack.fileLimit);
  probe.Set("agentcheckport", std::to_string(agentPort = FreePort()));
  probe.Set("metricsport", std::to_string(metricsPort = FreePort()));
  if (attack.plant) attack.plant(probe);
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  Clients(attack.hosts, [&](int i) { SendRequest(probe.port(), Create("9", std::to_string(i + 1))); });
  ASSERT_EQ(Hosts(probe.port()), attack.hosts);
  const int idle = Sockets(probe.pid());
  attack.run(probe);
  EXPECT_TRUE(Eventually([&] { return Sockets(probe.pid()) == idle && Hosts(probe.port()) == attack.hosts; }));
  EXPECT_LT(ReadProcSample(probe.pid()).hwmKiB, kMaxPeakKiB);
  EXPECT_LT(FolderBytes(probe.dir() + "/logs"), 1 << 20);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
  EXPECT_EQ(ProbeRunner::ReadFile(probe.dir() + "/victim"), fs::exists(probe.dir() + "/victim") ? kVictim : "");
}

INSTANTIATE_TEST_SUITE_P(Table, AttackTest, ::testing::Range(0, int(std::size(kAttacks))));

}  // namespace
