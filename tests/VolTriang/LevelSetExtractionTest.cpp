#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "QZmath/VolTriang/LevelSetExtraction.h"
#include "QZsys/Exceptions.h"
#include "tests/Common/Checks.h"
#include "tests/Reconstruction/ReconstructionSupport.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
using Extraction = CLevelSetExtraction;

// Everything the target sees, in order.
struct Recorder : ITriangulationTarget
{
  std::vector<std::array<double, 7>> vertices; // index, position, normal
  std::vector<std::array<int, 3>> triangles;
  CProgressCounter * interruptAfter = nullptr;
  std::size_t interruptCount = 0;

private:
  void onAddNewVertex(int index, double const * p, double const * n) override
  {
    vertices.push_back({double(index), p[0], p[1], p[2], n[0], n[1], n[2]});
  }
  void onAddNewVertex(int, float const *, float const *) override { ADD_FAILURE(); }
  void onAddNewTriangle(int a, int b, int c) override
  {
    triangles.push_back({a, b, c});
    if (interruptAfter && triangles.size() == interruptCount)
      interruptAfter->RequestInterrupt();
  }
};

using qztest::ThreadCount;

// A smooth function that is negative inside a wavy sphere, on the tree of a
// sphere cloud: every node gets h^3 times its value at the node, plus noise,
// so that all depths carry coefficients as after a solve.
struct Fixture : qztest::SphereBases
{
  std::unique_ptr<Extraction::LinComb> x;
  CVolTriangulationParams params;
  Extraction::Basis const * gradients[3];

  explicit Fixture(int depth, int points = 3000) : SphereBases(depth, true, points, 17)
  {
    x.reset(new Extraction::LinComb(basis.get()));
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> noise(-0.02, 0.02);
    for (int i = 0; i < n(); ++i)
    {
      double c[3];
      tree->getNodePosition(i, c);
      double const h = tree->getCellSize(tree->getNodeDepth(i));
      double const r = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
      x->setBasisCoefficient(i, h * h * h * (r - 1.0 + 0.05 * std::sin(5.0 * c[0]) + noise(rng)));
    }
    params.setOctreeDepth(depth);
    for (int a = 0; a < 3; ++a)
      gradients[a] = grad[a].get();
  }
};
} // namespace

