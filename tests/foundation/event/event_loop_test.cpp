#include "foundation/event/OmEventLoop.h"
#include "foundation/event/OmTimer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "FakeEnv.h"
#include "foundation/event/event_test_util.h"
#include "foundation/process/OmUnixProcess.h"

namespace {

using Log = std::vector<std::string>;

const OmTimeVal kStart(1000000, 500000);

// The loop's own error line on standard error.
std::string Severe(const std::string& text, pid_t pid = getpid()) {
  return "\nVRX legacy event loopPID=" + std::to_string(pid) +
         " SEVERE INTERNAL ERROR\nThe eventloop " + text +
         " - this software will not function correctly.\n";
}

class EventLoopTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int fd : fds_) close(fd);
  }
  // A connected pair; both ends are closed when the test ends unless closed before.
  void SocketPair(int& a, int& b) {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    a = sv[0];
    b = sv[1];
    fds_.push_back(a);
    fds_.push_back(b);
  }
  void CloseNow(int fd) {
    close(fd);
    std::erase(fds_, fd);
  }

  FakeEnv env_{kStart};
  OmUnixProcess process_;
  OmEventLoop loop_{&process_};
  Log log_;
  std::vector<int> fds_;
};

TEST_F(EventLoopTest, RemoveTimeoutNeedsTimeAndCallback) {
  Probe mine("mine", &log_), other("other", &log_);
  bool listedDuringDispatch = false;
  mine.action = [&](OmEvent::cbdispatch) { listedDuringDispatch = loop_.HasTimeout(&mine); };
  const OmTimeVal when = kStart.PlusSeconds(60);
  loop_.AddTimeoutEvent(when, &mine);

  EXPECT_FALSE(loop_.RemoveTimeoutEvent(when, &other));
  EXPECT_FALSE(loop_.RemoveTimeoutEvent(OmTimeVal(when.seconds, 1), &mine));
  EXPECT_TRUE(log_.empty());
  EXPECT_EQ(1u, loop_.TimeoutCount());

  EXPECT_TRUE(loop_.RemoveTimeoutEvent(when, &mine));
  EXPECT_EQ(Log({"mine:removed"}), log_);
  EXPECT_TRUE(listedDuringDispatch);
  EXPECT_EQ(0u, loop_.TimeoutCount());
}

TEST_F(EventLoopTest, ReadAndWriteShareOnePollRecord) {
  int a, b, c, d;
  SocketPair(a, b);
  SocketPair(c, d);
  Probe r("r", &log_), w("w", &log_);
  ASSERT_TRUE(loop_.AddFileEvent(a, true, false, &r) && loop_.AddFileEvent(a, false, true, &w) &&
              loop_.AddFileEvent(c, true, false, &r));
  EXPECT_EQ(2u, loop_.PollCount());
  EXPECT_TRUE(loop_.RemoveFileEvent(a, true, false, nullptr));
  EXPECT_EQ(POLLOUT | POLLNVAL, loop_.PollList()[0].events);  // the write half stays
  EXPECT_TRUE(loop_.RemoveFileEvent(a, false, true, nullptr));
  ASSERT_EQ(1u, loop_.PollCount());
  EXPECT_EQ(c, loop_.PollList()[0].fd);  // later records move down
  EXPECT_FALSE(loop_.RemoveFileEvent(a, true, true, nullptr) || loop_.RemoveFileEvent(b, true, true, nullptr));
}

TEST_F(EventLoopTest, ReadyDescriptorsAreDispatchedAndHangUpWakesReaderThenWriter) {
  int a, b, c, d;
  SocketPair(a, b);
  SocketPair(c, d);
  Probe r("r", &log_), w("w", &log_), hr("hang-up read", &log_), hw("hang-up write", &log_);
  loop_.AddFileEvent(a, true, false, &r);
  loop_.AddFileEvent(b, false, true, &w);
  loop_.RunOneTurn();
  EXPECT_EQ(Log({"w"}), log_);  // nothing to read yet
  ASSERT_EQ(1, write(b, "x", 1));
  loop_.RunOneTurn();
  EXPECT_EQ(Log({"w", "r", "w"}), log_);

  loop_.RemoveFileEvent(a, true, false, nullptr);
  loop_.RemoveFileEvent(b, false, true, nullptr);
  loop_.AddFileEvent(c, true, false, &hr);
  loop_.AddFileEvent(c, false, true, &hw);
  CloseNow(d);
  log_.clear();
  loop_.RunOneTurn();
  EXPECT_EQ(Log({"hang-up read", "hang-up write"}), log_);
}

TEST_F(EventLoopTest, ClosedDescriptorIsReportedAndRemoved) {
  int a, b, c, d;
  SocketPair(a, b);
  SocketPair(c, d);
  Probe bad("bad", &log_), ready("ready", &log_);
  loop_.AddFileEvent(a, true, true, &bad);
  loop_.AddFileEvent(c, true, false, &ready);
  ASSERT_EQ(1, write(d, "x", 1));

  testing::internal::CaptureStderr();
  CloseNow(a);
  loop_.RunOneTurn();
  const std::string err = testing::internal::GetCapturedStderr();

  EXPECT_EQ(Severe("has bad write file descriptor " + std::to_string(a)) +
                Severe("has bad read file descriptor " + std::to_string(a)),
            err);
  EXPECT_TRUE(log_.empty());  // neither told; the ready one waits for the next turn
  ASSERT_EQ(1u, loop_.PollCount());
  EXPECT_EQ(c, loop_.PollList()[0].fd);

  loop_.RunOneTurn();
  EXPECT_EQ(Log({"ready"}), log_);
}

}  // namespace

// A timer is withdrawn by its handle alone; its target hears only firings.
TEST_F(EventLoopTest, TimerArmsRearmsAndCancelsByHandle) {
  Probe target("t", &log_);
  OmTimer timer(loop_, &target);
  timer.Arm(kStart.PlusSeconds(5));
  timer.ArmBatched(kStart.PlusSeconds(1));
  EXPECT_EQ(1u, loop_.TimeoutCount());
  EXPECT_EQ(kStart.PlusSeconds(1), timer.When());
  timer.Cancel();
  timer.Cancel();
  EXPECT_EQ(0u, loop_.TimeoutCount());
  EXPECT_FALSE(timer.Armed());

  target.action = [&](OmEvent::cbdispatch) { timer.Arm(kStart.PlusSeconds(9)); };
  timer.Arm(kStart);
  loop_.RunOneTurn();
  EXPECT_EQ(Log({"t"}), log_);
  EXPECT_TRUE(timer.Armed());  // re-armed by its own target
  {
    OmTimer gone(loop_, &target);
    gone.Arm(kStart.PlusSeconds(2));
    EXPECT_EQ(2u, loop_.TimeoutCount());
  }
  EXPECT_EQ(1u, loop_.TimeoutCount());
  EXPECT_EQ(Log({"t"}), log_);
}
