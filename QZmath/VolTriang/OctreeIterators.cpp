#include "QZmath/VolTriang/OctreeIterators.h"

#include <algorithm>
#include <cmath>

#include "QZmath/VolTriang/VolumetricTriangulator.h"

namespace VolTr
{
namespace
{
bool tf_keyLess(SOctreeKeyIndex const & a, SOctreeKeyIndex const & b) { return a.key < b.key; }

/// A lattice coordinate from a double, saturated far outside every lattice
/// (so that the conversion is defined) but not clamped to it. NaN becomes
/// `nanValue`.
int tf_toLattice(double v, int nanValue)
{
  double const limit = 1 << 30;
  if (std::isnan(v))
    return nanValue;
  return static_cast<int>(std::max(-limit, std::min(limit, v)));
}

/// lower_bound by galloping from `pos`: the next entry in a box is usually a
/// few entries on, so the search doubles its step from there before it bisects.
SOctreeKeyIndex const * tf_gallopLowerBound(SOctreeKeyIndex const * pos, SOctreeKeyIndex const * end,
                                            SOctreeKeyIndex const & probe)
{
  std::ptrdiff_t step = 1;
  SOctreeKeyIndex const * lo = pos;
  while (lo != end && tf_keyLess(*lo, probe))
  {
    std::ptrdiff_t const left = end - lo;
    if (step >= left)
      return std::lower_bound(lo, end, probe, tf_keyLess);
    if (!tf_keyLess(lo[step], probe))
      return std::lower_bound(lo + 1, lo + step + 1, probe, tf_keyLess);
    lo += step;
    step *= 2;
  }
  return lo;
}

/// The skip scan over a sorted table. From `pos`, finds the first entry whose
/// key lies in the closed range lo..hi (coordinates on multiples of `step`),
/// or `end`. An entry outside moves the search to the next key where an entry
/// inside could stand, by one seek; that key is always greater than the
/// entry's, so the seek starts at `pos`.
SOctreeKeyIndex const * tf_seekInside(SOctreeKeyIndex const * pos, SOctreeKeyIndex const * end,
                                      CInt3 const & lo, CInt3 const & hi, int step)
{
  while (pos != end)
  {
    int x = pos->key.x(), y = pos->key.y(), z = pos->key.z();
    bool changed = false;
    if (z < lo.z())
    {
      z = lo.z();
      changed = true;
    }
    if (z > hi.z())
    {
      y += step;
      z = lo.z();
      changed = true;
    }
    if (y < lo.y())
    {
      y = lo.y();
      z = lo.z();
      changed = true;
    }
    if (y > hi.y())
    {
      x += step;
      y = lo.y();
      z = lo.z();
      changed = true;
    }
    if (x < lo.x())
    {
      x = lo.x();
      y = lo.y();
      z = lo.z();
      changed = true;
    }
    if (x > hi.x())
      return end;
    if (!changed)
      return pos;
    SOctreeKeyIndex const probe{CInt3(x, y, z), 0};
    pos = tf_gallopLowerBound(pos, end, probe);
  }
  return end;
}

/// A corner of a query box in lattice coordinates, plus `add` on each axis.
CInt3 tf_boxCorner(COctree const * octree, double const * p, int add, int nanValue);
} // namespace

// ----------------------------------------------------- COctreeNodeIteratorBase

COctreeNodeIteratorBase::COctreeNodeIteratorBase(COctree const * octree, CInt3 const & lo, CInt3 const & hi,
                                                 int d)
    : m_octree(octree), m_lower(d, lo), m_upper(d, hi), m_pos(nullptr), m_end(nullptr), m_currentNode(-1),
      m_step(1)
{
  // A depth without nodes, including one the policy cannot place, gives nothing.
  if (!octree || d < octree->getNodeDepthBegin() || d >= octree->getNodeDepthEnd())
    return;
  m_step = 1 << (octree->getNodeDepthEnd() - d - 1);
  INodesPositioningPolicy const & policy = octree->getPositioningPolicy();
  int const minCoord = policy.getMinNodeCoord(d);
  int const maxCoord = policy.getMaxNodeCoord(d);
  for (int a = 0; a < 3; ++a)
  {
    // The range is cut to the node range: a lower end above it, or an upper
    // end below it, leaves the range empty. (Kept within one step of the node
    // range so that the snapping below cannot overflow.)
    int const l = std::max(minCoord, std::min(maxCoord + m_step, lo.coord(a)));
    int const h = std::min(maxCoord, std::max(minCoord - m_step, hi.coord(a)));
    m_lower.shiftRefMod().coordMod(a) = static_cast<int>(std::ceil(static_cast<double>(l) / m_step)) * m_step;
    m_upper.shiftRefMod().coordMod(a) =
        static_cast<int>(std::floor(static_cast<double>(h) / m_step)) * m_step;
  }
  if (m_upper < m_lower)
    return;
  SOctreeKeyIndex const * const begin = octree->nodesOfDepthBegin(d);
  SOctreeKeyIndex const * const end = octree->nodesOfDepthEnd(d);
  SOctreeKeyIndex const lower{m_lower.shift(), 0};
  SOctreeKeyIndex const upper{m_upper.shift(), 0};
  m_pos = std::lower_bound(begin, end, lower, tf_keyLess);
  if (m_pos == end)
  {
    m_pos = nullptr;
    return;
  }
  m_end = std::upper_bound(m_pos, end, upper, tf_keyLess);
  moveInsideBoxAndToTreeNode();
}

void COctreeNodeIteratorBase::moveInsideBoxAndToTreeNode()
{
  m_pos = tf_seekInside(m_pos, m_end, m_lower.shift(), m_upper.shift(), m_step);
  m_currentNode = m_pos != m_end ? m_pos->index : -1;
}

void COctreeNodeIteratorBase::next()
{
  if (isFinished())
    return;
  ++m_pos;
  m_currentNode = -1;
  moveInsideBoxAndToTreeNode();
}

// ---------------------------------------------------- COctreeInBoxNodeIterator

namespace
{
CInt3 tf_boxCorner(COctree const * octree, double const * p, int add, int nanValue)
{
  int c[3];
  for (int a = 0; a < 3; ++a)
  {
    c[a] = tf_toLattice(octree->latticeCoordinate(a, p[a]) + add, nanValue);
  }
  return CInt3(c);
}

CInt3 tf_inBoxLower(COctree const * octree, CParallelepiped const & box)
{
  return octree ? tf_boxCorner(octree, box.getMin(), 0, 1 << 30) : CInt3();
}

CInt3 tf_inBoxUpper(COctree const * octree, CParallelepiped const & box)
{
  return octree ? tf_boxCorner(octree, box.getMax(), 1, -(1 << 30)) : CInt3();
}

/// The first node around a cell at depth d; nothing to find when the depth
/// carries no nodes.
CInt3 tf_neighborLower(COctree const * octree, int cell, int d)
{
  if (!octree || d < octree->getNodeDepthBegin() || d >= octree->getNodeDepthEnd())
    return CInt3();
  return octree->makeCellNode(d, cell, 0).shift();
}
} // namespace

COctreeInBoxNodeIterator::COctreeInBoxNodeIterator(COctree const * octree, CParallelepiped const & box, int d)
    : COctreeNodeIteratorBase(octree, tf_inBoxLower(octree, box), tf_inBoxUpper(octree, box), d)
{
}

// ------------------------------------------------- COctreeNeighborNodeIterator

CInt3 nodeShiftToNeighbor(COctree const * octree, int d)
{
  int const k = octree->getLeafCellDepth() - d;
  int const shift = k < 0 ? 0 : (1 << k);
  return CInt3(shift, shift, shift);
}

COctreeNeighborNodeIterator::COctreeNeighborNodeIterator(COctree const * octree, int cell, int d)
    : COctreeNodeIteratorBase(
          octree, tf_neighborLower(octree, cell, d),
          tf_neighborLower(octree, cell, d) + (octree ? nodeShiftToNeighbor(octree, d) : CInt3()), d)
{
}

// -------------------------------------------------- CSamplePointsIteratorInBox

CSamplePointsIteratorInBox::CSamplePointsIteratorInBox(IInputSamples const & samples, COctree const & octree,
                                                       CParallelepiped const & box, int maxSamplesPerCell)
    : m_samples(&samples), m_octree(&octree), m_coords{0.0, 0.0, 0.0}, m_cellPos(nullptr),
      m_samplePos(nullptr), m_sampleEnd(nullptr), m_end(nullptr), m_limit(maxSamplesPerCell), m_countInCell(0)
{
  for (int a = 0; a < 3; ++a)
    if (std::isnan(box.getMin()[a]) || std::isnan(box.getMax()[a]))
      return; // no cell range to speak of
  INodesPositioningPolicy const & policy = octree.getPositioningPolicy();
  int const minCell = policy.getMinCellCoord();
  int const maxCell = policy.getCellsPerAxis() - 1;
  m_lo = tf_boxCorner(&octree, box.getMin(), 0, 0);
  m_hi = tf_boxCorner(&octree, box.getMax(), 0, 0);
  for (int a = 0; a < 3; ++a)
  {
    m_lo.coordMod(a) = std::max(minCell, std::min(maxCell, m_lo.coord(a)));
    m_hi.coordMod(a) = std::max(minCell, std::min(maxCell, m_hi.coord(a)));
    if (m_lo.coord(a) > m_hi.coord(a))
      return; // an empty box
  }
  SOctreeKeyIndex const * const begin = octree.m_sortedCells.data();
  SOctreeKeyIndex const * const end = begin + octree.m_sortedCells.size();
  m_cellPos = std::lower_bound(begin, end, SOctreeKeyIndex{m_lo, 0}, tf_keyLess);
  m_end = std::upper_bound(m_cellPos, end, SOctreeKeyIndex{m_hi, 0}, tf_keyLess);
  m_cellPos = tf_seekInside(m_cellPos, m_end, m_lo, m_hi, 1);
  if (m_cellPos != m_end)
    enterCell();
}

void CSamplePointsIteratorInBox::enterCell()
{
  std::size_t const s = static_cast<std::size_t>(m_cellPos - m_octree->m_sortedCells.data());
  int const * const all = m_octree->m_sortedSamples.data();
  m_samplePos = all + m_octree->m_sortedCellStart[s];
  m_sampleEnd = all + m_octree->m_sortedCellStart[s + 1];
  m_countInCell = 0;
  fetchCoords();
}

void CSamplePointsIteratorInBox::fetchCoords()
{
  // The tree's copy when the samples are the tree's own, read in order.
  if (m_samples == m_octree->m_samples)
  {
    float const * p =
        &m_octree->m_sortedSampleCoords[3 * static_cast<std::size_t>(m_samplePos -
                                                                     m_octree->m_sortedSamples.data())];
    for (int a = 0; a < 3; ++a)
      m_coords[a] = static_cast<double>(p[a]);
    return;
  }
  float const * p = m_samples->getSampleCoords3(*m_samplePos);
  for (int a = 0; a < 3; ++a)
    m_coords[a] = p ? static_cast<double>(p[a]) : 0.0;
}

void CSamplePointsIteratorInBox::next()
{
  if (isFinished())
    return;
  ++m_samplePos;
  ++m_countInCell;
  if (m_limit > 0 && m_countInCell >= m_limit)
    m_samplePos = m_sampleEnd;
  if (m_samplePos != m_sampleEnd)
  {
    fetchCoords();
    return;
  }
  m_cellPos = tf_seekInside(m_cellPos + 1, m_end, m_lo, m_hi, 1);
  if (m_cellPos != m_end)
    enterCell();
}

int CSamplePointsIteratorInBox::currentSampleIndex() const { return isFinished() ? -1 : *m_samplePos; }

CInt3 CSamplePointsIteratorInBox::currCellIntCoord() const { return isFinished() ? CInt3() : m_cellPos->key; }
} // namespace VolTr
