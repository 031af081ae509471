#pragma once
// Systems for the solver tests, their dense reference solutions, and the
// position sources and sinks the solvers talk to.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "QZmath/LinSys/LinearSystemInterfaces.h"
#include "QZsys/Progress.h"

namespace solver_test
{
/// A system over free vertices 0..nFree-1 and fixed vertices nFree..: each
/// equation maps vertices to coefficients. Equations are complete rows (for
/// a symmetric system too).
struct CProblem
{
  int nFree = 0;
  int nFixed = 0;
  std::vector<std::map<int, double>> rows;
  bool symmetric = false;
  bool positiveDefinite = false;
};

/// Symmetric, strictly diagonally dominant (so positive definite), about
/// `perRow` elements per row at random columns, two fixed vertices.
inline CProblem randomSpd(int n, int perRow, unsigned seed)
{
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> column(0, n - 1);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  CProblem p;
  p.nFree = n;
  p.nFixed = 2;
  p.symmetric = p.positiveDefinite = true;
  p.rows.resize(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    for (int k = 1; k < perRow; ++k)
    {
      int const j = column(gen);
      if (j == i)
        continue;
      double const v = value(gen);
      p.rows[i][j] = v;
      p.rows[j][i] = v;
    }
  }
  for (int i = 0; i < n; ++i)
  {
    double off = 0;
    for (auto const & e : p.rows[i])
      off += std::fabs(e.second);
    p.rows[i][i] = off + 1.0 + value(gen) * 0.5 + 0.5;
    p.rows[i][n] = value(gen);
    if (i % 3 == 0)
      p.rows[i][n + 1] = value(gen);
  }
  return p;
}

/// The 7-point Laplacian of an nx x ny x nz grid with zero values outside:
/// 6 on the diagonal, -1 to each neighbour inside. The right part comes from
/// one fixed vertex with coefficient -h(i) in row i, a smooth source.
inline CProblem laplacian3D(int nx, int ny, int nz)
{
  CProblem p;
  p.nFree = nx * ny * nz;
  p.nFixed = 1;
  p.symmetric = p.positiveDefinite = true;
  p.rows.resize(static_cast<std::size_t>(p.nFree));
  auto index = [&](int x, int y, int z) { return (z * ny + y) * nx + x; };
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x)
      {
        auto & row = p.rows[index(x, y, z)];
        row[index(x, y, z)] = 6.0;
        if (x > 0)
          row[index(x - 1, y, z)] = -1.0;
        if (x + 1 < nx)
          row[index(x + 1, y, z)] = -1.0;
        if (y > 0)
          row[index(x, y - 1, z)] = -1.0;
        if (y + 1 < ny)
          row[index(x, y + 1, z)] = -1.0;
        if (z > 0)
          row[index(x, y, z - 1)] = -1.0;
        if (z + 1 < nz)
          row[index(x, y, z + 1)] = -1.0;
        row[p.nFree] = -std::sin(0.3 * x + 0.2 * y + 0.1 * z) - 0.5;
      }
  return p;
}

/// A non-symmetric chain 2.5 x(i) - 1.2 x(i-1) - 0.8 x(i+1) = 0 whose two
/// ends lean on the fixed vertices n and n+1, loaded on every row through
/// the fixed vertex n+2. Without the load its solution would decay from the
/// ends to nothing, and blocks inside would start exactly solved at zero.
inline CProblem chain(int n)
{
  CProblem p;
  p.nFree = n;
  p.nFixed = 3;
  p.rows.resize(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    p.rows[i][i] = 2.5;
    p.rows[i][i == 0 ? n : i - 1] = -1.2;
    p.rows[i][i + 1 == n ? n + 1 : i + 1] = -0.8;
    p.rows[i][n + 2] = -0.1 * std::cos(0.2 * i);
  }
  return p;
}

/// Defines the vertices (free ones ascending) and adds every equation, with
/// the coefficients rounded to T. `System` is any of the system interfaces.
template <class T, class System> void fill(System & s, CProblem const & p)
{
  s.setSymmetric(p.symmetric);
  s.setPositiveDefinite(p.positiveDefinite);
  for (int v = 0; v < p.nFree; ++v)
    s.DefineFreeVertex(v);
  for (int v = p.nFree; v < p.nFree + p.nFixed; ++v)
    s.DefineFixedVertex(v);
  for (auto const & row : p.rows)
  {
    REmath::CVertexLinearCombination<T> e;
    for (auto const & term : row)
      e.AddVertex(term.first, static_cast<T>(term.second));
    s.AddEquation(e);
  }
}

/// Fixed positions of right part `k`; none of them 0.
inline std::vector<double> fixedPositions(CProblem const & p, int k)
{
  std::vector<double> positions(static_cast<std::size_t>(p.nFixed));
  for (int j = 0; j < p.nFixed; ++j)
    positions[j] = 1.0 + 0.75 * k - 0.3 * j;
  return positions;
}

