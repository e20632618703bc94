#include "hosts/Responder.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "HostsFixture.h"
#include "measure/StatsPacket.h"

namespace hoststest {
namespace {

std::string packet(unsigned id, uint32_t seqno, const std::string& stats) {
  return "<?xml version=\"1.0\"?><znalbdata><id>" + std::to_string(id) + "</id><seqno>" +
         std::to_string(seqno) + "</seqno>" + stats + "</znalbdata>";
}

std::string stats(const StatsPacket& s, unsigned flags, int64_t bogo, uint32_t maxV,
                  uint32_t maxP) {
  OmOSStream out;
  Responder::writeStats(out, s, flags, bogo, maxV, maxP);
  return out.Str().AsUtf8();
}

using ResponderTest = HostsTest;

TEST(StatsRecordTest, MaximaAreWholeMebibytesAndSpeedIsSigned64Bit) {
  StatsPacket s;
  EXPECT_EQ("<stats></stats>", stats(s, 0, 5312, 2097152, 524288));
  EXPECT_EQ("<stats>vmem=0 vmax=1 pmem=0 pmax=0 sin=0 sout=0 </stats>",
            stats(s, Host::VMEM, 0, 1536, 1023));
  EXPECT_EQ("<stats>bogo=-5 </stats>", stats(s, Host::BOGO, -5, 0, 0));
  EXPECT_EQ("<stats>bogo=8589934592 </stats>", stats(s, Host::BOGO, int64_t{1} << 33, 0, 0));
}

// Every flag combination the packet format distinguishes, sent by the hosts'
// own timers from the averaged cache.
TEST_F(ResponderTest, TimerPacketsMatchTheFormatToTheCharacter) {
  const std::map<unsigned, unsigned> flagsById = {{10, 0}, {11, 1}, {16, 6}, {17, 7}};
  for (const auto& [id, flags] : flagsById) ASSERT_NE(nullptr, addHost(id, flags));
  addSample(97, 1024, 300, 1, 2);
  addSample(97, 1024, 300, 1, 2);

  advance(10);
  runDue();
  const uint32_t seqno = kNineOClock + 10;
  const std::string vmem = "vmem=1024 vmax=1024 pmem=300 pmax=512 sin=1 sout=2 ";
  std::map<unsigned, std::string> expected = {
      {10, packet(10, seqno, "<stats></stats>")},
      {11, packet(11, seqno, "<stats>cpu=97 </stats>")},
      {16, packet(16, seqno, "<stats>bogo=8 " + vmem + "</stats>")},
      {17, packet(17, seqno, "<stats>cpu=97 bogo=8 " + vmem + "</stats>")}};
  std::map<unsigned, std::string> received;
  for (int i = 0; i < 4; ++i) {
    auto text = subscriber.receive();
    ASSERT_TRUE(text.has_value()) << "packet " << i;
    const size_t at = text->find("<id>");
    ASSERT_NE(std::string::npos, at);
    received[static_cast<unsigned>(std::stoul(text->substr(at + 4)))] = *text;
  }
  EXPECT_EQ(expected, received);
  EXPECT_TRUE(subscriber.nothingWaiting());
  EXPECT_TRUE(logged("127.0.0.1\nsent to 127.0.0.1:" + std::to_string(subscriber.port)));
}

TEST_F(ResponderTest, SequenceNumberIsTheWholeSecond) {
  Host* host = addHost(5, 0);
  ASSERT_NE(nullptr, host);
  StatsPacket s;
  for (const OmTimeVal& t : {OmTimeVal(kNineOClock + 100, 0), OmTimeVal(kNineOClock + 100, 999999),
                             OmTimeVal(kNineOClock + 101, 0)}) {
    fakeNow() = t;
    ASSERT_EQ(OmStatus::Success, host->sendLoad(&s));
    EXPECT_EQ(packet(5, t.seconds, "<stats></stats>"), subscriber.receive().value_or(""));
  }
}

// Datagrams to the broadcast address are refused without SO_BROADCAST.
TEST_F(ResponderTest, RefusedDatagramIsLoggedAndKeepsTheHostsLastValues) {
  OmOSStream text;
  text << "x";
  const OmInetAddr broadcast(255, 255, 255, 255, 9);
  EXPECT_EQ(OmStatus::Failure, myResponder->sendPacket(text, broadcast, OmUniString("bcast")));
  EXPECT_TRUE(logged("Failed to send packet\nbcast\nto address 255.255.255.255:9. Error was "
                     "ioError, errno was 13."));

  Host* host = HostListMgr::addHost(OmUniString("255.255.255.255"), 9, 5000, 3, 10000, 10, 1,
                                    OmUniString(), 7);
  ASSERT_NE(nullptr, host);
  advance(5);
  StatsPacket s{50, 100, 200, 0, 0};
  EXPECT_EQ(OmStatus::Failure, host->sendLoad(&s));
  EXPECT_EQ(0u, host->getLastIdle());
  EXPECT_EQ(0u, host->getLastVmem());
  EXPECT_EQ(0u, host->getLastBogo());
  EXPECT_EQ(OmTimeVal(kNineOClock, 0), host->getLastSendTime());
}

}  // namespace
}  // namespace hoststest
