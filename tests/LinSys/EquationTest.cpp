// Equations, and the variable manager's rules checked through two storages
// built on it: they must not depend on how the free matrix is kept.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "LinSysTestSupport.h"
#include "QZmath/LinSys/CSRSstorage.h"

using namespace REmath;
using linsys_test::eq;

namespace
{
template <class T> std::vector<std::pair<int, T>> terms(CVertexLinearCombination<T> const & c)
{
  std::vector<std::pair<int, T>> out;
  for (auto it = c.begin(); it != c.end(); ++it)
    out.emplace_back(it->GetVertexIdx(), (*it).GetCoeff());
  return out;
}

template <class T> class VertexLinearCombination : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(VertexLinearCombination, Scalars);

template <class S> class VariableManager : public ::testing::Test
{
};
using Storages = ::testing::Types<linsys_test::CPlainRowStorage<float>, linsys_test::CPlainRowStorage<double>,
                                  CCSRSstorage<float>, CCSRSstorage<double>>;
TYPED_TEST_SUITE(VariableManager, Storages);

template <class S> using ScalarOf = decltype(std::declval<S const &>().GetFixedVertCoeff(0, 0));

// Free vertices 0 and 1, fixed vertices 2 and 7.
template <class S> std::unique_ptr<S> twoByTwo()
{
  auto s = std::make_unique<S>();
  for (int v : {0, 1})
    s->DefineFreeVertex(v);
  for (int v : {2, 7})
    s->DefineFixedVertex(v);
  return s;
}
} // namespace

TYPED_TEST(VertexLinearCombination, AccumulatesKeepsZerosInVertexOrderAndCopiesDeeply)
{
  using T = TypeParam;
  CVertexLinearCombination<T> c;
  EXPECT_EQ(c.VertexCoeff(5), T(0));
  EXPECT_TRUE(c.begin() == c.end()) << "a lookup must not insert";
  for (auto t : {std::pair<int, T>{7, T(1.5)}, {-3, T(2)}, {5, T(0)}, {7, T(0.25)}, {9, T(3)}, {9, T(-3)}})
    c.AddVertex(t.first, t.second);
  EXPECT_EQ(terms(c), (std::vector<std::pair<int, T>>{{-3, T(2)}, {5, T(0)}, {7, T(1.75)}, {9, T(0)}}));

  CVertexLinearCombination<T> const copy(c);
  CVertexLinearCombination<T> assigned;
  assigned.AddVertex(8, T(8));
  static_cast<CVertexLinearCombination<T> &>(assigned) = c;
  c += copy;
  c *= T(-2);
  c += c; // adding a combination to itself doubles every term once
  EXPECT_EQ(terms(c), (std::vector<std::pair<int, T>>{{-3, T(-16)}, {5, T(0)}, {7, T(-14)}, {9, T(0)}}));
  EXPECT_EQ(terms(copy), terms(assigned));
  EXPECT_EQ(copy.VertexCoeff(7), T(1.75));
}

TYPED_TEST(VertexLinearCombination, EvaluationSkipsExactZerosAndAsksInOrder)
{
  using T = TypeParam;
  linsys_test::CMapInformer<T> informer(
      {{1, T(2)}, {3, std::numeric_limits<T>::quiet_NaN()}, {5, T(-1)}, {9, T(10)}});
  EXPECT_EQ(EvaluateLinCombination(CVertexLinearCombination<T>(), informer), T(0));
  EXPECT_TRUE(informer.asked().empty());
  // The NaN position of vertex 3 never shows behind its zero coefficient.
  auto const c = eq<T>({{9, 0.5}, {3, 0}, {1, 3}, {5, 4}});
  EXPECT_EQ(EvaluateLinCombination(c, informer), T(3 * 2 + 4 * -1 + 0.5 * 10));
  EXPECT_EQ(informer.asked(), (std::vector<int>{1, 5, 9}));
}

