#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/Common/Checks.h"
#include "tests/Reconstruction/ReconstructionSupport.h"

using namespace VolTr;
using namespace qztest;

namespace
{
QZTest::CSampleCloud const & sphere()
{
  static QZTest::CSampleCloud const c = QZTest::makeSphereCloud(6000, 1.0, 21);
  return c;
}

// Samples of the unit sphere above zMin with their normals times `sign`;
// those below zBoundary are marked as boundary.
QZTest::CSampleCloud sphereCap(int n, std::uint64_t seed, double zMin, float sign, double zBoundary)
{
  QZTest::CSampleCloud cloud;
  QZTest::CCloudRandom rnd(seed);
  for (int i = 0; i < n; ++i)
  {
    double const z = rnd.uniform(zMin, 1.0), phi = rnd.uniform(0.0, 2 * M_PI), s = std::sqrt(1 - z * z);
    float const x = static_cast<float>(s * std::cos(phi)), y = static_cast<float>(s * std::sin(phi));
    cloud.add(x, y, static_cast<float>(z), sign * x, sign * y, sign * static_cast<float>(z), z < zBoundary);
  }
  return cloud;
}

void expectClosedSphere(Mesh const & m, int depth)
{
  MeshTopology const t = analyse(m);
  EXPECT_TRUE(t.closedManifold()) << "boundary " << t.boundaryEdges << " non-manifold " << t.nonManifoldEdges
                                  << " inconsistent " << t.inconsistentEdges;
  EXPECT_EQ((std::vector<int>{t.eulerCharacteristic, t.components, t.unusedVertices}),
            (std::vector<int>{2, 1, 0}));
  double const cell = 2.02 / (1 << depth) * 2; // the leaf cell of the tree around the unit sphere
  EXPECT_LT(surfaceError(m, 1.0)[0], 0.5 * cell);
  EXPECT_GT(signedVolume(m), 0.9 * 4.18879); // outward orientation, and about the right size
  EXPECT_LT(signedVolume(m), 1.05 * 4.18879);
}
} // namespace

// The log of a run, and the same mesh with one thread, where the system is
// assembled in two phases and the iso-value summed in one strip.
TEST(Reconstruction, LogProtocolInOrderAndTheSameMeshWhateverTheThreads)
{
  RunResult r[2];
  for (int k = 0; k < 2; ++k)
  {
    ThreadCount const threads(2 - k);
    r[k] = reconstruct(sphere(), makeParams(5));
  }
  ASSERT_EQ(r[0].mesh.triangles, r[1].mesh.triangles);
  for (std::size_t i = 0; i < r[0].mesh.vertices.size(); ++i)
    for (int k = 0; k < 3; ++k)
      EXPECT_NEAR(r[0].mesh.vertices[i][k], r[1].mesh.vertices[i][k], 1e-9);
  std::vector<std::string> labels;
  for (auto const & line : r[0].log)
    labels.push_back(line.substr(0, line.find(':')));
  // The lines up to the density level are checked one by one with the
  // triangulator; the density's follow them.
  ASSERT_GE(labels.size(), 26u);
  EXPECT_EQ(
      std::vector<std::string>(labels.begin() + 20, labels.begin() + 26),
      (std::vector<std::string>{"Density estimation level", "Weights normalized by factor", "Average density",
                                "Minimal density", "Maximal density", "Use CSparseStoreSparseLinSysSolver"}));
  // The two assembly tasks log side by side; their lines come in their own order.
  auto position = [&](std::string const & label)
  { return std::find(labels.begin(), labels.end(), label) - labels.begin(); };
  EXPECT_LT(position("System size"), position("Right part normalized by factor"));
  EXPECT_LT(position("Right part normalized by factor"), position("Right part scalar product cash size"));
  EXPECT_LT(position("Reserving memory for system matrix, elements expected"),
            position("Matrix scalar product cash size"));
  std::vector<std::string> const tail = {"Matrix scalar product cash size", "Non zero elements in system",
                                         "Average non-zero elements per line", "System symmetric",
                                         "System positive definite"};
  for (std::size_t i = 1; i < tail.size(); ++i)
    EXPECT_EQ(position(tail[i]), position(tail[i - 1]) + 1);
  std::vector<std::string> const end = {"Trying to solve linear system...",
                                        "System normalized by factor",
                                        "Linear system solved",
                                        "Start calculating iso-value...",
                                        "Surface iso-value",
                                        "<Marching cubes>",
                                        "Edge length",
                                        "Bounds",
                                        "Start point",
                                        "Expected faces number",
                                        "Added vertexes",
                                        "Added triangles",
                                        "</Marching cubes>",
                                        "Volumetric triangulation core completed"};
  EXPECT_EQ(std::vector<std::string>(labels.end() - end.size(), labels.end()), end);
  std::vector<std::string> values;
  for (char const * label :
       {"System symmetric", "Bounds", "Expected faces number", "Added triangles", "Added vertexes"})
    values.push_back(logValue(r[0].log, label));
  EXPECT_EQ(values,
            (std::vector<std::string>{"1", "33, 33, 33", "6534", std::to_string(r[0].mesh.triangles.size()),
                                      std::to_string(r[0].mesh.vertices.size())}));
}

