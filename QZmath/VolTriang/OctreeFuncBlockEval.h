#pragma once
// Evaluation of the implicit function at many nearby points. The combination's
// own `eval` walks the tree for every point (or scans a cached list); this
// evaluator copies the coefficients of the nodes around a block of space once
// into dense arrays, one per depth, so that a point of the block finds its
// nodes by index. The one-dimensional kernel values are computed once per axis
// and node and shared by the products of the three axes.

#include <memory>

#include "QZmath/VolTriang/OctreeFuncBasis.h"

namespace VolTr
{
class CProductPiecewisePolynom;

/// Fast evaluation of one combination over a product-kernel basis. Belongs to
/// one thread; copies share the read-only part and start with an empty cache.
class COctreeFuncBlockEvaluator
{
public:
  using LinComb = COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;

  /// The combination, its basis and its octree must outlive the evaluator.
  /// `blockSize` is the edge of the cached blocks in model units; 0 or less
  /// takes eight finest lattice steps.
  explicit COctreeFuncBlockEvaluator(LinComb const & x, double blockSize = 0.0);
  COctreeFuncBlockEvaluator(COctreeFuncBlockEvaluator const & other);
  COctreeFuncBlockEvaluator & operator=(COctreeFuncBlockEvaluator const &) = delete;
  virtual ~COctreeFuncBlockEvaluator();

  /// The value at p, bit for bit the one of `x.eval(p, helper)`: the same
  /// terms, each rounded alike, added in the same order (depth by depth from
  /// the coarsest, nodes in lattice order); only the terms that are exactly
  /// zero are left out, which leaves the sum unchanged.
  double eval(double const * p);
  double eval(float const * p);

  /// A faster approximation of `eval(p)` (the same terms added as a tree of
  /// partial sums) and in `bound` an upper limit of its distance to it. Use
  /// it to decide the side of a level where the value is clearly away from it.
  double evalWithBound(double const * p, double * bound);

  /// Prepares the restriction of the function to the segment parallel to
  /// `axis` through p (whose other two coordinates it keeps) from `low` to
  /// `high` on that axis: a piecewise polynomial of one variable, made once
  /// from the nodes that reach the segment. False when it cannot be made
  /// (then `evalOnAxisSegment` falls back to `evalWithBound`).
  bool setAxisSegment(double const * p, int axis, double low, double high);
  /// As `evalWithBound` at the point of the last segment with coordinate v on
  /// its axis, v between its ends.
  double evalOnAxisSegment(double v, double * bound);

  /// False when the kernel or the tree does not fit the dense form: every call
  /// then forwards to the combination's own evaluation (with a bound of 0).
  bool isAccelerated() const;

  /// Blocks built so far (a measure of locality for tests and benchmarks).
  long long blocksBuilt() const;

private:
  struct Shared;
  struct Cache;
  std::shared_ptr<Shared const> m_shared;
  std::unique_ptr<Cache> m_cache;
};
} // namespace VolTr