TYPED_TEST(VariableManager, EveryMisuseSpoilsAndLeavesNoTrace)
{
  using T = ScalarOf<TypeParam>;
  auto s = twoByTwo<TypeParam>();
  s->DefineFixedVertex(1);
  EXPECT_TRUE(s->IsSpoiled() && s->GetFixedVariablesNumber() == 2) << "free, then fixed";
  s = twoByTwo<TypeParam>();
  s->DefineFreeVertex(7);
  EXPECT_TRUE(s->IsSpoiled() && s->GetFreeVariablesNumber() == 2) << "fixed, then free";
  s = twoByTwo<TypeParam>();
  s->DefineFreeVertex(0);
  EXPECT_TRUE(s->IsSpoiled()) << "free twice";
  s = twoByTwo<TypeParam>();
  s->AddEquation(eq<T>({{2, 1}, {7, 1}}));
  EXPECT_TRUE(s->IsSpoiled() && s->GetEquationsNumber() == 0) << "fixed vertices only";
  s = twoByTwo<TypeParam>();
  s->AddEquation(CVertexLinearCombination<T>());
  EXPECT_TRUE(s->IsSpoiled()) << "no term at all";

  // An unknown vertex stops the walk: the fixed term before it is stored,
  // the one behind it is not.
  s = twoByTwo<TypeParam>();
  s->AddEquation(eq<T>({{0, 1}, {2, 4}, {5, 1}, {7, 6}}));
  EXPECT_TRUE(s->IsSpoiled() && s->GetEquationsNumber() == 0);
  EXPECT_EQ(std::make_pair(s->GetFixedVertCoeff(0, 0), s->GetFixedVertCoeff(0, 1)),
            std::make_pair(T(4), T(0)));

  s = twoByTwo<TypeParam>();
  s->AddEquation(eq<T>({{0, 0}, {2, 1}})); // a zero free coefficient is a free term
  EXPECT_FALSE(s->IsCorrectlyDefinedSystem()) << "one equation for two unknowns";
  s->DefineFreeVertex(3);
  EXPECT_TRUE(s->IsSpoiled() && s->GetFreeVariablesNumber() == 2) << "defined after the rows were made";
  s = twoByTwo<TypeParam>();
  s->AddEquation(eq<T>({{0, 1}}));
  s->SetFixedVertCoeff(1, 2, T(1));
  EXPECT_TRUE(s->IsSpoiled()) << "a fixed coefficient outside the matrix";

  s = twoByTwo<TypeParam>();
  s->AddEquation(eq<T>({{0, 1}}));
  s->AddEquation(eq<T>({{1, 1}}));
  ASSERT_TRUE(s->IsCorrectlyDefinedSystem());
  s->AddEquation(eq<T>({{1, 1}}));
  EXPECT_TRUE(s->IsSpoiled() && s->GetEquationsNumber() == 2) << "more equations than unknowns";
  EXPECT_FALSE(s->IsCorrectlyDefinedSystem());

  // Without fixed vertices no fixed matrix is made, and definitions go on.
  TypeParam noFixed;
  noFixed.DefineFreeVertex(0);
  noFixed.AddEquation(eq<T>({{0, 1}}));
  noFixed.DefineFixedVertex(5);
  EXPECT_FALSE(noFixed.IsSpoiled());
}

TYPED_TEST(VariableManager, RightPartsAreTheNegatedFixedProductAndSolutionsGoOutByFreeIndex)
{
  using T = ScalarOf<TypeParam>;
  TypeParam s;
  for (int v : {3, 8, 11})
    s.DefineFreeVertex(v);
  s.DefineFixedVertex(50); // fixed index 0
  s.DefineFixedVertex(40); // fixed index 1
  s.AddEquation(eq<T>({{3, 1}, {40, 2}, {50, -3}}));
  s.AddEquation(eq<T>({{8, 1}, {50, 0.5}}));
  s.AddEquation(eq<T>({{11, 1}, {40, 0}}));
  ASSERT_TRUE(s.IsCorrectlyDefinedSystem());
  EXPECT_EQ(s.GetFreeVertexByIndex(1) * 100 + s.GetFixedVertexByIndex(0), 850);
  for (int missing : {s.GetFixedVariablesIndex(3), s.GetFreeVariablesIndex(50), s.GetFreeVertexByIndex(3),
                      s.GetFreeVertexByIndex(-1), s.GetFixedVertexByIndex(2), s.GetFreeVariablesIndex(4)})
    EXPECT_EQ(missing, -1);

  linsys_test::CMapInformer<T> informer({{50, T(4)}, {40, std::numeric_limits<T>::quiet_NaN()}});
  T right[3];
  s.SetSingleRightPart(right, informer);
  EXPECT_EQ(informer.asked(), (std::vector<int>{50, 40})) << "once each, in fixed-index order";
  // Row 1 is 0 - 0.5 * 4; in row 2 a zero coefficient never meets the NaN position.
  EXPECT_TRUE(std::isnan(right[0]) && right[1] == T(-2) && right[2] == T(0));
  s.SetSingleRightPart(right, linsys_test::CMapInformer<T>({{50, T(1)}, {40, T(-1)}}));
  EXPECT_EQ(right[0], T(5)); // -(-3 * 1) - (2 * -1)

  T const solution[3] = {T(0.5), T(-1), T(2)};
  linsys_test::CReciever<T> reciever(12);
  s.SetSingleSolution(solution, reciever);
  EXPECT_EQ(reciever.got, (std::vector<std::pair<int, T>>{{3, T(0.5)}, {8, T(-1)}, {11, T(2)}}));
}
