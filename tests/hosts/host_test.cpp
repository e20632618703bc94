#include "hosts/Host.h"

#include <gtest/gtest.h>

#include <string>

#include "HostsFixture.h"

namespace hoststest {
namespace {

using HostTest = HostsTest;

// 3000 ms is raised to 10 s; the timer fires on the fake clock and re-arms.
TEST_F(HostTest, SendsEveryReplyFrequencyWhateverTheLoad) {
  addSample(60, 100, 50);
  Host* host = addHost(3, Host::CPU, 3000);
  ASSERT_NE(nullptr, host);
  setTime(kNineOClock + 9);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
  setTime(kNineOClock + 10);
  runDue();
  auto packet = subscriber.receive();
  ASSERT_TRUE(packet.has_value());
  EXPECT_NE(std::string::npos, packet->find("cpu=60 "));
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_EQ(OmTimeVal(kNineOClock + 20, 0), host->getNextSendTime());
}

TEST_F(HostTest, PercentChange) {
  Host* host = addHost(5, Host::CPU | Host::VMEM);
  ASSERT_NE(nullptr, host);
  host->percentChange(100);  // empty cache: logged, nothing sent
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_TRUE(logged("Unable to send load/memory values to 127.0.0.1. There are no values in "
                     "the cache to average."));

  addSample(50, 100, 50);
  host->percentChange(50);
  auto text = subscriber.receive();
  ASSERT_TRUE(text.has_value());
  EXPECT_NE(std::string::npos, text->find("<stats>cpu=50 vmem=100 "));
  EXPECT_TRUE(subscriber.nothingWaiting());  // one packet for both changes
  EXPECT_EQ(2u, loop.TimeoutCount());        // and the timer is not doubled

  host->percentChange(55);  // below the threshold
  EXPECT_TRUE(subscriber.nothingWaiting());
}

TEST_F(HostTest, RemovedHostsTimerNeverFires) {
  addSample(60, 100, 50);
  ASSERT_NE(nullptr, addHost(11, Host::CPU));
  EXPECT_TRUE(HostListMgr::removeHost(11));
  setTime(kNineOClock + 30);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
}

}  // namespace
}  // namespace hoststest
