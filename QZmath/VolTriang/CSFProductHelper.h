#pragma once
// The integrals of products of basis functions, cached.
//
// An integral of a left basis function times a right basis function depends
// only on the two depths and on the offset between their nodes, and it scales
// by a known factor when both depths go one level deeper. The helper computes
// each distinct value once, exactly, and answers the rest by lookup. The
// separable form factors each integral into three one-variable integrals and
// caches those; the general form caches whole integrals in an ordered map.
// "cash" in the names is the system's spelling.

#include <memory>

#include "QZmath/VolTriang/OctreeFuncBasis.h"

namespace VolTr
{
/// 0: left and right bases differ; 1: the bilinear form is symmetric.
enum eBasisSymmetry
{
  eBasisNonSymmetric = 0,
  eBasisSymmetric = 1
};

template <class TKernel> class CCSFProductHelperImpl;

template <class TKernel> class CCSFProductHelperTmpl
{
public:
  /// `symmetry` and `axisMask` serve the general form only. `parity` (three
  /// ints, may be null) tells per axis whether the integral is even (+1), odd
  /// (-1) or neither (0) in the offset.
  CCSFProductHelperTmpl(COctreeFuncBasisTmpl<TKernel> const * left, COctreeFuncBasisTmpl<TKernel> const * right,
                        eBasisSymmetry symmetry, int axisMask, int const * parity);
  /// Copies share the tables with their source.
  CCSFProductHelperTmpl(CCSFProductHelperTmpl const &) = default;
  CCSFProductHelperTmpl & operator=(CCSFProductHelperTmpl const &) = default;
  virtual ~CCSFProductHelperTmpl();

  COctreeFuncBasisTmpl<TKernel> const & leftBasisRef() const;
  COctreeFuncBasisTmpl<TKernel> const & rightBasisRef() const;

  /// The integral of f * g over space.
  double evalScalarProduct(CCSFunc3Tmpl<TKernel> const & f, CCSFunc3Tmpl<TKernel> const & g);
  /// The integral of f times a combination over the right basis.
  double evalScalarProduct(CCSFunc3Tmpl<TKernel> const & f, COctreeFuncLinCombTmpl<TKernel> const & lc);
  /// New bases whose kernels are the old ones with axes a and b exchanged: the
  /// cached values are reused with the axes exchanged.
  void initWithVariablesSwap(int a, int b, COctreeFuncBasisTmpl<TKernel> const * left,
                             COctreeFuncBasisTmpl<TKernel> const * right);
  /// Separable form: the entries of all value tables; general form: the map's size.
  int cashSize() const;

private:
  std::shared_ptr<CCSFProductHelperImpl<TKernel>> m_impl;
};
} // namespace VolTr
