#include "QZmath/VolTriang/detail/MultilevelPoisson.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>

#include "QZmath/VolTriang/SingleVarPolynom.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

namespace VolTr
{
// One depth's nodes, sorted by lattice position (x, then y, then z), with a
// table of the lines of constant (x, y) so that a box of positions is found
// with one lookup per line.
struct CMultilevelPoissonSolver::SLevel
{
  int depth = 0;
  /// Leaf steps between neighbouring node positions, and the position of
  /// lattice index 0: a node stands at m * spacing + offset.
  int spacing = 1;
  int shift = 0; // spacing == 1 << shift
  int offset = 0;
  /// 1 / cell size, in model units.
  double scale = 0.0;
  std::vector<int> m[3];
  std::vector<int> node;
  int lo[3] = {0, 0, 0};
  int n[3] = {0, 0, 0};
  std::vector<int> lineOfXY;
  std::vector<int> lineStart;
  /// A[p][q] between nodes of this depth, by index offset in [-radius,
  /// radius]^3, x slowest; and its centre, the diagonal.
  int radius = 0;
  std::vector<double> stencil;
  double diagonal = 0.0;
  int size() const { return static_cast<int>(node.size()); }
  /// The model coordinate of lattice index m on an axis whose box starts at
  /// boxMin, with finest lattice step `unit`.
  double coordinate(int m, double unit, double boxMin) const
  {
    return (static_cast<double>(m) * spacing + offset) * unit + boxMin;
  }
};

// One-variable integrals between a finer (or equal) depth f and a coarser
// depth c, by offset d = position_f - position_c in leaf steps. The offsets
// that occur are base + k * spacing_f; beyond the reach the integrals are 0.
// m: k_f k_c; gF, gC: the derivative on f or on c; lF, lC: the second
// derivative on f or on c. Kernels unnormalised, arguments s * (x - centre).
struct CMultilevelPoissonSolver::SPairTables
{
  int fine = 0, coarse = 0;
  double reach = 0.0; // |d| < reach where any value is non-zero
  /// The offsets within reach run from base to last in steps of `step`,
  /// 1 << shift.
  int base = 0;
  int last = 0;
  int step = 1;
  int shift = 0;
  std::vector<double> mm, gF, gC, lF, lC;
  int index(int d) const { return (d - base) >> shift; }
};

// The samples merged per node cell of one depth, for the screening: each
// holder node keeps the weighted mean of its samples and their total weight,
// with the one-variable kernel values of the nodes around that point.
struct CMultilevelPoissonSolver::SScreenPoints
{
  int reach = 0;                // nodes within this many steps of the holder reach its point
  std::vector<int> holder;      // the holder node of each point (index in the level)
  std::vector<int> firstPoint;  // per node of the level and one more: its points, by holder
  std::vector<double> position; // three per point
  std::vector<double> weight;
  std::vector<double> values;   // per point, 3 axes x (2 reach + 1) kernel values
  std::vector<double> diagonal; // per node, sum of weight * F_o(point)^2
  // The nodes each point reaches with F_node(point) != 0, point by point in
  // the line walk's order (sums over them keep that order): the relaxation
  // goes over these pairs at every step.
  std::vector<std::int64_t> pairStart; // per point and one more
  std::vector<int> pairNode;
  // Each pair's node offset from the holder (dx, dy, dz, each plus the
  // reach, five bits apiece): F_node(point) is formed again from the point's
  // one-variable values, in the order it was first formed, rather than kept
  // (two bytes a pair instead of eight).
  std::vector<std::uint16_t> pairOffset;
  double norm = 0.0; // s^3 of the depth
  static std::uint16_t offsetCode(int x, int y, int z)
  {
    return static_cast<std::uint16_t>(x | y << 5 | z << 10);
  }
  double pairValue(double const * v, std::uint16_t code) const
  {
    int const w = width();
    return norm * v[code & 31] * v[w + (code >> 5 & 31)] * v[2 * w + (code >> 10)];
  }
  int width() const { return 2 * reach + 1; }
  double const * valuesOf(int point) const { return &values[static_cast<std::size_t>(point) * 3 * width()]; }
};

namespace
{
using SLevel = CMultilevelPoissonSolver::SLevel;
using SPairTables = CMultilevelPoissonSolver::SPairTables;

int tf_floorDiv(long long a, long long b)
{
  long long q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0)))
    --q;
  return static_cast<int>(q);
}

// The one-variable kernel with its first two derivatives, on its own pieces.
class tf_Kernel1D
{
public:
  explicit tf_Kernel1D(CProductPiecewisePolynom const & kernel)
  {
    m_k[0] = kernel.getSummand(0).getMultiplier(0);
    m_k[0].makeDerivative(&m_k[1]);
    m_k[1].makeDerivative(&m_k[2]);
    for (int i = 0; i < m_k[0].getKnotsNumber(); ++i)
      m_knots.push_back(m_k[0].getKnot(i) + m_k[0].getArgShift());
    m_reach = 0.0;
    for (double k : m_knots)
      m_reach = std::max(m_reach, std::fabs(k));
  }
  double eval(int derivative, double t) const { return m_k[derivative].eval(t); }
  std::vector<double> const & knots() const { return m_knots; }
  /// The support is [-reach, reach] in kernel units.
  double reach() const { return m_reach; }

  // The integral of k^(a)(sf (x - cf)) k^(b)(sc (x - cc)): Gauss-Legendre on
  // every interval between the knots of both factors, exact for the degrees
  // of the kernel's pieces.
  double integrate(int a, double sf, double cf, int b, double sc, double cc) const
  {
    double cuts[32];
    int count = 0;
    for (double k : m_knots)
      cuts[count++] = cf + k / sf;
    for (double k : m_knots)
      cuts[count++] = cc + k / sc;
    std::sort(cuts, cuts + count);
    static double const nodes[4] = {-0.8611363115940526, -0.3399810435848563, 0.3399810435848563,
                                    0.8611363115940526};
    static double const weights[4] = {0.3478548451374538, 0.6521451548625461, 0.6521451548625461,
                                      0.3478548451374538};
    double const lo = std::max(cuts[0], std::max(cf - m_reach / sf, cc - m_reach / sc));
    double const hi = std::min(cuts[count - 1], std::min(cf + m_reach / sf, cc + m_reach / sc));
    double sum = 0.0;
    for (int i = 0; i + 1 < count; ++i)
    {
      double const x0 = std::max(cuts[i], lo), x1 = std::min(cuts[i + 1], hi);
      if (!(x1 > x0))
        continue;
      double const mid = 0.5 * (x0 + x1), half = 0.5 * (x1 - x0);
      double part = 0.0;
      for (int q = 0; q < 4; ++q)
      {
        double const x = mid + half * nodes[q];
        part += weights[q] * eval(a, sf * (x - cf)) * eval(b, sc * (x - cc));
      }
      sum += part * half;
    }
    return sum;
  }

private:
  CSingleVarLimitedPolynom m_k[3];
  std::vector<double> m_knots;
  double m_reach;
};

// Runs body(block, begin, end) over fixed blocks of [0, count) on up to
// `tasks` threads. Blocks do not depend on the thread count.
constexpr int tf_blockSize = 2048;

template <class F> void tf_forBlocks(int count, int tasks, F && body)
{
  int const blocks = (count + tf_blockSize - 1) / tf_blockSize;
  if (tasks <= 1 || blocks <= 1)
  {
    for (int b = 0; b < blocks; ++b)
      body(b, b * tf_blockSize, std::min(count, (b + 1) * tf_blockSize));
    return;
  }
  struct Task : IVescaInvokeProc
  {
    F * body;
    int first, stride, blocks, count;
    void run() override
    {
      for (int b = first; b < blocks; b += stride)
        (*body)(b, b * tf_blockSize, std::min(count, (b + 1) * tf_blockSize));
    }
  };
  int const used = std::min(tasks, blocks);
  std::vector<Task> work(static_cast<std::size_t>(used));
  std::vector<IVescaInvokeProc *> procs;
  for (int t = 0; t < used; ++t)
  {
    work[t].body = &body;
    work[t].first = t;
    work[t].stride = used;
    work[t].blocks = blocks;
    work[t].count = count;
    procs.push_back(&work[t]);
  }
  CVescaThreadingTasksHelper::performInParallel(procs.data(), used, nullptr);
}

// Runs body(item) for items [0, count) on up to `tasks` threads, each item
// whole on one thread.
template <class F> void tf_forItems(int count, int tasks, F && body)
{
  if (tasks <= 1 || count <= 1)
  {
    for (int i = 0; i < count; ++i)
      body(i);
    return;
  }
  struct Task : IVescaInvokeProc
  {
    F * body;
    int first, stride, count;
    void run() override
    {
      for (int i = first; i < count; i += stride)
        (*body)(i);
    }
  };
  int const used = std::min(tasks, count);
  std::vector<Task> work(static_cast<std::size_t>(used));
  std::vector<IVescaInvokeProc *> procs;
  for (int t = 0; t < used; ++t)
  {
    work[t].body = &body;
    work[t].first = t;
    work[t].stride = used;
    work[t].count = count;
    procs.push_back(&work[t]);
  }
  CVescaThreadingTasksHelper::performInParallel(procs.data(), used, nullptr);
}

// Lattice indices per axis that one node can reach on another depth; kernels
// wider than this (a kernel scale above 2.5) are refused.
constexpr int tf_maxWindow = 16;

// The candidates of one axis: the lattice indices of level Q within reach of
// a position, and the table slot of each.
struct tf_AxisWindow
{
  int lo = 0, hi = -1;
  int slot[tf_maxWindow];
};

// For a node at position c (leaf steps) of the finer depth of `t` and the
// level Q of its coarser depth, the indices m of Q with
// |c - (m * spacing + offset)| < reach, with their table slots.
inline void tf_axisWindow(tf_AxisWindow * w, int c, SLevel const & q, SPairTables const & t)
{
  // d = c - offset - m * spacing must lie in [base, last]; spacings are
  // powers of two, so the bounds are shifts.
  int const a = c - q.offset;
  w->lo = -((t.last - a) >> q.shift);
  w->hi = (a - t.base) >> q.shift;
  if (w->hi - w->lo >= tf_maxWindow)
    w->hi = w->lo + tf_maxWindow - 1; // the constructor refuses such kernels
  int const ratio = 1 << (q.shift - t.shift);
  int slot = (a - w->lo * q.spacing - t.base) >> t.shift;
  for (int m = w->lo; m <= w->hi; ++m, slot -= ratio)
    w->slot[m - w->lo] = slot;
}

