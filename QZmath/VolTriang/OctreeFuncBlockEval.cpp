#include "QZmath/VolTriang/OctreeFuncBlockEval.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "QZmath/VolTriang/ProductPolynom.h"
#include "QZmath/VolTriang/detail/FlatKernel.h"

namespace VolTr
{
namespace
{
using tf_Flat = detail::tf_FlatKernel<CProductPiecewisePolynom>;

// At most this many nodes of one depth per axis can reach a point: the
// kernel's support is below 3.5 cells wide, and the window has a margin.
constexpr int MAX_WINDOW = 6;
// Blocks kept per evaluator: the polygoniser's depth-first walk comes back to
// regions it left long before, and a block costs far more to build than to
// keep (some tens of kilobytes).
constexpr int BLOCK_CACHE = 256;

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
} // namespace

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
  tf_Flat flat;
  bool usable = false;
  double unit = 0.0;
  double boxMin[3] = {0.0, 0.0, 0.0};
  double blockSize = 0.0;
  // Beyond this distance in cells from a node its kernel is zero, with a
  // margin for the rounding of the node's argument.
  double reach = 0.0;
  std::vector<Depth> depths;
  tf_FastFactor factors[tf_Flat::MAX_SUMMANDS][3];

  Shared(LinComb const & comb, double block)
      : x(&comb), octree(&comb.getRelatedBasisRef().getOctreeRef()),
        flat(*comb.getRelatedBasisRef().getSamplePtr())
  {
    COctreeFuncBasisTmpl<CProductPiecewisePolynom> const & basis = comb.getRelatedBasisRef();
    COctree const & o = *octree;
    unit = o.getUnit();
    for (int a = 0; a < 3; ++a)
      boxMin[a] = o.getBoxMin()[a];
    blockSize = block > 0.0 ? block : 8.0 * unit;
    if (!flat.usable() || flat.summands() == 0 || !(unit > 0.0) || !std::isfinite(blockSize))
      return;
    double r = 0.0;
    for (int s = 0; s < flat.summands(); ++s)
      for (int a = 0; a < 3; ++a)
      {
        tf_Flat::Factor const & f = flat.factor(s, a);
        if (f.pieces == 0)
          continue;
        r = std::max(r, std::fabs(f.knots[0] + f.argShift));
        r = std::max(r, std::fabs(f.knots[f.pieces] + f.argShift));
      }
    if (!std::isfinite(r) || r > 2.4)
      return; // wider than the windows
    for (int sm = 0; sm < flat.summands(); ++sm)
      for (int a = 0; a < 3; ++a)
        if (!factors[sm][a].set(flat.factor(sm, a)))
          return;
    reach = r * (1.0 + 1e-9) + 1e-6;

    int const leaf = o.getLeafCellDepth();
    std::vector<double> const & coefficients = comb.getCoefficients();
    std::vector<long long> nodesAtDepth(static_cast<std::size_t>(std::max(o.getNodeDepthEnd(), 0)), 0);
    for (CTreeNode const & n : o.getNodesTable())
      if (n.depth() >= 0 && n.depth() < static_cast<int>(nodesAtDepth.size()))
        ++nodesAtDepth[static_cast<std::size_t>(n.depth())];
    CParallelepiped all = o.getNodesBoundaryBox();
    for (int a = 0; a < 3; ++a)
    {
      all.getMinMod()[a] -= 2.0 * unit;
      all.getMaxMod()[a] += 2.0 * unit;
    }
    std::vector<long long> k[3];
    for (int d = o.getNodeDepthBegin(); d < o.getNodeDepthEnd(); ++d)
    {
      if (comb.getNonZeroCoefficientsAtDepth(d) == 0)
        continue;
      if (leaf - d < 0 || leaf - d > 30)
        return;
      Depth depth;
      depth.depth = d;
      depth.shift = leaf - d;
      depth.step = 1 << depth.shift;
      depth.offset[0] = depth.offset[1] = depth.offset[2] = -1;
      depth.scale = basis.getArgumentScale(d);
      depth.normalization = basis.getNormalization(d);
      depth.cellSize = depth.step * unit;
      // The tree's own walk gives the nodes in lattice order.
      long long seen = 0;
      for (int a = 0; a < 3; ++a)
        k[a].clear();
      long long low[2] = {0, 0}, high[2] = {-1, -1};
      for (COctreeInBoxNodeIterator it(octree, all, d); !it.isFinished(); it.next())
      {
        ++seen;
        CInt3 const & m = it.currentNodeShift();
        int const mm[3] = {m.x(), m.y(), m.z()};
        for (int a = 0; a < 3; ++a)
        {
          int const r = ((mm[a] % depth.step) + depth.step) % depth.step;
          if (depth.offset[a] < 0)
            depth.offset[a] = r;
          else if (depth.offset[a] != r)
            return; // not on one lattice: no dense form
        }
        double const c = coefficients[static_cast<std::size_t>(it.currentNodeIndex())];
        if (c == 0.0)
          continue;
        long long kk[3];
        for (int a = 0; a < 3; ++a)
        {
          kk[a] = (static_cast<long long>(mm[a]) - depth.offset[a]) >> depth.shift;
          k[a].push_back(kk[a]);
        }
        for (int a = 0; a < 2; ++a)
        {
          if (high[a] < low[a])
            low[a] = high[a] = kk[a];
          low[a] = std::min(low[a], kk[a]);
          high[a] = std::max(high[a], kk[a]);
        }
        depth.z.push_back(static_cast<int>(kk[2]));
        depth.coefficients.push_back(depth.normalization * c);
      }
      if (seen != nodesAtDepth[static_cast<std::size_t>(d)])
        return; // the walk missed nodes
      for (int a = 0; a < 3; ++a)
      {
        if (depth.offset[a] < 0)
          depth.offset[a] = 0;
        depth.offsetInCells[a] = static_cast<double>(depth.offset[a]) / depth.step;
      }
      for (int a = 0; a < 2; ++a)
      {
        depth.lineLow[a] = low[a];
        depth.lines[a] = high[a] >= low[a] ? static_cast<int>(high[a] - low[a] + 1) : 0;
      }
      depth.lineStart.assign(static_cast<std::size_t>(depth.lines[0]) * depth.lines[1] + 1, 0);
      for (std::size_t e = 0; e < depth.z.size(); ++e)
        ++depth.lineStart[static_cast<std::size_t>((k[0][e] - low[0]) * depth.lines[1] + (k[1][e] - low[1])) +
                          1];
      for (std::size_t l = 1; l < depth.lineStart.size(); ++l)
        depth.lineStart[l] += depth.lineStart[l - 1];
      depths.push_back(std::move(depth));
    }
    usable = true;
  }
};

