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
#include "agent/SystemdNotifier.h"
#include "command/DescriptorBudget.h"
#include "command/Listener.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/event/OmTimer.h"
#include "foundation/log/OmLog.h"
#include "foundation/net/OmSystemd.h"
#include "foundation/process/OmUnixProcess.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "hosts/StateFile.h"
#include "measure/BaseFilter.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/LoadSampler.h"
#include "ports/AgentCheck.h"
#include "ports/MetricsPage.h"
#include "ports/ReplyListener.h"

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
  // One count of descriptors for every port, with the reserve kept out.
  if (settings.descriptorReserve != 0) options.budget = new DescriptorBudget(settings.descriptorReserve);
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
    OmInetAddr address;
    address.FromListenText(settings.listenAddress, settings.agentCheckPort);  // checked when read
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

// processorcount: the command line's count wins; then a number, or the
// machine's (its cgroup's quota when the load is the cgroup's).
int chooseProcessors(const Settings& settings, bool onCommandLine, int given) {
  const OmUniString& configured = settings.processorCount;
  if (onCommandLine || configured.Length() == 0) return given;
  if (configured == OmUniString("auto")) return static_cast<int>(scopeProcessors(settings));
  return static_cast<int>(configured.AsUint32());
}

void runEndedCB(unsigned idle) { myChildManager->runEnded(idle); }

// From here on a stop, interrupt or hang-up is recorded, not dropped; the
// loop acts on it at its first turn, once start-up is done.
void keepEarlySignals() {
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, had_a_signal);
  OmUnixProcess::StartSignals();
}

// Under a service manager the listening socket outlives the probe: what
// waits in its backlog is the next start's. The requests already accepted
// are answered before the exit (for a second at most), so that a restart
// leaves no client without its reply.
bool finishWaitOver = false;

void finishWaitCB(OmEventCallback*, OmEvent::cbdispatch) { finishWaitOver = true; }

void finishAcceptedRequests() {
  myListener->RemoveCallback();
  static OmStaticCallback<OmEvent::cbdispatch> finishWait(&finishWaitCB);
  OmTimer wait(eventloop, &finishWait);  // poll waits no longer than this
  wait.Arm(OmTimeVal::now().PlusSeconds(1));
  while (myListener->openConnections() != 0 && !finishWaitOver) eventloop.RunOneTurn();
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
  setRequestCopyLimit(settings.logRequestLimit);
  setMessageRateLimit(settings.logRateLimit);
  if (settings.earlySignals != 0) keepEarlySignals();
  if (settings.systemd != 0) {
    OmLog::SetJournalLines(true);
    OmSystemd::AcceptPassedSockets();
    mySystemdNotifier = new SystemdNotifier(eventloop);
    mySystemdNotifier->catchReloadStart();
  }

  uint32_t machineVirtual = 0, machinePhys = 0;
  if (settings.memoryFromSystem != 0 && scopeMemory(settings, machineVirtual, machinePhys)) {
    myBootstrap->useMachineMemory(machineVirtual, machinePhys);
  }
  const int speedProcessors = chooseProcessors(settings, argc > 2, myBootstrap->getProcessors());
  myBogomips = new Bogomips(speedProcessors, settings.multiProcessorFactor);
  myCache = new Cache(settings.minCacheSize, settings.maxVirtualMemory, settings.maxPhysMemory);
  myResponder = new Responder();
  myFilter =
      BaseFilter::createFilter(settings.filter, settings.maxVirtualMemory, settings.maxPhysMemory);
  if (myFilter == nullptr) processExit(4);
  HostListMgr::init(&eventloop);
  myResponder->batchWith(eventloop);

  myChildManager = new ChildManager(eventloop, myFilter, &HostListMgr::percentChangeCheck);
  if (mySystemdNotifier != nullptr) mySystemdNotifier->catchReloadEnd();
  // Measured again now that the process is set up.
  myBogomips->calculate();
  if (settings.loadSource == OmUniString("tool")) {
    myChildManager->forkChild();
  } else {
    myLoadSampler = new LoadSampler(eventloop, settings, *myCache, &runEndedCB);
    myLoadSampler->start();
  }
  // Before the port opens: no create or kill can race the restore.
  if (settings.stateFile.Length() != 0) {
    HostListMgr::restoreState(new StateFile(settings.stateFile.AsUtf8()));
  }

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
  if (mySystemdNotifier != nullptr) mySystemdNotifier->readyAtLoopStart();
  const int status = eventloop.EnterEventLoop();
  if (settings.systemd != 0) finishAcceptedRequests();
  processExit(status);
}
