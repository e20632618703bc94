#include "measure/ChildManager.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "agent/Counters.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/string/OmEnv.h"
#include "foundation/string/OmFile.h"
#include "measure/BaseFilter.h"
#include "measure/Bogomips.h"

ChildManager::ChildManager(OmEventLoop& l, BaseFilter* f, RunObserver observer)
    : loop(l),
      filter(f),
      runObserver(observer),
      readpipeCallback(this, &ChildManager::readpipeCB),
      deadkidCallback(this, &ChildManager::deadkidCB),
      sighupCallback(this, &ChildManager::signalCB, SIGHUP),
      sigtermCallback(this, &ChildManager::signalCB, SIGTERM),
      sigintCallback(this, &ChildManager::signalCB, SIGINT),
      sigpipeCallback(this, &ChildManager::signalCB, SIGPIPE),
      startCallback(this, &ChildManager::startCB),
      stallCallback(this, &ChildManager::stallCB),
      speedCallback(this, &ChildManager::speedCB) {
  // Start-up's own estimates are the first: the interval counts from them.
  if (mySettings->speedEstimateChild != 0) {
    recalculated = true;
    lastRecalc = OmTimeVal::now();
  }
  buildArgv();
  setSampleRateAndWindowSize(mySettings->sampleRate, mySettings->windowSize);

  buffer = static_cast<char*>(std::malloc(kInitialBufferSize + 1));
  if (buffer == nullptr) {
    LogBufferFail(static_cast<int>(kInitialBufferSize));
    processExit(8);
  }
  capacity = kInitialBufferSize;
  resetBuffer();

  setSignals();
}

ChildManager::~ChildManager() {
  pr.RemoveSignalCallback(SIGHUP, &sighupCallback);
  pr.RemoveSignalCallback(SIGTERM, &sigtermCallback);
  pr.RemoveSignalCallback(SIGINT, &sigintCallback);
  pr.RemoveSignalCallback(SIGPIPE, &sigpipeCallback);
  closePipe();
  if (childPid > 0) {
    killTool();
    // The probe is going away: give the killed tool a moment to be reaped so
    // that no zombie is left behind.
    int status = 0;
    for (int i = 0; i < 100; ++i) {
      if (waitpid(childPid, &status, WNOHANG) != 0) break;
      OmEnv::Current().SleepMilliseconds(10);
    }
    pr.RemoveSIGCHLDCallback(childPid);
  }
  std::free(buffer);
}

void ChildManager::buildArgv() {
  const OmUniString& path = mySettings->probePath;
  // Everything after the first space is one fixed word, spaces and all.
  const long space = path.Search(' ');
  if (space >= 0) {
    program = path.SubString(0, static_cast<unsigned long>(space)).AsAscii();
    fixedArg = path.SubString(static_cast<unsigned long>(space) + 1).AsAscii();
    fixedCount = 2;
  } else {
    program = path.AsAscii();
    fixedCount = 1;
  }
}

void ChildManager::setSampleRateAndWindowSize(unsigned rate, unsigned window) {
  sampleRate = rate;
  windowSize = window;
  // One extra sample: the filter discards the tool's first line.
  const unsigned count = windowSize + static_cast<unsigned>(filter->adjustCount());
  rateText = std::to_string(rate);
  countText = std::to_string(count);
  argv.clear();
  argv.push_back(program.c_str());
  if (fixedCount == 2) argv.push_back(fixedArg.c_str());
  argv.push_back(rateText.c_str());
  argv.push_back(countText.c_str());
  argv.push_back(nullptr);
}

