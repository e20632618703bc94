#include "command/ParseCommand.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/MyLogger.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmTimeVal.h"
#include "hosts/Host.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/StatsPacket.h"
#include "measure/VmstatFilter.h"

namespace {

// 2026-01-01 09:00:00 UTC, a Thursday.
constexpr uint32_t kNineOClock = 1767258000;

OmTimeVal& fakeNow() {
  static OmTimeVal now;
  return now;
}
OmTimeVal fakeClock() { return fakeNow(); }

const std::string kXml = "<?xml version=\"1.0\"?>";
const std::string kGetStart =
    kXml + "<znalbreply type=\"get\"><version>1.0</version><port>4567</port>";
const std::string kProbeStatsAndTime =
    "<stats>cpu=97 bogo=8 vmem=2048 </stats><time>Thu, 01 Jan 2026 09:00:05 GMT</time>";

// The error document around the text after "get /".
std::string errorDoc(const std::string& error) {
  return kXml + "<znalbreply type=\"error\"><version>1.0</version><error>get /" + error +
         "</error></znalbreply>";
}

std::string created(const std::string& id, const std::string& stats) {
  return kXml + "<znalbreply type=\"create\"><version>1.0</version><id>" + id + "</id><stats>" +
         stats + "</stats></znalbreply>";
}

// A create request with some values changed; an empty value leaves its
// element out, and "stat" takes a comma-separated list.
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

// A kill request; a null version leaves that element out.
std::string killRequest(const std::string& id, const char* version = "1.0") {
  return "<znalbreq type=\"kill\"><id>" + id + "</id>" +
         (version ? std::string("<version>") + version + "</version>" : "") + "</znalbreq>";
}

// The agent's single instances as command execution reads them: the
// configuration from a properties file in a temporary directory (which also
// receives the log), a cache holding one known sample, a speed figure that
// costs no processor time, and a host list on a loop of the test's own. The
// child manager stays null unless a test builds one.
class ParseCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeNow() = OmTimeVal(kNineOClock, 0);
    OmTimeVal::SetClock(&fakeClock);
    char pattern[] = "/tmp/parsecmdXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir = pattern;
    std::ofstream props(dir + "/quelmloadbalancing.properties");
    const std::string settings[] = {"logdirectory=" + dir,     "piddirectory=" + dir,
                                    "logfilter=*/*/*:t.log",    "probepath=/bin/true",
                                    "port=4567",                "samplerate=10",
                                    "windowsize=3",             "mincachesize=4",
                                    "maxvirtualmemory=4194304", "maxphysicalmemory=1048576"};
    for (const std::string& line : settings) {
      props << "varosa.config.quelmloadbalancing." << line << "\n";
    }
    props.close();
    myBootstrap = new Bootstrap(OmUniString(dir), 1);
    myCache = new Cache(myBootstrap->getMinCacheSize(), myBootstrap->getMaxVirtualMemory(),
                        myBootstrap->getMaxPhysMemory());
    myBogomips = new Bogomips(1, 80, fastClock());
    // The sample arrives five seconds after start; 2048 MiB and some KiB.
    fakeNow() = OmTimeVal(kNineOClock + 5, 0);
    myCache->addToCache(97, 2048 * 1024 + 1023, 1024 * 1024, 0, 0);
    HostListMgr::init(&loop);
  }

  void TearDown() override {
    myChildManager = nullptr;
    HostListMgr::clear();
    HostListMgr::eventloop = nullptr;
    delete std::exchange(myBogomips, nullptr);
    delete std::exchange(myCache, nullptr);
    delete std::exchange(myBootstrap, nullptr);
    if (bootLogger != nullptr) {
      delete std::exchange(bootLogger, nullptr);
      mylog.SetupCSFilters({});
    }
    OmTimeVal::SetClock(nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }

  // A speed estimate that reaches its end at 2^22 loops, after one tick for
  // each shorter run: (4194304 / 1000000) * 2 = 8.
  static Bogomips::ClockSource fastClock() {
    auto calls = std::make_shared<int>(0);
    auto ticks = std::make_shared<std::clock_t>(0);
    return [calls, ticks]() {
      const int call = (*calls)++;
      if (call % 2 == 1) *ticks += (call / 2 + 1) < 22 ? 1 : 1000000;
      return *ticks;
    };
  }

  // One request through a fresh ParseCommand, as a circuit runs it.
  static std::string run(const std::string& request) {
    OmUniString text(request);
    ParseCommand command;
    return command.doCommand(text).AsUtf8();
  }

  static Host* hostWithId(unsigned id) {
    for (Host* h : HostListMgr::getHosts()) {
      if (h->getId() == id) return h;
    }
    return nullptr;
  }

  std::string dir;
  OmEventLoop loop{nullptr};
};

