#pragma once
// The product kernel in flat arrays, shared by the evaluations that run
// millions of times per reconstruction (the combination's own and the block
// evaluator's). Not installed.

#include "QZmath/VolTriang/ProductPolynom.h"

namespace VolTr
{
namespace detail
{
// The sample kernel in flat arrays, for the evaluation that runs millions of
// times per reconstruction. It repeats the kernel's own evaluation operation
// for operation (the shift, the knot search, Horner's rule from the highest
// coefficient, the product of the axes that stops at a zero, the sum of the
// summands in order), so its values are bit-equal; it only spares the walk
// through the objects. The general form keeps its own evaluation.
template <class TKernel> class tf_FlatKernel
{
public:
  explicit tf_FlatKernel(TKernel const &) {}
  double eval(TKernel const & kernel, double const * arg) const { return kernel.eval(arg); }
};

template <> class tf_FlatKernel<CProductPiecewisePolynom>
{
public:
  explicit tf_FlatKernel(CProductPiecewisePolynom const & kernel)
  {
    int const summands = kernel.summandsNumber();
    if (summands > MAX_SUMMANDS)
      return;
    for (int i = 0; i < summands; ++i)
      for (int a = 0; a < 3; ++a)
      {
        CSingleVarLimitedPolynom const & m = kernel.getSummand(i).getMultiplier(a);
        Factor & f = m_factors[i][a];
        f.pieces = m.getPiecesNumber();
        if (f.pieces > MAX_PIECES || m.getKnotsNumber() != f.pieces + 1)
          return;
        f.argShift = m.getArgShift();
        for (int k = 0; k < m.getKnotsNumber(); ++k)
          f.knots[k] = m.getKnot(k);
        for (int k = 0; k < f.pieces; ++k)
        {
          CSingleVarPolynom const & piece = m.getPiece(k);
          f.coeffsNumber[k] = piece.getCoeffsNumber();
          if (f.coeffsNumber[k] > MAX_COEFFS)
            return;
          for (int c = 0; c < f.coeffsNumber[k]; ++c)
            f.coeffs[k][c] = piece.getCoeff(c);
        }
      }
    m_summands = summands;
    m_usable = true;
  }

  double eval(CProductPiecewisePolynom const & kernel, double const * arg) const
  {
    if (!m_usable)
      return kernel.eval(arg);
    double sum = 0.0;
    for (int i = 0; i < m_summands; ++i)
    {
      double r = m_factors[i][0].eval(arg[0]);
      if (r == 0.0)
      {
        sum += 0.0;
        continue;
      }
      r *= m_factors[i][1].eval(arg[1]);
      if (r == 0.0)
      {
        sum += 0.0;
        continue;
      }
      r *= m_factors[i][2].eval(arg[2]);
      if (r == 0.0)
      {
        sum += 0.0;
        continue;
      }
      sum += r;
    }
    return sum;
  }

  static constexpr int MAX_SUMMANDS = 4;
  static constexpr int MAX_PIECES = 6;
  static constexpr int MAX_COEFFS = 6;

  /// One axis of one summand: a piecewise polynomial of one variable.
  struct Factor
  {
    int pieces = 0;
    double argShift = 0.0;
    double knots[MAX_PIECES + 1] = {};
    int coeffsNumber[MAX_PIECES] = {};
    double coeffs[MAX_PIECES][MAX_COEFFS] = {};

    double eval(double x) const
    {
      if (pieces == 0)
        return 0.0;
      double const t = x - argShift;
      if (!(t >= knots[0]))
        return 0.0;
      for (int i = 1; i <= pieces; ++i)
        if (knots[i] > t)
        {
          int k = coeffsNumber[i - 1];
          if (k == 0)
            return 0.0;
          --k;
          double const * c = coeffs[i - 1];
          double r = c[k];
          while (k > 0)
          {
            --k;
            r = r * t + c[k];
          }
          return r;
        }
      return 0.0;
    }
  };

  /// False when the kernel does not fit the arrays: `eval` then asks the kernel.
  bool usable() const { return m_usable; }
  int summands() const { return m_summands; }
  Factor const & factor(int summand, int axis) const { return m_factors[summand][axis]; }

private:
  bool m_usable = false;
  int m_summands = 0;
  Factor m_factors[MAX_SUMMANDS][3];
};
} // namespace detail
} // namespace VolTr
