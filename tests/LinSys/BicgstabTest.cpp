#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "QZmath/LinSys/bicgstab.h"
#include "SolverTestSystems.h"

using REmath::bicgstab;

namespace
{
template <class T> class Bicgstab : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Bicgstab, Scalars);

// A dense row-major matrix as the product callback sees it.
template <class T> struct CDense
{
  int n = 0;
  std::vector<T> a;
  int calls = 0;

  static void multiply(void * context, T const * in, T * out)
  {
    auto * self = static_cast<CDense *>(context);
    ++self->calls;
    for (int i = 0; i < self->n; ++i)
    {
      T sum = T(0);
      for (int j = 0; j < self->n; ++j)
        sum += self->a[static_cast<std::size_t>(i) * self->n + j] * in[j];
      out[i] = sum;
    }
  }
};

template <class T> CDense<T> denseOf(solver_test::CProblem const & p)
{
  CDense<T> m;
  m.n = p.nFree;
  m.a.assign(static_cast<std::size_t>(p.nFree) * p.nFree, T(0));
  for (int i = 0; i < p.nFree; ++i)
    for (auto const & term : p.rows[i])
      if (term.first < p.nFree)
        m.a[static_cast<std::size_t>(i) * p.nFree + term.first] = static_cast<T>(term.second);
  return m;
}

template <class T> std::vector<T> rightPartOf(solver_test::CProblem const & p)
{
  std::vector<double> const fixed = solver_test::fixedPositions(p, 0);
  std::vector<T> b(static_cast<std::size_t>(p.nFree), T(0));
  for (int i = 0; i < p.nFree; ++i)
    for (auto const & term : p.rows[i])
      if (term.first >= p.nFree)
        b[i] -= static_cast<T>(term.second) * static_cast<T>(fixed[term.first - p.nFree]);
  return b;
}

// The iteration written out with plain loops, step by step, as the slow
// reference for the BLAS version.
template <class T>
int referenceBicgstab(CDense<T> & m, std::vector<T> const & b, std::vector<T> & x, T eps, int maxIterations)
{
  int const n = m.n;
  auto dot = [n](std::vector<T> const & u, std::vector<T> const & v) {
    T s = T(0);
    for (int i = 0; i < n; ++i)
      s += u[i] * v[i];
    return s;
  };
  double const small = sizeof(T) == 4 ? 1e-15 : 1e-40;
  std::vector<T> r(n), v(n), t(n);
  T const limit = eps * eps * dot(b, b);
  CDense<T>::multiply(&m, x.data(), r.data());
  for (int i = 0; i < n; ++i)
    r[i] -= b[i];
  std::vector<T> p = r, s = r, h = r;
  if (dot(h, h) < static_cast<T>(small))
    return -1;
  T rho = dot(h, s);
  int k = 0;
  for (T rr = dot(r, r); rr > limit; rr = dot(r, r))
  {
    CDense<T>::multiply(&m, p.data(), v.data());
    T const d = dot(h, v);
    if (std::fabs(d) < static_cast<T>(small))
      return -1;
    T const alpha = rho / d;
    for (int i = 0; i < n; ++i)
    {
      r[i] -= alpha * v[i];
      s[i] -= alpha * v[i];
    }
    CDense<T>::multiply(&m, s.data(), t.data());
    T const a = dot(s, t);
    T const c = dot(t, t);
    T const omega = std::fabs(static_cast<double>(a)) < 1e-40 || std::fabs(static_cast<double>(c)) < 1e-40 ? T(0) : a / c;
    for (int i = 0; i < n; ++i)
    {
      r[i] -= omega * t[i];
      x[i] -= alpha * p[i];
      x[i] -= omega * s[i];
      s[i] -= omega * t[i];
    }
    T const rhoNew = dot(h, s);
    T const beta = ((alpha / omega) / rho) * rhoNew;
    rho = rhoNew;
    for (int i = 0; i < n; ++i)
      p[i] = beta * p[i] + s[i] - (omega * beta) * v[i];
    if (++k == maxIterations)
      break;
  }
  return k;
}
} // namespace

TYPED_TEST(Bicgstab, FollowsTheReferenceIterationAndReachesTheTolerance)
{
  using T = TypeParam;
  double const close = sizeof(T) == 4 ? 1e-3 : 1e-9;
  for (auto const & problem :
       {solver_test::randomSpd(60, 6, 5u), solver_test::chain(50), solver_test::laplacian3D(4, 4, 3)})
  {
    CDense<T> m = denseOf<T>(problem);
    std::vector<T> const b = rightPartOf<T>(problem);
    std::vector<T> x(b.size(), T(0));
    std::vector<T> xRef = x;
    int const iterations = bicgstab(m.n, &CDense<T>::multiply, &m, b.data(), x.data(), T(1e-6), -1);
    int const referenceIterations = referenceBicgstab(m, b, xRef, T(1e-6), -1);
    ASSERT_GT(iterations, 0);
    // Every iteration costs two products, plus one for the first residual.
    EXPECT_EQ(m.calls, 2 * iterations + 1 + 2 * referenceIterations + 1);
    // BLAS sums in its own order, so a float run may need one step more or less.
    EXPECT_NEAR(iterations, referenceIterations, sizeof(T) == 4 ? 1 : 0);
    std::vector<double> xd(x.begin(), x.end()), xRefd(xRef.begin(), xRef.end());
    EXPECT_LT(solver_test::relativeError(xd, xRefd), close);

    // The true residual is small against the right part, not only the
    // recursively updated one.
    std::vector<T> ax(b.size());
    CDense<T>::multiply(&m, x.data(), ax.data());
    double res = 0, norm = 0;
    for (std::size_t i = 0; i < b.size(); ++i)
    {
      res += (double(ax[i]) - b[i]) * (double(ax[i]) - b[i]);
      norm += double(b[i]) * b[i];
    }
    EXPECT_LT(std::sqrt(res / norm), sizeof(T) == 4 ? 1e-5 : 1e-6);
  }
}

