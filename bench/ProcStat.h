#ifndef QUELM_BENCH_PROCSTAT_H_
#define QUELM_BENCH_PROCSTAT_H_

#include <sys/types.h>

#include <string>

// What /proc tells about one process at one moment.
struct ProcSample {
  bool valid = false;
  double cpuSeconds = 0;        // utime + stime
  long hwmKiB = 0;              // peak resident set (VmHWM)
  long rssKiB = 0;              // resident set now (VmRSS)
  long contextSwitches = 0;     // voluntary + nonvoluntary
  long openDescriptors = 0;     // entries in /proc/<pid>/fd
  char state = '?';
};

ProcSample ReadProcSample(pid_t pid);

// Total size of the regular files in a folder (the probe's logs).
long long FolderBytes(const std::string& folder);

#endif  // QUELM_BENCH_PROCSTAT_H_
