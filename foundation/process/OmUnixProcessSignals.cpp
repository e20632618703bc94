// The signal side of the process object: signals are recorded by the handler
// and delivered, with the deaths of children, as callbacks on the loop's thread.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/process/OmUnixProcess.h"

OmUnixProcess* the_current_process = nullptr;
volatile sig_atomic_t dosigs = 0;

extern "C" void had_a_signal(int sig) {
  const int savedErrno = errno;
  if (dosigs != 0 && the_current_process != nullptr) the_current_process->RecordSignal(sig);
  // One-shot handler semantics: re-arm. SIGCHLD is re-armed by
  // ProcessSignals and Fork once the children have been dealt with.
  if (sig != SIGCHLD) signal(sig, had_a_signal);
  errno = savedErrno;
}

OmUnixProcess::OmUnixProcess() : pid_(getpid()), euid_(geteuid()), egid_(getegid()) {
  OpenWakePipe();
  previous_ = the_current_process;
  the_current_process = this;
  signal(SIGCHLD, had_a_signal);
}

OmUnixProcess::~OmUnixProcess() {
  if (the_current_process == this) {
    the_current_process = previous_;
    if (previous_ == nullptr) signal(SIGCHLD, SIG_DFL);
  }
  CloseWakePipe();
}

void OmUnixProcess::OpenWakePipe() {
  int fds[2];
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) {
    wakeRead_ = fds[0];
    wakeWrite_ = fds[1];
  } else {
    // Without the pipe the loop still wakes on EINTR; only the narrow window
    // just before poll is left unguarded.
    wakeRead_ = wakeWrite_ = -1;
  }
}

void OmUnixProcess::CloseWakePipe() {
  if (wakeRead_ >= 0) close(wakeRead_);
  if (wakeWrite_ >= 0) close(wakeWrite_);
  wakeRead_ = wakeWrite_ = -1;
}

// Async-signal-safe: fixed-size set, plain stores and one write().
void OmUnixProcess::RecordSignal(int sig) {
  if (sig <= 0 || sig >= 256) return;
  pending_[sig] = 1;
  pendingCount_ = pendingCount_ + 1;
  if (wakeWrite_ >= 0) {
    const char byte = 0;
    if (write(wakeWrite_, &byte, 1) < 0) {
      // Full pipe: the loop is already due to wake.
    }
  }
}

void OmUnixProcess::DrainSignalWake() {
  if (wakeRead_ < 0) return;
  char buf[64];
  while (read(wakeRead_, buf, sizeof buf) > 0) {
  }
}

void OmUnixProcess::StartSignals() { dosigs = 1; }

void OmUnixProcess::StopSignals() { dosigs = 0; }

bool OmUnixProcess::CatchSignal(unsigned sig, OmEventCallback* cb) {
  OmEventSignal rec;
  rec.callback = cb;
  rec.sig = static_cast<int>(sig);
  records_.push_back(rec);
  if (sig < 256) ++registrations_[sig];
  signal(static_cast<int>(sig), had_a_signal);
  return true;
}

bool OmUnixProcess::CatchExit(ChildCallback* cb, int pid) {
  OmEventSignal rec;
  rec.childCallback = cb;
  rec.sig = SIGCHLD;
  rec.pid = pid;
  records_.push_back(rec);
  ++registrations_[SIGCHLD];
  return true;
}

bool OmUnixProcess::RemoveSIGCHLDCallback(int pid) {
  for (auto it = records_.begin(); it != records_.end(); ++it) {
    if (it->sig == SIGCHLD && it->pid == pid) {
      records_.erase(it);
      return true;
    }
  }
  return false;
}

bool OmUnixProcess::RemoveSignalCallback(unsigned sig, OmEventCallback* cb) {
  for (auto it = records_.begin(); it != records_.end(); ++it) {
    if (it->sig == static_cast<int>(sig) && it->pid == 0 && it->callback == cb) {
      records_.erase(it);
      return true;
    }
  }
  return false;
}

bool OmUnixProcess::ProcessSignals() {
  if (pendingCount_ == 0) return false;
  DrainSignalWake();

  // Take the set with signals blocked so none is lost between copy and clear.
  bool arrived[256];
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &old);
  for (int i = 0; i < 256; ++i) {
    arrived[i] = pending_[i] != 0;
    pending_[i] = 0;
  }
  pendingCount_ = 0;
  sigprocmask(SIG_SETMASK, &old, nullptr);
  signal(SIGCHLD, had_a_signal);

  for (int sig = 1; sig < 256; ++sig) {
    if (!arrived[sig]) continue;
    if (sig == SIGCHLD) {
      ReapChildren();
    } else {
      DispatchSignal(sig);
    }
  }
  signal(SIGCHLD, had_a_signal);
  return true;
}

void OmUnixProcess::DispatchSignal(int sig) {
  // Walk a copy: callbacks may add or remove registrations.
  const std::vector<OmEventSignal> copy = records_;
  for (const OmEventSignal& rec : copy) {
    if (rec.sig == sig && rec.callback != nullptr) rec.callback->Dispatch(OmEvent::fired);
  }
}

void OmUnixProcess::ReapChildren() {
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) break;
    ForgetChild(pid);

    const std::vector<OmEventSignal> copy = records_;
    for (const OmEventSignal& rec : copy) {
      if (rec.sig != SIGCHLD || rec.pid != pid || rec.childCallback == nullptr) continue;
      const int low = status & 0x7f;
      if (low == 0x7f) continue;  // stopped, not dead: keep the record
      child_info info;
      info.pid = pid;
      if (low == 0) {
        info.exitCode = (status >> 8) & 0xff;
      } else {
        info.signal = low;
      }
      rec.childCallback->Dispatch(info);
      RemoveSIGCHLDCallback(pid);
    }
  }
}

void OmUnixProcess::ForgetChild(int pid) {
  for (auto it = children_.begin(); it != children_.end(); ++it) {
    if (*it == pid) {
      children_.erase(it);
      return;
    }
  }
}
