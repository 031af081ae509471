#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "QZmath/SurfaceAnalysis/NormalEstimation.h"
#include "QZsys/Threading.h"
#include "tests/Common/Checks.h"
#include "tests/Common/SampleClouds.h"

using namespace REmath;

namespace
{
using QZTest::CSampleCloud;

// The clouds carry the true unit normal of every point; their coordinates
// lie in one array.
float const * xyz(CSampleCloud const & c) { return c.getSampleCoords3(0); }

/// Appends the points of `from` with their normals turned round.
void appendFlipped(CSampleCloud & to, CSampleCloud const & from)
{
  for (int i = 0; i < from.size(); ++i)
  {
    float const *p = from.getSampleCoords3(i), *n = from.getSampleNormal3(i);
    to.add(p[0], p[1], p[2], -n[0], -n[1], -n[2]);
  }
}

// Gaussian position noise of the given deviation per coordinate.
void jitter(CSampleCloud & c, double sigma, std::uint64_t seed)
{
  QZTest::CCloudRandom rnd(seed);
  for (float *v = c.coordsMod(0), *end = v + 3 * static_cast<std::size_t>(c.size()); v != end; ++v)
  {
    double const u = 1.0 - rnd.uniform(), w = rnd.uniform();
    *v += static_cast<float>(sigma * std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * w));
  }
}

std::vector<float> normalOf(CEstimatedNormals const & r, int i)
{
  return {r.getNormal(i), r.getNormal(i) + 3};
}

// The fraction of points whose normal has the sign of the true one.
double agreeing(CSampleCloud const & t, CEstimatedNormals const & r)
{
  int good = 0;
  for (int i = 0; i < t.size(); ++i)
  {
    float const *a = r.getNormal(i), *b = t.getSampleNormal3(i);
    good += a[0] * b[0] + a[1] * b[1] + a[2] * b[2] > 0.0f ? 1 : 0;
  }
  return static_cast<double>(good) / t.size();
}

CEstimatedNormals estimate(CSampleCloud const & t,
                           CNormalEstimationParams const & p = CNormalEstimationParams())
{
  CEstimatedNormals r;
  CNormalEstimator(p).run(xyz(t), t.size(), r);
  return r;
}

// A closed box of half sizes (a, a, h) sampled uniformly by area.
CSampleCloud box(int n, double a, double h, std::uint64_t seed)
{
  QZTest::CCloudRandom rnd(seed);
  double const areas[3] = {4 * a * a, 4 * a * h, 4 * a * h}; // faces normal to z, x, y (each of two)
  CSampleCloud t;
  for (int i = 0; i < n; ++i)
  {
    double const pick = rnd.uniform() * (areas[0] + areas[1] + areas[2]),
                 s = rnd.uniform() < 0.5 ? -1.0 : 1.0;
    double const u = rnd.uniform(-1, 1), v = rnd.uniform(-1, 1);
    if (pick < areas[0])
      t.add(a * u, a * v, s * h, 0, 0, s);
    else if (pick < areas[0] + areas[1])
      t.add(s * a, a * u, h * v, s, 0, 0);
    else
      t.add(a * u, s * a, h * v, 0, s, 0);
  }
  return t;
}

class NormalEstimationThreads : public ::testing::Test
{
protected:
  void TearDown() override { CVescaThreadingTasksHelper::setNumOfPhisicalThread(0); }
};
} // namespace

