#include "measure/LoadSampler.h"

#include <chrono>
#include <cmath>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"

LoadSampler* myLoadSampler = nullptr;

namespace {

bool wantsCgroup(const Settings& settings) { return settings.loadSource == OmUniString("cgroup"); }

std::string cgroupFolder(const Settings& settings) {
  const std::string named = settings.loadCgroup.AsUtf8();
  return named.empty() ? CgroupSampler::ownFolder() : named;
}

}  // namespace

double LoadSampler::steadyNow() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

LoadSampler::LoadSampler(OmEventLoop& l, const Settings& s, Cache& c, SampleObserver observer)
    : loop(l),
      settings(s),
      cache(c),
      afterSample(observer),
      sampleCallback(this, &LoadSampler::sampleCB),
      maxVirtualMemory(s.maxVirtualMemory) {
  if (!wantsCgroup(settings)) return;
  const std::string folder = cgroupFolder(settings);
  std::string why = "the probe's own cgroup was not found";
  cgroupOpen = !folder.empty() && cgroupSampler.open(folder, why);
  if (!cgroupOpen) {
    LogLoadCgroupUnreadable(OmUniString::FromUtf8(folder.c_str()), OmUniString::FromUtf8(why.c_str()));
    return;
  }
  checkCgroup = cgroupSampler;
}

LoadSampler::~LoadSampler() = default;

void LoadSampler::start() {
  takeSample(steadyNow());  // primes: a figure needs an interval
  due = OmTimeVal::now().PlusSeconds(settings.sampleRate);
  sampleTimer.Arm(due);
}

void LoadSampler::sampleCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  // Re-armed first: a sample's observers may take a second (the speed
  // estimate), which must not shift the sampling.
  const uint32_t rate = myChildManager != nullptr ? myChildManager->getSampleRate() : settings.sampleRate;
  due = due.PlusSeconds(rate);
  sampleTimer.Arm(due);
  takeSample(steadyNow());
}

void LoadSampler::lostCgroup() {
  cgroupOpen = false;
  LogLoadCgroupLost(OmUniString::FromUtf8(cgroupSampler.folder().c_str()));
}

bool LoadSampler::sampleScope(ProcSampler& proc, CgroupSampler& cgroup, double now, LoadReading& r) {
  // The host's counters advance even for a cgroup source, so that a lost
  // cgroup is followed by host figures at once.
  const bool host = proc.sample(now, r);
  if (!cgroupOpen) return host;
  ProcSampler::Memory memory;
  procSampler.readMemory(memory);
  if (cgroup.sample(now, memory, r)) return true;
  // Unreadable, not just priming: the folder went away.
  if (!cgroup.readable()) {
    lostCgroup();
    return host;
  }
  return false;
}

bool LoadSampler::takeSample(double now) {
  LoadReading r;
  if (!sampleScope(procSampler, cgroupSampler, now, r)) return false;
  // As the vmstat filter: swap in use above the declared maximum leaves no
  // free virtual memory and raises the maximum.
  uint32_t vmem = 0;
  if (r.swapUsed > maxVirtualMemory) {
    LogVMemOutOfRange(static_cast<int>(r.swapUsed), static_cast<int>(maxVirtualMemory));
    maxVirtualMemory = r.swapUsed;
  } else {
    vmem = static_cast<uint32_t>(maxVirtualMemory - r.swapUsed);
  }
  const uint32_t idle = std::min<uint32_t>(r.idle, 100);
  cache.addToCache(idle, vmem, static_cast<uint32_t>(std::min<uint64_t>(r.memFree, UINT32_MAX)), r.swapIn,
                   r.swapOut);
  afterSample(idle);
  return true;
}

int LoadSampler::freshIdle(double now) {
  if (lastCheckIdle >= 0 && now - lastCheck < 1.0) return lastCheckIdle;
  LoadReading r;
  if (cgroupOpen) {
    ProcSampler::Memory memory;
    procSampler.readMemory(memory);
    if (!checkCgroup.sample(now, memory, r)) {
      lastCheck = now;
      return lastCheckIdle;
    }
  } else if (!checkProc.sample(now, r)) {
    lastCheck = now;
    return lastCheckIdle;
  }
  lastCheck = now;
  lastCheckIdle = static_cast<int>(std::min<uint32_t>(r.idle, 100));
  return lastCheckIdle;
}

PressureFigures scopePressure() {
  if (myLoadSampler != nullptr && myLoadSampler->usingCgroup()) {
    const std::string folder = myLoadSampler->cgroup().pressureFolder();
    // A v1 cgroup has no pressure files of its own: no figures, rather than
    // the host's under the cgroup's name.
    return folder.empty() ? PressureFigures() : Pressure(folder).read();
  }
  return Pressure().read();
}

unsigned scopeProcessors(const Settings& settings) {
  if (wantsCgroup(settings)) {
    CgroupSampler cgroup;
    std::string why;
    const std::string folder = cgroupFolder(settings);
    if (!folder.empty() && cgroup.open(folder, why)) {
      const double quota = cgroup.quotaProcessors();
      if (quota > 0) return static_cast<unsigned>(std::max(1.0, std::ceil(quota)));
    }
  }
  return ProcSampler::onlineProcessors();
}

bool scopeMemory(const Settings& settings, uint32_t& maxVirtualKiB, uint32_t& maxPhysKiB) {
  ProcSampler::Memory host;
  if (!ProcSampler().readMemory(host)) return false;
  uint64_t phys = host.total;
  if (wantsCgroup(settings)) {
    CgroupSampler cgroup;
    std::string why;
    const std::string folder = cgroupFolder(settings);
    if (!folder.empty() && cgroup.open(folder, why) && cgroup.memoryLimit(host) != 0) {
      phys = cgroup.memoryLimit(host);
    }
  }
  maxVirtualKiB = static_cast<uint32_t>(std::min<uint64_t>(host.swapTotal, UINT32_MAX));
  maxPhysKiB = static_cast<uint32_t>(std::min<uint64_t>(phys, UINT32_MAX));
  return true;
}
