// Restarts, crashes and the service manager.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <set>

#include "probe_runner.h"

namespace {

const std::string kGet = "GET /?get&znalbinfo HTTP/1.0\r\n\r\n";

std::set<unsigned> Ids(const std::string& text, const std::string& before) {
  std::set<unsigned> ids;
  const std::regex id(before + "<id>(\\d+)</id>");
  for (std::sregex_iterator it(text.begin(), text.end(), id), end; it != end; ++it) {
    ids.insert(static_cast<unsigned>(std::stoul((*it)[1])));
  }
  return ids;
}

// A socket of type bound to 127.0.0.1:port (0: any), or to a local name.
int Bound(int type, int port, const std::string& abstractName = "") {
  sockaddr_storage s{};
  auto* in = reinterpret_cast<sockaddr_in*>(&s);
  in->sin_family = AF_INET, in->sin_port = htons(static_cast<uint16_t>(port));
  in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(sockaddr_in);
  if (!abstractName.empty()) {
    auto* un = reinterpret_cast<sockaddr_un*>(&s);
    un->sun_family = AF_UNIX, un->sun_path[0] = '\0';
    memcpy(un->sun_path + 1, abstractName.data(), abstractName.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + abstractName.size());
  }
  const int fd = socket(s.ss_family, type | SOCK_CLOEXEC, 0), one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  return bind(fd, reinterpret_cast<sockaddr*>(&s), length) == 0 ? fd : -1;
}

int PortOf(int fd) {
  sockaddr_in a{};
  socklen_t length = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
  return ntohs(a.sin_port);
}

// The next datagram or whole reply within the wait, or "".
std::string Receive(int fd, int waitMs) {
  pollfd p{fd, POLLIN, 0};
  char buf[2048];
  const ssize_t n = poll(&p, 1, waitMs) == 1 ? recv(fd, buf, sizeof buf, 0) : 0;
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// A get that waits as long as a start-up may take on a loaded machine.
std::string PatientGet(int port) {
  const int fd = Connect(port);
  std::string reply;
  if (fd >= 0 && write(fd, kGet.data(), kGet.size()) == static_cast<ssize_t>(kGet.size())) {
    for (std::string part; !(part = Receive(fd, 90000)).empty();) reply += part;
  }
  if (fd >= 0) close(fd);
  return reply;
}

// A SIGKILL amid creates: exactly the answered ones come back (and maybe the one under way).
TEST(RestartTest, AnsweredCreatesSurviveASigkill) {
  ProbeRunner probe;
  probe.UsePackaged();
  probe.Set("statefile", probe.dir() + "/state");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  std::vector<int> udp;  // the hosts send at once: spread, they fit the buffers
  for (int i = 0; i < 8; ++i) udp.push_back(Bound(SOCK_DGRAM, 0));
  std::set<unsigned> answered;
  std::atomic<size_t> count{0};
  std::thread killer([&] {
    while (count < 500) std::this_thread::sleep_for(1ms);
    kill(probe.pid(), SIGKILL);
  });
  unsigned inFlight = 0;
  for (unsigned id = 1; inFlight == 0; ++id) {
    const std::string reply = SendRequest(probe.port(), CreateRequest("127.0.0.1", PortOf(udp[id % 8]), id));
    if (reply.find("<id>" + std::to_string(id) + "</id>") == std::string::npos) {
      inFlight = id;  // refused or cut off by the kill
    } else {
      answered.insert(id), ++count;
    }
  }
  killer.join();
  ASSERT_EQ(probe.Wait(), 128 + SIGKILL);

  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  const std::string listed = SendRequest(probe.port(), kGet);
  std::set<unsigned> restored = Ids(listed, "<connection>");
  restored.erase(inFlight);
  EXPECT_EQ(restored, answered);
  EXPECT_TRUE(std::regex_search(listed, std::regex("<connection><id>7</id><host>127.0.0.1</host><port>" +
      std::to_string(PortOf(udp[7])) + "</port><replyfrequency>10</replyfrequency><percentchange>20"
      "</percentchange><samplerate>5</samplerate><windowsize>3</windowsize><stats>cpu=")));
  std::set<unsigned> sent;
  const auto allSent = [&] {
    for (const int fd : udp) {
      for (std::string packet; !(packet = Receive(fd, 0)).empty();) {
        for (unsigned id : Ids(packet, "<znalbdata>")) sent.insert(id);
      }
    }
    return std::includes(sent.begin(), sent.end(), answered.begin(), answered.end());
  };
  EXPECT_TRUE(Eventually(allSent, 60s)) << sent.size() << " of " << answered.size() << " sent to";
  for (const int fd : udp) close(fd);
}

// Holding the port and notify socket as the service manager: no get refused across restarts.
TEST(RestartTest, PassedSocketRefusesNoGetAcrossRestarts) {
  ProbeRunner probe;
  probe.Set("systemd", "1");
  const std::string name = "quelm-notify-" + std::to_string(getpid());
  const int listener = Bound(SOCK_STREAM, probe.port()), notices = Bound(SOCK_DGRAM, 0, name);
  ASSERT_EQ(0, listen(listener, 1024));
  ASSERT_GE(notices, 0);
  probe.SetEnv("NOTIFY_SOCKET", "@" + name);
  probe.PassListener(listener);
  std::atomic<bool> done{false};
  std::atomic<long> answered{0}, failed{0};
  std::thread client([&] {
    while (!done) ++(PatientGet(probe.port()).find("</znalbreply>") != std::string::npos ? answered : failed);
  });
  const auto ready = [&] { return Receive(notices, 100).rfind("READY=1", 0) == 0; };
  for (int start = 0; start < 3; ++start) {
    probe.Start();
    EXPECT_TRUE(Eventually(ready, 90s));
    const long before = answered;
    EXPECT_TRUE(Eventually([&] { return answered > before + 5; }));
    if (start == 2) break;  // the gets left in the backlog went to this start
    EXPECT_EQ(probe.Stop(SIGTERM), 92);
    EXPECT_EQ(Receive(notices, 1000), "STOPPING=1");
  }
  done = true;
  client.join();
  EXPECT_EQ(failed, 0);
  close(listener), close(notices);
}

// systemd-socket-activate starts the probe at the first connection.
TEST(RestartTest, SystemdSocketActivate) {
  if (Shell("command -v systemd-socket-activate").status != 0) {
    GTEST_SKIP() << "no systemd-socket-activate (Debian package systemd)";
  }
  ProbeRunner probe;
  probe.Set("systemd", "1");
  probe.WrapWith({"/usr/bin/systemd-socket-activate", "-l", "127.0.0.1:" + std::to_string(probe.port())});
  probe.Start();
  std::string reply;
  Eventually([&] { return !(reply = PatientGet(probe.port())).empty(); });
  EXPECT_NE(reply.find("</znalbreply>"), std::string::npos) << reply;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

// The speed recalculated in a child: gets answered meanwhile, its figure reported.
TEST(RestartTest, SpeedChildKeepsTheLoopServing) {
  ProbeRunner probe;
  probe.Set("speedestimatechild", "1");
  probe.Set("speedrecalcinterval", "0");
  const std::string line = "0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 99\\n";  // twice: one is dropped
  probe.SetTool("printf 'first header\\nsecond header\\n" + line + line + "'\nsleep 0.2\n");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  int child = 0;
  const auto speedChild = [&] {
    for (int pid : probe.Children()) {
      if (ProbeRunner::ReadFile("/proc/" + std::to_string(pid) + "/comm") == "quelmloadprobe\n") child = pid;
    }
    return child != 0;
  };
  ASSERT_TRUE(Eventually(speedChild));
  EXPECT_NE(SendRequest(probe.port(), kGet).find("</znalbreply>"), std::string::npos);
  const std::vector<int> during = probe.Children();
  EXPECT_NE(std::find(during.begin(), during.end(), child), during.end()) << "the get waited";
  const std::regex recalculated("at idle 99: estimate \\d+, reported (\\d+)\\.");
  std::smatch m;
  std::string log;
  ASSERT_TRUE(Eventually([&] { return std::regex_search(log = probe.Log(), m, recalculated); }));
  const std::string bogo = "bogo=" + m[1].str() + " ";
  EXPECT_TRUE(Eventually([&] { return SendRequest(probe.port(), kGet).find(bogo) != std::string::npos; }));
}

// earlysignals: a SIGTERM during start-up is kept, not dropped.
TEST(RestartTest, EarlySignalsKeepAStopDuringStartUp) {
  bool duringStartUp = false;
  for (const auto delay : {500ms, 1500ms, 3000ms}) {
    ProbeRunner probe;
    probe.Set("earlysignals", "1");
    probe.Start();
    std::this_thread::sleep_for(delay);
    duringStartUp = duringStartUp || !fs::exists(probe.PidFilePath());
    kill(probe.pid(), SIGTERM);
    EXPECT_EQ(probe.Wait(), 92) << delay.count() << " ms";
  }
  EXPECT_TRUE(duringStartUp) << "every SIGTERM came after start-up";
}

}  // namespace
