// Any request text through command execution, with the agent's single
// instances in place: every input must give one complete reply document, and
// the host list must stay bounded.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/MyLogger.h"
#include "agent/Settings.h"
#include "command/ParseCommand.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/string/OmEnv.h"
#include "foundation/string/OmUniString.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/VmstatFilter.h"

// Host names are resolved by the C library; the fuzzer must never reach a
// name server. Only numeric forms are accepted, and every one of them stands
// for 127.0.0.1, so that no load packet could leave the machine even if a
// send timer fired (the loop is never run here).
extern "C" hostent* gethostbyname(const char* name) {
  static in_addr address;
  static char* list[2] = {reinterpret_cast<char*>(&address), nullptr};
  static char* aliases[1] = {nullptr};
  static hostent entry;
  in_addr parsed;
  if (name == nullptr || inet_aton(name, &parsed) == 0) {
    h_errno = HOST_NOT_FOUND;
    return nullptr;
  }
  address.s_addr = htonl(INADDR_LOOPBACK);
  entry.h_name = const_cast<char*>("localhost");
  entry.h_aliases = aliases;
  entry.h_addrtype = AF_INET;
  entry.h_length = sizeof address;
  entry.h_addr_list = list;
  return &entry;
}

namespace {

// Hosts accumulate across inputs (ids differ); the list is emptied this often.
constexpr unsigned kClearEvery = 64;
// The most hosts the list may hold between two clears.
constexpr size_t kMaxHosts = kClearEvery;

void check(bool ok) {
  if (!ok) std::abort();
}

std::string& tempDir() {
  static std::string dir;
  return dir;
}

// The hosts still subscribed at exit are freed before the list itself goes,
// so that the leak check at exit sees none.
void tearDownAgent() {
  HostListMgr::clear();
  std::error_code ignored;
  if (!tempDir().empty()) std::filesystem::remove_all(tempDir(), ignored);
}

// The system's time, but a processor clock whose every timed run seems to
// take two seconds, so that the speed estimate costs nothing.
class FuzzEnv : public OmEnv {
 public:
  OmTimeVal Now() override { return Default()->Now(); }
  void Sleep(unsigned seconds) override { Default()->Sleep(seconds); }
  std::clock_t ProcessorClock() override {
    if (!start) ticks += 2000000;
    start = !start;
    return ticks;
  }

 private:
  std::clock_t ticks = 0;
  bool start = true;
};

OmEventLoop& hostLoop() {
  static OmEventLoop loop(nullptr);
  return loop;
}

void setUpAgent() {
  char pattern[] = "/tmp/quelmfuzzXXXXXX";
  if (mkdtemp(pattern) == nullptr) std::abort();
  tempDir() = pattern;
  hostLoop();  // made first, so that it outlives the hosts torn down at exit
  std::atexit(tearDownAgent);

  const char* prefix = "varosa.config.quelmloadbalancing.";
  std::ofstream props(tempDir() + "/quelmloadbalancing.properties");
  props << prefix << "logdirectory=" << tempDir() << "\n"
        << prefix << "piddirectory=" << tempDir() << "\n"
        << prefix << "logfilter=\n"
        << prefix << "probepath=/bin/true\n"
        << prefix << "port=4567\n";
  props.close();

  static FuzzEnv env;
  OmEnv::Install(&env);
  myBootstrap = new Bootstrap(OmUniString(tempDir().c_str()), 1);
  mySettings = &myBootstrap->settings();
  // No clauses: every message is formatted as in the probe and then dropped.
  mylog.SetupCSFilters({});
  myCache = new Cache(mySettings->minCacheSize, mySettings->maxVirtualMemory,
                      mySettings->maxPhysMemory);
  myCache->addToCache(97, 2048 * 1024, 1024 * 1024, 0, 0);
  myBogomips = new Bogomips(1, 80);
  myResponder = new Responder();
  HostListMgr::init(&hostLoop());
  // Asked for the tool's parameters only: the tool is never started. Its
  // signal set-up is undone, so that libFuzzer keeps its own handlers.
  static VmstatFilter filter(mySettings->maxVirtualMemory, mySettings->maxPhysMemory);
  const int signals[] = {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGTTOU, SIGTTIN, SIGTSTP, SIGXFSZ};
  struct sigaction saved[std::size(signals)];
  for (size_t i = 0; i < std::size(signals); ++i) sigaction(signals[i], nullptr, &saved[i]);
  myChildManager = new ChildManager(hostLoop(), &filter, &HostListMgr::percentChangeCheck);
  for (size_t i = 0; i < std::size(signals); ++i) sigaction(signals[i], &saved[i], nullptr);
}

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setUpAgent();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static unsigned iterations = 0;
  if (++iterations % kClearEvery == 0) HostListMgr::clear();

  OmUniString text = OmUniString::CreateFrom(data, size, OmEncoding::LATIN1);
  const size_t hostsBefore = HostListMgr::getHosts().Length();
  std::string reply;
  {
    ParseCommand command;
    reply = command.doCommand(text).AsUtf8();
  }

  // One complete document, whatever came in.
  check(startsWith(reply, "<?xml version=\"1.0\"?><znalbreply type=\""));
  check(endsWith(reply, "</znalbreply>"));

  // A request adds at most one host and the list stays bounded.
  const size_t hostsAfter = HostListMgr::getHosts().Length();
  check(hostsAfter <= hostsBefore + 1);
  check(hostsAfter <= kMaxHosts);
  if (hostsAfter > hostsBefore) {
    check(startsWith(reply, "<?xml version=\"1.0\"?><znalbreply type=\"create\">"));
  }
  // The host list's send timers, one per host, and its expiry check.
  check(hostLoop().TimeoutCount() == hostsAfter + 1);
  check(myCache->getNumberOfSamples() <= myCache->getCacheSize());
  return 0;
}
