// The last stage of the reconstruction: the level set of the implicit function
// through the iso-value, walked by the polygoniser from a start near the
// samples, with the treatment of open surfaces and of result normals.
//
// The fast form evaluates with the block evaluator and leaves the bisection of
// the crossed edges (ten evaluations per vertex, most of the work) to a solver
// that runs batches of them on every physical thread; the walk, the corners
// and the hand-over of triangles stay on the caller's thread, in their order.

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/VolTriang/LevelSetExtraction.h"
#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "QZmath/VolTriang/detail/VolumetricTriangulatorImpl.h"
#include "QZmath/VolTriang/jbProcess.h"
#include "QZsys/Threading.h"

namespace VolTr
{
namespace
{
// The unit normal from the gradient as the target receives it: (1, 0, 0)
// where the gradient vanishes.
void tf_unitNormal(double * normal)
{
  if (normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2] != 0.0)
    NormalizeVector(normal);
  else
    normal[0] = 1.0, normal[1] = 0.0, normal[2] = 0.0;
}

// The evaluators' blocks: sixteen polygoniser cubes along each axis, 128 kept
// per thread. The walk leaves a region and comes back to it much later;
// blocks of eight (256 kept) were each built about four times over, while
// these hold as much of the surface as the walk revisits in the same memory
// (iso-surface of the depth-9 sphere 1.0-1.17 s -> 0.79-0.84 s).
constexpr double BLOCK_CUBES = 16.0;
constexpr int BLOCKS_KEPT = 128;

// X - isoValue at a lattice corner. Only the side matters to the walk: a
// value clearly away from the level stands as it is, one within its rounding
// bound is computed exactly. Every thread gets the same value bit for bit.
double tf_cornerValue(COctreeFuncBlockEvaluator & x, int const * index, double const * p, double isoValue)
{
  double bound = 0.0;
  double const approx = x.evalLatticeWithBound(index, &bound);
  double const margin = bound + 4.5e-16 * (std::fabs(approx) + std::fabs(isoValue));
  double const diff = approx - isoValue;
  if (diff > margin || -diff > margin)
    return diff;
  return x.eval(p) - isoValue;
}

// X - isoValue, positive outside. On an open surface, a point far from all
// samples, or near only a boundary sample, is flagged: the walk stops there.
// With the block evaluator it also answers for the lattice's corners, from
// kernel values tabulated per lattice index.
class tf_OctreeFunAdapter : public jbFunction, public jbLatticeFunction
{
public:
  tf_OctreeFunAdapter(tf_LinComb const * function, COctree const * octree, double isoValue,
                      COctreeFuncEvalHelper * helper, IInputSamples const * samples, double outerRadius,
                      double innerRadius, COctreeFuncBlockEvaluator * fast)
      : m_function(function), m_octree(octree), m_isoValue(isoValue), m_valueCache(nullptr), m_helper(helper),
        m_samples(samples), m_outerRadius(outerRadius), m_innerRadius(innerRadius), m_fast(fast)
  {
  }

  double operator()(Point3D_d const & p, int * flag) override
  {
    if (flag)
    {
      if (m_outerRadius > 0)
        *flag = openSurfaceFlag(p);
      else
        *flag = 0;
    }
    return (m_fast ? m_fast->eval(p.asArray()) : m_function->eval(p.asArray(), m_helper)) - m_isoValue;
  }

  void setLattice(Point3D_d const & start, double size, int const * bounds) override
  {
    if (m_fast)
      m_fast->setLattice(start.asArray(), size, std::max(bounds[0], std::max(bounds[1], bounds[2])), m_parts);
  }

  // Vertices interpolated through this many parts of their edges: the
  // points between the corners are tabulated with them.
  void setVertexInterpolation(int parts) { m_parts = parts; }

  double corner(int i, int j, int k, Point3D_d const & p, int * flag) override
  {
    if (!m_fast)
      return (*this)(p, flag);
    *flag = m_outerRadius > 0 ? openSurfaceFlag(p) : 0;
    int const index[3] = {i, j, k};
    return tf_cornerValue(*m_fast, index, p.asArray(), m_isoValue);
  }

