#include "measure/Cache.h"

#include <gtest/gtest.h>

#include "LogCapture.h"

namespace {

OmTimeVal fakeNow(1000, 0);
OmTimeVal FakeClock() { return fakeNow; }

class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override { OmTimeVal::SetClock(&FakeClock); }
  void TearDown() override { OmTimeVal::SetClock(nullptr); }

  static void AddIdle(Cache& cache, uint32_t idle) { cache.addToCache(idle, 0, 0, 0, 0); }
};

// Averages round half to even; memory goes in as KiB and comes out as MiB.
TEST_F(CacheTest, AveragesOfTwoSamples) {
  Cache cache(4, 1000, 1000);
  EXPECT_EQ(nullptr, cache.getAverageOfNIdleValues(2));
  cache.addToCache(50, 1024, 512, 3, 1);
  cache.addToCache(51, 2048, 512, 4, 2);
  auto average = cache.getAverageOfNIdleValues(2);
  ASSERT_NE(nullptr, average);
  EXPECT_EQ(50u, average->idle);  // 50.5
  EXPECT_EQ(2u, average->vmem);   // 1.5 MiB
  EXPECT_EQ(0u, average->pmem);   // 0.5 MiB
  EXPECT_EQ(4u, average->sin);    // 3.5
  EXPECT_EQ(2u, average->sout);   // 1.5
}

TEST_F(CacheTest, MemorySumsAreSinglePrecision) {
  // 2^31 + 1535 KiB is held as 2^31 + 1536 in single precision, which lands
  // exactly on 2097153.5 MiB and rounds to even; in double it would be 2097153.
  Cache cache(4, 1000, 1000);
  cache.addToCache(0, 2147485183u, 2147485183u, 0, 0);
  auto average = cache.getAverageOfNIdleValues(1);
  ASSERT_NE(nullptr, average);
  EXPECT_EQ(2097154u, average->vmem);
  EXPECT_EQ(2097154u, average->pmem);
}

TEST_F(CacheTest, AveragesTheNewestN) {
  Cache cache(10, 1000, 1000);
  for (uint32_t idle : {10u, 20u, 30u, 40u}) AddIdle(cache, idle);
  EXPECT_EQ(35u, cache.getAverageOfNIdleValues(2)->idle);
  // Fewer samples than asked for: all of them, divided by their count.
  EXPECT_EQ(25u, cache.getAverageOfNIdleValues(100)->idle);
}

TEST_F(CacheTest, SizeNeverDropsBelowTheMinimum) {
  Cache cache(4, 1000, 1000);
  for (uint32_t idle = 1; idle <= 6; ++idle) AddIdle(cache, idle);
  cache.setCacheSize(1);
  EXPECT_EQ(4u, cache.getCacheSize());
  EXPECT_EQ(4u, cache.getNumberOfSamples());
  EXPECT_EQ(4u, cache.getAverageOfNIdleValues(10)->idle);  // (3+4+5+6)/4 = 4.5

  cache.setCacheSize(6);
  for (uint32_t idle = 7; idle <= 10; ++idle) AddIdle(cache, idle);
  EXPECT_EQ(6u, cache.getNumberOfSamples());
  cache.setCacheSize(2);
  EXPECT_EQ(4u, cache.getNumberOfSamples());
  EXPECT_EQ(8u, cache.getAverageOfNIdleValues(10)->idle);  // 7..10 -> 8.5
}

TEST_F(CacheTest, RemembersAndLogsTheLastSample) {
  LogCapture log;
  ASSERT_TRUE(log.Ok());
  fakeNow = OmTimeVal(1000, 0);
  Cache cache(4, 1000, 1000);
  EXPECT_EQ(OmTimeVal(1000, 0), cache.getTimeOfLastSample());
  cache.addToCache(90, 7000, 8000, 0, 0);
  fakeNow = OmTimeVal(1010, 500);
  cache.addToCache(40, 6000, 2000, 3, 4);
  EXPECT_EQ(40u, cache.getCurrentIdle());
  EXPECT_EQ(6000u, cache.getCurrentVmem());
  EXPECT_EQ(90u, cache.getHighestIdle());
  EXPECT_EQ(OmTimeVal(1010, 500), cache.getTimeOfLastSample());
  EXPECT_TRUE(log.Contains("The following results have just been cached: idle=40, swap=6000, "
                           "\nphysmemfree=2000, swappedin=3, swappedout=4."))
      << log.Text();
}

}  // namespace
