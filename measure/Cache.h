#ifndef QUELM_MEASURE_CACHE_H_
#define QUELM_MEASURE_CACHE_H_

#include <cstdint>
#include <deque>
#include <memory>

#include "foundation/string/OmTimeVal.h"
#include "measure/StatsPacket.h"

// The most recent load samples, oldest first, and their averages over a
// window of the newest ones.
class Cache {
 public:
  // The memory maxima are in KiB.
  Cache(uint32_t minCacheSize, uint32_t maxVirtualMemory, uint32_t maxPhysMemory);
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  // Appends a sample (memory in KiB) as the newest and drops the oldest
  // beyond the cache size.
  void addToCache(uint32_t idle, uint32_t vmem, uint32_t pmem, uint32_t sin, uint32_t sout);
  // The cache size becomes the larger of n and the minimum size.
  void setCacheSize(uint32_t n);
  void resizeCache();

  // The average of the newest n samples (all of them when there are fewer),
  // memory in MiB; null when the cache is empty. With n = 0 every field is 0.
  std::unique_ptr<StatsPacket> getAverageOfNIdleValues(uint32_t n) const;

  uint32_t getCurrentIdle() const { return lastIdle; }
  uint32_t getCurrentVmem() const { return lastVmem; }  // KiB
  // The construction time until the first sample arrives.
  const OmTimeVal& getTimeOfLastSample() const { return lastSampleTime; }
  uint32_t getNumberOfSamples() const { return static_cast<uint32_t>(samples.size()); }
  uint32_t getCacheSize() const { return cacheSize; }
  uint32_t getMaxVirtualMemory() const { return maxVirtualMemory; }
  uint32_t getMaxPhysMemory() const { return maxPhysMemory; }

 private:
  std::deque<StatsPacket> samples;
  uint32_t cacheSize;
  uint32_t minCacheSize;
  uint32_t maxVirtualMemory;
  uint32_t maxPhysMemory;
  uint32_t highestIdle = 0;
  uint32_t lastIdle = 0;
  uint32_t lastVmem = 0;
  OmTimeVal lastSampleTime;
};

#endif  // QUELM_MEASURE_CACHE_H_
