// SPDX-License-Identifier: Apache-2.0
// Modified (Cornish-Fisher) value at risk: moments, single-precision
// factors, statuses (the whole expansion against numpy is in
// tests/python/test_stats_reference.py).
#include <cmath>
#include <vector>

#include "lumbra.h"
#include "stats/analysis.h"
#include "test_support.h"

namespace {

using namespace lumbra::stats;

// Dyadic returns (T = 8, n = 3) and weights: all sums exact, so the moments
// equal those of the portfolio series bit for bit in any BLAS order.
TEST(ModifiedVaR, MomentsEqualThoseOfThePortfolioSeries) {
  constexpr int T = 8, n = 3;
  const double R[T * n] = {0.5,  -0.25, 0.125, 0.75,  -0.5,  0.25, 0.0,    -0.125,
                           -0.5, 0.25,  0.5,   -0.75, 0.125, 0.0,  0.25,   0.375,
                           0.25, 0.25,  -0.125, 0.0,  0.5,   -0.25, -0.375, 0.125};
  const double w[n] = {0.5, 0.25, -0.25};
  double p[T], mean = 0.0, central3 = 0.0;
  for (int t = 0; t < T; ++t) {
    p[t] = w[0] * R[t] + w[1] * R[t + T] + w[2] * R[t + 2 * T];
    mean += p[t] / T;
  }
  for (double v : p) central3 += std::pow(v - mean, 3) / T;
  int status = -7;
  for (int q = 1; q <= 4; ++q) {
    double expect = 0.0, m = -1.0;
    for (double v : p) expect += std::pow(v, q) / T;
    analysisRawMoment(T, n, q, w, R, m, status);
    EXPECT_EQ(0, status);
    EXPECT_BITEQ(expect, m) << "order " << q;
  }
  for (int bad : {0, 5}) {  // orders outside 1..4
    double m = 1.0;
    analysisRawMoment(T, n, bad, w, R, m, status);
    EXPECT_EQ(kStatusBadIndex, status);
    EXPECT_BITEQ(0.0, m);
  }
  std::vector<double> work(n * (5 * n + 1));
  double m3 = 0.0, M[n * n];
  analysisThirdMoment(T, n, w, R, work.data(), m3, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(central3, m3);
  EXPECT_NE(0.0, m3);  // skewed data, so the check has teeth
  for (int k : {n, -1}) {
    analysisCoMomentSlice(T, n, k, R, work.data(), M, status);
    EXPECT_EQ(kStatusBadIndex, status) << "slice " << k;
  }
}

// One asset alternating +-1 (T = 4, V = 1): c4 = 1, so the kurtosis is
// a - 3 - b with a = 44/6 in single precision (7.3333335) and b = 45/8; the
// minimum history lengths of kurtosis (4) and skewness (3).  Zero skewness
// and kurtosis reduce the expansion to mean - sigma z; a variance at the
// floor is refused.
TEST(ModifiedVaR, KurtosisFactorsAndNormalLimit) {
  const double R[4] = {1.0, -1.0, 1.0, -1.0}, w[1] = {1.0}, V[1] = {1.0};
  const double z = 1.6448536269514722;
  double K = 0.0, S = 1.0, work[6], result = 0.0;
  int status = -7;
  analysisExcessKurtosis(4, 1, w, R, V, K, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(7.333333492279053 - 3.0 - 5.625, K);
  analysisExcessKurtosis(3, 1, w, R, V, K, status);
  EXPECT_EQ(kStatusBadSize, status);
  analysisSkewness(2, 1, w, R, V, work, S, status);
  EXPECT_EQ(kStatusBadSize, status);
  EXPECT_BITEQ(0.0, S);
  analysisCornishFisher(0.01, 0.04, 0.0, 0.0, z, result, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(0.2 * (0.0 - z) + 0.01, result);
  analysisCornishFisher(0.01, 1e-31, 0.0, 0.0, z, result, status);
  EXPECT_EQ(kStatusZeroVariance, status);
  EXPECT_BITEQ(0.0, result);
}

// Export: zero variance (constant history, zero weights) and a level
// beyond the engine's limits give 5 with the engine's status; the returns
// come back row-major.
TEST(ModifiedVaR, ExportStatusesAndDegenerateHistories) {
  int T = 5, n = 2, status = 0;
  double w[2] = {0.5, 0.5}, zero[2] = {0.0, 0.0}, cov[4] = {1e-4, 0.0, 0.0, 1e-4};
  double flat[10] = {0.01, 0.02, 0.01, 0.02, 0.01, 0.02, 0.01, 0.02, 0.01, 0.02};
  double moving[10] = {0.01, -0.02, 0.03, 0.0, -0.01, 0.02, 0.005, 0.01, 0.0, -0.03};
  double level = 0.95, result = 7.0;
  auto run = [&](double* wts, double* R, double lvl) {
    level = lvl;
    return ORXanalysisExanteModifiedVaR(&T, &n, wts, R, cov, &level, &result, &status);
  };
  EXPECT_EQ(5, run(w, flat, 0.95));
  EXPECT_EQ(kStatusZeroVariance, status);
  EXPECT_BITEQ(0.0, result);
  EXPECT_BITEQ(0.02, flat[1]);
  EXPECT_EQ(5, run(zero, moving, 0.95));
  EXPECT_EQ(kStatusZeroVariance, status);
  EXPECT_EQ(5, run(w, moving, 0.999999999));
  EXPECT_EQ(kStatusBadLevel, status);
  EXPECT_EQ(0, run(w, moving, 0.95));
  EXPECT_EQ(0, status);
  EXPECT_LT(result, 0.0);
}

}  // namespace