  bool cornersFlagged() const override { return m_outerRadius > 0; }

private:
  int openSurfaceFlag(Point3D_d const & p) const
  {
    double const * q = p.asArray();
    CParallelepiped const box(q[0] - m_outerRadius, q[0] + m_outerRadius, q[1] - m_outerRadius,
                              q[1] + m_outerRadius, q[2] - m_outerRadius, q[2] + m_outerRadius);
    double const inner2 = m_innerRadius * m_innerRadius, outer2 = m_outerRadius * m_outerRadius;
    int nearest = -1;
    for (CSamplePointsIteratorInBox it(*m_samples, *m_octree, box, -1); !it.isFinished(); it.next())
    {
      double const * s = *it;
      double const dx = q[0] - s[0], dy = q[1] - s[1], dz = q[2] - s[2];
      double const d2 = dx * dx + dy * dy + dz * dz;
      if (d2 < inner2)
        return 0; // a sample near enough makes the point usable
      if (nearest < 0 || d2 < outer2)
        nearest = it.currentSampleIndex();
    }
    if (nearest < 0)
      return 1;
    return m_samples->isBoundaryVertex(nearest) ? 1 : 0;
  }

  tf_LinComb const * m_function;
  COctree const * m_octree;
  double m_isoValue;
  void const * m_valueCache; // kept for the layout; no cache in the driver
  COctreeFuncEvalHelper * m_helper;
  IInputSamples const * m_samples;
  double m_outerRadius;
  double m_innerRadius;
  COctreeFuncBlockEvaluator * m_fast; // the same values, faster; null: the combination's own
  int m_parts = 1;
};

// Passes new vertices (with their normals) and each triangle to the target.
class tf_TriangleProcessor : public jbTriangleProcessor
{
public:
  tf_TriangleProcessor(ITriangulationTarget * target, int * vertexCount, CProgressCounter * progress,
                       int expectedFaces, int * triangleCount)
      : m_target(target), m_vertexCount(vertexCount), m_progress(progress), m_expectedFaces(expectedFaces),
        m_triangleCount(triangleCount), m_withNormals(false)
  {
  }

  /// The gradient of X: one combination per axis over the gradient bases.
  void setGradient(std::unique_ptr<tf_LinComb> const * gradient)
  {
    for (int axis = 0; axis < 3; ++axis)
      m_gradient[axis] = gradient[axis].get();
    m_withNormals = true;
  }
  /// The vertices arrive with their normals (computed by the vertex solver).
  void setNormalsGiven() { m_normalsGiven = true; }

  int operator()(int a, int b, int c, jbVertices vertices) override
  {
    for (int v = *m_vertexCount; v < vertices.count; ++v)
    {
      double const * position = vertices.items[v].position.asArray();
      double normal[3] = {0.0, 0.0, 0.0};
      if (m_normalsGiven)
      {
        Point3D_d const & n = vertices.items[v].normal;
        normal[0] = n.x(), normal[1] = n.y(), normal[2] = n.z();
      }
      else if (m_withNormals)
      {
        for (int axis = 0; axis < 3; ++axis)
          normal[axis] = m_gradient[axis]->eval(position, nullptr);
        tf_unitNormal(normal);
      }
      // A run without a target (a dry run of the pipeline) delivers nothing.
      if (m_target)
        m_target->addNewVertex(*m_vertexCount, position, normal);
      ++*m_vertexCount;
    }
    if (m_target)
      m_target->addNewTriangle(a, b, c);
    ++*m_triangleCount;
    double const pos = VsPCnt::prgCntLongJobPosition(*m_triangleCount, m_expectedFaces, 0.3);
    if (m_progress)
      m_progress->SetPosFloat(pos);
    return 1;
  }

private:
  ITriangulationTarget * m_target;
  int * m_vertexCount;
  tf_LinComb const * m_gradient[3] = {nullptr, nullptr, nullptr};
  CProgressCounter * m_progress;
  int m_expectedFaces;
  int * m_triangleCount;
  bool m_withNormals;
  bool m_normalsGiven = false;
};

// Bisects the polygoniser's crossed edges in batches: one worker per further
// physical thread starts on a batch when it is submitted, and the caller's
// thread joins in when it waits for it; all take chunks of the batch from a
// shared counter. Each thread has its own evaluators. Every sign is decided as the
// specified bisection decides it: by the bounded approximation when it is
// clearly away from the iso-value, else by the exact value.
class tf_VertexSolver : public jbVertexSolver
{
public:
  tf_VertexSolver(COctreeFuncBlockEvaluator & x, double isoValue, tf_LinComb const * const * gradient,
                  double blockSize, int threads, bool interpolate)
      : m_prototype(x), m_isoValue(isoValue), m_interpolate(interpolate)
  {
    int const n = threads > 1 ? threads : 1;
    for (int t = 0; t < n; ++t)
    {
      m_workers.push_back(std::unique_ptr<Worker>(new Worker)); // owned even if the list cannot grow
      Worker & w = *m_workers.back();
      // The caller's thread evaluates with the corners' evaluator itself,
      // whose cached blocks are those of the walk's recent cubes.
      if (t > 0)
        w.own.reset(new COctreeFuncBlockEvaluator(x));
      w.x = t > 0 ? w.own.get() : &x;
      if (gradient)
        for (int a = 0; a < 3; ++a)
          w.gradient[a].reset(new COctreeFuncBlockEvaluator(*gradient[a], blockSize, BLOCKS_KEPT));
    }
    try
    {
      for (int t = 1; t < n; ++t)
        m_threads.emplace_back([this, t] { workerLoop(*m_workers[static_cast<std::size_t>(t)]); });
    }
    catch (...)
    {
      stopThreads(); // run with the threads that could be started
    }
  }
  ~tf_VertexSolver() override { stopThreads(); }
  tf_VertexSolver(tf_VertexSolver const &) = delete;
  tf_VertexSolver & operator=(tf_VertexSolver const &) = delete;

