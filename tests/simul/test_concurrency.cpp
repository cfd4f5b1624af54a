// The shared generator state under concurrent use.  Built with
// -DLUMBRA_TSAN=ON these tests must also run without a ThreadSanitizer
// report.
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

constexpr int kThreads = 4;

}  // namespace

TEST(SimulConcurrency, LockedUniformsLoseNoDraw) {
  // Without reseeding, threads drawing from the locked state share out one
  // sequence: together they must have drawn exactly its first values, each
  // once.  An update made outside the lock would repeat or skip values.
  constexpr int kDraws = 50000;
  const std::int32_t zero[2] = {0, 0};
  simulSeedPut(zero);
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

  std::vector<double> all;
  for (const auto& d : drawn) all.insert(all.end(), d.begin(), d.end());
  std::vector<double> expected;
  std::int32_t s1 = kSeed1Initial, s2 = kSeed2Initial;
  for (int i = 0; i < kThreads * kDraws; ++i) expected.push_back(simulUniformStep(s1, s2));
  std::sort(all.begin(), all.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(all == expected);
  std::int32_t seed[2];
  simulSeedGet(seed);
  EXPECT_EQ(s1, seed[0]);
  EXPECT_EQ(s2, seed[1]);
}

TEST(SimulConcurrency, PathsAndSeedAccessFromSeveralThreads) {
  // Several threads simulate through the export while another reads and
  // writes the seeds without the lock.  Every call must succeed with finite
  // paths, and every pair read must lie in the generator's ranges.
  constexpr int kCalls = 20;
  constexpr int n = 4;
  constexpr int steps = 100;
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> pool;
  for (int k = 0; k < kThreads; ++k)
    pool.emplace_back([&failures, k] {
      for (int c = 0; c < kCalls; ++c) {
        int nn = n, horizon = 1, st = steps, status = -1;
        double start[n] = {1.0, 2.0, 3.0, 4.0};
        double drift[n] = {0.01, 0.02, -0.01, 0.0};
        double cov[n * n] = {0.04, 0.01, 0.0,  0.0,  0.01, 0.09, 0.02, 0.0,
                             0.0,  0.02, 0.16, 0.03, 0.0,  0.0,  0.03, 0.25};
        std::vector<double> paths(static_cast<size_t>(n) * steps);
        const int code =
            ORXsimulGeometricBrownianX(&nn, &horizon, &st, start, drift, cov, paths.data(), &status);
        bool ok = code == 0 && status == 0;
        for (double p : paths) ok = ok && std::isfinite(p);
        if (!ok) ++failures[k];
      }
    });
  int badSeeds = 0;
  std::thread seeder([&badSeeds] {
    for (int i = 0; i < 20000; ++i) {
      std::int32_t seed[2];
      simulSeedGet(seed);
      if (seed[0] < 1 || seed[0] >= kModulus1 || seed[1] < 1 || seed[1] >= kModulus2) ++badSeeds;
      seed[0] ^= i;
      simulSeedPut(seed);
    }
  });
  for (std::thread& t : pool) t.join();
  seeder.join();
  for (int k = 0; k < kThreads; ++k) EXPECT_EQ(0, failures[k]) << "thread " << k;
  EXPECT_EQ(0, badSeeds);
}
