#include "hosts/Host.h"

#include <gtest/gtest.h>

#include <string>

#include "HostsFixture.h"

namespace hoststest {
namespace {

using HostTest = HostsTest;

// Reply frequency and sample rate go to whole seconds, at least 10 and 5; the
// window grows until rate x window covers 15 s.
TEST_F(HostTest, ConstructionClampsRatesAndSetsTimes) {
  const struct {
    unsigned replyMs, rateMs, window, reply, rate, windowAfter;
  } cases[] = {{3000, 2000, 4, 10, 5, 4}, {15999, 7999, 3, 15, 7, 3}, {10000, 7000, 2, 10, 5, 3}};
  for (unsigned id = 0; id < std::size(cases); ++id) {
    const auto& c = cases[id];
    Host* host = addHost(id, Host::CPU, c.replyMs, 10, c.rateMs, c.window);
    ASSERT_NE(nullptr, host);
    EXPECT_EQ(c.reply, host->getReplyFrequency()) << id;
    EXPECT_EQ(c.rate, host->getSampleRate()) << id;
    EXPECT_EQ(c.windowAfter, host->getWindowSize()) << id;
  }
  Host* host = HostListMgr::getHosts()[0];
  EXPECT_EQ(OmInetAddr(127, 0, 0, 1, subscriber.port), host->getAddress());
  EXPECT_EQ(OmTimeVal(kNineOClock, 0), host->getLastSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock + 10, 0), host->getNextSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock + 3600, 0), host->getExpiryTime());

  dropConfiguration();  // then the default lifetime of a day applies
  EXPECT_EQ(OmTimeVal(kNineOClock + 86400, 0), addHost(9, 0)->getExpiryTime());
}

// A 3000 ms reply frequency is raised to 10 s; the timer fires on the fake
// clock without any real waiting and re-arms itself every 10 s.
TEST_F(HostTest, SendsEveryReplyFrequencyWhateverTheLoad) {
  addSample(60, 100, 50);
  Host* host = addHost(3, Host::CPU, 3000);
  ASSERT_NE(nullptr, host);
  advance(9);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
  for (uint32_t at : {kNineOClock + 10, kNineOClock + 20}) {
    setTime(at);
    runDue();
    auto packet = subscriber.receive();
    ASSERT_TRUE(packet.has_value());
    EXPECT_NE(std::string::npos, packet->find("<seqno>" + std::to_string(at)));
    EXPECT_NE(std::string::npos, packet->find("cpu=60 "));
    EXPECT_TRUE(subscriber.nothingWaiting());
    EXPECT_EQ(OmTimeVal(at, 0), host->getLastSendTime());
    EXPECT_EQ(OmTimeVal(at + 10, 0), host->getNextSendTime());
    EXPECT_EQ(2u, loop.TimeoutCount());  // the hourly check and the host
  }
  EXPECT_EQ(60u, host->getLastIdle());
  EXPECT_EQ(100u, host->getLastVmem());
  EXPECT_EQ(50u, host->getLastPmem());
  EXPECT_EQ(8u, host->getLastBogo());
}

TEST_F(HostTest, EmptyCacheLogsAndSendsNothing) {
  Host* host = addHost(4, Host::CPU | Host::VMEM, 10000, 0);
  ASSERT_NE(nullptr, host);
  host->percentChange(100);
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_TRUE(logged("Unable to send load/memory values to 127.0.0.1. There are no values in "
                     "the cache to average."));
  advance(10);  // at the timer too, which still re-arms
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_EQ(OmTimeVal(kNineOClock + 20, 0), host->getNextSendTime());
  EXPECT_EQ(OmTimeVal(kNineOClock, 0), host->getLastSendTime());
}

TEST_F(HostTest, CpuChangeSendsExactlyOnePacket) {
  addSample(50, 100, 50);
  Host* host = addHost(5, Host::CPU | Host::VMEM);
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
  Host* host = addHost(6, Host::CPU);
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
  Host* host = addHost(7, Host::VMEM, 10000, 1);
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

TEST_F(HostTest, RemovedHostsTimerNeverFires) {
  addSample(60, 100, 50);
  ASSERT_NE(nullptr, addHost(11, Host::CPU));
  EXPECT_TRUE(HostListMgr::removeHost(11));
  EXPECT_EQ(1u, loop.TimeoutCount());
  advance(30);
  runDue();
  EXPECT_TRUE(subscriber.nothingWaiting());
}

}  // namespace
}  // namespace hoststest
