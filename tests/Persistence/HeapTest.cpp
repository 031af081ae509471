#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "QZmath/Persistence/Heap.h"

namespace
{
struct Item : CfpHeapMem
{
  int id = 0;
};

/// Heap order and places, checked over the whole array.
void expectValidHeap(CfpHeap const & heap)
{
  for (std::size_t i = 0; i < heap.size(); ++i)
  {
    CfpHeapMem const * m = heap.at(i);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->getHeapPos(), static_cast<int>(i));
    if (i > 0)
    {
      EXPECT_LE(m->getHeapKey(), heap.at((i - 1) / 2)->getHeapKey()) << "at " << i;
    }
  }
}

std::vector<double> extractAllKeys(CfpHeap & heap)
{
  std::vector<double> keys;
  while (CfpHeapMem * m = heap.extract())
  {
    EXPECT_FALSE(m->inHeap());
    keys.push_back(m->getHeapKey());
  }
  return keys;
}
} // namespace

TEST(CfpHeap, EmptyAndSizedConstruction)
{
  CfpHeap heap;
  EXPECT_TRUE(heap.empty());
  EXPECT_EQ(heap.extract(), nullptr);
  EXPECT_EQ(heap.front(), nullptr);
  EXPECT_EQ(CfpHeap(3).size(), 3u);
  CfpHeap reserved;
  reserved.reserve(100);
  EXPECT_TRUE(reserved.empty());
}

