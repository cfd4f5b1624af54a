// SPDX-License-Identifier: Apache-2.0
// The closing check of the mean-variance and Sharpe-ratio results.  The
// solver keeps its working constraints satisfied only as well as its
// factors allow; on exactly degenerate data (tied values, zero-width
// bounds, rows that are exact combinations of bounds) a nearly singular
// vertex can make it lose that accuracy while it still ends normally.
// Such a point is refused rather than returned as a portfolio.
#include <cmath>

#include "alloc/alloc_internal.h"

namespace lumbra::alloc {

namespace {

constexpr double kUnit = 1.0;

// Allowed miss of a value whose terms have size s: 1e-8 relative, absolute
// below 1.
double allowance(double s) { return kFeasibilityTol * (s > kUnit ? s : kUnit); }

// True when a' x meets its limit d (equality or <=) within the allowance of
// the largest of |d| and sum_i |a_i x_i|.
bool rowMet(const int& n, const double* a, const double* x, const double& d, bool equality) {
  double r = 0.0;
  double size = std::fabs(d);
  double terms = 0.0;
  for (i64 i = 0; i < n; ++i) {
    r += a[i] * x[i];
    terms += std::fabs(a[i] * x[i]);
  }
  if (terms > size) size = terms;
  const double e = r - d;
  const double tol = allowance(size);
  return equality ? std::fabs(e) <= tol : e <= tol;
}

// True when lower <= x <= upper within the allowance of each bound.
bool boundsMet(const int& n, const double* x, const double* lower, const double* upper) {
  for (i64 i = 0; i < n; ++i) {
    if (!(x[i] >= lower[i] - allowance(std::fabs(lower[i])))) return false;
    if (!(x[i] <= upper[i] + allowance(std::fabs(upper[i])))) return false;
  }
  return true;
}

}  // namespace

// Rows C_j (leading dimension n), the first me equalities, then the
// inequalities, and the bounds.
bool allocPointMeets(const int& n, const double* x, const int& me, const int& mi,
                     const double* C, const double* d, const double* lower,
                     const double* upper) {
  for (i64 j = 0; j < i64{me} + mi; ++j)
    if (!rowMet(n, C + at(0, j, n), x, d[j], j < me)) return false;
  return boundsMet(n, x, lower, upper);
}

// sum(w) = 1, the caller's inequality columns (after the nEq equalities,
// which the homogeneous problem leaves out), w >= 0 and the bounds.
bool allocSharpeWeightsMeet(const int& n, const double* w, const int& nEq, const int& nIneq,
                            const double* cons, const double* rhs, const double* lower,
                            const double* upper) {
  double sum = 0.0;
  double size = 0.0;
  for (i64 i = 0; i < n; ++i) {
    sum += w[i];
    size += std::fabs(w[i]);
    if (!(w[i] >= -allowance(0.0))) return false;
  }
  if (!(std::fabs(sum - kUnit) <= allowance(size))) return false;
  for (i64 j = nEq; j < i64{nEq} + nIneq; ++j)
    if (!rowMet(n, cons + at(0, j, n), w, rhs[j], false)) return false;
  return boundsMet(n, w, lower, upper);
}

}  // namespace lumbra::alloc
