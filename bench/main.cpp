// quelmbench: load, flood and footprint measurements against a running
// probe (or any server on 127.0.0.1). Each command prints one line of
// key=value pairs for scripts/bench.sh to put into its table.
//
//   quelmbench load      --port P --conns C --seconds S [--request R] [--end TAG]
//                        [--pid PID] [--logdir D]
//   quelmbench burst     --port P --pid PID --count N --conns K
//   quelmbench early     --port P --pid PID --count N --conns K --mode fin|rst|halfclose
//   quelmbench idle      --port P --pid PID --count N [--batch B] [--wait-ms W]
//   quelmbench footprint --pid PID --seconds S [--logdir D]
//   quelmbench fanout    --port P --pid PID --hosts H --seconds S [--first-id I] [--logdir D]
//                        [--warmup-ms W] [--sockets K] [--flood-conns C --flood-seconds F]
//   quelmbench sustain   --port P --pid PID --conns C --seconds S [--hosts H] [--first-id I]
//   quelmbench get       --port P [--request R]
//   quelmbench fetch     --port P [--delay-ms D] (one get, read to the end after D ms)
//   quelmbench stall     --port P --agent-port A --seconds S [--pause-ms M]
//                        (a get and an agent check in turn: the longest wait)
//   quelmbench port      (prints a free TCP port on 127.0.0.1)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "Fanout.h"
#include "LoadClient.h"
#include "ProcStat.h"

namespace {

const std::string kGet = "GET /?get&znalbinfo";

class Args {
 public:
  Args(int argc, char** argv) {
    for (int i = 2; i + 1 < argc; i += 2) values_[argv[i]] = argv[i + 1];
  }
  std::string Str(const std::string& key, const std::string& fallback = "") const {
    const auto it = values_.find("--" + key);
    return it == values_.end() ? fallback : it->second;
  }
  long Num(const std::string& key, long fallback = 0) const {
    const std::string s = Str(key);
    return s.empty() ? fallback : std::strtol(s.c_str(), nullptr, 10);
  }
  double Real(const std::string& key, double fallback = 0) const {
    const std::string s = Str(key);
    return s.empty() ? fallback : std::strtod(s.c_str(), nullptr);
  }

