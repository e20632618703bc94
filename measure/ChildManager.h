#ifndef QUELM_MEASURE_CHILDMANAGER_H_
#define QUELM_MEASURE_CHILDMANAGER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "agent/Counters.h"
#include "foundation/event/OmCallback.h"
#include "foundation/event/OmTimer.h"
#include "foundation/process/OmUnixProcess.h"
#include "foundation/string/OmTimeVal.h"

class BaseFilter;
class OmEventLoop;

// Runs the measuring tool as a child, reads its output through a pipe, hands
// it to the filter and restarts the tool after every run. Also owns the
// probe's signal set-up.
class ChildManager {
 public:
  static constexpr unsigned long kInitialBufferSize = 1024;
  static constexpr int kForkAttempts = 5;
  static constexpr unsigned kForkRetrySeconds = 30;
  // Told the idle figure of every finished run that had one (the host list's
  // percent-change check).
  using RunObserver = void (*)(unsigned idle);

  // The tool's command line, sample rate and window size come from mySettings.
  ChildManager(OmEventLoop& loop, BaseFilter* filter, RunObserver runObserver);
  ~ChildManager();
  ChildManager(const ChildManager&) = delete;
  ChildManager& operator=(const ChildManager&) = delete;

  // Starts the tool; the child's pid, or 0 when the fork gave none.
  int forkChild();
  // Takes effect at the next start of the tool.
  void setSampleRateAndWindowSize(unsigned rate, unsigned windowSize);
  void setSignals();
  bool analyseData();
  // What a run's idle figure sets off: the speed rule, then the run
  // observer. In-process samples (LoadSampler) come through here too.
  void runEnded(unsigned runIdle);

  void readpipeCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void deadkidCB(OmUnixProcess::ChildCallback* cb, OmUnixProcess::child_info info);
  void signalCB(OmEventCallback* cb, OmEvent::cbdispatch reason, int sig);
  // The delayed start of a tool that ended at once.
  void startCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  // A run that delivered nothing for toolstallintervals sample intervals.
  void stallCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  // A recalculation made in a child has ended (1) or given no figure (0).
  void speedCB(OmCallback<int>* cb, int outcome);

  unsigned getSampleRate() const { return sampleRate; }
  unsigned getWindowSize() const { return windowSize; }
  int getChildPid() const { return childPid; }
  unsigned long getBufferCapacity() const { return capacity; }

 private:
  void buildArgv();
  void resetBuffer();
  void appendRead(long n);
  void growBuffer();
  // Hands the buffer to the filter, emptying it when the filter took it all.
  bool filterBuffer();
  void restart(bool filterFailed);
  void closePipe();
  void afterRun();
  void killTool();
  void armStall();
  void disarmStall();
  bool speedRecalcDue();
  void recalculateSpeed(int runIdle);
  // The watch's troubles, each reported once an episode: an episode ends with
  // a run that had none of them.
  enum Trouble { BufferLimit, EndedAtOnce, Stalled, StartFailed, kTroubles };
  bool firstOfEpisode(Trouble trouble);

  OmUnixProcess::ForkParams forkParams;
  std::vector<const char*> argv;
  std::string program, fixedArg, rateText, countText;
  int fixedCount = 1;

  OmEventLoop& loop;
  BaseFilter* filter;
  RunObserver runObserver;
  OmSimpleCallback<OmEvent::cbdispatch, ChildManager> readpipeCallback;
  OmSimpleCallback<OmUnixProcess::child_info, ChildManager> deadkidCallback;
  OmCallbackWithData<OmEvent::cbdispatch, ChildManager, int> sighupCallback;
  OmCallbackWithData<OmEvent::cbdispatch, ChildManager, int> sigtermCallback;
  OmCallbackWithData<OmEvent::cbdispatch, ChildManager, int> sigintCallback;
  OmCallbackWithData<OmEvent::cbdispatch, ChildManager, int> sigpipeCallback;
  OmSimpleCallback<OmEvent::cbdispatch, ChildManager> startCallback;
  OmSimpleCallback<OmEvent::cbdispatch, ChildManager> stallCallback;
  OmTimer startTimer{loop, &startCallback};
  OmTimer stallTimer{loop, &stallCallback};
  OmSimpleCallback<int, ChildManager> speedCallback;
  int speedIdle = 0;  // the run that asked for the recalculation under way

  unsigned sampleRate = 0;
  // Why the current run is ending badly, for the metrics (ToolEnds: it is not).
  ProbeCounters::ToolEnd badEnd = ProbeCounters::ToolEnds;
  unsigned windowSize = 0;

  // The read buffer holds one byte more than its capacity for the terminator.
  char* buffer = nullptr;
  unsigned long capacity = 0;
  char* writePos = nullptr;
  unsigned long freeSpace = 0;

  long lastRead = 0;
  long lastHanded = 0;
  int idle = -1;
  int emptyReads = 0;

  // Counted for a debugger's eyes only.
  uint32_t wrongChildren = 0;
  uint32_t reapedAtOnce = 0;
  uint32_t notReapedAtOnce = 0;

  int childPid = -1;
  int pipeFd = -1;

  OmTimeVal runStart;
  OmTimeVal lastRecalc;  // with recalculated
  bool recalculated = false;
  bool runTroubled = false;
  bool reported[kTroubles] = {};
};

#endif  // QUELM_MEASURE_CHILDMANAGER_H_
