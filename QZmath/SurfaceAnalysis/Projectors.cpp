#include "QZmath/SurfaceAnalysis/Projectors.h"

#include <cfloat>
#include <utility>

#include "QZmath/SurfaceAnalysis/Distances.h"

using REmath::Point3D_d;

CProjectorsJoin::CProjectorsJoin() : m_members(new CMembers) {}

CProjectorsJoin::CProjectorsJoin(const CProjectorsJoin & other)
    : IPointToGeomObjProjector(other), m_members(new CMembers)
{
  try
  {
    for (IPointToGeomObjProjector const * m : other.m_members->list)
      AddProjectorWithOwnerShip(m->Copy());
  }
  catch (...)
  {
    for (IPointToGeomObjProjector * m : m_members->list)
      delete m;
    delete m_members;
    throw;
  }
}

CProjectorsJoin & CProjectorsJoin::operator=(const CProjectorsJoin & other)
{
  if (this != &other)
  {
    CProjectorsJoin copy(other);
    std::swap(m_members, copy.m_members);
  }
  return *this;
}

CProjectorsJoin::~CProjectorsJoin()
{
  for (IPointToGeomObjProjector * m : m_members->list)
    delete m;
  delete m_members;
}

void CProjectorsJoin::AddProjectorWithOwnerShip(IPointToGeomObjProjector * projector)
{
  if (projector == nullptr)
    return;
  try
  {
    m_members->list.push_back(projector);
  }
  catch (...)
  {
    delete projector; // owned from the call on, even when it could not be kept
    throw;
  }
}

int CProjectorsJoin::GetProjectorsNumber() const { return static_cast<int>(m_members->list.size()); }

IPointToGeomObjProjector * CProjectorsJoin::OnCopy() const { return new CProjectorsJoin(*this); }

bool CProjectorsJoin::OnProjectPoint(const Point3D_d & p, Point3D_d & result)
{
  bool last = false;
  double best = 0.0;
  bool found = false;
  for (IPointToGeomObjProjector * m : m_members->list)
  {
    Point3D_d r;
    last = m->projectPoint(p, r);
    if (!last)
      continue;
    double const dx = r.x() - p.x(), dy = r.y() - p.y(), dz = r.z() - p.z();
    double const d2 = dx * dx + dy * dy + dz * dz;
    if (!found || d2 < best)
      best = d2, result = r, found = true;
  }
  return last;
}

IPointToGeomObjProjector * CProjectorToPolyline::OnCopy() const { return new CProjectorToPolyline(*this); }

bool CProjectorToPolyline::OnProjectPoint(const Point3D_d & p, Point3D_d & result, double & param)
{
  if (m_points.empty())
    return false;
  if (m_points.size() == 1)
  {
    result = m_points.front();
    param = 0.0;
    return true;
  }
  double best = DBL_MAX;
  std::size_t winner = 0;
  double bestT = 0.0;
  for (std::size_t i = 0; i + 1 < m_points.size(); ++i)
  {
    double t = 0.0;
    double const d2 = DistancePoint2Segment(p.asArray(), m_points[i].asArray(), m_points[i + 1].asArray(), t);
    if (d2 < best)
      best = d2, winner = i, bestT = t;
  }
  if (best == DBL_MAX)
    return false;
  param = static_cast<double>(winner) + bestT;
  DistancePoint2Segment(p.asArray(), m_points[winner].asArray(), m_points[winner + 1].asArray(),
                        result.asArray());
  return true;
}
