#pragma once
// Oriented normals for a cloud of points that has none (or none to trust): the
// road from a raw scan to the input of the reconstruction.
//
// Three steps, each also callable on its own:
//  1. Neighbours: the k nearest other points of every point, optionally only
//     those within a radius, from a k-d tree (nanoflann, kept out of this
//     header). Lists are sorted by distance, equal distances by index, so
//     they do not depend on the tree's traversal.
//  2. Normals: GetNormal on the point and its neighbours (the point first),
//     or on request GetNormal2, which also gives a curvature. A neighbourhood
//     that spans no plane (fewer than three points, all coincident, or
//     collinear: the middle eigenvalue of its scatter below 1e-4 times the
//     largest) is degenerate: the point takes the normal of its nearest
//     neighbour whose neighbourhood is not degenerate, or (0, 0, 1) when it
//     has none, and is counted. A neighbourhood dominated by noise (its
//     smallest eigenvalue a large share of the middle one, see
//     CNormalEstimationParams::getNoiseRatio) is widened: the point's normal
//     is estimated again from the scatter of its own and its neighbours'
//     neighbourhoods taken together, which reaches about twice as far.
//  3. Orientation: the signs are propagated along a minimum spanning tree of
//     the symmetric neighbour graph weighted by 1 - |ni . nj| (Prim's
//     algorithm): a point takes the sign that agrees with the point it was
//     reached from. An edge whose ends face each other (each more than 60
//     degrees off the other's tangent plane) weighs 1 more: it crosses
//     between the two sides of a thin sheet, whose normals are parallel but
//     opposite, and serves only where nothing else connects (a closed plate
//     keeps its two sides down to a thickness of about a neighbourhood's
//     radius). Each connected component of the graph gets its own seed, see
//     CNormalEstimationParams for how the seeds are oriented. Last, each
//     sign is checked once against the sum of its neighbours' normals (those
//     not facing it) and turned over where it disagrees: noise leaves a few
//     normals near the tangent plane, where the one edge of the tree that
//     decides them can be wrong, and the whole neighbourhood hardly ever is.
//     A sign fixed by a viewpoint is not checked.
//
// Threads: steps 1 and 2 and the checks of step 3 run as one task per
// physical core (CVescaThreadingTasksHelper); every point's result depends on
// that point alone, and the propagation is sequential, so the results are the
// same bit for bit whatever the number of threads.
//
// Memory order: run() works on a copy of the cloud sorted along a Morton
// curve, so that points near in space are near in memory, and hands the
// results back in the caller's order: on a cloud in scattered order the
// normals gather their neighbours from nearby memory and the orientation
// need not renumber the graph. Where distances tie, the choices may differ
// from those of the three steps called on the caller's order.
//
// Progress and interruption: the steps report on the caller's counter (null
// for none), as the phases "neighbours", "normals" and "orientation" when run
// together. An interruption requested on the counter stops the work within a
// block of points and arrives as CUserIntrException; the outputs are then
// cleared.
//
// Failures: a cloud that cannot have normals is refused with
// CNormalEstimationError, whose reason code and text name the cause (see
// ENormalEstimationFailure). Duplicate points are allowed: they are counted,
// and a neighbourhood made only of copies of one position is degenerate.

#include <string>
#include <vector>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/SurfaceAnalysis/GetNormal.h"
#include "QZsys/Exceptions.h"
#include "QZsys/Progress.h"

namespace REmath
{
/// Why a cloud was refused. The texts of CNormalEstimationError start with
/// "Normal estimation: " and then say, with the numbers involved:
enum ENormalEstimationFailure
{
  eNEBadNeighbourCount = 1, ///< "the neighbour count k must be positive, got K"
  eNEBadRadius,             ///< "the radius limit must be 0 (none) or positive, got R"
  eNEBadViewpoint,          ///< "the viewpoint has a non-finite coordinate"
  eNENoPoints,              ///< "no point coordinates were given"
  eNETooFewPoints,          ///< "N points, fewer than k + 1 = M"
  eNENonFinitePoint,        ///< "point I has a non-finite coordinate"
  eNEAllCoincident,         ///< "all N points coincide"
  eNEAllCollinear,          ///< "all N points lie on one line"
  eNEMismatch,              ///< "the neighbours (or normals) were made for N points, not M"
  eNEBadNoiseRatio          ///< "the noise ratio must be 0 or more, got R"
};

/// A cloud that cannot have normals.
class CNormalEstimationError : public CVescaException
{
public:
  CNormalEstimationError(ENormalEstimationFailure reason, std::string const & text)
      : CVescaException("Normal estimation: " + text), m_reason(reason)
  {
  }
  ENormalEstimationFailure getReason() const { return m_reason; }

private:
  ENormalEstimationFailure m_reason;
};

/// Parameters of CNormalEstimator. Copyable; the defaults suit scans of
/// closed objects.
class CNormalEstimationParams
{
public:
  /// k, the number of neighbours of each point, not counting itself
  /// (default 20). The cloud needs at least k + 1 points.
  int getNeighbours() const { return m_iNeighbours; }
  void setNeighbours(int k) { m_iNeighbours = k; }

