// The octree against a brute-force reference: a literal sample-by-sample
// build over sorted maps, and iterators checked against full scans.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "QZmath/VolTriang/Octree.h"
#include "tests/Common/Checks.h"
#include "tests/Common/SampleClouds.h"

using namespace VolTr;
using QZTest::CSampleCloud;
using QZTest::whatOf;

namespace
{
template <class T> std::vector<double> v3(T const * p) { return {double(p[0]), double(p[1]), double(p[2])}; }

/// The tree built the slow way: one sample at a time, every node of every
/// sample looked up in ordered maps.
struct RefOctree
{
  bool center;
  int depth, size, nodeDepthBegin, nodeDepthEnd;
  double boxMin[3], boxMax[3];
  std::vector<int> sampleCells;
  std::multimap<CInt3, int> cellSamples;
  std::map<CInt3, int> cellIndexes;
  std::vector<CInt3> cells;
  std::map<CTreeNode, int> nodeIndexes;
  std::vector<CTreeNode> nodes;

  RefOctree(CSampleCloud const & cloud, int depth_, bool useCenter, int detalization)
      : center(useCenter), depth(depth_), size(1 << depth_)
  {
    int const top = depth - (center ? 1 : 0);
    nodeDepthBegin = (detalization < 0 || detalization > top) ? 0 : top - detalization;
    nodeDepthEnd = center ? depth : depth + 1;

    int const n = cloud.pointsNumber();
    float lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    for (int i = 0; i < n; ++i)
      for (int a = 0; a < 3; ++a)
      {
        float const v = cloud.getSampleCoords3(i)[a];
        lo[a] = i == 0 ? v : std::min(lo[a], v);
        hi[a] = i == 0 ? v : std::max(hi[a], v);
      }
    double extent = 1e-10;
    for (int a = 0; a < 3; ++a)
      extent = std::max(extent, double(hi[a]) - double(lo[a]));
    double const boxSize = (0.25 / size + 1.0) * extent;
    for (int a = 0; a < 3; ++a)
    {
      boxMin[a] = (double(lo[a]) + double(hi[a])) * 0.5 - boxSize * 0.5;
      boxMax[a] = (double(lo[a]) + double(hi[a])) * 0.5 + boxSize * 0.5;
    }
    for (int i = 0; i < n; ++i)
      insertPoint(i, cloud.getSampleCoords3(i));
  }

  double lattice(int a, double v) const
  {
    return boxMax[a] == boxMin[a] ? 0.0 : std::floor(size * (v - boxMin[a]) / (boxMax[a] - boxMin[a]));
  }

  CTreeNode makeCellNode(int d, CInt3 const & c, int corner) const
  {
    int out[3];
    int const s = depth - d;
    for (int a = 0; a < 3; ++a)
    {
      // Centre nodes sit half a cell of their depth off the corner lattice.
      int const h = center ? 1 << (s - 1) : 0;
      out[a] = (((c.coord(a) - h) >> s) + ((corner >> a) & 1)) * (1 << s) + h;
    }
    return CTreeNode(d, CInt3(out));
  }

  void insertPoint(int sample, float const * p)
  {
    int c[3];
    for (int a = 0; a < 3; ++a)
    {
      double const v = lattice(a, p[a]);
      c[a] = v >= size ? size - 1 : int(v);
    }
    CInt3 const cell(c);
    auto const known = cellIndexes.emplace(cell, int(cells.size()));
    if (known.second)
      cells.push_back(cell);
    sampleCells.push_back(known.first->second);
    cellSamples.emplace(cell, sample);
    for (int d = nodeDepthBegin; d < nodeDepthEnd; ++d)
      for (int corner = 0; corner < 8; ++corner)
      {
        CTreeNode const node = makeCellNode(d, cell, corner);
        if (nodeIndexes.emplace(node, int(nodes.size())).second)
          nodes.push_back(node);
      }
  }

  /// Full scan: the nodes of depth d inside the lattice range of a box (a box
  /// beyond the tree meets no node).
  std::vector<int> nodesInBox(CParallelepiped const & box, int d) const
  {
    std::vector<int> out;
    for (auto const & e : nodeIndexes)
    {
      if (e.first.depth() != d)
        continue;
      bool inside = true;
      for (int a = 0; a < 3; ++a)
      {
        double const c = e.first.shift().coord(a);
        inside = inside && c >= lattice(a, box.getMin()[a]) && c <= lattice(a, box.getMax()[a]) + 1;
      }
      if (inside)
        out.push_back(e.second);
    }
    return out;
  }