// Walks the lines (nodes of equal x and y) of a level P and, for each of
// their nodes in ascending z, the nodes of a level Q within reach, where P is
// the finer (or the same) depth of the table `t` and Q the coarser. The lines
// of Q in reach are the same for a whole line of P, and the window along z
// only moves forward, so no search is repeated per node.
class tf_LineWalker
{
public:
  static constexpr int maxLines = tf_maxWindow * tf_maxWindow;

  tf_LineWalker(SLevel const & p, SLevel const & q, SPairTables const & t) : m_p(p), m_q(q), m_t(t) {}

  int lineCount() const { return m_lines; }
  /// The table slots of the x and y offsets of a line of Q in reach.
  int slotX(int j) const { return m_wx.slot[m_ix[j]]; }
  int slotY(int j) const { return m_wy.slot[m_iy[j]]; }
  /// The position of line j of Q in the window, from its low corner.
  int lineX(int j) const { return m_ix[j]; }
  int lineY(int j) const { return m_iy[j]; }
  tf_AxisWindow const & windowZ() const { return m_wz; }
  /// The nodes of line j of Q (all of them, in ascending z).
  int lineBegin(int j) const { return m_begin[j]; }
  int lineEnd(int j) const { return m_end[j]; }

  void setLine(int line)
  {
    int const k0 = m_p.lineStart[static_cast<std::size_t>(line)];
    tf_axisWindow(&m_wx, m_p.m[0][k0] * m_p.spacing + m_p.offset, m_q, m_t);
    tf_axisWindow(&m_wy, m_p.m[1][k0] * m_p.spacing + m_p.offset, m_q, m_t);
    m_lines = 0;
    int const x0 = std::max(m_wx.lo, m_q.lo[0]), x1 = std::min(m_wx.hi, m_q.lo[0] + m_q.n[0] - 1);
    int const y0 = std::max(m_wy.lo, m_q.lo[1]), y1 = std::min(m_wy.hi, m_q.lo[1] + m_q.n[1] - 1);
    for (int x = x0; x <= x1; ++x)
    {
      int const * row = m_q.lineOfXY.data() + static_cast<std::size_t>(x - m_q.lo[0]) * m_q.n[1];
      for (int y = y0; y <= y1; ++y)
      {
        int const ql = row[y - m_q.lo[1]];
        if (ql < 0)
          continue;
        m_begin[m_lines] = m_ptr[m_lines] = m_q.lineStart[static_cast<std::size_t>(ql)];
        m_end[m_lines] = m_q.lineStart[static_cast<std::size_t>(ql) + 1];
        m_ix[m_lines] = x - m_wx.lo;
        m_iy[m_lines] = y - m_wy.lo;
        ++m_lines;
      }
    }
  }

  /// Moves to node k of the present line; k must rise along the line.
  void setNode(int k)
  {
    tf_axisWindow(&m_wz, m_p.m[2][k] * m_p.spacing + m_p.offset, m_q, m_t);
    int const * z = m_q.m[2].data();
    for (int j = 0; j < m_lines; ++j)
      while (m_ptr[j] < m_end[j] && z[m_ptr[j]] < m_wz.lo)
        ++m_ptr[j];
  }

  /// Calls f(index in Q, slot index along z) for line j of Q in the window.
  template <class F> void forEach(int j, F && f) const
  {
    int const * z = m_q.m[2].data();
    for (int i = m_ptr[j]; i < m_end[j] && z[i] <= m_wz.hi; ++i)
      f(i, z[i] - m_wz.lo);
  }

private:
  SLevel const & m_p;
  SLevel const & m_q;
  SPairTables const & m_t;
  tf_AxisWindow m_wx, m_wy, m_wz;
  int m_lines = 0;
  int m_begin[maxLines], m_end[maxLines], m_ptr[maxLines], m_ix[maxLines], m_iy[maxLines];
};

// The windows along z, on level `other`, of the nodes [begin, end) of one
// line of level `p`.
void tf_lineWindows(SLevel const & p, int begin, int end, SLevel const & other, SPairTables const & t,
                    std::vector<tf_AxisWindow> * windows)
{
  windows->resize(static_cast<std::size_t>(end - begin));
  for (int k = begin; k < end; ++k)
    tf_axisWindow(&(*windows)[static_cast<std::size_t>(k - begin)], p.m[2][k] * p.spacing + p.offset, other,
                  t);
}

// The end of the stretch of a line's nodes that starts at node s0: each next
// node's window starts at or before the end of the one before it, plus one.
// `begin` is the line's first node, whose window is windows[0].
int tf_stretchEnd(std::vector<tf_AxisWindow> const & windows, int begin, int s0, int end)
{
  int s1 = s0 + 1;
  while (s1 < end && windows[static_cast<std::size_t>(s1 - begin)].lo <=
                         windows[static_cast<std::size_t>(s1 - 1 - begin)].hi + 1)
    ++s1;
  return s1;
}

int tf_lineCount(SLevel const & p) { return p.size() == 0 ? 0 : static_cast<int>(p.lineStart.size()) - 1; }

// y[k] += sum over the nodes q of Q in reach of A[k][q] x[q], for the nodes k
// of P, where P is the finer or the same depth. A[k][q] is
// -sp^3 sq^5 (l m m + m l m + m m l) with the second derivative on q. The x
// and y factors are the same for a whole line of P: per stretch of a line
// (nodes whose windows along z meet), the values of Q are first summed over
// the lines of Q in reach, with those factors, into one column per z; each
// node of P then takes a few entries of the columns. Stretches keep the
// columns short where a line crosses the surface twice, far apart.
void tf_gatherProduct(SLevel const & p, SLevel const & q, SPairTables const & t, double const * x, double * y,
                      int tasks)
{
  double const norm = -p.scale * p.scale * p.scale * q.scale * q.scale * q.scale * q.scale * q.scale;
  tf_forBlocks(tf_lineCount(p), tasks,
               [&](int, int begin, int end)
               {
                 tf_LineWalker walk(p, q, t);
                 double a[tf_LineWalker::maxLines], b[tf_LineWalker::maxLines];
                 int at[tf_LineWalker::maxLines];
                 std::vector<double> g1, g2;
                 std::vector<tf_AxisWindow> windows;
                 int const * zq = q.m[2].data();
                 for (int line = begin; line < end; ++line)
                 {
                   int const k0 = p.lineStart[line], k1 = p.lineStart[line + 1];
                   walk.setLine(line);
                   if (walk.lineCount() == 0)
                     continue;
                   for (int j = 0; j < walk.lineCount(); ++j)
                   {
                     int const sx = walk.slotX(j), sy = walk.slotY(j);
                     a[j] = t.lC[sx] * t.mm[sy] + t.mm[sx] * t.lC[sy];
                     b[j] = t.mm[sx] * t.mm[sy];
                     at[j] = walk.lineBegin(j);
                   }
                   tf_lineWindows(p, k0, k1, q, t, &windows);
                   for (int s0 = k0; s0 < k1;)
                   {
                     int const s1 = tf_stretchEnd(windows, k0, s0, k1);
                     int const zLo = windows[static_cast<std::size_t>(s0 - k0)].lo;
                     int const zHi = windows[static_cast<std::size_t>(s1 - 1 - k0)].hi;
                     if (zHi >= zLo)
                     {
                       std::size_t const length = static_cast<std::size_t>(zHi - zLo + 1);
                       g1.assign(length, 0.0);
                       g2.assign(length, 0.0);
                       for (int j = 0; j < walk.lineCount(); ++j)
                       {
                         int i = at[j];
                         int const e = walk.lineEnd(j);
                         while (i < e && zq[i] < zLo)
                           ++i;
                         for (; i < e && zq[i] <= zHi; ++i)
                         {
                           std::size_t const c = static_cast<std::size_t>(zq[i] - zLo);
                           g1[c] += a[j] * x[i];
                           g2[c] += b[j] * x[i];
                         }
                         at[j] = i;
                       }
                       for (int k = s0; k < s1; ++k)
                       {
                         tf_AxisWindow const & wz = windows[static_cast<std::size_t>(k - k0)];
                         double sum = 0.0;
                         for (int z = wz.lo; z <= wz.hi; ++z)
                         {
                           int const slot = wz.slot[z - wz.lo];
                           std::size_t const c = static_cast<std::size_t>(z - zLo);
                           sum += t.mm[slot] * g1[c] + t.lC[slot] * g2[c];
                         }
                         y[k] += norm * sum;
                       }
                     }
                     s0 = s1;
                   }
                 }
               });
}

