#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <thread>
#include <vector>

#include "QZsys/ConsoleProgressBar.h"
#include "QZsys/Progress.h"

namespace
{
struct Recorder : IProgressObserver
{
  std::vector<double> positions;
  std::vector<std::string> names;
  void onProgress(double pos, std::string const & name) override
  {
    positions.push_back(pos);
    names.push_back(name);
  }
};

bool nonDecreasing(Recorder const & r) { return std::is_sorted(r.positions.begin(), r.positions.end()); }

class CancelAfter : public CProgressCounter
{
public:
  explicit CancelAfter(int calls) : m_calls(calls) {}

private:
  bool OnCheckInterrupt() const override { return --m_calls < 0; }
  mutable int m_calls;
};
} // namespace

// Positions only rise and stay within the range; a range longer than what is
// left of its parent is cut at the parent's end.
TEST(ProgressCounter, NestedRangesMapToGlobalPositionAndClamp)
{
  CProgressCounter c;
  c.SetPosFloat(0.1);
  c.SetPosFloat(0.05); // backwards: ignored
  c.SetPosFloat(std::nan(""));
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.1);
  c.PushRange(0.2, 0.5); // [0.2, 0.7]
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.2);
  c.SetPosFloat(0.5);
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.45);
  c.PushRange(0.5, 0.5); // [0.45, 0.7]
  c.SetPosFloat(0.4);
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.45 + 0.25 * 0.4);
  c.PopRange(true);
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.7);
  EXPECT_DOUBLE_EQ(c.GetLocalPosFloat(), 1.0); // the parent's own position follows
  c.PopRange(true);
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.7);
  c.PopRange(true); // nothing open: no effect
  EXPECT_EQ(c.GetRangeDepth(), 0);

  CProgressCounter d;
  d.PushRange(0.8, 0.5);
  d.SetPosFloat(7.0);
  EXPECT_DOUBLE_EQ(d.GetPosFloat(), 1.0);
}

// A request, from any thread or the overridable check, stays until
// cleared (a reset keeps it) and throws at the next position or sub-phase.
TEST(ProgressCounter, InterruptionIsStickyAndComesFromEverySource)
{
  CProgressCounter c;
  c.PushRange(0.5, 0.5);
  c.SetPosFloat(1);
  std::thread([&] { c.RequestInterrupt(); }).join();
  c.Reset();
  EXPECT_EQ(c.GetPosFloat(), 0.0);
  EXPECT_EQ(c.GetRangeDepth(), 0);
  EXPECT_TRUE(c.IsInterrupted());
  EXPECT_THROW(c.SetPosFloat(0.1), CUserIntrException);
  EXPECT_THROW(CPrgCntSubPhase(&c, 0.0, 0.5, 0, true), CUserIntrException);
  EXPECT_EQ(c.GetRangeDepth(), 0); // a failed sub-phase leaves no range open
  c.ClearInterrupt();
  EXPECT_NO_THROW(c.SetPosFloat(0.1));

  CancelAfter twice(2);
  twice.SetPosFloat(0.1);
  twice.SetPosFloat(0.2);
  EXPECT_THROW(twice.SetPosFloat(0.3), CUserIntrException);
}

// Nested fractional sub-phases are what every pipeline phase uses; the
// percent form, the open end and the null counter are met only here.
TEST(PrgCntSubPhase, PercentFormOpenEndAndNullCounter)
{
  CProgressCounter c;
  {
    CPrgCntSubPhase a(&c, 10, 40, 0, true); // [0.1, 0.5]
    c.SetPosFloat(0.5);
    EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.3);
    a.Finish();
    a.Finish(); // twice: nothing
    EXPECT_EQ(c.GetRangeDepth(), 0);
  }
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.5);
  {
    CPrgCntSubPhase left(&c, 0.5, 0.5, 0, false);
    c.SetPosFloat(0.2);
  }
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.6); // not moved to the end
  CPrgCntSubPhase none(nullptr, 0, 50, 0, true);
  none.Finish();

  CPrgCntSubPhase s(&c, 0.0, 1.0, 0, true);
  c.RequestInterrupt();
  EXPECT_THROW(s.Finish(), CUserIntrException);
  EXPECT_EQ(c.GetRangeDepth(), 0); // closed before the check threw
}

TEST(MultiPhaseManager, WeightsInRegistrationOrder)
{
  CProgressCounter c;
  Recorder rec;
  c.AddObserver(&rec);
  VsPCnt::CMultiPhaseManager m(&c);
  m.showPhaseName();
  m.RegisterPhase("tree", 10);
  m.RegisterPhase("solve", 30);
  m.RegisterPhase("skipped", -5);
  m.RegisterPhase("surface", 60);
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase p(&m, "tree");
    EXPECT_EQ(c.GetPhaseName(), "tree");
    c.SetPosFloat(0.5);
    EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.05);
  }
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.1);
  m.StartPhase("surface");
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.4);
  EXPECT_EQ(m.GetCurrentPhaseName(), "surface");
  m.StartPhase("solve"); // finishes "surface" first
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 1.0);
  m.FinishCurrentPhase();
  m.FinishCurrentPhase();
  EXPECT_FALSE(m.HasOpenPhase());
  EXPECT_TRUE(nonDecreasing(rec));
  EXPECT_EQ(rec.names.back(), "solve");
}

