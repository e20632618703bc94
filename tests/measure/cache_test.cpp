#include "measure/Cache.h"

#include <gtest/gtest.h>

namespace {

// Averages round half to even, KiB in and MiB out; the size never drops below the minimum.
TEST(CacheTest, AveragesAndSize) {
  Cache cache(4, 1000, 1000);
  EXPECT_EQ(nullptr, cache.getAverageOfNIdleValues(2));
  cache.addToCache(50, 1024, 512, 3, 1);
  cache.addToCache(51, 2048, 512, 4, 2);
  auto average = cache.getAverageOfNIdleValues(2);
  ASSERT_NE(nullptr, average);
  EXPECT_EQ(50u, average->idle);  // 50.5
  EXPECT_EQ(2u, average->vmem);   // 1.5 MiB
  EXPECT_EQ(4u, average->sin);    // 3.5

  cache.setCacheSize(6);
  for (uint32_t idle = 1; idle <= 6; ++idle) cache.addToCache(idle, 0, 0, 0, 0);
  cache.setCacheSize(1);
  EXPECT_EQ(4u, cache.getCacheSize());
  EXPECT_EQ(4u, cache.getNumberOfSamples());
  EXPECT_EQ(4u, cache.getAverageOfNIdleValues(10)->idle);  // (3+4+5+6)/4 = 4.5
}

}  // namespace