  // The corners' evaluator has tabulated the lattice: the workers share it.
  void setLattice(Point3D_d const &, double, int const *) override
  {
    for (auto & w : m_workers)
      if (w->own)
        w->own->shareLattice(m_prototype);
  }

  // The walk of the caller's thread waits for corner values; the other
  // threads have time to spare between the batches of edges.
  bool valuesCorners() const override { return !m_threads.empty(); }

  void offerCorners(jbAheadCorner * const * corners, int count) override
  {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_offered.insert(m_offered.end(), corners, corners + count);
      m_offeredLeft.store(m_offered.size() - m_offeredHead, std::memory_order_relaxed);
    }
    m_wake.notify_one();
  }

  void withdrawCorners() override
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_offered.clear();
    m_offeredHead = 0;
    m_offeredLeft.store(0, std::memory_order_relaxed);
    m_quiet.wait(lock, [this] { return m_valuing == 0; });
  }

  void submit(jbEdgeJob const * jobs, jbVertex * out, int count) override
  {
    m_jobs = jobs;
    m_out = out;
    m_count = count;
    m_next.store(0);
    m_error = nullptr;
    if (m_threads.empty() || count <= 0)
      return;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_busy = static_cast<int>(m_threads.size());
      ++m_generation;
    }
    m_wake.notify_all();
  }

  void wait() override
  {
    // The caller's thread takes its share of what is left, then waits for
    // the workers' chunks.
    work(*m_workers[0]);
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_done.wait(lock, [this] { return m_busy == 0; });
    }
    m_count = 0;
    if (m_error)
    {
      std::exception_ptr e = m_error;
      m_error = nullptr;
      std::rethrow_exception(e);
    }
  }