struct COctreeFuncBlockEvaluator::Cache
{
  struct DepthBlock
  {
    long long kLow[3];
    int n[3];
    std::vector<double> coefficients; // normalization * coefficient, 0.0 where no node
  };
  struct Block
  {
    bool used = false;
    long long key[3] = {0, 0, 0};
    long long lastUse = 0;
    std::vector<DepthBlock> depths;
  };
  Block blocks[BLOCK_CACHE];
  std::unordered_map<tf_BlockKey, int, tf_BlockKeyHash> slots;
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
    double values[tf_Flat::MAX_SUMMANDS][MAX_WINDOW];
  };
  std::vector<AxisWindow> windows;

  // The restriction to an axis-parallel segment: on each piece between two
  // breaks a polynomial in the normalised coordinate r = (v - low) / length,
  // with a polynomial of magnitudes that bounds the terms summed into it.
  struct Contribution
  {
    double from, to; // in r
    double coeffs[tf_Flat::MAX_COEFFS];
    double magnitudes[tf_Flat::MAX_COEFFS];
  };
  struct Segment
  {
    bool valid = false;
    int axis = 0;
    double low = 0.0, length = 0.0;
    int degree = 0;
    int terms = 0; // terms of the exact sum at a point, at most
    double slack = 0.0;
    std::vector<Contribution> contributions;
    std::vector<double> breaks; // sorted, from 0 to 1
    std::vector<double> coeffs; // per piece, degree + 1 each
    std::vector<double> magnitudes;
  } segment;
  double segmentPoint[3] = {0.0, 0.0, 0.0};
};

