#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "QZmath/Persistence/Heap.h"

namespace
{
/// Heap order and places over the whole array.
void expectValidHeap(CfpHeap const & heap)
{
  for (std::size_t i = 0; i < heap.size(); ++i)
  {
    ASSERT_EQ(heap.at(i)->getHeapPos(), static_cast<int>(i));
    if (i > 0)
    {
      ASSERT_LE(heap.at(i)->getHeapKey(), heap.at((i - 1) / 2)->getHeapKey()) << "at " << i;
    }
  }
}
} // namespace

// Outside elements (met by the random run below too), copies claiming a
// place, and null are left alone.
TEST(CfpHeap, CopiesAndNullAreNotInTheHeap)
{
  CfpHeap heap;
  EXPECT_TRUE(heap.extract() == nullptr && heap.front() == nullptr);
  std::vector<CfpHeapMem> items(15);
  for (int i = 0; i < 15; ++i)
    heap.insert(&items[i], i);
  CfpHeapMem copy = items[5];
  EXPECT_EQ(heap.remove(&copy), nullptr);
  heap.update(&copy, 99);
  heap.insert(nullptr);
  EXPECT_EQ(heap.size(), 15u);
  EXPECT_EQ(heap.front(), &items[14]);
  ASSERT_NO_FATAL_FAILURE(expectValidHeap(heap));
}

TEST(CfpHeap, SortGivesFallingKeysNaNsAndNullEntriesLast)
{
  CfpHeap heap(2); // null entries rank below every element
  std::vector<CfpHeapMem> items(6);
  double const keys[6] = {3, std::numeric_limits<double>::quiet_NaN(), 5, 1, 5, 4};
  for (int i = 0; i < 6; ++i)
    heap.insert(&items[i], keys[i]);
  heap.sort();
  double const sorted[5] = {5, 5, 4, 3, 1};
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(heap.at(i)->getHeapKey() == sorted[i] && heap.at(i)->getHeapPos() == i);
  EXPECT_EQ(heap.at(5), &items[1]);
  EXPECT_TRUE(heap.at(6) == nullptr && heap.at(7) == nullptr && heap.at(8) == nullptr);
  heap.update(&items[3], 10); // still a heap: other operations go on working
  EXPECT_EQ(heap.extract(), &items[3]);
}

// Random inserts, key changes, removals and extractions against a plain list
// of the elements inside, with order and places checked after every step.
TEST(CfpHeap, AgreesWithASlowReferenceUnderRandomOperations)
{
  std::mt19937 rng(12345);
  std::vector<CfpHeapMem> pool(64);
  std::vector<CfpHeapMem *> inside;
  CfpHeap heap;
  std::uniform_int_distribution<int> op(0, 9), pick(0, 63), key(-50, 50);
  for (int step = 0; step < 20000; ++step)
  {
    CfpHeapMem & m = pool[pick(rng)];
    bool const wasIn = std::find(inside.begin(), inside.end(), &m) != inside.end();
    ASSERT_EQ(m.inHeap(), wasIn);
    int const o = op(rng);
    if (o < 3 && !wasIn)
    {
      heap.insert(&m, key(rng));
      inside.push_back(&m);
    }
    else if (o < 5)
    {
      double const before = m.getHeapKey();
      heap.update(&m, key(rng));
      ASSERT_TRUE(wasIn || m.getHeapKey() == before); // outside: the key stays
    }
    else if (o == 5 && wasIn)
    {
      m.setHeapKey(key(rng) * 0.5);
      heap.update(&m);
    }
    else if (o < 8)
    {
      ASSERT_EQ(heap.remove(&m), wasIn ? &m : nullptr);
      inside.erase(std::remove(inside.begin(), inside.end(), &m), inside.end());
    }
    else
    {
      CfpHeapMem * top = heap.extract();
      ASSERT_EQ(top == nullptr, inside.empty());
      if (top)
      {
        double best = -1e300;
        for (CfpHeapMem * it : inside)
          best = std::max(best, it->getHeapKey());
        ASSERT_EQ(top->getHeapKey(), best);
        inside.erase(std::remove(inside.begin(), inside.end(), top), inside.end());
      }
    }
    ASSERT_EQ(heap.size(), inside.size());
    if (step % 97 == 0)
      heap.sort();
    ASSERT_NO_FATAL_FAILURE(expectValidHeap(heap));
  }
}
