#pragma once
// Helpers of the equation and storage tests: a recording position source and
// sink, random sparse matrices and systems.

#include <map>
#include <random>
#include <utility>
#include <vector>

#include "QZmath/LinSys/CSRSquareMatrix.h"
#include "QZmath/LinSys/LinSysVariableManager.h"
#include "QZmath/LinSys/VPLSstorage.h"

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

template <class T> class CRecordingReciever : public REmath::IEqSysResultReciever<T>
{
public:
  void SetVertexPosition(int vertex, T position) override { got.emplace_back(vertex, position); }
  std::vector<std::pair<int, T>> got;
};

/// A dense n x n row-major matrix with a non-zero diagonal and about `perRow`
/// non-zeros per row at random columns, symmetric when asked.
template <class T> std::vector<T> randomSparseDense(int n, int perRow, bool symmetric, unsigned seed)
{
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> column(0, n - 1);
  std::uniform_real_distribution<double> value(-2.0, 2.0);
  std::vector<T> a(static_cast<size_t>(n) * n, T(0));
  for (int i = 0; i < n; ++i)
  {
    a[static_cast<size_t>(i) * n + i] = static_cast<T>(4.0 + value(gen));
    for (int k = 1; k < perRow; ++k)
    {
      int const j = column(gen);
      T const v = static_cast<T>(value(gen));
      a[static_cast<size_t>(i) * n + j] = v;
      if (symmetric)
        a[static_cast<size_t>(j) * n + i] = v;
    }
  }
  return a;
}

/// y = A x for a dense row-major matrix, summed in double.
template <class T> std::vector<double> denseProduct(std::vector<T> const & a, int n, std::vector<T> const & x)
{
  std::vector<double> y(static_cast<size_t>(n), 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      y[i] += static_cast<double>(a[static_cast<size_t>(i) * n + j]) * static_cast<double>(x[j]);
  return y;
}

/// The system "row i of `a` times the free vertices + (i + 1) * fixed = 0"
/// with free vertices 0..n-1 (ascending, as the compressed rows require) and
/// one fixed vertex n.
template <class T>
void buildSystem(REmath::ILinearSystemStorage<T> & s, std::vector<T> const & a, int n, bool symmetric)
{
  s.setSymmetric(symmetric);
  for (int v = 0; v <= n; ++v)
    v < n ? s.DefineFreeVertex(v) : s.DefineFixedVertex(v);
  for (int i = 0; i < n; ++i)
  {
    REmath::CVertexLinearCombination<T> e;
    for (int j = 0; j < n; ++j)
      if (a[static_cast<size_t>(i) * n + j] != T(0))
        e.AddVertex(j, a[static_cast<size_t>(i) * n + j]);
    e.AddVertex(n, static_cast<T>(i + 1));
    s.AddEquation(e);
  }
}

/// A matrix read back into dense row-major form through the read interface
/// alone; rows whose beginning and end make no sense count as empty.
template <class T> std::vector<T> densify(REmath::ICsrMatrix<T> const & m)
{
  int const n = m.getMatrixSize();
  int const base = m.getIndexBase();
  std::vector<T> a(static_cast<size_t>(n) * n, T(0));
  for (int i = 0; i < n; ++i)
  {
    for (int k = m.getCsrPointerB()[i] - base; k >= 0 && k < m.getCsrPointerE()[i] - base; ++k)
    {
      int const j = m.getCsrColumns()[k] - base;
      a[static_cast<size_t>(i) * n + j] = m.getCsrValues()[k];
      if (m.isUpperTriangleOnlyStored())
        a[static_cast<size_t>(j) * n + i] = m.getCsrValues()[k];
    }
  }
  return a;
}
} // namespace linsys_test