COctreeFuncBlockEvaluator::COctreeFuncBlockEvaluator(LinComb const & x, double blockSize)
    : m_shared(std::make_shared<Shared>(x, blockSize)), m_cache(new Cache)
{
  m_cache->windows.resize(3 * m_shared->depths.size());
}

COctreeFuncBlockEvaluator::COctreeFuncBlockEvaluator(COctreeFuncBlockEvaluator const & other)
    : m_shared(other.m_shared), m_cache(new Cache)
{
  m_cache->windows.resize(3 * m_shared->depths.size());
}

COctreeFuncBlockEvaluator::~COctreeFuncBlockEvaluator() = default;

bool COctreeFuncBlockEvaluator::isAccelerated() const { return m_shared->usable; }

long long COctreeFuncBlockEvaluator::blocksBuilt() const { return m_cache->built; }

namespace
{
// The block holding p, built when missing; null when p is not finite or too
// far for integer block keys.
template <class TShared, class TCache>
typename TCache::Block const * tf_blockOf(TShared const & sh, TCache & c, double const * p)
{
  long long key[3];
  for (int a = 0; a < 3; ++a)
  {
    double const q = (p[a] - sh.boxMin[a]) / sh.blockSize;
    if (!(std::fabs(q) < 1e12))
      return nullptr;
    key[a] = tf_floor(q);
  }
  ++c.clock;
  if (c.current >= 0)
  {
    auto & b = c.blocks[c.current];
    if (b.key[0] == key[0] && b.key[1] == key[1] && b.key[2] == key[2])
    {
      b.lastUse = c.clock;
      return &b;
    }
  }
  tf_BlockKey const k{{key[0], key[1], key[2]}};
  auto const found = c.slots.find(k);
  if (found != c.slots.end())
  {
    auto & b = c.blocks[found->second];
    b.lastUse = c.clock;
    c.current = found->second;
    return &b;
  }
  // The least recently used slot (an unused one first).
  int slot = 0;
  for (int i = 0; i < BLOCK_CACHE; ++i)
  {
    auto & b = c.blocks[i];
    if (!b.used)
    {
      slot = i;
      break;
    }
    if (b.lastUse < c.blocks[slot].lastUse)
      slot = i;
  }
  if (c.blocks[slot].used)
    c.slots.erase(tf_BlockKey{{c.blocks[slot].key[0], c.blocks[slot].key[1], c.blocks[slot].key[2]}});
  // Build: per depth, the dense range of nodes that can reach the block.
  auto & b = c.blocks[slot];
  b.used = false;
  b.depths.resize(sh.depths.size());
  for (std::size_t di = 0; di < sh.depths.size(); ++di)
  {
    auto const & depth = sh.depths[di];
    auto & db = b.depths[di];
    std::size_t total = 1;
    for (int a = 0; a < 3; ++a)
    {
      double const lo = key[a] * sh.blockSize / depth.cellSize - depth.offsetInCells[a];
      double const hi = (key[a] + 1) * sh.blockSize / depth.cellSize - depth.offsetInCells[a];
      db.kLow[a] = static_cast<long long>(std::floor(lo - sh.reach)) - 1;
      long long const kHigh = static_cast<long long>(std::ceil(hi + sh.reach)) + 1;
      db.n[a] = static_cast<int>(kHigh - db.kLow[a] + 1);
      total *= static_cast<std::size_t>(db.n[a]);
    }
    db.coefficients.assign(total, 0.0);
    long long const zLow = db.kLow[2], zHigh = db.kLow[2] + db.n[2] - 1;
    for (int x = 0; x < db.n[0]; ++x)
      for (int y = 0; y < db.n[1]; ++y)
      {
        int begin, end;
        depth.lineRange(db.kLow[0] + x, db.kLow[1] + y, &begin, &end);
        if (begin == end)
          continue;
        int const * z = depth.z.data();
        int e = static_cast<int>(std::lower_bound(z + begin, z + end, zLow) - z);
        double * row = &db.coefficients[(static_cast<std::size_t>(x) * db.n[1] + y) * db.n[2]];
        for (; e < end && z[e] <= zHigh; ++e)
          row[z[e] - zLow] = depth.coefficients[static_cast<std::size_t>(e)];
      }
  }
  b.key[0] = key[0], b.key[1] = key[1], b.key[2] = key[2];
  b.used = true;
  c.slots[k] = slot;
  b.lastUse = c.clock;
  c.current = slot;
  ++c.built;
  return &b;
}

// The windows of nodes of a depth that can reach p, and their kernel values,
// computed exactly as the basis does: the centre from the lattice coordinate,
// the argument (c - p) * (0.0 - s), the flat factor. Only the axes whose
// coordinate changed are computed again.
template <class TShared, class TWindow>
void tf_window(TShared const & sh, typename TShared::Depth const & depth, TWindow * windows, double const * p)
{
  int const summands = sh.flat.summands();
  for (int a = 0; a < 3; ++a)
  {
    TWindow & w = windows[a];
    if (p[a] == w.coord)
      continue;
    double const u = (p[a] - sh.boxMin[a]) / depth.cellSize - depth.offsetInCells[a];
    long long const lo = tf_ceil(u - sh.reach);
    long long hi = tf_floor(u + sh.reach);
    if (hi - lo + 1 > MAX_WINDOW)
      hi = lo + MAX_WINDOW - 1;
    w.low = lo;
    w.size = hi >= lo ? static_cast<int>(hi - lo + 1) : 0;
    for (int k = 0; k < w.size; ++k)
    {
      long long const m = depth.offset[a] + (lo + k) * depth.step;
      double const centre = static_cast<double>(static_cast<int>(m)) * sh.unit + sh.boxMin[a];
      double const arg = (centre - p[a]) * (0.0 - depth.scale);
      for (int s = 0; s < summands; ++s)
        w.values[s][k] = sh.factors[s][a].eval(arg);
    }
    w.coord = p[a];
  }
}

// Whether the windows lie inside the block's dense range (they do for a point
// of the block; the test guards the indexing).
template <class TWindow, class TDepthBlock> bool tf_inside(TWindow const * w, TDepthBlock const & db)
{
  for (int a = 0; a < 3; ++a)
    if (w[a].size > 0 && (w[a].low < db.kLow[a] || w[a].low + w[a].size > db.kLow[a] + db.n[a]))
      return false;
  return true;
}
} // namespace

