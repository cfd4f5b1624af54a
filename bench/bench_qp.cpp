// SPDX-License-Identifier: Apache-2.0
// The QP driver on long-only mean-variance problems: budget equality,
// return row, bounds 0 <= w <= u, at n = 50, 200, 500, 1000.  The peers
// (cvxopt's qp, R's quadprog::solve.QP) solve the same problems, which this
// program writes with --dump=DIR (see bench/README.md, "QP solver").
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qp/qp.h"
#include "qp/solver.h"

namespace {

constexpr int kFactors = 10;

struct MeanVariance {
  int n = 0;
  std::vector<double> cov, mu;
  double target = 0.0, cap = 0.0;
};

// Covariance B B' / k + D from k random factors, expected returns in
// [0.01, 0.11], cap 5/n, target halfway between the mean return and the
// best return reachable under the cap.
MeanVariance makeProblem(int n) {
  std::mt19937_64 rng(1000 + n);
  auto uniform = [&rng]() { return (rng() >> 11) * 0x1.0p-53; };
  MeanVariance p;
  p.n = n;
  std::vector<double> B(static_cast<size_t>(n) * kFactors);
  for (double& b : B) b = 0.2 * uniform() - 0.1;
  p.cov.assign(static_cast<size_t>(n) * n, 0.0);
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      double s = 0.0;
      for (int k = 0; k < kFactors; ++k) s += B[i + k * n] * B[j + k * n];
      p.cov[i + static_cast<size_t>(j) * n] = s / kFactors + (i == j ? 0.0004 + 0.0004 * uniform() : 0.0);
    }
  p.mu.resize(n);
  for (double& m : p.mu) m = 0.01 + 0.1 * uniform();
  p.cap = 5.0 / n;
  std::vector<double> sorted = p.mu;
  std::sort(sorted.begin(), sorted.end(), std::greater<double>());
  double best = 0.0, left = 1.0;
  for (double m : sorted) {
    const double take = std::min(p.cap, left);
    best += take * m;
    left -= take;
  }
  double mean = 0.0;
  for (double m : p.mu) mean += m;
  mean /= n;
  p.target = 0.5 * (mean + best);
  return p;
}

// Solver form and work arrays of one problem.
struct Solve {
  int n, me = 1, mi = 1;
  std::vector<double> H, c, C, d, lower, upper, work, mult, x;
  std::vector<int> iwork;
  explicit Solve(const MeanVariance& p) : n(p.n) {
    c.assign(n, 0.0);
    C.assign(2 * static_cast<size_t>(n), 0.0);
    for (int i = 0; i < n; ++i) {
      C[i] = 1.0;
      C[n + i] = -p.mu[i];
    }
    d = {1.0, -p.target};
    lower.assign(n, 0.0);
    upper.assign(n, p.cap);
    work.resize(static_cast<size_t>(n) * (n + 1) + lumbra::qp::kMainWork(n, mi));
    iwork.resize(3 * n + me + 2 * mi + 4);
    mult.resize(n + me + mi);
    x.resize(n);
  }
  int run(const std::vector<double>& cov) {
    H = cov;  // the driver uses H as its orthogonal matrix
    int status = 0;
    lumbra::qp::qpDriver(n, H.data(), c.data(), me, mi, C.data(), d.data(), lower.data(),
                         upper.data(), iwork.data(), work.data(), mult.data(), x.data(), status);
    return status;
  }
  // Passes of the main loop, through the main iteration run as the driver runs it.
  int iterations(const std::vector<double>& cov) {
    H = cov;
    std::vector<double> G(static_cast<size_t>(n) * (n + 1));
    for (int j = 0; j < n; ++j)
      for (int i = j; i < n; ++i) G[i + static_cast<size_t>(j) * n] = H[i + static_cast<size_t>(j) * n];
    int want = 1, kact = 0, kcur = 0, status = 0, iters = 2500;
    std::vector<int> IRE(n + mi), list(n + me + mi + 1), ipvt(n + 3);
    lumbra::qp::OPTR03(C.data(), n, H.data(), n, G.data(), n, c.data(), d.data(), lower.data(),
                       upper.data(), x.data(), work.data(), want, IRE.data(), list.data(),
                       ipvt.data(), 1.0, 3, n, kact, me, kcur, mi, 6, status, -20, 6, iters);
    return iters;
  }
};

void BM_QpDriverMeanVariance(benchmark::State& state) {
  const MeanVariance p = makeProblem(static_cast<int>(state.range(0)));
  Solve s(p);
  for (auto _ : state) {
    if (s.run(p.cov) != 0) state.SkipWithError("qpDriver failed");
    benchmark::DoNotOptimize(s.x.data());
  }
  state.counters["solver_iterations"] = s.iterations(p.cov);
}

// Writes n, cov (column-major), mu, target and cap of each problem to
// DIR/qp_<n>.txt for the peers.
void dump(const std::string& dir) {
  for (int n : {50, 200, 500, 1000}) {
    const MeanVariance p = makeProblem(n);
    const std::string path = dir + "/qp_" + std::to_string(n) + ".txt";
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) continue;
    std::fprintf(f, "%d\n", n);
    for (double v : p.cov) std::fprintf(f, "%.17g\n", v);
    for (double v : p.mu) std::fprintf(f, "%.17g\n", v);
    std::fprintf(f, "%.17g\n%.17g\n", p.target, p.cap);
    std::fclose(f);
  }
}

}  // namespace

BENCHMARK(BM_QpDriverMeanVariance)
    ->Arg(50)->Arg(200)->Arg(500)->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--dump=", 7) == 0) {
      dump(argv[i] + 7);
      return 0;
    }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
