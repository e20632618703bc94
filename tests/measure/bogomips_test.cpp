#include "measure/Bogomips.h"

#include <gtest/gtest.h>

#include "FakeEnv.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/process/OmUnixProcess.h"

namespace {

// Runs ending at 2^21 loops in one second give 4 per processor, 2^23 give 16.
constexpr int kFour = 21, kSixteen = 23;

// The estimate at start-up, then one calculated again.
TEST(BogomipsTest, EstimatesAndTheReportedFigure) {
  const struct {
    int processors;
    uint32_t factor;
    int firstRun, secondRun, first, second, reported;
  } cases[] = {
      {0, 150, kFour, kFour, 4, 4, 4},       // below one counts as one, without the factor
      {-3, 80, kFour, kFour, 4, 4, 4},
      {2, 150, kFour, kFour, 12, 6, 12},     // 2 * 4 * 150%, then 2 * 4 * 80%
      {1, 80, kSixteen, kFour, 16, 4, 16},   // a lower estimate never lowers the figure
      {1, 80, kFour, kSixteen, 4, 16, 16},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.processors << " " << c.factor << " " << c.firstRun);
    FakeEnv env;
    env.speedRun(c.firstRun).speedRun(c.secondRun);
    Bogomips b(c.processors, c.factor);
    EXPECT_EQ(c.first, b.getBogomips());
    EXPECT_EQ(1, b.calculate());
    EXPECT_EQ(c.second, b.getCurrent());
    EXPECT_EQ(c.reported, b.getBogomips());
  }
}

// The same estimate made in a child comes back through the loop, and
// counts as calculate() would count it; one at a time.
TEST(BogomipsTest, EstimateInAChild) {
  OmUnixProcess process;
  OmEventLoop loop(&process);
  FakeEnv env;
  env.speedRun(kFour);
  Bogomips b(1, 80);
  env.speedRun(kSixteen);  // the child's run
  struct Done : OmCallback<int> {
    int outcome = -1;
    void Dispatch(int o) override { outcome = o; }
  } done;
  ASSERT_TRUE(b.calculateInChild(loop, &done));
  EXPECT_FALSE(b.calculateInChild(loop, &done));
  EXPECT_EQ(4, b.getBogomips());  // nothing until the child reports
  for (int turns = 0; turns < 1000 && done.outcome < 0; ++turns) loop.RunOneTurn();
  EXPECT_EQ(1, done.outcome);
  EXPECT_FALSE(b.calculating());
  EXPECT_EQ(16, b.getCurrent());
  EXPECT_EQ(16, b.getBogomips());
}

}  // namespace
