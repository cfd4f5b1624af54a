// SPDX-License-Identifier: Apache-2.0
// Feasibility start and verification of a point.  Before a portfolio
// problem is solved, a linear problem in one extra variable decides whether
// its constraints can be met at all; the point that comes back is checked
// against every row and bound.
#include <cstddef>

#include "alloc/alloc_internal.h"
#include "kernels/blas.h"
#include "kernels/kernels.h"
#include "qp/qp.h"

namespace lumbra::alloc {

using namespace lumbra::kernels;

namespace {

constexpr int kOne = 1;
constexpr double kUnit = 1.0;
constexpr double kZero = 0.0;
constexpr double kLowerExtra = -1.0;  // lower bound of the extra variable

// r(0:m-1) = C' x for the n by m constraint matrix C.
void constraintValues(const int& n, const int& m, const double* C, const double* x,
                      double* r) {
  if (m < 1) return;
  dgemv_("T", &n, &m, &kUnit, C, &n, x, &kOne, &kZero, r, &kOne, 1);
}

}  // namespace

// l' = (lower, -1), u' = (upper, 1e15), H' = 0, c' = (0, ..., 0, 1),
// C'(0:n-1, :) = C, C'(n, :) = 0.
void buildAuxiliaryProblem(const int& n, const double* lower, const double* upper,
                           const int& me, const int& mi, const double* C, const int& N,
                           double* lowerAux, double* upperAux, double* CAux, double* HAux,
                           double* cAux, int& status) {
  const int m = me + mi;
  vecCopy(n, lower, lowerAux);
  lowerAux[N - 1] = kLowerExtra;
  vecCopy(n, upper, upperAux);
  upperAux[N - 1] = kHugeBound;
  matFill(N, N, HAux, kZero);
  vecFill(N, cAux, kZero);
  cAux[N - 1] = kUnit;
  matFill(N, m, CAux, kZero);
  matCopyBlock(n, m, n, m, C, kOne, kOne, N, m, CAux, kOne, kOne, status);
}

// Solves the auxiliary problem (minimise t over the constraints in x, with
// -1 <= t) and checks its x part: 0 when the point passes, the driver's
// status, 1111 for a row violated after a clean solve, -100 for a failed
// verification, -8888 when the problem could not be built.
void feasibleStart(const int& n, const double* lower, const double* upper, const int& me,
                   const int& mi, const double* C, double* d, int* iwork, double* work,
                   double* x, int& status) {
  const int N = n + 1;
  const i64 m = i64{me} + mi;
  const i64 NN = i64{N} * N;
  double* xAux = work;
  double* HAux = xAux + N;
  double* cAux = HAux + NN;
  double* CAux = cAux + N;
  double* lowerAux = CAux + N * m;
  double* upperAux = lowerAux + N;
  double* multipliers = upperAux + N;
  double* rest = multipliers + N + m;

  int built = 0;
  buildAuxiliaryProblem(n, lower, upper, me, mi, C, N, lowerAux, upperAux, CAux, HAux, cAux,
                        built);
  if (built < 0) {
    status = kStatusAuxiliaryBuild;
    return;
  }
  qp::qpDriver(N, HAux, cAux, me, mi, CAux, d, lowerAux, upperAux, iwork, rest, multipliers,
               xAux, status);
  vecCopy(n, xAux, x);
  if (status != 0) return;

  // v = max(0, max_j (C_j' x - d_j)), the worst violation over all rows,
  // equalities included; the residuals go to the scratch beyond the
  // auxiliary problem.
  double* r = rest;
  const int mRows = static_cast<int>(m);
  constraintValues(n, mRows, C, x, r);
  double v = 0.0;
  for (i64 j = 0; j < m; ++j) {
    const double e = r[j] - d[j];
    if (e > v) v = e;
  }
  if (v > kFeasibilityTol) {
    status = kStatusViolated;
    return;
  }
  int verified = 0;
  verifySolution(n, x, me, mi, C, d, lower, upper, rest, verified);
  if (verified < 0) status = verified;
}

// Equalities |C_j' x - d_j| <= eps, inequalities C_j' x <= d_j + eps, bounds
// lower - eps <= x <= upper + eps, tested in that order; every comparison is
// strict, so a residual of exactly eps passes.
void verifySolution(const int& n, const double* x, const int& me, const int& mi,
                    const double* C, const double* d, const double* lower,
                    const double* upper, double* work, int& status) {
  status = 0;
  const int m = me + mi;
  double* r = work;
  constraintValues(n, m, C, x, r);
  for (i64 j = 0; j < me; ++j) {
    const double e = r[j] - d[j];
    if (kFeasibilityTolLow > e || e > kFeasibilityTol) {
      status = kStatusInfeasible;
      return;
    }
  }
  for (i64 j = me; j < m; ++j) {
    if (r[j] > d[j] + kFeasibilityTol) {
      status = kStatusInfeasible;
      return;
    }
  }
  for (i64 i = 0; i < n; ++i) {
    if (lower[i] > x[i] + kFeasibilityTol || x[i] - kFeasibilityTol > upper[i]) {
      status = kStatusInfeasible;
      return;
    }
  }
}

}  // namespace lumbra::alloc
