#pragma once
// A polyline in space, already cut into segments, described by a chain of
// straight lines and circular arcs.
//
// Every segment is one implicit curve of the polyline's plane,
//   A (x^2 + y^2) + B x + C y + D = 0,  normalised by B^2 + C^2 - 4 A D = 1,
// so that the value at a point near the curve is close to its distance, and
// one set of four parameters passes smoothly from an arc (A = 0.5 / r) to a
// line (A = 0, (B, C) its unit normal). A segment takes the model (line or
// arc) whose mean error is the smaller and below the fit tolerance; one that
// fits neither stays a free curve ("NURBS"), which this class does not fit
// and which only takes part as a neighbour. All segments are then fitted at
// once by a Levenberg-Marquardt iteration under linearised constraints, so
// that neighbours meet, and meet with a common tangent where the first
// approximation found them tangent.
//
// Boundary k lies between segment k - 1 and segment k; a closed polyline
// (its end within 1.1920928955078125e-7 of its start) has one boundary per
// segment, boundary 0 between the last segment and the first; an open one has
// one more, boundaries 0 and the last being its two ends (free unless the
// caller fixes them).
//
// Results come in two flat arrays. Curves, 7 doubles per segment: a line is
// point (the foot of the plane origin), direction, -1.0; an arc is centre,
// the plane's normal, radius (negative when A is); a free segment's entries
// are left as they were (0.0 where the array grew). Writing a line's result
// sets its stored D to 0: whatever reads the stored line afterwards sees that.
// Boundaries, 6 doubles each: point, then for type BndCondPointDir the
// tangent direction; entries not written stay as they were.
//
// Nothing throws and nothing is reported but the return codes: 9 for nothing
// to fit, 0 otherwise. The plane stays as the first fit defined it. An
// instance belongs to one thread.

#include <vector>

#include "QZmath/Foundation/Point3D.h"

/// Segment types.
enum
{
  PolylineCurveLine = 0,
  PolylineCurveArc = 1,
  PolylineCurveNurbs = 2
};

/// Boundary condition types: none, a common point (x, y), a common point and
/// a common unit normal (x, y, u, v).
enum
{
  BndCondFree = 0,
  BndCondPoint = 1,
  BndCondPointDir = 2
};

/// The plane frame of a polyline: axes U and V, origin O, normal N.
class TF_CBuilderUCS;

class CPolylineFitCurve
{
public:
  CPolylineFitCurve();
  virtual ~CPolylineFitCurve();
  CPolylineFitCurve(CPolylineFitCurve const &) = delete;
  CPolylineFitCurve & operator=(CPolylineFitCurve const &) = delete;

  /// The mean error under which a model is accepted, the cosine margin of a
  /// tangent join, and the gradient norm that ends the iteration (0.01).
  void setFitTolerance(double tolerance) { m_fitTolerance = tolerance; }
  bool isPolylineClosed() const { return m_closed; }

  /// Extension, off by default. The joint fit damps its steps by a factor
  /// that starts at 0.0401 and is multiplied by 10 before every trial and
  /// never lowered; on noisy data the first damped step is often worse than
  /// the separate first approximations, and these then stay, so that joins
  /// meet and touch only to the noise level. With adaptive damping the factor
  /// starts at 1e-4, grows by 10 only after a rejected trial (up to 10 a
  /// round) and falls by 10 after an accepted one: the classical
  /// Levenberg-Marquardt schedule, under which the chain reaches the
  /// constrained minimum and the joins hold to rounding. The iteration caps,
  /// the stop on the right side and the final comparison with the first
  /// approximation stay as they are.
  void setAdaptiveDamping(bool on) { m_adaptiveDamping = on; }
  bool getAdaptiveDamping() const { return m_adaptiveDamping; }

  /// The whole procedure on a new polyline: plane, segment types, boundary
  /// types, the joint fit, results. Returns 9 when `segments` is empty, else
  /// 0 (also when no types could be decided; the results are then left
  /// alone).
  int fitPolyline(const std::vector<std::vector<REmath::Point3D_d>> & segments,
                  std::vector<double> & curveParams, std::vector<double> & bndParams);
  /// Refits the stored segments under the stored (perhaps changed) types and
  /// conditions, from new first approximations. 9 when nothing is stored.
  int fitPolyline(std::vector<double> & curveParams, std::vector<double> & bndParams);