TEST(MultiPhaseManager, UnregisteredAndDuplicatePhasesAreLogicErrors)
{
  VsPCnt::CMultiPhaseManager m(nullptr);
  m.RegisterPhase("a", 1);
  EXPECT_THROW(m.RegisterPhase("a", 2), std::logic_error);
  EXPECT_THROW(m.StartPhase("b"), std::logic_error);
  EXPECT_THROW(VsPCnt::CMultiPhaseManagerSingleSubPhase(&m, "b"), std::logic_error);
  EXPECT_NO_THROW(m.StartPhase("a")); // null counter is fine
  EXPECT_NO_THROW(m.FinishCurrentPhase());

  CProgressCounter c; // a zero total weight divides by nothing
  VsPCnt::CMultiPhaseManager zero(&c);
  zero.RegisterPhase("a", 0);
  zero.StartPhase("a");
  c.SetPosFloat(0.7);
  zero.FinishCurrentPhase();
  EXPECT_LE(c.GetPosFloat(), 1.0);
}

TEST(LongJobPosition, RisesPastTheEstimate)
{
  using VsPCnt::prgCntLongJobPosition;
  // (current, expected, position) with a = 0.3; with nothing expected, any work is all of it.
  double const cases[][3] = {{0, 100, 0.0},     {50, 100, 0.35}, {100, 100, 0.7}, {200, 100, 0.85},
                             {1000, 100, 0.97}, {5, 0, 1.0},     {0, 0, 0.0}};
  for (auto const & c : cases)
    EXPECT_DOUBLE_EQ(prgCntLongJobPosition(int(c[0]), int(c[1]), 0.3), c[2]) << c[0] << " of " << c[1];
  // continuous at the estimate and strictly rising beyond it
  EXPECT_LT(prgCntLongJobPosition(101, 100, 0.3), prgCntLongJobPosition(102, 100, 0.3));
}

TEST(PrgCntBlocksTreaded, JoinsWorkerProgressByBlocks)
{
  CProgressCounter parent, w1, w2;
  CPrgCntBlocksTreaded b(&parent);
  b.SetBlocksNumber(4);
  b.AddChildPrgCnt(&w1);
  b.AddChildPrgCnt(&w2);
  b.BindChildToBlock(0, &w1);
  b.BindChildToBlock(2, &w2);
  w1.SetPosFloat(0.5);
  w2.SetPosFloat(1.0);
  b.UpdateParentPrgCnt();
  EXPECT_DOUBLE_EQ(parent.GetPosFloat(), 1.5 / 4);
  b.OnOneBlockMoreFinished(0, &w1);
  b.BindChildToBlock(1, &w1); // reset for its new block
  EXPECT_EQ(w1.GetPosFloat(), 0.0);
  b.UpdateParentPrgCnt();
  EXPECT_DOUBLE_EQ(parent.GetPosFloat(), 2.0 / 4);
  // the children follow the parent's interruption
  parent.RequestInterrupt();
  EXPECT_THROW(w2.SetPosFloat(1), CUserIntrException);
  EXPECT_THROW(b.UpdateParentPrgCnt(), CUserIntrException);
  b.RemoveChildPrgCnt(&w2);
  EXPECT_NO_THROW(w2.SetPosFloat(1));
}

TEST(ConsoleProgressBar, FormatsBarPercentAndPhase)
{
  EXPECT_EQ((std::vector<std::string>{CConsoleProgressBar::formatLine(0.0, "", 10),
                                      CConsoleProgressBar::formatLine(0.5, "solve", 10),
                                      CConsoleProgressBar::formatLine(1.0, "x", 4),
                                      CConsoleProgressBar::formatLine(3.0, "", 2)}),
            (std::vector<std::string>{"[          ]   0.0%", "[#####     ]  50.0%  solve", "[####] 100.0%  x",
                                      "[##] 100.0%"}));
}

TEST(ConsoleProgressBar, DrawsOnAStreamAsAnObserver)
{
  std::FILE * f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  {
    CProgressCounter c;
    CConsoleProgressBar bar(f, 10, 0);
    c.AddObserver(&bar);
    VsPCnt::CMultiPhaseManager m(&c);
    m.showPhaseName();
    m.RegisterPhase("one", 1);
    m.RegisterPhase("two", 1);
    m.StartPhase("one");
    c.SetPosFloat(0.5);
    m.StartPhase("two");
    m.FinishCurrentPhase();
    bar.finish();
    c.RemoveObserver(&bar);
  }
  std::string text(static_cast<std::size_t>(std::ftell(f)), '\0');
  std::rewind(f);
  text.resize(std::fread(&text[0], 1, text.size(), f));
  std::fclose(f);
  EXPECT_NE(text.find("[##        ]  25.0%  one"), std::string::npos) << text;
  EXPECT_NE(text.find("[##########] 100.0%  two\n"), std::string::npos) << text;
}
