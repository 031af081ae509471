#include <gtest/gtest.h>

#include <cmath>
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

// A dense row-major matrix behind the product callback; counts its calls.
template <class T> struct CDense
{
  int n = 0;
  std::vector<T> a;
  int calls = 0;

  CDense(int size, std::vector<T> values) : n(size), a(std::move(values)) {}
  explicit CDense(solver_test::CProblem const & p) : n(p.nFree), a(std::size_t(p.nFree) * p.nFree, T(0))
  {
    for (int i = 0; i < n; ++i)
      for (auto const & term : p.rows[i])
        if (term.first < n)
          a[std::size_t(i) * n + term.first] = static_cast<T>(term.second);
  }
  static void multiply(void * context, T const * in, T * out)
  {
    auto * self = static_cast<CDense *>(context);
    ++self->calls;
    for (int i = 0; i < self->n; ++i)
    {
      out[i] = T(0);
      for (int j = 0; j < self->n; ++j)
        out[i] += self->a[std::size_t(i) * self->n + j] * in[j];
    }
  }
  int solve(std::vector<T> const & b, std::vector<T> & x, int maxIterations)
  {
    return bicgstab(n, &multiply, this, b.data(), x.data(), T(1e-6), maxIterations);
  }
};

template <class T> std::vector<T> rightPartOf(solver_test::CProblem const & p)
{
  std::vector<double> const fixed = solver_test::fixedPositions(p, 0);
  std::vector<T> b(p.nFree, T(0));
  for (int i = 0; i < p.nFree; ++i)
    for (auto const & term : p.rows[i])
      if (term.first >= p.nFree)
        b[i] -= static_cast<T>(term.second) * static_cast<T>(fixed[term.first - p.nFree]);
  return b;
}
} // namespace

TYPED_TEST(Bicgstab, ReturnContract)
{
  using T = TypeParam;
  // Identity from zero: alpha is 1, x becomes b, and the loop ends after one step.
  CDense<T> identity(3, {1, 0, 0, 0, 1, 0, 0, 0, 1});
  std::vector<T> const b = {T(1), T(-2), T(0.5)};
  std::vector<T> x(3, T(0));
  EXPECT_EQ(identity.solve(b, x, -1), 1);
  EXPECT_EQ(x, b);
  // An exact start has a zero shadow residual: a breakdown, the start kept.
  EXPECT_EQ(identity.solve(b, x, -1), -1);
  EXPECT_EQ(x, b);
  std::vector<T> zero(3, T(0)), y(3, T(0));
  EXPECT_EQ(identity.solve(zero, y, 10), -1);
  // Skew-symmetric: h.(A h) is 0 in the first step.
  CDense<T> skew(2, {0, 1, -1, 0});
  std::vector<T> b2 = {T(1), T(2)}, x2(2, T(0));
  EXPECT_EQ(skew.solve(b2, x2, 100), -1);
  EXPECT_EQ(bicgstab(-1, &CDense<T>::multiply, &skew, b2.data(), x2.data(), T(1e-6), 100), -1);

  // A limit stops the iteration with its count, however far from the solution.
  auto const problem = solver_test::laplacian3D(6, 5, 4);
  CDense<T> m(problem);
  for (int limit : {1, 3})
  {
    std::vector<T> z(problem.nFree, T(0));
    m.calls = 0;
    EXPECT_EQ(m.solve(rightPartOf<T>(problem), z, limit), limit);
    EXPECT_EQ(m.calls, 2 * limit + 1);
  }

  // h.h = 1e-16: below the float threshold 1e-15, far above the double 1e-40.
  CDense<T> one(1, {T(1)});
  std::vector<T> tiny = {T(1e-8)}, t(1, T(0));
  EXPECT_EQ(one.solve(tiny, t, -1), sizeof(T) == 4 ? -1 : 1);
}

TYPED_TEST(Bicgstab, AProductThatNeverConvergesEndsAtTheSafetyLimit)
{
  using T = TypeParam;
  // A constant product (no linear map) keeps the residual at its part
  // orthogonal to the constant for ever, and never breaks down.
  struct LC_Constant
  {
    int calls = 0;
    static void multiply(void * context, T const *, T * out)
    {
      ++static_cast<LC_Constant *>(context)->calls;
      out[0] = T(1), out[1] = T(0), out[2] = T(0);
    }
  } constant;
  std::vector<T> b = {T(0.5), T(1), T(0)}, x(3, T(0)), y(3, T(0));
  EXPECT_EQ(bicgstab(3, &LC_Constant::multiply, &constant, b.data(), x.data(), T(1e-6), 0), -1);
  EXPECT_EQ(constant.calls, 2 * (10 * 3 + 1000) + 1);
  // A limit of the caller's is obeyed as given.
  EXPECT_EQ(bicgstab(3, &LC_Constant::multiply, &constant, b.data(), y.data(), T(1e-6), 5000), 5000);
}
