// SPDX-License-Identifier: Apache-2.0
// The active-set QP solver above its factor routines: feasible point search,
// main iteration, final refinement and the driver that maps results to the
// allocators' status values.
//
// Conventions as in factors.h: memory is reached 0-based through at(), while
// counts, list positions and signed constraint indices keep their 1-based
// meaning (i upper bound of x_i, -i its lower bound, n + j inequality row j,
// equalities entered by their column number 1..me).
//
// Work sizes (doubles):
//   OPTR01  3n + 2mi             [0,n) infeasibility gradient, [n,2n) search
//                                 direction, [2n,3n) reduced vector and
//                                 multipliers, [3n,3n+mi) row residuals,
//                                 [3n+mi,3n+2mi) products C_j'd
//   OPTR03  kMainWork(n, mi)      [0,n) gradient, [n,n+mi) row residuals,
//                                 [n+mi,2n+mi) multipliers, then p (and
//                                 the objective behind the multipliers),
//                                 [2n+mi, ...) reduced vector y, saved
//                                 multipliers, products C_j'p; the factor
//                                 updates use the space from n+mi on.
//                                 After the loop the refinement puts its
//                                 correction at [0,n) and its residuals
//                                 behind the objective.
//   qpCore  n(n+1) + kMainWork(n, mi)
// Integer work of qpCore: n + mi (IRE), n + me + mi + 1 (list), n (ipvt).
//
// Demand of OPTR03 by path, with k the size of the working set:
//   OPTR01                                3n + 2mi
//   pass: y of the direction (2 nz in the singular-tail case, nz otherwise),
//         saved multipliers (k), products and projections (mi + nz),
//         all from 2n + mi                at most 4n + mi
//   ANFM04 (3(n-k) + 1 from n + mi)      at most 4n + mi - 2
//   ANFM05 (cs and 2m + 3, m = nz - 1)    at most 5n + mi - 1
//   ANFM03, ANFM06                        at most 3n + mi
//   refinement and objective              at most 3n + mi + 1
// A zero Hessian, as in the linear problem of the feasibility start, has
// no curvature in any direction: every factor of the reduced Hessian has
// status nz, so ANFM05 returns at once, the singular-tail direction never
// runs and the pass needs no more than 3n + 2mi.  That problem's demand is
// therefore kLinearWork, which is what the tightest caller (the
// tracking-error allocator's feasibility start, 4n + 2mi - 3 doubles for
// n >= 3 and mi >= 1) can give.
#pragma once
#include "kernels/index.h"
#include "qp/products.h"

namespace lumbra::qp {

// Doubles of OPTR03's work array: max(5n + mi - 1, 3n + 2mi).
constexpr i64 kMainWork(i64 n, i64 mi) {
  const i64 a = 5 * n + mi - 1;
  const i64 b = 3 * n + 2 * mi;
  return a > b ? a : b;
}

// Doubles of OPTR03's work array when H = 0: max(3n + 2mi, 4n + mi - 2,
// 3n + mi + 1).
constexpr i64 kLinearWork(i64 n, i64 mi) {
  const i64 a = 3 * n + 2 * mi;
  const i64 b = 4 * n + mi - 2;
  const i64 c = 3 * n + mi + 1;
  const i64 ab = a > b ? a : b;
  return ab > c ? ab : c;
}

// x' y over n unit-stride entries, the BLAS DDOT; 0.0 for n < 1.  The one
// plain inner product of the routines above the factors.
inline double qpDot(i64 n, const double* x, const double* y) {
  return qpBlasDot(n, x, 1, y, 1);
}

// ---- feasible point search -------------------------------------------------

// Sum of infeasibilities of x over the bounds and inequality rows (C and b
// start at the first inequality row).  job 1: full pass, states in IRE, the
// negative gradient in w[0,n), residuals at w[3n+j]; any other job stops at
// the first violation (found = 1).
void qpInfeasibility(const double* C, const int& ldc, const double* CI, const double* CS,
                     const double* b, const double* x, double* w, int* IRE, const int& ibnd,
                     const int& n, const int& mi, const int& job, double& sum, int& found);

// Feasible point and working set with its QR factors (Q, R = HR from its
// second column).  status 0, or -1 inconsistent equalities, -2 infeasible,
// -3 cycling, -4 iteration limit, -5 bad arguments.
void OPTR01(const double* C, const int& ldc, double* Q, const int& ldq, double* R,
            const int& ldr, const double* CI, const double* CS, const double* b, double* x,
            double* w, int* list, int* IRE, const int& ibnd, const int& n, int& kact,
            const int& me, int& kcur, const int& mi, int& status, const int& level,
            const int& channel, const int& ind);

// ---- main iteration --------------------------------------------------------

// Minimises 1/2 x'Hx + g'x over the equalities, inequalities and bounds by
// the primal active-set method.  Only the cold start ind = 6 is built (other
// valid modes give -4).  wantObjective out: 1-based position in w of the
// objective.  iterations in: limit (< 1 selects 14 (n + me + mi)); out:
// passes made.
void OPTR03(const double* C, const int& ldc, double* Q, const int& ldq, double* HR,
            const int& ldh, const double* g, const double* b, const double* CI,
            const double* CS, double* x, double* w, int& wantObjective, int* IRE, int* list,
            int* ipvt, const double& scale, const int& ibnd, const int& n, int& kact,
            const int& me, int& kcur, const int& mi, const int& ind, int& status,
            const int& level, const int& channel, int& iterations);

// ---- refinement and measures ------------------------------------------------

// One step of iterative refinement of x against the working set, kept
// unless it raises the largest violation.  e: k doubles (residuals, then
// the solution u of R'u = e); d: n doubles (the correction Q(:,0:k-1) u).
// The two are separate so that the caller can place them apart.
void qpRefine(const double* Q, const int& ldq, const double* R, const int& ldr,
              const double* C, const int& ldc, const double* b, const double* CI,
              const double* CS, double* x, double* e, double* d, const int* list,
              const int& n, const int& k, const int& me, const int& kcur, const int& mi,
              int& status);

// Largest violation of the constraints at x (C with leading dimension n).
void qpViolation(const int& n, const double* x, const int& me, const int& mi, const double* C,
                 const double* b, const double* CI, const double* CS, double& v);

// 1/2 x'Hx + g'x from the lower triangle of H, times scale; work: n doubles.
double qpObjective(const double* H, const int& ldh, const double* g, const double* x,
                   double* work, const double& scale, const int& n);

// Largest |v(i)|, 0.0 for n < 1.
double qpAbsMax(const int& n, const double* v);

// ---- driver ------------------------------------------------------------------

// Arranges the main iteration on the driver's data and unpacks its output.
void qpCore(double* H, const double* c, const double* C, const double* d, const double* lower,
            const double* upper, const int& boundMode, const int& me, const int& mi,
            double* x, double& objective, double* work, int* iwork, double* multipliers,
            const int& printLevel, const int& unit, const int& n, int& startMode,
            int& status, const int& iterationLimit);

// Minimises 1/2 h x^2 + c x over the feasible interval of one variable.
void qpScalar(const double& h, const double& c, const int& me, const int& mi, const double* C,
              const double* d, const double& lower, const double& upper, double& x,
              int& status);

// Interval [low, high] of the values allowed by the constraints of one
// variable; status -7, -8, -9 when it is empty.
void qpScalarInterval(const int& me, const int& mi, const double* C, const double* d,
                      const double& lower, const double& upper, double& low, double& high,
                      int& status);

}  // namespace lumbra::qp
