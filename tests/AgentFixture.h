#ifndef QUELM_TESTS_AGENTFIXTURE_H_
#define QUELM_TESTS_AGENTFIXTURE_H_

#include <gtest/gtest.h>

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
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/VmstatFilter.h"

// 2026-01-01 09:00:00 UTC, a Thursday.
constexpr uint32_t kNineOClock = 1767258000;

// The agent's single instances as start-up builds them, on settings of rate
// 5 s, window 3, lifetime an hour, minimum cache 4, 1024 and 512 MiB and the
// tool "/bin/sh DIR/vmstat" (not started), in a temporary directory DIR that
// receives every message in t.log. The fake clock stands at nine o'clock;
// the speed estimate is 8 and costs no processor time.
class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/agenttestXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir = pattern;
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

  bool logged(const std::string& part) const {
    mylog.Flush();
    std::stringstream text;
    text << std::ifstream(dir + "/t.log").rdbuf();
    return text.str().find(part) != std::string::npos;
  }

  FakeEnv env{OmTimeVal(kNineOClock, 0)};
  std::string dir;
  Settings settings;
  OmEventLoop loop{nullptr};
  VmstatFilter filter{1024u << 10, 512u << 10};
};

#endif  // QUELM_TESTS_AGENTFIXTURE_H_