TEST(CfpHeap, ExtractsGreatestFirstInEveryInsertionOrder)
{
  std::vector<double> order = {1, 2, 3};
  do
  {
    Item a, b, c;
    Item * items[3] = {&a, &b, &c};
    CfpHeap heap;
    for (int k = 0; k < 3; ++k)
      heap.insert(items[k], order[k]);
    expectValidHeap(heap);
    EXPECT_EQ(extractAllKeys(heap), (std::vector<double>{3, 2, 1}));
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(CfpHeap, ElementsOutsideAreLeftAlone)
{
  CfpHeap heap;
  Item in, out;
  heap.insert(&in, 5);
  out.setHeapKey(7);
  heap.update(&out);
  heap.update(&out, 9);
  EXPECT_EQ(out.getHeapKey(), 7); // the key stays when the element is outside
  EXPECT_EQ(heap.remove(&out), nullptr);

  // A copy claims the original's place but is not the one the heap holds.
  Item copy = in;
  EXPECT_TRUE(copy.inHeap());
  EXPECT_EQ(heap.remove(&copy), nullptr);
  heap.update(&copy, 100);
  EXPECT_EQ(heap.size(), 1u);
  EXPECT_EQ(heap.front(), &in);
  EXPECT_EQ(in.getHeapKey(), 5);

  heap.insert(nullptr);
  EXPECT_EQ(heap.size(), 1u);
}

TEST(CfpHeap, UpdateMovesUpAndDown)
{
  CfpHeap heap;
  std::vector<Item> items(15);
  for (int i = 0; i < 15; ++i)
    heap.insert(&items[i], i);
  Item & low = items[0];
  heap.update(&low, 100);
  EXPECT_EQ(low.getHeapPos(), 0);
  expectValidHeap(heap);
  heap.update(&low, -100);
  EXPECT_GE(low.getHeapPos(), 7); // a leaf
  expectValidHeap(heap);
  // A key changed from outside, then update without a key.
  low.setHeapKey(50);
  heap.update(&low);
  EXPECT_EQ(heap.front(), &low);
  expectValidHeap(heap);
}

TEST(CfpHeap, RemoveOfTheLastEntryDoesNoSifting)
{
  CfpHeap heap;
  Item a, b, c;
  heap.insert(&a, 3);
  heap.insert(&b, 2);
  heap.insert(&c, 1);
  CfpHeapMem * before[2] = {heap.at(0), heap.at(1)};
  EXPECT_EQ(heap.remove(heap.at(2)), &c);
  EXPECT_FALSE(c.inHeap());
  EXPECT_EQ(heap.at(0), before[0]);
  EXPECT_EQ(heap.at(1), before[1]);
  EXPECT_EQ(heap.remove(&a), &a);
  EXPECT_EQ(heap.front(), &b);
  EXPECT_EQ(b.getHeapPos(), 0);
}

TEST(CfpHeap, SortLeavesAWorkingHeap)
{
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> key(0, 20); // many equal keys
  std::vector<Item> items(200);
  CfpHeap heap;
  for (Item & it : items)
    heap.insert(&it, key(rng));
  heap.sort();
  for (std::size_t i = 0; i < heap.size(); ++i)
  {
    EXPECT_EQ(heap.at(i)->getHeapPos(), static_cast<int>(i));
    if (i > 0)
    {
      EXPECT_LE(heap.at(i)->getHeapKey(), heap.at(i - 1)->getHeapKey());
    }
  }
  expectValidHeap(heap);
  heap.update(&items[3], 1000);
  EXPECT_EQ(heap.front(), &items[3]);
  std::vector<double> keys = extractAllKeys(heap);
  EXPECT_TRUE(std::is_sorted(keys.rbegin(), keys.rend()));
  EXPECT_EQ(keys.size(), items.size());
}

TEST(CfpHeap, NullEntriesAndNaNKeysKeepTheHeapSafe)
{
  // A sized heap compares with its null entries: they rank below elements.
  CfpHeap heap(4);
  Item a, b;
  heap.insert(&a, 1);
  heap.insert(&b, 2);
  EXPECT_EQ(heap.front(), &b);
  EXPECT_EQ(heap.extract(), &b);
  EXPECT_EQ(heap.extract(), &a);
  for (int k = 0; k < 4; ++k)
    EXPECT_EQ(heap.extract(), nullptr);
  EXPECT_TRUE(heap.empty());

  CfpHeap mixed(3);
  std::vector<Item> items(6);
  double const nan = std::numeric_limits<double>::quiet_NaN();
  for (int i = 0; i < 6; ++i)
    mixed.insert(&items[i], i % 2 ? nan : i);
  mixed.sort();
  EXPECT_EQ(mixed.at(0)->getHeapKey(), 4);
  EXPECT_EQ(mixed.at(1)->getHeapKey(), 2);
  EXPECT_EQ(mixed.at(2)->getHeapKey(), 0);
  for (int i = 3; i < 6; ++i)
    EXPECT_TRUE(std::isnan(mixed.at(i)->getHeapKey()));
  for (int i = 6; i < 9; ++i)
    EXPECT_EQ(mixed.at(i), nullptr);
  EXPECT_EQ(mixed.at(9), nullptr);
}

// Random inserts, key changes, removals and extractions against a plain list
// of the elements inside, checking order and places after every step.
TEST(CfpHeap, AgreesWithASlowReferenceUnderRandomOperations)
{
  std::mt19937 rng(12345);
  std::vector<Item> pool(64);
  for (int i = 0; i < 64; ++i)
    pool[i].id = i;
  std::vector<Item *> inside;
  CfpHeap heap;
  std::uniform_int_distribution<int> op(0, 9), pick(0, 63), key(-50, 50);
  for (int step = 0; step < 20000; ++step)
  {
    Item & m = pool[pick(rng)];
    bool const wasIn = std::find(inside.begin(), inside.end(), &m) != inside.end();
    ASSERT_EQ(m.inHeap(), wasIn);
    switch (op(rng))
    {
    case 0:
    case 1:
    case 2:
      if (!wasIn)
      {
        heap.insert(&m, key(rng));
        inside.push_back(&m);
      }
      break;
    case 3:
    case 4:
    {
      double const before = m.getHeapKey();
      heap.update(&m, key(rng));
      if (!wasIn)
      {
        ASSERT_EQ(m.getHeapKey(), before);
      }
      break;
    }
    case 5:
      if (wasIn)
      {
        m.setHeapKey(key(rng) * 0.5);
        heap.update(&m);
      }
      break;
    case 6:
    case 7:
      ASSERT_EQ(heap.remove(&m), wasIn ? &m : nullptr);
      inside.erase(std::remove(inside.begin(), inside.end(), &m), inside.end());
      break;
    default:
    {
      CfpHeapMem * top = heap.extract();
      if (inside.empty())
      {
        ASSERT_EQ(top, nullptr);
        break;
      }
      ASSERT_NE(top, nullptr);
      double best = -1e300;
      for (Item * it : inside)
        best = std::max(best, it->getHeapKey());
      ASSERT_EQ(top->getHeapKey(), best);
      inside.erase(std::remove(inside.begin(), inside.end(), top), inside.end());
      break;
    }
    }
    ASSERT_EQ(heap.size(), inside.size());
    if (step % 97 == 0)
      heap.sort();
    ASSERT_NO_FATAL_FAILURE(expectValidHeap(heap));
  }
}
