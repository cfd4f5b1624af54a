// Correlated geometric Brownian paths: the cases where the path is fixed
// whatever the variates (one time point, zero horizon, a floored zero
// variance, a factor cleared after DPOTRF gave up), the shock formula on
// given variates, and the shock covariance against Sigma dt statistically.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kernels/index.h"
#include "lumbra.h"
#include "simul/random.h"
#include "simul/simul.h"
#include "simul/step.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::simul;

namespace {

// Result of one export call; paths row-major, steps by n.
struct SimRun {
  int code = -1;
  int status = -12345;
  std::vector<double> paths;
};

SimRun simulate(int n, int horizon, int steps, std::vector<double> start,
             std::vector<double> drift, std::vector<double> cov) {
  SimRun r;
  r.paths.assign(static_cast<size_t>(steps) * n, -777.0);
  r.code = ORXsimulGeometricBrownianX(&n, &horizon, &steps, start.data(), drift.data(),
                                      cov.data(), r.paths.data(), &r.status);
  return r;
}

double rowMajor(const SimRun& r, int n, int t, int j) {
  return r.paths[static_cast<size_t>(t) * n + j];
}

}  // namespace

TEST(SimulPaths, OneTimePointGivesTheStartAndDrawsNothing) {
  // Engine level, so the work can be inspected: the drift step and the
  // Cholesky factor are still formed, but no variate is drawn.
  const int n = 2, horizon = 3, steps = 1;
  const double start[2] = {100.0, 50.0};
  const double drift[2] = {0.5, -0.25};
  const double Sigma[4] = {4.0, 0.0, 0.0, 9.0};
  std::vector<int> iwork(12 * n);
  std::vector<double> work(static_cast<size_t>(n) * (5 * n + 31), -777.0);
  double paths[2] = {-1.0, -1.0};
  std::int32_t before[2], after[2];
  simulSeedGet(before);
  int status = -12345;
  simulGeometricBrownian(n, horizon, steps, start, drift, Sigma, iwork.data(), work.data(),
                         paths, status);
  simulSeedGet(after);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(100.0, paths[0]);
  EXPECT_BITEQ(50.0, paths[1]);
  EXPECT_EQ(before[0], after[0]);
  EXPECT_EQ(before[1], after[1]);
  // stepDrift = (horizon / steps) drift; L = diag(2, 3) (through LAPACK, so
  // within a few ulps).
  const double* stepDrift = work.data() + n;
  const double* L = stepDrift + n;
  EXPECT_BITEQ(1.5, stepDrift[0]);
  EXPECT_BITEQ(-0.75, stepDrift[1]);
  EXPECT_NEAR(2.0, L[at(0, 0, n)], 1e-14);
  EXPECT_BITEQ(0.0, L[at(0, 1, n)]);
  EXPECT_NEAR(0.0, L[at(1, 0, n)], 1e-14);
  EXPECT_NEAR(3.0, L[at(1, 1, n)], 1e-14);
}

TEST(SimulPaths, ZeroHorizonKeepsEveryRowAtTheStart) {
  // dt = 0 and rootdt = 0: every shock is 0 + 0 (L z), so each row is the
  // start exactly, whatever variates were drawn.
  const int n = 3, steps = 7;
  const SimRun r = simulate(n, 0, steps, {1.5, 20.0, 0.75}, {0.3, -0.2, 0.1},
                         {0.09, 0.01, 0.0, 0.01, 0.04, -0.02, 0.0, -0.02, 0.25});
  EXPECT_EQ(0, r.code);
  EXPECT_EQ(0, r.status);
  const double start[3] = {1.5, 20.0, 0.75};
  for (int t = 0; t < steps; ++t)
    for (int j = 0; j < n; ++j) EXPECT_BITEQ(start[j], rowMajor(r, n, t, j)) << "t " << t;
}

TEST(SimulPaths, FlooredZeroVarianceFollowsTheEulerDrift) {
  // Sigma = 0 is floored to 1e-30, so L is about 1e-15 and each shock differs
  // from drift dt by at most sqrt(dt) 1e-15 |z| with |z| < 6.6: over four moves
  // the path stays within 1e-13 relative of S(t+1) = S(t) (1 + drift dt), with
  // dt = horizon / steps = 0.4 (not horizon / (steps - 1)) and no exponential.
  const int steps = 5;
  const SimRun r = simulate(1, 2, steps, {80.0}, {0.1}, {0.0});
  EXPECT_EQ(0, r.code);
  EXPECT_EQ(0, r.status);
  double expected = 80.0;
  const double growth = 0.1 * 0.4 + 1.0;
  for (int t = 0; t < steps; ++t) {
    EXPECT_NEAR(expected, r.paths[t], 1e-13 * expected) << "t " << t;
    expected = growth * expected;
  }
}

TEST(SimulPaths, RankDeficientCovariance) {
  // Two assets with correlation 1 and equal variances: the second eigenvalue
  // is floored to 1e-30, and whether DPOTRF then accepts the rebuilt matrix
  // depends on the rounding of the rebuild.  Either way the result is pinned:
  //  - DPOTRF refused (positive status, return 6): L is cleared, every shock
  //    is exactly drift dt, and the path is the drift path bit for bit;
  //  - DPOTRF accepted: L's second column is of the order of the square root
  //    of the rounding (1e-8 at most here), so the two assets receive the same
  //    shock to within 1e-6.
  for (const double var : {1.0, 0.04}) {
    const int n = 2, horizon = 3, steps = 9;
    const SimRun r = simulate(n, horizon, steps, {10.0, 10.0}, {0.02, 0.02}, {var, var, var, var});
    ASSERT_GE(r.status, 0);
    const double dt = 3.0 / 9.0;
    if (r.status > 0) {
      EXPECT_EQ(6, r.code);
      const double y = dt * 0.02;
      double expected = 10.0;
      for (int t = 0; t < steps; ++t) {
        EXPECT_BITEQ(expected, rowMajor(r, n, t, 0));
        EXPECT_BITEQ(expected, rowMajor(r, n, t, 1));
        expected = (y + 1.0) * expected;
      }
    } else {
      EXPECT_EQ(0, r.code);
      for (int t = 1; t < steps; ++t) {
        const double y0 = rowMajor(r, n, t, 0) / rowMajor(r, n, t - 1, 0) - 1.0;
        const double y1 = rowMajor(r, n, t, 1) / rowMajor(r, n, t - 1, 1) - 1.0;
        EXPECT_NEAR(y0, y1, 1e-6) << "variance " << var << ", t " << t;
      }
    }
  }
}

