#include "foundation/string/OmContainers.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

struct Item {
  explicit Item(int k) : key(k) {}
  int key;
};

std::vector<int> Keys(const OmIList<Item>& list) {
  std::vector<int> keys;
  for (Item* p : list) keys.push_back(p->key);
  return keys;
}

TEST(IListTest, KeepsInsertionOrderAndCompactsOnRemoval) {
  Item a(1), b(2), c(3), d(4);
  OmIList<Item> list;
  for (Item* p : {&c, &a, &d, &b}) list.Append(p);
  EXPECT_EQ(Keys(list), (std::vector<int>{3, 1, 4, 2}));

  EXPECT_TRUE(list.Remove(&a));
  EXPECT_FALSE(list.Remove(&a));
  list.RemoveAt(0);
  EXPECT_EQ(Keys(list), (std::vector<int>{4, 2}));
  EXPECT_EQ(list[1], &b);
}

}  // namespace
