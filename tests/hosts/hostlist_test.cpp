#include "hosts/HostListMgr.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "HostsFixture.h"
#include "measure/ChildManager.h"
#include "measure/VmstatFilter.h"

namespace hoststest {
namespace {

class HostListTest : public HostsTest {
 protected:
  void TearDown() override {
    delete myChildManager;
    myChildManager = nullptr;
    HostsTest::TearDown();
  }

  // The tool's manager is only asked for its parameters: nothing is forked.
  void makeChildManager() {
    filter = std::make_unique<VmstatFilter>(myBootstrap->getMaxVirtualMemory(),
                                            myBootstrap->getMaxPhysMemory());
    myChildManager = new ChildManager(loop, filter.get());
    myChildManager->setSampleRateAndWindowSize(30, 120);
  }

  std::unique_ptr<VmstatFilter> filter;
};

TEST_F(HostListTest, AddLogsTheCountAndRefusesADuplicateId) {
  Host* first = addHost(subscriber.port, 1, Host::CPU);
  ASSERT_NE(nullptr, first);
  EXPECT_TRUE(logged("Add Host: There are 1 host objects in the Host List."));
  EXPECT_EQ(nullptr, addHost(subscriber.port + 1, 1, Host::VMEM));
  ASSERT_EQ(1u, HostListMgr::getHosts().Length());
  EXPECT_EQ(first, HostListMgr::getHosts()[0]);
  EXPECT_EQ(subscriber.port, first->getPort());
  EXPECT_EQ(unsigned{Host::CPU}, first->getFlags());
  EXPECT_EQ(2u, loop.TimeoutCount());
}

TEST_F(HostListTest, UnresolvableNameIsRefusedWithoutATimer) {
  EXPECT_EQ(nullptr, HostListMgr::addHost(OmUniString("no-such-host.invalid"), 4000, 5000, 3,
                                          10000, 10, 2, OmUniString(), Host::CPU));
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
  EXPECT_EQ(1u, loop.TimeoutCount());
  EXPECT_TRUE(logged("Failed to read the address for no-such-host.invalid from DNS; result was "));
}

TEST_F(HostListTest, RemoveTakesEveryHostWithTheIdAndAlwaysLogs) {
  ASSERT_NE(nullptr, addHost(subscriber.port, 1, 0));
  Host* other = addHost(subscriber.port, 2, 0);
  ASSERT_NE(nullptr, other);
  EXPECT_FALSE(HostListMgr::removeHost(7));
  EXPECT_TRUE(logged("Remove Host: There are 2 host objects in the Host List."));
  EXPECT_TRUE(HostListMgr::removeHost(1));
  EXPECT_TRUE(logged("Remove Host: There are 1 host objects in the Host List."));
  ASSERT_EQ(1u, HostListMgr::getHosts().Length());
  EXPECT_EQ(other, HostListMgr::getHosts()[0]);
  EXPECT_EQ(2u, loop.TimeoutCount());
}

TEST_F(HostListTest, PercentChangeCheckReachesEveryHost) {
  addSample(80, 100, 50);
  ASSERT_NE(nullptr, addHost(subscriber.port, 1, Host::CPU, 10000, 10));
  ASSERT_NE(nullptr, addHost(subscriber.port, 2, Host::CPU, 10000, 90));
  ASSERT_NE(nullptr, addHost(subscriber.port, 3, Host::CPU, 10000, 10));
  HostListMgr::percentChangeCheck(80);
  auto a = subscriber.receive();
  auto b = subscriber.receive();
  ASSERT_TRUE(a.has_value() && b.has_value());
  EXPECT_NE(std::string::npos, a->find("<id>1</id>"));
  EXPECT_NE(std::string::npos, b->find("<id>3</id>"));
  EXPECT_TRUE(subscriber.nothingWaiting());
}

// Expiry at 10:00:00: a check at 09:59:59 keeps the host, one at 10:00:00
// drops it; either way the check re-registers itself an hour on.
TEST_F(HostListTest, HourlyCheckDropsHostsFromTheirExpirySecond) {
  Host* host = addHost(subscriber.port, 5, 0);
  ASSERT_NE(nullptr, host);
  ASSERT_EQ(OmTimeVal(kNineOClock + 3600, 0), host->getExpiryTime());
  makeChildManager();

  setTime(kNineOClock + 3599);
  HostListMgr::regularTimeoutCB(&HostListMgr::regularTimeoutcb, OmEvent::fired);
  EXPECT_EQ(1u, HostListMgr::getHosts().Length());
  EXPECT_TRUE(logged("Host timeout check: There are 1 host objects in the Host List."));
  EXPECT_EQ(30u, myChildManager->getSampleRate());  // nothing removed, nothing retuned

  setTime(kNineOClock + 3600);
  HostListMgr::regularTimeoutCB(&HostListMgr::regularTimeoutcb, OmEvent::fired);
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
  EXPECT_TRUE(logged("The host object for 127.0.0.1 with ID 5 has time-expired and has been "
                     "deleted."));
  EXPECT_TRUE(logged("Host timeout check: There are 0 host objects in the Host List."));
  EXPECT_EQ(5u, myChildManager->getSampleRate());
  EXPECT_EQ(4u, myCache->getCacheSize());

  // Neither the expired host's timer nor anything else is due any more; the
  // two checks re-registered themselves (the one from init is still there).
  EXPECT_EQ(3u, loop.TimeoutCount());
  HostListMgr::regularTimeoutCB(&HostListMgr::regularTimeoutcb, OmEvent::removed);
  EXPECT_EQ(3u, loop.TimeoutCount());
}

TEST_F(HostListTest, InitSchedulesTheCheckAnHourAhead) {
  Host* host = addHost(subscriber.port, 6, 0, 3600000);  // no send before the check
  ASSERT_NE(nullptr, host);
  advance(3599);
  runDue();
  EXPECT_FALSE(logged("Host timeout check"));
  advance(1);
  runDue();
  EXPECT_TRUE(logged("Host timeout check: There are 0 host objects in the Host List."));
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
  EXPECT_EQ(1u, loop.TimeoutCount());  // the next check only
}

TEST_F(HostListTest, ToolParametersFromConfigurationAndHosts) {
  makeChildManager();
  ASSERT_NE(nullptr, addHost(subscriber.port, 1, Host::CPU, 10000, 10, 5000, 6));
  EXPECT_EQ(5u, myChildManager->getSampleRate());
  EXPECT_EQ(3u, myChildManager->getWindowSize());
  EXPECT_EQ(6u, HostListMgr::getHosts()[0]->getCacheEntries());
  EXPECT_EQ(6u, myCache->getCacheSize());
  // The tool is run with the rate and the window plus its discarded first line.
  ASSERT_EQ(4u, myChildManager->getArgv().size());
  EXPECT_STREQ("5", myChildManager->getArgv()[1]);
  EXPECT_STREQ("4", myChildManager->getArgv()[2]);
}

// Such a host is raised to 5 s and keeps its window of 4 (20 s); the tool
// keeps the configured 5 s and 3 samples.
TEST_F(HostListTest, HostBelowTheShortestRateIsRaised) {
  makeChildManager();
  Host* host = addHost(subscriber.port, 1, Host::CPU, 10000, 10, 2000, 4);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(5u, myChildManager->getSampleRate());
  EXPECT_EQ(3u, myChildManager->getWindowSize());
  EXPECT_EQ(4u, host->getCacheEntries());
  EXPECT_EQ(4u, myCache->getCacheSize());
}

TEST_F(HostListTest, NoHostsGiveTheMinimumCache) {
  makeChildManager();
  myCache->setCacheSize(9);
  HostListMgr::setLoadToolParameters();
  EXPECT_EQ(5u, myChildManager->getSampleRate());
  EXPECT_EQ(3u, myChildManager->getWindowSize());
  EXPECT_EQ(4u, myCache->getCacheSize());  // 2, raised to the minimum of 4
}

// Rounding to nearest with ties to even, for the tool's window and the hosts'
// cache entries alike.
TEST_F(HostListTest, FastestHostSetsTheRateAndTiesRoundToEven) {
  configure({{"samplerate", "30"}, {"windowsize", "3"}, {"mincachesize", "1"}});
  makeChildManager();
  Host* fast = addHost(subscriber.port, 1, 0, 10000, 10, 20000, 1);
  ASSERT_NE(nullptr, fast);
  EXPECT_EQ(20u, myChildManager->getSampleRate());
  EXPECT_EQ(4u, myChildManager->getWindowSize());  // 90 / 20 = 4.5
  EXPECT_EQ(1u, fast->getCacheEntries());
  EXPECT_EQ(2u, myCache->getCacheSize());

  Host* faster = addHost(subscriber.port, 2, 0, 10000, 10, 10000, 2);
  Host* tie = addHost(subscriber.port, 3, 0, 10000, 10, 25000, 1);
  Host* up = addHost(subscriber.port, 4, 0, 10000, 10, 35000, 1);
  ASSERT_TRUE(faster && tie && up);
  EXPECT_EQ(10u, myChildManager->getSampleRate());
  EXPECT_EQ(9u, myChildManager->getWindowSize());
  EXPECT_EQ(2u, fast->getCacheEntries());
  EXPECT_EQ(2u, faster->getCacheEntries());
  EXPECT_EQ(2u, tie->getCacheEntries());  // 2.5
  EXPECT_EQ(4u, up->getCacheEntries());   // 3.5
  EXPECT_EQ(4u, myCache->getCacheSize());

  // Removing the fastest host hands the rate back to the next one.
  EXPECT_TRUE(HostListMgr::removeHost(2));
  EXPECT_EQ(20u, myChildManager->getSampleRate());
}

// The largest rate and window a request can carry ask for more samples than
// any count holds: the host and the cache get the largest count.
TEST_F(HostListTest, HugeWindowSaturatesTheCacheEntries) {
  makeChildManager();
  Host* host = addHost(subscriber.port, 1, Host::CPU, 10000, 10, 4294967295u, 4294967295u);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(5u, myChildManager->getSampleRate());
  EXPECT_EQ(4294967295u, host->getCacheEntries());
  EXPECT_EQ(4294967295u, myCache->getCacheSize());
}

}  // namespace
}  // namespace hoststest