// y[k] += sum over the nodes q of a finer level Q in reach of A[k][q] x[q],
// for the nodes k of P: the transpose of the gather. Per stretch of a line of
// Q, its values are spread along z into one column per z of P (with the z
// factors), and the columns go to the lines of P in reach with their x and y
// factors. The lines of Q are cut into a fixed number of chunks with a buffer
// each, added in chunk order, so the sums do not depend on the threads.
void tf_scatterProduct(SLevel const & p, SLevel const & q, SPairTables const & t, double const * x,
                       double * y, int tasks)
{
  if (p.size() == 0 || q.size() == 0)
    return;
  double const norm = -q.scale * q.scale * q.scale * p.scale * p.scale * p.scale * p.scale * p.scale;
  constexpr int chunks = 8;
  int const lines = tf_lineCount(q);
  std::vector<std::vector<double>> buffers(chunks);
  tf_forItems(chunks, tasks,
              [&](int chunk)
              {
                std::vector<double> & out = buffers[chunk];
                out.assign(p.node.size(), 0.0);
                tf_LineWalker walk(q, p, t);
                std::vector<double> h1, h2;
                std::vector<tf_AxisWindow> windows;
                int at[tf_LineWalker::maxLines];
                int const * zp = p.m[2].data();
                int const firstLine = static_cast<int>(static_cast<long long>(lines) * chunk / chunks);
                int const lastLine = static_cast<int>(static_cast<long long>(lines) * (chunk + 1) / chunks);
                for (int line = firstLine; line < lastLine; ++line)
                {
                  int const i0 = q.lineStart[line], i1 = q.lineStart[line + 1];
                  walk.setLine(line);
                  if (walk.lineCount() == 0)
                    continue;
                  for (int j = 0; j < walk.lineCount(); ++j)
                    at[j] = walk.lineBegin(j);
                  tf_lineWindows(q, i0, i1, p, t, &windows);
                  for (int s0 = i0; s0 < i1;)
                  {
                    int const s1 = tf_stretchEnd(windows, i0, s0, i1);
                    int const zLo = windows[static_cast<std::size_t>(s0 - i0)].lo;
                    int const zHi = windows[static_cast<std::size_t>(s1 - 1 - i0)].hi;
                    bool any = false;
                    if (zHi >= zLo)
                    {
                      std::size_t const length = static_cast<std::size_t>(zHi - zLo + 1);
                      h1.assign(length, 0.0);
                      h2.assign(length, 0.0);
                      for (int i = s0; i < s1; ++i)
                      {
                        double const v = x[i];
                        if (v == 0.0)
                          continue;
                        any = true;
                        tf_AxisWindow const & wz = windows[static_cast<std::size_t>(i - i0)];
                        for (int z = wz.lo; z <= wz.hi; ++z)
                        {
                          int const slot = wz.slot[z - wz.lo];
                          std::size_t const c = static_cast<std::size_t>(z - zLo);
                          h1[c] += v * t.mm[slot];
                          h2[c] += v * t.lC[slot];
                        }
                      }
                    }
                    for (int j = 0; j < walk.lineCount(); ++j)
                    {
                      int k = at[j];
                      int const e = walk.lineEnd(j);
                      while (k < e && zp[k] < zLo)
                        ++k;
                      if (any)
                      {
                        int const sx = walk.slotX(j), sy = walk.slotY(j);
                        double const aj = norm * (t.lC[sx] * t.mm[sy] + t.mm[sx] * t.lC[sy]),
                                     bj = norm * t.mm[sx] * t.mm[sy];
                        for (; k < e && zp[k] <= zHi; ++k)
                        {
                          std::size_t const c = static_cast<std::size_t>(zp[k] - zLo);
                          out[k] += aj * h1[c] + bj * h2[c];
                        }
                      }
                      at[j] = k;
                    }
                    s0 = s1;
                  }
                }
              });
  for (int chunk = 0; chunk < chunks; ++chunk)
    for (int k = 0; k < p.size(); ++k)
      y[k] += buffers[chunk][k];
}

// y[k] (+)= sum over the same depth of A[k][q] x[q]: the gather with P = Q.
void tf_sameDepthProduct(SLevel const & p, SPairTables const & t, double const * x, double * y,
                         bool accumulate, int tasks)
{
  if (!accumulate)
    std::fill(y, y + p.size(), 0.0);
  tf_gatherProduct(p, p, t, x, y, tasks);
}

// Calls f(point, node, dx, dy, dz) for the points [begin, end) of a list
// sorted by holder and the nodes within `reach` steps of each point's holder
// on every axis (dx... the node's offset from the holder).
template <class F>
void tf_forPointsNear(SLevel const & p, SPairTables const & t, int const * holder, int begin, int end,
                      int reach, F && f)
{
  tf_LineWalker walk(p, p, t);
  int line = -1;
  for (int point = begin; point < end; ++point)
  {
    int const h = holder[point];
    int const hx = p.m[0][h], hy = p.m[1][h], hz = p.m[2][h];
    int const l = p.lineOfXY[static_cast<std::size_t>(hx - p.lo[0]) * p.n[1] + (hy - p.lo[1])];
    if (l != line)
    {
      walk.setLine(l);
      line = l;
    }
    walk.setNode(h);
    for (int j = 0; j < walk.lineCount(); ++j)
      walk.forEach(j,
                   [&](int i, int)
                   {
                     int const dx = p.m[0][i] - hx, dy = p.m[1][i] - hy, dz = p.m[2][i] - hz;
                     if (dx >= -reach && dx <= reach && dy >= -reach && dy <= reach && dz >= -reach &&
                         dz <= reach)
                       f(point, i, dx, dy, dz);
                   });
  }
}

// values[i] += the part of X that the nodes of level p carry, with
// coefficients c (one per node of the level), at point i: the sum of
// c_o s^3 k(s (x - c_o,x)) k(s (y - c_o,y)) k(s (z - c_o,z)) over the nodes
// in reach, found on the lines of the level around the point. Points close
// together in the list share lines and cache lines.
void tf_addLevelValues(SLevel const & p, tf_Kernel1D const & k1, double const * boxMin, double unit,
                       double const * c, double const * points, int count, double * values, int tasks)
{
  if (p.size() == 0 || count <= 0)
    return;
  double const s = p.scale, norm = s * s * s;
  double const nodeStep = p.spacing * unit;
  double const reach = k1.reach() / (s * nodeStep); // in node steps
  tf_forBlocks(
      count, tasks,
      [&](int, int begin, int end)
      {
        int const * mz = p.m[2].data();
        // The lines of the last window, and where its search along z ended:
        // the next point mostly has the same lines and a z no lower.
        int cached[4] = {INT32_MIN, INT32_MIN, 0, 0}, lastZ = INT32_MIN;
        int lineBegin[tf_maxWindow * tf_maxWindow], lineEnd[tf_maxWindow * tf_maxWindow],
            from[tf_maxWindow * tf_maxWindow];
        for (int i = begin; i < end; ++i)
        {
          double const * q = points + 3 * static_cast<std::size_t>(i);
          int lo[3], size[3];
          double v[3][tf_maxWindow];
          bool reached = true;
          for (int a = 0; a < 3 && reached; ++a)
          {
            double const u = (q[a] - boxMin[a]) / nodeStep - static_cast<double>(p.offset) / p.spacing;
            if (!(std::fabs(u) < 1e9))
            {
              reached = false;
              break;
            }
            lo[a] = static_cast<int>(std::ceil(u - reach));
            int const hi = std::min(static_cast<int>(std::floor(u + reach)), lo[a] + tf_maxWindow - 1);
            size[a] = hi - lo[a] + 1;
            for (int k = 0; k < size[a]; ++k)
            {
              v[a][k] = k1.eval(0, (q[a] - p.coordinate(lo[a] + k, unit, boxMin[a])) * s);
            }
            reached = size[a] > 0;
          }
          if (!reached)
            continue;
          if (lo[0] != cached[0] || lo[1] != cached[1] || size[0] != cached[2] || size[1] != cached[3])
          {
            for (int ix = 0; ix < size[0]; ++ix)
              for (int iy = 0; iy < size[1]; ++iy)
              {
                int const x = lo[0] + ix - p.lo[0], y = lo[1] + iy - p.lo[1];
                int const line = x < 0 || x >= p.n[0] || y < 0 || y >= p.n[1]
                                     ? -1
                                     : p.lineOfXY[static_cast<std::size_t>(x) * p.n[1] + y];
                int const j = ix * tf_maxWindow + iy;
                lineBegin[j] = lineEnd[j] = from[j] = 0;
                if (line >= 0)
                {
                  lineBegin[j] = from[j] = p.lineStart[static_cast<std::size_t>(line)];
                  lineEnd[j] = p.lineStart[static_cast<std::size_t>(line) + 1];
                }
              }
            cached[0] = lo[0], cached[1] = lo[1], cached[2] = size[0], cached[3] = size[1];
            lastZ = INT32_MIN;
          }
          bool const forward = lo[2] >= lastZ;
          lastZ = lo[2];
          double sum = 0.0;
          for (int ix = 0; ix < size[0]; ++ix)
          {
            if (v[0][ix] == 0.0)
              continue;
            for (int iy = 0; iy < size[1]; ++iy)
            {
              int const j = ix * tf_maxWindow + iy;
              int const e = lineEnd[j];
              if (lineBegin[j] == e)
                continue;
              int k = from[j];
              if (forward)
                while (k < e && mz[k] < lo[2])
                  ++k;
              else
                k = static_cast<int>(std::lower_bound(mz + lineBegin[j], mz + e, lo[2]) - mz);
              from[j] = k;
              double const xy = v[0][ix] * v[1][iy];
              for (; k < e && mz[k] < lo[2] + size[2]; ++k)
                sum += c[k] * (xy * v[2][mz[k] - lo[2]]);
            }
          }
          values[i] += norm * sum;
        }
      });
}

double tf_dot(double const * a, double const * b, int n, int tasks)
{
  std::vector<double> partial(static_cast<std::size_t>((n + tf_blockSize - 1) / tf_blockSize), 0.0);
  tf_forBlocks(n, tasks,
               [&](int block, int begin, int end)
               {
                 double s = 0.0;
                 for (int i = begin; i < end; ++i)
                   s += a[i] * b[i];
                 partial[block] = s;
               });
  double s = 0.0;
  for (double p : partial)
    s += p;
  return s;
}

// y[k] += sum over all depths of A[k][q] x[q] for the nodes k of depth l,
// skipping depths whose x is still zero.
void tf_depthProduct(std::vector<SLevel> const & levels, std::vector<SPairTables> const & tables, int l,
                     std::vector<std::vector<double>> const & x, std::vector<char> const & active, double * y,
                     int tasks)
{
  int const depths = static_cast<int>(levels.size());
  for (int lq = 0; lq < depths; ++lq)
  {
    if (!active[lq])
      continue;
    if (lq == l)
      tf_sameDepthProduct(levels[l], tables[static_cast<std::size_t>(l * depths + l)], x[lq].data(), y, true,
                          tasks);
    else if (lq < l)
      tf_gatherProduct(levels[l], levels[lq], tables[static_cast<std::size_t>(l * depths + lq)], x[lq].data(),
                       y, tasks);
    else
      tf_scatterProduct(levels[l], levels[lq], tables[static_cast<std::size_t>(lq * depths + l)],
                        x[lq].data(), y, tasks);
  }
}
} // namespace

