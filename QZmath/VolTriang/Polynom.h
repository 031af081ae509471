#pragma once
// Exact polynomial algebra in three variables: monomials, sparse polynomials
// with sorted terms, and polynomials restricted to a box about a lazily
// applied shift. This is the general reference form of the reconstruction
// kernels; the pipeline itself runs on the separable form (ProductPolynom.h).

#include <cstddef>
#include <vector>

#include "QZmath/VolTriang/Parallelepiped.h"

namespace VolTr
{
class CWeightedMonom;

/// x^a y^b z^c.
class CMonom
{
public:
  CMonom() : m_power{0, 0, 0} {}
  /// Reads three exponents whatever `count` says; a null array gives zeros.
  CMonom(int count, int const * exponents);
  CMonom(int px, int py, int pz) : m_power{px, py, pz} {}
  CMonom(CMonom const &) = default;
  CMonom & operator=(CMonom const &) = default;
  virtual ~CMonom() = default;

  /// The monom with exponent `d` on axis `i` and 0 elsewhere.
  static CMonom x_i_pow_d(int i, int d);

  bool operator==(CMonom const & other) const;
  bool operator!=(CMonom const & other) const { return !(*this == other); }
  /// Lexicographic on the exponents of x, then y, then z.
  bool operator<(CMonom const & other) const;

  int getVarPower(int axis) const;
  /// The total degree.
  int power() const { return m_power[0] + m_power[1] + m_power[2]; }

  double eval(double const * p) const;
  /// The closed-form integral over the box.
  double integrateOnBox(CParallelepiped const & box) const;

  CMonom operator*(CMonom const & other) const;
  CMonom & operator*=(CMonom const & other);
  void multiply(CMonom * out, CMonom const & other) const;

private:
  friend class CPolynom;

  int m_power[3];
};

/// coeff * monom.
class CWeightedMonom
{
public:
  CWeightedMonom() : m_monom(), m_coeff(0.0) {}
  /// A weight of 0.0 resets the exponents: a zero term is the constant zero.
  CWeightedMonom(double weight, int count, int const * exponents);
  /// Keeps the exponents whatever the weight.
  CWeightedMonom(double weight, CMonom const & monom) : m_monom(monom), m_coeff(weight) {}
  CWeightedMonom(CWeightedMonom const &) = default;
  CWeightedMonom & operator=(CWeightedMonom const &) = default;
  virtual ~CWeightedMonom() = default;

  CMonom const & getMonomRef() const { return m_monom; }
  CMonom & getMonomRefMod() { return m_monom; }
  double getCoeff() const { return m_coeff; }
  double & getCoeffRefMod() { return m_coeff; }

  double eval(double const * p) const { return m_monom.eval(p) * m_coeff; }
  double integrateOnBox(CParallelepiped const & box) const { return m_monom.integrateOnBox(box) * m_coeff; }

  /// Exponents add, weights multiply.
  CWeightedMonom operator*(CWeightedMonom const & other) const;
  void multiply(CWeightedMonom * out, CWeightedMonom const & other) const;
  /// The term of p(s1 x, s2 y, s3 z).
  void scaleArgument(double const * s);

private:
  friend class CPolynom;

  CMonom m_monom;
  double m_coeff;
};

CWeightedMonom operator*(double weight, CMonom const & monom);

/// A sparse polynomial: terms strictly ascending in CMonom order, with the
/// total degree cached.
class CPolynom
{
public:
  CPolynom() = default;
  // Implicit on purpose: a term or a monom is a polynomial, so kernels can be
  // written as sums like CPolynom(0.5 * (m * m)) + 1.5 * m + 1.125.
  /// One term, kept even with weight 0.
  CPolynom(CWeightedMonom const & term);
  /// One term of weight 1.0.
  CPolynom(CMonom const & monom);
  CPolynom(CPolynom const &) = default;
  CPolynom(CPolynom &&) noexcept = default;
  CPolynom & operator=(CPolynom const &) = default;
  CPolynom & operator=(CPolynom &&) noexcept = default;
  virtual ~CPolynom() = default;

  /// Merges with the term of equal exponents (erasing it when the weights
  /// cancel exactly) or inserts in order, also with weight 0.
  void insertWeightedMonom(CWeightedMonom const & t);

