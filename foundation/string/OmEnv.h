#ifndef QUELM_FOUNDATION_STRING_OMENV_H_
#define QUELM_FOUNDATION_STRING_OMENV_H_

#include <ctime>

#include "foundation/string/OmTimeVal.h"

// What the probe asks of the system about time: the wall clock, pauses and
// the processor clock of the speed estimate. Everything reads the current
// environment, so a test can install one whose time it controls.
class OmEnv {
 public:
  virtual ~OmEnv() = default;

  // Wall-clock time.
  virtual OmTimeVal Now() = 0;
  // Waits whole seconds.
  virtual void Sleep(unsigned seconds) = 0;
  // Waits a few milliseconds: short waits for another process, which even
  // a test's clock leaves to the system unless it says otherwise.
  virtual void SleepMilliseconds(unsigned ms);
  // Processor time used by the process, CLOCKS_PER_SEC ticks a second.
  virtual std::clock_t ProcessorClock() = 0;

  // The system's environment.
  static OmEnv* Default();
  // The environment in use: the system's unless one was installed.
  static OmEnv& Current();
  // Makes env current (null restores the system's); returns the previous one.
  static OmEnv* Install(OmEnv* env);
};

// Forwards every call to the system's environment: a fake overrides only
// what it controls.
class OmEnvWrapper : public OmEnv {
 public:
  OmTimeVal Now() override { return Default()->Now(); }
  void Sleep(unsigned seconds) override { Default()->Sleep(seconds); }
  void SleepMilliseconds(unsigned ms) override { Default()->SleepMilliseconds(ms); }
  std::clock_t ProcessorClock() override { return Default()->ProcessorClock(); }
};

#endif  // QUELM_FOUNDATION_STRING_OMENV_H_
