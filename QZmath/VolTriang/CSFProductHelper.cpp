#include "QZmath/VolTriang/CSFProductHelper.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

namespace VolTr
{
namespace
{
int tf_maxAbsOffset(int const * o)
{
  int m = std::abs(o[0]);
  if (std::abs(o[1]) > m)
    m = std::abs(o[1]);
  if (std::abs(o[2]) > m)
    m = std::abs(o[2]);
  return m;
}

// The reach of a pair of functions in leaf cells: beyond it their supports do
// not overlap (touching supports count as apart).
double tf_reach(int leafDepth, int dL, int dR, double leftSupport, double rightSupport)
{
  return std::ldexp(1.0, leafDepth - dL) * leftSupport + std::ldexp(1.0, leafDepth - dR) * rightSupport;
}
} // namespace

// ---------------------------------------------------------------- separable form

template <> class CCSFProductHelperImpl<CProductPiecewisePolynom>
{
public:
  using Func = CCSFunc3Tmpl<CProductPiecewisePolynom>;

  // The integrals of one pair of one-variable multipliers, for every pair of
  // depths and every offset, normalised to the deepest level of nodes.
  struct OneVarCache
  {
    CSingleVarLimitedPolynom leftFunction, rightFunction;
    CSingleVarPolynom primitiveBuffer;
    CSingleVarLimitedPolynom leftTemp, rightTemp, productTemp, shiftBuffer;
    // Tables of the depth pairs (a, b), a and b from 0 to leafDepth, one after
    // the other in `values`/`known`; tableStart and tableLength by a * (leafDepth + 1) + b.
    std::vector<double> values;
    std::vector<unsigned char> known;
    std::vector<std::size_t> tableStart;
    std::vector<int> tableLength;
    int offsetParity = 0;
    int depthEnd = 0;
    int depthBase = 2;
    int derivativeLevels = 0;
    double leftSupportInCells = 0;
    double rightSupportInCells = 0;
    int leafDepth = 0;
    double depthFactor = 1.0;
    std::vector<double> factorPowers; // depthFactor^k by repeated multiplication
  };

  CCSFProductHelperImpl(COctreeFuncBasisTmpl<CProductPiecewisePolynom> const * left,
                        COctreeFuncBasisTmpl<CProductPiecewisePolynom> const * right, int const * parity)
      : leftBasis(left), rightBasis(right), octree(&left->getOctreeRef()), leftSample(left->getSamplePtr()),
        rightSample(right->getSamplePtr()), leftSummands(leftSample->summandsNumber()),
        rightSummands(rightSample->summandsNumber())
  {
    // The zero test's reach for every pair of depths, the same numbers as the
    // formula gives, taken from a table on the hot path.
    int const leaf = octree->getLeafCellDepth();
    reachDepths = leaf + 1;
    reach.resize(static_cast<std::size_t>(reachDepths * reachDepths));
    for (int a = 0; a < reachDepths; ++a)
      for (int b = 0; b < reachDepths; ++b)
        reach[static_cast<std::size_t>(a * reachDepths + b)] =
            tf_reach(leaf, a, b, left->getSupportSizeInCells(), right->getSupportSizeInCells());
    caches.reserve(static_cast<std::size_t>(leftSummands) * static_cast<std::size_t>(rightSummands) * 3);
    table.assign(static_cast<std::size_t>(leftSummands),
                 std::vector<std::vector<OneVarCache *>>(static_cast<std::size_t>(rightSummands),
                                                         std::vector<OneVarCache *>(3, nullptr)));
    for (int i = 0; i < leftSummands; ++i)
      for (int j = 0; j < rightSummands; ++j)
        for (int axis = 0; axis < 3; ++axis)
        {
          CSingleVarLimitedPolynom const & l = leftSample->getSummand(i).getMultiplier(axis);
          CSingleVarLimitedPolynom const & r = rightSample->getSummand(j).getMultiplier(axis);
          OneVarCache * found = nullptr;
          for (auto & c : caches)
            if (c->leftFunction == l && c->rightFunction == r)
            {
              found = c.get();
              break;
            }
          if (!found)
          {
            caches.push_back(std::unique_ptr<OneVarCache>(new OneVarCache)); // owned even if the list cannot grow
            found = caches.back().get();
            fill(*found, l, r, parity ? parity[axis] : 0);
          }
          table[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)][static_cast<std::size_t>(axis)] = found;
        }
  }
  virtual ~CCSFProductHelperImpl() = default;

