#ifndef QUELM_FOUNDATION_PROCESS_OMUNIXPROCESS_H_
#define QUELM_FOUNDATION_PROCESS_OMUNIXPROCESS_H_

#include <sys/types.h>

#include <csignal>

#include <cstdint>
#include <vector>

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmContainers.h"
#include "foundation/string/OmError.h"

class OmUnixUser;  // user database entry, foundation/process/OmUnixUser.h

class OmProcess {
 public:
  virtual ~OmProcess() = default;
};

// The running process: its signals (recorded asynchronously, delivered as
// event-loop callbacks), its children, user switching and exit.
class OmUnixProcess : public OmProcess {
 public:
  struct child_info {
    int pid = 0;
    int exitCode = 0;  // low byte passed to exit, 0 when killed
    int signal = 0;    // signal that killed it, 0 when it exited
  };
  using ChildCallback = OmCallback<child_info>;

  struct ForkParams {
    unsigned euid = 0, egid = 0, uid = 0, gid = 0;
    bool setEuid = false, setEgid = false, setUid = false, setGid = false;
    const char* const* argv = nullptr;  // null: fork without exec
    int dataFd = -1;                    // parent's end of the data pipe
    int errorFd = -1;                   // parent's end of the error pipe
    bool wantDataPipe = false;
    bool wantErrorPipe = false;
    bool execFailed = false;
    // The exec'd child leads a process group of its own, so that it and
    // whatever it leaves running can be killed together.
    bool newProcessGroup = false;
    int stdinFd = -1, stdoutFd = -1, stderrFd = -1;  // for Exec; -1 = leave alone
    int pid = 0;
    ChildCallback* exitCallback = nullptr;
    // Supplementary groups for Exec (with setGroups). A child whose real
    // user changes without them keeps only its own group, never the
    // parent's (root's) supplementary groups.
    std::vector<gid_t> groups;
    bool setGroups = false;
    // Sets all four ids and the groups from a user database entry.
    void SetUser(const OmUnixUser& user);
    // Child side of the pipes, kept in the child after Fork.
    int childDataFd = -1;
    int childErrorFd = -1;
  };

  OmUnixProcess();
  ~OmUnixProcess() override;
  OmUnixProcess(const OmUnixProcess&) = delete;
  OmUnixProcess& operator=(const OmUnixProcess&) = delete;

  // Child-process side.
  virtual void Abort(bool killChildren, bool killParent);
  virtual bool Pipe(int fds[2]);
  virtual bool Fork(ForkParams& params);
  virtual void Exec(const char* const* argv, ForkParams& params);
  virtual void Exit(int code, bool killChildren, bool killParent);
  virtual void Infanticide(bool wait);
  virtual bool BecomeRoot();
  virtual bool BecomeNobody();
  virtual bool BecomeUser(const OmUnixUser& user);
  virtual bool FixGroups(OmUnixUser& user);
  virtual bool SwitchEffectiveUser(unsigned& uid);
  bool SetUserId(unsigned id);
  bool SetGroupId(unsigned id);
  bool SetEffectiveUserId(unsigned id);
  bool SetEffectiveGroupId(unsigned id);
  bool SetUidError(const char* which, unsigned id);

  // Signal side.
  bool CatchSignal(unsigned sig, OmEventCallback* cb);
  bool CatchExit(ChildCallback* cb, int pid);
  bool RemoveSIGCHLDCallback(int pid);
  bool RemoveSignalCallback(unsigned sig, OmEventCallback* cb);
  static void StartSignals();
  static void StopSignals();
  // Delivers recorded signals and reaps dead children; false when nothing was pending.
  bool ProcessSignals();
  // Called from the signal handler only.
  void RecordSignal(int sig);
  // Read end of the wake pipe the handler writes to, so a signal that lands
  // just before the loop blocks in poll still wakes it. -1 if unavailable.
  int SignalWakeFd() const { return wakeRead_; }
  // Empties the wake pipe; the pending set, not the pipe, says what arrived.
  void DrainSignalWake();

  int Pid() const { return pid_; }
  const std::vector<int>& Children() const { return children_; }
  const OmUnixError& LastError() const { return error_; }

 private:
  struct OmEventSignal {
    OmEventCallback* callback = nullptr;
    ChildCallback* childCallback = nullptr;
    int sig = 0;
    int pid = 0;
    int spare = 0;
  };
  void ForgetChild(int pid);
  void OpenWakePipe();
  void CloseWakePipe();
  void DispatchSignal(int sig);
  void ReapChildren();

  OmUnixError error_;
  int pid_;
  std::vector<int> children_;
  unsigned euid_, egid_;
  int registrations_[256] = {};
  // Pending signals: touched by the handler, so a fixed-size set (no allocation
  // in signal context).
  volatile sig_atomic_t pending_[256] = {};
  volatile sig_atomic_t pendingCount_ = 0;
  std::vector<OmEventSignal> records_;
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  // The process object current before this one; it is current again when
  // this one goes (tests make short-lived ones beside the agent's).
  OmUnixProcess* previous_ = nullptr;
};

extern OmUnixProcess* the_current_process;
extern volatile sig_atomic_t dosigs;
extern "C" void had_a_signal(int sig);

#endif  // QUELM_FOUNDATION_PROCESS_OMUNIXPROCESS_H_
