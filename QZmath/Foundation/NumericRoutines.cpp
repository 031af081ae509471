#include "QZmath/Foundation/NumericRoutines.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include <mkl.h>

namespace
{
// The bookkeeping arrays of gaussj have a fixed size.
constexpr int TF_GAUSSJ_MAX = 50;
// Sweeps allowed on one eigenvalue before tqli gives up.
constexpr int TF_TQLI_MAX_SWEEPS = 100;
} // namespace

// ---------------------------------------------------------------------------
// Gauss-Jordan elimination

int gaussj(double ** a, int n, double ** b, int m)
{
  if (n > TF_GAUSSJ_MAX || m > TF_GAUSSJ_MAX)
    return -1;
  int colOfStep[TF_GAUSSJ_MAX], rowOfStep[TF_GAUSSJ_MAX], pivotMark[TF_GAUSSJ_MAX];
  for (int j = 0; j < n; ++j)
    pivotMark[j] = 0;
  // The pivot position carries over from one step to the next: a step whose
  // candidates are all NaN finds nothing and reuses the previous column, which
  // the next search reports as a column used twice.
  int pivotRow = 0, pivotCol = 0;
  for (int step = 0; step < n; ++step)
  {
    double largest = 0.0;
    for (int j = 0; j < n; ++j)
    {
      if (pivotMark[j] == 1)
        continue;
      for (int k = 0; k < n; ++k)
      {
        if (pivotMark[k] == 0)
        {
          // >= : among equal magnitudes the last one found wins.
          if (std::fabs(a[j][k]) >= largest)
          {
            largest = std::fabs(a[j][k]);
            pivotRow = j;
            pivotCol = k;
          }
        }
        else if (pivotMark[k] > 1)
          return 0;
      }
    }
    ++pivotMark[pivotCol];
    // Bring the pivot to the diagonal by a row swap; columns are unscrambled
    // at the end.
    // Contents, not row pointers, are exchanged: the caller's pointer table
    // stays as it was.
    if (pivotRow != pivotCol)
    {
      for (int l = 0; l < n; ++l)
        std::swap(a[pivotRow][l], a[pivotCol][l]);
      for (int l = 0; l < m; ++l)
        std::swap(b[pivotRow][l], b[pivotCol][l]);
    }
    rowOfStep[step] = pivotRow;
    colOfStep[step] = pivotCol;
    if (a[pivotCol][pivotCol] == 0.0)
      return -1;
    double const inv = 1.0 / a[pivotCol][pivotCol];
    a[pivotCol][pivotCol] = 1.0;
    for (int l = 0; l < n; ++l)
      a[pivotCol][l] *= inv;
    for (int l = 0; l < m; ++l)
      b[pivotCol][l] *= inv;
    for (int row = 0; row < n; ++row)
    {
      if (row == pivotCol)
        continue;
      double const factor = a[row][pivotCol];
      a[row][pivotCol] = 0.0;
      for (int l = 0; l < n; ++l)
        a[row][l] -= a[pivotCol][l] * factor;
      for (int l = 0; l < m; ++l)
        b[row][l] -= b[pivotCol][l] * factor;
    }
  }
  for (int step = n - 1; step >= 0; --step)
  {
    if (rowOfStep[step] == colOfStep[step])
      continue;
    for (int k = 0; k < n; ++k)
      std::swap(a[k][rowOfStep[step]], a[k][colOfStep[step]]);
  }
  return 1;
}

// ---------------------------------------------------------------------------
// Symmetric eigenproblem
//
// Both precisions share one body. Literal constants are double, so in the float
// form the expressions that mix them with floats are evaluated in double and
// rounded when stored, and square roots are always taken in double.

