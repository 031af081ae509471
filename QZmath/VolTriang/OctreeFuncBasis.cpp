#include "QZmath/VolTriang/OctreeFuncBasis.h"

#include <cmath>

#include "QZmath/VolTriang/detail/FlatKernel.h"

namespace VolTr
{
// ---------------------------------------------------------------- COctreeFuncEvalHelper

COctreeFuncEvalHelper::COctreeFuncEvalHelper(int regionsNumber, double regionHalfSize)
    : m_regionsNumber(regionsNumber > 0 ? regionsNumber : 0), m_regionHalfSize(regionHalfSize),
      m_regions(static_cast<std::size_t>(m_regionsNumber))
{
}

int COctreeFuncEvalHelper::getCashedRegionindex(double const * const p)
{
  for (int r = 0; r < m_regionsNumber; ++r)
  {
    Region & region = m_regions[static_cast<std::size_t>(r)];
    if (region.hits < 0)
      continue;
    double const * lo = region.box.getMin();
    double const * hi = region.box.getMax();
    if (lo[0] <= p[0] && p[0] <= hi[0] && lo[1] <= p[1] && p[1] <= hi[1] && lo[2] <= p[2] && p[2] <= hi[2])
    {
      ++region.hits;
      return r;
    }
  }
  return -1;
}

int COctreeFuncEvalHelper::recordNewRegion(double const * const p)
{
  if (m_regionsNumber == 0)
    return -1;
  int slot = -1;
  for (int r = 0; r < m_regionsNumber && slot < 0; ++r)
    if (m_regions[static_cast<std::size_t>(r)].hits < 0)
      slot = r;
  if (slot < 0)
  {
    slot = 0;
    for (int r = 1; r < m_regionsNumber; ++r)
      if (m_regions[static_cast<std::size_t>(r)].hits < m_regions[static_cast<std::size_t>(slot)].hits)
        slot = r;
  }
  Region & region = m_regions[static_cast<std::size_t>(slot)];
  region.box = CParallelepiped(p[0] - m_regionHalfSize, p[0] + m_regionHalfSize, p[1] - m_regionHalfSize,
                               p[1] + m_regionHalfSize, p[2] - m_regionHalfSize, p[2] + m_regionHalfSize);
  region.hits = 0;
  region.indexes.clear();
  region.coeffs.clear();
  region.prepared.clear();
  region.bucketsMade = false;
  region.bucketsUsable = false;
  region.bucketStart.clear();
  region.bucketEntries.clear();
  return slot;
}

void COctreeFuncEvalHelper::enlargeRegion(CParallelepiped * box) const
{
  for (int a = 0; a < 3; ++a)
  {
    box->getMinMod()[a] -= m_regionHalfSize;
    box->getMaxMod()[a] += m_regionHalfSize;
  }
}

void COctreeFuncEvalHelper::recordIndexInfo(int region, int basisIndex, double coefficient)
{
  if (region < 0 || region >= m_regionsNumber)
    return;
  Region & r = m_regions[static_cast<std::size_t>(region)];
  r.indexes.push_back(basisIndex);
  r.coeffs.push_back(coefficient);
}

void COctreeFuncEvalHelper::recordPreparedIndexInfo(int region, int basisIndex, double coefficient,
                                                    SPreparedEntry const & prepared)
{
  if (region < 0 || region >= m_regionsNumber)
    return;
  Region & r = m_regions[static_cast<std::size_t>(region)];
  if (r.prepared.size() == r.indexes.size())
    r.prepared.push_back(prepared);
  r.indexes.push_back(basisIndex);
  r.coeffs.push_back(coefficient);
}

COctreeFuncEvalHelper::SPreparedEntry const * COctreeFuncEvalHelper::getPreparedEntries(int region) const
{
  Region const & r = m_regions[static_cast<std::size_t>(region)];
  return r.prepared.size() == r.indexes.size() ? r.prepared.data() : nullptr;
}

namespace
{
int tf_bucketOf(double x, double lo, double size, int buckets)
{
  double const b = std::floor((x - lo) / size);
  if (!(b > 0.0))
    return 0;
  return b >= buckets - 1 ? buckets - 1 : static_cast<int>(b);
}
} // namespace

void COctreeFuncEvalHelper::makeBuckets(Region & r) const
{
  r.bucketsMade = true;
  r.bucketsUsable = false;
  std::size_t const n = r.indexes.size();
  if (r.prepared.size() != n || n == 0)
    return;
  int const g = BUCKETS_PER_AXIS;
  double size[3];
  for (int a = 0; a < 3; ++a)
  {
    size[a] = (r.box.getMax()[a] - r.box.getMin()[a]) / g;
    if (!(size[a] > 0.0) || !std::isfinite(size[a]))
      return;
  }
  // Two passes: count, then fill, each bucket in recorded order.
  std::vector<int> range(6 * n);
  r.bucketStart.assign(static_cast<std::size_t>(g * g * g + 1), 0);
  for (std::size_t e = 0; e < n; ++e)
  {
    SPreparedEntry const & pe = r.prepared[e];
    int * rg = &range[6 * e];
    // A coefficient that is not finite makes even a zero value count (0 times
    // infinity is NaN): such an entry stands in every bucket.
    bool const everywhere = !std::isfinite(r.coeffs[e]);
    for (int a = 0; a < 3; ++a)
    {
      rg[2 * a] = everywhere ? 0 : tf_bucketOf(pe.lo[a], r.box.getMin()[a], size[a], g);
      rg[2 * a + 1] = everywhere ? g - 1 : tf_bucketOf(pe.hi[a], r.box.getMin()[a], size[a], g);
    }
    for (int x = rg[0]; x <= rg[1]; ++x)
      for (int y = rg[2]; y <= rg[3]; ++y)
        for (int z = rg[4]; z <= rg[5]; ++z)
          ++r.bucketStart[static_cast<std::size_t>((x * g + y) * g + z + 1)];
  }
  for (std::size_t b = 1; b < r.bucketStart.size(); ++b)
    r.bucketStart[b] += r.bucketStart[b - 1];
  r.bucketEntries.assign(static_cast<std::size_t>(r.bucketStart.back()), 0);
  std::vector<int> fill(r.bucketStart.begin(), r.bucketStart.end() - 1);
  for (std::size_t e = 0; e < n; ++e)
  {
    int const * rg = &range[6 * e];
    for (int x = rg[0]; x <= rg[1]; ++x)
      for (int y = rg[2]; y <= rg[3]; ++y)
        for (int z = rg[4]; z <= rg[5]; ++z)
          r.bucketEntries[static_cast<std::size_t>(fill[static_cast<std::size_t>((x * g + y) * g + z)]++)] =
              static_cast<int>(e);
  }
  r.bucketsUsable = true;
}

int const * COctreeFuncEvalHelper::getEntriesNear(int region, double const * p, int * count)
{
  Region & r = m_regions[static_cast<std::size_t>(region)];
  // The buckets pay off only for a region that is asked often; a region that
  // is soon replaced is scanned whole.
  if (r.hits < 32)
    return nullptr;
  if (!r.bucketsMade)
    makeBuckets(r);
  if (!r.bucketsUsable)
    return nullptr;
  int const g = BUCKETS_PER_AXIS;
  int b[3];
  for (int a = 0; a < 3; ++a)
  {
    double const size = (r.box.getMax()[a] - r.box.getMin()[a]) / g;
    b[a] = tf_bucketOf(p[a], r.box.getMin()[a], size, g);
  }
  std::size_t const k = static_cast<std::size_t>((b[0] * g + b[1]) * g + b[2]);
  *count = r.bucketStart[k + 1] - r.bucketStart[k];
  return r.bucketEntries.data() + r.bucketStart[k];
}

std::vector<int>::const_iterator COctreeFuncEvalHelper::getBasisIndexesBegin(int region) const
{
  return m_regions[static_cast<std::size_t>(region)].indexes.begin();
}
std::vector<int>::const_iterator COctreeFuncEvalHelper::getBasisIndexesEnd(int region) const
{
  return m_regions[static_cast<std::size_t>(region)].indexes.end();
}
std::vector<double>::const_iterator COctreeFuncEvalHelper::getCoeffsBegin(int region) const
{
  return m_regions[static_cast<std::size_t>(region)].coeffs.begin();
}
std::vector<double>::const_iterator COctreeFuncEvalHelper::getCoeffsEnd(int region) const
{
  return m_regions[static_cast<std::size_t>(region)].coeffs.end();
}

// ---------------------------------------------------------------- the basis

template <class TKernel> class COctreeFuncBasisImpl
{
public:
  COctreeFuncBasisImpl(TKernel const & s, COctree const * o, int level)
      : octree(o), sample(s), derivativeLevel(level), flat(sample)
  {
    CParallelepiped const & box = sample.getCommonSupportRef();
    for (int a = 0; a < 3; ++a)
    {
      outsideBelow[a] = box.getMin()[a] - 1e-9 * (1.0 + std::fabs(box.getMin()[a]));
      outsideAbove[a] = box.getMax()[a] + 1e-9 * (1.0 + std::fabs(box.getMax()[a]));
    }
    int const end = octree->getNodeDepthEnd();
    int const begin = octree->getNodeDepthBegin();
    argumentScales.reserve(static_cast<std::size_t>(end));
    normalizations.reserve(static_cast<std::size_t>(end));
    scaledSupports.reserve(static_cast<std::size_t>(end));
    CParallelepiped const & support = sample.getCommonSupportRef();
    for (int d = 0; d < end; ++d)
    {
      if (d < begin)
      {
        argumentScales.push_back(0.0);
        normalizations.push_back(0.0);
        scaledSupports.push_back(CParallelepiped());
        continue;
      }
      double const h = octree->getCellSize(d);
      double const s = 1.0 / h;
      argumentScales.push_back(s);
      // s^level by repeated multiplication, then the three factors of the volume.
      double n = 1.0;
      for (int l = 0; l < derivativeLevel; ++l)
        n *= s;
      normalizations.push_back(s * s * s * n);
      CParallelepiped box;
      for (int a = 0; a < 3; ++a)
      {
        box.getMinMod()[a] = support.getMin()[a] * h;
        box.getMaxMod()[a] = support.getMax()[a] * h;
      }
      scaledSupports.push_back(box);
    }
  }
  virtual ~COctreeFuncBasisImpl() = default;

  void centreOf(int node, double * c, int * depth) const
  {
    CTreeNode const & n = octree->getNodesTable()[static_cast<std::size_t>(node)];
    double const * boxMin = octree->getBoxMin();
    double const unit = octree->getUnit();
    c[0] = n.shift().x() * unit + boxMin[0];
    c[1] = n.shift().y() * unit + boxMin[1];
    c[2] = n.shift().z() * unit + boxMin[2];
    *depth = n.depth();
  }

  double kernelAt(int node, double const * p) const
  {
    double c[3];
    int d;
    centreOf(node, c, &d);
    return kernelAt(c, argumentScales[static_cast<std::size_t>(d)], p);
  }

  // The kernel's argument is (c - p) * (0.0 - s), the form that gives
  // bit-equal values on every path.
  double kernelAt(double const * c, double s, double const * p) const
  {
    double const arg[3] = {(c[0] - p[0]) * (0.0 - s), (c[1] - p[1]) * (0.0 - s), (c[2] - p[2]) * (0.0 - s)};
    // Clearly outside the support the kernel is exactly 0.0: most candidates
    // of a cached region are, and this spares them the piecewise evaluation.
    // The margin keeps points near the bounds on the evaluation's own test.
    for (int a = 0; a < 3; ++a)
      if (arg[a] < outsideBelow[a] || arg[a] > outsideAbove[a])
        return 0.0;
    return flat.eval(sample, arg);
  }

  COctree const * octree;
  TKernel sample;
  std::vector<double> argumentScales;
  std::vector<double> normalizations;
  std::vector<CParallelepiped> scaledSupports;
  int derivativeLevel;
  double outsideBelow[3];
  double outsideAbove[3];
  detail::tf_FlatKernel<TKernel> flat;
};

template <class TKernel>
COctreeFuncBasisTmpl<TKernel>::COctreeFuncBasisTmpl(TKernel const & sample, COctree const * octree,
                                                    int derivativeLevel)
    : m_impl(new COctreeFuncBasisImpl<TKernel>(sample, octree, derivativeLevel))
{
}

template <class TKernel> COctreeFuncBasisTmpl<TKernel>::~COctreeFuncBasisTmpl() = default;

template <class TKernel> int COctreeFuncBasisTmpl<TKernel>::getFunctionsNumber() const
{
  return m_impl->octree->getNodesNumber();
}

template <class TKernel>
CCSFunc3Tmpl<TKernel> COctreeFuncBasisTmpl<TKernel>::makeFunctionByIndex(int node) const
{
  COctree const & o = *m_impl->octree;
  CTreeNode const & n = o.getNode(node);
  int const d = n.depth();
  int const ijk[3] = {n.shift().x(), n.shift().y(), n.shift().z()};
  double const unit = o.getUnit();
  double const * boxMin = o.getBoxMin();
  double const shift[3] = {boxMin[0] + ijk[0] * unit, boxMin[1] + ijk[1] * unit, boxMin[2] + ijk[2] * unit};
  return CCSFunc3Tmpl<TKernel>(&m_impl->sample, shift, ijk,
                               m_impl->argumentScales[static_cast<std::size_t>(d)],
                               m_impl->normalizations[static_cast<std::size_t>(d)], d);
}

template <class TKernel> double COctreeFuncBasisTmpl<TKernel>::evalKernelAt(int node, double const * p) const
{
  return m_impl->kernelAt(node, p);
}

template <class TKernel>
double COctreeFuncBasisTmpl<TKernel>::evalKernelAt(double const * c, double s, double const * p) const
{
  return m_impl->kernelAt(c, s, p);
}

template <class TKernel>
void COctreeFuncBasisTmpl<TKernel>::prepareEntry(int node, COctreeFuncEvalHelper::SPreparedEntry * out) const
{
  CTreeNode const & n = m_impl->octree->getNodesTable()[static_cast<std::size_t>(node)];
  prepareEntry(n.shift(), n.depth(), out);
}

template <class TKernel>
void COctreeFuncBasisTmpl<TKernel>::prepareEntry(CInt3 const & shift, int d,
                                                 COctreeFuncEvalHelper::SPreparedEntry * out) const
{
  double const * boxMin = m_impl->octree->getBoxMin();
  double const unit = m_impl->octree->getUnit();
  out->centre[0] = shift.x() * unit + boxMin[0];
  out->centre[1] = shift.y() * unit + boxMin[1];
  out->centre[2] = shift.z() * unit + boxMin[2];
  out->scale = m_impl->argumentScales[static_cast<std::size_t>(d)];
  out->normalization = m_impl->normalizations[static_cast<std::size_t>(d)];
  // Where the kernel's own outside test can fail: its margins taken back to
  // model coordinates, widened once more for the rounding of (c - p) * -s.
  double const s = out->scale;
  for (int a = 0; a < 3; ++a)
  {
    double const c = out->centre[a];
    double const lo = c + m_impl->outsideBelow[a] / s;
    double const hi = c + m_impl->outsideAbove[a] / s;
    double const slack = 1e-9 * (1.0 + std::fabs(c) + (hi - lo));
    out->lo[a] = lo - slack;
    out->hi[a] = hi + slack;
  }
}

template <class TKernel>
double COctreeFuncBasisTmpl<TKernel>::evalBasisValue(int node, double const * p) const
{
  int const d = m_impl->octree->getNode(node).depth();
  return m_impl->kernelAt(node, p) * m_impl->normalizations[static_cast<std::size_t>(d)];
}

template <class TKernel> double COctreeFuncBasisTmpl<TKernel>::evalBasisValue(int node, float const * p) const
{
  double const q[3] = {p[0], p[1], p[2]};
  return evalBasisValue(node, q);
}

template <class TKernel> bool COctreeFuncBasisTmpl<TKernel>::isUniform() const
{
  return m_impl->octree->isUniform();
}

template <class TKernel> double COctreeFuncBasisTmpl<TKernel>::getSupportSizeInCells() const
{
  double const * hi = m_impl->sample.getCommonSupportRef().getMax();
  double r = std::fabs(hi[0]);
  if (std::fabs(hi[1]) > r)
    r = std::fabs(hi[1]);
  if (std::fabs(hi[2]) > r)
    r = std::fabs(hi[2]);
  return r;
}

template <class TKernel> COctree const & COctreeFuncBasisTmpl<TKernel>::getOctreeRef() const
{
  return *m_impl->octree;
}
template <class TKernel> TKernel const * COctreeFuncBasisTmpl<TKernel>::getSamplePtr() const
{
  return &m_impl->sample;
}
template <class TKernel> int COctreeFuncBasisTmpl<TKernel>::getDerivativeLevel() const
{
  return m_impl->derivativeLevel;
}
template <class TKernel> double COctreeFuncBasisTmpl<TKernel>::getArgumentScale(int depth) const
{
  return m_impl->argumentScales.at(static_cast<std::size_t>(depth));
}
template <class TKernel> double COctreeFuncBasisTmpl<TKernel>::getNormalization(int depth) const
{
  return m_impl->normalizations.at(static_cast<std::size_t>(depth));
}
template <class TKernel>
CParallelepiped const & COctreeFuncBasisTmpl<TKernel>::getScaledKernelSupportRef(int depth) const
{
  return m_impl->scaledSupports.at(static_cast<std::size_t>(depth));
}

// ---------------------------------------------------------------- the combination

template <class TKernel> class COctreeFuncLinCombImpl
{
public:
  explicit COctreeFuncLinCombImpl(COctreeFuncBasisTmpl<TKernel> const * b)
      : basis(b), octree(&b->getOctreeRef()),
        coefficients(static_cast<std::size_t>(b->getFunctionsNumber()), 0.0),
        nonZeroAtDepth(static_cast<std::size_t>(std::max(octree->getNodeDepthEnd(), 0)), 0)
  {
  }
  virtual ~COctreeFuncLinCombImpl() = default;

  COctreeFuncBasisTmpl<TKernel> const * basis;
  COctree const * octree;
  std::vector<double> coefficients;
  // How many coefficients of each depth are not exactly 0.0 (NaN counts): a
  // walk over the combination skips the depths that have none.
  std::vector<int> nonZeroAtDepth;
};

template <class TKernel>
COctreeFuncLinCombTmpl<TKernel>::COctreeFuncLinCombTmpl(COctreeFuncBasisTmpl<TKernel> const * basis)
    : m_impl(new COctreeFuncLinCombImpl<TKernel>(basis))
{
}

template <class TKernel>
COctreeFuncLinCombTmpl<TKernel>::COctreeFuncLinCombTmpl(COctreeFuncLinCombTmpl const & other)
    : m_impl(new COctreeFuncLinCombImpl<TKernel>(*other.m_impl))
{
}

template <class TKernel>
COctreeFuncLinCombTmpl<TKernel> &
COctreeFuncLinCombTmpl<TKernel>::operator=(COctreeFuncLinCombTmpl const & other)
{
  if (this != &other)
    *m_impl = *other.m_impl;
  return *this;
}

template <class TKernel> COctreeFuncLinCombTmpl<TKernel>::~COctreeFuncLinCombTmpl() = default;

template <class TKernel>
COctreeFuncBasisTmpl<TKernel> const & COctreeFuncLinCombTmpl<TKernel>::getRelatedBasisRef() const
{
  return *m_impl->basis;
}

template <class TKernel> double COctreeFuncLinCombTmpl<TKernel>::getBasisCoefficient(int node) const
{
  return m_impl->coefficients.at(static_cast<std::size_t>(node));
}

template <class TKernel> void COctreeFuncLinCombTmpl<TKernel>::setBasisCoefficient(int node, double value)
{
  double & c = m_impl->coefficients.at(static_cast<std::size_t>(node));
  bool const wasZero = c == 0.0, isZero = value == 0.0;
  if (wasZero != isZero)
    m_impl->nonZeroAtDepth[static_cast<std::size_t>(m_impl->octree->getNodeDepth(node))] += isZero ? -1 : 1;
  c = value;
}

template <class TKernel> int COctreeFuncLinCombTmpl<TKernel>::getNonZeroCoefficientsAtDepth(int depth) const
{
  if (depth < 0 || depth >= static_cast<int>(m_impl->nonZeroAtDepth.size()))
    return 0;
  return m_impl->nonZeroAtDepth[static_cast<std::size_t>(depth)];
}

template <class TKernel> std::vector<double> const & COctreeFuncLinCombTmpl<TKernel>::getCoefficients() const
{
  return m_impl->coefficients;
}

template <class TKernel>
double COctreeFuncLinCombTmpl<TKernel>::eval(double const * p, COctreeFuncEvalHelper * helper) const
{
  COctreeFuncBasisTmpl<TKernel> const & basis = *m_impl->basis;
  COctree const & octree = *m_impl->octree;
  std::vector<CTreeNode> const & nodes = octree.getNodesTable();
  double value = 0.0;
  if (helper)
  {
    int const r = helper->getCashedRegionindex(p);
    if (r >= 0)
    {
      auto idx = helper->getBasisIndexesBegin(r);
      auto const idxEnd = helper->getBasisIndexesEnd(r);
      auto coeff = helper->getCoeffsBegin(r);
      if (COctreeFuncEvalHelper::SPreparedEntry const * e = helper->getPreparedEntries(r))
      {
        // Only the entries that can be non-zero at p, in recorded order: the
        // others would add exactly zero, which leaves a sum started at +0.0
        // unchanged.
        int near = 0;
        if (int const * positions = helper->getEntriesNear(r, p, &near))
        {
          double const * coeffs = &*coeff;
          for (int k = 0; k < near; ++k)
          {
            int const i = positions[k];
            value += e[i].normalization * coeffs[i] * basis.evalKernelAt(e[i].centre, e[i].scale, p);
          }
          return value;
        }
        for (; idx != idxEnd; ++idx, ++coeff, ++e)
          value += e->normalization * *coeff * basis.evalKernelAt(e->centre, e->scale, p);
        return value;
      }
      for (; idx != idxEnd; ++idx, ++coeff)
      {
        int const d = nodes[static_cast<std::size_t>(*idx)].depth();
        value += basis.getNormalization(d) * *coeff * basis.evalKernelAt(*idx, p);
      }
      return value;
    }
  }
  int const region = helper ? helper->recordNewRegion(p) : -1;
  std::vector<double> const & coefficients = m_impl->coefficients;
  for (int d = octree.getNodeDepthBegin(); d < octree.getNodeDepthEnd(); ++d)
  {
    CParallelepiped box = basis.getScaledKernelSupportRef(d);
    for (int a = 0; a < 3; ++a)
    {
      box.getMinMod()[a] += p[a];
      box.getMaxMod()[a] += p[a];
    }
    if (helper)
      helper->enlargeRegion(&box);
    double const normalization = basis.getNormalization(d);
    for (COctreeInBoxNodeIterator it(&octree, box, d); !it.isFinished(); it.next())
    {
      int const node = it.currentNodeIndex();
      double const a = coefficients[static_cast<std::size_t>(node)];
      if (a == 0.0)
        continue;
      COctreeFuncEvalHelper::SPreparedEntry e;
      basis.prepareEntry(it.currentNodeShift(), d, &e);
      value += normalization * a * basis.evalKernelAt(e.centre, e.scale, p);
      if (helper)
        helper->recordPreparedIndexInfo(region, node, a, e);
    }
  }
  return value;
}

template <class TKernel>
double COctreeFuncLinCombTmpl<TKernel>::eval(float const * p, COctreeFuncEvalHelper * helper) const
{
  double const q[3] = {p[0], p[1], p[2]};
  return eval(q, helper);
}

// ---------------------------------------------------------------- the support iterator

template <class TKernel>
CInterlacedSupportIteratorTmpl<TKernel>::CInterlacedSupportIteratorTmpl(
    COctreeFuncBasisTmpl<TKernel> const * basis, CParallelepiped const & box)
    : m_box(box), m_basis(basis), m_octree(&basis->getOctreeRef()), m_depth(m_octree->getNodeDepthEnd()),
      m_current(), m_combination(nullptr)
{
  initForNextDepth();
}

template <class TKernel>
CInterlacedSupportIteratorTmpl<TKernel>::CInterlacedSupportIteratorTmpl(
    COctreeFuncLinCombTmpl<TKernel> const * combination, CParallelepiped const & box)
    : m_box(box), m_basis(&combination->getRelatedBasisRef()), m_octree(&m_basis->getOctreeRef()),
      m_depth(m_octree->getNodeDepthEnd()), m_current(), m_combination(combination)
{
  initForNextDepth();
}

template <class TKernel> void CInterlacedSupportIteratorTmpl<TKernel>::initForNextDepth()
{
  for (;;)
  {
    --m_depth;
    if (m_depth < m_octree->getNodeDepthBegin())
    {
      m_depth = -1;
      m_nodes.reset();
      return;
    }
    if (m_combination && m_combination->getNonZeroCoefficientsAtDepth(m_depth) == 0)
      continue;
    // A function whose support meets the box has its centre in the box
    // enlarged by the support.
    CParallelepiped const & support = m_basis->getScaledKernelSupportRef(m_depth);
    CParallelepiped box = m_box;
    for (int a = 0; a < 3; ++a)
    {
      box.getMinMod()[a] += support.getMin()[a];
      box.getMaxMod()[a] += support.getMax()[a];
    }
    m_nodes.emplace(m_octree, box, m_depth);
    if (!m_nodes->isFinished())
    {
      m_current = m_basis->makeFunctionByIndex(m_nodes->currentNodeIndex());
      return;
    }
  }
}

template <class TKernel> void CInterlacedSupportIteratorTmpl<TKernel>::next()
{
  if (m_depth < 0)
    return;
  m_nodes->next();
  if (m_nodes->isFinished())
  {
    initForNextDepth();
    return;
  }
  // Scale, normalisation and depth stay: only the position changes.
  CInt3 const & n = m_nodes->currentNodeShift();
  int * shiftInt = m_current.getArgumentShiftIntMod();
  double * shift = m_current.getArgumentShiftMod();
  double const unit = m_octree->getUnit();
  double const * boxMin = m_octree->getBoxMin();
  shiftInt[0] = n.x();
  shiftInt[1] = n.y();
  shiftInt[2] = n.z();
  for (int a = 0; a < 3; ++a)
    shift[a] = boxMin[a] + shiftInt[a] * unit;
}

template class COctreeFuncBasisImpl<CPiecewisePolynom>;
template class COctreeFuncBasisImpl<CProductPiecewisePolynom>;
template class COctreeFuncBasisTmpl<CPiecewisePolynom>;
template class COctreeFuncBasisTmpl<CProductPiecewisePolynom>;
template class COctreeFuncLinCombImpl<CPiecewisePolynom>;
template class COctreeFuncLinCombImpl<CProductPiecewisePolynom>;
template class COctreeFuncLinCombTmpl<CPiecewisePolynom>;
template class COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;
template class CInterlacedSupportIteratorTmpl<CPiecewisePolynom>;
template class CInterlacedSupportIteratorTmpl<CProductPiecewisePolynom>;
} // namespace VolTr
