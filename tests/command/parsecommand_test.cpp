#include "command/ParseCommand.h"

#include <map>

#include "AgentFixture.h"
#include "hosts/Host.h"
#include "hosts/HostListMgr.h"

namespace {

const std::string kXml = "<?xml version=\"1.0\"?>";
const std::string kGetStart = kXml +
                              "<znalbreply type=\"get\"><version>1.0</version><port>4567</port>"
                              "<samplerate>5</samplerate><windowsize>3</windowsize>"
                              "<stats>cpu=97 bogo=8 vmem=2048 </stats>"
                              "<time>Thu, 01 Jan 2026 09:00:05 GMT</time>";

std::string errorDoc(const std::string& error) {
  return kXml + "<znalbreply type=\"error\"><version>1.0</version><error>get /" + error +
         "</error></znalbreply>";
}

std::string created(const std::string& id, const std::string& stats) {
  return kXml + "<znalbreply type=\"create\"><version>1.0</version><id>" + id + "</id><stats>" +
         stats + "</stats></znalbreply>";
}

// A create request with changes; an empty value drops the element, stat takes a list.
std::string createRequest(const std::map<std::string, std::string>& changes = {}) {
  const std::pair<std::string, std::string> defaults[] = {
      {"host", "127.0.0.1"}, {"port", "5555"},         {"samplerate", "5000"},
      {"windowsize", "3"},   {"replyfreq", "10000"},   {"percentchange", "20"},
      {"id", "11"},          {"stat", "cpu"},          {"version", "1.0"}};
  std::string t = "<znalbreq type=\"create\">";
  for (const auto& [name, fallback] : defaults) {
    const auto changed = changes.find(name);
    std::istringstream values(changed == changes.end() ? fallback : changed->second);
    for (std::string v; std::getline(values, v, name == "stat" ? ',' : '\n');) {
      t += "<" + name + ">" + v + "</" + name + ">";
    }
  }
  return t + "</znalbreq>";
}

// The agent at 09:00:05 with one sample cached: 97% idle, 2048 MiB and some KiB.
class ParseCommandTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    env.now = OmTimeVal(kNineOClock + 5, 0);
    myCache->addToCache(97, 2048 * 1024 + 1023, 1024 * 1024, 0, 0);
  }

  // One request through a fresh ParseCommand, as a circuit runs it.
  static std::string run(OmUniString text) { return ParseCommand().doCommand(text).AsUtf8(); }
};

// Each request in turn against one host list, with the whole reply document.
TEST_F(ParseCommandTest, RepliesByteForByte) {
  const struct {
    std::string request, reply;
  } cases[] = {
      {"GET /?get&znalbinfo HTTP/1.0\r\n\r\n", kGetStart + "No Updates</znalbreply>"},
      {"<znalbreq type=\"stop\"><id>3</id><version>1.0</version></znalbreq>", errorDoc("UNKNOWN")},
      // Any version starting with ours is ours.
      {createRequest({{"percentchange", "0"}, {"version", "1.0.2"}}), created("11", "cpu=97 ")},
      {createRequest({{"port", "0"}}), errorDoc("Error parsing port; ")},
      {createRequest({{"version", "2.0"}, {"host", ""}, {"samplerate", "abc"}, {"stat", ""}}),
       errorDoc("Error parsing version; Error parsing host; Error parsing samplerate; "
                "Error parsing stat; ")},
      {createRequest({{"id", "101"}, {"stat", "bogo,cpu"}}), created("101", "cpu=97 bogo=8 ")},
      {createRequest({{"port", "6666"}}), errorDoc("Host not created")},
      {"<znalbreq type=\"kill\"><id>101</id></znalbreq>", errorDoc("Error parsing version; ")},
      {"<znalbreq type=\"kill\"><version>1.0</version><id>42</id></znalbreq>",
       errorDoc("Host with id 42 not found")},
      {"<znalbreq type=admin><port>4000</port><samplerate>5</samplerate><windowsize>3</windowsize>"
       "<version>1.0</version></znalbreq>",
       errorDoc("Command not implemented")},
  };
  for (const auto& c : cases) EXPECT_EQ(c.reply, run(OmUniString(c.request))) << c.request;
  EXPECT_EQ(2u, HostListMgr::getHosts().Length());
  EXPECT_EQ(0u, HostListMgr::getHosts()[0]->getPercentChange());
}

TEST_F(ParseCommandTest, GetListsEveryHostAndPercentEscapesAreDecoded) {
  ASSERT_EQ(created("2", "bogo=8 "),
            run(OmUniString(createRequest({{"id", "2"}, {"stat", "bogo"}}))));
  EXPECT_EQ(kGetStart +
                "<connection><id>2</id><host>127.0.0.1</host><port>5555</port>"
                "<replyfrequency>10</replyfrequency><percentchange>20</percentchange>"
                "<samplerate>5</samplerate><windowsize>3</windowsize><stats>bogo=0 </stats>"
                "<time>Thu, 01 Jan 2026 09:00:05 GMT</time></connection></znalbreply>",
            run(OmUniString("GET%20/%3Fget%26znalbinfo")));
  // A get reports each change since the last one: a sample, then a packet sent.
  std::string last = run(OmUniString("GET%20/%3Fget%26znalbinfo"));
  for (const std::function<void()>& change : std::vector<std::function<void()>>{
           [&] { addSample(40, 100, 50); }, [&] { env.now = env.now.PlusSeconds(10), runDue(), receive(); }}) {
    change();
    const std::string reply = run(OmUniString("GET%20/%3Fget%26znalbinfo"));
    EXPECT_NE(reply, last);
    last = reply;
  }

  OmUniString text("<znalbreq%20type=kill><id>9</id><version>1.0</version><host>%3C</host>");
  ParseCommand().doCommand(text);
  EXPECT_EQ("<znalbreq type=kill><id>9</id><version>1.0</version><host>%3C</host>", text.AsUtf8());
}

// Creates refused by the allow-list or the limit (logged once each time reached).
TEST_F(ParseCommandTest, AllowListAndSubscriberLimitRefuseCreates) {
  settings.subscriberAllow = OmUniString("10.0.0.0/8, 127.0.0.1");
  settings.maxSubscribers = 2;
  const struct {
    std::string host, id;
    bool made;
  } cases[] = {{"127.0.0.1", "1", true}, {"127.0.0.2", "2", false}, {"10.9.8.7", "3", true},
               {"10.1.1.1", "4", false}, {"10.1.1.2", "5", false}, {"kill", "1", true},
               {"10.1.1.2", "5", true},  {"10.1.1.1", "4", false}};
  for (const auto& c : cases) {
    const std::string reply =
        c.host == "kill" ? run(OmUniString("<znalbreq type=\"kill\"><version>1.0</version><id>" +
                                           c.id + "</id></znalbreq>"))
                         : run(OmUniString(createRequest({{"host", c.host}, {"id", c.id}})));
    EXPECT_EQ(c.made, reply.find("Host not created") == std::string::npos) << c.host << reply;
  }
  EXPECT_EQ(1u, logged("The host 127.0.0.2 has the address 127.0.0.2, which the subscriberallow"));
  EXPECT_EQ(2u, logged("The quelm loadprobe has 2 hosts, the maxsubscribers limit"));
}

}  // namespace
