#pragma once
// Rotation quaternion (scalar, x, y, z) of the library's frames.
//
// The conventions are this library's own and fit together: the rotation
// matrix has the sign of the scalar transposed against the usual one, the
// product has the opposite sign of the cross-product part to match it, and
// getQuaternionFromMatrix is the exact inverse of getRotationMatrix. Do not
// mix them with textbook formulas.

#include "QZmath/Foundation/RotationMatrix.h"

class Quaternion
{
public:
  /// The identity (1, 0, 0, 0).
  Quaternion();
  /// Stored as given, not normalised.
  Quaternion(double scalar, double x, double y, double z);
  /// The rotation of the z-y-z Euler angles, normalised.
  Quaternion(double a0, double a1, double a2);

  double getScalar() const { return m_scalar; }
  double getX() const { return m_x; }
  double getY() const { return m_y; }
  double getZ() const { return m_z; }

  void setIdentity();
  /// (cos a/2, sin a/2, 0, 0), normalised.
  void setToRotateAboutX(double angle);
  /// (cos a/2, 0, sin a/2, 0) and (cos a/2, 0, 0, sin a/2), as they are.
  void setToRotateAboutY(double angle);
  void setToRotateAboutZ(double angle);

  /// Scales to unit length; a quaternion of length 0 (or NaN) becomes the
  /// identity.
  void normalize();
  double length() const;

  void getRotationMatrix(CRotationMatrix & out) const;
  /// The z-y-z Euler angles of getRotationMatrix.
  void getEulerAngle(double & a0, double & a1, double & a2) const;

  /// a for t <= 0, b for t >= 1; else the spherical blend along the shorter
  /// arc, the linear one when a and b are nearly equal. Not normalised.
  static Quaternion slerp(const Quaternion & a, const Quaternion & b, double t);
  static double dotProduct(const Quaternion & a, const Quaternion & b);

  /// Every component within `eps`.
  bool areEqualTo(const Quaternion & q, double eps) const;
  Quaternion operator*(const Quaternion & b) const;
  /// Exact comparison; a NaN component is never equal.
  bool operator==(const Quaternion & q) const;
  bool operator!=(const Quaternion & q) const { return !(*this == q); }

private:
  double m_scalar;
  double m_x;
  double m_y;
  double m_z;
};

/// The unit quaternion of a rotation matrix (the inverse of
/// Quaternion::getRotationMatrix), from the largest of four candidate terms.
void getQuaternionFromMatrix(const CRotationMatrix & m, Quaternion & q);
