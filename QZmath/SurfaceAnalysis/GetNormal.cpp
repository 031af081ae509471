#include "QZmath/SurfaceAnalysis/GetNormal.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "QZmath/Foundation/NumericRoutines.h"
#include "QZmath/Foundation/OrthoNormBasis.h"
#include "QZmath/Foundation/RotationMatrix.h"

using REmath::Matrix;
using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
// The working copy of a neighbourhood lives on the stack up to this size; the
// estimators run once per point of a cloud.
constexpr int TF_STACK_POINTS = 64;

// Index of the smallest eigenvalue: a running minimum from 1e30, a later one
// only when strictly smaller, so ties go to the lower index. -1 when none is
// below 1e30 (NaN or huge values).
int tf_smallestEigen(const double * d)
{
  double best = 1e30;
  int index = -1;
  for (int i = 0; i < 3; ++i)
    if (d[i] < best)
      best = d[i], index = i;
  return index;
}

bool tf_finite3x3(const double (&s)[3][3])
{
  for (auto const & row : s)
    for (double v : row)
      if (!std::isfinite(v))
        return false;
  return true;
}

// Adds v v^T to the upper triangle of the scatter matrix. v_i v_j and v_j v_i
// round alike, so mirroring the finished sums (tf_mirror) gives the full sum
// bit for bit at two thirds of the work.
void tf_addOuter(double (&s)[3][3], const double * v)
{
  s[0][0] += v[0] * v[0], s[0][1] += v[0] * v[1], s[0][2] += v[0] * v[2];
  s[1][1] += v[1] * v[1], s[1][2] += v[1] * v[2];
  s[2][2] += v[2] * v[2];
}

void tf_mirror(double (&s)[3][3]) { s[1][0] = s[0][1], s[2][0] = s[0][2], s[2][1] = s[1][2]; }

// Eigen-decomposition of the scatter `s` in `rows` (three rows of 3): values
// to d, vectors to the columns of rows. False when the solver does not
// converge.
bool tf_eigen(const double (&s)[3][3], double ** rows, double * d)
{
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      rows[i][j] = s[i][j];
  double e[3];
  tred2_d(rows, 3, d, e);
  return tqli_d(d, e, 3, rows) != 0;
}

// The first-order estimate shared by GetNormal and GetAnisotropy: the index
// of the smallest eigenvalue, or -1 on failure.
int tf_firstOrder(int n, const Point3D * points, double ** matrix, double * values, double * normal)
{
  if (n < 3 || points == nullptr || matrix == nullptr || normal == nullptr)
    return -1;
  double c[3] = {0.0, 0.0, 0.0};
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < 3; ++k)
      c[k] += points[i].asArray()[k];
  for (double & v : c)
    v /= n;
  double s[3][3] = {};
  for (int i = 0; i < n; ++i)
  {
    double const r[3] = {points[i].x() - c[0], points[i].y() - c[1], points[i].z() - c[2]};
    tf_addOuter(s, r);
  }
  tf_mirror(s);
  if (!tf_finite3x3(s) || !tf_eigen(s, matrix, values))
    return -1;
  int const k = tf_smallestEigen(values);
  if (k >= 0)
    for (int i = 0; i < 3; ++i)
      normal[i] = matrix[i][k];
  return k;
}

// The gradient length and the first fundamental quantities of the form at the
// origin; false for a vanishing gradient or an umbilic point (D < 1e-10).
struct TF_CurvatureFrame
{
  double n[3], t1[3], t2[3];
  double H, D;
};

