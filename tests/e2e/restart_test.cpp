// Restarts, crashes and the service manager: subscriptions kept in the state
// file, listening sockets passed by socket activation, readiness and stop
// notifications, the speed estimate in a child, and stops during start-up.
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

std::string Create(unsigned id, int udpPort) {
  return "<znalbreq type=\"create\"><host>127.0.0.1</host><port>" + std::to_string(udpPort) +
         "</port><samplerate>5000</samplerate><windowsize>3</windowsize><replyfreq>10000"
         "</replyfreq><percentchange>20</percentchange><stat>cpu</stat><id>" +
         std::to_string(id) + "</id><version>1.0</version></znalbreq>";
}

std::set<unsigned> Ids(const std::string& text, const std::string& before) {
  std::set<unsigned> ids;
  const std::regex id(before + "<id>(\\d+)</id>");
  for (std::sregex_iterator it(text.begin(), text.end(), id), end; it != end; ++it) {
    ids.insert(static_cast<unsigned>(std::stoul((*it)[1])));
  }
  return ids;
}

int Bound(int type, const sockaddr* address, socklen_t length) {
  const int fd = socket(address->sa_family, type | SOCK_CLOEXEC, 0);
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  return bind(fd, address, length) == 0 ? fd : -1;
}

sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET, a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// A get that waits as long as a start-up may take on a loaded machine: the
// whole reply, or "" when the connection was refused or closed without one.
std::string PatientGet(int port) {
  const int fd = Connect(port);
  if (fd < 0) return "";
  std::string reply;
  char buf[4096];
  if (write(fd, kGet.data(), kGet.size()) == static_cast<ssize_t>(kGet.size())) {
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 90000) > 0;) {
      const ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
  }
  close(fd);
  return reply;
}

