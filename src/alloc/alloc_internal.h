// SPDX-License-Identifier: Apache-2.0
// Internal routines of the allocators: the solver-form builders, the
// feasibility start, the verification of a point and the shared tail of
// the mean-variance and tracking-error problems.  Same conventions as the
// rest of the engine: column-major matrices, constraints one per column
// (equalities first, inequalities as C_j' x <= d_j), scalars by reference,
// status last.
#pragma once
#include "kernels/index.h"
#include "kernels/status.h"
#include "kernels/widened.h"

namespace lumbra::alloc {

// ---- status values --------------------------------------------------------
inline constexpr int kStatusInfeasible = ORX_STATUS_INFEASIBLE;
inline constexpr int kStatusInconsistent = ORX_STATUS_INCONSISTENT;
inline constexpr int kStatusNotDefinite = ORX_STATUS_COV_NOT_PD;
inline constexpr int kStatusNoScale = ORX_STATUS_NO_SCALE;
// The solver ended normally, but its point misses a constraint or bound by
// more than the tolerance of allocPointMeets: accuracy lost on degenerate
// data.  Not "no feasible portfolio" (-100): one may well exist.
inline constexpr int kStatusInaccurate = ORX_STATUS_INACCURATE;
inline constexpr int kStatusViolated = ORX_STATUS_START_VIOLATED;
inline constexpr int kStatusAuxiliaryBuild = ORX_STATUS_AUXILIARY_BUILD;
// Driver status for "no point meets the constraints".
inline constexpr int kDriverNoFeasiblePoint = ORX_STATUS_NO_FEASIBLE_POINT;

// ---- constants ------------------------------------------------------------
// Feasibility tolerance of the checks: single-precision 1e-8.
inline constexpr double kFeasibilityTol = widened::k1em8;
// Its negation, the lower limit of an equality residual.
inline constexpr double kFeasibilityTolLow = -widened::k1em8;
// Stand-in for an infinite bound: single-precision 1e15.
inline constexpr double kHugeBound = widened::k1e15;
// Smallest usable scale of the homogeneous Sharpe problem: single-precision 1e-12.
inline constexpr double kScaleFloor = widened::k1em12;
// Margin by which the first Sharpe stage must beat the risk-free rate:
// one hundred times single-precision 1e-12.
inline constexpr double kSharpeMargin = 100.0 * widened::k1em12;

// ---- data test ----------------------------------------------------------------

// The data test every allocator runs before any arithmetic: mu, benchCov
// (when not null), cons (n by nEq + nIneq), rhs and the two scalars (the
// target, or the benchmark return and the excess, or the risk-free rate
// twice) must be finite and at most sqrt(DBL_MAX) ~ 1.34e154 in magnitude;
// a bound may be infinite on its own side only (lower = -inf, upper =
// +inf), never NaN.  Otherwise status := -100 and the result is false.
bool allocDataUsable(const int& n, const double* mu, const double* benchCov, const int& nEq,
                     const int& nIneq, const double* cons, const double* rhs,
                     const double* lower, const double* upper, const double& first,
                     const double& second, int& status);

// ---- mean-variance and tracking-error problems ------------------------------

// The carving of the real work array shared by the mean-variance and
// tracking allocators, for m caller constraints plus the return row.
struct AllocLayout {
  double* c;            // n: linear term
  double* multipliers;  // n + m + 1
  double* d;            // m + 1: right-hand sides
  double* C;            // n (m + 1): constraints, leading dimension n
  double* scratch;      // the rest
};
void allocCarve(const int& n, const int& m, double* work, AllocLayout& layout);

// C(:,0:m-1) = cons, d(0:m-1) = rhs, C(:,m) = -mu, d(m) = -target, c = 0.
void allocMVBuildProblem(const int& n, const double* mu, const double& target, const int& nEq,
                         const int& nIneq, const double* cons, const double* rhs, int& me,
                         int& mi, double* C, double* d, double* c);

// As allocMVBuildProblem with c = -benchCov and d(m) = -(excess + benchReturn).
void allocITBuildProblem(const int& n, const double& benchReturn, const double* mu,
                         const double* benchCov, const double& excess, const int& nEq,
                         const int& nIneq, const double* cons, const double* rhs, int& me,
                         int& mi, double* C, double* d, double* c);

// Checks the tracking result against the caller's constraints and bounds and
// the required excess return; status 0 or -100.  Work: nEq + nIneq doubles.
void allocITVerify(const int& n, const double* weights, const double* mu,
                   const double& benchReturn, const int& nEq, const int& nIneq,
                   const double* cons, const double* rhs, const double* lower,
                   const double* upper, const double& excess, double* work, int& status);

// The covariance test every allocator runs first: the smallest real part of
// the eigenvalues of cov against the single-precision 1e-12.  A Cholesky
// certificate settles the clearly definite symmetric matrices at a fraction
// of the cost; the Schur-form test decides all others.  Sets status to -108
// and returns false when cov fails it.  Work: 2n^2 + 7n doubles, n
// integers.
bool allocCovarianceUsable(const int& n, const double* cov, int* iwork, double* work,
                           int& status);

// The mean-variance allocator after its covariance test: carve, build,
// feasibility start, solve, and 1001 turned into -101.
void allocMVSolve(const int& n, double* cov, const double* mu, const int& nEq,
                  const int& nIneq, const double* cons, const double* rhs,
                  const double* lower, const double* upper, const double& target, int* iwork,
                  double* work, double* weights, int& status);

// Feasibility start (failure becomes -100), then the QP driver on H = cov.
void solveAllocationQP(const int& n, double* cov, double* c, const int& me, const int& mi,
                       double* C, double* d, const double* lower, const double* upper,
                       int* iwork, double* scratch, double* multipliers, double* weights,
                       int& status);

// ---- Sharpe-ratio problem ---------------------------------------------------

// The constraints of the homogeneous problem in z = (y, tau), N = n + 1 rows
// per column: budget, unit excess return, the caller's inequalities, the
// bounds as rows.  me = 2, mi = nIneq + 2n.
void allocSharpeBuildProblem(const int& n, const double* mu, const double& riskFree,
                             const int& nEq, const int& nIneq, const double* cons,
                             const double* rhs, const double* lower, const double* upper,
                             int& me, int& mi, double* C, double* d);

// ---- result check -------------------------------------------------------------

// True when x meets the rows (first me equalities, then inequalities; C with
// leading dimension n) and the bounds, each within 1e-8 (single precision)
// times the largest of 1, |limit| and the sum of |C_ij x_i|.  A NaN fails.
bool allocPointMeets(const int& n, const double* x, const int& me, const int& mi,
                     const double* C, const double* d, const double* lower,
                     const double* upper);

// The same check of a Sharpe-ratio portfolio against what the homogeneous
// problem imposes: sum(w) = 1, w >= 0, the caller's inequality columns and
// the bounds (not the caller's equalities, which that problem leaves out).
bool allocSharpeWeightsMeet(const int& n, const double* w, const int& nEq, const int& nIneq,
                            const double* cons, const double* rhs, const double* lower,
                            const double* upper);

// ---- feasibility ------------------------------------------------------------

// The auxiliary linear problem of the feasibility start in N = n + 1
// variables: H' = 0, c' = e_n, C' = [C; 0], bounds (lower, -1) and
// (upper, 1e15).  status -2 when C does not fit.
void buildAuxiliaryProblem(const int& n, const double* lower, const double* upper,
                           const int& me, const int& mi, const double* C, const int& N,
                           double* lowerAux, double* upperAux, double* CAux, double* HAux,
                           double* cAux, int& status);

// Finds a point meeting all constraints and bounds, or reports that none
// was found (status non-zero).  x receives the point in either case.
void feasibleStart(const int& n, const double* lower, const double* upper, const int& me,
                   const int& mi, const double* C, double* d, int* iwork, double* work,
                   double* x, int& status);

// status 0 when x meets every constraint and bound within the tolerance,
// -100 at the first that it misses.  Work: me + mi doubles.
void verifySolution(const int& n, const double* x, const int& me, const int& mi,
                    const double* C, const double* d, const double* lower,
                    const double* upper, double* work, int& status);

}  // namespace lumbra::alloc
