#pragma once
// The library's 3 x 3 matrix of doubles, with the free functions that invert
// it, convert it to and from z-y-z Euler angles, and decompose it when it is
// self-adjoint. In spite of its name CRotationMatrix is a general 3 x 3
// matrix: quadrics keep their quadratic term in it.
//
// Plain value, row-major, in the global namespace. Angles are in radians.

#include "QZmath/Foundation/Point3D.h"

class CRotationMatrix
{
public:
  /// The identity.
  CRotationMatrix();
  explicit CRotationMatrix(const double (&rows)[3][3]);

  REmath::Point3D_d getRow(int i) const;
  void setRow(int i, const REmath::Point3D_d & row);
  REmath::Point3D_d getColumn(int j) const;
  void setColumn(int j, const REmath::Point3D_d & column);

  /// Transposes in place.
  void transpose();
  CRotationMatrix getTransposed() const;

  CRotationMatrix & operator+=(const CRotationMatrix & o);
  CRotationMatrix operator+(CRotationMatrix o) const;
  CRotationMatrix & operator*=(double f);
  CRotationMatrix operator*(double f) const;
  /// A true division of every entry.
  CRotationMatrix operator/(double f) const;

  /// Upper triangle against lower: |a - b| <= (|a| + |b|) eps, with the double
  /// epsilon here and the float epsilon in the second form.
  bool isSelfAdjoint() const;
  bool isSelfAdjointAsFloats() const;

  static const CRotationMatrix & Identity();
  static const CRotationMatrix & Zero();
  static CRotationMatrix buildFromRows(const REmath::Point3D_d & row0, const REmath::Point3D_d & row1,
                                       const REmath::Point3D_d & row2);
  static CRotationMatrix buildFromColumns(const REmath::Point3D_d & col0, const REmath::Point3D_d & col1,
                                          const REmath::Point3D_d & col2);

  double m[3][3];
};

/// The inverse through LU (LAPACK). False, with `out` untouched, for a
/// singular matrix.
bool invertMatrix(const CRotationMatrix & a, CRotationMatrix & out);

/// Upper triangle against lower within the absolute float epsilon.
bool IsSelfAdjoint(const CRotationMatrix & m);

/// Eigenvalues and eigenvectors of the symmetric `m` (tred2 + tqli): vectors[i]
/// belongs to values[i], in the solver's order (not sorted). With `normalize`
/// each vector goes through NormalizeVector. Throws std::runtime_error
/// "GetEigenVectorsSA failed" when the solver does not converge.
void GetEigenVectorsSA(const CRotationMatrix & m, REmath::Point3D_d * const vectors, double * values,
                       bool normalize);

/// The z-y-z Euler angles of a rotation matrix; a1 in [0, pi]. When a1 is 0 or
/// pi (within 1e-5 in sine) the first and last angles merge: a2 is 0.
void getEulerAnglesFromMatrix(const CRotationMatrix & m, double & a0, double & a1, double & a2);

/// The rotation of the z-y-z Euler angles angles[0], angles[1], angles[2].
void makeEulerMatrix(CRotationMatrix & m, const double * angles);
