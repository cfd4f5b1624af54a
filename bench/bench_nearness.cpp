// SPDX-License-Identifier: Apache-2.0
// Matrix nearness: the nearest correlation matrix through ORXmodelingSDLScorr
// on "hard" targets (unit diagonal, uniform off-diagonal entries, about half
// the eigenvalues negative) and "mild" ones (a sample correlation matrix with
// 1% of its pairs stressed to +-0.9), and ORXmodelingSDLS with the n unit-
// diagonal equalities written as general constraint matrices.
//
// Targets: raw row-major float64 files DIR/{hard,mild}_N.bin written by
// bench/peers/nearness_statsmodels.py --dump DIR, DIR taken from
// LUMBRA_NEARNESS_TARGETS; without it hard targets are drawn here and the
// mild cases are skipped.
//
// Counters: evals, the evaluations of the dual (one DSYEVR each, plus the
// final projection), counted by re-running the same minimisation with a
// counting simulator; dsyevr_ms, one matEigenSym of order n (best of three);
// dsyevr_share = (evals + 1) * dsyevr_ms / cpu_ms, cpu_ms the mean CPU time
// of one call; projection_ms, one packEigenClip (DSYEVR and the rebuild).
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "kernels/kernels.h"
#include "lumbra.h"
#include "nearness/sdls.h"

namespace {

using namespace lumbra;
using namespace lumbra::kernels;
using namespace lumbra::nearness;

// CPU time of the calling thread in milliseconds: on the shared, loaded
// machine it is far steadier than the wall clock, and everything here runs
// on one thread.
double cpuMilliseconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

constexpr double kTolerance = 1e-10;

// The target of the given kind and order, row-major (symmetric, so the same
// column-major); empty when it cannot be had.
std::vector<double> target(const char* kind, int n) {
  std::vector<double> C(i64{n} * n);
  if (const char* dir = std::getenv("LUMBRA_NEARNESS_TARGETS")) {
    const std::string path = std::string(dir) + "/" + kind + "_" + std::to_string(n) + ".bin";
    FILE* f = std::fopen(path.c_str(), "rb");
    const bool ok = f != nullptr && std::fread(C.data(), sizeof(double), C.size(), f) == C.size();
    if (f != nullptr) std::fclose(f);
    return ok ? C : std::vector<double>{};
  }
  if (std::string(kind) != "hard") return {};
  std::mt19937_64 gen(20261123 + n);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int j = 0; j < n; ++j) {
    C[at(j, j, n)] = 1.0;
    for (int i = 0; i < j; ++i) C[at(i, j, n)] = C[at(j, i, n)] = u(gen);
  }
  return C;
}

int gEvaluations = 0;

void countingSimulator(int& indic, const int& n, const double* y, double& f, double* g,
                       int* izs, double* dzs) {
  ++gEvaluations;
  sdlsSimulCorr(indic, n, y, f, g, izs, dzs);
}

// Evaluations of the dual in the correlation solver with floor 0: the same
// set-up and work layout as the engine, with a counting simulator.
int correlationEvaluations(int n, const std::vector<double>& C) {
  const i64 nn = i64{n} * (n + 1) / 2;
  std::vector<int> iz(14 * i64{n} + 3);
  std::vector<double> y(n, 0.0), lower(n, -1e20), upper(n, 1e20), g(n);
  std::vector<double> rz(n + (i64{n} + 9) * n / 2 + 3 * nn + n + sdlsProjectionWork(n));
  double* chat = rz.data() + n + (i64{n} + 9) * n / 2;
  packFromFull(n, C.data(), chat);
  iz[2 * i64{n} + 1] = 0;
  double f = 0.0;
  int iter = 0, nsim = 0, status = 0;
  gEvaluations = 0;
  sdlsDualMinimise(countingSimulator, n, y.data(), kTolerance, lower.data(), upper.data(),
                   iz.data(), rz.data(), f, g.data(), iter, nsim, status);
  return gEvaluations;
}

// Best of three symmetric eigen-decompositions of C, in milliseconds.
double eigenMilliseconds(int n, const std::vector<double>& C) {
  std::vector<int> iwork(12 * i64{n});
  std::vector<double> work(i64{n} * n + 26 * i64{n}), w(n), Z(i64{n} * n);
  double best = 1e300;
  for (int r = 0; r < 3; ++r) {
    int info = 0;
    const double t0 = cpuMilliseconds();
    matEigenSym(n, C.data(), iwork.data(), work.data(), w.data(), Z.data(), info);
    const double ms = cpuMilliseconds() - t0;
    if (ms < best) best = ms;
  }
  return best;
}