  int getSummandNumber() const { return static_cast<int>(m_terms.size()); }
  /// Checked access to a term in ascending order.
  CWeightedMonom const & getSummand(int i) const { return m_terms.at(static_cast<std::size_t>(i)); }
  int power() const { return m_power; }

  double eval(double const * p) const;

  CPolynom operator+(CPolynom const & other) const;
  CPolynom & operator+=(CPolynom const & other);
  /// Adds a constant term of that weight (a sum of 0 erases the constant term).
  CPolynom operator+(double c) const;
  CPolynom & operator+=(double c);

  CPolynom operator*(CPolynom const & other) const;
  /// out = this * other; `out` may alias an operand (a temporary is used).
  void multiply(CPolynom * out, CPolynom const & other) const;
  /// Every weight multiplied; no term is removed, also for a factor of 0.
  CPolynom operator*(double x) const;
  CPolynom & operator*=(double x);
  /// Multiplies every term (and the degree) by the monom.
  CPolynom & operator*=(CMonom const & m);

  /// p(x) becomes p(x + c), with temporary buffers.
  void substituteArgPlusConst(double const * c);
  /// p(x) becomes p(x + c) with the caller's buffers: `acc` collects the
  /// expansion and is left holding the old terms, `scratch` expands one term.
  void substituteArgPlusConstWithBuffers(double const * c, CPolynom * acc, CPolynom * scratch);
  /// p(x) becomes p(s1 x, s2 y, s3 z).
  void scaleArgument(double const * s);

  double integrateOnBox(CParallelepiped const & box) const;
  void clear();

  /// Terms strictly ascending and the cached degree right.
  bool checkClassInvariants() const;

private:
  friend class CPolynomTestAccess;

  bool debugCheckTermsSorted() const;
  bool debugCheckTermsPartialSorted(std::size_t n) const;
  int calculatePower() const;
  /// Restores the order after direct edits of the terms: sort, merge equal
  /// exponents, drop zero weights. The cached degree is left alone.
  void collectAndSortSimilarTerms();
  void reserveForOneMore();
  void substituteArgPlusConstOfTerm(CWeightedMonom const & term, double const * c, CPolynom * scratch,
                                    CPolynom * factor, CPolynom * product) const;

  std::vector<CWeightedMonom> m_terms;
  int m_power = 0;
};

CPolynom operator*(double x, CPolynom const & p);

/// A polynomial valid on a box, expressed about a shift: its value at p is
/// shiftedPolynom(p - argShift). The box is in the coordinates of p.
class CLimitedPolynom
{
public:
  CLimitedPolynom();
  /// A null shift is zero.
  CLimitedPolynom(CPolynom const & polynom, CParallelepiped const & support, double const * shift);
  CLimitedPolynom(CLimitedPolynom const &) = default;
  CLimitedPolynom(CLimitedPolynom &&) noexcept = default;
  CLimitedPolynom & operator=(CLimitedPolynom const &) = default;
  CLimitedPolynom & operator=(CLimitedPolynom &&) noexcept = default;
  virtual ~CLimitedPolynom() = default;

  CPolynom const & getShiftedPolynomRef() const { return m_polynom; }
  CPolynom & getShiftedPolynomRefMod() { return m_polynom; }
  CParallelepiped const & getSupportRef() const { return m_support; }
  CParallelepiped & getSupportRefMod() { return m_support; }
  double const * getArgShift3() const { return m_argShift; }
  double * getArgShift3Mod() { return m_argShift; }

  /// The polynomial at p - argShift; the support is the caller's business.
  double eval(double const * p) const;
  /// f(x) becomes f(s x).
  void scaleArgument(double const * s);
  /// f(x) becomes f(x + c): shift and support move, coefficients stay. A null
  /// c does nothing.
  void substituteArgPlusConst(double const * c);
  /// The same function about a new shift (null: the origin).
  void changeShift(double const * s);
  void changeShiftWithBuffers(double const * s, CPolynom * acc, CPolynom * scratch);

private:
  CPolynom m_polynom;
  CParallelepiped m_support;
  double m_argShift[3];
};
} // namespace VolTr
