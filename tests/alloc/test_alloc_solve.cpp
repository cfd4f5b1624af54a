// The three allocators through their exports: closed-form optima, the shape
// of the frontier, the failure statuses on the inputs that produce them, and
// what the caller's arrays look like afterwards.  Optimal weights pass
// through the solver's BLAS calls, so they are compared with a tolerance;
// arrays the frame only converts and restores are compared bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "lumbra.h"
#include "test_support.h"

namespace {

using Vec = std::vector<double>;

// A four-asset universe, row-major and diagonally dominant (so positive
// definite), with dyadic entries.
const Vec kCov = {0.0625,     0.0078125,    0.00390625,   0.0,
                  0.0078125,  0.03125,      0.0048828125, 0.001953125,
                  0.00390625, 0.0048828125, 0.046875,     0.0029296875,
                  0.0,        0.001953125,  0.0029296875, 0.015625};
const Vec kMu = {0.08, 0.06, 0.10, 0.03};
constexpr int kN = 4;

struct Result {
  int code = -1;
  int status = -1;
  Vec w;
};

// Constraints given as a list of rows (one per constraint, n entries each),
// transposed here into the n by m row-major layout of the exports.
Vec consMatrix(int n, const std::vector<Vec>& rows) {
  Vec cons(static_cast<size_t>(n) * rows.size());
  for (size_t j = 0; j < rows.size(); ++j)
    for (int i = 0; i < n; ++i) cons[i * rows.size() + j] = rows[j][i];
  if (cons.empty()) cons.push_back(0.0);  // the pointer must be non-null
  return cons;
}

struct Problem {
  Vec cov = kCov, mu = kMu;
  std::vector<Vec> rows;  // equalities first
  int nEq = 0;
  Vec rhs;
  Vec lower = Vec(kN, 0.0), upper = Vec(kN, 1.0);
  int n() const { return static_cast<int>(mu.size()); }
};

Problem budgetProblem() {
  Problem p;
  p.rows = {Vec(kN, 1.0)};
  p.nEq = 1;
  p.rhs = {1.0};
  return p;
}

Result runMV(Problem p, double target) {
  int n = p.n(), nEq = p.nEq, nIneq = static_cast<int>(p.rows.size()) - p.nEq;
  Vec cons = consMatrix(n, p.rows);
  Vec rhs = p.rhs.empty() ? Vec{0.0} : p.rhs;
  Result r;
  r.w.assign(n, -7.0);
  r.code = ORXallocMV(&n, p.cov.data(), p.mu.data(), &nEq, &nIneq, cons.data(), rhs.data(),
                      p.lower.data(), p.upper.data(), &target, r.w.data(), &r.status);
  return r;
}

Result runIT(Problem p, Vec q, double benchReturn, double excess) {
  int n = p.n(), nEq = p.nEq, nIneq = static_cast<int>(p.rows.size()) - p.nEq;
  Vec cons = consMatrix(n, p.rows);
  Vec rhs = p.rhs.empty() ? Vec{0.0} : p.rhs;
  Result r;
  r.w.assign(n, -7.0);
  r.code = ORXallocIT(&n, p.cov.data(), p.mu.data(), q.data(), &benchReturn, &nEq, &nIneq,
                      cons.data(), rhs.data(), p.lower.data(), p.upper.data(), &excess,
                      r.w.data(), &r.status);
  return r;
}

Result runSharpe(Problem p, double riskFree) {
  int n = p.n(), nEq = p.nEq, nIneq = static_cast<int>(p.rows.size()) - p.nEq;
  Vec cons = consMatrix(n, p.rows);
  Vec rhs = p.rhs.empty() ? Vec{0.0} : p.rhs;
  Result r;
  r.w.assign(n, -7.0);
  r.code = ORXallocSharpeRatio(&n, p.cov.data(), p.mu.data(), &nEq, &nIneq, cons.data(),
                               rhs.data(), p.lower.data(), p.upper.data(), &riskFree,
                               r.w.data(), &r.status);
  return r;
}

double quad(const Vec& S, const Vec& w) {
  const size_t n = w.size();
  double s = 0.0;
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < n; ++j) s += w[i] * S[i * n + j] * w[j];
  return s;
}

double dot(const Vec& a, const Vec& b) {
  double s = 0.0;
  for (size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}

// Solves S X = B for the row-major n by n S and n by k B by Gaussian
// elimination with partial pivoting (independent of the library).
Vec solve(Vec S, Vec B, int n, int k) {
  for (int c = 0; c < n; ++c) {
    int p = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(S[r * n + c]) > std::fabs(S[p * n + c])) p = r;
    for (int j = 0; j < n; ++j) std::swap(S[c * n + j], S[p * n + j]);
    for (int j = 0; j < k; ++j) std::swap(B[c * k + j], B[p * k + j]);
    for (int r = c + 1; r < n; ++r) {
      const double f = S[r * n + c] / S[c * n + c];
      for (int j = c; j < n; ++j) S[r * n + j] -= f * S[c * n + j];
      for (int j = 0; j < k; ++j) B[r * k + j] -= f * B[c * k + j];
    }
  }
  for (int c = n - 1; c >= 0; --c)
    for (int j = 0; j < k; ++j) {
      double s = B[c * k + j];
      for (int i = c + 1; i < n; ++i) s -= S[c * n + i] * B[i * k + j];
      B[c * k + j] = s / S[c * n + c];
    }
  return B;
}