void ChildManager::setSignals() {
  signal(SIGTTOU, SIG_IGN);
  signal(SIGTTIN, SIG_IGN);
  signal(SIGTSTP, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  pr.CatchSignal(SIGHUP, &sighupCallback);
  pr.CatchSignal(SIGTERM, &sigtermCallback);
  pr.CatchSignal(SIGINT, &sigintCallback);
  pr.CatchSignal(SIGPIPE, &sigpipeCallback);
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
}

void ChildManager::resetBuffer() {
  writePos = buffer;
  freeSpace = capacity;
}

int ChildManager::forkChild() {
  resetBuffer();
  forkParams = OmUnixProcess::ForkParams();
  forkParams.wantDataPipe = true;
  forkParams.argv = argv.data();
  forkParams.exitCallback = &deadkidCallback;
  forkParams.newProcessGroup = mySettings->toolProcessGroup != 0;
  // Once the probe itself has become the user, the tool inherits it; until
  // then (the first start) the fork takes it on.
  if (mySettings->runAs && geteuid() == 0) forkParams.SetUser(mySettings->runAsUser);

  for (int attempt = 0; attempt < kForkAttempts; ++attempt) {
    if (pr.Fork(forkParams)) {
      if (forkParams.pid < 1) return 0;
      childPid = forkParams.pid;
      pipeFd = forkParams.dataFd;
      OmFile::SetCloseOnExec(pipeFd, true);
      OmFile pipe(pipeFd);
      pipe.SetBlocking(false);
      pipe.Release();  // the manager closes it
      loop.AddFileEvent(static_cast<unsigned>(pipeFd), true, false, &readpipeCallback);
      runStart = OmTimeVal::now();
      runTroubled = false;
      ++probeCounters.toolRuns;
      armStall();
      return childPid;
    }
    if (forkParams.execFailed) {
      // We are the child and the tool could not be run. Let go of the
      // probe's descriptors (connections, logs, the command port), then pause
      // one sample interval so the parent's restarts never become a fork storm.
      closefrom(3);
      OmEnv::Current().Sleep(sampleRate);
      _exit(127);
    }
    if (mySettings->descriptorReserve != 0) {
      // Tried again from the loop, which keeps serving meanwhile; a lasting
      // shortage of descriptors or processes never ends the probe.
      if (firstOfEpisode(StartFailed)) LogToolStartFailed(pr.LastError().Reason(), sampleRate);
      ++probeCounters.toolBadEnds[ProbeCounters::StartFailed];
      childPid = -1;
      startTimer.Arm(OmTimeVal::now().PlusSeconds(sampleRate));
      return -1;
    }
    OmEnv::Current().Sleep(kForkRetrySeconds);
  }
  LogForkFail(kForkAttempts);
  processExit(11);
}

void ChildManager::appendRead(long n) {
  emptyReads = 0;
  writePos[n] = '\0';
  writePos += n;
  freeSpace -= static_cast<unsigned long>(n);
}

void ChildManager::growBuffer() {
  const unsigned long offset = static_cast<unsigned long>(writePos - buffer);
  char* grown = static_cast<char*>(std::realloc(buffer, capacity * 2 + 1));
  if (grown == nullptr) {
    LogBufferFail(static_cast<int>(capacity * 2));
    return;
  }
  buffer = grown;
  freeSpace += capacity;
  capacity *= 2;
  writePos = buffer + offset;
}

bool ChildManager::filterBuffer() {
  lastHanded = writePos - buffer;
  const bool ok = filter->doFiltering(buffer, static_cast<int>(lastHanded), idle);
  if (ok) resetBuffer();
  return ok;
}

bool ChildManager::analyseData() {
  if (writePos == buffer) return true;
  return filterBuffer();
}

void ChildManager::readpipeCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired || pipeFd < 0) return;
  const long n = read(pipeFd, writePos, freeSpace);
  lastRead = n;
  if (n >= 1) {
    appendRead(n);
    armStall();
    if (freeSpace < static_cast<unsigned long>(n + n / 2)) {
      // A tool that floods its output would otherwise grow the buffer
      // without bound; its run is cut short instead.
      const unsigned long limit = mySettings->toolBufferLimit;
      if (limit != 0 && capacity * 2 > limit) {
        if (firstOfEpisode(BufferLimit)) LogToolBufferLimit(static_cast<unsigned>(limit));
        badEnd = ProbeCounters::FilterFailed;
        restart(true);
        return;
      }
      growBuffer();
    }
    if (!filterBuffer()) restart(true);
    return;
  }
  if (n < 0) {
    if (errno == EAGAIN || errno == EINTR) return;  // a wake-up with nothing to read
    LogPipeFail(static_cast<int>(freeSpace), errno);
    return;
  }
  if (++emptyReads < 2) return;
  restart(false);
}

void ChildManager::closePipe() {
  disarmStall();
  if (pipeFd < 0) return;
  loop.RemoveFileEvent(static_cast<unsigned>(pipeFd), true, false, &readpipeCallback);
  close(pipeFd);
  pipeFd = -1;
}

void ChildManager::restart(bool filterFailed) {
  if (filterFailed && filter->takeRefusal()) badEnd = ProbeCounters::FilterFailed;
  closePipe();
  emptyReads = 0;
  if (childPid > 0) {
    killTool();
    int status = 0;
    if (waitpid(childPid, &status, WNOHANG) == childPid) {
      ++reapedAtOnce;
    } else {
      ++notReapedAtOnce;
    }
    // This run is over either way; its late exit report is of no interest.
    pr.RemoveSIGCHLDCallback(childPid);
  }
  if (!filterFailed && writePos != buffer) filterBuffer();
  afterRun();
}

// idle is what the run's last filtering left: the run's average, or, when the
// filter stopped the run after a sample (vmstat with named columns gives one
// sample a run), that sample's idle figure.
void ChildManager::afterRun() {
  if (idle >= 0) runEnded(static_cast<unsigned>(idle));
  filter->resetFilter();

  // A tool that ends at once would be restarted as fast as it can fork: its
  // next start waits until a sample interval after the previous one.
  const OmTimeVal now = OmTimeVal::now();
  if (badEnd == ProbeCounters::ToolEnds && now < runStart.PlusSeconds(sampleRate)) {
    badEnd = ProbeCounters::EndedEarly;
  }
  if (badEnd != ProbeCounters::ToolEnds) ++probeCounters.toolBadEnds[badEnd];
  badEnd = ProbeCounters::ToolEnds;
  const bool early = mySettings->toolRestartBackoff != 0 && now < runStart.PlusSeconds(sampleRate);
  if (early && !runTroubled && firstOfEpisode(EndedAtOnce)) {
    LogToolEndedAtOnce(now.seconds - runStart.seconds, sampleRate);
  }
  if (!runTroubled) {
    for (bool& r : reported) r = false;
  }
  if (early) {
    childPid = -1;
    startTimer.Arm(runStart.PlusSeconds(sampleRate));
    return;
  }
  forkChild();
}

