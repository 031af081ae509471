// Memory running out at every allocation in turn: the Nth allocation fails,
// for N from 0 until a run gets through. Each failure must come out as
// std::bad_alloc, leave nothing allocated (LeakSanitizer in the sanitizer
// build) and leave the objects usable: the same work done again afterwards
// gives what a run that never failed gives.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "FailingAllocator.h"
#include "QZmath/LinSys/CSRSstorage.h"
#include "QZmath/Persistence/BinaryStream.h"
#include "QZmath/VolTriang/jbProcess.h"
#include "QZsys/TempFile.h"
#include "fuzz/ComponentDocument.h"
#include "tests/Common/Checks.h"
#include "tests/LinSys/LinSysTestSupport.h"
#include "tests/Reconstruction/ReconstructionSupport.h"

namespace
{
/// Runs `attempt(n)` with the allocator failing after n allocations, for
/// n = 0, 1, ... (or the steps `next` takes) until an attempt runs without a
/// refusal or n reaches `limit`; `attempt` returns normally or passes
/// std::bad_alloc on. `after(n, failed)` checks the state once the allocator
/// is disarmed, and frees whatever the attempt kept: then nothing may be
/// left. Returns the number of attempts that failed.
template <class Attempt, class After, class Next>
int sweep(Attempt attempt, After after, Next next, long limit = 200000)
{
  int failures = 0;
  for (long n = 0; n < limit; n = next(n))
  {
    bool threw = false;
    long const live = qzfi::liveAllocations();
    {
      qzfi::ScopedFailure arm(n);
      try
      {
        attempt(n);
      }
      catch (std::bad_alloc const &)
      {
        threw = true;
      }
    }
    bool const refused = qzfi::failed();
    // A refusal that a callee swallowed would hide a failure: every refused
    // allocation must surface as std::bad_alloc.
    EXPECT_EQ(threw, refused) << "allocation " << n;
    after(n, threw);
    EXPECT_EQ(qzfi::liveAllocations(), live) << "left allocated after a failure at allocation " << n;
    if (!refused)
      return failures;
    ++failures;
    if (::testing::Test::HasFailure())
      return failures;
  }
  return failures;
}

template <class Attempt, class After> int sweep(Attempt attempt, After after)
{
  int const failures = sweep(attempt, after, [](long n) { return n + 1; });
  EXPECT_FALSE(qzfi::failed()) << "no attempt got through";
  return failures;
}

/// A dense n x n row-major matrix with about four non-zeros a row.
std::vector<double> randomSparse(int n, bool symmetric, unsigned seed)
{
  return linsys_test::freeMatrix<double>(linsys_test::randomProblem(n, 4, symmetric, seed));
}
} // namespace

// The filler in growing mode: a push that runs out of memory takes neither
// the value nor the column and leaves the filler open, so that the caller can
// make the push again. Making the filler sizes the row index: a failure there
// is an ordinary bad_alloc before anything was filled.
TEST(MemoryExhaustion, CsrFillerPushIsAllOrNothing)
{
  int const n = 30;
  std::vector<double> const a = randomSparse(n, false, 5u);
  struct Fill
  {
    REmath::CCSRSquareMatrix<double> m;
    std::unique_ptr<REmath::CCSRSquareMatrixFiller<double>> filler;
    int next = 0; // the element of `a` to push next
  };
  std::unique_ptr<Fill> f;
  auto goOn = [&](Fill & x)
  {
    for (; x.next < n * n; ++x.next)
      if (a[x.next] != 0)
      {
        ASSERT_TRUE(x.filler->pushByRawNextNonZeroElement(x.next / n + 1, x.next % n + 1, a[x.next]));
      }
  };
  int const failures = sweep(
      [&](long)
      {
        f.reset(new Fill);
        f->filler.reset(new REmath::CCSRSquareMatrixFiller<double>(&f->m, n, -1, 1, false));
        goOn(*f);
      },
      [&](long, bool)
      {
        if (f && f->filler)
        {
          ASSERT_EQ(f->m.getCsrValuesSize(), f->m.getCsrColumnsSize());
          ASSERT_FALSE(f->filler->isSpoiled());
          goOn(*f);
          ASSERT_TRUE(f->filler->setCompleted());
          ASSERT_EQ(f->m.getCsrValuesSize(), f->m.getCsrColumnsSize());
          ASSERT_EQ(linsys_test::densify(f->m), a);
        }
        f.reset();
      });
  EXPECT_GT(failures, 5);
}

