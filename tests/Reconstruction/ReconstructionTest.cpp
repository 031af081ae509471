#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <map>
#include <set>
#include <stdexcept>

#include "QZsys/Threading.h"
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

// Restores the physical thread count a test changed.
struct ThreadCount
{
  explicit ThreadCount(int n) { CVescaThreadingTasksHelper::setNumOfPhisicalThread(n); }
  ~ThreadCount() { CVescaThreadingTasksHelper::setNumOfPhisicalThread(0); }
};

void expectClosedSphere(Mesh const & m, int depth)
{
  MeshTopology const t = analyse(m);
  EXPECT_TRUE(t.closedManifold()) << "boundary " << t.boundaryEdges << " non-manifold " << t.nonManifoldEdges
                                  << " inconsistent " << t.inconsistentEdges;
  EXPECT_EQ(t.eulerCharacteristic, 2);
  EXPECT_EQ(t.components, 1);
  EXPECT_EQ(t.unusedVertices, 0);
  double const cell = 2.02 / (1 << depth) * 2; // the leaf cell of the tree around the unit sphere
  EXPECT_LT(sphereError(m, 1.0), 0.5 * cell);
  EXPECT_GT(signedVolume(m), 0.9 * 4.18879); // outward orientation, and about the right size
  EXPECT_LT(signedVolume(m), 1.05 * 4.18879);
}
} // namespace

TEST(Reconstruction, SphereIsClosedOrientedAndAccurate)
{
  for (int depth : {5, 6})
  {
    RunResult const r = reconstruct(sphere(), makeParams(depth));
    expectClosedSphere(r.mesh, depth);
    EXPECT_TRUE(r.indicesInOrder);
    for (auto const & n : r.mesh.normals) // no normals asked for
      EXPECT_EQ(n, (std::array<double, 3>{0, 0, 0}));
  }
}

TEST(Reconstruction, TorusHasGenusOne)
{
  QZTest::CSampleCloud const torus = QZTest::makeTorusCloud(8000, 1.0, 0.35, 5);
  RunResult const r = reconstruct(torus, makeParams(6));
  MeshTopology const t = analyse(r.mesh);
  EXPECT_TRUE(t.closedManifold());
  EXPECT_EQ(t.eulerCharacteristic, 0);
  EXPECT_LT(torusError(r.mesh, 1.0, 0.35), 0.5 * 2.72 / 32);
  EXPECT_NEAR(signedVolume(r.mesh), 2 * M_PI * M_PI * 0.35 * 0.35, 0.1 * 2.42);
}

TEST(Reconstruction, LogProtocolInOrder)
{
  ThreadCount const two(2);
  RunResult const r = reconstruct(sphere(), makeParams(5));
  std::vector<std::string> labels;
  for (auto const & line : r.log)
    labels.push_back(line.substr(0, line.find(':')));
  std::vector<std::string> const expected = {"Volumetric triangulation core started",
                                             "Octree depth",
                                             "Kernel scale",
                                             "Subdivision factor",
                                             "Closed",
                                             "Normals by gradient",
                                             "Center scheme",
                                             "Samples #",
                                             "Variable density",
                                             "Density estimation level delta",
                                             "Octree depth",
                                             "Leaf cells",
                                             "Nodes number ",
                                             "Node depth bounds",
                                             "Leaf cell size",
                                             "Cells box min",
                                             "Cells box max",
                                             "Node min",
                                             "Node max",
                                             "Kernel support size in cells",
                                             "Density estimation level",
                                             "Weights normalized by factor",
                                             "Average density",
                                             "Minimal density",
                                             "Maximal density",
                                             "Use CSparseStoreSparseLinSysSolver"};
  ASSERT_GE(labels.size(), expected.size());
  EXPECT_EQ(std::vector<std::string>(labels.begin(), labels.begin() + expected.size()), expected);
  // The two assembly tasks log side by side; their lines come in their own order.
  auto position = [&](std::string const & label) {
    return std::find(labels.begin(), labels.end(), label) - labels.begin();
  };
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
  EXPECT_EQ(logValue(r.log, "System symmetric"), "1");
  EXPECT_EQ(logValue(r.log, "Bounds"), "33, 33, 33");
  EXPECT_EQ(logValue(r.log, "Expected faces number"), "6534");
  EXPECT_EQ(logValue(r.log, "Added triangles"), std::to_string(r.mesh.triangles.size()));
  EXPECT_EQ(logValue(r.log, "Added vertexes"), std::to_string(r.mesh.vertices.size()));
}

