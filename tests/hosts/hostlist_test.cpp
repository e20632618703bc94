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
  void expectTool(unsigned rate, unsigned window, unsigned cacheSize) {
    EXPECT_EQ(rate, myChildManager->getSampleRate());
    EXPECT_EQ(window, myChildManager->getWindowSize());
    EXPECT_EQ(cacheSize, myCache->getCacheSize());
  }

  std::unique_ptr<VmstatFilter> filter;
};

TEST_F(HostListTest, AddAndRemoveLogTheCount) {
  Host* first = addHost(1, Host::CPU);
  ASSERT_NE(nullptr, first);
  EXPECT_TRUE(logged("Add Host: There are 1 host objects in the Host List."));
  EXPECT_EQ(nullptr, addHost(1, Host::VMEM));  // duplicate id
  // A name that cannot be resolved, without needing a name server.
  EXPECT_EQ(nullptr, HostListMgr::addHost(OmUniString("no-such-host.invalid"), 4000, 5000, 3,
                                          10000, 10, 2, OmUniString(), Host::CPU));
  EXPECT_TRUE(logged("Failed to read the address for no-such-host.invalid from DNS; result was "));
  ASSERT_EQ(1u, HostListMgr::getHosts().Length());
  EXPECT_EQ(unsigned{Host::CPU}, first->getFlags());
  EXPECT_EQ(2u, loop.TimeoutCount());  // the hourly check and the one host

  Host* other = addHost(2, 0);
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
  for (unsigned id : {1, 2, 3}) ASSERT_NE(nullptr, addHost(id, Host::CPU, 10000, id == 2 ? 90 : 10));
  HostListMgr::percentChangeCheck(80);
  auto a = subscriber.receive();
  auto b = subscriber.receive();
  ASSERT_TRUE(a.has_value() && b.has_value());
  EXPECT_NE(std::string::npos, a->find("<id>1</id>"));
  EXPECT_NE(std::string::npos, b->find("<id>3</id>"));
  EXPECT_TRUE(subscriber.nothingWaiting());
}

// Expiry at 10:00:00: a check at 09:59:59 keeps the host; the check that
// init scheduled an hour ahead drops it at 10:00:00. Each check re-registers
// itself an hour on.
TEST_F(HostListTest, HourlyCheckDropsHostsFromTheirExpirySecond) {
  Host* host = addHost(5, 0, 3600000);  // no send before the check
  ASSERT_NE(nullptr, host);
  ASSERT_EQ(OmTimeVal(kNineOClock + 3600, 0), host->getExpiryTime());
  makeChildManager();

  setTime(kNineOClock + 3599);
  HostListMgr::regularTimeoutCB(&HostListMgr::regularTimeoutcb, OmEvent::fired);
  EXPECT_EQ(1u, HostListMgr::getHosts().Length());
  EXPECT_TRUE(logged("Host timeout check: There are 1 host objects in the Host List."));
  EXPECT_EQ(30u, myChildManager->getSampleRate());  // nothing removed, nothing retuned

  setTime(kNineOClock + 3600);
  runDue();
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
  EXPECT_TRUE(logged("The host object for 127.0.0.1 with ID 5 has time-expired and has been "
                     "deleted."));
  EXPECT_TRUE(logged("Host timeout check: There are 0 host objects in the Host List."));
  expectTool(5, 3, 4);
  // Only the two re-registered checks remain; a withdrawn check does nothing.
  EXPECT_EQ(2u, loop.TimeoutCount());
  HostListMgr::regularTimeoutCB(&HostListMgr::regularTimeoutcb, OmEvent::removed);
  EXPECT_EQ(2u, loop.TimeoutCount());
}

// Configured rate 5 and window 3, minimum cache 4.
TEST_F(HostListTest, ToolParametersFromConfigurationAndHosts) {
  makeChildManager();
  myCache->setCacheSize(9);
  HostListMgr::setLoadToolParameters();
  expectTool(5, 3, 4);  // 2 without hosts, raised to the minimum

  ASSERT_NE(nullptr, addHost(1, Host::CPU, 10000, 10, 5000, 6));
  expectTool(5, 3, 6);
  EXPECT_EQ(6u, HostListMgr::getHosts()[0]->getCacheEntries());
  // The tool is run with the rate and the window plus its discarded first line.
  ASSERT_EQ(4u, myChildManager->getArgv().size());
  EXPECT_STREQ("5", myChildManager->getArgv()[1]);
  EXPECT_STREQ("4", myChildManager->getArgv()[2]);

  // A host below the shortest rate is raised to 5 s and keeps its window of 4.
  ASSERT_TRUE(HostListMgr::removeHost(1));
  Host* host = addHost(2, Host::CPU, 10000, 10, 2000, 4);
  ASSERT_NE(nullptr, host);
  expectTool(5, 3, 4);
  EXPECT_EQ(4u, host->getCacheEntries());

  // The largest rate and window a request can carry ask for more samples
  // than any count holds: the host and the cache get the largest count.
  host = addHost(3, Host::CPU, 10000, 10, 4294967295u, 4294967295u);
  ASSERT_NE(nullptr, host);
  expectTool(5, 3, 4294967295u);
  EXPECT_EQ(4294967295u, host->getCacheEntries());
}

// Rounding to nearest with ties to even, for the tool's window and the hosts'
// cache entries alike.
TEST_F(HostListTest, FastestHostSetsTheRateAndTiesRoundToEven) {
  configure({{"samplerate", "30"}, {"windowsize", "3"}, {"mincachesize", "1"}});
  makeChildManager();
  Host* fast = addHost(1, 0, 10000, 10, 20000, 1);
  ASSERT_NE(nullptr, fast);
  expectTool(20, 4, 2);  // 90 / 20 = 4.5
  EXPECT_EQ(1u, fast->getCacheEntries());

  Host* faster = addHost(2, 0, 10000, 10, 10000, 2);
  Host* tie = addHost(3, 0, 10000, 10, 25000, 1);
  Host* up = addHost(4, 0, 10000, 10, 35000, 1);
  ASSERT_TRUE(faster && tie && up);
  expectTool(10, 9, 4);
  EXPECT_EQ(2u, fast->getCacheEntries());
  EXPECT_EQ(2u, faster->getCacheEntries());
  EXPECT_EQ(2u, tie->getCacheEntries());  // 2.5
  EXPECT_EQ(4u, up->getCacheEntries());   // 3.5

  // Removing the fastest host hands the rate back to the next one.
  EXPECT_TRUE(HostListMgr::removeHost(2));
  EXPECT_EQ(20u, myChildManager->getSampleRate());
}

}  // namespace
}  // namespace hoststest
