#ifndef QUELM_TESTS_FOUNDATION_EVENT_EVENT_TEST_UTIL_H_
#define QUELM_TESTS_FOUNDATION_EVENT_EVENT_TEST_UTIL_H_

#include <poll.h>
#include <sys/wait.h>

#include <csignal>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/event/OmCallback.h"
#include "foundation/process/OmUnixProcess.h"
#include "foundation/string/OmTimeVal.h"

// Logs "name" when fired, "name:removed" when withdrawn, then runs its action.
class Probe : public OmEventCallback {
 public:
  Probe(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
  void Dispatch(OmEvent::cbdispatch a) override {
    log_->push_back(a == OmEvent::fired ? name_ : name_ + ":removed");
    if (action) action(a);
  }
  std::function<void(OmEvent::cbdispatch)> action;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

// Collects the child_info of every child-exit dispatch.
class ExitProbe : public OmUnixProcess::ChildCallback {
 public:
  void Dispatch(OmUnixProcess::child_info info) override { seen.push_back(info); }
  std::vector<OmUnixProcess::child_info> seen;
};

// Waits (two seconds at most) until the child has exited, unreaped.
inline bool WaitUntilDead(pid_t pid, int state = WEXITED) {
  for (int i = 0; i < 2000; ++i) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, state | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == pid) {
      return true;
    }
    poll(nullptr, 0, 1);
  }
  return false;
}

// Puts the given signals back to their default action when the test ends.
class SignalRestorer {
 public:
  explicit SignalRestorer(std::vector<int> sigs) : sigs_(std::move(sigs)) {}
  ~SignalRestorer() {
    OmUnixProcess::StopSignals();
    for (int s : sigs_) signal(s, SIG_DFL);
  }

 private:
  std::vector<int> sigs_;
};

#endif  // QUELM_TESTS_FOUNDATION_EVENT_EVENT_TEST_UTIL_H_
