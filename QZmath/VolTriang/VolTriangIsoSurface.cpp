// The last stage of the reconstruction: the level set of the implicit function
// through the iso-value, walked by the polygoniser from a start near the
// samples, with the treatment of open surfaces and of result normals.

#include <cfloat>
#include <memory>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/VolTriang/detail/VolumetricTriangulatorImpl.h"
#include "QZmath/VolTriang/jbProcess.h"

namespace VolTr
{
namespace
{
// X - isoValue, positive outside. On an open surface, a point far from all
// samples, or near only a boundary sample, is flagged: the walk stops there.
class tf_OctreeFunAdapter : public jbFunction
{
public:
  tf_OctreeFunAdapter(tf_LinComb const * function, COctree const * octree, double isoValue,
                      COctreeFuncEvalHelper * helper, IInputSamples const * samples, double outerRadius,
                      double innerRadius)
      : m_function(function), m_octree(octree), m_isoValue(isoValue), m_valueCache(nullptr), m_helper(helper),
        m_samples(samples), m_outerRadius(outerRadius), m_innerRadius(innerRadius)
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
    return m_function->eval(p.asArray(), m_helper) - m_isoValue;
  }

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
  void setGradient(tf_LinComb const & x, std::unique_ptr<tf_Basis> const * gradBasis)
  {
    std::vector<double> const & coefficients = x.getCoefficients();
    for (int axis = 0; axis < 3; ++axis)
    {
      m_gradient[axis].reset(new tf_LinComb(gradBasis[axis].get()));
      int const n = gradBasis[axis]->getFunctionsNumber();
      for (int i = 0; i < n; ++i)
        m_gradient[axis]->setBasisCoefficient(i, coefficients[static_cast<std::size_t>(i)]);
    }
    m_withNormals = true;
  }

  int operator()(int a, int b, int c, jbVertices vertices) override
  {
    for (int v = *m_vertexCount; v < vertices.count; ++v)
    {
      double const * position = vertices.items[v].position.asArray();
      double normal[3] = {0.0, 0.0, 0.0};
      if (m_withNormals)
      {
        for (int axis = 0; axis < 3; ++axis)
          normal[axis] = m_gradient[axis]->eval(position, nullptr);
        if (normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2] != 0.0)
          NormalizeVector(normal);
        else
          normal[0] = 1.0, normal[1] = 0.0, normal[2] = 0.0;
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
  std::unique_ptr<tf_LinComb> m_gradient[3];
  CProgressCounter * m_progress;
  int m_expectedFaces;
  int * m_triangleCount;
  bool m_withNormals;
};
} // namespace

void CVolumetricTriangulatorImpl::extractIsoSurface(tf_CLogLine const & log, tf_LinComb const & x, double isoValue,
                                                    std::unique_ptr<tf_Basis> const * gradBasis)
{
  COctree const & octree = *m_octree;
  log.text("<Marching cubes>");
  double const edge = octree.getCellSize(m_params.getOctreeDepth() - 1) / m_params.getReconstructFactor();
  float const cubes = m_params.getReconstructFactor() * static_cast<float>(1 << octree.getLeafCellDepth()) + 1.0f;
  int const b = static_cast<int>(cubes);
  int bounds[3] = {b, b, b};

  // The start walks toward the samples: each closer sample becomes the new
  // point of comparison.
  double s[3];
  octree.getBoxCenter(s);
  double best = DBL_MAX;
  int const samplesNumber = m_samples ? m_samples->pointsNumber() : 0;
  for (int i = 0; i < samplesNumber; ++i)
  {
    float const * p = m_samples->getSampleCoords3(i);
    double const dx = s[0] - p[0], dy = s[1] - p[1], dz = s[2] - p[2];
    double const d2 = dx * dx + dy * dy + dz * dz;
    if (d2 < best)
    {
      best = d2;
      s[0] = p[0], s[1] = p[1], s[2] = p[2];
    }
  }

  COctreeFuncEvalHelper helper(8, edge * 4.0);
  bool const closed = m_params.getClosed();
  tf_OctreeFunAdapter function(&x, &octree, isoValue, &helper, m_samples, closed ? -1.0 : edge * 4.0,
                               closed ? -1.0 : edge * 2.0);
  long long const expected = 6LL * b * b;
  int const expectedFaces = expected > 0x7fffffffLL ? 0x7fffffff : static_cast<int>(expected);
  int vertexCount = 0, triangleCount = 0;
  tf_TriangleProcessor processor(m_target, &vertexCount, m_progress, expectedFaces, &triangleCount);
  if (gradBasis)
    processor.setGradient(x, gradBasis);

  log("Edge length", edge);
  log("Bounds", bounds[0], bounds[1], bounds[2]);
  log("Start point", s[0], s[1], s[2]);
  log("Expected faces number", expectedFaces);

  jbProcess polygoniser;
  int const result = polygoniser.polygonize(function, edge, bounds, Point3D_d(s), processor);
  if (result != 0 || triangleCount == 0)
  {
    log.text("Failed to reconstruct iso-value surface");
    throw CVolTriangulationError("Failed to reconstruct iso-value surface");
  }
  log("Added vertexes", vertexCount);
  log("Added triangles", triangleCount);
  log.text("</Marching cubes>");
}
} // namespace VolTr
