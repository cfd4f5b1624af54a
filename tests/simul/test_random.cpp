// SPDX-License-Identifier: Apache-2.0
// The random source where it is deterministic (generator step, seed
// reductions, reseed for a given clock reading, one Box-Muller variate) and
// its shared state under concurrent use: built with -DLUMBRA_TSAN=ON the
// SimulConcurrency tests must also run without a ThreadSanitizer report.
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

}  // namespace

// The first uniforms from the initial state (z = 842, 54718832, 757022662)
// and the components after each step, from a local and from the shared
// state.  From (1, 1) the difference 40014 - 40692 is negative and shifted
// by m1 - 1; over many steps no value reaches 0 or 1 and the components
// stay in range.
TEST(SimulGenerator, SequenceAndRanges) {
  const struct {
    double u;
    std::int32_t s1, s2;
  } steps[] = {{3.920868194323862e-07, 2147443549, 2147442707},
               {0.025480442757642607, 546363367, 491644535},
               {0.3525161612610669, 801095798, 44073136}};
  std::int32_t s1 = kSeed1Initial, s2 = kSeed2Initial;
  simulSeedPut(kZero);
  for (const auto& s : steps) {
    EXPECT_BITEQ(s.u, simulUniformStep(s1, s2));
    EXPECT_TRUE(s.s1 == s1 && s.s2 == s2) << s1 << ", " << s2;
    EXPECT_BITEQ(s.u, simulUniform());
  }
  expectShared(801095798, 44073136);
  s1 = s2 = 1;
  EXPECT_BITEQ(2147482884 * 4.65661305739176e-10, simulUniformStep(s1, s2));
  // Both components step to 12345: z = 0 wraps to m1 - 1, never u = 0.
  s1 = 1970861171;
  s2 = 1025136760;
  EXPECT_BITEQ(2147483562 * 4.65661305739176e-10, simulUniformStep(s1, s2));
  EXPECT_TRUE(s1 == 12345 && s2 == 12345) << s1 << ", " << s2;
  for (int k = 0; k < 100000; ++k) {
    const double u = simulUniformStep(s1, s2);
    ASSERT_TRUE(u > 0.0 && u < 1.0 && s1 >= 1 && s1 < kModulus1 && s2 >= 1 && s2 < kModulus2)
        << k;
  }
}

// Reductions: 0 is the initial value, seeds inside the ranges stay, those
// above lose m - 1, the last ones fold by + 172 and + 500 with wrap-around
// (s1 folds at >= m1, s2 only at > m2 - 1); simulSeedPut reads -1 as 2^32-1.
// Reseed: the state times (ms - 500), 500 giving the initial state, 501 no
// change, negative multipliers wrapping and folding (worked out apart).
TEST(SimulGenerator, SeedReductionsAndReseed) {
  const struct {
    std::uint32_t a, b;
    std::int32_t s1, s2;
  } reduce[] = {{0u, 0u, kSeed1Initial, kSeed2Initial}, {1u, 1u, 1, 1},
                {2147483562u, 2147483398u, 2147483562, 2147483398},
                {2147483563u, 2147483399u, 1, 1}, {4294967125u, 4294966797u, 1, 1},
                {4294967124u, 4294966796u, 2147483562, 2147483398},
                {4294967295u, 4294967295u, 171, 499}};
  for (const auto& c : reduce) {
    std::int32_t s1 = -1, s2 = -1;
    simulSeedReduce(c.a, c.b, s1, s2);
    EXPECT_TRUE(c.s1 == s1 && c.s2 == s2) << c.a << " -> " << s1 << ", " << s2;
  }
  const std::int32_t some[2] = {123456789, 987654321}, ones[2] = {1, 1}, minus[2] = {-1, -1};
  simulSeedPut(minus);
  expectShared(171, 499);
  const struct {
    const std::int32_t* from;
    int ms;
    std::int32_t s1, s2;
  } reseed[] = {{some, 500, kSeed1Initial, kSeed2Initial}, {some, 501, 123456789, 987654321},
                {ones, 499, 171, 499}, {kZero, 499, 172, 500}, {kZero, 0, 43000, 125000},
                {kZero, 999, 2147440734, 2147358898}, {kZero, 250, 21500, 62500}};
  for (const auto& c : reseed) {
    simulSeedPut(c.from);
    simulReseedAt(c.ms);
    expectShared(c.s1, c.s2);
  }
  simulSeedPut(kZero);
}

