#ifndef QUELM_MEASURE_STATSPACKET_H_
#define QUELM_MEASURE_STATSPACKET_H_

#include <cstdint>

// One load sample. Memory is in KiB while cached and in MiB in averages and
// load packets; sin and sout are as the measuring tool reports them.
struct StatsPacket {
  uint32_t idle = 0;  // CPU idle percentage, 0 to 100
  uint32_t vmem = 0;  // free virtual memory
  uint32_t pmem = 0;  // free physical memory
  uint32_t sin = 0;   // swapped in
  uint32_t sout = 0;  // swapped out
};

#endif  // QUELM_MEASURE_STATSPACKET_H_