// ------------------------------------------------------------------ set-up

CMultilevelPoissonSolver::CMultilevelPoissonSolver(COctree const & octree,
                                                   CProductPiecewisePolynom const & kernel,
                                                   SMultilevelSolveSettings const & settings)
    : m_octree(octree), m_kernel(kernel), m_settings(settings), m_depthBegin(octree.getNodeDepthBegin()),
      m_depthEnd(octree.getNodeDepthEnd())
{
  int const leaf = octree.getLeafCellDepth();
  int const depths = std::max(0, m_depthEnd - m_depthBegin);
  m_levels.resize(static_cast<std::size_t>(depths));
  std::vector<CTreeNode> const & nodes = octree.getNodesTable();
  int const n = static_cast<int>(nodes.size());

  m_localIndex.assign(static_cast<std::size_t>(n), -1);
  for (int l = 0; l < depths; ++l)
  {
    SLevel & level = m_levels[static_cast<std::size_t>(l)];
    level.depth = m_depthBegin + l;
    level.shift = leaf - level.depth;
    level.spacing = 1 << level.shift;
    level.scale = 1.0 / octree.getCellSize(level.depth);
    std::vector<int> const list = octree.getNodesInLatticeOrder(level.depth);
    if (list.empty())
      continue;
    int const c0 = nodes[list[0]].shift().x();
    level.offset = ((c0 % level.spacing) + level.spacing) % level.spacing;
    level.node = list;
    for (int a = 0; a < 3; ++a)
      level.m[a].resize(list.size());
    int lo[3] = {INT32_MAX, INT32_MAX, INT32_MAX}, hi[3] = {INT32_MIN, INT32_MIN, INT32_MIN};
    for (std::size_t k = 0; k < list.size(); ++k)
    {
      CInt3 const & s = nodes[list[k]].shift();
      for (int a = 0; a < 3; ++a)
      {
        int const m = tf_floorDiv(static_cast<long long>(s.coord(a)) - level.offset, level.spacing);
        level.m[a][k] = m;
        lo[a] = std::min(lo[a], m);
        hi[a] = std::max(hi[a], m);
      }
      m_localIndex[static_cast<std::size_t>(list[k])] = static_cast<int>(k);
    }
    for (int a = 0; a < 3; ++a)
    {
      level.lo[a] = lo[a];
      level.n[a] = hi[a] - lo[a] + 1;
    }
    level.lineOfXY.assign(static_cast<std::size_t>(level.n[0]) * level.n[1], -1);
    for (std::size_t k = 0; k < list.size(); ++k)
      if (k == 0 || level.m[0][k] != level.m[0][k - 1] || level.m[1][k] != level.m[1][k - 1])
      {
        std::size_t const cell =
            static_cast<std::size_t>(level.m[0][k] - lo[0]) * level.n[1] + (level.m[1][k] - lo[1]);
        level.lineOfXY[cell] = static_cast<int>(level.lineStart.size());
        level.lineStart.push_back(static_cast<int>(k));
      }
    level.lineStart.push_back(static_cast<int>(list.size()));
  }

  // One-variable integrals for every pair of depths.
  tf_Kernel1D const k1(kernel);
  double const unit = octree.getUnit();
  m_tables.resize(static_cast<std::size_t>(depths * depths));
  for (int f = 0; f < depths; ++f)
    for (int c = 0; c <= f; ++c)
    {
      SLevel const & lf = m_levels[static_cast<std::size_t>(f)];
      SLevel const & lc = m_levels[static_cast<std::size_t>(c)];
      SPairTables & t = m_tables[static_cast<std::size_t>(f * depths + c)];
      t.fine = lf.depth;
      t.coarse = lc.depth;
      t.step = lf.spacing;
      t.reach = k1.reach() * (lf.spacing + lc.spacing);
      // Offsets d = position_f - position_c are residue (mod step); keep
      // those strictly within reach.
      t.shift = lf.shift;
      int const residue = ((lf.offset - lc.offset) % t.step + t.step) % t.step;
      int first =
          tf_floorDiv(static_cast<long long>(std::floor(-t.reach)) - residue, t.step) * t.step + residue;
      while (!(first > -t.reach))
        first += t.step;
      int last = first;
      while (last + t.step < t.reach)
        last += t.step;
      t.base = first;
      t.last = last;
      int const count = (last - first) / t.step + 1;
      for (auto * v : {&t.mm, &t.gF, &t.gC, &t.lF, &t.lC})
        v->assign(static_cast<std::size_t>(std::max(0, count)), 0.0);
      for (int k = 0; k < count; ++k)
      {
        double const cf = (first + k * t.step) * unit;
        t.mm[k] = k1.integrate(0, lf.scale, cf, 0, lc.scale, 0.0);
        t.gF[k] = k1.integrate(1, lf.scale, cf, 0, lc.scale, 0.0);
        t.gC[k] = k1.integrate(0, lf.scale, cf, 1, lc.scale, 0.0);
        t.lF[k] = k1.integrate(2, lf.scale, cf, 0, lc.scale, 0.0);
        t.lC[k] = k1.integrate(0, lf.scale, cf, 2, lc.scale, 0.0);
      }
    }

  // Same-depth stencils: A[p][q] = -s^8 (l m m + m l m + m m l).
  for (int l = 0; l < depths; ++l)
  {
    SLevel & level = m_levels[static_cast<std::size_t>(l)];
    SPairTables const & t = m_tables[static_cast<std::size_t>(l * depths + l)];
    level.radius = static_cast<int>(std::ceil(t.reach / level.spacing)) - 1;
    int const width = 2 * level.radius + 1;
    if (width > tf_maxWindow)
      throw std::invalid_argument("kernel too wide for the multilevel solve");
    double const s = level.scale, norm = s * s * s * s * s * s * s * s;
    level.stencil.assign(static_cast<std::size_t>(width) * width * width, 0.0);
    for (int a = 0; a < width; ++a)
      for (int b = 0; b < width; ++b)
        for (int c = 0; c < width; ++c)
        {
          int const ia = t.index((a - level.radius) * level.spacing);
          int const ib = t.index((b - level.radius) * level.spacing);
          int const ic = t.index((c - level.radius) * level.spacing);
          level.stencil[static_cast<std::size_t>((a * width + b) * width + c)] =
              -norm * (t.lC[ia] * t.mm[ib] * t.mm[ic] + t.mm[ia] * t.lC[ib] * t.mm[ic] +
                       t.mm[ia] * t.mm[ib] * t.lC[ic]);
        }
    level.diagonal =
        level.stencil[static_cast<std::size_t>((level.radius * width + level.radius) * width + level.radius)];
  }
}

CMultilevelPoissonSolver::~CMultilevelPoissonSolver() = default;

int CMultilevelPoissonSolver::taskCount() const
{
  int const t =
      m_settings.threads > 0 ? m_settings.threads : CVescaThreadingTasksHelper::getNumOfPhisicalThread();
  return std::max(1, t);
}

CMultilevelPoissonSolver::SPairTables const & CMultilevelPoissonSolver::tables(int fine, int coarse) const
{
  int const depths = static_cast<int>(m_levels.size());
  return m_tables[static_cast<std::size_t>((fine - m_depthBegin) * depths + (coarse - m_depthBegin))];
}

double CMultilevelPoissonSolver::matrixEntry(int a, int b) const
{
  int const da = m_octree.getNodeDepth(a), db = m_octree.getNodeDepth(b);
  int const fine = da >= db ? a : b, coarse = da >= db ? b : a;
  int const df = std::max(da, db), dc = std::min(da, db);
  SPairTables const & t = tables(df, dc);
  CInt3 const & pf = m_octree.getNode(fine).shift();
  CInt3 const & pc = m_octree.getNode(coarse).shift();
  double m[3], l[3];
  for (int axis = 0; axis < 3; ++axis)
  {
    int const d = pf.coord(axis) - pc.coord(axis);
    if (!(std::fabs(d) < t.reach))
      return 0.0;
    m[axis] = t.mm[t.index(d)];
    l[axis] = t.lC[t.index(d)];
  }
  double const sf = m_levels[df - m_depthBegin].scale, sc = m_levels[dc - m_depthBegin].scale;
  double const norm = sf * sf * sf * sc * sc * sc * sc * sc;
  return -norm * (l[0] * m[1] * m[2] + m[0] * l[1] * m[2] + m[0] * m[1] * l[2]);
}

// ------------------------------------------------------------------ right part

