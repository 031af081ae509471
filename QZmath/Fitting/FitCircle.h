#pragma once
// Circles fitted to points in space. Each fit first finds the plane of the
// points (FitPlaneToPointSet), moves them into a two-dimensional frame of
// that plane (origin the centroid, axes from BuildUCSbyVector of the
// normal), fits there and moves the circle back; `normal` is the plane's
// normal, its sign as the plane fit leaves it. All arithmetic is in double.
//
// Forms: the circle through three points; the least-squares circle (an
// algebraic start refined by MINPACK's Levenberg-Marquardt on the algebraic
// distance); robust forms under iteratively reweighted least squares, free,
// through one or two fixed points, or tangent to a direction at a fixed
// point; and the circle through two points with given tangents.
//
// Every function returns false when no circle can be made (too few points, a
// degenerate plane or circle, a singular system, a MINPACK code outside
// 1..4, non-finite input); the outputs are undefined then.

#include <vector>

#include "QZmath/Fitting/RobustRegression.h"
#include "QZmath/Foundation/Functor.h"
#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
/// The residual functor of a least-squares problem for MINPACK:
/// (m, n, x, fvec, fjac, ldfjac, iflag) -> status. With iflag 1 it fills
/// fvec (m values) at x, with iflag 2 the Jacobian fjac column by column at
/// stride ldfjac; a negative status stops the minimisation.
typedef Functor7<int, int, int, const double *, double *, double *, int, int> LmderFunctor;

/// Minimises the sum of squares of m functions of n unknowns by MINPACK's
/// lmder1 from the start `x` (overwritten with the result; `fvec` receives
/// the m residuals): ftol = xtol = tol, gtol 0, at most 100 (n + 1)
/// evaluations. Returns lmder1's info code: 0 bad arguments (n < 1, m < n or
/// tol < 0), 1..4 converged (4 also for lmder1's 8), 5 too many evaluations,
/// 6 and 7 tolerance too small, negative when the functor stopped it.
int lmder1_adapter(const LmderFunctor & functor, int m, int n, double * x, double * fvec, double tol);
} // namespace REmath

/// The circle through three points: unit normal (p1 - p0) x (p2 - p0), centre
/// and radius. False for (nearly) collinear or coincident points.
bool makeCircleByThreePoints(const REmath::Point3D_d * points, REmath::Point3D_d & center,
                             REmath::Point3D_d & normal, double & radius);

/// Least-squares circle; three points give the circle through them.
bool FitCircleToPointSet(const std::vector<REmath::Point3D_d> & points, REmath::Point3D_d & center,
                         REmath::Point3D_d & normal, double & radius);

/// The circle fit under robust reweighting: a Gauss-Newton fit of the
/// geometric distance in each round. Three points give the circle through
/// them. `info`, when given, receives the rounds made and the samples kept.
bool FitCircleToPointSetRobust(const std::vector<REmath::Point3D_d> & points, REmath::Point3D_d & center,
                               REmath::Point3D_d & normal, double & radius);
bool FitCircleToPointSetRobust(const std::vector<REmath::Point3D_d> & points, REmath::Point3D_d & center,
                               REmath::Point3D_d & normal, double & radius, CRobustFitInfo * info);

/// The robust circle through one or two `fixedPoints` (taken into the plane
/// of `points`). Three fixed points give the circle through them, whatever
/// the samples; more than three, or none, fail.
bool FitCircleToPointSetWithFixedPointsRobust(const std::vector<REmath::Point3D_d> & points,
                                              const std::vector<REmath::Point3D_d> & fixedPoints,
                                              REmath::Point3D_d & center, REmath::Point3D_d & normal,
                                              double & radius);

/// A circle through fixed points with given tangent directions there, in the
/// plane of `points`. Two fixed points: the least-squares circle of their four
/// conditions alone (the samples give only the plane). Otherwise the robust
/// circle through the first fixed point, tangent to the first direction.
/// Needs a direction for every fixed point used.
bool FitCircleByPointsWithDirs(const std::vector<REmath::Point3D_d> & points,
                               const std::vector<REmath::Point3D_d> & fixedPoints,
                               const std::vector<REmath::Point3D_d> & dirs, REmath::Point3D_d & center,
                               REmath::Point3D_d & normal, double & radius);
