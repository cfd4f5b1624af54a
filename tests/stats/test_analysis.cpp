// SPDX-License-Identifier: Apache-2.0
// Ex-ante return, volatility and normal value at risk, ex-post mean and
// deviation, and the Gaussian kernel density, through engine and exports.
// Independent references (scipy, numpy) are in test_stats_reference.py.
#include <cmath>
#include <limits>

#include "lumbra.h"
#include "stats/analysis.h"
#include "test_support.h"

namespace {

using namespace lumbra::stats;

// Dyadic data, exact through BLAS in any order.  Sigma is not symmetric:
// the full form gives 1.625, its upper triangle 1.875, its lower 1.375.
// An indefinite matrix gives a NaN volatility with status 0.
TEST(Exante, ReturnAndVolatilityExact) {
  int n = 3, one = 1, status = -7;
  const double mu[3] = {0.25, -0.5, 0.125}, w[3] = {0.5, 0.25, -0.25}, bad[1] = {-1.0};
  const double Sigma[9] = {4.0, 1.0, 0.0, 3.0, 2.0, 0.5, 0.0, 0.5, 1.0};
  double r = 0.0, v = 0.0, s = 0.0;
  analysisPortfolioReturn(n, mu, w, r, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(-0.03125, r);
  analysisPortfolioVariance(n, Sigma, w, v, status);
  EXPECT_BITEQ(1.625, v);
  analysisPortfolioVolatility(n, Sigma, w, s, status);
  EXPECT_BITEQ(std::sqrt(1.625), s);
  analysisPortfolioVolatility(one, bad, w, s, status);
  EXPECT_EQ(0, status);
  EXPECT_TRUE(std::isnan(s));
}

// Mean 0.01, sigma 0.2: -0.31897 at 95%, the mean at 0.5 (z ~ 1e-16).  The
// level limits themselves are inside; just beyond, status -102, result 0.
TEST(Exante, NormalVaRCasesAndLevelLimits) {
  int n = 1, status = -7;
  double Sigma[1] = {0.04}, mu[1] = {0.01}, w[1] = {1.0}, result = 1.0;
  analysisNormalVaR(n, Sigma, mu, w, 0.95, result, status);
  EXPECT_EQ(0, status);
  EXPECT_NEAR(0.01 - 0.2 * 1.6448536269514722, result, 1e-16);
  EXPECT_NEAR(-0.31897, result, 1e-5);
  analysisNormalVaR(n, Sigma, mu, w, 0.5, result, status);
  EXPECT_NEAR(0.01, result, 1e-16);
  for (double level : {9.99999993922529e-9, 0.99999999, 0.9999999900000001}) {
    analysisNormalVaR(n, Sigma, mu, w, level, result, status);
    EXPECT_EQ(0, status) << level;
    EXPECT_GT(std::fabs(result), 1.05) << level;  // |z| > 5
  }
  for (double level : {1e-9, 9.99999993922529e-9 * 0.999999, 0.999999999, 0.99999999000001}) {
    result = 3.0;
    analysisNormalVaR(n, Sigma, mu, w, level, result, status);
    EXPECT_EQ(kStatusBadLevel, status) << level;
    EXPECT_BITEQ(0.0, result);
  }
}

// Exports on a row-major matrix, restored afterwards; tolerance a few ulps
// through BLAS.  Ex-post: the published series 1, 2, 3.
TEST(AnalysisExports, TwoAssetsAndPublishedSeries) {
  int n = 2, three = 3, status = 0;
  double cov[4] = {0.04, 0.01, 0.01, 0.09}, mu[2] = {0.01, 0.02}, w[2] = {0.5, 0.5};
  double x[3] = {1.0, 2.0, 3.0}, level = 0.99, r = 0.0;
  const double sigma = std::sqrt(0.25 * 0.04 + 0.5 * 0.01 + 0.25 * 0.09);
  EXPECT_EQ(0, ORXanalysisExanteNormalVaR(&n, cov, mu, w, &level, &r, &status));
  EXPECT_EQ(0, status);
  EXPECT_NEAR(0.015 - sigma * 2.3263478740408408, r, 1e-15);
  EXPECT_TRUE(cov[0] == 0.04 && cov[1] == 0.01);
  EXPECT_EQ(0, ORXanalysisExanteReturn(&n, mu, w, &r, &status));
  EXPECT_NEAR(0.015, r, 1e-17);
  EXPECT_EQ(0, ORXanalysisExanteVolatility(&n, cov, w, &r, &status));
  EXPECT_NEAR(sigma, r, 1e-16);
  EXPECT_EQ(0, ORXanalysisExpostReturn(&three, x, &r, &status));
  EXPECT_BITEQ(2.0, r);
  EXPECT_EQ(0, ORXanalysisExpostVolatility(&three, x, &r, &status));
  EXPECT_BITEQ(1.0, r);
}

// The one-pass formula on constant non-dyadic series leaves a variance of
// either sign: negative is floored to 0.0 (never NaN), positive stays (0.1
// five times; two-pass would give 0.0).  ~1e-32 is under the floor, 1.33e-28
// is not; NaN propagates; one element is refused with the result cleared.
TEST(Expost, ConstantTinyAndShortSeries) {
  const struct {
    double level;
    int n;
    double expect;
  } cases[] = {{0.1, 3, 0.0}, {0.7, 5, 0.0}, {1e6 + 0.3, 3, 0.0}, {0.25, 6, 0.0},
               {0.1, 5, std::sqrt(1.734723475976807e-18)}};
  int n = 4, one = 1, status = 0;
  double r = -1.0;
  for (const auto& c : cases) {
    double x[6] = {c.level, c.level, c.level, c.level, c.level, c.level};
    analysisSeriesStdDev(c.n, x, r, status);
    EXPECT_BITEQ(c.expect, r) << c.level << " x " << c.n;
  }
  double tiny[4] = {1e-16, -1e-16, 1e-16, -1e-16}, small[4] = {1e-14, -1e-14, 1e-14, -1e-14};
  analysisSeriesStdDev(n, tiny, r, status);
  EXPECT_BITEQ(0.0, r);
  analysisSeriesStdDev(n, small, r, status);
  EXPECT_NEAR(std::sqrt(4e-28 / 3.0), r, 1e-28);
  EXPECT_GT(r, 0.0);
  small[1] = std::numeric_limits<double>::quiet_NaN();
  analysisSeriesStdDev(n, small, r, status);
  EXPECT_EQ(0, status);
  EXPECT_TRUE(std::isnan(r));
  analysisSeriesStdDev(one, small, r, status);
  EXPECT_EQ(kStatusBadSize, status);
  EXPECT_BITEQ(0.0, r);
}

// x = (0, 1) at 0.5: both at distance 0.5, deviation sqrt(1/2); a double
// 2^0.2 or 1.059 in the bandwidth changes the bits.  A constant sample has
// zero bandwidth and no guard: non-finite densities with status 0.
TEST(KernelDensity, TwoPointAndConstantSamples) {
  int two = 2, three = 3, one = 1, status = -7;
  double x[2] = {0.0, 1.0}, g[2] = {0.5, 1.0}, c[3] = {0.5, 0.5, 0.5}, f[2] = {-1.0, -1.0};
  analysisGaussianKernel(two, one, x, g, f, status);
  EXPECT_EQ(0, status);
  const double h = 1.059000015258789 * 0.7071067811865476 / double(std::pow(2.0f, 0.2f));
  const double term = std::exp((0.0 - 0.25) / ((2.0 * h) * h)) * 0.3989422748506426;
  EXPECT_BITEQ((0.0 + term + term) / (h * 2.0), f[0]);
  status = -7;
  analysisGaussianKernel(three, two, c, g, f, status);
  EXPECT_EQ(0, status);
  EXPECT_FALSE(std::isfinite(f[0]) || std::isfinite(f[1]));
}

}  // namespace