private:
  static constexpr int CHUNK = 32;

  struct Worker
  {
    COctreeFuncBlockEvaluator * x = nullptr;
    std::unique_ptr<COctreeFuncBlockEvaluator> own;
    std::unique_ptr<COctreeFuncBlockEvaluator> gradient[3];
  };

  void workerLoop(Worker & w)
  {
    long long seen = 0;
    for (;;)
    {
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [&] { return m_stop || m_generation != seen || m_offeredHead < m_offered.size(); });
        if (m_stop)
          return;
        if (m_generation == seen)
        {
          lock.unlock();
          valueOffered(w);
          continue;
        }
        seen = m_generation;
      }
      work(w);
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        --m_busy;
      }
      m_done.notify_all();
    }
  }

  void work(Worker & w)
  {
    try
    {
      for (;;)
      {
        // The walk may be waiting for a corner: those go first.
        if (w.own && m_offeredLeft.load(std::memory_order_relaxed) > 0)
          valueOffered(w);
        int const first = m_next.fetch_add(CHUNK);
        if (first >= m_count)
          return;
        int const last = first + CHUNK < m_count ? first + CHUNK : m_count;
        for (int k = first; k < last; ++k)
          solveOne(w, m_jobs[k], m_out[k]);
      }
    }
    catch (...)
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (!m_error)
        m_error = std::current_exception();
      m_next.store(m_count);
    }
  }

  // Values a chunk of the corners offered, oldest first, skipping those the
  // walk took itself. A failure leaves the corner to the walk, which meets
  // it again and passes it on.
  void valueOffered(Worker & w)
  {
    jbAheadCorner * chunk[CHUNK];
    int n = 0;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      while (n < CHUNK && m_offeredHead < m_offered.size())
        chunk[n++] = m_offered[m_offeredHead++];
      if (m_offeredHead == m_offered.size())
      {
        m_offered.clear();
        m_offeredHead = 0;
      }
      m_offeredLeft.store(m_offered.size() - m_offeredHead, std::memory_order_relaxed);
      if (n == 0)
        return;
      ++m_valuing;
    }
    for (int k = 0; k < n; ++k)
    {
      jbAheadCorner & a = *chunk[k];
      int expected = 0;
      if (!a.state.compare_exchange_strong(expected, 1, std::memory_order_acquire))
        continue;
      jbCornerlist & c = a.corner;
      try
      {
        int const index[3] = {c.i, c.j, c.k};
        double p[3];
        w.x->latticePoint(index, p);
        c.value = tf_cornerValue(*w.x, index, p, m_isoValue);
        a.state.store(2, std::memory_order_release);
      }
      catch (...)
      {
        a.state.store(0, std::memory_order_release);
      }
    }
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      --m_valuing;
    }
    m_quiet.notify_all();
  }

  // The bisection of the walk, every side as the exact value decides it, or
  // the interpolated crossing.
  void solveOne(Worker & w, jbEdgeJob const & job, jbVertex & out) const
  {
    double position[3];
    if (m_interpolate)
      w.x->interpolateOnLatticeEdge(job.from, job.to, job.value1, job.value2, m_isoValue, position);
    else
      w.x->convergeOnLatticeEdge(job.from, job.to, job.value1, m_isoValue, position);
    out.position = Point3D_d(position);
    if (w.gradient[0])
    {
      double normal[3];
      for (int a = 0; a < 3; ++a)
        normal[a] = w.gradient[a]->eval(out.position.asArray());
      tf_unitNormal(normal);
      out.normal = Point3D_d(normal);
    }
  }

  void stopThreads()
  {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread & t : m_threads)
      if (t.joinable())
        t.join();
    m_threads.clear();
    m_stop = false;
  }

  COctreeFuncBlockEvaluator const & m_prototype;
  double m_isoValue;
  bool m_interpolate;
  std::vector<std::unique_ptr<Worker>> m_workers;
  std::vector<std::thread> m_threads;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::condition_variable m_done;
  long long m_generation = 0;
  int m_busy = 0;
  bool m_stop = false;
  jbEdgeJob const * m_jobs = nullptr;
  jbVertex * m_out = nullptr;
  int m_count = 0;
  std::atomic<int> m_next{0};
  std::exception_ptr m_error;
  // Corners offered ahead of the walk, taken from m_offeredHead on.
  std::vector<jbAheadCorner *> m_offered;
  std::size_t m_offeredHead = 0;
  std::atomic<std::size_t> m_offeredLeft{0};
  int m_valuing = 0; // threads valuing a chunk
  std::condition_variable m_quiet;
};
} // namespace

void CVolumetricTriangulatorImpl::extractIsoSurface(tf_CLogLine const &, tf_LinComb const & x,
                                                    double isoValue,
                                                    std::unique_ptr<tf_Basis> const * gradBasis)
{
  tf_Basis const * bases[3] = {nullptr, nullptr, nullptr};
  if (gradBasis)
    for (int a = 0; a < 3; ++a)
      bases[a] = gradBasis[a].get();
  CLevelSetExtraction::polygonise(x, isoValue, gradBasis ? bases : nullptr, m_samples, m_params, m_target,
                                  m_progress, m_debugLog);
}

