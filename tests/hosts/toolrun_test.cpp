// The end of a tool run hands its idle figure to the host list and the speed
// estimate: a fake vmstat with named columns, one sample a run.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "AgentFixture.h"

namespace {

class ToolRunTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    // Each run prints the headers and the since-boot line, then waits for the
    // test to hand it the idle figure of its one sample.
    const std::string script = dir + "/vmstat";
    std::ofstream(script) << "echo 'procs ---memory--- ---swap-- ---cpu---'\n"
                             "echo ' r  b swpd free si so us sy id wa'\n"
                             "echo ' 1  1    1    1  1  1  1  1  1  1'\n"
                             "while [ ! -f " << dir << "/idle ]; do sleep 0.01; done\n"
                             "id=$(cat " << dir << "/idle); rm " << dir << "/idle\n"
                             "echo \" 0  0  100 2000  0  0  1  1 $id  0\"\n";
  }

  // One whole run reporting idle; true once the tool has been started again.
  bool run(int idle) {
    std::ofstream(dir + "/idle") << idle << "\n";
    const int pid = myChildManager->getChildPid();
    for (int turns = 0; turns < 1000 && myChildManager->getChildPid() == pid; ++turns) {
      loop.RunOneTurn();
    }
    return myChildManager->getChildPid() != pid;
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

TEST_F(ToolRunTest, RunEndingAbove94RecalculatesTheSpeedEstimate) {
  ASSERT_GT(myChildManager->forkChild(), 0);
  ASSERT_TRUE(run(94));
  EXPECT_FALSE(logged("recalculated after a tool run ending at idle"));
  ASSERT_TRUE(run(95));
  EXPECT_TRUE(logged("recalculated after a tool run ending at idle 95: estimate "));
}

}  // namespace
