#include "measure/Bogomips.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>

namespace {

// Processor time that moves by a scripted amount across each timed delay:
// the loop count doubles from 2, so the n-th delay runs 2^n passes. Once the
// script is used up every delay takes a full second.
class ScriptedClock {
 public:
  // A calculation that ends at 2^doublings loops, taking the given ticks.
  ScriptedClock& Then(int doublings, std::clock_t ticks = 1000000) {
    for (int i = 1; i < doublings; ++i) steps->push_back(1);
    steps->push_back(ticks);
    return *this;
  }

  Bogomips::ClockSource Source() const {
    auto script = steps;
    auto now = std::make_shared<std::clock_t>(0);
    auto started = std::make_shared<bool>(false);
    return [script, now, started]() {
      if (*started) {
        std::clock_t step = 1000000;
        if (!script->empty()) {
          step = script->front();
          script->pop_front();
        }
        *now += step;
      }
      *started = !*started;
      return *now;
    };
  }

 private:
  std::shared_ptr<std::deque<std::clock_t>> steps = std::make_shared<std::deque<std::clock_t>>();
};

// 2^21 loops in one second: 2 loops a tick, so 4 per processor.
constexpr int kFour = 21;
// 2^23 loops in one second: 16 per processor.
constexpr int kSixteen = 23;

TEST(BogomipsTest, ProcessorsBelowOneCountAsOneWithoutFactor) {
  Bogomips b(0, 150, ScriptedClock().Then(kFour).Source());
  EXPECT_EQ(1, b.getProcessors());
  EXPECT_EQ(4, b.getBogomips());  // 6 had the factor been applied
}

TEST(BogomipsTest, HighFactorUsedOnceThenEighty) {
  Bogomips b(2, 150, ScriptedClock().Then(kFour).Then(kFour).Source());
  EXPECT_EQ(12, b.getBogomips());  // 2 * 4 * 150%
  EXPECT_EQ(80u, b.getFactor());
  EXPECT_EQ(1, b.calculate());
  EXPECT_EQ(6, b.getCurrent());  // 2 * 4 * 80%
}

TEST(BogomipsTest, ReportsTheHighestEstimate) {
  Bogomips b(1, 80, ScriptedClock().Then(kSixteen).Then(kFour).Source());
  EXPECT_EQ(16, b.getBogomips());
  EXPECT_EQ(1, b.calculate());
  EXPECT_EQ(4, b.getCurrent());
  EXPECT_EQ(16, b.getBogomips());
}

}  // namespace
