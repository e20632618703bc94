#include "measure/Cache.h"

#include <cmath>

#include "agent/Messages.h"

namespace {

// Rounds in the current rounding mode. A quotient that fits no 32-bit value
// (a division by zero) gives 0 rather than an undefined conversion.
uint32_t RoundToUnsigned(double v) {
  v = std::nearbyint(v);
  if (!(v >= 0.0 && v < 4294967296.0)) return 0;
  return static_cast<uint32_t>(v);
}

}  // namespace

Cache::Cache(uint32_t minCacheSize, uint32_t maxVirtualMemory, uint32_t maxPhysMemory)
    : cacheSize(minCacheSize),
      minCacheSize(minCacheSize),
      maxVirtualMemory(maxVirtualMemory),
      maxPhysMemory(maxPhysMemory),
      lastSampleTime(OmTimeVal::now()) {}

void Cache::addToCache(uint32_t idle, uint32_t vmem, uint32_t pmem, uint32_t sin, uint32_t sout) {
  samples.push_back(StatsPacket{idle, vmem, pmem, sin, sout});
  resizeCache();
  lastIdle = idle;
  lastVmem = vmem;
  if (idle > highestIdle) highestIdle = idle;
  lastSampleTime = OmTimeVal::now();
  LogResultsCached(static_cast<int>(idle), static_cast<int>(vmem), static_cast<int>(pmem),
                   static_cast<int>(sin), static_cast<int>(sout));
}

void Cache::setCacheSize(uint32_t n) {
  cacheSize = n > minCacheSize ? n : minCacheSize;
  resizeCache();
}

void Cache::resizeCache() {
  while (samples.size() > cacheSize) samples.pop_front();
}

std::unique_ptr<StatsPacket> Cache::getAverageOfNIdleValues(uint32_t n) const {
  if (samples.empty()) return nullptr;

  size_t first = 0;
  double divisor = static_cast<double>(samples.size());
  if (samples.size() > n) {
    first = samples.size() - n;
    divisor = n;
  }

  // Memory sums are single precision on purpose: large sums lose their low
  // digits, and the averages reported must match that.
  uint32_t idleSum = 0;
  uint32_t sinSum = 0;
  uint32_t soutSum = 0;
  float vmemSum = 0.0f;
  float pmemSum = 0.0f;
  for (size_t i = first; i < samples.size(); ++i) {
    const StatsPacket& s = samples[i];
    idleSum += s.idle;
    sinSum += s.sin;
    soutSum += s.sout;
    vmemSum += static_cast<float>(s.vmem);
    pmemSum += static_cast<float>(s.pmem);
  }

  auto average = std::make_unique<StatsPacket>();
  average->idle = RoundToUnsigned(idleSum / divisor);
  average->sin = RoundToUnsigned(sinSum / divisor);
  average->sout = RoundToUnsigned(soutSum / divisor);
  average->vmem = RoundToUnsigned(vmemSum / (divisor * 1024.0));
  average->pmem = RoundToUnsigned(pmemSum / (divisor * 1024.0));
  return average;
}
