#include "QZmath/VolTriang/Octree.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <string>

#include "QZmath/VolTriang/VolumetricTriangulator.h"
#include "QZsys/Exceptions.h"
#include "QZsys/Progress.h"

namespace VolTr
{
namespace
{
char const * const TF_BAD_DEPTH_TEXT = "Incorrect tree depth detected in VolTr::COctree constructor";

/// 2^k for the small non-negative exponents of the lattice; 0 below.
int tf_pow2(int k) { return k < 0 ? 0 : (1 << k); }

// ---------------------------------------------------------------------------
// Node placement. At depth d the eight nodes around a leaf cell depend only on
// the cell's "group" at that depth, (cell - offset) >> s per axis with
// s = depth - d: the depth-d cell that holds it for corner nodes, the nearest
// depth-d centres for centre nodes. The build works on groups (many cells
// share one), the policies answer single requests; both use these two.

/// The group of a leaf cell at a depth: arithmetic shifts, as negative
/// differences must round down.
inline CInt3 tf_groupOfCell(CInt3 const & cell, int s, int offset)
{
  return CInt3((cell.x() - offset) >> s, (cell.y() - offset) >> s, (cell.z() - offset) >> s);
}

/// Node `corner` of a group.
inline CInt3 tf_groupNode(CInt3 const & group, int s, int offset, int corner)
{
  int const step = 1 << s;
  return CInt3((group.x() + (corner & 1)) * step + offset, (group.y() + ((corner >> 1) & 1)) * step + offset,
               (group.z() + ((corner >> 2) & 1)) * step + offset);
}

/// What both policies hold.
class tf_SNodesPositioningBase : public INodesPositioningPolicy
{
public:
  tf_SNodesPositioningBase(int depth, int nodeDepthBegin)
      : m_depth(depth), m_size(1 << depth), m_nodeDepthBegin(nodeDepthBegin)
  {
  }
  int getMinCellCoord() const override { return 0; }
  int getCellsPerAxis() const override { return m_size; }
  int getNodeDepthBegin() const override { return m_nodeDepthBegin; }
  int getNodesPerCell() const override { return 8; }
  void makeCellNode(CTreeNode * out, int d, CInt3 const * cell, int corner) const override
  {
    if (d < 0 || d >= getNodeDepthEnd())
      throw VsUt::CTextException("Incorrect node depth in VolTr::INodesPositioningPolicy::makeCellNode");
    int const s = m_depth - d;
    int const offset = groupOffset(s);
    *out = CTreeNode(d, tf_groupNode(tf_groupOfCell(*cell, s, offset), s, offset, corner));
  }
  /// The offset of the node lattice at s = depth - d.
  virtual int groupOffset(int s) const = 0;

protected:
  int m_depth;
  int m_size;
  int m_nodeDepthBegin;
};

/// Nodes on the corners of cells: ((x >> s) + bit) << s.
class tf_SNodesCornerPositioning : public tf_SNodesPositioningBase
{
public:
  using tf_SNodesPositioningBase::tf_SNodesPositioningBase;
  int getMinimalDepth() const override { return 1; }
  int getMinNodeCoord(int) const override { return 0; }
  int getMaxNodeCoord(int) const override { return m_size; }
  double getBoxMargin() const override { return 0.25 / m_size; }
  int getNodeDepthEnd() const override { return m_depth + 1; }
  int getScaleFactor() const override { return 1; }
  int groupOffset(int) const override { return 0; }
};

/// Nodes on the centres of cells: with h = 1 << (s - 1),
/// (((x - h) >> s) + bit) * (1 << s) + h, the centres of the eight depth-d
/// cells nearest to the leaf cell.
class tf_SNodesCenterPositioning : public tf_SNodesPositioningBase
{
public:
  using tf_SNodesPositioningBase::tf_SNodesPositioningBase;
  int getMinimalDepth() const override { return 2; }
  int getMinNodeCoord(int d) const override { return -tf_pow2(m_depth - d - 1); }
  int getMaxNodeCoord(int d) const override { return tf_pow2(m_depth - d - 1) + m_size; }
  double getBoxMargin() const override { return 0.25 / (1 << m_depth); }
  int getNodeDepthEnd() const override { return m_depth; }
  int getScaleFactor() const override { return 2; }
  int groupOffset(int s) const override { return tf_pow2(s - 1); }
};

// ---------------------------------------------------------------------------
/// Lattice key to index, open addressing with linear probing. Used only while
/// the tree is built, where a million samples make tens of millions of
/// lookups: a sorted map would be far too slow there.
class tf_CInt3IndexMap
{
public:
  explicit tf_CInt3IndexMap(std::size_t expected) { reset(expected); }

