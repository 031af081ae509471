#pragma once
// The last two stages of the reconstruction for a given implicit function: the
// iso-value (the weighted mean of the function at the samples) and the
// polygonisation of its level set. The triangulator runs them after its solve;
// they are public so that a caller with its own function, a test or a
// benchmark can run them alone.

#include <vector>

#include "QZmath/VolTriang/OctreeFuncBasis.h"
#include "QZmath/VolTriang/VolumetricTriangulator.h"

class CProgressCounter;

namespace VsUt
{
class IDebugLog;
}

namespace VolTr
{
class CLevelSetExtraction
{
public:
  using Basis = COctreeFuncBasisTmpl<CProductPiecewisePolynom>;
  using LinComb = COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;

  /// How the function is evaluated. `eSpecified`: the combination's own
  /// evaluation at every point, the polygoniser on the caller's thread.
  /// `eFast`: the block evaluator, and the bisections of the polygoniser's
  /// edges in batches on every physical thread. Both give the same iso-value
  /// and the same vertices and triangles in the same order.
  enum EEvaluation
  {
    eSpecified,
    eFast
  };

  /// The weighted mean of x over the samples (weights null: all 1), on one
  /// task per physical thread over strips of cells, the sums added in task
  /// order. `progress` may be null.
  static double meanValueAtSamples(LinComb const & x, IInputSamples const * samples,
                                   std::vector<float> const * weights, CProgressCounter * progress,
                                   EEvaluation evaluation = eFast);

  /// Walks the level set x = isoValue from a start near the samples and hands
  /// vertices and triangles to `target` (may be null: a dry run). `gradBasis`
  /// (null, or three bases of the kernel's partial derivatives) gives the
  /// vertex normals. Reads the depth, reconstruct factor and `closed` from
  /// `params`. Writes the "<Marching cubes>" block to `log` (may be null).
  /// Throws CVolTriangulationError "Failed to reconstruct iso-value surface"
  /// when no surface is found; an interruption from `progress` passes through,
  /// with the vertices and triangles delivered so far left with the target.
  /// Returns the number of triangles; `vertices` (may be null) receives the
  /// number of vertices.
  static int polygonise(LinComb const & x, double isoValue, Basis const * const * gradBasis,
                        IInputSamples const * samples, CVolTriangulationParams const & params,
                        ITriangulationTarget * target, CProgressCounter * progress, VsUt::IDebugLog * log,
                        EEvaluation evaluation = eFast, int * vertices = nullptr);
};
} // namespace VolTr
