#include "hosts/HostListMgr.h"

#include <vector>

#include "AgentFixture.h"

namespace {

class HostListTest : public AgentTest {
 protected:
  void expectTool(unsigned rate, unsigned window, unsigned cacheSize) {
    EXPECT_EQ(rate, myChildManager->getSampleRate());
    EXPECT_EQ(window, myChildManager->getWindowSize());
    EXPECT_EQ(cacheSize, myCache->getCacheSize());
  }
};

// Expiry at 10:00:00: kept at 09:59:59, dropped by the hourly check at 10:00:00.
TEST_F(HostListTest, HourlyCheckDropsHostsFromTheirExpirySecond) {
  ASSERT_NE(nullptr, addHost(5, 0, 3600000));  // no send before the check
  env.now = OmTimeVal(kNineOClock + 3599, 0);
  HostListMgr::regularTimeoutCB(nullptr, OmEvent::fired);
  EXPECT_EQ(1u, HostListMgr::getHosts().Length());
  env.now = OmTimeVal(kNineOClock + 3600, 0);
  runDue();
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
  EXPECT_TRUE(logged("The host object for 127.0.0.1 with ID 5 has time-expired and has been "
                     "deleted."));
}

// Configured rate 5 and window 3, minimum cache 4.
TEST_F(HostListTest, ToolParametersFromConfigurationAndHosts) {
  myChildManager->setSampleRateAndWindowSize(30, 120);
  myCache->setCacheSize(9);
  HostListMgr::setLoadToolParameters();
  expectTool(5, 3, 4);  // 2 without hosts, raised to the minimum

  ASSERT_NE(nullptr, addHost(1, Host::CPU, 10000, 5000, 6));
  expectTool(5, 3, 6);
  EXPECT_EQ(6u, HostListMgr::getHosts()[0]->getCacheEntries());

  // A window no count holds saturates the host's and the cache's entries.
  Host* host = addHost(3, Host::CPU, 10000, 4294967295u, 4294967295u);
  ASSERT_NE(nullptr, host);
  expectTool(5, 3, 4294967295u);
  EXPECT_EQ(4294967295u, host->getCacheEntries());
}

// Order kept across removals, duplicates and bad names refused, the cache shrunk back.
TEST_F(HostListTest, RemovalKeepsOrderAndRetunesTheCache) {
  std::string odd;
  for (unsigned id = 1; id <= 100; ++id) {
    ASSERT_NE(nullptr, addHost(id, Host::CPU, 10000, 5000, 6));
    if (id % 2 == 1) odd += std::to_string(id) + " ";
  }
  ASSERT_NE(nullptr, addHost(101, Host::CPU, 10000, 5000, 9));
  expectTool(5, 3, 9);
  for (unsigned id = 2; id <= 100; id += 2) EXPECT_TRUE(HostListMgr::removeHost(id));
  EXPECT_TRUE(HostListMgr::removeHost(101));
  EXPECT_FALSE(HostListMgr::removeHost(101));
  expectTool(5, 3, 6);

  std::string ids;
  for (const Host* host : HostListMgr::getHosts()) ids += std::to_string(host->getId()) + " ";
  EXPECT_EQ(odd, ids);
  EXPECT_EQ(nullptr, addHost(99, Host::CPU));
  EXPECT_EQ(nullptr, HostListMgr::addHost(OmUniString("no-such-host.invalid"), 4000, 5000, 3,
                                          10000, 10, 2, OmUniString(), Host::CPU));
  EXPECT_NE(nullptr, addHost(100, Host::CPU));
  EXPECT_EQ(100u, HostListMgr::getHosts()[50]->getId());
}

// With a time limit names are looked up in the background, then cached.
TEST_F(HostListTest, NamesLookedUpInTheBackgroundAndKept) {
  settings.resolveTimeout = 30;
  settings.resolveCache = 60;
  struct Done : HostListMgr::AddHostCallback {
    std::vector<Host*> hosts;
    void Dispatch(Host* host) override { hosts.push_back(host); }
  } done;
  bool pending = false;
  auto add = [&](unsigned id) {
    return HostListMgr::addHost(OmUniString("localhost"), port, 5000, 3, 10000, 10, id,
                                OmUniString(), Host::CPU, &done, &pending);
  };
  auto waitFor = [&](size_t n) {
    for (int turn = 0; turn < 1000 && done.hosts.size() < n; ++turn) loop.RunOneTurn();
    return done.hosts.size() == n;
  };
  EXPECT_EQ(nullptr, add(1));
  EXPECT_TRUE(pending);
  EXPECT_EQ(nullptr, add(1));  // asked for twice at once
  EXPECT_FALSE(pending);
  ASSERT_TRUE(waitFor(1));
  ASSERT_NE(nullptr, done.hosts[0]);
  EXPECT_EQ("127.0.0.1", done.hosts[0]->getAddress().AsString(false).AsUtf8());
  EXPECT_NE(nullptr, add(2));
  env.now = env.now.PlusSeconds(60);
  EXPECT_EQ(nullptr, add(3));
  EXPECT_TRUE(pending);
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(3u, HostListMgr::getHosts().Length());
}

// IPv6 subscribers only with ipv6 on; a name of both families gets its IPv4 address.
TEST_F(HostListTest, Ipv6SubscribersFollowTheSetting) {
  const struct {
    uint32_t ipv6;
    const char *name, *address;  // address empty: not created
  } cases[] = {{0, "::1", ""}, {1, "::1", "::1"}, {1, "1::g", ""}, {1, "localhost", "127.0.0.1"}};
  for (const auto& c : cases) {
    HostListMgr::clear();
    settings.ipv6 = c.ipv6;
    HostListMgr::addHost(OmUniString(c.name), port, 5000, 3, 10000, 10, 1, OmUniString(), Host::CPU);
    const Host* host = HostListMgr::getHosts().Find(1);
    EXPECT_EQ(host == nullptr ? "" : host->getAddress().AsString(false).AsUtf8(), c.address)
        << c.name;
  }
}

}  // namespace