int CLevelSetExtraction::polygonise(LinComb const & x, double isoValue, Basis const * const * gradBasis,
                                    IInputSamples const * samples, CVolTriangulationParams const & params,
                                    ITriangulationTarget * target, CProgressCounter * progress,
                                    VsUt::IDebugLog * debugLog, EEvaluation evaluation, int * vertices)
{
  tf_CLogLine const log(debugLog);
  COctree const & octree = x.getRelatedBasisRef().getOctreeRef();
  log.text("<Marching cubes>");
  double const edge = octree.getCellSize(params.getOctreeDepth() - 1) / params.getReconstructFactor();
  float const cubes =
      params.getReconstructFactor() * static_cast<float>(1 << octree.getLeafCellDepth()) + 1.0f;
  int const b = static_cast<int>(cubes);
  int bounds[3] = {b, b, b};

  // The start walks toward the samples: each closer sample becomes the new
  // point of comparison.
  double s[3];
  octree.getBoxCenter(s);
  double best = DBL_MAX;
  int const samplesNumber = samples ? samples->pointsNumber() : 0;
  for (int i = 0; i < samplesNumber; ++i)
  {
    float const * p = samples->getSampleCoords3(i);
    double const dx = s[0] - p[0], dy = s[1] - p[1], dz = s[2] - p[2];
    double const d2 = dx * dx + dy * dy + dz * dz;
    if (d2 < best)
    {
      best = d2;
      s[0] = p[0], s[1] = p[1], s[2] = p[2];
    }
  }

  bool const fast = evaluation == eFast;
  double const blockSize = BLOCK_CUBES * edge;
  std::unique_ptr<COctreeFuncBlockEvaluator> corners(
      fast ? new COctreeFuncBlockEvaluator(x, blockSize, BLOCKS_KEPT) : nullptr);
  COctreeFuncEvalHelper helper(8, edge * 4.0);
  bool const closed = params.getClosed();
  tf_OctreeFunAdapter function(&x, &octree, isoValue, &helper, samples, closed ? -1.0 : edge * 4.0,
                               closed ? -1.0 : edge * 2.0, corners.get());
  long long const expected = 6LL * b * b;
  int const expectedFaces = expected > 0x7fffffffLL ? 0x7fffffff : static_cast<int>(expected);
  int vertexCount = 0, triangleCount = 0;
  tf_TriangleProcessor processor(target, &vertexCount, progress, expectedFaces, &triangleCount);
  // The gradient of X: one combination per axis over the gradient bases, with
  // the coefficients of X.
  std::unique_ptr<tf_LinComb> gradient[3];
  if (gradBasis)
  {
    std::vector<double> const & coefficients = x.getCoefficients();
    for (int axis = 0; axis < 3; ++axis)
    {
      gradient[axis].reset(new tf_LinComb(gradBasis[axis]));
      int const n = gradBasis[axis]->getFunctionsNumber();
      for (int i = 0; i < n; ++i)
        gradient[axis]->setBasisCoefficient(i, coefficients[static_cast<std::size_t>(i)]);
    }
    processor.setGradient(gradient);
  }

  log("Edge length", edge);
  log("Bounds", bounds[0], bounds[1], bounds[2]);
  log("Start point", s[0], s[1], s[2]);
  log("Expected faces number", expectedFaces);

  jbProcess polygoniser;
  int result = 0;
  if (fast)
  {
    tf_LinComb const * const g[3] = {gradient[0].get(), gradient[1].get(), gradient[2].get()};
    int const parts = params.getVertexInterpolation();
    bool const interpolate = parts >= 2 && parts <= 8;
    function.setVertexInterpolation(interpolate ? parts : 1);
    tf_VertexSolver solver(*corners, isoValue, gradBasis ? g : nullptr, blockSize,
                           CVescaThreadingTasksHelper::getNumOfPhisicalThread(), interpolate);
    if (gradBasis)
      processor.setNormalsGiven();
    result = polygoniser.polygonizeDeferred(function, edge, bounds, Point3D_d(s), processor, solver, 4096,
                                            &function);
  }
  else
    result = polygoniser.polygonize(function, edge, bounds, Point3D_d(s), processor);
  if (vertices)
    *vertices = vertexCount;
  if (result != 0 || triangleCount == 0)
  {
    log.text("Failed to reconstruct iso-value surface");
    throw CVolTriangulationError("Failed to reconstruct iso-value surface");
  }
  log("Added vertexes", vertexCount);
  log("Added triangles", triangleCount);
  log.text("</Marching cubes>");
  return triangleCount;
}
} // namespace VolTr