TEST(NormalEstimation, NeighboursMatchBruteForce)
{
  // Random points; coincident ones and their count are the fallback test's.
  CSampleCloud t;
  QZTest::CCloudRandom rnd(7);
  for (int i = 0; i < 400; ++i)
    t.add(rnd.uniform(), rnd.uniform(), rnd.uniform(), 0, 0, 1);
  int const n = t.size();
  float const * x = xyz(t);
  for (int k : {1, 6, 25})
    for (double radius : {0.0, 0.08})
    {
      SCOPED_TRACE("k " + std::to_string(k) + " r " + std::to_string(radius));
      CNormalEstimationParams p;
      p.setNeighbours(k);
      p.setMaxRadius(radius);
      CNeighbourGraph g;
      CNormalEstimator(p).findNeighbours(x, n, g);
      ASSERT_EQ(g.size(), n);
      for (int i = 0; i < n; ++i)
      {
        std::vector<std::pair<double, int>> all;
        for (int j = 0; j < n; ++j)
        {
          double d2 = 0;
          for (int c = 0; c < 3; ++c)
            d2 += std::pow(double(x[3 * i + c] - x[3 * j + c]), 2);
          if (j != i && (radius == 0.0 || d2 <= radius * radius))
            all.emplace_back(d2, j);
        }
        std::sort(all.begin(), all.end());
        all.resize(std::min<std::size_t>(all.size(), k));
        std::vector<int> want;
        for (auto const & a : all)
          want.push_back(a.second);
        ASSERT_EQ(std::vector<int>(g.getNeighbours(i), g.getNeighbours(i) + g.getNeighbourCount(i)), want)
            << i;
        EXPECT_EQ(g.getReach2(i), all.empty() ? g.getReach2(i) : all.back().first);
      }
    }
}

TEST(NormalEstimation, NormalsOfKnownSurfaces)
{
  // Unoriented: compare |n . truth|; curvature from the second order.
  struct Case
  {
    char const * name;
    CSampleCloud cloud;
    double curvature; // of every point, in 1 / length
  } cases[2] = {{"sphere", QZTest::makeSphereCloud(4000, 2.0, 11), 0.5},
                {"plane", QZTest::makePlaneCloud(3000, 1.0, 0.5, 12), 0.0}};
  for (Case & c : cases)
  {
    jitter(c.cloud, 1e-4, 14); // a trace of noise, as every scan has: the quadric fit needs it
    for (bool second : {false, true})
    {
      SCOPED_TRACE(std::string(c.name) + (second ? " second order" : ""));
      CNormalEstimationParams p;
      p.setSecondOrder(second);
      CNeighbourGraph g;
      CEstimatedNormals r;
      CNormalEstimator e(p);
      e.findNeighbours(xyz(c.cloud), c.cloud.size(), g);
      e.estimateNormals(xyz(c.cloud), c.cloud.size(), g, r);
      ASSERT_EQ(r.size(), c.cloud.size());
      EXPECT_EQ(r.getDegenerateCount(), 0);
      EXPECT_FALSE(r.isOriented());
      double worst = 1.0, curvatureError = 0.0;
      int known = 0;
      for (int i = 0; i < r.size(); ++i)
      {
        float const *a = r.getNormal(i), *b = c.cloud.getSampleNormal3(i);
        EXPECT_NEAR(a[0] * a[0] + a[1] * a[1] + a[2] * a[2], 1.0, 1e-6);
        worst = std::min(worst, std::fabs(static_cast<double>(a[0] * b[0] + a[1] * b[1] + a[2] * b[2])));
        if (second && r.getCurvatures()[i] >= 0.0f)
          ++known, curvatureError += std::fabs(r.getCurvatures()[i] - c.curvature);
      }
      // The plane of a neighbourhood tilts where the point is off its centre;
      // the quadric passes through the point.
      EXPECT_GT(worst, second ? 0.9995 : 0.99);
      ASSERT_EQ(r.getCurvatures().size(), second ? static_cast<std::size_t>(r.size()) : 0u);
      if (second)
      {
        EXPECT_GT(known, r.size() * 9 / 10);
        EXPECT_LT(curvatureError / known, 0.02 + 0.02 * c.curvature);
      }
    }
  }
}