double COctreeFuncBlockEvaluator::eval(double const * p)
{
  Shared const & sh = *m_shared;
  if (!sh.usable)
    return sh.x->eval(p, nullptr);
  Cache & c = *m_cache;
  Cache::Block const * block = tf_blockOf(sh, c, p);
  if (!block)
    return sh.x->eval(p, nullptr);
  int const summands = sh.flat.summands();
  double value = 0.0;
  for (std::size_t di = 0; di < sh.depths.size(); ++di)
  {
    Cache::DepthBlock const & db = block->depths[di];
    Cache::AxisWindow * w = &c.windows[3 * di];
    tf_window(sh, sh.depths[di], w, p);
    if (!tf_inside(w, db))
      return sh.x->eval(p, nullptr);
    int const n0 = w[0].size, n1 = w[1].size, n2 = w[2].size;
    std::size_t const base0 = static_cast<std::size_t>(w[0].low - db.kLow[0]);
    std::size_t const base1 = static_cast<std::size_t>(w[1].low - db.kLow[1]);
    std::size_t const base2 = static_cast<std::size_t>(w[2].low - db.kLow[2]);
    for (int i = 0; i < n0; ++i)
      for (int j = 0; j < n1; ++j)
      {
        double const * row = &db.coefficients[((base0 + i) * db.n[1] + base1 + j) * db.n[2] + base2];
        if (summands == 1)
        {
          // One summand: the kernel's stop at a zero factor gives the same
          // zero as the full product of finite factors.
          double const xy = w[0].values[0][i] * w[1].values[0][j];
          for (int k = 0; k < n2; ++k)
            if (row[k] != 0.0)
              value += row[k] * (xy * w[2].values[0][k]);
          continue;
        }
        for (int k = 0; k < n2; ++k)
        {
          if (row[k] == 0.0)
            continue;
          double kernel = 0.0;
          for (int s = 0; s < summands; ++s)
          {
            double r = w[0].values[s][i];
            if (r == 0.0)
            {
              kernel += 0.0;
              continue;
            }
            r *= w[1].values[s][j];
            if (r == 0.0)
            {
              kernel += 0.0;
              continue;
            }
            r *= w[2].values[s][k];
            if (r == 0.0)
            {
              kernel += 0.0;
              continue;
            }
            kernel += r;
          }
          value += row[k] * kernel;
        }
      }
  }
  return value;
}

