// A tool run's end feeds the host list and the speed estimate (fake vmstat, one sample a run).
#include <gtest/gtest.h>

#include <signal.h>

#include "AgentFixture.h"

namespace {

class ToolRunTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    // Headers and the since-boot line, then the sample whose idle the test hands over.
    const std::string script = dir + "/vmstat";
    std::ofstream(script) << "echo 'procs ---memory--- ---swap-- ---cpu---'\n"
                             "echo ' r  b swpd free si so us sy id wa'\n"
                             "echo ' 1  1    1    1  1  1  1  1  1  1'\n"
                             "while [ ! -f " << dir << "/idle ]; do sleep 0.01; done\n"
                             "id=$(cat " << dir << "/idle); rm " << dir << "/idle\n"
                             "echo \" 0  0  100 2000  0  0  1  1 $id  0\"\n";
  }

  // Turns the loop until the run ends: the next pid, or -1 while the start waits.
  int runEnds() {
    const int pid = myChildManager->getChildPid();
    for (int turns = 0; turns < 1000 && myChildManager->getChildPid() == pid; ++turns) {
      loop.RunOneTurn();
    }
    return myChildManager->getChildPid();
  }
  // One whole run reporting idle; true once the tool has been started again.
  bool run(int idle) {
    const int pid = myChildManager->getChildPid();
    std::ofstream(dir + "/idle") << idle << "\n";
    return runEnds() != pid;
  }
};

TEST_F(ToolRunTest, ChangeBeyondTheThresholdSendsAPacketRightAfterTheRun) {
  ASSERT_NE(nullptr, addHost(1, Host::CPU));  // threshold 10, timer 10 s away
  ASSERT_GT(myChildManager->forkChild(), 0);

  ASSERT_TRUE(run(50));
  EXPECT_NE(receive().find("<stats>cpu=50 </stats>"), std::string::npos);

  ASSERT_TRUE(run(50));
  ASSERT_TRUE(run(55));  // moved 5 points: below the threshold
  EXPECT_TRUE(nothingWaiting());

  for (int i = 0; i < 3; ++i) ASSERT_TRUE(run(90));
  const std::string moved = receive();
  EXPECT_NE(moved.find("<stats>cpu="), std::string::npos);
  EXPECT_EQ(moved.find("<stats>cpu=50 "), std::string::npos);
}

// Only a run ending above 94 recalculates, and not twice within the interval.
TEST_F(ToolRunTest, RunEndingAbove94RecalculatesOncePerInterval) {
  settings.speedRecalcInterval = 60;
  ASSERT_GT(myChildManager->forkChild(), 0);
  ASSERT_TRUE(run(94));
  EXPECT_FALSE(logged("recalculated after a tool run ending at idle"));
  ASSERT_TRUE(run(95));
  ASSERT_TRUE(run(96));
  env.now.seconds += 60;
  ASSERT_TRUE(run(97));
  EXPECT_EQ(logged("recalculated after a tool run ending at idle 9"), 2u);
  EXPECT_TRUE(logged("recalculated after a tool run ending at idle 95: estimate ") == 1 &&
              logged("ending at idle 97") == 1);
}

TEST_F(ToolRunTest, FloodingToolIsRestartedWithinTheBufferLimit) {
  settings.toolBufferLimit = 4096;
  std::ofstream(dir + "/vmstat") << "exec head -c 65536 /dev/zero\n";
  ASSERT_GT(myChildManager->forkChild(), 0);
  // Each run grows the buffer until the limit stops it; then a few more runs.
  for (int i = 0; i < 50 && !logged("read buffer limit of 4096 bytes"); ++i) runEnds();
  for (int i = 0; i < 3; ++i) ASSERT_GT(runEnds(), 0);
  EXPECT_LE(myChildManager->getBufferCapacity(), 4096u);
  EXPECT_EQ(logged("read buffer limit of 4096 bytes"), 1u);
}

// Quick tools wait an interval between starts; silent ones die with their group; logged once.
TEST_F(ToolRunTest, QuickAndSilentToolsAreRestartedByTheFakeClock) {
  const std::string bgFile = dir + "/bg";
  const struct {
    std::string script;
    uint32_t Settings::*key;
    uint32_t value;
    unsigned seconds;
    const char* message;
  } cases[] = {
      {"exit 0\n", &Settings::toolRestartBackoff, 1, 5, "ended 0 seconds after it was started"},
      {"sleep 100 &\necho $! > " + bgFile + "\nwait\n",
       &Settings::toolStallIntervals, 2, 10, "delivered no data for 10 seconds"},
  };
  for (const auto& c : cases) {
    std::ofstream(dir + "/vmstat") << c.script;
    settings.*c.key = c.value;
    settings.toolProcessGroup = 1;
    const bool quick = c.key == &Settings::toolRestartBackoff;
    ASSERT_GT(myChildManager->forkChild(), 0);
    for (int round = 0; round < 2; ++round) {
      const int pid = quick ? runEnds() : myChildManager->getChildPid();
      std::string bg;  // the silent tool's background process
      for (int i = 0; i < 500 && !quick && !(std::ifstream(bgFile) >> bg); ++i) usleep(2000);
      env.now.seconds += c.seconds - 1;
      runDue();
      EXPECT_EQ(myChildManager->getChildPid(), pid) << c.message;
      env.now.seconds += 1;
      runDue();
      const int next = myChildManager->getChildPid();
      EXPECT_TRUE(next > 0 && next != pid) << c.message;
      std::string state = bg.empty() ? "Z" : "";  // Z: gone or a zombie
      for (int i = 0; i < 500 && state != "Z"; ++i) {
        if (!(std::ifstream("/proc/" + bg + "/stat") >> state >> state >> state)) state = "Z";
        if (state != "Z") usleep(2000);
      }
      EXPECT_EQ(state, "Z") << "background process " << bg;
      std::filesystem::remove(bgFile);
    }
    EXPECT_EQ(logged(c.message), 1u);
    delete std::exchange(myChildManager, new ChildManager(loop, &filter, &HostListMgr::percentChangeCheck));
    settings.*c.key = 0;
  }
}

}  // namespace
