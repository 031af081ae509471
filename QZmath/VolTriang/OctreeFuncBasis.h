#pragma once
// A function basis over an octree: one kernel per node, scaled to the node's
// cell and placed at its position; linear combinations over the basis (the
// implicit function of the reconstruction); the walk over the basis functions
// whose supports meet a box; and the small cache of nearby functions that
// makes evaluation at neighbouring points cheap.

#include <memory>
#include <optional>
#include <vector>

#include "QZmath/VolTriang/Kernels.h"
#include "QZmath/VolTriang/Octree.h"

namespace VolTr
{
/// The regions of space recently evaluated and, for each, the basis functions
/// (with their coefficients) that may be non-zero in it. Belongs to one thread.
class COctreeFuncEvalHelper
{
public:
  COctreeFuncEvalHelper(int regionsNumber, double regionHalfSize);
  COctreeFuncEvalHelper(COctreeFuncEvalHelper const &) = default;
  COctreeFuncEvalHelper & operator=(COctreeFuncEvalHelper const &) = default;
  virtual ~COctreeFuncEvalHelper() = default;

  /// The first region in use whose box holds p (bounds included), its hit
  /// counter increased; -1 when none.
  int getCashedRegionindex(double const * const p);
  /// Takes the first unused region, else the least hit one (the first at
  /// equal counts), and makes it the box p -+ regionHalfSize with no entries.
  /// -1 without regions.
  int recordNewRegion(double const * const p);
  /// Moves each corner of the box outward by regionHalfSize.
  void enlargeRegion(CParallelepiped * box) const;
  /// Appends an entry to a region; a negative region does nothing.
  void recordIndexInfo(int region, int basisIndex, double coefficient);

  int getRegionsNumber() const { return m_regionsNumber; }
  double getRegionHalfSize() const { return m_regionHalfSize; }
  CParallelepiped const & getRegionBox(int region) const { return m_regions[static_cast<std::size_t>(region)].box; }
  int getRegionHits(int region) const { return m_regions[static_cast<std::size_t>(region)].hits; }
  std::vector<int>::const_iterator getBasisIndexesBegin(int region) const;
  std::vector<int>::const_iterator getBasisIndexesEnd(int region) const;
  std::vector<double>::const_iterator getCoeffsBegin(int region) const;
  std::vector<double>::const_iterator getCoeffsEnd(int region) const;

