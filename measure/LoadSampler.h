#ifndef QUELM_MEASURE_LOADSAMPLER_H_
#define QUELM_MEASURE_LOADSAMPLER_H_

#include <cstdint>
#include <string>

#include "foundation/event/OmCallback.h"
#include "foundation/event/OmTimer.h"
#include "foundation/string/OmTimeVal.h"
#include "measure/CgroupSampler.h"
#include "measure/Pressure.h"
#include "measure/ProcSampler.h"

class Cache;
class OmEventLoop;
struct Settings;

// Takes the load samples in-process, at the sample rate, in place of the
// measuring tool: from /proc ("proc") or from a cgroup ("cgroup"). Each
// sample does what a finished tool run does: it enters the cache, and its
// idle figure goes to afterSample (the speed rule and the host list's
// percent-change check). A cgroup that cannot be read, at start or later, is
// reported once and the host's figures from /proc are used instead.
class LoadSampler {
 public:
  using SampleObserver = void (*)(unsigned idle);

  // Opens the source that settings name (loadsource, loadcgroup).
  LoadSampler(OmEventLoop& loop, const Settings& settings, Cache& cache, SampleObserver afterSample);
  ~LoadSampler();
  LoadSampler(const LoadSampler&) = delete;
  LoadSampler& operator=(const LoadSampler&) = delete;

  // Primes the counters and arms the sample timer.
  void start();
  void sampleCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  // One sample at now (seconds on a steady clock); false when none came out.
  bool takeSample(double now);

  // The idle percent since the previous call, at least a second apart (the
  // agent check's own, fresher than the cache's window); -1 before there is
  // an interval.
  int freshIdle(double now);

  bool usingCgroup() const { return cgroupOpen; }
  const CgroupSampler& cgroup() const { return cgroupSampler; }

  // Seconds on the steady clock the samplers are driven with.
  static double steadyNow();

 private:
  bool sampleScope(ProcSampler& proc, CgroupSampler& cgroup, double now, LoadReading& reading);
  void lostCgroup();

  OmEventLoop& loop;
  const Settings& settings;
  Cache& cache;
  SampleObserver afterSample;
  OmSimpleCallback<OmEvent::cbdispatch, LoadSampler> sampleCallback;
  ProcSampler procSampler, checkProc;
  CgroupSampler cgroupSampler, checkCgroup;
  bool cgroupOpen = false;
  uint64_t maxVirtualMemory;  // KiB; raised like the vmstat filter's
  OmTimer sampleTimer{loop, &sampleCallback};
  OmTimeVal due;  // the next sample's time: each follows the last by the rate, without drift
  double lastCheck = 0;
  int lastCheckIdle = -1;
};

// The pressure of the probe's scope: its cgroup's when the load comes from
// a cgroup v2 folder, else the host's.
PressureFigures scopePressure();

// The machine's figures for processorcount=auto and memoryfromsystem=1: the
// online processors or the cgroup's quota (at least 1, rounded up); the
// memory maxima in KiB from /proc/meminfo or the cgroup's limit. False where
// nothing could be read.
unsigned scopeProcessors(const Settings& settings);
bool scopeMemory(const Settings& settings, uint32_t& maxVirtualKiB, uint32_t& maxPhysKiB);

#endif  // QUELM_MEASURE_LOADSAMPLER_H_