/// The solution of F x = -G p by Gaussian elimination with partial pivoting,
/// in double, from the coefficients rounded to T (what the solver sees).
template <class T> std::vector<double> referenceSolution(CProblem const & p, std::vector<double> const & fixed)
{
  int const n = p.nFree;
  std::vector<double> a(static_cast<std::size_t>(n) * n, 0.0);
  std::vector<double> b(static_cast<std::size_t>(n), 0.0);
  for (int i = 0; i < n; ++i)
  {
    for (auto const & term : p.rows[i])
    {
      double const c = static_cast<double>(static_cast<T>(term.second));
      if (term.first < n)
        a[static_cast<std::size_t>(i) * n + term.first] = c;
      else
        b[i] -= c * static_cast<double>(static_cast<T>(fixed[term.first - n]));
    }
  }
  for (int k = 0; k < n; ++k)
  {
    int pivot = k;
    for (int i = k + 1; i < n; ++i)
      if (std::fabs(a[static_cast<std::size_t>(i) * n + k]) > std::fabs(a[static_cast<std::size_t>(pivot) * n + k]))
        pivot = i;
    if (pivot != k)
    {
      for (int j = 0; j < n; ++j)
        std::swap(a[static_cast<std::size_t>(k) * n + j], a[static_cast<std::size_t>(pivot) * n + j]);
      std::swap(b[k], b[pivot]);
    }
    for (int i = k + 1; i < n; ++i)
    {
      double const f = a[static_cast<std::size_t>(i) * n + k] / a[static_cast<std::size_t>(k) * n + k];
      if (f == 0.0)
        continue;
      for (int j = k; j < n; ++j)
        a[static_cast<std::size_t>(i) * n + j] -= f * a[static_cast<std::size_t>(k) * n + j];
      b[i] -= f * b[k];
    }
  }
  std::vector<double> x(static_cast<std::size_t>(n), 0.0);
  for (int i = n - 1; i >= 0; --i)
  {
    double s = b[i];
    for (int j = i + 1; j < n; ++j)
      s -= a[static_cast<std::size_t>(i) * n + j] * x[j];
    x[i] = s / a[static_cast<std::size_t>(i) * n + i];
  }
  return x;
}

/// Positions of the fixed vertices first..first+size-1 from an array.
template <class T> class CArrayInformer : public REmath::IVertexPosInformer<T>
{
public:
  CArrayInformer(int first, std::vector<double> positions) : m_first(first), m_positions(std::move(positions)) {}
  T GetVertexPosition(int vertex) const override
  {
    ++m_asked;
    return static_cast<T>(m_positions.at(static_cast<std::size_t>(vertex - m_first)));
  }
  int asked() const { return m_asked; }

private:
  int m_first;
  std::vector<double> m_positions;
  mutable int m_asked = 0;
};

/// Solved positions by vertex; NaN for vertices never delivered.
template <class T> class CVectorReciever : public REmath::IEqSysResultReciever<T>
{
public:
  explicit CVectorReciever(int n) : values(static_cast<std::size_t>(n), std::nan("")) {}
  void SetVertexPosition(int vertex, T position) override
  {
    ++calls;
    values.at(static_cast<std::size_t>(vertex)) = static_cast<double>(position);
  }
  std::vector<double> values;
  int calls = 0;
};

/// Largest difference relative to the largest magnitude of the reference.
inline double relativeError(std::vector<double> const & x, std::vector<double> const & reference)
{
  double diff = 0;
  double scale = 0;
  for (std::size_t i = 0; i < reference.size(); ++i)
  {
    diff = std::max(diff, std::isnan(x[i]) ? INFINITY : std::fabs(x[i] - reference[i]));
    scale = std::max(scale, std::fabs(reference[i]));
  }
  return scale > 0 ? diff / scale : diff;
}

/// The informers and recievers of `count` right parts of `p` (right part k
/// of the set has the positions of fixedPositions(p, first + k)).
template <class T> struct CRightParts
{
  CRightParts(CProblem const & p, int count, int first = 0)
  {
    informers.reserve(static_cast<std::size_t>(count));
    recievers.reserve(static_cast<std::size_t>(count));
    for (int k = 0; k < count; ++k)
    {
      informers.emplace_back(p.nFree, fixedPositions(p, first + k));
      recievers.emplace_back(p.nFree);
    }
    for (int k = 0; k < count; ++k)
    {
      informerPtrs.push_back(&informers[k]);
      recieverPtrs.push_back(&recievers[k]);
    }
  }
  CRightParts(CRightParts const &) = delete;
  CRightParts & operator=(CRightParts const &) = delete;
  int count() const { return static_cast<int>(informers.size()); }
  REmath::IVertexPosInformer<T> const ** in() { return informerPtrs.data(); }
  REmath::IEqSysResultReciever<T> ** out() { return recieverPtrs.data(); }
  std::vector<double> const & solution(int k) const { return recievers[k].values; }

  std::vector<CArrayInformer<T>> informers;
  std::vector<CVectorReciever<T>> recievers;
  std::vector<REmath::IVertexPosInformer<T> const *> informerPtrs;
  std::vector<REmath::IEqSysResultReciever<T> *> recieverPtrs;
};

/// Solves a whole solver for `parts.count()` right parts at once.
template <class T>
bool solve(REmath::IVertexPosLinearSystem<T> & s, CRightParts<T> & parts, CProgressCounter * progress = nullptr)
{
  return s.SolveSystem(parts.count(), parts.in(), parts.out(), progress);
}

/// A counter that asks to be interrupted at its `after`-th check.
class CCountdownCounter : public CProgressCounter
{
public:
  explicit CCountdownCounter(int after) : m_left(after) {}
  int checks() const { return m_checks; }

protected:
  bool OnCheckInterrupt() const override
  {
    ++m_checks;
    return --m_left <= 0;
  }

private:
  mutable int m_left;
  mutable int m_checks = 0;
};
} // namespace solver_test
