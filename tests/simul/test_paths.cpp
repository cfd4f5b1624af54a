// SPDX-License-Identifier: Apache-2.0
// Correlated geometric Brownian paths: cases fixed whatever the variates
// (one time point, zero horizon, floored zero variance, a cleared factor),
// the shock on given variates, and the shock moments statistically (which
// also check the factor of Sigma).
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kernels/index.h"
#include "lumbra.h"
#include "simul/random.h"
#include "simul/step.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::simul;

namespace {

// One export call; returns the code, paths row-major (steps by n).
int simulate(int n, int horizon, int steps, std::vector<double> start, std::vector<double> drift,
             std::vector<double> cov, std::vector<double>& paths, int& status) {
  paths.assign(static_cast<size_t>(steps) * n, -777.0);
  status = -12345;
  return ORXsimulGeometricBrownianX(&n, &horizon, &steps, start.data(), drift.data(), cov.data(),
                                    paths.data(), &status);
}

}  // namespace

// Paths fixed whatever the variates.  One time point: the start, and no
// variate drawn (seeds unchanged).  Zero horizon: dt = rootdt = 0, every
// shock is 0 + 0 (L z), so every row is the start exactly.  Zero variance,
// floored to 1e-30: L ~ 1e-15, each shock is drift dt within
// sqrt(dt) 1e-15 |z| (|z| < 6.6), so over four moves the path is the Euler
// drift path S(t+1) = S(t) (1 + drift dt) within 1e-13 relative, with
// dt = horizon / steps = 0.4 and no exponential.
TEST(SimulPaths, PathsFixedWhateverTheVariates) {
  std::vector<double> p;
  std::int32_t before[2], after[2];
  int status = 0;
  simulSeedGet(before);
  EXPECT_EQ(0, simulate(2, 3, 1, {100.0, 50.0}, {0.5, -0.25}, {4.0, 0.0, 0.0, 9.0}, p, status));
  simulSeedGet(after);
  EXPECT_EQ(0, status);
  EXPECT_TRUE(p[0] == 100.0 && p[1] == 50.0 && before[0] == after[0] && before[1] == after[1]);
  const std::vector<double> start = {1.5, 20.0, 0.75};
  EXPECT_EQ(0, simulate(3, 0, 7, start, {0.3, -0.2, 0.1},
                        {0.09, 0.01, 0.0, 0.01, 0.04, -0.02, 0.0, -0.02, 0.25}, p, status));
  EXPECT_EQ(0, status);
  for (size_t k = 0; k < p.size(); ++k) EXPECT_BITEQ(start[k % 3], p[k]) << "entry " << k;
  EXPECT_EQ(0, simulate(1, 2, 5, {80.0}, {0.1}, {0.0}, p, status));
  EXPECT_EQ(0, status);
  double expected = 80.0;
  for (int t = 0; t < 5; ++t, expected = (0.1 * 0.4 + 1.0) * expected)
    EXPECT_NEAR(expected, p[t], 1e-13 * expected) << "t " << t;
}

// Correlation 1, equal variances: the second eigenvalue is floored to 1e-30
// and whether DPOTRF accepts the rebuilt matrix depends on its rounding.
// Refused (status > 0, return 6): L is cleared and the path is the drift
// path bit for bit.  The work memory comes from the test allocator, filled
// with NaN, so a factor left uncleared after the refusal shows (fresh
// memory from the system is zero and would hide it).  Accepted: L's second column is at most ~1e-8, so both
// assets receive the same shock within 1e-6.
TEST(SimulPaths, RankDeficientCovariance) {
  for (const double var : {1.0, 0.04}) {
    const int n = 2, steps = 9;
    std::vector<double> p;
    int status = 0;
    int code = 0;
    {
      lumbra::testing::FailingAllocator nanWork(1000);
      code = simulate(n, 3, steps, {10.0, 10.0}, {0.02, 0.02}, {var, var, var, var}, p, status);
    }
    ASSERT_GE(status, 0);
    EXPECT_EQ(status > 0 ? 6 : 0, code);
    double expected = 10.0;
    for (int t = 0; t < steps; ++t, expected = ((3.0 / 9.0) * 0.02 + 1.0) * expected) {
      if (status > 0) {
        EXPECT_BITEQ(expected, p[t * n]);
        EXPECT_BITEQ(expected, p[t * n + 1]);
      } else if (t > 0) {
        EXPECT_NEAR(p[t * n] / p[t * n - n], p[t * n + 1] / p[t * n - n + 1], 1e-6)
            << "variance " << var << ", t " << t;
      }
    }
  }
}

