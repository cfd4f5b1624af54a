// SPDX-License-Identifier: Apache-2.0
// The random source where it is deterministic, its shared state under
// concurrent use (also run under ThreadSanitizer), and the simulated paths
// where the variates do not matter or are given.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <thread>
#include <vector>

#include "lumbra.h"
#include "simul/random.h"
#include "test_support.h"

using namespace lumbra::simul;

namespace {
const std::int32_t kZero[2] = {0, 0};  // seeds 0 stand for the initial state

void expectShared(std::int32_t s1, std::int32_t s2) {
  std::int32_t seed[2];
  simulSeedGet(seed);
  EXPECT_TRUE(seed[0] == s1 && seed[1] == s2) << seed[0] << ", " << seed[1];
}
// One export call; returns the code, paths row-major (steps by n).
int simulate(int n, int horizon, int steps, std::vector<double> start, std::vector<double> drift,
             std::vector<double> cov, std::vector<double>& paths, int& status) {
  paths.assign(static_cast<size_t>(steps) * n, -777.0);
  status = -12345;
  return ORXsimulGeometricBrownianX(&n, &horizon, &steps, start.data(), drift.data(), cov.data(),
                                    paths.data(), &status);
}
}  // namespace

// First uniforms (u, s1, s2), local and shared; z = 0 wraps to m1 - 1.  The first
// variate 0.25 + 2 z, z = sqrt(-2 ln u1) cos(6.283185307 u2), takes two uniforms:
// 1e-14 relative allows libm ulps (a full 2 pi moves z by 7.4e-13 relative).
TEST(SimulGenerator, SequenceGaussianAndWrap) {
  simulSeedPut(kZero);
  EXPECT_NEAR(0.25 + 2.0 * 5.362255498630253, simulGaussianDraw(0.25, 2.0), 1.1e-13);
  expectShared(546363367, 491644535);
  const double steps[3][3] = {{3.920868194323862e-07, 2147443549, 2147442707},
                              {0.025480442757642607, 546363367, 491644535},
                              {0.3525161612610669, 801095798, 44073136}};
  std::int32_t s1 = kSeed1Initial, s2 = kSeed2Initial;
  simulSeedPut(kZero);
  for (const auto& s : steps) {
    EXPECT_BITEQ(s[0], simulUniformStep(s1, s2));
    EXPECT_TRUE(s[1] == s1 && s[2] == s2) << s1 << ", " << s2;
    EXPECT_BITEQ(s[0], simulUniform());
  }
  expectShared(801095798, 44073136);
  s1 = s2 = 1;
  EXPECT_BITEQ(2147482884 * 4.65661305739176e-10, simulUniformStep(s1, s2));
  s1 = 1970861171;
  s2 = 1025136760;
  EXPECT_BITEQ(2147483562 * 4.65661305739176e-10, simulUniformStep(s1, s2));
  EXPECT_TRUE(s1 == 12345 && s2 == 12345) << s1 << ", " << s2;
}

// Reductions (a, b -> s1, s2): 0 the initial value, folds by + 172 and + 500
// at the range edges; reseed (seeds, ms -> s1, s2): the state times ms - 500.
TEST(SimulGenerator, SeedReductionsAndReseed) {
  const std::uint32_t reduce[][4] = {
      {0u, 0u, 2147483562u, 2147483398u}, {1u, 1u, 1u, 1u},
      {2147483562u, 2147483398u, 2147483562u, 2147483398u}, {2147483563u, 2147483399u, 1u, 1u},
      {4294967125u, 4294966797u, 1u, 1u}, {4294967124u, 4294966796u, 2147483562u, 2147483398u},
      {4294967295u, 4294967295u, 171u, 499u}};
  for (const auto& c : reduce) {
    std::int32_t s1 = -1, s2 = -1;
    simulSeedReduce(c[0], c[1], s1, s2);
    EXPECT_TRUE(std::uint32_t(s1) == c[2] && std::uint32_t(s2) == c[3]) << c[0];
  }
  const std::int32_t reseed[][5] = {
      {-1, -1, 501, 171, 499}, {123456789, 987654321, 500, kSeed1Initial, kSeed2Initial},
      {123456789, 987654321, 501, 123456789, 987654321}, {1, 1, 499, 171, 499},
      {0, 0, 499, 172, 500}, {0, 0, 0, 43000, 125000}, {0, 0, 999, 2147440734, 2147358898}};
  for (const auto& c : reseed) {
    simulSeedPut(c);
    simulReseedAt(c[2]);
    expectShared(c[3], c[4]);
  }
}

// Threads drawing together get the first values of the one sequence, each once.
TEST(SimulConcurrency, LockedUniformsLoseNoDraw) {
  constexpr int kThreads = 4, kDraws = 50000;
  simulSeedPut(kZero);
  std::vector<double> all(kThreads * kDraws), expected;  // thread k fills block k
  std::atomic<int> ready{0};  // all threads start drawing together
  std::vector<std::thread> pool;
  for (int k = 0; k < kThreads; ++k)
    pool.emplace_back([&all, &ready, k] {
      for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();
      for (int i = 0; i < kDraws; ++i) all[k * kDraws + i] = simulUniform();
    });
  for (std::thread& t : pool) t.join();
  std::int32_t s1 = kSeed1Initial, s2 = kSeed2Initial;
  for (int i = 0; i < kThreads * kDraws; ++i) expected.push_back(simulUniformStep(s1, s2));
  std::sort(all.begin(), all.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(all == expected);
  expectShared(s1, s2);
}

// Zero variance (floored, L ~ 1e-15) leaves the drift path S(t+1) = S(t) (1 + drift dt),
// dt = 0.4, within 1e-13 (zero horizons: python/tests/test_core.py).
TEST(SimulPaths, DriftPathWithoutVariance) {
  std::vector<double> p;
  int status = 0;
  EXPECT_EQ(0, simulate(1, 2, 5, {80.0}, {0.1}, {0.0}, p, status));
  double expected = 80.0;
  for (int t = 0; t < 5; ++t, expected = (0.1 * 0.4 + 1.0) * expected)
    EXPECT_NEAR(expected, p[t], 1e-13 * expected) << "t " << t;
}

// Correlation 1: a refused Cholesky factor (return 6) is cleared, the drift path
// bit for bit despite NaN work memory; if accepted, equal shocks within 1e-6.
TEST(SimulPaths, RankDeficientCovariance) {
  for (const double var : {1.0, 0.04}) {
    std::vector<double> p;
    int status = 0;
    lumbra::testing::FailingAllocator nanWork(1000);
    const int code = simulate(2, 3, 9, {10.0, 10.0}, {0.02, 0.02}, {var, var, var, var}, p, status);
    EXPECT_TRUE(status >= 0 && code == (status > 0 ? 6 : 0)) << status << ", " << code;
    double expected = 10.0;
    for (int t = 1; t < 9; ++t) {
      expected = ((3.0 / 9.0) * 0.02 + 1.0) * expected;
      const double move0 = p[2 * t] / p[2 * t - 2], move1 = p[2 * t + 1] / p[2 * t - 1];
      EXPECT_TRUE(status > 0 ? expected == p[2 * t] && expected == p[2 * t + 1]
                             : std::fabs(move0 - move1) < 1e-6) << var << ", t " << t;
    }
  }
}
