// SPDX-License-Identifier: Apache-2.0
// Factors of the active-set QP solver, its search direction and its ratio
// test.
//
// Storage shared by the whole solver (n variables, k active constraints,
// nz = n - k):
//   Q   n by n orthogonal, leading dimension ldq.  With A the active normals
//       in list order, A = Q [R; 0].  Columns k..n-1 (0-based) are the
//       null-space basis Z.  Reduced index j (1..nz) stands for column
//       n - j (0-based) of Q: reduced coordinates run from the last column
//       of Q backwards.
//   HR  n rows (ldr >= n), n + 1 columns.  Its lower triangle in columns
//       0..n-1 holds H and is never altered.  R(i,j), i <= j, sits at
//       HR(i, j+1): the routines below receive "R" = HR + ldr, i.e. the
//       array from its second column.  T, the factor of Z'HZ, lives in R's
//       columns k..n-1 (0-based), rows 0..nz-1.
//   ipvt  position i of T stands for reduced index ipvt[i] (values 1..nz).
//   st    curvature status of T (0 complete, 1..nz singular tail, nz+1..3nz
//         coupled tails, negative values for negative curvature).
//
// Integer arguments keep their 1-based meaning: counts, positions in the
// working list (p of ANFM02), signed constraint indices (id, entering: i is
// the upper bound of x_i, -i its lower bound, n + j inequality row j), the
// values stored in ipvt.  Only memory is reached 0-based, through at().
#pragma once
#include "kernels/widened.h"

namespace lumbra::qp {

// Machine precision DLAMCH('P') and the tolerances derived from it.
constexpr double kPrecision = 2.220446049250313e-16;        // DLAMCH('P')
constexpr double kPrecision075 = 1.8189894035458565e-12;    // P^0.75
constexpr double kPrecision09 = 8.161999731219579e-15;      // P^0.8999999761581421 (0.9f)
constexpr double kOverflow = 1.7976931348623157e308;        // DLAMCH('O')
constexpr double kSqrtOverflow = widened::kSqrtDoubleMax;   // sqrt(DLAMCH('O'))
constexpr double kInverseSqrtPrecision = 67108864.0;        // 1 / sqrt(P)

// Fatal trap for a caller's bug: writes "INCORRECT LIST OF CALLING IN
// <routine>." to stderr and aborts the process.
[[noreturn]] void qpArgumentTrap(const char* routine);

// z_a' H z_b from the lower triangle of H; a, b are 1-based columns of Z.
double qpCurvature(const double* H, const int& ldh, const double* Z, const int& ldz,
                   const int& n, const int& a, const int& b);

// Adds column k of R (Householder) while no T exists.  id in: 0 normal in a,
// +i e_i, -i -e_i.  id out: 0 done, -1 normal dependent on columns 1..k-1.
// w has length n - k + 1.
void ANFM01(double* Q, const int& ldq, double* R, const int& ldr, const double* a, double* w,
            const int& n, const int& k, int& id, const int& channel);

// Removes column p (1-based, 1 <= p <= k) of R by order-two reflections and
// keeps Q current; afterwards column k of Q is the new null vector.
void ANFM02(double* Q, const int& ldq, double* R, const int& ldr, const int& n, const int& k,
            const int& p, const int& channel);

// Factors the reduced Hessian of the m columns of Z into T, from scratch
// (kf = 0) or going on from kf finished rows; kf returns the status (with a
// marker of -10 ldz added after a growth stop).  w has length n.
void ANFM03(const double* H, const int& ldh, double* T, const int& ldt, const double* Z,
            const int& ldz, double* w, int* ipvt, const int& n, const int& m, int& kf,
            const int& flag, const int& channel);

// Adds column k of R (k already raised) by plane rotations in pivot order
// while T exists.  On return w[0..nz'-1] cosines, w[nz'..2nz'-1] sines,
// nz' = n - k.  w has length at least 3(n-k)+1.  id as in ANFM01.
void ANFM04(double* Q, const int& ldq, double* R, const int& ldr, const double* a, double* w,
            const int* ipvt, const int& n, const int& k, int& id, const int& channel);

// Updates T (passed from its old column 2) to the factor of the m columns
// left after ANFM04's rotations cs; t11 is the old T(1,1).  r is the count
// of good leading rows when st does not give it.  w: at least 2m + 3, and
// at least n when st < 0 or st > m + 1 (a fresh factorisation of the tail
// forms H z in it).
void ANFM05(const double* H, const int& ldh, double* T, const int& ldt, const double* Z,
            const int& ldz, const double* cs, double* w, int* ipvt, const double& t11,
            const int& m, const int& r, const int& n, int& st, const int& flag,
            const int& channel);

// Extends T by the new null vector z (column k of Q, old Z following it)
// after ANFM02.  HR is the whole array (H in its lower triangle); T moves
// one column left, to start where R's column k stood.  nz and st updated.
// w has length n.
void ANFM06(const double* z, const int& ldq, double* HR, const int& ldr, double* w, int* ipvt,
            const int& n, int& nz, int& st, const int& channel);

// Solves with the leading m by m upper triangle of R: job 1 R'x = b,
// otherwise R x = b.  x may be b.
void qpTriSolve(const double* R, const int& ldr, const int& m, const double* b, double* x,
                const int& job);

// y := P (T'T)^-1 P' y on m positions, with w (length m) as work.
void qpNormalSolve(const double* T, const int& ldt, double* y, double* w, const int* ipvt,
                   const int& m);

// Search direction p (length n) in the null space Z (Q from column k+1),
// from the factor T, the gradient g and the deleted normal a.  y: 2 nz
// reduced work (on mode 10 it holds Z'g in reduced order).  mode, drop and
// alpha change as the solver's main loop expects.
void qpDirection(const double* Z, const int& ldq, const double* T, const int& ldt,
                 const double* g, const double* a, double* y, double* p, const int* ipvt,
                 const double& scale, const int& nz, const int& n, const int& st, int& mode,
                 int& drop, double& alpha);

// Ratio test along p.  work: [0, n) gradient, [n, n+mi) row residuals
// C_j'x - b_j, [n+mi, 2n+mi) the direction p, [2n+mi, 2n+2mi) products
// C_j'p.  kind in: 1 positive, 2 null, 0 negative curvature (alpha holds
// the natural step for 1); out: 1 blocked, 2 full step, 3 both, 11 blocked
// after a very long step, -1 unbounded.  entering: signed blocking index.
void qpStepLength(const double* CI, const double* CS, const double* x, double& alpha,
                  const double* work, const int* IRE, int& entering, const int& ibnd,
                  const int& n, const int& mi, int& kind);

}  // namespace lumbra::qp
