// A host's load packets: their format, the reply timer and percent changes.
#include "hosts/Host.h"

#include <map>

#include "AgentFixture.h"
#include "agent/Counters.h"

namespace {

using HostTest = AgentTest;

std::string packet(unsigned id, uint32_t seqno, const std::string& stats) {
  return "<?xml version=\"1.0\"?><znalbdata><id>" + std::to_string(id) + "</id><seqno>" +
         std::to_string(seqno) + "</seqno><stats>" + stats + "</stats></znalbdata>";
}

// The sequence number is the whole second, never rounded up.
TEST_F(HostTest, TimerPacketsMatchTheFormatToTheCharacter) {
  for (unsigned flags : {0, 1, 6, 7}) ASSERT_NE(nullptr, addHost(10 + flags, flags));
  addSample(97, 1024, 300);
  env.now = OmTimeVal(kNineOClock + 10, 999999);
  runDue();
  const uint32_t seqno = kNineOClock + 10;
  const std::string vmem = "vmem=1024 vmax=1024 pmem=300 pmax=512 sin=1 sout=2 ";
  std::map<unsigned, std::string> expected = {{10, packet(10, seqno, "")},
                                              {11, packet(11, seqno, "cpu=97 ")},
                                              {16, packet(16, seqno, "bogo=8 " + vmem)},
                                              {17, packet(17, seqno, "cpu=97 bogo=8 " + vmem)}};
  std::map<unsigned, std::string> received;
  for (int i = 0; i < 4; ++i) {
    const std::string text = receive();
    ASSERT_FALSE(text.empty()) << "packet " << i;
    received[static_cast<unsigned>(std::stoul(text.substr(text.find("<id>") + 4)))] = text;
  }
  EXPECT_EQ(expected, received);
}

// 3000 ms is raised to 10 s; the timer re-arms, and a removed host's never fires.
TEST_F(HostTest, SendsEveryReplyFrequencyWhateverTheLoad) {
  addSample(60, 100, 50);
  Host* host = addHost(3, Host::CPU, 3000);
  ASSERT_NE(nullptr, host);
  ASSERT_NE(nullptr, addHost(11, Host::CPU));
  EXPECT_TRUE(HostListMgr::removeHost(11));
  env.now = OmTimeVal(kNineOClock + 9, 0);
  runDue();
  EXPECT_TRUE(nothingWaiting());
  env.now = OmTimeVal(kNineOClock + 10, 0);
  runDue();
  EXPECT_EQ(packet(3, kNineOClock + 10, "cpu=60 "), receive());
  EXPECT_TRUE(nothingWaiting());
  EXPECT_EQ(OmTimeVal(kNineOClock + 20, 0), host->getNextSendTime());
}

TEST_F(HostTest, PercentChange) {
  Host* host = addHost(5, Host::CPU | Host::VMEM);
  ASSERT_NE(nullptr, host);
  host->percentChange(100);  // empty cache: logged, nothing sent
  EXPECT_TRUE(nothingWaiting());
  EXPECT_TRUE(logged("Unable to send load/memory values to 127.0.0.1. There are no values in "
                     "the cache to average."));

  addSample(50, 100, 50);
  host->percentChange(50);
  EXPECT_NE(std::string::npos, receive().find("<stats>cpu=50 vmem=100 "));
  EXPECT_TRUE(nothingWaiting());  // one packet for both changes
  EXPECT_EQ(2u, loop.TimeoutCount());        // and the timer is not doubled

  host->percentChange(55);  // below the threshold
  EXPECT_TRUE(nothingWaiting());
}

// Batched sends match lone sends, a failure in the middle included.
TEST_F(HostTest, BatchedSendsMatchLoneSends) {
  myResponder->batchWith(loop);
  addSample(60, 100, 50);
  const ProbeCounters before = probeCounters;
  // A millisecond apart: due in this order, and within one batch.
  Host* hosts[3];
  for (unsigned i = 0; i < 3; ++i) {
    env.now = OmTimeVal(kNineOClock, i * 1000);
    hosts[i] = HostListMgr::addHost(OmUniString(i == 1 ? "255.255.255.255" : "127.0.0.1"), port,
                                    5000, 3, 10000, 10, i + 1, OmUniString("text"), Host::CPU);
  }
  env.now = OmTimeVal(kNineOClock + 10, 2000);
  runDue();
  EXPECT_EQ(packet(1, kNineOClock + 10, "cpu=60 "), receive());
  EXPECT_EQ(packet(3, kNineOClock + 10, "cpu=60 "), receive());
  const std::string log = logText();
  const size_t failed = log.find("Error was ioError, errno was 13.");
  EXPECT_LT(log.find("sent to 127.0.0.1:"), failed);
  EXPECT_NE(std::string::npos, log.find("sent to 127.0.0.1:", failed));
  EXPECT_TRUE(probeCounters.loadPacketsSent == before.loadPacketsSent + 2 &&
              probeCounters.loadPacketsFailed == before.loadPacketsFailed + 1);
  EXPECT_EQ(0u, hosts[1]->getLastIdle());  // as it was: the failure records nothing
  EXPECT_EQ(kNineOClock + 10, hosts[2]->getLastSendTime().seconds);
}

}  // namespace
