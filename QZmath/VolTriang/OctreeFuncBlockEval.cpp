#include "QZmath/VolTriang/OctreeFuncBlockEval.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "QZsys/Threading.h"

#include "QZmath/VolTriang/detail/OctreeFuncBlockEvalImpl.h"

namespace VolTr
{
using detail::BE_BLOCK_CACHE;
using detail::BE_MAX_WINDOW;
using detail::tf_ceil;
using detail::tf_floor;

COctreeFuncBlockEvaluator::Shared::Shared(LinComb const & comb, double block, int cache)
    : x(&comb), octree(&comb.getRelatedBasisRef().getOctreeRef()),
      flat(*comb.getRelatedBasisRef().getSamplePtr())
{
  COctreeFuncBasisTmpl<CProductPiecewisePolynom> const & basis = comb.getRelatedBasisRef();
  COctree const & o = *octree;
  unit = o.getUnit();
  for (int a = 0; a < 3; ++a)
    boxMin[a] = o.getBoxMin()[a];
  blockSize = block > 0.0 ? block : 8.0 * unit;
  cacheBlocks = cache > 0 ? cache : BE_BLOCK_CACHE;
  if (!flat.usable() || flat.summands() == 0 || !(unit > 0.0) || !std::isfinite(blockSize))
    return;
  double r = 0.0;
  for (int s = 0; s < flat.summands(); ++s)
    for (int a = 0; a < 3; ++a)
    {
      detail::tf_Flat::Factor const & f = flat.factor(s, a);
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

COctreeFuncBlockEvaluator::COctreeFuncBlockEvaluator(LinComb const & x, double blockSize, int cacheBlocks)
    : m_shared(std::make_shared<Shared>(x, blockSize, cacheBlocks)), m_cache(new Cache)
{
  m_cache->windows.resize(3 * m_shared->depths.size());
  m_cache->blocks.resize(static_cast<std::size_t>(m_shared->cacheBlocks));
}

COctreeFuncBlockEvaluator::COctreeFuncBlockEvaluator(COctreeFuncBlockEvaluator const & other)
    : m_shared(other.m_shared), m_cache(new Cache), m_lattice(other.m_lattice)
{
  m_cache->windows.resize(3 * m_shared->depths.size());
  m_cache->blocks.resize(static_cast<std::size_t>(m_shared->cacheBlocks));
}

COctreeFuncBlockEvaluator::~COctreeFuncBlockEvaluator() = default;

bool COctreeFuncBlockEvaluator::isAccelerated() const { return m_shared->usable; }

long long COctreeFuncBlockEvaluator::blocksBuilt() const { return m_cache->built; }

namespace detail
{
COctreeFuncBlockEvaluator::Cache::Block const * blockOf(COctreeFuncBlockEvaluator::Shared const & sh,
                                                        COctreeFuncBlockEvaluator::Cache & c, double const * p)
{
  long long key[3];
  double const inverseSize = 1.0 / sh.blockSize;
  for (int a = 0; a < 3; ++a)
  {
    // Any key of a nearby block would do: the windows are checked against
    // the block's range before use.
    double const q = (p[a] - sh.boxMin[a]) * inverseSize;
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
  for (int i = 0; i < sh.cacheBlocks; ++i)
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
    // A block near the surface holds nodes in a thin shell of its range:
    // clearing the entries of the block's previous use costs far less than
    // zeroing the whole range (the ranges of a depth rarely change size).
    if (db.coefficients.size() == total)
      for (std::size_t w : db.written)
        db.coefficients[w] = 0.0;
    else
      db.coefficients.assign(total, 0.0);
    db.written.clear();
    double maxAbs = 0.0;
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
        std::size_t const rowStart = (static_cast<std::size_t>(x) * db.n[1] + y) * db.n[2];
        double * row = &db.coefficients[rowStart];
        for (; e < end && z[e] <= zHigh; ++e)
        {
          double const v = depth.coefficients[static_cast<std::size_t>(e)];
          row[z[e] - zLow] = v;
          db.written.push_back(rowStart + static_cast<std::size_t>(z[e] - zLow));
          maxAbs = std::max(maxAbs, std::fabs(v));
        }
      }
    db.maxAbs = maxAbs;
  }
  b.key[0] = key[0], b.key[1] = key[1], b.key[2] = key[2];
  b.used = true;
  c.slots[k] = slot;
  b.lastUse = c.clock;
  c.current = slot;
  ++c.built;
  return &b;
}

void axisWindow(COctreeFuncBlockEvaluator::Shared const & sh, COctreeFuncBlockEvaluator::Shared::Depth const & depth,
                int a, double coordinate, COctreeFuncBlockEvaluator::Cache::AxisWindow * w)
{
  int const summands = sh.flat.summands();
  double const u = (coordinate - sh.boxMin[a]) / depth.cellSize - depth.offsetInCells[a];
  long long const lo = tf_ceil(u - sh.reach);
  long long hi = tf_floor(u + sh.reach);
  if (hi - lo + 1 > BE_MAX_WINDOW)
    hi = lo + BE_MAX_WINDOW - 1;
  w->low = lo;
  w->size = hi >= lo ? static_cast<int>(hi - lo + 1) : 0;
  for (int k = 0; k < w->size; ++k)
  {
    long long const m = depth.offset[a] + (lo + k) * depth.step;
    double const centre = static_cast<double>(static_cast<int>(m)) * sh.unit + sh.boxMin[a];
    double const arg = (centre - coordinate) * (0.0 - depth.scale);
    for (int s = 0; s < summands; ++s)
      w->values[s][k] = sh.factors[s][a].eval(arg);
  }
  w->coord = coordinate;
}
} // namespace detail

namespace
{
// Whether the windows lie inside the block's dense range (they do for a point
// of the block; the test guards the indexing).
bool tf_inside(COctreeFuncBlockEvaluator::Cache::AxisWindow const * w,
               COctreeFuncBlockEvaluator::Cache::DepthBlock const & db)
{
  for (int a = 0; a < 3; ++a)
    if (!detail::insideOnAxis(w[a].low, w[a].size, db, a))
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
  Cache::Block const * block = detail::blockOf(sh, c, p);
  if (!block)
    return sh.x->eval(p, nullptr);
  int const summands = sh.flat.summands();
  double value = 0.0;
  for (std::size_t di = 0; di < sh.depths.size(); ++di)
  {
    Cache::DepthBlock const & db = block->depths[di];
    Cache::AxisWindow * w = &c.windows[3 * di];
    detail::window(sh, sh.depths[di], w, p);
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

void COctreeFuncBlockEvaluator::evalMany(double const * points, std::size_t count, double * values,
                                         int threads) const
{
  Shared const & sh = *m_shared;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> order(count);
  double const inverseSize = sh.blockSize > 0.0 ? 1.0 / sh.blockSize : 0.0;
  for (std::size_t i = 0; i < count; ++i)
  {
    std::uint64_t key = 0;
    for (int a = 0; a < 3; ++a)
    {
      double const c = std::floor((points[3 * i + a] - sh.boxMin[a]) * inverseSize);
      key = key * 2097152u + static_cast<std::uint64_t>(c > 0.0 ? (c < 2097151.0 ? c : 2097151.0) : 0.0);
    }
    order[i] = {key, static_cast<std::uint32_t>(i)};
  }
  std::sort(order.begin(), order.end());
  struct Task : IVescaInvokeProc
  {
    COctreeFuncBlockEvaluator x;
    std::pair<std::uint64_t, std::uint32_t> const * begin = nullptr;
    std::pair<std::uint64_t, std::uint32_t> const * end = nullptr;
    double const * points = nullptr;
    double * values = nullptr;
    explicit Task(COctreeFuncBlockEvaluator const & e) : x(e) {}
    void run() override
    {
      for (auto const * o = begin; o != end; ++o)
        values[o->second] = x.eval(points + 3 * static_cast<std::size_t>(o->second));
    }
  };
  int const wanted = threads > 0 ? threads : CVescaThreadingTasksHelper::getNumOfPhisicalThread();
  int const tasks = static_cast<int>(std::max<std::size_t>(1, std::min<std::size_t>(
      static_cast<std::size_t>(std::max(1, std::min(wanted, 16))), count / 1024 + 1)));
  std::vector<std::unique_ptr<Task>> work;
  std::vector<IVescaInvokeProc *> procs;
  for (int t = 0; t < tasks; ++t)
  {
    work.push_back(std::unique_ptr<Task>(new Task(*this))); // owned even if the list cannot grow
    work.back()->begin = order.data() + count * t / tasks;
    work.back()->end = order.data() + count * (t + 1) / tasks;
    work.back()->points = points;
    work.back()->values = values;
    procs.push_back(work.back().get());
  }
  if (tasks == 1)
    work[0]->run();
  else
    CVescaThreadingTasksHelper::performInParallel(procs.data(), tasks, nullptr);
}

double COctreeFuncBlockEvaluator::eval(float const * p)
{
  double const q[3] = {p[0], p[1], p[2]};
  return eval(q);
}

double COctreeFuncBlockEvaluator::evalWithBound(double const * p, double * bound)
{
  Shared const & sh = *m_shared;
  Cache::Block const * block = sh.usable ? detail::blockOf(sh, *m_cache, p) : nullptr;
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
    detail::window(sh, sh.depths[di], w, p);
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
