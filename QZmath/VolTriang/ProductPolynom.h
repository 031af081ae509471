#pragma once
// Separable functions of three variables: a summand is a product of three
// one-variable piecewise polynomials, a function a sum of summands. Products
// and integrals of such functions reduce to one-variable work, which is the
// form the reconstruction pipeline assembles its system from.

#include <cstddef>
#include <vector>

#include "QZmath/VolTriang/IntegrateOnSupport.h"
#include "QZmath/VolTriang/Parallelepiped.h"
#include "QZmath/VolTriang/SingleVarPolynom.h"

namespace VolTr
{
/// multiplier[0](x) * multiplier[1](y) * multiplier[2](z).
class CProductPolynom
{
public:
  CProductPolynom() = default;
  CProductPolynom(CSingleVarLimitedPolynom const & mx, CSingleVarLimitedPolynom const & my,
                  CSingleVarLimitedPolynom const & mz);
  CProductPolynom(CProductPolynom const &) = default;
  CProductPolynom(CProductPolynom &&) noexcept = default;
  CProductPolynom & operator=(CProductPolynom const &) = default;
  CProductPolynom & operator=(CProductPolynom &&) noexcept = default;
  virtual ~CProductPolynom() = default;

  /// The multiplier of axis 0, 1 or 2; another axis throws std::out_of_range.
  CSingleVarLimitedPolynom const & getMultiplier(int axis) const;
  void setMultiplier(int axis, CSingleVarLimitedPolynom const & m);

  /// Axis values multiplied in order x, y, z; stops at an exact zero.
  double eval(double const * const p) const;
  void clear();
  /// True if any multiplier has no pieces.
  bool empty() const;
  /// The sum of the three multipliers' maxPower().
  int power() const;

  /// The product of the three axis integrals.
  double integrateOnSupportWithBuffer(CSingleVarPolynom * buffer) const;

  void substituteArgPlusConst(double const * const c);
  void changeShift(double const * const s);
  void scaleArgument(double const * const s);
  /// Spread over the axes as cbrt(x) each.
  CProductPolynom & operator*=(double x);

  /// The product on the intersection of the supports; `out` stays empty when
  /// the bounds do not overlap strictly on some axis.
  void multiply(CProductPolynom * out, CProductPolynom const & other) const;
  /// As `multiply`, reusing `shiftBuffer` for operands that must be moved to
  /// the other's shift, so that repeated products do not allocate.
  void multiplyWithBuffer(CProductPolynom * out, CProductPolynom const & other,
                          CSingleVarLimitedPolynom * shiftBuffer) const;

private:
  friend class CProductPiecewisePolynom;

  void multiplyAxesBy(double c);

  CSingleVarLimitedPolynom m_multiplier[3];
};

/// A sum of separable summands, all expressed about one common shift.
class CProductPiecewisePolynom
{
public:
  /// No summands, zero support and zero shift.
  CProductPiecewisePolynom();
  /// `addSummand` for each of the `count` summands.
  CProductPiecewisePolynom(int count, CProductPolynom const * summands);
  CProductPiecewisePolynom(CProductPiecewisePolynom const &) = default;
  CProductPiecewisePolynom(CProductPiecewisePolynom &&) noexcept = default;
  CProductPiecewisePolynom & operator=(CProductPiecewisePolynom const &) = default;
  CProductPiecewisePolynom & operator=(CProductPiecewisePolynom &&) noexcept = default;
  virtual ~CProductPiecewisePolynom() = default;

  /// The sum of the summands in order; commonSupport is not consulted.
  double eval(double const * const p) const;
  void clear();

  CParallelepiped const & getCommonSupportRef() const { return m_commonSupport; }
  double const * getCommonShift() const { return m_commonShift; }
  int summandsNumber() const { return static_cast<int>(m_summands.size()); }
  /// Checked access: an index out of range throws std::out_of_range.
  CProductPolynom const & getSummand(int i) const { return m_summands.at(static_cast<std::size_t>(i)); }

  /// Appends a copy, unites commonSupport with its box (the box of a new
  /// object being the origin) and moves the copy to commonShift.
  void addSummand(CProductPolynom const & s);
  CProductPiecewisePolynom & operator+=(CProductPiecewisePolynom const & other);
  /// The pointwise product; the lower-degree operand is moved to the other's
  /// shift summand by summand, as its summands are needed.
  CProductPiecewisePolynom operator*(CProductPiecewisePolynom const & other) const;
  /// A zero factor clears the object; any other goes as cbrt(x) onto every axis.
  CProductPiecewisePolynom & operator*=(double x);

  /// The integral over the whole space, with one buffer for the whole walk.
  double integrateOnSupport() const;

  void substituteArgPlusConst(double const * const c);
  void changeShift(double const * const s);
  void scaleArgument(double const * const s);

  /// One summand per summand of this object, differentiated along `axis`.
  void makePartialDerivative(CProductPiecewisePolynom * out, int axis) const;
  /// Three summands per summand of this object: the second derivatives.
  void makeLaplacian(CProductPiecewisePolynom * out) const;

  /// Without summands true; otherwise commonSupport matches the union of the
  /// summand boxes, every multiplier sits at commonShift, and every axis of
  /// every summand is a well-formed non-empty piecewise polynomial.
  bool checkClassInvariants() const;

private:
  int maxPower() const;
  bool checkSummands() const;
  bool checkCommonSupport() const;
  bool checkCommonShift() const;
  /// The box spanned by the bounds of the three multipliers.
  static CParallelepiped summandBox(CProductPolynom const & s);

  CParallelepiped m_commonSupport;
  double m_commonShift[3];
  std::vector<CProductPolynom> m_summands;
};
} // namespace VolTr
