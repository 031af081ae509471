#include "QZmath/Fitting/PolylineSmoothing.h"

#include <mkl.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>

using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
// ---- The averaging pass ---------------------------------------------------------

template <class T> struct tf_PassWeights
{
  T a, b;   // first step: a v[i] + b (v[i - 1] + v[i + 1])
  T a2, b2; // counter step, used only when `second` is set
  bool second;
};

// One step over v into t, wrapped or with held ends.
template <class T> void tf_step(T const * v, T * t, std::int64_t m, bool closed, T a, T b)
{
  if (closed)
  {
    t[0] = a * v[0] + b * (v[m - 1] + v[m > 1 ? 1 : 0]);
    if (m > 1)
      t[m - 1] = a * v[m - 1] + b * (v[m - 2] + v[0]);
  }
  else
  {
    t[0] = v[0];
    t[m - 1] = v[m - 1];
  }
  for (std::int64_t i = 1; i < m - 1; ++i)
    t[i] = a * v[i] + b * (v[i - 1] + v[i + 1]);
}

// `nIter` passes over v; tmp is scratch of the same length. Both may be
// swapped: v holds the result on return.
template <class T>
void tf_runPasses(std::vector<T> & v, std::vector<T> & tmp, bool closed, tf_PassWeights<T> const & w,
                  int nIter)
{
  std::int64_t const m = static_cast<std::int64_t>(v.size());
  if (m == 0)
    return;
  for (int it = 0; it < nIter; ++it)
  {
    tf_step(v.data(), tmp.data(), m, closed, w.a, w.b);
    if (!w.second)
    {
      v.swap(tmp);
      continue;
    }
    // The counter step reads only t, so the order of the walk does not
    // matter; open ends keep their value, which equals t's.
    if (closed)
      tf_step(tmp.data(), v.data(), m, true, w.a2, w.b2);
    else
      for (std::int64_t i = 1; i < m - 1; ++i)
        v[i] = w.a2 * tmp[i] + w.b2 * (tmp[i - 1] + tmp[i + 1]);
  }
}

// The response of the whole scheme to a unit impulse, kept only where it can
// be non-zero: each pass widens the support by one index per step, so after
// nIter passes it lies within `reach` of the impulse. Held zero ends just
// outside that reach give exactly the values of the full-length computation.
struct tf_Response
{
  std::int64_t start = 0; // sequence index of vals[0]
  std::vector<double> vals;

  double at(std::int64_t idx, std::int64_t m) const
  {
    std::int64_t p = (idx - start) % m;
    if (p < 0)
      p += m;
    return p < static_cast<std::int64_t>(vals.size()) ? vals[p] : 0.0;
  }
};

tf_Response tf_impulseResponse(std::int64_t f, std::int64_t m, bool closed, tf_PassWeights<double> const & w,
                               int nIter)
{
  std::int64_t const reach = static_cast<std::int64_t>(nIter) * (w.second ? 2 : 1) + 1;
  tf_Response r;
  bool wrapped = closed;
  std::int64_t len;
  if (!closed)
  {
    r.start = std::max<std::int64_t>(0, f - reach);
    len = std::min<std::int64_t>(m - 1, f + reach) - r.start + 1;
  }
  else if (2 * reach + 1 <= m)
  {
    // The window fits without meeting itself: an open sequence with zero ends.
    r.start = f - reach;
    len = 2 * reach + 1;
    wrapped = false;
  }
  else
  {
    r.start = 0;
    len = m;
  }
  r.vals.assign(static_cast<std::size_t>(len), 0.0);
  std::int64_t p = (f - r.start) % m;
  if (p < 0)
    p += m;
  r.vals[p] = 1.0;
  std::vector<double> tmp(r.vals.size());
  tf_runPasses(r.vals, tmp, wrapped, w, nIter);
  return r;
}

template <class T> tf_PassWeights<T> tf_weights(double w, bool preserveShape)
{
  // The counter weight keeps the constants of its formula in float.
  double const u = preserveShape ? w / (1.0f - 0.1f * w) : 0.0;
  return {static_cast<T>(1.0 - w), static_cast<T>(w / 2.0), static_cast<T>(1.0 + u), static_cast<T>(-u / 2.0),
          u != 0.0};
}

