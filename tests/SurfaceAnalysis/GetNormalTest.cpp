#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "QZmath/Foundation/RotationMatrix.h"
#include "QZmath/SurfaceAnalysis/GetNormal.h"
#include "SurfaceSamples.h"

using REmath::Matrix;
using REmath::Point3D;
using namespace SurfTest;
using testing::DoubleNear;
using testing::Pointwise;

namespace
{
// Sorted eigenvalues of a 3 x 3 tensor.
std::vector<double> eigenvalues(const Matrix<double> & t)
{
  CRotationMatrix m;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      m.m[i][j] = t(i, j);
  REmath::Point3D_d v[3];
  double d[3];
  GetEigenVectorsSA(m, v, d, true);
  std::vector<double> out(d, d + 3);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<float> asFloat(double const * v) { return {float(v[0]), float(v[1]), float(v[2])}; }

struct Fit2
{
  bool ok;
  double normal[3];
  std::vector<float> dist;
  double scale;
  CQuadraticForm form;
};

Fit2 fit2(const std::vector<Point3D> & pts, const CGetNormal2Prms * prm = nullptr)
{
  Fit2 f{};
  f.dist.assign(pts.size(), -1.0f);
  f.ok =
      GetNormal2(static_cast<int>(pts.size()), pts.data(), prm, &f.form, f.normal, f.dist.data(), &f.scale);
  return f;
}

// 30 points from `next`, the first at the origin, fitted.
template <class F> Fit2 fitCloud(unsigned seed, F next)
{
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<Point3D> pts(1, Point3D(0.0f, 0.0f, 0.0f));
  while (pts.size() < 30)
    next([&] { return u(rng); }, pts);
  return fit2(pts);
}
} // namespace

// Planes and caps of every kind are the normal estimation's first order.
TEST(GetNormal, FirstOrderFormsAgreeOnAFarSaddle)
{
  double m[3][3], normal[3], en[3];
  double * rows[3] = {m[0], m[1], m[2]};
  float fn[3], an = -1.0f;
  CNeighbourhood const nb = sampleSurface(saddle(0.3), 30, 0.5, 1, 0.0, 100.0);
  ASSERT_EQ(GetNormal(30, nb.points.data(), rows, normal), 1);
  EXPECT_LT(lineAngleDeg(normal, nb.normal), 2.0);
  ASSERT_EQ(GetNormal(30, nb.points.data(), rows, fn), 1);
  ASSERT_TRUE(EstimateNormal(nb.points, en));
  EXPECT_EQ(std::vector<float>(fn, fn + 3), asFloat(normal));
  EXPECT_EQ(std::vector<double>(en, en + 3), std::vector<double>(normal, normal + 3));
  ASSERT_EQ(GetAnisotropy(30, nb.points.data(), rows, an), 1);
  EXPECT_LT(an, 0.01f);
}

TEST(GetNormal, DegenerateInputs)
{
  double m[3][3], normal[3];
  double * rows[3] = {m[0], m[1], m[2]};
  float an = 0.0f, dist[10], k0 = 0.0f, k1 = 0.0f;
  // Coincident points: all eigenvalues 0, the tie goes to the first column.
  std::vector<Point3D> same(6, Point3D(1.0f, 2.0f, 3.0f));
  ASSERT_EQ(GetNormal(6, same.data(), rows, normal), 1);
  EXPECT_EQ(std::vector<double>(normal, normal + 3), (std::vector<double>{m[0][0], m[1][0], m[2][0]}));
  EXPECT_TRUE(GetAnisotropy(6, same.data(), rows, an) == 1 && an == 0.33333334f);
  EXPECT_FALSE(GetNormal2(6, same.data(), nullptr, nullptr, normal, dist, nullptr));
  // Too few points, or a NaN: no normal.
  std::vector<Point3D> bad = sampleSurface(plane(), 10, 1.0, 3).points;
  bad[4].y() = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(GetNormal(2, same.data(), rows, normal) + GetNormal(10, bad.data(), rows, normal), 0);
  EXPECT_FALSE(EstimateNormal({}, normal));
  EXPECT_FALSE(GetNormal2(10, bad.data(), nullptr, nullptr, normal, dist, nullptr) ||
               GetNormal2(2, bad.data(), nullptr, nullptr, normal, dist, nullptr));
  Matrix<double> tensor;
  EXPECT_FALSE(EstimateCurvature(bad, true, normal, tensor) || GetMinMaxCurvaturesForPoints(bad, k0, k1));
  CQuadraticForm form = CQuadraticForm::buildFromCoefficients(0, 0, 0, 0, 0, 0, 1, 1, 1, 1);
  EXPECT_FALSE(GetNormalAndQuadricApprShiftedNonScaled(10, bad.data(), form, normal));
  EXPECT_EQ(form.getK() + form.getKX(), 0.0); // the default form
  // Collinear points: a plane through the line is flat enough, and its normal
  // is across the line; the quadric through a line is anything but unique,
  // and whatever is found, the call returns.
  std::vector<Point3D> line;
  for (int i = 0; i < 8; ++i)
    line.emplace_back(1.0f * i, 2.0f * i, -1.0f * i);
  ASSERT_TRUE(GetNormal2(8, line.data(), nullptr, nullptr, normal, dist, nullptr));
  EXPECT_NEAR(normal[0] + 2.0 * normal[1] - normal[2], 0.0, 1e-6);
  EstimateCurvature(line, true, normal, tensor);
}

TEST(GetNormal2, FlatnessLimitChoosesPlaneOrQuadric)
{
  // An exact plane keeps the plane: Q = 0, L = the normal, K = 0.
  CNeighbourhood const pl = sampleSurface(plane(), 30, 2.0, 11, 0.0, 3.0);
  Fit2 const f = fit2(pl.points);
  ASSERT_TRUE(f.ok);
  EXPECT_LT(lineAngleDeg(f.normal, pl.normal), 1e-3);
  EXPECT_EQ(raw10(f.form), (std::vector<double>{0, 0, 0, 0, 0, 0, f.normal[0], f.normal[1], f.normal[2], 0}));
  // The scale is the root mean square distance from the first point.
  double sum = 0.0;
  for (std::size_t i = 1; i < pl.points.size(); ++i)
    for (int k = 0; k < 3; ++k)
      sum += std::pow(double(pl.points[i].asArray()[k]) - pl.points[0].asArray()[k], 2);
  EXPECT_NEAR(f.scale, std::sqrt(sum / 29.0), 1e-9 * f.scale);
  EXPECT_EQ(f.dist[0], 0.0f);
  EXPECT_LT(*std::max_element(f.dist.begin(), f.dist.end()), 1e-5f); // none is left at -1
  // Forced, the quadric of an exact plane has no curvature to tell.
  CGetNormal2Prms prm;
  prm.Force2() = true;
  EXPECT_FALSE(fit2(pl.points, &prm).ok);
  prm.SetDefault();

  // A cylinder whose cap rises 0.05 (in units of the spread) over the plane.
  CNeighbourhood const nb = sampleSurface(cylinder(4.0), 30, 1.0, 5);
  prm.Appr2MinDist() = 1.0f; // everything is flat
  Fit2 const flat = fit2(nb.points, &prm), quad = fit2(nb.points);
  ASSERT_TRUE(flat.ok && quad.ok);
  EXPECT_EQ(flat.form.getKYY() + flat.form.getKZZ(), 0.0);
  EXPECT_NE(quad.form.getKYY() + quad.form.getKXX() + quad.form.getKZZ(), 0.0);
  // The quadric's normal is exact where the plane's leans.
  EXPECT_LT(lineAngleDeg(quad.normal, nb.normal), 1e-3);
  EXPECT_GT(lineAngleDeg(flat.normal, nb.normal), 10.0 * lineAngleDeg(quad.normal, nb.normal));
  // In the scaled frame the form passes through every point, with a unit
  // gradient at the first; so the distances along the gradient vanish.
  EXPECT_EQ(quad.form.getK(), 0.0);
  EXPECT_NEAR(quad.form.GetLinearTerm().length(), 1.0, 1e-12);
  for (std::size_t i = 1; i < nb.points.size(); ++i)
  {
    REmath::Point3D_d p;
    for (int k = 0; k < 3; ++k)
      p.asArray()[k] = (double(nb.points[i].asArray()[k]) - nb.points[0].asArray()[k]) / quad.scale;
    EXPECT_NEAR(quad.form.eval(p), 0.0, 1e-5);
    EXPECT_LT(std::fabs(quad.dist[i]), 1e-4f);
  }
  // The float overload converts the same normal.
  float fn[3], dist[30];
  ASSERT_TRUE(GetNormal2(30, nb.points.data(), nullptr, nullptr, fn, dist, nullptr));
  EXPECT_EQ(std::vector<float>(fn, fn + 3), asFloat(quad.normal));
}

TEST(GetNormal2, CurvatureLimitAndNoiseTurnQuadricsDown)
{
  // A cylinder of radius r along x over a strip that is long across it: its
  // curvature in the scaled units is scale / r, and above 2.0 it is refused.
  for (double r : {0.2, 0.25, 0.35, 0.5})
    for (unsigned seed = 0; seed < 4; ++seed)
    {
      Fit2 const f = fitCloud(seed,
                              [r](auto u, std::vector<Point3D> & pts)
                              {
                                double const x = u(), a = 0.5 * u();
                                pts.emplace_back(x, r * std::sin(a), r - r * std::cos(a));
                              });
      double const k = f.scale / r;
      if (std::fabs(k - 2.0) < 0.05)
        continue;
      EXPECT_EQ(f.ok, k < 2.0) << "r " << r << " seed " << seed;
      EXPECT_NEAR(f.ok ? MaxCurvature(f.form) : k, k, 1e-4 * k);
    }
  // Points in a ball: no quadric's residual stands out (at most half the
  // greatest, the dropped infinite eigenvalues counting as 0), so many are
  // refused; a bound over the finite eigenvalues alone would take them all.
  int fitted = 0;
  for (unsigned seed = 0; seed < 20; ++seed)
    fitted += fitCloud(seed,
                       [](auto u, std::vector<Point3D> & pts)
                       {
                         float const x = u(), y = u(), z = u();
                         if (x * x + y * y + z * z < 1.0f)
                           pts.emplace_back(x, y, z);
                       })
                  .ok;
  EXPECT_LT(fitted, 17);
}

TEST(GetNormal2, CurvaturesOnKnownSurfaces)
{
  struct Case
  {
    const char * name;
    std::function<double(double, double)> f;
    double noise;
    std::vector<double> tensor; // expected eigenvalues, normal towards +z
    double kmin, kmax;          // GetMinMaxCurvaturesForPoints: magnitudes
  };
  // An exact sphere is umbilic, where the curvature estimate cannot tell the
  // principal directions apart and reports "unknown": a trace of noise, as
  // every scan has, separates them.
  std::vector<Case> const cases = {
      {"sphere r=2", sphere(2.0), 2e-4, {0.0, 0.5, 0.5}, 0.5, 0.5},
      {"sphere r=0.5", sphere(0.5), 2e-4, {0.0, 2.0, 2.0}, 2.0, 2.0},
      {"cylinder r=3", cylinder(3.0), 0.0, {0.0, 0.0, 1.0 / 3.0}, 0.0, 1.0 / 3.0},
      {"saddle k=0.8", saddle(0.8), 0.0, {-0.8, 0.0, 0.8}, 0.8, 0.8},
  };
  for (Case const & c : cases)
    for (unsigned seed = 1; seed <= 3; ++seed)
    {
      SCOPED_TRACE(std::string(c.name) + " seed " + std::to_string(seed));
      double const spread = c.kmax > 1.0 ? 0.15 : 0.4;
      CNeighbourhood const nb = sampleSurface(c.f, 30, spread, seed, c.noise * spread);
      Fit2 const f = fit2(nb.points);
      ASSERT_TRUE(f.ok);
      EXPECT_LT(lineAngleDeg(f.normal, nb.normal), 0.05);

      // The caller's normal (towards the concave side) fixes the sign.
      double normal[3] = {nb.normal[0], nb.normal[1], nb.normal[2]}, est[3];
      Matrix<double> tensor, t2;
      ASSERT_TRUE(EstimateCurvature(nb.points, false, normal, tensor));
      EXPECT_THAT(eigenvalues(tensor), Pointwise(DoubleNear(0.01 * c.kmax + 1e-6), c.tensor));
      // Estimated, the normal comes back with a sign of its own and the
      // tensor follows it.
      ASSERT_TRUE(EstimateCurvature(nb.points, true, est, t2));
      EXPECT_LT(lineAngleDeg(est, nb.normal), 0.05);
      double const same = est[0] * nb.normal[0] + est[1] * nb.normal[1] + est[2] * nb.normal[2] > 0 ? 1 : -1;
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
          EXPECT_NEAR(t2(i, j), same * tensor(i, j), 1e-3 * c.kmax);

      std::vector<Point3D> pts = nb.points;
      float kmin = 0.0f, kmax = 0.0f;
      ASSERT_TRUE(GetMinMaxCurvaturesForPoints(pts, kmin, kmax));
      EXPECT_LE(kmin, kmax);
      EXPECT_NEAR(kmin, c.kmin, 0.01 * c.kmax + 1e-4);
      EXPECT_NEAR(kmax, c.kmax, 0.01 * c.kmax + 1e-4);

      // In the points' own units, relative to the first point.
      CQuadraticForm own;
      double on[3];
      ASSERT_TRUE(GetNormalAndQuadricApprShiftedNonScaled(30, nb.points.data(), own, on));
      EXPECT_LT(lineAngleDeg(on, nb.normal), 0.05);
      EXPECT_NEAR(MaxCurvature(own), c.kmax, 0.01 * c.kmax);
    }
}

TEST(GetNormal2, FoldTestRejectsTwoSheets)
{
  // Both caps of a flat ellipsoid: the quadric that fits them is the closed
  // ellipsoid, whose gradient turns round between the sheets. One cap alone
  // is an ordinary neighbourhood.
  auto caps = [](bool both)
  {
    std::vector<Point3D> pts = {Point3D(0.3f, 0.0f, 0.0f)};
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(-0.4, 0.4);
    for (int i = 1; i < 40; ++i)
    {
      double const y = u(rng), z = u(rng), x = 0.3 * std::sqrt(1.0 - y * y - z * z / 1.44);
      pts.emplace_back(both && i % 2 ? -x : x, y, z);
    }
    return pts;
  };
  EXPECT_FALSE(fit2(caps(true)).ok);
  Fit2 const cap = fit2(caps(false));
  double const x[3] = {1.0, 0.0, 0.0};
  ASSERT_TRUE(cap.ok);
  EXPECT_LT(lineAngleDeg(cap.normal, x), 0.05);
}

TEST(GetNormal2, ReducedEigenProblemAgreesWithTheGeneralSolver)
{
  auto compare = [](const std::vector<Point3D> & pts, CGetNormal2Prms prm)
  {
    Fit2 const general = fit2(pts, &prm);
    prm.ReducedEigenProblem() = true;
    Fit2 const reduced = fit2(pts, &prm);
    ASSERT_EQ(reduced.ok, general.ok);
    if (!general.ok)
      return;
    // The same form up to its sign.
    double const dot = reduced.normal[0] * general.normal[0] + reduced.normal[1] * general.normal[1] +
                       reduced.normal[2] * general.normal[2];
    double const sign = dot > 0 ? 1.0 : -1.0;
    std::vector<double> g = raw10(general.form);
    for (double & v : g)
      v *= sign;
    EXPECT_THAT(raw10(reduced.form), Pointwise(DoubleNear(1e-7), g));
    // With a free term the distances depend on the form's sign: K enters the
    // linear coefficient of the line's equation and not the free one.
    if (prm.ZeroFremTerm() || sign > 0)
    {
      EXPECT_THAT(reduced.dist, Pointwise(testing::FloatNear(1e-6f), general.dist));
    }
  };
  CGetNormal2Prms prm;
  for (unsigned seed = 1; seed <= 4; ++seed)
  {
    SCOPED_TRACE(seed);
    compare(sampleSurface(cylinder(1.5), 30, 0.5, seed).points, prm);
    compare(sampleSurface(saddle(0.7), 30, 0.5, seed, 1e-3).points, prm);
    compare(sampleSurface(sphere(1.0), 25, 0.4, seed, 1e-4).points, prm);
    prm.ZeroFremTerm() = false;
    compare(sampleSurface(cylinder(1.5), 30, 0.5, seed, 1e-3).points, prm);
    prm.SetDefault();
  }
  // An exact plane, forced: the quadratic moments are singular and the
  // general solver answers.
  prm.Force2() = true;
  compare(sampleSurface(plane(), 30, 1.0, 7).points, prm);
}

TEST(Curvatures, ClosedFormsOfRawQuadrics)
{
  double c[2], n[3];
  Matrix<double> tensor;
  // x^2 - 2 r z = 0: a cylinder of radius r along y, normal -z at the origin.
  double const r = 4.0;
  CQuadFormRaw9<double> const cyl = {1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, -2.0 * r};
  GetCurvatures(cyl, c, &tensor, n);
  // (The tensor's eigenvalues are compared on sampled surfaces.)
  EXPECT_THAT((std::vector<double>{std::min(c[0], c[1]), std::max(c[0], c[1]), n[2], MaxCurvature(cyl)}),
              Pointwise(DoubleNear(1e-12), {0.0, 1.0 / r, -1.0, 1.0 / r}));
  // A multiple is the same surface, also through the form.
  double tripled[9];
  for (int i = 0; i < 9; ++i)
    tripled[i] = -3.0 * cyl[i];
  EXPECT_NEAR(MaxCurvature(CQuadraticForm::buildFromCoeffArray(9, tripled)), 1.0 / r, 1e-12);

  // Umbilic (a sphere) and a vanishing gradient: unknown, 20.0.
  CQuadFormRaw9<double> const sph = {1.0, 0.0, 0.0, 1.0, 0.0, 1.0, 0.0, 0.0, -2.0};
  CQuadFormRaw9<double> const noGradient = {1.0, 0.0, 0.0, 2.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  GetCurvatures(sph, c, nullptr, nullptr);
  EXPECT_EQ((std::vector<double>{c[0], c[1], MaxCurvature(sph), MaxCurvature(noGradient),
                                 MaxCurvature(CQuadraticForm())}),
            std::vector<double>(5, 20.0));
}

TEST(DetectContourNormal, FollowsTheDirection)
{
  std::vector<Point3D> square = {Point3D(0, 0, 5), Point3D(2, 0, 5), Point3D(2, 2, 5), Point3D(0, 2, 5)};
  float n[3];
  ASSERT_TRUE(DetectContourNormal(square, n));
  EXPECT_EQ(std::vector<float>(n, n + 3), (std::vector<float>{0.0f, 0.0f, 1.0f}));
  std::reverse(square.begin(), square.end());
  EXPECT_TRUE(DetectContourNormal(square, n) && n[2] == -1.0f);
  EXPECT_FALSE(DetectContourNormal(square, nullptr) || DetectContourNormal({}, n) ||
               DetectContourNormal(std::vector<Point3D>(4, Point3D(1.0f)), n));
}
