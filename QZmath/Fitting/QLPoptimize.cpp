#include "QZmath/Fitting/QLPoptimize.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <exception>
#include <limits>
#include <vector>

namespace
{
constexpr double tf_inf = std::numeric_limits<double>::infinity();

// The working state of one call. Static, as the routine's contract says: it is
// set up afresh on entry, and the busy flag keeps overlapping calls out.
struct tf_QLState
{
  int n = 0, m = 0, me = 0, mmax = 0;
  double const * a = nullptr;
  double const * b = nullptr;
  std::vector<double> lower, upper; // bounds, infinite where absent
  double epsMach = 0.0, tolRel = 0.0;
  double const * c = nullptr; // the caller's C (lower triangle) and its shift
  int ldc = 0;
  double shift = 0.0;

  // J and R of the dual method: J J' is the inverse of the shifted C, and
  // J' N = [R; 0] over the normals N of the working set.
  std::vector<double> J, R;
  std::vector<double> x, dv, z, r, np, uplus;
  std::vector<int> work;     // constraint indices of the working set
  std::vector<double> sign;  // -1 where an equality entered with its sign flipped
  std::vector<char> inWork;  // by constraint index
  std::vector<char> skipped; // dependent, satisfied equalities
  mutable std::vector<double> row;

  int total() const { return m + 2 * n; }
  bool isEquality(int j) const { return j < me; }
  bool exists(int j) const
  {
    if (j < m)
      return true;
    if (j < m + n)
      return lower[j - m] > -tf_inf;
    return upper[j - m - n] < tf_inf;
  }
  // Normal and right side of constraint j (normal . x >= rhs).
  double normal(int j, double * out) const
  {
    std::fill(out, out + n, 0.0);
    if (j < m)
    {
      for (int k = 0; k < n; ++k)
        out[k] = a[j + static_cast<std::size_t>(k) * mmax];
      return b[j];
    }
    if (j < m + n)
    {
      out[j - m] = 1.0;
      return lower[j - m];
    }
    out[j - m - n] = -1.0;
    return -upper[j - m - n];
  }
  // Slack of constraint j at x, and the tolerance it is held to.
  double slack(int j, double & tolerance) const
  {
    row.resize(static_cast<std::size_t>(n));
    double const rhs = normal(j, row.data());
    double s = 0.0, scale = 1.0 + std::fabs(rhs);
    for (int k = 0; k < n; ++k)
    {
      s += row[k] * x[k];
      scale += std::fabs(row[k] * x[k]);
    }
    tolerance = tolRel * scale;
    return s - rhs;
  }
  double & Jat(int row, int col) { return J[row + static_cast<std::size_t>(col) * n]; }
  double & Rat(int row, int col) { return R[row + static_cast<std::size_t>(col) * n]; }
};

// Constant-initialised, so that loading the library runs nothing; the state
// itself is made on the first call.
std::atomic_flag g_busy = ATOMIC_FLAG_INIT;

double tf_machineEpsilon()
{
  volatile double e = 1.0;
  for (int i = 0; i < 200; ++i)
  {
    volatile double const sum = 1.0 + e * 0.5;
    if (sum == 1.0)
      break;
    e = e * 0.5;
  }
  return e;
}

// Cholesky factor L (lower, column-major, n x n) of C + shift I; false when a
// pivot is not clearly positive.
bool tf_cholesky(double const * c, int ldc, int n, double shift, double floor, std::vector<double> & L)
{
  L.assign(static_cast<std::size_t>(n) * n, 0.0);
  for (int j = 0; j < n; ++j)
  {
    double s = c[j + static_cast<std::size_t>(j) * ldc] + shift;
    for (int k = 0; k < j; ++k)
      s -= L[j + static_cast<std::size_t>(k) * n] * L[j + static_cast<std::size_t>(k) * n];
    if (!(s > floor))
      return false;
    double const piv = std::sqrt(s);
    L[j + static_cast<std::size_t>(j) * n] = piv;
    for (int i = j + 1; i < n; ++i)
    {
      double t = c[i + static_cast<std::size_t>(j) * ldc];
      for (int k = 0; k < j; ++k)
        t -= L[i + static_cast<std::size_t>(k) * n] * L[j + static_cast<std::size_t>(k) * n];
      L[i + static_cast<std::size_t>(j) * n] = t / piv;
    }
  }
  return true;
}

void tf_rotate(double & p, double & q, double cs, double sn)
{
  double const np = cs * p + sn * q;
  q = -sn * p + cs * q;
  p = np;
}

// Appends the constraint whose J' n is in st.dv to the working set.
void tf_addToWork(tf_QLState & st, int q)
{
  int const n = st.n;
  for (int j = n - 1; j > q; --j)
  {
    double const p = st.dv[j - 1], s = st.dv[j];
    if (s == 0.0)
      continue;
    double const h = std::hypot(p, s);
    double const cs = p / h, sn = s / h;
    st.dv[j - 1] = h;
    st.dv[j] = 0.0;
    for (int k = 0; k < n; ++k)
      tf_rotate(st.Jat(k, j - 1), st.Jat(k, j), cs, sn);
  }
  for (int i = 0; i <= q; ++i)
    st.Rat(i, q) = st.dv[i];
  for (int i = q + 1; i < n; ++i)
    st.Rat(i, q) = 0.0;
}

// Removes position l of the working set (q members) from R and J.
void tf_dropFromWork(tf_QLState & st, int l, int q)
{
  int const n = st.n;
  for (int k = l; k < q - 1; ++k)
    for (int i = 0; i <= k + 1; ++i)
      st.Rat(i, k) = st.Rat(i, k + 1);
  for (int i = l; i < q - 1; ++i)
  {
    double const p = st.Rat(i, i), s = st.Rat(i + 1, i);
    if (s == 0.0)
      continue;
    double const h = std::hypot(p, s);
    double const cs = p / h, sn = s / h;
    for (int col = i; col < q - 1; ++col)
      tf_rotate(st.Rat(i, col), st.Rat(i + 1, col), cs, sn);
    st.Rat(i + 1, i) = 0.0;
    for (int k = 0; k < n; ++k)
      tf_rotate(st.Jat(k, i), st.Jat(k, i + 1), cs, sn);
  }
  st.inWork[st.work[l]] = 0;
  st.work.erase(st.work.begin() + l);
  st.sign.erase(st.sign.begin() + l);
  st.uplus.erase(st.uplus.begin() + l);
}

// The optimum of the working set recomputed in one go: x = J1 R^-T b - J2 J2' d.
// The iterate itself carries the rounding of every step, which is large when
// a shifted semidefinite C put the unconstrained start far away.
void tf_recomputeSolution(tf_QLState & st, double const * dlin)
{
  int const n = st.n, q = static_cast<int>(st.work.size());
  std::vector<double> y(static_cast<std::size_t>(n), 0.0);
  for (int i = 0; i < q; ++i) // R' y1 = b of the working set, as it entered
  {
    double s = st.sign[i] * st.normal(st.work[i], st.np.data());
    for (int k = 0; k < i; ++k)
      s -= st.Rat(k, i) * y[k];
    y[i] = s / st.Rat(i, i);
  }
  for (int i = q; i < n; ++i)
  {
    double s = 0.0;
    for (int k = 0; k < n; ++k)
      s += st.Jat(k, i) * dlin[k];
    y[i] = -s;
  }
  for (int k = 0; k < n; ++k)
  {
    double s = 0.0;
    for (int i = 0; i < n; ++i)
      s += st.Jat(k, i) * y[i];
    st.x[k] = s;
  }
  // The multipliers likewise: R u = J1' (G x + d), G the shifted C.
  std::vector<double> grad(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double s = dlin[i] + st.shift * st.x[i];
    for (int k = 0; k < n; ++k)
      s += st.c[std::max(i, k) + static_cast<std::size_t>(std::min(i, k)) * st.ldc] * st.x[k];
    grad[i] = s;
  }
  for (int i = 0; i < q; ++i)
  {
    double s = 0.0;
    for (int k = 0; k < n; ++k)
      s += st.Jat(k, i) * grad[k];
    y[i] = s;
  }
  for (int i = q - 1; i >= 0; --i)
  {
    double s = y[i];
    for (int k = i + 1; k < q; ++k)
      s -= st.Rat(i, k) * st.uplus[k];
    st.uplus[i] = s / st.Rat(i, i);
    if (!st.isEquality(st.work[i]))
      st.uplus[i] = std::max(0.0, st.uplus[i]);
  }
}

template <class T> void tf_put(T * p, T v)
{
  if (p)
    *p = v;
}

// The dual method proper. Returns the failure code.
int tf_solve(tf_QLState & st, double const * c, int ldc, double const * dlin, int maxIter, int & iterations,
             int & adds, int & drops, int & dependent, double & shift, int & shifts)
{
  int const n = st.n;
  // Factor C, shifted by a growing multiple of the identity when needed.
  double cmax = 0.0;
  for (int i = 0; i < n; ++i)
    cmax = std::max(cmax, std::fabs(c[i + static_cast<std::size_t>(i) * ldc]));
  double const scale = std::max(1.0, cmax);
  double const floor = 1000.0 * st.epsMach * scale;
  std::vector<double> L;
  shift = 0.0;
  shifts = 0;
  // A semidefinite C needs a shift of the order of the root of the precision;
  // three growing shifts are all that rounding can explain, and an indefinite
  // C is refused rather than convexified.
  while (!tf_cholesky(c, ldc, n, shift, floor, L))
  {
    if (++shifts > 3)
      return 3;
    shift = shift == 0.0 ? std::sqrt(st.epsMach) * scale : shift / 0.01;
  }
  st.c = c;
  st.ldc = ldc;
  st.shift = shift;

  // J = L^-T: invert the lower triangle column by column.
  st.J.assign(static_cast<std::size_t>(n) * n, 0.0);
  st.R.assign(static_cast<std::size_t>(n) * n, 0.0);
  for (int col = 0; col < n; ++col)
  {
    // Solve L y = e_col; y is row `col` of J transposed, i.e. J(col, :) = y'.
    std::vector<double> y(static_cast<std::size_t>(n), 0.0);
    for (int i = col; i < n; ++i)
    {
      double s = i == col ? 1.0 : 0.0;
      for (int k = col; k < i; ++k)
        s -= L[i + static_cast<std::size_t>(k) * n] * y[k];
      y[i] = s / L[i + static_cast<std::size_t>(i) * n];
    }
    for (int i = 0; i < n; ++i)
      st.Jat(col, i) = y[i];
  }

  // The unconstrained minimum: x = -J J' d.
  st.dv.assign(n, 0.0);
  st.x.assign(n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < n; ++k)
      st.dv[i] += st.Jat(k, i) * dlin[k];
  for (int k = 0; k < n; ++k)
    for (int i = 0; i < n; ++i)
      st.x[k] -= st.Jat(k, i) * st.dv[i];

  st.z.assign(n, 0.0);
  st.r.assign(n, 0.0);
  st.np.assign(n, 0.0);
  st.work.clear();
  st.sign.clear();
  st.uplus.clear();
  st.inWork.assign(static_cast<std::size_t>(st.total()), 0);
  st.skipped.assign(static_cast<std::size_t>(st.total()), 0);
  iterations = adds = drops = dependent = 0;
  int nextEquality = 0;

  for (;;)
  {
    // Choose the constraint to satisfy: the equalities in order, then the
    // most violated inequality, measured along its normal.
    int p = -1;
    double flip = 1.0;
    double tolerance = 0.0;
    if (nextEquality < st.me)
    {
      p = nextEquality++;
      if (st.slack(p, tolerance) > 0.0)
        flip = -1.0;
    }
    else
    {
      double worst = 0.0;
      for (int j = st.me; j < st.total(); ++j)
      {
        if (st.inWork[j] || !st.exists(j))
          continue;
        double tolJ;
        double const s = st.slack(j, tolJ);
        if (s >= -tolJ)
          continue;
        double const rhs = st.normal(j, st.np.data());
        (void)rhs;
        double norm = 0.0;
        for (int k = 0; k < n; ++k)
          norm += st.np[k] * st.np[k];
        double const measure = s / std::sqrt(norm);
        if (measure < worst)
        {
          worst = measure;
          p = j;
        }
      }
      if (p < 0)
      {
        tf_recomputeSolution(st, dlin);
        return 0;
      }
    }
    st.uplus.push_back(0.0);

    for (;;)
    {
      if (iterations == maxIter)
      {
        st.uplus.pop_back();
        return 1;
      }
      ++iterations;
      int const q = static_cast<int>(st.work.size());
      st.normal(p, st.np.data());
      for (int k = 0; k < n; ++k)
        st.np[k] *= flip;
      double sp = flip * st.slack(p, tolerance);

      // dv = J' n, primal direction z = J2 dv2, dual direction r = R^-1 dv1.
      double dvNorm2 = 0.0, dv2Norm2 = 0.0;
      for (int i = 0; i < n; ++i)
      {
        double s = 0.0;
        for (int k = 0; k < n; ++k)
          s += st.Jat(k, i) * st.np[k];
        st.dv[i] = s;
        dvNorm2 += s * s;
        if (i >= q)
          dv2Norm2 += s * s;
      }
      std::fill(st.z.begin(), st.z.end(), 0.0);
      for (int i = q; i < n; ++i)
        for (int k = 0; k < n; ++k)
          st.z[k] += st.Jat(k, i) * st.dv[i];
      for (int i = q - 1; i >= 0; --i)
      {
        double s = st.dv[i];
        for (int k = i + 1; k < q; ++k)
          s -= st.Rat(i, k) * st.r[k];
        st.r[i] = s / st.Rat(i, i);
      }

      // Partial step: the first working inequality whose multiplier reaches 0.
      double t1 = tf_inf;
      int l = -1;
      for (int i = 0; i < q; ++i)
        if (!st.isEquality(st.work[i]) && st.r[i] > 0.0)
        {
          double const ratio = st.uplus[i] / st.r[i];
          if (ratio < t1)
          {
            t1 = ratio;
            l = i;
          }
        }
      // Full step: the primal move that satisfies p; none when p's normal
      // depends on the working set.
      bool const dependentNormal = dv2Norm2 <= 1000.0 * st.epsMach * 1000.0 * st.epsMach * dvNorm2;
      double const zn = dv2Norm2;
      double const t2 = dependentNormal ? tf_inf : -sp / zn;

      if (t1 == tf_inf && t2 == tf_inf)
      {
        if (st.isEquality(p) && std::fabs(sp) <= tolerance)
        {
          st.skipped[p] = 1;
          ++dependent;
          st.uplus.pop_back();
          break;
        }
        st.uplus.pop_back();
        return 2;
      }
      if (t2 == tf_inf)
      {
        for (int i = 0; i < q; ++i)
          st.uplus[i] -= t1 * st.r[i];
        st.uplus[q] += t1;
        tf_dropFromWork(st, l, q);
        ++drops;
        continue;
      }
      double const t = std::min(t1, t2);
      for (int k = 0; k < n; ++k)
        st.x[k] += t * st.z[k];
      for (int i = 0; i < q; ++i)
        st.uplus[i] -= t * st.r[i];
      st.uplus[q] += t;
      if (t2 <= t1)
      {
        tf_addToWork(st, q);
        st.work.push_back(p);
        st.sign.push_back(flip);
        st.inWork[p] = 1;
        ++adds;
        break;
      }
      tf_dropFromWork(st, l, q);
      ++drops;
    }
  }
}
} // namespace

