#include "command/ParseCommand.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/MyLogger.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/process/OmUnixProcess.h"
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

// The error document around the text after "get /".
std::string errorDoc(const std::string& error) {
  return kXml + "<znalbreply type=\"error\"><version>1.0</version><error>get /" + error +
         "</error></znalbreply>";
}

// A create request; an empty value leaves its element out.
struct Create {
  std::string type = "create";
  std::string host = "127.0.0.1";
  std::string port = "5555";
  std::string samplerate = "5000";
  std::string windowsize = "3";
  std::string replyfreq = "10000";
  std::string percentchange = "20";
  std::string id = "11";
  std::string version = "1.0";
  std::vector<std::string> stats = {"cpu"};

  std::string text() const {
    std::string t = "<znalbreq type=\"" + type + "\">";
    auto element = [&t](const char* name, const std::string& value) {
      if (!value.empty()) t += std::string("<") + name + ">" + value + "</" + name + ">";
    };
    element("host", host);
    element("port", port);
    element("samplerate", samplerate);
    element("windowsize", windowsize);
    element("replyfreq", replyfreq);
    element("percentchange", percentchange);
    element("id", id);
    for (const auto& s : stats) element("stat", s);
    element("version", version);
    return t + "</znalbreq>";
  }
};

// A UDP socket on 127.0.0.1 that a subscribed host's packets can go to.
class UdpSink {
 public:
  UdpSink() {
    fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0) {
      port = ntohs(sa.sin_port);
    }
  }
  ~UdpSink() {
    if (fd >= 0) ::close(fd);
  }
  UdpSink(const UdpSink&) = delete;
  UdpSink& operator=(const UdpSink&) = delete;

  int fd = -1;
  unsigned port = 0;
};

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
    const char* prefix = "varosa.config.quelmloadbalancing.";
    props << prefix << "logdirectory=" << dir << "\n"
          << prefix << "piddirectory=" << dir << "\n"
          << prefix << "logfilter=*/*/*:t.log\n"
          << prefix << "probepath=/bin/true\n"
          << prefix << "port=4567\n"
          << prefix << "samplerate=10\n"
          << prefix << "windowsize=3\n"
          << prefix << "mincachesize=4\n"
          << prefix << "maxvirtualmemory=4194304\n"
          << prefix << "maxphysicalmemory=1048576\n";
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
    HostListMgr::clear();
    HostListMgr::eventloop = nullptr;
    delete myBogomips;
    myBogomips = nullptr;
    delete myCache;
    myCache = nullptr;
    delete myBootstrap;
    myBootstrap = nullptr;
    if (bootLogger != nullptr) {
      delete bootLogger;
      bootLogger = nullptr;
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

  std::string logText() const {
    mylog.Flush();
    std::ifstream in(dir + "/t.log");
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  std::string dir;
  OmEventLoop loop{nullptr};
};

const std::string kGetStart =
    kXml + "<znalbreply type=\"get\"><version>1.0</version><port>4567</port>";
const std::string kProbeStats = "<stats>cpu=97 bogo=8 vmem=2048 </stats>";
const std::string kSampleTime = "<time>Thu, 01 Jan 2026 09:00:05 GMT</time>";

TEST_F(ParseCommandTest, GetLineAnswersStatusWithoutVersion) {
  EXPECT_EQ(kGetStart + "<samplerate>0</samplerate><windowsize>0</windowsize>" + kProbeStats +
                kSampleTime + "No Updates</znalbreply>",
            run("GET /?get&znalbinfo HTTP/1.0\r\nHost: probe\r\n\r\n"));
}

TEST_F(ParseCommandTest, GetWithoutAnyInstanceReportsZeros) {
  Cache* cache = myCache;
  Bogomips* bogomips = myBogomips;
  Bootstrap* bootstrap = myBootstrap;
  myCache = nullptr;
  myBogomips = nullptr;
  myBootstrap = nullptr;
  const std::string reply = run("GET /?get&znalbinfo");
  myCache = cache;
  myBogomips = bogomips;
  myBootstrap = bootstrap;
  EXPECT_EQ(kXml +
                "<znalbreply type=\"get\"><version>1.0</version><port>0</port>"
                "<samplerate>0</samplerate><windowsize>0</windowsize>"
                "<stats>cpu=0 bogo=0 vmem=0 </stats>"
                "<time>Thu, 01 Jan 1970 00:00:00 GMT</time>No Updates</znalbreply>",
            reply);
}

// A child manager of its own, built without forking. Its signal set-up is
// made on a process object of the test's and undone afterwards, so that no
// handler is left pointing at a destroyed manager.
class ScopedChildManager {
 public:
  static constexpr int kSignals[] = {SIGCHLD, SIGHUP,  SIGTERM, SIGINT, SIGPIPE,
                                     SIGTTOU, SIGTTIN, SIGTSTP, SIGXFSZ};

  explicit ScopedChildManager(OmEventLoop& loop) : previous(the_current_process) {
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], nullptr, &saved[i]);
    getrlimit(RLIMIT_CORE, &savedCore);
    process = std::make_unique<OmUnixProcess>();
    filter = std::make_unique<VmstatFilter>(myBootstrap->getMaxVirtualMemory(),
                                            myBootstrap->getMaxPhysMemory());
    manager = std::make_unique<ChildManager>(loop, filter.get());
    myChildManager = manager.get();
  }
  ~ScopedChildManager() {
    myChildManager = nullptr;
    manager.reset();
    filter.reset();
    process.reset();
    the_current_process = previous;
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &saved[i], nullptr);
    setrlimit(RLIMIT_CORE, &savedCore);
  }

 private:
  OmUnixProcess* previous;
  struct sigaction saved[std::size(kSignals)];
  rlimit savedCore{};
  std::unique_ptr<OmUnixProcess> process;
  std::unique_ptr<VmstatFilter> filter;
  std::unique_ptr<ChildManager> manager;
};