bool tf_curvatureFrame(const double * a, TF_CurvatureFrame & f)
{
  double const b2 = a[6] * a[6] + a[7] * a[7] + a[8] * a[8];
  if (!(b2 > 1e-10))
    return false;
  double const g = std::sqrt(b2);
  double * n = f.n;
  for (int i = 0; i < 3; ++i)
    n[i] = a[6 + i] / g;
  double * t1 = f.t1;
  if (n[2] * n[2] < 0.8)
  {
    double const l = std::sqrt(1.0 - n[2] * n[2]);
    t1[0] = -n[1] / l, t1[1] = n[0] / l, t1[2] = 0.0;
  }
  else if (n[1] * n[1] < 0.8)
  {
    double const l = std::sqrt(1.0 - n[1] * n[1]);
    t1[0] = n[2] / l, t1[1] = 0.0, t1[2] = -n[0] / l;
  }
  else
  {
    double const l = std::sqrt(1.0 - n[0] * n[0]);
    t1[0] = 0.0, t1[1] = -n[2] / l, t1[2] = n[1] / l;
  }
  double * t2 = f.t2;
  t2[0] = t1[1] * n[2] - t1[2] * n[1];
  t2[1] = t1[2] * n[0] - t1[0] * n[2];
  t2[2] = t1[0] * n[1] - t1[1] * n[0];

  auto qf = [a](const double * t)
  {
    return a[0] * t[0] * t[0] + a[3] * t[1] * t[1] + a[5] * t[2] * t[2] + a[1] * t[0] * t[1] +
           a[2] * t[0] * t[2] + a[4] * t[1] * t[2];
  };
  double const polar = 2.0 * a[0] * t1[0] * t2[0] + 2.0 * a[3] * t1[1] * t2[1] + 2.0 * a[5] * t1[2] * t2[2] +
                       a[1] * (t1[0] * t2[1] + t1[1] * t2[0]) + a[2] * (t1[0] * t2[2] + t1[2] * t2[0]) +
                       a[4] * (t1[1] * t2[2] + t1[2] * t2[1]);
  double const E = (-2.0 / g) * qf(t2);
  double const G = (-2.0 / g) * qf(t1);
  double const F = (-1.0 / g) * polar;
  f.H = (E + G) / 2.0;
  f.D = f.H * f.H - E * G + F * F;
  return f.D >= 1e-10;
}

// The fold test: a form with three non-zero eigenvalues whose gradient turns
// back (cosine <= -0.95 against the one at the origin) at a fifth of the
// points or more wraps them in two sheets. The gradients are counted first:
// most forms turn back nowhere, and then the eigenvalues cannot change the
// verdict, so the eigensolver runs only for the few that do.
bool tf_passesFoldTest(const CQuadraticForm & form, int n, const Point3D * w)
{
  Point3D_d g0 = form.GetLinearTerm();
  NormalizeVector(g0.asArray());
  int back = 0;
  for (int i = 1; i < n; ++i)
  {
    Point3D_d g = form.evalGradient(Point3D_d(w[i].x(), w[i].y(), w[i].z()));
    NormalizeVector(g.asArray());
    if (g0.x() * g.x() + g0.y() * g.y() + g0.z() * g.z() <= -0.95)
      ++back;
  }
  if (static_cast<float>(back) < 0.2 * n)
    return true;
  Point3D_d vectors[3];
  double values[3];
  try
  {
    GetEigenVectorsSA(form.GetQuadaricTerm(), vectors, values, false);
  }
  catch (const std::exception &)
  {
    return false; // no decomposition: no verdict to trust
  }
  int nonZero = 0;
  for (double v : values)
    nonZero += (v > 1e-7) + (v < -1e-7);
  return nonZero < 3;
}

// The parameter along p + t L where the line meets the form (raw ten
// coefficients), the smaller in magnitude of two; 1e20 where it does not.
// K enters the linear coefficient and not the free one, as the quadric
// distances have always been measured.
double tf_distanceAlongGradient(const double * r, const double * p)
{
  double const * l = r + 6;
  double const a = r[0] * l[0] * l[0] + r[3] * l[1] * l[1] + r[5] * l[2] * l[2] + r[1] * l[0] * l[1] +
                   r[2] * l[0] * l[2] + r[4] * l[1] * l[2];
  double const polar = 2.0 * r[0] * p[0] * l[0] + 2.0 * r[3] * p[1] * l[1] + 2.0 * r[5] * p[2] * l[2] +
                       r[1] * (p[0] * l[1] + p[1] * l[0]) + r[2] * (p[0] * l[2] + p[2] * l[0]) +
                       r[4] * (p[1] * l[2] + p[2] * l[1]);
  double const b = polar + (l[0] * l[0] + l[1] * l[1] + l[2] * l[2]) + r[9];
  double const c = r[0] * p[0] * p[0] + r[3] * p[1] * p[1] + r[5] * p[2] * p[2] + r[1] * p[0] * p[1] +
                   r[2] * p[0] * p[2] + r[4] * p[1] * p[2] + l[0] * p[0] + l[1] * p[1] + l[2] * p[2];
  if (a == 0.0)
    return b == 0.0 ? 1e20 : -c / b;
  double const disc = b * b - 4.0 * a * c;
  if (disc < 0.0)
    return 1e20;
  double const root = std::sqrt(disc);
  double const t1 = (-b + root) / (2.0 * a), t2 = (-b - root) / (2.0 * a);
  return std::min(std::fabs(t1), std::fabs(t2));
}

