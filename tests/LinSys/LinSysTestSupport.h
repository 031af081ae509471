#pragma once
// Systems for the equation, storage and solver tests with their dense
// references, and the position sources and sinks the systems talk to.

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/LinSys/CSRSquareMatrix.h"
#include "QZmath/LinSys/VPLSstorage.h"
#include "QZsys/Progress.h"

namespace linsys_test
{
template <class T> REmath::CVertexLinearCombination<T> eq(std::vector<std::pair<int, double>> const & terms)
{
  REmath::CVertexLinearCombination<T> c;
  for (auto const & t : terms)
    c.AddVertex(t.first, static_cast<T>(t.second));
  return c;
}

/// A second storage built on the variable manager, with plain rows: the
/// reference for the compressed rows.
template <class T> using CPlainRowStorage = REmath::CVPLSstorage<T, REmath::CStdVectorAsVPLSstorageRow<T>>;

/// Positions from a map (0 elsewhere); every question is recorded in order.
template <class T> class CMapInformer : public REmath::IVertexPosInformer<T>
{
public:
  explicit CMapInformer(std::map<int, T> positions = {}) : m_positions(std::move(positions)) {}
  T GetVertexPosition(int vertex) const override
  {
    m_asked.push_back(vertex);
    auto found = m_positions.find(vertex);
    return found != m_positions.end() ? found->second : T(0);
  }
  std::vector<int> const & asked() const { return m_asked; }

private:
  std::map<int, T> m_positions;
  mutable std::vector<int> m_asked;
};

/// Every delivery in order, and the positions by vertex (NaN where none came).
template <class T> class CReciever : public REmath::IEqSysResultReciever<T>
{
public:
  explicit CReciever(int vertices) : values(vertices, std::nan("")) {}
  void SetVertexPosition(int vertex, T position) override
  {
    got.emplace_back(vertex, position);
    values.at(vertex) = position;
  }
  std::vector<std::pair<int, T>> got;
  std::vector<double> values;
};

/// y = A x for a dense row-major matrix, summed in double.
template <class T> std::vector<double> denseProduct(std::vector<T> const & a, int n, std::vector<T> const & x)
{
  std::vector<double> y(static_cast<size_t>(n), 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      y[i] += static_cast<double>(a[static_cast<size_t>(i) * n + j]) * static_cast<double>(x[j]);
  return y;
}

/// A matrix read back into dense row-major form through the read interface
/// alone; rows whose beginning and end make no sense count as empty.
template <class T> std::vector<T> densify(REmath::ICsrMatrix<T> const & m)
{
  int const n = m.getMatrixSize();
  int const base = m.getIndexBase();
  std::vector<T> a(static_cast<size_t>(n) * n, T(0));
  for (int i = 0; i < n; ++i)
    for (int k = m.getCsrPointerB()[i] - base; k >= 0 && k < m.getCsrPointerE()[i] - base; ++k)
    {
      int const j = m.getCsrColumns()[k] - base;
      a[static_cast<size_t>(i) * n + j] = m.getCsrValues()[k];
      if (m.isUpperTriangleOnlyStored())
        a[static_cast<size_t>(j) * n + i] = m.getCsrValues()[k];
    }
  return a;
}

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

/// Strictly diagonally dominant, about `perRow` elements per row at random
/// columns, symmetric (and so positive definite) when asked; two fixed
/// vertices.
inline CProblem randomProblem(int n, int perRow, bool symmetric, unsigned seed)
{
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> column(0, n - 1);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  CProblem p{n, 2, std::vector<std::map<int, double>>(n), symmetric, symmetric};
  for (int i = 0; i < n; ++i)
    for (int k = 1; k < perRow; ++k)
    {
      int const j = column(gen);
      if (j != i)
        p.rows[i][j] = value(gen);
      if (j != i && symmetric)
        p.rows[j][i] = p.rows[i][j];
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
  int const n = nx * ny * nz, step[3] = {1, nx, nx * ny}, size[3] = {nx, ny, nz};
  CProblem p{n, 1, std::vector<std::map<int, double>>(n), true, true};
  for (int i = 0; i < n; ++i)
  {
    int const at[3] = {i % nx, i / nx % ny, i / (nx * ny)};
    p.rows[i][i] = 6.0;
    for (int d = 0; d < 3; ++d)
    {
      if (at[d] > 0)
        p.rows[i][i - step[d]] = -1.0;
      if (at[d] + 1 < size[d])
        p.rows[i][i + step[d]] = -1.0;
    }
    p.rows[i][n] = -std::sin(0.3 * at[0] + 0.2 * at[1] + 0.1 * at[2]) - 0.5;
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
    p.rows[i] = {{i, 2.5},
                 {i == 0 ? n : i - 1, -1.2},
                 {i + 1 == n ? n + 1 : i + 1, -0.8},
                 {n + 2, -0.1 * std::cos(0.2 * i)}};
  return p;
}

/// Defines the vertices (free ones first, in order) under the names `id`
/// gives them and adds every equation, with the coefficients rounded to T.
/// `System` is any of the system interfaces.
template <class T, class System>
void fill(
    System & s, CProblem const & p, int (*id)(int) = [](int v) { return v; })
{
  s.setSymmetric(p.symmetric);
  s.setPositiveDefinite(p.positiveDefinite);
  for (int v = 0; v < p.nFree + p.nFixed; ++v)
    v < p.nFree ? s.DefineFreeVertex(id(v)) : s.DefineFixedVertex(id(v));
  for (auto const & row : p.rows)
  {
    REmath::CVertexLinearCombination<T> e;
    for (auto const & term : row)
      e.AddVertex(id(term.first), static_cast<T>(term.second));
    s.AddEquation(e);
  }
}

/// The free part F of the system, dense and row-major, rounded to T.
template <class T> std::vector<T> freeMatrix(CProblem const & p)
{
  std::vector<T> a(static_cast<size_t>(p.nFree) * p.nFree, T(0));
  for (int i = 0; i < p.nFree; ++i)
    for (auto const & term : p.rows[i])
      if (term.first < p.nFree)
        a[static_cast<size_t>(i) * p.nFree + term.first] = static_cast<T>(term.second);
  return a;
}

/// Fixed positions of right part `k`; none of them 0.
inline std::vector<double> fixedPositions(CProblem const & p, int k)
{
  std::vector<double> positions(p.nFixed);
  for (int j = 0; j < p.nFixed; ++j)
    positions[j] = 1.0 + 0.75 * k - 0.3 * j;
  return positions;
}

/// F x = -G p by LU in double, from the coefficients and positions rounded
/// to T (what the solver sees); empty when F is singular.
template <class T>
std::vector<double> referenceSolution(CProblem const & p, std::vector<double> const & fixed)
{
  std::vector<T> const f = freeMatrix<T>(p);
  REmath::Matrix<double> a(p.nFree, p.nFree), rhs(p.nFree, 1), x(p.nFree, 1);
  for (int i = 0; i < p.nFree; ++i)
  {
    for (int j = 0; j < p.nFree; ++j)
      a(i, j) = f[static_cast<size_t>(i) * p.nFree + j];
    for (auto const & term : p.rows[i])
      if (term.first >= p.nFree)
        rhs(i, 0) -= double(static_cast<T>(term.second)) * static_cast<T>(fixed[term.first - p.nFree]);
  }
  if (!REmath::solveMat(a, rhs, x))
    return {};
  return std::vector<double>(x[0], x[0] + p.nFree);
}

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
    for (int k = 0; k < count; ++k)
    {
      std::map<int, T> positions;
      for (int j = 0; j < p.nFixed; ++j)
        positions[p.nFree + j] = static_cast<T>(fixedPositions(p, first + k)[j]);
      informers.emplace_back(positions);
      recievers.emplace_back(p.nFree);
    }
    for (int k = 0; k < count; ++k)
      in.push_back(&informers[k]), out.push_back(&recievers[k]);
  }
  CRightParts(CRightParts const &) = delete;
  CRightParts & operator=(CRightParts const &) = delete;

  int count() const { return static_cast<int>(informers.size()); }
  std::vector<double> const & solution(int k) const { return recievers[k].values; }
  int delivered(int k) const { return static_cast<int>(recievers[k].got.size()); }
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
  std::vector<CMapInformer<T>> informers;
  std::vector<CReciever<T>> recievers;
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
} // namespace linsys_test
