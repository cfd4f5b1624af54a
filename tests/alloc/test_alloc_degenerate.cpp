// SPDX-License-Identifier: Apache-2.0
// Work demand and degenerate data.  Every allocator runs on work arrays of
// exactly the sizes the export frame allocates, followed by a guard band
// that must come back untouched (under AddressSanitizer the band is left
// out, so that any overrun aborts); the problems are chosen to reach the
// largest demands: the feasibility start's linear problem with a full
// working set and a refinement that fires, few rows, every stage.  Then
// the reproducers of wrong answers on exactly tied data, through the
// exports: a result with return value 0 must meet its problem.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "alloc/alloc.h"
#include "alloc/alloc_internal.h"
#include "lumbra.h"
#include "qp/solver.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::alloc;

namespace {
using Vec = std::vector<double>;

#if defined(__SANITIZE_ADDRESS__)
constexpr long kGuard = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr long kGuard = 0;
#else
constexpr long kGuard = 64;
#endif
#else
constexpr long kGuard = 64;
#endif
constexpr double kGuardValue = -0x1.5555p+77;
constexpr int kGuardInt = -0x2a2a2a2a;

enum class Which { MV, IT, Sharpe };

// The frame's sizes (integers, doubles) for each allocator.
long intSize(Which a, long n, long e, long i) {
  return a == Which::Sharpe ? 7 * n + e + 2 * i + 7 : 3 * n + e + 2 * i + 6;
}
long realSize(Which a, long n, long e, long i) {
  switch (a) {
    case Which::MV: return 2 * n + 4 * e + 2 * n * (n + e + i + 9) + 6 * i + 15;
    case Which::IT: return n * (2 * (n + e + i) + 18) + 4 * e + 6 * i + 15;
    default: return n * (2 * (3 * n + e) + 3 * i + 34) + 4 * e + 9 * i + 33;
  }
}

// A column-major allocator problem.
struct Problem {
  int n = 0, nEq = 0, nIneq = 0;
  Vec cov, mu, q, cons, rhs, lower, upper;
  double target = 0.0, benchReturn = 0.0;
};

// Runs one allocator on exact-size work with a guard band; returns the
// status and fails the test if the band was touched.
int runGuarded(Which a, const Problem& p, Vec& w) {
  const long n = p.n, e = p.nEq, i = p.nIneq;
  std::vector<int> iwork(intSize(a, n, e, i) + kGuard, kGuardInt);
  Vec work(realSize(a, n, e, i) + kGuard, kGuardValue);
  Vec cov = p.cov;
  w.assign(n, 0.0);
  int status = 0;
  const double* cons = p.cons.empty() ? &kGuardValue : p.cons.data();
  const double* rhs = p.rhs.empty() ? &kGuardValue : p.rhs.data();
  if (a == Which::MV)
    allocMV(p.n, cov.data(), p.mu.data(), p.nEq, p.nIneq, cons, rhs, p.lower.data(),
            p.upper.data(), p.target, iwork.data(), work.data(), w.data(), status);
  else if (a == Which::IT)
    allocIT(p.n, cov.data(), p.mu.data(), p.q.data(), p.benchReturn, p.nEq, p.nIneq, cons, rhs,
            p.lower.data(), p.upper.data(), p.target, iwork.data(), work.data(), w.data(),
            status);
  else
    allocSharpeRatio(p.n, cov.data(), p.mu.data(), p.nEq, p.nIneq, cons, rhs, p.lower.data(),
                     p.upper.data(), p.target, iwork.data(), work.data(), w.data(), status);
  for (long k = realSize(a, n, e, i); k < static_cast<long>(work.size()); ++k)
    EXPECT_TRUE(work[k] == kGuardValue) << "real work overrun at " << k;
  for (long k = intSize(a, n, e, i); k < static_cast<long>(iwork.size()); ++k)
    EXPECT_EQ(kGuardInt, iwork[k]) << "integer work overrun at " << k;
  return status;
}

// Deterministic values that are not dyadic, so that rounding happens and
// the refinement has residuals to correct.
struct Lcg {
  unsigned long long s;
  double next() {
    s = s * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>(s >> 11) * 0x1.0p-53;
  }
};

// n assets, diagonal-plus-one-factor covariance, a budget row among the
// equalities when there is one, sector caps, wide or tied bounds.
Problem sweepProblem(Lcg& r, int n, int nEq, int nIneq, int boundKind) {
  Problem p;
  p.n = n, p.nEq = nEq, p.nIneq = nIneq;
  const int m = nEq + nIneq;
  p.cov.assign(n * n, 0.0);
  Vec f(n);
  for (double& v : f) v = 0.3 * r.next() - 0.1;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) p.cov[i + j * n] = f[i] * f[j] + (i == j ? 0.01 + 0.05 * r.next() : 0.0);
  p.mu.resize(n), p.q.resize(n);
  for (int i = 0; i < n; ++i) p.mu[i] = boundKind == 2 ? 0.05 : 0.02 + 0.1 * r.next();  // ties
  for (int i = 0; i < n; ++i) p.q[i] = 0.01 * r.next();
  p.cons.assign(n * m, 0.0), p.rhs.assign(m, 0.0);
  for (int j = 0; j < m; ++j) {
    for (int i = 0; i < n; ++i)
      p.cons[i + j * n] = j == 0 ? 1.0 : (i + j) % 2 == 0 ? 1.0 : 0.3 * r.next();
    p.rhs[j] = j == 0 ? 1.0 : 0.4 + r.next();
  }
  p.lower.resize(n), p.upper.resize(n);
  for (int i = 0; i < n; ++i) {
    if (boundKind == 0) {
      p.lower[i] = -1e5, p.upper[i] = 1e5;  // wide: a long walk to the vertex
    } else if (boundKind == 1) {
      p.lower[i] = 0.0, p.upper[i] = i == 0 ? 0.0 : 1.0;  // one zero-width bound
    } else {
      p.lower[i] = 0.0, p.upper[i] = 0.5;
    }
  }
  p.target = 0.03;
  p.benchReturn = 0.01;
  return p;
}

