// The child-process side of the process object: pipes, fork and exec, killing
// children, switching users and ending the process.
#include "foundation/process/OmUnixProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "foundation/process/OmUnixUser.h"
#include "foundation/string/OmOSStream.h"

namespace {

void CloseIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Keeps a descriptor clear of 0-2 so that placing the standard descriptors
// cannot clobber it (possible when the parent runs with them closed).
int AboveStandard(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (moved < 0) return fd;
  close(fd);
  return moved;
}

OmUniString Decimal(long long v) {
  OmOSStream s;
  s << v;
  return s.Str();
}

}  // namespace

bool OmUnixProcess::Pipe(int fds[2]) {
  // Close-on-exec: only the child that a pipe was made for gets it, as its
  // standard descriptors; later children must not inherit it.
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) return true;
  error_.Set(errno, "socketpair", "AF_UNIX, SOCK_STREAM");
  return false;
}

bool OmUnixProcess::Fork(ForkParams& params) {
  params.pid = 0;
  int data[2] = {-1, -1};  // [0] the parent's end, [1] the child's
  int err[2] = {-1, -1};
  if (params.wantDataPipe && !Pipe(data)) return false;
  if (params.wantErrorPipe && !Pipe(err)) {
    CloseIfOpen(data[0]);
    CloseIfOpen(data[1]);
    return false;
  }

  const pid_t pid = fork();
  if (pid < 0) {
    error_.Set(errno, "fork");
    CloseIfOpen(data[0]);
    CloseIfOpen(data[1]);
    CloseIfOpen(err[0]);
    CloseIfOpen(err[1]);
    return false;
  }

  if (pid > 0) {
    params.pid = pid;
    // Also set here: the parent may signal the group before the child runs.
    if (params.newProcessGroup && params.argv != nullptr) setpgid(pid, pid);
    children_.push_back(pid);
    if (params.exitCallback != nullptr) CatchExit(params.exitCallback, pid);
    CloseIfOpen(data[1]);
    CloseIfOpen(err[1]);
    params.dataFd = data[0];
    params.errorFd = err[0];
    signal(SIGCHLD, had_a_signal);
    return true;
  }

  // The child.
  pid_ = getpid();
  children_.clear();
  // The wake pipe is the parent's: a child draining or filling it would
  // steal or fake the parent's wake-ups.
  CloseWakePipe();
  OpenWakePipe();
  CloseIfOpen(data[0]);
  CloseIfOpen(err[0]);
  params.childDataFd = data[1];
  params.childErrorFd = err[1];
  if (params.argv == nullptr) return true;

  if (params.childDataFd >= 0) {
    // One socket is both standard input and standard output.
    const int fd = AboveStandard(params.childDataFd);
    params.childErrorFd = AboveStandard(params.childErrorFd);
    if (dup2(fd, 0) < 0 || dup2(fd, 1) < 0) error_.Set(errno, "dup", Decimal(fd));
    close(fd);
    params.childDataFd = -1;
  }
  if (params.childErrorFd >= 0) {
    const int fd = AboveStandard(params.childErrorFd);
    if (dup2(fd, 2) < 0) error_.Set(errno, "dup", Decimal(fd));
    close(fd);
    params.childErrorFd = -1;
  }
  if (params.newProcessGroup) setpgid(0, 0);
  Exec(params.argv, params);
  params.execFailed = true;
  return false;
}

void OmUnixProcess::Exec(const char* const* argv, ForkParams& params) {
  struct Redirect {
    int from;
    int to;
    const char* what;
  };
  const Redirect redirects[] = {{params.stdinFd, 0, "dup2 stdin"},
                                {params.stdoutFd, 1, "dup2 stdout"},
                                {params.stderrFd, 2, "dup2 stderr"}};
  for (const Redirect& r : redirects) {
    if (r.from < 0) continue;
    if (dup2(r.from, r.to) < 0) {
      error_.Set(errno, r.what, Decimal(r.from));
      return;
    }
    // dup2 onto itself keeps the close-on-exec flag; the exec'd program needs it.
    if (r.from == r.to) fcntl(r.to, F_SETFD, 0);
  }

  if (params.setEuid || params.setEgid || params.setUid || params.setGid || params.setGroups) {
    const unsigned heldEuid = euid_;
    if (euid_ != 0) {
      if (!SetEffectiveUserId(0)) {
        SetUidError("seteuid", 0);
        return;
      }
      euid_ = 0;
    }
    // Groups first, while still root; a child leaving root must not keep
    // root's supplementary groups.
    if (params.setGroups || (params.setUid && params.uid != 0)) {
      const gid_t own = params.setGid ? params.gid : params.setEgid ? params.egid : getgid();
      std::vector<gid_t> groups = params.groups;
      if (!params.setGroups || groups.empty()) groups.assign(1, own);
      if (setgroups(groups.size(), groups.data()) != 0) {
        SetUidError("setgroups", own);
        return;
      }
    }
    if (params.setEgid && params.egid != egid_) {
      if (!SetEffectiveGroupId(params.egid)) {
        SetUidError("setegid", params.egid);
        return;
      }
      egid_ = params.egid;
    }
    if (params.setGid && params.gid != getgid()) {
      if (!SetGroupId(params.gid)) {
        SetUidError("setgid", params.gid);
        return;
      }
      egid_ = params.gid;
    }
    if (params.setUid && params.uid != getuid()) {
      if (!SetUserId(params.uid)) {
        SetUidError("setuid", params.uid);
        return;
      }
      euid_ = params.uid;
    }
    // A new real user takes the effective one with it: setuid as root sets
    // both, so the one held before could not be restored anyway.
    const unsigned wantEuid = params.setEuid ? params.euid : params.setUid ? params.uid : heldEuid;
    if (geteuid() != wantEuid) {
      if (!SetEffectiveUserId(wantEuid)) {
        SetUidError("seteuid", wantEuid);
        return;
      }
    }
    euid_ = wantEuid;
  }

  if (argv == nullptr || argv[0] == nullptr) {
    error_.Set(EINVAL, "execvp", "");
    return;
  }
  execvp(argv[0], const_cast<char* const*>(argv));
  OmOSStream args;
  for (const char* const* a = argv; *a != nullptr; ++a) {
    if (a != argv) args << " ";
    args << *a;
  }
  error_.Set(errno, "execvp", args.Str());
}