void CMultilevelPoissonSolver::makeRightPart(std::vector<double> const * coefficients,
                                             std::vector<double> * b) const
{
  int const depths = static_cast<int>(m_levels.size());
  int const tasks = taskCount();
  std::vector<std::vector<double>> local(static_cast<std::size_t>(depths));
  std::vector<std::vector<double>> field[3];
  for (int j = 0; j < 3; ++j)
  {
    field[j].resize(static_cast<std::size_t>(depths));
    for (int l = 0; l < depths; ++l)
    {
      SLevel const & level = m_levels[l];
      field[j][l].resize(level.node.size());
      for (int k = 0; k < level.size(); ++k)
        field[j][l][k] = coefficients[j][static_cast<std::size_t>(level.node[k])];
    }
  }
  // Which depths carry any field at all.
  std::vector<char> hasField(static_cast<std::size_t>(depths), 0);
  for (int l = 0; l < depths; ++l)
    for (int j = 0; j < 3 && !hasField[l]; ++j)
      for (double v : field[j][l])
        if (v != 0.0)
        {
          hasField[l] = 1;
          break;
        }

  // Gather: a node takes from the field nodes of its own and coarser depths,
  // <F_o, d_j F_i> = so^3 si^4 (g m m, m g m, m m g) with the derivative on i.
  for (int l = 0; l < depths; ++l)
  {
    SLevel const & p = m_levels[l];
    local[l].assign(p.node.size(), 0.0);
    std::vector<double> & out = local[l];
    for (int lq = 0; lq <= l; ++lq)
    {
      if (!hasField[lq])
        continue;
      SLevel const & q = m_levels[lq];
      SPairTables const & t = m_tables[static_cast<std::size_t>(l * depths + lq)];
      double const norm = p.scale * p.scale * p.scale * q.scale * q.scale * q.scale * q.scale;
      double const *f0 = field[0][lq].data(), *f1 = field[1][lq].data(), *f2 = field[2][lq].data();
      tf_forBlocks(tf_lineCount(p), tasks,
                   [&](int, int begin, int end)
                   {
                     tf_LineWalker walk(p, q, t);
                     double c0[tf_LineWalker::maxLines], c1[tf_LineWalker::maxLines],
                         c2[tf_LineWalker::maxLines];
                     double mz[tf_maxWindow], gz[tf_maxWindow];
                     for (int line = begin; line < end; ++line)
                     {
                       walk.setLine(line);
                       for (int j = 0; j < walk.lineCount(); ++j)
                       {
                         int const sx = walk.slotX(j), sy = walk.slotY(j);
                         c0[j] = t.gC[sx] * t.mm[sy];
                         c1[j] = t.mm[sx] * t.gC[sy];
                         c2[j] = t.mm[sx] * t.mm[sy];
                       }
                       for (int k = p.lineStart[line]; k < p.lineStart[line + 1]; ++k)
                       {
                         walk.setNode(k);
                         tf_AxisWindow const & wz = walk.windowZ();
                         for (int iz = 0; iz <= wz.hi - wz.lo; ++iz)
                         {
                           mz[iz] = t.mm[wz.slot[iz]];
                           gz[iz] = t.gC[wz.slot[iz]];
                         }
                         double sum = 0.0;
                         for (int j = 0; j < walk.lineCount(); ++j)
                         {
                           double s0 = 0.0, s1 = 0.0, s2 = 0.0;
                           walk.forEach(j,
                                        [&](int i, int iz)
                                        {
                                          s0 += f0[i] * mz[iz];
                                          s1 += f1[i] * mz[iz];
                                          s2 += f2[i] * gz[iz];
                                        });
                           sum += c0[j] * s0 + c1[j] * s1 + c2[j] * s2;
                         }
                         out[k] += norm * sum;
                       }
                     }
                   });
    }
  }

  // Scatter: a field node gives to the nodes of coarser depths, with the
  // derivative on the finer function. One target depth per task, so every
  // sum has a fixed order.
  std::vector<std::vector<double>> scattered(static_cast<std::size_t>(depths));
  tf_forItems(depths, tasks,
              [&](int l)
              {
                SLevel const & p = m_levels[l];
                std::vector<double> & out = scattered[l];
                out.assign(p.node.size(), 0.0);
                for (int lq = l + 1; lq < depths; ++lq)
                {
                  if (!hasField[lq] || p.size() == 0)
                    continue;
                  SLevel const & q = m_levels[lq];
                  SPairTables const & t = m_tables[static_cast<std::size_t>(lq * depths + l)];
                  double const norm = p.scale * p.scale * p.scale * q.scale * q.scale * q.scale * q.scale;
                  double const *f0 = field[0][lq].data(), *f1 = field[1][lq].data(),
                               *f2 = field[2][lq].data();
                  tf_LineWalker walk(q, p, t);
                  double c0[tf_LineWalker::maxLines], c1[tf_LineWalker::maxLines],
                      c2[tf_LineWalker::maxLines];
                  for (int line = 0; line < tf_lineCount(q); ++line)
                  {
                    walk.setLine(line);
                    for (int j = 0; j < walk.lineCount(); ++j)
                    {
                      int const sx = walk.slotX(j), sy = walk.slotY(j);
                      c0[j] = t.gF[sx] * t.mm[sy];
                      c1[j] = t.mm[sx] * t.gF[sy];
                      c2[j] = t.mm[sx] * t.mm[sy];
                    }
                    for (int i = q.lineStart[line]; i < q.lineStart[line + 1]; ++i)
                    {
                      if (f0[i] == 0.0 && f1[i] == 0.0 && f2[i] == 0.0)
                        continue;
                      walk.setNode(i);
                      tf_AxisWindow const & wz = walk.windowZ();
                      for (int j = 0; j < walk.lineCount(); ++j)
                      {
                        double const a = norm * (f0[i] * c0[j] + f1[i] * c1[j]), b = norm * f2[i] * c2[j];
                        walk.forEach(j, [&](int k, int iz)
                                     { out[k] += a * t.mm[wz.slot[iz]] + b * t.gF[wz.slot[iz]]; });
                      }
                    }
                  }
                }
              });

  b->assign(m_localIndex.size(), 0.0);
  for (int l = 0; l < depths; ++l)
  {
    SLevel const & p = m_levels[l];
    for (int k = 0; k < p.size(); ++k)
      (*b)[static_cast<std::size_t>(p.node[k])] = local[l][k] + scattered[l][k];
  }
}

// ------------------------------------------------------------------ solve

void CMultilevelPoissonSolver::apply(std::vector<double> const & x, std::vector<double> * y) const
{
  int const depths = static_cast<int>(m_levels.size());
  int const tasks = taskCount();
  std::vector<std::vector<double>> local(static_cast<std::size_t>(depths));
  std::vector<char> active(static_cast<std::size_t>(depths), 1);
  for (int l = 0; l < depths; ++l)
  {
    SLevel const & p = m_levels[l];
    local[l].resize(p.node.size());
    for (int k = 0; k < p.size(); ++k)
      local[l][k] = x[static_cast<std::size_t>(p.node[k])];
  }
  y->assign(m_localIndex.size(), 0.0);
  std::vector<double> out;
  for (int l = 0; l < depths; ++l)
  {
    SLevel const & p = m_levels[l];
    out.assign(p.node.size(), 0.0);
    tf_depthProduct(m_levels, m_tables, l, local, active, out.data(), tasks);
    for (int k = 0; k < p.size(); ++k)
      (*y)[static_cast<std::size_t>(p.node[k])] = out[k];
  }
}

void CMultilevelPoissonSolver::setScreeningSamples(std::vector<double> const & points,
                                                   std::vector<double> const & weights)
{
  m_samplePoints = points;
  m_sampleWeights = weights;
}

namespace
{
// The node of a level at lattice index m, or -1.
int tf_findNode(SLevel const & p, int const * m)
{
  if (p.size() == 0)
    return -1;
  long long const x = m[0] - p.lo[0], y = m[1] - p.lo[1];
  if (x < 0 || y < 0 || x >= p.n[0] || y >= p.n[1])
    return -1;
  int const line = p.lineOfXY[static_cast<std::size_t>(x * p.n[1] + y)];
  if (line < 0)
    return -1;
  int const * z = p.m[2].data();
  int const * first = z + p.lineStart[static_cast<std::size_t>(line)];
  int const * last = z + p.lineStart[static_cast<std::size_t>(line) + 1];
  int const * at = std::lower_bound(first, last, m[2]);
  return at != last && *at == m[2] ? static_cast<int>(at - z) : -1;
}
} // namespace

// The samples merged per node cell of the screened depths, with their kernel
// values and the diagonal of each depth's screening operator.
namespace
{
// Lists the point-node pairs of a screened depth: for every point, the nodes
// whose kernel reaches it (within the reach of its holder) with the value
// F_node(point), walking the lines of nodes around the holder. Every point
// has room for the most pairs it can have, filled on every thread, and the
// lists are then closed up in order: no lists to grow and join, and half the
// memory written.
void tf_screenPairs(SLevel const & p, SPairTables const & table, CMultilevelPoissonSolver::SScreenPoints & sp,
                    int tasks)
{
  int const points = static_cast<int>(sp.holder.size());
  int const w = sp.width(), reach = sp.reach;
  std::size_t const room = static_cast<std::size_t>(w) * w * w;
  double const s = p.scale, norm = s * s * s;
  sp.pairStart.assign(static_cast<std::size_t>(points) + 1, 0);
  sp.pairNode.resize(static_cast<std::size_t>(points) * room);
  sp.pairOffset.resize(sp.pairNode.size());
  sp.norm = norm;
  tf_forBlocks(points, tasks,
               [&](int, int begin, int end)
               {
                 tf_LineWalker walk(p, p, table);
                 int line = -1;
                 int const * mx = p.m[0].data();
                 int const * my = p.m[1].data();
                 int const * mz = p.m[2].data();
                 for (int point = begin; point < end; ++point)
                 {
                   int const h = sp.holder[static_cast<std::size_t>(point)];
                   int const hx = mx[h], hy = my[h], hz = mz[h];
                   int const lh =
                       p.lineOfXY[static_cast<std::size_t>(hx - p.lo[0]) * p.n[1] + (hy - p.lo[1])];
                   if (lh != line)
                   {
                     walk.setLine(lh);
                     line = lh;
                   }
                   walk.setNode(h);
                   double const * v = sp.valuesOf(point);
                   int * nodes = &sp.pairNode[static_cast<std::size_t>(point) * room];
                   std::uint16_t * offsets = &sp.pairOffset[static_cast<std::size_t>(point) * room];
                   std::size_t count = 0;
                   for (int j = 0; j < walk.lineCount(); ++j)
                   {
                     int const b = walk.lineBegin(j);
                     if (b == walk.lineEnd(j))
                       continue;
                     int const dx = mx[b] - hx, dy = my[b] - hy;
                     if (dx < -reach || dx > reach || dy < -reach || dy > reach)
                       continue;
                     double const xy = norm * v[dx + reach] * v[w + dy + reach];
                     if (xy == 0.0)
                       continue;
                     walk.forEach(j,
                                  [&](int i, int)
                                  {
                                    int const dz = mz[i] - hz;
                                    if (dz >= -reach && dz <= reach && count < room)
                                    {
                                      double const value = xy * v[2 * w + dz + reach];
                                      if (value != 0.0)
                                      {
                                        nodes[count] = i;
                                        offsets[count] = sp.offsetCode(dx + reach, dy + reach, dz + reach);
                                        ++count;
                                      }
                                    }
                                  });
                   }
                   sp.pairStart[static_cast<std::size_t>(point) + 1] = static_cast<std::int64_t>(count);
                 }
               });
  for (int i = 0; i < points; ++i)
  {
    std::size_t const from = static_cast<std::size_t>(i) * room;
    std::size_t const to = static_cast<std::size_t>(sp.pairStart[static_cast<std::size_t>(i)]);
    std::size_t const count = static_cast<std::size_t>(sp.pairStart[static_cast<std::size_t>(i) + 1]);
    if (to != from)
    {
      std::copy(sp.pairNode.begin() + static_cast<std::ptrdiff_t>(from),
                sp.pairNode.begin() + static_cast<std::ptrdiff_t>(from + count),
                sp.pairNode.begin() + static_cast<std::ptrdiff_t>(to));
      std::copy(sp.pairOffset.begin() + static_cast<std::ptrdiff_t>(from),
                sp.pairOffset.begin() + static_cast<std::ptrdiff_t>(from + count),
                sp.pairOffset.begin() + static_cast<std::ptrdiff_t>(to));
    }
    sp.pairStart[static_cast<std::size_t>(i) + 1] += sp.pairStart[static_cast<std::size_t>(i)];
  }
  sp.pairNode.resize(static_cast<std::size_t>(sp.pairStart.back()));
  sp.pairOffset.resize(sp.pairNode.size());
}
} // namespace

