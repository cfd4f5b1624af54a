// SPDX-License-Identifier: Apache-2.0
// The three allocators at n = 50, 200, 500 on the problems written by
// bench/peers/alloc_problems.py (directory in LUMBRA_ALLOC_BENCH_DIR, default
// /tmp/lumbra_alloc_bench), which the cvxopt and quadprog peers solve too.
// BM_AllocMVEngine runs the engine alone on data already in column-major
// order with preallocated work: its distance to BM_AllocMV is the frame
// (argument tests, work allocation, layout conversion).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "alloc/alloc.h"
#include "lumbra.h"

namespace {

struct Problem {
  int n = 0, nEq = 0, nIneq = 0;
  std::vector<double> cov, mu, cons, rhs, lower, upper, q;
  double target = 0, benchReturn = 0, excess = 0, riskFree = 0;
  bool ok = false;
};

Problem load(int n) {
  Problem p;
  const char* dir = std::getenv("LUMBRA_ALLOC_BENCH_DIR");
  const std::string path =
      std::string(dir ? dir : "/tmp/lumbra_alloc_bench") + "/alloc_n" + std::to_string(n) + ".bin";
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return p;
  auto take = [&](std::vector<double>& v, size_t k) {
    v.resize(k);
    return std::fread(v.data(), sizeof(double), k, f) == k;
  };
  std::vector<double> head, one;
  bool ok = take(head, 3);
  if (ok) {
    p.n = static_cast<int>(head[0]);
    p.nEq = static_cast<int>(head[1]);
    p.nIneq = static_cast<int>(head[2]);
    const size_t N = p.n, m = p.nEq + p.nIneq;
    ok = take(p.cov, N * N) && take(p.mu, N) && take(p.cons, N * m) && take(p.rhs, m) &&
         take(p.lower, N) && take(p.upper, N) && take(one, 1);
    p.target = one.empty() ? 0 : one[0];
    ok = ok && take(p.q, N) && take(one, 1);
    p.benchReturn = one[0];
    ok = ok && take(one, 1);
    p.excess = one[0];
    ok = ok && take(one, 1);
    p.riskFree = one[0];
  }
  std::fclose(f);
  p.ok = ok;
  return p;
}

const Problem& problem(int n) {
  static Problem p50 = load(50), p200 = load(200), p500 = load(500);
  return n == 50 ? p50 : n == 200 ? p200 : p500;
}

bool ready(benchmark::State& state, const Problem& p) {
  if (!p.ok) state.SkipWithError("problem files missing: run bench/peers/alloc_problems.py");
  return p.ok;
}

void BM_AllocMV(benchmark::State& state) {
  Problem p = problem(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  std::vector<double> w(p.n);
  int status = 0;
  for (auto _ : state) {
    ORXallocMV(&p.n, p.cov.data(), p.mu.data(), &p.nEq, &p.nIneq, p.cons.data(), p.rhs.data(),
               p.lower.data(), p.upper.data(), &p.target, w.data(), &status);
    benchmark::DoNotOptimize(w.data());
  }
  if (status != 0) state.SkipWithError(("status " + std::to_string(status)).c_str());
}

void BM_AllocIT(benchmark::State& state) {
  Problem p = problem(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  std::vector<double> w(p.n);
  int status = 0;
  for (auto _ : state) {
    ORXallocIT(&p.n, p.cov.data(), p.mu.data(), p.q.data(), &p.benchReturn, &p.nEq, &p.nIneq,
               p.cons.data(), p.rhs.data(), p.lower.data(), p.upper.data(), &p.excess,
               w.data(), &status);
    benchmark::DoNotOptimize(w.data());
  }
  if (status != 0) state.SkipWithError(("status " + std::to_string(status)).c_str());
}

void BM_AllocSharpeRatio(benchmark::State& state) {
  Problem p = problem(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  std::vector<double> w(p.n);
  int status = 0;
  for (auto _ : state) {
    ORXallocSharpeRatio(&p.n, p.cov.data(), p.mu.data(), &p.nEq, &p.nIneq, p.cons.data(),
                        p.rhs.data(), p.lower.data(), p.upper.data(), &p.riskFree, w.data(),
                        &status);
    benchmark::DoNotOptimize(w.data());
  }
  if (status != 0) state.SkipWithError(("status " + std::to_string(status)).c_str());
}

void BM_AllocMVEngine(benchmark::State& state) {
  Problem p = problem(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  const long n = p.n, E = p.nEq, I = p.nIneq, m = E + I;
  // Column-major copies (cov is symmetric), and the frame's work sizes.
  std::vector<double> cons(n * m);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < m; ++j) cons[i + j * n] = p.cons[i * m + j];
  std::vector<int> iwork(3 * n + E + 2 * I + 6);
  std::vector<double> work(2 * n + 4 * E + 2 * n * (n + E + I + 9) + 6 * I + 15);
  std::vector<double> w(n);
  int status = 0;
  for (auto _ : state) {
    lumbra::alloc::allocMV(p.n, p.cov.data(), p.mu.data(), p.nEq, p.nIneq, cons.data(),
                           p.rhs.data(), p.lower.data(), p.upper.data(), p.target,
                           iwork.data(), work.data(), w.data(), status);
    benchmark::DoNotOptimize(w.data());
  }
  if (status != 0) state.SkipWithError(("status " + std::to_string(status)).c_str());
}

}  // namespace

BENCHMARK(BM_AllocMV)->Arg(50)->Arg(200)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AllocIT)->Arg(50)->Arg(200)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AllocSharpeRatio)->Arg(50)->Arg(200)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AllocMVEngine)->Arg(50)->Arg(200)->Arg(500)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
