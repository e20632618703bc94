#ifndef QUELM_MEASURE_BOGOMIPS_H_
#define QUELM_MEASURE_BOGOMIPS_H_

#include <cstdint>

#include "foundation/event/OmCallback.h"

class OmEventLoop;

// Estimates the processor speed by timing a busy loop, so that subscribers
// can weigh one server's idle percentage against another's. The reported
// figure is the highest estimate so far.
class Bogomips {
 public:
  // Processors below 1 count as 1; factor is the multiprocessor percentage.
  // Makes the first estimate, which takes a second of processor time
  // (OmEnv's processor clock).
  Bogomips(int processors, uint32_t factor);
  // Ends an estimate still running in a child.
  ~Bogomips();
  Bogomips(const Bogomips&) = delete;
  Bogomips& operator=(const Bogomips&) = delete;

  void Initialise();
  // Makes a new estimate; 1 on success, 0 if the loop count overflowed.
  int calculate();
  // Times the busy loop once: the estimate, or -1 if the loop count overflowed.
  int64_t measure() const;
  // Takes an estimate as the current one; it raises the highest or lowers
  // the lowest.
  void record(int64_t estimate);

  // The same estimate made in a child process, so that the loop never waits
  // for it: the child times the loop and writes the figure to a pipe the loop
  // watches; the figure is recorded as by calculate() and done is told 1, or
  // 0 when the child gave none. False when no child could be started (the
  // reason is the process object's last error) or one is still running.
  bool calculateInChild(OmEventLoop& loop, OmCallback<int>* done);
  bool calculating() const { return childFd >= 0; }
  void readChildCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
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

  void endChild(int outcome);
  OmEventLoop* childLoop = nullptr;
  OmCallback<int>* childDone = nullptr;
  int childFd = -1;
  int childPid = -1;
  unsigned char figure[sizeof(int64_t)] = {};
  unsigned figureBytes = 0;
  OmSimpleCallback<OmEvent::cbdispatch, Bogomips> readChildCallback{this, &Bogomips::readChildCB};
};

#endif  // QUELM_MEASURE_BOGOMIPS_H_