  /// Full scan: the samples of the cells a box touches, at most `limit` a cell.
  std::vector<int> samplesInBox(CParallelepiped const & box, int limit) const
  {
    double lo[3], hi[3];
    for (int a = 0; a < 3; ++a)
    {
      lo[a] = std::max(0.0, std::min(size - 1.0, lattice(a, box.getMin()[a])));
      hi[a] = std::max(0.0, std::min(size - 1.0, lattice(a, box.getMax()[a])));
    }
    std::vector<int> out;
    CInt3 cell;
    int count = 0;
    for (auto const & e : cellSamples)
    {
      bool inside = true;
      for (int a = 0; a < 3; ++a)
        inside = inside && e.first.coord(a) >= lo[a] && e.first.coord(a) <= hi[a];
      if (!inside)
        continue;
      count = e.first == cell ? count + 1 : 1;
      cell = e.first;
      if (limit <= 0 || count <= limit)
        out.push_back(e.second);
    }
    return out;
  }
};

std::vector<int> walk(COctreeNodeIteratorBase it)
{
  std::vector<int> out;
  for (; !it.isFinished(); it.next())
    out.push_back(it.currentNodeIndex());
  return out;
}

std::vector<int> walkSamples(CSampleCloud const & cloud, COctree const & tree, CParallelepiped const & box,
                             int limit)
{
  std::vector<int> out;
  for (CSamplePointsIteratorInBox it(cloud, tree, box, limit); !it.isFinished(); it.next())
  {
    int const s = it.currentSampleIndex();
    out.push_back(s);
    // The coordinates and the cell reported belong to the current sample.
    EXPECT_EQ(v3(*it), v3(cloud.getSampleCoords3(s)));
    EXPECT_EQ(it.currCellIntCoord(), tree.getCellOffset(tree.getCellByCoordinates(s)));
  }
  return out;
}

/// Query boxes: random ones around the nodes' box, and the special ones.
std::vector<CParallelepiped> queryBoxes(COctree const & tree, int count, std::uint64_t seed)
{
  CParallelepiped const nodes = tree.getNodesBoundaryBox();
  QZTest::CCloudRandom rnd(seed);
  std::vector<CParallelepiped> boxes;
  for (int k = 0; k < count; ++k)
  {
    double lo[3], hi[3];
    for (int a = 0; a < 3; ++a)
    {
      double const span = nodes.getMax()[a] - nodes.getMin()[a];
      double const u = rnd.uniform(nodes.getMin()[a] - 0.2 * span, nodes.getMax()[a] + 0.2 * span);
      double const w = span * rnd.uniform() * (k % 3 == 0 ? 0.1 : 0.6);
      lo[a] = u;
      hi[a] = u + w;
    }
    boxes.emplace_back(lo, hi);
  }
  boxes.push_back(CParallelepiped(CInterval::all(), CInterval::all(), CInterval::all()));
  boxes.push_back(tree.getCellsBoundaryBox());
  boxes.push_back(tree.getNodesBoundaryBox());
  double const far = 10 * (tree.getBoxMax()[0] - tree.getBoxMin()[0]) + 1;
  boxes.push_back(CParallelepiped(tree.getBoxMax()[0] + far, tree.getBoxMax()[0] + 2 * far, 0, 1, 0, 1));
  boxes.push_back(CParallelepiped(1, -1, 1, -1, 1, -1)); // inverted
  return boxes;
}

/// Everything the tree exposes, against the reference.
void expectSameTree(CSampleCloud const & cloud, int depth, bool center, int detalization, int boxes = 12)
{
  SCOPED_TRACE("depth " + std::to_string(depth) + (center ? " centre" : " corner") + " detalization " +
               std::to_string(detalization) + " samples " + std::to_string(cloud.size()));
  RefOctree const ref(cloud, depth, center, detalization);
  COctree const tree(&cloud, depth, nullptr, center, detalization);

  EXPECT_EQ(std::make_pair(tree.getNodeDepthBegin(), tree.getNodeDepthEnd()),
            std::make_pair(ref.nodeDepthBegin, ref.nodeDepthEnd));
  EXPECT_EQ(v3(tree.getBoxMin()), v3(ref.boxMin));
  EXPECT_EQ(v3(tree.getBoxMax()), v3(ref.boxMax));
  ASSERT_EQ(tree.getCellsNumberOnDeepestLevel(), int(ref.cells.size()));
  for (int c = 0; c < tree.getCellsNumberOnDeepestLevel(); ++c)
    ASSERT_EQ(tree.getCellOffset(c), ref.cells[c]) << "cell " << c;
  for (int s = 0; s < cloud.size(); ++s)
    ASSERT_EQ(tree.getCellByCoordinates(s), ref.sampleCells[s]) << "sample " << s;
  ASSERT_EQ(tree.getNodesNumber(), int(ref.nodes.size()));
  for (int i = 0; i < tree.getNodesNumber(); ++i)
    ASSERT_EQ(tree.getNode(i), ref.nodes[i]) << "node " << i;

  for (int c = 0; c < tree.getCellsNumberOnDeepestLevel(); ++c)
    for (int d = ref.nodeDepthBegin; d < ref.nodeDepthEnd; ++d)
    {
      // The neighbours of a cell are its eight nodes, in sorted order.
      std::set<CTreeNode> around;
      for (int corner = 0; corner < 8; ++corner)
        around.insert(ref.makeCellNode(d, ref.cells[c], corner));
      std::vector<int> expected;
      for (CTreeNode const & n : around)
        expected.push_back(ref.nodeIndexes.at(n));
      ASSERT_EQ(walk(COctreeNeighborNodeIterator(&tree, c, d)), expected) << "cell " << c << " depth " << d;
    }

  for (CParallelepiped const & box : queryBoxes(tree, boxes, depth * 7 + (center ? 1 : 0)))
  {
    for (int d = 0; d <= depth + 1; ++d)
    {
      std::vector<int> const expected = d < ref.nodeDepthBegin ? std::vector<int>() : ref.nodesInBox(box, d);
      ASSERT_EQ(walk(COctreeInBoxNodeIterator(&tree, box, d)), expected) << "depth " << d;
    }
    for (int limit : {-1, 1, 2})
      ASSERT_EQ(walkSamples(cloud, tree, box, limit), ref.samplesInBox(box, limit)) << "limit " << limit;
  }
}
} // namespace