// The finite eigenpairs of a c = lambda b c with b the unit matrix on the
// linear coefficients 6, 7, 8 and zero elsewhere. Splitting c into the linear
// part l and the rest r: a_rr r + a_rl l = 0, so r = -a_rr^-1 a_rl l, and
// (a_ll - a_lr a_rr^-1 a_rl) l = lambda l, a symmetric 3 x 3 problem. False
// when a_rr is singular to working precision (the caller then solves the
// pencil in full) or the 3 x 3 solver fails.
bool tf_reducedEigen(int q, const double (&a)[10][10], int & count, double (&vec)[10][10], double * lambda)
{
  int rest[7];
  int nr = 0;
  for (int i = 0; i < q; ++i)
    if (i < 6 || i > 8)
      rest[nr++] = i;
  // Cholesky a_rr = L L^T, in place in the lower triangle.
  double l[7][7];
  double maxDiag = 0.0;
  for (int i = 0; i < nr; ++i)
    maxDiag = std::max(maxDiag, a[rest[i]][rest[i]]);
  if (!(maxDiag > 0.0) || !std::isfinite(maxDiag))
    return false;
  for (int i = 0; i < nr; ++i)
    for (int j = 0; j <= i; ++j)
    {
      double sum = a[rest[i]][rest[j]];
      for (int k = 0; k < j; ++k)
        sum -= l[i][k] * l[j][k];
      if (i == j)
      {
        if (!(sum > 1e-13 * maxDiag))
          return false;
        l[i][i] = std::sqrt(sum);
      }
      else
        l[i][j] = sum / l[j][j];
    }
  // x = a_rr^-1 a_rl, three columns.
  double x[7][3];
  for (int c = 0; c < 3; ++c)
  {
    for (int i = 0; i < nr; ++i)
    {
      double sum = a[rest[i]][6 + c];
      for (int k = 0; k < i; ++k)
        sum -= l[i][k] * x[k][c];
      x[i][c] = sum / l[i][i];
    }
    for (int i = nr - 1; i >= 0; --i)
    {
      double sum = x[i][c];
      for (int k = i + 1; k < nr; ++k)
        sum -= l[k][i] * x[k][c];
      x[i][c] = sum / l[i][i];
    }
  }
  double s[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
    {
      double sum = a[6 + i][6 + j];
      for (int k = 0; k < nr; ++k)
        sum -= a[rest[k]][6 + i] * x[k][j];
      s[i][j] = sum;
    }
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < i; ++j)
      s[i][j] = s[j][i] = 0.5 * (s[i][j] + s[j][i]);
  double ev[3][3];
  double * evRows[3] = {ev[0], ev[1], ev[2]};
  double values[3];
  if (!tf_finite3x3(s) || !tf_eigen(s, evRows, values))
    return false; // lambda untouched: the general solver fills it afresh
  for (int e = 0; e < 3; ++e)
  {
    lambda[e] = values[e];
    for (int i = 0; i < 10; ++i)
      vec[e][i] = 0.0;
    for (int i = 0; i < 3; ++i)
      vec[e][6 + i] = ev[i][e];
    for (int k = 0; k < nr; ++k)
      vec[e][rest[k]] = -(x[k][0] * ev[0][e] + x[k][1] * ev[1][e] + x[k][2] * ev[2][e]);
  }
  count = 3;
  return true;
}

void tf_monomials(const Point3D & p, double * m)
{
  double const x = p.x(), y = p.y(), z = p.z();
  m[0] = x * x, m[1] = x * y, m[2] = x * z, m[3] = y * y, m[4] = y * z, m[5] = z * z;
  m[6] = x, m[7] = y, m[8] = z, m[9] = 1.0;
}

double tf_weight(const Point3D & p)
{
  double const x = p.x(), y = p.y(), z = p.z();
  return 0.1 / (x * x + y * y + z * z + 0.1);
}

