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
  list.Append(&c);
  list.Append(&a);
  list.Append(&d);
  list.Append(&b);
  EXPECT_EQ(Keys(list), (std::vector<int>{3, 1, 4, 2}));

  unsigned long mods = list.Modifications();
  EXPECT_TRUE(list.Remove(&a));
  EXPECT_GT(list.Modifications(), mods);
  EXPECT_EQ(Keys(list), (std::vector<int>{3, 4, 2}));
  EXPECT_FALSE(list.Remove(&a));
  EXPECT_FALSE(list.Contains(&a));
  EXPECT_TRUE(list.Contains(&d));

  list.RemoveAt(0);
  EXPECT_EQ(Keys(list), (std::vector<int>{4, 2}));
  EXPECT_EQ(list.Length(), 2u);
  EXPECT_EQ(list[1], &b);

  list.Clear();
  EXPECT_TRUE(list.IsEmpty());
}

TEST(ISparseArrayTest, GrowsToTheNextMultipleOfTheStep) {
  Item x(7);
  OmISparseArray<Item> arr(10);
  EXPECT_EQ(arr.Size(), 10u);
  arr.Set(3, &x);
  EXPECT_EQ(arr.Size(), 10u);
  arr.Set(25, &x);
  EXPECT_EQ(arr.Size(), 30u);
  arr.Set(30, &x);  // an exact multiple still needs one step more
  EXPECT_EQ(arr.Size(), 40u);
  EXPECT_EQ(arr.Get(25), &x);
  EXPECT_EQ(arr.Get(3), &x);
  for (size_t i : {0, 4, 10, 24, 26, 29, 31, 39}) EXPECT_EQ(arr.Get(i), nullptr) << i;
  EXPECT_EQ(arr.Get(1000), nullptr);
  EXPECT_EQ(arr.Size(), 40u);  // reading does not grow it

  OmISparseArray<Item> small(4);
  small.Set(9, &x);
  EXPECT_EQ(small.Size(), 12u);
}

TEST(ISortedListTest, InsertKeepsAscendingOrder) {
  std::vector<Item> items;
  for (int i = 0; i < 50; ++i) items.emplace_back(i);
  std::vector<Item*> order;
  for (Item& it : items) order.push_back(&it);
  std::mt19937 rng(12345);
  std::shuffle(order.begin(), order.end(), rng);

  OmISortedList<Item> list;
  for (Item* p : order) {
    list.Insert(p);
    std::vector<int> keys = Keys(list);
    ASSERT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  }
  std::vector<int> expected(50);
  for (int i = 0; i < 50; ++i) expected[static_cast<size_t>(i)] = i;
  EXPECT_EQ(Keys(list), expected);
}

TEST(ISortedListTest, KeepsEqualKeys) {
  Item a(5), b(5), c(1), d(9);
  OmISortedList<Item> list;
  list.Insert(&a);
  list.Insert(&d);
  list.Insert(&b);
  list.Insert(&c);
  EXPECT_EQ(Keys(list), (std::vector<int>{1, 5, 5, 9}));
  EXPECT_TRUE(list.Contains(&a));
  EXPECT_TRUE(list.Contains(&b));
}

}  // namespace
