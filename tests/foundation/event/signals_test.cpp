#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "foundation/event/event_test_util.h"
#include "foundation/process/OmUnixProcess.h"

namespace {

using Log = std::vector<std::string>;

class SignalsTest : public ::testing::Test {
 protected:
  void SetUp() override { OmUnixProcess::StartSignals(); }
  void TearDown() override {
    // Leave no child behind for the next test.
    for (int pid : process_.Children()) kill(pid, SIGKILL);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  }

  // A child that runs `body` and never returns into the test.
  template <typename Body>
  int Child(OmUnixProcess::ChildCallback* onExit, Body body) {
    OmUnixProcess::ForkParams params;
    params.exitCallback = onExit;
    const int self = getpid();
    const bool ok = process_.Fork(params);
    if (getpid() != self) {
      body();
      _exit(99);
    }
    EXPECT_TRUE(ok);
    return params.pid;
  }

  SignalRestorer restore_{{SIGTERM, SIGUSR1}};
  OmUnixProcess process_;
  Log log_;
};

TEST_F(SignalsTest, RepeatedSignalIsDispatchedOnce) {
  Probe term("term", &log_), usr1("usr1", &log_);
  process_.CatchSignal(SIGTERM, &term);
  process_.CatchSignal(SIGUSR1, &usr1);
  raise(SIGTERM);
  raise(SIGTERM);
  EXPECT_TRUE(process_.ProcessSignals());
  EXPECT_EQ(Log({"term"}), log_);
  EXPECT_FALSE(process_.ProcessSignals());
}

TEST_F(SignalsTest, ChildrenAreReapedAndDecodedInOnePass) {
  ExitProbe exits;
  const int exited = Child(&exits, [] { _exit(3); });
  const int killed = Child(&exits, [] {
    for (;;) pause();
  });
  kill(killed, SIGKILL);
  for (int pid : {exited, killed}) ASSERT_TRUE(WaitUntilDead(pid));

  EXPECT_TRUE(process_.ProcessSignals());
  std::map<int, std::pair<int, int>> seen;  // pid -> (exit code, signal)
  for (const auto& info : exits.seen) seen[info.pid] = {info.exitCode, info.signal};
  EXPECT_EQ((std::map<int, std::pair<int, int>>{{exited, {3, 0}}, {killed, {0, SIGKILL}}}), seen);
  EXPECT_EQ(2u, exits.seen.size());
  EXPECT_TRUE(process_.Children().empty());
  EXPECT_FALSE(process_.ProcessSignals());
}

}  // namespace