TEST(LevelSetExtraction, FastPathsGiveTheSpecifiedIsoValueAndSequenceAndInterruptionsItsBeginning)
{
  Fixture fx(6);
  std::vector<float> weights;
  for (int i = 0; i < fx.cloud.pointsNumber(); ++i)
    weights.push_back(0.5f + 0.001f * (i % 700));
  for (int threads : {1, 2})
  {
    ThreadCount const count(threads);
    for (std::vector<float> const * w : {static_cast<std::vector<float> const *>(nullptr),
                                         static_cast<std::vector<float> const *>(&weights)})
      EXPECT_EQ(Extraction::meanValueAtSamples(*fx.x, &fx.cloud, w, nullptr, Extraction::eFast),
                Extraction::meanValueAtSamples(*fx.x, &fx.cloud, w, nullptr, Extraction::eSpecified));
  }
  EXPECT_EQ(Extraction::meanValueAtSamples(*fx.x, nullptr, nullptr, nullptr), 0.0);

  // The target must see the same vertices (positions and normals bit for bit)
  // and triangles in the same order from the specified and the fast path,
  // with one or two threads, closed or open, with or without normals.
  // Interpolated vertices keep the triangles and move the vertices little,
  // alike on one or two threads.
  double const iso = Extraction::meanValueAtSamples(*fx.x, &fx.cloud, nullptr, nullptr);
  for (bool closed : {true, false})
    for (bool normals : {false, true})
    {
      fx.params.setClosed(closed);
      auto const run = [&](Recorder * target, Extraction::EEvaluation mode, int * vertices = nullptr)
      {
        return Extraction::polygonise(*fx.x, iso, normals ? fx.gradients : nullptr, &fx.cloud, fx.params,
                                      target, nullptr, nullptr, mode, vertices);
      };
      Recorder specified;
      int specifiedVertices = 0;
      int const triangles = run(&specified, Extraction::eSpecified, &specifiedVertices);
      EXPECT_EQ(std::make_pair(triangles, specifiedVertices),
                std::make_pair(int(specified.triangles.size()), int(specified.vertices.size())));
      // The golden counts of this function: a change of the walk shows here.
      if (closed)
      {
        EXPECT_EQ(std::make_pair(specified.vertices.size(), specified.triangles.size()),
                  std::make_pair(std::size_t(14398), std::size_t(28792)));
        qztest::Mesh mesh;
        mesh.vertices.resize(specified.vertices.size()); // the topology needs only their number
        mesh.triangles = specified.triangles;
        EXPECT_TRUE(qztest::analyse(mesh).closedManifold());
      }
      Recorder movedOneThread;
      for (int threads : {1, 2})
      {
        ThreadCount const count(threads);
        Recorder fast;
        EXPECT_EQ(run(&fast, Extraction::eFast), triangles);
        EXPECT_TRUE(fast.vertices == specified.vertices) << closed << normals << threads;
        EXPECT_TRUE(fast.triangles == specified.triangles) << closed << normals << threads;

        // Interpolated vertices: the same mesh, each vertex moved along its
        // edge by about the bisection's last step at most.
        fx.params.setVertexInterpolation(3);
        Recorder moved;
        run(&moved, Extraction::eFast);
        fx.params.setVertexInterpolation(0);
        EXPECT_TRUE(moved.triangles == specified.triangles);
        ASSERT_EQ(moved.vertices.size(), specified.vertices.size());
        std::vector<double> shifts;
        for (std::size_t i = 0; i < moved.vertices.size(); ++i)
          shifts.push_back(std::hypot(moved.vertices[i][1] - specified.vertices[i][1],
                                      moved.vertices[i][2] - specified.vertices[i][2],
                                      moved.vertices[i][3] - specified.vertices[i][3]));
        std::sort(shifts.begin(), shifts.end());
        double const edge = fx.tree->getCellSize(fx.params.getOctreeDepth() - 1);
        EXPECT_LT(shifts[shifts.size() / 2], 2e-3 * edge);
        EXPECT_LT(shifts[shifts.size() * 99 / 100], 3e-2 * edge);
        EXPECT_TRUE(threads == 1 || moved.vertices == movedOneThread.vertices);
        movedOneThread = moved;
      }
      if (!closed || normals)
        continue;
      // An interruption keeps what was delivered: the beginning of the whole
      // sequence.
      ThreadCount const count(2);
      for (std::size_t after : {1u, 5000u})
      {
        CProgressCounter progress;
        Recorder part;
        part.interruptAfter = &progress;
        part.interruptCount = after;
        EXPECT_THROW(
            Extraction::polygonise(*fx.x, iso, nullptr, &fx.cloud, fx.params, &part, &progress, nullptr),
            CUserIntrException);
        ASSERT_EQ(part.triangles.size(), after);
        ASSERT_LE(part.vertices.size(), specified.vertices.size());
        EXPECT_TRUE(std::equal(part.vertices.begin(), part.vertices.end(), specified.vertices.begin()));
        EXPECT_TRUE(std::equal(part.triangles.begin(), part.triangles.end(), specified.triangles.begin()));
      }
    }
}

TEST(LevelSetExtraction, NoSurfaceFailsWithTheDocumentedText)
{
  // Without samples the walk starts at the box centre.
  Fixture fx(4, 500);
  double const iso = Extraction::meanValueAtSamples(*fx.x, &fx.cloud, nullptr, nullptr);
  Recorder fromCentre;
  std::string const centre = QZTest::whatOf<CVolTriangulationError>(
      [&]
      { Extraction::polygonise(*fx.x, iso, nullptr, nullptr, fx.params, &fromCentre, nullptr, nullptr); });
  EXPECT_TRUE(centre == "<nothing thrown>" || centre == "Failed to reconstruct iso-value surface") << centre;

  for (int n = 0; n < fx.basis->getFunctionsNumber(); ++n)
    fx.x->setBasisCoefficient(n, 0.0); // no crossing anywhere
  for (auto mode : {Extraction::eSpecified, Extraction::eFast})
  {
    Recorder target;
    auto const run = [&]
    { Extraction::polygonise(*fx.x, 0.0, nullptr, &fx.cloud, fx.params, &target, nullptr, nullptr, mode); };
    EXPECT_EQ(QZTest::whatOf<CVolTriangulationError>(run), "Failed to reconstruct iso-value surface");
    EXPECT_TRUE(target.triangles.empty());
  }
}
