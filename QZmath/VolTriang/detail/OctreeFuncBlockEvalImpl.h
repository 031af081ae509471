#pragma once
// The inside of the block evaluator, shared by its point evaluation and its
// polygoniser-lattice evaluation (two source files). Not installed.

#include <cmath>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "QZmath/VolTriang/ProductPolynom.h"
#include "QZmath/VolTriang/detail/FlatKernel.h"

namespace VolTr
{
namespace detail
{
using tf_Flat = tf_FlatKernel<CProductPiecewisePolynom>;

// At most this many nodes of one depth per axis can reach a point: the
// kernel's support is below 3.5 cells wide, and the window has a margin.
constexpr int BE_MAX_WINDOW = 6;
// Blocks kept per evaluator unless its maker asks for more: the polygoniser's
// depth-first walk comes back to regions it left long before, and a block
// costs far more to build than to keep (some tens of kilobytes).
constexpr int BE_BLOCK_CACHE = 256;

struct tf_BlockKey
{
  long long k[3];
  bool operator==(tf_BlockKey const & o) const { return k[0] == o.k[0] && k[1] == o.k[1] && k[2] == o.k[2]; }
};
struct tf_BlockKeyHash
{
  std::size_t operator()(tf_BlockKey const & key) const
  {
    std::uint64_t h = static_cast<std::uint64_t>(key.k[0]) * 0x9E3779B97F4A7C15ull;
    h ^= static_cast<std::uint64_t>(key.k[1]) * 0xC2B2AE3D27D4EB4Full + (h >> 29);
    h ^= static_cast<std::uint64_t>(key.k[2]) * 0x165667B19E3779F9ull + (h >> 31);
    return static_cast<std::size_t>(h);
  }
};

// Floor and ceiling of values well inside the range of long long.
inline long long tf_floor(double v)
{
  long long const t = static_cast<long long>(v);
  return v < static_cast<double>(t) ? t - 1 : t;
}

inline long long tf_ceil(double v)
{
  long long const t = static_cast<long long>(v);
  return v > static_cast<double>(t) ? t + 1 : t;
}

// A factor with its piece found by counting the knots at or below the
// argument (the same piece as the first knot above it, for ascending knots)
// and Horner's rule over coefficients padded with leading zeros, which only
// adds exact zeros: the values equal the factor's own, without branches.
struct tf_FastFactor
{
  static constexpr int ROWS = tf_Flat::MAX_PIECES + 2;
  int pieces = 0;
  int degree = 0;
  double argShift = 0.0;
  double knots[tf_Flat::MAX_PIECES + 1] = {};
  double coeffs[ROWS][tf_Flat::MAX_COEFFS] = {}; // row 0 and row pieces + 1: outside

  bool set(tf_Flat::Factor const & f)
  {
    pieces = f.pieces;
    argShift = f.argShift;
    for (int k = 0; k <= pieces; ++k)
    {
      knots[k] = f.knots[k];
      if (k > 0 && !(knots[k] >= knots[k - 1]))
        return false;
    }
    for (int i = 0; i < pieces; ++i)
    {
      for (int c = 0; c < f.coeffsNumber[i]; ++c)
        coeffs[i + 1][c] = f.coeffs[i][c];
      if (f.coeffsNumber[i] - 1 > degree)
        degree = f.coeffsNumber[i] - 1;
    }
    return true;
  }

  double eval(double x) const
  {
    double const t = x - argShift;
    int row = 0;
    for (int k = 0; k <= pieces; ++k)
      row += t >= knots[k];
    double const * c = coeffs[row];
    double r = c[degree];
    for (int k = degree - 1; k >= 0; --k)
      r = r * t + c[k];
    return r;
  }
};
} // namespace detail

struct COctreeFuncBlockEvaluator::Shared
{
  struct Depth
  {
    int depth;
    int step;      // node spacing in finest lattice steps
    int offset[3]; // node coordinates are offset + k * step
    double scale;  // the basis' argument scale
    double normalization;
    double cellSize; // step * unit
    double offsetInCells[3];
    int shift; // step = 1 << shift
    // The depth's nodes with a non-zero coefficient in lattice order (x, y,
    // z), as lattice indices k (coordinate = offset + k * step): the z index
    // and normalization * coefficient of each, and per (x, y) line the range
    // of its entries.
    long long lineLow[2] = {0, 0};
    int lines[2] = {0, 0};
    std::vector<int> lineStart;
    std::vector<int> z;
    std::vector<double> coefficients;

    void lineRange(long long kx, long long ky, int * begin, int * end) const
    {
      long long const x = kx - lineLow[0], y = ky - lineLow[1];
      if (x < 0 || y < 0 || x >= lines[0] || y >= lines[1])
      {
        *begin = *end = 0;
        return;
      }
      std::size_t const l = static_cast<std::size_t>(x * lines[1] + y);
      *begin = lineStart[l];
      *end = lineStart[l + 1];
    }
  };

  LinComb const * x = nullptr;
  COctree const * octree = nullptr;
  detail::tf_Flat flat;
  bool usable = false;
  double unit = 0.0;
  double boxMin[3] = {0.0, 0.0, 0.0};
  double blockSize = 0.0;
  int cacheBlocks = detail::BE_BLOCK_CACHE;
  // Beyond this distance in cells from a node its kernel is zero, with a
  // margin for the rounding of the node's argument.
  double reach = 0.0;
  std::vector<Depth> depths;
  detail::tf_FastFactor factors[detail::tf_Flat::MAX_SUMMANDS][3];

