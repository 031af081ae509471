#pragma once
// Smoothing of polylines by neighbour averaging with points that must not move,
// and the ordering of scalar positions along a line or round a circle.
//
// The smoothing is linear in the coordinates, so fixed points are not held
// inside the iteration: the response of the whole scheme to a unit impulse at
// each fixed point is computed once, and a small dense system gives the
// impulses that bring every fixed point back. That keeps the passes free of
// constraints, at the price of one pass sequence per fixed point: fixed points
// must stay few.

#include <vector>

#include "QZmath/Foundation/Point3D.h"

/// Parameters of smoothPolylineWithFixedPoints.
class CPolylineSmoothParams
{
public:
  CPolylineSmoothParams() = default;
  CPolylineSmoothParams(bool closed, double weight, int nIter, bool preserveShape, std::vector<int> * fixed)
      : m_bClosed(closed), m_dWeight(weight), m_nIter(nIter), m_bPreserveShape(preserveShape),
        m_pFixedPtIdx(fixed)
  {
  }
  CPolylineSmoothParams(CPolylineSmoothParams const &) = default;
  CPolylineSmoothParams & operator=(CPolylineSmoothParams const &) = default;
  virtual ~CPolylineSmoothParams() = default;

  /// Restores every field to its default.
  virtual void SetDefaultValues() { SetDefaultValuesPolyline(); }

  /// A closed polyline repeats its first point as its last one.
  bool GetIsClosed() const { return m_bClosed; }
  void SetClosed(bool closed) { m_bClosed = closed; }
  /// The share of the neighbours' mean in one averaging step (0.4).
  double GetWeight() const { return m_dWeight; }
  void SetWeight(double weight) { m_dWeight = weight; }
  /// Number of passes (10); zero or less leaves the polyline as it is.
  int GetNIter() const { return m_nIter; }
  void SetNIter(int nIter) { m_nIter = nIter; }
  /// Adds the counter step after each averaging step, so that the polyline
  /// does not shrink (true).
  bool GetPreserveShape() const { return m_bPreserveShape; }
  void SetPreserveShape(bool preserve) { m_bPreserveShape = preserve; }
  /// Indices of the points that keep their place; null for none. Not owned:
  /// the vector must outlive every use of these parameters.
  const std::vector<int> * GetPtrFixedPtIdx() const { return m_pFixedPtIdx; }
  void SetPtrFixedPtIdx(const std::vector<int> * fixed) { m_pFixedPtIdx = fixed; }

protected:
  virtual void SetDefaultValuesPolyline()
  {
    m_bClosed = false;
    m_dWeight = 0.4;
    m_nIter = 10;
    m_bPreserveShape = true;
    m_pFixedPtIdx = nullptr;
  }

private:
  bool m_bClosed = false;
  double m_dWeight = 0.4;
  int m_nIter = 10;
  bool m_bPreserveShape = true;
  const std::vector<int> * m_pFixedPtIdx = nullptr;
};

/// Smooths `points` in place; the points named by the parameters' index list
/// end exactly where they started, and so do the two ends of an open polyline.
/// The float form averages in float and solves for the impulses in double.
///
/// Returns false, with the points untouched, for an index outside the
/// polyline (for a closed one the last index counts only as the partner of a
/// first index 0 at the other end of a sorted list), or when memory for the
/// impulse system runs out. Returns false, with the points smoothed but not
/// brought back, when the impulse system is singular (a repeated index, say).
/// Fewer than one point, or every point fixed, leaves the polyline as it is
/// and returns true.
bool smoothPolylineWithFixedPoints(std::vector<REmath::Point3D> & points,
                                   const CPolylineSmoothParams & params);
bool smoothPolylineWithFixedPoints(std::vector<REmath::Point3D_d> & points,
                                   const CPolylineSmoothParams & params);

/// Sorts the positions ascending, or descending for a negative `direction`.
/// `period` is not used. Always true.
bool ArrangePointsOnLine(std::vector<float> & values, int direction, int period);

/// Reorders nothing but moves misplaced positions, so that the list, taken
/// cyclically, runs round a circle of length `period` in the sense of
/// `direction` (+1 or -1). A step between neighbours whose sense disagrees
/// is repaired by respacing the values inside the smallest window around it
/// whose outer steps agree. Returns false, with the list restored, when no
/// such window exists or the result still disagrees somewhere, and for a
/// `direction` other than +1 and -1. Lists of fewer than three values have no
/// sense of rotation and are returned unchanged with true.
bool ArrangePointsOnCircle(std::vector<float> & values, int direction, int period);
