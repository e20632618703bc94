#include "foundation/string/OmContainers.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Item {
  explicit Item(int k) : key(k) {}
  int SortFunction(const Item& other) const { return key - other.key; }
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

  const unsigned long mods = list.Modifications();
  EXPECT_TRUE(list.Remove(&a));
  EXPECT_GT(list.Modifications(), mods);
  EXPECT_FALSE(list.Remove(&a));
  EXPECT_FALSE(list.Contains(&a));
  list.RemoveAt(0);
  EXPECT_EQ(Keys(list), (std::vector<int>{4, 2}));
  EXPECT_EQ(list[1], &b);
  list.Clear();
  EXPECT_TRUE(list.IsEmpty());
}

TEST(ISparseArrayTest, GrowsToTheNextMultipleOfTheStep) {
  Item x(7);
  OmISparseArray<Item> arr(10);
  arr.Set(3, &x);
  EXPECT_EQ(arr.Size(), 10u);
  arr.Set(25, &x);
  EXPECT_EQ(arr.Size(), 30u);
  arr.Set(30, &x);  // an exact multiple still needs one step more
  EXPECT_EQ(arr.Size(), 40u);
  EXPECT_EQ(arr.Get(25), &x);
  for (size_t i : {0, 4, 24, 26, 31, 39, 1000}) EXPECT_EQ(arr.Get(i), nullptr) << i;
  EXPECT_EQ(arr.Size(), 40u);  // reading does not grow it
}

TEST(ISortedListTest, InsertKeepsAscendingOrderAndEqualKeys) {
  std::vector<Item> items;
  for (int i = 0; i < 50; ++i) items.emplace_back(i % 25);
  std::vector<Item*> order;
  for (Item& it : items) order.push_back(&it);
  std::shuffle(order.begin(), order.end(), std::mt19937(12345));

  OmISortedList<Item> list;
  for (Item* p : order) {
    list.Insert(p);
    const std::vector<int> keys = Keys(list);
    ASSERT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  }
  EXPECT_EQ(list.Length(), 50u);
  for (Item& it : items) EXPECT_TRUE(list.Contains(&it));
}

}  // namespace