double COctreeFuncBlockEvaluator::eval(float const * p)
{
  double const q[3] = {p[0], p[1], p[2]};
  return eval(q);
}

namespace
{
// The coefficients in r of q(alpha + beta r), q given by c[0..n): Horner's rule
// on polynomials; with magnitudes, the same on absolute values, which bounds
// the terms of every coefficient.
void tf_compose(double const * c, int n, double alpha, double beta, double * out, double * magnitude)
{
  for (int m = 0; m < tf_Flat::MAX_COEFFS; ++m)
    out[m] = magnitude[m] = 0.0;
  double const aa = std::fabs(alpha), ab = std::fabs(beta);
  for (int k = n - 1; k >= 0; --k)
  {
    // out = out * (alpha + beta r) + c[k]
    for (int m = n - 1; m > 0; --m)
    {
      out[m] = out[m] * alpha + out[m - 1] * beta;
      magnitude[m] = magnitude[m] * aa + magnitude[m - 1] * ab;
    }
    out[0] = out[0] * alpha + c[k];
    magnitude[0] = magnitude[0] * aa + std::fabs(c[k]);
  }
}
} // namespace

bool COctreeFuncBlockEvaluator::setAxisSegment(double const * p, int axis, double low, double high)
{
  Shared const & sh = *m_shared;
  Cache & c = *m_cache;
  Cache::Segment & seg = c.segment;
  seg.valid = false;
  if (!sh.usable || axis < 0 || axis > 2 || !(high > low) || !std::isfinite(low) || !std::isfinite(high))
    return false;
  double mid[3] = {p[0], p[1], p[2]};
  mid[axis] = 0.5 * (low + high);
  Cache::Block const * block = tf_blockOf(sh, c, mid);
  if (!block)
    return false;
  int const b1 = axis == 0 ? 1 : 0, b2 = axis == 2 ? 1 : 2;
  int const summands = sh.flat.summands();
  c.segmentPoint[0] = p[0], c.segmentPoint[1] = p[1], c.segmentPoint[2] = p[2];
  seg.axis = axis;
  seg.low = low;
  seg.length = high - low;
  seg.degree = 0;
  seg.terms = 0;
  seg.contributions.clear();
  seg.breaks.clear();
  constexpr int MAX_SEGMENT_WINDOW = 12;
  for (std::size_t di = 0; di < sh.depths.size(); ++di)
  {
    Shared::Depth const & depth = sh.depths[di];
    Cache::DepthBlock const & db = block->depths[di];
    Cache::AxisWindow * w = &c.windows[3 * di];
    tf_window(sh, depth, w, mid); // the fixed axes' windows and values
    double const uLow = (low - sh.boxMin[axis]) / depth.cellSize - depth.offsetInCells[axis];
    double const uHigh = (high - sh.boxMin[axis]) / depth.cellSize - depth.offsetInCells[axis];
    long long const kLow = tf_ceil(uLow - sh.reach);
    long long const kHigh = tf_floor(uHigh + sh.reach);
    int const n = static_cast<int>(kHigh - kLow + 1);
    if (n > MAX_SEGMENT_WINDOW || kLow < db.kLow[axis] || kHigh >= db.kLow[axis] + db.n[axis])
      return false;
    for (int fixedAxis : {b1, b2})
      if (w[fixedAxis].size > 0 &&
          (w[fixedAxis].low < db.kLow[fixedAxis] ||
           w[fixedAxis].low + w[fixedAxis].size > db.kLow[fixedAxis] + db.n[fixedAxis]))
        return false;
    if (n <= 0)
      continue;
    seg.terms += summands * w[b1].size * w[b2].size * (n < MAX_WINDOW ? n : MAX_WINDOW);
    // Collapse the fixed axes: per summand and node along the axis, the sum of
    // coefficient times the two fixed kernel values, and of their magnitudes.
    for (int sm = 0; sm < summands; ++sm)
    {
      tf_Flat::Factor const & f = sh.flat.factor(sm, axis);
      if (f.pieces == 0)
        continue;
      for (int i = 0; i < n; ++i)
      {
        long long idx[3];
        idx[axis] = kLow + i - db.kLow[axis];
        double g = 0.0, ga = 0.0;
        for (int j = 0; j < w[b1].size; ++j)
          for (int k = 0; k < w[b2].size; ++k)
          {
            idx[b1] = w[b1].low + j - db.kLow[b1];
            idx[b2] = w[b2].low + k - db.kLow[b2];
            double const a =
                db.coefficients[static_cast<std::size_t>((idx[0] * db.n[1] + idx[1]) * db.n[2] + idx[2])];
            double const t = a * w[b1].values[sm][j] * w[b2].values[sm][k];
            g += t;
            ga += std::fabs(t);
          }
        if (ga == 0.0)
          continue;
        // The node's factor along the axis, t = s (v - c) - shift, v = low +
        // length r: one contribution per polynomial piece that meets [0, 1].
        long long const m = depth.offset[axis] + (kLow + i) * depth.step;
        double const centre = static_cast<double>(static_cast<int>(m)) * sh.unit + sh.boxMin[axis];
        double const alpha = depth.scale * (low - centre) - f.argShift;
        double const beta = depth.scale * seg.length;
        for (int piece = 0; piece < f.pieces; ++piece)
        {
          int const nc = f.coeffsNumber[piece];
          if (nc == 0)
            continue;
          double const from = (f.knots[piece] - alpha) / beta;
          double const to = (f.knots[piece + 1] - alpha) / beta;
          if (!(to > 0.0 && from < 1.0))
            continue;
          Cache::Contribution cb;
          cb.from = from > 0.0 ? from : 0.0;
          cb.to = to < 1.0 ? to : 1.0;
          tf_compose(f.coeffs[piece], nc, alpha, beta, cb.coeffs, cb.magnitudes);
          for (int q = 0; q < nc; ++q)
          {
            cb.coeffs[q] *= g;
            cb.magnitudes[q] *= ga;
          }
          if (nc - 1 > seg.degree)
            seg.degree = nc - 1;
          seg.contributions.push_back(cb);
          if (cb.from > 0.0)
            seg.breaks.push_back(cb.from);
          if (cb.to < 1.0)
            seg.breaks.push_back(cb.to);
        }
      }
    }
  }
  seg.breaks.push_back(0.0);
  seg.breaks.push_back(1.0);
  std::sort(seg.breaks.begin(), seg.breaks.end());
  seg.breaks.erase(std::unique(seg.breaks.begin(), seg.breaks.end()), seg.breaks.end());
  std::size_t const pieces = seg.breaks.size() - 1;
  std::size_t const stride = static_cast<std::size_t>(seg.degree) + 1;
  seg.coeffs.assign(pieces * stride, 0.0);
  seg.magnitudes.assign(pieces * stride, 0.0);
  for (Cache::Contribution const & cb : seg.contributions)
  {
    std::size_t first = static_cast<std::size_t>(
        std::lower_bound(seg.breaks.begin(), seg.breaks.end(), cb.from) - seg.breaks.begin());
    std::size_t const last = static_cast<std::size_t>(
        std::lower_bound(seg.breaks.begin(), seg.breaks.end(), cb.to) - seg.breaks.begin());
    for (; first < last; ++first)
      for (std::size_t q = 0; q < stride; ++q)
      {
        seg.coeffs[first * stride + q] += cb.coeffs[q];
        seg.magnitudes[first * stride + q] += cb.magnitudes[q];
      }
  }
  // Near a break the exact evaluation may take the neighbouring piece of a
  // node's factor (its knot test sees a rounded argument): points that close
  // are left to the point evaluation.
  seg.slack = 1e-9;
  seg.valid = true;
  return true;
}

