// A small example of the library: normalises a fan of vectors under a
// progress counter with a console bar and prints a summary.

#include <cstdio>
#include <unistd.h>
#include <vector>

#include "QZmath/QZmath.h"

int main()
{
  CProgressCounter progress;
  CConsoleProgressBar bar(stderr, 40, 50);
  bool const tty = isatty(fileno(stderr));
  if (tty)
    progress.AddObserver(&bar);

  VsPCnt::CMultiPhaseManager phases(&progress);
  phases.showPhaseName();
  phases.RegisterPhase("generate", 1);
  phases.RegisterPhase("normalise", 3);

  int const n = 200000;
  std::vector<REmath::Point3D> points;
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "generate");
    points.reserve(n);
    for (int i = 0; i < n; ++i)
    {
      points.emplace_back(i % 17 - 8, i % 13 - 6, i % 11 - 5);
      if (i % 1000 == 0)
        progress.SetPosFloat(static_cast<double>(i) / n);
    }
  }
  double sumLength = 0;
  int zero = 0;
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "normalise");
    for (int i = 0; i < n; ++i)
    {
      double const len = NormalizeVector(points[i].asArray());
      if (len == 0)
        ++zero;
      sumLength += len;
      if (i % 1000 == 0)
        progress.SetPosFloat(static_cast<double>(i) / n);
    }
  }
  if (tty)
    bar.finish();
  std::printf("points: %d\nmean length before normalisation: %.6f\nzero vectors kept: %d\nphysical cores: %d\n", n,
              sumLength / n, zero, CVescaThreadingTasksHelper::getNumOfPhisicalThread());
  return 0;
}