// Weights are sums of a few dozen products of numbers of order one: the
// solver's answer agrees with a closed form to far better than this.
constexpr double kWeightTol = 1e-9;

}  // namespace

TEST(AllocSolve, MeanVarianceMatchesTheClosedFormWithOnlyEqualitiesActive) {
  // With loose bounds the optimum at a target above the minimum-variance
  // return is w = S^-1 A (A' S^-1 A)^-1 (1, target), A = [1 mu].
  Problem p = budgetProblem();
  p.lower.assign(kN, -10.0);
  p.upper.assign(kN, 10.0);
  const double target = 0.11;
  const Result r = runMV(p, target);
  ASSERT_EQ(0, r.code);
  ASSERT_EQ(0, r.status);
  Vec A(kN * 2);
  for (int i = 0; i < kN; ++i) A[i * 2] = 1.0, A[i * 2 + 1] = kMu[i];
  const Vec X = solve(kCov, A, kN, 2);
  Vec M(4, 0.0);
  for (int a = 0; a < 2; ++a)
    for (int b = 0; b < 2; ++b)
      for (int i = 0; i < kN; ++i) M[a * 2 + b] += A[i * 2 + a] * X[i * 2 + b];
  const Vec lambda = solve(M, {1.0, target}, 2, 1);
  for (int i = 0; i < kN; ++i)
    EXPECT_NEAR(X[i * 2] * lambda[0] + X[i * 2 + 1] * lambda[1], r.w[i], kWeightTol) << i;
}

TEST(AllocSolve, FrontierVarianceRisesWithTheTargetAndIsFlatBelowTheMinimum) {
  // Long-only and fully invested: the minimum-variance portfolio returns
  // some r0; below r0 the return row is inactive and the portfolio is the
  // same, above it variance cannot fall.
  const Problem p = budgetProblem();
  const Result gmv = runMV(p, -1.0);
  ASSERT_EQ(0, gmv.status);
  const double r0 = dot(kMu, gmv.w);
  for (double t : {-0.5, 0.0, r0 - 0.01}) {
    const Result r = runMV(p, t);
    ASSERT_EQ(0, r.status) << t;
    for (int i = 0; i < kN; ++i) EXPECT_NEAR(gmv.w[i], r.w[i], 1e-12) << t;
  }
  double last = quad(kCov, gmv.w);
  for (int k = 1; k <= 10; ++k) {
    const double t = r0 + (0.1 - r0) * k / 10.0;
    const Result r = runMV(p, t);
    ASSERT_EQ(0, r.status) << t;
    EXPECT_GE(dot(kMu, r.w), t - 1e-12);
    const double v = quad(kCov, r.w);
    EXPECT_GE(v, last * (1 - 1e-12)) << t;  // relative slack for the rounding
    last = v;
  }
  // The top of the frontier is the single asset with the largest return.
  const Result top = runMV(p, 0.1);
  EXPECT_NEAR(1.0, top.w[2], kWeightTol);
}

