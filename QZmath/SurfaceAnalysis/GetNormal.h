#pragma once
// Normal and curvature estimation on a small neighbourhood of points, the
// point of interest first.
//
// First order: the eigenvector of the smallest eigenvalue of the scatter
// matrix (tred2 + tqli; on a tie the lower index wins). Second order
// (GetNormal2): a quadric through the first point, found by a generalised
// eigenproblem that fixes the length of its gradient there; a neighbourhood
// that lies within Appr2MinDist of the first-order plane keeps the plane.
//
// Every function works on its arguments and on locals only: no static state,
// so any of them may run on several threads at once. Sums are in double. No
// function throws or logs: 0 or false means no result was made, and the
// outputs are then undefined. A curvature that cannot be told comes back as
// 20.0 (UNKNOWN_CURVATURE). Neighbourhoods of fewer than three points, and
// non-finite coordinates, have no normal: the estimators return 0 or false.
//
// The sign of a normal is whatever the eigensolver gives: only
// DetectContourNormal orients its result.

#include <vector>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/Point3D.h"
#include "QZmath/SurfaceAnalysis/QuadraticForm.h"

/// The curvature value that stands for "unknown".
constexpr double UNKNOWN_CURVATURE = 20.0;

/// Parameters of GetNormal2. A null pointer means the defaults.
class CGetNormal2Prms
{
public:
  CGetNormal2Prms() = default;
  CGetNormal2Prms(const CGetNormal2Prms &) = default;
  CGetNormal2Prms & operator=(const CGetNormal2Prms &) = default;
  virtual ~CGetNormal2Prms() = default;

  /// Fit the quadric even when the neighbourhood is flat (default false).
  bool Force2() const { return m_bForce2; }
  bool & Force2() { return m_bForce2; }
  /// True (default): the quadric passes through the first point, 9
  /// coefficients. False: it has a free term, 10 coefficients.
  bool ZeroFremTerm() const { return m_bZeroFremTerm; }
  bool & ZeroFremTerm() { return m_bZeroFremTerm; }
  /// Flatness limit, in units of the neighbourhood's mean distance from the
  /// first point (default 0.01).
  float Appr2MinDist() const { return m_fAppr2MinDist; }
  float & Appr2MinDist() { return m_fAppr2MinDist; }

  /// Extension, off by default: solve the quadric's generalised
  /// eigenproblem through its reduction to the three linear coefficients
  /// (the Schur complement of the quadratic and free ones, a 3 x 3 symmetric
  /// problem for tred2 + tqli) instead of the general LAPACK solver. The
  /// finite eigenpairs are the same, so the normals, forms and distances
  /// agree up to rounding, but the sign of a quadric's normal and form may
  /// differ from the default path. About five times faster; where the
  /// quadratic moments are singular (an exact plane, a line) the general
  /// solver runs as by default.
  bool ReducedEigenProblem() const { return m_bReducedEigenProblem; }
  bool & ReducedEigenProblem() { return m_bReducedEigenProblem; }

  /// The number of quadric coefficients: 9, or 10 with a free term.
  int q_size() const { return m_bZeroFremTerm ? 9 : 10; }
  void SetDefault() { *this = CGetNormal2Prms(); }

private:
  bool m_bForce2 = false;
  bool m_bZeroFremTerm = true;
  float m_fAppr2MinDist = 0.01f;
  bool m_bReducedEigenProblem = false;
};

/// First-order normal of n points. `matrix` is three caller-owned rows of 3
/// doubles; on return its columns hold the eigenvectors of the scatter
/// matrix. Returns 1, or 0 when n < 3, a coordinate is not finite, the
/// eigensolver fails or no eigenvalue lies below 1e30 (a spread too wide for
/// the selection).
int GetNormal(int n, const REmath::Point3D * points, double ** matrix, double * normal);
int GetNormal(int n, const REmath::Point3D * points, double ** matrix, float * normal);

