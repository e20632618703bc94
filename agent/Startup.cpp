#include "agent/Startup.h"

#include <sys/resource.h>

#include "agent/Bootstrap.h"
#include "agent/CommandLine.h"
#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/PidFile.h"
#include "agent/ProcessExit.h"
#include "agent/RunAs.h"
#include "agent/Settings.h"
#include "command/AgentCheck.h"
#include "command/Listener.h"
#include "command/MetricsPage.h"
#include "command/ReplyListener.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/log/OmLog.h"
#include "foundation/process/OmUnixProcess.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/BaseFilter.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"

namespace {

// Every command connection costs a descriptor: allow as many as the system
// lets this process have.
void raiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// Before the loop waits: the log lines of the turn go out together.
void flushLogsCB(OmEventCallback*, OmEvent::cbdispatch) {
  if (OmLog* log = OmLog::Current()) log->Flush();
}

Listener::Options listenerOptions(const Settings& settings) {
  Listener::Options options;
  options.backlog = settings.listenBacklog;
  options.closeBrokenConnections = settings.closeBrokenConnections != 0;
  options.requestTimeout = settings.requestTimeout;
  options.maxConnections = settings.maxConnections;
  options.descriptorReserve = settings.descriptorReserve;
  options.clientAllow.Parse(settings.clientAllow);  // checked when read
  return options;
}

// The agent check and metrics ports, each only when configured. A port that
// cannot be opened is logged and the probe runs on without it; like the
// command port, they end with the process.
ReplyListener* agentCheckListener = nullptr;
ReplyListener* metricsListener = nullptr;

void startReplyPorts(const Settings& settings, const Listener::Options& limits) {
  if (settings.agentCheckPort != 0) {
    agentCheckListener =
        new ReplyListener(eventloop, "agent check", std::make_unique<AgentCheck>(settings));
    OmInetAddr address = OmInetAddr::AddressAny();
    address.Port(settings.agentCheckPort);
    agentCheckListener->start(address, limits);
  }
  if (settings.metricsPort != 0) {
    metricsListener = new ReplyListener(eventloop, "metrics", std::make_unique<MetricsPage>());
    OmInetAddr address;
    address.FromString(settings.metricsAddress, false);
    address.Port(settings.metricsPort);
    metricsListener->start(address, limits);
  }
}

}  // namespace

int probeMain(int argc, char** argv) {
  if (const int status = runCommandLineFlag(argc, argv); status >= 0) return status;
  the_current_process = &pr;
  raiseOpenFileLimit();

  // The processor count is read only when a directory is given too.
  const OmUniString directory = argc > 1 ? OmUniString::FromUtf8(argv[1]) : OmUniString(".");
  const OmUniString processorText = argc > 2 ? OmUniString::FromUtf8(argv[2]) : OmUniString("1");
  const unsigned processors = processorText.AsUint32();

  setTeardown(&destroySingleInstances);
  myBootstrap = new Bootstrap(directory, processors);
  mySettings = &myBootstrap->settings();
  const Settings& settings = *mySettings;
  LogStarted();
  OmLog::SetFailureNotice(settings.logFailureNotice != 0);

  myBogomips = new Bogomips(myBootstrap->getProcessors(), settings.multiProcessorFactor);
  myCache = new Cache(settings.minCacheSize, settings.maxVirtualMemory, settings.maxPhysMemory);
  myResponder = new Responder();
  myFilter =
      BaseFilter::createFilter(settings.filter, settings.maxVirtualMemory, settings.maxPhysMemory);
  if (myFilter == nullptr) processExit(4);
  HostListMgr::init(&eventloop);
  myResponder->batchWith(eventloop);

  myChildManager = new ChildManager(eventloop, myFilter, &HostListMgr::percentChangeCheck);
  // Measured again now that the process is set up.
  myBogomips->calculate();
  myChildManager->forkChild();

  // Deliberately no processExit here: nothing has been announced yet, and no
  // pid file exists.
  myListener = new Listener(eventloop);
  myListener->setOptions(listenerOptions(settings));
  if (!myListener->startListener(static_cast<int>(settings.port))) return 1;
  startReplyPorts(settings, myListener->options());

  myPidFile = new PidFile(settings.pidDirectory);
  becomeRunAsUser(settings);

  static OmStaticCallback<OmEvent::cbdispatch> flushLogsCallback(&flushLogsCB);
  OmLog::SetCollecting(true);
  eventloop.SetBeforeSleep(&flushLogsCallback);
  processExit(eventloop.EnterEventLoop());
}
