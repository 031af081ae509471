#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "QZmath/Fitting/QLPoptimize.h"

using testing::DoubleNear;
using testing::Pointwise;

namespace
{
// One problem in the routine's layout, with everything it reports.
struct QP
{
  int n, m, me;
  std::vector<double> c, d, a, b, xl, xu; // c and a column-major, tight
  std::vector<double> x, u;
  double f = 0, cres = 0, diag = 0, eps = 0;
  int maxit = 0, ifail = -1, iter = 0, nact = 0, nadd = 0, ndrop = 0, nviol = 0, ndep = 0, nshift = 0;
  std::vector<int> iact, ixstat, icstat;

  QP(int n_, int m_, int me_)
      : n(n_), m(m_), me(me_), c(n * n, 0.0), d(n, 0.0), a(std::max(1, m) * n, 0.0), b(std::max(1, m), 0.0),
        xl(n, -1e10), xu(n, 1e10)
  {
  }
  void row(int j, std::vector<double> const & coef, double rhs)
  {
    for (int k = 0; k < n; ++k)
      a[j + k * std::max(1, m)] = coef[k];
    b[j] = rhs;
  }
  int solve()
  {
    int mmax = std::max(1, m), nmax = n, mnn = m + 2 * n;
    double big = 0, tol = 0;
    x.assign(n, 0.0);
    u.assign(mnn, 0.0);
    iact.assign(mnn, -1);
    ixstat.assign(n, 9);
    icstat.assign(std::max(1, m), 9);
    QLPoptimize(&m, &me, &mmax, &n, &nmax, &mnn, &maxit, c.data(), d.data(), a.data(), b.data(), xl.data(),
                xu.data(), &big, &tol, x.data(), u.data(), &f, &cres, &diag, &ifail, &iter, &nact,
                iact.data(), &nadd, &ndrop, &eps, ixstat.data(), icstat.data(), &nviol, &ndep, &nshift);
    return ifail;
  }
};
} // namespace

TEST(QLPoptimize, KnownOptimaWithTheirMultipliers)
{
  // min 1/2 x'Cx - 2 x0 - 4 x1 under one general constraint a x >= b and the
  // upper bound of x0. Stationarity: C x + d = u0 a - u_up0 e0.
  struct Case
  {
    std::vector<double> c, a;
    double b, xu0;
    std::vector<double> x, u;
    double f;
    int nact;
  } const cases[] = {
      {{2, 0, 0, 4}, {1, 1}, 0.0, 1e10, {1, 1}, {0, 0, 0, 0, 0}, -3.0, 0},         // far from binding
      {{2, 0, 0, 2}, {-1, -1}, -1.0, 1e10, {0, 1}, {2, 0, 0, 0, 0}, -3.0, 1},      // x0 + x1 <= 1 binds
      {{2, 0, 0, 2}, {-1, -1}, -1.0, -0.5, {-0.5, 1.5}, {1, 0, 0, 2, 0}, -2.5, 2}, // and x0 <= -0.5
  };
  for (Case const & c : cases)
  {
    QP p(2, 1, 0);
    p.c = c.c;
    p.d = {-2, -4};
    p.row(0, c.a, c.b);
    p.xu[0] = c.xu0;
    SCOPED_TRACE(c.nact);
    ASSERT_EQ(p.solve(), 0);
    EXPECT_THAT(p.x, Pointwise(DoubleNear(1e-12), c.x));
    EXPECT_THAT(p.u, Pointwise(DoubleNear(1e-12), c.u));
    EXPECT_NEAR(p.f, c.f, 1e-12);
    EXPECT_EQ((std::vector<int>{p.nact, p.icstat[0], p.ixstat[0]}),
              (std::vector<int>{c.nact, c.nact > 0, c.nact > 1}));
    EXPECT_EQ(p.eps, std::ldexp(1.0, -52));
  }
}

TEST(QLPoptimize, EqualitiesDependentOnesAndInconsistentSets)
{
  QP p(2, 2, 2);
  p.c = {2, 0, 0, 2};
  p.row(0, {1, 1}, -2.0);
  p.row(1, {2, 2}, -4.0); // the same plane again
  ASSERT_EQ(p.solve(), 0);
  EXPECT_THAT((std::vector<double>{p.x[0], p.x[1], p.u[0]}),
              Pointwise(DoubleNear(1e-12), {-1.0, -1.0, -2.0}));
  EXPECT_EQ(p.ndep, 1);

  p.row(1, {2, 2}, 5.0); // now parallel but apart
  EXPECT_EQ(p.solve(), 2);

  QP q(1, 2, 0);
  q.c = {1};
  q.row(0, {1}, 3.0);   // x >= 3
  q.row(1, {-1}, -1.0); // x <= 1
  EXPECT_EQ(q.solve(), 2);
  q.m = 0; // the same through the bounds
  q.xl = {3};
  q.xu = {1};
  EXPECT_EQ(q.solve(), 2);
}