// Each request in turn against one host list, with the whole reply document.
TEST_F(ParseCommandTest, RepliesByteForByte) {
  const struct {
    std::string request, reply;
  } cases[] = {
      // A get line needs no version; with no hosts and no tool it reports zeros.
      {"GET /?get&znalbinfo HTTP/1.0\r\nHost: probe\r\n\r\n",
       kGetStart + "<samplerate>0</samplerate><windowsize>0</windowsize>" + kProbeStatsAndTime +
           "No Updates</znalbreply>"},
      {"get /?get&znalbinfo", errorDoc("Error parsing version; UNKNOWN")},
      {"<znalbreq type=\"stop\"><id>3</id><version>1.0</version></znalbreq>", errorDoc("UNKNOWN")},
      // Any version starting with ours is ours, and answered as ours.
      {createRequest({{"percentchange", "0"}, {"version", "1.0.2"}}), created("11", "cpu=97 ")},
      {createRequest({{"port", "0"}}), errorDoc("Error parsing port; ")},
      {createRequest({{"version", "2.0"}, {"host", ""}, {"port", ""}, {"samplerate", "abc"},
               {"replyfreq", "0"}, {"percentchange", ""}, {"stat", ""}}),
       errorDoc("Error parsing version; Error parsing host; Error parsing port; "
                "Error parsing samplerate; Error parsing replyfrequency; "
                "Error parsing percentchange; Error parsing stat; ")},
      {createRequest({{"windowsize", "0"}, {"id", ""}}),
       errorDoc("Error parsing windowsize; Error parsing id; ")},
      // Stat values are exact and case-sensitive, only the first three count,
      // and the reply names them in a fixed order.
      {createRequest({{"id", "101"}, {"stat", "bogo,cpu"}}), created("101", "cpu=97 bogo=8 ")},
      {createRequest({{"id", "102"}, {"stat", "vmem,bogo,cpu"}}),
       created("102", "cpu=97 bogo=8 vmem=2048 ")},
      {createRequest({{"id", "103"}, {"stat", "CPU,vmem"}}), created("103", "vmem=2048 ")},
      {createRequest({{"id", "104"}, {"stat", "cpu,cpu,cpu,vmem"}}), created("104", "cpu=97 ")},
      {createRequest({{"id", "105"}, {"stat", " cpu,x"}}), created("105", "")},
      // The host list refuses an id in use and a host it cannot resolve.
      {createRequest({{"port", "6666"}}), errorDoc("Host not created")},
      {createRequest({{"id", "12"}, {"host", "999.1.2.3"}}), errorDoc("Host not created")},
      // Without a version nothing is removed.
      {killRequest("101", nullptr), errorDoc("Error parsing version; ")},
      {killRequest("101"), kXml + "<znalbreply type=\"kill\"><version>1.0</version><id>101</id>"
                           "</znalbreply>"},
      {killRequest("101"), errorDoc("Host with id 101 not found")},
      {"<znalbreq type=\"kill\"><version>1.05</version><id>42</id></znalbreq>",
       errorDoc("Host with id 42 not found")},
      {killRequest("42", "1."), errorDoc("Error parsing version; ")},
      {killRequest("x"), errorDoc("Error parsing id; ")},
      {"<znalbreq type=\"kill\"></znalbreq>", errorDoc("Error parsing version; Error parsing id; ")},
      {"<znalbreq type=admin><port>4000</port><samplerate>5</samplerate><windowsize>3</windowsize>"
       "<version>1.0</version></znalbreq>",
       errorDoc("Command not implemented")},
      {"<znalbreq type=admin><port>0</port><samplerate>5</samplerate><version>1.0</version>"
       "</znalbreq>",
       errorDoc("Error parsing port; Error parsing windowsize; ")},
  };
  for (const auto& c : cases) EXPECT_EQ(c.reply, run(c.request)) << c.request;

  EXPECT_EQ(5u, HostListMgr::getHosts().Length());
  Host* host = hostWithId(11);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(0u, host->getPercentChange());
  EXPECT_EQ(5555u, host->getPort());
  EXPECT_EQ(4567u, myBootstrap->getPort());
}