// `w` and `weight` are working arrays of n entries: the scaled points and
// their weights in the moments, which the residuals of the candidates reuse.
bool tf_getNormal2(int n, const Point3D * points, const CGetNormal2Prms & prm, CQuadraticForm * form,
                   double * normal, float * dist, double * scale, Point3D * w, double * weight)
{
  // 1. Relative to point 0, scaled to a unit root mean square distance.
  double sum = 0.0;
  for (int i = 1; i < n; ++i)
  {
    w[i] = points[i];
    w[i] -= points[0];
    double const x = w[i].x(), y = w[i].y(), z = w[i].z();
    sum += x * x + y * y + z * z;
  }
  double const s = std::sqrt(sum / (n - 1));
  if (!(s > 0.0) || !std::isfinite(s))
    return false; // coincident points or non-finite coordinates
  if (scale)
    *scale = s;
  double const inv = 1.0 / s;
  for (int i = 1; i < n; ++i)
    w[i] *= inv;
  w[0] = Point3D();

  // 2. First-order normal; point 0 counts in the mean as a zero.
  double m[3] = {0.0, 0.0, 0.0};
  for (int i = 1; i < n; ++i)
    for (int k = 0; k < 3; ++k)
      m[k] += w[i].asArray()[k];
  for (double & v : m)
    v /= n;
  double scatter[3][3] = {};
  tf_addOuter(scatter, m);
  for (int i = 1; i < n; ++i)
  {
    double const r[3] = {w[i].x() - m[0], w[i].y() - m[1], w[i].z() - m[2]};
    tf_addOuter(scatter, r);
  }
  tf_mirror(scatter);
  double ev[3][3], values[3];
  double * evRows[3] = {ev[0], ev[1], ev[2]};
  normal[0] = normal[1] = normal[2] = 0.0;
  // The solver's status is not consulted: this plane only decides whether the
  // neighbourhood is flat, and a solve that did not converge still gives the
  // best vectors it reached.
  tf_eigen(scatter, evRows, values);
  int const k = tf_smallestEigen(values);
  if (k >= 0)
    for (int i = 0; i < 3; ++i)
      normal[i] = ev[i][k];

  // 3-4. Flat: the plane is the answer.
  dist[0] = 0.0f;
  bool flat = true;
  for (int i = 1; i < n; ++i)
  {
    dist[i] =
        static_cast<float>(std::fabs(w[i].x() * normal[0] + w[i].y() * normal[1] + w[i].z() * normal[2]));
    if (dist[i] > prm.Appr2MinDist())
      flat = false;
  }
  if (!prm.Force2() && flat)
  {
    if (form)
      *form = CQuadraticForm::buildFromCoefficients(0, 0, 0, 0, 0, 0, normal[0], normal[1], normal[2], 0);
    return true;
  }

  // 5. Weighted moments of the monomials.
  int const q = prm.q_size();
  int const first = prm.ZeroFremTerm() ? 1 : 0;
  double a[10][10] = {}, b[10][10] = {};
  for (int i = first; i < n; ++i)
  {
    double mono[10];
    tf_monomials(w[i], mono);
    double const wt = weight[i] = tf_weight(w[i]);
    for (int r = 0; r < q; ++r)
    {
      double const wr = wt * mono[r];
      for (int c = r; c < q; ++c)
        a[r][c] += wr * mono[c];
    }
  }
  for (int r = 0; r < q; ++r)
    for (int c = 0; c < r; ++c)
      a[r][c] = a[c][r]; // exactly symmetric, as the reduction assumes
  // 6. The gradient at the origin (the linear coefficients) has unit length.
  b[6][6] = b[7][7] = b[8][8] = 1.0;
  double const * aRows[10];
  double const * bRows[10];
  double vec[10][10] = {}, lambda[10] = {};
  double * vecRows[10];
  for (int i = 0; i < 10; ++i)
    aRows[i] = a[i], bRows[i] = b[i], vecRows[i] = vec[i];
  int count = 0;
  bool const reduced = prm.ReducedEigenProblem() && tf_reducedEigen(q, a, count, vec, lambda);
  if (!reduced && !gen_right_eigen(q, aRows, bRows, count, vecRows, lambda))
    return false;

  // 7. Scale each vector to a unit linear part.
  for (int e = 0; e < count; ++e)
  {
    double const len = std::sqrt(vec[e][6] * vec[e][6] + vec[e][7] * vec[e][7] + vec[e][8] * vec[e][8]);
    for (int c = 0; c < q; ++c)
      vec[e][c] = len < 1e-7 ? 0.0 : vec[e][c] / len;
  }

  // 8. Among the smaller eigenvalues, the form of least weighted residual that
  // is not too curved, has a gradient and is not folded. The bound is taken
  // over all q entries of the value array: those past `count` (the infinite
  // eigenvalues the solver dropped) stay 0, so that with any dropped the
  // bound is half the greatest magnitude.
  double maxAbs = std::fabs(lambda[0]), minAbs = maxAbs;
  for (int e = 1; e < q; ++e)
  {
    maxAbs = std::max(maxAbs, std::fabs(lambda[e]));
    minAbs = std::min(minAbs, std::fabs(lambda[e]));
  }
  double const threshold = (maxAbs + minAbs) / 2.0;
  double best = 1e30;
  int bestIndex = -1;
  for (int e = 0; e < count; ++e)
  {
    if (!(std::fabs(lambda[e]) <= threshold))
      continue;
    CQuadraticForm const candidate = CQuadraticForm::buildFromCoeffArray(q, vec[e]);
    CQuadFormRaw9<double> raw;
    candidate.ConvertToRawFormat(raw);
    double curv[2];
    GetCurvatures(raw, curv, nullptr, nullptr);
    if (std::max(curv[0], curv[1]) > 2.0)
      continue;
    Point3D_d const & l = candidate.GetLinearTerm();
    if (l.x() * l.x() + l.y() * l.y() + l.z() * l.z() < 1e-14)
      continue;
    double residual = 0.0;
    for (int i = first; i < n; ++i)
    {
      double const f = candidate.eval(Point3D_d(w[i].x(), w[i].y(), w[i].z()));
      residual += weight[i] * f * f;
    }
    if (!(residual < best))
      continue;
    if (!tf_passesFoldTest(candidate, n, w))
      continue;
    best = residual;
    bestIndex = e;
  }
  if (bestIndex < 0)
    return false;

  // 10. The normal is the gradient at the origin.
  CQuadraticForm const result = CQuadraticForm::buildFromCoeffArray(q, vec[bestIndex]);
  Point3D_d const & l = result.GetLinearTerm();
  double const l2 = l.x() * l.x() + l.y() * l.y() + l.z() * l.z();
  if (l2 == 0.0)
    return false;
  double const len = std::sqrt(l2);
  for (int i = 0; i < 3; ++i)
    normal[i] = l.asArray()[i] / len;

  // 11. Distances of the points from the quadric along its gradient there.
  CQuadFormRaw10<double> raw;
  result.ConvertToRawFormat(raw);
  for (int i = first; i < n; ++i)
  {
    double const p[3] = {w[i].x(), w[i].y(), w[i].z()};
    dist[i] = static_cast<float>(tf_distanceAlongGradient(raw, p) * l2);
  }
  if (form)
    *form = result;
  return true;
}

