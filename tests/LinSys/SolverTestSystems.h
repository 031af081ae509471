#pragma once
// Systems for the solver tests, their dense reference solutions, and the
// position sources and sinks the solvers talk to.

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/LinSys/LinearSystemInterfaces.h"
#include "QZsys/Progress.h"

namespace solver_test
{
/// Free vertices 0..nFree-1, fixed ones from nFree on; each equation maps
/// vertices to coefficients and is a complete row, for a symmetric system too.
struct CProblem
{
  int nFree = 0;
  int nFixed = 0;
  std::vector<std::map<int, double>> rows;
  bool symmetric = false;
  bool positiveDefinite = false;
};

/// Symmetric and strictly diagonally dominant, about `perRow` elements per
/// row at random columns, two fixed vertices.
inline CProblem randomSpd(int n, int perRow, unsigned seed)
{
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> column(0, n - 1);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  CProblem p{n, 2, std::vector<std::map<int, double>>(n), true, true};
  for (int i = 0; i < n; ++i)
    for (int k = 1; k < perRow; ++k)
    {
      int const j = column(gen);
      if (j != i)
        p.rows[i][j] = p.rows[j][i] = value(gen);
    }
  for (int i = 0; i < n; ++i)
  {
    double off = 0;
    for (auto const & e : p.rows[i])
      off += std::fabs(e.second);
    p.rows[i][i] = off + 1.0 + std::fabs(value(gen));
    p.rows[i][n + (i % 3 == 0)] = value(gen);
  }
  return p;
}

/// The 7-point Laplacian of an nx x ny x nz lattice, zero outside; the right
/// part comes from one fixed vertex, a smooth source.
inline CProblem laplacian3D(int nx, int ny, int nz)
{
  int const n = nx * ny * nz;
  CProblem p{n, 1, std::vector<std::map<int, double>>(n), true, true};
  int const step[3] = {1, nx, nx * ny};
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x)
      {
        int const i = (z * ny + y) * nx + x;
        int const at[3] = {x, y, z}, size[3] = {nx, ny, nz};
        p.rows[i][i] = 6.0;
        for (int d = 0; d < 3; ++d)
        {
          if (at[d] > 0)
            p.rows[i][i - step[d]] = -1.0;
          if (at[d] + 1 < size[d])
            p.rows[i][i + step[d]] = -1.0;
        }
        p.rows[i][n] = -std::sin(0.3 * x + 0.2 * y + 0.1 * z) - 0.5;
      }
  return p;
}

/// A non-symmetric chain 2.5 x(i) - 1.2 x(i-1) - 0.8 x(i+1) = 0 whose two
/// ends lean on the fixed vertices n and n+1, loaded on every row through
/// the fixed vertex n+2. Without the load its solution would decay from the
/// ends to nothing, and blocks inside would start exactly solved at zero.
inline CProblem chain(int n)
{
  CProblem p{n, 3, std::vector<std::map<int, double>>(n), false, false};
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
  for (int v = 0; v < p.nFree + p.nFixed; ++v)
    v < p.nFree ? s.DefineFreeVertex(v) : s.DefineFixedVertex(v);
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
  std::vector<double> positions(p.nFixed);
  for (int j = 0; j < p.nFixed; ++j)
    positions[j] = 1.0 + 0.75 * k - 0.3 * j;
  return positions;
}

/// F x = -G p by LU in double, from the coefficients rounded to T (what the
/// solver sees); empty when F is singular.
template <class T>
std::vector<double> referenceSolution(CProblem const & p, std::vector<double> const & fixed)
{
  REmath::Matrix<double> a(p.nFree, p.nFree), b(p.nFree, 1), x(p.nFree, 1);
  for (int i = 0; i < p.nFree; ++i)
    for (auto const & term : p.rows[i])
    {
      double const c = static_cast<T>(term.second);
      if (term.first < p.nFree)
        a(i, term.first) = c;
      else
        b(i, 0) -= c * static_cast<T>(fixed[term.first - p.nFree]);
    }
  if (!REmath::solveMat(a, b, x))
    return {};
  return std::vector<double>(x[0], x[0] + p.nFree);
}

/// Positions of the fixed vertices first, first+1, ... from an array.
template <class T> class CArrayInformer : public REmath::IVertexPosInformer<T>
{
public:
  CArrayInformer(int first, std::vector<double> positions) : m_first(first), m_positions(std::move(positions))
  {
  }
  T GetVertexPosition(int vertex) const override
  {
    ++asked;
    return static_cast<T>(m_positions.at(vertex - m_first));
  }
  mutable int asked = 0;

private:
  int m_first;
  std::vector<double> m_positions;
};

/// Solved positions by vertex; NaN for vertices never delivered.
template <class T> class CVectorReciever : public REmath::IEqSysResultReciever<T>
{
public:
  explicit CVectorReciever(int n) : values(n, std::nan("")) {}
  void SetVertexPosition(int vertex, T position) override
  {
    ++calls;
    values.at(vertex) = position;
  }
  std::vector<double> values;
  int calls = 0;
};

/// Largest difference relative to the largest magnitude of the reference.
inline double relativeError(std::vector<double> const & x, std::vector<double> const & reference)
{
  double diff = reference.empty() ? INFINITY : 0.0, scale = 0;
  for (std::size_t i = 0; i < reference.size(); ++i)
  {
    diff = std::max(diff, std::isnan(x[i]) ? INFINITY : std::fabs(x[i] - reference[i]));
    scale = std::max(scale, std::fabs(reference[i]));
  }
  return scale > 0 ? diff / scale : diff;
}

/// The informers and recievers of `count` right parts of `p`; right part k
/// has the positions fixedPositions(p, first + k).
template <class T> struct CRightParts
{
  CRightParts(CProblem const & p, int count, int first = 0) : problem(p), first(first)
  {
    informers.reserve(count);
    recievers.reserve(count);
    for (int k = 0; k < count; ++k)
    {
      informers.emplace_back(p.nFree, fixedPositions(p, first + k));
      recievers.emplace_back(p.nFree);
      in.push_back(&informers.back());
      out.push_back(&recievers.back());
    }
  }
  CRightParts(CRightParts const &) = delete;
  CRightParts & operator=(CRightParts const &) = delete;

  int count() const { return static_cast<int>(informers.size()); }
  std::vector<double> const & solution(int k) const { return recievers[k].values; }
  /// Error of solution k against the reference.
  double error(int k) const
  {
    return relativeError(solution(k), referenceSolution<T>(problem, fixedPositions(problem, first + k)));
  }
  /// Solves a whole solver for all the right parts at once.
  bool solveBy(REmath::IVertexPosLinearSystem<T> & s, CProgressCounter * progress = nullptr)
  {
    return s.SolveSystem(count(), in.data(), out.data(), progress);
  }

  CProblem const & problem;
  int first;
  std::vector<CArrayInformer<T>> informers;
  std::vector<CVectorReciever<T>> recievers;
  std::vector<REmath::IVertexPosInformer<T> const *> in;
  std::vector<REmath::IEqSysResultReciever<T> *> out;
};

/// A counter that asks to be interrupted at its `after`-th check.
class CCountdownCounter : public CProgressCounter
{
public:
  explicit CCountdownCounter(int after) : m_left(after) {}

protected:
  bool OnCheckInterrupt() const override { return --m_left <= 0; }

private:
  mutable int m_left;
};
} // namespace solver_test
