#include "QZmath/VolTriang/Polynom.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>

#include <boost/math/special_functions/binomial.hpp>

namespace VolTr
{
namespace
{
// base^e by repeated multiplication; the cases are checked in this order so
// that 0^0 is 1 and a zero base costs nothing.
double tf_power(double base, int e)
{
  if (e == 0)
    return 1.0;
  if (base == 0.0)
    return 0.0;
  double r = 1.0;
  for (int i = 0; i < e; ++i)
    r *= base;
  return r;
}

void tf_checkAxis(int axis)
{
  if (axis < 0 || axis > 2)
    throw std::out_of_range("VolTr::CMonom: axis out of range");
}

// a * b, saturated so that an impossible reservation fails in `reserve`
// (as std::length_error) instead of wrapping around to a small one.
size_t tf_mulSat(size_t a, size_t b)
{
  if (a != 0 && b > std::numeric_limits<size_t>::max() / a)
    return std::numeric_limits<size_t>::max();
  return a * b;
}

bool tf_monomLess(CWeightedMonom const & t, CMonom const & m) { return t.getMonomRef() < m; }
} // namespace

// ---------------------------------------------------------------------------
// CMonom

CMonom::CMonom(int, int const * exponents) : m_power{0, 0, 0}
{
  if (exponents != nullptr)
  {
    m_power[0] = exponents[0];
    m_power[1] = exponents[1];
    m_power[2] = exponents[2];
  }
}

CMonom CMonom::x_i_pow_d(int i, int d)
{
  tf_checkAxis(i);
  CMonom m;
  m.m_power[i] = d;
  return m;
}

bool CMonom::operator==(CMonom const & other) const
{
  return m_power[0] == other.m_power[0] && m_power[1] == other.m_power[1] && m_power[2] == other.m_power[2];
}

bool CMonom::operator<(CMonom const & other) const
{
  if (m_power[0] != other.m_power[0])
    return m_power[0] < other.m_power[0];
  if (m_power[1] != other.m_power[1])
    return m_power[1] < other.m_power[1];
  return m_power[2] < other.m_power[2];
}

int CMonom::getVarPower(int axis) const
{
  tf_checkAxis(axis);
  return m_power[axis];
}

double CMonom::eval(double const * p) const
{
  double r = tf_power(p[0], m_power[0]);
  if (r == 0.0)
    return 0.0;
  r *= tf_power(p[1], m_power[1]);
  if (r == 0.0)
    return 0.0;
  r *= tf_power(p[2], m_power[2]);
  if (r == 0.0)
    return 0.0;
  return r;
}

double CMonom::integrateOnBox(CParallelepiped const & box) const
{
  double r = 1.0;
  for (int a = 0; a < 3; ++a)
  {
    int const n = m_power[a] + 1;
    double const dn = static_cast<double>(n);
    r *= (tf_power(box.getMax()[a], n) / dn) - (tf_power(box.getMin()[a], n) / dn);
  }
  return r;
}

CMonom CMonom::operator*(CMonom const & other) const
{
  CMonom r;
  multiply(&r, other);
  return r;
}

CMonom & CMonom::operator*=(CMonom const & other)
{
  multiply(this, other);
  return *this;
}

void CMonom::multiply(CMonom * out, CMonom const & other) const
{
  for (int a = 0; a < 3; ++a)
    out->m_power[a] = m_power[a] + other.m_power[a];
}

// ---------------------------------------------------------------------------
// CWeightedMonom

CWeightedMonom::CWeightedMonom(double weight, int count, int const * exponents)
    : m_monom(count, exponents), m_coeff(weight)
{
  if (weight == 0.0)
    m_monom = CMonom();
}

CWeightedMonom CWeightedMonom::operator*(CWeightedMonom const & other) const
{
  CWeightedMonom r;
  multiply(&r, other);
  return r;
}

void CWeightedMonom::multiply(CWeightedMonom * out, CWeightedMonom const & other) const
{
  double const w = m_coeff * other.m_coeff;
  m_monom.multiply(&out->m_monom, other.m_monom);
  out->m_coeff = w;
}

void CWeightedMonom::scaleArgument(double const * s) { m_coeff *= m_monom.eval(s); }

CWeightedMonom operator*(double weight, CMonom const & monom) { return CWeightedMonom(weight, monom); }

// ---------------------------------------------------------------------------
// CPolynom

CPolynom::CPolynom(CWeightedMonom const & term) : m_terms(1, term), m_power(term.getMonomRef().power()) {}

CPolynom::CPolynom(CMonom const & monom) : CPolynom(CWeightedMonom(1.0, monom)) {}

void CPolynom::reserveForOneMore()
{
  size_t const cap = m_terms.capacity();
  if (m_terms.size() < cap)
    return;
  size_t grown = cap + cap / 2;
  if (grown < m_terms.size() + 1)
    grown = m_terms.size() + 1;
  m_terms.reserve(grown);
}

void CPolynom::insertWeightedMonom(CWeightedMonom const & t)
{
  CWeightedMonom const term(t); // `t` may be one of our own terms
  auto const it = std::lower_bound(m_terms.begin(), m_terms.end(), term.m_monom, tf_monomLess);
  if (it != m_terms.end() && it->m_monom == term.m_monom)
  {
    it->m_coeff += term.m_coeff;
    if (it->m_coeff == 0.0)
      m_terms.erase(it);
    if (term.m_monom.power() == m_power)
      m_power = calculatePower();
    return;
  }
  size_t const pos = static_cast<size_t>(it - m_terms.begin());
  reserveForOneMore();
  m_terms.insert(m_terms.begin() + static_cast<std::ptrdiff_t>(pos), term);
  m_power = std::max(m_power, term.m_monom.power());
}

double CPolynom::eval(double const * p) const
{
  double sum = 0.0;
  for (CWeightedMonom const & t : m_terms)
    sum += t.eval(p);
  return sum;
}

CPolynom CPolynom::operator+(CPolynom const & other) const
{
  CPolynom r(*this);
  r += other;
  return r;
}

CPolynom & CPolynom::operator+=(CPolynom const & other)
{
  if (&other == this)
  {
    CPolynom const copy(other);
    return *this += copy;
  }
  m_terms.reserve(m_terms.size() + other.m_terms.size());
  for (CWeightedMonom const & t : other.m_terms)
    insertWeightedMonom(t);
  return *this;
}

CPolynom CPolynom::operator+(double c) const
{
  CPolynom r(*this);
  r += c;
  return r;
}

CPolynom & CPolynom::operator+=(double c)
{
  insertWeightedMonom(CWeightedMonom(c, CMonom()));
  return *this;
}

CPolynom CPolynom::operator*(CPolynom const & other) const
{
  CPolynom r;
  multiply(&r, other);
  return r;
}

void CPolynom::multiply(CPolynom * out, CPolynom const & other) const
{
  if (out == this || out == &other)
  {
    CPolynom product;
    multiply(&product, other);
    *out = std::move(product);
    return;
  }
  out->clear();
  out->m_terms.reserve(tf_mulSat(m_terms.size(), other.m_terms.size()));
  // The outer loop over `other` fixes the order of the floating-point sums.
  CWeightedMonom candidate;
  for (CWeightedMonom const & o : other.m_terms)
    for (CWeightedMonom const & t : m_terms)
    {
      t.multiply(&candidate, o);
      out->insertWeightedMonom(candidate);
    }
}

CPolynom CPolynom::operator*(double x) const
{
  CPolynom r(*this);
  r *= x;
  return r;
}

CPolynom & CPolynom::operator*=(double x)
{
  for (CWeightedMonom & t : m_terms)
    t.m_coeff *= x;
  return *this;
}

CPolynom & CPolynom::operator*=(CMonom const & m)
{
  for (CWeightedMonom & t : m_terms)
    t.m_monom *= m;
  m_power += m.power();
  return *this;
}

void CPolynom::substituteArgPlusConst(double const * c)
{
  CPolynom acc;
  CPolynom scratch;
  substituteArgPlusConstWithBuffers(c, &acc, &scratch);
}

void CPolynom::substituteArgPlusConstWithBuffers(double const * c, CPolynom * acc, CPolynom * scratch)
{
  if (c == nullptr)
    return;
  if (acc == nullptr || scratch == nullptr || acc == this || scratch == this || acc == scratch)
  {
    CPolynom a;
    CPolynom s;
    substituteArgPlusConstWithBuffers(c, &a, &s);
    return;
  }
  // A NaN shift passes this test on purpose: it spoils the values rather than
  // being silently ignored.
  if (c[0] * c[0] + c[1] * c[1] + c[2] * c[2] == 0.0 || m_power == 0)
    return;

  acc->clear();
  size_t const perTerm = tf_mulSat(tf_mulSat(static_cast<size_t>(m_power) + 1, static_cast<size_t>(m_power) + 1),
                                   static_cast<size_t>(m_power) + 1);
  acc->m_terms.reserve(tf_mulSat(m_terms.size(), perTerm));
  scratch->m_terms.reserve(perTerm);

  CPolynom factor;
  CPolynom product;
  for (CWeightedMonom const & term : m_terms)
  {
    substituteArgPlusConstOfTerm(term, c, scratch, &factor, &product);
    size_t const needed = acc->m_terms.size() + scratch->m_terms.size();
    if (acc->m_terms.capacity() < needed)
      acc->m_terms.reserve(needed);
    for (CWeightedMonom const & t : scratch->m_terms)
      acc->insertWeightedMonom(t);
  }
  // A shift keeps the degree; `acc` is left holding the old terms, which
  // have exactly the old degree.
  m_terms.swap(acc->m_terms);
  acc->m_power = m_power;
}

// Expands one term of p(x + c) into `scratch`, axis by axis, as a product of
// the binomial expansions (x_i + c_i)^e.
void CPolynom::substituteArgPlusConstOfTerm(CWeightedMonom const & term, double const * c, CPolynom * scratch,
                                            CPolynom * factor, CPolynom * product) const
{
  scratch->clear();
  if (term.m_monom.power() == 0)
  {
    scratch->insertWeightedMonom(term);
    return;
  }
  scratch->insertWeightedMonom(CWeightedMonom(term.m_coeff, CMonom()));
  for (int axis = 0; axis < 3; ++axis)
  {
    int const e = term.m_monom.m_power[axis];
    if (e == 0)
      continue;
    double const a = c[axis];
    if (a == 0.0)
    {
      for (CWeightedMonom & t : scratch->m_terms)
        t.m_monom.m_power[axis] += e;
      scratch->m_power += e;
      continue;
    }
    factor->clear();
    for (int k = 0; k <= e; ++k)
    {
      double const binom =
          boost::math::binomial_coefficient<double>(static_cast<unsigned>(e), static_cast<unsigned>(k));
      factor->insertWeightedMonom(CWeightedMonom(binom * tf_power(a, e - k), CMonom::x_i_pow_d(axis, k)));
    }
    scratch->multiply(product, *factor);
    std::swap(scratch->m_terms, product->m_terms);
    std::swap(scratch->m_power, product->m_power);
  }
}

void CPolynom::scaleArgument(double const * s)
{
  for (CWeightedMonom & t : m_terms)
    t.scaleArgument(s);
}

double CPolynom::integrateOnBox(CParallelepiped const & box) const
{
  double sum = 0.0;
  for (CWeightedMonom const & t : m_terms)
    sum += t.integrateOnBox(box);
  return sum;
}

void CPolynom::clear()
{
  m_terms.clear();
  m_power = 0;
}

bool CPolynom::checkClassInvariants() const { return debugCheckTermsSorted() && m_power == calculatePower(); }

bool CPolynom::debugCheckTermsSorted() const { return debugCheckTermsPartialSorted(m_terms.size()); }

bool CPolynom::debugCheckTermsPartialSorted(size_t n) const
{
  n = std::min(n, m_terms.size());
  for (size_t i = 1; i < n; ++i)
    if (!(m_terms[i - 1].m_monom < m_terms[i].m_monom))
      return false;
  return true;
}

int CPolynom::calculatePower() const
{
  if (m_terms.empty())
    return 0;
  int p = m_terms.front().m_monom.power();
  for (CWeightedMonom const & t : m_terms)
    p = std::max(p, t.m_monom.power());
  return p;
}

void CPolynom::collectAndSortSimilarTerms()
{
  std::sort(m_terms.begin(), m_terms.end(),
            [](CWeightedMonom const & a, CWeightedMonom const & b) { return a.m_monom < b.m_monom; });
  size_t kept = 0;
  for (size_t i = 0; i < m_terms.size(); ++i)
  {
    if (kept > 0 && m_terms[kept - 1].m_monom == m_terms[i].m_monom)
      m_terms[kept - 1].m_coeff += m_terms[i].m_coeff;
    else
      m_terms[kept++] = m_terms[i];
  }
  m_terms.erase(m_terms.begin() + static_cast<std::ptrdiff_t>(kept), m_terms.end());
  m_terms.erase(std::remove_if(m_terms.begin(), m_terms.end(),
                               [](CWeightedMonom const & t) { return t.m_coeff == 0.0; }),
                m_terms.end());
}

CPolynom operator*(double x, CPolynom const & p) { return p * x; }

// ---------------------------------------------------------------------------
// CLimitedPolynom

CLimitedPolynom::CLimitedPolynom() : m_polynom(), m_support(), m_argShift{0.0, 0.0, 0.0} {}

CLimitedPolynom::CLimitedPolynom(CPolynom const & polynom, CParallelepiped const & support, double const * shift)
    : m_polynom(polynom), m_support(support), m_argShift{0.0, 0.0, 0.0}
{
  if (shift != nullptr)
    std::copy(shift, shift + 3, m_argShift);
}

double CLimitedPolynom::eval(double const * p) const
{
  double const q[3] = {p[0] - m_argShift[0], p[1] - m_argShift[1], p[2] - m_argShift[2]};
  return m_polynom.eval(q);
}

void CLimitedPolynom::scaleArgument(double const * s)
{
  m_polynom.scaleArgument(s);
  for (int a = 0; a < 3; ++a)
  {
    m_support.getMinMod()[a] /= s[a];
    m_support.getMaxMod()[a] /= s[a];
    m_argShift[a] /= s[a];
  }
}

void CLimitedPolynom::substituteArgPlusConst(double const * c)
{
  if (c == nullptr)
    return;
  for (int a = 0; a < 3; ++a)
  {
    m_argShift[a] -= c[a];
    m_support.getMinMod()[a] -= c[a];
    m_support.getMaxMod()[a] -= c[a];
  }
}

void CLimitedPolynom::changeShift(double const * s)
{
  CPolynom acc;
  CPolynom scratch;
  changeShiftWithBuffers(s, &acc, &scratch);
}

void CLimitedPolynom::changeShiftWithBuffers(double const * s, CPolynom * acc, CPolynom * scratch)
{
  double const to[3] = {s ? s[0] : 0.0, s ? s[1] : 0.0, s ? s[2] : 0.0};
  double const delta[3] = {to[0] - m_argShift[0], to[1] - m_argShift[1], to[2] - m_argShift[2]};
  std::copy(to, to + 3, m_argShift);
  m_polynom.substituteArgPlusConstWithBuffers(delta, acc, scratch);
}
} // namespace VolTr
