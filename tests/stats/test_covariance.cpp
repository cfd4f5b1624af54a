// SPDX-License-Identifier: Apache-2.0
// Covariance and correlation: the single-precision scale, exact values on
// dyadic data, and the degenerate assets of the correlation.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "kernels/index.h"
#include "stats/covariance.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::stats;

namespace {

struct Moments {
  std::vector<double> cov;
  std::vector<double> corr;
  int covStatus = 99;
  int corrStatus = 99;
};

// Covariance and correlation of the column-major T by n table X.
Moments moments(int T, int n, const std::vector<double>& X) {
  Moments m;
  m.cov.assign(static_cast<size_t>(n) * n, -1.0);
  m.corr.assign(static_cast<size_t>(n) * n, -1.0);
  std::vector<double> means(n), centred(static_cast<size_t>(T) * n);
  modelingCovSample(T, n, X.data(), means.data(), centred.data(), m.cov.data(), m.covStatus);
  std::vector<double> work(static_cast<size_t>(n) * (T + n + 2));
  modelingCorrSample(T, n, X.data(), work.data(), m.corr.data(), m.corrStatus);
  return m;
}

}  // namespace

TEST(Covariance, ScaleIsASinglePrecisionQuotient) {
  EXPECT_BITEQ(0.3333333432674408, covarianceScale(4));
  EXPECT_NE(1.0 / 3.0, covarianceScale(4));
  EXPECT_BITEQ(1.0, covarianceScale(2));
  EXPECT_BITEQ(0.125, covarianceScale(9));  // exact when T - 1 is a power of two
  EXPECT_BITEQ(static_cast<double>(1.0f / 250.0f), covarianceScale(251));
}

TEST(Covariance, ExactOnDyadicDataWithFourObservations) {
  // Columns with dyadic deviations from their means: every product and sum
  // is exact, so the only rounding is the scale itself.
  const int T = 4, n = 2;
  const std::vector<double> X = {1.0, 2.0, 3.0, 6.0, 0.5, 0.5, 1.5, -0.5};
  const Moments m = moments(T, n, X);
  ASSERT_EQ(0, m.covStatus);
  // means 3 and 0.5; deviations (-2,-1,0,3) and (0,0,1,-1).
  const double scale = 0.3333333432674408;
  EXPECT_BITEQ(14.0 * scale, m.cov[at(0, 0, 2)]);
  EXPECT_BITEQ(-3.0 * scale, m.cov[at(0, 1, 2)]);
  EXPECT_BITEQ(-3.0 * scale, m.cov[at(1, 0, 2)]);
  EXPECT_BITEQ(2.0 * scale, m.cov[at(1, 1, 2)]);
}

TEST(Correlation, ConstantAssetsGetZeroCorrelationsAndAWarning) {
  // Assets 1 and 3 are constant; 0 and 2 vary.
  const int T = 3, n = 4;
  const std::vector<double> X = {1.0, 2.0, 4.0, 5.0, 5.0, 5.0,
                                 -1.0, 0.0, 3.0, 0.0, 0.0, 0.0};
  const Moments m = moments(T, n, X);
  EXPECT_EQ(5, m.corrStatus);  // stays set although later pairs are fine
  for (int k = 0; k < n; ++k) EXPECT_BITEQ(1.0, m.corr[at(k, k, n)]);
  for (int k = 0; k < n; ++k) {
    if (k != 1) {
      EXPECT_BITEQ(0.0, m.corr[at(1, k, n)]);
    }
    if (k != 3) {
      EXPECT_BITEQ(0.0, m.corr[at(k, 3, n)]);
    }
  }
  const double c02 = m.cov[at(0, 2, n)] / std::sqrt(m.cov[at(0, 0, n)] * m.cov[at(2, 2, n)]);
  EXPECT_NEAR(c02, m.corr[at(0, 2, n)], 1e-15);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) EXPECT_BITEQ(m.corr[at(i, j, n)], m.corr[at(j, i, n)]);
}

TEST(Correlation, SingleAssetIsOneEvenWhenConstant) {
  const std::vector<double> X = {2.0, 2.0, 2.0};
  const Moments m = moments(3, 1, X);
  EXPECT_EQ(0, m.corrStatus);
  EXPECT_BITEQ(1.0, m.corr[0]);
}

TEST(Correlation, FloorOnVariancesAndTheirProduct) {
  // Deviations of +-1e-14 give variances near 1e-28: above the floor.  With
  // +-1e-16 the variances near 1e-32 fall below it.
  for (const double d : {1e-14, 1e-16}) {
    const std::vector<double> X = {d, -d, d, -d, -d, d, d, -d};
    const Moments m = moments(4, 2, X);
    if (d == 1e-14) {
      EXPECT_EQ(0, m.corrStatus);
      EXPECT_NEAR(0.0, m.corr[at(0, 1, 2)], 1e-12);
    } else {
      EXPECT_EQ(5, m.corrStatus);
      EXPECT_BITEQ(0.0, m.corr[at(0, 1, 2)]);
    }
  }
}

TEST(Covariance, TransposedTableGivesTheSameBits) {
  // The exports hand the engine the caller's row-major table as X'; its
  // means, centring and products must be those of X to the last bit, for
  // shapes below and across the tiles and the eight-column groups of the
  // column means.  The Gram product is the same BLAS call on the same
  // centred table either way, so equality is exact on any BLAS.
  for (const auto& [T, n] : {std::pair<int, int>{2, 1}, {3, 5}, {40, 9}, {75, 33}, {130, 70}}) {
    std::vector<double> X(static_cast<size_t>(T) * n), Xt(X.size());
    unsigned state = 977u * static_cast<unsigned>(T) + static_cast<unsigned>(n);
    for (double& v : X) {
      state = state * 1103515245u + 12345u;
      v = static_cast<double>((state >> 8) % 20001u) / 1e6 - 0.01;
    }
    for (int i = 0; i < T; ++i)
      for (int j = 0; j < n; ++j) Xt[at(j, i, n)] = X[at(i, j, T)];
    const Moments m = moments(T, n, X);
    std::vector<double> means(n), centred(X.size()), cov(static_cast<size_t>(n) * n, -1.0),
        corr(cov.size(), -1.0), work(static_cast<size_t>(n) * (T + n + 2));
    int covStatus = 99, corrStatus = 99;
    modelingCovSampleTransposed(T, n, Xt.data(), means.data(), centred.data(), cov.data(),
                                covStatus);
    modelingCorrSampleTransposed(T, n, Xt.data(), work.data(), corr.data(), corrStatus);
    EXPECT_EQ(m.covStatus, covStatus);
    EXPECT_EQ(m.corrStatus, corrStatus);
    for (size_t k = 0; k < cov.size(); ++k) {
      EXPECT_BITEQ(m.cov[k], cov[k]) << "T " << T << " n " << n << " k " << k;
      EXPECT_BITEQ(m.corr[k], corr[k]) << "T " << T << " n " << n << " k " << k;
    }
  }
}