TEST(AllocSolve, SharpeRatioMatchesTheTangencyPortfolio) {
  // Unconstrained tangency: w proportional to S^-1 (mu - rf), normalised to
  // a unit budget; with all its weights positive the long-only problem has
  // the same answer.
  Problem p;
  p.upper.assign(kN, 1.0);
  const double rf = 0.02;
  Vec excess(kN);
  for (int i = 0; i < kN; ++i) excess[i] = kMu[i] - rf;
  Vec t = solve(kCov, excess, kN, 1);
  double s = 0.0;
  for (double v : t) s += v;
  for (double& v : t) v /= s;
  for (double v : t) ASSERT_GT(v, 0.0);
  const Result r = runSharpe(p, rf);
  ASSERT_EQ(0, r.code);
  ASSERT_EQ(0, r.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(t[i], r.w[i], kWeightTol) << i;
}

TEST(AllocSolve, TrackingReturnsAFeasibleBenchmarkAtZeroExcess) {
  // q = S b for a feasible benchmark b: the tracking error is zero at w = b.
  const Problem p = budgetProblem();
  const Vec b = {0.125, 0.5, 0.25, 0.125};
  Vec q(kN, 0.0);
  for (int i = 0; i < kN; ++i)
    for (int j = 0; j < kN; ++j) q[i] += kCov[i * kN + j] * b[j];
  const Result r = runIT(p, q, dot(kMu, b), 0.0);
  ASSERT_EQ(0, r.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(b[i], r.w[i], kWeightTol) << i;
  // With q = 0 the problem is the mean-variance one at the summed target.
  const Result it = runIT(p, Vec(kN, 0.0), 0.05, 0.04);
  const Result mv = runMV(p, 0.05 + 0.04);
  ASSERT_EQ(0, it.status);
  ASSERT_EQ(0, mv.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(mv.w[i], it.w[i], 1e-12) << i;
}

TEST(AllocSolve, EqualBoundsFixWeights) {
  Problem p = budgetProblem();
  p.lower[1] = p.upper[1] = 0.375;  // a fixed holding
  const Result r = runMV(p, 0.07);
  ASSERT_EQ(0, r.status);
  EXPECT_NEAR(0.375, r.w[1], 1e-12);
  EXPECT_NEAR(1.0, r.w[0] + r.w[1] + r.w[2] + r.w[3], 1e-12);
  // Every weight fixed at a feasible point: that point comes back.
  p.lower = p.upper = {0.25, 0.375, 0.25, 0.125};
  const Result all = runMV(p, 0.0);
  ASSERT_EQ(0, all.status);
  for (int i = 0; i < kN; ++i) EXPECT_NEAR(p.lower[i], all.w[i], 1e-12) << i;
  // ... and at a point off the budget there is none.
  p.lower = p.upper = {0.25, 0.25, 0.25, 0.125};
  EXPECT_EQ(-100, runMV(p, 0.0).status);
  EXPECT_EQ(-100, runIT(p, Vec(kN, 0.0), 0.0, -1.0).status);
}

TEST(AllocSolve, UnreachableTargetsAndContradictionsHaveNoFeasiblePortfolio) {
  // Long-only and fully invested, no portfolio returns more than the best
  // asset; the tracking allocator fails the same way on an excess that the
  // universe cannot earn.
  const Problem p = budgetProblem();
  Result r = runMV(p, 0.12);
  EXPECT_EQ(5, r.code);
  EXPECT_EQ(-100, r.status);
  r = runIT(p, Vec(kN, 0.0), 0.05, 0.06);
  EXPECT_EQ(5, r.code);
  EXPECT_EQ(-100, r.status);
  // Two budgets that contradict each other.
  Problem q = budgetProblem();
  q.rows.push_back(Vec(kN, 1.0));
  q.nEq = 2;
  q.rhs = {1.0, 0.5};
  EXPECT_EQ(-100, runMV(q, 0.0).status);
  // Sector cap below what the target needs: assets 0 and 2 hold at most 20%.
  Problem s = budgetProblem();
  s.rows.push_back({1, 0, 1, 0});
  s.rhs.push_back(0.2);
  EXPECT_EQ(-100, runMV(s, 0.075).status);
  const Result ok = runMV(s, 0.06);
  ASSERT_EQ(0, ok.status);
  EXPECT_LE(ok.w[0] + ok.w[2], 0.2 + 1e-12);
}

TEST(AllocSolve, SharpeRatioFailureStatuses) {
  Problem p;
  // No asset beats the risk-free rate: stage 1 fails.
  Result r = runSharpe(p, 0.2);
  EXPECT_EQ(5, r.code);
  EXPECT_EQ(-100, r.status);

  // A long-short book can beat the rate only by shorting the weaker asset,
  // but the homogeneous problem keeps every weight non-negative: its
  // constraints are inconsistent.
  Problem ls;
  ls.cov = {0.04, 0.01, 0.01, 0.09};
  ls.mu = {0.01, 0.02};
  ls.lower = {-5.0, -5.0};
  ls.upper = {10.0, 10.0};
  r = runSharpe(ls, 0.05);
  EXPECT_EQ(5, r.code);
  EXPECT_EQ(-101, r.status);

  // Expected returns handed over in currency units of a very large book
  // instead of as rates: the scale 1 / (mu'w - rf) falls below 1e-12, and
  // the weights are those the feasibility stage left, fully invested.
  Problem big;
  for (double& m : big.mu) m *= 1e14;
  r = runSharpe(big, 0.0);
  EXPECT_EQ(5, r.code);
  EXPECT_EQ(-113, r.status);
  EXPECT_NEAR(1.0, r.w[0] + r.w[1] + r.w[2] + r.w[3], 1e-12);
}

TEST(AllocSolve, SingularOrIndefiniteCovarianceIsRefusedBeforeAnythingElse) {
  // A duplicated asset makes the covariance singular; a matrix assembled
  // from inconsistent pairwise estimates is indefinite.
  Vec singular = {0.04, 0.01, 0.04, 0.01, 0.09, 0.01, 0.04, 0.01, 0.04};
  Vec indefinite = {0.04, 0.09, 0.0, 0.09, 0.04, 0.0, 0.0, 0.0, 0.04};
  for (const Vec& cov : {singular, indefinite}) {
    Problem p;
    p.cov = cov;
    p.mu = {0.05, 0.07, 0.05};
    p.rows = {Vec(3, 1.0)};
    p.nEq = 1;
    p.rhs = {1.0};
    p.lower.assign(3, 0.0);
    p.upper.assign(3, 1.0);
    for (const Result& r : {runMV(p, 0.06), runIT(p, Vec(3, 0.0), 0.0, 0.06),
                            runSharpe(p, 0.0)}) {
      EXPECT_EQ(5, r.code);
      EXPECT_EQ(-108, r.status);
      for (double w : r.w) EXPECT_BITEQ(0.0, w);
    }
    // The frame restores the matrix exactly when the solver never ran.
    Problem q = p;
    int n = 3, nEq = 1, nIneq = 0, status = 0;
    double target = 0.06;
    Vec cons = consMatrix(3, q.rows), w(3);
    ORXallocMV(&n, q.cov.data(), q.mu.data(), &nEq, &nIneq, cons.data(), q.rhs.data(),
               q.lower.data(), q.upper.data(), &target, w.data(), &status);
    for (size_t k = 0; k < cov.size(); ++k) EXPECT_BITEQ(cov[k], q.cov[k]);
  }
}

TEST(AllocSolve, AsymmetricCovarianceIsReadFromItsLowerTriangle) {
  // Perturb the upper triangle (row-major: column index above row index);
  // the eigenvalues keep positive real parts, so the test passes, and the
  // solver sees only the lower triangle: the results are those of the
  // symmetric matrix, and the caller's matrix comes back symmetric.
  Problem sym = budgetProblem();
  Problem asym = sym;
  for (int i = 0; i < kN; ++i)
    for (int j = i + 1; j < kN; ++j) asym.cov[i * kN + j] += 0.001953125;

  for (int which = 0; which < 3; ++which) {
    Problem a = asym;
    int n = kN, nEq = 1, nIneq = 0, status = 0;
    double arg = 0.07, zero = 0.0;
    Vec cons = consMatrix(kN, a.rows), w(kN), q(kN, 0.001);
    if (which == 0)
      ORXallocMV(&n, a.cov.data(), a.mu.data(), &nEq, &nIneq, cons.data(), a.rhs.data(),
                 a.lower.data(), a.upper.data(), &arg, w.data(), &status);
    else if (which == 1)
      ORXallocIT(&n, a.cov.data(), a.mu.data(), q.data(), &zero, &nEq, &nIneq, cons.data(),
                 a.rhs.data(), a.lower.data(), a.upper.data(), &arg, w.data(), &status);
    else
      ORXallocSharpeRatio(&n, a.cov.data(), a.mu.data(), &nEq, &nIneq, cons.data(),
                          a.rhs.data(), a.lower.data(), a.upper.data(), &zero, w.data(),
                          &status);
    ASSERT_EQ(0, status) << which;
    const Result ref = which == 0   ? runMV(sym, arg)
                       : which == 1 ? runIT(sym, q, 0.0, arg)
                                    : runSharpe(sym, 0.0);
    ASSERT_EQ(0, ref.status);
    // Same data reach the same solver on the same machine: identical bits.
    for (int i = 0; i < kN; ++i) EXPECT_BITEQ(ref.w[i], w[i]) << which << " " << i;
    for (int i = 0; i < kN; ++i)
      for (int j = 0; j < kN; ++j) EXPECT_BITEQ(kCov[i * kN + j], a.cov[i * kN + j]);
  }
}

TEST(AllocSolve, NotANumberInputsEndWithAStatusAndDefinedWeights) {
  // A NaN target makes the return row -mu'w <= NaN, which no comparison can
  // find violated: the call must still end, with a feasible portfolio.
  Problem p = budgetProblem();
  const Result t = runMV(p, NAN);
  EXPECT_EQ(t.status < 0 ? 5 : t.status > 0 ? 6 : 0, t.code);
  if (t.status == 0) {
    double s = 0.0;
    for (double w : t.w) {
      EXPECT_TRUE(std::isfinite(w));
      s += w;
    }
    EXPECT_NEAR(1.0, s, 1e-12);
  }
  // A NaN in the covariance cannot pass the eigenvalue test.
  Problem c = budgetProblem();
  c.cov[4] = NAN;  // row 1, column 0: in the lower triangle the solver reads
  for (const Result& r : {runMV(c, 0.05), runIT(c, Vec(kN, 0.0), 0.0, 0.05),
                          runSharpe(c, 0.0)}) {
    EXPECT_EQ(5, r.code);
    EXPECT_LT(r.status, 0);
  }
}