 private:
  std::map<std::string, std::string> values_;
};

bool Alive(pid_t pid) {
  const ProcSample s = ReadProcSample(pid);
  return s.valid && s.state != 'Z' && s.state != 'X';
}

bool GoodGet(const std::string& reply) {
  return reply.starts_with("<?xml version=\"1.0\"?><znalbreply type=\"get\">") &&
         reply.ends_with("</znalbreply>");
}

// The probe's CPU share of one core over `ms` of quiet.
double IdleCpuShare(pid_t pid, int ms) {
  const ProcSample a = ReadProcSample(pid);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  const ProcSample b = ReadProcSample(pid);
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return (b.cpuSeconds - a.cpuSeconds) / wall;
}

void PrintLoad(const char* what, const LoadResult& r) {
  std::printf("%s started=%ld ok=%ld rps=%.0f p50_ms=%.3f p99_ms=%.3f max_ms=%.3f over_1s=%ld "
              "refused=%ld reset=%ld eof=%ld timeouts=%ld seconds=%.2f\n",
              what, r.started, r.ok, r.PerSecond(), r.PercentileMs(50), r.PercentileMs(99),
              r.PercentileMs(100), r.SlowerThan(1000), r.refused, r.reset, r.eof, r.timeouts, r.elapsed);
}

// What the probe looks like after a flood: alive, serving, quiet, and back
// to the descriptors it had before.
void PrintAftermath(int port, pid_t pid, long baseFds) {
  const auto start = std::chrono::steady_clock::now();
  // Circuits are deleted a second after their reply; wait for that.
  ProcSample s = ReadProcSample(pid);
  while (s.valid && s.openDescriptors > baseFds &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    s = ReadProcSample(pid);
  }
  const double settle = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const bool alive = Alive(pid);
  const bool served = alive && GoodGet(FetchOnce(port, kGet));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // that get's circuit too
  const double cpu = alive ? IdleCpuShare(pid, 1000) : 0;
  s = ReadProcSample(pid);
  std::printf(" alive=%d served_after=%d settle_s=%.2f cpu_after_pct=%.1f fds_before=%ld "
              "fds_after=%ld rss_kib=%ld hwm_kib=%ld\n",
              alive, served, settle, cpu * 100, baseFds, s.openDescriptors, s.rssKiB, s.hwmKiB);
}

int Load(const Args& a) {
  LoadOptions o;
  o.port = static_cast<int>(a.Num("port"));
  o.concurrency = static_cast<int>(a.Num("conns", 1));
  o.seconds = a.Real("seconds", 10);
  o.request = a.Str("request", kGet);
  o.endTag = a.Str("end", "</znalbreply>");
  o.timeoutMs = static_cast<int>(a.Num("timeout-ms", 5000));
  const pid_t pid = static_cast<pid_t>(a.Num("pid"));
  const std::string logDir = a.Str("logdir");
  const ProcSample before = pid > 0 ? ReadProcSample(pid) : ProcSample();
  const long long logsBefore = logDir.empty() ? 0 : FolderBytes(logDir);
  const LoadResult r = RunLoad(o);
  PrintLoad("load", r);
  if (pid > 0) {
    std::fflush(stdout);
    const ProcSample after = ReadProcSample(pid);
    const long long logs = logDir.empty() ? 0 : FolderBytes(logDir) - logsBefore;
    std::printf(" server_cpu_pct=%.1f server_hwm_kib=%ld server_rss_kib=%ld log_bytes_per_s=%.0f\n",
                (after.cpuSeconds - before.cpuSeconds) * 100 / r.elapsed, after.hwmKiB, after.rssKiB,
                static_cast<double>(logs) / r.elapsed);
  }
  return 0;
}

int Burst(const Args& a) {
  LoadOptions o;
  o.port = static_cast<int>(a.Num("port"));
  o.total = a.Num("count", 2000);
  o.concurrency = static_cast<int>(a.Num("conns", 200));
  o.request = a.Str("request", kGet);
  o.timeoutMs = static_cast<int>(a.Num("timeout-ms", 20000));
  const pid_t pid = static_cast<pid_t>(a.Num("pid"));
  const long baseFds = ReadProcSample(pid).openDescriptors;
  const LoadResult r = RunLoad(o);
  PrintLoad("burst", r);
  std::fflush(stdout);
  PrintAftermath(o.port, pid, baseFds);
  return 0;
}

int Early(const Args& a) {
  LoadOptions o;
  o.port = static_cast<int>(a.Num("port"));
  o.total = a.Num("count", 1000);
  o.concurrency = static_cast<int>(a.Num("conns", 50));
  o.request = a.Str("request", kGet);
  const std::string mode = a.Str("mode", "rst");
  o.close = mode == "fin"         ? CloseMode::AfterSend
            : mode == "halfclose" ? CloseMode::HalfCloseThenReset
                                  : CloseMode::ResetAfterSend;
  const pid_t pid = static_cast<pid_t>(a.Num("pid"));
  const long baseFds = ReadProcSample(pid).openDescriptors;
  const LoadResult r = RunLoad(o);
  PrintLoad("early", r);
  std::fflush(stdout);
  PrintAftermath(o.port, pid, baseFds);
  return 0;
}

int Idle(const Args& a) {
  const int port = static_cast<int>(a.Num("port"));
  const pid_t pid = static_cast<pid_t>(a.Num("pid"));
  const int count = static_cast<int>(a.Num("count", 500));
  // 0: all at once. Otherwise batches, each accepted before the next.
  const int batch = static_cast<int>(a.Num("batch", 0));
  const auto wait = std::chrono::milliseconds(a.Num("wait-ms", 10000));
  const long baseFds = ReadProcSample(pid).openDescriptors;
  const auto start = std::chrono::steady_clock::now();
  auto acceptedAtLeast = [&](long n) {
    ProcSample held = ReadProcSample(pid);
    while (held.valid && held.openDescriptors < baseFds + n &&
           std::chrono::steady_clock::now() - start < wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(batch > 0 ? 1 : 20));
      held = ReadProcSample(pid);
    }
    return held.openDescriptors - baseFds;
  };
  std::vector<int> fds;
  long failed = 0;
  while (static_cast<int>(fds.size()) + failed < count &&
         std::chrono::steady_clock::now() - start < wait) {
    const int n = batch > 0 ? std::min(batch, count - static_cast<int>(fds.size()) - static_cast<int>(failed))
                            : count;
    long lost = 0;
    std::vector<int> more = OpenIdle(port, n, static_cast<int>(wait.count()), lost);
    failed += lost;
    fds.insert(fds.end(), more.begin(), more.end());
    if (batch > 0) acceptedAtLeast(static_cast<long>(fds.size()));
  }
  const long held = acceptedAtLeast(static_cast<long>(fds.size()));
  const double openSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const auto t0 = std::chrono::steady_clock::now();
  const bool servedDuring = GoodGet(FetchOnce(port, kGet));
  const double getMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  const double cpuDuring = IdleCpuShare(pid, 1000);
  std::printf("idle connected=%zu failed=%ld open_s=%.2f probe_fds=%ld served_during=%d "
              "get_during_ms=%.2f cpu_during_pct=%.1f",
              fds.size(), failed, openSeconds, held, servedDuring, getMs, cpuDuring * 100);
  for (int fd : fds) close(fd);
  std::fflush(stdout);
  PrintAftermath(port, pid, baseFds);
  return 0;
}

