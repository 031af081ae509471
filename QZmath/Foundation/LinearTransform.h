#pragma once
// The affine map p -> M p + t of the library's frames, with its inversion and
// the rotation about a line in space. Plain value, global namespace.

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/Foundation/RotationMatrix.h"

class RElinearTransform
{
public:
  /// The identity: unit matrix, zero shift.
  RElinearTransform();
  RElinearTransform(const double (&matrix)[3][3], const double * shift);
  RElinearTransform(const CRotationMatrix & matrix, const REmath::Point3D_d & shift);

  /// M p + t, each output formed as x m0 + t + y m1 + z m2.
  REmath::Point3D_d transformPoint(const REmath::Point3D_d & p) const;

  /// This map after `inner`: p -> this(inner(p)).
  RElinearTransform operator*(const RElinearTransform & inner) const;

  /// True when this map composed with getInvertedOrtho() is the identity
  /// within the float epsilon (relative to 1 for small entries).
  bool isOrtho() const;
  /// Inverts on the assumption that M is orthogonal: M^T, and -(M^T t).
  void invertOrtho();
  RElinearTransform getInvertedOrtho() const;

  static const RElinearTransform & Identity();
  /// Zero matrix and zero shift.
  static const RElinearTransform & Zero();

  double matrix[3][3]; ///< row-major
  double shift[3];
};

/// The inverse of any regular map: M^-1 by LU (LAPACK) and -(M^-1 t). False,
/// with `out` untouched, for a singular M.
bool invertTransform(const RElinearTransform & a, RElinearTransform & out);

/// The rotation by `angle` about the line through `point` along the unit
/// vector `axis` (not normalised here).
void setAxisRotationTransform(RElinearTransform & out, const REmath::Point3D_d & point,
                              const REmath::Point3D_d & axis, double angle);
