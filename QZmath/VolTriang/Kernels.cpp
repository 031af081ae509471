#include "QZmath/VolTriang/Kernels.h"

#include <cmath>

namespace VolTr
{
// ---------------------------------------------------------------- CCSFunc3Tmpl

template <class TKernel>
CCSFunc3Tmpl<TKernel>::CCSFunc3Tmpl()
    : m_kernel(nullptr), m_argumentShift{0.0, 0.0, 0.0}, m_argumentShiftInt{0, 0, 0}, m_argumentScale(1.0),
      m_normalizationScale(1.0), m_nodeDepth(-1)
{
}

template <class TKernel>
CCSFunc3Tmpl<TKernel>::CCSFunc3Tmpl(TKernel const * kernel, double const * shift, int const * shiftInt,
                                    double scale, double normalization, int nodeDepth)
    : m_kernel(kernel), m_argumentShift{shift[0], shift[1], shift[2]},
      m_argumentShiftInt{shiftInt[0], shiftInt[1], shiftInt[2]}, m_argumentScale(scale),
      m_normalizationScale(normalization), m_nodeDepth(nodeDepth)
{
}

template <class TKernel> double CCSFunc3Tmpl<TKernel>::eval(double const * const p) const
{
  double arg[3];
  for (int a = 0; a < 3; ++a)
    arg[a] = (p[a] - m_argumentShift[a]) * m_argumentScale;
  return m_kernel->eval(arg) * m_normalizationScale;
}

// ---------------------------------------------------------------- the kernel, separable form

namespace
{
enum class tf_Order
{
  Value,
  First,
  Second
};

// k, k' or k'' as one piecewise polynomial on the knots -1.5, -0.5, 0.5, 1.5.
CSingleVarLimitedPolynom tf_splineFactor(tf_Order order)
{
  double const knots[4] = {-1.5, -0.5, 0.5, 1.5};
  CSingleVarPolynom pieces[3];
  switch (order)
  {
  case tf_Order::Value:
  {
    double const left[2] = {1.5, 1.0}, mid[3] = {0.75, 0.0, -1.0}, right[2] = {-1.5, 1.0};
    CSingleVarPolynom l(2, left), r(2, right);
    l.multiply(&pieces[0], l);
    pieces[0] *= 0.5;
    pieces[1] = CSingleVarPolynom(3, mid);
    r.multiply(&pieces[2], r);
    pieces[2] *= 0.5;
    break;
  }
  case tf_Order::First:
  {
    double const left[2] = {1.5, 1.0}, mid[2] = {0.0, -2.0}, right[2] = {-1.5, 1.0};
    pieces[0] = CSingleVarPolynom(2, left);
    pieces[1] = CSingleVarPolynom(2, mid);
    pieces[2] = CSingleVarPolynom(2, right);
    break;
  }
  case tf_Order::Second:
  {
    double const one = 1.0, minusTwo = -2.0;
    pieces[0] = CSingleVarPolynom(1, &one);
    pieces[1] = CSingleVarPolynom(1, &minusTwo);
    pieces[2] = CSingleVarPolynom(1, &one);
    break;
  }
  }
  return CSingleVarLimitedPolynom(0.0, 3, pieces, 4, knots);
}

// ---------------------------------------------------------------- the kernel, general form

// k, k' or k'' of axis i as a sum of three box-limited polynomials; the other
// two axes are unbounded.
CPiecewisePolynom tf_axisFactor(int axis, tf_Order order)
{
  CPolynom const m(CMonom::x_i_pow_d(axis, 1));
  CPolynom polys[3];
  switch (order)
  {
  case tf_Order::Value:
    polys[0] = m * m * 0.5 + m * 1.5 + 1.125;
    polys[1] = m * m * -1.0 + 0.75;
    polys[2] = m * m * 0.5 + m * -1.5 + 1.125;
    break;
  case tf_Order::First:
    polys[0] = m + 1.5;
    polys[1] = m * -2.0;
    polys[2] = m + -1.5;
    break;
  case tf_Order::Second:
    polys[0] = CPolynom() + 1.0;
    polys[1] = CPolynom() + -2.0;
    polys[2] = CPolynom() + 1.0;
    break;
  }
  double const bounds[4] = {-1.5, -0.5, 0.5, 1.5};
  CPiecewisePolynom result;
  for (int piece = 0; piece < 3; ++piece)
  {
    CParallelepiped support(CInterval::all(), CInterval::all(), CInterval::all());
    support.setDimension(axis, CInterval(bounds[piece], bounds[piece + 1]));
    result.addTerm(CLimitedPolynom(polys[piece], support, nullptr));
  }
  return result;
}

// The product of the factors of the three axes, one of them of the given order.
CPiecewisePolynom tf_generalProduct(int specialAxis, tf_Order order)
{
  CPiecewisePolynom result;
  bool first = true;
  for (int a = 0; a < 3; ++a)
  {
    CPiecewisePolynom const f = tf_axisFactor(a, a == specialAxis ? order : tf_Order::Value);
    if (first)
      result = f;
    else
      result = result * f;
    first = false;
  }
  return result;
}
} // namespace

template <> CProductPiecewisePolynom makeApproxGaussian<CProductPiecewisePolynom>()
{
  CSingleVarLimitedPolynom const k = tf_splineFactor(tf_Order::Value);
  CProductPolynom const summand(k, k, k);
  return CProductPiecewisePolynom(1, &summand);
}

template <> CPiecewisePolynom makeApproxGaussian<CPiecewisePolynom>()
{
  return tf_generalProduct(-1, tf_Order::Value);
}

template <> CProductPiecewisePolynom DgaussianDx<CProductPiecewisePolynom>(int axis)
{
  CProductPiecewisePolynom d;
  makeApproxGaussian<CProductPiecewisePolynom>().makePartialDerivative(&d, axis);
  return d;
}

template <> CPiecewisePolynom DgaussianDx<CPiecewisePolynom>(int axis)
{
  // The derivative factor first, then k on the other axes in ascending order.
  CPiecewisePolynom result = tf_axisFactor(axis, tf_Order::First);
  for (int a = 0; a < 3; ++a)
    if (a != axis)
      result = result * tf_axisFactor(a, tf_Order::Value);
  return result;
}

template <> CProductPiecewisePolynom makeApproxGaussianLaplacian<CProductPiecewisePolynom>()
{
  CProductPiecewisePolynom result;
  for (int axis = 0; axis < 3; ++axis)
  {
    CProductPiecewisePolynom const k = makeApproxGaussian<CProductPiecewisePolynom>();
    CProductPiecewisePolynom d1, d2;
    k.makePartialDerivative(&d1, axis);
    d1.makePartialDerivative(&d2, axis);
    result += d2;
  }
  return result;
}

template <> CPiecewisePolynom makeApproxGaussianLaplacian<CPiecewisePolynom>()
{
  CPiecewisePolynom result = tf_generalProduct(0, tf_Order::Second);
  result += tf_generalProduct(1, tf_Order::Second);
  result += tf_generalProduct(2, tf_Order::Second);
  return result;
}

// ---------------------------------------------------------------- placement

template <class TKernel> TKernel polynomByShiftedKernel(CCSFunc3Tmpl<TKernel> const & f)
{
  TKernel result(f.getkernelRef());
  double const s = f.getArgumentScale();
  double const scale[3] = {s, s, s};
  result.scaleArgument(scale);
  double const * c = f.getArgumentShift();
  double const minusC[3] = {0.0 - c[0], 0.0 - c[1], 0.0 - c[2]};
  result.substituteArgPlusConst(minusC);
  result *= f.getNormalizationScale();
  return result;
}

template <class TKernel> TKernel makeProduct(CCSFunc3Tmpl<TKernel> const & f, CCSFunc3Tmpl<TKernel> const & g)
{
  return polynomByShiftedKernel(f) * polynomByShiftedKernel(g);
}

template <class TKernel> CParallelepiped getScaledFunctionCommonSupport(CCSFunc3Tmpl<TKernel> const & f)
{
  CParallelepiped box = f.getkernelRef().getCommonSupportRef();
  double const * c = f.getArgumentShift();
  double const invMin = 1.0 / f.getArgumentScale();
  double const invMax = 1.0 / f.getArgumentScale();
  for (int a = 0; a < 3; ++a)
  {
    box.getMinMod()[a] = box.getMin()[a] * invMin + c[a];
    box.getMaxMod()[a] = box.getMax()[a] * invMax + c[a];
  }
  return box;
}

void summandByShiftedKernel(CSingleVarLimitedPolynom * out, CCSFunc3Tmpl<CProductPiecewisePolynom> const & f,
                            int summandIndex, int axis)
{
  *out = f.getkernelRef().getSummand(summandIndex).getMultiplier(axis);
  out->scaleArgument(f.getArgumentScale());
  out->substituteArgPlusConst(0.0 - f.getArgumentShift()[axis]);
  *out *= std::cbrt(f.getNormalizationScale());
}

CSingleVarLimitedPolynom summandByShiftedKernel(CCSFunc3Tmpl<CProductPiecewisePolynom> const & f, int summandIndex,
                                                int axis)
{
  CSingleVarLimitedPolynom out;
  summandByShiftedKernel(&out, f, summandIndex, axis);
  return out;
}

namespace
{
template <class T> double tf_trilinear(T const * const p, double const * const c, CParallelepiped const & cell)
{
  double w = 1.0;
  for (int a = 0; a < 3; ++a)
  {
    double const width = cell.getMax()[a] - cell.getMin()[a];
    if (std::fabs(width) >= 1e-10)
      w *= 1.0 - std::fabs(static_cast<double>(p[a]) - c[a]) / width;
  }
  return w;
}
} // namespace

double calcTrilinearWeight(float const * const p, double const * const c, CParallelepiped const & cell)
{
  return tf_trilinear(p, c, cell);
}

double calcTrilinearWeight(double const * const p, double const * const c, CParallelepiped const & cell)
{
  return tf_trilinear(p, c, cell);
}

#define QZ_INSTANTIATE_KERNEL(K)                                                                                  \
  template class CCSFunc3Tmpl<K>;                                                                                \
  template K polynomByShiftedKernel<K>(CCSFunc3Tmpl<K> const &);                                                 \
  template K makeProduct<K>(CCSFunc3Tmpl<K> const &, CCSFunc3Tmpl<K> const &);                                   \
  template CParallelepiped getScaledFunctionCommonSupport<K>(CCSFunc3Tmpl<K> const &);

QZ_INSTANTIATE_KERNEL(CPiecewisePolynom)
QZ_INSTANTIATE_KERNEL(CProductPiecewisePolynom)
#undef QZ_INSTANTIATE_KERNEL
} // namespace VolTr