double COctreeFuncBlockEvaluator::evalOnAxisSegment(double v, double * bound)
{
  Cache::Segment const & seg = m_cache->segment;
  double const r = (v - seg.low) / seg.length;
  std::size_t piece = 0;
  bool nearBreak = !(r >= 0.0 && r <= 1.0);
  if (!nearBreak)
  {
    std::size_t const pieces = seg.breaks.size() - 1;
    piece = static_cast<std::size_t>(std::upper_bound(seg.breaks.begin(), seg.breaks.end(), r) - seg.breaks.begin());
    piece = piece == 0 ? 0 : piece - 1;
    if (piece >= pieces)
      piece = pieces - 1;
    nearBreak = (piece > 0 && r - seg.breaks[piece] < seg.slack) ||
                (piece + 1 < pieces && seg.breaks[piece + 1] - r < seg.slack);
  }
  if (!seg.valid || nearBreak)
  {
    double p[3];
    p[0] = m_cache->segmentPoint[0];
    p[1] = m_cache->segmentPoint[1];
    p[2] = m_cache->segmentPoint[2];
    p[seg.axis] = v;
    return evalWithBound(p, bound);
  }
  std::size_t const stride = static_cast<std::size_t>(seg.degree) + 1;
  double const * c = &seg.coeffs[piece * stride];
  double const * m = &seg.magnitudes[piece * stride];
  double value = c[seg.degree], magnitude = m[seg.degree];
  double const ar = std::fabs(r);
  for (int q = seg.degree - 1; q >= 0; --q)
  {
    value = value * r + c[q];
    magnitude = magnitude * ar + m[q];
  }
  // The exact sum and this one add the same terms: each within its number of
  // roundings times the magnitudes (composition, collapse, accumulation and
  // Horner's rule here; products and the sum there).
  *bound = 2.5e-16 * (seg.terms + 40 + 4 * stride + seg.contributions.size()) * magnitude + 1e-300;
  return value;
}