/// As GetNormal; `anisotropy` = smallest eigenvalue / sum of the three, or
/// 0.33333334 when the sum is not above 0 (coincident points).
int GetAnisotropy(int n, const REmath::Point3D * points, double ** matrix, float & anisotropy);

/// Zeroes `normal`, then GetNormal over the vector.
bool EstimateNormal(const std::vector<REmath::Point3D> & points, double * normal);

/// Second-order normal of n points, point 0 first. `dist` receives n values:
/// the distances of the points from the plane (flat case) or along the
/// gradient from the quadric, in the scaled units below. `form` (may be null)
/// receives the plane (Q = 0, L = normal) or the quadric, relative to point 0
/// and scaled by 1 / `*scale`, the root mean square distance of the others
/// from point 0. `scale` may be null. Only the quadrics whose eigenvalue
/// (their weighted residual) is at most the mean of the greatest and least
/// magnitudes over all q slots are candidates; the slots of the infinite
/// eigenvalues the solver drops count as 0, so in effect the bound is half
/// the greatest, and a neighbourhood where no quadric fits clearly better
/// than the others (noise) has none. False when no candidate passes the tests
/// (curvature above 2.0 in scaled units, zero gradient, two sheets), for
/// fewer than three points, coincident points or non-finite coordinates.
bool GetNormal2(int n, const REmath::Point3D * points, const CGetNormal2Prms * prms, CQuadraticForm * form,
                double * const normal, float * const dist, double * scale);
/// The same; the normal is converted in every outcome.
bool GetNormal2(int n, const REmath::Point3D * points, const CGetNormal2Prms * prms, CQuadraticForm * form,
                float * const normal, float * const dist, double * scale);

/// The greater principal curvature magnitude at the origin, which must lie on
/// the form; UNKNOWN_CURVATURE for a zero gradient or an umbilic point.
double MaxCurvature(const CQuadraticForm & form);
double MaxCurvature(const CQuadFormRaw9<double> & form);

/// Both principal curvature magnitudes at the origin (unordered), or both
/// UNKNOWN_CURVATURE for a zero gradient (|b|^2 <= 1e-10) or an umbilic
/// point (H^2 - E G + F^2 < 1e-10, the two within 2e-5 of each other).
/// `tensor` (3 x 3, may be null) receives the two magnitudes spread over an
/// arbitrary tangent frame (not the principal directions); `normal` (may be
/// null) the unit gradient, both only when the curvatures are known.
void GetCurvatures(const CQuadFormRaw9<double> & form, double * curvatures, REmath::Matrix<double> * tensor,
                   double * normal);

/// The curvature tensor at points[0] (3 x 3, in the points' units) from a
/// quadric through it. With `computeNormal` false and a `normal` given, that
/// normal is used; with `computeNormal` true the estimated unit normal is
/// stored in `normal` (when given).
bool EstimateCurvature(const std::vector<REmath::Point3D> & points, bool computeNormal, double * normal,
                       REmath::Matrix<double> & tensor);

/// The two principal curvatures at points[0], in the points' units, smaller
/// first.
bool GetMinMaxCurvaturesForPoints(std::vector<REmath::Point3D> & points, float & minCurvature,
                                  float & maxCurvature);

/// GetNormal2 with a free term and a flatness limit of 1e-5; the form comes
/// back in the points' own units, still relative to points[0]. `form` is a
/// default form when the result is false.
bool GetNormalAndQuadricApprShiftedNonScaled(int n, const REmath::Point3D * points, CQuadraticForm & form,
                                             double * normal);
bool GetNormalAndQuadricApprShiftedNonScaled(int n, const REmath::Point3D * points, CQuadraticForm & form,
                                             float * normal);

/// The unit normal of a closed contour (the last point joins the first),
/// oriented by the contour's direction. False for a null output, an empty
/// contour or a zero area vector.
bool DetectContourNormal(const std::vector<REmath::Point3D> & contour, float * normal);
