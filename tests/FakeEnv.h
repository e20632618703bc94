#ifndef QUELM_TESTS_FAKEENV_H_
#define QUELM_TESTS_FAKEENV_H_

#include <cstdlib>
#include <ctime>
#include <deque>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/string/OmEnv.h"

// A new folder under /tmp, and a whole file's text, for tests on real files.
inline std::string TempDir() {
  char name[] = "/tmp/quelm-test-XXXXXX";
  return mkdtemp(name) != nullptr ? name : "/nonexistent";
}
inline std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// A hand-set clock, counted sleeps and scripted processor ticks, current while it lives.
class FakeEnv : public OmEnv {
 public:
  explicit FakeEnv(OmTimeVal start = OmTimeVal()) : now(start), previous(Install(this)) {}
  ~FakeEnv() override { Install(previous); }

  OmTimeVal Now() override { return now; }
  void Sleep(unsigned seconds) override {
    sleeps.push_back(seconds);
    if (onSleep) onSleep();
  }
  // Called in pairs around each timed run: the second call moves the clock.
  std::clock_t ProcessorClock() override {
    if (runStarted) {
      ticks += runTicks.empty() ? 1000000 : runTicks.front();
      if (!runTicks.empty()) runTicks.pop_front();
    }
    runStarted = !runStarted;
    return ticks;
  }

  // A speed estimate that ends at 2^doublings loops after the given ticks.
  FakeEnv& speedRun(int doublings, std::clock_t lastTicks = 1000000) {
    for (int i = 1; i < doublings; ++i) runTicks.push_back(1);
    runTicks.push_back(lastTicks);
    return *this;
  }

  OmTimeVal now;
  std::vector<unsigned> sleeps;
  std::function<void()> onSleep;

 private:
  OmEnv* previous;
  std::deque<std::clock_t> runTicks;
  std::clock_t ticks = 0;
  bool runStarted = false;
};

#endif  // QUELM_TESTS_FAKEENV_H_
