// An outside program that uses the installed library through its umbrella header.
#include <cstdio>

#include "QZmath/QZmath.h"

int main()
{
  CProgressCounter progress;
  VsPCnt::CMultiPhaseManager phases(&progress);
  phases.RegisterPhase("only", 1);
  phases.StartPhase("only");
  float v[3] = {3, 0, 4};
  NormalizeVector(v);
  REmath::HPoint3D h(REmath::Point3D(1, 2, 2));
  phases.FinishCurrentPhase();
  bool const ok = v[2] == 0.8f && h.norm() == 3.0 && progress.GetPosFloat() == 1.0 && IsCPUconfSettled();
  std::printf(ok ? "consumer ok\n" : "consumer wrong\n");
  return ok ? 0 : 1;
}
