// The reweighting scheme driven by a scripted task: the task hands out
// residual tables round after round and records the weights it receives, so
// scale, weights, the floor of the scale and the iteration limit can be read
// off exactly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "QZmath/Fitting/RobustRegression.h"

namespace
{
class CScriptedTask : public IRegressionAnalysisTask
{
public:
  // rounds[0] is the residual table of the initial fit, rounds[k] that of the
  // k-th weighted fit; past the end the last table repeats.
  explicit CScriptedTask(std::vector<std::vector<double>> rounds) : m_rounds(std::move(rounds)) {}

  int parameterCount() override { return 1; }
  unsigned int sampleCount() override { return static_cast<unsigned int>(m_rounds[0].size()); }
  int fitInitial(std::vector<double> & residuals) override
  {
    EXPECT_EQ(residuals.size(), m_rounds[0].size());
    residuals = m_rounds[0];
    return m_initialCode;
  }
  int fitWeighted(const std::vector<double> & weights, std::vector<double> & residuals) override
  {
    m_weights.push_back(weights);
    ++m_fits;
    residuals = m_rounds[std::min<std::size_t>(m_fits, m_rounds.size() - 1)];
    return m_fits == m_failAt ? 42 : 0;
  }
  void storeParameters(std::vector<double> & parameters) override { parameters.assign(1, m_fits); }
  bool isConverged(const std::vector<double> & parameters) override
  {
    EXPECT_EQ(parameters.size(), 1u);
    return m_convergeAt > 0 && m_fits >= m_convergeAt;
  }

  std::vector<std::vector<double>> m_rounds;
  std::vector<std::vector<double>> m_weights;
  std::size_t m_fits = 0;
  std::size_t m_convergeAt = 0; // 0: never
  std::size_t m_failAt = 0;     // 0: never
  int m_initialCode = 0;
};

double geman(double r, double sigma)
{
  double const t = 1.0 + (r / sigma) * (r / sigma);
  return 1.0 / (t * t);
}
} // namespace

TEST(RobustRegressionSolver, ScaleIsTheLowerMedianAndWeightsCutAtTwoScales)
{
  double const m = 1.0 / 1.4826; // a scale of (nearly) 1
  struct Case
  {
    std::vector<double> residuals;
    double median;
    int kept;
  } const cases[] = {
      {{0.1, 0.2, 0.3, 5.0, 10.0, 1.0}, 0.3, 3}, // k = 2 of 6; 1.0 lies beyond 2 sigma = 0.889
      {{2.0}, 2.0, 1},
      {{3.0, 1.0}, 1.0, 1},             // the smaller of two
      {{m, m, 1.4826 * m * 2.0}, m, 2}, // exactly two scales is cut
      {{0.0, 0.0, 0.0, 0.0}, 0.0, 0},   // scale 0: every residual meets r >= 0
  };
  for (Case const & c : cases)
  {
    CScriptedTask task({c.residuals});
    task.m_convergeAt = 1;
    CRobustRegressionSolver solver(task);
    ASSERT_EQ(solver.solveRegression(), 0);
    double const sigma = 1.4826 * c.median;
    EXPECT_DOUBLE_EQ(solver.sigma(), sigma);
    ASSERT_EQ(task.m_weights.size(), 1u);
    std::vector<double> want;
    for (double r : c.residuals)
      want.push_back(r >= 2.0 * sigma ? 0.0 : geman(r, sigma));
    EXPECT_THAT(task.m_weights[0], testing::Pointwise(testing::DoubleEq(), want));
    EXPECT_EQ(solver.suppCount(), c.kept);
    EXPECT_EQ(solver.suppWeights(), task.m_weights[0]);
  }
}

TEST(RobustRegressionSolver, ScaleNeverFallsBelowTheFirstRoundAndTheIterationLimitIsSuccess)
{
  CScriptedTask task({{1.0, 1.0, 1.0}, {0.1, 0.1, 0.1}, {4.0, 4.0, 4.0}});
  task.m_convergeAt = 3;
  CRobustRegressionSolver solver(task);
  ASSERT_EQ(solver.solveRegression(), 0);
  ASSERT_EQ(task.m_weights.size(), 3u);
  // Round 2 sees residuals 0.1 but keeps the first scale; round 3 rises to 4.
  EXPECT_DOUBLE_EQ(task.m_weights[1][0], geman(0.1, 1.4826));
  EXPECT_DOUBLE_EQ(solver.sigma(), 1.4826 * 4.0);

  // Never converged: the iteration limit is a success. A second run starts
  // from scratch, the floor set anew.
  CScriptedTask endless({{1.0, 2.0, 3.0}});
  CRobustRegressionSolver again(endless);
  EXPECT_EQ(again.solveRegression(), 0);
  EXPECT_EQ(endless.m_fits, 49u);
  EXPECT_EQ(again.iterationCount(), 49);
  endless.m_rounds = {{10.0, 20.0, 30.0}};
  endless.m_fits = 0;
  endless.m_convergeAt = 1;
  ASSERT_EQ(again.solveRegression(), 0);
  EXPECT_DOUBLE_EQ(again.sigma(), 1.4826 * 20.0);
}

TEST(RobustRegressionSolver, TaskFailuresPassThroughAndDegenerateTablesEnd)
{
  CScriptedTask initial({{1.0, 2.0}});
  initial.m_initialCode = 9;
  CRobustRegressionSolver s1(initial);
  EXPECT_EQ(s1.solveRegression(), 9);
  EXPECT_TRUE(initial.m_weights.empty());

  CScriptedTask weighted({{1.0, 2.0}});
  weighted.m_failAt = 3;
  CRobustRegressionSolver s2(weighted);
  EXPECT_EQ(s2.solveRegression(), 42);
  EXPECT_EQ(weighted.m_fits, 3u);

  // No samples, and NaN residuals, which no weight test can sort out.
  CScriptedTask empty(std::vector<std::vector<double>>(1));
  CRobustRegressionSolver s3(empty);
  EXPECT_EQ(s3.solveRegression(), 0);
  EXPECT_TRUE(s3.suppWeights().empty());

  double const nan = std::numeric_limits<double>::quiet_NaN();
  CScriptedTask withNaN({{nan, 1.0, nan, 2.0, nan}});
  CRobustRegressionSolver s4(withNaN);
  EXPECT_EQ(s4.solveRegression(), 0);
  EXPECT_EQ(withNaN.m_fits, 49u);
}
