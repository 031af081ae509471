#pragma once
// The kernel of the reconstruction and its placement in space.
//
// The kernel K(x, y, z) = k(x) k(y) k(z) is the product of three quadratic
// B-splines centred at 0, with support [-1.5, 1.5] per axis and integral 1. A
// basis function is the kernel placed at a node: N * K(s (p - c)), with s one
// over the node's cell size and N a normalisation. Every entry of the
// reconstruction system is an integral of products of such functions, so the
// formulas here fix the numbers of the whole pipeline.
//
// The templates exist for the two polynomial forms, CPiecewisePolynom (the
// general reference form, 27 box terms) and CProductPiecewisePolynom (the
// separable form the pipeline runs on).

#include "QZmath/VolTriang/Parallelepiped.h"
#include "QZmath/VolTriang/PiecewisePolynom.h"
#include "QZmath/VolTriang/ProductPolynom.h"

namespace VolTr
{
/// A kernel placed in space: value N * K(s (p - c)). It only points to the
/// kernel, which the caller keeps alive; small enough to make by the million.
template <class TKernel> class CCSFunc3Tmpl
{
public:
  /// No kernel, shift 0, scale and normalisation 1, depth -1.
  CCSFunc3Tmpl();
  CCSFunc3Tmpl(TKernel const * kernel, double const * shift, int const * shiftInt, double scale,
               double normalization, int nodeDepth);
  CCSFunc3Tmpl(CCSFunc3Tmpl const &) = default;
  CCSFunc3Tmpl & operator=(CCSFunc3Tmpl const &) = default;
  virtual ~CCSFunc3Tmpl() = default;

  TKernel const & getkernelRef() const { return *m_kernel; }
  TKernel const * getKernelPtr() const { return m_kernel; }
  double const * getArgumentShift() const { return m_argumentShift; }
  double * getArgumentShiftMod() { return m_argumentShift; }
  int const * getArgumentShiftInt() const { return m_argumentShiftInt; }
  int * getArgumentShiftIntMod() { return m_argumentShiftInt; }
  double getArgumentScale() const { return m_argumentScale; }
  double getNormalizationScale() const { return m_normalizationScale; }
  int getNodeDepth() const { return m_nodeDepth; }

  /// N * K((p - c) * s).
  double eval(double const * const p) const;

private:
  TKernel const * m_kernel;
  double m_argumentShift[3];
  int m_argumentShiftInt[3];
  double m_argumentScale;
  double m_normalizationScale;
  int m_nodeDepth;
};

/// The kernel K.
template <class TKernel> TKernel makeApproxGaussian();
/// dK/dx_axis, axis 0, 1 or 2.
template <class TKernel> TKernel DgaussianDx(int axis);
/// The Laplacian of K.
template <class TKernel> TKernel makeApproxGaussianLaplacian();

/// f as a stand-alone polynomial object in model coordinates (allocates).
template <class TKernel> TKernel polynomByShiftedKernel(CCSFunc3Tmpl<TKernel> const & f);
/// The pointwise product of two placed functions (allocates).
template <class TKernel> TKernel makeProduct(CCSFunc3Tmpl<TKernel> const & f, CCSFunc3Tmpl<TKernel> const & g);
/// The box of f in model coordinates: the kernel's support scaled by 1 / s and moved to c.
template <class TKernel> CParallelepiped getScaledFunctionCommonSupport(CCSFunc3Tmpl<TKernel> const & f);

/// The one-variable factor of one summand of f on one axis, in model
/// coordinates, with cbrt(N) as its share of the normalisation: the product of
/// the three axes' factors is that summand of f.
CSingleVarLimitedPolynom summandByShiftedKernel(CCSFunc3Tmpl<CProductPiecewisePolynom> const & f, int summandIndex,
                                                int axis);
/// The same into a caller's object, whose storage is reused.
void summandByShiftedKernel(CSingleVarLimitedPolynom * out, CCSFunc3Tmpl<CProductPiecewisePolynom> const & f,
                            int summandIndex, int axis);

/// The weight of a sample p towards a node point c inside `cell`: the product
/// over the axes of 1 - |p - c| / width. An axis narrower than 1e-10 gives no
/// factor. Nothing clamps: beyond the cell the weight can be 0 or negative.
double calcTrilinearWeight(float const * const p, double const * const c, CParallelepiped const & cell);
double calcTrilinearWeight(double const * const p, double const * const c, CParallelepiped const & cell);
} // namespace VolTr
