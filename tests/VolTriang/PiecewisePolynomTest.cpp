#include <gtest/gtest.h>

#include <random>

#include "QZmath/VolTriang/PiecewisePolynom.h"
#include "tests/VolTriang/PolynomTestSupport.h"

using namespace VolTr;
using namespace qztest::poly;

namespace
{
CPolynom constant(double c) { return CPolynom(CWeightedMonom(c, CMonom())); }

// The box of [lo, hi] on `axis` and the whole line on the others.
CParallelepiped slab(int axis, double lo, double hi)
{
  CParallelepiped b(CInterval::all(), CInterval::all(), CInterval::all());
  b.setDimension(axis, CInterval(lo, hi));
  return b;
}

CPiecewisePolynom randomPiecewise(std::mt19937 & rng, int terms)
{
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  double const shift[3] = {u(rng), u(rng), u(rng)};
  CPiecewisePolynom r;
  for (int i = 0; i < terms; ++i)
  {
    CParallelepiped box;
    for (int a = 0; a < 3; ++a)
    {
      double const x = u(rng), y = u(rng);
      box.setDimension(a, CInterval(std::min(x, y), std::max(x, y)));
    }
    r.addTerm(CLimitedPolynom(randomPolynom3(rng, 1 + i % 5, 2), box, shift));
  }
  return r;
}

void boxBreaks(CPiecewisePolynom const & f, std::vector<double> (&b)[3])
{
  for (int i = 0; i < f.getTermsNumber(); ++i)
    for (int a = 0; a < 3; ++a)
    {
      b[a].push_back(f.getTerm(i).getSupportRef().getMin()[a]);
      b[a].push_back(f.getTerm(i).getSupportRef().getMax()[a]);
    }
}
} // namespace

TEST(CParallelepiped, BoundaryPointsLieWithinTheToleranceOfAFace)
{
  CParallelepiped box(0, 1, 0, 1, 0, 1);
  double const inside[3] = {0.5, 0.5, 0.5}, face[3] = {0.5, 1.0, 0.5}, nearFace[3] = {0.5, 0.5, -0.05},
               outside[3] = {0.5, 0.5, 1.2}, corner[3] = {1, 1, 1};
  EXPECT_EQ((std::vector<bool>{box.isBoundaryPoint(inside, 0.1), box.isBoundaryPoint(face, 0.0),
                               box.isBoundaryPoint(nearFace, 0.1), box.isBoundaryPoint(nearFace, 0.01),
                               box.isBoundaryPoint(outside, 0.1), box.isBoundaryPoint(corner, 0)}),
            (std::vector<bool>{false, true, true, false, false, true}));
}

TEST(PiecewisePolynom, BoundaryToleranceFavoursTheUpperPieceAndTouchingBoxesMeetNowhere)
{
  CPiecewisePolynom f(CLimitedPolynom(constant(1.0), slab(0, -1.5, -0.5), nullptr));
  f.addTerm(CLimitedPolynom(constant(2.0), slab(0, -0.5, 0.5), nullptr));
  auto at = [&](double x)
  {
    double const p[3] = {x, 0.0, 0.0};
    return f.eval(p);
  };
  // A point within the tolerance below a minimum belongs to the box; the
  // tolerance pushes the top bound out.
  EXPECT_EQ((std::vector<double>{at(-0.5), at(-1.0), at(-1.5 - 0.5e-10), at(-1.5 - 2e-10), at(0.5 - 1e-9),
                                 at(0.5)}),
            (std::vector<double>{2.0, 1.0, 1.0, 0.0, 2.0, 0.0}));
  EXPECT_TRUE(f.checkClassInvariants());

  CPiecewisePolynom const empty;
  double const zero[3] = {0.0, 0.0, 0.0};
  EXPECT_EQ(std::make_pair(empty.eval(zero), (empty * f).getTermsNumber()), std::make_pair(0.0, 0));

  // Boxes that only touch multiply to nothing and add up side by side.
  CPiecewisePolynom const a(CLimitedPolynom(constant(1.0), CParallelepiped(0, 1, 0, 1, 0, 1), nullptr));
  double const shift[3] = {1.0, 0.0, 0.0};
  CPiecewisePolynom const b(CLimitedPolynom(constant(3.0), CParallelepiped(1, 2, 0, 1, 0, 1), shift));
  CPiecewisePolynom const ab = a * b, sum = a + b;
  EXPECT_EQ((std::vector<double>{double(ab.getTermsNumber()), ab.integrateOnSupport(),
                                 double(sum.getTermsNumber()), sum.getCommonSupportRef().getMax()[0]}),
            (std::vector<double>{0.0, 0.0, 2.0, 2.0}));
  EXPECT_NEAR(sum.integrateOnSupport(), 4.0, 1e-15);
  EXPECT_TRUE(sum.checkClassInvariants());
}

TEST(PiecewisePolynom, ProductsAndAffineSequencesAgreeWithValuesAndQuadrature)
{
  std::mt19937 rng(43);
  for (int round = 0; round < 6; ++round)
  {
    CPiecewisePolynom const f = randomPiecewise(rng, 1 + round % 3), g = randomPiecewise(rng, 1 + round % 4);
    std::vector<double> fBreaks[3], breaks[3];
    boxBreaks(f, fBreaks);
    boxBreaks(f, breaks);
    boxBreaks(g, breaks);
    expectProductAgrees(f, g, breaks, rng, 1.2);
    expectAffineSequence(f, fBreaks, rng, 10, 1.0);
  }
}
