#pragma once
// Maximisation of the smallest of several criteria over a box: the point at
// which the worst criterion is as good as it can be. A small steepest-ascent
// method with forward-difference gradients, meant for few, smooth criteria
// that are not necessarily cheap: with the default parameters it takes at
// most 4 steps of at most 3 trial moves.

#include <vector>

#include "QZmath/Foundation/Functor.h"
#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
/// The problem: criteria, start and box. The criteria are not owned and must
/// outlive every optimiser that runs the task.
class CMinMaxTask
{
public:
  using Criterion = Functor1<double, const Point3D_d &>;

  /// Moves a trial point onto the admissible set, inside the box.
  class IProjector
  {
  public:
    virtual ~IProjector() = default;
    virtual void Project(Point3D_d & point) const = 0;
  };

  CMinMaxTask() = default;
  CMinMaxTask(CMinMaxTask const &) = default;
  CMinMaxTask & operator=(CMinMaxTask const &) = default;
  ~CMinMaxTask() = default;

  /// Appends a criterion; a null pointer is ignored.
  void AddCriterion(const Criterion * criterion) { AddFunctor(criterion); }

  int NFunctions() const { return static_cast<int>(m_functions.size()); }
  /// Null outside 0..NFunctions() - 1.
  const Criterion * FnByIdx(int idx) const
  {
    return idx >= 0 && idx < NFunctions() ? m_functions[static_cast<std::size_t>(idx)] : nullptr;
  }

  Point3D_d const & GetInitApprox() const { return m_initApprox; }
  void SetInitApprox(Point3D_d const & p) { m_initApprox = p; }
  Point3D_d const & GetLimitMin() const { return m_limitMin; }
  void SetLimitMin(Point3D_d const & p) { m_limitMin = p; }
  Point3D_d const & GetLimitMax() const { return m_limitMax; }
  void SetLimitMax(Point3D_d const & p) { m_limitMax = p; }
  /// Optional, not owned; null for none.
  const IProjector * GetProjector() const { return m_projector; }
  void SetProjector(const IProjector * projector) { m_projector = projector; }

private:
  void AddFunctor(const Criterion * criterion)
  {
    if (criterion)
      m_functions.push_back(criterion);
  }

  std::vector<const Criterion *> m_functions;
  Point3D_d m_initApprox;
  Point3D_d m_limitMin;
  Point3D_d m_limitMax;
  const IProjector * m_projector = nullptr;
};

/// Tuning of the ascent.
class CMinMaxParams
{
public:
  CMinMaxParams() = default;

  /// Restores the defaults.
  void SetDefault() { *this = CMinMaxParams(); }

  /// The least gain of the smallest criterion that counts as progress (1e-5).
  double GetTolerance() const { return m_tolerance; }
  void SetTolerance(double v) { m_tolerance = v; }
  /// Steps at most (4); none below 1.
  int GetMaxIter() const { return m_maxIter; }
  void SetMaxIter(int v) { m_maxIter = v; }
  /// Trial moves per step, each shorter than the last (3).
  int GetMaxGradientMoveAttempts() const { return m_maxGradientMoveAttempts; }
  void SetMaxGradientMoveAttempts(int v) { m_maxGradientMoveAttempts = v; }
  /// Factor of the step length after a failed move (0.5).
  double GetGradientScale() const { return m_gradientScale; }
  void SetGradientScale(double v) { m_gradientScale = v; }
  /// Difference step of the gradients, relative to the squared box diagonal
  /// (1e-5).
  double GetGradCalcRelDelta() const { return m_gradCalcRelDelta; }
  void SetGradCalcRelDelta(double v) { m_gradCalcRelDelta = v; }

private:
  double m_tolerance = 1e-05;
  int m_maxIter = 4;
  int m_maxGradientMoveAttempts = 3;
  double m_gradientScale = 0.5;
  double m_gradCalcRelDelta = 1e-05;
};

/// Runs a task. Keeps pointers to the task and the parameters, which must
/// outlive it. Run has no state of its own beyond the call: one optimiser per
/// thread, or criteria that are safe to share, make concurrent runs safe.
class CMinMaxOptimizer
{
public:
  CMinMaxOptimizer(const CMinMaxTask & task, const CMinMaxParams & params);
  CMinMaxOptimizer(CMinMaxOptimizer const & other);
  CMinMaxOptimizer & operator=(CMinMaxOptimizer const & other);
  ~CMinMaxOptimizer();

  /// The best point found, starting from the task's start. Never fails: at
  /// worst `result` is the start. A criterion that gives NaN counts as minus
  /// infinity there, so a move never ends at such a point by choice, and its
  /// gradient is never followed.
  void Run(Point3D_d & result) const;

private:
  class CImpl;
  CImpl * m_pImpl;
};
} // namespace REmath
