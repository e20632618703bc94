#ifndef QUELM_MEASURE_PRESSURE_H_
#define QUELM_MEASURE_PRESSURE_H_

#include <cstdint>
#include <string>

// The kernel's stall figures for one scope: /proc/pressure/{cpu,memory,io}
// for the host, or a cgroup v2 folder's *.pressure files. Read when asked:
// the kernel keeps the averages itself, so there is nothing to sample.
struct PressureLine {
  bool present = false;
  double avg10 = 0;      // percent of the last 10 s
  uint64_t totalUs = 0;  // microseconds stalled since the scope began
};

struct PressureFigures {
  enum Resource { Cpu, Memory, Io, kResources };
  PressureLine some[kResources];
  PressureLine full[kResources];
  static const char* name(int resource);
};

class Pressure {
 public:
  // The host's scope.
  Pressure() : folder("/proc/pressure"), cgroupNames(false) {}
  // A cgroup v2 folder.
  explicit Pressure(std::string cgroupFolder) : folder(std::move(cgroupFolder)), cgroupNames(true) {}

  // Absent files leave their lines absent: no error.
  PressureFigures read() const;
  const std::string& scope() const { return folder; }

  // Parses one pressure file's text into some and full.
  static void parse(const std::string& text, PressureLine& some, PressureLine& full);

 private:
  std::string folder;
  bool cgroupNames;
};

#endif  // QUELM_MEASURE_PRESSURE_H_