  /// Empties the map for about `expected` keys, reusing the buffer where it
  /// is large enough: fresh pages would cost more than clearing old ones.
  void reset(std::size_t expected)
  {
    std::size_t capacity = 16;
    while (capacity < expected * 2)
      capacity <<= 1;
    if (capacity > m_slots.size())
      std::vector<Slot>(capacity, Slot{0, 0, 0, -1}).swap(m_slots);
    else
      std::fill(m_slots.begin(), m_slots.begin() + static_cast<std::ptrdiff_t>(capacity), Slot{0, 0, 0, -1});
    m_mask = capacity - 1;
    m_count = 0;
  }

  /// Starts loading the slot where the search for `key` begins: the tables
  /// are far larger than the caches, and a few loads in flight at once hide
  /// most of their latency.
  void prefetch(CInt3 const & key) const { __builtin_prefetch(&m_slots[hash(key) & m_mask]); }

  /// Stores `value` for `key` unless the key is present; true when stored.
  bool insert(CInt3 const & key, int value)
  {
    findOrInsert(key, value);
    return m_inserted;
  }

  /// The value stored for `key`, or `value` after storing it there.
  int findOrInsert(CInt3 const & key, int value)
  {
    if ((m_count + 1) * 2 > m_mask + 1)
      grow();
    std::size_t i = hash(key) & m_mask;
    while (m_slots[i].value != -1)
    {
      Slot const & s = m_slots[i];
      if (s.x == key.x() && s.y == key.y() && s.z == key.z())
      {
        m_inserted = false;
        return s.value;
      }
      i = (i + 1) & m_mask;
    }
    m_slots[i] = Slot{key.x(), key.y(), key.z(), value};
    ++m_count;
    m_inserted = true;
    return value;
  }

private:
  struct Slot
  {
    int x, y, z;
    int value; // -1: empty (stored values are indices, never negative)
  };

  static std::size_t hash(CInt3 const & k)
  {
    std::uint64_t h = static_cast<std::uint64_t>(static_cast<std::uint32_t>(k.x())) * 0x9E3779B97F4A7C15ull;
    h ^= static_cast<std::uint64_t>(static_cast<std::uint32_t>(k.y())) * 0xC2B2AE3D27D4EB4Full;
    h ^= static_cast<std::uint64_t>(static_cast<std::uint32_t>(k.z())) * 0x165667B19E3779F9ull;
    h ^= h >> 31;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 29;
    return static_cast<std::size_t>(h);
  }

  void grow()
  {
    std::size_t const oldCapacity = m_mask + 1;
    std::vector<Slot> old(m_slots.begin(), m_slots.begin() + static_cast<std::ptrdiff_t>(oldCapacity));
    reset(oldCapacity); // twice the capacity: reset sizes for half load
    for (Slot const & s : old)
    {
      if (s.value == -1)
        continue;
      std::size_t i = hash(CInt3(s.x, s.y, s.z)) & m_mask;
      while (m_slots[i].value != -1)
        i = (i + 1) & m_mask;
      m_slots[i] = s;
      ++m_count;
    }
  }