  /// Neighbours farther than this are left out, so a neighbourhood may hold
  /// fewer than k points (default 0: no limit). Keeps the normals of sparse
  /// points from reaching across gaps, at the price of more degenerate ones.
  double getMaxRadius() const { return m_dMaxRadius; }
  void setMaxRadius(double radius) { m_dMaxRadius = radius; }

  /// Second order: GetNormal2 with getSecondOrderParams() instead of
  /// GetNormal, which also gives each point a curvature (default false).
  /// Where GetNormal2 finds no quadric, or one whose normal is more than 60
  /// degrees from the first-order one (a fit of something else than the
  /// surface), the first-order normal stays, as it does where the
  /// neighbourhood was widened (see getNoiseRatio). GetNormal2 needs a trace
  /// of noise: on exact samples of a curved surface it mostly finds none.
  bool getSecondOrder() const { return m_bSecondOrder; }
  void setSecondOrder(bool on) { m_bSecondOrder = on; }
  /// Defaults: those of CGetNormal2Prms, but with the reduced eigenproblem,
  /// which is faster and differs only in signs, which step 3 sets anyway.
  CGetNormal2Prms const & getSecondOrderParams() const { return m_secondOrder; }
  void setSecondOrderParams(CGetNormal2Prms const & prms) { m_secondOrder = prms; }

  /// When a neighbourhood's scatter has its smallest eigenvalue above this
  /// share of the middle one (default 0.15), its plane is poorly told from
  /// the noise across it: where the position noise is as large as the
  /// spacing of the points, k nearest neighbours leave a fair share of the
  /// normals far off the truth, a few nearly in the tangent plane, where no
  /// orientation can give them a sign. Such a point's normal is estimated
  /// again from the scatter of its neighbourhood and of its neighbours'
  /// taken together (each point counted once per neighbourhood it lies in,
  /// so the weight falls off with the distance), about four times as many
  /// points over twice the radius; the wider estimate is kept only where it
  /// separates the smallest eigenvalue better (not across an edge or a
  /// tight bend). 0 tries it for every point, 1 or more for none.
  double getNoiseRatio() const { return m_dNoiseRatio; }
  void setNoiseRatio(double ratio) { m_dNoiseRatio = ratio; }

  /// A scanner position. Without one, each component of the neighbour graph
  /// is seeded at its highest point (greatest z), whose normal is made to
  /// point up (+z); with getNestedInward() a component that lies inside
  /// another (found by looking straight up from its seed at the normals of
  /// the components already oriented) is seeded pointing down instead, so
  /// that the cavity of a hollow object faces inward.
  ///
  /// With a viewpoint, every point whose normal makes a clear angle with the
  /// line of sight (|cos| >= getViewpointMinCosine()) faces the viewpoint;
  /// the others, seen at grazing angles where the sign of the estimate says
  /// little, take their sign by the propagation from the clear ones. That
  /// suits a single-viewpoint scan, where every surface point was seen from
  /// the viewpoint and so truly faces it: the clear points need no
  /// propagation, which cannot carry an error across a thin feature, and the
  /// grazing ones follow their smooth neighbourhood. A component with no
  /// clear point is seeded at the point closest to clear.
  bool hasViewpoint() const { return m_bViewpoint; }
  Point3D_d const & getViewpoint() const { return m_viewpoint; }
  void setViewpoint(Point3D_d const & viewpoint)
  {
    m_viewpoint = viewpoint;
    m_bViewpoint = true;
  }
  void clearViewpoint() { m_bViewpoint = false; }

  /// The least |cosine| between a normal and its line of sight that lets the
  /// point face the viewpoint directly (default 0.2, about 78 degrees off
  /// the line of sight). 0 makes every point face the viewpoint.
  double getViewpointMinCosine() const { return m_dViewpointMinCosine; }
  void setViewpointMinCosine(double c) { m_dViewpointMinCosine = c; }

  /// Without a viewpoint: components inside others face inward (default
  /// true). Right for closed surfaces; for open patches stacked above one
  /// another it would turn the lower ones over, so switch it off there.
  bool getNestedInward() const { return m_bNestedInward; }
  void setNestedInward(bool on) { m_bNestedInward = on; }