TEST(NormalEstimation, ClosedSurfacesWithNoiseFaceOutward)
{
  // Half a percent of the size as position noise on each coordinate.
  CSampleCloud sphere = QZTest::makeSphereCloud(30000, 1.0, 21),
               torus = QZTest::makeTorusCloud(30000, 1.0, 0.35, 22),
               nested = QZTest::makeSphereCloud(24000, 1.0, 23);
  appendFlipped(nested, QZTest::makeSphereCloud(6000, 0.5, 24)); // the cavity: inward
  for (CSampleCloud * t : {&sphere, &torus, &nested})
    jitter(*t, 0.005, 25);
  CEstimatedNormals const s = estimate(sphere), to = estimate(torus), ne = estimate(nested);
  EXPECT_GE(std::min({agreeing(sphere, s), agreeing(torus, to), agreeing(nested, ne)}), 0.999);
  EXPECT_EQ(s.getComponentCount(), 1);
  EXPECT_EQ(ne.getComponentCount(), 2);
  EXPECT_EQ(ne.getInwardComponentCount(), 1);

  // Noise as large as the spacing of the points (0.025): many neighbourhoods
  // of k = 20 tell their plane poorly, a few leave their normal nearly in the
  // tangent plane, where no propagation can give it the right sign.
  CSampleCloud rough = QZTest::makeSphereCloud(20000, 1.0, 26);
  jitter(rough, 0.025, 27);
  CEstimatedNormals const ro = estimate(rough);
  EXPECT_GE(agreeing(rough, ro), 0.999);
  EXPECT_GT(ro.getWidenedCount(), rough.size() / 2);

  // Without the nesting rule the inner sphere faces out, as its own seed says.
  CNormalEstimationParams p;
  p.setNestedInward(false);
  CEstimatedNormals const flat = estimate(nested, p);
  EXPECT_EQ(flat.getInwardComponentCount(), 0);
  EXPECT_NEAR(agreeing(nested, flat), 0.8, 0.01);

  // Closed plates whose two large faces come closer than a neighbourhood's
  // reach: neighbours of a face point include points of the other face, and
  // the propagation must still not cross over.
  for (double h : {0.05, 0.02})
  {
    CSampleCloud t = box(40000, 1.0, h, 31);
    EXPECT_GE(agreeing(t, estimate(t)), 0.995) << "half thickness " << h;
  }
}

TEST(NormalEstimation, ViewpointOrientsAScan)
{
  // A wavy height field seen from above, as one scan: every normal must face
  // the scanner side (+z of the surface), also at the steep flanks.
  CSampleCloud t;
  QZTest::CCloudRandom rnd(41);
  for (int i = 0; i < 20000; ++i)
  {
    double const x = rnd.uniform(-1, 1), y = rnd.uniform(-1, 1);
    double const zx = std::cos(4 * x) * std::cos(3 * y), zy = -0.75 * std::sin(4 * x) * std::sin(3 * y);
    double const l = std::sqrt(zx * zx + zy * zy + 1);
    t.add(x, y, 0.25 * std::sin(4 * x) * std::cos(3 * y), -zx / l, -zy / l, 1 / l);
  }
  jitter(t, 0.002, 42);
  CNormalEstimationParams p;
  p.setViewpoint(Point3D_d(0.4, -0.3, 2.5));
  CEstimatedNormals const r = estimate(t, p);
  EXPECT_GE(agreeing(t, r), 0.999);
  EXPECT_EQ(r.getComponentCount(), 1);

  // Every point facing the viewpoint directly: no normal turns away from it.
  p.setViewpointMinCosine(0.0);
  CEstimatedNormals const direct = estimate(t, p);
  for (int i = 0; i < t.size(); ++i)
  {
    float const *q = xyz(t) + 3 * static_cast<std::size_t>(i), *n = direct.getNormal(i);
    ASSERT_GE(n[0] * (0.4 - q[0]) + n[1] * (-0.3 - q[1]) + n[2] * (2.5 - q[2]), 0.0) << i;
  }
}