  std::vector<Slot> m_slots;
  std::size_t m_mask = 0;
  std::size_t m_count = 0;
  bool m_inserted = false;
};

struct tf_KeyLess
{
  bool operator()(SOctreeKeyIndex const & a, SOctreeKeyIndex const & b) const { return a.key < b.key; }
};

/// Sorts table entries by key. Where the keys pack into 64 bits, as
/// ((c - origin) >> shift) in `bits` bits per axis, x highest, an LSD radix
/// sort does it in a few linear passes: the node tables of a large tree are
/// millions of entries long. The packing keeps the lexicographic order, as
/// long as the coordinates less `origin` are multiples of 1 << shift.
void tf_sortByKey(std::vector<SOctreeKeyIndex> & v, int origin, int shift, int bits)
{
  if (3 * bits > 64)
  {
    std::sort(v.begin(), v.end(), tf_KeyLess());
    return;
  }
  struct Entry
  {
    std::uint64_t key;
    std::uint32_t pos;
  };
  std::size_t const n = v.size();
  std::vector<Entry> a(n), b(n);
  auto packed = [&](int c)
  { return static_cast<std::uint64_t>(static_cast<std::uint32_t>(c - origin) >> shift); };
  for (std::size_t i = 0; i < n; ++i)
  {
    CInt3 const & k = v[i].key;
    a[i] = Entry{(packed(k.x()) << (2 * bits)) | (packed(k.y()) << bits) | packed(k.z()),
                 static_cast<std::uint32_t>(i)};
  }
  int const digitBits = 11;
  std::size_t const buckets = std::size_t(1) << digitBits;
  std::vector<std::size_t> count(buckets);
  for (int low = 0; low < 3 * bits; low += digitBits)
  {
    std::fill(count.begin(), count.end(), 0);
    for (Entry const & e : a)
      ++count[(e.key >> low) & (buckets - 1)];
    std::size_t sum = 0;
    for (std::size_t & c : count)
    {
      std::size_t const here = c;
      c = sum;
      sum += here;
    }
    for (Entry const & e : a)
      b[count[(e.key >> low) & (buckets - 1)]++] = e;
    a.swap(b);
  }
  std::vector<SOctreeKeyIndex> sorted(n);
  for (std::size_t i = 0; i < n; ++i)
    sorted[i] = v[a[i].pos];
  v.swap(sorted);
}

/// The most cells or nodes a depth can hold: (2^d + extra)^3, saturated.
std::size_t tf_latticeCapacity(int d, int extra)
{
  double const perAxis = std::ldexp(1.0, d) + extra;
  double const all = perAxis * perAxis * perAxis;
  return all > 1e15 ? static_cast<std::size_t>(1e15) : static_cast<std::size_t>(all);
}
} // namespace

// ----------------------------------------------------------------------- CInt3

int CInt3::checkedIndex(int i)
{
  if (i < 0 || i > 2)
    throw VsUt::CTextException("CInt3::coordMod incorrect argument");
  return i;
}

// --------------------------------------------------------------------- COctree

COctree::COctree(IInputSamples const * samples, int depth, CProgressCounter * progress, bool useCenter,
                 int detalizationLevel)
    : m_boxMin{0.0, 0.0, 0.0}, m_boxMax{0.0, 0.0, 0.0}, m_depth(depth), m_size(0), m_samples(samples),
      m_unit(-1.0), m_boxSize(-1.0), m_progress(progress)
{
  // The depth is checked first: beyond MAX_DEPTH even `1 << depth` would overflow.
  int const minimalDepth = useCenter ? 2 : 1;
  if (depth < minimalDepth || depth > MAX_DEPTH)
    throw VsUt::CTextException(TF_BAD_DEPTH_TEXT);
  m_size = 1 << depth;

  int const top = depth - (useCenter ? 1 : 0);
  int const clamped = (detalizationLevel < 0 || detalizationLevel > top) ? top : detalizationLevel;
  int const nodeDepthBegin = top - clamped;
  if (useCenter)
    m_policy.reset(new tf_SNodesCenterPositioning(depth, nodeDepthBegin));
  else
    m_policy.reset(new tf_SNodesCornerPositioning(depth, nodeDepthBegin));
  if (depth < m_policy->getMinimalDepth())
    throw VsUt::CTextException(TF_BAD_DEPTH_TEXT);

  buildOctree();
}

COctree::~COctree() = default;

int COctree::getNodeDepthBegin() const { return m_policy->getNodeDepthBegin(); }
int COctree::getNodeDepthEnd() const { return m_policy->getNodeDepthEnd(); }

void COctree::buildOctree()
{
  m_sampleCells.clear();
  m_sortedCellStart.clear();
  m_sortedSamples.clear();
  m_sortedSampleCoords.clear();
  m_sortedCells.clear();
  m_cells.clear();
  m_sortedNodes.clear();
  m_sortedNodesStart.clear();
  m_nodes.clear();
  m_unit = m_boxSize = -1.0;
  std::fill(m_boxMin, m_boxMin + 3, 0.0);
  std::fill(m_boxMax, m_boxMax + 3, 0.0);

  int const n = m_samples ? std::max(0, m_samples->pointsNumber()) : 0;

  float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
  float hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
  {
    CPrgCntSubPhase phase(m_progress, 0, 10, 0, true);
    findBoundingBox(n, lo, hi);
  }
  if (n == 0)
  {
    // No sample: a tiny cube at the origin rather than one around FLT_MAX.
    std::fill(lo, lo + 3, 0.0f);
    std::fill(hi, hi + 3, 0.0f);
  }

  // Extents and centre in double: the float difference of two huge
  // coordinates could overflow.
  double extent = 1e-10;
  for (int a = 0; a < 3; ++a)
    extent = std::max(extent, static_cast<double>(hi[a]) - static_cast<double>(lo[a]));
  m_boxSize = (m_policy->getBoxMargin() + 1.0) * extent;
  for (int a = 0; a < 3; ++a)
  {
    double const centre = (static_cast<double>(lo[a]) + static_cast<double>(hi[a])) * 0.5;
    m_boxMin[a] = centre - m_boxSize * 0.5;
    m_boxMax[a] = centre + m_boxSize * 0.5;
  }
  m_unit = m_boxSize / m_size;

  CPrgCntSubPhase phase(m_progress, 10, 90, 0, true);
  insertSamples(n);
  buildNodes();
}

void COctree::findBoundingBox(int samplesNumber, float * lo, float * hi) const
{
  for (int i = 0; i < samplesNumber; ++i)
  {
    float const * p = m_samples->getSampleCoords3(i);
    if (!p)
      throw VsUt::CTextException("Sample " + std::to_string(i) +
                                 " has no coordinates in VolTr::COctree constructor");
    for (int a = 0; a < 3; ++a)
    {
      // A NaN would slip through every comparison below and an infinity would
      // make the cube infinite: both are refused here, before any building.
      if (!std::isfinite(p[a]))
        throw VsUt::CTextException("Sample " + std::to_string(i) +
                                   " has a non-finite coordinate in VolTr::COctree constructor");
      lo[a] = std::min(lo[a], p[a]);
      hi[a] = std::max(hi[a], p[a]);
    }
  }
}

double COctree::latticeCoordinate(int axis, double v) const
{
  if (axis < 0 || axis > 2)
    throw VsUt::CTextException("Incorrect axis in VolTr::COctree::latticeCoordinate");
  if (m_boxMax[axis] == m_boxMin[axis])
    return 0.0;
  return std::floor(m_size * (v - m_boxMin[axis]) / (m_boxMax[axis] - m_boxMin[axis]));
}

void COctree::insertSamples(int samplesNumber)
{
  int const cellsPerAxis = m_policy->getCellsPerAxis();
  m_sampleCells.reserve(static_cast<std::size_t>(samplesNumber));
  tf_CInt3IndexMap cellIndexes(std::min<std::size_t>(static_cast<std::size_t>(samplesNumber), 1u << 16));
  // Samples go in batches: their cells are computed and their lookups
  // prefetched first, then inserted in sample order.
  int const batch = 16;
  CInt3 batchCells[batch];
  for (int first = 0; first < samplesNumber; first += batch)
  {
    int const count = std::min(batch, samplesNumber - first);
    for (int j = 0; j < count; ++j)
    {
      int const i = first + j;
      if (m_progress)
        m_progress->SetPosFloat(static_cast<double>(i) / samplesNumber);
      float const * p = m_samples->getSampleCoords3(i);
      if (!p)
        throw VsUt::CTextException("Sample " + std::to_string(i) +
                                   " has no coordinates in VolTr::COctree constructor");
      int c[3];
      for (int a = 0; a < 3; ++a)
      {
        double const v = latticeCoordinate(a, p[a]);
        // Rounding can put a sample on the upper face of the cube; the margin
        // keeps all of them above the lower face, and the lower clamp only
        // guards against a source that changed its coordinates since.
        if (!(v >= 0.0))
          c[a] = 0;
        else if (v >= cellsPerAxis)
          c[a] = cellsPerAxis - 1;
        else
          c[a] = static_cast<int>(v);
      }
      batchCells[j] = CInt3(c);
      cellIndexes.prefetch(batchCells[j]);
    }
    for (int j = 0; j < count; ++j)
    {
      int const index = cellIndexes.findOrInsert(batchCells[j], static_cast<int>(m_cells.size()));
      if (index == static_cast<int>(m_cells.size()))
        m_cells.push_back(batchCells[j]);
      m_sampleCells.push_back(index);
    }
  }

  // The samples of each cell, in index order (a counting sort by cell).
  std::size_t const cellsNumber = m_cells.size();
  std::vector<int> cellStart(cellsNumber + 1, 0), cellSamples(m_sampleCells.size());
  for (int cell : m_sampleCells)
    ++cellStart[static_cast<std::size_t>(cell) + 1];
  for (std::size_t c = 0; c < cellsNumber; ++c)
    cellStart[c + 1] += cellStart[c];
  std::vector<int> cursor(cellStart.begin(), cellStart.end() - 1);
  for (std::size_t i = 0; i < m_sampleCells.size(); ++i)
    cellSamples[static_cast<std::size_t>(cursor[static_cast<std::size_t>(m_sampleCells[i])]++)] =
        static_cast<int>(i);

  m_sortedCells.resize(cellsNumber);
  for (std::size_t c = 0; c < cellsNumber; ++c)
    m_sortedCells[c] = SOctreeKeyIndex{m_cells[c], static_cast<int>(c)};
  tf_sortByKey(m_sortedCells, 0, 0, m_depth);

  // The same lists in the order of the sorted cells, with the coordinates.
  m_sortedCellStart.assign(cellsNumber + 1, 0);
  m_sortedSamples.resize(cellSamples.size());
  m_sortedSampleCoords.resize(3 * cellSamples.size());
  std::size_t at = 0;
  for (std::size_t s = 0; s < cellsNumber; ++s)
  {
    std::size_t const cell = static_cast<std::size_t>(m_sortedCells[s].index);
    for (int k = cellStart[cell]; k < cellStart[cell + 1]; ++k, ++at)
    {
      int const sample = cellSamples[static_cast<std::size_t>(k)];
      m_sortedSamples[at] = sample;
      float const * p = m_samples->getSampleCoords3(sample);
      for (int a = 0; a < 3; ++a)
        m_sortedSampleCoords[3 * at + static_cast<std::size_t>(a)] = p[a];
    }
    m_sortedCellStart[s + 1] = static_cast<int>(at);
  }
}

// Node indices follow the first touch: samples in index order, for each the
// depths upwards, for each depth the corners. The first sample of a node's
// first toucher cell comes first, and the first samples of cells grow with
// the cell index, so a node's index is fixed by the key (first cell touching
// it, depth, corner). The nodes of one depth are therefore found depth by
// depth, walking the cells in index order and each group once, and merged
// across depths by that key afterwards: the same indices as a sample-by-sample
// insertion, with a fraction of its lookups.
void COctree::buildNodes()
{
  int const begin = m_policy->getNodeDepthBegin();
  int const end = m_policy->getNodeDepthEnd();
  std::size_t const cellsNumber = m_cells.size();
  auto * const policy = static_cast<tf_SNodesPositioningBase const *>(m_policy.get());

  // Per depth: the nodes in the order of first touch, each with the index of
  // the first cell that touched it.
  std::vector<std::vector<SOctreeKeyIndex>> depthNodes(static_cast<std::size_t>(end));
  // The deepest depth first: it needs the largest tables, which the coarser
  // depths then reuse.
  {
    tf_CInt3IndexMap groups(0), nodes(0);
    for (int d = end - 1; d >= begin; --d)
    {
      int const s = m_depth - d;
      int const offset = policy->groupOffset(s);
      std::size_t const groupsBound = std::min(cellsNumber, tf_latticeCapacity(d, 1));
      groups.reset(groupsBound);
      nodes.reset(std::min(2 * groupsBound, tf_latticeCapacity(d, 2)));
      std::vector<SOctreeKeyIndex> & out = depthNodes[static_cast<std::size_t>(d)];
      out.reserve(groupsBound);
      // Cells go in batches whose lookups are prefetched first; the inserts
      // themselves stay in cell order.
      std::size_t const batch = 8;
      CInt3 batchGroups[batch];
      for (std::size_t first = 0; first < cellsNumber; first += batch)
      {
        std::size_t const count = std::min(batch, cellsNumber - first);
        for (std::size_t j = 0; j < count; ++j)
        {
          batchGroups[j] = tf_groupOfCell(m_cells[first + j], s, offset);
          groups.prefetch(batchGroups[j]);
        }
        for (std::size_t j = 0; j < count; ++j)
        {
          int const cell = static_cast<int>(first + j);
          CInt3 const & group = batchGroups[j];
          if (!groups.insert(group, cell))
            continue; // an earlier cell of the same group made all eight nodes
          CInt3 around[8];
          for (int corner = 0; corner < 8; ++corner)
          {
            around[corner] = tf_groupNode(group, s, offset, corner);
            nodes.prefetch(around[corner]);
          }
          for (int corner = 0; corner < 8; ++corner)
            if (nodes.insert(around[corner], cell))
              out.push_back(SOctreeKeyIndex{around[corner], cell});
        }
      }
    }
  } // the lookup tables go before the sorted ones are made

  std::size_t total = 0;
  for (auto const & v : depthNodes)
    total += v.size();
  m_nodes.reserve(total);
  std::vector<std::size_t> next(static_cast<std::size_t>(end), 0);
  for (std::size_t c = 0; c < cellsNumber; ++c)
    for (int d = begin; d < end; ++d)
    {
      std::vector<SOctreeKeyIndex> & v = depthNodes[static_cast<std::size_t>(d)];
      std::size_t & k = next[static_cast<std::size_t>(d)];
      for (; k < v.size() && v[k].index == static_cast<int>(c); ++k)
      {
        v[k].index = static_cast<int>(m_nodes.size());
        m_nodes.push_back(CTreeNode(d, v[k].key));
      }
    }
  buildSortedTables(depthNodes);
}

void COctree::buildSortedTables(std::vector<std::vector<SOctreeKeyIndex>> & depthNodes)
{
  int const end = m_policy->getNodeDepthEnd();
  m_sortedNodes.reserve(m_nodes.size());
  m_sortedNodesStart.assign(static_cast<std::size_t>(end) + 1, 0);
  for (int d = 0; d < end; ++d)
  {
    std::vector<SOctreeKeyIndex> & v = depthNodes[static_cast<std::size_t>(d)];
    // Node coordinates at depth d, less the smallest one, are multiples of
    // 1 << (depth - d) up to (2^d + 1) times that.
    tf_sortByKey(v, m_policy->getMinNodeCoord(d), m_depth - d, d + 2);
    m_sortedNodes.insert(m_sortedNodes.end(), v.begin(), v.end());
    std::vector<SOctreeKeyIndex>().swap(v);
    m_sortedNodesStart[static_cast<std::size_t>(d) + 1] = m_sortedNodes.size();
  }
}

std::vector<int> COctree::getNodesInLatticeOrder(int d) const
{
  std::vector<int> indices;
  if (d < getNodeDepthBegin() || d >= getNodeDepthEnd())
    return indices;
  for (SOctreeKeyIndex const * k = nodesOfDepthBegin(d); k != nodesOfDepthEnd(d); ++k)
    indices.push_back(k->index);
  return indices;
}

SOctreeKeyIndex const * COctree::nodesOfDepthBegin(int d) const
{
  return m_sortedNodes.data() + m_sortedNodesStart[static_cast<std::size_t>(d)];
}

SOctreeKeyIndex const * COctree::nodesOfDepthEnd(int d) const
{
  return m_sortedNodes.data() + m_sortedNodesStart[static_cast<std::size_t>(d) + 1];
}

CParallelepiped COctree::getCellBox(int cell) const
{
  CInt3 const c = getCellOffset(cell);
  double lo[3], hi[3];
  for (int a = 0; a < 3; ++a)
  {
    lo[a] = c.coord(a) * m_unit + m_boxMin[a];
    hi[a] = (c.coord(a) + 1) * m_unit + m_boxMin[a];
  }
  return CParallelepiped(lo, hi);
}

double COctree::getCellSize(int d) const
{
  // Equal to (1 << (depth - d)) * unit, and defined for any d.
  return std::ldexp(m_unit, m_depth - d);
}

void COctree::getNodeOffset(int node, int * out3) const
{
  CInt3 const & s = getNode(node).shift();
  out3[0] = s.x();
  out3[1] = s.y();
  out3[2] = s.z();
}

void COctree::getNodePosition(int node, double * out3) const
{
  cellCoordsToReal(out3, getNode(node).shift());
}

void COctree::cellCoordsToReal(double * out3, CInt3 const & c) const
{
  out3[0] = c.x() * m_unit + m_boxMin[0];
  out3[1] = c.y() * m_unit + m_boxMin[1];
  out3[2] = c.z() * m_unit + m_boxMin[2];
}

void COctree::getBoxCenter(double * out3) const
{
  for (int a = 0; a < 3; ++a)
    out3[a] = (m_boxMin[a] + m_boxMax[a]) * 0.5;
}

CParallelepiped COctree::getCellsBoundaryBox() const { return CParallelepiped(m_boxMin, m_boxMax); }

CParallelepiped COctree::getNodesBoundaryBox() const
{
  int const d = getNodeDepthBegin();
  int const lo = m_policy->getMinNodeCoord(d);
  int const hi = m_policy->getMaxNodeCoord(d);
  double min[3], max[3];
  for (int a = 0; a < 3; ++a)
  {
    min[a] = lo * m_unit + m_boxMin[a];
    max[a] = hi * m_unit + m_boxMin[a];
  }
  return CParallelepiped(min, max);
}

CTreeNode COctree::makeCellNode(int d, int cell, int corner) const
{
  CInt3 const c = getCellOffset(cell);
  CTreeNode n;
  m_policy->makeCellNode(&n, d, &c, corner);
  return n;
}

CParallelepiped COctree::getBoxOnNbrNodes(int cell, int d) const
{
  CTreeNode const n = makeCellNode(d, cell, 0);
  double const edge = getCellSize(d);
  double min[3], max[3];
  cellCoordsToReal(min, n.shift());
  for (int a = 0; a < 3; ++a)
    max[a] = min[a] + edge;
  return CParallelepiped(min, max);
}

bool COctree::isInLeafCell(double const * p) const
{
  int c[3];
  for (int a = 0; a < 3; ++a)
  {
    double const v = latticeCoordinate(a, p[a]);
    if (!(v >= 0.0 && v < m_size))
      return false; // also NaN: no cell lies there
    c[a] = static_cast<int>(v);
  }
  SOctreeKeyIndex const probe{CInt3(c), 0};
  auto const it = std::lower_bound(m_sortedCells.begin(), m_sortedCells.end(), probe, tf_KeyLess());
  return it != m_sortedCells.end() && it->key == probe.key;
}
} // namespace VolTr
