#pragma once
// Planes fitted to points: the plain least-squares plane, an incremental
// approximator to which point sets are added and from which they are removed,
// the recognition of a user's selection as a plane under one of six
// constraints (with the fit's errors and the selection's extent in the
// plane), and the orientation of the smallest bounding rectangle of points in
// a plane. Arithmetic is in double, also for float points.
//
// Failure is `false` (outputs undefined) or an invalid CPlaneEquation; the
// only exception is that of IPlaneAppoximator::CreateByConstraint.

#include <cstdint>
#include <vector>

#include "QZmath/Fitting/RobustRegression.h"
#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
/// A plane n.p + d = 0 with a validity mark: valid when the mark is above 0.
/// A new or cleared plane has zero coefficients and mark -1.
class CPlaneEquation
{
public:
  static const int DIM = 3;
  static const int COEFF_SIZE = 4;
  static const int FREE_TERM_OFFSET = 3;

  CPlaneEquation() { Clear(); }
  void Clear()
  {
    for (double & c : m_coeff)
      c = 0.0;
    m_mark = -1.0;
  }
  bool IsValid() const { return m_mark > 0.0; }
  double GetValidityMark() const { return m_mark; }
  void SetValidityMark(double mark) { m_mark = mark; }

  /// The normal's three components, followed in memory by the free term.
  const double * NormalDir() const { return m_coeff; }
  double * NormalDir() { return m_coeff; }
  const double * Coefficients() const { return m_coeff; }
  double FreeTerm() const { return m_coeff[FREE_TERM_OFFSET]; }
  void SetFreeTerm(double d) { m_coeff[FREE_TERM_OFFSET] = d; }
  /// n.p + d: the signed distance for a unit normal.
  double Evaluate(const double * p) const
  {
    return m_coeff[0] * p[0] + m_coeff[1] * p[1] + m_coeff[2] * p[2] + m_coeff[3];
  }

private:
  double m_coeff[COEFF_SIZE];
  double m_mark;
};

/// Two basis vectors in a plane and the (minimum, maximum) of points along
/// each. Index 0 selects the first; any other index the second.
class CPlaneLimits
{
public:
  static const int DIM = 3;

  CPlaneLimits() { Clear(); }
  virtual ~CPlaneLimits() = default;
  CPlaneLimits(CPlaneLimits const &) = default;
  CPlaneLimits & operator=(CPlaneLimits const &) = default;

  void Clear();
  const double * GetBasisVector(int i) const { return m_basis[i == 0 ? 0 : 1]; }
  double * GetBasisVector(int i) { return m_basis[i == 0 ? 0 : 1]; }
  const double * GetLimitsInDir(int i) const { return m_limits[i == 0 ? 0 : 1]; }
  double * GetLimitsInDir(int i) { return m_limits[i == 0 ? 0 : 1]; }

  /// The basis of the smallest bounding rectangle of `refs` in the plane
  /// (DefinePointsLimitsBasis with 120 steps) and the limits along it.
  void DefineAuto(const ICoord3DRefs & refs, const CPlaneEquation & plane);

private:
  double m_basis[2][DIM];
  double m_limits[2][2];
};

enum PlaneFitConstraintType
{
  PlaneFitFree = 0,          ///< free
  PlaneFitNormalAndDist = 1, ///< given normal, at a given distance from a given point
  PlaneFitNormal = 2,        ///< given normal, through the centroid
  PlaneFitThroughPoint = 3,  ///< through a given point
  PlaneFitThroughLine = 4,   ///< through a given line (point and direction)
  PlaneFitAngleToAxis = 5    ///< normal at a given angle to a given direction
};

/// A plane kept up to date as point sets are added and removed: the scatter
/// matrix stays exact under both (the pairwise update of a covariance), so
/// adding A then B equals adding B then A, and removing B returns to A.
class IPlaneAppoximator
{
public:
  virtual ~IPlaneAppoximator() = default;
  /// Clears `plane`, then fills it from three points on: the normal of least
  /// scatter, oriented along the sum of the reference normals, and the free
  /// term through the mean. Fewer points or a failed eigen-solution leave it
  /// invalid.
  virtual void getPlane(CPlaneEquation & plane) = 0;
  /// `normals` may be null; when given, their sum orients the plane.
  virtual void addPoints(const ICoord3DRefs * points, const ICoord3DRefs * normals) = 0;
  /// Removes points added before. Removing more points than are held empties
  /// the approximator.
  virtual void removePoints(const ICoord3DRefs * points, const ICoord3DRefs * normals) = 0;
  /// `sign` 1 adds, -1 removes.
  virtual void update(const ICoord3DRefs * points, const ICoord3DRefs * normals, int sign) = 0;

