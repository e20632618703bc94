#include "foundation/process/OmUnixProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "foundation/event/event_test_util.h"
#include "foundation/process/OmChildNotification.h"

namespace {

std::string ReadAll(int fd) {
  std::string text;
  char buf[256];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  return text;
}

int ExitStatus(int pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return status;
}

bool CloseOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

class ProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { fflush(nullptr); }
  void TearDown() override {
    for (int pid : process_.Children()) kill(pid, SIGKILL);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  }
  // Runs argv with the pipes asked for; the parent's ends are in params.
  void Run(OmUnixProcess::ForkParams& params, const char* const* argv) {
    params.argv = argv;
    const int self = getpid();
    const bool ok = process_.Fork(params);
    if (getpid() != self) _exit(127);  // exec failed in the child
    ASSERT_TRUE(ok);
    ASSERT_GT(params.pid, 0);
  }

  OmUnixProcess process_;
};

TEST_F(ProcessTest, PipeIsBidirectionalAndCloseOnExec) {
  int fds[2];
  ASSERT_TRUE(process_.Pipe(fds));
  ASSERT_EQ(2, write(fds[0], "ab", 2));
  ASSERT_EQ(2, write(fds[1], "cd", 2));
  char buf[2];
  ASSERT_EQ(2, read(fds[1], buf, 2));
  EXPECT_EQ(0, memcmp(buf, "ab", 2));
  ASSERT_EQ(2, read(fds[0], buf, 2));
  EXPECT_EQ(0, memcmp(buf, "cd", 2));
  EXPECT_TRUE(CloseOnExec(fds[0]) && CloseOnExec(fds[1]));
  close(fds[0]);
  close(fds[1]);
}

TEST_F(ProcessTest, DataPipeIsStandardInputAndOutputErrorPipeStandardError) {
  OmUnixProcess::ForkParams params;
  params.wantDataPipe = true;
  params.wantErrorPipe = true;
  const char* const argv[] = {"/bin/sh", "-c", "cat; echo err >&2", nullptr};
  Run(params, argv);
  EXPECT_TRUE(CloseOnExec(params.dataFd) && CloseOnExec(params.errorFd));
  EXPECT_EQ(std::vector<int>({params.pid}), process_.Children());
  ASSERT_EQ(4, write(params.dataFd, "abc\n", 4));
  shutdown(params.dataFd, SHUT_WR);
  EXPECT_EQ("abc\n", ReadAll(params.dataFd));
  EXPECT_EQ("err\n", ReadAll(params.errorFd));
  close(params.dataFd);
  close(params.errorFd);
  EXPECT_EQ(0, ExitStatus(params.pid));
}

TEST_F(ProcessTest, LaterChildrenDoNotInheritEarlierPipes) {
  OmUnixProcess::ForkParams first;
  first.wantDataPipe = true;
  const char* const cat[] = {"/bin/cat", nullptr};
  Run(first, cat);
  OmUnixProcess::ForkParams second;
  second.wantDataPipe = true;
  const std::string check =
      "[ -e /proc/$$/fd/" + std::to_string(first.dataFd) + " ] && echo inherited || echo clean";
  const char* const sh[] = {"/bin/sh", "-c", check.c_str(), nullptr};
  Run(second, sh);
  EXPECT_EQ(-1, second.errorFd);  // not asked for
  EXPECT_EQ("clean\n", ReadAll(second.dataFd));
  shutdown(first.dataFd, SHUT_WR);
  EXPECT_EQ("", ReadAll(first.dataFd));
  close(first.dataFd);
  close(second.dataFd);
}

TEST_F(ProcessTest, ChildNotificationHearsOfTheExit) {
  SignalRestorer restore({});
  OmUnixProcess::StartSignals();
  struct Owner : OmChildNotification {
    using OmChildNotification::OmChildNotification;
    void ChildExited(OmUnixProcess::child_info info) override { seen.push_back(info); }
    std::vector<OmUnixProcess::child_info> seen;
  };
  OmUnixProcess::ForkParams params;
  Owner owner(&params);
  ASSERT_NE(nullptr, params.exitCallback);
  const char* const argv[] = {"/bin/sh", "-c", "exit 7", nullptr};
  Run(params, argv);
  ASSERT_TRUE(WaitUntilDead(params.pid));
  EXPECT_TRUE(process_.ProcessSignals());
  ASSERT_EQ(1u, owner.seen.size());
  EXPECT_EQ(params.pid, owner.seen[0].pid);
  EXPECT_EQ(7, owner.seen[0].exitCode);
  EXPECT_EQ(0, owner.seen[0].signal);
}

