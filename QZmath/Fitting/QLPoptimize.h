#pragma once
// A dense convex quadratic program solver with the calling style of a classic
// numerical routine: every argument by pointer, arrays column-major.
//
//   minimise    1/2 x'Cx + d'x
//   subject to  a_j x  = b_j   for j = 0 .. me - 1
//               a_j x >= b_j   for j = me .. m - 1
//               xl <= x <= xu
//
// It is a dual active-set method: it starts at the unconstrained minimum and
// adds violated constraints one at a time, dropping those whose multipliers
// would turn negative, so every iterate is optimal for the constraints taken
// so far and the first primal-feasible one is the solution. C must be
// symmetric positive semidefinite (only its lower triangle is read); when it
// is not positive definite a small multiple of the identity is added (at
// first sqrt(eps) max|C_ii|, growing a hundredfold at most twice), and
// reported in `diag`. With such a shift, a semidefinite problem's solution is
// that of the shifted one: exact at a vertex, close elsewhere.
//
// NOT REENTRANT: the routine keeps its working state in static storage, which
// every call initialises afresh. Calls must not overlap, from any threads. An
// overlapping call stops at an assertion in debug builds and returns with
// *ifail = 5, touching nothing else, in release builds.
//
// Arguments (in = read, out = written; an out pointer other than x and ifail
// may be null when the caller does not want it):
//
//  int    *m       in   number of general constraints, >= 0
//  int    *me      in   how many of them, the first ones, are equalities
//  int    *mmax    in   leading dimension of a, >= max(1, m)
//  int    *n       in   number of variables, >= 1
//  int    *nmax    in   leading dimension of c, >= n
//  int    *mnn     in   length of u and iact, >= m + 2 n
//  int    *maxit   in   cap on the active-set changes; <= 0 or null for
//                       1000 + 10 (m + 2 n)
//  double *c       in   nmax x n objective matrix
//  double *d       in   n linear terms
//  double *a       in   mmax x n constraint rows
//  double *b       in   m right sides
//  double *xl      in   n lower bounds; <= -bigbnd means none
//  double *xu      in   n upper bounds; >= bigbnd means none
//  double *bigbnd  in   the bound magnitude that counts as infinite; <= 0 or
//                       null for 1.0e9
//  double *tol     in   feasibility tolerance, relative to 1 + |b_j| +
//                       sum |a_jk x_k|; <= 0 or null for sqrt(eps)
//  double *x       out  n: the solution, or the last iterate on failure
//  double *u       out  mnn multipliers, C x + d = sum u_j n_j over the
//                       constraint normals n_j: first the m general
//                       constraints, then the n lower bounds (normal e_i),
//                       then the n upper bounds (normal -e_i); zero when
//                       inactive, >= 0 for inequalities
//  double *f       out  objective at x, with the caller's C
//  double *cres    out  largest constraint violation at x
//  double *diag    out  the multiple of the identity added to C
//  int    *ifail   out  0 solved; 1 iteration cap reached; 2 constraints
//                       inconsistent; 3 C not positive semidefinite (or not
//                       finite); 4 bad dimensions, a missing array, or
//                       working arrays (of order n^2) beyond the memory;
//                       5 overlapping call; 6 non-finite data
//  int    *iter    out  active-set changes made
//  int    *nact    out  number of active constraints at x
//  int    *iact    out  their indices in u's numbering, from 0, in the order
//                       of the final working set
//  int    *nadd    out  constraints added
//  int    *ndrop   out  constraints dropped
//  double *eps     out  the machine precision found on entry
//  int    *ixstat  out  n: -1 at the lower bound, 1 at the upper, 0 between
//                       (by the active set)
//  int    *icstat  out  m: 1 for an active general constraint, else 0
//  int    *nviol   out  constraints violated beyond the tolerance at x
//  int    *ndep    out  equalities found dependent on earlier ones and
//                       satisfied, and therefore left out of the active set
//  int    *nshift  out  attempts needed to make C positive definite
void QLPoptimize(int * m, int * me, int * mmax, int * n, int * nmax, int * mnn, int * maxit, double * c,
                 double * d, double * a, double * b, double * xl, double * xu, double * bigbnd, double * tol,
                 double * x, double * u, double * f, double * cres, double * diag, int * ifail, int * iter,
                 int * nact, int * iact, int * nadd, int * ndrop, double * eps, int * ixstat, int * icstat,
                 int * nviol, int * ndep, int * nshift);
