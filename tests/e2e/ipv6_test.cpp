// IPv6: with ipv6=1 subscribers named by an IPv6 address, an IPv4-mapped one
// or a name with only an IPv6 address get their load packets, and the metrics
// page is read over [::1]; with listenaddress=:: the command and agent-check
// ports answer both families on one socket, HAProxy included.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "probe_runner.h"

namespace {

// A UDP socket on ::1 with a port the system chose; -1 without IPv6.
int Udp6(int& port) {
  const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 at{};
  at.sin6_family = AF_INET6;
  at.sin6_addr = in6addr_loopback;
  socklen_t len = sizeof at;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&at), len) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&at), &len) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  port = ntohs(at.sin6_port);
  return fd;
}

// The next datagram within 30 s, or "".
std::string Receive(int fd) {
  pollfd p{fd, POLLIN, 0};
  char buf[2048];
  const ssize_t n = poll(&p, 1, 30000) == 1 ? recv(fd, buf, sizeof buf, 0) : -1;
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// This process in a mount namespace of its own whose /etc/hosts names
// six.quelm.test with ::1 alone; probes started meanwhile inherit it.
class HostsWithIPv6Name {
 public:
  explicit HostsWithIPv6Name(const std::string& dir) {
    mnt_ = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    if (mnt_ < 0 || unshare(CLONE_NEWNS) != 0) return;
    entered_ = true;
    const std::string hosts = dir + "/hosts";
    ProbeRunner::WriteFile(hosts, "127.0.0.1 localhost\n::1 six.quelm.test\n");
    ready_ = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
  }
  ~HostsWithIPv6Name() {
    if (entered_) {
      EXPECT_EQ(setns(mnt_, CLONE_NEWNS), 0);
    }
    if (mnt_ >= 0) close(mnt_);
  }
  bool Entered() const { return entered_; }
  bool Ready() const { return ready_; }

 private:
  int mnt_ = -1;
  bool entered_ = false, ready_ = false;
};

// A fake tool giving idle 77 at once: a threshold of 30 from a new host's 0
// sends a packet at the first sample.
const char kTool[] = "echo 'first header'\necho 'second header'\n"
                     "echo '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
                     "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nexec sleep 60 >&- <&-\n";

}  // namespace

TEST(Ipv6Test, SubscribersOverIpv6AndTheMetricsPageOverLoopback6) {
  int port6 = 0, portName = 0;
  const int six = Udp6(port6), named = Udp6(portName);
  if (six < 0 || named < 0) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  ASSERT_EQ(Shell("command -v promtool && command -v curl").status, 0);
  ProbeRunner probe;
  HostsWithIPv6Name hosts(probe.dir());
  if (!hosts.Entered()) GTEST_SKIP() << "no mount namespace of our own (needs root)";
  ASSERT_TRUE(hosts.Ready());
  probe.SetTool(kTool);
  probe.Set("ipv6", "1");
  probe.Set("subscriberallow", "2001:db8::/32, ::1, 127.0.0.0/8");
  const int metricsPort = FreePort();
  probe.Set("metricsport", std::to_string(metricsPort));
  probe.Set("metricsaddress", "::1");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());

  Ctl mapped({"listen", "--port", "0", "--count", "1", "--timeout", "30000"});
  std::smatch m;
  std::string err;
  ASSERT_TRUE(Eventually([&] {
    return std::regex_search(err = mapped.Err(), m, std::regex("port (\\d+)\n"));
  })) << err;
  const std::string port = std::to_string(probe.port());
  auto create = [&](const std::string& id, const std::string& subscriber) {
    return RunCtl({"--port", port, "create", "--id", id, "--subscriber", subscriber, "--stat",
                   "cpu", "--percentchange", "30"});
  };
  const Output literal = create("1", "[::1]:" + std::to_string(port6));
  EXPECT_EQ(literal.status, 0) << literal.err;
  // Sent from the IPv6 socket to an IPv4 listener; allowed by its IPv4 entry.
  EXPECT_EQ(create("2", "[::ffff:127.0.0.1]:" + m[1].str()).status, 0);
  EXPECT_EQ(create("3", "six.quelm.test:" + std::to_string(portName)).status, 0);
  const Output refused = create("4", "[2001:db9::1]:9");
  EXPECT_EQ(refused.err, "quelmloadctl: Host not created\n");

  EXPECT_NE(Receive(six).find("<id>1</id>"), std::string::npos);
  EXPECT_NE(Receive(named).find("<id>3</id>"), std::string::npos);
  const Output mappedOut = mapped.Finish();
  EXPECT_NE(mappedOut.out.find("<id>2</id>"), std::string::npos) << mappedOut.err;
  close(six), close(named);
  EXPECT_TRUE(probe.WaitForLog("sent to [::1]:" + std::to_string(port6)));
  EXPECT_TRUE(probe.WaitForLog("The host 2001:db9::1 has the address 2001:db9::1, which the "
                               "subscriberallow list does not hold"));
  // Hosts as they were given.
  const std::string get = SendRequest(probe.port(), "GET /?get&znalbinfo");
  for (const char* host : {"<host>::1</host>", "<host>::ffff:127.0.0.1</host>",
                           "<host>six.quelm.test</host>"}) {
    EXPECT_NE(get.find(host), std::string::npos) << host << "\n" << get;
  }

  const std::string url = "'http://[::1]:" + std::to_string(metricsPort) + "/metrics'";
  const Output checked = Shell("curl -gsf --max-time 10 " + url + " | promtool check metrics");
  EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}

// Comes into force once listenaddress reaches the ports' bind: until then it
// skips, saying so.
TEST(Ipv6Test, PortsOnOneDualStackSocket) {
  int unused = 0;
  const int probe6 = Udp6(unused);
  if (probe6 < 0) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  close(probe6);
  ASSERT_EQ(Shell("command -v haproxy && command -v socat && command -v curl").status, 0);
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
  if (over6.status != 0 && over6.err.find("Connection refused") != std::string::npos) {
    GTEST_SKIP() << "listenaddress does not reach the command port's bind yet: " << over6.err;
  }
  EXPECT_EQ(over6.status, 0) << over6.err;
  const Output over4 = RunCtl({"--host", "127.0.0.1", "--port", port, "get"});
  EXPECT_EQ(over4.status, 0) << over4.err;
  EXPECT_TRUE(probe.WaitForLog("Received new connection from [::1]:"));
  EXPECT_TRUE(probe.WaitForLog("Received new connection from 127.0.0.1."));

  // HAProxy asks the agent over ::1 and takes the weight it gives.
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
    // Ready, with a weight the probe gave (idle 77 and free memory): not the configured 100.
    return std::regex_match(state = o.out, std::regex("0 [1-9]\\d?\n"));
  }, 60s)) << state << haproxy.Err();
  EXPECT_EQ(probe.Stop(SIGTERM), 92);
}
