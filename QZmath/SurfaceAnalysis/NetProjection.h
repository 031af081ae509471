#pragma once
// Projection of points on a net: a grid of nodes held as a Matrix<Point3D>,
// net(row, column). Fractional net coordinates are (u, v) = (column, row).
//
// The net is taken as valid (no coincident neighbours); a net of fewer than
// two rows or columns has no normal. Nothing throws.

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/Point3D.h"

/// The node nearest to p (the first one on a tie): its column and row, and
/// the squared distance as the result; 1e30 and (0, 0) for an empty net.
double GetNearestNetKnot(const float * p, const REmath::Matrix<REmath::Point3D> & net, int & column,
                         int & row);

/// The unit normal at a node, the cross product of the node's edges towards
/// the next column and the next row (at the last column or row, the edge from
/// the previous one, so that the sense is kept); `sign` false turns it round.
/// False, with a zero normal, when the net has fewer than two rows or columns
/// or the edges are parallel.
bool GetNetNormal(const REmath::Matrix<REmath::Point3D> & net, int column, int row, REmath::Point3D & normal,
                  bool sign);

/// The fractional net coordinates of p's projection: from the nearest node,
/// within the first of the four quadrants round it (next column and row,
/// previous column and next row, both previous, next column and previous
/// row) that holds p's drop along the normal. No quadrant: the node itself.
void ProjectPointToNet(const float * p, const REmath::Matrix<REmath::Point3D> & net, double & u, double & v);

/// The bilinear point at fractional coordinates (u, v); a fraction below 1e-5
/// is not blended. Coordinates outside the net are held to its border.
void getPointOnNet(float u, float v, const REmath::Matrix<REmath::Point3D> & net, float * result);
