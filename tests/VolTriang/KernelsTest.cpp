#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/VolTriang/Kernels.h"

using namespace VolTr;

namespace
{
double bspline(double t)
{
  if (t >= -1.5 && t < -0.5)
    return 0.5 * (t + 1.5) * (t + 1.5);
  if (t >= -0.5 && t < 0.5)
    return 0.75 - t * t;
  if (t >= 0.5 && t < 1.5)
    return 0.5 * (t - 1.5) * (t - 1.5);
  return 0.0;
}

double kernelReference(double const * p) { return bspline(p[0]) * bspline(p[1]) * bspline(p[2]); }

template <class K> double evalAt(K const & k, double x, double y, double z)
{
  double const p[3] = {x, y, z};
  return k.eval(p);
}
} // namespace

// The values and the analytic derivatives of both forms against the spline
// product, and the derivatives the separable form makes of itself.
TEST(ApproxGaussian, ValuesAndDerivativesOfBothFormsMatchTheSplineProduct)
{
  std::mt19937 rng(8);
  std::uniform_real_distribution<double> u(-1.7, 1.7);
  CProductPiecewisePolynom const kp = makeApproxGaussian<CProductPiecewisePolynom>();
  CPiecewisePolynom const kg = makeApproxGaussian<CPiecewisePolynom>();
  // The left end belongs to the piece, whose value is 0 there.
  EXPECT_EQ((std::vector<double>{evalAt(kp, 0, 0, 0), evalAt(kg, 0, 0, 0), evalAt(kp, 1.5, 0, 0),
                                 evalAt(kp, -1.5, 0, 0)}),
            (std::vector<double>{0.421875, 0.421875, 0.0, 0.0}));
  CProductPiecewisePolynom const lapP = makeApproxGaussianLaplacian<CProductPiecewisePolynom>();
  CPiecewisePolynom const lapG = makeApproxGaussianLaplacian<CPiecewisePolynom>();
  CProductPiecewisePolynom lapPipeline, dK[3];
  kp.makeLaplacian(&lapPipeline);
  for (int a = 0; a < 3; ++a)
    kp.makePartialDerivative(&dK[a], a);
  double const h = 1e-5;
  for (int i = 0; i < 1000; ++i)
  {
    double p[3] = {u(rng), u(rng), u(rng)};
    double const ref = kernelReference(p);
    EXPECT_NEAR(kp.eval(p), ref, 1e-15);
    EXPECT_NEAR(kg.eval(p), ref, 1e-13); // the expanded pieces cancel near the knots
    // keep away from the knots, where the second derivative jumps
    bool nearKnot = false;
    for (double x : p)
      for (double knot : {-1.5, -0.5, 0.5, 1.5})
        nearKnot = nearKnot || std::fabs(x - knot) < 1e-3;
    if (nearKnot)
      continue;
    double lapFd = 0;
    for (int a = 0; a < 3; ++a)
    {
      double q[3] = {p[0], p[1], p[2]}, r[3] = {p[0], p[1], p[2]};
      q[a] += h;
      r[a] -= h;
      double const fd = (kernelReference(q) - kernelReference(r)) / (2 * h);
      EXPECT_NEAR(DgaussianDx<CProductPiecewisePolynom>(a).eval(p), fd, 1e-7);
      EXPECT_NEAR(DgaussianDx<CPiecewisePolynom>(a).eval(p), fd, 1e-7);
      EXPECT_NEAR(dK[a].eval(p), fd, 1e-7);
      lapFd += (kernelReference(q) - 2 * kernelReference(p) + kernelReference(r)) / (h * h);
    }
    EXPECT_NEAR(lapP.eval(p), lapFd, 1e-3);
    EXPECT_NEAR(lapG.eval(p), lapFd, 1e-3);
    EXPECT_EQ(lapPipeline.eval(p), lapP.eval(p)); // the pipeline's Laplacian is the same function
  }
}

// The general form's placed functions and the summand factors are compared
// through the products helper, against these.
TEST(CCSFunc3, PlacedKernelItsPolynomialAndItsSupportAgree)
{
  CProductPiecewisePolynom const kp = makeApproxGaussian<CProductPiecewisePolynom>();
  double const c[3] = {0.3, -1.2, 2.5};
  int const ci[3] = {3, -12, 25};
  double const s = 4.0, n = 64.0;
  CCSFunc3Tmpl<CProductPiecewisePolynom> const fp(&kp, c, ci, s, n, 2);
  CProductPiecewisePolynom const pp = polynomByShiftedKernel(fp);
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> u(-0.45, 0.45);
  for (int i = 0; i < 1000; ++i)
  {
    double const p[3] = {c[0] + u(rng), c[1] + u(rng), c[2] + u(rng)};
    double const q[3] = {(p[0] - c[0]) * s, (p[1] - c[1]) * s, (p[2] - c[2]) * s};
    double const ref = n * kernelReference(q);
    EXPECT_NEAR(fp.eval(p), ref, 1e-12);
    EXPECT_NEAR(pp.eval(p), ref, 1e-9);
    // The summand factors multiply back to the function.
    double prod = 1;
    for (int a = 0; a < 3; ++a)
      prod *= summandByShiftedKernel(fp, 0, a).eval(p[a]);
    EXPECT_NEAR(prod, ref, 1e-9);
  }
  // Integral of a level-0 function scaled by s with N = s^3 is 1.
  EXPECT_NEAR(integrateOnSupport(pp), 1.0, 1e-12);
  // The support: the kernel's, 1.5 either way, scaled about the centre.
  CParallelepiped const box = getScaledFunctionCommonSupport(fp);
  EXPECT_EQ((std::vector<double>{box.getMin()[0], box.getMax()[0], box.getMin()[1], box.getMax()[2]}),
            (std::vector<double>{c[0] - 0.375, c[0] + 0.375, c[1] - 0.375, c[2] + 0.375}));
}

TEST(TrilinearWeight, CornersCentresAndFlatAxes)
{
  CParallelepiped const cell(0, 2, 0, 2, 0, 2);
  CParallelepiped const flat(0, 2, 5, 5, 0, 2), point(1, 1, 1, 1, 1, 1);
  double const corner[3] = {0, 0, 0}, centre[3] = {1, 1, 1}, far[3] = {3, 0, 0}, p[3] = {1, 7, 1};
  float const centreF[3] = {1, 1, 1};
  // Nothing clamps a point outside; a flat axis gives no factor.
  EXPECT_EQ((std::vector<double>{
                calcTrilinearWeight(centre, corner, cell), calcTrilinearWeight(centreF, corner, cell),
                calcTrilinearWeight(corner, corner, cell), calcTrilinearWeight(far, corner, cell),
                calcTrilinearWeight(p, corner, flat), calcTrilinearWeight(p, corner, point)}),
            (std::vector<double>{0.125, 0.125, 1.0, -0.5, 0.25, 1.0}));
}
