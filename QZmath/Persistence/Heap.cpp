#include "QZmath/Persistence/Heap.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace
{
/// Whether a ranks strictly above b in the heap: by key, with null entries
/// below every element.
inline bool tf_greater(CfpHeapMem const * a, CfpHeapMem const * b)
{
  return a && (!b || a->getHeapKey() > b->getHeapKey());
}

inline void tf_place(std::vector<CfpHeapMem *> & items, std::size_t i, CfpHeapMem * m)
{
  items[i] = m;
  if (m)
    m->setHeapPos(static_cast<int>(i));
}
} // namespace

struct CfpHeap::CfpHeapBody
{
  std::vector<CfpHeapMem *> items;

  /// The place of m in this heap, or -1 when m does not stand where it says.
  long placeOf(CfpHeapMem const * m) const
  {
    if (!m)
      return -1;
    int const pos = m->getHeapPos();
    if (pos < 0 || static_cast<std::size_t>(pos) >= items.size() || items[pos] != m)
      return -1;
    return pos;
  }

  void siftUp(std::size_t i)
  {
    CfpHeapMem * const e = items[i];
    std::size_t const start = i;
    while (i > 0)
    {
      std::size_t const parent = (i - 1) / 2;
      // Strict: at equal keys e stays below.
      if (!tf_greater(e, items[parent]))
        break;
      tf_place(items, i, items[parent]);
      i = parent;
    }
    if (i != start)
      tf_place(items, i, e);
  }

  void siftDown(std::size_t i)
  {
    CfpHeapMem * const e = items[i];
    std::size_t const start = i;
    std::size_t const n = items.size();
    while (2 * i + 1 < n)
    {
      std::size_t c = 2 * i + 1;
      // At equal keys the left child wins.
      if (c + 1 < n && tf_greater(items[c + 1], items[c]))
        ++c;
      if (!tf_greater(items[c], e))
        break;
      tf_place(items, i, items[c]);
      i = c;
    }
    if (i != start)
      tf_place(items, i, e);
  }
};

CfpHeap::CfpHeap() : m_pBody(new CfpHeapBody) {}

CfpHeap::CfpHeap(std::size_t n) : m_pBody(new CfpHeapBody)
{
  try
  {
    m_pBody->items.assign(n, nullptr);
  }
  catch (...)
  {
    delete m_pBody;
    throw;
  }
}

CfpHeap::~CfpHeap() { delete m_pBody; }

void CfpHeap::insert(CfpHeapMem * m)
{
  if (!m)
    return;
  std::vector<CfpHeapMem *> & items = m_pBody->items;
  // Places are ints: the heap ends where they would overflow.
  if (items.size() >= static_cast<std::size_t>(INT_MAX))
    throw std::length_error("CfpHeap: too many elements");
  items.push_back(m);
  m->setHeapPos(static_cast<int>(items.size() - 1));
  m_pBody->siftUp(items.size() - 1);
}

void CfpHeap::insert(CfpHeapMem * m, double key)
{
  if (!m)
    return;
  m->setHeapKey(key);
  insert(m);
}

void CfpHeap::update(CfpHeapMem * m)
{
  long const pos = m_pBody->placeOf(m);
  if (pos < 0)
    return;
  std::size_t const i = static_cast<std::size_t>(pos);
  if (i > 0 && tf_greater(m, m_pBody->items[(i - 1) / 2]))
    m_pBody->siftUp(i);
  else
    m_pBody->siftDown(i);
}

void CfpHeap::update(CfpHeapMem * m, double key)
{
  if (m_pBody->placeOf(m) < 0)
    return;
  m->setHeapKey(key);
  update(m);
}

CfpHeapMem * CfpHeap::extract()
{
  std::vector<CfpHeapMem *> & items = m_pBody->items;
  if (items.empty())
    return nullptr;
  CfpHeapMem * const root = items.front();
  tf_place(items, 0, items.back());
  items.pop_back();
  if (items.size() > 1)
    m_pBody->siftDown(0);
  if (root)
    root->setOutofHeap();
  return root;
}

CfpHeapMem * CfpHeap::remove(CfpHeapMem * m)
{
  long const pos = m_pBody->placeOf(m);
  if (pos < 0)
    return nullptr;
  std::vector<CfpHeapMem *> & items = m_pBody->items;
  std::size_t const i = static_cast<std::size_t>(pos);
  if (i + 1 == items.size())
  {
    items.pop_back();
  }
  else
  {
    CfpHeapMem * const last = items.back();
    tf_place(items, i, last);
    items.pop_back();
    // The test is on the removed element's key: at equal keys the sift up
    // runs and moves nothing.
    if (tf_greater(m, last))
      m_pBody->siftDown(i);
    else
      m_pBody->siftUp(i);
  }
  m->setOutofHeap();
  return m;
}

void CfpHeap::sort()
{
  std::vector<CfpHeapMem *> & items = m_pBody->items;
  // Greatest key first. NaN keys and null entries go last, in that order, so
  // that the comparison is a strict weak order whatever the keys are; the
  // sorted array is then a valid heap under the sift comparisons.
  std::sort(items.begin(), items.end(),
            [](CfpHeapMem const * x, CfpHeapMem const * y)
            {
              if (!x)
                return false;
              if (!y)
                return true;
              double const kx = x->getHeapKey();
              double const ky = y->getHeapKey();
              if (std::isnan(kx))
                return false;
              if (std::isnan(ky))
                return true;
              return ky < kx;
            });
  for (std::size_t i = 0; i < items.size(); ++i)
    if (items[i])
      items[i]->setHeapPos(static_cast<int>(i));
}

void CfpHeap::reserve(std::size_t n) { m_pBody->items.reserve(n); }

CfpHeapMem * CfpHeap::at(std::size_t i) { return i < m_pBody->items.size() ? m_pBody->items[i] : nullptr; }

CfpHeapMem const * CfpHeap::at(std::size_t i) const
{
  return i < m_pBody->items.size() ? m_pBody->items[i] : nullptr;
}

CfpHeapMem * CfpHeap::front() { return at(0); }

CfpHeapMem const * CfpHeap::front() const { return at(0); }

std::size_t CfpHeap::size() const { return m_pBody->items.size(); }

bool CfpHeap::empty() const { return m_pBody->items.empty(); }
