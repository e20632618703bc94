#include "measure/VmstatFilter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/Globals.h"
#include "agent/Settings.h"
#include "measure/Cache.h"

namespace {

// procps vmstat: two header lines and the since-boot line.
const char kProcpsHeader[] =
    "procs -----------memory---------- ---swap-- -----io---- -system-- ------cpu-----\n"
    " r  b   swpd   free   buff  cache   si   so    bi    bo   in   cs us sy id wa st\n"
    " 1  0      0 123456  10000 200000    0    0     5    10  100  200  3  1 96  0  0\n";

// Headers without the column names: the old 16-column layout is assumed.
const char kPlainHeader[] =
    "first header line\nsecond header line\n"
    " 1  0  0      0 123456  10000 200000    0    0     5    10  100  200  3  1 96\n";

constexpr uint32_t kMaxVirtual = 500000;

// r b w swpd free buff cache si so bi bo in cs us sy id
std::string OldLine(uint32_t swpd, uint32_t so, int id) {
  return "0 0 0 " + std::to_string(swpd) + " 100 0 0 0 " + std::to_string(so) +
         " 0 0 0 0 0 0 " + std::to_string(id) + "\n";
}

// r b swpd free buff cache si so bi bo in cs us sy id wa st
std::string ProcpsLine(uint32_t swpd, int id) {
  return " 0  0 " + std::to_string(swpd) + " 100 10000 200000 7 8 0 0 100 200 2 1 " +
         std::to_string(id) + " 0 0\n";
}

class VmstatFilterTest : public ::testing::Test {
 protected:
  void SetUp() override { myCache = &cache, mySettings = &settings; }
  void TearDown() override { myCache = nullptr, mySettings = nullptr; }

  // Hands text over as the child manager does: zero-terminated behind its end.
  bool Feed(const std::string& text) {
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    return filter.doFiltering(buffer.data(), static_cast<int>(text.size()), idle);
  }

  Settings settings;  // the default tool names itself in messages
  Cache cache{10, kMaxVirtual, 300000};
  VmstatFilter filter{kMaxVirtual, 300000};
  int idle = 0;
};

TEST_F(VmstatFilterTest, KnownColumnsGiveOneSamplePerRun) {
  EXPECT_FALSE(Feed("procs ---memory"));  // an incomplete line is a failure
  ASSERT_TRUE(Feed(kProcpsHeader));        // headers alone are no sample
  EXPECT_EQ(-1, idle);
  EXPECT_EQ(0u, cache.getNumberOfSamples());
  // The second line is cut up by the tokenizer and never becomes a sample.
  EXPECT_FALSE(Feed(ProcpsLine(1000, 97) + ProcpsLine(2000, 50)));
  EXPECT_EQ(97, idle);
  ASSERT_EQ(1u, cache.getNumberOfSamples());
  EXPECT_EQ(kMaxVirtual - 1000, cache.getCurrentVmem());

  // The next run: the columns are remembered and the headers skipped untested.
  filter.resetFilter();
  EXPECT_FALSE(Feed("x\ny\nz\n" + ProcpsLine(0, 101)));
  EXPECT_EQ(100u, cache.getCurrentIdle());  // idle above 100 is stored as 100
}

TEST_F(VmstatFilterTest, SixteenColumnLayoutAndMemoryAboveTheMaximum) {
  ASSERT_TRUE(Feed(kPlainHeader));
  EXPECT_TRUE(Feed(OldLine(5000, 10, 97) + OldLine(4000, 12, 98)));
  EXPECT_EQ(98, idle);  // 97.5 rounds to even
  EXPECT_EQ(2u, cache.getNumberOfSamples());
  EXPECT_EQ(kMaxVirtual - 4000, cache.getCurrentVmem());
  EXPECT_EQ(11u, cache.getAverageOfNIdleValues(2)->sout);  // (10 + 12) / 2

  // Swap in use above the maximum: nothing free, and the maximum is raised.
  EXPECT_TRUE(Feed(OldLine(600000, 0, 50)));
  EXPECT_EQ(0u, cache.getCurrentVmem());
  EXPECT_EQ(600000u, filter.getMaxVirtualMemory());
  EXPECT_TRUE(Feed(OldLine(550000, 0, 50)));
  EXPECT_EQ(50000u, cache.getCurrentVmem());
}

}  // namespace
