#include "QZmath/VolTriang/ProductPolynom.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "QZmath/VolTriang/detail/PolynomBoxes.h"

namespace VolTr
{
namespace
{
void tf_checkAxis(int axis)
{
  if (axis < 0 || axis > 2)
    throw std::out_of_range("VolTr::CProductPolynom: axis out of range");
}

double const tf_origin[3] = {0.0, 0.0, 0.0};
} // namespace

// ---------------------------------------------------------------------------
// CProductPolynom

CProductPolynom::CProductPolynom(CSingleVarLimitedPolynom const & mx, CSingleVarLimitedPolynom const & my,
                                 CSingleVarLimitedPolynom const & mz)
    : m_multiplier{mx, my, mz}
{
}

CSingleVarLimitedPolynom const & CProductPolynom::getMultiplier(int axis) const
{
  tf_checkAxis(axis);
  return m_multiplier[axis];
}

void CProductPolynom::setMultiplier(int axis, CSingleVarLimitedPolynom const & m)
{
  tf_checkAxis(axis);
  m_multiplier[axis] = m;
}

double CProductPolynom::eval(double const * const p) const
{
  double r = m_multiplier[0].eval(p[0]);
  if (r == 0.0)
    return 0.0;
  r *= m_multiplier[1].eval(p[1]);
  if (r == 0.0)
    return 0.0;
  r *= m_multiplier[2].eval(p[2]);
  if (r == 0.0)
    return 0.0;
  return r;
}

void CProductPolynom::clear()
{
  for (CSingleVarLimitedPolynom & m : m_multiplier)
    m.clear();
}

bool CProductPolynom::empty() const
{
  return m_multiplier[0].empty() || m_multiplier[1].empty() || m_multiplier[2].empty();
}

int CProductPolynom::power() const
{
  return m_multiplier[0].maxPower() + m_multiplier[1].maxPower() + m_multiplier[2].maxPower();
}

double CProductPolynom::integrateOnSupportWithBuffer(CSingleVarPolynom * buffer) const
{
  double const ix = m_multiplier[0].integrateWithBuffer(buffer);
  double const iy = m_multiplier[1].integrateWithBuffer(buffer);
  double const iz = m_multiplier[2].integrateWithBuffer(buffer);
  return ix * iy * iz;
}

void CProductPolynom::substituteArgPlusConst(double const * const c)
{
  for (int a = 0; a < 3; ++a)
    m_multiplier[a].substituteArgPlusConst(c[a]);
}

void CProductPolynom::changeShift(double const * const s)
{
  double const * const to = s ? s : tf_origin;
  for (int a = 0; a < 3; ++a)
    m_multiplier[a].changeShift(to[a]);
}

void CProductPolynom::scaleArgument(double const * const s)
{
  for (int a = 0; a < 3; ++a)
    m_multiplier[a].scaleArgument(s[a]);
}

CProductPolynom & CProductPolynom::operator*=(double x)
{
  multiplyAxesBy(std::cbrt(x));
  return *this;
}

void CProductPolynom::multiplyAxesBy(double c)
{
  for (CSingleVarLimitedPolynom & m : m_multiplier)
    m *= c;
}

void CProductPolynom::multiply(CProductPolynom * out, CProductPolynom const & other) const
{
  CSingleVarLimitedPolynom shiftBuffer;
  multiplyWithBuffer(out, other, &shiftBuffer);
}

void CProductPolynom::multiplyWithBuffer(CProductPolynom * out, CProductPolynom const & other,
                                         CSingleVarLimitedPolynom * shiftBuffer) const
{
  // The bounds are tested before anything is written, so that `out` may be
  // one of the operands.
  for (int a = 0; a < 3; ++a)
  {
    CSingleVarLimitedPolynom const & m = m_multiplier[a];
    CSingleVarLimitedPolynom const & o = other.m_multiplier[a];
    if (!(o.getLeftBound() < m.getRightBound()) || !(m.getLeftBound() < o.getRightBound()))
    {
      for (CSingleVarLimitedPolynom & om : out->m_multiplier)
        om.clearKeepingStorage();
      return;
    }
  }
  for (int a = 0; a < 3; ++a)
    m_multiplier[a].multiplyWithBuffer(&out->m_multiplier[a], other.m_multiplier[a], shiftBuffer);
}

// ---------------------------------------------------------------------------
// CProductPiecewisePolynom

CProductPiecewisePolynom::CProductPiecewisePolynom() : m_commonSupport(), m_commonShift{0.0, 0.0, 0.0} {}

CProductPiecewisePolynom::CProductPiecewisePolynom(int count, CProductPolynom const * summands)
    : CProductPiecewisePolynom()
{
  if (summands == nullptr)
    return;
  for (int i = 0; i < count; ++i)
    addSummand(summands[i]);
}

double CProductPiecewisePolynom::eval(double const * const p) const
{
  double sum = 0.0;
  for (CProductPolynom const & s : m_summands)
    sum += s.eval(p);
  return sum;
}

void CProductPiecewisePolynom::clear()
{
  m_commonSupport = CParallelepiped();
  m_commonShift[0] = m_commonShift[1] = m_commonShift[2] = 0.0;
  m_summands.clear();
}

int CProductPiecewisePolynom::maxPower() const
{
  int p = 0;
  for (CProductPolynom const & s : m_summands)
    p = std::max(p, s.power());
  return p;
}

CParallelepiped CProductPiecewisePolynom::summandBox(CProductPolynom const & s)
{
  CSingleVarLimitedPolynom const * m = s.m_multiplier;
  return CParallelepiped(m[0].getLeftBound(), m[0].getRightBound(), m[1].getLeftBound(), m[1].getRightBound(),
                         m[2].getLeftBound(), m[2].getRightBound());
}

void CProductPiecewisePolynom::addSummand(CProductPolynom const & s)
{
  // The box is taken first: `s` may be one of our own summands, which the
  // append can move.
  CParallelepiped const box = summandBox(s);
  m_summands.push_back(s);
  detail::uniteBoxInto(m_commonSupport, box);
  // Per axis, a multiplier already at the common shift stays untouched.
  m_summands.back().changeShift(m_commonShift);
}

CProductPiecewisePolynom & CProductPiecewisePolynom::operator+=(CProductPiecewisePolynom const & other)
{
  if (&other == this)
  {
    CProductPiecewisePolynom const copy(other);
    return *this += copy;
  }
  m_summands.reserve(m_summands.size() + other.m_summands.size());
  for (CProductPolynom const & s : other.m_summands)
    addSummand(s);
  return *this;
}

CProductPiecewisePolynom CProductPiecewisePolynom::operator*(CProductPiecewisePolynom const & other) const
{
  CProductPiecewisePolynom result;
  bool const aligned = detail::sameShift(m_commonShift, other.m_commonShift);
  CProductPiecewisePolynom const * base = this;
  CProductPiecewisePolynom const * second = &other;
  CProductPiecewisePolynom movable;
  std::vector<char> moved;
  if (!aligned)
  {
    int const pThis = maxPower();
    int const pOther = other.maxPower();
    bool const thisIsBase = pThis > pOther || (pThis == pOther && m_summands.size() >= other.m_summands.size());
    base = thisIsBase ? this : &other;
    movable = thisIsBase ? other : *this;
    second = &movable;
    moved.assign(movable.m_summands.size(), 0);
  }
  result.m_commonSupport = detail::intersectBoxes(m_commonSupport, other.m_commonSupport);
  std::copy(base->m_commonShift, base->m_commonShift + 3, result.m_commonShift);

  CProductPolynom product;
  CSingleVarLimitedPolynom shiftBuffer;
  for (CProductPolynom const & S : base->m_summands)
  {
    CParallelepiped const boxS = summandBox(S);
    if (!detail::boxesOverlapStrictly(boxS, second->m_commonSupport))
      continue;
    for (size_t j = 0; j < second->m_summands.size(); ++j)
    {
      if (!detail::boxesOverlapStrictly(boxS, summandBox(second->m_summands[j])))
        continue;
      if (!aligned && !moved[j])
      {
        movable.m_summands[j].changeShift(base->m_commonShift);
        moved[j] = 1;
      }
      S.multiplyWithBuffer(&product, second->m_summands[j], &shiftBuffer);
      if (!product.empty())
        result.m_summands.push_back(product);
    }
  }
  return result;
}

CProductPiecewisePolynom & CProductPiecewisePolynom::operator*=(double x)
{
  if (x == 0.0)
  {
    clear();
    return *this;
  }
  double const c = std::cbrt(x);
  for (CProductPolynom & s : m_summands)
    s.multiplyAxesBy(c);
  return *this;
}

double CProductPiecewisePolynom::integrateOnSupport() const
{
  CSingleVarPolynom buffer;
  double sum = 0.0;
  for (CProductPolynom const & s : m_summands)
    sum += s.integrateOnSupportWithBuffer(&buffer);
  return sum;
}

void CProductPiecewisePolynom::substituteArgPlusConst(double const * const c)
{
  for (int a = 0; a < 3; ++a)
  {
    m_commonSupport.getMinMod()[a] -= c[a];
    m_commonSupport.getMaxMod()[a] -= c[a];
    m_commonShift[a] -= c[a];
  }
  for (CProductPolynom & s : m_summands)
    s.substituteArgPlusConst(c);
}

void CProductPiecewisePolynom::changeShift(double const * const s)
{
  double const * const to = s ? s : tf_origin;
  if (detail::sameShift(to, m_commonShift))
    return;
  std::copy(to, to + 3, m_commonShift);
  for (CProductPolynom & summand : m_summands)
    summand.changeShift(m_commonShift);
}

void CProductPiecewisePolynom::scaleArgument(double const * const s)
{
  for (int a = 0; a < 3; ++a)
  {
    m_commonSupport.getMinMod()[a] /= s[a];
    m_commonSupport.getMaxMod()[a] /= s[a];
    m_commonShift[a] /= s[a];
  }
  for (CProductPolynom & summand : m_summands)
    summand.scaleArgument(s);
}

void CProductPiecewisePolynom::makePartialDerivative(CProductPiecewisePolynom * out, int axis) const
{
  tf_checkAxis(axis);
  if (out == this)
  {
    CProductPiecewisePolynom d;
    makePartialDerivative(&d, axis);
    *out = std::move(d);
    return;
  }
  out->clear();
  out->m_summands.reserve(m_summands.size());
  for (CProductPolynom const & s : m_summands)
  {
    CProductPolynom d(s);
    s.m_multiplier[axis].makeDerivative(&d.m_multiplier[axis]);
    out->addSummand(d);
  }
}

void CProductPiecewisePolynom::makeLaplacian(CProductPiecewisePolynom * out) const
{
  if (out == this)
  {
    CProductPiecewisePolynom l;
    makeLaplacian(&l);
    *out = std::move(l);
    return;
  }
  out->clear();
  out->m_summands.reserve(3 * m_summands.size());
  CProductPiecewisePolynom first;
  CProductPiecewisePolynom second;
  for (int axis = 0; axis < 3; ++axis)
  {
    makePartialDerivative(&first, axis);
    first.makePartialDerivative(&second, axis);
    for (CProductPolynom const & s : second.m_summands)
      out->addSummand(s);
  }
}

bool CProductPiecewisePolynom::checkClassInvariants() const
{
  if (m_summands.empty())
    return true;
  return checkCommonSupport() && checkCommonShift() && checkSummands();
}

bool CProductPiecewisePolynom::checkSummands() const
{
  for (CProductPolynom const & s : m_summands)
    for (CSingleVarLimitedPolynom const & m : s.m_multiplier)
      if (m.empty() || !m.checkClassInvariants())
        return false;
  return true;
}

bool CProductPiecewisePolynom::checkCommonSupport() const
{
  if (m_summands.empty())
    return true;
  CParallelepiped u = summandBox(m_summands.front());
  for (size_t i = 1; i < m_summands.size(); ++i)
    detail::uniteBoxInto(u, summandBox(m_summands[i]));
  double const tol = 1e-16;
  return detail::squaredDistance3(u.getMin(), m_commonSupport.getMin()) <= tol &&
         detail::squaredDistance3(u.getMax(), m_commonSupport.getMax()) <= tol;
}

bool CProductPiecewisePolynom::checkCommonShift() const
{
  for (CProductPolynom const & s : m_summands)
  {
    double const shift[3] = {s.m_multiplier[0].getArgShift(), s.m_multiplier[1].getArgShift(),
                             s.m_multiplier[2].getArgShift()};
    if (!(detail::squaredDistance3(shift, m_commonShift) == 0.0))
      return false;
  }
  return true;
}
} // namespace VolTr