  /// What an evaluation needs of a recorded function besides its index and
  /// coefficient: its centre, scale and normalisation, kept beside the entry
  /// so that a cached evaluation reads the region alone.
  struct SPreparedEntry
  {
    double centre[3];
    double scale;
    double normalization;
    /// Outside this box (in model coordinates) the function is exactly 0.
    double lo[3];
    double hi[3];
  };
  /// As `recordIndexInfo`, with the prepared data of the entry.
  void recordPreparedIndexInfo(int region, int basisIndex, double coefficient, SPreparedEntry const & prepared);
  /// The prepared data, parallel to the indexes, when every entry of the region
  /// was recorded with them; null otherwise.
  SPreparedEntry const * getPreparedEntries(int region) const;
  /// The entries of a region that can be non-zero at p (a point of the
  /// region), as ascending positions in its lists; the others are exactly zero
  /// there. Null when the region cannot tell, and then every entry counts.
  /// `count` receives the number of positions.
  int const * getEntriesNear(int region, double const * p, int * count);

private:
  struct Region
  {
    CParallelepiped box;
    int hits = -1; // -1: not in use
    std::vector<int> indexes;
    std::vector<double> coeffs;
    std::vector<SPreparedEntry> prepared;
    // Buckets of the region's box, each listing (in recorded order) the
    // entries that can be non-zero in it; made at the region's first hit.
    bool bucketsMade = false;
    bool bucketsUsable = false;
    std::vector<int> bucketStart;
    std::vector<int> bucketEntries;
  };
  void makeBuckets(Region & r) const;
  static constexpr int BUCKETS_PER_AXIS = 6;
  int m_regionsNumber;
  double m_regionHalfSize;
  std::vector<Region> m_regions;
};

template <class TKernel> class COctreeFuncBasisImpl;
template <class TKernel> class COctreeFuncLinCombTmpl;

/// One function per octree node: on depth d, s^(3 + level) K(s (p - c)) with
/// s = 1 / cell size and level the derivative order the kernel stands for.
template <class TKernel> class COctreeFuncBasisTmpl
{
public:
  /// Copies the kernel; the octree must outlive the basis.
  COctreeFuncBasisTmpl(TKernel const & sample, COctree const * octree, int derivativeLevel);
  virtual ~COctreeFuncBasisTmpl();
  COctreeFuncBasisTmpl(COctreeFuncBasisTmpl const &) = delete;
  COctreeFuncBasisTmpl & operator=(COctreeFuncBasisTmpl const &) = delete;

  int getFunctionsNumber() const;
  CCSFunc3Tmpl<TKernel> makeFunctionByIndex(int node) const;
  /// The value of the node's function at p, without building it.
  double evalBasisValue(int node, double const * p) const;
  double evalBasisValue(int node, float const * p) const;
  bool isUniform() const;
  /// The greatest absolute maximum coordinate of the kernel's support: 1.5.
  double getSupportSizeInCells() const;

  COctree const & getOctreeRef() const;
  TKernel const * getSamplePtr() const;
  int getDerivativeLevel() const;
  double getArgumentScale(int depth) const;
  double getNormalization(int depth) const;
  CParallelepiped const & getScaledKernelSupportRef(int depth) const;

  /// The kernel value (without normalisation) of node `node` at p.
  double evalKernelAt(int node, double const * p) const;
  /// The kernel value at p of a function centred at c with argument scale s.
  double evalKernelAt(double const * c, double s, double const * p) const;
  /// Centre, scale and normalisation of a node's function.
  void prepareEntry(int node, COctreeFuncEvalHelper::SPreparedEntry * out) const;
  /// The same for the node of a depth at these lattice coordinates.
  void prepareEntry(CInt3 const & shift, int depth, COctreeFuncEvalHelper::SPreparedEntry * out) const;

private:
  std::unique_ptr<COctreeFuncBasisImpl<TKernel>> m_impl;
};

template <class TKernel> class COctreeFuncLinCombImpl;

/// sum over nodes of coefficient * basis function.
template <class TKernel> class COctreeFuncLinCombTmpl
{
public:
  /// All coefficients 0.0. The basis must outlive the combination.
  explicit COctreeFuncLinCombTmpl(COctreeFuncBasisTmpl<TKernel> const * basis);
  COctreeFuncLinCombTmpl(COctreeFuncLinCombTmpl const & other);
  COctreeFuncLinCombTmpl & operator=(COctreeFuncLinCombTmpl const & other);
  virtual ~COctreeFuncLinCombTmpl();

  COctreeFuncBasisTmpl<TKernel> const & getRelatedBasisRef() const;
  double getBasisCoefficient(int node) const;
  void setBasisCoefficient(int node, double value);
  /// How many coefficients of the nodes of a depth are not exactly 0.0.
  int getNonZeroCoefficientsAtDepth(int depth) const;
  std::vector<double> const & getCoefficients() const;

  /// The value at p. A helper (may be null) answers from a cached region when
  /// p lies in one and records a new region otherwise.
  double eval(double const * p, COctreeFuncEvalHelper * helper) const;
  double eval(float const * p, COctreeFuncEvalHelper * helper) const;

private:
  std::unique_ptr<COctreeFuncLinCombImpl<TKernel>> m_impl;
};

/// The basis functions whose supports may meet a box, depth by depth from the
/// deepest upward.
template <class TKernel> class CInterlacedSupportIteratorTmpl
{
public:
  CInterlacedSupportIteratorTmpl(COctreeFuncBasisTmpl<TKernel> const * basis, CParallelepiped const & box);
  /// Over a combination's basis, passing over the depths where every
  /// coefficient is 0.0: the functions a sum over the combination needs.
  CInterlacedSupportIteratorTmpl(COctreeFuncLinCombTmpl<TKernel> const * combination, CParallelepiped const & box);
  CInterlacedSupportIteratorTmpl(CInterlacedSupportIteratorTmpl const &) = default;
  CInterlacedSupportIteratorTmpl & operator=(CInterlacedSupportIteratorTmpl const &) = default;
  virtual ~CInterlacedSupportIteratorTmpl() = default;

  bool isFinished() const { return m_depth < 0; }
  void next();
  CCSFunc3Tmpl<TKernel> const & operator*() const { return m_current; }
  int functionIndex() const { return m_nodes ? m_nodes->currentNodeIndex() : -1; }

private:
  void initForNextDepth();

  CParallelepiped m_box;
  COctreeFuncBasisTmpl<TKernel> const * m_basis;
  COctree const * m_octree;
  int m_depth;
  std::optional<COctreeInBoxNodeIterator> m_nodes;
  CCSFunc3Tmpl<TKernel> m_current;
  COctreeFuncLinCombTmpl<TKernel> const * m_combination;
};
} // namespace VolTr