void CMultilevelPoissonSolver::prepareScreening()
{
  int const depths = static_cast<int>(m_levels.size());
  m_screen.assign(static_cast<std::size_t>(depths), SScreenPoints());
  tf_Kernel1D const k1(m_kernel);
  int const reach = static_cast<int>(std::ceil(0.5 + k1.reach())) - 1;
  double const unit = m_octree.getUnit();
  double const * boxMin = m_octree.getBoxMin();
  std::size_t const samples = m_samplePoints.size() / 3;
  int screened = 0;
  for (int l = depths - 1; l >= 0 && screened < m_settings.screenedDepths; --l)
  {
    SLevel const & p = m_levels[static_cast<std::size_t>(l)];
    if (p.size() == 0)
      continue;
    ++screened;
    if (reach < 0 || reach > p.radius || reach > 7)
      continue; // a kernel wider than the neighbour runs
    SScreenPoints & sp = m_screen[static_cast<std::size_t>(l)];
    sp.reach = reach;
    // The samples are merged per cell (the weighted mean position and the
    // total weight): per leaf cell on the finest screened depth, where the
    // surface must follow them closely, per node cell on coarser ones.
    bool const finest = screened == 1;
    struct Member
    {
      int node;
      std::uint64_t cell;
      std::size_t sample;
    };
    // Each sample's node and cell on every thread; the samples that fall
    // outside (or weigh nothing) are dropped afterwards, in order.
    std::vector<Member> members(samples);
    tf_forBlocks(static_cast<int>(samples), taskCount(),
                 [&](int, int begin, int end)
                 {
                   for (int i = begin; i < end; ++i)
                   {
                     double const * q = &m_samplePoints[3 * static_cast<std::size_t>(i)];
                     double const wi =
                         static_cast<std::size_t>(i) < m_sampleWeights.size() ? m_sampleWeights[i] : 1.0;
                     members[static_cast<std::size_t>(i)] = Member{-1, 0u, static_cast<std::size_t>(i)};
                     if (!(wi > 0.0) || !std::isfinite(wi) || !std::isfinite(q[0] + q[1] + q[2]))
                       continue;
                     int m[3];
                     std::uint64_t cell = 0;
                     for (int a = 0; a < 3; ++a)
                     {
                       double const u = (q[a] - boxMin[a]) / unit;
                       m[a] = static_cast<int>(std::floor((u - p.offset) / p.spacing + 0.5));
                       cell = cell * 2097152u +
                              static_cast<std::uint64_t>(std::min(2097151.0, std::max(0.0, std::floor(u))));
                     }
                     int const node = tf_findNode(p, m);
                     if (node >= 0)
                       members[static_cast<std::size_t>(i)] =
                           Member{node, finest ? cell : 0u, static_cast<std::size_t>(i)};
                   }
                 });
    members.erase(std::remove_if(members.begin(), members.end(), [](Member const & x) { return x.node < 0; }),
                  members.end());
    std::sort(members.begin(), members.end(),
              [](Member const & x, Member const & y) {
                return x.node != y.node   ? x.node < y.node
                       : x.cell != y.cell ? x.cell < y.cell
                                          : x.sample < y.sample;
              });
    sp.firstPoint.assign(static_cast<std::size_t>(p.size()) + 1, 0);
    for (std::size_t k = 0; k < members.size();)
    {
      std::size_t e = k;
      double acc[4] = {0.0, 0.0, 0.0, 0.0};
      for (; e < members.size() && members[e].node == members[k].node && members[e].cell == members[k].cell;
           ++e)
      {
        std::size_t const i = members[e].sample;
        double const wi = i < m_sampleWeights.size() ? m_sampleWeights[i] : 1.0;
        acc[0] += wi;
        for (int a = 0; a < 3; ++a)
          acc[a + 1] += wi * m_samplePoints[3 * i + a];
      }
      sp.holder.push_back(members[k].node);
      sp.weight.push_back(acc[0]);
      for (int a = 0; a < 3; ++a)
        sp.position.push_back(acc[a + 1] / acc[0]);
      ++sp.firstPoint[static_cast<std::size_t>(members[k].node) + 1];
      k = e;
    }
    for (std::size_t k = 1; k < sp.firstPoint.size(); ++k)
      sp.firstPoint[k] += sp.firstPoint[k - 1];
    int const total = sp.firstPoint.back();
    int const w = sp.width();
    sp.values.resize(static_cast<std::size_t>(total) * 3 * w);
    tf_forBlocks(total, taskCount(),
                 [&](int, int begin, int end)
                 {
                   for (int point = begin; point < end; ++point)
                   {
                     int const node = sp.holder[static_cast<std::size_t>(point)];
                     int const m[3] = {p.m[0][node], p.m[1][node], p.m[2][node]};
                     double const * position = &sp.position[static_cast<std::size_t>(point) * 3];
                     double * out = &sp.values[static_cast<std::size_t>(point) * 3 * w];
                     for (int a = 0; a < 3; ++a)
                       for (int off = -reach; off <= reach; ++off)
                       {
                         *out++ =
                             k1.eval(0, (position[a] - p.coordinate(m[a] + off, unit, boxMin[a])) * p.scale);
                       }
                   }
                 });
    tf_screenPairs(p, m_tables[static_cast<std::size_t>(l * depths + l)], sp, taskCount());
    // The diagonal of the screening operator: sum of weight * F_o(point)^2.
    sp.diagonal.assign(static_cast<std::size_t>(p.size()), 0.0);
    for (int point = 0; point < total; ++point)
      for (std::int64_t k = sp.pairStart[static_cast<std::size_t>(point)];
           k < sp.pairStart[static_cast<std::size_t>(point) + 1]; ++k)
      {
        double const f = sp.pairValue(sp.valuesOf(point), sp.pairOffset[static_cast<std::size_t>(k)]);
        sp.diagonal[static_cast<std::size_t>(sp.pairNode[static_cast<std::size_t>(k)])] +=
            sp.weight[static_cast<std::size_t>(point)] * f * f;
      }
  }
}

