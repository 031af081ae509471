#include "QZmath/LinSys/bicgstab.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include <mkl_cblas.h>

namespace REmath
{
namespace
{
// Level-1 BLAS by precision.
inline float tf_dot(int n, float const * x, float const * y) { return cblas_sdot(n, x, 1, y, 1); }
inline double tf_dot(int n, double const * x, double const * y) { return cblas_ddot(n, x, 1, y, 1); }
inline void tf_axpy(int n, float a, float const * x, float * y) { cblas_saxpy(n, a, x, 1, y, 1); }
inline void tf_axpy(int n, double a, double const * x, double * y) { cblas_daxpy(n, a, x, 1, y, 1); }
inline void tf_copy(int n, float const * x, float * y) { cblas_scopy(n, x, 1, y, 1); }
inline void tf_copy(int n, double const * x, double * y) { cblas_dcopy(n, x, 1, y, 1); }
inline void tf_scal(int n, float a, float * x) { cblas_sscal(n, a, x, 1); }
inline void tf_scal(int n, double a, double * x) { cblas_dscal(n, a, x, 1); }

// The breakdown tests of the shadow residual and of the denominator work in
// the member's own precision.
inline bool tf_belowSmall(float value) { return value < 1e-15f; }
inline bool tf_belowSmall(double value) { return value < 1e-40; }

// The stabilisation test widens both members' values to double.
inline bool tf_belowStabilisationSmall(double value) { return value < 1e-40; }

template <class T>
int tf_bicgstab(int n, void (*multiply)(void *, T const *, T *), void * context, T const * b, T * x, T eps,
                int maxIterations)
{
  if (n < 0 || multiply == nullptr || b == nullptr || x == nullptr)
    return -1;
  // When the caller sets no limit, a product that is not a fixed linear map
  // (or a rounding cycle) could keep the loop from ever converging.
  long long const safetyLimit = 10LL * n + 1000;

  // The work vectors, all zero at start; one element more than needed so
  // that even an empty system hands BLAS real addresses. The iteration this
  // routine follows has a seventh, u := alpha (u + t), which is written but
  // never read; it changes no result and is left out.
  std::size_t const size = static_cast<std::size_t>(n) + 1;
  std::vector<T> r(size, T(0));
  std::vector<T> p(size, T(0));
  std::vector<T> s(size, T(0));
  std::vector<T> h(size, T(0));
  std::vector<T> v(size, T(0));
  std::vector<T> t(size, T(0));

  T const limit = (eps * eps) * tf_dot(n, b, b);

  multiply(context, x, r.data());
  tf_axpy(n, T(-1), b, r.data());

  tf_copy(n, r.data(), p.data());
  tf_copy(n, r.data(), s.data());
  tf_copy(n, r.data(), h.data());
  if (tf_belowSmall(tf_dot(n, h.data(), h.data())))
    return -1;
  T rho = tf_dot(n, h.data(), s.data());

  int k = 0;
  T rr = tf_dot(n, r.data(), r.data());
  while (rr > limit)
  {
    multiply(context, p.data(), v.data());
    T const d = tf_dot(n, h.data(), v.data());
    if (tf_belowSmall(std::fabs(d)))
      return -1;
    T const alpha = rho / d;
    tf_axpy(n, -alpha, v.data(), r.data());
    tf_axpy(n, -alpha, v.data(), s.data());
    multiply(context, s.data(), t.data());

    T const a = tf_dot(n, s.data(), t.data());
    T const c = tf_dot(n, t.data(), t.data());
    T omega = T(0);
    if (!tf_belowStabilisationSmall(std::fabs(static_cast<double>(a))) &&
        !tf_belowStabilisationSmall(std::fabs(static_cast<double>(c))))
      omega = a / c;

    tf_axpy(n, -omega, t.data(), r.data());
    tf_axpy(n, -alpha, p.data(), x);
    tf_axpy(n, -omega, s.data(), x);
    tf_axpy(n, -omega, t.data(), s.data()); // s equals r from here on

    T const rhoNew = tf_dot(n, h.data(), s.data());
    // With omega 0 this is an infinity or a NaN; the NaN ends the loop below.
    T const beta = ((alpha / omega) / rho) * rhoNew;
    rho = rhoNew;

    tf_scal(n, beta, p.data());
    tf_axpy(n, T(1), s.data(), p.data());
    tf_axpy(n, -(omega * beta), v.data(), p.data());

    rr = tf_dot(n, r.data(), r.data());
    ++k;
    if (maxIterations > 0 && k >= maxIterations)
      break;
    if (maxIterations <= 0 && k >= safetyLimit && rr > limit)
      return -1;
  }
  return k;
}
} // namespace

int bicgstab(int n, void (*multiply)(void * context, float const * in, float * out), void * context,
             float const * rightPart, float * solution, float eps, int maxIterations)
{
  return tf_bicgstab<float>(n, multiply, context, rightPart, solution, eps, maxIterations);
}

int bicgstab(int n, void (*multiply)(void * context, double const * in, double * out), void * context,
             double const * rightPart, double * solution, double eps, int maxIterations)
{
  return tf_bicgstab<double>(n, multiply, context, rightPart, solution, eps, maxIterations);
}
} // namespace REmath