  /// The counter's phase name follows the steps (default false).
  bool getPhaseNameShown() const { return m_bPhaseNameShown; }
  void setPhaseNameShown(bool on) { m_bPhaseNameShown = on; }

private:
  static CGetNormal2Prms defaultSecondOrder()
  {
    CGetNormal2Prms p;
    p.ReducedEigenProblem() = true;
    return p;
  }
  int m_iNeighbours = 20;
  double m_dMaxRadius = 0.0;
  double m_dNoiseRatio = 0.15;
  bool m_bSecondOrder = false;
  CGetNormal2Prms m_secondOrder = defaultSecondOrder();
  bool m_bViewpoint = false;
  Point3D_d m_viewpoint;
  double m_dViewpointMinCosine = 0.2;
  bool m_bNestedInward = true;
  bool m_bPhaseNameShown = false;
};

/// The nearest neighbours of every point of a cloud, in the point indices of
/// the cloud. Made by CNormalEstimator::findNeighbours.
class CNeighbourGraph
{
public:
  /// Number of points.
  int size() const { return static_cast<int>(m_counts.size()); }
  /// The k it was made with: the room per point.
  int getK() const { return m_iK; }
  /// Neighbours of point i: k, or fewer under a radius limit.
  int getNeighbourCount(int i) const { return m_counts[static_cast<std::size_t>(i)]; }
  /// Point i's neighbours, nearest first, equal distances by index; i itself
  /// is never among them, a copy of it at the same position may be.
  int const * getNeighbours(int i) const { return m_neighbours.data() + static_cast<std::size_t>(i) * m_iK; }
  /// Squared distance of point i's farthest listed neighbour (0 with none).
  double getReach2(int i) const { return m_reach2[static_cast<std::size_t>(i)]; }
  /// Points whose nearest neighbour sits at the same position.
  int getDuplicateCount() const { return m_iDuplicates; }
  void clear();

private:
  friend class CNormalEstimator;
  int m_iK = 0;
  int m_iDuplicates = 0;
  std::vector<int> m_neighbours; // m_iK per point, unused room -1
  std::vector<int> m_counts;
  std::vector<double> m_reach2;
};

/// Unit normals of a cloud and what became of each.
class CEstimatedNormals
{
public:
  int size() const { return static_cast<int>(m_normals.size() / 3); }
  /// Three floats per point, unit length.
  std::vector<float> const & getNormals() const { return m_normals; }
  float const * getNormal(int i) const { return m_normals.data() + 3 * static_cast<std::size_t>(i); }
  /// Second order only (else empty): per point the magnitude of the mean
  /// curvature of the fitted quadric, in the points' units (1 / length): 1/R
  /// on a sphere, 1/(2R) on a cylinder, 0 where the neighbourhood is flat
  /// within the flatness limit; -1 where unknown (no quadric, a degenerate
  /// neighbourhood, a widened one: its quadric would fit the noise).
  std::vector<float> const & getCurvatures() const { return m_curvatures; }
  /// True when the point's neighbourhood was degenerate and its normal is
  /// the fallback.
  bool isDegenerate(int i) const { return m_degenerate[static_cast<std::size_t>(i)] != 0; }
  int getDegenerateCount() const { return m_iDegenerate; }
  /// Points whose normal comes from a widened neighbourhood (see
  /// CNormalEstimationParams::getNoiseRatio).
  int getWidenedCount() const { return m_iWidened; }
  /// Points whose nearest neighbour sits at the same position.
  int getDuplicateCount() const { return m_iDuplicates; }
  /// Set by the orientation: connected components of the neighbour graph,
  /// how many of them were seeded facing inward (nested) and whether the
  /// signs are set at all.
  int getComponentCount() const { return m_iComponents; }
  int getInwardComponentCount() const { return m_iInwardComponents; }
  bool isOriented() const { return m_bOriented; }

  /// Replaces the normals by the caller's (three per point), for an
  /// orientation of normals made elsewhere; nothing is degenerate then.
  void assign(std::vector<float> normals);
  void clear();

private:
  friend class CNormalEstimator;
  std::vector<float> m_normals;
  std::vector<float> m_curvatures;
  std::vector<unsigned char> m_degenerate;
  int m_iDegenerate = 0;
  int m_iWidened = 0;
  int m_iDuplicates = 0;
  int m_iComponents = 0;
  int m_iInwardComponents = 0;
  bool m_bOriented = false;
};

/// Estimates and orients the normals of a cloud given as `count` raw float
/// triples. The cloud must outlive each call; the estimator keeps nothing of
/// it, holds no state between calls and may serve several threads at once.
class CNormalEstimator
{
public:
  explicit CNormalEstimator(CNormalEstimationParams const & params = CNormalEstimationParams())
      : m_params(params)
  {
  }
  CNormalEstimationParams const & getParams() const { return m_params; }

  /// The three steps. Throws CNormalEstimationError for a refused cloud and
  /// CUserIntrException on interruption.
  void run(float const * coords, int count, CEstimatedNormals & result, CProgressCounter * progress = nullptr) const;

  /// Step 1. Checks the cloud and the parameters, as run does.
  void findNeighbours(float const * coords, int count, CNeighbourGraph & graph,
                      CProgressCounter * progress = nullptr) const;
  /// Step 2 on neighbours of the same cloud; the signs are the estimators'.
  void estimateNormals(float const * coords, int count, CNeighbourGraph const & graph, CEstimatedNormals & result,
                       CProgressCounter * progress = nullptr) const;
  /// Step 3 on the normals in `result`, in place.
  void orientNormals(float const * coords, int count, CNeighbourGraph const & graph, CEstimatedNormals & result,
                     CProgressCounter * progress = nullptr) const;

private:
  CNormalEstimationParams m_params;
};
} // namespace REmath
