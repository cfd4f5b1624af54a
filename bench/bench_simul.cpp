// SPDX-License-Identifier: Apache-2.0
// Speed of the random source and of the path simulation: uniforms, the
// clock read and reseed that precede every normal variate, variates with
// and without the reseed, and whole paths of 50 assets over 10^4 time
// points through the export.  The clock's share of a variate is the ratio
// of BM_ClockRead to BM_Gaussian.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "lumbra.h"
#include "simul/random.h"

using namespace lumbra::simul;

namespace {

void BM_Uniform(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(simulUniform());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Uniform);

void BM_ClockRead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(simulClockMillis());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClockRead);

void BM_Reseed(benchmark::State& state) {
  for (auto _ : state) simulReseed();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Reseed);

// A variate as the simulator draws it: reseed, two uniforms, Box-Muller.
void BM_Gaussian(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(simulGaussian(0.0, 1.0));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Gaussian);

// The same without the reseed: what the clock and the seed traffic cost.
void BM_GaussianNoReseed(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(simulGaussianDraw(0.0, 1.0));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GaussianNoReseed);

// One joint path of n assets over `steps` time points through the export;
// items are variates (n per move).
void BM_Path(benchmark::State& state) {
  int n = static_cast<int>(state.range(0));
  int steps = static_cast<int>(state.range(1));
  int horizon = 1;
  std::vector<double> start(n, 100.0), drift(n, 0.0004), cov(static_cast<size_t>(n) * n);
  // A one-factor covariance of daily returns: 0.0001 common, 0.0002 specific.
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) cov[static_cast<size_t>(i) * n + j] = 1e-4 + (i == j ? 2e-4 : 0.0);
  std::vector<double> paths(static_cast<size_t>(n) * steps);
  for (auto _ : state) {
    int status = 0;
    const int code = ORXsimulGeometricBrownianX(&n, &horizon, &steps, start.data(), drift.data(),
                                                cov.data(), paths.data(), &status);
    if (code != 0) state.SkipWithError("simulation failed");
    benchmark::DoNotOptimize(paths.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * (steps - 1));
}
BENCHMARK(BM_Path)->Args({50, 10000})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