double COctreeFuncBlockEvaluator::evalWithBound(double const * p, double * bound)
{
  Shared const & sh = *m_shared;
  Cache::Block const * block = sh.usable ? tf_blockOf(sh, *m_cache, p) : nullptr;
  if (!block)
  {
    *bound = 0.0;
    return sh.x->eval(p, nullptr);
  }
  Cache & c = *m_cache;
  int const summands = sh.flat.summands();
  double value = 0.0, magnitude = 0.0;
  int terms = 0;
  for (std::size_t di = 0; di < sh.depths.size(); ++di)
  {
    Cache::DepthBlock const & db = block->depths[di];
    Cache::AxisWindow * w = &c.windows[3 * di];
    tf_window(sh, sh.depths[di], w, p);
    if (!tf_inside(w, db))
    {
      *bound = 0.0;
      return sh.x->eval(p, nullptr);
    }
    int const n0 = w[0].size, n1 = w[1].size, n2 = w[2].size;
    std::size_t const base0 = static_cast<std::size_t>(w[0].low - db.kLow[0]);
    std::size_t const base1 = static_cast<std::size_t>(w[1].low - db.kLow[1]);
    std::size_t const base2 = static_cast<std::size_t>(w[2].low - db.kLow[2]);
    terms += n0 * n1 * n2 * summands;
    for (int s = 0; s < summands; ++s)
    {
      double const * vx = w[0].values[s];
      double const * vy = w[1].values[s];
      double const * vz = w[2].values[s];
      double depthSum = 0.0, depthAbs = 0.0;
      for (int i = 0; i < n0; ++i)
      {
        double sy = 0.0, sya = 0.0;
        for (int j = 0; j < n1; ++j)
        {
          double const * row = &db.coefficients[((base0 + i) * db.n[1] + base1 + j) * db.n[2] + base2];
          double sz = 0.0, sza = 0.0;
          for (int k = 0; k < n2; ++k)
          {
            double const t = row[k] * vz[k];
            sz += t;
            sza += std::fabs(t);
          }
          sy += vy[j] * sz;
          sya += std::fabs(vy[j]) * sza;
        }
        depthSum += vx[i] * sy;
        depthAbs += std::fabs(vx[i]) * sya;
      }
      value += depthSum;
      magnitude += depthAbs;
    }
  }
  // Both sums are the same terms rounded three times each and added with at
  // most `terms` roundings: each is within (terms + 3) units of roundoff of
  // the exact sum, relative to the sum of magnitudes.
  *bound = 2.5e-16 * (terms + 4) * magnitude + 1e-300;
  return value;
}
} // namespace VolTr
