#include "QZmath/VolTriang/OctreeFuncBlockEval.h"

#include <algorithm>
#include <cmath>
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
constexpr int BLOCK_CACHE = 16;
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
    double const q = std::floor((p[a] - sh.boxMin[a]) / sh.blockSize);
    if (!(std::fabs(q) < 1e12))
      return nullptr;
    key[a] = static_cast<long long>(q);
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
  int slot = 0;
  for (int i = 0; i < BLOCK_CACHE; ++i)
  {
    auto & b = c.blocks[i];
    if (b.used && b.key[0] == key[0] && b.key[1] == key[1] && b.key[2] == key[2])
    {
      b.lastUse = c.clock;
      c.current = i;
      return &b;
    }
    if (!b.used || (c.blocks[slot].used && b.lastUse < c.blocks[slot].lastUse))
      slot = i;
  }
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
  b.lastUse = c.clock;
  c.current = slot;
  ++c.built;
  return &b;
}

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
        w.values[s][k] = sh.flat.factor(s, a).eval(arg);
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