void tf_toFloat(const double * d, float * f)
{
  for (int i = 0; i < 3; ++i)
    f[i] = static_cast<float>(d[i]);
}
} // namespace

int GetNormal(int n, const Point3D * points, double ** matrix, double * normal)
{
  double values[3];
  return tf_firstOrder(n, points, matrix, values, normal) >= 0 ? 1 : 0;
}

int GetNormal(int n, const Point3D * points, double ** matrix, float * normal)
{
  double values[3], d[3];
  if (normal == nullptr || tf_firstOrder(n, points, matrix, values, d) < 0)
    return 0;
  tf_toFloat(d, normal);
  return 1;
}

int GetAnisotropy(int n, const Point3D * points, double ** matrix, float & anisotropy)
{
  double values[3], normal[3];
  int const k = tf_firstOrder(n, points, matrix, values, normal);
  if (k < 0)
    return 0;
  double const sum = values[0] + values[1] + values[2];
  anisotropy = sum > 0.0 ? static_cast<float>(values[k] / sum) : 0.33333334f;
  return 1;
}

bool EstimateNormal(const std::vector<Point3D> & points, double * normal)
{
  if (normal == nullptr)
    return false;
  normal[0] = normal[1] = normal[2] = 0.0;
  double m[3][3];
  double * rows[3] = {m[0], m[1], m[2]};
  return GetNormal(static_cast<int>(points.size()), points.data(), rows, normal) != 0;
}