  /// -1 for an index out of range.
  int getCurveType(int segment);
  int getBndCondType(int boundary);
  /// True when the stored value changed; false when it already was `type`,
  /// or for an index or type out of range.
  bool setCurveType(int segment, int type);
  bool setBndCondType(int boundary, int type);
  /// Point and tangent direction of a boundary, in space. The direction's
  /// part in the plane, when longer than 1.1920928955078125e-7, gives the
  /// stored normal; otherwise the normal stays. Out of range: no change.
  void setBndCond(int boundary, const REmath::Point3D_d & point, const REmath::Point3D_d & dir);

  /// Inserts segment k: `segments` is the whole new segmentation in space,
  /// one more segment than stored (otherwise nothing happens). Segments k and
  /// k + 1 (and the last, for k = 0 of a closed polyline) take their new
  /// points and types, the join between k and k + 1 a new boundary; the
  /// results are rewritten, nothing is refitted.
  void addSegment(const std::vector<std::vector<REmath::Point3D_d>> & segments, int k,
                  std::vector<double> & curveParams, std::vector<double> & bndParams);
  /// Merges segment k into the one before it (the last, for k = 0 of a
  /// closed polyline) and drops boundary k. Segment 0 of an open polyline,
  /// or the only segment, has no segment before it: nothing happens.
  void deleteSegment(int k, std::vector<double> & curveParams, std::vector<double> & bndParams);
  /// Gives both segments beside `boundary` their points from `segments` (the
  /// whole segmentation in space, as many segments as stored). Fits nothing.
  /// False for the ends of an open polyline, an index out of range or a
  /// segment count that differs.
  bool moveBnd(const std::vector<std::vector<REmath::Point3D_d>> & segments, int boundary);
  /// Boundary 0: the first entries of the stored arrays move to their end;
  /// the last boundary: the last entries move to the front. The parameter
  /// arrays move by the strides of the result arrays (7 and 6 doubles), not by
  /// the 4 in which they are stored. False for any other boundary.
  bool moveSegmentsCyclically(int boundary);

private:
  bool defineCurveTypes();
  bool defineCurveTypes(int first, int last);
  bool defineBndCurveTypes();
  void defineNurbsBndCondParams(int first, int second);
  void defineBndParamsBetweenSegments(int first, int second);
  bool getFixedConditions(int segment, std::vector<REmath::Point3D_d> & points,
                          std::vector<REmath::Point3D_d> & dirs);
  double ApproximateSegmentByLine(int segment, double * params);
  double ApproximateSegmentByArc(int segment, double * params);
  void makeInitialApproxForSegment(int segment, int type);
  void makeInitialApproxFotBndCond(int boundary, int type);
  void fitPolylineSegments();
  int formMatrix(int bndStart, std::vector<double> const & p, std::vector<double> & M,
                 std::vector<double> & Z, std::vector<double> & N, std::vector<double> & r);
  void MakeConstrMatrix(std::vector<double> const & p, std::vector<double> & rows, int & rowCount);
  void MakePointsMatrix(std::vector<double> & M, int order);
  double getResiduals(std::vector<double> const & p, int bndStart);
  int getParamIndexBySegmentNumber(int segment);
  bool isBndCondFree(int boundary);
  bool isBndCondFixed(int boundary);
  void prepare2Dpoints(const std::vector<std::vector<REmath::Point3D_d>> & segments);
  void prepare3DcrvParams(std::vector<double> & curveParams);
  void prepare3DbndCond(std::vector<double> & bndParams);

  // Helpers of the operations above.
  int segmentCount() const { return static_cast<int>(m_segments.size()); }
  int boundaryCount() const { return static_cast<int>(m_bndCondTypes.size()); }
  bool isNurbs(int segment) const;
  REmath::Point3D_d toPlane(REmath::Point3D_d const & p) const;
  void joinParams(int first, int second, int & type, double * params);
  void curveNormalAt(int segment, int chordSegment, bool atEnd, double x, double y, double * normal);
  int boundaryParamIndex(int boundary, int bndStart);

  TF_CBuilderUCS * m_ucs;
  std::vector<std::vector<REmath::Point3D_d>> m_segments;
  std::vector<double> m_curveParams;
  std::vector<double> m_bndParams;
  std::vector<int> m_curveTypes;
  std::vector<int> m_bndCondTypes;
  bool m_closed;
  double m_fitTolerance;
  bool m_adaptiveDamping; // extension, see setAdaptiveDamping
};
