// SPDX-License-Identifier: Apache-2.0
// Ex-post standard deviation of one series.
#include <cmath>

#include "kernels/index.h"
#include "kernels/widened.h"
#include "stats/analysis.h"

namespace lumbra::stats {

namespace {
// Variances below the single-precision value of 1e-30 (widened) count as
// zero; this also absorbs a small negative value left by cancellation.
constexpr double kVarianceFloor = widened::k1em30;
}  // namespace

// Sample standard deviation in one pass: v = (sum x^2 - (sum x)^2 / n) / (n - 1).
void analysisSeriesStdDev(const int& n, const double* x, double& result, int& status) {
  if (n < 2) {
    status = kStatusBadSize;
    result = 0.0;
    return;
  }
  status = 0;
  double a = 0.0, b = 0.0;
  for (i64 i = 0; i < n; ++i) {
    a += x[i];
    b += x[i] * x[i];
  }
  const double count = n;
  const double dof = n - 1;
  const double v = (b - a * a / count) / dof;
  result = kVarianceFloor > v ? 0.0 : std::sqrt(v);
}

}  // namespace lumbra::stats
