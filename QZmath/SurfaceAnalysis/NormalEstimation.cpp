#include "QZmath/SurfaceAnalysis/NormalEstimation.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>

#include <nanoflann.hpp>

#include "QZmath/BlockProcessor/TransThreadPrgCntAdapter.h"
#include "QZmath/Foundation/NumericRoutines.h"
#include "QZmath/Persistence/Heap.h"
#include "QZsys/Threading.h"

namespace REmath
{
namespace
{
// Points per block of the parallel steps: the unit of work sharing, of
// progress and of the interruption check.
constexpr int tf_blockSize = 2048;

// The middle eigenvalue of a neighbourhood's scatter below this fraction of
// the largest: the points lie on a line as far as a plane can tell.
constexpr double tf_collinearRatio = 1e-4;

// Edges whose ends lie off each other's tangent planes by more than this
// cosine are taken for edges across a thin sheet.
constexpr double tf_facingCosine = 0.5;

// The least |cosine| between the second-order normal and the first-order one
// for the quadric to be taken.
constexpr double tf_quadricAgreement = 0.5;

// |mean curvature| of the surface F(x) = x^T Q x + L . x + K = 0 at the
// origin, from its gradient g = L and Hessian Q + Q^T:
// (g^T H g - |g|^2 tr H) / (2 |g|^3). Defined at umbilic points too (a
// sphere), and 0 for a plane. NaN for a vanishing gradient.
double tf_meanCurvature(CQuadraticForm const & form)
{
  CRotationMatrix const & q = form.GetQuadaricTerm();
  Point3D_d const & l = form.GetLinearTerm();
  double const g[3] = {l.x(), l.y(), l.z()};
  double gHg = 0.0, trace = 0.0, g2 = 0.0;
  for (int i = 0; i < 3; ++i)
  {
    trace += 2.0 * q.m[i][i];
    g2 += g[i] * g[i];
    for (int j = 0; j < 3; ++j)
      gHg += g[i] * (q.m[i][j] + q.m[j][i]) * g[j];
  }
  if (!(g2 > 0.0))
    return std::numeric_limits<double>::quiet_NaN();
  return std::fabs(gHg - g2 * trace) / (2.0 * g2 * std::sqrt(g2));
}

std::string tf_text(double v)
{
  std::ostringstream s;
  s << v;
  return s.str();
}

float const * tf_point(float const * coords, int i) { return coords + 3 * static_cast<std::size_t>(i); }

// The squared distance exactly as the k-d tree computes it (float
// differences summed in double), so that comparisons with its results are
// exact. Symmetric: a - b is exactly -(b - a).
double tf_dist2(float const * a, float const * b)
{
  double r = 0.0;
  for (int k = 0; k < 3; ++k)
  {
    double const d = a[k] - b[k];
    r += d * d;
  }
  return r;
}

[[noreturn]] void tf_fail(ENormalEstimationFailure reason, std::string const & text)
{
  throw CNormalEstimationError(reason, text);
}

// Refuses parameters and clouds that cannot have normals: the parameters
// first, then the cloud; see ENormalEstimationFailure for the texts.
void tf_checkInput(CNormalEstimationParams const & params, float const * coords, int count)
{
  int const k = params.getNeighbours();
  if (k <= 0)
    tf_fail(eNEBadNeighbourCount, "the neighbour count k must be positive, got " + std::to_string(k));
  double const r = params.getMaxRadius();
  if (!(r >= 0.0) || !std::isfinite(r))
    tf_fail(eNEBadRadius, "the radius limit must be 0 (none) or positive, got " + tf_text(r));
  if (params.hasViewpoint())
  {
    Point3D_d const & v = params.getViewpoint();
    if (!std::isfinite(v.x()) || !std::isfinite(v.y()) || !std::isfinite(v.z()))
      tf_fail(eNEBadViewpoint, "the viewpoint has a non-finite coordinate");
  }
  if (!(params.getNoiseRatio() >= 0.0))
    tf_fail(eNEBadNoiseRatio, "the noise ratio must be 0 or more, got " + tf_text(params.getNoiseRatio()));
  if (count < 0 || (coords == nullptr && count > 0))
    tf_fail(eNENoPoints, "no point coordinates were given");
  if (count < k + 1)
    tf_fail(eNETooFewPoints, std::to_string(count) + " points, fewer than k + 1 = " + std::to_string(k + 1));
  double maxAbs = 0.0;
  for (int i = 0; i < count; ++i)
    for (int c = 0; c < 3; ++c)
    {
      float const v = tf_point(coords, i)[c];
      if (!std::isfinite(v))
        tf_fail(eNENonFinitePoint, "point " + std::to_string(i) + " has a non-finite coordinate");
      maxAbs = std::max(maxAbs, static_cast<double>(std::fabs(v)));
    }
  // The line through point 0 and the point farthest from it holds every
  // point of a collinear cloud.
  float const * p0 = coords;
  int far = 0;
  double far2 = 0.0;
  for (int i = 1; i < count; ++i)
  {
    double const d2 = tf_dist2(tf_point(coords, i), p0);
    if (d2 > far2)
      far2 = d2, far = i;
  }
  if (far2 == 0.0)
    tf_fail(eNEAllCoincident, "all " + std::to_string(count) + " points coincide");
  double const length = std::sqrt(far2);
  double u[3];
  for (int c = 0; c < 3; ++c)
    u[c] = (static_cast<double>(tf_point(coords, far)[c]) - p0[c]) / length;
  // Rounding of float coordinates moves points off an exact line by a few
  // units of their last place.
  double const tolerance = 1e-6 * length + 8.0 * FLT_EPSILON * maxAbs;
  for (int i = 0; i < count; ++i)
  {
    double d[3];
    for (int c = 0; c < 3; ++c)
      d[c] = static_cast<double>(tf_point(coords, i)[c]) - p0[c];
    double const x = d[1] * u[2] - d[2] * u[1], y = d[2] * u[0] - d[0] * u[2], z = d[0] * u[1] - d[1] * u[0];
    if (x * x + y * y + z * z > tolerance * tolerance)
      return;
  }
  tf_fail(eNEAllCollinear, "all " + std::to_string(count) + " points lie on one line");
}

// ---------------------------------------------------------------- normals

// What the widening needs of a neighbourhood: its number of points, their
// centroid, their scatter about it (upper triangle: xx xy xz yy yz zz), and
// its smallest eigenvalue as a share of the middle one. The scatter is
// summed about the centroid, so float keeps it as well as the float
// coordinates allow; the centroids are subtracted from each other and stay
// double.
struct tf_Moments
{
  double centroid[3];
  float scatter[6];
  float noise;
  int count;
};

// Fills m from the n points, and s with the scatter at full precision.
void tf_moments(int n, Point3D const * pts, tf_Moments & m, double (&s)[6])
{
  double c[3] = {0.0, 0.0, 0.0};
  for (int a = 0; a < n; ++a)
    for (int d = 0; d < 3; ++d)
      c[d] += pts[a].asArray()[d];
  for (double & v : c)
    v /= n;
  std::fill_n(s, 6, 0.0);
  for (int a = 0; a < n; ++a)
  {
    double const r[3] = {pts[a].x() - c[0], pts[a].y() - c[1], pts[a].z() - c[2]};
    s[0] += r[0] * r[0], s[1] += r[0] * r[1], s[2] += r[0] * r[2];
    s[3] += r[1] * r[1], s[4] += r[1] * r[2], s[5] += r[2] * r[2];
  }
  std::copy_n(c, 3, m.centroid);
  for (int e = 0; e < 6; ++e)
    m.scatter[e] = static_cast<float>(s[e]);
  m.count = n;
  m.noise = 1.0f;
}

// The spread of the scatter s (upper triangle) along the unit vector in
// column e of `rows`.
double tf_spread(double const * s, double const (&rows)[3][3], int e)
{
  double const x = rows[0][e], y = rows[1][e], z = rows[2][e];
  return s[0] * x * x + s[3] * y * y + s[5] * z * z + 2.0 * (s[1] * x * y + s[2] * x * z + s[4] * y * z);
}

// The normal of point i from its own and its neighbours' neighbourhoods
// taken together, each with the weight of its points: by the parallel axis
// theorem their joint scatter is the sum of their own ones and of their
// centroids' about the joint one (taken relative to i's centroid, where the
// differences are small and exact enough). False when the joint scatter
// tells the plane no better than i's own.
bool tf_widenedNormal(std::vector<tf_Moments> const & moments, int i, int const * nb, int nbCount,
                      double * normal)
{
  tf_Moments const & own = moments[static_cast<std::size_t>(i)];
  double weight = 0.0, mean[3] = {0.0, 0.0, 0.0}, s[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  for (int a = -1; a < nbCount; ++a)
  {
    tf_Moments const & m = a < 0 ? own : moments[static_cast<std::size_t>(nb[a])];
    double const w = m.count;
    double const d[3] = {m.centroid[0] - own.centroid[0], m.centroid[1] - own.centroid[1],
                         m.centroid[2] - own.centroid[2]};
    weight += w;
    for (int c = 0; c < 3; ++c)
      mean[c] += w * d[c];
    s[0] += m.scatter[0] + w * d[0] * d[0], s[1] += m.scatter[1] + w * d[0] * d[1];
    s[2] += m.scatter[2] + w * d[0] * d[2], s[3] += m.scatter[3] + w * d[1] * d[1];
    s[4] += m.scatter[4] + w * d[1] * d[2], s[5] += m.scatter[5] + w * d[2] * d[2];
  }
  for (double & v : mean)
    v /= weight;
  s[0] -= weight * mean[0] * mean[0], s[1] -= weight * mean[0] * mean[1], s[2] -= weight * mean[0] * mean[2];
  s[3] -= weight * mean[1] * mean[1], s[4] -= weight * mean[1] * mean[2], s[5] -= weight * mean[2] * mean[2];
  double rows[3][3] = {{s[0], s[1], s[2]}, {s[1], s[3], s[4]}, {s[2], s[4], s[5]}};
  double * r[3] = {rows[0], rows[1], rows[2]};
  double value[3], e[3];
  tred2_d(r, 3, value, e);
  if (!tqli_d(value, e, 3, r))
    return false;
  int order[3] = {0, 1, 2};
  std::sort(order, order + 3,
            [&](int x, int y) { return value[x] < value[y] || (value[x] == value[y] && x < y); });
  double const smallest = std::max(0.0, value[order[0]]), middle = value[order[1]];
  if (!(middle > 0.0) || !(smallest < own.noise * middle))
    return false;
  for (int c = 0; c < 3; ++c)
    normal[c] = rows[c][order[0]];
  return true;
}

// ---------------------------------------------------------------- parallel blocks

// Passes the workers' progress to the counter on the calling thread, and
// tells the workers to stop once that throws (an interruption).
class tf_ProgressPump : public IVescaThreadOnTimerObserver
{
public:
  tf_ProgressPump(CTransThreadPrgCntAdapter & adapter, std::atomic<bool> & stop) : m_adapter(adapter), m_stop(stop) {}

private:
  unsigned onGetMillisecondsTimeOut() override { return m_adapter.getMillisecondsTimeOut(); }
  void onProcessTimerEvent() override
  {
    try
    {
      m_adapter.processTimerEvent();
    }
    catch (...)
    {
      m_stop = true;
      throw;
    }
  }
  CTransThreadPrgCntAdapter & m_adapter;
  std::atomic<bool> & m_stop;
};

// Runs body(first, last) over blocks of [0, items) on one task per physical
// core, blocks handed out in turn. The body must make each item's result
// from that item alone, so that the split does not show in the results.
template <class F> void tf_forBlocks(int items, CProgressCounter * progress, F && body)
{
  int const blocks = (items + tf_blockSize - 1) / tf_blockSize;
  int const tasks = std::max(1, std::min(CVescaThreadingTasksHelper::getNumOfPhisicalThread(), blocks));
  CTransThreadPrgCntAdapter adapter;
  adapter.refresh(progress, blocks);
  if (tasks <= 1)
  {
    // On the owning thread every step reaches the counter at once, and an
    // interruption leaves from here.
    for (int b = 0; b < blocks; ++b)
    {
      body(b * tf_blockSize, std::min(items, (b + 1) * tf_blockSize));
      adapter.increment();
    }
    return;
  }
  std::atomic<bool> stop{false};
  std::atomic<int> next{0};
  struct Task : IVescaInvokeProc
  {
    F * body = nullptr;
    int items = 0, blocks = 0;
    std::atomic<int> * next = nullptr;
    std::atomic<bool> * stop = nullptr;
    CTransThreadPrgCntAdapter * adapter = nullptr;
    void run() override
    {
      try
      {
        for (int b = (*next)++; b < blocks && !*stop; b = (*next)++)
        {
          (*body)(b * tf_blockSize, std::min(items, (b + 1) * tf_blockSize));
          adapter->increment();
        }
      }
      catch (...)
      {
        *stop = true;
        throw;
      }
    }
  };
  std::vector<Task> work(static_cast<std::size_t>(tasks));
  std::vector<IVescaInvokeProc *> procs;
  for (Task & t : work)
  {
    t.body = &body;
    t.items = items;
    t.blocks = blocks;
    t.next = &next;
    t.stop = &stop;
    t.adapter = &adapter;
    procs.push_back(&t);
  }
  tf_ProgressPump pump(adapter, stop);
  CVescaThreadingTasksHelper::performInParallel(procs.data(), tasks, &pump);
  // The steps that arrived after the last timer event, and a last check.
  adapter.processTimerEvent();
}

// ---------------------------------------------------------------- neighbours

// The cloud as the k-d tree sees it.
struct tf_TreeCloud
{
  float const * coords;
  std::size_t count;
  std::size_t kdtree_get_point_count() const { return count; }
  float kdtree_get_pt(std::size_t i, std::size_t dim) const { return coords[3 * i + dim]; }
  template <class Box> bool kdtree_get_bbox(Box &) const { return false; }
};

using tf_Tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, tf_TreeCloud, double, unsigned>,
                                                    tf_TreeCloud, 3, unsigned>;

// The k nearest points but the query point itself, ordered by distance and
// then by index. The tree is offered every point that could tie with the
// current k-th (worstDist is just above it), so the list is the same as a
// brute-force one whatever the order of the traversal.
class tf_KnnResult
{
public:
  tf_KnnResult(unsigned self, int k, double limit2, unsigned * indices, double * dist2)
      : m_self(self), m_k(k), m_limit2(limit2), m_indices(indices), m_dist2(dist2),
        m_worst(justAbove(limit2))
  {
  }
  std::size_t size() const { return static_cast<std::size_t>(m_count); }
  bool full() const { return m_count == m_k; }
  double worstDist() const { return m_worst; }
  // The next double up, for the finite non-negative squared distances (the
  // bit pattern of such doubles grows with the value); the largest stays.
  static double justAbove(double d)
  {
    if (!(d < std::numeric_limits<double>::max()))
      return d;
    std::uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    ++bits;
    std::memcpy(&d, &bits, sizeof bits);
    return d;
  }
  bool addPoint(double d2, unsigned index)
  {
    if (index == m_self || d2 > m_limit2)
      return true;
    int i = m_count;
    while (i > 0 && (m_dist2[i - 1] > d2 || (m_dist2[i - 1] == d2 && m_indices[i - 1] > index)))
    {
      if (i < m_k)
      {
        m_dist2[i] = m_dist2[i - 1];
        m_indices[i] = m_indices[i - 1];
      }
      --i;
    }
    if (i < m_k)
    {
      m_dist2[i] = d2;
      m_indices[i] = index;
      if (m_count < m_k)
        ++m_count;
      if (m_count == m_k)
        m_worst = justAbove(m_dist2[m_k - 1]);
    }
    return true;
  }

private:
  unsigned m_self;
  int m_k;
  double m_limit2;
  int m_count = 0;
  unsigned * m_indices;
  double * m_dist2;
  double m_worst; // just above the k-th distance (or the limit): ties still come in
};

// ---------------------------------------------------------------- orientation

// The low 21 bits of v, two zero bits after each.
std::uint64_t tf_spreadBits(std::uint64_t v)
{
  v &= 0x1fffff;
  v = (v | v << 32) & 0x1f00000000ffffull;
  v = (v | v << 16) & 0x1f0000ff0000ffull;
  v = (v | v << 8) & 0x100f00f00f00f00full;
  v = (v | v << 4) & 0x10c30c30c30c30c3ull;
  v = (v | v << 2) & 0x1249249249249249ull;
  return v;
}

// The points in the order of a Morton curve through their bounding cube:
// order[new] = old. Points close in this order are close in space.
std::vector<int> tf_mortonOrder(float const * coords, int n)
{
  double lo[3], hi[3];
  for (int c = 0; c < 3; ++c)
    lo[c] = hi[c] = coords[c];
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c)
    {
      lo[c] = std::min(lo[c], static_cast<double>(tf_point(coords, i)[c]));
      hi[c] = std::max(hi[c], static_cast<double>(tf_point(coords, i)[c]));
    }
  double const extent = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
  double const scale = extent > 0.0 ? 2097151.0 / extent : 0.0;
  std::vector<std::pair<std::uint64_t, int>> keyed(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    std::uint64_t key = 0;
    for (int c = 0; c < 3; ++c)
      key |= tf_spreadBits(static_cast<std::uint64_t>((tf_point(coords, i)[c] - lo[c]) * scale)) << c;
    keyed[i] = {key, i};
  }
  std::sort(keyed.begin(), keyed.end());
  std::vector<int> order(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
    order[i] = keyed[i].second;
  return order;
}

// The cloud and its neighbour graph, made symmetric and renumbered along a
// Morton curve. The propagation wanders over the whole cloud; in this order
// the points it visits one after another lie close in memory too, which on
// a large cloud saves more time than the renumbering costs. A cloud in that
// order already (as run() hands it over) is used in place.
struct tf_LocalGraph
{
  int n = 0, k = 0;
  std::vector<int> caller; // local index -> the caller's; empty: the same
  std::vector<int> counts;
  std::vector<double> reach2;
  std::vector<std::size_t> revStart; // the points that list a point without being listed by it
  std::vector<int> rev;
  std::vector<float> coordsStore; // when renumbered
  std::vector<int> nbStore;
  float const * coords = nullptr;
  int const * nb = nullptr; // k per point, local labels

  int callerOf(int i) const { return caller.empty() ? i : caller[i]; }
  float const * point(int i) const { return coords + 3 * static_cast<std::size_t>(i); }
  int const * neighbours(int i) const { return nb + static_cast<std::size_t>(i) * k; }
  // Whether j lists i: certainly when i is closer than j's farthest listed
  // neighbour, otherwise j's list is searched.
  bool lists(int j, int i) const
  {
    if (tf_dist2(point(i), point(j)) < reach2[j])
      return true;
    int const * l = neighbours(j);
    return std::find(l, l + counts[j], i) != l + counts[j];
  }
};

void tf_makeLocalGraph(CNeighbourGraph const & graph, float const * coords, tf_LocalGraph & g,
                       CProgressCounter * progress)
{
  int const n = graph.size(), k = graph.getK();
  g.n = n;
  g.k = k;
  std::vector<int> order = tf_mortonOrder(coords, n);
  bool identity = true;
  for (int i = 0; i < n && identity; ++i)
    identity = order[i] == i;
  g.counts.resize(static_cast<std::size_t>(n));
  g.reach2.resize(static_cast<std::size_t>(n));
  if (identity)
  {
    g.coords = coords;
    g.nb = graph.getNeighbours(0);
    for (int i = 0; i < n; ++i)
    {
      g.counts[i] = graph.getNeighbourCount(i);
      g.reach2[i] = graph.getReach2(i);
    }
  }
  else
  {
    g.caller = std::move(order);
    std::vector<int> local(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
      local[g.caller[i]] = i;
    g.coordsStore.resize(3 * static_cast<std::size_t>(n));
    g.nbStore.resize(static_cast<std::size_t>(n) * k);
    for (int i = 0; i < n; ++i)
    {
      int const o = g.caller[i];
      std::copy_n(tf_point(coords, o), 3, g.coordsStore.data() + 3 * static_cast<std::size_t>(i));
      g.counts[i] = graph.getNeighbourCount(o);
      g.reach2[i] = graph.getReach2(o);
      int const * nb = graph.getNeighbours(o);
      int * out = g.nbStore.data() + static_cast<std::size_t>(i) * k;
      for (int a = 0; a < k; ++a)
        out[a] = a < g.counts[i] ? local[nb[a]] : -1;
    }
    g.coords = g.coordsStore.data();
    g.nb = g.nbStore.data();
  }

  // The one-way edges, per point and listed neighbour, in parallel.
  std::vector<unsigned char> oneWay(static_cast<std::size_t>(n) * k, 0);
  tf_forBlocks(n, progress, [&](int first, int last) {
    for (int i = first; i < last; ++i)
      for (int a = 0; a < g.counts[i]; ++a)
        oneWay[static_cast<std::size_t>(i) * k + a] = g.lists(g.neighbours(i)[a], i) ? 0 : 1;
  });
  g.revStart.assign(static_cast<std::size_t>(n) + 1, 0);
  for (int i = 0; i < n; ++i)
    for (int a = 0; a < g.counts[i]; ++a)
      if (oneWay[static_cast<std::size_t>(i) * k + a])
        ++g.revStart[static_cast<std::size_t>(g.neighbours(i)[a]) + 1];
  for (int i = 0; i < n; ++i)
    g.revStart[i + 1] += g.revStart[i];
  g.rev.resize(g.revStart[n]);
  std::vector<std::size_t> fill(g.revStart.begin(), g.revStart.end() - 1);
  for (int i = 0; i < n; ++i)
    for (int a = 0; a < g.counts[i]; ++a)
      if (oneWay[static_cast<std::size_t>(i) * k + a])
        g.rev[fill[g.neighbours(i)[a]]++] = i;
}

// Vertical columns of the cloud, for looking straight up from a point.
class tf_Columns
{
public:
  tf_Columns(float const * coords, int count, double width) : m_width(width)
  {
    m_order.resize(static_cast<std::size_t>(count));
    m_keys.resize(static_cast<std::size_t>(count));
    std::vector<std::uint64_t> keys(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
    {
      m_order[i] = i;
      keys[i] = key(cell(tf_point(coords, i)[0]), cell(tf_point(coords, i)[1]));
    }
    std::sort(m_order.begin(), m_order.end(),
              [&](int a, int b) { return keys[a] < keys[b] || (keys[a] == keys[b] && a < b); });
    for (int i = 0; i < count; ++i)
      m_keys[i] = keys[m_order[i]];
  }

  // Calls f(j) for every point of the cells around (x, y); a superset of the
  // points within the width horizontally.
  template <class F> void forNear(double x, double y, F && f) const
  {
    std::int64_t const cx = cell(x), cy = cell(y);
    for (std::int64_t dx = -1; dx <= 1; ++dx)
      for (std::int64_t dy = -1; dy <= 1; ++dy)
      {
        auto const range = std::equal_range(m_keys.begin(), m_keys.end(), key(cx + dx, cy + dy));
        for (auto it = range.first; it != range.second; ++it)
          f(m_order[static_cast<std::size_t>(it - m_keys.begin())]);
      }
  }

private:
  std::int64_t cell(double v) const
  {
    double const c = std::floor(v / m_width);
    return static_cast<std::int64_t>(std::max(-1e9, std::min(1e9, c)));
  }
  static std::uint64_t key(std::int64_t cx, std::int64_t cy)
  {
    return (static_cast<std::uint64_t>(cx + (std::int64_t(1) << 31)) << 32) |
           static_cast<std::uint64_t>(cy + (std::int64_t(1) << 31));
  }
  double m_width;
  std::vector<int> m_order;
  std::vector<std::uint64_t> m_keys;
};

double tf_dot(float const * a, float const * b)
{
  return static_cast<double>(a[0]) * b[0] + static_cast<double>(a[1]) * b[1] + static_cast<double>(a[2]) * b[2];
}

// Whether the points a and b, with normals na and nb, face each other: each
// lies off the other's tangent plane more than along it (|n . d| / |d| >
// tf_facingCosine at both ends), as across the two sides of a thin sheet.
bool tf_facing(float const * a, float const * na, float const * b, float const * nb)
{
  double const d[3] = {static_cast<double>(b[0]) - a[0], static_cast<double>(b[1]) - a[1],
                       static_cast<double>(b[2]) - a[2]};
  double const limit2 = tf_facingCosine * tf_facingCosine * (d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
  double const da = na[0] * d[0] + na[1] * d[1] + na[2] * d[2], db = nb[0] * d[0] + nb[1] * d[1] + nb[2] * d[2];
  return limit2 > 0.0 && da * da > limit2 && db * db > limit2;
}

class tf_Orienter
{
public:
  tf_Orienter(CNormalEstimationParams const & params, float const * coords, CNeighbourGraph const & graph,
              std::vector<float> & normals, CProgressCounter * progress)
      : m_params(params), m_coords(coords), m_graph(graph), m_callerNormals(normals), m_progress(progress)
  {
  }

  void run(int & components, int & inward)
  {
    {
      CPrgCntSubPhase edges(m_progress, 0.0, 0.3);
      tf_makeLocalGraph(m_graph, m_coords, m_g, m_progress);
    }
    m_n = m_g.n;
    m_normals.resize(3 * static_cast<std::size_t>(m_n));
    for (int i = 0; i < m_n; ++i)
      std::copy_n(m_callerNormals.data() + 3 * static_cast<std::size_t>(m_g.callerOf(i)), 3, normal(i));
    m_nodes.resize(static_cast<std::size_t>(m_n));
    m_parent.assign(static_cast<std::size_t>(m_n), -1);
    m_visited.assign(static_cast<std::size_t>(m_n), 0);
    m_fixed.assign(static_cast<std::size_t>(m_n), 0);
    {
      CPrgCntSubPhase tree(m_progress, 0.3, 0.6);
      if (m_params.hasViewpoint())
        fromViewpoint(components);
      else
        fromTop(components, inward);
    }
    CPrgCntSubPhase vote(m_progress, 0.9, 0.1);
    voteSigns();
    for (int i = 0; i < m_n; ++i)
      std::copy_n(normal(i), 3, m_callerNormals.data() + 3 * static_cast<std::size_t>(m_g.callerOf(i)));
  }

private:
  float * normal(int i) { return m_normals.data() + 3 * static_cast<std::size_t>(i); }
  void flip(int i)
  {
    float * v = normal(i);
    v[0] = -v[0], v[1] = -v[1], v[2] = -v[2];
  }
  int nodeIndex(CfpHeapMem const * m) const { return static_cast<int>(m - m_nodes.data()); }

  // The weight of the edge u-v: 1 - |nu . nv|, plus 1 when the two points
  // face each other. Such an edge crosses between the two sides of a thin
  // sheet, where the normals are parallel but of opposite sign, so it serves
  // only where nothing else connects.
  double weight(int u, int v)
  {
    double w = 1.0 - std::fabs(tf_dot(normal(u), normal(v)));
    if (tf_facing(m_g.point(u), normal(u), m_g.point(v), normal(v)))
      w += 1.0;
    return w;
  }

  // The heap is a max-heap: the key is the negated weight.
  void relax(int u, int v)
  {
    if (m_visited[v])
      return;
    double const key = -weight(u, v);
    CfpHeapMem & node = m_nodes[static_cast<std::size_t>(v)];
    if (!node.inHeap())
    {
      m_heap.insert(&node, key);
      m_parent[v] = u;
    }
    else if (key > node.getHeapKey())
    {
      m_heap.update(&node, key);
      m_parent[v] = u;
    }
  }
  void relaxAll(int u)
  {
    int const * nb = m_g.neighbours(u);
    for (int a = 0; a < m_g.counts[u]; ++a)
      relax(u, nb[a]);
    for (std::size_t e = m_g.revStart[u]; e < m_g.revStart[u + 1]; ++e)
      relax(u, m_g.rev[e]);
  }
  void visit(int u)
  {
    m_visited[u] = 1;
    if (++m_done % tf_blockSize == 0 && m_progress)
      m_progress->SetPosFloat(static_cast<double>(m_done) / m_n);
  }
  // Prim's algorithm from the points visited so far: each point reached
  // takes the sign that agrees with the point it was reached from; fixed
  // points keep theirs.
  void grow()
  {
    while (CfpHeapMem * m = m_heap.extract())
    {
      int const v = nodeIndex(m);
      if (!m_fixed[v] && tf_dot(normal(v), normal(m_parent[v])) < 0.0)
        flip(v);
      visit(v);
      relaxAll(v);
    }
  }

  void fromTop(int & components, int & inward)
  {
    std::vector<int> order(static_cast<std::size_t>(m_n));
    for (int i = 0; i < m_n; ++i)
      order[i] = i;
    std::sort(order.begin(), order.end(), [&](int a, int b) {
      float const za = m_g.point(a)[2], zb = m_g.point(b)[2];
      return za > zb || (za == zb && m_g.callerOf(a) < m_g.callerOf(b));
    });
    for (int s : order)
    {
      if (m_visited[s])
        continue;
      // Every point above s belongs to a component oriented already.
      bool const down = components > 0 && m_params.getNestedInward() && insideAbove(s);
      ++components;
      if (down)
        ++inward;
      if ((normal(s)[2] < 0.0f) != down && normal(s)[2] != 0.0f)
        flip(s);
      visit(s);
      relaxAll(s);
      grow();
    }
  }

  // Looks straight up from s through the points oriented so far: when the
  // first surface above has normals pointing up, the ray leaves a solid
  // there, so s lies under the solid's inner boundary and must face down.
  bool insideAbove(int s)
  {
    if (!m_columns)
    {
      // Columns as wide as a typical neighbourhood: the first surface above
      // then shows about k points.
      std::vector<double> reach(static_cast<std::size_t>(m_n));
      for (int i = 0; i < m_n; ++i)
        reach[i] = m_g.reach2[i];
      std::nth_element(reach.begin(), reach.begin() + m_n / 2, reach.end());
      m_columnWidth = std::sqrt(reach[m_n / 2]);
      if (!(m_columnWidth > 0.0))
        return false;
      m_columns.reset(new tf_Columns(m_g.coords, m_n, m_columnWidth));
    }
    float const * p = m_g.point(s);
    double const w2 = m_columnWidth * m_columnWidth;
    std::vector<int> above;
    double lowest = std::numeric_limits<double>::infinity();
    m_columns->forNear(p[0], p[1], [&](int j) {
      float const * q = m_g.point(j);
      double const dx = static_cast<double>(q[0]) - p[0], dy = static_cast<double>(q[1]) - p[1];
      if (!m_visited[j] || q[2] <= p[2] || dx * dx + dy * dy > w2)
        return;
      above.push_back(j);
      lowest = std::min(lowest, static_cast<double>(q[2]));
    });
    int votes = 0;
    for (int j : above)
      if (m_g.point(j)[2] <= lowest + m_columnWidth)
        votes += normal(j)[2] > 0.0f ? 1 : (normal(j)[2] < 0.0f ? -1 : 0);
    return votes > 0;
  }

  void fromViewpoint(int & components)
  {
    Point3D_d const & v = m_params.getViewpoint();
    double const minCos = m_params.getViewpointMinCosine();
    std::vector<double> cosine(static_cast<std::size_t>(m_n));
    for (int i = 0; i < m_n; ++i)
    {
      float const * p = m_g.point(i);
      double const d[3] = {v.x() - p[0], v.y() - p[1], v.z() - p[2]};
      double const len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
      float const * nv = normal(i);
      double const c = len > 0.0 ? (nv[0] * d[0] + nv[1] * d[1] + nv[2] * d[2]) / len : 0.0;
      if (c < 0.0)
        flip(i);
      cosine[i] = std::fabs(c);
      m_fixed[i] = cosine[i] >= minCos && cosine[i] > 0.0 ? 1 : 0;
    }
    // Every clear point is a root: the propagation starts from all of them
    // at once, and a grazing point hangs on its best edge to any of them.
    for (int i = 0; i < m_n; ++i)
      if (m_fixed[i])
        visit(i);
    for (int i = 0; i < m_n; ++i)
      if (m_fixed[i])
        relaxAll(i);
    grow();
    // Components without a clear point: from their most nearly clear point,
    // which faces the viewpoint already.
    std::vector<int> order;
    for (int i = 0; i < m_n; ++i)
      if (!m_visited[i])
        order.push_back(i);
    std::sort(order.begin(), order.end(), [&](int a, int b) {
      return cosine[a] > cosine[b] || (cosine[a] == cosine[b] && m_g.callerOf(a) < m_g.callerOf(b));
    });
    for (int s : order)
    {
      if (m_visited[s])
        continue;
      visit(s);
      relaxAll(s);
      grow();
    }
    components = countComponents();
  }

  // A last look at each sign: a point that disagrees with the sum of its
  // neighbours' normals is turned over. The propagation decides a point by
  // one edge; where noise has left a few normals nearly in the tangent
  // plane, that one edge can be wrong, the whole neighbourhood hardly ever.
  // Neighbours that face the point (across a thin sheet) have no vote, nor
  // do fixed points change. One pass over the signs as they were, in
  // parallel.
  void voteSigns()
  {
    std::vector<unsigned char> turn(static_cast<std::size_t>(m_n), 0);
    tf_forBlocks(m_n, m_progress, [&](int first, int last) {
      for (int i = first; i < last; ++i)
      {
        if (m_fixed[i])
          continue;
        float const * ni = m_normals.data() + 3 * static_cast<std::size_t>(i);
        double sum[3] = {0.0, 0.0, 0.0};
        int const * nb = m_g.neighbours(i);
        for (int a = 0; a < m_g.counts[i]; ++a)
        {
          float const * nj = m_normals.data() + 3 * static_cast<std::size_t>(nb[a]);
          if (tf_facing(m_g.point(i), ni, m_g.point(nb[a]), nj))
            continue;
          for (int c = 0; c < 3; ++c)
            sum[c] += nj[c];
        }
        turn[i] = ni[0] * sum[0] + ni[1] * sum[1] + ni[2] * sum[2] < 0.0 ? 1 : 0;
      }
    });
    for (int i = 0; i < m_n; ++i)
      if (turn[i])
        flip(i);
  }

  // Connected components of the neighbour graph, by union-find.
  int countComponents() const
  {
    std::vector<int> up(static_cast<std::size_t>(m_n));
    for (int i = 0; i < m_n; ++i)
      up[i] = i;
    auto root = [&](int i) {
      while (up[i] != i)
        i = up[i] = up[up[i]];
      return i;
    };
    int components = m_n;
    for (int i = 0; i < m_n; ++i)
      for (int a = 0; a < m_g.counts[i]; ++a)
      {
        int const x = root(i), y = root(m_g.neighbours(i)[a]);
        if (x != y)
        {
          up[std::max(x, y)] = std::min(x, y);
          --components;
        }
      }
    return components;
  }

  CNormalEstimationParams const & m_params;
  float const * m_coords;
  CNeighbourGraph const & m_graph;
  std::vector<float> & m_callerNormals;
  CProgressCounter * m_progress;
  tf_LocalGraph m_g;
  int m_n = 0;
  std::vector<float> m_normals; // local order
  std::vector<CfpHeapMem> m_nodes;
  std::vector<int> m_parent;
  std::vector<unsigned char> m_visited;
  std::vector<unsigned char> m_fixed; // clear points of a viewpoint: their sign is set
  CfpHeap m_heap;
  int m_done = 0;
  std::unique_ptr<tf_Columns> m_columns;
  double m_columnWidth = 0.0;
};
} // namespace

// ---------------------------------------------------------------- results

void CNeighbourGraph::clear()
{
  m_iK = 0;
  m_iDuplicates = 0;
  m_neighbours.clear();
  m_counts.clear();
  m_reach2.clear();
}

void CEstimatedNormals::assign(std::vector<float> normals)
{
  clear();
  normals.resize(normals.size() - normals.size() % 3);
  m_normals = std::move(normals);
  m_degenerate.assign(m_normals.size() / 3, 0);
}

void CEstimatedNormals::clear()
{
  m_normals.clear();
  m_curvatures.clear();
  m_degenerate.clear();
  m_iDegenerate = 0;
  m_iWidened = 0;
  m_iDuplicates = 0;
  m_iComponents = 0;
  m_iInwardComponents = 0;
  m_bOriented = false;
}

// ---------------------------------------------------------------- the steps

void CNormalEstimator::findNeighbours(float const * coords, int count, CNeighbourGraph & graph,
                                      CProgressCounter * progress) const
{
  graph.clear();
  tf_checkInput(m_params, coords, count);
  int const k = m_params.getNeighbours();
  double const radius = m_params.getMaxRadius();
  double const limit2 = radius > 0.0 ? radius * radius : std::numeric_limits<double>::max();
  try
  {
    tf_TreeCloud const cloud{coords, static_cast<std::size_t>(count)};
    std::unique_ptr<tf_Tree> tree;
    {
      CPrgCntSubPhase build(progress, 0.0, 0.15);
      tree.reset(new tf_Tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(16)));
    }
    graph.m_iK = k;
    graph.m_neighbours.assign(static_cast<std::size_t>(count) * k, -1);
    graph.m_counts.assign(static_cast<std::size_t>(count), 0);
    graph.m_reach2.assign(static_cast<std::size_t>(count), 0.0);
    // Queries in the tree's own order: points close in space come one after
    // another, and so do the parts of the tree they visit.
    std::vector<unsigned> const & treeOrder = tree->vAcc;
    CPrgCntSubPhase queries(progress, 0.15, 0.85);
    tf_forBlocks(count, progress, [&](int first, int last) {
      std::vector<unsigned> indices(static_cast<std::size_t>(k));
      std::vector<double> dist2(static_cast<std::size_t>(k));
      for (int q = first; q < last; ++q)
      {
        unsigned const i = treeOrder[q];
        tf_KnnResult result(i, k, limit2, indices.data(), dist2.data());
        tree->findNeighbors(result, tf_point(coords, static_cast<int>(i)), nanoflann::SearchParams());
        int const found = static_cast<int>(result.size());
        int * out = graph.m_neighbours.data() + static_cast<std::size_t>(i) * k;
        for (int a = 0; a < found; ++a)
          out[a] = static_cast<int>(indices[a]);
        graph.m_counts[i] = found;
        graph.m_reach2[i] = found > 0 ? dist2[found - 1] : 0.0;
      }
    });
    queries.Finish();
    for (int i = 0; i < count; ++i)
      if (graph.m_counts[i] > 0 && tf_dist2(tf_point(coords, i), tf_point(coords, graph.getNeighbours(i)[0])) == 0.0)
        ++graph.m_iDuplicates;
  }
  catch (...)
  {
    graph.clear();
    throw;
  }
}

void CNormalEstimator::estimateNormals(float const * coords, int count, CNeighbourGraph const & graph,
                                       CEstimatedNormals & result, CProgressCounter * progress) const
{
  result.clear();
  tf_checkInput(m_params, coords, count);
  if (graph.size() != count)
    tf_fail(eNEMismatch, "the neighbours were made for " + std::to_string(graph.size()) + " points, not " +
                             std::to_string(count));
  bool const second = m_params.getSecondOrder();
  CGetNormal2Prms const & prms2 = m_params.getSecondOrderParams();
  double const noiseRatio = m_params.getNoiseRatio();
  try
  {
    result.m_normals.assign(3 * static_cast<std::size_t>(count), 0.0f);
    result.m_degenerate.assign(static_cast<std::size_t>(count), 0);
    result.m_iDuplicates = graph.getDuplicateCount();
    if (second)
      result.m_curvatures.assign(static_cast<std::size_t>(count), -1.0f);
    int const k = graph.getK();
    // Gathers point i and its neighbours, i first; returns their number.
    auto gather = [&](int i, std::vector<Point3D> & pts) {
      int const nbCount = graph.getNeighbourCount(i);
      int const * nb = graph.getNeighbours(i);
      pts[0] = Point3D(tf_point(coords, i));
      for (int a = 0; a < nbCount; ++a)
        pts[a + 1] = Point3D(tf_point(coords, nb[a]));
      return nbCount + 1;
    };
    auto store = [&](int i, double const * normal) {
      double const len = std::sqrt(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2]);
      float * out = result.m_normals.data() + 3 * static_cast<std::size_t>(i);
      for (int d = 0; d < 3; ++d)
        out[d] = static_cast<float>(normal[d] / len);
    };

    // First order on each point's own neighbourhood.
    std::vector<tf_Moments> moments(static_cast<std::size_t>(count));
    {
      CPrgCntSubPhase firstOrder(progress, 0.0, 0.6);
      tf_forBlocks(count, progress, [&](int first, int last) {
        std::vector<Point3D> pts(static_cast<std::size_t>(k) + 1);
        double m[3][3];
        double * rows[3] = {m[0], m[1], m[2]};
        for (int i = first; i < last; ++i)
        {
          int const n = gather(i, pts);
          tf_Moments & mom = moments[static_cast<std::size_t>(i)];
          double scatter[6];
          tf_moments(n, pts.data(), mom, scatter);
          double normal[3];
          bool ok = GetNormal(n, pts.data(), rows, normal) != 0;
          if (ok)
          {
            // The spread along each eigenvector: a neighbourhood that spans
            // no plane has no normal, whatever the eigensolver picked.
            double spread[3];
            for (int e = 0; e < 3; ++e)
              spread[e] = tf_spread(scatter, m, e);
            std::sort(spread, spread + 3);
            ok = spread[2] > 0.0 && spread[1] > tf_collinearRatio * spread[2];
            if (ok)
              mom.noise = static_cast<float>(std::max(0.0, spread[0]) / spread[1]);
          }
          if (ok)
            store(i, normal);
          else
            result.m_degenerate[i] = 1;
        }
      });
    }

    // Noise-dominated neighbourhoods widened, and the second order. Reads
    // only the first pass's results, so the order of the points does not
    // matter.
    std::vector<unsigned char> widened(static_cast<std::size_t>(count), 0);
    if (second || noiseRatio < 1.0)
    {
      CPrgCntSubPhase secondPass(progress, 0.6, 0.4);
      tf_forBlocks(count, progress, [&](int first, int last) {
        std::vector<Point3D> pts(static_cast<std::size_t>(k) + 1);
        std::vector<float> dist(pts.size());
        for (int i = first; i < last; ++i)
        {
          if (result.m_degenerate[i])
            continue;
          double normal[3];
          if (moments[static_cast<std::size_t>(i)].noise > noiseRatio &&
              tf_widenedNormal(moments, i, graph.getNeighbours(i), graph.getNeighbourCount(i), normal))
          {
            widened[i] = 1;
            store(i, normal);
            continue;
          }
          if (!second)
            continue;
          int const n = gather(i, pts);
          double normal2[3], scale = 1.0;
          CQuadraticForm form;
          float const * plane = result.m_normals.data() + 3 * static_cast<std::size_t>(i);
          // A quadric whose gradient leaves the plane of the neighbourhood
          // far behind fits something else than the surface: keep the plane.
          bool const fitted = GetNormal2(n, pts.data(), &prms2, &form, normal2, dist.data(), &scale);
          if (fitted && std::fabs(normal2[0] * plane[0] + normal2[1] * plane[1] + normal2[2] * plane[2]) >=
                            tf_quadricAgreement)
          {
            store(i, normal2);
            double const kappa = tf_meanCurvature(form);
            if (scale > 0.0 && std::isfinite(kappa))
              result.m_curvatures[i] = static_cast<float>(kappa / scale);
          }
        }
      });
    }
    for (unsigned char w : widened)
      result.m_iWidened += w;
    // Degenerate points borrow from their nearest sound neighbour; only sound
    // normals are read, so the order of this pass does not matter.
    for (int i = 0; i < count; ++i)
    {
      if (!result.m_degenerate[i])
        continue;
      ++result.m_iDegenerate;
      float * out = result.m_normals.data() + 3 * static_cast<std::size_t>(i);
      out[0] = 0.0f, out[1] = 0.0f, out[2] = 1.0f;
      int const * nb = graph.getNeighbours(i);
      for (int a = 0; a < graph.getNeighbourCount(i); ++a)
        if (!result.m_degenerate[nb[a]])
        {
          std::copy_n(result.m_normals.data() + 3 * static_cast<std::size_t>(nb[a]), 3, out);
          break;
        }
    }
  }
  catch (...)
  {
    result.clear();
    throw;
  }
}

void CNormalEstimator::orientNormals(float const * coords, int count, CNeighbourGraph const & graph,
                                     CEstimatedNormals & result, CProgressCounter * progress) const
{
  tf_checkInput(m_params, coords, count);
  if (graph.size() != count)
    tf_fail(eNEMismatch, "the neighbours were made for " + std::to_string(graph.size()) + " points, not " +
                             std::to_string(count));
  if (result.size() != count)
    tf_fail(eNEMismatch, "the normals were made for " + std::to_string(result.size()) + " points, not " +
                             std::to_string(count));
  try
  {
    int components = 0, inward = 0;
    tf_Orienter(m_params, coords, graph, result.m_normals, progress).run(components, inward);
    result.m_iComponents = components;
    result.m_iInwardComponents = inward;
    result.m_bOriented = true;
  }
  catch (...)
  {
    result.clear();
    throw;
  }
}

void CNormalEstimator::run(float const * coords, int count, CEstimatedNormals & result,
                           CProgressCounter * progress) const
{
  result.clear();
  tf_checkInput(m_params, coords, count);
  VsPCnt::CMultiPhaseManager phases(progress);
  if (m_params.getPhaseNameShown())
    phases.showPhaseName();
  phases.RegisterPhase("neighbours", 45);
  phases.RegisterPhase("normals", 35);
  phases.RegisterPhase("orientation", 20);
  try
  {
    // The steps run on the cloud in the order of a Morton curve, where
    // neighbours in space are mostly neighbours in memory, and the
    // orientation finds the graph in its own order already.
    phases.StartPhase("neighbours");
    std::vector<int> const order = tf_mortonOrder(coords, count);
    std::vector<float> local(3 * static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
      std::copy_n(tf_point(coords, order[i]), 3, local.data() + 3 * static_cast<std::size_t>(i));
    CNeighbourGraph graph;
    findNeighbours(local.data(), count, graph, progress);
    phases.StartPhase("normals");
    CEstimatedNormals inOrder;
    estimateNormals(local.data(), count, graph, inOrder, progress);
    phases.StartPhase("orientation");
    orientNormals(local.data(), count, graph, inOrder, progress);
    phases.FinishCurrentPhase();

    result = inOrder;
    for (int i = 0; i < count; ++i)
    {
      std::size_t const o = static_cast<std::size_t>(order[i]);
      std::copy_n(inOrder.m_normals.data() + 3 * static_cast<std::size_t>(i), 3, result.m_normals.data() + 3 * o);
      result.m_degenerate[o] = inOrder.m_degenerate[i];
      if (!inOrder.m_curvatures.empty())
        result.m_curvatures[o] = inOrder.m_curvatures[i];
    }
  }
  catch (...)
  {
    result.clear();
    throw;
  }
}
} // namespace REmath
