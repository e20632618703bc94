#ifndef QUELM_MEASURE_BOGOMIPS_H_
#define QUELM_MEASURE_BOGOMIPS_H_

#include <cstdint>

// Estimates the processor speed by timing a busy loop, so that subscribers
// can weigh one server's idle percentage against another's. The reported
// figure is the highest estimate so far.
class Bogomips {
 public:
  // Processors below 1 count as 1; factor is the multiprocessor percentage.
  // Makes the first estimate, which takes a second of processor time
  // (OmEnv's processor clock).
  Bogomips(int processors, uint32_t factor);
  Bogomips(const Bogomips&) = delete;
  Bogomips& operator=(const Bogomips&) = delete;

  void Initialise();
  // Makes a new estimate; 1 on success, 0 if the loop count overflowed.
  int calculate();
  // Runs loops + 1 passes of a loop the compiler may not remove.
  static void delay(int loops);

  int64_t getBogomips() const { return highest; }
  int64_t getCurrent() const { return current; }
  int32_t getProcessors() const { return processors; }

 private:
  int64_t current = 0;
  int64_t highest = 0;
  int64_t lowest = 0;
  int32_t processors;
  uint32_t factor;
};

#endif  // QUELM_MEASURE_BOGOMIPS_H_