// A whole system through its equations: after a failure at any point the
// caller takes up the step that failed and goes on. The storage ends either
// right or spoiled, never wrong while claiming to be complete, and its arrays
// always agree in length.
TEST(MemoryExhaustion, CsrStorageIsNeverSilentlyWrong)
{
  int const n = 20;
  for (bool symmetric : {false, true})
  {
    std::vector<double> const a = randomSparse(n, symmetric, 9u);
    struct Build
    {
      REmath::CCSRSstorage<double> s;
      int defined = 0, added = 0;
    };
    std::unique_ptr<Build> b;
    auto goOn = [&](Build & x)
    {
      for (; x.defined <= n; ++x.defined)
        x.defined < n ? x.s.DefineFreeVertex(x.defined) : x.s.DefineFixedVertex(x.defined);
      for (; x.added < n; ++x.added)
      {
        REmath::CVertexLinearCombination<double> e;
        for (int j = 0; j < n; ++j)
          if (a[static_cast<std::size_t>(x.added) * n + j] != 0)
            e.AddVertex(j, a[static_cast<std::size_t>(x.added) * n + j]);
        e.AddVertex(n, x.added + 1.0);
        x.s.AddEquation(e);
      }
    };
    int right = 0; // systems that came out complete, and so equal to `a`
    int const failures = sweep(
        [&](long)
        {
          b.reset(new Build);
          b->s.setSymmetric(symmetric);
          goOn(*b);
        },
        [&](long, bool)
        {
          if (!b)
            return; // the storage itself could not be made
          ASSERT_EQ(b->s.getCsrValuesSize(), b->s.getCsrColumnsSize());
          goOn(*b);
          ASSERT_EQ(b->s.getCsrValuesSize(), b->s.getCsrColumnsSize());
          if (b->s.IsCorrectlyDefinedSystem())
          {
            ++right;
            EXPECT_EQ(linsys_test::densify<double>(b->s), a);
          }
          b.reset();
        });
    EXPECT_GT(failures, 5);
    EXPECT_GT(right, 0);
  }
}

// The component loader over a document of known, unknown and nested
// components: a load that runs out of memory passes std::bad_alloc on, and
// the same bytes load in full afterwards.
TEST(MemoryExhaustion, ComponentLoaderFailsCleanlyAndLoadsAgain)
{
  VsUt::CTemporaryFile file("QZtest_fi_");
  CFileBinaryStream stream(file.get());
  {
    auto * doc = new qzfuzz::DocFilter(stream, nullptr);
    for (int i = 0; i < 6; ++i)
    {
      VsF::IComponentFilter * child;
      if (i % 3 == 0)
      {
        auto * p = new qzfuzz::PointsFilter(stream);
        p->coords.assign(static_cast<std::size_t>(3 * (i + 4)), 0.5f * i);
        child = p;
      }
      else
      {
        auto * t = new qzfuzz::TextFilter(stream);
        t->text = std::string(40 + i, static_cast<char>('a' + i)); // beyond the short-string room
        child = t;
      }
      doc->children.emplace_back(new VsF::CInnerHeaderWrapper(child, nullptr, L""));
    }
    VsF::CInnerHeaderWrapper(doc, nullptr, L"").Save();
    stream.writeData(3, "end");
  }
  // Points, texts, skipped components, warnings, bytes read.
  using Loaded = std::tuple<std::vector<std::vector<float>>, std::vector<std::string>, int, int, long long>;
  auto load = [&]
  {
    std::rewind(file.get());
    qzfuzz::CountingLog log;
    qzfuzz::NullLogger logger;
    std::wstring warning = L"a document skipped, with a warning long enough to allocate";
    auto * doc = new qzfuzz::DocFilter(stream, &log);
    VsF::CInnerHeaderWrapper wrapper(doc, &log, std::move(warning));
    long long bytes = wrapper.Load(logger);
    bytes += VsF::CSkipTillTheEnd(stream, &log, L"rest", L"the rest skipped, also allocating its text")
                 .Load(logger);
    return Loaded{doc->points, doc->texts, doc->skipped, log.lines, bytes};
  };
  Loaded const reference = load();
  ASSERT_EQ(std::get<0>(reference).size(), 2u);
  ASSERT_EQ(std::get<2>(reference), 2);
  int const failures = sweep([&](long) { load(); }, [&](long, bool) { EXPECT_TRUE(load() == reference); });
  EXPECT_GT(failures, 20);
}

