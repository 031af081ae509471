#include "QZmath/VolTriang/SingleVarPolynom.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include "QZsys/Exceptions.h"

namespace VolTr
{
namespace
{
// The binomial factor of the in-place shift runs in 32-bit integers. Its
// wrap-around on degrees beyond 30 is reproduced without signed overflow.
inline std::int32_t tf_mulWrap32(std::int32_t a, std::int32_t b)
{
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}

// True when `p` points into the live elements of `v` (comparisons through
// std::less are defined for unrelated pointers).
template <class T> bool tf_pointsInto(T const * p, std::vector<T> const & v)
{
  std::less<T const *> lt;
  return !v.empty() && !lt(p, v.data()) && lt(p, v.data() + v.size());
}
} // namespace

// ---------------------------------------------------------------------------
// CSingleVarPolynom

CSingleVarPolynom::CSingleVarPolynom(int count, double const * coefficients) { assign(count, coefficients); }

void CSingleVarPolynom::assign(int count, double const * coefficients)
{
  if (count <= 0 || coefficients == nullptr)
  {
    m_coeffs.clear();
    return;
  }
  if (tf_pointsInto(coefficients, m_coeffs))
  {
    std::vector<double> copy(coefficients, coefficients + count);
    m_coeffs.swap(copy);
    return;
  }
  m_coeffs.assign(coefficients, coefficients + count);
}

double CSingleVarPolynom::eval(double x) const
{
  if (m_coeffs.empty())
    return 0.0;
  size_t k = m_coeffs.size() - 1;
  double r = m_coeffs[k];
  while (k > 0)
  {
    --k;
    r = r * x + m_coeffs[k];
  }
  return r;
}

CSingleVarPolynom & CSingleVarPolynom::operator*=(double x)
{
  if (x == 0.0)
  {
    m_coeffs.clear();
    return *this;
  }
  for (double & c : m_coeffs)
    c *= x;
  return *this;
}

void CSingleVarPolynom::multiply(CSingleVarPolynom * out, CSingleVarPolynom const & other) const
{
  if (out == this || out == &other)
  {
    CSingleVarPolynom product;
    multiply(&product, other);
    *out = std::move(product);
    return;
  }
  size_t const n = m_coeffs.size();
  size_t const m = other.m_coeffs.size();
  if (n == 0 || m == 0)
  {
    out->m_coeffs.clear();
    return;
  }
  out->m_coeffs.assign(n + m - 1, 0.0);
  double * o = out->m_coeffs.data();
  double const * b = other.m_coeffs.data();
  for (size_t i = 0; i < n; ++i)
  {
    double const a = m_coeffs[i];
    for (size_t j = 0; j < m; ++j)
      o[i + j] += a * b[j];
  }
}

void CSingleVarPolynom::makeDerivative(CSingleVarPolynom * out) const
{
  size_t const n = m_coeffs.size();
  if (n <= 1)
  {
    out->m_coeffs.clear();
    return;
  }
  if (out != this)
    out->m_coeffs.resize(n - 1);
  // Ascending k reads c[k] before anything writes it, so the in-place form
  // needs no copy.
  std::vector<double> & o = out->m_coeffs;
  for (size_t k = 1; k < n; ++k)
    o[k - 1] = static_cast<double>(k) * m_coeffs[k];
  if (out == this)
    o.pop_back();
}

void CSingleVarPolynom::makePrimitive(CSingleVarPolynom * out) const
{
  size_t const n = m_coeffs.size();
  out->m_coeffs.resize(n + 1);
  // Descending k keeps the in-place form correct as well.
  std::vector<double> const & c = (out == this) ? out->m_coeffs : m_coeffs;
  std::vector<double> & o = out->m_coeffs;
  for (size_t k = n; k > 0; --k)
    o[k] = c[k - 1] / static_cast<double>(k);
  o[0] = 0.0;
}

double CSingleVarPolynom::integrateOnIntervalWithBuffer(double a, double b, CSingleVarPolynom * buffer) const
{
  if (buffer == nullptr || buffer == this)
  {
    CSingleVarPolynom local;
    return integrateOnIntervalWithBuffer(a, b, &local);
  }
  makePrimitive(buffer);
  return buffer->eval(b) - buffer->eval(a);
}

void CSingleVarPolynom::scaleArgument(double s)
{
  if (s == 0.0)
  {
    // p(0 x) is the constant term; no coefficients means the constant 0.
    if (m_coeffs.empty())
      m_coeffs.push_back(0.0);
    else
      m_coeffs.resize(1);
    return;
  }
  double pw = 1.0;
  for (double & c : m_coeffs)
  {
    c *= pw;
    pw *= s;
  }
}

void CSingleVarPolynom::substituteArgPlusConst(double a)
{
  size_t const n = m_coeffs.size();
  if (a == 0.0 || n < 2)
    return;
  // (x + a)^k = sum_j C(k, j) a^j x^(k-j). Only c[k-j] with j >= 1 changes,
  // so walking k upwards uses every original coefficient exactly once.
  for (size_t k = 1; k < n; ++k)
  {
    double const v = m_coeffs[k];
    if (v == 0.0)
      continue;
    std::int32_t const ki = static_cast<std::int32_t>(k);
    std::int32_t b = 1;
    double pw = 1.0;
    for (std::int32_t j = 1; j <= ki; ++j)
    {
      b = tf_mulWrap32(b, ki - j + 1) / j;
      pw *= a;
      m_coeffs[k - static_cast<size_t>(j)] += static_cast<double>(b) * v * pw;
    }
  }
}

bool CSingleVarPolynom::checkClassInvariants() const { return m_coeffs.empty() || m_coeffs.back() != 0.0; }

// ---------------------------------------------------------------------------
// CSingleVarLimitedPolynom

CSingleVarLimitedPolynom::CSingleVarLimitedPolynom(double argShift, int pieceCount, CSingleVarPolynom const * pieces,
                                                   int knotCount, double const * knots)
{
  if (!assign(argShift, pieceCount, pieces, knotCount, knots))
    throw VsUt::CTextException("VolTr::CSingleVarLimitedPolynom: ctor fails");
}

bool CSingleVarLimitedPolynom::assign(double argShift, int pieceCount, CSingleVarPolynom const * pieces, int knotCount,
                                      double const * knots)
{
  if (pieceCount < 1 || knotCount != pieceCount + 1 || pieces == nullptr || knots == nullptr)
    return false;
  for (int i = 1; i < knotCount; ++i)
    if (!(knots[i] > knots[i - 1]))
      return false;

  if (tf_pointsInto(pieces, m_pieces) || tf_pointsInto(knots, m_knots))
  {
    CSingleVarLimitedPolynom fresh;
    fresh.m_pieces.assign(pieces, pieces + pieceCount);
    fresh.m_knots.assign(knots, knots + knotCount);
    fresh.m_argShift = argShift;
    *this = std::move(fresh);
    return true;
  }
  m_pieces.assign(pieces, pieces + pieceCount);
  m_knots.assign(knots, knots + knotCount);
  m_argShift = argShift;
  return true;
}

CSingleVarLimitedPolynom::CSingleVarLimitedPolynom(CSingleVarLimitedPolynom const & other)
    : m_pieces(other.m_pieces), m_knots(other.m_knots), m_argShift(other.m_argShift)
{
}

CSingleVarLimitedPolynom & CSingleVarLimitedPolynom::operator=(CSingleVarLimitedPolynom const & other)
{
  if (this == &other)
    return *this;
  resizePieces(other.m_pieces.size());
  for (size_t i = 0; i < m_pieces.size(); ++i)
    m_pieces[i] = other.m_pieces[i];
  m_knots = other.m_knots;
  m_argShift = other.m_argShift;
  return *this;
}

void CSingleVarLimitedPolynom::resizePieces(size_t n)
{
  while (m_pieces.size() > n)
  {
    m_sparePieces.push_back(std::move(m_pieces.back()));
    m_pieces.pop_back();
  }
  if (m_pieces.capacity() < n)
    m_pieces.reserve(n);
  while (m_pieces.size() < n)
  {
    if (m_sparePieces.empty())
      m_pieces.emplace_back();
    else
    {
      m_pieces.push_back(std::move(m_sparePieces.back()));
      m_sparePieces.pop_back();
    }
  }
}

void CSingleVarLimitedPolynom::clear()
{
  m_argShift = 0.0;
  m_pieces.clear();
  m_knots.clear();
}

void CSingleVarLimitedPolynom::clearKeepingStorage()
{
  m_argShift = 0.0;
  resizePieces(0);
  m_knots.clear();
}

double CSingleVarLimitedPolynom::eval(double x) const
{
  if (m_pieces.empty())
    return 0.0;
  double const t = x - m_argShift;
  if (!(t >= m_knots[0]))
    return 0.0;
  // A knot belongs to the piece on its right; the last knot is outside.
  for (size_t i = 1; i < m_knots.size(); ++i)
    if (m_knots[i] > t)
      return m_pieces[i - 1].eval(t);
  return 0.0;
}

int CSingleVarLimitedPolynom::maxPower() const
{
  int p = -1;
  for (CSingleVarPolynom const & piece : m_pieces)
    p = std::max(p, piece.power());
  return p;
}

double CSingleVarLimitedPolynom::getLeftBound() const { return m_knots.empty() ? 0.0 : m_knots.front() + m_argShift; }

double CSingleVarLimitedPolynom::getRightBound() const { return m_knots.empty() ? 0.0 : m_knots.back() + m_argShift; }

double CSingleVarLimitedPolynom::integrateWithBuffer(CSingleVarPolynom * buffer) const
{
  if (m_pieces.empty())
    return 0.0;
  CSingleVarPolynom local;
  if (buffer == nullptr)
    buffer = &local;
  double sum = 0.0;
  for (size_t i = 0; i < m_pieces.size(); ++i)
    sum += m_pieces[i].integrateOnIntervalWithBuffer(m_knots[i], m_knots[i + 1], buffer);
  return sum;
}

void CSingleVarLimitedPolynom::scaleArgument(double s)
{
  m_argShift /= s;
  for (double & k : m_knots)
    k /= s;
  for (CSingleVarPolynom & piece : m_pieces)
    piece.scaleArgument(s);
}

void CSingleVarLimitedPolynom::changeShift(double s)
{
  double const delta = s - m_argShift;
  if (delta == 0.0)
    return;
  m_argShift = s;
  for (CSingleVarPolynom & piece : m_pieces)
    piece.substituteArgPlusConst(delta);
  for (double & k : m_knots)
    k -= delta;
}

CSingleVarLimitedPolynom & CSingleVarLimitedPolynom::operator*=(double x)
{
  for (CSingleVarPolynom & piece : m_pieces)
    piece *= x;
  return *this;
}

CSingleVarLimitedPolynom CSingleVarLimitedPolynom::operator*(CSingleVarLimitedPolynom const & other) const
{
  CSingleVarLimitedPolynom out;
  multiply(&out, other);
  return out;
}

void CSingleVarLimitedPolynom::multiply(CSingleVarLimitedPolynom * out, CSingleVarLimitedPolynom const & other) const
{
  multiplyWithBuffer(out, other, nullptr);
}

void CSingleVarLimitedPolynom::multiplyWithBuffer(CSingleVarLimitedPolynom * out, CSingleVarLimitedPolynom const & other,
                                                  CSingleVarLimitedPolynom * shiftBuffer) const
{
  if (out == this || out == &other)
  {
    CSingleVarLimitedPolynom product;
    multiplyWithBuffer(&product, other, shiftBuffer);
    *out = std::move(product);
    return;
  }
  if (m_pieces.empty() || other.m_pieces.empty())
  {
    out->clearKeepingStorage();
    return;
  }
  if (m_argShift == other.m_argShift)
  {
    multiplyAligned(out, other);
    return;
  }
  // The lower-degree operand is re-expanded about the other's shift: that
  // costs less and loses less than the other way round.
  bool const thisIsBase = !(other.maxPower() > maxPower());
  CSingleVarLimitedPolynom const & base = thisIsBase ? *this : other;
  CSingleVarLimitedPolynom const & moved = thisIsBase ? other : *this;
  CSingleVarLimitedPolynom local;
  CSingleVarLimitedPolynom * buf = shiftBuffer;
  if (buf == nullptr || buf == out || buf == this || buf == &other)
    buf = &local;
  *buf = moved;
  buf->changeShift(base.m_argShift);
  base.multiplyAligned(out, *buf);
}

// Both operands are non-empty and share the shift; `out` is neither of them.
// The pieces of `out` are overwritten in place rather than destroyed, so that
// a reused output keeps the capacity of its coefficient arrays. The result
// has at most one piece per overlap, so the sum of both piece counts is
// reserved first.
void CSingleVarLimitedPolynom::multiplyAligned(CSingleVarLimitedPolynom * out,
                                               CSingleVarLimitedPolynom const & other) const
{
  out->m_argShift = m_argShift;
  out->m_knots.clear();
  out->m_knots.reserve(m_knots.size() + other.m_knots.size());
  out->m_pieces.reserve(m_pieces.size() + other.m_pieces.size());
  size_t const before = out->m_pieces.size();

  size_t produced = 0;
  double const otherEnd = other.m_knots.back();
  for (size_t i = 0; i < m_pieces.size(); ++i)
  {
    double const L = m_knots[i];
    double const R = m_knots[i + 1];
    if (!(L < otherEnd))
      break;
    for (size_t j = 0; j < other.m_pieces.size(); ++j)
    {
      double const l = other.m_knots[j];
      double const r = other.m_knots[j + 1];
      if (!(l < R))
        break; // the knots ascend: no later piece of the other reaches back
      if (!(L < r))
        continue;
      double const lo = std::max(L, l);
      double const hi = std::min(R, r);
      if (!(lo < hi))
        continue;
      if (produced == 0)
        out->m_knots.push_back(lo);
      out->m_knots.push_back(hi);
      if (produced == out->m_pieces.size())
        out->resizePieces(produced + 1);
      m_pieces[i].multiply(&out->m_pieces[produced], other.m_pieces[j]);
      ++produced;
    }
  }
  if (produced < before)
    out->resizePieces(produced);
}

void CSingleVarLimitedPolynom::makeDerivative(CSingleVarLimitedPolynom * out) const
{
  if (out != this)
  {
    out->m_argShift = m_argShift;
    out->m_knots = m_knots;
    out->resizePieces(m_pieces.size());
  }
  for (size_t i = 0; i < m_pieces.size(); ++i)
    m_pieces[i].makeDerivative(&out->m_pieces[i]);
}

bool CSingleVarLimitedPolynom::operator==(CSingleVarLimitedPolynom const & other) const
{
  return m_argShift == other.m_argShift && m_knots == other.m_knots && m_pieces == other.m_pieces;
}

bool CSingleVarLimitedPolynom::checkClassInvariants() const
{
  if (m_pieces.empty())
    return m_knots.empty();
  if (m_knots.size() != m_pieces.size() + 1)
    return false;
  for (size_t i = 1; i < m_knots.size(); ++i)
    if (!(m_knots[i] > m_knots[i - 1]))
      return false;
  return true;
}

CSingleVarLimitedPolynom operator*(double x, CSingleVarLimitedPolynom const & f)
{
  CSingleVarLimitedPolynom r(f);
  r *= x;
  return r;
}
} // namespace VolTr
