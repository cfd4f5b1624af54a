// Gaussian kernel density: bandwidth arithmetic, guards and agreement with
// an independent evaluation.
#include <cmath>

#include "lumbra.h"
#include "stats/analysis.h"
#include "test_support.h"

namespace {

using lumbra::stats::analysisGaussianKernel;

// x = (0, 1), one point at 0.5: both elements sit at distance 0.5, the
// standard deviation is sqrt(1/2), and the bandwidth carries the
// single-precision 2^0.2 and 1.059.
TEST(KernelDensity, TwoPointSample) {
  int n = 2, m = 1, status = -7;
  double x[2] = {0.0, 1.0}, g[1] = {0.5}, f[1] = {-1.0};
  analysisGaussianKernel(n, m, x, g, f, status);
  EXPECT_EQ(0, status);
  const double sigma = 0.7071067811865476;
  const double d = static_cast<double>(std::pow(2.0f, 0.2f));
  const double h = 1.059000015258789 * sigma / d;
  const double term = std::exp((0.0 - 0.25) / ((2.0 * h) * h)) * 0.3989422748506426;
  EXPECT_BITEQ((0.0 + term + term) / (h * 2.0), f[0]);
  // A double-precision 2^0.2 would give another bandwidth and density.
  const double hd = 1.059 * sigma / std::pow(2.0, 0.2);
  EXPECT_GT(std::fabs(hd - h), 1e-9);
}

// Against the textbook formula (1/(n h)) sum phi((g - x)/h) with the exact
// 1/sqrt(2 pi), a two-pass standard deviation and the bandwidth rule
// 1.059 sigma n^-0.2 with its single-precision factors: the kernel constant
// differs by 1.4e-8 relative, so the tolerance is 1e-7 relative.  Repeated
// points give equal densities.
TEST(KernelDensity, AgreesWithTextbookAndRepeatsPoints) {
  double x[40], g[6] = {-0.05, -0.01, 0.0, 0.0, 0.02, 0.3};
  for (int i = 0; i < 40; ++i) x[i] = 0.03 * std::sin(1.3 * i + 0.2) + 0.002 * (i % 5);
  int n = 40, m = 6, status = 0;
  double f[6];
  analysisGaussianKernel(n, m, x, g, f, status);
  ASSERT_EQ(0, status);
  double mean = 0.0, ss = 0.0;
  for (double v : x) mean += v;
  mean /= n;
  for (double v : x) ss += (v - mean) * (v - mean);
  const double h = static_cast<double>(1.059f) * std::sqrt(ss / (n - 1)) /
                   static_cast<double>(std::pow(static_cast<float>(n), 0.2f));
  for (int i = 0; i < m; ++i) {
    double s = 0.0;
    for (double v : x) s += std::exp(-0.5 * ((g[i] - v) / h) * ((g[i] - v) / h));
    const double ref = s / (std::sqrt(2.0 * M_PI) * n * h);
    EXPECT_NEAR(ref, f[i], 1e-7 * ref + 1e-300) << i;
  }
  EXPECT_BITEQ(f[2], f[3]);
  EXPECT_GT(f[2], f[5]);
}

TEST(KernelDensity, ConstantSampleHasNoGuard) {
  int n = 3, m = 2, status = -7;
  double x[3] = {0.5, 0.5, 0.5}, g[2] = {0.5, 1.0}, f[2] = {1.0, 1.0};
  analysisGaussianKernel(n, m, x, g, f, status);
  EXPECT_EQ(0, status);
  EXPECT_FALSE(std::isfinite(f[0]));
  EXPECT_FALSE(std::isfinite(f[1]));
}

TEST(KernelDensity, ExportChecksPointOrder) {
  int n = 3, m = 3, status = 0;
  double x[3] = {0.0, 1.0, 3.0}, f[3] = {9.0, 9.0, 9.0};
  double down[3] = {0.0, 2.0, 1.0};
  EXPECT_EQ(304, ORXanalysisGaussianKernel(&n, &m, x, down, f, &status));
  EXPECT_BITEQ(0.0, f[0]);
  double ties[3] = {1.0, 1.0, 2.0};
  EXPECT_EQ(0, ORXanalysisGaussianKernel(&n, &m, x, ties, f, &status));
  EXPECT_BITEQ(f[0], f[1]);
  EXPECT_GT(f[0], 0.0);
  int zero = 0;
  EXPECT_EQ(302, ORXanalysisGaussianKernel(&n, &zero, x, ties, f, &status));
}

}  // namespace