bool GetNormal2(int n, const Point3D * points, const CGetNormal2Prms * prms, CQuadraticForm * form,
                double * const normal, float * const dist, double * scale)
{
  if (n < 3 || points == nullptr || normal == nullptr || dist == nullptr)
    return false;
  CGetNormal2Prms const defaults;
  CGetNormal2Prms const & prm = prms ? *prms : defaults;
  if (n <= TF_STACK_POINTS)
  {
    Point3D work[TF_STACK_POINTS];
    double weight[TF_STACK_POINTS];
    return tf_getNormal2(n, points, prm, form, normal, dist, scale, work, weight);
  }
  std::vector<Point3D> work(static_cast<std::size_t>(n));
  std::vector<double> weight(static_cast<std::size_t>(n));
  return tf_getNormal2(n, points, prm, form, normal, dist, scale, work.data(), weight.data());
}

bool GetNormal2(int n, const Point3D * points, const CGetNormal2Prms * prms, CQuadraticForm * form,
                float * const normal, float * const dist, double * scale)
{
  double d[3] = {0.0, 0.0, 0.0};
  bool const ok = GetNormal2(n, points, prms, form, d, dist, scale);
  if (normal)
    tf_toFloat(d, normal);
  return ok;
}

void GetCurvatures(const CQuadFormRaw9<double> & form, double * curvatures, Matrix<double> * tensor,
                   double * normal)
{
  curvatures[0] = curvatures[1] = UNKNOWN_CURVATURE;
  TF_CurvatureFrame f;
  if (!tf_curvatureFrame(form, f))
    return;
  double const root = std::sqrt(f.D);
  curvatures[0] = std::fabs(f.H - root);
  curvatures[1] = std::fabs(f.H + root);
  if (!tensor)
    return;
  NormalizeVector(f.t2);
  NormalizeVector(f.t1);
  NormalizeVector(f.n);
  if (normal)
    for (int i = 0; i < 3; ++i)
      normal[i] = f.n[i];
  // R diag(c0, c1, 0) R^T with R's columns t2, t1, n.
  double t[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      t[i][j] = f.t2[i] * curvatures[0] * f.t2[j] + f.t1[i] * curvatures[1] * f.t1[j];
  tensor->resize(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      (*tensor)(i, j) = 0.5 * (t[i][j] + t[j][i]);
}

double MaxCurvature(const CQuadFormRaw9<double> & form)
{
  TF_CurvatureFrame f;
  if (!tf_curvatureFrame(form, f))
    return UNKNOWN_CURVATURE;
  double const root = std::sqrt(f.D);
  return std::max(std::fabs(f.H + root), std::fabs(f.H - root));
}

double MaxCurvature(const CQuadraticForm & form)
{
  CQuadFormRaw9<double> raw;
  form.ConvertToRawFormat(raw);
  return MaxCurvature(raw);
}

namespace
{
CGetNormal2Prms tf_curvaturePrms()
{
  CGetNormal2Prms p;
  p.Force2() = true;
  p.ZeroFremTerm() = true;
  p.Appr2MinDist() = 0.01f;
  return p;
}
} // namespace

bool EstimateCurvature(const std::vector<Point3D> & points, bool computeNormal, double * normal,
                       Matrix<double> & tensor)
{
  int const n = static_cast<int>(points.size());
  if (n < 3)
    return false;
  CGetNormal2Prms const prm = tf_curvaturePrms();
  CQuadraticForm form;
  std::vector<float> dist(static_cast<std::size_t>(n));
  double est[3], s = 0.0;
  bool const ok = GetNormal2(n, points.data(), &prm, &form, est, dist.data(), &s);
  if (normal && !computeNormal)
    est[0] = normal[0], est[1] = normal[1], est[2] = normal[2];
  if (!ok)
    return false;

  Point3D_d const & l = form.GetLinearTerm();
  NormalizeVector(est);
  // T = P Q P with P = I - n n^T, then T + T^T, over |L|.
  double p[3][3], pq[3][3], t[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      p[i][j] = (i == j ? 1.0 : 0.0) - est[i] * est[j];
  CRotationMatrix const & q = form.GetQuadaricTerm();
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      pq[i][j] = p[i][0] * q.m[0][j] + p[i][1] * q.m[1][j] + p[i][2] * q.m[2][j];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      t[i][j] = pq[i][0] * p[0][j] + pq[i][1] * p[1][j] + pq[i][2] * p[2][j];
  double const lLen = l.length();
  double const sign = (l.x() * est[0] + l.y() * est[1] + l.z() * est[2]) > 0.0 ? -1.0 : 1.0;
  tensor.resize(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      tensor(i, j) = (t[i][j] + t[j][i]) / lLen * sign / s;
  if (normal && computeNormal)
    normal[0] = est[0], normal[1] = est[1], normal[2] = est[2];
  return true;
}

bool GetMinMaxCurvaturesForPoints(std::vector<Point3D> & points, float & minCurvature, float & maxCurvature)
{
  int const n = static_cast<int>(points.size());
  if (n < 3)
    return false;
  CGetNormal2Prms const prm = tf_curvaturePrms();
  CQuadraticForm form;
  std::vector<float> dist(static_cast<std::size_t>(n));
  double normal[3], s = 0.0;
  if (!GetNormal2(n, points.data(), &prm, &form, normal, dist.data(), &s))
    return false;
  CQuadFormRaw9<double> raw;
  form.ConvertToRawFormat(raw);
  double c[2];
  GetCurvatures(raw, c, nullptr, nullptr);
  if (c[0] <= 0.0 && c[1] <= 0.0)
    c[0] = -c[0], c[1] = -c[1];
  else if (c[0] * c[1] <= 0.0 && std::fabs(c[0]) > std::fabs(c[1]))
    c[0] = -c[0], c[1] = -c[1];
  if (c[0] > c[1])
    std::swap(c[0], c[1]);
  minCurvature = static_cast<float>(c[0] / s);
  maxCurvature = static_cast<float>(c[1] / s);
  return true;
}

bool GetNormalAndQuadricApprShiftedNonScaled(int n, const Point3D * points, CQuadraticForm & form,
                                             double * normal)
{
  form = CQuadraticForm();
  if (n < 3)
    return false;
  CGetNormal2Prms prm;
  prm.Force2() = false;
  prm.ZeroFremTerm() = false;
  prm.Appr2MinDist() = static_cast<float>(1e-5);
  CQuadraticForm scaled;
  std::vector<float> dist(static_cast<std::size_t>(n));
  double s = 0.0;
  if (!GetNormal2(n, points, &prm, &scaled, normal, dist.data(), &s))
    return false;
  // Scaled coordinates are the points' own divided by s.
  double const inv = 1.0 / s;
  COrthoNormBasis const basis = COrthoNormBasis::buildByOrthsAndOrigin(
      Point3D_d(inv, 0.0, 0.0), Point3D_d(0.0, inv, 0.0), Point3D_d(0.0, 0.0, inv), Point3D_d());
  scaled.transformToBasis(basis);
  form = scaled;
  return true;
}

bool GetNormalAndQuadricApprShiftedNonScaled(int n, const Point3D * points, CQuadraticForm & form,
                                             float * normal)
{
  double d[3] = {0.0, 0.0, 0.0};
  bool const ok = GetNormalAndQuadricApprShiftedNonScaled(n, points, form, d);
  if (normal)
    tf_toFloat(d, normal);
  return ok;
}

bool DetectContourNormal(const std::vector<Point3D> & contour, float * normal)
{
  if (normal == nullptr || contour.empty())
    return false;
  float c[3] = {0.0f, 0.0f, 0.0f};
  for (Point3D const & p : contour)
    for (int k = 0; k < 3; ++k)
      c[k] += p.asArray()[k];
  float const count = static_cast<float>(contour.size());
  for (float & v : c)
    v /= count;
  float sum[3] = {0.0f, 0.0f, 0.0f};
  std::size_t const m = contour.size();
  for (std::size_t i = 0; i < m; ++i)
  {
    Point3D const & p = contour[i];
    Point3D const & q = contour[(i + 1) % m];
    float const a[3] = {p.x() - c[0], p.y() - c[1], p.z() - c[2]};
    float const b[3] = {q.x() - c[0], q.y() - c[1], q.z() - c[2]};
    sum[0] += a[1] * b[2] - a[2] * b[1];
    sum[1] += a[2] * b[0] - a[0] * b[2];
    sum[2] += a[0] * b[1] - a[1] * b[0];
  }
  float const len2 = sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2];
  if (!(len2 > 0.0f) || !std::isfinite(len2))
    return false;
  NormalizeVector(sum);
  normal[0] = sum[0], normal[1] = sum[1], normal[2] = sum[2];
  return true;
}