TEST_F(ParseCommandTest, GetReportsTheToolsSettingsAndEveryHostInListOrder) {
  VmstatFilter filter(myBootstrap->getMaxVirtualMemory(), myBootstrap->getMaxPhysMemory());
  ChildManager manager(loop, &filter);
  myChildManager = &manager;

  // A subscriber's socket on 127.0.0.1, so that a packet really goes out.
  OmSocket subscriber;
  OmInetAddr bound;
  ASSERT_TRUE(subscriber.Bind(OmInetAddr::AddressLoopback()) && subscriber.LocalAddress(bound));
  const std::string port = std::to_string(bound.GetPort());

  // A reply frequency of 3000 ms is raised to 10 s. The tool then samples
  // every 5 s over the configured 30 s: 6 samples.
  ASSERT_EQ(created("5", "cpu=97 vmem=2048 "),
            run(createRequest({{"id", "5"}, {"port", port}, {"windowsize", "4"},
                        {"replyfreq", "3000"}, {"stat", "vmem,cpu"}})));
  ASSERT_EQ(created("2", "bogo=8 "), run(createRequest({{"id", "2"}, {"stat", "bogo"}})));

  // A packet sent later leaves its figures and time in the host's record:
  // memory stays as sent, in MiB.
  Responder responder;
  myResponder = &responder;
  fakeNow() = OmTimeVal(kNineOClock + 60, 0);
  StatsPacket packet{42, 1500, 700, 0, 0};
  Host* host = hostWithId(5);
  const int sent = host != nullptr ? host->sendLoad(&packet) : 0;
  myResponder = nullptr;
  ASSERT_EQ(1, sent);

  const std::string settings =
      "<replyfrequency>10</replyfrequency><percentchange>20</percentchange>"
      "<samplerate>5</samplerate>";
  EXPECT_EQ(kGetStart + "<samplerate>5</samplerate><windowsize>6</windowsize>" +
                kProbeStatsAndTime + "<connection><id>5</id><host>127.0.0.1</host><port>" + port +
                "</port>" + settings + "<windowsize>4</windowsize><stats>cpu=42 vmem=1500 </stats>"
                "<time>Thu, 01 Jan 2026 09:01:00 GMT</time></connection>"
                "<connection><id>2</id><host>127.0.0.1</host><port>5555</port>" + settings +
                "<windowsize>3</windowsize><stats>bogo=0 </stats>"
                "<time>Thu, 01 Jan 2026 09:00:05 GMT</time></connection></znalbreply>",
            run("GET%20/%3Fget%26znalbinfo"));
}

TEST_F(ParseCommandTest, FourPercentEscapesAreUndoneInPlace) {
  OmUniString text(
      "<znalbreq%20type%3Dkill><id>9</id><version>1.0</version>"
      "<host>a%20b%3Cc%3d%26%3F</host></znalbreq>");
  ParseCommand command;
  EXPECT_EQ(errorDoc("Host with id 9 not found"), command.doCommand(text).AsUtf8());
  EXPECT_EQ(
      "<znalbreq type=kill><id>9</id><version>1.0</version><host>a b%3Cc%3d&?</host></znalbreq>",
      text.AsUtf8());
  // The command is logged as it was read.
  mylog.Flush();
  std::ifstream in(dir + "/t.log");
  const std::string log{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  EXPECT_NE(std::string::npos, log.find("<host>a b%3Cc%3d&?</host>"));
}

}  // namespace
