#include "measure/Bogomips.h"

#include <gtest/gtest.h>

#include "FakeEnv.h"

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

}  // namespace
