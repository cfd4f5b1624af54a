// Modified (Cornish-Fisher) value at risk: the co-moment and tuple sums
// against the portfolio series, the single-precision kurtosis factors, an
// independent evaluation of the whole expansion, and the statuses.
#include <cmath>
#include <vector>

#include "lumbra.h"
#include "stats/analysis.h"
#include "stats/normal.h"
#include "test_support.h"

namespace {

using namespace lumbra::stats;

// T = 8 dyadic returns of n = 3 assets (column-major) and dyadic weights:
// every product, sum and mean below is exact, so the tuple sums, the
// co-moment route and the portfolio series must agree bit for bit whatever
// order BLAS adds in.
constexpr int kT = 8, kN = 3;
const double kR[kT * kN] = {0.5,  -0.25, 0.125, 0.75, -0.5, 0.25,  0.0,    -0.125,
                            -0.5, 0.25,  0.5,   -0.75, 0.125, 0.0,  0.25,  0.375,
                            0.25, 0.25,  -0.125, 0.0,  0.5,  -0.25, -0.375, 0.125};
const double kW[kN] = {0.5, 0.25, -0.25};

double portfolio(int t) {
  double p = 0.0;
  for (int i = 0; i < kN; ++i) p += kW[i] * kR[t + kT * i];
  return p;
}

TEST(ModifiedVaR, RawMomentsEqualSeriesPowers) {
  for (int q = 1; q <= 4; ++q) {
    double expect = 0.0;
    for (int t = 0; t < kT; ++t) expect += std::pow(portfolio(t), q);
    expect /= kT;
    double m = -1.0;
    int status = -7;
    analysisRawMoment(kT, kN, q, kW, kR, m, status);
    EXPECT_EQ(0, status);
    EXPECT_BITEQ(expect, m) << "order " << q;
  }
  double m = 1.0;
  int status = 0;
  for (int bad : {0, 5}) {
    analysisRawMoment(kT, kN, bad, kW, kR, m, status);
    EXPECT_EQ(kStatusBadIndex, status);
    EXPECT_BITEQ(0.0, m);
  }
}

TEST(ModifiedVaR, ThirdMomentEqualsCentredSeries) {
  double mean = 0.0;
  for (int t = 0; t < kT; ++t) mean += portfolio(t);
  mean /= kT;
  double expect = 0.0;
  for (int t = 0; t < kT; ++t) expect += std::pow(portfolio(t) - mean, 3);
  expect /= kT;
  std::vector<double> work(kN * (5 * kN + 1));
  double m3 = 0.0;
  int status = -7;
  analysisThirdMoment(kT, kN, kW, kR, work.data(), m3, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(expect, m3);
  EXPECT_NE(0.0, m3);  // the data are skewed, so the check has teeth
  double M[kN * kN];
  analysisCoMomentSlice(kT, kN, kN, kR, work.data(), M, status);
  EXPECT_EQ(kStatusBadIndex, status);
  analysisCoMomentSlice(kT, kN, -1, kR, work.data(), M, status);
  EXPECT_EQ(kStatusBadIndex, status);
}

// T = 4, one asset alternating +-1: m1 = m3 = 0, m2 = m4 = 1, so c4 = 1 and
// with V = 1 the kurtosis is a - 3 - b, a = 44/6 rounded to single
// precision (7.3333335) and b = 45/8.
TEST(ModifiedVaR, KurtosisFactorsInSinglePrecision) {
  const double R[4] = {1.0, -1.0, 1.0, -1.0};
  const double w[1] = {1.0}, V[1] = {1.0};
  double K = 0.0;
  int status = -7;
  analysisExcessKurtosis(4, 1, w, R, V, K, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(7.333333492279053 - 3.0 - 5.625, K);
  analysisExcessKurtosis(3, 1, w, R, V, K, status);
  EXPECT_EQ(kStatusBadSize, status);
  double S = 1.0, work[6];
  analysisSkewness(2, 1, w, R, V, work, S, status);
  EXPECT_EQ(kStatusBadSize, status);
  EXPECT_BITEQ(0.0, S);
}

// The expansion evaluated independently from the portfolio series:
// mean + sigma (-z + (z^2-1) S/6 - (z^3-3z) K/24 + (2z^3-5z) S^2/36) with the
// sample variance (single-precision 1/(T-1)) for sigma and the given V in
// the skewness and kurtosis denominators.  V is deliberately not the sample
// covariance, so mixing the two up moves the result far beyond the
// tolerance; 1e-12 relative covers the different summation orders.
double independentModifiedVaR(int T, int n, const double* w, const double* R,
                              const double* V, double level) {
  std::vector<double> p(T);
  double mean = 0.0;
  for (int t = 0; t < T; ++t) {
    p[t] = 0.0;
    for (int i = 0; i < n; ++i) p[t] += w[i] * R[t + T * i];
    mean += p[t];
  }
  mean /= T;
  double s2 = 0.0, s3 = 0.0, s4 = 0.0;
  for (int t = 0; t < T; ++t) {
    const double c = p[t] - mean;
    s2 += c * c;
    s3 += c * c * c;
    s4 += c * c * c * c;
  }
  const double variance = s2 * static_cast<double>(1.0f / static_cast<float>(T - 1));
  double vV = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) vV += w[i] * V[i + n * j] * w[j];
  const double S = (s3 / T) / std::pow(vV, 1.5);
  const float f = static_cast<float>(T);
  const double a = static_cast<float>(f * (f * f - 2.0f * f + 3.0f)) /
                   static_cast<float>((f - 1.0f) * (f - 2.0f) * (f - 3.0f));
  const double b = static_cast<float>(3.0f * (f - 1.0f) * (2.0f * f - 3.0f)) /
                   static_cast<float>(f * (f - 2.0f) * (f - 3.0f));
  const double K = static_cast<float>(a) * ((s4 / T) / (vV * vV)) - 3.0 - static_cast<float>(b);
  const double z = normalQuantile(level, 1.0 - level);
  const double c6 = 1.0f / 6.0f, c24 = 1.0f / 24.0f, c36 = 1.0f / 36.0f;
  return mean + std::sqrt(variance) * (-z + (z * z - 1.0) * S * c6 -
                                       (z * z * z - 3.0 * z) * K * c24 +
                                       (2.0 * z * z * z - 5.0 * z) * S * S * c36);
}

TEST(ModifiedVaR, AgreesWithIndependentExpansion) {
  for (int n : {1, 3}) {
    const int T = 13;
    std::vector<double> R(T * n), V(n * n);
    std::vector<double> w = {0.6, -0.3, 0.7};
    for (int i = 0; i < n; ++i)
      for (int t = 0; t < T; ++t)
        R[t + T * i] = 0.01 * std::sin(1.7 * t + i) + 0.004 * std::cos(0.3 * t * t + 2.0 * i) +
                       (t == 5 ? -0.03 : 0.0);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) V[i + n * j] = (i == j ? 1.5e-4 : 2e-5);
    for (double level : {0.01, 0.05, 0.5, 0.99}) {
      std::vector<double> work(n * (T + 6 * n + 2));
      double result = 0.0;
      int status = -7;
      analysisModifiedVaR(T, n, w.data(), R.data(), V.data(), level, work.data(), result,
                          status);
      EXPECT_EQ(0, status);
      const double ref = independentModifiedVaR(T, n, w.data(), R.data(), V.data(), level);
      EXPECT_NEAR(ref, result, 1e-12 * std::fabs(ref)) << "n " << n << " level " << level;
    }
  }
}

TEST(ModifiedVaR, StatusesAndDegenerateHistories) {
  int T = 5, n = 2, status = 0;
  double w[2] = {0.5, 0.5}, cov[4] = {1e-4, 0.0, 0.0, 1e-4}, level = 0.95, result = 7.0;
  // Constant history: zero sample variance, -104, export status 5.
  double flat[10] = {0.01, 0.02, 0.01, 0.02, 0.01, 0.02, 0.01, 0.02, 0.01, 0.02};
  EXPECT_EQ(5, ORXanalysisExanteModifiedVaR(&T, &n, w, flat, cov, &level, &result, &status));
  EXPECT_EQ(kStatusZeroVariance, status);
  EXPECT_BITEQ(0.0, result);
  EXPECT_BITEQ(0.02, flat[1]);  // converted back to row-major
  // Zero weights: zero variance as well, whatever the history.
  double moving[10] = {0.01, -0.02, 0.03, 0.0, -0.01, 0.02, 0.005, 0.01, 0.0, -0.03};
  double zero[2] = {0.0, 0.0};
  EXPECT_EQ(5, ORXanalysisExanteModifiedVaR(&T, &n, zero, moving, cov, &level, &result,
                                            &status));
  EXPECT_EQ(kStatusZeroVariance, status);
  // Engine level limits inside the open interval, and the export's own test.
  level = 0.999999999;
  EXPECT_EQ(5, ORXanalysisExanteModifiedVaR(&T, &n, w, moving, cov, &level, &result, &status));
  EXPECT_EQ(kStatusBadLevel, status);
  level = 1.0;
  EXPECT_EQ(306, ORXanalysisExanteModifiedVaR(&T, &n, w, moving, cov, &level, &result,
                                              &status));
  level = 0.95;
  EXPECT_EQ(0, ORXanalysisExanteModifiedVaR(&T, &n, w, moving, cov, &level, &result, &status));
  EXPECT_EQ(0, status);
  EXPECT_LT(result, 0.0);
  int three = 3;
  EXPECT_EQ(301, ORXanalysisExanteModifiedVaR(&three, &n, w, moving, cov, &level, &result,
                                              &status));
}

// Skewness and kurtosis both zero reduce the expansion to mean - sigma z.
TEST(ModifiedVaR, CornishFisherReducesToNormal) {
  double result = 0.0;
  int status = -7;
  const double z = 1.6448536269514722;
  analysisCornishFisher(0.01, 0.04, 0.0, 0.0, z, result, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(0.2 * (0.0 - z) + 0.01, result);
  analysisCornishFisher(0.01, 1e-31, 0.0, 0.0, z, result, status);
  EXPECT_EQ(kStatusZeroVariance, status);
  EXPECT_BITEQ(0.0, result);
}

}  // namespace