int Footprint(const Args& a) {
  const pid_t pid = static_cast<pid_t>(a.Num("pid"));
  const double seconds = a.Real("seconds", 60);
  const std::string logDir = a.Str("logdir");
  const ProcSample before = ReadProcSample(pid);
  const long long logsBefore = logDir.empty() ? 0 : FolderBytes(logDir);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const ProcSample after = ReadProcSample(pid);
  const long long logs = logDir.empty() ? 0 : FolderBytes(logDir) - logsBefore;
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("footprint alive=%d cpu_start_s=%.2f cpu_ms=%.0f cpu_ms_per_s=%.3f wakeups_per_s=%.2f "
                            "rss_kib=%ld hwm_kib=%ld fds=%ld log_bytes_per_s=%.0f seconds=%.1f\n",
              Alive(pid), before.cpuSeconds, (after.cpuSeconds - before.cpuSeconds) * 1000,
              (after.cpuSeconds - before.cpuSeconds) * 1000 / wall,
              static_cast<double>(after.contextSwitches - before.contextSwitches) / wall,
              after.rssKiB, after.hwmKiB, after.openDescriptors, static_cast<double>(logs) / wall,
              wall);
  return 0;
}

int Fanout(const Args& a) {
  FanoutOptions o;
  o.port = static_cast<int>(a.Num("port"));
  o.pid = static_cast<pid_t>(a.Num("pid"));
  o.hosts = static_cast<int>(a.Num("hosts", 100));
  o.firstId = static_cast<int>(a.Num("first-id", 1));
  o.sockets = static_cast<int>(a.Num("sockets", 4));
  o.seconds = a.Real("seconds", 30);
  o.logDir = a.Str("logdir");
  o.warmupMs = static_cast<int>(a.Num("warmup-ms", -1));
  o.floodConns = static_cast<int>(a.Num("flood-conns", 0));
  o.floodSeconds = a.Real("flood-seconds", 10);
  const FanoutResult r = RunFanout(o);
  const ProcSample s = ReadProcSample(o.pid);
  const double expected = r.created * 1000.0 / o.replyFreqMs;
  const size_t n = r.createMs.size();
  // The 100th and the last create, each as the median of the 20 creates
  // up to it: one round trip alone is at the mercy of the scheduler.
  std::printf("fanout hosts=%d created=%d refused=%d create_s=%.2f create_100_ms=%.3f "
              "create_last_ms=%.3f datagrams=%ld well_formed=%ld pps=%.1f expected_pps=%.1f "
              "cpu_ms_per_s=%.3f seconds=%.1f rss_kib=%ld hwm_kib=%ld log_bytes_per_s=%.0f",
              o.hosts, r.created, r.refused, r.createSeconds, MedianOf(r.createMs, 80, 100),
              MedianOf(r.createMs, n > 20 ? n - 20 : 0, n), r.quiet.datagrams, r.quiet.wellFormed,
              r.quiet.PerSecond(), expected,
              r.quiet.seconds > 0 ? r.quiet.probeCpuSeconds * 1000 / r.quiet.seconds : 0,
              r.quiet.seconds, s.rssKiB, s.hwmKiB,
              r.quiet.seconds > 0 ? static_cast<double>(r.logBytes) / r.quiet.seconds : 0);
  if (o.floodConns > 0) {
    std::printf(" flood_pps=%.1f flood_delivered_pct=%.1f flood_rps=%.1f flood_p50_ms=%.1f "
                "flood_p99_ms=%.1f flood_cpu_pct=%.1f",
                r.flood.PerSecond(), expected > 0 ? r.flood.PerSecond() * 100 / expected : 0,
                r.floodLoad.PerSecond(), r.floodLoad.PercentileMs(50),
                r.floodLoad.PercentileMs(99),
                r.flood.seconds > 0 ? r.flood.probeCpuSeconds * 100 / r.flood.seconds : 0);
  }
  std::printf(" alive=%d\n", Alive(o.pid));
  return 0;
}