  void fill(OneVarCache & c, CSingleVarLimitedPolynom const & l, CSingleVarLimitedPolynom const & r, int parity)
  {
    c.leftFunction = l;
    c.rightFunction = r;
    c.offsetParity = parity;
    c.depthEnd = octree->getNodeDepthEnd();
    c.depthBase = 2;
    c.derivativeLevels = leftBasis->getDerivativeLevel() + rightBasis->getDerivativeLevel();
    c.leftSupportInCells = leftBasis->getSupportSizeInCells();
    c.rightSupportInCells = rightBasis->getSupportSizeInCells();
    c.leafDepth = octree->getLeafCellDepth();
    c.depthFactor = std::cbrt(std::ldexp(1.0, c.derivativeLevels)) * 2.0;
    c.factorPowers.assign(static_cast<std::size_t>(c.leafDepth + 2), 1.0);
    for (std::size_t k = 1; k < c.factorPowers.size(); ++k)
      c.factorPowers[k] = c.factorPowers[k - 1] * c.depthFactor;
    int const depths = c.leafDepth + 1;
    c.tableStart.resize(static_cast<std::size_t>(depths * depths));
    c.tableLength.resize(static_cast<std::size_t>(depths * depths));
    std::size_t total = 0;
    for (int a = 0; a < depths; ++a)
      for (int b = 0; b < depths; ++b)
      {
        // Twice the reach of the zero test, so that every lookup that passes
        // the test lands in the table.
        int const n = 2 * static_cast<int>(std::ldexp(1.0, c.leafDepth + 1 - a) * c.leftSupportInCells +
                                           std::ldexp(1.0, c.leafDepth + 1 - b) * c.rightSupportInCells) +
                      1;
        c.tableStart[static_cast<std::size_t>(a * depths + b)] = total;
        c.tableLength[static_cast<std::size_t>(a * depths + b)] = n;
        total += static_cast<std::size_t>(n);
      }
    c.values.assign(total, 0.0);
    c.known.assign(total, 0);
  }

  double lookup(OneVarCache & c, int i, int j, int axis, int dL, int dR, int o, Func const & f, Func const & g)
  {
    int const k = c.depthEnd - 1 - std::max(dL, dR);
    double factor = 1.0;
    if (k > 0)
    {
      // One arithmetic shift by k is k shifts by one; the power of the depth
      // factor comes from a table made by the same repeated multiplication.
      dL += k;
      dR += k;
      o >>= k;
      factor = c.factorPowers[static_cast<std::size_t>(k)];
    }
    if (c.offsetParity != 0 && o < 0)
    {
      factor *= c.offsetParity;
      o = -o;
    }
    int const depths = c.leafDepth + 1;
    std::size_t const t = static_cast<std::size_t>(dL * depths + dR);
    int const n = c.tableLength[t];
    int const index = (n - 1) / 2 + o;
    if (index < 0 || index >= n)
      return 0.0 / factor;
    std::size_t const at = c.tableStart[t] + static_cast<std::size_t>(index);
    if (c.known[at])
      return c.values[at] / factor;
    summandByShiftedKernel(&c.leftTemp, f, i, axis);
    summandByShiftedKernel(&c.rightTemp, g, j, axis);
    c.leftTemp.multiplyWithBuffer(&c.productTemp, c.rightTemp, &c.shiftBuffer);
    double const v = c.productTemp.integrateWithBuffer(&c.primitiveBuffer);
    c.known[at] = 1;
    c.values[at] = factor * v;
    return v;
  }

  double pairSum(Func const & f, Func const & g)
  {
    int const dL = f.getNodeDepth(), dR = g.getNodeDepth();
    int const * fi = f.getArgumentShiftInt();
    int const * gi = g.getArgumentShiftInt();
    int const offset[3] = {fi[0] - gi[0], fi[1] - gi[1], fi[2] - gi[2]};
    int const m = tf_maxAbsOffset(offset);
    double const pairReach = reach[static_cast<std::size_t>(dL * reachDepths + dR)];
    double result = 0.0;
    for (int i = 0; i < leftSummands; ++i)
      for (int j = 0; j < rightSummands; ++j)
      {
        std::vector<OneVarCache *> const & axes = table[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)];
        // Every cache of a helper shares the depths and the supports, so the
        // test is the same on each axis.
        if (m >= pairReach)
          continue; // the term is 0.0
        double term = lookup(*axes[0], i, j, 0, dL, dR, offset[0], f, g);
        term *= lookup(*axes[1], i, j, 1, dL, dR, offset[1], f, g);
        term *= lookup(*axes[2], i, j, 2, dL, dR, offset[2], f, g);
        result += term;
      }
    return result;
  }

  void swapAxes(int a, int b)
  {
    for (auto & row : table)
      for (auto & axes : row)
        std::swap(axes[static_cast<std::size_t>(a)], axes[static_cast<std::size_t>(b)]);
  }

  int cashSize() const
  {
    std::size_t n = 0;
    for (auto const & c : caches)
      n += c->values.size();
    return static_cast<int>(n);
  }

  COctreeFuncBasisTmpl<CProductPiecewisePolynom> const * leftBasis;
  COctreeFuncBasisTmpl<CProductPiecewisePolynom> const * rightBasis;
  COctree const * octree;
  CProductPiecewisePolynom const * leftSample;
  CProductPiecewisePolynom const * rightSample;
  int leftSummands;
  int rightSummands;
  std::vector<std::unique_ptr<OneVarCache>> caches;
  std::vector<std::vector<std::vector<OneVarCache *>>> table;
  int reachDepths = 0;
  std::vector<double> reach;
};

