// SPDX-License-Identifier: Apache-2.0
// Sample covariance through the export (frame, layout conversion, centring,
// Gram product, scale) at T = 2500 observations; the peer is numpy's cov on
// the same data and BLAS (bench/peers/covariance_numpy.py).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "lumbra.h"

namespace {

constexpr int kObservations = 2500;

std::vector<double> randomReturns(int T, int n) {
  std::mt19937_64 rng(20261123);
  std::normal_distribution<double> normal(0.0005, 0.02);
  std::vector<double> x(static_cast<size_t>(T) * n);
  for (double& v : x) v = normal(rng);
  return x;
}

void BM_ModelingCov(benchmark::State& state) {
  int T = kObservations, n = static_cast<int>(state.range(0)), status = 0;
  std::vector<double> x = randomReturns(T, n), cov(static_cast<size_t>(n) * n);
  for (auto _ : state) {
    const int code = ORXmodelingCov(&T, &n, x.data(), cov.data(), &status);
    if (code != 0) state.SkipWithError("ORXmodelingCov failed");
    benchmark::DoNotOptimize(cov.data());
  }
}

}  // namespace

BENCHMARK(BM_ModelingCov)->Arg(500)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