// Every solver gives the direct solve's surface (depth 4 keeps the
// unpreconditioned iterative solves short), with zero normals when none are
// asked for; without the density, with corner nodes on fewer depths, the
// sphere stays closed and accurate, and the normals asked for are unit and
// outward.
TEST(Reconstruction, EverySolverSchemeAndNormalsOptionGivesTheSphere)
{
  CVolTriangulationParams p = makeParams(4);
  RunResult const direct = reconstruct(sphere(), p);
  expectClosedSphere(direct.mesh, 4);
  for (auto const & n : direct.mesh.normals)
    EXPECT_EQ(n, (std::array<double, 3>{0, 0, 0}));
  for (int solver : {2, 3, 4})
  {
    p.setPrefferedSolver(solver);
    RunResult const r = reconstruct(sphere(), p);
    expectClosedSphere(r.mesh, 4);
    EXPECT_NEAR(signedVolume(r.mesh), signedVolume(direct.mesh), 2e-3) << "solver " << solver;
    EXPECT_TRUE(solver != 3 || logValue(r.log, "Iterations used") != "");
  }
  p = makeParams(5);
  p.setVariableDensity(false);
  p.setUseCenter(false);
  p.setDetalizationLevel(2);
  p.setEstimateResultNormals(true);
  RunResult const r = reconstruct(sphere(), p);
  expectClosedSphere(r.mesh, 5);
  EXPECT_EQ(logValue(r.log, "Weights normalized by factor"), "");
  for (std::size_t i = 0; i < r.mesh.vertices.size(); ++i)
  {
    auto const &v = r.mesh.vertices[i], &n = r.mesh.normals[i];
    EXPECT_NEAR(n[0] * n[0] + n[1] * n[1] + n[2] * n[2], 1.0, 1e-9);
    double const len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    EXPECT_GT((n[0] * v[0] + n[1] * v[1] + n[2] * v[2]) / len, 0.95);
  }
}

// An open surface stops at the samples marked as its border (a half sphere
// with its rim marked); normals that point inward turn the surface.
TEST(Reconstruction, BorderAndOrientationFollowTheSamples)
{
  CVolTriangulationParams p = makeParams(5);
  p.setClosed(false);
  QZTest::CSampleCloud const half = sphereCap(5000, 8, 0.0, 1.0f, 0.03);
  RunResult const open = reconstruct(half, p);
  MeshTopology const t = analyse(open.mesh);
  EXPECT_GT(t.boundaryEdges, 0);
  EXPECT_EQ(std::make_pair(t.nonManifoldEdges, t.inconsistentEdges), std::make_pair(0, 0));
  double const edge = 2.0 / 16;
  for (auto const & v : open.mesh.vertices)
    EXPECT_GT(v[2], -4 * edge); // nothing far below the rim
  p.setClosed(true);
  EXPECT_EQ(analyse(reconstruct(half, p).mesh).boundaryEdges, 0);

  RunResult const inward = reconstruct(sphereCap(4000, 4, -1.0, -1.0f, -2.0), makeParams(5));
  EXPECT_TRUE(analyse(inward.mesh).closedManifold());
  EXPECT_LT(signedVolume(inward.mesh), 0.0);
}

// Empty, a single point, coincident points: a documented failure or a
// surface, never a crash or a hang. An unknown solver fails after the tree,
// the gradient basis and the density.
TEST(Reconstruction, BadInputFailsWithItsText)
{
  QZTest::CSampleCloud empty, single, same;
  single.add(0.5f, 0.5f, 0.5f, 0, 0, 1);
  for (int i = 0; i < 50; ++i)
    same.add(1, 2, 3, 0, 1, 0);
  for (QZTest::CSampleCloud const * c : {&empty, &single, &same})
    for (bool density : {true, false})
    {
      CVolTriangulationParams p = makeParams(4);
      p.setVariableDensity(density);
      // A documented failure is as good as a surface.
      QZTest::whatOf<CVolTriangulationError>([&]
                                             { EXPECT_EQ(analyse(reconstruct(*c, p).mesh).badIndices, 0); });
    }
  for (int solver : {5, -1})
  {
    CVolTriangulationParams p = makeParams(4);
    p.setPrefferedSolver(solver);
    VsUt::CMemoryDebugLog log;
    p.setDebugLog(&log);
    CMeshTarget target;
    CVolumetricTriangulator t(&target, &sphere(), &p, nullptr);
    EXPECT_EQ(QZTest::whatOf<CVolTriangulationError>([&] { t.run(); }), "Unexpected solver type");
    EXPECT_EQ(logValue(log.lines(), "Error unexpected solver type"), std::to_string(solver));
    EXPECT_NE(logValue(log.lines(), "Average density"), "");
  }
}

// Progress rises through the phases, in their order, to 1; an interruption
// requested in any of them leaves run, before the surface with no triangle.
TEST(Reconstruction, ProgressRisesThroughThePhasesAndInterruptionLeavesEachOfThem)
{
  CVolTriangulationParams p = makeParams(5);
  p.setPhaseNameShown(true);
  for (int threads : {1, 2})
  {
    ThreadCount const count(threads);
    CProgressCounter progress;
    PhaseObserver rec(&progress);
    reconstruct(sphere(), p, &progress);
    EXPECT_DOUBLE_EQ(progress.GetPosFloat(), 1.0);
    EXPECT_TRUE(std::is_sorted(rec.positions.begin(), rec.positions.end()));
    std::vector<std::string> phases = {"tree",     "grad_basis",        "density weights",
                                       "grad_div", "matrix+right_part", "update right part",
                                       "solve",    "iso-value",         "iso-surface"};
    if (threads == 1)
      phases.insert(phases.erase(phases.begin() + 4), {"right_part", "matrix"});
    EXPECT_EQ(rec.names, phases);
    for (std::string const & phase : phases)
    {
      CProgressCounter interrupted;
      PhaseObserver interrupt(&interrupted, phase);
      CMeshTarget target;
      CVolumetricTriangulator t(&target, &sphere(), &p, &interrupted);
      EXPECT_THROW(t.run(), CUserIntrException) << phase;
      EXPECT_TRUE(phase == "iso-surface" || target.mesh.triangles.empty()) << phase;
    }
  }
}