void CMultilevelPoissonSolver::screenSweeps(std::vector<std::vector<double>> & x,
                                            std::vector<char> const & active,
                                            std::vector<std::vector<double>> const & target,
                                            CProgressCounter * progress)
{
  if (m_screen.empty())
    prepareScreening();
  int const depths = static_cast<int>(m_levels.size());
  std::vector<int> screened;
  for (int l = 0; l < depths; ++l)
    if (!m_screen[static_cast<std::size_t>(l)].holder.empty())
      screened.push_back(l);
  if (screened.empty())
    return;
  int const finest = screened.back();
  SLevel const & pf = m_levels[static_cast<std::size_t>(finest)];
  SScreenPoints const & spf = m_screen[static_cast<std::size_t>(finest)];
  double diagonalSum = 0.0;
  int diagonalCount = 0;
  for (double d : spf.diagonal)
    if (d > 0.0)
      diagonalSum += d, ++diagonalCount;
  if (diagonalCount == 0 || !(diagonalSum > 0.0))
    return;
  double weight = m_settings.screening;

  // X at points, from all depths' present coefficients.
  tf_Kernel1D const k1(m_kernel);
  auto addValues = [&](int l, double const * c, std::vector<double> const & points, std::vector<double> * out)
  {
    tf_addLevelValues(m_levels[static_cast<std::size_t>(l)], k1, m_octree.getBoxMin(), m_octree.getUnit(), c,
                      points.data(), static_cast<int>(out->size()), out->data(), taskCount());
  };
  auto valuesAt = [&](std::vector<double> const & points, std::vector<double> * out)
  {
    out->assign(points.size() / 3, 0.0);
    for (int l = 0; l < depths; ++l)
      if (active[static_cast<std::size_t>(l)])
        addValues(l, x[static_cast<std::size_t>(l)].data(), points, out);
  };
  // The level: the weighted mean of X at the finest depth's points, before
  // the pull. Its weighted root mean square deviation measures the pull.
  std::vector<double> v;
  auto deviation = [&](double level)
  {
    double num = 0.0, den = 0.0;
    for (std::size_t i = 0; i < v.size(); ++i)
    {
      num += spf.weight[i] * (v[i] - level) * (v[i] - level);
      den += spf.weight[i];
    }
    return den > 0.0 ? std::sqrt(num / den) : 0.0;
  };
  // X at the finest points, and at the probes of the gradient (below) with
  // the same coefficients, in one evaluation.
  std::vector<double> probe, probeValues;
  double const h = pf.spacing * m_octree.getUnit();
  double const eps = 0.1 * h;
  std::size_t const count = spf.holder.size();
  std::size_t const stride = std::max<std::size_t>(1, count / 2000);
  if (m_settings.screeningAdaptive)
    for (std::size_t i = 0; i < count; i += stride)
      for (int a = 0; a < 3; ++a)
        for (int sgn = -1; sgn <= 1; sgn += 2)
          for (int b = 0; b < 3; ++b)
            probe.push_back(spf.position[3 * i + b] + (a == b ? sgn * eps : 0.0));
  {
    std::vector<double> points(spf.position);
    points.insert(points.end(), probe.begin(), probe.end());
    valuesAt(points, &v);
    probeValues.assign(v.begin() + static_cast<std::ptrdiff_t>(count), v.end());
    v.resize(count);
  }
  double num = 0.0, den = 0.0;
  for (std::size_t i = 0; i < v.size(); ++i)
  {
    num += spf.weight[i] * v[i];
    den += spf.weight[i];
  }
  double const level = den > 0.0 ? num / den : 0.0;
  m_report.screeningLevel = level;
  m_report.screeningDeviationBefore = deviation(level);
  if (m_settings.screeningAdaptive)
  {
    // The noise of the samples: their distances to the present surface,
    // (X - level) / |grad X|, less the mean distance of their neighbours
    // (points on the holders next to theirs), so that a smooth miss of the
    // unscreened surface (a shape it has not resolved) does not count, only
    // the scatter from sample to sample. The gradient's size comes from
    // central differences at about 2000 points (their median); the scatter
    // is robust (1.4826 times the median magnitude).
    std::vector<double> gradients;
    for (std::size_t c = 0; 6 * c + 5 < probeValues.size(); ++c)
    {
      double g2 = 0.0;
      for (int a = 0; a < 3; ++a)
      {
        double const d = (probeValues[6 * c + 2 * a + 1] - probeValues[6 * c + 2 * a]) / (2.0 * eps);
        g2 += d * d;
      }
      if (g2 > 0.0 && std::isfinite(g2))
        gradients.push_back(std::sqrt(g2));
    }
    std::vector<double> residuals;
    if (!gradients.empty())
    {
      std::nth_element(gradients.begin(), gradients.begin() + gradients.size() / 2, gradients.end());
      double const g = gradients[gradients.size() / 2];
      std::vector<double> sum(count, 0.0);
      std::vector<int> near(count, 0);
      SPairTables const & t = m_tables[static_cast<std::size_t>(finest * depths + finest)];
      tf_forPointsNear(pf, t, spf.holder.data(), 0, static_cast<int>(count), 1,
                       [&](int point, int o, int, int, int)
                       {
                         for (int j = spf.firstPoint[static_cast<std::size_t>(o)];
                              j < spf.firstPoint[static_cast<std::size_t>(o) + 1]; ++j)
                           if (j != point)
                           {
                             sum[static_cast<std::size_t>(point)] += v[static_cast<std::size_t>(j)];
                             ++near[static_cast<std::size_t>(point)];
                           }
                       });
      for (std::size_t point = 0; point < count; ++point)
        if (near[point] > 0)
          residuals.push_back(std::fabs(v[point] - sum[point] / near[point]) / g);
    }
    if (!residuals.empty())
    {
      std::nth_element(residuals.begin(), residuals.begin() + residuals.size() / 2, residuals.end());
      double const scatter = 1.4826 * residuals[residuals.size() / 2] / h;
      m_report.screeningScatter = scatter;
      if (scatter > 0.05)
        weight *= std::pow(0.05 / scatter, 4.0);
    }
  }
  m_report.screeningWeight = weight;
  double const alphaFinest = weight * std::fabs(pf.diagonal) / (diagonalSum / diagonalCount);
  int const steps = std::max(1, m_settings.screenSweeps) * static_cast<int>(screened.size());
  int step = 0;
  // X at the points of every screened depth, kept up to date with the change
  // of each screened relaxation: one depth's part is a fraction of the cost
  // of all depths'.
  std::vector<std::vector<double>> at(static_cast<std::size_t>(depths));
  for (int l : screened)
    if (l != finest)
      valuesAt(m_screen[static_cast<std::size_t>(l)].position, &at[static_cast<std::size_t>(l)]);
  at[static_cast<std::size_t>(finest)].swap(v);
  std::vector<double> change;
  for (int sweep = 0; sweep < std::max(1, m_settings.screenSweeps); ++sweep)
    for (int l : screened)
    {
      double const alpha = alphaFinest * std::ldexp(1.0, l - finest);
      screenDepth(l, x, active, target, alpha, level, at[static_cast<std::size_t>(l)], &change);
      bool const last = ++step == steps;
      for (int m : screened)
        if (!last || (m == finest && m_settings.reportResidual))
          addValues(l, change.data(), m_screen[static_cast<std::size_t>(m)].position,
                    &at[static_cast<std::size_t>(m)]);
      if (progress)
        progress->SetPosFloat(std::min(1.0, 0.9 + 0.1 * step / steps));
    }
  if (m_settings.reportResidual)
  {
    v.swap(at[static_cast<std::size_t>(finest)]);
    m_report.screeningDeviationAfter = deviation(level);
  }
}

// One screened relaxation of depth l: the depth's equations with the pull
// alpha * sum of w F_o(p) (X(p) - level) added, solved for the depth's
// correction by preconditioned conjugate gradients with everything else held.
void CMultilevelPoissonSolver::screenDepth(int l, std::vector<std::vector<double>> & x,
                                           std::vector<char> const & active,
                                           std::vector<std::vector<double>> const & target, double alpha,
                                           double level, std::vector<double> const & values,
                                           std::vector<double> * change)
{
  SLevel const & p = m_levels[static_cast<std::size_t>(l)];
  SScreenPoints const & sp = m_screen[static_cast<std::size_t>(l)];
  int const n = p.size();
  int const points = static_cast<int>(sp.holder.size());
  int const tasks = taskCount();
  int const depths = static_cast<int>(m_levels.size());
  std::vector<std::int64_t> const & pairStart = sp.pairStart;
  std::vector<int> const & pairNode = sp.pairNode;
  std::vector<std::uint16_t> const & pairOffset = sp.pairOffset;

  // out[o] = sum over points near o of weight * F_o(point) * y[point]: each
  // point gives to the nodes around it (most nodes hold no point, so this
  // beats a gather over the nodes); one buffer per task, added in order.
  std::vector<double> pointValue(static_cast<std::size_t>(points));
  std::vector<std::vector<double>> buffers(static_cast<std::size_t>(std::max(1, std::min(tasks, 8))));
  auto scatterToNodes = [&](double const * y, double * out)
  {
    int const parts = static_cast<int>(buffers.size());
    tf_forItems(parts, tasks,
                [&](int part)
                {
                  std::vector<double> & buffer = buffers[static_cast<std::size_t>(part)];
                  buffer.assign(static_cast<std::size_t>(n), 0.0);
                  int const begin = static_cast<int>(static_cast<long long>(points) * part / parts);
                  int const end = static_cast<int>(static_cast<long long>(points) * (part + 1) / parts);
                  for (int point = begin; point < end; ++point)
                  {
                    double const wy = sp.weight[static_cast<std::size_t>(point)] * y[point];
                    double const * v = sp.valuesOf(point);
                    for (std::int64_t k = pairStart[static_cast<std::size_t>(point)];
                         k < pairStart[static_cast<std::size_t>(point) + 1]; ++k)
                      buffer[static_cast<std::size_t>(pairNode[static_cast<std::size_t>(k)])] +=
                          wy * sp.pairValue(v, pairOffset[static_cast<std::size_t>(k)]);
                  }
                });
    std::copy(buffers[0].begin(), buffers[0].end(), out);
    for (std::size_t part = 1; part < buffers.size(); ++part)
      for (int k = 0; k < n; ++k)
        out[k] += buffers[part][static_cast<std::size_t>(k)];
  };
  // y[point] = sum over nodes near the point of F_o(point) * d[o].
  auto gatherAtPoints = [&](double const * d, double * y)
  {
    tf_forBlocks(points, tasks,
                 [&](int, int begin, int end)
                 {
                   for (int point = begin; point < end; ++point)
                   {
                     double sum = 0.0;
                     double const * v = sp.valuesOf(point);
                     for (std::int64_t k = pairStart[static_cast<std::size_t>(point)];
                          k < pairStart[static_cast<std::size_t>(point) + 1]; ++k)
                       sum += sp.pairValue(v, pairOffset[static_cast<std::size_t>(k)]) *
                              d[pairNode[static_cast<std::size_t>(k)]];
                     y[point] = sum;
                   }
                 });
  };

  // The residual of the screened equations of this depth.
  std::vector<double> r(static_cast<std::size_t>(n), 0.0), pull(static_cast<std::size_t>(n));
  tf_depthProduct(m_levels, m_tables, l, x, active, r.data(), tasks);
  for (int i = 0; i < points; ++i)
    pointValue[static_cast<std::size_t>(i)] = values[static_cast<std::size_t>(i)] - level;
  scatterToNodes(pointValue.data(), pull.data());
  for (int k = 0; k < n; ++k)
    r[k] = target[static_cast<std::size_t>(l)][k] - r[k] - alpha * pull[k];

  // Jacobi-preconditioned conjugate gradients on A_ll + alpha S_l.
  std::vector<double> inverse(static_cast<std::size_t>(n)), z(r.size()), dir(r.size()), q(r.size()),
      delta(r.size(), 0.0), sq(r.size());
  for (int k = 0; k < n; ++k)
  {
    double const d = p.diagonal + alpha * sp.diagonal[static_cast<std::size_t>(k)];
    inverse[k] = d > 0.0 ? 1.0 / d : 0.0;
  }
  double const r0 = std::sqrt(tf_dot(r.data(), r.data(), n, tasks));
  for (int k = 0; k < n; ++k)
    dir[k] = z[k] = r[k] * inverse[k];
  double rz = tf_dot(r.data(), z.data(), n, tasks);
  int const cap = std::max(1, m_settings.maxIterations) * 2;
  // As tight as the plain relaxations: a looser solve (a tenth of the
  // residual) left the surface twice as far from the samples.
  double const screenTolerance = m_settings.relativeTolerance;
  int it = 0;
  for (; it < cap && r0 > 0.0; ++it)
  {
    tf_sameDepthProduct(p, m_tables[static_cast<std::size_t>(l * depths + l)], dir.data(), q.data(), false,
                        tasks);
    gatherAtPoints(dir.data(), pointValue.data());
    scatterToNodes(pointValue.data(), sq.data());
    for (int k = 0; k < n; ++k)
      q[k] += alpha * sq[k];
    double const pq = tf_dot(dir.data(), q.data(), n, tasks);
    if (!(pq > 0.0) || !std::isfinite(pq))
      break;
    double const a = rz / pq;
    for (int k = 0; k < n; ++k)
    {
      delta[k] += a * dir[k];
      r[k] -= a * q[k];
    }
    if (std::sqrt(tf_dot(r.data(), r.data(), n, tasks)) <= screenTolerance * r0)
      break;
    for (int k = 0; k < n; ++k)
      z[k] = r[k] * inverse[k];
    double const rzNew = tf_dot(r.data(), z.data(), n, tasks);
    double const beta = rzNew / rz;
    rz = rzNew;
    for (int k = 0; k < n; ++k)
      dir[k] = z[k] + beta * dir[k];
  }
  m_report.screeningIterations.push_back(it);
  for (int k = 0; k < n; ++k)
    x[static_cast<std::size_t>(l)][k] += delta[k];
  change->swap(delta);
}