TEST_F(NormalEstimationThreads, ResultsDoNotDependOnTheThreadCount)
{
  CSampleCloud t = QZTest::makeTorusCloud(12000, 1.0, 0.3, 51);
  jitter(t, 0.003, 52);
  for (bool second : {false, true})
  {
    CNormalEstimationParams p;
    p.setSecondOrder(second);
    CVescaThreadingTasksHelper::setNumOfPhisicalThread(1);
    CEstimatedNormals const one = estimate(t, p);
    CVescaThreadingTasksHelper::setNumOfPhisicalThread(3);
    CEstimatedNormals const three = estimate(t, p);
    EXPECT_EQ(one.getNormals(), three.getNormals()) << second;
    EXPECT_EQ(one.getCurvatures(), three.getCurvatures()) << second;
  }
}

TEST_F(NormalEstimationThreads, InterruptionStopsEachStepAndClearsTheResult)
{
  struct Interrupter : IProgressObserver
  {
    CProgressCounter * counter = nullptr;
    double at = 0.0;
    void onProgress(double pos, std::string const &) override
    {
      if (pos >= at)
        counter->RequestInterrupt();
    }
  };
  CSampleCloud const t = QZTest::makeSphereCloud(60000, 1.0, 61);
  for (int threads : {1, 2})
    for (double at : {0.0, 0.1, 0.6, 0.9})
    {
      CVescaThreadingTasksHelper::setNumOfPhisicalThread(threads);
      CProgressCounter progress;
      Interrupter stop;
      stop.counter = &progress;
      stop.at = at;
      progress.AddObserver(&stop);
      CEstimatedNormals r;
      EXPECT_THROW(CNormalEstimator().run(xyz(t), t.size(), r, &progress), CUserIntrException)
          << threads << " threads, at " << at;
      EXPECT_EQ(r.size(), 0);
      EXPECT_EQ(progress.GetRangeDepth(), 0);
    }
}

TEST(NormalEstimation, BadInputIsRefusedWithItsCause)
{
  CSampleCloud const good = QZTest::makeSphereCloud(200, 1.0, 71);
  CSampleCloud nan = good, same, line;
  nan.coordsMod(17)[1] = std::numeric_limits<float>::quiet_NaN();
  QZTest::CCloudRandom rnd(72);
  for (int i = 0; i < 50; ++i)
  {
    same.add(1.5, -2, 3, 0, 0, 1);
    double const s = rnd.uniform(-10, 10); // along a slanted line: float rounding puts points off it
    line.add(1 + 0.3 * s, 2 - 0.7 * s, 0.1 * s, 0, 0, 1);
  }
  double const qnan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  using Set = std::function<void(CNormalEstimationParams &)>;
  struct Case
  {
    Set set;
    CSampleCloud const * cloud;
    int count; // -1: the cloud's size
    ENormalEstimationFailure reason;
    char const * what; // nullptr: not checked
  } const cases[] = {
      {[](auto & p) { p.setNeighbours(0); }, &good, -1, eNEBadNeighbourCount,
       "Normal estimation: the neighbour count k must be positive, got 0"},
      {[](auto & p) { p.setMaxRadius(-1.0); }, &good, -1, eNEBadRadius,
       "Normal estimation: the radius limit must be 0 (none) or positive, got -1"},
      {[=](auto & p) { p.setMaxRadius(qnan); }, &good, -1, eNEBadRadius, nullptr},
      {[=](auto & p) { p.setViewpoint(Point3D_d(0.0, inf, 0.0)); }, &good, -1, eNEBadViewpoint,
       "Normal estimation: the viewpoint has a non-finite coordinate"},
      {[](auto & p) { p.setNoiseRatio(-0.5); }, &good, -1, eNEBadNoiseRatio,
       "Normal estimation: the noise ratio must be 0 or more, got -0.5"},
      {[=](auto & p) { p.setNoiseRatio(qnan); }, &good, -1, eNEBadNoiseRatio, nullptr},
      {Set(), nullptr, 5, eNENoPoints, "Normal estimation: no point coordinates were given"},
      {Set(), &good, 20, eNETooFewPoints, "Normal estimation: 20 points, fewer than k + 1 = 21"},
      {Set(), nullptr, 0, eNETooFewPoints, nullptr},
      {Set(), &nan, -1, eNENonFinitePoint, "Normal estimation: point 17 has a non-finite coordinate"},
      {Set(), &same, -1, eNEAllCoincident, "Normal estimation: all 50 points coincide"},
      {Set(), &line, -1, eNEAllCollinear, "Normal estimation: all 50 points lie on one line"},
  };
  for (Case const & c : cases)
  {
    CNormalEstimationParams p;
    if (c.set)
      c.set(p);
    CEstimatedNormals r;
    float const * coords = c.cloud ? xyz(*c.cloud) : nullptr;
    try
    {
      CNormalEstimator(p).run(coords, c.count < 0 ? c.cloud->size() : c.count, r);
      ADD_FAILURE() << "accepted: reason " << c.reason;
    }
    catch (CNormalEstimationError const & e)
    {
      EXPECT_EQ(e.getReason(), c.reason);
      EXPECT_EQ(r.size(), 0);
      EXPECT_STREQ(e.what(), c.what ? c.what : e.what());
    }
  }

  // Steps given each other's results for another cloud.
  CNeighbourGraph g;
  CEstimatedNormals r;
  CNormalEstimator e;
  e.findNeighbours(xyz(good), 100, g);
  EXPECT_EQ(QZTest::whatOf<CNormalEstimationError>([&] { e.estimateNormals(xyz(good), good.size(), g, r); }),
            "Normal estimation: the neighbours were made for 100 points, not 200");
}