template <class P> bool tf_smooth(std::vector<P> & points, CPolylineSmoothParams const & params)
{
  using T = std::remove_reference_t<decltype(points[0].x())>;
  std::int64_t const n = static_cast<std::int64_t>(points.size());
  bool const closed = params.GetIsClosed();
  std::int64_t const m = closed ? n - 1 : n;
  if (m <= 0)
    return true;

  static std::vector<int> const noFixed;
  std::vector<int> const & fixed = params.GetPtrFixedPtIdx() ? *params.GetPtrFixedPtIdx() : noFixed;
  std::int64_t k = static_cast<std::int64_t>(fixed.size());
  for (int idx : fixed)
    if (idx < 0 || idx >= n)
      return false;
  // A closed polyline's last point is its first: a list that names both
  // solves for one point only.
  if (closed && k > 1 && std::abs(static_cast<std::int64_t>(fixed[0]) - fixed[k - 1]) == n - 1)
    --k;
  for (std::int64_t j = 0; j < k; ++j)
    if (fixed[j] >= m)
      return false;

  try
  {
    // Every point fixed: nothing can move, and the system would be of the
    // polyline's own size.
    if (k >= m)
    {
      std::vector<char> seen(static_cast<std::size_t>(m), 0);
      std::int64_t distinct = 0;
      for (std::int64_t j = 0; j < k; ++j)
        distinct += seen[fixed[j]] ? 0 : (seen[fixed[j]] = 1);
      if (distinct == m)
      {
        if (closed)
          points[n - 1] = points[0];
        return true;
      }
    }

    std::vector<P> const originals = [&]
    {
      std::vector<P> o;
      o.reserve(fixed.size());
      for (int idx : fixed)
        o.push_back(points[idx]);
      return o;
    }();

    double const w = params.GetWeight();
    int const nIter = std::max(0, params.GetNIter());
    tf_PassWeights<double> const wd = tf_weights<double>(w, params.GetPreserveShape());
    tf_PassWeights<T> const wt = tf_weights<T>(w, params.GetPreserveShape());

    std::vector<tf_Response> responses;
    responses.reserve(static_cast<std::size_t>(k));
    for (std::int64_t j = 0; j < k; ++j)
      responses.push_back(tf_impulseResponse(fixed[j], m, closed, wd, nIter));

    // The coordinates one axis at a time, so that the passes run over
    // contiguous arrays.
    std::vector<T> coord[3];
    std::vector<T> tmp(static_cast<std::size_t>(m));
    for (int c = 0; c < 3; ++c)
    {
      coord[c].resize(static_cast<std::size_t>(m));
      for (std::int64_t i = 0; i < m; ++i)
        coord[c][i] = points[i].asArray()[c];
      tf_runPasses(coord[c], tmp, closed, wt, nIter);
    }
    auto writeBack = [&]
    {
      for (std::int64_t i = 0; i < m; ++i)
        for (int c = 0; c < 3; ++c)
          points[i].asArray()[c] = coord[c][i];
    };

    if (k > 0)
    {
      MKL_INT const order = static_cast<MKL_INT>(k);
      std::vector<double> a(static_cast<std::size_t>(k * k));
      std::vector<double> rhs(static_cast<std::size_t>(k * 3));
      for (std::int64_t j = 0; j < k; ++j)
        for (std::int64_t i = 0; i < k; ++i)
          a[j * k + i] = responses[j].at(fixed[i], m);
      for (int c = 0; c < 3; ++c)
        for (std::int64_t i = 0; i < k; ++i)
          rhs[c * k + i] =
              static_cast<double>(originals[i].asArray()[c]) - static_cast<double>(coord[c][fixed[i]]);
      std::vector<MKL_INT> pivots(static_cast<std::size_t>(k));
      MKL_INT info = 0;
      MKL_INT const nrhs = 3;
      dgetrf(&order, &order, a.data(), &order, pivots.data(), &info);
      if (info == 0)
        dgetrs("N", &order, &nrhs, a.data(), &order, pivots.data(), rhs.data(), &order, &info);
      if (info != 0)
      {
        writeBack();
        return false;
      }

      // The correction of each point: its sum over the impulses first, then
      // added to the smoothed coordinate.
      std::vector<double> corr(static_cast<std::size_t>(m) * 3, 0.0);
      for (std::int64_t j = 0; j < k; ++j)
      {
        tf_Response const & r = responses[j];
        for (std::size_t p = 0; p < r.vals.size(); ++p)
        {
          std::int64_t idx = (r.start + static_cast<std::int64_t>(p)) % m;
          if (idx < 0)
            idx += m;
          for (int c = 0; c < 3; ++c)
            corr[idx * 3 + c] += r.vals[p] * rhs[c * k + j];
        }
      }
      for (int c = 0; c < 3; ++c)
        for (std::int64_t i = 0; i < m; ++i)
          coord[c][i] = static_cast<T>(static_cast<double>(coord[c][i]) + corr[i * 3 + c]);
    }
    writeBack();
    for (std::size_t j = 0; j < fixed.size(); ++j)
      points[fixed[j]] = originals[j];
    if (closed)
      points[n - 1] = points[0];
    return true;
  }
  catch (std::bad_alloc const &)
  {
    return false;
  }
}