TEST(QLPoptimize, RandomProblemsMeetTheOptimalityConditions)
{
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  for (int trial = 0; trial < 40; ++trial)
  {
    SCOPED_TRACE(trial);
    int const n = 2 + trial % 4, m = 1 + trial % 5, me = trial % 2;
    QP p(n, m, me);
    // C = B B' + I/2, or of rank n/2 (semidefinite) in every third problem.
    bool const semi = trial % 3 == 0;
    std::vector<double> bm(n * n);
    for (double & v : bm)
      v = uni(rng);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
      {
        p.c[i + j * n] = i == j && !semi ? 0.5 : 0.0;
        for (int k = 0; k < (semi ? n / 2 : n); ++k)
          p.c[i + j * n] += bm[i + k * n] * bm[j + k * n];
      }
    for (int i = 0; i < n; ++i)
    {
      p.d[i] = 3 * uni(rng);
      p.xl[i] = -1.0 - std::fabs(uni(rng));
      p.xu[i] = 1.0 + std::fabs(uni(rng));
    }
    // Feasible by construction: every constraint holds at a point of the box.
    std::vector<double> inside(n), coef(n);
    for (double & v : inside)
      v = 0.9 * uni(rng);
    for (int j = 0; j < m; ++j)
    {
      double at = 0.0;
      for (int k = 0; k < n; ++k)
        at += (coef[k] = uni(rng)) * inside[k];
      p.row(j, coef, j < me ? at : at - 0.3 * std::fabs(uni(rng)));
    }
    ASSERT_EQ(p.solve(), 0);
    EXPECT_EQ(p.nviol, 0);
    // C x + d = sum u_j n_j, with u >= 0 on inequalities and zero off them.
    for (int i = 0; i < n; ++i)
    {
      double res = p.d[i] + p.diag * p.x[i] - p.u[m + i] + p.u[m + n + i]; // with the shift
      for (int k = 0; k < n; ++k)
        res += p.c[i + k * n] * p.x[k];
      for (int j = 0; j < m; ++j)
        res -= p.u[j] * p.a[j + i * m];
      EXPECT_NEAR(res, 0.0, 1e-10);
      EXPECT_LT(std::fabs(p.u[m + i] * (p.x[i] - p.xl[i])) + std::fabs(p.u[m + n + i] * (p.xu[i] - p.x[i])),
                1e-10);
      EXPECT_TRUE(p.u[m + i] >= 0.0 && p.u[m + n + i] >= 0.0);
    }
    for (int j = me; j < m; ++j)
    {
      double s = -p.b[j];
      for (int k = 0; k < n; ++k)
        s += p.a[j + k * m] * p.x[k];
      EXPECT_GE(p.u[j], 0.0);
      EXPECT_LT(std::fabs(s * p.u[j]), 1e-10);
    }
  }
}

TEST(QLPoptimize, MalformedInputIsRefused)
{
  QP p(2, 1, 0);
  p.c = {1, 0, 0, 1};
  p.me = 2; // more equalities than constraints
  EXPECT_EQ(p.solve(), 4);
  p.me = 0;
  p.c[0] = std::nan("");
  EXPECT_EQ(p.solve(), 6);
  p.c = {-1, 0, 0, 1}; // indefinite beyond any small shift
  EXPECT_EQ(p.solve(), 3);
  // Sizes whose m + 2 n does not fit in an int are refused before any array
  // is read, not wrapped round.
  int m = 0, me = 0, mmax = 1, n = 1500000000, mnn = 2000000000, ifail = -1;
  QLPoptimize(&m, &me, &mmax, &n, &n, &mnn, nullptr, p.c.data(), p.d.data(), nullptr, nullptr, p.xl.data(),
              p.xu.data(), nullptr, nullptr, p.x.data(), nullptr, nullptr, nullptr, nullptr, &ifail, nullptr,
              nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(ifail, 4);

  // Two constraints to take, one change allowed.
  p.c = {1, 0, 0, 1};
  p.d = {-5, -5};
  p.row(0, {-1, 0}, -1.0);
  p.xu[1] = 1.0;
  p.maxit = 1;
  EXPECT_EQ(p.solve(), 1);
  EXPECT_EQ(p.iter, 1);
}

#ifdef NDEBUG // a debug build stops at the overlap on purpose
TEST(QLPoptimize, OverlappingCallsAreRefusedNeverCorrupted)
{
  auto hammer = [](int & refused, int & wrong)
  {
    for (int rep = 0; rep < 300; ++rep)
    {
      QP p(12, 0, 0);
      for (int i = 0; i < 12; ++i)
        p.c[i + i * 12] = 1.0, p.d[i] = -2.0 * i, p.xu[i] = 5.0;
      int const code = p.solve();
      refused += code == 5;
      for (int i = 0; code == 0 && i < 12; ++i)
        wrong += std::fabs(p.x[i] - std::min(2.0 * i, 5.0)) > 1e-12;
      wrong += code != 0 && code != 5;
    }
  };
  int refused[2] = {0, 0}, wrong[2] = {0, 0};
  std::thread other(hammer, std::ref(refused[1]), std::ref(wrong[1]));
  hammer(refused[0], wrong[0]);
  other.join();
  EXPECT_EQ(wrong[0] + wrong[1], 0);
  EXPECT_LT(refused[0] + refused[1], 600);
}
#endif