// Random clouds; detalization levels in and out of range; flat clouds (the
// cube stays a cube, one layer of cells is used), coincident samples, one
// sample, no sample; and deep lattices, which take the tables' general sorting path and
// reach the largest coordinates the lattice allows.
TEST(COctreeReference, MatchesTheSlowBuildOnEveryKindOfCloud)
{
  CSampleCloud empty, single, coincident, corners;
  single.add(1.0f, 2.0f, 3.0f);
  for (int i = 0; i < 31; ++i) // the 21st sample apart
    coincident.add(i == 20 ? 1.0f : 0.25f, i == 20 ? -1.0f : -1.5f, i == 20 ? 3.5f : 3.0f);
  for (int corner = 0; corner < 8; ++corner)
    corners.add(float(corner & 1), float((corner >> 1) & 1), float((corner >> 2) & 1));
  CSampleCloud const box = QZTest::makeBoxCloud(300, -2.0, 3.0, 11),
                     sphere = QZTest::makeSphereCloud(400, 1.5, 12, 0.5, -0.25, 2.0),
                     levels = QZTest::makeSphereCloud(250, 1.0, 21),
                     plane = QZTest::makePlaneCloud(300, 1.0, 0.5, 31),
                     deep = QZTest::makeSphereCloud(20, 1.0, 33);
  using Case = std::tuple<CSampleCloud const *, int, int, int>; // cloud, depth, detalization, query boxes
  int const top = COctree::MAX_DEPTH;
  Case const cases[] = {
      {&box, 2, -1, 12},    {&box, 3, -1, 12},        {&box, 5, -1, 12},     {&sphere, 2, -1, 12},
      {&sphere, 3, -1, 12}, {&sphere, 5, -1, 12},     {&levels, 4, -5, 4},   {&levels, 4, 0, 4},
      {&levels, 4, 1, 4},   {&levels, 4, 2, 4},       {&levels, 4, 3, 4},    {&levels, 4, 100, 4},
      {&plane, 4, -1, 12},  {&coincident, 3, -1, 12}, {&corners, 2, -1, 12}, {&single, 3, -1, 12},
      {&empty, 4, -1, 4},   {&deep, 22, 2, 4},        {&deep, top, -1, 2}};
  for (bool center : {false, true})
    for (auto const & [cloud, depth, detalization, boxes] : cases)
      expectSameTree(*cloud, depth, center, detalization, boxes);
  expectSameTree(box, 1, false, -1);
}

