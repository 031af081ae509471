// The block evaluator on the polygoniser's lattice.
//
// The polygoniser asks for the function at the corners of a lattice of cubes
// and bisects the lattice edges where the sign changes, ten midpoints an edge.
// Corner coordinates repeat along each axis, so their kernel values are
// tabulated once per lattice index. Along an edge the function is a piecewise
// polynomial of one variable (the kernel's pieces are quadratic per axis): it
// is made once per edge, depth by depth, after the axes that stay fixed have
// been summed out, and the ten midpoints cost a few multiplications each.
//
// Only the side of the level matters, and it must be the side the exact
// (specified) evaluation gives. Both evaluations add the same terms in other
// orders, so they differ by rounding alone, and a bound of that difference
// comes with every approximate value; where the value is within its bound of
// the level, the exact evaluation decides.

#include <algorithm>
#include <cmath>
#include <vector>

#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "QZmath/VolTriang/detail/OctreeFuncBlockEvalImpl.h"

namespace VolTr
{
using namespace detail;

namespace
{
constexpr double UNIT_ROUNDOFF = 1.1102230246251565e-16;
// Nodes per axis that can reach an edge, at most; a wider edge (a coarse
// polygoniser) takes the point forms.
constexpr int EDGE_WINDOW = 10;
// Breaks of one depth's restriction, at most: every node's knots on every
// moving axis.
constexpr int EDGE_BREAKS = 3 * EDGE_WINDOW * (tf_Flat::MAX_PIECES + 1);
// Coefficients of a restriction piece: degree 2 per moving axis.
constexpr int EDGE_COEFFS = 7;
// Within this distance (in the edge's parameter) of a break, a midpoint is
// decided exactly: the two neighbouring pieces are both the function there
// only up to rounding of the break itself.
constexpr double BREAK_MARGIN = 1e-12;
// Parts of an edge for the interpolated crossing, at most.
constexpr int MAX_SUBDIVISIONS = 8;

// The largest |q| and |q'| of a quadratic on [a, b] (t measured from the
// factor's shift), from its ends and its vertex.
void tf_quadraticBounds(double const * c, int n, double a, double b, double * value, double * slope)
{
  double const c0 = n > 0 ? c[0] : 0.0, c1 = n > 1 ? c[1] : 0.0, c2 = n > 2 ? c[2] : 0.0;
  auto q = [&](double t) { return std::fabs(c0 + t * (c1 + t * c2)); };
  auto dq = [&](double t) { return std::fabs(c1 + 2.0 * c2 * t); };
  double v = std::max(q(a), q(b));
  if (c2 != 0.0)
  {
    double const t = -c1 / (2.0 * c2);
    if (t > a && t < b)
      v = std::max(v, q(t));
  }
  *value = std::max(*value, v);
  *slope = std::max(*slope, std::max(dq(a), dq(b)));
}
} // namespace

struct COctreeFuncBlockEvaluator::Cache::EdgeWork
{
  // One depth's restriction: its pieces are made when a midpoint first
  // falls in them (a bisection visits a few of them only).
  struct Depth
  {
    int pieces = 0;
    int degree = 0;
    int m = 0;       // moving axes
    int n[3];        // nodes per moving axis
    int factor[3];   // the axis of each moving axis' factor
    double alpha[3][EDGE_WINDOW];
    double beta[3];
    std::size_t g = 0; // offset of the summed-out coefficients in G
    double starts[EDGE_BREAKS + 2]; // piece p covers [starts[p], starts[p + 1])
    bool made[EDGE_BREAKS + 1];
    double coeffs[EDGE_BREAKS + 1][EDGE_COEFFS];
  };
  std::vector<Depth> depths;
  // The depths whose piece does not yet cover the whole bracket of the
  // bisection, each with the piece of the last midpoint.
  std::vector<int> open;
  std::vector<int> piece;
  // The fixed axes summed out, over the moving windows of every depth.
  std::vector<double> G;
  double bound = 0.0;
  int axis = 0; // the moving axis that gives the parameter
  double origin = 0.0, length = 1.0;
};

COctreeFuncBlockEvaluator::Cache::Cache() = default;
COctreeFuncBlockEvaluator::Cache::~Cache() = default;

namespace
{
// Tabulates the kernel windows of a coordinate on every depth.
void tf_tabulate(COctreeFuncBlockEvaluator::Shared const & sh, int depths, int axis, double coordinate,
                 COctreeFuncBlockEvaluator::Lattice::Window * out)
{
  COctreeFuncBlockEvaluator::Cache::AxisWindow w;
  for (int di = 0; di < depths; ++di)
  {
    axisWindow(sh, sh.depths[static_cast<std::size_t>(di)], axis, coordinate, &w);
    out[di].low = w.low;
    out[di].size = w.size;
    out[di].sumAbs = 0.0;
    for (int k = 0; k < w.size; ++k)
    {
      out[di].values[k] = w.values[0][k];
      out[di].sumAbs += std::fabs(w.values[0][k]);
    }
  }
}
} // namespace

bool COctreeFuncBlockEvaluator::setLattice(double const * start, double size, int bound, int subdivisions)
{
  Shared const & sh = *m_shared;
  std::shared_ptr<Lattice> l = std::make_shared<Lattice>();
  for (int a = 0; a < 3; ++a)
    l->start[a] = start[a];
  l->size = size;
  l->bound = bound < 0 ? 0 : bound;
  l->count = 2 * l->bound + 3;
  l->depths = static_cast<int>(sh.depths.size());
  m_lattice = l;
  if (!sh.usable || sh.flat.summands() != 1 || !(size > 0.0) || !std::isfinite(size) || bound > (1 << 26))
    return false;
  for (int a = 0; a < 3; ++a)
  {
    if (!std::isfinite(start[a]))
      return false;
    tf_Flat::Factor const & f = sh.flat.factor(0, a);
    for (int k = 0; k < f.pieces; ++k)
    {
      if (f.coeffsNumber[k] > 3)
        return false;
      tf_quadraticBounds(f.coeffs[k], f.coeffsNumber[k], f.knots[k], f.knots[k + 1], &l->valueMax,
                         &l->slopeMax);
      for (int c = 0; c < f.coeffsNumber[k]; ++c)
        l->coeffMax = std::max(l->coeffMax, std::fabs(f.coeffs[k][c]));
    }
  }
  int const parts = subdivisions > 1 && subdivisions <= MAX_SUBDIVISIONS ? subdivisions : 1;
  double const entries = 3.0 * l->count * (l->depths > 0 ? l->depths : 1);
  if (entries * parts > 4.0e6)
    return false; // a very fine polygoniser: the point forms, without tables
  l->windows.resize(static_cast<std::size_t>(entries));
  l->subdivisions = parts;
  l->between.resize(static_cast<std::size_t>(entries) * static_cast<std::size_t>(parts - 1));
  for (int a = 0; a < 3; ++a)
    for (int i = -l->bound - 1; i <= l->bound + 1; ++i)
    {
      tf_tabulate(sh, l->depths, a, l->coordinate(a, i), const_cast<Lattice::Window *>(l->window(a, i)));
      // The points between i and i + 1, computed as the interpolation
      // computes them from the edge's ends.
      double const c1 = l->coordinate(a, i), c2 = l->coordinate(a, i + 1);
      for (int k = 1; k < parts; ++k)
        tf_tabulate(sh, l->depths, a, c1 + (c2 - c1) * k / parts,
                    const_cast<Lattice::Window *>(l->windowBetween(a, i, k)));
    }
  l->tabulated = true;
  return true;
}

void COctreeFuncBlockEvaluator::shareLattice(COctreeFuncBlockEvaluator const & other)
{
  if (other.m_shared == m_shared)
    m_lattice = other.m_lattice;
}

namespace
{
// One depth's sum over its windows, z innermost; NY and NZ are the window
// sizes when known at compile time, 0 when read from the windows.
template <int NY, int NZ>
inline double tf_depthSum(double const * first, std::size_t strideX, std::size_t strideY,
                          COctreeFuncBlockEvaluator::Lattice::Window const & x,
                          COctreeFuncBlockEvaluator::Lattice::Window const & y,
                          COctreeFuncBlockEvaluator::Lattice::Window const & z)
{
  int const ny = NY > 0 ? NY : y.size, nz = NZ > 0 ? NZ : z.size;
  double value = 0.0;
  for (int i = 0; i < x.size; ++i)
  {
    double sy = 0.0;
    for (int j = 0; j < ny; ++j)
    {
      double const * row = first + i * strideX + j * strideY;
      double sz = 0.0;
      for (int k = 0; k < nz; ++k)
        sz += row[k] * z.values[k];
      sy += y.values[j] * sz;
    }
    value += x.values[i] * sy;
  }
  return value;
}

// The value at p from its tabulated windows on the three axes, with a bound
// of its rounding as evalWithBound gives it; false when a window leaves the
// dense range of p's block.
bool tf_latticeValue(COctreeFuncBlockEvaluator::Lattice const & l,
                     COctreeFuncBlockEvaluator::Cache::Block const & block,
                     COctreeFuncBlockEvaluator::Lattice::Window const * wx,
                     COctreeFuncBlockEvaluator::Lattice::Window const * wy,
                     COctreeFuncBlockEvaluator::Lattice::Window const * wz, double * result, double * bound)
{
  double value = 0.0, magnitude = 0.0;
  int terms = 0;
  for (int di = 0; di < l.depths; ++di)
  {
    COctreeFuncBlockEvaluator::Cache::DepthBlock const & db = block.depths[static_cast<std::size_t>(di)];
    COctreeFuncBlockEvaluator::Lattice::Window const & x = wx[di];
    COctreeFuncBlockEvaluator::Lattice::Window const & y = wy[di];
    COctreeFuncBlockEvaluator::Lattice::Window const & z = wz[di];
    // The windows lie inside the block's range when every offset below and
    // above is not negative: one branch for the three axes, as this runs
    // for every depth of every point.
    long long const off0 = x.low - db.kLow[0], off1 = y.low - db.kLow[1], off2 = z.low - db.kLow[2];
    if ((off0 | (db.n[0] - x.size - off0) | off1 | (db.n[1] - y.size - off1) | off2 |
         (db.n[2] - z.size - off2)) < 0)
      return false;
    std::size_t const base0 = static_cast<std::size_t>(off0);
    std::size_t const base1 = static_cast<std::size_t>(off1);
    std::size_t const base2 = static_cast<std::size_t>(off2);
    terms += x.size * y.size * z.size;
    double const * first = &db.coefficients[(base0 * db.n[1] + base1) * db.n[2] + base2];
    std::size_t const strideY = static_cast<std::size_t>(db.n[2]);
    std::size_t const strideX = strideY * static_cast<std::size_t>(db.n[1]);
    // The kernel reaches less than one and a half node spacings, so windows
    // hold two or three nodes (mostly three): their loops unrolled cost half
    // of the general ones.
    int const shape =
        (y.size == 2 || y.size == 3) && (z.size == 2 || z.size == 3) ? (y.size - 2) * 2 + z.size - 2 : -1;
    switch (shape)
    {
    case 0:
      value += tf_depthSum<2, 2>(first, strideX, strideY, x, y, z);
      break;
    case 1:
      value += tf_depthSum<2, 3>(first, strideX, strideY, x, y, z);
      break;
    case 2:
      value += tf_depthSum<3, 2>(first, strideX, strideY, x, y, z);
      break;
    case 3:
      value += tf_depthSum<3, 3>(first, strideX, strideY, x, y, z);
      break;
    default:
      value += tf_depthSum<0, 0>(first, strideX, strideY, x, y, z);
    }
    // The sum of the terms' magnitudes is at most the largest coefficient
    // times the kernel values' sums (a percent on top for their rounding):
    // a looser bound than the terms' own, for a third of the work.
    magnitude += 1.01 * db.maxAbs * x.sumAbs * y.sumAbs * z.sumAbs;
  }
  // As in evalWithBound: both sums hold the same terms, each rounded three
  // times, added in different orders.
  *bound = 2.5e-16 * (terms + 4) * magnitude + 1e-300;
  *result = value;
  return true;
}
} // namespace

void COctreeFuncBlockEvaluator::latticePoint(int const * index, double * p) const
{
  Lattice const * l = m_lattice.get();
  for (int a = 0; a < 3; ++a)
    p[a] = l ? l->coordinate(a, index[a]) : 0.0;
}

double COctreeFuncBlockEvaluator::evalLatticeWithBound(int const * index, double * bound)
{
  Lattice const * l = m_lattice.get();
  double p[3];
  latticePoint(index, p);
  if (!l || !l->tabulated || !l->holds(index[0]) || !l->holds(index[1]) || !l->holds(index[2]))
    return evalWithBound(p, bound);
  Cache::Block const * block = blockOf(*m_shared, *m_cache, p);
  double value = 0.0;
  if (!block || !tf_latticeValue(*l, *block, l->window(0, index[0]), l->window(1, index[1]),
                                 l->window(2, index[2]), &value, bound))
    return evalWithBound(p, bound);
  return value;
}

namespace
{
// The window of nodes of a depth that reach any point of [u1, u2] (node
// index units).
void tf_edgeWindow(double u1, double u2, double reach, long long * low, int * size)
{
  long long const lo = tf_ceil(std::min(u1, u2) - reach);
  long long const hi = tf_floor(std::max(u1, u2) + reach);
  *low = lo;
  *size = hi >= lo ? static_cast<int>(hi - lo + 1) : 0;
}

// p * q into out, all as coefficient lists (out must not alias).
inline void tf_multiply(double const * p, int np, double const * q, int nq, double * out)
{
  for (int k = 0; k < np + nq - 1; ++k)
    out[k] = 0.0;
  for (int i = 0; i < np; ++i)
    for (int j = 0; j < nq; ++j)
      out[i + j] += p[i] * q[j];
}
} // namespace

// One piece of a depth's restriction: the product of the moving factors'
// pieces, summed with the summed-out coefficients. A factor's piece
// q(t) = c0 + c1 t + c2 t^2 at t = alpha + beta r is d0 + d1 r + d2 r^2.
static void tf_makePiece(COctreeFuncBlockEvaluator::Shared const & sh,
                         COctreeFuncBlockEvaluator::Cache::EdgeWork::Depth & d, double const * G, int p)
{
  int const m = d.m;
  int const * n = d.n;
  double const rm = 0.5 * (d.starts[p] + d.starts[p + 1]);
  double composed[3][EDGE_WINDOW][3];
  bool live[3][EDGE_WINDOW];
  for (int q = 0; q < m; ++q)
  {
    tf_Flat::Factor const & f = sh.flat.factor(0, d.factor[q]);
    for (int k = 0; k < n[q]; ++k)
    {
      double const a0 = d.alpha[q][k];
      double const t = a0 + d.beta[q] * rm;
      int row = 0;
      // The knots ascend (the evaluator is not used otherwise): count up to
      // the first one above t.
      while (row <= f.pieces && t >= f.knots[row])
        ++row;
      live[q][k] = row >= 1 && row <= f.pieces && f.coeffsNumber[row - 1] > 0;
      if (!live[q][k])
        continue;
      double const * c = f.coeffs[row - 1];
      int const nc = f.coeffsNumber[row - 1];
      double const c0 = c[0], c1 = nc > 1 ? c[1] : 0.0, c2 = nc > 2 ? c[2] : 0.0;
      composed[q][k][0] = c0 + a0 * (c1 + c2 * a0);
      composed[q][k][1] = d.beta[q] * (c1 + 2.0 * c2 * a0);
      composed[q][k][2] = c2 * d.beta[q] * d.beta[q];
    }
  }
  double * poly = d.coeffs[p];
  for (int c = 0; c < EDGE_COEFFS; ++c)
    poly[c] = 0.0;
  if (m == 1)
  {
    for (int i = 0; i < n[0]; ++i)
      if (live[0][i] && G[i] != 0.0)
        for (int c = 0; c < 3; ++c)
          poly[c] += G[i] * composed[0][i][c];
  }
  else if (m == 2)
  {
    for (int i = 0; i < n[0]; ++i)
    {
      if (!live[0][i])
        continue;
      double h[3] = {0.0, 0.0, 0.0};
      double const * row = G + static_cast<std::size_t>(i) * n[1];
      for (int j = 0; j < n[1]; ++j)
        if (live[1][j] && row[j] != 0.0)
          for (int c = 0; c < 3; ++c)
            h[c] += row[j] * composed[1][j][c];
      double prod[5];
      tf_multiply(composed[0][i], 3, h, 3, prod);
      for (int c = 0; c < 5; ++c)
        poly[c] += prod[c];
    }
  }
  else
  {
    for (int i = 0; i < n[0]; ++i)
    {
      if (!live[0][i])
        continue;
      double hj[5] = {0.0, 0.0, 0.0, 0.0, 0.0};
      for (int j = 0; j < n[1]; ++j)
      {
        if (!live[1][j])
          continue;
        double h[3] = {0.0, 0.0, 0.0};
        double const * row = G + (static_cast<std::size_t>(i) * n[1] + j) * n[2];
        for (int k = 0; k < n[2]; ++k)
          if (live[2][k] && row[k] != 0.0)
            for (int c = 0; c < 3; ++c)
              h[c] += row[k] * composed[2][k][c];
        double prod[5];
        tf_multiply(composed[1][j], 3, h, 3, prod);
        for (int c = 0; c < 5; ++c)
          hj[c] += prod[c];
      }
      double prod[7];
      tf_multiply(composed[0][i], 3, hj, 5, prod);
      for (int c = 0; c < 7; ++c)
        poly[c] += prod[c];
    }
  }
  d.made[p] = true;
}

// The restriction of X to the edge from p1 (parameter 0) to p2 (parameter 1),
// depth by depth: the windows, the fixed axes summed out, the breaks, and a
// bound of the rounding; the pieces come later. False when the edge does not
// fit the dense form.
static bool tf_prepareEdge(COctreeFuncBlockEvaluator::Shared const & sh, COctreeFuncBlockEvaluator::Cache & cache,
                           COctreeFuncBlockEvaluator::Lattice const & l, int const * from, double const * p1,
                           double const * p2)
{
  using Cache = COctreeFuncBlockEvaluator::Cache;
  using Lattice = COctreeFuncBlockEvaluator::Lattice;
  int moving[3], fixed[3], m = 0, nf = 0;
  for (int a = 0; a < 3; ++a)
  {
    if (p1[a] != p2[a])
      moving[m++] = a;
    else
      fixed[nf++] = a;
  }
  if (m == 0)
    return false;
  double mid[3];
  for (int a = 0; a < 3; ++a)
    mid[a] = (p1[a] + p2[a]) * 0.5;
  Cache::Block const * block = blockOf(sh, cache, mid);
  if (!block)
    return false;
  if (!cache.edge)
    cache.edge.reset(new Cache::EdgeWork);
  Cache::EdgeWork & e = *cache.edge;
  e.depths.resize(sh.depths.size());
  e.axis = moving[0];
  e.origin = p1[moving[0]];
  e.length = p2[moving[0]] - p1[moving[0]];
  double vmax = 0.0;
  for (int a = 0; a < 3; ++a)
    vmax = std::max(vmax, std::max(std::fabs(p1[a]), std::fabs(p2[a])));

  double magnitudeSum = 0.0, compositionBound = 0.0, positionBound = 0.0;
  long long terms = 0;
  double const valueMax = l.valueMax;
  std::size_t used = 0;
  for (std::size_t di = 0; di < sh.depths.size(); ++di)
  {
    COctreeFuncBlockEvaluator::Shared::Depth const & depth = sh.depths[di];
    Cache::DepthBlock const & db = block->depths[di];
    Cache::EdgeWork::Depth & d = e.depths[di];
    d.m = m;
    // The windows.
    Lattice::Window const * fw[3] = {nullptr, nullptr, nullptr};
    for (int f = 0; f < nf; ++f)
    {
      int const a = fixed[f];
      fw[a] = &l.window(a, from[a])[di];
      if (!insideOnAxis(fw[a]->low, fw[a]->size, db, a))
        return false;
    }
    long long low[3] = {0, 0, 0};
    double alphaMax = 0.0, betaMax = 0.0;
    // The windows need not be exact: the reach has a margin, and the block
    // checks guard the indexing.
    double const inverseCell = 1.0 / depth.cellSize;
    for (int q = 0; q < m; ++q)
    {
      int const a = moving[q];
      double const u1 = (p1[a] - sh.boxMin[a]) * inverseCell - depth.offsetInCells[a];
      double const u2 = (p2[a] - sh.boxMin[a]) * inverseCell - depth.offsetInCells[a];
      tf_edgeWindow(u1, u2, sh.reach, &low[q], &d.n[q]);
      if (d.n[q] > EDGE_WINDOW || !insideOnAxis(low[q], d.n[q], db, a))
        return false;
      d.factor[q] = a;
      d.beta[q] = (p2[a] - p1[a]) * depth.scale;
      betaMax = std::max(betaMax, std::fabs(d.beta[q]));
      double const shift = sh.flat.factor(0, a).argShift;
      for (int k = 0; k < d.n[q]; ++k)
      {
        long long const node = depth.offset[a] + (low[q] + k) * depth.step;
        double const centre = static_cast<double>(static_cast<int>(node)) * sh.unit + sh.boxMin[a];
        d.alpha[q][k] = (centre - p1[a]) * (0.0 - depth.scale) - shift;
        alphaMax = std::max(alphaMax, std::fabs(d.alpha[q][k]));
      }
    }
    int const * n = d.n;
    for (int q = m; q < 3; ++q)
      d.n[q] = 1;
    // Sum out the fixed axes: G[i][j][k] over the moving windows in the
    // order of the moving axes.
    std::size_t const entries = static_cast<std::size_t>(n[0]) * n[1] * n[2];
    d.g = used;
    used += entries;
    if (e.G.size() < used)
      e.G.resize(std::max(used, 2 * e.G.size()));
    double * G = e.G.data() + d.g;
    long long pointTerms = 1;
    for (int q = 0; q < m; ++q)
      pointTerms *= std::min(n[q], BE_MAX_WINDOW);
    for (int f = 0; f < nf; ++f)
      pointTerms *= fw[fixed[f]]->size;
    terms += pointTerms;
    double magnitude = 0.0;
    std::size_t const stride[3] = {static_cast<std::size_t>(db.n[1]) * db.n[2], static_cast<std::size_t>(db.n[2]), 1};
    // The block offset of the first node of every window.
    std::size_t base = 0;
    for (int q = 0; q < m; ++q)
      base += static_cast<std::size_t>(low[q] - db.kLow[moving[q]]) * stride[moving[q]];
    for (int f = 0; f < nf; ++f)
      base += static_cast<std::size_t>(fw[fixed[f]]->low - db.kLow[fixed[f]]) * stride[fixed[f]];
    std::size_t const sm0 = stride[moving[0]], sm1 = m > 1 ? stride[moving[1]] : 0, sm2 = m > 2 ? stride[moving[2]] : 0;
    double const * C = db.coefficients.data() + base;
    // One loop per number of fixed axes: the dispatch stays out of the
    // innermost loop.
    std::size_t at = 0;
    if (nf == 0)
    {
      for (int i = 0; i < n[0]; ++i)
        for (int j = 0; j < n[1]; ++j)
        {
          double const * c = C + i * sm0 + j * sm1;
          for (int k = 0; k < n[2]; ++k, ++at)
          {
            double const g = c[k * sm2];
            G[at] = g;
            magnitude += std::fabs(g);
          }
        }
    }
    else if (nf == 1)
    {
      Lattice::Window const & w = *fw[fixed[0]];
      std::size_t const sf = stride[fixed[0]];
      for (int i = 0; i < n[0]; ++i)
        for (int j = 0; j < n[1]; ++j, ++at)
        {
          double const * c = C + i * sm0 + j * sm1;
          double g = 0.0;
          for (int s = 0; s < w.size; ++s)
            g += c[s * sf] * w.values[s];
          G[at] = g;
        }
      // At most the largest coefficient times the kernel values' sum per
      // entry (see evalLatticeWithBound).
      magnitude = 1.01 * static_cast<double>(at) * db.maxAbs * w.sumAbs;
    }
    else
    {
      Lattice::Window const & wa = *fw[fixed[0]];
      Lattice::Window const & wb = *fw[fixed[1]];
      std::size_t const sa = stride[fixed[0]], sb = stride[fixed[1]];
      for (int i = 0; i < n[0]; ++i, ++at)
      {
        double const * c = C + i * sm0;
        double g = 0.0;
        for (int s = 0; s < wa.size; ++s)
        {
          double const * cs = c + s * sa;
          double h = 0.0;
          for (int t = 0; t < wb.size; ++t)
            h += cs[t * sb] * wb.values[t];
          g += h * wa.values[s];
        }
        G[at] = g;
      }
      magnitude = 1.01 * static_cast<double>(at) * db.maxAbs * wa.sumAbs * wb.sumAbs;
    }
    magnitudeSum += magnitude;

    // The breaks: where a node's argument crosses a knot of its factor
    // inside the edge, kept in ascending order.
    int count = 0;
    d.starts[count++] = 0.0;
    for (int q = 0; q < m; ++q)
    {
      tf_Flat::Factor const & f = sh.flat.factor(0, d.factor[q]);
      double const beta = d.beta[q], inverseBeta = 1.0 / beta;
      for (int k = 0; k < n[q]; ++k)
      {
        double const t0 = d.alpha[q][k], t1 = t0 + beta;
        double const lo = std::min(t0, t1), hi = std::max(t0, t1);
        for (int c = 0; c <= f.pieces; ++c)
        {
          double const knot = f.knots[c];
          if (knot >= hi)
            break; // the knots ascend
          if (!(knot > lo))
            continue;
          double const r = (knot - t0) * inverseBeta;
          if (!(r > 0.0 && r < 1.0) || count > EDGE_BREAKS)
            continue;
          int at = count++;
          while (at > 1 && d.starts[at - 1] > r)
          {
            d.starts[at] = d.starts[at - 1];
            --at;
          }
          d.starts[at] = r;
        }
      }
    }
    count = static_cast<int>(std::unique(d.starts, d.starts + count) - d.starts);
    d.starts[count] = 1.0;
    d.pieces = count;
    d.degree = 2 * m;
    for (int p = 0; p < count; ++p)
      d.made[p] = false;

    // The rounding of the composition: every coefficient of a composed
    // factor is at most F in magnitude, a product of m of them at most F^m
    // per unit of G; each takes a few roundings, and so do the sums and
    // Horner's rule on [0, 1].
    double const a = alphaMax + betaMax;
    double const F = l.coeffMax * (1.0 + a + a * a) * (1.0 + betaMax + betaMax * betaMax);
    double const Fm = m == 1 ? F : m == 2 ? F * F : F * F * F;
    compositionBound += magnitude * (16.0 * m + 16.0) * UNIT_ROUNDOFF * Fm;
    // The moving coordinates of a midpoint follow the parameter of the first
    // one only up to their own rounding: a few units of the coordinate,
    // times the slope of the factor on the other axes.
    if (m > 1)
      positionBound += magnitude * (m - 1) * l.slopeMax * (m == 2 ? valueMax : valueMax * valueMax) *
                       depth.scale * 8.0 * UNIT_ROUNDOFF * vmax;
  }
  // Both this value and the exact one are the same terms in other orders:
  // each within (terms + a few) roundings of the magnitudes.
  double const v1 = std::max(valueMax, 1.0);
  double const summation = 2.0 * (static_cast<double>(terms) + 16.0) * UNIT_ROUNDOFF * v1 * v1 * v1 * magnitudeSum;
  e.bound = 2.0 * (summation + compositionBound + positionBound) + 1e-300;
  return std::isfinite(e.bound);
}

void COctreeFuncBlockEvaluator::convergeOnLatticeEdge(int const * from, int const * to, double valueFrom,
                                                       double isoValue, double * result)
{
  Lattice const * l = m_lattice.get();
  Shared const & sh = *m_shared;
  double p1[3] = {0.0, 0.0, 0.0}, p2[3] = {0.0, 0.0, 0.0};
  if (!l)
  {
    result[0] = result[1] = result[2] = 0.0; // no lattice was set
    return;
  }
  for (int a = 0; a < 3; ++a)
    {
      p1[a] = l->coordinate(a, from[a]);
      p2[a] = l->coordinate(a, to[a]);
    }
  bool const fast = l->tabulated && l->holds(from[0]) && l->holds(from[1]) && l->holds(from[2]) &&
                    tf_prepareEdge(sh, *m_cache, *l, from, p1, p2);
  Cache::EdgeWork * e = fast ? m_cache->edge.get() : nullptr;
  double pos[3], neg[3];
  for (int a = 0; a < 3; ++a)
  {
    pos[a] = valueFrom >= 0 ? p1[a] : p2[a];
    neg[a] = valueFrom >= 0 ? p2[a] : p1[a];
  }
  // The bisection narrows its bracket around the level: a depth whose piece
  // covers the whole bracket (away from its breaks) keeps that piece to the
  // end, so its coefficients join one polynomial summed over such depths and
  // each later midpoint costs one Horner's rule for all of them.
  double combined[EDGE_COEFFS] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  int combinedDegree = 0;
  double combinedMagnitude = 0.0;
  int settled = 0;
  if (e)
  {
    std::size_t const nd = e->depths.size();
    e->open.resize(nd);
    e->piece.assign(nd, 0);
    for (std::size_t di = 0; di < nd; ++di)
      e->open[di] = static_cast<int>(di);
  }
  int openCount = e ? static_cast<int>(e->depths.size()) : 0;
  for (int n = 1;; ++n)
  {
    double mid[3];
    for (int a = 0; a < 3; ++a)
      mid[a] = (pos[a] + neg[a]) * 0.5;
    if (n == 11)
    {
      for (int a = 0; a < 3; ++a)
        result[a] = mid[a];
      return;
    }
    double approx = 0.0, bound = 0.0;
    bool exact = false;
    if (e)
    {
      double const r = (mid[e->axis] - e->origin) / e->length;
      double const rp = (pos[e->axis] - e->origin) / e->length;
      double const rn = (neg[e->axis] - e->origin) / e->length;
      double const low = std::min(rp, rn), high = std::max(rp, rn);
      for (int o = 0; o < openCount && !exact;)
      {
        int const di = e->open[static_cast<std::size_t>(o)];
        Cache::EdgeWork::Depth & d = e->depths[static_cast<std::size_t>(di)];
        int p = e->piece[static_cast<std::size_t>(di)];
        while (p + 1 < d.pieces && d.starts[p + 1] <= r)
          ++p;
        while (p > 0 && d.starts[p] > r)
          --p;
        e->piece[static_cast<std::size_t>(di)] = p;
        if ((p > 0 && r - d.starts[p] < BREAK_MARGIN) || (p + 1 < d.pieces && d.starts[p + 1] - r < BREAK_MARGIN))
          exact = true;
        if (!d.made[p])
          tf_makePiece(sh, d, e->G.data() + d.g, p);
        double const * c = d.coeffs[p];
        if ((p == 0 || low - d.starts[p] >= BREAK_MARGIN) && (p + 1 == d.pieces || d.starts[p + 1] - high >= BREAK_MARGIN))
        {
          for (int k = 0; k <= d.degree; ++k)
          {
            combined[k] += c[k];
            combinedMagnitude += std::fabs(c[k]);
          }
          combinedDegree = std::max(combinedDegree, d.degree);
          ++settled;
          e->open[static_cast<std::size_t>(o)] = e->open[static_cast<std::size_t>(--openCount)];
          continue;
        }
        double v = c[d.degree];
        for (int k = d.degree - 1; k >= 0; --k)
          v = v * r + c[k];
        approx += v;
        ++o;
      }
      double v = combined[combinedDegree];
      for (int k = combinedDegree - 1; k >= 0; --k)
        v = v * r + combined[k];
      approx += v;
      // Summing the settled pieces' coefficients and the one Horner's rule
      // on [0, 1] round anew: a few units per depth and per degree of the
      // magnitudes summed.
      bound = e->bound + (settled + 2 * combinedDegree + 4) * 1.01 * UNIT_ROUNDOFF * combinedMagnitude;
    }
    else
      approx = evalWithBound(mid, &bound);
    bool above;
    double const margin = bound + 4.5e-16 * (std::fabs(approx) + std::fabs(isoValue));
    double const diff = approx - isoValue;
    if (!exact && diff > margin)
      above = true;
    else if (!exact && -diff > margin)
      above = false;
    else
      above = eval(mid) - isoValue > 0;
    double * moved = above ? pos : neg;
    for (int a = 0; a < 3; ++a)
      moved[a] = mid[a];
  }
}

void COctreeFuncBlockEvaluator::interpolateOnLatticeEdge(int const * from, int const * to, double valueFrom,
                                                         double valueTo, double isoValue, double * result)
{
  Lattice const * l = m_lattice.get();
  if (!l)
  {
    result[0] = result[1] = result[2] = 0.0; // no lattice was set
    return;
  }
  int const parts =
      l->tabulated && l->subdivisions > 1 ? std::min(l->subdivisions, static_cast<int>(MAX_SUBDIVISIONS)) : 3;
  double p1[3], p2[3];
  bool tabulated = l->tabulated && l->subdivisions > 1;
  for (int a = 0; a < 3; ++a)
  {
    p1[a] = l->coordinate(a, from[a]);
    p2[a] = l->coordinate(a, to[a]);
    int const step = to[a] - from[a];
    tabulated = tabulated && step >= -1 && step <= 1 && l->holds(from[a]) && l->holds(to[a]);
  }
  // Values of X - isoValue at u = 0 .. parts along the edge.
  double g[MAX_SUBDIVISIONS + 1];
  g[0] = valueFrom;
  g[parts] = valueTo;
  for (int k = 1; k < parts; ++k)
  {
    double p[3];
    Lattice::Window const * w[3] = {nullptr, nullptr, nullptr};
    for (int a = 0; a < 3; ++a)
    {
      p[a] = p1[a] + (p2[a] - p1[a]) * k / parts;
      if (!tabulated)
        continue;
      int const step = to[a] - from[a];
      w[a] = step == 0  ? l->window(a, from[a])
             : step > 0 ? l->windowBetween(a, from[a], k)
                        : l->windowBetween(a, to[a], parts - k);
    }
    double value = 0.0, bound = 0.0;
    Cache::Block const * block = tabulated ? blockOf(*m_shared, *m_cache, p) : nullptr;
    if (!block || !tf_latticeValue(*l, *block, w[0], w[1], w[2], &value, &bound))
      value = evalWithBound(p, &bound);
    g[k] = value - isoValue;
  }
  // The first part whose ends are on different sides (the ends of the edge
  // are, so one is).
  bool const positiveFrom = valueFrom >= 0;
  auto side = [&](int k) { return k == 0 ? positiveFrom : k == parts ? !positiveFrom : g[k] > 0; };
  int part = 0;
  while (part + 1 < parts && side(part + 1) == positiveFrom)
    ++part;
  // The interpolating polynomial in Newton's form over the nodes 0 .. parts.
  double c[MAX_SUBDIVISIONS + 1];
  for (int k = 0; k <= parts; ++k)
    c[k] = g[k];
  for (int order = 1; order <= parts; ++order)
    for (int k = parts; k >= order; --k)
      c[k] = (c[k] - c[k - 1]) / order;
  auto poly = [&](double u)
  {
    double v = c[parts];
    for (int k = parts - 1; k >= 0; --k)
      v = v * (u - k) + c[k];
    return v;
  };
  // Its zero in the part, by regula falsi with the Illinois halving: the
  // ends keep their sides, so the zero stays bracketed.
  double a = part, b = part + 1.0;
  double fa = part == 0 ? valueFrom : g[part], fb = part + 1 == parts ? valueTo : g[part + 1];
  double u = 0.5 * (a + b);
  int kept = 0;
  for (int iteration = 0; iteration < 60 && b - a > 1e-12; ++iteration)
  {
    u = fa != fb ? (a * fb - b * fa) / (fb - fa) : 0.5 * (a + b);
    if (!(u > a && u < b))
      u = 0.5 * (a + b);
    double const fu = poly(u);
    if (fu == 0.0)
      break;
    if ((fu > 0) == (fa > 0))
    {
      a = u, fa = fu;
      if (kept == -1)
        fb *= 0.5;
      kept = -1;
    }
    else
    {
      b = u, fb = fu;
      if (kept == 1)
        fa *= 0.5;
      kept = 1;
    }
  }
  double const t = u / parts;
  for (int i = 0; i < 3; ++i)
    result[i] = p1[i] + (p2[i] - p1[i]) * t;
}
} // namespace VolTr
