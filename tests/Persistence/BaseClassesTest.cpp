#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "QZmath/Persistence/Functor.h"
#include "QZmath/Persistence/GraphObject.h"
#include "QZmath/Persistence/ModelSizer.h"
#include "QZmath/Persistence/OutputHooks.h"
#include "QZmath/Persistence/SortRecords.h"

namespace
{
struct CountingObject : CGraphObject
{
  int activations = 0;
  int visibilityChanges = 0;

private:
  void OnActivation() override { ++activations; }
  void OnChangeVisibility() override { ++visibilityChanges; }
};

struct Sizer : IModelSizer
{
  bool overwrite = false;
  int resets = 0;
  double setX = 0;

private:
  void OnGetLimits(double * limits) override { limits[0] = -1, limits[1] = 1; }
  void OnGetLinearLimits(double const * dir, double * limits) override
  {
    limits[0] = -dir[0], limits[1] = dir[0];
  }
  void OnUpdateLimits() override {}
  void OnGetModelSize(double & x, double &, double &) const override
  {
    if (overwrite)
      x = 42;
  }
  void OnSetModelSize(double x, double, double) override { setX = x; }
  void OnResetModelSizeDefault() override { ++resets; }
};

std::string g_output, g_log;
void writeOutput(char const * text) { g_output += text; }
void writeLog(char const * text) { g_log += text; }
} // namespace

TEST(GraphObject, DefaultsColoursAndNotifications)
{
  CountingObject o;
  EXPECT_EQ(o.getID(), 0ul);
  EXPECT_TRUE(o.isActive());
  EXPECT_FALSE(o.isSelected());
  EXPECT_TRUE(o.isVisible());

  unsigned long c = 0xABCDEF;
  EXPECT_FALSE(o.getOwnColor(c));
  EXPECT_FALSE(o.getTempColor(c));
  EXPECT_FALSE(o.getGroupColor(c));
  EXPECT_EQ(c, 0xABCDEFul); // untouched

  EXPECT_TRUE(o.setOwnColor(1));
  o.setTempColor(2);
  o.setGroupColor(3);
  EXPECT_TRUE(o.getOwnColor(c));
  EXPECT_EQ(c, 1ul);
  EXPECT_TRUE(o.getTempColor(c));
  EXPECT_EQ(c, 2ul);
  EXPECT_TRUE(o.getGroupColor(c));
  EXPECT_EQ(c, 3ul);
  o.deleteTempColor();
  EXPECT_FALSE(o.getTempColor(c));
  EXPECT_TRUE(o.getOwnColor(c) && o.getGroupColor(c));
  o.deleteOwnColor();
  o.deleteGroupColor();
  EXPECT_FALSE(o.getOwnColor(c) || o.getGroupColor(c));

  o.setVisible(false);
  o.setVisible(false); // told even when already hidden
  EXPECT_EQ(o.visibilityChanges, 2);
  EXPECT_FALSE(o.isVisible());
  o.setActive(true);
  EXPECT_EQ(o.activations, 1);
  o.setSelected(true);
  o.setID(77);
  o.setGroupColor(9);

  CGraphObject copy(o);
  EXPECT_EQ(copy.getID(), 77ul);
  EXPECT_TRUE(copy.isSelected());
  EXPECT_FALSE(copy.isVisible());
  EXPECT_TRUE(copy.getGroupColor(c));
  EXPECT_EQ(c, 9ul);
  CGraphObject assigned;
  assigned = copy;
  EXPECT_EQ(assigned.getID(), 77ul);
}

TEST(ModelSizer, DefaultSizeAndSubclassHooks)
{
  Sizer s;
  double x, y, z;
  s.getModelSize(x, y, z);
  EXPECT_EQ(x, 1.0);
  EXPECT_EQ(y, 1.0);
  EXPECT_EQ(z, 1.0);
  s.setModelSize(2, 3, 4);
  EXPECT_EQ(s.setX, 2.0);
  s.getModelSize(x, y, z);
  EXPECT_EQ(x + y + z, 9.0);
  s.overwrite = true;
  s.getModelSize(x, y, z);
  EXPECT_EQ(x, 42.0);
  EXPECT_EQ(y, 3.0);
  s.overwrite = false;
  s.resetModelSize();
  EXPECT_EQ(s.resets, 1);
  s.getModelSize(x, y, z);
  EXPECT_EQ(x + y + z, 3.0);

  double limits[2];
  s.GetLimits(limits);
  EXPECT_EQ(limits[1], 1.0);
  double const dir[3] = {5, 0, 0};
  IModelSizer & base = s;
  base.GetLinearLimits(dir, limits);
  EXPECT_EQ(limits[0], -5.0);
}

