// Ex-post mean and standard deviation of one series.
#include <cmath>
#include <limits>

#include "lumbra.h"
#include "stats/analysis.h"
#include "test_support.h"

namespace {

using lumbra::stats::analysisSeriesStdDev;

TEST(Expost, PublishedSeries) {
  int n = 3, status = -7;
  double x[3] = {1.0, 2.0, 3.0}, r = 0.0;
  EXPECT_EQ(0, ORXanalysisExpostReturn(&n, x, &r, &status));
  EXPECT_BITEQ(2.0, r);
  EXPECT_EQ(0, ORXanalysisExpostVolatility(&n, x, &r, &status));
  EXPECT_BITEQ(1.0, r);
  EXPECT_EQ(0, status);
  int one = 1;
  EXPECT_EQ(0, ORXanalysisExpostReturn(&one, x + 2, &r, &status));
  EXPECT_BITEQ(3.0, r);
  EXPECT_EQ(301, ORXanalysisExpostVolatility(&one, x, &r, &status));
}

// The one-pass formula on constant series that are not dyadic: cancellation
// leaves a small variance of either sign.  A negative one is swallowed by the
// floor (0.0, never NaN); a positive one stays, as the shortcut formula
// gives it (a two-pass formula would give exactly 0.0 here).
TEST(Expost, ConstantAndTinySeries) {
  int status = 0;
  double r = -1.0;
  struct Case {
    double level;
    int n;
  };
  for (Case c : {Case{0.1, 3}, Case{0.7, 5}, Case{1e6 + 0.3, 3}, Case{0.25, 6}}) {
    double x[6] = {c.level, c.level, c.level, c.level, c.level, c.level};
    analysisSeriesStdDev(c.n, x, r, status);
    EXPECT_BITEQ(0.0, r) << c.level;
  }
  double x[5] = {0.1, 0.1, 0.1, 0.1, 0.1};
  int five = 5;
  analysisSeriesStdDev(five, x, r, status);
  EXPECT_BITEQ(std::sqrt(1.734723475976807e-18), r);
  // Standard deviation 1e-16 around zero: variance ~1e-32, under the floor.
  double tiny[4] = {1e-16, -1e-16, 1e-16, -1e-16};
  int n = 4;
  analysisSeriesStdDev(n, tiny, r, status);
  EXPECT_BITEQ(0.0, r);
  // 1e-14 passes: variance 1.33e-28.
  double small[4] = {1e-14, -1e-14, 1e-14, -1e-14};
  analysisSeriesStdDev(n, small, r, status);
  EXPECT_NEAR(std::sqrt(4e-28 / 3.0), r, 1e-28);
  EXPECT_GT(r, 0.0);
}

TEST(Expost, NaNPropagatesAndShortSeries) {
  int status = 0, n = 3;
  double x[3] = {1.0, std::numeric_limits<double>::quiet_NaN(), 2.0}, r = 0.0;
  analysisSeriesStdDev(n, x, r, status);
  EXPECT_EQ(0, status);
  EXPECT_TRUE(std::isnan(r));
  int one = 1;
  r = 5.0;
  analysisSeriesStdDev(one, x, r, status);
  EXPECT_EQ(-2, status);
  EXPECT_BITEQ(0.0, r);
}

// The shortcut formula against the two-pass one, on data where both are
// well conditioned (tolerance: a few ulps of the deviation).
TEST(Expost, AgreesWithTwoPass) {
  double x[50];
  for (int i = 0; i < 50; ++i) x[i] = std::sin(0.7 * i) * 0.02 + 0.001 * (i % 7);
  double mean = 0.0;
  for (double v : x) mean += v;
  mean /= 50;
  double ss = 0.0;
  for (double v : x) ss += (v - mean) * (v - mean);
  int n = 50, status = 0;
  double r = 0.0;
  analysisSeriesStdDev(n, x, r, status);
  EXPECT_NEAR(std::sqrt(ss / 49), r, 1e-13 * r);
}

}  // namespace
