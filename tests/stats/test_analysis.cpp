// Ex-ante return, volatility and normal value at risk, through the engine
// and through the exports (level limits and statuses).
#include <cmath>

#include "lumbra.h"
#include "stats/analysis.h"
#include "test_support.h"

namespace {

using namespace lumbra::stats;

// Dyadic data: every product and partial sum is exact, so the BLAS dot
// product gives the same bits in any summation order.
TEST(Exante, ReturnAndVolatilityExact) {
  int n = 3, status = -7;
  double mu[3] = {0.25, -0.5, 0.125};
  double w[3] = {0.5, 0.25, -0.25};  // negative weight used as given
  double r = 0.0;
  analysisPortfolioReturn(n, mu, w, r, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(0.125 - 0.125 - 0.03125, r);
  // Not symmetric: the quadratic form reads the matrix as it is.
  const double Sigma[9] = {4.0, 1.0, 0.0,   // column 0
                           3.0, 2.0, 0.5,   // column 1
                           0.0, 0.5, 1.0};  // column 2
  double v = 0.0, s = 0.0;
  analysisPortfolioVariance(n, Sigma, w, v, status);
  // w' S w = sum_jk w_j S(j,k) w_k
  double expect = 0.0;
  for (int j = 0; j < 3; ++j)
    for (int k = 0; k < 3; ++k) expect += w[j] * Sigma[j + 3 * k] * w[k];
  EXPECT_BITEQ(expect, v);
  analysisPortfolioVolatility(n, Sigma, w, s, status);
  EXPECT_BITEQ(std::sqrt(expect), s);
  // An indefinite matrix: NaN volatility, status still 0.
  const double bad[1] = {-1.0};
  int one = 1;
  analysisPortfolioVolatility(one, bad, w, s, status);
  EXPECT_EQ(0, status);
  EXPECT_TRUE(std::isnan(s));
}

TEST(Exante, NormalVaRPublishedCase) {
  int n = 1, status = -7;
  double Sigma[1] = {0.04}, mu[1] = {0.01}, w[1] = {1.0}, result = 1.0;
  analysisNormalVaR(n, Sigma, mu, w, 0.95, result, status);
  EXPECT_EQ(0, status);
  EXPECT_NEAR(0.01 - 0.2 * 1.6448536269514722, result, 1e-16);
  EXPECT_NEAR(-0.31897, result, 1e-5);
  // At 0.5 the quantile is zero to ~1e-16: the VaR is the mean.
  analysisNormalVaR(n, Sigma, mu, w, 0.5, result, status);
  EXPECT_NEAR(0.01, result, 1e-16);
}

TEST(Exante, NormalVaRLevelLimits) {
  int n = 1, status = 0;
  double Sigma[1] = {1.0}, mu[1] = {0.0}, w[1] = {1.0}, result = 0.0;
  // The limits themselves are inside.
  for (double level : {9.99999993922529e-9, 0.99999999, 0.9999999900000001}) {
    analysisNormalVaR(n, Sigma, mu, w, level, result, status);
    EXPECT_EQ(0, status) << level;
    EXPECT_GT(std::fabs(result), 5.0) << level;
  }
  for (double level : {1e-9, 9.99999993922529e-9 * 0.999999, 0.999999999, 0.99999999000001}) {
    result = 3.0;
    analysisNormalVaR(n, Sigma, mu, w, level, result, status);
    EXPECT_EQ(kStatusBadLevel, status) << level;
    EXPECT_BITEQ(0.0, result);
  }
}

TEST(Exante, ExportStatuses) {
  int n = 2, status = 0;
  // Row-major at the boundary; symmetric here.
  double cov[4] = {0.04, 0.01, 0.01, 0.09};
  double mu[2] = {0.01, 0.02};
  double w[2] = {0.5, 0.5};
  double level = 0.99, result = 0.0;
  EXPECT_EQ(0, ORXanalysisExanteNormalVaR(&n, cov, mu, w, &level, &result, &status));
  EXPECT_EQ(0, status);
  const double sigma = std::sqrt(0.25 * 0.04 + 0.5 * 0.01 + 0.25 * 0.09);
  EXPECT_NEAR(0.015 - sigma * 2.3263478740408408, result, 1e-15);
  EXPECT_BITEQ(0.04, cov[0]);  // converted back
  EXPECT_BITEQ(0.01, cov[1]);
  // Inside (0, 1) but outside the engine's limits: 5, status -102, result 0.
  level = 1e-9;
  result = 7.0;
  EXPECT_EQ(5, ORXanalysisExanteNormalVaR(&n, cov, mu, w, &level, &result, &status));
  EXPECT_EQ(-102, status);
  EXPECT_BITEQ(0.0, result);
  // At or outside the open interval: the argument's own status.
  for (double bad : {0.0, 1.0, -0.5, 1.5}) {
    level = bad;
    EXPECT_EQ(305, ORXanalysisExanteNormalVaR(&n, cov, mu, w, &level, &result, &status));
  }
  double r = 0.0;
  EXPECT_EQ(0, ORXanalysisExanteReturn(&n, mu, w, &r, &status));
  EXPECT_NEAR(0.015, r, 1e-17);
  EXPECT_EQ(0, ORXanalysisExanteVolatility(&n, cov, w, &r, &status));
  EXPECT_NEAR(sigma, r, 1e-16);
}

}  // namespace