TEST(SortRecords, OrderByTheKeyEqualityByAllFields)
{
  std::mt19937 rng(3);
  std::vector<CSortRef> refs;
  std::vector<CBackSortRef> back;
  for (int i = 0; i < 50; ++i)
  {
    float const key = static_cast<float>(rng() % 20);
    refs.push_back({i, key});
    back.push_back({i, key});
  }
  std::sort(refs.begin(), refs.end());
  std::sort(back.begin(), back.end());
  for (std::size_t i = 1; i < refs.size(); ++i)
  {
    EXPECT_LE(refs[i - 1].m_fKey, refs[i].m_fKey);
    EXPECT_GE(back[i - 1].m_fKey, back[i].m_fKey);
  }
  CBackSortRef const a{0, 1.0f}, b{1, 2.0f};
  EXPECT_TRUE(b < a && a > b && b <= a && a >= b);
  EXPECT_TRUE((CBackSortRef{5, 1.0f} <= a) && !(CBackSortRef{5, 1.0f} == a));

  EXPECT_TRUE((CSortRef{1, 2.0f} == CSortRef{1, 2.0f}));
  EXPECT_FALSE((CSortRef{1, 2.0f} == CSortRef{2, 2.0f}));
  EXPECT_TRUE((CSortRef{9, 1.0f} < CSortRef{0, 2.0f}));
  EXPECT_TRUE((CSortRefInt(9, 1) < CSortRefInt(0, 2)) && (CSortRefInt(9, 1) == CSortRefInt(9, 1)));
  EXPECT_TRUE((CSortRef2{5, 5, 1.0f} < CSortRef2{0, 0, 2.0f}) &&
              !(CSortRef2{1, 2, 3.0f} == CSortRef2{1, 3, 3.0f}));
  EXPECT_TRUE((CSortRef2Int{5, 5, 1} <= CSortRef2Int{0, 0, 1}) &&
              !(CSortRef2Int{5, 5, 1} == CSortRef2Int{0, 5, 1}));
  EXPECT_TRUE((CSortRef3{1, 2, 3, 4.0f} >= CSortRef3{0, 0, 0, 4.0f}));
  EXPECT_FALSE((CSortRef3{1, 2, 3, 4.0f} == CSortRef3{1, 2, 4, 4.0f}));
  CSliceVertFlag f{1, 2};
  CSliceVertFlag g = f;
  EXPECT_TRUE(f == g);
  g.m_iSecond = 3;
  EXPECT_FALSE(f == g);
}

TEST(OutputHooks, StoredForTheCaller)
{
  EXPECT_EQ(QZmath_CB_WriteOutput, nullptr);
  EXPECT_EQ(QZmath_CB_WriteLog, nullptr);
  QZmath_setCB_WriteOutput(&writeOutput);
  QZmath_setCB_WriteLog(&writeLog);
  QZmath_CB_WriteOutput("out");
  QZmath_CB_WriteLog("log");
  EXPECT_EQ(g_output, "out");
  EXPECT_EQ(g_log, "log");
  QZmath_setCB_WriteOutput(nullptr);
  QZmath_setCB_WriteLog(nullptr);
  EXPECT_EQ(QZmath_CB_WriteOutput, nullptr);
}

TEST(Functor, RunForwardsToTheProcedure)
{
  struct Count : VsFn::IFunctor
  {
    int runs = 0;

  private:
    void OnRun() override { ++runs; }
  } count;
  VsFn::IFunctor & f = count;
  f.Run();
  f.Run();
  EXPECT_EQ(count.runs, 2);
}
