#include <gtest/gtest.h>

#include "QZmath/Persistence/GraphObject.h"
#include "QZmath/Persistence/ModelSizer.h"
#include "QZmath/Persistence/OutputHooks.h"
#include "QZmath/Persistence/SortRecords.h"

TEST(GraphObject, AbsentColoursAndNotifications)
{
  struct Counting : CGraphObject
  {
    int visibilityChanges = 0;

  private:
    void OnChangeVisibility() override { ++visibilityChanges; }
  } o;
  unsigned long c = 0xABCDEF;
  EXPECT_FALSE(o.getOwnColor(c) || o.getTempColor(c) || o.getGroupColor(c));
  EXPECT_EQ(c, 0xABCDEFul); // untouched

  EXPECT_TRUE(o.setOwnColor(1));
  o.setTempColor(2);
  o.setGroupColor(3);
  EXPECT_TRUE(o.getTempColor(c) && c == 2);
  o.deleteTempColor();
  EXPECT_FALSE(o.getTempColor(c));
  EXPECT_TRUE(o.getGroupColor(c) && c == 3);

  o.setVisible(false);
  o.setVisible(false); // told even when already hidden
  EXPECT_EQ(o.visibilityChanges, 2);
  CGraphObject copy(o);
  EXPECT_TRUE(!copy.isVisible() && copy.getOwnColor(c) && c == 1);
}

TEST(ModelSizer, DefaultSizeThatASubclassMayOverwrite)
{
  struct Sizer : IModelSizer
  {
    bool overwrite = false;
    int resets = 0;

  private:
    void OnGetLimits(double *) override {}
    void OnGetLinearLimits(double const *, double *) override {}
    void OnUpdateLimits() override {}
    void OnGetModelSize(double & x, double &, double &) const override
    {
      if (overwrite)
        x = 42;
    }
    void OnResetModelSizeDefault() override { ++resets; }
  } s;
  double x, y, z;
  s.setModelSize(2, 3, 4);
  s.getModelSize(x, y, z);
  EXPECT_TRUE(x == 2 && y == 3 && z == 4);
  s.overwrite = true;
  s.getModelSize(x, y, z);
  EXPECT_TRUE(x == 42 && y == 3);
  s.overwrite = false;
  s.resetModelSize();
  s.getModelSize(x, y, z);
  EXPECT_TRUE(x == 1 && y == 1 && z == 1 && s.resets == 1);
}

TEST(SortRecords, OrderByTheKeyEqualityByAllFields)
{
  // Back records order by falling keys.
  CBackSortRef const a{0, 1.0f}, b{1, 2.0f};
  EXPECT_TRUE(b < a && a > b && b <= a && a >= b && !(a == CBackSortRef{5, 1.0f}));
  EXPECT_TRUE((CSortRef{9, 1.0f} < CSortRef{0, 2.0f}) && !(CSortRef{1, 2.0f} == CSortRef{2, 2.0f}));
  EXPECT_FALSE((CSortRef3{1, 2, 3, 4.0f} == CSortRef3{1, 2, 4, 4.0f}));
}

TEST(OutputHooks, TheCallerSetsTheLogHook)
{
  auto sink = [](char const *) {};
  QZmath_setCB_WriteLog(sink);
  EXPECT_EQ(QZmath_CB_WriteLog, static_cast<QZmath_WriteCallback>(sink));
  QZmath_setCB_WriteLog(nullptr);
}
