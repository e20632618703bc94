#ifndef QUELM_MEASURE_CGROUPSAMPLER_H_
#define QUELM_MEASURE_CGROUPSAMPLER_H_

#include <cstdint>
#include <string>

#include "measure/ProcSampler.h"

// Load as a service confined to a cgroup sees it: processor time used
// against the cgroup's quota (or the online processors without one), and
// memory left under its limit (the host's free memory without one). Reads
// cgroup v2 (cpu.max, cpu.stat, memory.max, memory.current) or v1
// (cpu.cfs_quota_us and cpu.cfs_period_us, cpuacct.usage,
// memory.limit_in_bytes and memory.usage_in_bytes, the last two in the
// sibling hierarchies of the same path).
class CgroupSampler {
 public:
  // The probe's own processor cgroup folder, from /proc/self/cgroup and the
  // mount table: v1's cpu hierarchy where it is mounted, else cgroup v2's.
  // Empty when neither can be found.
  static std::string ownFolder();

  // False, with the reason, when the folder holds no readable processor
  // usage.
  bool open(const std::string& folder, std::string& why);

  // The idle percent and free memory (KiB) of the cgroup since the previous
  // call; host gives free memory for a cgroup without a limit. False when
  // the files could not be read (the folder vanished) or this was the
  // priming reading.
  bool sample(double now, const ProcSampler::Memory& host, LoadReading& reading);

  // The processors the quota allows (0.25 for a quarter); 0 without one.
  double quotaProcessors() const;
  // The memory limit in KiB; 0 without one (or one above the host's memory).
  uint64_t memoryLimit(const ProcSampler::Memory& host) const;

  // Whether the processor usage can still be read.
  bool readable() const {
    uint64_t usage = 0;
    return readUsageUs(usage);
  }
  bool isV2() const { return v2; }
  // Where the cgroup's *.pressure files are: its v2 folder; empty for v1.
  std::string pressureFolder() const { return v2 ? cpuFolder : std::string(); }
  const std::string& folder() const { return cpuFolder; }

 private:
  bool readUsageUs(uint64_t& usec) const;

  std::string cpuFolder, cpuacctFolder, memoryFolder;
  bool v2 = false;
  bool primed = false;
  double lastTime = 0;
  uint64_t lastUsage = 0;
};

#endif  // QUELM_MEASURE_CGROUPSAMPLER_H_