// ---------------------------------------------------------------- general form

template <> class CCSFProductHelperImpl<CPiecewisePolynom>
{
public:
  using Func = CCSFunc3Tmpl<CPiecewisePolynom>;

  struct Key
  {
    int v[5]; // dL, dR, offset x, y, z
    bool operator<(Key const & o) const
    {
      return std::lexicographical_compare(v, v + 5, o.v, o.v + 5);
    }
  };

  CCSFProductHelperImpl(COctreeFuncBasisTmpl<CPiecewisePolynom> const * left,
                        COctreeFuncBasisTmpl<CPiecewisePolynom> const * right, eBasisSymmetry symmetry,
                        int axisMask, int const * parityIn)
      : leftBasis(left), rightBasis(right), leftSample(left->getSamplePtr()), rightSample(right->getSamplePtr()),
        leftRightSymmetric(left == right || symmetry == eBasisSymmetric),
        leafDepth(left->getOctreeRef().getLeafCellDepth()), leftSupportInCells(left->getSupportSizeInCells()),
        rightSupportInCells(right->getSupportSizeInCells()), octree(&left->getOctreeRef()),
        depthEnd(octree->getNodeDepthEnd()), equalAxes(0),
        derivativeLevels(left->getDerivativeLevel() + right->getDerivativeLevel())
  {
    for (int a = 0; a < 3; ++a)
    {
      axisInterchangeable[a] = ((axisMask >> a) & 1) != 0;
      equalAxes += axisInterchangeable[a] ? 1 : 0;
      parity[a] = parityIn ? parityIn[a] : 0;
    }
  }
  virtual ~CCSFProductHelperImpl() = default;

  void normalize(Key & key, double & factor) const
  {
    int & dL = key.v[0];
    int & dR = key.v[1];
    int * o = key.v + 2;
    int const k = depthEnd - 1 - std::max(dL, dR);
    double const levelFactor = 8.0 * std::ldexp(1.0, derivativeLevels);
    for (int t = 0; t < k; ++t)
    {
      ++dL;
      ++dR;
      for (int a = 0; a < 3; ++a)
        o[a] >>= 1;
      factor *= levelFactor;
    }
    if (leftRightSymmetric)
    {
      bool negate = false;
      if (dL > dR)
      {
        std::swap(dL, dR);
        negate = true;
      }
      else if (dL == dR)
      {
        int const firstNonZero = o[0] != 0 ? o[0] : (o[1] != 0 ? o[1] : o[2]);
        negate = firstNonZero < 0;
      }
      if (negate)
        for (int a = 0; a < 3; ++a)
          o[a] = -o[a];
    }
    for (int a = 0; a < 3; ++a)
      if (parity[a] != 0 && o[a] < 0)
      {
        factor *= parity[a];
        o[a] = -o[a];
      }
    auto less = [](int x, int y) {
      int const ax = std::abs(x), ay = std::abs(y);
      return ax != ay ? ax < ay : x < y;
    };
    if (equalAxes == 3)
      std::sort(o, o + 3, less);
    else if (equalAxes == 2)
    {
      int first = -1, second = -1;
      for (int a = 0; a < 3; ++a)
        if (axisInterchangeable[a])
          (first < 0 ? first : second) = a;
      if (less(o[second], o[first]))
        std::swap(o[first], o[second]);
    }
  }

  double pairSum(Func const & f, Func const & g)
  {
    int const dL = f.getNodeDepth(), dR = g.getNodeDepth();
    int const * fi = f.getArgumentShiftInt();
    int const * gi = g.getArgumentShiftInt();
    Key key{{dL, dR, fi[0] - gi[0], fi[1] - gi[1], fi[2] - gi[2]}};
    int const m = tf_maxAbsOffset(key.v + 2);
    // Here a touching pair goes on to the exact integral, which is 0.
    if (!(tf_reach(leafDepth, dL, dR, leftSupportInCells, rightSupportInCells) >= m))
      return 0.0;
    double factor = 1.0;
    normalize(key, factor);
    auto const it = values.find(key);
    if (it != values.end())
      return it->second / factor;
    double const v = integrateOnSupport(makeProduct(f, g));
    values[key] = factor * v;
    return v;
  }

  void swapAxes(int a, int b)
  {
    std::swap(axisInterchangeable[a], axisInterchangeable[b]);
    std::swap(parity[a], parity[b]);
    std::map<Key, double> rebuilt;
    for (auto const & e : values)
    {
      Key key = e.first;
      std::swap(key.v[2 + a], key.v[2 + b]);
      double discarded = 1.0;
      normalize(key, discarded);
      rebuilt[key] = e.second;
    }
    values.swap(rebuilt);
  }

  int cashSize() const { return static_cast<int>(values.size()); }

  COctreeFuncBasisTmpl<CPiecewisePolynom> const * leftBasis;
  COctreeFuncBasisTmpl<CPiecewisePolynom> const * rightBasis;
  CPiecewisePolynom const * leftSample;
  CPiecewisePolynom const * rightSample;
  bool leftRightSymmetric;
  int leafDepth;
  double leftSupportInCells;
  double rightSupportInCells;
  std::map<Key, double> values;
  COctree const * octree;
  int depthEnd;
  int equalAxes;
  bool axisInterchangeable[3];
  int parity[3];
  int derivativeLevels;
};

