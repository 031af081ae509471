#pragma once
// Straight lines fitted to points in space: the plain least-squares line
// through the centroid along the principal axis of the scatter, and robust
// forms in which iteratively reweighted least squares discards outliers
// (one free, one through a fixed point). All arithmetic is in double, also
// for float points.
//
// Every function returns false when no line can be made (fewer than 2
// points, two coincident points, a failed eigen-solution, non-finite input);
// the outputs are undefined then. Three or more coincident points are not
// refused: their scatter is zero, every direction fits equally well, and the
// tie goes to the first axis, (1, 0, 0), about their common point. The direction comes back of unit length; its
// sign is whatever the eigen-solver leaves, except that two points give the
// direction from the first to the second.

#include <vector>

#include "QZmath/Fitting/RobustRegression.h"
#include "QZmath/Foundation/Point3D.h"

/// Least-squares line: `origin` the centroid, `direction` the eigenvector of
/// the largest eigenvalue of the scatter. Two points give their midpoint and
/// the unit vector from the first to the second.
bool FitLineToPointSet(const std::vector<REmath::Point3D_d> & points, REmath::Point3D_d & origin,
                       REmath::Point3D_d & direction);
bool FitLineToPointSet(const std::vector<REmath::Point3D> & points, REmath::Point3D_d & origin,
                       REmath::Point3D_d & direction);

/// The line fit under robust reweighting (CRobustRegressionSolver): samples
/// far from the line, in units of the robust scale, lose their weight.
/// `info`, when given, receives the rounds made and the samples kept.
bool FitLineToPointSetRobust(const std::vector<REmath::Point3D_d> & points, REmath::Point3D_d & origin,
                             REmath::Point3D_d & direction);
bool FitLineToPointSetRobust(const std::vector<REmath::Point3D> & points, REmath::Point3D_d & origin,
                             REmath::Point3D_d & direction);
bool FitLineToPointSetRobust(const std::vector<REmath::Point3D_d> & points, REmath::Point3D_d & origin,
                             REmath::Point3D_d & direction, CRobustFitInfo * info);
bool FitLineToPointSetRobust(const std::vector<REmath::Point3D> & points, REmath::Point3D_d & origin,
                             REmath::Point3D_d & direction, CRobustFitInfo * info);

/// The robust line through `fixedPoint`: the scatter is taken about that
/// point. Needs at least 2 points; there is no two-point shortcut here.
bool FitLineToPointSetThroughPointRobust(const std::vector<REmath::Point3D_d> & points,
                                         const REmath::Point3D_d & fixedPoint, REmath::Point3D_d & direction);
bool FitLineToPointSetThroughPointRobust(const std::vector<REmath::Point3D_d> & points,
                                         const REmath::Point3D_d & fixedPoint, REmath::Point3D_d & direction,
                                         CRobustFitInfo * info);