// Best of three projections (packEigenClip: unpack, DSYEVR, rebuild by
// DGEMM, symmetrise) of C, in milliseconds.
double projectionMilliseconds(int n, const std::vector<double>& C) {
  std::vector<int> iwork(12 * i64{n});
  std::vector<double> P(i64{n} * (n + 1) / 2), Q(P.size()), work(sdlsProjectionWork(n));
  packFromFull(n, C.data(), P.data());
  double best = 1e300;
  for (int r = 0; r < 3; ++r) {
    int info = 0;
    const double t0 = cpuMilliseconds();
    packEigenClip(n, P.data(), iwork.data(), work.data(), Q.data(), info);
    const double ms = cpuMilliseconds() - t0;
    if (ms < best) best = ms;
  }
  return best;
}

void reportCounters(benchmark::State& state, int n, const std::vector<double>& C,
                    double totalMs, int evaluations) {
  const double eigenMs = eigenMilliseconds(n, C);
  const double callMs = totalMs / static_cast<double>(state.iterations());
  state.counters["evals"] = evaluations;
  state.counters["dsyevr_ms"] = eigenMs;
  state.counters["cpu_ms"] = callMs;
  state.counters["projection_ms"] = projectionMilliseconds(n, C);
  state.counters["dsyevr_share"] = (evaluations + 1) * eigenMs / callMs;
}

void BM_NearestCorrelation(benchmark::State& state, const char* kind) {
  int n = static_cast<int>(state.range(0));
  std::vector<double> C = target(kind, n);
  if (C.empty()) {
    state.SkipWithError("no target (set LUMBRA_NEARNESS_TARGETS)");
    return;
  }
  std::vector<double> X(C.size());
  double tolerance = kTolerance, floor = 0.0, totalMs = 0.0;
  int status = 0;
  for (auto _ : state) {
    const double t0 = cpuMilliseconds();
    const int code = ORXmodelingSDLScorr(&n, C.data(), &tolerance, &floor, X.data(), &status);
    totalMs += cpuMilliseconds() - t0;
    if (code != 0) state.SkipWithError("ORXmodelingSDLScorr failed");
  }
  reportCounters(state, n, C, totalMs, correlationEvaluations(n, C));
}

// The same problem through the general solver: n equalities X(i,i) = 1.
void BM_SdlsUnitDiagonal(benchmark::State& state) {
  int n = static_cast<int>(state.range(0));
  std::vector<double> C = target("hard", n);
  if (C.empty()) {
    state.SkipWithError("no target");
    return;
  }
  int nEq = n, nIneq = 0, status = 0;
  const i64 width = i64{nEq} * n;
  std::vector<double> A(i64{n} * width, 0.0), b(n, 1.0), X(C.size());
  for (i64 i = 0; i < n; ++i) A[i * width + i * n + i] = 1.0;  // row-major, A_i side by side
  double none = 0.0, tolerance = kTolerance, floor = 0.0, totalMs = 0.0;
  for (auto _ : state) {
    const double t0 = cpuMilliseconds();
    const int code = ORXmodelingSDLS(&n, C.data(), &nEq, A.data(), b.data(), &nIneq, &none,
                                     &none, &none, &tolerance, &floor, X.data(), &status);
    totalMs += cpuMilliseconds() - t0;
    if (code != 0 && code != 6) state.SkipWithError("ORXmodelingSDLS failed");
  }
  state.counters["status"] = status;
  reportCounters(state, n, C, totalMs, correlationEvaluations(n, C));
  // The final check alone: n products A_i X by DGEMM and their traces.
  std::vector<double> blocks(i64{n} * n * n, 0.0), T(C.size());
  for (i64 i = 0; i < n; ++i) blocks[i * n * n + at(i, i, n)] = 1.0;
  int checkStatus = 0;
  const double t0 = cpuMilliseconds();
  sdlsCheckEqualities(n, n, blocks.data(), b.data(), X.data(), T.data(), checkStatus);
  state.counters["check_ms"] = cpuMilliseconds() - t0;
}

void sizes(benchmark::internal::Benchmark* b) {
  const char* env = std::getenv("LUMBRA_NEARNESS_SIZES");
  std::string list = env != nullptr ? env : "100,300,500,1000";
  for (size_t start = 0; start < list.size();) {
    size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    b->Arg(std::stoi(list.substr(start, end - start)));
    start = end + 1;
  }
  b->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);
}

BENCHMARK_CAPTURE(BM_NearestCorrelation, hard, "hard")->Apply(sizes);
BENCHMARK_CAPTURE(BM_NearestCorrelation, mild, "mild")->Apply(sizes);
BENCHMARK(BM_SdlsUnitDiagonal)->Arg(200)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
