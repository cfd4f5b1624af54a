// SPDX-License-Identifier: Apache-2.0
// The test of the allocators' data that precedes all their arithmetic.  A
// NaN or an infinity in the returns, the constraints or the return targets
// would not stop the solver: NaN comparisons are false, so a row with a NaN
// is never found violated and is silently dropped, and an infinity turns
// the solver's updates into NaN.  Numbers so large that a product of two
// overflows are no better: the outcome then turns on the order of the
// BLAS's sums.  Such a problem is refused as unsolvable before anything is
// computed.  The covariance matrix is left to the definiteness test, which
// refuses a non-finite matrix (status -108).
#include <cmath>

#include "alloc/alloc_internal.h"
#include "kernels/widened.h"

namespace lumbra::alloc {

namespace {

// Largest magnitude of a datum: the square root of the largest double, so
// that the product of any two data is finite.
constexpr double kDataLimit = widened::kSqrtDoubleMax;

// |x(i)| <= kDataLimit for i = 0 .. count-1; false for a NaN.
bool withinLimit(i64 count, const double* x) {
  for (i64 k = 0; k < count; ++k)
    if (!(std::fabs(x[k]) <= kDataLimit)) return false;
  return true;
}

// An infinite bound is allowed on its own side only: lower = -inf and
// upper = +inf mean "no bound", while lower = +inf or upper = -inf leave no
// admissible weight.  Written so that a NaN fails as well.
bool boundsUsable(const int& n, const double* lower, const double* upper) {
  constexpr double kInf = HUGE_VAL;
  for (i64 i = 0; i < n; ++i)
    if (!(lower[i] < kInf) || !(upper[i] > -kInf)) return false;
  return true;
}

}  // namespace

bool allocDataUsable(const int& n, const double* mu, const double* benchCov, const int& nEq,
                     const int& nIneq, const double* cons, const double* rhs,
                     const double* lower, const double* upper, const double& first,
                     const double& second, int& status) {
  const i64 m = i64{nEq} + nIneq;
  const bool usable = withinLimit(1, &first) && withinLimit(1, &second) &&
                      withinLimit(n, mu) && (benchCov == nullptr || withinLimit(n, benchCov)) &&
                      withinLimit(m, rhs) && withinLimit(i64{n} * m, cons) &&
                      boundsUsable(n, lower, upper);
  if (!usable) status = kStatusInfeasible;
  return usable;
}

}  // namespace lumbra::alloc
