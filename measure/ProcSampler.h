#ifndef QUELM_MEASURE_PROCSAMPLER_H_
#define QUELM_MEASURE_PROCSAMPLER_H_

#include <cstdint>
#include <string>

// One load sample as the vmstat filter would have cut it from a tool line:
// idle percent, swap in use and free memory in KiB, swap traffic in KiB/s.
struct LoadReading {
  uint32_t idle = 100;
  uint64_t swapUsed = 0;
  uint64_t memFree = 0;
  uint32_t swapIn = 0;
  uint32_t swapOut = 0;
};

// Reads the host's figures in-process from /proc/stat, /proc/meminfo and
// /proc/vmstat, computed as vmstat computes them, so no tool child is needed.
// Figures over an interval need two readings: the first only primes them.
class ProcSampler {
 public:
  explicit ProcSampler(std::string procRoot = "/proc") : root(std::move(procRoot)) {}

  // now: seconds on a steady clock. False when a file could not be read or
  // this was the priming reading.
  bool sample(double now, LoadReading& reading);

  struct Memory {
    uint64_t total = 0, free = 0, swapTotal = 0, swapFree = 0;  // KiB
  };
  bool readMemory(Memory& memory) const;
  // The processors the system has online (at least 1).
  static unsigned onlineProcessors();

 private:
  bool readCpu(uint64_t& idle, uint64_t& total) const;
  bool readSwapPages(uint64_t& in, uint64_t& out) const;

  std::string root;
  bool primed = false;
  double lastTime = 0;
  uint64_t lastIdle = 0, lastTotal = 0, lastIn = 0, lastOut = 0;
};

// Reads "key value" lines (the form of /proc/meminfo, /proc/vmstat and
// cgroup stat files): the value of key, or false.
bool readKeyedValue(const std::string& path, const char* key, uint64_t& value);
// The first number in a file (cgroup counters and limits); "max" is false.
bool readNumber(const std::string& path, uint64_t& value);

#endif  // QUELM_MEASURE_PROCSAMPLER_H_
