// What an operator's worst client (or tool) can do, each attack against the
// packaged configuration with only the port, folders and tool redirected:
// the probe survives with its subscriptions, answers a get, gives its
// descriptors back and keeps its logs small. QUELM_ATTACK_FIGURES=1 prints
// figures instead (get latency, memory, survival), also for the sample
// configuration, which the attacks kill or freeze; they are never asserted.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "bench/ProcStat.h"
#include "probe_runner.h"

namespace {

using Clock = std::chrono::steady_clock;
const std::string kGet = "GET /?get&znalbinfo";
const std::string kSample = "echo h\necho h\necho '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\n";

int Sockets(pid_t pid) {
  int n = 0;
  std::error_code ec;
  for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
    n += fs::read_symlink(fd.path(), ec).string().starts_with("socket:");
  }
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

const struct Attack {
  const char* name;
  std::string tool;
  int fileLimit, hosts;
  std::function<void(ProbeRunner&)> run;  // returns when the attackers have left
} kAttacks[] = {
    // Half close at once (the reply then meets a closed peer), half reset.
    {"reset storm during large replies", kSample + "exec sleep 600\n", 0, 2500, [](ProbeRunner& p) {
       Clients(400, [&](int i) {
         const int fd = Connect(p.port());
         const linger reset{1, 0};
         if (i % 2 == 1) setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
         if (write(fd, kGet.data(), kGet.size()) > 0) close(fd);
       });
     }},
    // Held until the probe is at its cap (or out of descriptors) and has started the tool again.
    {"silent connections up to the descriptor limit", kSample + "sleep 1\n", 128, 10, [](ProbeRunner& p) {
       std::vector<int> silent;
       for (int i = 0; i < 200; ++i) silent.push_back(Connect(p.port(), SOCK_NONBLOCK));
       Eventually([&] { return Sockets(p.pid()) >= 112 || p.Log().find("open connections;") != std::string::npos; });
       const std::vector<int> before = p.Children();
       Eventually([&] { return !p.Children().empty() && p.Children() != before; }, 60s);
       for (int fd : silent) close(fd);
     }},
    {"flooding measuring tool", kSample + "exec yes '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\n", 0, 10,
     [](ProbeRunner& p) {
       const double cpu = ReadProcSample(p.pid()).cpuSeconds;  // until the probe has read for a while
       Eventually([&] { return ReadProcSample(p.pid()).cpuSeconds > cpu + 3; });
     }},
    // (iv) a resolver that never answers
};

class AttackTest : public ::testing::TestWithParam<int> {};

TEST_P(AttackTest, ThePackagedProbeSurvivesWithNothingLost) {
  const bool figures = getenv("QUELM_ATTACK_FIGURES") != nullptr;
  const Attack& attack = kAttacks[GetParam()];
  SCOPED_TRACE(attack.name);
  for (bool packaged : {true, false}) {
    if (!packaged && !figures) continue;
    ProbeRunner probe;
    if (packaged) probe.UsePackaged();
    probe.SetTool(attack.tool), probe.LimitFiles(attack.fileLimit), probe.Start();
    ASSERT_TRUE(probe.WaitUntilPolling());
    Clients(attack.hosts, [&](int i) {
      SendRequest(probe.port(), "<znalbreq type=\"create\"><host>127.0.0.1</host><port>9</port><samplerate>5"
                  "</samplerate><windowsize>3</windowsize><replyfreq>600000</replyfreq><percentchange>100</percentchange>"
                  "<stat>cpu</stat><id>" + std::to_string(i + 1) + "</id><version>1.0</version></znalbreq>");
    });
    ASSERT_EQ(Hosts(probe.port()), attack.hosts);
    const int idle = Sockets(probe.pid());
    auto recovered = [&] { return Sockets(probe.pid()) == idle && Hosts(probe.port()) == attack.hosts; };
    std::atomic<long> worstMs = 0, failed = 0;  // gets during the attack, for the figures
    std::atomic<bool> over = false;
    std::jthread getter([&] {
      for (auto t0 = Clock::now(); !over; std::this_thread::sleep_for(100ms), t0 = Clock::now()) {
        failed += Hosts(probe.port()) != attack.hosts;
        worstMs = std::max(worstMs.load(), long((Clock::now() - t0) / 1ms));
      }
    });
    attack.run(probe);
    const auto left = Clock::now();
    const bool back = Eventually(recovered, figures ? 5s : 30s);
    over = true, getter.join();
    const long hwm = ReadProcSample(probe.pid()).hwmKiB, logKiB = long(FolderBytes(probe.dir() + "/logs") >> 10);
    if (!figures) {
      EXPECT_TRUE(back && hwm < (16 << 10) && logKiB < 1024) << hwm << " KiB peak, logs " << logKiB << " KiB";
      EXPECT_EQ(probe.Stop(SIGTERM), 92);
      continue;
    }
    printf("FIGURES %s | %s | %s | worst get %ld ms, %ld failed | peak RSS %ld KiB | logs %ld KiB | back after %ld ms\n",
           attack.name, packaged ? "packaged" : "default", probe.Running() ? "alive" : ("status " + std::to_string(probe.Wait())).c_str(),
           worstMs.load(), failed.load(), hwm, logKiB, back ? long((Clock::now() - left) / 1ms) : -1L);
    fflush(stdout);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, AttackTest, ::testing::Range(0, int(std::size(kAttacks))));

}  // namespace