TEST(Reconstruction, DeterministicAndIndependentOfThreads)
{
  RunResult a, b, c;
  {
    ThreadCount const two(2);
    a = reconstruct(sphere(), makeParams(5));
    b = reconstruct(sphere(), makeParams(5));
  }
  {
    ThreadCount const one(1);
    c = reconstruct(sphere(), makeParams(5));
  }
  EXPECT_EQ(a.mesh.triangles, b.mesh.triangles);
  EXPECT_EQ(a.mesh.vertices, b.mesh.vertices);
  // One thread assembles the same system and sums the iso-value in one strip.
  ASSERT_EQ(a.mesh.triangles, c.mesh.triangles);
  for (std::size_t i = 0; i < a.mesh.vertices.size(); ++i)
    for (int k = 0; k < 3; ++k)
      EXPECT_NEAR(a.mesh.vertices[i][k], c.mesh.vertices[i][k], 1e-9);
  std::set<std::string> phases;
  for (auto const & line : c.log)
    phases.insert(line.substr(0, line.find(':')));
  EXPECT_TRUE(phases.count("System size"));
}

TEST(Reconstruction, EverySolverGivesTheSameSurface)
{
  // Depth 4 keeps the unpreconditioned iterative solves short.
  CVolTriangulationParams p = makeParams(4);
  RunResult const direct = reconstruct(sphere(), p);
  for (int solver : {2, 3, 4})
  {
    p.setPrefferedSolver(solver);
    RunResult const r = reconstruct(sphere(), p);
    expectClosedSphere(r.mesh, 4);
    EXPECT_NEAR(signedVolume(r.mesh), signedVolume(direct.mesh), 2e-3) << "solver " << solver;
    if (solver == 3)
    {
      EXPECT_NE(logValue(r.log, "Iterations used"), "");
    }
  }
}

TEST(Reconstruction, WithoutDensityAndWithCornerNodes)
{
  CVolTriangulationParams p = makeParams(5);
  p.setVariableDensity(false);
  RunResult const r = reconstruct(sphere(), p);
  expectClosedSphere(r.mesh, 5);
  EXPECT_EQ(logValue(r.log, "Weights normalized by factor"), "");
  p.setUseCenter(false);
  p.setDetalizationLevel(2);
  RunResult const corner = reconstruct(sphere(), p);
  expectClosedSphere(corner.mesh, 5);
}

TEST(Reconstruction, NormalsByGradientPointOutward)
{
  CVolTriangulationParams p = makeParams(5);
  p.setEstimateResultNormals(true);
  RunResult const r = reconstruct(sphere(), p);
  expectClosedSphere(r.mesh, 5);
  for (std::size_t i = 0; i < r.mesh.vertices.size(); ++i)
  {
    auto const & v = r.mesh.vertices[i];
    auto const & n = r.mesh.normals[i];
    EXPECT_NEAR(n[0] * n[0] + n[1] * n[1] + n[2] * n[2], 1.0, 1e-9);
    double const len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    EXPECT_GT((n[0] * v[0] + n[1] * v[1] + n[2] * v[2]) / len, 0.95);
  }
}

TEST(Reconstruction, OpenSurfaceStopsAtItsBorder)
{
  // A half sphere whose rim samples are marked as boundary.
  QZTest::CSampleCloud cloud;
  QZTest::CCloudRandom rnd(8);
  for (int i = 0; i < 5000; ++i)
  {
    double const z = rnd.uniform(0.0, 1.0), phi = rnd.uniform(0.0, 2 * M_PI), s = std::sqrt(1 - z * z);
    cloud.add(static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)), static_cast<float>(z),
              static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)), static_cast<float>(z),
              z < 0.03);
  }
  CVolTriangulationParams p = makeParams(5);
  p.setClosed(false);
  RunResult const open = reconstruct(cloud, p);
  MeshTopology const t = analyse(open.mesh);
  EXPECT_GT(t.boundaryEdges, 0);
  EXPECT_EQ(t.nonManifoldEdges, 0);
  EXPECT_EQ(t.inconsistentEdges, 0);
  double const edge = 2.0 / 16;
  for (auto const & v : open.mesh.vertices)
    EXPECT_GT(v[2], -4 * edge); // nothing far below the rim
  p.setClosed(true);
  RunResult const closed = reconstruct(cloud, p);
  EXPECT_EQ(analyse(closed.mesh).boundaryEdges, 0);
}

TEST(Reconstruction, InwardNormalsTurnTheSurface)
{
  QZTest::CSampleCloud cloud;
  QZTest::CCloudRandom rnd(4);
  for (int i = 0; i < 4000; ++i)
  {
    double const z = rnd.uniform(-1.0, 1.0), phi = rnd.uniform(0.0, 2 * M_PI), s = std::sqrt(1 - z * z);
    float const x = static_cast<float>(s * std::cos(phi)), y = static_cast<float>(s * std::sin(phi));
    cloud.add(x, y, static_cast<float>(z), -x, -y, static_cast<float>(-z));
  }
  RunResult const r = reconstruct(cloud, makeParams(5));
  EXPECT_TRUE(analyse(r.mesh).closedManifold());
  EXPECT_LT(signedVolume(r.mesh), 0.0);
}