TEST(SimulPaths, ShockFromGivenVariates) {
  // y = stepDrift + rootdt (L z) on dyadic data, so every summation order
  // gives the same bits.  The elements above L's diagonal hold garbage that
  // must not be read.
  const int n = 3;
  const double G = 1.0e300;
  const double L[9] = {2.0, 0.5, -1.0,  // column 0
                       G, 1.0, 0.25,    // column 1
                       G, G, 4.0};      // column 2
  const double z[3] = {0.5, -2.0, 0.125};
  const double stepDrift[3] = {0.0625, -0.125, 0.25};
  const double rootdt = 0.5;
  double w[3] = {}, y[3] = {};
  simulShock(n, stepDrift, L, rootdt, z, w, y);
  // L z = (1, 0.25 - 2, -0.5 - 0.5 + 0.5) = (1, -1.75, -0.5)
  EXPECT_BITEQ(1.0, w[0]);
  EXPECT_BITEQ(-1.75, w[1]);
  EXPECT_BITEQ(-0.5, w[2]);
  EXPECT_BITEQ(0.5625, y[0]);
  EXPECT_BITEQ(-1.0, y[1]);
  EXPECT_BITEQ(0.0, y[2]);
}

TEST(SimulPaths, ShockMomentsMatchDriftAndCovariance) {
  // The shocks y(t) = S(t+1) / S(t) - 1 of many moves have mean drift dt and
  // covariance Sigma dt.  With N accepted moves the standard error of the
  // mean of asset i is sqrt(Sigma_ii dt / N) and that of the covariance
  // (i, j) is dt sqrt((Sigma_ii Sigma_jj + Sigma_ij^2) / N); the test allows 6
  // standard errors (a false alarm about once in 10^8 per entry for normal
  // shocks).  The division adds an error of 1e-16 / |y|, far below that.
  //
  // For the millisecond ms = 500 of every second the reseed brings back the
  // initial state before each variate, so every variate drawn in it is the
  // same (5.36...).  That is how the generator behaves; the moments here are
  // those of the other 999 milliseconds, so batches drawn across that
  // millisecond (about one in a thousand) are left out.
  constexpr int n = 3;
  const std::vector<double> Sigma = {0.04, 0.012, -0.006, 0.012, 0.09,
                                     0.027, -0.006, 0.027, 0.16};  // symmetric
  const std::vector<double> drift = {0.05, -0.02, 0.1};
  constexpr int horizon = 1;
  constexpr int steps = 201;  // 200 moves per batch
  const double dt = 1.0 / 201.0;
  constexpr int wanted = 20000;
  constexpr int maxBatches = 400;

  std::vector<double> shocks;  // row after row, n per move
  int batches = 0;
  while (static_cast<int>(shocks.size()) < wanted * n && batches < maxBatches) {
    ++batches;
    const auto t0 = std::chrono::steady_clock::now();
    const int before = simulClockMillis();
    const SimRun r = simulate(n, horizon, steps, {1.0, 1.0, 1.0}, drift, Sigma);
    const int after = simulClockMillis();
    const auto elapsed = std::chrono::steady_clock::now() - t0;
    ASSERT_EQ(0, r.code);
    const bool crossed = (500 - before + 1000) % 1000 <= (after - before + 1000) % 1000 ||
                         elapsed > std::chrono::milliseconds(500);
    if (crossed) continue;
    for (int t = 1; t < steps; ++t)
      for (int j = 0; j < n; ++j)
        shocks.push_back(rowMajor(r, n, t, j) / rowMajor(r, n, t - 1, j) - 1.0);
  }
  const int N = static_cast<int>(shocks.size()) / n;
  ASSERT_GE(N, wanted) << "too many batches crossed the 500th millisecond";

  double mean[n] = {};
  for (int k = 0; k < N; ++k)
    for (int j = 0; j < n; ++j) mean[j] += shocks[static_cast<size_t>(k) * n + j];
  for (double& m : mean) m /= N;
  for (int i = 0; i < n; ++i) {
    const double se = std::sqrt(Sigma[at(i, i, n)] * dt / N);
    EXPECT_NEAR(drift[i] * dt, mean[i], 6.0 * se) << "mean of asset " << i;
  }
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      double c = 0.0;
      for (int k = 0; k < N; ++k)
        c += (shocks[static_cast<size_t>(k) * n + i] - mean[i]) *
             (shocks[static_cast<size_t>(k) * n + j] - mean[j]);
      c /= N - 1;
      const double sij = Sigma[at(i, j, n)];
      const double se =
          dt * std::sqrt((Sigma[at(i, i, n)] * Sigma[at(j, j, n)] + sij * sij) / N);
      EXPECT_NEAR(sij * dt, c, 6.0 * se) << "covariance (" << i << ", " << j << ")";
    }
}