namespace
{
template <class T> T tf_sqrtD(T v) { return static_cast<T>(std::sqrt(static_cast<double>(v))); }

template <class T> void tf_tred2(T ** a, int n, T * d, T * e)
{
  if (n < 1)
    return;
  // Reduce the rows from the last up; row i is annihilated left of its
  // sub-diagonal by the reflector I - u u^T / H with u stored in row i and
  // u / H in column i.
  for (int i = n - 1; i > 0; --i)
  {
    int const l = i - 1;
    T h = 0, scale = 0;
    if (l > 0)
    {
      for (int k = 0; k <= l; ++k)
        scale += std::fabs(a[i][k]);
      if (scale == 0)
        e[i] = a[i][l]; // nothing to annihilate
      else
      {
        for (int k = 0; k <= l; ++k)
        {
          a[i][k] /= scale;
          h += a[i][k] * a[i][k];
        }
        T f = a[i][l];
        T g = f >= 0 ? -tf_sqrtD(h) : tf_sqrtD(h);
        e[i] = scale * g;
        h -= f * g;
        a[i][l] = f - g;
        f = 0;
        for (int j = 0; j <= l; ++j)
        {
          a[j][i] = a[i][j] / h;
          // p = A u / H, from the lower triangle of the working matrix.
          g = 0;
          for (int k = 0; k <= j; ++k)
            g += a[j][k] * a[i][k];
          for (int k = j + 1; k <= l; ++k)
            g += a[k][j] * a[i][k];
          e[j] = g / h;
          f += e[j] * a[i][j];
        }
        T const hh = f / (h + h);
        for (int j = 0; j <= l; ++j)
        {
          f = a[i][j];
          e[j] = g = e[j] - hh * f;
          for (int k = 0; k <= j; ++k)
            a[j][k] -= (f * e[k] + g * a[i][k]);
        }
      }
    }
    else
      e[i] = a[i][l];
    d[i] = h;
  }
  d[0] = 0;
  e[0] = 0;
  // Accumulate the reflectors into the orthogonal matrix, in place.
  for (int i = 0; i < n; ++i)
  {
    int const l = i - 1;
    if (d[i] != 0)
    {
      for (int j = 0; j <= l; ++j)
      {
        T g = 0;
        for (int k = 0; k <= l; ++k)
          g += a[i][k] * a[k][j];
        for (int k = 0; k <= l; ++k)
          a[k][j] -= g * a[k][i];
      }
    }
    d[i] = a[i][i];
    a[i][i] = 1;
    for (int j = 0; j <= l; ++j)
      a[j][i] = a[i][j] = 0;
  }
}

// sqrt(a^2 + b^2) without destructive overflow or underflow; the root in double.
template <class T> T tf_pythag(T a, T b)
{
  T const absa = std::fabs(a), absb = std::fabs(b);
  if (absa > absb)
  {
    T const q = absb / absa;
    return static_cast<T>(absa * std::sqrt(1.0 + q * q));
  }
  if (absb == 0)
    return 0;
  T const q = absa / absb;
  return static_cast<T>(absb * std::sqrt(1.0 + q * q));
}

template <class T> int tf_tqli(T * d, T * e, int n, T ** z)
{
  if (n < 1)
    return 1;
  for (int i = 1; i < n; ++i)
    e[i - 1] = e[i];
  e[n - 1] = 0;
  for (int l = 0; l < n; ++l)
  {
    int sweeps = 0;
    int m;
    do
    {
      // Look for a negligible off-diagonal element to split the matrix.
      for (m = l; m < n - 1; ++m)
      {
        T const dd = std::fabs(d[m]) + std::fabs(d[m + 1]);
        if (static_cast<T>(std::fabs(e[m]) + dd) == dd)
          break;
      }
      if (m == l)
        break;
      if (sweeps++ == TF_TQLI_MAX_SWEEPS)
        return 0;
      // Implicit Wilkinson shift.
      T g = static_cast<T>((d[l + 1] - d[l]) / (2.0 * e[l]));
      T r = tf_pythag(g, static_cast<T>(1));
      double const signedR = g >= 0 ? std::fabs(static_cast<double>(r)) : -std::fabs(static_cast<double>(r));
      g = static_cast<T>(d[m] - d[l] + e[l] / (g + signedR));
      T s = 1, c = 1, p = 0;
      int i;
      for (i = m - 1; i >= l; --i)
      {
        T const f = s * e[i];
        T const b = c * e[i];
        e[i + 1] = (r = tf_pythag(f, g));
        if (r == 0)
        {
          // Underflow: the matrix splits here; restart the search.
          d[i + 1] -= p;
          e[m] = 0;
          break;
        }
        s = f / r;
        c = g / r;
        g = d[i + 1] - p;
        r = static_cast<T>((d[i] - g) * s + 2.0 * c * b);
        d[i + 1] = g + (p = s * r);
        g = c * r - b;
        for (int k = 0; k < n; ++k)
        {
          T const t = z[k][i + 1];
          z[k][i + 1] = s * z[k][i] + c * t;
          z[k][i] = c * z[k][i] - s * t;
        }
      }
      if (r == 0 && i >= l)
        continue;
      d[l] -= p;
      e[l] = g;
      e[m] = 0;
    } while (m != l);
  }
  return 1;
}
} // namespace

void tred2(float ** a, int n, float * d, float * e) { tf_tred2(a, n, d, e); }
void tred2_d(double ** a, int n, double * d, double * e) { tf_tred2(a, n, d, e); }
int tqli(float * d, float * e, int n, float ** z) { return tf_tqli(d, e, n, z); }
int tqli_d(double * d, double * e, int n, double ** z) { return tf_tqli(d, e, n, z); }

// ---------------------------------------------------------------------------
// Generalised eigenproblem

