#pragma once
// The stabilised bi-conjugate gradient iteration for A x = b, with A given
// only as a product routine.
//
// The residual is kept as A x - b, the negative of the usual sign, and the
// updates of x subtract accordingly. The stopping test compares squared
// norms, r.r > eps^2 (b.b), so no root is ever taken; a NaN residual leaves
// the loop as if it had converged. The vector arithmetic is MKL's level-1
// BLAS.
//
// Breakdown thresholds differ by precision and by place:
//   shadow residual h.h and the denominator h.A p: 1e-40 (double), 1e-15f (float);
//   s.t and t.t for the stabilisation step: 1e-40 for both, the float values
//   being widened; below it the step is skipped (omega 0), which the next
//   update turns into infinities or NaNs without any guard.

namespace REmath
{
/// Solves A x = b for `n` unknowns. `multiply(context, in, out)` computes
/// out = A in (in and out never overlap). `solution` holds the initial guess
/// and receives the result.
///
/// Returns the number of iterations done, both on convergence and on
/// reaching `maxIterations` (a caller cannot tell the two apart), or -1 on
/// breakdown. An exactly solved start (A x = b already) is a breakdown: its
/// shadow residual is zero. `maxIterations` of 0 or less sets no limit of the
/// caller's; the iteration then still stops, with -1, once it has run
/// 10 n + 1000 times without converging, so a product that never lets it
/// converge cannot hold the caller forever. A negative `n` gives -1.
int bicgstab(int n, void (*multiply)(void * context, float const * in, float * out), void * context,
             float const * rightPart, float * solution, float eps, int maxIterations);
int bicgstab(int n, void (*multiply)(void * context, double const * in, double * out), void * context,
             double const * rightPart, double * solution, double eps, int maxIterations);
} // namespace REmath