// True when w meets lower <= w <= upper and the caller's rows within tol
// (the checks of a returned portfolio; rows nEq.. only for the Sharpe ratio).
bool meets(const Problem& p, const Vec& w, bool sharpe, double tol) {
  const int n = p.n, m = p.nEq + p.nIneq;
  for (int i = 0; i < n; ++i)
    if (!(w[i] >= p.lower[i] - tol && w[i] <= p.upper[i] + tol)) return false;
  for (int j = sharpe ? p.nEq : 0; j < m; ++j) {
    double r = 0.0;
    for (int i = 0; i < n; ++i) r += p.cons[i + j * n] * w[i];
    const double e = r - p.rhs[j];
    if (j < p.nEq ? std::fabs(e) > tol : e > tol) return false;
  }
  if (sharpe) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += w[i];
    if (std::fabs(s - 1.0) > tol) return false;
  }
  return true;
}

}  // namespace

TEST(AllocWorkDemand, FrameSizesCoverEveryStageOfEveryAllocator) {
  // What the frame's formula leaves for the solver's own work array once
  // the allocator, the feasibility start and the driver have carved their
  // parts, against what the solver needs on each problem: the linear
  // problem of the feasibility start (n + 1 variables, H = 0) and the real
  // one; for the Sharpe ratio its first stage (a mean-variance problem
  // with the budget added) and the homogeneous second stage.
  for (long n = 2; n <= 80; ++n)
    for (long e = 0; e <= 6; ++e)
      for (long i = 0; i <= 9; ++i) {
        const long N = n + 1;
        auto fits = [&](long total, long m, long mi, long offset) {
          // allocator layout, then feasibility start, then qpCore's G
          const long alloc = 2 * n + n * (m + 1) + 2 * m + 2;
          const long mAux = m + 1;
          const long aux = N * N + 5 * N + N * mAux + mAux;
          const long leftAux = total - offset - alloc - aux - N * (N + 1);
          const long leftMain = total - offset - alloc - n * (n + 1);
          EXPECT_GE(leftAux, qp::kLinearWork(N, mi)) << n << ' ' << e << ' ' << i;
          EXPECT_GE(leftMain, qp::kMainWork(n, mi)) << n << ' ' << e << ' ' << i;
        };
        fits(realSize(Which::MV, n, e, i), e + i, i + 1, 0);
        fits(realSize(Which::IT, n, e, i), e + i, i + 1, 0);
        // Sharpe: stage 1 works behind the stage-2 layout.
        const long K = i + 2 * n + 2;
        const long stage2 = N * N + 5 * N + N * K + 2 * K;
        fits(realSize(Which::Sharpe, n, e, i), e + 1 + i, i + 1, stage2);
        EXPECT_GE(realSize(Which::Sharpe, n, e, i) - stage2 - N * (N + 1),
                  qp::kMainWork(N, i + 2 * n));
        // integers: IRE, list and ipvt of qpCore (3n + me + 2mi + 1)
        EXPECT_GE(intSize(Which::IT, n, e, i), 3 * N + e + 2 * (i + 1) + 1);
        EXPECT_GE(intSize(Which::Sharpe, n, e, i), 3 * N + 2 + 2 * (i + 2 * n) + 1);
        EXPECT_GE(intSize(Which::Sharpe, n, e, i), 3 * N + e + 1 + 2 * (i + 1) + 1);
      }
}