// A tree is uniform when its nodes lie on one depth; a sample lies in a leaf
// cell, the hole of the torus in none, nor a NaN. (The nodes' box and the cell
// sizes are in the driver's exact log; the neighbour boxes carry the splat's
// trilinear weights, which the reconstructions check.)
TEST(COctree, UniformityAndLeafCellMembership)
{
  CSampleCloud const cloud = QZTest::makeTorusCloud(300, 1.0, 0.4, 51);
  for (bool center : {false, true})
  {
    COctree const tree(&cloud, 5, nullptr, center, -1);
    EXPECT_FALSE(tree.isUniform());
    EXPECT_TRUE(COctree(&cloud, 5, nullptr, center, 0).isUniform());
    double const sample[3] = {cloud.getSampleCoords3(0)[0], cloud.getSampleCoords3(0)[1],
                              cloud.getSampleCoords3(0)[2]};
    double const outside[3] = {0.0, 0.0, 0.0}, nan[3] = {std::nan(""), 0.0, 0.0};
    EXPECT_TRUE(tree.isInLeafCell(sample));
    EXPECT_FALSE(tree.isInLeafCell(outside));
    EXPECT_FALSE(tree.isInLeafCell(nan));
  }
}

// A bad depth fails, a missing source builds an empty tree; a non-finite coordinate names its sample; huge
// finite coordinates build; a point has three coordinates only.
TEST(COctree, BadDepthsAndCoordinatesFailWithTheirTexts)
{
  // Centre nodes need a depth of 2 at least, corner nodes of 1.
  CSampleCloud const three = QZTest::makeSphereCloud(3, 1.0, 60);
  for (auto c : {std::make_pair(-1, true), std::make_pair(1, true), std::make_pair(0, false),
                 std::make_pair(-1, false), std::make_pair(30, false)})
    EXPECT_EQ(whatOf<std::exception>([&] { COctree(&three, c.first, nullptr, c.second, -1); }),
              "Incorrect tree depth detected in VolTr::COctree constructor")
        << c.first;
  EXPECT_NO_THROW(COctree(&three, 1, nullptr, false, -1));
  EXPECT_NO_THROW(COctree(&three, 2, nullptr, true, -1));
  EXPECT_EQ(COctree(nullptr, 3, nullptr, false, -1).getNodesNumber(), 0);
  CInt3 c;
  for (int bad : {3, -1})
    EXPECT_EQ(whatOf<std::exception>([&] { c.coordMod(bad); }), "CInt3::coordMod incorrect argument") << bad;

  for (float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                    -std::numeric_limits<float>::infinity()})
  {
    CSampleCloud cloud = QZTest::makeSphereCloud(20, 1.0, 61);
    cloud.coordsMod(13)[1] = bad;
    EXPECT_EQ(whatOf<std::exception>([&] { COctree(&cloud, 4, nullptr, true, -1); }),
              "Sample 13 has a non-finite coordinate in VolTr::COctree constructor")
        << bad;
  }

  CSampleCloud huge;
  huge.add(-FLT_MAX, 0.0f, 0.0f);
  huge.add(FLT_MAX, 1.0f, 1.0f);
  huge.add(0.0f, FLT_MAX, 0.0f);
  COctree const tree(&huge, 3, nullptr, true, -1);
  EXPECT_TRUE(std::isfinite(tree.getBoxSize()));
  EXPECT_EQ((std::vector<int>{tree.getSamplesNumber(), tree.getCellOffset(tree.getCellByCoordinates(0)).x(),
                              tree.getCellOffset(tree.getCellByCoordinates(1)).x()}),
            (std::vector<int>{3, 0, 7}));
}

TEST(COctreeIterators, OutOfRangeDepthsAndBoxesYieldNothing)
{
  CSampleCloud const cloud = QZTest::makeSphereCloud(100, 1.0, 91);
  COctree const tree(&cloud, 4, nullptr, false, 1);
  CParallelepiped const all(CInterval::all(), CInterval::all(), CInterval::all());
  for (int d : {-3, 0, 2, 5, 40})
  {
    EXPECT_TRUE(COctreeInBoxNodeIterator(&tree, all, d).isFinished()) << d;
    EXPECT_TRUE(COctreeNeighborNodeIterator(&tree, 0, d).isFinished()) << d;
  }
  double const nan = std::nan("");
  EXPECT_TRUE(COctreeInBoxNodeIterator(&tree, CParallelepiped(nan, nan, 0, 1, 0, 1), 4).isFinished());
  EXPECT_TRUE(CSamplePointsIteratorInBox(cloud, tree, CParallelepiped(nan, 1, 0, 1, 0, 1), -1).isFinished());
  // A box beyond the nodes' range on all axes meets only the corner node of
  // the range, which a sphere does not make.
  CParallelepiped const beyond(10, 11, 10, 11, 10, 11);
  EXPECT_TRUE(COctreeInBoxNodeIterator(&tree, beyond, 4).isFinished());
  EXPECT_THROW(COctreeNeighborNodeIterator(&tree, tree.getCellsNumberOnDeepestLevel(), 4), std::exception);
}