TEST_F(ParseCommandTest, GetReportsTheToolsSettingsAndEverySubscriber) {
  ScopedChildManager manager(loop);
  EXPECT_EQ(kGetStart + "<samplerate>10</samplerate><windowsize>3</windowsize>" + kProbeStats +
                kSampleTime + "No Updates</znalbreply>",
            run("GET%20/%3Fget%26znalbinfo"));

  // A reply frequency of 3000 ms is raised to 10 s. The tool then samples
  // every 5 s over the configured 30 s: 6 samples.
  UdpSink sink;
  Create c;
  c.port = std::to_string(sink.port);
  c.id = "5";
  c.samplerate = "5000";
  c.windowsize = "4";
  c.replyfreq = "3000";
  c.stats = {"vmem", "cpu"};
  ASSERT_EQ(kXml +
                "<znalbreply type=\"create\"><version>1.0</version><id>5</id>"
                "<stats>cpu=97 vmem=2048 </stats></znalbreply>",
            run(c.text()));

  // A packet sent later leaves its figures and time in the host's record:
  // memory stays as sent, in MiB.
  Responder responder;
  myResponder = &responder;
  fakeNow() = OmTimeVal(kNineOClock + 60, 0);
  StatsPacket packet{42, 1500, 700, 0, 0};
  Host* host = hostWithId(5);
  ASSERT_NE(nullptr, host);
  const int sent = host->sendLoad(&packet);
  myResponder = nullptr;
  ASSERT_EQ(1, sent);

  const std::string connection =
      "<connection><id>5</id><host>127.0.0.1</host><port>" + c.port +
      "</port><replyfrequency>10</replyfrequency><percentchange>20</percentchange>"
      "<samplerate>5</samplerate><windowsize>4</windowsize>"
      "<stats>cpu=42 vmem=1500 </stats><time>Thu, 01 Jan 2026 09:01:00 GMT</time></connection>";
  EXPECT_EQ(kGetStart + "<samplerate>5</samplerate><windowsize>6</windowsize>" + kProbeStats +
                kSampleTime + connection + "</znalbreply>",
            run("GET /?get&znalbinfo"));
}

