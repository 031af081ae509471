#pragma once
// Projectors put a point on a geometric object: a curve (with the curve
// parameter of the result) or a face (with its two surface parameters).
// Public calls forward to private virtual ones (projectPoint -> OnProjectPoint,
// Copy -> OnCopy). A projector is used by one thread at a time; Copy gives
// each thread its own.
//
// This header also brings the primitives the projectors stand on: distances
// and intersections, the cached triangle, nets and 2D contours.

#include <list>
#include <utility>
#include <vector>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/SurfaceAnalysis/Contour2D.h"
#include "QZmath/SurfaceAnalysis/Distances.h"
#include "QZmath/SurfaceAnalysis/NetProjection.h"
#include "QZmath/SurfaceAnalysis/ProjectorTriangle.h"

class IPointToGeomObjProjector
{
public:
  virtual ~IPointToGeomObjProjector() = default;

  /// A new copy, owned by the caller (null when the object cannot be copied).
  IPointToGeomObjProjector * Copy() const { return OnCopy(); }
  /// The projection of p; false when there is none.
  bool projectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result)
  {
    return OnProjectPoint(p, result);
  }

protected:
  IPointToGeomObjProjector() = default;
  IPointToGeomObjProjector(const IPointToGeomObjProjector &) = default;
  IPointToGeomObjProjector & operator=(const IPointToGeomObjProjector &) = default;

private:
  virtual IPointToGeomObjProjector * OnCopy() const = 0;
  virtual bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result) = 0;
};

class IPointToCurveProjector : public IPointToGeomObjProjector
{
public:
  using IPointToGeomObjProjector::projectPoint;
  /// The projection and its curve parameter.
  bool projectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result, double & param)
  {
    return OnProjectPoint(p, result, param);
  }
  /// The same for a single-precision point, widened first.
  bool projectPoint(const REmath::Point3D & p, REmath::Point3D_d & result, double & param)
  {
    return OnProjectPoint(REmath::Point3D_d(p.x(), p.y(), p.z()), result, param);
  }

protected:
  IPointToCurveProjector() = default;
  IPointToCurveProjector(const IPointToCurveProjector &) = default;
  IPointToCurveProjector & operator=(const IPointToCurveProjector &) = default;

private:
  bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result) override
  {
    double param = 0.0;
    return OnProjectPoint(p, result, param);
  }
  virtual bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result, double & param) = 0;
};

class IPointToFaceProjector : public IPointToGeomObjProjector
{
public:
  using IPointToGeomObjProjector::projectPoint;
  /// The projection, its surface parameters and a flag of the face's own.
  bool projectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result, double & u, double & v,
                    bool & flag)
  {
    return OnProjectPoint(p, result, u, v, flag);
  }

protected:
  IPointToFaceProjector() = default;
  IPointToFaceProjector(const IPointToFaceProjector &) = default;
  IPointToFaceProjector & operator=(const IPointToFaceProjector &) = default;

private:
  bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result) override
  {
    double u = 0.0, v = 0.0;
    bool flag = false;
    return OnProjectPoint(p, result, u, v, flag);
  }
  virtual bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result, double & u, double & v,
                              bool & flag) = 0;
};

/// Several projectors as one: the result is the nearest of the members'
/// successful projections (the first on a tie). The join owns its members.
class CProjectorsJoin : public IPointToGeomObjProjector
{
public:
  CProjectorsJoin();
  /// Copies each member by its Copy.
  CProjectorsJoin(const CProjectorsJoin & other);
  CProjectorsJoin & operator=(const CProjectorsJoin & other);
  ~CProjectorsJoin() override;

  /// Appends `projector` and takes it over; a null is ignored.
  void AddProjectorWithOwnerShip(IPointToGeomObjProjector * projector);
  int GetProjectorsNumber() const;

private:
  /// Members whose copy is null are left out.
  IPointToGeomObjProjector * OnCopy() const override;
  /// The value returned is the success of the LAST member called, not of the
  /// one chosen: callers rely on `result` only after a true, and must not
  /// read more into a false. No members: false.
  bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result) override;

  struct CMembers
  {
    std::list<IPointToGeomObjProjector *> list;
  };
  CMembers * m_members;
};

/// Projection on a polyline. The parameter of a result is i + t on segment i
/// (from point i to point i + 1) at fraction t.
class CProjectorToPolyline : public IPointToCurveProjector
{
public:
  CProjectorToPolyline() = default;
  explicit CProjectorToPolyline(std::vector<REmath::Point3D_d> points) : m_points(std::move(points)) {}
  CProjectorToPolyline(const CProjectorToPolyline &) = default;
  CProjectorToPolyline & operator=(const CProjectorToPolyline &) = default;

  std::vector<REmath::Point3D_d> & GetPoints() { return m_points; }
  const std::vector<REmath::Point3D_d> & GetPoints() const { return m_points; }

private:
  IPointToGeomObjProjector * OnCopy() const override;
  /// Empty: false. One point: that point, parameter 0. Otherwise the nearest
  /// segment (the first on a tie).
  bool OnProjectPoint(const REmath::Point3D_d & p, REmath::Point3D_d & result, double & param) override;

  std::vector<REmath::Point3D_d> m_points;
};
