#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "QZmath/Fitting/MinMaxOptimizer.h"

using REmath::CMinMaxOptimizer;
using REmath::CMinMaxParams;
using REmath::CMinMaxTask;
using REmath::Point3D_d;

namespace
{
class CLambdaCriterion : public CMinMaxTask::Criterion
{
public:
  explicit CLambdaCriterion(std::function<double(Point3D_d const &)> f) : m_f(std::move(f)) {}
  double operator()(const Point3D_d & p) const override { return m_f(p); }

private:
  std::function<double(Point3D_d const &)> m_f;
};

CMinMaxTask makeTask(std::vector<CLambdaCriterion> const & fs, Point3D_d start, double lo = 0.0,
                     double hi = 3.0)
{
  CMinMaxTask task;
  for (CLambdaCriterion const & f : fs)
    task.AddCriterion(&f);
  task.SetInitApprox(start);
  task.SetLimitMin(Point3D_d(lo, lo, lo));
  task.SetLimitMax(Point3D_d(hi, hi, hi));
  return task;
}

// Every run goes through a copy, which must climb as its original would.
Point3D_d run(CMinMaxTask const & task, CMinMaxParams const & params = CMinMaxParams())
{
  Point3D_d r;
  CMinMaxOptimizer const original(task, params);
  CMinMaxOptimizer(original).Run(r);
  return r;
}

bool inBox(Point3D_d const & p, double lo, double hi)
{
  for (int k = 0; k < 3; ++k)
    if (!(p.asArray()[k] >= lo && p.asArray()[k] <= hi))
      return false;
  return true;
}
} // namespace

TEST(MinMaxOptimizer, StopsAtTheCrossingOfARisingAndAFallingCriterion)
{
  std::vector<CLambdaCriterion> fs = {CLambdaCriterion([](Point3D_d const & p) { return p.x(); }),
                                      CLambdaCriterion([](Point3D_d const & p) { return 2.0 - p.x(); }),
                                      CLambdaCriterion([](Point3D_d const & p) { return 5.0 - p.y(); })};
  Point3D_d const r = run(makeTask(fs, Point3D_d(0.0, 1.0, 1.0)));
  EXPECT_NEAR(r.x(), 1.0, 1e-9);
  EXPECT_NEAR(r.y(), 1.0, 1e-9);
}

TEST(MinMaxOptimizer, NeverLeavesTheBoxAndHonoursTheProjector)
{
  CLambdaCriterion up([](Point3D_d const & p) { return p.x() + 2 * p.y() + 3 * p.z(); });
  std::vector<CLambdaCriterion> fs = {up};
  CMinMaxTask task = makeTask(fs, Point3D_d(0.5, 0.5, 0.5), 0.0, 1.0);
  CMinMaxParams params;
  params.SetMaxIter(50);
  params.SetMaxGradientMoveAttempts(30);
  struct LC_Flatten : CMinMaxTask::IProjector
  {
    void Project(Point3D_d & p) const override { p.z() = std::min(p.z(), 0.6); }
  } const flatten;
  task.SetProjector(&flatten);
  Point3D_d const r = run(task, params);
  EXPECT_TRUE(inBox(r, 0.0, 1.0) && r.z() <= 0.6) << r.x() << " " << r.y() << " " << r.z();
  EXPECT_GT(up(r), up(Point3D_d(0.5, 0.5, 0.5)));
}

TEST(MinMaxOptimizer, DegenerateStartsStayAndNaNRegionsAreAvoided)
{
  CLambdaCriterion flat([](Point3D_d const &) { return 1.0; });
  CLambdaCriterion rising([](Point3D_d const & p) { return p.x(); });
  CLambdaCriterion nan([](Point3D_d const &) { return std::nan(""); });
  CLambdaCriterion holey([](Point3D_d const & p) { return p.x() > 2.0 ? std::nan("") : 10.0; });
  Point3D_d const start(1.0, 2.0, 0.5);
  // A flat criterion, the face x = max with the gradient pointing out, a
  // point box, NaN everywhere: no room to move.
  EXPECT_EQ(run(makeTask({flat}, start)).x(), start.x());
  EXPECT_EQ(run(makeTask({rising}, Point3D_d(3.0, 1.0, 1.0))).x(), 3.0);
  EXPECT_EQ(run(makeTask({rising}, start, 1.0, 1.0)).x(), start.x());
  EXPECT_EQ(run(makeTask({nan, nan}, start)).y(), start.y());
  // NaN beyond x = 2 never lets a move end there.
  Point3D_d const r = run(makeTask({rising, holey}, Point3D_d(0.5, 0.5, 0.5)));
  EXPECT_TRUE(r.x() > 0.5 && r.x() <= 2.0);

  CMinMaxParams params;
  params.SetMaxIter(0);
  EXPECT_EQ(run(makeTask({rising, flat}, start), params).x(), start.x());
  CMinMaxTask empty;
  empty.SetInitApprox(start);
  EXPECT_EQ(run(empty, params).z(), start.z());
}