TEST(Reconstruction, FailuresCarryTheirTexts)
{
  for (int solver : {5, -1})
  {
    CVolTriangulationParams p = makeParams(4);
    p.setPrefferedSolver(solver);
    VsUt::CMemoryDebugLog log;
    p.setDebugLog(&log);
    CMeshTarget target;
    CVolumetricTriangulator t(&target, &sphere(), &p, nullptr);
    EXPECT_EQ(QZTest::whatOf<CVolTriangulationError>([&] { t.run(); }), "Unexpected solver type");
    // The tree, the gradient basis and the density came first.
    EXPECT_EQ(logValue(log.lines(), "Error unexpected solver type"), std::to_string(solver));
    EXPECT_NE(logValue(log.lines(), "Average density"), "");
  }

  // Zero normals give a zero field, X = 0 everywhere: no surface to walk.
  QZTest::CSampleCloud flat;
  for (int i = 0; i < 200; ++i)
    flat.add(static_cast<float>(std::sin(i)), static_cast<float>(std::cos(3 * i)), static_cast<float>(std::sin(7 * i)),
             0, 0, 0);
  EXPECT_EQ(QZTest::whatOf<CVolTriangulationError>([&] { reconstruct(flat, makeParams(4)); }),
            "Failed to reconstruct iso-value surface");
}

TEST(Reconstruction, DegenerateCloudsFailCleanly)
{
  // Empty, a single point, coincident points: a documented failure or a
  // surface, never a crash or a hang.
  QZTest::CSampleCloud empty, single, same;
  single.add(0.5f, 0.5f, 0.5f, 0, 0, 1);
  for (int i = 0; i < 50; ++i)
    same.add(1, 2, 3, 0, 1, 0);
  for (QZTest::CSampleCloud const * c : {&empty, &single, &same})
    for (bool density : {true, false})
    {
      CVolTriangulationParams p = makeParams(4);
      p.setVariableDensity(density);
      try
      {
        RunResult const r = reconstruct(*c, p);
        EXPECT_EQ(analyse(r.mesh).badIndices, 0);
      }
      catch (CVolTriangulationError const &)
      {
      }
    }
  // Non-finite coordinates are refused before the tree is built.
  QZTest::CSampleCloud bad = QZTest::makeSphereCloud(100, 1.0, 3);
  bad.coordsMod(17)[1] = std::nanf("");
  EXPECT_THROW(reconstruct(bad, makeParams(4)), std::exception);
}

namespace
{
// Requests an interruption as soon as the counter enters a given phase.
class InterruptInPhase : public IProgressObserver
{
public:
  InterruptInPhase(CProgressCounter * c, std::string phase) : m_counter(c), m_phase(std::move(phase)) {}
  void onProgress(double, std::string const & name) override
  {
    if (name == m_phase)
      m_counter->RequestInterrupt();
  }

private:
  CProgressCounter * m_counter;
  std::string m_phase;
};
} // namespace

TEST(Reconstruction, InterruptionInEveryPhaseLeavesRunCleanly)
{
  for (int threads : {1, 2})
  {
    ThreadCount const count(threads);
    std::vector<std::string> phases = {"tree",        "grad_basis", "density weights",   "grad_div",
                                       "update right part", "solve", "iso-value", "iso-surface"};
    if (threads == 1)
    {
      phases.push_back("right_part");
      phases.push_back("matrix");
    }
    else
      phases.push_back("matrix+right_part");
    for (std::string const & phase : phases)
    {
      CProgressCounter progress;
      InterruptInPhase interrupt(&progress, phase);
      progress.AddObserver(&interrupt);
      CVolTriangulationParams p = makeParams(5);
      p.setPhaseNameShown(true);
      CMeshTarget target;
      CVolumetricTriangulator t(&target, &sphere(), &p, &progress);
      EXPECT_THROW(t.run(), CUserIntrException) << phase;
      if (phase != "iso-surface")
      {
        EXPECT_TRUE(target.mesh.triangles.empty()) << phase;
      }
    }
  }
}

TEST(Reconstruction, ProgressRisesThroughThePhasesToOne)
{
  struct Recorder : IProgressObserver
  {
    std::vector<double> positions;
    std::vector<std::string> names;
    void onProgress(double pos, std::string const & name) override
    {
      positions.push_back(pos);
      if (names.empty() || names.back() != name)
        names.push_back(name);
    }
  } rec;
  CProgressCounter progress;
  progress.AddObserver(&rec);
  CVolTriangulationParams p = makeParams(5);
  p.setPhaseNameShown(true);
  reconstruct(sphere(), p, &progress);
  EXPECT_DOUBLE_EQ(progress.GetPosFloat(), 1.0);
  for (std::size_t i = 1; i < rec.positions.size(); ++i)
    ASSERT_GE(rec.positions[i], rec.positions[i - 1]);
  std::vector<std::string> const expected =
      CVescaThreadingTasksHelper::getNumOfPhisicalThread() >= 2
          ? std::vector<std::string>{"tree", "grad_basis", "density weights", "grad_div", "matrix+right_part",
                                     "update right part", "solve", "iso-value", "iso-surface"}
          : std::vector<std::string>{"tree",   "grad_basis",        "density weights", "grad_div", "right_part",
                                     "matrix", "update right part", "solve",           "iso-value", "iso-surface"};
  EXPECT_EQ(rec.names, expected);
}
