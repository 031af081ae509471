#pragma once
// An oriented cloud read by the tool, seen by the reconstruction as its samples.

#include "CloudIO.h"
#include "QZmath/VolTriang/VolumetricTriangulator.h"

namespace qzrecon
{
class CCloudSamples : public VolTr::IInputSamples
{
public:
  /// Refers to the cloud, which must outlive this object.
  explicit CCloudSamples(OrientedCloud const & cloud) : m_cloud(cloud) {}

private:
  int onPointsNumber() const override { return static_cast<int>(m_cloud.size()); }
  float const * onGetSampleCoords3(int i) const override { return &m_cloud.points[3 * static_cast<std::size_t>(i)]; }
  float const * onGetSampleNormal3(int i) const override { return &m_cloud.normals[3 * static_cast<std::size_t>(i)]; }
  bool onIsBoundaryVertex(int) const override { return false; }

  OrientedCloud const & m_cloud;
};
} // namespace qzrecon