  /// A new free approximator, owned by the caller, for PlaneFitFree; any other
  /// type throws std::exception with the text "bad allocation".
  static IPlaneAppoximator * CreateByConstraint(PlaneFitConstraintType type);

protected:
  IPlaneAppoximator() = default;
  IPlaneAppoximator(IPlaneAppoximator const &) = default;
  IPlaneAppoximator & operator=(IPlaneAppoximator const &) = default;
};

/// `e1` and `e2` from BuildUCSbyVector(normal), then `e1` turned in the plane
/// to the side of the smallest bounding rectangle of the points, tried at
/// `steps` angles over a half turn. `e2` keeps its first value: a caller who
/// needs the perpendicular takes normal x e1.
void DefinePointsLimitsBasis(const ICoord3DRefs & refs, const double * normal, double * e1, double * e2,
                             int steps);

/// (minimum, maximum) of p . direction over the points; (-1, 1) for none.
void GetSelectionLinearLimits(const ICoord3DRefs & refs, double * direction, double * limits);
} // namespace REmath

/// Least-squares plane: `coefficients` receives the unit normal of least
/// scatter and n . c (note: plus, unlike CPlaneEquation's free term),
/// `centroid` the mean. False below 3 points or when the eigen-solution fails.
/// The normal's sign is as the eigen-solver leaves it.
bool FitPlaneToPointSet(const std::vector<REmath::Point3D> & points, double * coefficients,
                        double * centroid);
bool FitPlaneToPointSet(const std::vector<REmath::Point3D_d> & points, double * coefficients,
                        double * centroid);

/// Extension: the plane under robust reweighting (CRobustRegressionSolver),
/// for clouds with gross outliers. Same outputs as FitPlaneToPointSet, with
/// the weighted centroid of the samples that carry the fit. Rounds stop once
/// the normal turns by less than 1e-4 rad and the plane moves by less than
/// 1e-4 of the cloud's spread.
bool FitPlaneToPointSetRobust(const std::vector<REmath::Point3D> & points, double * coefficients,
                              double * centroid, CRobustFitInfo * info = nullptr);
bool FitPlaneToPointSetRobust(const std::vector<REmath::Point3D_d> & points, double * coefficients,
                              double * centroid, CRobustFitInfo * info = nullptr);

/// The least-squares plane of a selection, its normal turned towards the
/// viewer's side (a negative dot with `viewDir`, taken in float, turns it).
/// False below 3 points.
bool RecognizePlaneSelectionFree(const std::vector<REmath::Point3D> & points, const REmath::Point3D & viewDir,
                                 REmath::Point3D_d & center, REmath::Point3D_d & normal);

/// A selection recognised as a plane under `constraint` (PlaneFitConstraintType):
///  0 free; 1 normal `fixedDir` with, when `useDistance`, the plane `distance`
///  from `fixedPoint` on the centroid's side (else through the centroid);
///  2 normal `fixedDir` through the centroid; 3 through `fixedPoint`;
///  4 through the line (`fixedPoint`, `fixedDir`); 5 normal at `angle` degrees
///  to `fixedDir`, through the centroid. The normal is turned towards `viewDir`.
/// Then the mean and greatest distance of the points from the plane, a basis
/// (basisU, basisV = normal x basisU) and the limits of the points along it.
/// `basisU` is read on entry: a vector of squared length 0.5 or more is kept
/// (constraint 5 replaces it by fixedDir x normal); a shorter one is replaced
/// by the side of the smallest bounding rectangle. Empty selections give
/// limits (-1, 1). False for constraints outside 0..5 (outputs untouched),
/// for fewer than 3 points under constraint 0, for no points where a centroid
/// is needed (1, 2, 5), and when the eigen-solution or the angle search fails.
bool RecognizePlaneSelectionConstrained(const std::vector<REmath::Point3D> & points,
                                        const REmath::Point3D & viewDir, int constraint, double angle,
                                        bool useDistance, double distance,
                                        const REmath::Point3D_d & fixedPoint,
                                        const REmath::Point3D_d & fixedDir, REmath::Point3D_d & center,
                                        REmath::Point3D_d & normal, double & maxError, double & meanError,
                                        REmath::Point3D_d & basisU, REmath::Point3D_d & basisV,
                                        double * limitsU, double * limitsV);

/// Greatest and mean |(center - p) . normal| over the points (0 and 0 for
/// none). `normal` is taken to be of unit length.
void CalcPlaneFitError(const std::vector<REmath::Point3D> & points, const REmath::Point3D_d & center,
                       const REmath::Point3D_d & normal, double & maxError, double & meanError);