// ---- Arrangement on a circle ------------------------------------------------------

constexpr double tf_margin = 0.01;

class tf_CircleArrangement
{
public:
  tf_CircleArrangement(std::vector<float> & values, int direction, int period)
      : m_v(values), m_n(static_cast<std::int64_t>(values.size())), m_dir(direction), m_period(period)
  {
  }

  // Throws "." when the arrangement cannot be reached.
  void run()
  {
    for (std::int64_t i = 0; i < m_n; ++i)
      if (sense(i) != m_dir)
        repairAround(i);
    for (std::int64_t i = 0; i < m_n; ++i)
      if (sense(i) != m_dir)
        throw ".";
  }

private:
  std::int64_t wrap(std::int64_t k) const { return ((k % m_n) + m_n) % m_n; }
  double at(std::int64_t k) const { return m_v[wrap(k)]; }

  // The sense of the step from value i to value i + 1, by the vote of all
  // other values: lying between the two (by value) means that the step runs
  // the other way round, avoiding them.
  int sense(std::int64_t i) const
  {
    double const a = at(i), b = at(i + 1);
    if (std::fabs(b - a) <= tf_margin)
      return 0;
    double const lo = std::min(a, b), hi = std::max(a, b);
    int const insideVote = a < b ? -1 : 1;
    std::int64_t const ia = wrap(i), ib = wrap(i + 1);
    std::int64_t sum = 0;
    for (std::int64_t k = 0; k < m_n; ++k)
    {
      if (k == ia || k == ib)
        continue;
      double const c = m_v[k];
      bool const inside = c == lo || c == hi || (c > lo + tf_margin && c < hi - tf_margin);
      sum += inside ? insideVote : -insideVote;
    }
    return (sum > 0) - (sum < 0);
  }

  // Whether b lies on the arc that runs from a to c in the positive sense,
  // clear of both ends by the margin.
  static bool onArc(double a, double b, double c)
  {
    if (a <= c)
      return a + tf_margin < b && b < c - tf_margin;
    return b > a + tf_margin || b < c - tf_margin;
  }
  bool inOrder(double prev, double cur, double end) const
  {
    return m_dir > 0 ? onArc(prev, cur, end) : onArc(end, cur, prev);
  }

  void repairAround(std::int64_t i)
  {
    std::int64_t s = i, e = i + 1;
    bool back = true;
    while (sense(s - 1) != m_dir || sense(e) != m_dir)
    {
      if (back)
        --s;
      else
        ++e;
      back = !back;
      if (e - s >= m_n)
        throw ".";
    }
    std::int64_t const inner = e - s - 1;
    if (inner < 1)
      throw ".";
    bool consistent = true;
    for (std::int64_t k = s + 1; k < e && consistent; ++k)
      consistent = inOrder(at(k - 1), at(k), at(e));
    if (consistent)
      return;
    double span = m_dir * (at(e) - at(s));
    if (span < 0)
      span = m_period - span;
    double const step = span / (1.0 + span);
    double prev = at(s);
    for (std::int64_t k = s + 1; k < e; ++k)
    {
      double value = prev + step;
      if (value + tf_margin > m_period)
        value -= m_period;
      m_v[wrap(k)] = static_cast<float>(value);
      prev = m_v[wrap(k)];
    }
  }

  std::vector<float> & m_v;
  std::int64_t m_n;
  int m_dir;
  int m_period;
};
} // namespace

bool smoothPolylineWithFixedPoints(std::vector<Point3D> & points, const CPolylineSmoothParams & params)
{
  return tf_smooth(points, params);
}

bool smoothPolylineWithFixedPoints(std::vector<Point3D_d> & points, const CPolylineSmoothParams & params)
{
  return tf_smooth(points, params);
}

bool ArrangePointsOnLine(std::vector<float> & values, int direction, int /*period*/)
{
  // NaN sorts after every number, which keeps the order strict and weak.
  std::sort(values.begin(), values.end(),
            [](float a, float b) { return a < b || (!std::isnan(a) && std::isnan(b)); });
  if (direction < 0)
    std::reverse(values.begin(), values.end());
  return true;
}

bool ArrangePointsOnCircle(std::vector<float> & values, int direction, int period)
{
  if (direction != 1 && direction != -1)
    return false;
  if (values.size() < 3)
    return true;
  std::vector<float> const copy = values;
  try
  {
    tf_CircleArrangement(values, direction, period).run();
    return true;
  }
  catch (char const *)
  {
    values = copy;
    return false;
  }
}