TYPED_TEST(Bicgstab, IdentityConvergesInOneStepWithAlphaOne)
{
  using T = TypeParam;
  CDense<T> m;
  m.n = 4;
  m.a = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  std::vector<T> const b = {T(1), T(-2), T(0.5), T(3)};
  std::vector<T> x(4, T(0));
  EXPECT_EQ(bicgstab(4, &CDense<T>::multiply, &m, b.data(), x.data(), T(1e-6), -1), 1);
  EXPECT_EQ(x, b);
}

TYPED_TEST(Bicgstab, BreaksDownWhereTheShadowResidualOrDenominatorVanish)
{
  using T = TypeParam;
  CDense<T> m = denseOf<T>(solver_test::chain(5));
  std::vector<T> zero(5, T(0)), x(5, T(0));
  EXPECT_EQ(bicgstab(5, &CDense<T>::multiply, &m, zero.data(), x.data(), T(1e-6), 100), -1);

  // Skew-symmetric: h.(A h) is 0 in the first step.
  CDense<T> skew;
  skew.n = 2;
  skew.a = {0, 1, -1, 0};
  std::vector<T> b = {T(1), T(2)};
  std::vector<T> y(2, T(0));
  EXPECT_EQ(bicgstab(2, &CDense<T>::multiply, &skew, b.data(), y.data(), T(1e-6), 100), -1);

  EXPECT_EQ(bicgstab(-1, &CDense<T>::multiply, &skew, b.data(), y.data(), T(1e-6), 100), -1);
}

TYPED_TEST(Bicgstab, UsesTheInitialGuess)
{
  using T = TypeParam;
  auto const problem = solver_test::laplacian3D(5, 4, 3);
  CDense<T> m = denseOf<T>(problem);
  std::vector<T> const b = rightPartOf<T>(problem);

  // An exact start (here: x = 1 with b := A x) has a zero residual, which is
  // a breakdown; the start is left as it was.
  std::vector<T> ones(b.size(), T(1)), exact(b.size());
  CDense<T>::multiply(&m, ones.data(), exact.data());
  std::vector<T> x = ones;
  EXPECT_EQ(bicgstab(m.n, &CDense<T>::multiply, &m, exact.data(), x.data(), T(1e-6), -1), -1);
  EXPECT_EQ(x, ones);

  // A start near the solution needs fewer steps than a zero start.
  std::vector<T> fromZero(b.size(), T(0));
  int const coldSteps = bicgstab(m.n, &CDense<T>::multiply, &m, b.data(), fromZero.data(), T(1e-6), -1);
  std::vector<T> warm = fromZero;
  for (std::size_t i = 0; i < warm.size(); ++i)
    warm[i] *= T(1.001);
  int const warmSteps = bicgstab(m.n, &CDense<T>::multiply, &m, b.data(), warm.data(), T(1e-6), -1);
  EXPECT_GT(warmSteps, 0);
  EXPECT_LT(warmSteps, coldSteps);
}

TYPED_TEST(Bicgstab, StopsAtTheIterationLimitWithItsCount)
{
  using T = TypeParam;
  auto const problem = solver_test::laplacian3D(6, 5, 4);
  CDense<T> m = denseOf<T>(problem);
  std::vector<T> const b = rightPartOf<T>(problem);
  for (int limit : {1, 3})
  {
    std::vector<T> x(b.size(), T(0));
    m.calls = 0;
    EXPECT_EQ(bicgstab(m.n, &CDense<T>::multiply, &m, b.data(), x.data(), T(1e-6), limit), limit);
    EXPECT_EQ(m.calls, 2 * limit + 1);
  }
}

TYPED_TEST(Bicgstab, ThresholdsDependOnThePrecision)
{
  using T = TypeParam;
  // h.h = 1e-16: below the float threshold 1e-15, far above the double 1e-40.
  CDense<T> one;
  one.n = 1;
  one.a = {T(1)};
  std::vector<T> b = {T(1e-8)};
  std::vector<T> x = {T(0)};
  int const result = bicgstab(1, &CDense<T>::multiply, &one, b.data(), x.data(), T(1e-6), -1);
  if (sizeof(T) == 4)
    EXPECT_EQ(result, -1);
  else
  {
    EXPECT_EQ(result, 1);
    EXPECT_EQ(x[0], b[0]);
  }
}

TYPED_TEST(Bicgstab, AProductThatNeverConvergesEndsAtTheSafetyLimit)
{
  using T = TypeParam;
  // A constant product (not a linear map) keeps the residual at its part
  // orthogonal to the constant for ever, with no breakdown.
  struct LC_Constant
  {
    int calls = 0;
    static void multiply(void * context, T const *, T * out)
    {
      ++static_cast<LC_Constant *>(context)->calls;
      out[0] = T(1);
      out[1] = T(0);
      out[2] = T(0);
    }
  } constant;
  std::vector<T> b = {T(0.5), T(1), T(0)};
  std::vector<T> x(3, T(0));
  EXPECT_EQ(bicgstab(3, &LC_Constant::multiply, &constant, b.data(), x.data(), T(1e-6), 0), -1);
  EXPECT_EQ(constant.calls, 2 * (10 * 3 + 1000) + 1);

  // A limit of the caller's is obeyed as given.
  std::vector<T> y(3, T(0));
  EXPECT_EQ(bicgstab(3, &LC_Constant::multiply, &constant, b.data(), y.data(), T(1e-6), 5000), 5000);
}