  Shared(LinComb const & comb, double block, int cache);
};

struct COctreeFuncBlockEvaluator::Cache
{
  struct DepthBlock
  {
    long long kLow[3];
    int n[3];
    std::vector<double> coefficients; // normalization * coefficient, 0.0 where no node
    std::vector<std::size_t> written; // the entries that hold a node
    double maxAbs = 0.0;               // the largest |coefficient| of the range
  };
  struct Block
  {
    bool used = false;
    long long key[3] = {0, 0, 0};
    long long lastUse = 0;
    std::vector<DepthBlock> depths;
  };
  std::vector<Block> blocks;
  std::unordered_map<detail::tf_BlockKey, int, detail::tf_BlockKeyHash> slots;
  int current = -1;
  long long clock = 0;
  long long built = 0;
  // Per depth and axis, the window of nodes that reach the last coordinate
  // asked on that axis, with their kernel values per summand: points that
  // share a coordinate (the corners of the polygoniser's lattice, the points
  // of a bisection along an axis) share them.
  struct AxisWindow
  {
    double coord = std::nan("");
    long long low = 0;
    int size = 0;
    double values[detail::tf_Flat::MAX_SUMMANDS][detail::BE_MAX_WINDOW];
  };
  std::vector<AxisWindow> windows;
  // The work arrays of one lattice edge (see the lattice source).
  struct EdgeWork;
  std::unique_ptr<EdgeWork> edge;

  Cache();
  ~Cache();
};

// The polygoniser's lattice and, when it fits, the kernel values of every
// lattice coordinate per axis and depth (the same numbers the point
// evaluation computes for that coordinate).
struct COctreeFuncBlockEvaluator::Lattice
{
  struct Window
  {
    long long low = 0;
    int size = 0;
    double values[detail::BE_MAX_WINDOW] = {};
    double sumAbs = 0.0; // sum of |values|
  };
  double start[3] = {0.0, 0.0, 0.0};
  double size = 0.0;
  int bound = 0;
  int count = 0; // indices per axis, from -bound - 1 to bound + 1
  int depths = 0;
  bool tabulated = false;
  std::vector<Window> windows; // [(axis * count + index + bound + 1) * depths + depth]
  // The points between lattice neighbours: index + s / subdivisions for s
  // from 1 to subdivisions - 1, on every axis and depth.
  int subdivisions = 1;
  std::vector<Window>
      between; // [((axis * count + index + bound + 1) * (subdivisions - 1) + s - 1) * depths + depth]
  // Bounds of the one-variable factor for the error estimates: of its
  // values, of its slope, of its coefficients.
  double valueMax = 0.0;
  double slopeMax = 0.0;
  double coeffMax = 0.0;

  double coordinate(int axis, int index) const { return start[axis] - (index - 0.5) * size; }
  bool holds(int index) const { return index >= -bound - 1 && index <= bound + 1; }
  Window const * window(int axis, int index) const
  {
    return &windows[(static_cast<std::size_t>(axis) * count + static_cast<std::size_t>(index + bound + 1)) * depths];
  }
  Window const * windowBetween(int axis, int index, int s) const
  {
    std::size_t const row =
        static_cast<std::size_t>(axis) * count + static_cast<std::size_t>(index + bound + 1);
    return &between[(row * static_cast<std::size_t>(subdivisions - 1) + static_cast<std::size_t>(s - 1)) *
                    depths];
  }
};

namespace detail
{
// The block holding p, built when missing; null when p is not finite or too
// far for integer block keys.
COctreeFuncBlockEvaluator::Cache::Block const * blockOf(COctreeFuncBlockEvaluator::Shared const & sh,
                                                        COctreeFuncBlockEvaluator::Cache & c, double const * p);

// The windows of nodes of a depth that can reach p, and their kernel values,
// computed exactly as the basis does: the centre from the lattice coordinate,
// the argument (c - p) * (0.0 - s), the flat factor. Only the axes whose
// coordinate changed are computed again.
void axisWindow(COctreeFuncBlockEvaluator::Shared const & sh, COctreeFuncBlockEvaluator::Shared::Depth const & depth,
                int axis, double coordinate, COctreeFuncBlockEvaluator::Cache::AxisWindow * w);

inline void window(COctreeFuncBlockEvaluator::Shared const & sh, COctreeFuncBlockEvaluator::Shared::Depth const & depth,
                   COctreeFuncBlockEvaluator::Cache::AxisWindow * windows, double const * p)
{
  for (int a = 0; a < 3; ++a)
    if (p[a] != windows[a].coord)
      axisWindow(sh, depth, a, p[a], &windows[a]);
}

// Whether a window lies inside the block's dense range on its axis.
inline bool insideOnAxis(long long low, int size, COctreeFuncBlockEvaluator::Cache::DepthBlock const & db, int axis)
{
  return size <= 0 || (low >= db.kLow[axis] && low + size <= db.kLow[axis] + db.n[axis]);
}
} // namespace detail
} // namespace VolTr