TEST(NormalEstimation, DegenerateNeighbourhoodsTakeTheFallback)
{
  // A plane, a wire standing out of it, and a lump of 25 copies of one
  // point: the wire's far points and the lump have no plane of their own.
  CSampleCloud t = QZTest::makePlaneCloud(2000, 1.0, 0.0, 81);
  for (int i = 1; i <= 60; ++i)
    t.add(0.0, 0.0, 0.02 * i, 0, 0, 1);
  int const lump = t.size();
  for (int i = 0; i < 25; ++i)
    t.add(5, 5, 5, 0, 0, 1);
  CNormalEstimationParams p;
  p.setNeighbours(10);
  CNormalEstimator e(p);
  CNeighbourGraph g;
  CEstimatedNormals r;
  e.findNeighbours(xyz(t), t.size(), g);
  e.estimateNormals(xyz(t), t.size(), g, r);
  EXPECT_EQ(g.getDuplicateCount(), 25);
  int wire = 0, degenerate = 0;
  for (int i = 0; i < t.size(); ++i)
  {
    if (!r.isDegenerate(i))
    {
      ASSERT_LT(i, lump);
      continue;
    }
    ++degenerate;
    wire += i >= 2000 && i < lump;
    // The fallback is the normal of the nearest sound neighbour, if any;
    // else (the lump) +z.
    int const *nb = g.getNeighbours(i), *end = nb + g.getNeighbourCount(i);
    int const * sound = std::find_if(nb, end, [&](int j) { return !r.isDegenerate(j); });
    EXPECT_EQ(normalOf(r, i), sound != end ? normalOf(r, *sound) : std::vector<float>({0.0f, 0.0f, 1.0f}));
    EXPECT_TRUE(i < lump || sound == end);
  }
  EXPECT_GE(wire, 50); // the top of the wire sees only the wire
  EXPECT_EQ(r.getDegenerateCount(), degenerate);
  e.orientNormals(xyz(t), t.size(), g, r);
  EXPECT_EQ(r.getDegenerateCount(), degenerate);
  EXPECT_EQ(r.getComponentCount(), 2); // the lump is apart
}
