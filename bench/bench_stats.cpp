// SPDX-License-Identifier: Apache-2.0
// Risk statistics: Gaussian kernel density (10^4 observations at 10^3
// points) and the Cornish-Fisher VaR, whose cost is the fourth-moment tuple
// sum of T n^4 terms.  Run with OPENBLAS_NUM_THREADS=1.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "stats/analysis.h"

namespace {

using namespace lumbra::stats;

// Deterministic pseudo-returns: a small linear congruential generator, so
// the benchmark needs no library state.
std::vector<double> pseudoReturns(long count, unsigned seed) {
  std::vector<double> x(count);
  unsigned s = seed;
  for (long i = 0; i < count; ++i) {
    s = s * 1664525u + 1013904223u;
    x[i] = 0.02 * (static_cast<double>(s >> 8) / 16777216.0 - 0.5);
  }
  return x;
}

void BM_GaussianKernel(benchmark::State& state) {
  const int n = 10000, m = 1000;
  std::vector<double> x = pseudoReturns(n, 7), g(m), f(m);
  for (int i = 0; i < m; ++i) g[i] = -0.012 + 0.024 * i / (m - 1);
  int status = 0;
  for (auto _ : state) {
    analysisGaussianKernel(n, m, x.data(), g.data(), f.data(), status);
    benchmark::DoNotOptimize(f.data());
  }
  state.counters["ns_per_pair"] = benchmark::Counter(
      static_cast<double>(n) * m, benchmark::Counter::kIsIterationInvariantRate |
                                      benchmark::Counter::kInvert);
}
BENCHMARK(BM_GaussianKernel)->Unit(benchmark::kMillisecond);

void BM_ModifiedVaR(benchmark::State& state) {
  const int T = 250, n = static_cast<int>(state.range(0));
  std::vector<double> R = pseudoReturns(static_cast<long>(T) * n, 11), V(n * n, 0.0),
                      w(n, 1.0 / n), work(static_cast<long>(n) * (T + 6 * n + 2));
  for (int i = 0; i < n; ++i) V[i + n * i] = 4e-5;
  double result = 0.0;
  int status = 0;
  for (auto _ : state) {
    analysisModifiedVaR(T, n, w.data(), R.data(), V.data(), 0.99, work.data(), result,
                        status);
    benchmark::DoNotOptimize(result);
  }
  const double terms = static_cast<double>(T) * n * n * n * n;
  state.counters["ns_per_term4"] = benchmark::Counter(
      terms, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ModifiedVaR)->Arg(10)->Arg(20)->Arg(40)->Unit(benchmark::kMillisecond);

// The fourth-moment sum alone: its time per term against the latency of
// one dependent double addition (the floor of any sequential accumulation).
void BM_RawMoment4(benchmark::State& state) {
  const int T = 250, n = static_cast<int>(state.range(0));
  std::vector<double> R = pseudoReturns(static_cast<long>(T) * n, 11), w(n, 1.0 / n);
  double m = 0.0;
  int status = 0;
  for (auto _ : state) {
    analysisRawMoment(T, n, 4, w.data(), R.data(), m, status);
    benchmark::DoNotOptimize(m);
  }
  const double terms = static_cast<double>(T) * n * n * n * n;
  state.counters["ns_per_term"] = benchmark::Counter(
      terms, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_RawMoment4)->Arg(10)->Arg(20)->Arg(40)->Unit(benchmark::kMillisecond);

// A chain of dependent additions, the same count as the n = 40 sum: the
// machine's limit for a sequential accumulation.
void BM_AddChain(benchmark::State& state) {
  const long terms = 250L * 40 * 40 * 40 * 40;
  std::vector<double> y = pseudoReturns(64, 3);
  for (auto _ : state) {
    double s = 0.0;
    for (long k = 0; k < terms; ++k) s += y[k & 63];
    benchmark::DoNotOptimize(s);
  }
  state.counters["ns_per_term"] = benchmark::Counter(
      static_cast<double>(terms),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_AddChain)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
