// SPDX-License-Identifier: Apache-2.0
// Risk statistics where the system's own arithmetic fixes the bits; the
// references through the exports are in tests/python/test_stats_reference.py.
#include <cmath>

#include "stats/analysis.h"
#include "stats/normal.h"
#include "test_support.h"

using namespace lumbra::stats;
using lumbra::testing::bitEqual;

// Published values bit for bit; 0.66291, the end of the central region,
// still takes the central fit (the middle fit's upper area is one ulp lower).
// Elsewhere the quantile against scipy's checks it (test_stats_reference.py).
TEST(NormalCdf, PublishedValuesAndRegionBoundary) {
  const double exact[][3] = {{0.0, 0.5, 0.5}, {1.0, 0.8413447460685429, 0.15865525393145705},
                             {-38.0, 0.0, 1.0}, {38.0, 1.0, 0.0},
                             {0.66291, 0x1.7e1bcea074aa2p-1, 0x1.03c862bf16abcp-2}};
  double cum = -1.0, ccum = -1.0;
  for (const auto& c : exact) {
    normalCdf(c[0], cum, ccum);
    EXPECT_TRUE(bitEqual(c[1], cum) && bitEqual(c[2], ccum)) << "x = " << c[0];
  }
}

// Pairs as the value-at-risk routines form them, q = 1 - p (1 - 0.95 gives
// ...722, exactly 0.05 ...729).  Far in the tail the Newton stop is relative:
// the last step is below 1e-13 |x|, not 1e-13; one step more moves a bit.
TEST(NormalQuantile, PublishedValuesAndRelativeStop) {
  EXPECT_BITEQ(1.6448536269514722, normalQuantile(0.95, 1.0 - 0.95));
  EXPECT_BITEQ(-1.6448536269514729, normalQuantile(0.05, 0.95));
  const double p = 0x1.5b26e797d18f9p-77;
  EXPECT_BITEQ(-0x1.3f7b39d90216fp+3, normalQuantile(p, 1.0 - p));
}

// One asset alternating +-1 (T = 4, V = 1): c4 = 1, kurtosis a - 3 - b with
// a = 44/6 in single precision (7.3333335), b = 45/8; at least 4 (3) points
// for kurtosis (skewness); zero S and K give mean - sigma z; sigma^2 ~ 0 fails.
TEST(ModifiedVaR, KurtosisFactorsAndNormalLimit) {
  const double R[4] = {1.0, -1.0, 1.0, -1.0}, w[1] = {1.0}, V[1] = {1.0}, z = 1.6448536269514722;
  double K = 0.0, S = 1.0, work[6], result = 0.0;
  int status = -7;
  analysisExcessKurtosis(4, 1, w, R, V, K, status);
  EXPECT_TRUE(status == 0 && bitEqual(7.333333492279053 - 3.0 - 5.625, K));
  analysisExcessKurtosis(3, 1, w, R, V, K, status);
  EXPECT_EQ(kStatusBadSize, status);
  analysisSkewness(2, 1, w, R, V, work, S, status);
  EXPECT_TRUE(status == kStatusBadSize && S == 0.0);
  analysisCornishFisher(0.01, 0.04, 0.0, 0.0, z, result, status);
  EXPECT_TRUE(status == 0 && bitEqual(0.2 * (0.0 - z) + 0.01, result));
  analysisCornishFisher(0.01, 1e-31, 0.0, 0.0, z, result, status);
  EXPECT_TRUE(status == kStatusZeroVariance && result == 0.0);
}

// x = (0, 1) at 0.5: both at distance 0.5, deviation sqrt(1/2); a double
// 2^0.2 or 1.059 in the bandwidth changes the bits.
TEST(KernelDensity, TwoPointSample) {
  double x[2] = {0.0, 1.0}, g[1] = {0.5}, f[1] = {-1.0};
  int status = -7;
  analysisGaussianKernel(2, 1, x, g, f, status);
  const double h = 1.059000015258789 * 0.7071067811865476 / double(std::pow(2.0f, 0.2f));
  const double term = std::exp((0.0 - 0.25) / ((2.0 * h) * h)) * 0.3989422748506426;
  EXPECT_TRUE(status == 0 && bitEqual((0.0 + term + term) / (h * 2.0), f[0]));
}
