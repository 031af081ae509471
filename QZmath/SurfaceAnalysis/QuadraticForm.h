#pragma once
// A general quadric in space, x^T Q x + L . x + K = 0: the local surface model
// that the normal and curvature estimators fit to a neighbourhood. It
// evaluates itself and its gradient, solves for z over (x, y), moves to
// another frame, and converts to and from flat coefficient arrays.
//
// Q may be non-symmetric: evaluation and the z solver read all nine entries,
// the gradient uses the rows only (2 Q p + L). Only transformToBasis
// symmetrises Q.

#include "QZmath/Foundation/OrthoNormBasis.h"
#include "QZmath/Foundation/Point3D.h"
#include "QZmath/Foundation/RotationMatrix.h"

/// Flat coefficient arrays, in the order KXX, KXY, KXZ, KYY, KYZ, KZZ, KX, KY,
/// KZ and, for the ten-form, K. The mixed entries are the full coefficients of
/// their monomials: twice the matching entry of a symmetric Q.
template <class T> using CQuadFormRaw9 = T[9];
template <class T> using CQuadFormRaw10 = T[10];

class CQuadraticForm
{
public:
  /// The roots found by the z solvers, as bits.
  enum CalcZResult
  {
    CalcZNone = 0, ///< no real root; outputs untouched
    CalcZAny = 1,  ///< every z solves it; outputs untouched
    CalcZOne = 2,  ///< one root, in z1
    CalcZTwo = 6   ///< two roots, in z1 and z2
  };

  /// Relative zero test of the z solvers: |v| <= |v| * m_sEvalError, which in
  /// effect holds for v = 0 only.
  static const double m_sEvalError;

  /// Q the identity, L and K zero.
  CQuadraticForm();
  CQuadraticForm(const CQuadraticForm &) = default;
  CQuadraticForm & operator=(const CQuadraticForm &) = default;
  ~CQuadraticForm() = default;

  /// The form's value at p: sum over rows of ((row i of Q) . p + L_i) p_i, + K.
  double eval(const REmath::Point3D_d & p) const;
  /// 2 Q p + L (no symmetrisation).
  REmath::Point3D_d evalGradient(const REmath::Point3D_d & p) const;

  /// Solves the form for z at (x, y). With two roots z1 is the one nearer to
  /// the plane z = 0 (when z1 and z2 are one variable it receives the second
  /// formula's root). With one root (Q22 = 0) only z1 is written.
  CalcZResult calculateZByXY(double x, double y, double & z1, double & z2) const;
  /// As calculateZByXY; with two roots z1 is the one where the gradient points
  /// most along `dir`.
  CalcZResult calculateZByXYSortedByGrad(double x, double y, double & z1, double & z2,
                                         const REmath::Point3D_d & dir) const;

  /// Note the argument order: the three squares first. The mixed coefficients
  /// are halved into both mirror entries of Q.
  static CQuadraticForm buildFromCoefficients(double kxx, double kyy, double kzz, double kxy, double kxz,
                                              double kyz, double kx, double ky, double kz, double k);
  /// Reads min(count, 10) coefficients in the raw order; missing ones are 0
  /// (so 9 gives K = 0, 6 gives L = 0 and K = 0). Instantiated for float and
  /// double.
  template <class T> static CQuadraticForm buildFromCoeffArray(int count, const T * coeffs);

  /// The raw coefficients: buildFromCoeffArray followed by this reproduces
  /// the array. Instantiated for float and double.
  template <class T> void ConvertToRawFormat(CQuadFormRaw9<T> & raw) const;
  template <class T> void ConvertToRawFormat(CQuadFormRaw10<T> & raw) const;

  /// Re-expresses the form in the coordinates y of `basis`, x = A y + t with
  /// A and t the basis's back transform: K' = f(t), L' = A^T L + 2 A^T Q t,
  /// Q' = A^T Q A symmetrised.
  void transformToBasis(const COrthoNormBasis & basis);
  CQuadraticForm getTransformedToBasis(const COrthoNormBasis & basis) const;

  double getKXX() const { return m_Q.m[0][0]; }
  double getKYY() const { return m_Q.m[1][1]; }
  double getKZZ() const { return m_Q.m[2][2]; }
  double getKXY() const { return m_Q.m[0][1] + m_Q.m[1][0]; }
  double getKXZ() const { return m_Q.m[0][2] + m_Q.m[2][0]; }
  double getKYZ() const { return m_Q.m[1][2] + m_Q.m[2][1]; }
  double getKX() const { return m_L.x(); }
  double getKY() const { return m_L.y(); }
  double getKZ() const { return m_L.z(); }
  double getK() const { return m_K; }

  const CRotationMatrix & GetQuadaricTerm() const { return m_Q; }
  CRotationMatrix & GetQuadaricTerm() { return m_Q; }
  const REmath::Point3D_d & GetLinearTerm() const { return m_L; }
  REmath::Point3D_d & GetLinearTerm() { return m_L; }

private:
  /// Writes n raw coefficients (n = 6, 9 or >= 10); any other n throws
  /// CVescaException.
  template <class T> void convertToRaw(int n, T * raw) const;

  CRotationMatrix m_Q;
  REmath::Point3D_d m_L;
  double m_K;
};
