#ifndef QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_
#define QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_

#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/MyLogger.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmTimeVal.h"
#include "hosts/Host.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"

namespace hoststest {

// 2026-01-01 09:00:00 UTC.
constexpr uint32_t kNineOClock = 1767258000;

inline OmTimeVal& fakeNow() {
  static OmTimeVal now;
  return now;
}
inline OmTimeVal fakeClock() { return fakeNow(); }

// A subscriber's socket on 127.0.0.1 with an ephemeral port.
class UdpReceiver {
 public:
  UdpReceiver() {
    OmInetAddr bound;
    if (socket.Bind(OmInetAddr::AddressLoopback(), OmSocket::Datagram) &&
        socket.LocalAddress(bound)) {
      port = bound.GetPort();
    }
  }

  // The next datagram, or nothing once waitMs has passed.
  std::optional<std::string> receive(int waitMs = 1000) {
    pollfd p{socket.Fd(), POLLIN, 0};
    char buf[2048];
    long n = 0;
    OmInetAddr from;
    if (::poll(&p, 1, waitMs) != 1 ||
        socket.ReadMessage(buf, sizeof buf, n, from) == OmFile::ioError) {
      return std::nullopt;
    }
    return std::string(buf, static_cast<size_t>(n));
  }
  // Loopback delivers within the sending call: a short wait is enough.
  bool nothingWaiting() { return !receive(20).has_value(); }

  OmSocket socket;
  unsigned port = 0;
};

// The agent's single instances on a temporary directory (rate 5 s, window 3,
// lifetime an hour, minimum cache 4), a speed figure that costs no processor
// time, and a loop driven by the fake clock.
class HostsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeNow() = OmTimeVal(kNineOClock, 0);
    OmTimeVal::SetClock(&fakeClock);
    char pattern[] = "/tmp/hoststestXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir = pattern;
    const std::string values[] = {"logdirectory=" + dir, "logfilter=*/*/*:t.log",
                                  "piddirectory=" + dir, "probepath=/bin/sh " + dir + "/vmstat",
                                  "samplerate=5",
                                  "windowsize=3", "hostlifetime=3600", "mincachesize=4",
                                  "maxvirtualmemory=1024", "maxphysicalmemory=512"};
    std::ofstream file(dir + "/quelmloadbalancing.properties");
    for (const auto& value : values) file << "varosa.config.quelmloadbalancing." << value << "\n";
    file.close();
    myBootstrap = new Bootstrap(OmUniString(dir), 1);
    myCache = new Cache(myBootstrap->getMinCacheSize(), myBootstrap->getMaxVirtualMemory(),
                        myBootstrap->getMaxPhysMemory());
    // A speed estimate of (2^22 / 1000000) * 2 = 8.
    auto calls = std::make_shared<int>(0);
    auto ticks = std::make_shared<std::clock_t>(0);
    myBogomips = new Bogomips(1, 80, [calls, ticks]() {
      const int call = (*calls)++;
      if (call % 2 == 1) *ticks += (call / 2 + 1) < 22 ? 1 : 1000000;
      return *ticks;
    });
    myResponder = new Responder();
    HostListMgr::init(&loop);
  }

  void TearDown() override {
    HostListMgr::clear();
    HostListMgr::eventloop = nullptr;
    delete std::exchange(myResponder, nullptr);
    delete std::exchange(myBogomips, nullptr);
    delete std::exchange(myCache, nullptr);
    delete std::exchange(myBootstrap, nullptr);
    if (bootLogger != nullptr) {
      delete std::exchange(bootLogger, nullptr);
      mylog.SetupCSFilters({});
    }
    OmTimeVal::SetClock(nullptr);
    std::filesystem::remove_all(dir);
  }

  void setTime(uint32_t seconds) { fakeNow() = OmTimeVal(seconds, 0); }

  // Fires every timeout due by the fake clock, up to a marker one
  // microsecond ahead (below poll's millisecond, so nothing waits).
  void runDue() {
    struct Marker : OmEventCallback {
      bool reached = false;
      void Dispatch(OmEvent::cbdispatch) override { reached = true; }
    } marker;
    const OmTimeVal end(fakeNow().seconds, fakeNow().microseconds + 1);
    loop.AddTimeoutEvent(end, &marker);
    for (int turns = 0; turns < 100 && !marker.reached; ++turns) loop.RunOneTurn();
    if (!marker.reached) loop.RemoveTimeoutEvent(end, &marker);
    EXPECT_TRUE(marker.reached);
  }

  Host* addHost(unsigned id, unsigned flags, unsigned replyFrequencyMs = 10000,
                unsigned sampleRateMs = 5000, unsigned window = 3) {
    return HostListMgr::addHost(OmUniString("127.0.0.1"), subscriber.port, sampleRateMs, window,
                                replyFrequencyMs, 10, id, OmUniString("text"), flags);
  }

  // Memory in MiB.
  void addSample(uint32_t idle, uint32_t vmemMiB, uint32_t pmemMiB) {
    myCache->addToCache(idle, vmemMiB * 1024, pmemMiB * 1024, 1, 2);
  }

  bool logged(const std::string& part) const {
    mylog.Flush();
    std::stringstream text;
    text << std::ifstream(dir + "/t.log").rdbuf();
    return text.str().find(part) != std::string::npos;
  }

  std::string dir;
  OmEventLoop loop{nullptr};
  UdpReceiver subscriber;
};

}  // namespace hoststest

#endif  // QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_