TEST_F(ParseCommandTest, GetListsHostsInListOrderWithTheirOwnStats) {
  Create a;
  a.id = "2";
  a.stats = {"bogo"};
  Create b;
  b.id = "1";
  b.stats = {"nothing"};  // present but naming no figure
  ASSERT_EQ(std::string::npos, run(a.text()).find("error"));
  ASSERT_EQ(std::string::npos, run(b.text()).find("error"));
  const std::string reply = run("GET /?get&znalbinfo");
  const std::string block =
      "<host>127.0.0.1</host><port>5555</port><replyfrequency>10</replyfrequency>"
      "<percentchange>20</percentchange><samplerate>5</samplerate><windowsize>3</windowsize>";
  const std::string time = "<time>Thu, 01 Jan 2026 09:00:05 GMT</time>";
  EXPECT_NE(std::string::npos,
            reply.find("</time><connection><id>2</id>" + block + "<stats>bogo=0 </stats>" + time +
                       "</connection><connection><id>1</id>" + block + "<stats></stats>" + time +
                       "</connection></znalbreply>"))
      << reply;
}

TEST_F(ParseCommandTest, CreateWithPercentChangeZeroIsAccepted) {
  Create c;
  c.percentchange = "0";
  c.version = "1.0.2";  // any version starting with ours is ours
  EXPECT_EQ(kXml +
                "<znalbreply type=\"create\"><version>1.0</version><id>11</id>"
                "<stats>cpu=97 </stats></znalbreply>",
            run(c.text()));
  ASSERT_EQ(1u, HostListMgr::getHosts().Length());
  Host* host = hostWithId(11);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(0u, host->getPercentChange());
  EXPECT_EQ(5555u, host->getPort());
  EXPECT_EQ(Host::CPU, host->getFlags());
  EXPECT_EQ(OmUniString("1.0"), host->getText());
  EXPECT_TRUE(HostListMgr::removeHost(11));
}

TEST_F(ParseCommandTest, StatValuesBecomeFlagsInFixedOrder) {
  struct Case {
    std::vector<std::string> stats;
    unsigned flags;
    std::string element;
  };
  const Case cases[] = {
      {{"bogo", "cpu"}, Host::CPU | Host::BOGO, "<stats>cpu=97 bogo=8 </stats>"},
      {{"vmem", "bogo", "cpu"}, 7, "<stats>cpu=97 bogo=8 vmem=2048 </stats>"},
      // Exact, case-sensitive values; only the first three count.
      {{"CPU", "vmem"}, Host::VMEM, "<stats>vmem=2048 </stats>"},
      {{"cpu", "cpu", "cpu", "vmem"}, Host::CPU, "<stats>cpu=97 </stats>"},
      {{" cpu", "x"}, 0, "<stats></stats>"},
  };
  unsigned id = 100;
  for (const Case& k : cases) {
    Create c;
    c.id = std::to_string(++id);
    c.stats = k.stats;
    EXPECT_EQ(kXml + "<znalbreply type=\"create\"><version>1.0</version><id>" + c.id + "</id>" +
                  k.element + "</znalbreply>",
              run(c.text()))
        << c.text();
    Host* host = hostWithId(id);
    ASSERT_NE(nullptr, host);
    EXPECT_EQ(k.flags, host->getFlags());
  }
}

TEST_F(ParseCommandTest, CreateWithPortZeroCreatesNothing) {
  Create c;
  c.port = "0";
  EXPECT_EQ(errorDoc("Error parsing port; "), run(c.text()));
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
}

TEST_F(ParseCommandTest, CreateReportsEveryFailingAttributeInOrder) {
  Create c;
  c.version = "2.0";
  c.host = "";
  c.port = "";
  c.samplerate = "abc";  // not a number reads as 0
  c.replyfreq = "0";
  c.percentchange = "";
  c.stats = {};
  EXPECT_EQ(errorDoc("Error parsing version; Error parsing host; Error parsing port; "
                     "Error parsing samplerate; Error parsing replyfrequency; "
                     "Error parsing percentchange; Error parsing stat; "),
            run(c.text()));

  Create d;
  d.windowsize = "0";
  d.id = "";
  EXPECT_EQ(errorDoc("Error parsing windowsize; Error parsing id; "), run(d.text()));
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());
}