// The next datagram within the wait, or "".
std::string Receive(int fd, int waitMs) {
  pollfd p{fd, POLLIN, 0};
  char buf[2048];
  if (poll(&p, 1, waitMs) != 1) return "";
  const ssize_t n = recv(fd, buf, sizeof buf, 0);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// The package's configuration with a state file: a SIGKILL in the middle of
// a flood of creates, then a start. Every create that was answered is back
// with its parameters, and none other but the one under way at the kill;
// each restored host is sent its packets again.
TEST(RestartTest, AnsweredCreatesSurviveASigkill) {
  ProbeRunner probe;
  probe.UsePackaged();
  probe.Set("statefile", probe.dir() + "/state");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  // The restored hosts all send at once: spread over a few sockets, their
  // packets fit the receive buffers.
  std::vector<int> udp, udpPorts;
  for (int i = 0; i < 8; ++i) {
    const sockaddr_in any = Loopback(0);
    udp.push_back(Bound(SOCK_DGRAM, reinterpret_cast<const sockaddr*>(&any), sizeof any));
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(udp.back(), reinterpret_cast<sockaddr*>(&bound), &length);
    udpPorts.push_back(ntohs(bound.sin_port));
  }
  std::set<unsigned> answered;
  std::atomic<size_t> count{0};
  std::thread killer([&] {
    while (count < 500) std::this_thread::sleep_for(1ms);
    kill(probe.pid(), SIGKILL);
  });
  unsigned inFlight = 0;
  for (unsigned id = 1; id <= 2000; ++id) {
    const std::string reply = SendRequest(probe.port(), Create(id, udpPorts[id % 8]));
    if (reply.find("type=\"create\"><version>1.0</version><id>" + std::to_string(id)) ==
        std::string::npos) {
      inFlight = id;
      break;
    }
    answered.insert(id);
    ++count;
  }
  killer.join();
  ASSERT_EQ(probe.Wait(), 128 + SIGKILL);
  ASSERT_GE(answered.size(), 500u);

  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  const std::string listed = SendRequest(probe.port(), kGet);
  std::set<unsigned> restored = Ids(listed, "<connection>");
  restored.erase(inFlight);  // recorded before its reply, which the kill may have cut off
  EXPECT_EQ(restored, answered);
  EXPECT_TRUE(std::regex_search(listed, std::regex(
      "<connection><id>7</id><host>127.0.0.1</host><port>" + std::to_string(udpPorts[7]) +
      "</port><replyfrequency>10</replyfrequency><percentchange>20</percentchange><samplerate>5"
      "</samplerate><windowsize>3</windowsize><stats>cpu=")));
  std::set<unsigned> sent;
  Eventually([&] {
    for (const int fd : udp) {
      for (std::string packet; !(packet = Receive(fd, 0)).empty();) {
        const std::set<unsigned> got = Ids(packet, "<znalbdata>");
        sent.insert(got.begin(), got.end());
      }
    }
    return std::includes(sent.begin(), sent.end(), answered.begin(), answered.end());
  }, 60s);
  EXPECT_TRUE(std::includes(sent.begin(), sent.end(), answered.begin(), answered.end()))
      << sent.size() << " of " << answered.size() << " hosts sent packets";
  for (const int fd : udp) close(fd);
}

// The service manager's side played by the test: it holds the command port
// and the notification socket. Gets sent back to back across stops and
// starts are all answered; readiness comes once the probe serves, the stop
// is announced, and SIGTERM still ends the probe with 604 (92).
TEST(RestartTest, PassedSocketRefusesNoGetAcrossRestarts) {
  ProbeRunner probe;
  probe.Set("systemd", "1");
  const sockaddr_in at = Loopback(probe.port());
  const int listener = Bound(SOCK_STREAM, reinterpret_cast<const sockaddr*>(&at), sizeof at);
  ASSERT_GE(listener, 0);
  ASSERT_EQ(0, listen(listener, 1024));
  sockaddr_un notify{};
  notify.sun_family = AF_UNIX;
  const std::string name = "quelm-notify-" + std::to_string(getpid());
  memcpy(notify.sun_path + 1, name.data(), name.size());
  const int notifications = Bound(SOCK_DGRAM, reinterpret_cast<const sockaddr*>(&notify),
                                  static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
  ASSERT_GE(notifications, 0);
  probe.SetEnv("NOTIFY_SOCKET", "@" + name);
  probe.PassListener(listener);

  std::atomic<bool> done{false};
  std::atomic<long> answered{0}, failed{0};
  std::string failure;
  std::thread client([&] {
    while (!done) {
      const std::string reply = PatientGet(probe.port());
      if (reply.find("</znalbreply>") != std::string::npos) {
        ++answered;
      } else if (failed++ == 0) {
        failure = reply;
      }
    }
  });
  for (int start = 0; start < 2; ++start) {
    probe.Start();
    // A stop notification of the previous run never counts as this one's readiness.
    std::string ready;
    Eventually([&] { return (ready = Receive(notifications, 100)).rfind("READY=1", 0) == 0; }, 90s);
    EXPECT_EQ(ready.rfind("READY=1", 0), 0u) << ready;
    const long before = answered;
    EXPECT_TRUE(Eventually([&] { return answered > before + 5; }));
    EXPECT_EQ(probe.Stop(SIGTERM), 92);
    EXPECT_EQ(Receive(notifications, 1000), "STOPPING=1");
  }
  probe.Start();  // the last gets waiting in the backlog are answered too
  EXPECT_TRUE(Eventually([&] { return Receive(notifications, 100).rfind("READY=1", 0) == 0; }, 90s));
  done = true;
  client.join();
  EXPECT_EQ(failed, 0) << "[" << failure << "]";
  EXPECT_GT(answered, 15);
  close(listener), close(notifications);
}

// Debian's own socket activation tool hands the probe its port.
TEST(RestartTest, SystemdSocketActivate) {
  if (Shell("command -v systemd-socket-activate").status != 0) {
    GTEST_SKIP() << "no systemd-socket-activate (Debian package systemd)";
  }
  ProbeRunner probe;
  probe.Set("systemd", "1");
  probe.WrapWith({"/usr/bin/systemd-socket-activate", "-l",
                  "127.0.0.1:" + std::to_string(probe.port())});
  probe.Start();
  // The tool starts the probe at the first connection, which waits meanwhile.
  std::string reply;
  Eventually([&] { return !(reply = PatientGet(probe.port())).empty(); });
  EXPECT_NE(reply.find("</znalbreply>"), std::string::npos) << reply;
  ASSERT_TRUE(probe.WaitUntilPolling());
  EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(probe.pid()) + "/fd/3").string().rfind(
                "socket:", 0), 0u);
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

// A nearly idle machine's runs recalculate the speed in a child: a get made
// meanwhile is answered while the child still runs, and the figure the
// child found is the one the get reports.
TEST(RestartTest, SpeedChildKeepsTheLoopServing) {
  ProbeRunner probe;
  probe.Set("speedestimatechild", "1");
  probe.Set("speedrecalcinterval", "0");
  // The filter drops a run's first line: two lines make a sample.
  const std::string line = "0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 99\\n";
  probe.SetTool("printf 'first header\\nsecond header\\n" + line + line + "'\nsleep 0.2\n");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  int speedChild = 0;
  ASSERT_TRUE(Eventually([&] {
    for (int pid : probe.Children()) {
      if (ProbeRunner::ReadFile("/proc/" + std::to_string(pid) + "/comm") == "quelmloadprobe\n") {
        speedChild = pid;
      }
    }
    return speedChild != 0;
  }));
  EXPECT_NE(SendRequest(probe.port(), kGet).find("</znalbreply>"), std::string::npos);
  const std::vector<int> during = probe.Children();
  EXPECT_NE(std::find(during.begin(), during.end(), speedChild), during.end())
      << "the get waited for the speed estimate";

  const std::regex recalculated("estimate was recalculated after a tool run ending at idle 99: "
                                "estimate \\d+, reported (\\d+)\\.");
  std::smatch m;
  std::string log;
  ASSERT_TRUE(Eventually([&] { return std::regex_search(log = probe.Log(), m, recalculated); }));
  const std::string reported = m[1];
  EXPECT_TRUE(Eventually([&] {
    return SendRequest(probe.port(), kGet).find("bogo=" + reported + " ") != std::string::npos;
  }, 10s)) << reported << SendRequest(probe.port(), kGet);
}

// With earlysignals, a SIGTERM sent at any moment of start-up (here at half
// a second and at every second and a half after) ends the probe with 604
// (92) once its loop runs, instead of being dropped.
TEST(RestartTest, EarlySignalsKeepAStopDuringStartUp) {
  bool duringStartUp = false;
  for (const auto delay : {500ms, 1500ms, 3000ms}) {
    ProbeRunner probe;
    probe.Set("earlysignals", "1");
    probe.Start();
    std::this_thread::sleep_for(delay);
    const std::string wchan = ProbeRunner::ReadFile("/proc/" + std::to_string(probe.pid()) + "/wchan");
    duringStartUp = duringStartUp || !fs::exists(probe.PidFilePath());
    kill(probe.pid(), SIGTERM);
    EXPECT_EQ(probe.Wait(), 92) << delay.count() << " ms " << wchan;
    EXPECT_NE(probe.Log().find("SIGTERM"), std::string::npos);
  }
  EXPECT_TRUE(duringStartUp) << "every SIGTERM came after start-up";
}

}  // namespace
