#pragma once
// Small numerical routines of the global namespace: a Gauss-Jordan solver for
// tiny systems, the symmetric eigenproblem in two steps (Householder
// tridiagonalisation, then QL with implicit shifts), the real generalised
// eigenproblem over LAPACK, Brent's root finder, and rounding helpers for
// values shown to people.
//
// Matrices here are arrays of row pointers with indices from 0, not
// Matrix<T>: the fits build them on the stack as double*[3].
//
// Several routines keep deliberate quirks (truncation in place of rounding for
// negative values, an unsorted eigenvalue order, a relaxed step test in Brent's
// method): callers and stored results depend on them.

/// Gauss-Jordan elimination with full pivoting, in place: `a` (n x n) becomes
/// its inverse and the m columns of `b` (n x m) the solutions.
/// Returns 1 on success, -1 when n or m is above 50 (nothing touched) or a
/// pivot is exactly 0, and 0 when a pivot column comes up twice (only NaN
/// entries can make that happen).
int gaussj(double ** a, int n, double ** b, int m);

/// Householder reduction of the symmetric matrix `a` (n x n) to tridiagonal
/// form: the diagonal goes to `d`, the sub-diagonal to `e` with e[0] = 0, and
/// `a` is replaced by the orthogonal matrix of the reduction, ready for tqli.
void tred2(float ** a, int n, float * d, float * e);
void tred2_d(double ** a, int n, double * d, double * e);

/// Eigenvalues and eigenvectors of the tridiagonal matrix (d, e) that tred2
/// leaves, by QL with implicit shifts. The eigenvalues replace `d` (unsorted);
/// the columns of `z` are rotated into the eigenvectors (z from tred2 gives
/// those of the original matrix). `e` is destroyed. Returns 1 when all were
/// found, 0 when 100 iterations on one of them did not suffice.
int tqli(float * d, float * e, int n, float ** z);
int tqli_d(double * d, double * e, int n, double ** z);

/// Real eigenpairs of a x = lambda b x (a, b: n x n, row pointers) through
/// LAPACK's generalised solver. Accepted eigenvalues (real, finite |beta| >=
/// 1e-10, |alphar| < |beta| 1e20) go to values[0..count-1] and their vectors
/// to the rows vectors[0..count-1] (n elements each), with no holes.
/// Returns false for n < 1 or a LAPACK failure.
bool gen_right_eigen(int n, double const * const * a, double const * const * b, int & count,
                     double ** vectors, double * values);

/// Brent's root finder on [a, b]. `digits` sets the interval tolerance
/// 10^-digits (0 means 9); the search also stops once |f| <= valueTolerance.
/// `iterations` is the limit on entry and the count used on exit.
/// `status`: 0 success, 1 iteration limit exceeded, -1 no sign change or a NaN
/// at an end (root is then b). `context` is passed to `function` untouched.
void BrentZeroFun(double (*function)(double, void *), double a, double b, double valueTolerance, int digits,
                  int & iterations, double & root, int & status, void * context);

/// x + 0.5 truncated to int: rounds halves up for positive values only
/// (rndtoni(-1.5) is -1). Values beyond the range of int saturate; NaN gives 0.
int rndtoni(double x);

/// Multiplies `value` by 10 `power` times, or by 0.1 -`power` times. The
/// repeated multiplication is part of the result (0.1 is not a division).
void scaleDouble(double & value, int power);

/// `value` brought into the decade (1, 10] by repeated multiplication, and its
/// decimal exponent: getScale(100, e) gives 10 with e = 1. A value that is not
/// positive and finite has no decade: it comes back as it is, with exponent 0.
double getScale(double value, int & exponent);

/// A round upper bound for an axis that must reach `value`: `top` and its
/// `step` and `subdivisions` for tick marks, `exponent` the decade. `value`
/// is left as it is.
void roundBoundary(double & value, double & top, double & step, int & subdivisions, int & exponent);

/// (x * 100 + 0.5) truncated, times 0.01: negative values are not mirrored.
double fRound2(double x);
/// x with its magnitude brought into (1, 10] and rounded there to 4 decimals,
/// then scaled back (1234.5678 gives 1234.6); 0 below 1e-30 in magnitude.
/// Infinities and NaN come back as they are.
double fRound4(double x);
/// As fRound4 with `digits` decimals in place of 4.
double fRoundN(double x, int digits);
