#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

#include "EquationTestSupport.h"

using namespace REmath;

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
} // namespace

TYPED_TEST(VertexLinearCombination, AccumulatesKeepsZerosIteratesInVertexOrderAndCopiesDeeply)
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
  auto it = c.begin();
  auto old = it++;
  c += copy;
  c *= T(-2);
  c += c; // adding a combination to itself doubles every term once
  EXPECT_EQ(terms(c), (std::vector<std::pair<int, T>>{{-3, T(-16)}, {5, T(0)}, {7, T(-14)}, {9, T(0)}}));
  EXPECT_EQ(terms(copy), terms(assigned));
  EXPECT_EQ(copy.VertexCoeff(7), T(1.75));
  // An iterator shows the copy taken when it moved onto the term.
  EXPECT_EQ(it->GetCoeff(), T(0));
  EXPECT_EQ(old->GetCoeff(), T(2));
  EXPECT_TRUE(old == c.begin() && it != old);
}

TYPED_TEST(VertexLinearCombination, EvaluationSkipsExactZerosAndAsksInOrder)
{
  using T = TypeParam;
  linsys_test::CMapInformer<T> informer(
      {{1, T(2)}, {3, std::numeric_limits<T>::quiet_NaN()}, {5, T(-1)}, {9, T(10)}});
  EXPECT_EQ(EvaluateLinCombination(CVertexLinearCombination<T>(), informer), T(0));
  EXPECT_TRUE(informer.asked().empty());
  // The NaN position of vertex 3 never shows behind its zero coefficient.
  auto const c = linsys_test::eq<T>({{9, 0.5}, {3, 0}, {1, 3}, {5, 4}});
  EXPECT_EQ(EvaluateLinCombination(c, informer), T(3 * 2 + 4 * -1 + 0.5 * 10));
  EXPECT_EQ(informer.asked(), (std::vector<int>{1, 5, 9}));
}