void OmUnixProcess::Infanticide(bool wait) {
  for (int pid : children_) kill(pid, SIGTERM);
  if (!wait) return;
  bool anyAlive = true;
  while (anyAlive) {
    anyAlive = false;
    const std::vector<int> pass = children_;
    for (int pid : pass) {
      if (kill(pid, 0) != 0) continue;
      anyAlive = true;
      int status = 0;
      pid_t r;
      do {
        r = waitpid(pid, &status, 0);
      } while (r < 0 && errno == EINTR);
      // Reaped, or not ours any more (reaped elsewhere, pid reused): either
      // way it is no longer a known child.
      ForgetChild(pid);
    }
  }
}

void OmUnixProcess::Exit(int code, bool killChildren, bool killParent) {
  if (killChildren) Infanticide(false);
  const pid_t parent = getppid();
  if (killParent && parent > 1) kill(parent, SIGTERM);
  exit(code);
}

void OmUnixProcess::Abort(bool killChildren, bool killParent) {
  if (killChildren) {
    for (int pid : children_) kill(pid, SIGABRT);
  }
  const pid_t parent = getppid();
  if (killParent && parent > 1) kill(parent, SIGABRT);
  kill(getpid(), SIGABRT);
  exit(134);
}

bool OmUnixProcess::SetUserId(unsigned id) { return setuid(id) == 0; }

bool OmUnixProcess::SetGroupId(unsigned id) { return setgid(id) == 0; }

bool OmUnixProcess::SetEffectiveUserId(unsigned id) { return seteuid(id) == 0; }

bool OmUnixProcess::SetEffectiveGroupId(unsigned id) { return setegid(id) == 0; }

bool OmUnixProcess::SetUidError(const char* which, unsigned id) {
  error_.Set(errno, which, Decimal(id));
  return false;
}

void OmUnixProcess::ForkParams::SetUser(const OmUnixUser& user) {
  euid = uid = user.uid;
  egid = gid = user.gid;
  setEuid = setUid = setEgid = setGid = setGroups = true;
  groups = user.groups;
}

bool OmUnixProcess::FixGroups(OmUnixUser& user) {
  // An entry made by hand has no groups: the group database knows them, and
  // without it the user's own group is the safe minimum.
  OmUnixError ignored;
  if (user.groups.empty() && !user.name.empty()) {
    OmUnixUser::GroupsOf(user.name.c_str(), user.gid, user.groups, ignored);
  }
  if (user.groups.empty()) user.groups.push_back(user.gid);
  if (setgroups(user.groups.size(), user.groups.data()) != 0) {
    return SetUidError("setgroups", user.gid);
  }
  return true;
}

bool OmUnixProcess::BecomeUser(const OmUnixUser& user) {
  OmUnixUser u = user;
  if (euid_ != 0) {
    if (!SetEffectiveUserId(0)) return SetUidError("seteuid", 0);
    euid_ = 0;
  }
  if (!FixGroups(u)) return false;
  if (u.gid != egid_) {
    if (!SetEffectiveGroupId(u.gid)) return SetUidError("setegid", u.gid);
    egid_ = u.gid;
  }
  if (u.gid != getgid()) {
    if (!SetGroupId(u.gid)) return SetUidError("setgid", u.gid);
  }
  if (u.uid != getuid()) {
    if (!SetUserId(u.uid)) return SetUidError("setuid", u.uid);
    euid_ = u.uid;
  }
  if (geteuid() != u.uid) {
    if (!SetEffectiveUserId(u.uid)) return SetUidError("seteuid", u.uid);
  }
  euid_ = u.uid;
  return true;
}

bool OmUnixProcess::BecomeRoot() {
  OmUnixUser root(0, 0, "root");
  OmUnixError ignored;  // without an entry: ids 0 and the groups FixGroups finds
  OmUnixUser::ById(0, root, ignored);
  return BecomeUser(root);
}

bool OmUnixProcess::BecomeNobody() {
  OmUnixUser user;
  OmUnixError ignored;
  if (!OmUnixUser::ByName("nobody", user, ignored) &&
      !OmUnixUser::ByName("nouser", user, ignored)) {
    error_.Set(ENOENT, "User lookup", "'nobody' or 'nouser'");
    return false;
  }
  return BecomeUser(user);
}

bool OmUnixProcess::SwitchEffectiveUser(unsigned& uid) {
  // Swaps: the process takes on uid as its effective user and uid receives
  // the one held before, so a second call switches back.
  const unsigned previous = euid_;
  if (uid != previous) {
    if (previous != 0 && uid != 0 && !SetEffectiveUserId(0)) return SetUidError("seteuid", 0);
    if (!SetEffectiveUserId(uid)) return SetUidError("seteuid", uid);
    euid_ = uid;
  }
  uid = previous;
  return true;
}