// y = stepDrift + rootdt (L z) on dyadic data (exact in any summation
// order); the garbage above L's diagonal must not be read.
TEST(SimulPaths, ShockFromGivenVariates) {
  const double G = 1.0e300;
  const double L[9] = {2.0, 0.5, -1.0, G, 1.0, 0.25, G, G, 4.0};
  const double z[3] = {0.5, -2.0, 0.125}, stepDrift[3] = {0.0625, -0.125, 0.25};
  const double Lz[3] = {1.0, -1.75, -0.5}, y0[3] = {0.5625, -1.0, 0.0};
  double w[3] = {}, y[3] = {};
  simulShock(3, stepDrift, L, 0.5, z, w, y);
  for (int i = 0; i < 3; ++i) {
    EXPECT_BITEQ(Lz[i], w[i]);
    EXPECT_BITEQ(y0[i], y[i]);
  }
}

// Shocks y = S(t+1) / S(t) - 1 have mean drift dt and covariance Sigma dt.
// Allowed: 6 standard errors, sqrt(Sigma_ii dt / N) for a mean and
// dt sqrt((Sigma_ii Sigma_jj + Sigma_ij^2) / N) for a covariance (a false
// alarm about once in 10^8 per entry); the division adds only 1e-16 / |y|.
// In millisecond 500 the reseed restores the initial state before every
// variate, so all variates drawn then are equal: batches that may have
// crossed it (about one in a thousand) are left out.
TEST(SimulPaths, ShockMomentsMatchDriftAndCovariance) {
  constexpr int n = 3, steps = 201, wanted = 20000;  // 200 moves per batch
  const std::vector<double> Sigma = {0.04, 0.012, -0.006, 0.012, 0.09,
                                     0.027, -0.006, 0.027, 0.16};
  const std::vector<double> drift = {0.05, -0.02, 0.1};
  const double dt = 1.0 / 201.0;
  std::vector<double> y, p;  // n per move
  int status = 0;
  for (int batch = 0; static_cast<int>(y.size()) < wanted * n && batch < 400; ++batch) {
    const auto t0 = std::chrono::steady_clock::now();
    const int before = simulClockMillis();
    ASSERT_EQ(0, simulate(n, 1, steps, {1.0, 1.0, 1.0}, drift, Sigma, p, status));
    const int after = simulClockMillis();
    if ((500 - before + 1000) % 1000 <= (after - before + 1000) % 1000 ||
        std::chrono::steady_clock::now() - t0 > std::chrono::milliseconds(500))
      continue;
    for (int k = n; k < steps * n; ++k) y.push_back(p[k] / p[k - n] - 1.0);
  }
  const int N = static_cast<int>(y.size()) / n;
  ASSERT_GE(N, wanted) << "too many batches crossed the 500th millisecond";
  double mean[n] = {};
  for (int k = 0; k < N * n; ++k) mean[k % n] += y[k] / N;
  for (int i = 0; i < n; ++i) {
    EXPECT_NEAR(drift[i] * dt, mean[i], 6.0 * std::sqrt(Sigma[at(i, i, n)] * dt / N)) << i;
    for (int j = 0; j <= i; ++j) {
      double c = 0.0;
      for (int k = 0; k < N; ++k) c += (y[k * n + i] - mean[i]) * (y[k * n + j] - mean[j]);
      const double sij = Sigma[at(i, j, n)], sii = Sigma[at(i, i, n)], sjj = Sigma[at(j, j, n)];
      EXPECT_NEAR(sij * dt, c / (N - 1), 6.0 * dt * std::sqrt((sii * sjj + sij * sij) / N))
          << "covariance (" << i << ", " << j << ")";
    }
  }
}
