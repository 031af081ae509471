#pragma once
// A reconstruction tree over a sphere cloud, with the kernel narrowed by the
// default kernel scale and the bases made of it: the function (level 0), its
// partial derivatives (level 1) and its Laplacian (level 2), in the separable
// and in the general form.

#include <cstdint>
#include <memory>

#include "QZmath/VolTriang/OctreeFuncBasis.h"
#include "tests/Common/SampleClouds.h"

namespace qztest
{
inline VolTr::CProductPiecewisePolynom narrowedKernel()
{
  VolTr::CProductPiecewisePolynom k = VolTr::makeApproxGaussian<VolTr::CProductPiecewisePolynom>();
  double const s = 1.0 / 0.95, scale[3] = {s, s, s};
  k.scaleArgument(scale);
  return k;
}

struct SphereBases
{
  using Basis = VolTr::COctreeFuncBasisTmpl<VolTr::CProductPiecewisePolynom>;
  QZTest::CSampleCloud cloud;
  std::unique_ptr<VolTr::COctree> tree;
  VolTr::CProductPiecewisePolynom kernel, dx[3], lap;
  std::unique_ptr<Basis> basis, grad[3], lapBasis;

  SphereBases(int depth, bool center, int points, std::uint64_t seed, int detail = -1)
      : cloud(QZTest::makeSphereCloud(points, 1.0, seed)), kernel(narrowedKernel())
  {
    tree.reset(new VolTr::COctree(&cloud, depth, nullptr, center, detail));
    basis.reset(new Basis(kernel, tree.get(), 0));
    for (int a = 0; a < 3; ++a)
    {
      kernel.makePartialDerivative(&dx[a], a);
      grad[a].reset(new Basis(dx[a], tree.get(), 1));
    }
    kernel.makeLaplacian(&lap);
    lapBasis.reset(new Basis(lap, tree.get(), 2));
  }
  // The tree and the bases point at the cloud and the kernels: never moved.
  SphereBases(SphereBases const &) = delete;
  SphereBases & operator=(SphereBases const &) = delete;
  int n() const { return tree->getNodesNumber(); }
};

/// The same bases in the general form, which has no derivative operations:
/// the analytic derivatives, narrowed like the kernel.
struct GeneralBases
{
  using Basis = VolTr::COctreeFuncBasisTmpl<VolTr::CPiecewisePolynom>;
  VolTr::CPiecewisePolynom kernel, dx[3], lap;
  std::unique_ptr<Basis> basis, grad[3], lapBasis;
  explicit GeneralBases(VolTr::COctree const * tree)
      : kernel(VolTr::makeApproxGaussian<VolTr::CPiecewisePolynom>()),
        lap(VolTr::makeApproxGaussianLaplacian<VolTr::CPiecewisePolynom>())
  {
    double const s = 1.0 / 0.95, scale[3] = {s, s, s};
    kernel.scaleArgument(scale);
    basis.reset(new Basis(kernel, tree, 0));
    for (int a = 0; a < 3; ++a)
    {
      dx[a] = VolTr::DgaussianDx<VolTr::CPiecewisePolynom>(a);
      dx[a].scaleArgument(scale);
      dx[a] *= s;
      grad[a].reset(new Basis(dx[a], tree, 1));
    }
    lap.scaleArgument(scale);
    lap *= s * s;
    lapBasis.reset(new Basis(lap, tree, 2));
  }
};
} // namespace qztest