bool CMultilevelPoissonSolver::solve(std::vector<double> const & rhs, std::vector<double> * result,
                                     CProgressCounter * progress, VsUt::IDebugLog * log)
{
  int const depths = static_cast<int>(m_levels.size());
  int const tasks = taskCount();
  m_report = SMultilevelSolveReport();
  if (m_localIndex.empty() || rhs.size() != m_localIndex.size())
    return false;

  std::vector<std::vector<double>> target(static_cast<std::size_t>(depths)), x(target);
  std::vector<char> active(static_cast<std::size_t>(depths), 0);
  double work = 0.0, done = 0.0;
  for (int l = 0; l < depths; ++l)
  {
    SLevel const & p = m_levels[l];
    target[l].resize(p.node.size());
    for (int k = 0; k < p.size(); ++k)
      target[l][k] = -rhs[static_cast<std::size_t>(p.node[k])];
    x[l].assign(p.node.size(), 0.0);
    m_report.nodesPerDepth.push_back(p.size());
    work += static_cast<double>(p.size()) * (1 + 2 * std::max(0, m_settings.vCycles));
  }
  m_report.iterationsPerDepth.assign(static_cast<std::size_t>(depths), 0);

  // With screening, its sweeps take the last tenth of the progress.
  double const share = m_settings.screening > 0.0 && !m_samplePoints.empty() ? 0.9 : 1.0;
  // Each depth's residual is kept from its last relaxation and brought up to
  // date with what the other depths changed since, rather than formed again
  // from all depths: within a V-cycle a depth going down has seen only its
  // finer depths change, going up only its coarser ones, so every relaxation
  // applies the couplings of one side, half the work of both. `sinceUp`
  // holds a depth's change since the start of its last upward (or first)
  // relaxation, `inCycle` its change in the present cycle.
  enum class Pass
  {
    first,
    down,
    up
  };
  std::vector<std::vector<double>> residual(target.size()), sinceUp(target.size()), inCycle(target.size());
  std::vector<char> side(static_cast<std::size_t>(depths), 0);
  std::vector<double> r, z, dir, q, delta;
  auto relax = [&](int l, Pass pass)
  {
    SLevel const & p = m_levels[l];
    int const n = p.size();
    if (n == 0)
      return;
    r.assign(static_cast<std::size_t>(n), 0.0);
    if (pass == Pass::first)
    {
      // The finer depths are still zero: the coarser ones' solution is all.
      tf_depthProduct(m_levels, m_tables, l, x, active, r.data(), tasks);
      for (int k = 0; k < n; ++k)
        r[k] = target[l][k] - r[k];
    }
    else
    {
      for (int o = 0; o < depths; ++o)
        side[o] = active[o] && (pass == Pass::down ? o > l : o < l);
      tf_depthProduct(m_levels, m_tables, l, pass == Pass::down ? sinceUp : inCycle, side, r.data(), tasks);
      for (int k = 0; k < n; ++k)
        r[k] = residual[l][k] - r[k];
    }

    bool const small = n <= m_settings.smallDepthNodes;
    int const cap = small ? std::max(1000, m_settings.maxIterations) : m_settings.maxIterations;
    double const tolerance = small ? 1e-10 : m_settings.relativeTolerance;
    double const inverseDiagonal = p.diagonal != 0.0 ? 1.0 / p.diagonal : 0.0;
    delta.assign(static_cast<std::size_t>(n), 0.0);
    z.resize(static_cast<std::size_t>(n));
    dir.resize(static_cast<std::size_t>(n));
    q.resize(static_cast<std::size_t>(n));
    double const r0 = std::sqrt(tf_dot(r.data(), r.data(), n, tasks));
    double rr = r0 * r0;
    for (int k = 0; k < n; ++k)
      dir[k] = z[k] = r[k] * inverseDiagonal;
    double rz = rr * inverseDiagonal;
    int it = 0;
    bool converged = !(r0 > 0.0);
    while (!converged && it < cap)
    {
      tf_sameDepthProduct(p, m_tables[static_cast<std::size_t>(l * depths + l)], dir.data(), q.data(), false,
                          tasks);
      double const pq = tf_dot(dir.data(), q.data(), n, tasks);
      if (!(pq > 0.0) || !std::isfinite(pq))
        break;
      double const alpha = rz / pq;
      for (int k = 0; k < n; ++k)
      {
        delta[k] += alpha * dir[k];
        r[k] -= alpha * q[k];
      }
      ++it;
      rr = tf_dot(r.data(), r.data(), n, tasks);
      if (std::sqrt(rr) <= tolerance * r0)
      {
        converged = true;
        break;
      }
      double const rzNew = rr * inverseDiagonal;
      double const beta = rzNew / rz;
      rz = rzNew;
      for (int k = 0; k < n; ++k)
        dir[k] = r[k] * inverseDiagonal + beta * dir[k];
      if (progress && (it & 7) == 0)
        progress->SetPosFloat(
            std::min(1.0, share * (done + static_cast<double>(n) * std::min(1.0, it / 20.0)) / work));
    }
    if (!converged && r0 > 0.0 &&
        std::find(m_report.cappedDepths.begin(), m_report.cappedDepths.end(), p.depth) ==
            m_report.cappedDepths.end())
      m_report.cappedDepths.push_back(p.depth);
    m_report.iterationsPerDepth[l] += it;
    for (int k = 0; k < n; ++k)
      x[l][k] += delta[k];
    // The conjugate gradients' residual is the depth's residual after the
    // step (up to rounding).
    residual[l].swap(r);
    if (pass == Pass::down)
      for (int k = 0; k < n; ++k)
        sinceUp[l][k] += delta[k];
    else
      sinceUp[l] = delta;
    // Only finer depths read a depth's change in the cycle: the finest keeps none.
    if (pass == Pass::first && l + 1 < depths)
      inCycle[l].assign(static_cast<std::size_t>(n), 0.0);
    if (!inCycle[l].empty())
      for (int k = 0; k < n; ++k)
        inCycle[l][k] += delta[k];
    active[l] = 1;
    done += n;
    if (progress)
      progress->SetPosFloat(std::min(1.0, share * done / work));
  };

  for (int l = 0; l < depths; ++l)
    relax(l, Pass::first);
  // With screening, the last cycle leaves its finest depths to the screened
  // relaxations, which come right after and would redo them.
  bool const screening = m_settings.screening > 0.0 && depths > 0 && !m_samplePoints.empty();
  int const screenedFrom = screening ? std::max(1, depths - std::max(0, m_settings.screenedDepths)) : depths;
  for (int cycle = 0; cycle < m_settings.vCycles; ++cycle)
  {
    for (std::vector<double> & d : inCycle)
      std::fill(d.begin(), d.end(), 0.0);
    for (int l = depths - 2; l >= 0; --l)
      relax(l, Pass::down);
    int const top = cycle + 1 == m_settings.vCycles ? screenedFrom : depths;
    for (int l = 1; l < top; ++l)
      relax(l, Pass::up);
  }

  if (screening)
    screenSweeps(x, active, target, progress);

  result->assign(m_localIndex.size(), 0.0);
  for (int l = 0; l < depths; ++l)
  {
    SLevel const & p = m_levels[l];
    for (int k = 0; k < p.size(); ++k)
      (*result)[static_cast<std::size_t>(p.node[k])] = x[l][k];
  }

  if (m_settings.reportResidual)
  {
    // The residual over all depths: it costs one product more.
    std::vector<double> ax;
    apply(*result, &ax);
    double num = 0.0, den = 0.0;
    for (std::size_t i = 0; i < ax.size(); ++i)
    {
      double const d = -rhs[i] - ax[i];
      num += d * d;
      den += rhs[i] * rhs[i];
    }
    m_report.finalRelativeResidual = den > 0.0 ? std::sqrt(num / den) : 0.0;
  }
  if (log)
  {
    std::ostringstream line;
    line << "Multilevel iterations per depth: ";
    for (int l = 0; l < depths; ++l)
      line << (l ? ", " : "") << m_levels[l].depth << ":" << m_report.iterationsPerDepth[l] << "/"
           << m_report.nodesPerDepth[l];
    log->getMessage(line.str().c_str());
    for (int d : m_report.cappedDepths)
    {
      std::ostringstream capped;
      capped << "Multilevel depth stopped at its iteration cap: " << d;
      log->getMessage(capped.str().c_str());
    }
    if (m_report.screeningDeviationBefore > 0.0)
    {
      std::ostringstream screening;
      screening << "Multilevel screening scatter, weight, level, deviation before, after: "
                << m_report.screeningScatter << ", " << m_report.screeningWeight << ", "
                << m_report.screeningLevel << ", " << m_report.screeningDeviationBefore << ", "
                << m_report.screeningDeviationAfter;
      screening << "; steps";
      for (int it : m_report.screeningIterations)
        screening << " " << it;
      log->getMessage(screening.str().c_str());
    }
    if (m_settings.reportResidual)
    {
      std::ostringstream residual;
      residual << "Multilevel relative residual: " << m_report.finalRelativeResidual;
      log->getMessage(residual.str().c_str());
    }
  }
  return true;
}
} // namespace VolTr
