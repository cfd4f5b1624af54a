// SPDX-License-Identifier: Apache-2.0
// The three allocators through their exports: closed-form optima, the shape
// of the frontier, failure statuses, and the caller's arrays afterwards.
// Optimal weights pass through BLAS, so they carry a tolerance; arrays the
// frame only converts and restores, and repeated identical solves, are
// compared bit for bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "lumbra.h"
#include "test_support.h"

namespace {

using Vec = std::vector<double>;

// Four assets, row-major, diagonally dominant (so positive definite), dyadic.
const Vec kCov = {0.0625,     0.0078125,    0.00390625,   0.0,
                  0.0078125,  0.03125,      0.0048828125, 0.001953125,
                  0.00390625, 0.0048828125, 0.046875,     0.0029296875,
                  0.0,        0.001953125,  0.0029296875, 0.015625};
const Vec kMu = {0.08, 0.06, 0.10, 0.03};
constexpr int kN = 4;
// Weights are sums of a few dozen products of numbers of order one: the
// solver agrees with a closed form to far better than this.
constexpr double kWeightTol = 1e-9;

enum Kind { MV, IT, SR };

struct Problem {
  Vec cov = kCov, mu = kMu;
  std::vector<Vec> rows;  // constraint rows, equalities first
  int nEq = 0;
  Vec rhs, lower = Vec(kN, 0.0), upper = Vec(kN, 1.0);
  Vec q = Vec(kN, 0.0);  // tracking only
  double benchReturn = 0.0;
};

struct Result {
  int code = -1, status = -1;
  Vec w, cov;  // weights, and the caller's covariance after the call
};

Problem budget(Problem p = {}) {
  p.rows = {Vec(p.mu.size(), 1.0)};
  p.nEq = 1;
  p.rhs = {1.0};
  return p;
}

// Calls one export; arg is the target, the excess return or the risk-free rate.
Result run(Kind kind, Problem p, double arg) {
  int n = static_cast<int>(p.mu.size()), nEq = p.nEq;
  int nIneq = static_cast<int>(p.rows.size()) - nEq, m = nEq + nIneq;
  Vec cons(std::max(1, n * m), 0.0), rhs = p.rhs;  // n by m row-major, never empty
  for (int j = 0; j < m; ++j)
    for (int i = 0; i < n; ++i) cons[i * m + j] = p.rows[j][i];
  rhs.resize(std::max(1, m));
  Result r;
  r.w.assign(n, -7.0);
  if (kind == MV)
    r.code = ORXallocMV(&n, p.cov.data(), p.mu.data(), &nEq, &nIneq, cons.data(), rhs.data(),
                        p.lower.data(), p.upper.data(), &arg, r.w.data(), &r.status);
  else if (kind == IT)
    r.code = ORXallocIT(&n, p.cov.data(), p.mu.data(), p.q.data(), &p.benchReturn, &nEq, &nIneq,
                        cons.data(), rhs.data(), p.lower.data(), p.upper.data(), &arg,
                        r.w.data(), &r.status);
  else
    r.code = ORXallocSharpeRatio(&n, p.cov.data(), p.mu.data(), &nEq, &nIneq, cons.data(),
                                 rhs.data(), p.lower.data(), p.upper.data(), &arg, r.w.data(),
                                 &r.status);
  r.cov = p.cov;
  return r;
}

double dot(const Vec& a, const Vec& b) {
  double s = 0.0;
  for (size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}
double sum(const Vec& a) { return dot(a, Vec(a.size(), 1.0)); }
Vec mulCov(const Vec& w) {  // S w
  Vec y(kN, 0.0);
  for (int i = 0; i < kN; ++i) y[i] = dot(Vec(kCov.begin() + i * kN, kCov.begin() + i * kN + kN), w);
  return y;
}

// Solves S X = B (row-major n by n symmetric positive definite S, n by k B)
// by Gaussian elimination, independently of the library.
Vec solve(Vec S, Vec B, int n, int k) {
  for (int c = 0; c < n; ++c)
    for (int r = c + 1; r < n; ++r) {
      const double f = S[r * n + c] / S[c * n + c];
      for (int j = c; j < n; ++j) S[r * n + j] -= f * S[c * n + j];
      for (int j = 0; j < k; ++j) B[r * k + j] -= f * B[c * k + j];
    }
  for (int c = n - 1; c >= 0; --c)
    for (int j = 0; j < k; ++j) {
      for (int i = c + 1; i < n; ++i) B[c * k + j] -= S[c * n + i] * B[i * k + j];
      B[c * k + j] /= S[c * n + c];
    }
  return B;
}

}  // namespace

TEST(AllocSolve, MeanVarianceAndSharpeMatchTheirClosedForms) {
  // Loose bounds, target above the minimum-variance return: only the
  // equalities bind, w = S^-1 A (A' S^-1 A)^-1 (1, target) with A = [1 mu].
  Problem p = budget();
  p.lower.assign(kN, -10.0);
  p.upper.assign(kN, 10.0);
  const Result r = run(MV, p, 0.11);
  ASSERT_EQ(0, r.code);
  ASSERT_EQ(0, r.status);
  Vec A(kN * 2), M(4, 0.0);
  for (int i = 0; i < kN; ++i) A[i * 2] = 1.0, A[i * 2 + 1] = kMu[i];
  const Vec X = solve(kCov, A, kN, 2);
  for (int a = 0; a < 2; ++a)
    for (int b = 0; b < 2; ++b)
      for (int i = 0; i < kN; ++i) M[a * 2 + b] += A[i * 2 + a] * X[i * 2 + b];
  const Vec l = solve(M, {1.0, 0.11}, 2, 1);
  for (int i = 0; i < kN; ++i)
    EXPECT_NEAR(X[i * 2] * l[0] + X[i * 2 + 1] * l[1], r.w[i], kWeightTol) << i;
  // Tangency S^-1 (mu - rf) normalised to a unit budget: all positive, so
  // it is also the long-only answer.
  Vec e(kN);
  for (int i = 0; i < kN; ++i) e[i] = kMu[i] - 0.02;
  const Vec t = solve(kCov, e, kN, 1);
  const double s = sum(t);
  const Result sr = run(SR, Problem{}, 0.02);
  ASSERT_EQ(0, sr.code);
  ASSERT_EQ(0, sr.status);
  for (int i = 0; i < kN; ++i) {
    ASSERT_GT(t[i], 0.0);
    EXPECT_NEAR(t[i] / s, sr.w[i], kWeightTol) << i;
  }
}

TEST(AllocSolve, FrontierVarianceRisesWithTheTargetAndIsFlatBelowTheMinimum) {
  // Long-only, fully invested: below the minimum-variance return r0 the
  // return row is inactive; above it variance cannot fall; the top is the
  // best single asset.
  const Result gmv = run(MV, budget(), -1.0);
  ASSERT_EQ(0, gmv.status);
  const double r0 = dot(kMu, gmv.w);
  for (double t : {-0.5, 0.0, r0 - 0.01}) {
    const Result r = run(MV, budget(), t);
    ASSERT_EQ(0, r.status) << t;
    for (int i = 0; i < kN; ++i) EXPECT_NEAR(gmv.w[i], r.w[i], 1e-12) << t;
  }
  double last = dot(gmv.w, mulCov(gmv.w));
  for (int k = 1; k <= 10; ++k) {
    const double t = r0 + (0.1 - r0) * k / 10.0;
    const Result r = run(MV, budget(), t);
    ASSERT_EQ(0, r.status) << t;
    EXPECT_GE(dot(kMu, r.w), t - 1e-12);
    const double v = dot(r.w, mulCov(r.w));
    EXPECT_GE(v, last * (1 - 1e-12)) << t;  // relative slack for the rounding
    last = v;
  }
  EXPECT_NEAR(1.0, run(MV, budget(), 0.1).w[2], kWeightTol);
}

TEST(AllocSolve, TrackingReturnsAFeasibleBenchmarkAndReducesToMeanVariance) {
  // q = S b for a feasible benchmark b: zero tracking error at w = b.
  Problem p = budget();
  const Vec b = {0.125, 0.5, 0.25, 0.125};
  p.q = mulCov(b);
  p.benchReturn = dot(kMu, b);
  const Result r = run(IT, p, 0.0);
  ASSERT_EQ(0, r.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(b[i], r.w[i], kWeightTol) << i;
  // With q = 0 it is mean-variance at target benchReturn + excess.
  p = budget();
  p.benchReturn = 0.05;
  const Result it = run(IT, p, 0.04), mv = run(MV, budget(), 0.05 + 0.04);
  ASSERT_EQ(0, it.status);
  ASSERT_EQ(0, mv.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(mv.w[i], it.w[i], 1e-12) << i;
}

TEST(AllocSolve, FixedWeightsStayFixed) {
  // (Sector caps and a fixed holding among free weights are also covered,
  // on random universes, by the cvxopt reference test.)
  Problem p = budget();
  p.lower[1] = p.upper[1] = 0.375;
  Result r = run(MV, p, 0.07);
  ASSERT_EQ(0, r.status);
  EXPECT_NEAR(0.375, r.w[1], 1e-12);
  EXPECT_NEAR(1.0, sum(r.w), 1e-12);
  p.lower = p.upper = {0.25, 0.375, 0.25, 0.125};  // every weight, at a feasible point
  r = run(MV, p, 0.0);
  ASSERT_EQ(0, r.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(p.lower[i], r.w[i], 1e-12) << i;
}

TEST(AllocSolve, FailureStatusesOfTheInputsThatProduceThem) {
  Problem offBudget = budget(), twoBudgets = budget(), cap = budget(), longShort;
  offBudget.lower = offBudget.upper = {0.25, 0.25, 0.25, 0.125};
  twoBudgets.rows.push_back(Vec(kN, 1.0));
  twoBudgets.nEq = 2;
  twoBudgets.rhs = {1.0, 0.5};
  cap.rows.push_back({1, 0, 1, 0});  // assets 0 and 2 at most 20%
  cap.rhs.push_back(0.2);
  // Beating the rate needs a short in the weaker asset, but the homogeneous
  // problem keeps y >= 0: inconsistent constraints.
  longShort.cov = {0.04, 0.01, 0.01, 0.09};
  longShort.mu = {0.01, 0.02};
  longShort.lower = {-5.0, -5.0};
  longShort.upper = {10.0, 10.0};
  Problem huge;  // returns in currency units: 1 / (mu'w - rf) < 1e-12
  for (double& m : huge.mu) m *= 1e14;
  Problem itHigh = budget();
  itHigh.benchReturn = 0.05;
  const struct { const char* what; Kind kind; Problem p; double arg; int status; } cases[] = {
      {"target above the best asset", MV, budget(), 0.12, -100},
      {"excess the universe cannot earn", IT, itHigh, 0.06, -100},
      {"fixed weights off the budget (MV)", MV, offBudget, 0.0, -100},
      {"fixed weights off the budget (IT)", IT, offBudget, -1.0, -100},
      {"contradictory budgets", MV, twoBudgets, 0.0, -100},
      {"sector cap below the target's need", MV, cap, 0.075, -100},
      {"no asset beats the rate", SR, Problem{}, 0.2, -100},
      {"homogeneous problem inconsistent", SR, longShort, 0.05, -101},
      {"scale below 1e-12", SR, huge, 0.0, -113},
  };
  for (const auto& c : cases) {
    const Result r = run(c.kind, c.p, c.arg);
    EXPECT_EQ(5, r.code) << c.what;
    EXPECT_EQ(c.status, r.status) << c.what;
    // -113 keeps the fully invested weights of the feasibility stage.
    EXPECT_TRUE(c.status != -113 || std::fabs(sum(r.w) - 1.0) <= 1e-12) << sum(r.w);
  }
}

TEST(AllocSolve, SingularOrIndefiniteCovarianceIsRefusedBeforeAnythingElse) {
  // A duplicated asset (singular) and inconsistent pairwise estimates
  // (indefinite): -108, weights cleared, covariance restored exactly.
  const Vec singular = {0.04, 0.01, 0.04, 0.01, 0.09, 0.01, 0.04, 0.01, 0.04};
  const Vec indefinite = {0.04, 0.09, 0.0, 0.09, 0.04, 0.0, 0.0, 0.0, 0.04};
  for (const Vec& cov : {singular, indefinite}) {
    Problem p;
    p.cov = cov;
    p.mu = {0.05, 0.07, 0.05};
    p.lower.assign(3, 0.0);
    p.upper.assign(3, 1.0);
    p.q.assign(3, 0.0);
    for (Kind k : {MV, IT, SR}) {
      const Result r = run(k, budget(p), k == SR ? 0.0 : 0.06);
      EXPECT_EQ(5, r.code) << k;
      EXPECT_EQ(-108, r.status) << k;
      for (double w : r.w) EXPECT_BITEQ(0.0, w);
      for (size_t i = 0; i < cov.size(); ++i) EXPECT_BITEQ(cov[i], r.cov[i]);
    }
  }
}

TEST(AllocSolve, AsymmetricCovarianceIsReadFromItsLowerTriangle) {
  // A perturbed upper triangle still passes the definiteness test; the
  // solver reads only the lower triangle, so the weights are the symmetric
  // matrix's to the bit, and the caller's matrix comes back symmetric.
  Problem sym = budget(), asym = sym;
  sym.q = asym.q = Vec(kN, 0.001);
  for (int i = 0; i < kN; ++i)
    for (int j = i + 1; j < kN; ++j) asym.cov[i * kN + j] += 0.001953125;
  for (Kind k : {MV, IT, SR}) {
    const double arg = k == SR ? 0.0 : 0.07;
    const Result a = run(k, asym, arg), ref = run(k, sym, arg);
    ASSERT_EQ(0, a.status) << k;
    ASSERT_EQ(0, ref.status) << k;
    for (int i = 0; i < kN; ++i) EXPECT_BITEQ(ref.w[i], a.w[i]) << k << " " << i;
    for (size_t i = 0; i < kCov.size(); ++i) EXPECT_BITEQ(kCov[i], a.cov[i]) << k;
  }
}

TEST(AllocSolve, RedundantEqualitiesStayWithinTheSharpeWorkArrays) {
  // Many more equality columns than assets: stage 1 sees them all, stage 2
  // skips them, so a layout spilling between sub-arrays would change the
  // weights (or trip the sanitizer); they must be the single budget's.
  Problem p;
  p.cov = {0.04, 0.006, 0.002, 0.006, 0.09, 0.009, 0.002, 0.009, 0.0225};
  p.mu = {0.06, 0.10, 0.05};
  p.lower.assign(3, 0.0);
  p.upper.assign(3, 1.0);
  const Result one = run(SR, budget(p), 0.01);
  ASSERT_EQ(0, one.code) << one.status;
  EXPECT_NEAR(1.0, sum(one.w), 1e-12);
  for (int nEq : {7, 12, 40}) {
    Problem many = budget(p);
    many.rows.assign(nEq, Vec(3, 1.0));
    many.nEq = nEq;
    many.rhs.assign(nEq, 1.0);
    const Result r = run(SR, many, 0.01);
    ASSERT_EQ(0, r.code) << nEq << " status " << r.status;
    for (int i = 0; i < 3; ++i) EXPECT_BITEQ(one.w[i], r.w[i]) << nEq;
  }
}

TEST(AllocSolve, NotANumberInputsEndWithAStatusAndDefinedWeights) {
  // A NaN target makes -mu'w <= NaN, never found violated: the call must
  // still end, and a success must be a feasible portfolio.
  const Result t = run(MV, budget(), NAN);
  EXPECT_EQ(t.status < 0 ? 5 : t.status > 0 ? 6 : 0, t.code);
  if (t.status == 0) {
    for (double w : t.w) EXPECT_TRUE(std::isfinite(w));
    EXPECT_NEAR(1.0, sum(t.w), 1e-12);
  }
  // A NaN in the lower triangle cannot pass the eigenvalue test.
  Problem c = budget();
  c.cov[4] = NAN;
  for (Kind k : {MV, IT, SR}) {
    const Result r = run(k, c, k == SR ? 0.0 : 0.05);
    EXPECT_EQ(5, r.code) << k;
    EXPECT_LT(r.status, 0) << k;
  }
}