void QLPoptimize(int * m, int * me, int * mmax, int * n, int * nmax, int * mnn, int * maxit, double * c,
                 double * d, double * a, double * b, double * xl, double * xu, double * bigbnd, double * tol,
                 double * x, double * u, double * f, double * cres, double * diag, int * ifail, int * iter,
                 int * nact, int * iact, int * nadd, int * ndrop, double * eps, int * ixstat, int * icstat,
                 int * nviol, int * ndep, int * nshift)
{
  if (!ifail)
    return;
  if (g_busy.test_and_set(std::memory_order_acquire))
  {
    assert(!"QLPoptimize: calls overlap; its static state is not reentrant");
    *ifail = 5;
    return;
  }
  struct LC_Release
  {
    ~LC_Release() { g_busy.clear(std::memory_order_release); }
  } const release;

  static tf_QLState st;
  st = tf_QLState();
  st.epsMach = tf_machineEpsilon();
  tf_put(eps, st.epsMach);

  // The sizes are compared in 64 bits: m + 2 n must not wrap round for the
  // test to mean anything.
  if (!m || !me || !mmax || !n || !nmax || !mnn || !c || !d || !xl || !xu || !x || *n < 1 || *m < 0 ||
      *me < 0 || *me > *m || *nmax < *n || *mnn < static_cast<long long>(*m) + 2LL * *n ||
      (*m > 0 && (!a || !b || *mmax < *m)))
  {
    *ifail = 4;
    return;
  }
  st.n = *n;
  st.m = *m;
  st.me = *me;
  st.mmax = *mmax;
  st.a = a;
  st.b = b;
  double const big = bigbnd && *bigbnd > 0.0 ? *bigbnd : 1.0e9;
  st.tolRel = tol && *tol > 0.0 ? *tol : std::sqrt(st.epsMach);
  int const maxIter = maxit && *maxit > 0 ? *maxit : 1000 + 10 * st.total();

  // Every number that enters the method must be finite (bounds may be
  // infinite: they then do not exist).
  bool finite = true;
  for (int j = 0; j < st.n && finite; ++j)
  {
    finite = std::isfinite(d[j]) && !std::isnan(xl[j]) && !std::isnan(xu[j]);
    for (int i = j; i < st.n && finite; ++i)
      finite = std::isfinite(c[i + static_cast<std::size_t>(j) * *nmax]);
    for (int i = 0; i < st.m && finite; ++i)
      finite = std::isfinite(a[i + static_cast<std::size_t>(j) * st.mmax]);
  }
  for (int i = 0; i < st.m && finite; ++i)
    finite = std::isfinite(b[i]);
  if (!finite)
  {
    *ifail = 6;
    return;
  }
  int iterations = 0, adds = 0, drops = 0, dependent = 0, shifts = 0;
  double shift = 0.0;
  int code;
  try
  {
    st.lower.resize(st.n);
    st.upper.resize(st.n);
    for (int i = 0; i < st.n; ++i)
    {
      st.lower[i] = xl[i] <= -big ? -tf_inf : xl[i];
      st.upper[i] = xu[i] >= big ? tf_inf : xu[i];
    }
    code = tf_solve(st, c, *nmax, d, maxIter, iterations, adds, drops, dependent, shift, shifts);
  }
  catch (std::exception const &)
  {
    // The working arrays are of order n^2: sizes beyond the memory are bad
    // dimensions too. Nothing of the caller's is written.
    st = tf_QLState();
    *ifail = 4;
    return;
  }
  *ifail = code;
  tf_put(iter, iterations);
  tf_put(nadd, adds);
  tf_put(ndrop, drops);
  tf_put(ndep, dependent);
  tf_put(nshift, shifts);
  tf_put(diag, shift);
  if (code == 3)
    return;

  for (int k = 0; k < st.n; ++k)
    x[k] = st.x[k];
  int const q = static_cast<int>(st.work.size());
  tf_put(nact, q);
  if (u)
  {
    std::fill(u, u + st.total(), 0.0);
    for (int i = 0; i < q && i < static_cast<int>(st.uplus.size()); ++i)
      u[st.work[i]] = st.sign[i] * st.uplus[i];
  }
  if (iact)
    for (int i = 0; i < q; ++i)
      iact[i] = st.work[i];
  if (ixstat)
    for (int k = 0; k < st.n; ++k)
      ixstat[k] = st.inWork[st.m + k] ? -1 : st.inWork[st.m + st.n + k] ? 1 : 0;
  if (icstat)
    for (int j = 0; j < st.m; ++j)
      icstat[j] = st.inWork[j] ? 1 : 0;

  // Objective with the caller's C, and the violations left at x.
  if (f)
  {
    double value = 0.0;
    for (int j = 0; j < st.n; ++j)
    {
      double cx = 0.0;
      for (int i = 0; i < st.n; ++i)
      {
        int const lo = std::max(i, j), hi = std::min(i, j);
        cx += c[lo + static_cast<std::size_t>(hi) * *nmax] * x[i];
      }
      value += x[j] * (0.5 * cx + d[j]);
    }
    *f = value;
  }
  double worst = 0.0;
  int violated = 0;
  for (int j = 0; j < st.total(); ++j)
  {
    if (!st.exists(j))
      continue;
    double tolerance;
    double const s = st.slack(j, tolerance);
    double const v = st.isEquality(j) ? std::fabs(s) : std::max(0.0, -s);
    worst = std::max(worst, v);
    violated += v > tolerance ? 1 : 0;
  }
  tf_put(cres, worst);
  tf_put(nviol, violated);
}