TEST(AllocWorkDemand, ExactWorkArraysHoldOnEveryPath) {
  // Few rows (the tightest case), wide bounds (a full working set in the
  // linear problem, refined), a zero-width bound and tied returns; every
  // allocator.  A returned portfolio must meet its problem.
  Lcg r{12345};
  int solved = 0;
  for (int n : {2, 3, 4, 5, 8, 13})
    for (int nEq = 0; nEq <= 2; ++nEq)
      for (int nIneq = 0; nIneq <= 3; ++nIneq)
        for (int kind = 0; kind < 3; ++kind) {
          if (nEq >= n) continue;
          const Problem p = sweepProblem(r, n, nEq, nIneq, kind);
          for (Which a : {Which::MV, Which::IT, Which::Sharpe}) {
            Vec w;
            const int status = runGuarded(a, p, w);
            if (status != 0) continue;
            ++solved;
            // 1e-7: the allocators' own checks allow 1e-8 relative to terms
            // up to 1e5 here
            EXPECT_TRUE(meets(p, w, a == Which::Sharpe, a == Which::Sharpe ? 1e-7 : 1e-3))
                << n << ' ' << nEq << ' ' << nIneq << ' ' << kind << ' ' << int(a);
          }
        }
  EXPECT_GT(solved, 100);  // the sweep is not all failures
}

TEST(AllocDegenerate, TrackingReproducersRunWithinTheirWork) {
  // Two assets, "sum w <= 1", bounds +-1e5: the feasibility start's
  // refinement once wrote past the real work array.  The optimum has the
  // return row active: w = Sigma^-1 (q + lambda mu) with mu'w = 0.05 gives
  // lambda = 2 / 15, w = (5/12, 7/24).  1e-10: the solves pass through BLAS
  // with the working set at bounds of size 1e5, whose rounding (1e5 times
  // the precision) the refinement reduces but need not remove.
  {
    int n = 2, nEq = 0, nIneq = 1, st = 7;
    double cov[4] = {.04, 0, 0, .08}, mu[2] = {.05, .10}, bc[2] = {.01, .01}, br = .05, ex = 0;
    double cons[2] = {1, 1}, rhs[1] = {1}, lo[2] = {-1e5, -1e5}, up[2] = {1e5, 1e5}, w[2];
    ASSERT_EQ(0, ORXallocIT(&n, cov, mu, bc, &br, &nEq, &nIneq, cons, rhs, lo, up, &ex, w, &st));
    EXPECT_EQ(0, st);
    EXPECT_NEAR(5.0 / 12.0, w[0], 1e-10);
    EXPECT_NEAR(7.0 / 24.0, w[1], 1e-10);
  }
  // Five assets, no rows, two fixed weights and tied bounds: the bounds
  // force w3 and the upper limits, and the tracking objective, separable,
  // pushes each free weight to the limit nearest q_i / var_i.
  {
    int n = 5, nEq = 0, nIneq = 0, st = 7;
    const double var[5] = {0.03225, 0.01725, 0.01725, 1.626, 3.126};
    double cov[25] = {};
    for (int i = 0; i < 5; ++i) cov[i * 5 + i] = var[i];
    double mu[5] = {3.78125, -0.0003125, -3.125, -3.125, -2.8125};
    double bc[5] = {0.031875, 0.0171875, 3.53125, 0.0378125, 0.0178125};
    double lo[5] = {3.09375, -0.0003125, -0.0003125, -2.8125, 0.031875};
    double up[5] = {3.09375, 0.0134375, 0, -2.78125, 0.063125};
    double br = 0, ex = 0, cons[1] = {0}, rhs[1] = {0}, w[5];
    ASSERT_EQ(0, ORXallocIT(&n, cov, mu, bc, &br, &nEq, &nIneq, cons, rhs, lo, up, &ex, w, &st));
    const double expected[5] = {3.09375, 0.0134375, 0.0, -2.78125, 0.031875};
    for (int i = 0; i < 5; ++i) EXPECT_NEAR(expected[i], w[i], 1e-12) << i;
  }
}

