#pragma once
// Sums of box-limited polynomials of three variables, all expressed about one
// common shift: the general form of the reconstruction kernels.

#include <cstddef>
#include <vector>

#include "QZmath/VolTriang/IntegrateOnSupport.h"
#include "QZmath/VolTriang/Parallelepiped.h"
#include "QZmath/VolTriang/Polynom.h"

namespace VolTr
{
/// The sum of its terms; terms may overlap and then add up.
class CPiecewisePolynom
{
public:
  /// No terms; the common support is the inverted box of the greatest finite
  /// doubles, so that unions need no special case.
  CPiecewisePolynom();
  explicit CPiecewisePolynom(CLimitedPolynom const & term);
  CPiecewisePolynom(CPiecewisePolynom const &) = default;
  CPiecewisePolynom(CPiecewisePolynom &&) noexcept = default;
  CPiecewisePolynom & operator=(CPiecewisePolynom const &) = default;
  CPiecewisePolynom & operator=(CPiecewisePolynom &&) noexcept = default;
  virtual ~CPiecewisePolynom() = default;

  /// Appends a copy re-expressed about the common shift (the first term sets it).
  void addTerm(CLimitedPolynom const & t);

  /// The sum of the terms whose support holds p + 1e-10 on every axis.
  double eval(double const * p) const;

  CPiecewisePolynom & operator+=(CPiecewisePolynom const & other);
  /// Every term's polynomial multiplied.
  CPiecewisePolynom & operator*=(double x);

  /// f(x) becomes f(x + c), lazily: shifts and boxes move. A null or zero c
  /// does nothing.
  void substituteArgPlusConst(double const * c);
  /// The same function about a new common shift (null: the origin).
  void changeShift(double const * const s);
  /// f(x) becomes f(s x).
  void scaleArgument(double const * s);

  /// The integral of every term over its own support, summed.
  double integrateOnSupport() const;

  int getTermsNumber() const { return static_cast<int>(m_terms.size()); }
  /// Checked access: an index out of range throws std::out_of_range.
  CLimitedPolynom const & getTerm(int i) const { return m_terms.at(static_cast<std::size_t>(i)); }
  CParallelepiped const & getCommonSupportRef() const { return m_commonSupport; }
  double const * getCommonShift() const { return m_commonShift; }
  /// The greatest degree among the terms, 0 without terms.
  int maxPower() const { return m_maxPower; }

  /// Every term at the common shift, the common support the exact union of
  /// the term supports, the cached degree right.
  bool checkClassInvariants() const;

private:
  friend CPiecewisePolynom operator*(CPiecewisePolynom const & a, CPiecewisePolynom const & b);

  void changeCommonShift(double const * const s);
  bool debugCheckShiftTheSame() const;
  bool debugCheckCommonSupportIsOk() const;
  bool debugCheckMaxPower() const;

  std::vector<CLimitedPolynom> m_terms;
  CParallelepiped m_commonSupport;
  double m_commonShift[3];
  int m_maxPower;
};

CPiecewisePolynom operator+(CPiecewisePolynom const & a, CPiecewisePolynom const & b);
/// The pointwise product: terms meet where their supports overlap with
/// positive extent; the lower-degree operand is re-expressed about the
/// other's shift, term by term, as its terms are needed.
CPiecewisePolynom operator*(CPiecewisePolynom const & a, CPiecewisePolynom const & b);
} // namespace VolTr
