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

using ResponderTest = HostsTest;

TEST_F(ResponderTest, TimerPacketsMatchTheFormatToTheCharacter) {
  for (unsigned flags : {0, 1, 6, 7}) ASSERT_NE(nullptr, addHost(10 + flags, flags));
  addSample(97, 1024, 300);

  setTime(kNineOClock + 10);
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
    received[static_cast<unsigned>(std::stoul(text->substr(text->find("<id>") + 4)))] = *text;
  }
  EXPECT_EQ(expected, received);
}

TEST_F(ResponderTest, SequenceNumberIsTheWholeSecond) {
  Host* host = addHost(5, 0);
  ASSERT_NE(nullptr, host);
  StatsPacket s;
  for (const OmTimeVal& t :
       {OmTimeVal(kNineOClock + 100, 0), OmTimeVal(kNineOClock + 100, 999999)}) {
    env.now = t;
    ASSERT_EQ(OmStatus::Success, host->sendLoad(&s));
    EXPECT_EQ(packet(5, kNineOClock + 100, "<stats></stats>"), subscriber.receive().value_or(""));
  }
}

}  // namespace
}  // namespace hoststest
