#pragma once
// Walks over the octree: the nodes of one depth in a box, the nodes around a
// cell, the samples of the cells a box touches.
//
// All of them rest on the sorted order of the tree's tables (lexicographic in
// x, y, z inside a depth) and move by a skip scan: an entry outside the box
// sends the walk to the next place where an entry inside could stand, with
// one logarithmic seek, so a run of entries outside costs one seek and not a
// visit of each. Iterators hold no heap memory, are copyable, belong to one
// thread, and must not outlive their octree.

#include "QZmath/VolTriang/Octree.h"

namespace VolTr
{
class IInputSamples;

/// The nodes of depth d whose coordinates lie in a closed lattice range, in
/// sorted order.
class COctreeNodeIteratorBase
{
public:
  virtual ~COctreeNodeIteratorBase() = default;

  bool isFinished() const { return m_currentNode == -1; }
  void next();
  /// The index of the current node, -1 when finished.
  int currentNodeIndex() const { return m_currentNode; }
  /// The lattice coordinates of the current node (not finished): read from
  /// the walk's own table, which spares a look into the node table.
  CInt3 const & currentNodeShift() const { return m_pos->key; }

protected:
  COctreeNodeIteratorBase(COctree const * octree, CInt3 const & lo, CInt3 const & hi, int d);

private:
  void moveInsideBoxAndToTreeNode();

  COctree const * m_octree;
  CTreeNode m_lower;
  CTreeNode m_upper;
  SOctreeKeyIndex const * m_pos;
  SOctreeKeyIndex const * m_end;
  int m_currentNode;
  int m_step;
};

/// The nodes of depth d that stand in a box (extended by one lattice step on
/// the upper side).
class COctreeInBoxNodeIterator : public COctreeNodeIteratorBase
{
public:
  COctreeInBoxNodeIterator(COctree const * octree, CParallelepiped const & box, int d);
};

/// The up to eight nodes of depth d around a leaf cell.
class COctreeNeighborNodeIterator : public COctreeNodeIteratorBase
{
public:
  COctreeNeighborNodeIterator(COctree const * octree, int cell, int d);
};

/// The shift from the first node around a cell to the opposite one at depth d:
/// 1 << (depth - d) on all axes.
CInt3 nodeShiftToNeighbor(COctree const * octree, int d);

/// The samples of the leaf cells that a box touches, cell by cell in sorted
/// order and inside a cell by index. The samples themselves may lie outside
/// the box: the caller tests them.
class CSamplePointsIteratorInBox
{
public:
  /// `maxSamplesPerCell` above 0 stops after that many samples of one cell.
  CSamplePointsIteratorInBox(IInputSamples const & samples, COctree const & octree,
                             CParallelepiped const & box, int maxSamplesPerCell);
  virtual ~CSamplePointsIteratorInBox() = default;

  bool isFinished() const { return m_cellPos == m_end; }
  void next();
  /// The current sample's coordinates, converted to double.
  double const * operator*() const { return m_coords; }
  /// The current sample's index, -1 when finished.
  int currentSampleIndex() const;
  /// The current cell's lattice coordinates, a default CInt3 when finished.
  CInt3 currCellIntCoord() const;

private:
  void enterCell();
  void fetchCoords();

  IInputSamples const * m_samples;
  COctree const * m_octree;
  double m_coords[3];
  CInt3 m_lo;
  CInt3 m_hi;
  SOctreeKeyIndex const * m_cellPos;
  int const * m_samplePos;
  int const * m_sampleEnd;
  SOctreeKeyIndex const * m_end;
  int m_limit;
  int m_countInCell;
};
} // namespace VolTr