// Clients sending gets back to back for a long while, with subscribed hosts
// being sent their packets meanwhile: does the rate hold, does memory stay?
int Sustain(const Args& a) {
  const int port = static_cast<int>(a.Num("port"));
  const pid_t pid = static_cast<pid_t>(a.Num("pid"));
  const int hosts = static_cast<int>(a.Num("hosts", 100));
  const int replyFreqMs = 10000;
  const double seconds = a.Real("seconds", 60);
  const double edge = std::min(10.0, seconds / 3);
  Subscribers subscribers(1);
  FanoutResult created;
  subscribers.Create(port, static_cast<int>(a.Num("first-id", 1)), hosts, replyFreqMs, created);
  std::this_thread::sleep_for(std::chrono::milliseconds(replyFreqMs / 2));

  LoadOptions load;
  load.port = port;
  load.concurrency = static_cast<int>(a.Num("conns", 8));
  load.seconds = seconds;
  load.request = kGet;
  LoadResult r;
  ProcSample first, last;
  const PacketCount packets = subscribers.Count(pid, seconds, nullptr, [&] {
    std::thread client([&] { r = RunLoad(load); });
    std::this_thread::sleep_for(std::chrono::duration<double>(edge));
    first = ReadProcSample(pid);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds - edge - 0.5));
    last = ReadProcSample(pid);
    client.join();
  });
  const double expected = created.created * 1000.0 / replyFreqMs;
  std::printf("sustain created=%d rps=%.0f rps_first=%.0f rps_last=%.0f edge_s=%.0f p50_ms=%.3f "
              "p99_ms=%.3f errors=%ld rss_first_kib=%ld rss_last_kib=%ld hwm_kib=%ld pps=%.1f "
              "expected_pps=%.1f cpu_pct=%.1f alive=%d\n",
              created.created, r.PerSecond(), r.PerSecondBetween(0, edge),
              r.PerSecondBetween(seconds - edge, seconds), edge, r.PercentileMs(50),
              r.PercentileMs(99), r.Errors(), first.rssKiB, last.rssKiB, last.hwmKiB,
              packets.PerSecond(), expected,
              packets.seconds > 0 ? packets.probeCpuSeconds * 100 / packets.seconds : 0,
              Alive(pid));
  return 0;
}

