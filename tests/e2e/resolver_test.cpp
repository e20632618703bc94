// A name server that never answers: the probe keeps serving and refuses the create in time.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "probe_runner.h"

namespace {

// Own network and mount namespaces with a silent name server on 127.0.0.1:53; undone at the end.
class SilentNameServer {
 public:
  SilentNameServer() {
    net_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    mnt_ = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    if (net_ < 0 || mnt_ < 0 || unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return;
    entered_ = true;
    const std::string conf = dir + "/resolv.conf";
    ProbeRunner::WriteFile(conf, "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n");
    ifreq lo{};
    std::snprintf(lo.ifr_name, IFNAMSIZ, "lo");
    const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool up = ioctl(any, SIOCGIFFLAGS, &lo) == 0 && (lo.ifr_flags |= IFF_UP) &&
                    ioctl(any, SIOCSIFFLAGS, &lo) == 0;
    close(any);
    server_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in at{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
    ready_ = up && bind(server_, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 &&
             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount(conf.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
  }
  ~SilentNameServer() {
    if (server_ >= 0) close(server_);
    if (entered_) {
      EXPECT_TRUE(setns(net_, CLONE_NEWNET) == 0 && setns(mnt_, CLONE_NEWNS) == 0);
    }
    close(net_), close(mnt_);
    fs::remove_all(dir);
  }
  bool Entered() const { return entered_; }
  bool Ready() const { return ready_; }
  const std::string dir = [] { char t[] = "/tmp/quelm-dns-XXXXXX"; return std::string(mkdtemp(t)); }();

 private:
  int net_ = -1, mnt_ = -1, server_ = -1;
  bool entered_ = false, ready_ = false;
};

// While one create's look-up hangs, a get is answered; the create is refused at the limit.
void HangingLookUpDoesNotStallTheProbe(ProbeRunner& probe) {
  const std::string created = SendRequest(probe.port(), CreateRequest("127.0.0.1", 9, 1));
  ASSERT_NE(std::string::npos, created.find("<znalbreply type=\"create\">")) << created;

  const int hanging = Connect(probe.port());
  const std::string attack = CreateRequest("subscriber.quelm.test", 9, 2);
  ASSERT_EQ(static_cast<ssize_t>(attack.size()), write(hanging, attack.data(), attack.size()));
  ASSERT_TRUE(probe.WaitForLog("subscriber.quelm.test"));  // the look-up is under way
  const std::string get = SendRequest(probe.port(), "GET /?get&znalbinfo");
  pollfd waiting{hanging, POLLIN, 0};
  EXPECT_EQ(0, poll(&waiting, 1, 0)) << "the create was answered before the get";
  EXPECT_NE(std::string::npos, get.find("<connection><id>1</id><host>127.0.0.1</host>")) << get;

  std::string refused;
  char buf[1024];
  for (pollfd p{hanging, POLLIN, 0}; poll(&p, 1, 60000) > 0;) {
    const ssize_t n = read(hanging, buf, sizeof buf);
    if (n <= 0) break;
    refused.append(buf, static_cast<size_t>(n));
  }
  close(hanging);
  EXPECT_NE(std::string::npos, refused.find("<error>get /Host not created</error>")) << refused;
  EXPECT_TRUE(probe.WaitForLog(
      "Failed to read the address for subscriber.quelm.test from DNS; result was 2."));
  const std::string after = SendRequest(probe.port(), "GET /?get&znalbinfo");
  EXPECT_NE(std::string::npos, after.find("<connection><id>1</id>")) << after;
  EXPECT_EQ(std::string::npos, after.find("<id>2</id>")) << after;
  EXPECT_TRUE(probe.Running());
}

TEST(ResolverAttackTest, HangingNameServerWithLookUpLimit) {
  SilentNameServer dns;
  if (!dns.Entered()) GTEST_SKIP() << "no namespaces of our own (needs root)";
  ASSERT_TRUE(dns.Ready());
  ProbeRunner probe;
  probe.Set("resolvetimeout", "8");
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  HangingLookUpDoesNotStallTheProbe(probe);
}

// Hanging creates from 127.0.0.2 get no more than their share of look-up threads; 127.0.0.1's are answered.
TEST(ResolverAttackTest, UnanswerableCreatesLeaveOtherClientsLookedUp) {
  SilentNameServer dns;
  if (!dns.Entered()) GTEST_SKIP() << "no namespaces of our own (needs root)";
  ProbeRunner::WriteFile(dns.dir + "/hosts", "127.0.0.1 localhost g1 g2 g3 g4 g5 g6 g7 g8\n");  // none cached
  ASSERT_TRUE(dns.Ready() && mount((dns.dir + "/hosts").c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0);
  ProbeRunner probe;
  probe.UsePackaged();
  probe.Start();
  ASSERT_TRUE(probe.WaitUntilPolling());
  std::vector<int> attackers;  // never read: their replies do not matter
  std::jthread attack([&] {
    for (int i = 0; i < 30; ++i, std::this_thread::sleep_for(166ms)) {
      const int fd = attackers.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in from{AF_INET, 0, {htonl(0x7f000002)}, {}}, to{AF_INET, htons(probe.port()), {htonl(INADDR_LOOPBACK)}, {}};
      const std::string request = CreateRequest("bad" + std::to_string(i) + ".quelm.test", 9, 1000 + i);
      if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) == 0 &&
          connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) (void)!write(fd, request.data(), request.size());
    }
  });
  std::this_thread::sleep_for(2s);  // 12 asked for: more than their share
  for (int i = 1; i <= 8; ++i, std::this_thread::sleep_for(400ms)) {  // until the attack ends
    const std::string reply = SendRequest(probe.port(), CreateRequest("g" + std::to_string(i), 9, i));
    EXPECT_NE(std::string::npos, reply.find("<znalbreply type=\"create\">")) << i << reply;
  }
  attack.join();
  for (int fd : attackers) close(fd);
  EXPECT_TRUE(probe.WaitForLog("for the client 127.0.0.2: 4 look-ups were at work already"));
}

}  // namespace
