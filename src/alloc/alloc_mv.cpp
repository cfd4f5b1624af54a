// SPDX-License-Identifier: Apache-2.0
// Mean-variance and tracking-error allocators.  Both minimise a quadratic
// in the weights under the caller's constraints and bounds plus one return
// row, mu' w >= target, which enters the solver turned round as the last
// inequality -mu' w <= -target.
#include "alloc/alloc.h"
#include "alloc/alloc_internal.h"
#include "kernels/kernels.h"
#include "qp/qp.h"

namespace lumbra::alloc {

using namespace lumbra::kernels;

namespace {

constexpr double kZero = 0.0;

// The constraints both problems share: the caller's m = nEq + nIneq columns
// as they stand, C(:,0:m-1) = cons, d(0:m-1) = rhs, then the return row
// mu' w >= limit turned round into the last inequality, C(:,m) = -mu,
// d(m) = -limit.
void copyConstraintsWithReturnRow(const int& n, const double* mu, const double& limit,
                                  const int& nEq, const int& nIneq, const double* cons,
                                  const double* rhs, int& me, int& mi, double* C, double* d) {
  const i64 m = i64{nEq} + nIneq;
  me = nEq;
  mi = nIneq + 1;
  for (i64 j = 0; j < m; ++j) {
    for (i64 i = 0; i < n; ++i) C[at(i, j, n)] = cons[at(i, j, n)];
    d[j] = rhs[j];
  }
  for (i64 i = 0; i < n; ++i) C[at(i, m, n)] = -mu[i];
  d[m] = -limit;
}

}  // namespace

// c (n), multipliers (n + m + 1), d (m + 1), C (n (m + 1)), then the scratch.
void allocCarve(const int& n, const int& m, double* work, AllocLayout& layout) {
  const i64 rows = i64{m} + 1;
  layout.c = work;
  layout.multipliers = layout.c + n;
  layout.d = layout.multipliers + n + rows;
  layout.C = layout.d + rows;
  layout.scratch = layout.C + n * rows;
}

// The caller's columns, then the return row: C(:,m) = -mu, d(m) = -target.
void allocMVBuildProblem(const int& n, const double* mu, const double& target, const int& nEq,
                         const int& nIneq, const double* cons, const double* rhs, int& me,
                         int& mi, double* C, double* d, double* c) {
  vecFill(n, c, kZero);
  copyConstraintsWithReturnRow(n, mu, target, nEq, nIneq, cons, rhs, me, mi, C, d);
}

// As the mean-variance problem with c = -q (q = Sigma b, the covariances
// with the benchmark) and the return limit r_b + excess.
void allocITBuildProblem(const int& n, const double& benchReturn, const double* mu,
                         const double* benchCov, const double& excess, const int& nEq,
                         const int& nIneq, const double* cons, const double* rhs, int& me,
                         int& mi, double* C, double* d, double* c) {
  for (i64 i = 0; i < n; ++i) c[i] = -benchCov[i];
  const double limit = excess + benchReturn;
  copyConstraintsWithReturnRow(n, mu, limit, nEq, nIneq, cons, rhs, me, mi, C, d);
}

// The feasibility start decides whether the constraints can be met; only
// then is the real problem handed to the driver.  The driver finds its own
// starting point, so the start is a test and not a warm start.
void solveAllocationQP(const int& n, double* cov, double* c, const int& me, const int& mi,
                       double* C, double* d, const double* lower, const double* upper,
                       int* iwork, double* scratch, double* multipliers, double* weights,
                       int& status) {
  if (n > 1) {
    feasibleStart(n, lower, upper, me, mi, C, d, iwork, scratch, weights, status);
    if (status != 0) {
      status = kStatusInfeasible;
      return;
    }
  }
  // The driver reads the bounds and never writes them.
  qp::qpDriver(n, cov, c, me, mi, C, d, const_cast<double*>(lower),
               const_cast<double*>(upper), iwork, scratch, multipliers, weights, status);
}

bool allocCovarianceUsable(const int& n, const double* cov, int* iwork, double* work,
                           int& status) {
  int flag = 0;
  bool certified = false;
  matDefiniteCertificate(n, cov, work, certified);
  if (!certified) matPositiveDefiniteCheck(n, cov, iwork, work, flag);
  if (flag != 0) status = kStatusNotDefinite;
  return flag == 0;
}

// Carve, build, solve; "inconsistent constraints" from the driver is a
// failure of the allocation.
void allocMVSolve(const int& n, double* cov, const double* mu, const int& nEq,
                  const int& nIneq, const double* cons, const double* rhs,
                  const double* lower, const double* upper, const double& target, int* iwork,
                  double* work, double* weights, int& status) {
  AllocLayout w;
  allocCarve(n, nEq + nIneq, work, w);
  int me = 0, mi = 0;
  allocMVBuildProblem(n, mu, target, nEq, nIneq, cons, rhs, me, mi, w.C, w.d, w.c);
  solveAllocationQP(n, cov, w.c, me, mi, w.C, w.d, lower, upper, iwork, w.scratch,
                    w.multipliers, weights, status);
  if (status == kDriverNoFeasiblePoint) status = kStatusInconsistent;
}

// Minimum of 1/2 w' Sigma w subject to the caller's rows, mu' w >= target
// and the bounds.
void allocMV(const int& n, double* cov, const double* mu, const int& nEq, const int& nIneq,
             const double* cons, const double* rhs, const double* lower, const double* upper,
             const double& target, int* iwork, double* work, double* weights, int& status) {
  status = 0;
  if (!allocDataUsable(n, mu, nullptr, nEq, nIneq, cons, rhs, lower, upper, target, target,
                       status)) return;
  if (!allocCovarianceUsable(n, cov, iwork, work, status)) return;
  allocMVSolve(n, cov, mu, nEq, nIneq, cons, rhs, lower, upper, target, iwork, work, weights,
               status);
  if (status != 0) return;
  // The problem still stands in the work array: refuse a point that misses
  // it (the caller's rows, the return row, the bounds).
  AllocLayout w;
  allocCarve(n, nEq + nIneq, work, w);
  if (!allocPointMeets(n, weights, nEq, nIneq + 1, w.C, w.d, lower, upper))
    status = kStatusInaccurate;
}

// The caller's rows and bounds within the tolerance, then the excess
// return: a shortfall below the tolerance passes, as the comparison reads.
void allocITVerify(const int& n, const double* weights, const double* mu,
                   const double& benchReturn, const int& nEq, const int& nIneq,
                   const double* cons, const double* rhs, const double* lower,
                   const double* upper, const double& excess, double* work, int& status) {
  status = 0;
  verifySolution(n, weights, nEq, nIneq, cons, rhs, lower, upper, work, status);
  double r = 0.0;
  vecDot(n, mu, weights, r);
  if (excess > kFeasibilityTol + r - benchReturn) status = kStatusInfeasible;
}

// Minimum of 1/2 w' Sigma w - q' w (half the tracking-error variance less a
// constant) subject to the caller's rows, mu' w >= r_b + excess and the
// bounds.  The result is verified whatever positive status the solve gave.
void allocIT(const int& n, double* cov, const double* mu, const double* benchCov,
             const double& benchReturn, const int& nEq, const int& nIneq, const double* cons,
             const double* rhs, const double* lower, const double* upper,
             const double& excess, int* iwork, double* work, double* weights, int& status) {
  status = 0;
  if (!allocDataUsable(n, mu, benchCov, nEq, nIneq, cons, rhs, lower, upper, benchReturn,
                       excess, status)) return;
  if (!allocCovarianceUsable(n, cov, iwork, work, status)) return;
  AllocLayout w;
  allocCarve(n, nEq + nIneq, work, w);
  int me = 0, mi = 0;
  allocITBuildProblem(n, benchReturn, mu, benchCov, excess, nEq, nIneq, cons, rhs, me, mi,
                      w.C, w.d, w.c);
  solveAllocationQP(n, cov, w.c, me, mi, w.C, w.d, lower, upper, iwork, w.scratch,
                    w.multipliers, weights, status);
  if (status < 0) return;
  allocITVerify(n, weights, mu, benchReturn, nEq, nIneq, cons, rhs, lower, upper, excess,
                w.scratch, status);
}

}  // namespace lumbra::alloc