TEST(AllocDegenerate, TiedSharpeProblemIsSolvedOrRefused) {
  // Diagonal covariance, zero-width bounds on two assets, ties in mu: the
  // feasible-point search builds its start vertex from bounds on which the
  // return row depends exactly, accepted as independent by rounding; the
  // point then misses y_5 >= 0 by tens of units.  Whatever the BLAS, the
  // export may not return 0 with weights outside their bounds.
  int n = 7, nEq = 0, nIneq = 0, st = 7;
  const double var[7] = {0.0025625, 0.001, 0.0013125, 0.09475, 0.0050625, 0.0200625, 0.001};
  double cov[49] = {};
  for (int i = 0; i < 7; ++i) cov[i * 7 + i] = var[i];
  double mu[7] = {0, -0.09375, -0.03125, 0, 0, -0.03125, 0};
  double lo[7] = {0, 0, 0, 0, 0.0025, 0, 0.0246875};
  double up[7] = {1, 0, 0, 0.03125, 0.0028125, 0.09375, 0.5246875};
  double rf = -0.0003125, cons[1] = {0}, rhs[1] = {0}, w[7];
  const int ret = ORXallocSharpeRatio(&n, cov, mu, &nEq, &nIneq, cons, rhs, lo, up, &rf, w, &st);
  if (ret == 0) {
    double sum = 0.0, excess = 0.0;
    for (int i = 0; i < 7; ++i) {
      EXPECT_GE(w[i], lo[i] - 1e-8) << i;
      EXPECT_LE(w[i], up[i] + 1e-8) << i;
      sum += w[i], excess += mu[i] * w[i];
    }
    EXPECT_NEAR(1.0, sum, 1e-8);
    EXPECT_GT(excess - rf, 0.0);
  } else {
    EXPECT_EQ(5, ret);
    EXPECT_EQ(kStatusInaccurate, st);
  }
}

TEST(AllocDegenerate, TiedMeanVarianceProblemIsSolvedOrRefused) {
  // Eight assets, three equalities and three inequalities whose
  // coefficients repeat one value, tied variances: a returned portfolio
  // must meet every row and bound (1e-8 relative, as the allocator checks).
  int n = 8, nEq = 3, nIneq = 3, st = 7;
  const double var[8] = {3.34475, 3.34475, 0.001, 0.001, 0.001, 0.0056875, 0.016, 1.5635};
  double cov[64] = {};
  for (int i = 0; i < 8; ++i) cov[i * 8 + i] = var[i];
  double mu[8] = {0.0159375, 1, 0, 0.0378125, -0.03125, -0.03125, -0.03125, -0.03125};
  double lo[8] = {-0.036875, -0.036875, -0.036875, -0.036875, -0.036875, 0, 0.03, 0.0009375};
  double up[8] = {1.963125, 3.619375, 3.619375, 3.619375, 3.619375, 3.65625, 3.7175, 3.6571875};
  double cons[48] = {
      0, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, 0, 0.03,
      0.0009375, -2, -3.65625, -3.65625, -3.65625, -3.65625, -3.65625, -3.65625, 0,
      -0.036875, -0.036875, 0.035312500000000004, -0.036875, -0.0003125, -0.03125, -0.15625,
      -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875,
      -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875,
      0, 0, 0, 0.0021875, -0.036875, -0.036875, -0.036875};
  Vec rowMajor(cons, cons + 48);
  double rhs[6] = {-0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875};
  double target = -3.65625, w[8];
  const int ret = ORXallocMV(&n, cov, mu, &nEq, &nIneq, cons, rhs, lo, up, &target, w, &st);
  if (ret == 0) {
    for (int i = 0; i < 8; ++i) {
      EXPECT_GE(w[i], lo[i] - 1e-8) << i;
      EXPECT_LE(w[i], up[i] + 1e-8) << i;
    }
    for (int j = 0; j < 6; ++j) {
      double r = 0.0, size = std::fabs(rhs[j]);
      for (int i = 0; i < 8; ++i) r += rowMajor[i * 6 + j] * w[i], size += std::fabs(rowMajor[i * 6 + j] * w[i]);
      const double e = r - rhs[j], tol = 1e-8 * (size > 1.0 ? size : 1.0);
      if (j < 3) EXPECT_LE(std::fabs(e), tol) << j;
      else EXPECT_LE(e, tol) << j;
    }
  } else {
    EXPECT_EQ(5, ret);
    EXPECT_TRUE(st == kStatusInaccurate || st == kStatusInfeasible) << st;
  }
}
