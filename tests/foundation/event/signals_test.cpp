#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "foundation/event/OmCallback.h"
#include "foundation/event/OmEventLoop.h"
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

  SignalRestorer restore_{{SIGTERM, SIGUSR1, SIGUSR2}};
  OmUnixProcess process_;
  Log log_;
};

TEST_F(SignalsTest, SignalsAreRecordedOnceAndOnlyInsideTheLoop) {
  Probe term("term", &log_), usr1("usr1", &log_);
  process_.CatchSignal(SIGTERM, &term);
  process_.CatchSignal(SIGUSR1, &usr1);
  raise(SIGTERM);
  raise(SIGTERM);
  EXPECT_TRUE(process_.ProcessSignals());
  EXPECT_EQ(Log({"term"}), log_);
  EXPECT_FALSE(process_.ProcessSignals());

  OmUnixProcess::StopSignals();
  raise(SIGUSR1);
  EXPECT_FALSE(process_.ProcessSignals());  // dropped, but the handler stays armed
  OmUnixProcess::StartSignals();
  // A short-lived process object hands signal delivery back when it goes.
  {
    OmUnixProcess inner;
    EXPECT_EQ(&inner, the_current_process);
  }
  EXPECT_EQ(&process_, the_current_process);
  raise(SIGUSR1);
  EXPECT_TRUE(process_.ProcessSignals());
  EXPECT_EQ(Log({"term", "usr1"}), log_);
}

TEST_F(SignalsTest, AscendingSignalsThenRegistrationOrder) {
  Probe a("a", &log_), b("b", &log_), c("c", &log_), late("late", &log_);
  process_.CatchSignal(SIGUSR2, &b);
  process_.CatchSignal(SIGUSR1, &a);
  process_.CatchSignal(SIGUSR1, &c);
  // Registered during the walk: heard from the next signal on.
  a.action = [&](OmEvent::cbdispatch) { process_.CatchSignal(SIGUSR1, &late); };
  raise(SIGUSR2);
  raise(SIGUSR1);
  EXPECT_TRUE(process_.ProcessSignals());
  EXPECT_EQ(Log({"a", "c", "b"}), log_);

  EXPECT_TRUE(process_.RemoveSignalCallback(SIGUSR1, &a));
  EXPECT_FALSE(process_.RemoveSignalCallback(SIGUSR1, &a));
  log_.clear();
  raise(SIGUSR1);
  process_.ProcessSignals();
  EXPECT_EQ(Log({"c", "late"}), log_);
}

// Exits, a kill and a child nobody listens for, all reaped in one pass.
TEST_F(SignalsTest, ChildrenAreReapedAndDecodedInOnePass) {
  ExitProbe exits;
  Probe plain("plain", &log_);
  process_.CatchSignal(SIGCHLD, &plain);  // never dispatched: SIGCHLD goes by pid
  const int exited = Child(&exits, [] { _exit(3); });
  const int killed = Child(&exits, [] {
    for (;;) pause();
  });
  const int other = Child(&exits, [] { _exit(13); });
  const int unheard = Child(nullptr, [] { _exit(0); });
  EXPECT_EQ(std::vector<int>({exited, killed, other, unheard}), process_.Children());
  kill(killed, SIGKILL);
  for (int pid : {exited, killed, other, unheard}) ASSERT_TRUE(WaitUntilDead(pid));

  EXPECT_TRUE(process_.ProcessSignals());
  std::map<int, std::pair<int, int>> seen;  // pid -> (exit code, signal)
  for (const auto& info : exits.seen) seen[info.pid] = {info.exitCode, info.signal};
  EXPECT_EQ((std::map<int, std::pair<int, int>>{
                {exited, {3, 0}}, {killed, {0, SIGKILL}}, {other, {13, 0}}}),
            seen);
  EXPECT_EQ(3u, exits.seen.size());
  EXPECT_TRUE(log_.empty());
  EXPECT_TRUE(process_.Children().empty());
  siginfo_t info{};
  EXPECT_EQ(-1, waitid(P_PID, static_cast<id_t>(unheard), &info, WEXITED | WNOHANG));
  EXPECT_FALSE(process_.RemoveSIGCHLDCallback(exited));  // records go once used
  EXPECT_FALSE(process_.ProcessSignals());
}

TEST_F(SignalsTest, StoppedChildKeepsItsRecord) {
  ExitProbe exits;
  const int pid = Child(&exits, [] {
    raise(SIGSTOP);
    _exit(0);
  });
  ASSERT_TRUE(WaitUntilDead(pid, WSTOPPED));
  process_.ProcessSignals();
  EXPECT_TRUE(exits.seen.empty());

  kill(pid, SIGKILL);
  ASSERT_TRUE(WaitUntilDead(pid));
  EXPECT_TRUE(process_.ProcessSignals());
  ASSERT_EQ(1u, exits.seen.size());
  EXPECT_EQ(SIGKILL, exits.seen[0].signal);
}

TEST_F(SignalsTest, ChildDeathEndsABlockedLoop) {
  OmEventLoop loop(&process_);
  struct Owner {
    OmEventLoop* loop;
    void deadkidCB(OmCallback<OmUnixProcess::child_info>*, OmUnixProcess::child_info info) {
      loop->ExitEventLoop(100 + info.exitCode);
    }
  } owner{&loop};
  OmSimpleCallback<OmUnixProcess::child_info, Owner> cb(&owner, &Owner::deadkidCB);
  Child(&cb, [] { _exit(5); });
  EXPECT_EQ(105, loop.EnterEventLoop());
}

TEST(CallbackTest, HandlersReceiveTheirCallbackAndDatum) {
  static std::vector<const void*> seen;  // the static callback can capture nothing
  seen.clear();
  struct Owner {
    void simpleCB(OmEventCallback* cb, OmEvent::cbdispatch) { seen.push_back(cb); }
    void dataCB(OmEventCallback* cb, OmEvent::cbdispatch, const char* d) {
      seen.insert(seen.end(), {cb, d});
    }
  } owner;
  const char* datum = "datum";
  OmSimpleCallback<OmEvent::cbdispatch, Owner> simple(&owner, &Owner::simpleCB);
  OmCallbackWithData<OmEvent::cbdispatch, Owner, const char*> withData(&owner, &Owner::dataCB,
                                                                       datum);
  OmStaticCallback<OmEvent::cbdispatch> plain(
      [](OmEventCallback* cb, OmEvent::cbdispatch) { seen.push_back(cb); });
  OmEventCallback* all[] = {&simple, &withData, &plain};
  for (OmEventCallback* cb : all) cb->Dispatch(OmEvent::fired);
  EXPECT_EQ((std::vector<const void*>{&simple, &withData, datum, &plain}), seen);
  EXPECT_EQ(datum, withData.GetData());
}

}  // namespace
