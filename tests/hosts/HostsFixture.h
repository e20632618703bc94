#ifndef QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_
#define QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/MyLogger.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/string/OmTimeVal.h"
#include "hosts/Host.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"

namespace hoststest {

// 2026-01-01 09:00:00 UTC.
constexpr uint32_t kNineOClock = 1767258000;

// The clock every test runs on; advanced by hand.
inline OmTimeVal& fakeNow() {
  static OmTimeVal now;
  return now;
}
inline OmTimeVal fakeClock() { return fakeNow(); }

// A subscriber's socket on 127.0.0.1 with an ephemeral port.
class UdpReceiver {
 public:
  UdpReceiver() {
    fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0) {
      port = ntohs(sa.sin_port);
    }
  }
  ~UdpReceiver() {
    if (fd >= 0) ::close(fd);
  }
  UdpReceiver(const UdpReceiver&) = delete;
  UdpReceiver& operator=(const UdpReceiver&) = delete;

  // The next datagram, or nothing once waitMs has passed.
  std::optional<std::string> receive(int waitMs = 1000) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, waitMs) != 1) return std::nullopt;
    char buf[2048];
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0) return std::nullopt;
    return std::string(buf, static_cast<size_t>(n));
  }
  // Loopback delivers a datagram within the sending call, so a short wait
  // is enough to know that nothing was sent.
  bool nothingWaiting() { return !receive(20).has_value(); }

  int fd = -1;
  unsigned port = 0;
};

// The agent's single instances as load distribution needs them: the
// configuration from a properties file in a temporary directory (which also
// receives the log), the cache, the responder, a speed figure that costs no
// processor time, and a loop of the test's own driven by the fake clock.
class HostsTest : public ::testing::Test {
 protected:
  using Settings = std::map<std::string, std::string>;

  void SetUp() override {
    fakeNow() = OmTimeVal(kNineOClock, 0);
    OmTimeVal::SetClock(&fakeClock);
    char pattern[] = "/tmp/hoststestXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir = pattern;
    configure({});
    myBogomips = new Bogomips(1, 80, fastClock());
    myResponder = new Responder();
    HostListMgr::init(&loop);
  }

  void TearDown() override {
    HostListMgr::clear();
    HostListMgr::eventloop = nullptr;
    delete myResponder;
    myResponder = nullptr;
    delete myBogomips;
    myBogomips = nullptr;
    dropConfiguration();
    OmTimeVal::SetClock(nullptr);
    std::string command = "rm -rf '" + dir + "'";
    if (!dir.empty()) {
      EXPECT_EQ(0, std::system(command.c_str()));
    }
  }

  // Writes the properties file with the test's values over the defaults
  // below, then builds the configuration and a cache from it.
  void configure(const Settings& overrides) {
    dropConfiguration();
    Settings values = {
        {"logdirectory", dir},       {"logfilter", "*/*/*:t.log"},
        {"piddirectory", dir},       {"probepath", "/bin/sh"},
        {"filter", "vmstatFilter"},  {"port", "3579"},
        {"samplerate", "5"},         {"windowsize", "3"},
        {"hostlifetime", "3600"},    {"mincachesize", "4"},
        {"maxvirtualmemory", "1024"}, {"maxphysicalmemory", "512"},
        {"multiprocessorfactor", "80"}};
    for (const auto& [key, value] : overrides) values[key] = value;
    std::string text;
    for (const auto& [key, value] : values) {
      text += "varosa.config.quelmloadbalancing." + key + "=" + value + "\n";
    }
    FILE* f = std::fopen((dir + "/quelmloadbalancing.properties").c_str(), "w");
    ASSERT_NE(nullptr, f);
    std::fputs(text.c_str(), f);
    std::fclose(f);
    myBootstrap = new Bootstrap(OmUniString(dir), 1);
    myCache = new Cache(myBootstrap->getMinCacheSize(), myBootstrap->getMaxVirtualMemory(),
                        myBootstrap->getMaxPhysMemory());
  }

  void dropConfiguration() {
    delete myCache;
    myCache = nullptr;
    delete myBootstrap;
    myBootstrap = nullptr;
    if (bootLogger != nullptr) {
      delete bootLogger;
      bootLogger = nullptr;
      mylog.SetupCSFilters({});
    }
  }

  // A speed estimate that ends at 2^22 loops after one tick each for the
  // shorter runs: (4194304 / 1000000) * 2 = 8.
  static Bogomips::ClockSource fastClock() {
    auto calls = std::make_shared<int>(0);
    auto ticks = std::make_shared<std::clock_t>(0);
    return [calls, ticks]() {
      const int call = (*calls)++;
      if (call % 2 == 1) *ticks += (call / 2 + 1) < 22 ? 1 : 1000000;
      return *ticks;
    };
  }

  void advance(uint32_t seconds) { fakeNow() = fakeNow().PlusSeconds(seconds); }
  void setTime(uint32_t seconds) { fakeNow() = OmTimeVal(seconds, 0); }

  // Fires, in time order, every timeout due by the fake clock and nothing
  // later. A marker due one microsecond from now ends the run; the loop
  // never has to wait in poll, since that wait is below a millisecond.
  void runDue() {
    bool reached = false;
    struct Marker : OmEventCallback {
      bool* reached;
      void Dispatch(OmEvent::cbdispatch) override { *reached = true; }
    } marker;
    marker.reached = &reached;
    const OmTimeVal end(fakeNow().seconds, fakeNow().microseconds + 1);
    loop.AddTimeoutEvent(end, &marker);
    for (int turns = 0; turns < 100 && !reached; ++turns) loop.RunOneTurn();
    if (!reached) loop.RemoveTimeoutEvent(end, &marker);
    EXPECT_TRUE(reached);
  }

  Host* addHost(unsigned port, unsigned id, unsigned flags, unsigned replyFrequencyMs = 10000,
                unsigned threshold = 10, unsigned sampleRateMs = 5000, unsigned window = 3) {
    return HostListMgr::addHost(OmUniString("127.0.0.1"), port, sampleRateMs, window,
                                replyFrequencyMs, threshold, id, OmUniString("text"), flags);
  }

  // idle, vmem and pmem given in MiB for readable expectations.
  void addSample(uint32_t idle, uint32_t vmemMiB, uint32_t pmemMiB, uint32_t sin = 0,
                 uint32_t sout = 0) {
    myCache->addToCache(idle, vmemMiB * 1024, pmemMiB * 1024, sin, sout);
  }

  std::string logText() const {
    std::string text;
    FILE* f = std::fopen((dir + "/t.log").c_str(), "r");
    if (f == nullptr) return text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    return text;
  }
  bool logged(const std::string& part) const {
    mylog.Flush();
    return logText().find(part) != std::string::npos;
  }

  std::string dir;
  OmEventLoop loop{nullptr};
  UdpReceiver subscriber;
};

}  // namespace hoststest

#endif  // QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_
