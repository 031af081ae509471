#pragma once
// The octree of the reconstruction: samples sorted into the cells of a virtual
// lattice of `1 << depth` steps per axis, and the nodes (lattice positions at a
// range of depths) on which the kernels of the basis stand.
//
// The tree is never a tree of pointers. Every coordinate, of a cell or of a
// node at any depth, is an integer in units of the finest lattice step, and a
// walk through the tree is a seek in sorted tables keyed by those integers.
// Node indices are the unknowns of the reconstruction system, so they are a
// fact of the system: a node gets the next index when a sample first touches it.

#include <memory>
#include <vector>

#include "QZmath/VolTriang/Parallelepiped.h"

class CProgressCounter;

namespace VolTr
{
class IInputSamples;

/// Integer lattice coordinates x, y, z. A default one reads (-1, -1, -1).
class CInt3
{
public:
  CInt3() : m_v{-1, -1, -1} {}
  CInt3(int x, int y, int z) : m_v{x, y, z} {}
  explicit CInt3(int const * p) : m_v{p[0], p[1], p[2]} {}

  int x() const { return m_v[0]; }
  int y() const { return m_v[1]; }
  int z() const { return m_v[2]; }
  /// Throws std::exception "CInt3::coordMod incorrect argument" unless i is 0, 1 or 2.
  int coord(int i) const { return m_v[checkedIndex(i)]; }

  int & xMod() { return m_v[0]; }
  int & yMod() { return m_v[1]; }
  int & zMod() { return m_v[2]; }
  /// Throws std::exception "CInt3::coordMod incorrect argument" unless i is 0, 1 or 2.
  int & coordMod(int i) { return m_v[checkedIndex(i)]; }

private:
  static int checkedIndex(int i);
  int m_v[3];
};

inline bool operator==(CInt3 const & a, CInt3 const & b)
{
  return a.x() == b.x() && a.y() == b.y() && a.z() == b.z();
}
/// Lexicographic in x, y, z.
inline bool operator<(CInt3 const & a, CInt3 const & b)
{
  if (a.x() != b.x())
    return a.x() < b.x();
  if (a.y() != b.y())
    return a.y() < b.y();
  return a.z() < b.z();
}
inline CInt3 operator+(CInt3 const & a, CInt3 const & b)
{
  return CInt3(a.x() + b.x(), a.y() + b.y(), a.z() + b.z());
}
inline CInt3 & operator+=(CInt3 & a, CInt3 const & b)
{
  a.xMod() += b.x();
  a.yMod() += b.y();
  a.zMod() += b.z();
  return a;
}
inline CInt3 & operator-=(CInt3 & a, CInt3 const & b)
{
  a.xMod() -= b.x();
  a.yMod() -= b.y();
  a.zMod() -= b.z();
  return a;
}

/// A node: its depth and its lattice coordinates (in finest steps).
class CTreeNode
{
public:
  CTreeNode() : m_depth(-1) {}
  CTreeNode(int depth, CInt3 const & shift) : m_depth(depth), m_shift(shift) {}

  int depth() const { return m_depth; }
  int & depthRefMod() { return m_depth; }
  CInt3 const & shift() const { return m_shift; }
  CInt3 & shiftRefMod() { return m_shift; }

private:
  int m_depth;
  CInt3 m_shift;
};

/// Lexicographic in depth, x, y, z: the nodes of one depth are contiguous, and
/// inside a depth so are those of one x plane and of one y line.
inline bool operator<(CTreeNode const & a, CTreeNode const & b)
{
  if (a.depth() != b.depth())
    return a.depth() < b.depth();
  return a.shift() < b.shift();
}
inline bool operator==(CTreeNode const & a, CTreeNode const & b)
{
  return a.depth() == b.depth() && a.shift() == b.shift();
}

/// Where the nodes of a tree stand: on the corners of cells or on their centres.
/// The two implementations are private to the octree; `COctree` chooses one.
class INodesPositioningPolicy
{
public:
  virtual ~INodesPositioningPolicy() = default;
  /// The smallest tree depth the policy can work with.
  virtual int getMinimalDepth() const = 0;
  /// The range of node coordinates at depth d, closed on both sides.
  virtual int getMinNodeCoord(int d) const = 0;
  virtual int getMaxNodeCoord(int d) const = 0;
  /// Relative enlargement of the tree cube over the samples' bounding box.
  virtual double getBoxMargin() const = 0;
  virtual int getMinCellCoord() const = 0;
  virtual int getCellsPerAxis() const = 0;
  /// The half-open range of depths that carry nodes.
  virtual int getNodeDepthBegin() const = 0;
  virtual int getNodeDepthEnd() const = 0;
  virtual int getNodesPerCell() const = 0;
  /// One of the eight nodes around a leaf cell at depth d; bit 0 of `corner`
  /// steps along x, bit 1 along y, bit 2 along z. A depth outside the node
  /// depths throws std::exception.
  virtual void makeCellNode(CTreeNode * out, int d, CInt3 const * cell, int corner) const = 0;
  virtual int getScaleFactor() const = 0;

protected:
  INodesPositioningPolicy() = default;
  INodesPositioningPolicy(INodesPositioningPolicy const &) = default;
  INodesPositioningPolicy & operator=(INodesPositioningPolicy const &) = default;
};

/// One entry of a sorted lookup table of the tree: a lattice key and the index
/// of the cell or node it names.
struct SOctreeKeyIndex
{
  CInt3 key;
  int index;
};

class COctree
{
public:
  static constexpr bool DEFAULT_CENTER_USAGE = false;
  /// Depths above this one would overflow the integer lattice coordinates.
  static constexpr int MAX_DEPTH = 29;

