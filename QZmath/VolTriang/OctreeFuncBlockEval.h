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
  /// takes eight finest lattice steps. `cacheBlocks` blocks are kept (0 or
  /// less: 256); a walk that comes back to a block after passing many others
  /// wants more.
  explicit COctreeFuncBlockEvaluator(LinComb const & x, double blockSize = 0.0, int cacheBlocks = 0);
  COctreeFuncBlockEvaluator(COctreeFuncBlockEvaluator const & other);
  COctreeFuncBlockEvaluator & operator=(COctreeFuncBlockEvaluator const &) = delete;
  virtual ~COctreeFuncBlockEvaluator();

  /// The value at p, bit for bit the one of `x.eval(p, helper)`: the same
  /// terms, each rounded alike, added in the same order (depth by depth from
  /// the coarsest, nodes in lattice order); only the terms that are exactly
  /// zero are left out, which leaves the sum unchanged.
  double eval(double const * p);
  double eval(float const * p);

  /// `eval` at `count` points (three coordinates each), values[i] for the
  /// i-th point: the points are taken block by block (in the order of their
  /// blocks of space, not the given one) on `threads` threads (0: one per
  /// physical thread), each with a copy of this evaluator. The values are
  /// those of `eval`, whatever the order and the threads.
  void evalMany(double const * points, std::size_t count, double * values, int threads = 0) const;

  /// A faster approximation of `eval(p)` (the same terms added as a tree of
  /// partial sums) and in `bound` an upper limit of its distance to it. Use
  /// it to decide the side of a level where the value is clearly away from it.
  double evalWithBound(double const * p, double * bound);

  /// The polygoniser's lattice: the point of index (i, j, k) has the
  /// coordinates start[a] - (index - 0.5) * size, computed as the polygoniser
  /// computes them, for indices from -bound - 1 to bound + 1. The kernel
  /// values of every lattice coordinate are tabulated once; copies made
  /// afterwards share the tables. False, and no tables, when the kernel does
  /// not fit (more than one summand, pieces above degree 2) or the tables
  /// would be too large: the lattice calls below then take the point forms.
  /// With `subdivisions` above 1, the points that cut each lattice edge into
  /// that many equal parts are tabulated too, for `interpolateOnLatticeEdge`.
  bool setLattice(double const * start, double size, int bound, int subdivisions = 1);
  /// Takes the lattice tables of another evaluator of the same combination.
  void shareLattice(COctreeFuncBlockEvaluator const & other);
  /// The coordinates of the lattice point of the given index (zeros before
  /// a lattice is set).
  void latticePoint(int const * index, double * p) const;
  /// `evalWithBound` at the lattice point of the given index.
  double evalLatticeWithBound(int const * index, double * bound);
  /// The polygoniser's bisection of the lattice edge between the points of
  /// indices `from` and `to` for the level `isoValue`: ten midpoints, each
  /// moving the end of its side, from the ends ordered by `valueFrom`
  /// (the value of X - isoValue at `from`: not negative puts `from` on the
  /// positive side); `result` receives the eleventh midpoint. Every side is
  /// the one the exact value gives: the edge's restriction of the function
  /// (a piecewise polynomial of one variable, made once per edge) decides
  /// where it is clearly away from the level, the exact value elsewhere.
  void convergeOnLatticeEdge(int const * from, int const * to, double valueFrom, double isoValue,
                             double * result);
  /// An interpolated crossing of the lattice edge between the points of
  /// indices `from` and `to` (neighbours, diagonals included), whose values of
  /// X - isoValue are `valueFrom` and `valueTo` of opposite sides (not
  /// negative is the positive side): X is evaluated at the points that cut
  /// the edge into the lattice's subdivisions (3 when it has none), the
  /// polynomial through all values along the edge is formed, and `result`
  /// receives its zero in the first part whose ends change side. Much cheaper
  /// than the bisection, and closer to the true crossing than its 1/1024 of
  /// an edge wherever the function is smooth over the edge.
  void interpolateOnLatticeEdge(int const * from, int const * to, double valueFrom, double valueTo,
                                double isoValue, double * result);

  /// False when the kernel or the tree does not fit the dense form: every call
  /// then forwards to the combination's own evaluation (with a bound of 0).
  bool isAccelerated() const;

  /// Blocks built so far (a measure of locality for tests and benchmarks).
  long long blocksBuilt() const;

  // The inside, defined in a detail header.
  struct Shared;
  struct Cache;
  struct Lattice;

private:
  std::shared_ptr<Shared const> m_shared;
  std::unique_ptr<Cache> m_cache;
  std::shared_ptr<Lattice const> m_lattice;
};
} // namespace VolTr