// The polygoniser's walk with deferred vertices (its tables on the heap),
// failing at every allocation: a failure frees the whole walk, and the walk
// made again gives the same triangles.
TEST(MemoryExhaustion, PolygoniserFreesItsWalk)
{
  struct Sphere : VolTr::jbFunction
  {
    double operator()(REmath::Point3D_d const & p, int * flag) override
    {
      if (flag)
        *flag = 0;
      return 1 - (p.x() * p.x() + p.y() * p.y() + p.z() * p.z());
    }
  } sphere;
  // Vertices at edge midpoints: the walk, not the bisection, is under test.
  struct Midpoints : VolTr::jbVertexSolver
  {
    VolTr::jbEdgeJob const * jobs = nullptr;
    VolTr::jbVertex * out = nullptr;
    int count = 0;
    void submit(VolTr::jbEdgeJob const * j, VolTr::jbVertex * r, int n) override
    {
      jobs = j, out = r, count = n;
    }
    void wait() override
    {
      using namespace QZTest;
      for (int k = 0; k < count; ++k)
        out[k].position = (jobs[k].p1 + jobs[k].p2) * 0.5;
      count = 0;
    }
  };
  struct Triangles : VolTr::jbTriangleProcessor
  {
    std::vector<int> corners;
    int operator()(int a, int b, int c, VolTr::jbVertices) override
    {
      corners.insert(corners.end(), {a, b, c});
      return 1;
    }
  };
  auto walk = [&]
  {
    VolTr::jbProcess p;
    Midpoints solver;
    Triangles sink;
    int bounds[3] = {20, 20, 20};
    EXPECT_EQ(p.polygonizeDeferred(sphere, 0.3, bounds, REmath::Point3D_d(0.9, 0.1, 0), sink, solver, 16), 0);
    return sink.corners;
  };
  std::vector<int> const reference = walk();
  ASSERT_GT(reference.size(), 100u);
  int const failures = sweep([&](long) { walk(); }, [&](long, bool) { EXPECT_EQ(walk(), reference); });
  EXPECT_GT(failures, 10);
}

// A small reconstruction, failing at every allocation in turn on whatever
// thread makes it: run() passes std::bad_alloc on, and a run afterwards gives
// the mesh of a run that never failed.
TEST(MemoryExhaustion, ReconstructionPassesBadAllocOnAndRunsAgain)
{
  QZTest::CSampleCloud const cloud = QZTest::makeSphereCloud(200);
  VolTr::CVolTriangulationParams const params = qztest::makeParams(4);
  qztest::Mesh const reference = qztest::reconstruct(cloud, params).mesh;
  ASSERT_GT(reference.triangles.size(), 50u);
  qzfi::resetCount();
  qztest::reconstruct(cloud, params);
  long const total = qzfi::allocationsCounted();
  // Every allocation of the first 150 (the set-up of every phase), then about
  // 150 spread over the rest; every 37th failure is followed by a whole run.
  long const stride = std::max(1L, (total - 150) / 150);
  int const failures = sweep([&](long) { qztest::reconstruct(cloud, params); },
                             [&](long n, bool)
                             {
                               if (n % 37 != 0)
                                 return;
                               qztest::Mesh const again = qztest::reconstruct(cloud, params).mesh;
                               ASSERT_EQ(again.vertices, reference.vertices) << "after a failure at " << n;
                               ASSERT_EQ(again.triangles, reference.triangles);
                             },
                             [&](long n) { return n + (n < 150 ? 1 : stride); }, total);
  EXPECT_GT(failures, 250);
}
