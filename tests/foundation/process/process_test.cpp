#include "foundation/process/OmUnixProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

std::string ReadAll(int fd) {
  std::string text;
  char buf[256];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  return text;
}

int ExitStatus(int pid) {
  int status = -1;
  return waitpid(pid, &status, 0) == pid ? status : -1;
}

TEST(ProcessTest, DataPipeIsStandardInputAndOutputErrorPipeStandardError) {
  OmUnixProcess process;
  OmUnixProcess::ForkParams params;
  params.wantDataPipe = params.wantErrorPipe = true;
  const char* const argv[] = {"/bin/sh", "-c", "cat; echo err >&2", nullptr};
  params.argv = argv;
  const int self = getpid();
  const bool ok = process.Fork(params);
  if (getpid() != self) _exit(127);  // exec failed in the child
  ASSERT_TRUE(ok);
  ASSERT_GT(params.pid, 0);
  // The parent's ends must not leak into later children.
  EXPECT_NE(0, fcntl(params.dataFd, F_GETFD) & FD_CLOEXEC);
  EXPECT_NE(0, fcntl(params.errorFd, F_GETFD) & FD_CLOEXEC);
  ASSERT_EQ(4, write(params.dataFd, "abc\n", 4));
  shutdown(params.dataFd, SHUT_WR);
  EXPECT_EQ("abc\n", ReadAll(params.dataFd));
  EXPECT_EQ("err\n", ReadAll(params.errorFd));
  close(params.dataFd);
  close(params.errorFd);
  EXPECT_EQ(0, ExitStatus(params.pid));
}

TEST(ProcessTest, FailedExecIsReportedInTheChild) {
  OmUnixProcess process;
  OmUnixProcess::ForkParams params;
  params.wantDataPipe = true;
  const char* const argv[] = {"/nonexistent/quelm-no-such-program", nullptr};
  params.argv = argv;
  const int self = getpid();
  const bool ok = process.Fork(params);
  if (getpid() != self) {
    // Standard output is the data pipe: tell the parent what Fork reported.
    const bool reported = !ok && params.execFailed && params.pid == 0 &&
                          process.LastError().Call() == "execvp" &&
                          process.LastError().Errno() == ENOENT;
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

}  // namespace