  /// Builds the tree at once. A depth below the policy's minimum (2 with
  /// centre positioning, 1 with corner positioning) or above MAX_DEPTH throws
  /// std::exception "Incorrect tree depth detected in VolTr::COctree
  /// constructor" before any sample is read; a sample with a NaN or infinite
  /// coordinate throws std::exception naming the sample. A null `samples` is
  /// an empty cloud. `progress` may be null.
  COctree(IInputSamples const * samples, int depth, CProgressCounter * progress, bool useCenter,
          int detalizationLevel);
  virtual ~COctree();
  COctree(COctree const &) = delete;
  COctree & operator=(COctree const &) = delete;

  static int getScaleFactor() { return 2; }

  int getLeafCellDepth() const { return m_depth; }
  int getNodeDepthBegin() const;
  int getNodeDepthEnd() const;
  bool isUniform() const { return getNodeDepthEnd() - getNodeDepthBegin() < 2; }

  int getNodesNumber() const { return static_cast<int>(m_nodes.size()); }
  int getCellsNumberOnDeepestLevel() const { return static_cast<int>(m_cells.size()); }
  int getSamplesNumber() const { return static_cast<int>(m_sampleCells.size()); }

  /// Takes a sample index (despite the name) and returns the index of its cell.
  int getCellByCoordinates(int sample) const { return m_sampleCells.at(static_cast<std::size_t>(sample)); }
  CInt3 getCellOffset(int cell) const { return m_cells.at(static_cast<std::size_t>(cell)); }
  CParallelepiped getCellBox(int cell) const;
  /// Edge of a cell of depth d: (1 << (depth - d)) * unit.
  double getCellSize(int d) const;

  int getNodeDepth(int node) const { return m_nodes.at(static_cast<std::size_t>(node)).depth(); }
  void getNodeOffset(int node, int * out3) const;
  CTreeNode const & getNode(int node) const { return m_nodes.at(static_cast<std::size_t>(node)); }
  /// The node table, in index order.
  std::vector<CTreeNode> const & getNodesTable() const { return m_nodes; }
  /// The indices of the nodes of depth d in lattice order (x, then y, then
  /// z ascending); none for a depth without nodes.
  std::vector<int> getNodesInLatticeOrder(int d) const;
  void getNodePosition(int node, double * out3) const;
  void cellCoordsToReal(double * out3, CInt3 const & c) const;

  void getBoxCenter(double * out3) const;
  double const * getBoxMin() const { return m_boxMin; }
  double const * getBoxMax() const { return m_boxMax; }
  /// The finest lattice step and the edge of the cube.
  double getUnit() const { return m_unit; }
  double getBoxSize() const { return m_boxSize; }
  /// Lattice steps per axis, 1 << depth.
  int getLatticeSize() const { return m_size; }

  CParallelepiped getCellsBoundaryBox() const;
  CParallelepiped getNodesBoundaryBox() const;
  /// The box spanned by the eight nodes around the cell at depth d.
  CParallelepiped getBoxOnNbrNodes(int cell, int d) const;
  bool isInLeafCell(double const * p) const;

  INodesPositioningPolicy const & getPositioningPolicy() const { return *m_policy; }
  CTreeNode makeCellNode(int d, int cell, int corner) const;

  /// Lattice coordinate along `axis` (0, 1 or 2) of a model coordinate:
  /// floor(size * (v - boxMin) / (boxMax - boxMin)), 0 when the extent is 0.
  /// Not clamped, and NaN for a NaN argument. Another axis throws std::exception.
  double latticeCoordinate(int axis, double v) const;

private:
  friend class COctreeNodeIteratorBase;
  friend class CSamplePointsIteratorInBox;

  void buildOctree();
  void findBoundingBox(int samplesNumber, float * lo, float * hi) const;
  void insertSamples(int samplesNumber);
  void buildNodes();
  void buildSortedTables(std::vector<std::vector<SOctreeKeyIndex>> & depthNodes);

  /// The sorted node table of depth d: keys ascending, one entry per node.
  SOctreeKeyIndex const * nodesOfDepthBegin(int d) const;
  SOctreeKeyIndex const * nodesOfDepthEnd(int d) const;

  double m_boxMin[3];
  double m_boxMax[3];
  int m_depth;
  int m_size;
  /// For each sample in index order, the index of its cell.
  std::vector<int> m_sampleCells;
  /// The samples cell by cell in the order of m_sortedCells, in index order
  /// within a cell, with their coordinates: the cell at m_sortedCells[s] has
  /// entries m_sortedCellStart[s] .. m_sortedCellStart[s + 1]. Walks over a
  /// box read them front to back instead of jumping through the source.
  std::vector<int> m_sortedCellStart;
  std::vector<int> m_sortedSamples;
  std::vector<float> m_sortedSampleCoords;
  /// Leaf cells sorted by coordinates, each with its index.
  std::vector<SOctreeKeyIndex> m_sortedCells;
  /// Leaf cells in the order of first use.
  std::vector<CInt3> m_cells;
  /// Nodes sorted by (depth, coordinates), each with its index; the nodes of
  /// depth d start at m_sortedNodesStart[d].
  std::vector<SOctreeKeyIndex> m_sortedNodes;
  std::vector<std::size_t> m_sortedNodesStart;
  /// Nodes in the order of first use.
  std::vector<CTreeNode> m_nodes;
  IInputSamples const * m_samples;
  double m_unit;
  double m_boxSize;
  CProgressCounter * m_progress;
  std::unique_ptr<INodesPositioningPolicy> m_policy;
};
} // namespace VolTr

#include "QZmath/VolTriang/OctreeIterators.h"
