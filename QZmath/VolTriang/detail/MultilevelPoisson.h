#pragma once
// The multilevel solve of the reconstruction's Poisson system.
//
// The system is the one the sparse solvers get: A[o][i] = -<F_o, Lap F_i> and
// b[o] = <F_o, div U> over the octree basis. Here it is never stored. The
// kernel is separable, so every entry is a sum of products of one-variable
// integrals that depend only on the two depths and on the offset between the
// two nodes; those integrals are tabulated once per depth pair and the
// couplings are formed on the fly, line by line of nodes: the x and y factors
// are shared by a whole line, so the values are first summed over the lines
// in reach into one column per z. Within a depth the operator is a stencil of
// 5 x 5 x 5 offsets, applied the same way.
//
// The unknowns of all depths together form a generating system (functions of
// a coarse depth are nearly, though not exactly, combinations of finer ones:
// the kernel scale breaks exact nesting). The solve is block Gauss-Seidel over
// the depths: coarse to fine, each depth's constraints corrected by the
// solution of all other depths, then conjugate gradients with a Jacobi
// preconditioner on the depth's own stencil. Further sweeps (V-cycles: fine to
// coarse, then coarse to fine) correct what one cascade leaves behind.
//
// Work is cut into fixed blocks of nodes and partial sums are added in block
// order, so the result does not depend on the number of threads.

#include <vector>

#include "QZmath/VolTriang/Octree.h"
#include "QZmath/VolTriang/ProductPolynom.h"

class CProgressCounter;

namespace VsUt
{
class IDebugLog;
}

namespace VolTr
{
/// How the multilevel solve iterates.
struct SMultilevelSolveSettings
{
  /// Sweeps over the depths after the first cascade (each a V-cycle). The
  /// sweeps, not the accuracy of each depth's solve, make the surface: on
  /// spheres at depths 7 and 8, one cycle leaves the vertices 1.7 % of the
  /// leaf cell from those of the direct solve, two leave 0.5-0.7 %.
  int vCycles = 2;
  /// Conjugate-gradient iterations per depth and sweep, at most.
  int maxIterations = 30;
  /// A depth's iteration stops when its residual has fallen by this factor.
  double relativeTolerance = 3e-2;
  /// Depths with at most this many nodes are solved to full accuracy.
  int smallDepthNodes = 4096;
  /// Tasks for the heavy loops; 0 means one per physical thread.
  int threads = 0;
  /// Measure |b - A x| / |b| after the solve (one product more) for the log.
  bool reportResidual = false;
  /// Screening: the weight of the samples' pull of X toward one value
  /// (0: none). 1 makes the pull as strong as the stiffness on the finest
  /// depth's diagonal, on average.
  double screening = 0.0;
  /// The finest depths that are relaxed again with the screening, and how
  /// often (each time coarse to fine).
  int screenedDepths = 2;
  int screenSweeps = 1;
  /// Shrink the weight when the samples scatter about the unscreened
  /// surface (noise), by the fourth power of the ratio of a twentieth of the
  /// finest node spacing to the scatter, where the scatter is larger.
  bool screeningAdaptive = true;
};

/// What a solve did, for the log and the tests.
struct SMultilevelSolveReport
{
  std::vector<int> nodesPerDepth;
  std::vector<int> iterationsPerDepth;
  /// The depths whose iteration stopped at the cap.
  std::vector<int> cappedDepths;
  /// |b - A x| / |b| over all depths after the last sweep.
  double finalRelativeResidual = 0.0;
  /// With screening: the value the samples are pulled to, and the weighted
  /// root mean square of X minus it at the finest depth's merged samples
  /// before and (with reportResidual) after the screened sweeps.
  double screeningLevel = 0.0;
  double screeningDeviationBefore = 0.0;
  double screeningDeviationAfter = 0.0;
  /// The samples' robust scatter about the unscreened surface in finest node
  /// spacings, and the weight used.
  double screeningScatter = 0.0;
  double screeningWeight = 0.0;
  /// Conjugate-gradient steps of each screened relaxation, in the order made.
  std::vector<int> screeningIterations;
};

class CMultilevelPoissonSolver
{
public:
  /// `kernel` is the scaled sample kernel of the main basis (one summand,
  /// equal multipliers). The octree must outlive the solver.
  CMultilevelPoissonSolver(COctree const & octree, CProductPiecewisePolynom const & kernel,
                           SMultilevelSolveSettings const & settings = SMultilevelSolveSettings());
  ~CMultilevelPoissonSolver();
  CMultilevelPoissonSolver(CMultilevelPoissonSolver const &) = delete;
  CMultilevelPoissonSolver & operator=(CMultilevelPoissonSolver const &) = delete;

  /// b[o] = sum over j of <F_o, field_j>, with field_j the combination of
  /// `coefficients[j]` (one per node, in node order) over the basis of the
  /// kernel's derivative along j. The result is in node order.
  void makeRightPart(std::vector<double> const * coefficients, std::vector<double> * b) const;

  /// The matrix entry A[a][b] between two nodes, from the tables.
  double matrixEntry(int a, int b) const;

  /// Solves A x + rhs = 0 (the form of the sparse solvers' rows), x in node
  /// order. Returns false when the system has no unknowns. Progress goes to
  /// `progress` (may be null) and an interruption passes as CUserIntrException.
  bool solve(std::vector<double> const & rhs, std::vector<double> * x, CProgressCounter * progress,
             VsUt::IDebugLog * log);

  /// A x in node order, for tests and residual checks.
  void apply(std::vector<double> const & x, std::vector<double> * y) const;

  /// The samples for the screening (positions, three per sample, and
  /// weights), used when the settings ask for it. They are merged per cell
  /// of every screened depth.
  void setScreeningSamples(std::vector<double> const & points, std::vector<double> const & weights);

  SMultilevelSolveReport const & report() const { return m_report; }

  struct SLevel;
  struct SPairTables;
  struct SScreenPoints;

private:
  void prepareScreening();
  void screenSweeps(std::vector<std::vector<double>> & x, std::vector<char> const & active,
                    std::vector<std::vector<double>> const & target, CProgressCounter * progress);
  void screenDepth(int l, std::vector<std::vector<double>> & x, std::vector<char> const & active,
                   std::vector<std::vector<double>> const & target, double alpha, double level,
                   std::vector<double> const & values, std::vector<double> * change);
  int taskCount() const;
  SPairTables const & tables(int fine, int coarse) const;

  COctree const & m_octree;
  CProductPiecewisePolynom m_kernel;
  SMultilevelSolveSettings m_settings;
  int m_depthBegin;
  int m_depthEnd;
  std::vector<SLevel> m_levels;
  std::vector<SPairTables> m_tables;
  /// For each node, its depth's position in m_levels and its place there.
  std::vector<int> m_localIndex;
  SMultilevelSolveReport m_report;
  std::vector<double> m_samplePoints, m_sampleWeights;
  std::vector<SScreenPoints> m_screen; // per level, when screened
};
} // namespace VolTr
