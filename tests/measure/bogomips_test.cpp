#include "measure/Bogomips.h"

#include <gtest/gtest.h>

#include "FakeEnv.h"

namespace {

// 2^21 loops in one second: 2 loops a tick, so 4 per processor.
constexpr int kFour = 21;
// 2^23 loops in one second: 16 per processor.
constexpr int kSixteen = 23;

TEST(BogomipsTest, ProcessorsBelowOneCountAsOneWithoutFactor) {
  FakeEnv env;
  env.speedRun(kFour);
  Bogomips b(0, 150);
  EXPECT_EQ(1, b.getProcessors());
  EXPECT_EQ(4, b.getBogomips());  // 6 had the factor been applied
}

TEST(BogomipsTest, HighFactorUsedOnceThenEighty) {
  FakeEnv env;
  env.speedRun(kFour).speedRun(kFour);
  Bogomips b(2, 150);
  EXPECT_EQ(12, b.getBogomips());  // 2 * 4 * 150%
  EXPECT_EQ(1, b.calculate());
  EXPECT_EQ(6, b.getCurrent());  // 2 * 4 * 80%
}

TEST(BogomipsTest, ReportsTheHighestEstimate) {
  FakeEnv env;
  env.speedRun(kSixteen).speedRun(kFour);
  Bogomips b(1, 80);
  EXPECT_EQ(16, b.getBogomips());
  EXPECT_EQ(1, b.calculate());
  EXPECT_EQ(4, b.getCurrent());
  EXPECT_EQ(16, b.getBogomips());
}

}  // namespace
