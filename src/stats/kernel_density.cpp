// SPDX-License-Identifier: Apache-2.0
// Gaussian kernel density of a sample at chosen points.
#include <cmath>

#include "kernels/index.h"
#include "kernels/widened.h"
#include "stats/analysis.h"

namespace lumbra::stats {

namespace {
// Bandwidth rule h = 1.059 sigma n^(-1/5): the factor and the exponent are
// single-precision values (1.059 and 0.2 as floats), the power is taken in
// single precision.
using widened::kBandwidthExponent;
using widened::kBandwidthFactor;
// Kernel normalisation; close to, but not exactly, 1 / sqrt(2 pi).
constexpr double kKernelNorm = 0.3989422748506426;

// n^0.2 in single precision, widened.
double bandwidthRoot(int n) {
  const float count = static_cast<float>(n);
  return static_cast<double>(std::pow(count, kBandwidthExponent));
}
}  // namespace

// f(i) := sum over j of K((g(i) - x(j)) / h) / (h n) with the standard normal
// kernel K and h from the sample's standard deviation.  A constant sample
// gives h = 0 and non-finite densities, without a status.
void analysisGaussianKernel(const int& n, const int& m, const double* x, const double* g,
                            double* f, int& status) {
  status = 0;
  for (i64 i = 0; i < m; ++i) f[i] = 0.0;
  double sigma = 0.0;
  analysisSeriesStdDev(n, x, sigma, status);
  if (status < 0) return;
  const double d = bandwidthRoot(n);
  const double h = kBandwidthFactor * sigma / d;
  const double v = (2.0 * h) * h;
  for (i64 i = 0; i < m; ++i) {
    double fi = f[i];
    const double gi = g[i];
    for (i64 j = 0; j < n; ++j) {
      const double e = gi - x[j];
      fi = fi + std::exp((0.0 - e * e) / v) * kKernelNorm;
    }
    f[i] = fi;
  }
  const double count = n;
  for (i64 i = 0; i < m; ++i) f[i] = f[i] / (h * count);
}

}  // namespace lumbra::stats