TEST_F(ProcessTest, FailedExecIsReportedInTheChild) {
  OmUnixProcess::ForkParams params;
  params.wantDataPipe = true;
  const char* const argv[] = {"/nonexistent/quelm-no-such-program", nullptr};
  params.argv = argv;
  const int self = getpid();
  const bool ok = process_.Fork(params);
  if (getpid() != self) {
    // Standard output is the data pipe: tell the parent what Fork reported.
    const bool reported = !ok && params.execFailed && params.pid == 0 &&
                          process_.LastError().Call() == "execvp" &&
                          process_.LastError().Errno() == ENOENT;
    const char* verdict = reported ? "reported" : "not reported";
    if (write(1, verdict, strlen(verdict)) < 0) _exit(2);
    _exit(0);
  }
  ASSERT_TRUE(ok);
  EXPECT_FALSE(params.execFailed);
  EXPECT_EQ("reported", ReadAll(params.dataFd));
  close(params.dataFd);
  EXPECT_EQ(0, ExitStatus(params.pid));
}

TEST_F(ProcessTest, ExecWithoutRedirectionsChangesNothing) {
  struct stat before[3], after[3];
  for (int fd = 0; fd < 3; ++fd) ASSERT_EQ(0, fstat(fd, &before[fd]));
  const std::vector<unsigned> ids = {getuid(), geteuid(), getgid(), getegid()};

  OmUnixProcess::ForkParams params;
  const char* const argv[] = {"/nonexistent/quelm-no-such-program", "-x", nullptr};
  process_.Exec(argv, params);  // returns: nothing to run
  for (int fd = 0; fd < 3; ++fd) {
    ASSERT_EQ(0, fstat(fd, &after[fd]));
    EXPECT_EQ(before[fd].st_ino, after[fd].st_ino);
    EXPECT_EQ(before[fd].st_dev, after[fd].st_dev);
  }
  EXPECT_EQ(ids, (std::vector<unsigned>{getuid(), geteuid(), getgid(), getegid()}));
  EXPECT_EQ("execvp(/nonexistent/quelm-no-such-program -x): No such file or directory",
            process_.LastError().Reason().AsUtf8());
}

TEST_F(ProcessTest, ExecReportsFailedRedirection) {
  const char* const argv[] = {"/bin/true", nullptr};
  const int closed = 987;
  close(closed);
  const struct {
    int OmUnixProcess::ForkParams::*field;
    const char* call;
  } cases[] = {{&OmUnixProcess::ForkParams::stdinFd, "dup2 stdin"},
               {&OmUnixProcess::ForkParams::stdoutFd, "dup2 stdout"},
               {&OmUnixProcess::ForkParams::stderrFd, "dup2 stderr"}};
  for (const auto& c : cases) {
    OmUnixProcess::ForkParams params;
    params.*c.field = closed;
    process_.Exec(argv, params);
    EXPECT_EQ(c.call, process_.LastError().Call().AsUtf8());
    EXPECT_EQ(EBADF, process_.LastError().Errno());
  }
}

TEST_F(ProcessTest, ExecRedirectsStandardOutput) {
  int out[2];
  ASSERT_EQ(0, pipe(out));
  OmUnixProcess::ForkParams params;
  const int self = getpid();
  ASSERT_TRUE(process_.Fork(params) || getpid() != self);
  if (params.pid == 0) {
    params.stdoutFd = out[1];
    const char* const argv[] = {"/bin/echo", "redirected", nullptr};
    process_.Exec(argv, params);
    _exit(127);
  }
  close(out[1]);
  EXPECT_EQ("redirected\n", ReadAll(out[0]));
  close(out[0]);
  EXPECT_EQ(0, ExitStatus(params.pid));
}

TEST_F(ProcessTest, ExitTerminatesChildrenAndAbortSignalsItself) {
  int alive[2];
  ASSERT_EQ(0, pipe(alive));
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    OmUnixProcess::ForkParams grandchild;
    process_.Fork(grandchild);
    if (grandchild.pid == 0) {
      close(alive[0]);
      for (;;) pause();  // holds the write end until killed
    }
    close(alive[1]);
    process_.Exit(3, true, false);
  }
  close(alive[1]);
  // End of file once the grandchild has gone too.
  EXPECT_EQ("", ReadAll(alive[0]));
  close(alive[0]);
  int status = ExitStatus(pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);

  const pid_t aborting = fork();
  ASSERT_GE(aborting, 0);
  if (aborting == 0) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    process_.Abort(false, false);
  }
  status = ExitStatus(aborting);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

}  // namespace
