// SPDX-License-Identifier: Apache-2.0
// Maximum Sharpe ratio.  The ratio (mu' w - r_f) / sqrt(w' Sigma w) is not
// concave, but with y = tau w and the scale tau chosen so that the excess
// return of y is one, maximising it is the same as minimising y' Sigma y:
// one convex QP in z = (y, tau), followed by w = y / tau.
#include <cmath>

#include "alloc/alloc.h"
#include "alloc/alloc_internal.h"
#include "kernels/kernels.h"
#include "qp/qp.h"

namespace lumbra::alloc {

using namespace lumbra::kernels;

namespace {
constexpr double kZero = 0.0;
constexpr double kUnit = 1.0;
}

// Columns of C (leading dimension N = n + 1), all homogeneous in (y, tau):
//   0:                 sum(y) - tau = 0
//   1:                 mu' y - r_f tau = 1
//   2 + j:             A_j' y - b_j tau <= 0, for the caller's inequalities
//   2 + nIneq + i:     -y_i + lower_i tau <= 0
//   2 + nIneq + n + i: y_i - upper_i tau <= 0
// The caller's equalities are left out.
void allocSharpeBuildProblem(const int& n, const double* mu, const double& riskFree,
                             const int& nEq, const int& nIneq, const double* cons,
                             const double* rhs, const double* lower, const double* upper,
                             int& me, int& mi, double* C, double* d) {
  const i64 N = i64{n} + 1;
  me = 2;
  mi = nIneq + 2 * n;
  const i64 K = i64{me} + mi;
  matFill(static_cast<int>(N), static_cast<int>(K), C, kZero);
  for (i64 i = 0; i < n; ++i) C[at(i, 0, N)] = kUnit;
  C[at(n, 0, N)] = -kUnit;
  d[0] = kZero;
  for (i64 i = 0; i < n; ++i) C[at(i, 1, N)] = mu[i];
  C[at(n, 1, N)] = -riskFree;
  d[1] = kUnit;
  for (i64 j = 0; j < nIneq; ++j) {
    const i64 col = 2 + j;
    const i64 src = i64{nEq} + j;
    for (i64 i = 0; i < n; ++i) C[at(i, col, N)] = cons[at(i, src, n)];
    C[at(n, col, N)] = -rhs[src];
    d[col] = kZero;
  }
  for (i64 i = 0; i < n; ++i) {
    const i64 low = 2 + i64{nIneq} + i;
    const i64 up = low + n;
    C[at(i, low, N)] = -kUnit;
    C[at(n, low, N)] = lower[i];
    d[low] = kZero;
    C[at(i, up, N)] = kUnit;
    C[at(n, up, N)] = -upper[i];
    d[up] = kZero;
  }
}

// The first stage: the mean-variance problem (after its covariance test)
// with the budget sum(w) = 1 put before the caller's equalities, and the
// target r_f plus a small margin.  The problem is built straight into the
// mean-variance layout carved from work, budget column first, so that no
// intermediate copy of the caller's columns is needed: the work array then
// suffices whatever the number of equalities.
void allocSharpeStageOne(const int& n, double* cov, const double* mu, const int& nEq,
                         const int& nIneq, const double* cons, const double* rhs,
                         const double* lower, const double* upper, const double& riskFree,
                         int* iwork, double* work, double* weights, int& status) {
  AllocLayout w;
  allocCarve(n, nEq + 1 + nIneq, work, w);
  // C(:,0) = 1, d(0) = 1; the caller's columns and the return row follow.
  for (i64 i = 0; i < n; ++i) w.C[at(i, 0, n)] = kUnit;
  w.d[0] = kUnit;
  const double target = riskFree + kSharpeMargin;
  int me = 0, mi = 0;
  allocMVBuildProblem(n, mu, target, nEq, nIneq, cons, rhs, me, mi, w.C + n, w.d + 1, w.c);
  me += 1;
  solveAllocationQP(n, cov, w.c, me, mi, w.C, w.d, lower, upper, iwork, w.scratch,
                    w.multipliers, weights, status);
  if (status == kDriverNoFeasiblePoint) status = kStatusInconsistent;
}

// Stage 1 tests that some portfolio meeting all of the caller's constraints
// (budget added) returns more than r_f; stage 2 solves the homogeneous
// problem and divides by its scale.
void allocSharpeRatio(const int& n, double* cov, const double* mu, const int& nEq,
                      const int& nIneq, const double* cons, const double* rhs,
                      const double* lower, const double* upper, const double& riskFree,
                      int* iwork, double* work, double* weights, int& status) {
  const int N = n + 1;
  const int K = nIneq + 2 * n + 2;
  const i64 NN = i64{N} * N;
  const i64 NK = i64{N} * K;
  double* H = work;
  double* c = H + NN;
  double* C = c + N;
  double* d = C + NK;
  double* lowerZ = d + K;
  double* upperZ = lowerZ + N;
  double* multipliers = upperZ + N;
  double* z = multipliers + N + K;
  double* rest = z + N;

  vecFill(n, weights, kZero);
  status = 0;
  if (!allocDataUsable(n, mu, nullptr, nEq, nIneq, cons, rhs, lower, upper, riskFree,
                       riskFree, status)) return;
  if (!allocCovarianceUsable(n, cov, iwork, rest, status)) return;

  // Stage 1: a mean-variance problem with the budget as first equality and
  // target r_f plus a small margin; it must have a feasible portfolio.
  allocSharpeStageOne(n, cov, mu, nEq, nIneq, cons, rhs, lower, upper, riskFree, iwork, rest,
                      weights, status);
  if (status < 0) {
    status = kStatusInfeasible;
    return;
  }

  // Stage 2: H = [Sigma 0; 0 0], scattered through the index list 1 .. n.
  matFill(N, N, H, kZero);
  for (i64 i = 0; i < n; ++i) iwork[i] = static_cast<int>(i + 1);
  matScatter(n, cov, N, iwork, H, status);
  vecFill(N, c, kZero);
  int me = 0, mi = 0;
  allocSharpeBuildProblem(n, mu, riskFree, nEq, nIneq, cons, rhs, lower, upper, me, mi, C, d);
  vecFill(N, lowerZ, kZero);
  vecFill(N, upperZ, kHugeBound);
  upperZ[n] = n * kHugeBound;
  qp::qpDriver(N, H, c, me, mi, C, d, lowerZ, upperZ, iwork, rest, multipliers, z, status);
  if (status == kDriverNoFeasiblePoint) {
    status = kStatusInconsistent;
    return;
  }
  const double tau = z[n];
  if (std::fabs(tau) < kScaleFloor) {
    status = kStatusNoScale;
    return;
  }
  // w = y / tau, whatever the driver reported: an unfinished solve still
  // comes back as a scaled iterate.
  for (i64 i = 0; i < n; ++i) weights[i] = z[i] / tau;
  // A solve that ended normally must give a portfolio of the problem: a
  // positive scale and weights that meet the budget, the rows and bounds.
  if (status == 0 && (!(tau > 0.0) ||
                      !allocSharpeWeightsMeet(n, weights, nEq, nIneq, cons, rhs, lower, upper)))
    status = kStatusInaccurate;
}

}  // namespace lumbra::alloc