TEST_F(ParseCommandTest, CreateThatTheHostListRefusesIsNotCreated) {
  Create c;
  ASSERT_EQ(std::string::npos, run(c.text()).find("error"));
  Create again;
  again.port = "6666";
  EXPECT_EQ(errorDoc("Host not created"), run(again.text()));
  ASSERT_NE(nullptr, hostWithId(11));
  EXPECT_EQ(1u, HostListMgr::getHosts().Length());
  EXPECT_EQ(5555u, hostWithId(11)->getPort());

  Create unresolvable;
  unresolvable.id = "12";
  unresolvable.host = "999.1.2.3";  // fails without asking a name server
  EXPECT_EQ(errorDoc("Host not created"), run(unresolvable.text()));
  EXPECT_EQ(1u, HostListMgr::getHosts().Length());
}

TEST_F(ParseCommandTest, KillRemovesTheHostWithThatId) {
  Create c;
  c.id = "7";
  ASSERT_EQ(std::string::npos, run(c.text()).find("error"));

  // Without a version nothing is removed.
  EXPECT_EQ(errorDoc("Error parsing version; "),
            run("<znalbreq type=\"kill\"><id>7</id></znalbreq>"));
  ASSERT_NE(nullptr, hostWithId(7));

  EXPECT_EQ(kXml + "<znalbreply type=\"kill\"><version>1.0</version><id>7</id></znalbreply>",
            run("<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>"));
  EXPECT_TRUE(HostListMgr::getHosts().IsEmpty());

  EXPECT_EQ(errorDoc("Host with id 7 not found"),
            run("<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>"));
}

TEST_F(ParseCommandTest, KillChecksItsId) {
  EXPECT_EQ(errorDoc("Host with id 42 not found"),
            run("<znalbreq type=\"kill\"><version>1.0</version><id>42</id></znalbreq>"));
  EXPECT_EQ(errorDoc("Error parsing id; "),
            run("<znalbreq type=\"kill\"><version>1.0</version><id>x</id></znalbreq>"));
  EXPECT_EQ(errorDoc("Error parsing version; Error parsing id; "),
            run("<znalbreq type=\"kill\"></znalbreq>"));
}

TEST_F(ParseCommandTest, VersionMustStartWithOurs) {
  const char* accepted[] = {"1.0", "1.0.2", "1.05"};
  const char* refused[] = {"1.", "2.0", "", " 1.0", "1,0"};
  for (const char* v : accepted) {
    EXPECT_EQ(errorDoc("Host with id 3 not found"),
              run(std::string("<znalbreq type=\"kill\"><id>3</id><version>") + v +
                  "</version></znalbreq>"))
        << v;
  }
  for (const char* v : refused) {
    EXPECT_EQ(errorDoc("Error parsing version; "),
              run(std::string("<znalbreq type=\"kill\"><id>3</id><version>") + v +
                  "</version></znalbreq>"))
        << v;
  }
}

TEST_F(ParseCommandTest, AdminIsNeverCarriedOut) {
  EXPECT_EQ(errorDoc("Command not implemented"),
            run("<znalbreq type=admin><port>4000</port><samplerate>5</samplerate>"
                "<windowsize>3</windowsize><version>1.0</version></znalbreq>"));
  EXPECT_EQ(errorDoc("Error parsing port; Error parsing windowsize; "),
            run("<znalbreq type=admin><port>0</port><samplerate>5</samplerate>"
                "<version>1.0</version></znalbreq>"));
  EXPECT_EQ(4567u, myBootstrap->getPort());
}

TEST_F(ParseCommandTest, UnknownCommandsAreNeverExecuted) {
  EXPECT_EQ(errorDoc("UNKNOWN"),
            run("<znalbreq type=\"stop\"><id>3</id><version>1.0</version></znalbreq>"));
  // Neither a get line nor a request element.
  EXPECT_EQ(errorDoc("Error parsing version; UNKNOWN"), run("hello probe"));
  EXPECT_EQ(errorDoc("Error parsing version; UNKNOWN"), run(""));
  // A lower-case get line is no get line.
  EXPECT_EQ(errorDoc("Error parsing version; UNKNOWN"), run("get /?get&znalbinfo"));
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
  EXPECT_NE(std::string::npos, logText().find("<host>a b%3Cc%3d&?</host>"));

  // An escaped '<' is not markup.
  EXPECT_EQ(errorDoc("Error parsing version; UNKNOWN"),
            run("%3Cznalbreq type=kill><id>9</id><version>1.0</version></znalbreq>"));
}

}  // namespace
