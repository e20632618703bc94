#include "hosts/Host.h"

#include <gtest/gtest.h>

#include <string>

#include "HostsFixture.h"

namespace hoststest {
namespace {

using HostTest = HostsTest;

TEST_F(HostTest, ConstructionClampsRatesAndSetsTimes) {
  Host* host = addHost(subscriber.port, 1, Host::CPU, 3000, 10, 2000, 4);
  ASSERT_NE(nullptr, host);
  EXPECT_TRUE(host->isValid());
  EXPECT_EQ(OmInetAddr(127, 0, 0, 1, subscriber.port), host->getAddress());
  EXPECT_EQ(5u, host->getSampleRate());  // raised to 5; 5 x 4 covers 15 s, so 4 stays
  EXPECT_EQ(4u, host->getWindowSize());
  EXPECT_EQ(10u, host->getReplyFrequency());
  EXPECT_EQ(OmTimeVal(kNineOClock, 0), host->getLastSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock + 10, 0), host->getNextSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock + 3600, 0), host->getExpiryTime());
  EXPECT_EQ(0u, host->getLastIdle());

  Host* slow = addHost(subscriber.port, 2, Host::CPU, 15999, 10, 7999, 3);
  ASSERT_NE(nullptr, slow);
  EXPECT_EQ(15u, slow->getReplyFrequency());
  EXPECT_EQ(7u, slow->getSampleRate());
  EXPECT_EQ(3u, slow->getWindowSize());

  Host* narrow = addHost(subscriber.port, 3, Host::CPU, 10000, 10, 7000, 2);  // 14 s
  ASSERT_NE(nullptr, narrow);
  EXPECT_EQ(5u, narrow->getSampleRate());
  EXPECT_EQ(3u, narrow->getWindowSize());
}

// A 3000 ms reply frequency is raised to 10 s; the timer fires on the fake
// clock without any real waiting and re-arms itself every 10 s.
TEST_F(HostTest, SendsEveryReplyFrequencyWhateverTheLoad) {
  addSample(60, 100, 50);
  Host* host = addHost(subscriber.port, 3, Host::CPU, 3000);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(2u, loop.TimeoutCount());  // the hourly check and the host

  advance(9);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());

  advance(1);
  runDue();
  auto first = subscriber.receive();
  ASSERT_TRUE(first.has_value());
  EXPECT_NE(std::string::npos, first->find("<seqno>" + std::to_string(kNineOClock + 10)));
  EXPECT_NE(std::string::npos, first->find("cpu=60 "));
  EXPECT_EQ(OmTimeVal(kNineOClock + 20, 0), host->getNextSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock + 10, 0), host->getLastSendTime());
  EXPECT_EQ(60u, host->getLastIdle());
  EXPECT_EQ(100u, host->getLastVmem());
  EXPECT_EQ(50u, host->getLastPmem());
  EXPECT_EQ(8u, host->getLastBogo());
  EXPECT_EQ(2u, loop.TimeoutCount());
  EXPECT_TRUE(subscriber.nothingWaiting());

  advance(10);
  runDue();
  auto second = subscriber.receive();
  ASSERT_TRUE(second.has_value());
  EXPECT_NE(std::string::npos, second->find("<seqno>" + std::to_string(kNineOClock + 20)));
  EXPECT_EQ(OmTimeVal(kNineOClock + 30, 0), host->getNextSendTime());
}

TEST_F(HostTest, EmptyCacheAtTheTimerLogsAndStillReArms) {
  Host* host = addHost(subscriber.port, 4, Host::CPU);
  ASSERT_NE(nullptr, host);
  advance(10);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_TRUE(logged("Unable to send load/memory values to 127.0.0.1. There are no values in "
                     "the cache to average."));
  EXPECT_EQ(OmTimeVal(kNineOClock + 20, 0), host->getNextSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock, 0), host->getLastSendTime());
}

TEST_F(HostTest, CpuChangeSendsExactlyOnePacket) {
  addSample(50, 100, 50);
  Host* host = addHost(subscriber.port, 5, Host::CPU | Host::VMEM, 10000, 10);
  ASSERT_NE(nullptr, host);
  advance(3);
  host->percentChange(50);
  auto text = subscriber.receive();
  ASSERT_TRUE(text.has_value());
  EXPECT_NE(std::string::npos, text->find("<stats>cpu=50 vmem=100 "));
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_EQ(50u, host->getLastIdle());
  EXPECT_EQ(OmTimeVal(kNineOClock + 3, 0), host->getLastSendTime());
  // The timer is neither moved nor doubled.
  EXPECT_EQ(OmTimeVal(kNineOClock + 10, 0), host->getNextSendTime());
  EXPECT_EQ(2u, loop.TimeoutCount());

  // Below the threshold on both tests now that the last values are current.
  host->percentChange(55);
  EXPECT_TRUE(subscriber.nothingWaiting());
}

TEST_F(HostTest, CpuTestNeedsBothTheRunAndTheAverageToMove) {
  addSample(5, 100, 50);
  Host* host = addHost(subscriber.port, 6, Host::CPU, 10000, 10);
  ASSERT_NE(nullptr, host);
  host->percentChange(50);  // the run moved by 50, the average only by 5
  EXPECT_TRUE(subscriber.nothingWaiting());

  host->setCacheEntries(1);
  addSample(50, 100, 50);
  host->percentChange(9);  // the average moved by 50, the run only by 9
  EXPECT_TRUE(subscriber.nothingWaiting());

  host->percentChange(10);
  EXPECT_TRUE(subscriber.receive().has_value());
}

// Free virtual memory in MiB against the maximum in KiB (1048576 here):
// a change of 10486 MiB is 1 percent by this rule, 10485 MiB is not.
TEST_F(HostTest, MemoryTestUsesTheMixedUnits) {
  addSample(0, 10485, 0);
  Host* host = addHost(subscriber.port, 7, Host::VMEM, 10000, 1);
  ASSERT_NE(nullptr, host);
  host->percentChange(0);
  EXPECT_TRUE(subscriber.nothingWaiting());

  host->setCacheEntries(1);
  addSample(0, 10486, 0);
  host->percentChange(0);
  auto text = subscriber.receive();
  ASSERT_TRUE(text.has_value());
  EXPECT_NE(std::string::npos, text->find("vmem=10486 "));
  EXPECT_EQ(10486u, host->getLastVmem());
}

TEST_F(HostTest, PercentChangeOnEmptyCacheLogsAndSendsNothing) {
  Host* host = addHost(subscriber.port, 9, Host::CPU | Host::VMEM, 10000, 0);
  ASSERT_NE(nullptr, host);
  host->percentChange(100);
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_TRUE(logged("Unable to send load/memory values to 127.0.0.1."));
}

TEST_F(HostTest, DestroyedHostsTimerNeverFires) {
  addSample(60, 100, 50);
  ASSERT_NE(nullptr, addHost(subscriber.port, 11, Host::CPU));
  EXPECT_EQ(2u, loop.TimeoutCount());
  EXPECT_TRUE(HostListMgr::removeHost(11));
  EXPECT_EQ(1u, loop.TimeoutCount());
  advance(30);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
}

TEST_F(HostTest, WithoutConfigurationTheDefaultLifetimeApplies) {
  dropConfiguration();
  Host* host = addHost(subscriber.port, 12, 0);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(OmTimeVal(kNineOClock + 86400, 0), host->getExpiryTime());
}

}  // namespace
}  // namespace hoststest