void ChildManager::runEnded(unsigned runIdle) {
  // A nearly idle machine gives a true speed figure. The estimate costs
  // about a second of processor time, during which the loop waits.
  if (runIdle > 94 && speedRecalcDue()) recalculateSpeed(static_cast<int>(runIdle));
  runObserver(runIdle);
}

bool ChildManager::firstOfEpisode(Trouble trouble) {
  runTroubled = true;
  if (reported[trouble]) return false;
  reported[trouble] = true;
  return true;
}

// With its own process group the tool's leftovers (background processes
// holding the pipe) go with it; the group outlives a dead leader.
void ChildManager::killTool() {
  if (mySettings->toolProcessGroup != 0) {
    kill(-childPid, SIGKILL);
  } else if (kill(childPid, 0) == 0) {
    kill(childPid, SIGKILL);
  }
}

// Re-armed at every read that brought data, so it fires only for a run that
// went silent.
void ChildManager::armStall() {
  const uint64_t intervals = mySettings->toolStallIntervals;
  if (intervals == 0) return;
  const uint64_t seconds = intervals * sampleRate;
  constexpr uint64_t kFarAway = 1u << 30;  // beyond any run, and no wrap
  stallTimer.Arm(OmTimeVal::now().PlusSeconds(static_cast<uint32_t>(std::min(seconds, kFarAway))));
}

void ChildManager::disarmStall() { stallTimer.Cancel(); }

void ChildManager::stallCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  if (firstOfEpisode(Stalled)) LogToolStalled(mySettings->toolStallIntervals * sampleRate);
  badEnd = ProbeCounters::Stalled;
  restart(false);
}

void ChildManager::startCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  forkChild();
}

// Each estimate blocks the loop for a second of processor time; a nearly
// idle machine would otherwise pay it after every run.
bool ChildManager::speedRecalcDue() {
  const uint32_t interval = mySettings->speedRecalcInterval;
  if (interval == 0) return true;
  const OmTimeVal now = OmTimeVal::now();
  if (recalculated && now >= lastRecalc && now < lastRecalc.PlusSeconds(interval)) return false;
  recalculated = true;
  lastRecalc = now;
  return true;
}

void ChildManager::recalculateSpeed(int runIdle) {
  if (mySettings->speedEstimateChild == 0) {
    myBogomips->calculate();
    LogSpeedRecalculated(runIdle, static_cast<int>(myBogomips->getCurrent()),
                         static_cast<int>(myBogomips->getBogomips()));
    return;
  }
  if (myBogomips->calculating()) return;  // the one under way will do
  speedIdle = runIdle;
  if (!myBogomips->calculateInChild(loop, &speedCallback)) {
    LogSpeedChildFailed(pr.LastError().Reason());
  }
}

void ChildManager::speedCB(OmCallback<int>*, int outcome) {
  if (outcome == 0) return;
  LogSpeedRecalculated(speedIdle, static_cast<int>(myBogomips->getCurrent()),
                       static_cast<int>(myBogomips->getBogomips()));
}

void ChildManager::deadkidCB(OmUnixProcess::ChildCallback*, OmUnixProcess::child_info info) {
  if (info.pid != childPid) {
    int status = 0;
    const int reaped = waitpid(-1, &status, WNOHANG);
    if (childPid <= 0 || reaped != childPid) {
      ++wrongChildren;
      LogWrongChild(info.pid, childPid);
      return;
    }
    pr.RemoveSIGCHLDCallback(childPid);
  }
  // The leader is gone; what it left running in its group goes too.
  if (mySettings->toolProcessGroup != 0 && childPid > 0) kill(-childPid, SIGKILL);
  // The child's own exit status when the program could not be run.
  if (info.signal == 0 && info.exitCode == 127) badEnd = ProbeCounters::StartFailed;
  if (pipeFd >= 0) {
    const long n = read(pipeFd, writePos, freeSpace);
    if (n >= 1) appendRead(n);
  }
  closePipe();
  if (writePos != buffer) filterBuffer();
  afterRun();
}

void ChildManager::signalCB(OmEventCallback*, OmEvent::cbdispatch reason, int sig) {
  if (reason != OmEvent::fired) return;
  switch (sig) {
    case SIGHUP:
      if (bootLogger != nullptr) bootLogger->flushLogs();
      break;
    case SIGINT:
      LogExitSignal("SIGINT");
      loop.ExitEventLoop(603);
      break;
    case SIGTERM:
      LogExitSignal("SIGTERM");
      loop.ExitEventLoop(604);
      break;
    case SIGPIPE:
      LogExitSignal("SIGPIPE");
      loop.ExitEventLoop(606);
      break;
    default:
      break;
  }
}