// One get read to the end of the connection, as a plain client would,
// optionally after a pause with a small receive buffer (a slow reader).
int Fetch(const Args& a) {
  const int port = static_cast<int>(a.Num("port"));
  const int delayMs = static_cast<int>(a.Num("delay-ms", 0));
  const auto start = std::chrono::steady_clock::now();
  const std::string reply = FetchOnce(port, a.Str("request", kGet), 10000, delayMs);
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::printf("fetch bytes=%zu complete=%d ms=%.1f delay_ms=%d\n", reply.size(),
              reply.ends_with("</znalbreply>"), ms, delayMs);
  return 0;
}

int Get(const Args& a) {
  const std::string reply = FetchOnce(static_cast<int>(a.Num("port")), a.Str("request", kGet));
  std::fwrite(reply.data(), 1, reply.size(), stdout);
  return reply.empty() ? 1 : 0;
}

// A get and an agent check in turn, each on its own connection with a short
// pause between them, for the given time from the first answered get: the
// longest any of them waited is what a load balancer would see of a freeze.
int Stall(const Args& a) {
  using Clock = std::chrono::steady_clock;
  const int port = static_cast<int>(a.Num("port"));
  const int agentPort = static_cast<int>(a.Num("agent-port"));
  const auto pause = std::chrono::milliseconds(static_cast<long>(a.Num("pause-ms", 100)));
  const auto deadline = Clock::now() + std::chrono::seconds(static_cast<long>(a.Num("seconds")));
  while (FetchOnce(port, kGet).empty() && Clock::now() < deadline) std::this_thread::sleep_for(pause);
  const Clock::time_point start = Clock::now();
  const auto end = start + std::chrono::seconds(static_cast<long>(a.Num("seconds")));
  double maxGet = 0, maxAgent = 0;
  long gets = 0, checks = 0, failed = 0, over100 = 0;
  double maxAt = 0;
  while (Clock::now() < end) {
    for (const bool agent : {false, true}) {
      const Clock::time_point t0 = Clock::now();
      const std::string reply = FetchOnce(agent ? agentPort : port, agent ? "" : kGet, 30000);
      const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
      if (reply.empty()) ++failed;
      if (ms > 100) ++over100;
      double& worst = agent ? maxAgent : maxGet;
      if (ms > worst) worst = ms;
      if (ms >= std::max(maxGet, maxAgent)) {
        maxAt = std::chrono::duration<double>(t0 - start).count();
      }
      ++(agent ? checks : gets);
      std::this_thread::sleep_for(pause);
    }
  }
  std::printf("seconds=%.0f gets=%ld checks=%ld failed=%ld over_100ms=%ld max_get_ms=%.1f "
              "max_agent_ms=%.1f max_at_s=%.0f\n",
              std::chrono::duration<double>(Clock::now() - start).count(), gets, checks, failed,
              over100, maxGet, maxAgent, maxAt);
  return failed == 0 ? 0 : 1;
}

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    close(fd);
    return 1;
  }
  close(fd);
  std::printf("%d\n", ntohs(addr.sin_port));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  // Floods hold thousands of sockets.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  const std::string command = argc > 1 ? argv[1] : "";
  const Args args(argc, argv);
  if (command == "load") return Load(args);
  if (command == "burst") return Burst(args);
  if (command == "early") return Early(args);
  if (command == "idle") return Idle(args);
  if (command == "footprint") return Footprint(args);
  if (command == "fanout") return Fanout(args);
  if (command == "sustain") return Sustain(args);
  if (command == "get") return Get(args);
  if (command == "fetch") return Fetch(args);
  if (command == "stall") return Stall(args);
  if (command == "port") return FreePort();
  std::fprintf(stderr, "usage: quelmbench load|burst|early|idle|footprint|fanout|sustain|get|fetch|stall|port --key value ...\n");
  return 2;
}