// ---------------------------------------------------------------- the handle

namespace
{
std::shared_ptr<CCSFProductHelperImpl<CProductPiecewisePolynom>>
tf_makeImpl(COctreeFuncBasisTmpl<CProductPiecewisePolynom> const * left,
            COctreeFuncBasisTmpl<CProductPiecewisePolynom> const * right, eBasisSymmetry, int, int const * parity)
{
  return std::make_shared<CCSFProductHelperImpl<CProductPiecewisePolynom>>(left, right, parity);
}

std::shared_ptr<CCSFProductHelperImpl<CPiecewisePolynom>>
tf_makeImpl(COctreeFuncBasisTmpl<CPiecewisePolynom> const * left,
            COctreeFuncBasisTmpl<CPiecewisePolynom> const * right, eBasisSymmetry symmetry, int axisMask,
            int const * parity)
{
  return std::make_shared<CCSFProductHelperImpl<CPiecewisePolynom>>(left, right, symmetry, axisMask, parity);
}
} // namespace

template <class TKernel>
CCSFProductHelperTmpl<TKernel>::CCSFProductHelperTmpl(COctreeFuncBasisTmpl<TKernel> const * left,
                                                      COctreeFuncBasisTmpl<TKernel> const * right,
                                                      eBasisSymmetry symmetry, int axisMask, int const * parity)
    : m_impl(tf_makeImpl(left, right, symmetry, axisMask, parity))
{
}

template <class TKernel> CCSFProductHelperTmpl<TKernel>::~CCSFProductHelperTmpl() = default;

template <class TKernel> COctreeFuncBasisTmpl<TKernel> const & CCSFProductHelperTmpl<TKernel>::leftBasisRef() const
{
  return *m_impl->leftBasis;
}

template <class TKernel> COctreeFuncBasisTmpl<TKernel> const & CCSFProductHelperTmpl<TKernel>::rightBasisRef() const
{
  return *m_impl->rightBasis;
}

template <class TKernel>
double CCSFProductHelperTmpl<TKernel>::evalScalarProduct(CCSFunc3Tmpl<TKernel> const & f,
                                                         CCSFunc3Tmpl<TKernel> const & g)
{
  return m_impl->pairSum(f, g);
}

template <class TKernel>
double CCSFProductHelperTmpl<TKernel>::evalScalarProduct(CCSFunc3Tmpl<TKernel> const & f,
                                                         COctreeFuncLinCombTmpl<TKernel> const & lc)
{
  CParallelepiped const box = getScaledFunctionCommonSupport(f);
  double result = 0.0;
  for (CInterlacedSupportIteratorTmpl<TKernel> it(&lc, box); !it.isFinished(); it.next())
  {
    double const a = lc.getBasisCoefficient(it.functionIndex());
    if (a == 0.0)
      continue; // a NaN is not skipped
    result += m_impl->pairSum(f, *it) * a;
  }
  return result;
}

template <class TKernel>
void CCSFProductHelperTmpl<TKernel>::initWithVariablesSwap(int a, int b, COctreeFuncBasisTmpl<TKernel> const * left,
                                                           COctreeFuncBasisTmpl<TKernel> const * right)
{
  m_impl->leftBasis = left;
  m_impl->rightBasis = right;
  m_impl->leftSample = left->getSamplePtr();
  m_impl->rightSample = right->getSamplePtr();
  m_impl->swapAxes(a, b);
}

template <class TKernel> int CCSFProductHelperTmpl<TKernel>::cashSize() const { return m_impl->cashSize(); }

template class CCSFProductHelperTmpl<CPiecewisePolynom>;
template class CCSFProductHelperTmpl<CProductPiecewisePolynom>;
} // namespace VolTr
