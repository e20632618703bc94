#ifndef QUELM_TESTS_AGENTFIXTURE_H_
#define QUELM_TESTS_AGENTFIXTURE_H_

#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "FakeEnv.h"
#include "agent/Globals.h"
#include "agent/MyLogger.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmSocket.h"
#include "hosts/Host.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/VmstatFilter.h"

// 2026-01-01 09:00:00 UTC, a Thursday.
constexpr uint32_t kNineOClock = 1767258000;

// The agent's single instances on small settings (rate 5 s, window 3, minimum cache 4) in a
// temporary DIR logging to t.log; speed estimate 8; a UDP subscriber on 127.0.0.1.
class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = TempDir();
    OmLog::InitLogs(&mylog, OmUniString(dir));
    ASSERT_TRUE(mylog.SetupCSFilters({OmUniString("*/*/*:t.log")}));

    settings.port = 4567;
    settings.sampleRate = 5;
    settings.windowSize = 3;
    settings.hostLifeTime = 3600;
    settings.minCacheSize = 4;
    settings.maxVirtualMemory = 1024u << 10;
    settings.maxPhysMemory = 512u << 10;
    settings.probePath = OmUniString("/bin/sh " + dir + "/vmstat");
    mySettings = &settings;
    env.speedRun(22);  // 2^22 loops in a second: (4194304 / 1000000) * 2
    myBogomips = new Bogomips(1, 80);
    myCache = new Cache(settings.minCacheSize, settings.maxVirtualMemory, settings.maxPhysMemory);
    myResponder = new Responder();
    HostListMgr::init(&loop);
    myChildManager = new ChildManager(loop, &filter, &HostListMgr::percentChangeCheck);
    OmInetAddr bound;
    ASSERT_TRUE(subscriber.Bind(OmInetAddr::AddressLoopback(), OmSocket::Datagram) &&
                subscriber.LocalAddress(bound));
    port = bound.GetPort();
  }

  void TearDown() override {
    HostListMgr::clear();
    delete std::exchange(myChildManager, nullptr);
    delete std::exchange(myResponder, nullptr);
    delete std::exchange(myCache, nullptr);
    delete std::exchange(myBogomips, nullptr);
    mySettings = nullptr;
    mylog.SetupCSFilters({});
    std::filesystem::remove_all(dir);
  }

  std::string logText() const {
    mylog.Flush();
    return ReadText(dir + "/t.log");
  }
  // How often part occurs in the log.
  size_t logged(const std::string& part) const {
    const std::string all = logText();
    size_t n = 0;
    for (size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) ++n;
    return n;
  }

  // The next load packet, or "" after waitMs (loopback delivers within the send).
  std::string receive(int waitMs = 1000) {
    pollfd p{subscriber.Fd(), POLLIN, 0};
    char buf[2048];
    long n = 0;
    OmInetAddr from;
    const bool got = ::poll(&p, 1, waitMs) == 1 &&
                     subscriber.ReadMessage(buf, sizeof buf, n, from) != OmFile::ioError;
    return got ? std::string(buf, static_cast<size_t>(n)) : "";
  }
  bool nothingWaiting() { return receive(20).empty(); }

  // Fires every timeout due by the fake clock, up to a marker one microsecond ahead.
  void runDue() {
    struct Marker : OmEventCallback {
      bool reached = false;
      void Dispatch(OmEvent::cbdispatch) override { reached = true; }
    } marker;
    const OmTimeVal end(env.now.seconds, env.now.microseconds + 1);
    loop.AddTimeoutEvent(end, &marker);
    for (int turns = 0; turns < 100 && !marker.reached; ++turns) loop.RunOneTurn();
    if (!marker.reached) loop.RemoveTimeoutEvent(end, &marker);
    EXPECT_TRUE(marker.reached);
  }

  Host* addHost(unsigned id, unsigned flags, unsigned replyFrequencyMs = 10000,
                unsigned sampleRateMs = 5000, unsigned window = 3) {
    return HostListMgr::addHost(OmUniString("127.0.0.1"), port, sampleRateMs, window,
                                replyFrequencyMs, 10, id, OmUniString("text"), flags);
  }

  // Memory in MiB.
  void addSample(uint32_t idle, uint32_t vmemMiB, uint32_t pmemMiB) {
    myCache->addToCache(idle, vmemMiB * 1024, pmemMiB * 1024, 1, 2);
  }

  FakeEnv env{OmTimeVal(kNineOClock, 0)};
  std::string dir;
  Settings settings;
  OmEventLoop loop{nullptr};
  VmstatFilter filter{1024u << 10, 512u << 10};
  OmSocket subscriber;
  unsigned port = 0;  // the subscriber's
};

#endif  // QUELM_TESTS_AGENTFIXTURE_H_
