// SPDX-License-Identifier: Apache-2.0
// Risk statistics where the system's own arithmetic fixes the bits.
#include <cmath>

#include "stats/analysis.h"
#include "stats/normal.h"
#include "test_support.h"

using namespace lumbra::stats;
using lumbra::testing::bitEqual;

// Published values bit for bit; 0.66291, the end of the central region, takes
// the central fit (the middle fit's upper area is one ulp lower).
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

// Pairs as value at risk forms them (1 - 0.95 gives ...722, 0.05 ...729); far in
// the tail the Newton stop is relative (one step more moves a bit).
TEST(NormalQuantile, PublishedValuesAndRelativeStop) {
  EXPECT_BITEQ(1.6448536269514722, normalQuantile(0.95, 1.0 - 0.95));
  EXPECT_BITEQ(-1.6448536269514729, normalQuantile(0.05, 0.95));
  const double p = 0x1.5b26e797d18f9p-77;
  EXPECT_BITEQ(-0x1.3f7b39d90216fp+3, normalQuantile(p, 1.0 - p));
}

// +-1 (T = 4, V = 1): kurtosis a - 3 - b, a = 44/6 in single precision, b = 45/8;
// S = K = 0 give mean - sigma z.
TEST(ModifiedVaR, KurtosisFactorsAndNormalLimit) {
  const double R[4] = {1.0, -1.0, 1.0, -1.0}, w[1] = {1.0}, V[1] = {1.0}, z = 1.6448536269514722;
  double K = 0.0, result = 0.0;
  int status = -7;
  analysisExcessKurtosis(4, 1, w, R, V, K, status);
  EXPECT_TRUE(status == 0 && bitEqual(7.333333492279053 - 3.0 - 5.625, K));
  analysisCornishFisher(0.01, 0.04, 0.0, 0.0, z, result, status);
  EXPECT_TRUE(status == 0 && bitEqual(0.2 * (0.0 - z) + 0.01, result));
}

// x = (0, 1) at 0.5, deviation sqrt(1/2): a double 2^0.2 or 1.059 changes the bits.
TEST(KernelDensity, TwoPointSample) {
  double x[2] = {0.0, 1.0}, g[1] = {0.5}, f[1] = {-1.0};
  int status = -7;
  analysisGaussianKernel(2, 1, x, g, f, status);
  const double h = 1.059000015258789 * 0.7071067811865476 / double(std::pow(2.0f, 0.2f));
  const double term = std::exp((0.0 - 0.25) / ((2.0 * h) * h)) * 0.3989422748506426;
  EXPECT_TRUE(status == 0 && bitEqual((0.0 + term + term) / (h * 2.0), f[0]));
}
