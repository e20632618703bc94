#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agent/Globals.h"
#include "agent/MyLogger.h"
#include "agent/Settings.h"
#include "foundation/log/OmLog.h"
#include "measure/BaseFilter.h"
#include "measure/Cache.h"
#include "measure/VmstatFilter.h"

namespace {

// procps vmstat: two header lines and the since-boot line.
const char kProcpsHeader[] =
    "procs -----------memory---------- ---swap-- -----io---- -system-- ------cpu-----\n"
    " r  b   swpd   free   buff  cache   si   so    bi    bo   in   cs us sy id wa st\n"
    " 1  0      0 123456  10000 200000    0    0     5    10  100  200  3  1 96  0  0\n";

// Headers without the column names: the old 16-column layout is assumed.
const char kPlainHeader[] =
    "first header line\n"
    "second header line\n"
    " 1  0  0      0 123456  10000 200000    0    0     5    10  100  200  3  1 96\n";

constexpr uint32_t kMaxVirtual = 500000;
constexpr uint32_t kMaxPhys = 300000;

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

// Logs to a plain file in a fresh directory.
class VmstatFilterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    myCache = cache.get();
    mySettings = &settings;
    dir = (std::filesystem::temp_directory_path() / "measurelogXXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(dir.data()));
    previous = OmLog::Current();
    previousDir = OmLog::LogDirectory();
    OmLog::InitLogs(&mylog, OmUniString(dir));
    ASSERT_TRUE(mylog.SetupCSFilters({OmUniString("*/*/*:measure.log")}));
  }
  void TearDown() override {
    myCache = nullptr;
    mySettings = nullptr;
    mylog.SetupCSFilters({});
    OmLog::InitLogs(previous, previousDir);
    std::filesystem::remove_all(dir);
  }

  bool logged(const std::string& part) const {
    std::ostringstream out;
    out << std::ifstream(dir + "/measure.log").rdbuf();
    return out.str().find(part) != std::string::npos;
  }

  // Hands text over as the child manager does: zero-terminated behind its end.
  bool Feed(const std::string& text) {
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    return filter.doFiltering(buffer.data(), static_cast<int>(text.size()), idle);
  }

  Settings settings;  // the default tool names itself in messages
  std::unique_ptr<Cache> cache = std::make_unique<Cache>(10, kMaxVirtual, kMaxPhys);
  VmstatFilter filter{kMaxVirtual, kMaxPhys};
  int idle = 0;
  std::string dir;
  OmLog* previous = nullptr;
  OmUniString previousDir;
};

TEST_F(VmstatFilterTest, OnlyVmstatFilterIsSelectable) {
  std::unique_ptr<BaseFilter> vmstat(BaseFilter::createFilter("vmstatFilter", 1, 1));
  EXPECT_NE(nullptr, dynamic_cast<VmstatFilter*>(vmstat.get()));
  EXPECT_EQ(nullptr, BaseFilter::createFilter("VmstatFilter", 1, 1));
  EXPECT_TRUE(logged("The filter named VmstatFilter was not recognised. This filter may "
                           "not be implemented on this platform. \n"));
}

TEST_F(VmstatFilterTest, KnownColumnsGiveOneSamplePerRun) {
  EXPECT_FALSE(Feed("procs ---memory"));  // an incomplete line is a failure
  ASSERT_TRUE(Feed(kProcpsHeader));        // headers alone are no sample
  EXPECT_EQ(-1, idle);
  EXPECT_EQ(0u, cache->getNumberOfSamples());
  // The second line is cut up by the tokenizer and never becomes a sample.
  EXPECT_FALSE(Feed(ProcpsLine(1000, 97) + ProcpsLine(2000, 50)));
  ASSERT_EQ(1u, cache->getNumberOfSamples());
  EXPECT_EQ(97u, cache->getCurrentIdle());
  EXPECT_EQ(kMaxVirtual - 1000, cache->getCurrentVmem());

  // The next run: the columns are remembered and the headers skipped untested.
  filter.resetFilter();
  EXPECT_TRUE(filter.areColumnsKnown());
  EXPECT_FALSE(Feed("x\ny\nz\n" + ProcpsLine(0, 101)));
  EXPECT_EQ(100u, cache->getCurrentIdle());  // idle above 100 is stored as 100
}

TEST_F(VmstatFilterTest, MemoryAboveTheMaximumRaisesIt) {
  ASSERT_TRUE(Feed(kPlainHeader));
  EXPECT_TRUE(Feed(OldLine(600000, 0, 50)));
  EXPECT_EQ(0u, cache->getCurrentVmem());
  EXPECT_EQ(600000u, filter.getMaxVirtualMemory());
  EXPECT_TRUE(logged("The used/free virtual memory measured (600000 Kb) exceeds the amount "
                           "configured in quelmloadprobe.properties (500000 Kb).\n"));
  EXPECT_TRUE(Feed(OldLine(550000, 0, 50)));
  EXPECT_EQ(50000u, cache->getCurrentVmem());
}

TEST_F(VmstatFilterTest, SixteenColumnLayoutWithoutNamedHeaders) {
  ASSERT_TRUE(Feed(kPlainHeader));
  EXPECT_FALSE(filter.areColumnsKnown());
  EXPECT_TRUE(Feed(OldLine(5000, 10, 97) + OldLine(4000, 12, 98)));
  EXPECT_EQ(98, idle);  // 97.5 rounds to even
  EXPECT_EQ(2u, cache->getNumberOfSamples());
  EXPECT_EQ(kMaxVirtual - 4000, cache->getCurrentVmem());
  EXPECT_EQ(11u, cache->getAverageOfNIdleValues(2)->sout);  // (10 + 12) / 2
}

TEST_F(VmstatFilterTest, GarbageIsNotRecognised) {
  ASSERT_TRUE(Feed(kPlainHeader));
  EXPECT_FALSE(Feed("1 2 3 not numbers\n"));
  EXPECT_EQ(-1, idle);
  EXPECT_EQ(0u, cache->getNumberOfSamples());
  EXPECT_TRUE(logged("The data returned by /usr/bin/vmstat -n has not been recognised by "
                           "the data filter. \nThe data was \n1 2 3 not numbers\n\n"));
}

}  // namespace
