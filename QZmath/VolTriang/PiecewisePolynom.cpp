#include "QZmath/VolTriang/PiecewisePolynom.h"

#include <algorithm>
#include <cfloat>

#include "QZmath/VolTriang/detail/PolynomBoxes.h"

namespace VolTr
{
namespace
{
// The evaluation tolerance is always added to the point: a point on the
// border of two pieces belongs to the upper one only, and a point up to
// 1e-10 below a box still counts as inside.
double const tf_evalTolerance = 1e-10;

bool tf_holds(CParallelepiped const & box, double const * q)
{
  for (int a = 0; a < 3; ++a)
    if (!(box.getMin()[a] <= q[a] && q[a] <= box.getMax()[a]))
      return false;
  return true;
}

double const tf_origin[3] = {0.0, 0.0, 0.0};
} // namespace

CPiecewisePolynom::CPiecewisePolynom()
    : m_terms(), m_commonSupport(DBL_MAX, -DBL_MAX, DBL_MAX, -DBL_MAX, DBL_MAX, -DBL_MAX),
      m_commonShift{0.0, 0.0, 0.0}, m_maxPower(0)
{
}

CPiecewisePolynom::CPiecewisePolynom(CLimitedPolynom const & term) : CPiecewisePolynom() { addTerm(term); }

void CPiecewisePolynom::addTerm(CLimitedPolynom const & t)
{
  // What is needed of `t` is read before the append, which may move it when
  // it is one of our own terms.
  CParallelepiped const support = t.getSupportRef();
  int const power = t.getShiftedPolynomRef().power();
  m_terms.push_back(t);
  detail::uniteBoxInto(m_commonSupport, support);
  if (m_terms.size() == 1)
    std::copy(m_terms.back().getArgShift3(), m_terms.back().getArgShift3() + 3, m_commonShift);
  else
    m_terms.back().changeShift(m_commonShift);
  m_maxPower = std::max(m_maxPower, power);
}

double CPiecewisePolynom::eval(double const * p) const
{
  double const q[3] = {p[0] + tf_evalTolerance, p[1] + tf_evalTolerance, p[2] + tf_evalTolerance};
  if (!tf_holds(m_commonSupport, q))
    return 0.0;
  double sum = 0.0;
  for (CLimitedPolynom const & t : m_terms)
    if (tf_holds(t.getSupportRef(), q))
      sum += t.eval(p);
  return sum;
}

CPiecewisePolynom & CPiecewisePolynom::operator+=(CPiecewisePolynom const & other)
{
  if (&other == this)
  {
    CPiecewisePolynom const copy(other);
    return *this += copy;
  }
  m_terms.reserve(m_terms.size() + other.m_terms.size());
  for (CLimitedPolynom const & t : other.m_terms)
    addTerm(t);
  detail::uniteBoxInto(m_commonSupport, other.m_commonSupport);
  return *this;
}

CPiecewisePolynom & CPiecewisePolynom::operator*=(double x)
{
  for (CLimitedPolynom & t : m_terms)
    t.getShiftedPolynomRefMod() *= x;
  return *this;
}

void CPiecewisePolynom::substituteArgPlusConst(double const * c)
{
  if (c == nullptr || c[0] * c[0] + c[1] * c[1] + c[2] * c[2] == 0.0)
    return;
  for (CLimitedPolynom & t : m_terms)
    t.substituteArgPlusConst(c);
  for (int a = 0; a < 3; ++a)
  {
    m_commonSupport.getMinMod()[a] -= c[a];
    m_commonSupport.getMaxMod()[a] -= c[a];
    m_commonShift[a] -= c[a];
  }
}

void CPiecewisePolynom::changeShift(double const * const s)
{
  double const * const to = s ? s : tf_origin;
  if (detail::sameShift(to, m_commonShift))
    return;
  changeCommonShift(to);
}

void CPiecewisePolynom::changeCommonShift(double const * const s)
{
  std::copy(s, s + 3, m_commonShift);
  CPolynom acc;
  CPolynom scratch;
  for (CLimitedPolynom & t : m_terms)
    t.changeShiftWithBuffers(m_commonShift, &acc, &scratch);
}

void CPiecewisePolynom::scaleArgument(double const * s)
{
  for (CLimitedPolynom & t : m_terms)
    t.scaleArgument(s);
  for (int a = 0; a < 3; ++a)
  {
    m_commonSupport.getMinMod()[a] /= s[a];
    m_commonSupport.getMaxMod()[a] /= s[a];
    m_commonShift[a] /= s[a];
  }
}

double CPiecewisePolynom::integrateOnSupport() const
{
  double sum = 0.0;
  for (CLimitedPolynom const & t : m_terms)
  {
    CParallelepiped box = t.getSupportRef();
    for (int a = 0; a < 3; ++a)
    {
      box.getMinMod()[a] -= t.getArgShift3()[a];
      box.getMaxMod()[a] -= t.getArgShift3()[a];
    }
    sum += t.getShiftedPolynomRef().integrateOnBox(box);
  }
  return sum;
}

bool CPiecewisePolynom::checkClassInvariants() const
{
  return debugCheckShiftTheSame() && debugCheckCommonSupportIsOk() && debugCheckMaxPower();
}

bool CPiecewisePolynom::debugCheckShiftTheSame() const
{
  for (CLimitedPolynom const & t : m_terms)
    if (!detail::sameShift(t.getArgShift3(), m_commonShift))
      return false;
  return true;
}

bool CPiecewisePolynom::debugCheckCommonSupportIsOk() const
{
  if (m_terms.empty())
    return true;
  CParallelepiped u = m_terms.front().getSupportRef();
  for (CLimitedPolynom const & t : m_terms)
    detail::uniteBoxInto(u, t.getSupportRef());
  for (int a = 0; a < 3; ++a)
    if (!(u.getMin()[a] == m_commonSupport.getMin()[a] && u.getMax()[a] == m_commonSupport.getMax()[a]))
      return false;
  return true;
}

bool CPiecewisePolynom::debugCheckMaxPower() const
{
  int p = 0;
  for (CLimitedPolynom const & t : m_terms)
    p = std::max(p, t.getShiftedPolynomRef().power());
  return p == m_maxPower;
}

CPiecewisePolynom operator+(CPiecewisePolynom const & a, CPiecewisePolynom const & b)
{
  CPiecewisePolynom r(a);
  r += b;
  return r;
}

CPiecewisePolynom operator*(CPiecewisePolynom const & a, CPiecewisePolynom const & b)
{
  CPiecewisePolynom result;
  bool const aligned = detail::sameShift(a.m_commonShift, b.m_commonShift);
  CPiecewisePolynom const * base = &a;
  CPiecewisePolynom const * other = &b;
  CPiecewisePolynom movable;
  if (!aligned)
  {
    bool const aIsBase =
        a.m_maxPower > b.m_maxPower || (a.m_maxPower == b.m_maxPower && a.m_terms.size() >= b.m_terms.size());
    base = aIsBase ? &a : &b;
    movable = aIsBase ? b : a;
    other = &movable;
  }
  double const * const shift = base->m_commonShift;

  CPolynom product;
  CPolynom acc;
  CPolynom scratch;
  for (CLimitedPolynom const & T : base->m_terms)
  {
    if (!detail::boxesOverlapStrictly(T.getSupportRef(), other->m_commonSupport))
      continue;
    for (size_t j = 0; j < other->m_terms.size(); ++j)
    {
      CLimitedPolynom const & U = other->m_terms[j];
      if (!detail::boxesOverlapStrictly(T.getSupportRef(), U.getSupportRef()))
        continue;
      CParallelepiped const box = detail::intersectBoxes(T.getSupportRef(), U.getSupportRef());
      if (!aligned && !detail::sameShift(U.getArgShift3(), shift))
        movable.m_terms[j].changeShiftWithBuffers(shift, &acc, &scratch);
      T.getShiftedPolynomRef().multiply(&product, U.getShiftedPolynomRef());
      result.addTerm(CLimitedPolynom(product, box, shift));
    }
  }
  return result;
}
} // namespace VolTr