// From the initial state: sqrt(-2 ln u1) cos(6.283185307 u2), worked out
// apart.  1e-14 relative allows ulps of log, sqrt, cos between maths
// libraries; a full 2 pi moves it 7.4e-13, the sine branch gives 0.866.
// Exactly two uniforms are used (the pair's second variate is not kept),
// and after the reseed at ms = 500 the variate is always this one.
TEST(SimulGenerator, OneGaussianVariateFromTheInitialState) {
  constexpr double kStandard = 5.362255498630253;
  const std::int32_t some[2] = {42, 4242};
  simulSeedPut(kZero);
  EXPECT_NEAR(kStandard, simulGaussianDraw(0.0, 1.0), 1e-14 * kStandard);
  expectShared(546363367, 491644535);
  simulSeedPut(kZero);
  EXPECT_NEAR(0.25 + 2.0 * kStandard, simulGaussianDraw(0.25, 2.0), 1.1e-13);
  simulSeedPut(some);
  simulReseedAt(500);
  EXPECT_NEAR(kStandard, simulGaussianDraw(0.0, 1.0), 1e-14 * kStandard);
  simulSeedPut(kZero);
}

// Threads drawing from the locked state (no reseed) share out one sequence:
// together they draw exactly its first values, each once, and leave the
// state after them.  An update outside the lock repeats or skips values.
TEST(SimulConcurrency, LockedUniformsLoseNoDraw) {
  constexpr int kThreads = 4, kDraws = 50000;
  simulSeedPut(kZero);
  std::vector<std::vector<double>> drawn(kThreads);
  std::atomic<int> ready{0};  // all threads start drawing together
  std::vector<std::thread> pool;
  for (int k = 0; k < kThreads; ++k)
    pool.emplace_back([&drawn, &ready, k] {
      drawn[k].reserve(kDraws);
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      for (int i = 0; i < kDraws; ++i) drawn[k].push_back(simulUniform());
    });
  for (std::thread& t : pool) t.join();
  std::vector<double> all, expected;
  for (const auto& d : drawn) all.insert(all.end(), d.begin(), d.end());
  std::int32_t s1 = kSeed1Initial, s2 = kSeed2Initial, seed[2];
  for (int i = 0; i < kThreads * kDraws; ++i) expected.push_back(simulUniformStep(s1, s2));
  std::sort(all.begin(), all.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(all == expected);
  simulSeedGet(seed);
  EXPECT_TRUE(seed[0] == s1 && seed[1] == s2);
}

// Threads simulate through the export while another reads and writes the
// seeds without the lock: every call succeeds with finite paths and every
// pair read lies in the generator's ranges.
TEST(SimulConcurrency, PathsAndSeedAccessFromSeveralThreads) {
  constexpr int kThreads = 4, n = 4, steps = 100;
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> pool;
  for (int k = 0; k < kThreads; ++k)
    pool.emplace_back([&failures, k] {
      for (int c = 0; c < 20; ++c) {
        int nn = n, horizon = 1, st = steps, status = -1;
        double start[n] = {1.0, 2.0, 3.0, 4.0}, drift[n] = {0.01, 0.02, -0.01, 0.0};
        double cov[n * n] = {0.04, 0.01, 0.0,  0.0,  0.01, 0.09, 0.02, 0.0,
                             0.0,  0.02, 0.16, 0.03, 0.0,  0.0,  0.03, 0.25};
        std::vector<double> paths(static_cast<size_t>(n) * steps);
        bool ok = ORXsimulGeometricBrownianX(&nn, &horizon, &st, start, drift, cov, paths.data(),
                                             &status) == 0 && status == 0;
        for (double p : paths) ok = ok && std::isfinite(p);
        failures[k] += !ok;
      }
    });
  int badSeeds = 0;
  std::thread seeder([&badSeeds] {
    for (int i = 0; i < 20000; ++i) {
      std::int32_t seed[2];
      simulSeedGet(seed);
      badSeeds += seed[0] < 1 || seed[0] >= kModulus1 || seed[1] < 1 || seed[1] >= kModulus2;
      seed[0] ^= i;
      simulSeedPut(seed);
    }
  });
  for (std::thread& t : pool) t.join();
  seeder.join();
  for (int k = 0; k < kThreads; ++k) EXPECT_EQ(0, failures[k]) << "thread " << k;
  EXPECT_EQ(0, badSeeds);
}