bool gen_right_eigen(int n, double const * const * a, double const * const * b, int & count,
                     double ** vectors, double * values)
{
  count = 0;
  if (n < 1)
    return false;
  long long const workSize = static_cast<long long>(n) * (3LL * n + 13) + 17;
  if (workSize > std::numeric_limits<MKL_INT>::max())
    return false; // beyond the 32-bit interface
  std::size_t const nn = static_cast<std::size_t>(n) * static_cast<std::size_t>(n);
  // Copied row by row: LAPACK reads column by column and so sees the
  // transposes. The left eigenvectors of the transposes are the right
  // eigenvectors of the matrices as given, hence left vectors are asked for.
  std::vector<double> at(nn), bt(nn);
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c)
    {
      at[static_cast<std::size_t>(r) * n + c] = a[r][c];
      bt[static_cast<std::size_t>(r) * n + c] = b[r][c];
    }
  std::vector<double> alphar(n), alphai(n), beta(n), left(nn), lscale(n), rscale(n), rconde(n), rcondv(n);
  std::vector<double> work(static_cast<std::size_t>(workSize));
  std::vector<MKL_INT> iwork(static_cast<std::size_t>(n) + 6), bwork(n);
  double right = 0.0, abnrm = 0.0, bbnrm = 0.0;
  MKL_INT const order = n, lwork = static_cast<MKL_INT>(workSize), ldRight = 1;
  MKL_INT ilo = 0, ihi = 0, info = 0;
  char const balance = 'B', jobLeft = 'V', jobRight = 'N', sense = 'N';
  dggevx(&balance, &jobLeft, &jobRight, &sense, &order, at.data(), &order, bt.data(), &order, alphar.data(),
         alphai.data(), beta.data(), left.data(), &order, &right, &ldRight, &ilo, &ihi, lscale.data(),
         rscale.data(), &abnrm, &bbnrm, rconde.data(), rcondv.data(), work.data(), &lwork, iwork.data(),
         bwork.data(), &info);
  if (info != 0)
    return false;
  for (int i = 0; i < n; ++i)
  {
    // Real, and neither infinite (beta near 0) nor huge.
    if (alphai[i] != 0.0 || !(std::fabs(beta[i]) >= 1e-10) ||
        !(std::fabs(alphar[i]) < std::fabs(beta[i]) * 1e+20))
      continue;
    values[count] = alphar[i] / beta[i];
    double const * column = left.data() + static_cast<std::size_t>(i) * n;
    for (int k = 0; k < n; ++k)
      vectors[count][k] = column[k];
    ++count;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Brent's root finder

void BrentZeroFun(double (*function)(double, void *), double a, double b, double valueTolerance, int digits,
                  int & iterations, double & root, int & status, void * context)
{
  if (digits == 0)
    digits = 9;
  status = 0;
  // Once the tolerance underflows to 0 further divisions change nothing.
  double intervalTol = 1.0;
  for (int i = 0; i < digits && intervalTol != 0.0; ++i)
    intervalTol /= 10.0;

  double fa = function(a, context);
  double fb = function(b, context);
  double const s0 = 0.0 - fa * fb;
  if (s0 == 0.0)
  {
    iterations = 0;
    root = fa == 0.0 ? a : b;
    return;
  }
  if (!(s0 > 0.0))
  {
    // The same sign at both ends, or a NaN there: nothing is bracketed.
    status = -1;
    iterations = 1;
    root = b;
    return;
  }

  long long const limit = iterations;
  long long count = 0;
  // c and the steps start as the first iteration sets them, so that no value
  // is read unset when f gives NaN.
  double c = b, fc = fb;
  double d = b - a, e = d;
  for (;;)
  {
    if (fb * fc > 0.0)
    {
      c = a;
      fc = fa;
      d = e = b - a;
    }
    if (std::fabs(fc) < std::fabs(fb))
    {
      // b becomes the best point so far.
      a = b;
      b = c;
      c = a;
      fa = fb;
      fb = fc;
      fc = fa;
    }
    double const tol = std::max(intervalTol, std::fabs(b) * 2.2215304e-16);
    double const xm = (c - b) * 0.5;
    if (std::fabs(fb) <= valueTolerance || std::fabs(xm) < tol)
      break;
    if (std::fabs(e) >= tol && std::fabs(fb) < std::fabs(fa))
    {
      double p, q;
      double const s = fb / fa;
      if (a == c)
      {
        // Secant step.
        p = 2.0 * xm * s;
        q = 1.0 - s;
      }
      else
      {
        // Inverse quadratic interpolation.
        double const qa = fa / fc;
        double const r = fb / fc;
        p = s * (2.0 * xm * qa * (qa - r) - (b - a) * (r - 1.0));
        q = (qa - 1.0) * (r - 1.0) * (s - 1.0);
      }
      if (p > 0.0)
        q = -q;
      p = std::fabs(p);
      // Either test alone admits the interpolated step; the classical method
      // wants both. The looser form is what our fits were tuned with.
      if (2.0 * p < 3.0 * xm * q - std::fabs(tol * q) || p < std::fabs(0.5 * e * q))
      {
        e = d;
        d = p / q;
      }
      else
      {
        d = xm;
        e = d;
      }
    }
    else
    {
      d = xm;
      e = d;
    }
    double const step = std::fabs(d) > tol ? d : (xm > 0.0 ? tol : -tol);
    ++count;
    if (count > limit)
    {
      status = 1;
      break;
    }
    a = b;
    fa = fb;
    b += step;
    fb = function(b, context);
  }
  iterations = static_cast<int>(std::min<long long>(count, std::numeric_limits<int>::max()));
  root = b;
}

// ---------------------------------------------------------------------------
// Rounding helpers

int rndtoni(double x)
{
  double const y = x + 0.5;
  // The conversion truncates; outside the range of int it would be undefined.
  if (!(y > -2147483649.0))
    return y != y ? 0 : std::numeric_limits<int>::min();
  if (!(y < 2147483648.0))
    return std::numeric_limits<int>::max();
  return static_cast<int>(y);
}

void scaleDouble(double & value, int power)
{
  // A value at 0 or infinity (or NaN) no longer changes: stop there, so that
  // an extreme power does not spin for billions of steps.
  for (int i = 0; i < power; ++i)
  {
    if (value == 0.0 || !std::isfinite(value))
      return;
    value *= 10.0;
  }
  for (int i = 0; i > power; --i)
  {
    if (value == 0.0 || !std::isfinite(value))
      return;
    value *= 0.1;
  }
}

double getScale(double value, int & exponent)
{
  exponent = 0;
  if (!(value > 0.0) || !std::isfinite(value))
    return value;
  // The factor just below 1 puts an exact power of ten into the decade below.
  double const l = std::log10(0.99999999 * value);
  exponent = static_cast<int>(l);
  if (l < 0.0)
    exponent -= 1;
  double scaled = value;
  scaleDouble(scaled, -exponent);
  return scaled;
}

void roundBoundary(double & value, double & top, double & step, int & subdivisions, int & exponent)
{
  struct LC_Row
  {
    double limit, top, step;
    int subdivisions;
  };
  static LC_Row const rows[] = {
      {1.2, 1.2, 0.2, 2}, {1.4, 1.4, 0.2, 1}, {1.5, 1.5, 0.5, 5}, {2.5, 2.5, 0.5, 5}, {3.0, 3.0, 1.0, 2},
      {4.0, 4.0, 1.0, 2}, {5.0, 5.0, 1.0, 2}, {6.0, 6.0, 1.0, 2}, {7.0, 7.0, 1.0, 2}, {8.0, 8.0, 1.0, 2},
  };
  double const v = getScale(value, exponent);
  top = 10.0;
  step = 5.0;
  subdivisions = 5;
  for (LC_Row const & row : rows)
  {
    if (v <= row.limit)
    {
      top = row.top;
      step = row.step;
      subdivisions = row.subdivisions;
      break;
    }
  }
  scaleDouble(top, exponent);
  scaleDouble(step, exponent);
}

double fRound2(double x) { return std::trunc(x * 100.0 + 0.5) * 0.01; }

namespace
{
// Brings |x| into (1, 10], keeping the inverse scale, and rounds there. `scaleUp`
// forms m * 10^digits.
template <class ScaleUp> double tf_roundSignificant(double x, int digits, ScaleUp scaleUp)
{
  if (!std::isfinite(x))
    return x;
  double m = std::fabs(x);
  if (m < 1e-30)
    return 0.0;
  double f = 1.0;
  while (m > 10.0)
  {
    m *= 0.1;
    f *= 10.0;
  }
  while (m <= 1.0)
  {
    m *= 10.0;
    f *= 0.1;
  }
  double const sign = x < 0.0 ? -1.0 : 1.0;
  double r = sign * f * std::trunc(scaleUp(m) + 0.5);
  for (int i = 0; i < digits && r != 0.0 && std::isfinite(r); ++i)
    r *= 0.1;
  return r;
}
} // namespace

double fRound4(double x)
{
  return tf_roundSignificant(x, 4, [](double m) { return m * 1e4; });
}

double fRoundN(double x, int digits)
{
  return tf_roundSignificant(x, digits,
                             [digits](double m)
                             {
                               for (int i = 0; i < digits && std::isfinite(m); ++i)
                                 m *= 10.0;
                               return m;
                             });
}
