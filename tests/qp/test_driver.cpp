// The QP driver end to end: known solutions, degenerate and redundant
// constraints, linear problems, every failure status, and KKT properties on
// random strictly convex problems.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "qp/qp.h"
#include "qp/solver.h"
#include "test_support.h"

namespace {

using lumbra::qp::qpDriver;

constexpr double kCanary = -7.25e300;
constexpr int kCanaryCount = 64;

// A problem in solver form, column-major, with the solver's outputs.
struct Problem {
  int n = 0, me = 0, mi = 0;
  std::vector<double> H, c, C, d, lower, upper;
  std::vector<double> x, mult;
  int status = 12345;
  bool workIntact = true;

  Problem(int n_, int me_, int mi_)
        : n(n_), me(me_), mi(mi_), H(n_ * n_, 0.0), c(n_, 0.0), C(n_ * (me_ + mi_) + 1, 0.0),
        d(me_ + mi_ + 1, 0.0), lower(n_, -1e300), upper(n_, 1e300) {}

  double& h(int i, int j) { return H[i + j * n]; }
  double& a(int i, int j) { return C[i + j * n]; }

  // Runs the driver with work arrays of exactly the documented size, with
  // canaries behind them to catch an overrun.
  void solve() {
    const long nw = long(n) * (n + 1) + lumbra::qp::kMainWork(n, mi);
    const long ni = 3L * n + me + 2L * mi + 4;
    std::vector<double> work(nw + kCanaryCount, kCanary);
    std::vector<int> iwork(ni + kCanaryCount, -777);
    x.assign(n, std::numeric_limits<double>::quiet_NaN());
    mult.assign(n + me + mi, 99.0);
    qpDriver(n, H.data(), c.data(), me, mi, C.data(), d.data(), lower.data(), upper.data(),
             iwork.data(), work.data(), mult.data(), x.data(), status);
    workIntact = true;
    for (int k = 0; k < kCanaryCount; ++k)
      if (work[nw + k] != kCanary || iwork[ni + k] != -777) workIntact = false;
  }

  double row(int j, const std::vector<double>& v) const {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += C[i + j * n] * v[i];
    return s;
  }

  double objective(const std::vector<double>& v) const {
    double f = 0.0;
    for (int i = 0; i < n; ++i) {
      double hv = 0.0;
      for (int j = 0; j < n; ++j) hv += H[i + j * n] * v[j];
      f += v[i] * (0.5 * hv + c[i]);
    }
    return f;
  }

  double maxViolation() const {
    double v = 0.0;
    for (int j = 0; j < me; ++j) v = std::fmax(v, std::fabs(row(j, x) - d[j]));
    for (int j = me; j < me + mi; ++j) v = std::fmax(v, row(j, x) - d[j]);
    for (int i = 0; i < n; ++i) v = std::fmax(v, std::fmax(lower[i] - x[i], x[i] - upper[i]));
    return v;
  }

  // Largest KKT defect, relative to the scale of the data: stationarity
  // Hx + c + m_b + C m_c = 0, signs (upper >= 0, lower <= 0, inequalities
  // >= 0) and complementarity.
  double kktDefect() const {
    double scaleG = 1.0;
    double worst = 0.0;
    for (int i = 0; i < n; ++i) {
      double r = c[i] + mult[i];
      for (int j = 0; j < n; ++j) r += H[i + j * n] * x[j];
      for (int j = 0; j < me + mi; ++j) r += C[i + j * n] * mult[n + j];
      scaleG = std::fmax(scaleG, std::fabs(c[i]));
      worst = std::fmax(worst, std::fabs(r));
    }
    for (int i = 0; i < n; ++i) {
      const double m = mult[i];
      if (m > 0) worst = std::fmax(worst, m * std::fabs(upper[i] - x[i]));
      if (m < 0) worst = std::fmax(worst, -m * std::fabs(x[i] - lower[i]));
    }
    for (int j = me; j < me + mi; ++j) {
      const double m = mult[n + j];
      worst = std::fmax(worst, -m);
      worst = std::fmax(worst, std::fabs(m) * std::fabs(row(j, x) - d[j]));
    }
    return worst / scaleG;
  }
};

// min 1/2 |x|^2 - t'x subject to sum x = 1: x = t + (1 - sum t)/n.
TEST(QpDriverKnown, EqualityOnly) {
  Problem p(4, 1, 0);
  const double t[4] = {0.5, -0.25, 1.0, 0.125};
  for (int i = 0; i < 4; ++i) {
    p.h(i, i) = 1.0;
    p.c[i] = -t[i];
    p.a(i, 0) = 1.0;
  }
  p.d[0] = 1.0;
  p.solve();
  ASSERT_EQ(p.status, 0);
  EXPECT_TRUE(p.workIntact);
  // (1 - 1.375)/4 = -0.09375; the result passes through BLAS: tolerance.
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(p.x[i], t[i] - 0.09375, 1e-14);
  EXPECT_NEAR(p.mult[4], 0.09375, 1e-14);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(p.mult[i], 0.0);
}

// Diagonal Hessian with bounds only: x = clip(-c/h, l, u); multipliers are
// the clipped gradient with the sign of the bound.
TEST(QpDriverKnown, BoundsOnly) {
  Problem p(3, 0, 0);
  const double h[3] = {2.0, 1.0, 4.0};
  const double c[3] = {-4.0, 3.0, -1.0};
  for (int i = 0; i < 3; ++i) {
    p.h(i, i) = h[i];
    p.c[i] = c[i];
    p.lower[i] = -1.0;
    p.upper[i] = 1.0;
  }
  p.solve();
  ASSERT_EQ(p.status, 0);
  EXPECT_NEAR(p.x[0], 1.0, 1e-15);
  EXPECT_NEAR(p.x[1], -1.0, 1e-15);
  EXPECT_NEAR(p.x[2], 0.25, 1e-15);
  EXPECT_NEAR(p.mult[0], 2.0, 1e-14);   // upper bound: H x + c = -2
  EXPECT_NEAR(p.mult[1], -2.0, 1e-14);  // lower bound: H x + c = 2
  EXPECT_NEAR(p.mult[2], 0.0, 1e-14);
  EXPECT_LT(p.kktDefect(), 1e-13);
}

// Free interior optimum: loose bounds and an inactive row change nothing.
TEST(QpDriverKnown, FreeInterior) {
  Problem p(2, 0, 1);
  p.h(0, 0) = 2.0; p.h(1, 0) = 0.5; p.h(0, 1) = 0.5; p.h(1, 1) = 1.0;
  p.c[0] = -1.0; p.c[1] = -0.5;
  p.a(0, 0) = 1.0; p.a(1, 0) = 1.0; p.d[0] = 10.0;
  for (int i = 0; i < 2; ++i) { p.lower[i] = -5.0; p.upper[i] = 5.0; }
  p.solve();
  ASSERT_EQ(p.status, 0);
  // H x = -c: det 1.75, x = (1.0 - 0.25, 1.0 - 0.5) / 1.75
  EXPECT_NEAR(p.x[0], 0.75 / 1.75, 1e-14);
  EXPECT_NEAR(p.x[1], 0.5 / 1.75, 1e-14);
  for (double m : p.mult) EXPECT_EQ(m, 0.0);
}

// Mixed equality, inequality and bounds on a long-only budget problem
// whose solution is known: the unconstrained-on-budget optimum hits the
// upper bound of one asset and the return row.
TEST(QpDriverKnown, MixedWithActiveRow) {
  // min 1/2 |x|^2 s.t. sum x = 1, x0 >= 0.6 written as -x0 <= -0.6, 0 <= x <= 1.
  Problem p(3, 1, 1);
  for (int i = 0; i < 3; ++i) {
    p.h(i, i) = 1.0;
    p.a(i, 0) = 1.0;
    p.lower[i] = 0.0;
    p.upper[i] = 1.0;
  }
  p.d[0] = 1.0;
  p.a(0, 1) = -1.0;
  p.d[1] = -0.6;
  p.solve();
  ASSERT_EQ(p.status, 0);
  EXPECT_NEAR(p.x[0], 0.6, 1e-14);
  EXPECT_NEAR(p.x[1], 0.2, 1e-14);
  EXPECT_NEAR(p.x[2], 0.2, 1e-14);
  // Stationarity: x1 + mu = 0 -> mu = -0.2; x0 + mu - lam = 0 -> lam = 0.4.
  EXPECT_NEAR(p.mult[3], -0.2, 1e-14);
  EXPECT_NEAR(p.mult[4], 0.4, 1e-14);
  EXPECT_LT(p.kktDefect(), 1e-13);
}

// A vertex solution of a linear objective over a box and a budget.
TEST(QpDriverKnown, LinearVertex) {
  Problem p(3, 1, 0);
  const double c[3] = {1.0, -2.0, 0.5};
  for (int i = 0; i < 3; ++i) {
    p.c[i] = c[i];
    p.a(i, 0) = 1.0;
    p.lower[i] = 0.0;
    p.upper[i] = 0.75;
  }
  p.d[0] = 1.0;
  p.solve();
  ASSERT_EQ(p.status, 0);
  // Cheapest first: x1 = 0.75, then x2 = 0.25.
  EXPECT_NEAR(p.x[0], 0.0, 1e-15);
  EXPECT_NEAR(p.x[1], 0.75, 1e-15);
  EXPECT_NEAR(p.x[2], 0.25, 1e-15);
  EXPECT_LT(p.kktDefect(), 1e-13);
}

// Degenerate vertex: three rows and a bound meet at the optimum, one row is
// a copy of another, and an equality is repeated.
TEST(QpDriverDegenerate, RedundantRowsAndVertex) {
  Problem p(3, 2, 3);
  for (int i = 0; i < 3; ++i) {
    p.h(i, i) = 1.0;
    p.c[i] = -1.0;
    p.lower[i] = 0.0;
    p.upper[i] = 1.0;
    p.a(i, 0) = 1.0;  // sum x = 1
    p.a(i, 1) = 2.0;  // 2 sum x = 2, dependent and consistent
  }
  p.d[0] = 1.0;
  p.d[1] = 2.0;
  // x0 <= 0.2 twice, x0 + x1 <= 0.2 (degenerate with x1 >= 0)
  p.a(0, 2) = 1.0; p.d[2] = 0.2;
  p.a(0, 3) = 1.0; p.d[3] = 0.2;
  p.a(0, 4) = 1.0; p.a(1, 4) = 1.0; p.d[4] = 0.2;
  p.solve();
  ASSERT_EQ(p.status, 0);
  EXPECT_LT(p.maxViolation(), 1e-14);
  // Optimum: x2 = 0.8, x0 + x1 = 0.2 with x0 = x1 = 0.1 by symmetry of the
  // objective on that line.
  EXPECT_NEAR(p.x[2], 0.8, 1e-13);
  EXPECT_NEAR(p.x[0], 0.1, 1e-13);
  EXPECT_NEAR(p.x[1], 0.1, 1e-13);
  EXPECT_LT(p.kktDefect(), 1e-12);
}

// The auxiliary problem of the feasibility start: zero Hessian, one extra
// variable t in [-1, 1e15] with cost 1, constraints in x only.
TEST(QpDriverLinear, ZeroHessianFeasibility) {
  const int n = 4;
  Problem p(n + 1, 1, 1);
  p.c[n] = 1.0;
  for (int i = 0; i < n; ++i) {
    p.a(i, 0) = 1.0;
    p.a(i, 1) = -(0.01 * (i + 1));
    p.lower[i] = 0.0;
    p.upper[i] = 0.5;
  }
  p.d[0] = 1.0;
  p.d[1] = -0.03;  // return at least 0.03
  p.lower[n] = -1.0;
  p.upper[n] = 999999986991104.0;
  p.solve();
  ASSERT_EQ(p.status, 0);
  EXPECT_EQ(p.x[n], -1.0);
  EXPECT_LT(p.maxViolation(), 1e-14);
}

TEST(QpDriverFailure, InfeasibleConstraints) {
  Problem p(3, 1, 0);
  for (int i = 0; i < 3; ++i) {
    p.h(i, i) = 1.0;
    p.a(i, 0) = 1.0;
    p.lower[i] = 0.0;
    p.upper[i] = 0.25;
  }
  p.d[0] = 1.0;  // at most 0.75 reachable
  p.solve();
  EXPECT_EQ(p.status, 1001);
  for (double m : p.mult) EXPECT_EQ(m, 99.0);  // untouched on failure
}

TEST(QpDriverFailure, InfeasibleRows) {
  Problem p(2, 0, 2);
  p.h(0, 0) = p.h(1, 1) = 1.0;
  p.a(0, 0) = 1.0; p.a(1, 0) = 1.0; p.d[0] = -1.0;    // x0 + x1 <= -1
  p.a(0, 1) = -1.0; p.a(1, 1) = -1.0; p.d[1] = -1.0;  // x0 + x1 >= 1
  p.solve();
  EXPECT_EQ(p.status, 1001);
}

TEST(QpDriverFailure, InconsistentEqualities) {
  Problem p(3, 2, 0);
  for (int i = 0; i < 3; ++i) {
    p.h(i, i) = 1.0;
    p.a(i, 0) = 1.0;
    p.a(i, 1) = 1.0;
  }
  p.d[0] = 1.0;
  p.d[1] = 2.0;
  p.solve();
  EXPECT_EQ(p.status, -1006);
}

// Linear objective decreasing without limit along a free variable.
TEST(QpDriverFailure, Unbounded) {
  Problem p(3, 0, 0);
  p.c[0] = -1.0;
  p.lower[1] = p.lower[2] = 0.0;
  p.upper[1] = p.upper[2] = 1.0;
  p.lower[0] = 0.0;  // x0 >= 0, no upper limit
  p.solve();
  EXPECT_EQ(p.status, -1002);
}

TEST(QpDriverFailure, InvertedBoundsAndBadSizes) {
  Problem p(3, 0, 0);
  for (int i = 0; i < 3; ++i) p.h(i, i) = 1.0;
  p.lower[1] = 1.0;
  p.upper[1] = 0.5;
  p.solve();
  EXPECT_EQ(p.status, -1005);

  Problem q(2, 0, 0);
  q.me = -1;
  q.solve();
  EXPECT_EQ(q.status, -1005);
}

// Non-finite data must end with a status, never hang or crash.
TEST(QpDriverFailure, NonFiniteDataEnds) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (int which = 0; which < 3; ++which) {
    Problem p(4, 1, 1);
    for (int i = 0; i < 4; ++i) {
      p.h(i, i) = 1.0;
      p.a(i, 0) = 1.0;
      p.a(i, 1) = 0.5;
      p.lower[i] = 0.0;
      p.upper[i] = 1.0;
    }
    p.d[0] = 1.0;
    p.d[1] = 0.4;
    if (which == 0) p.h(2, 1) = nan;
    if (which == 1) p.c[3] = nan;
    if (which == 2) p.a(1, 0) = std::numeric_limits<double>::infinity();
    p.solve();
    EXPECT_TRUE(p.workIntact);
    EXPECT_NE(p.status, 12345);
  }
}

// The iteration limit of the main loop: status 1 with a feasible x.
TEST(QpDriverFailure, IterationLimit) {
  const int n = 6;
  std::vector<double> H(n * n, 0.0), G(n * (n + 1)), g(n), x(n), CI(n, 0.0), CS(n, 1.0);
  for (int i = 0; i < n; ++i) {
    H[i + i * n] = 1.0;
    g[i] = -(i + 1.0);
  }
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i) G[i + j * n] = H[i + j * n];
  std::vector<double> w(lumbra::qp::kMainWork(n, 0));
  std::vector<int> IRE(n), list(2 * n + 1), ipvt(n + 3);
  int want = 1, kact = 0, kcur = 0, status = 0, iterations = 1;
  const double C = 0.0, b = 0.0;
  lumbra::qp::OPTR03(&C, n, H.data(), n, G.data(), n, g.data(), &b, CI.data(), CS.data(),
                     x.data(), w.data(), want, IRE.data(), list.data(), ipvt.data(), 1.0, 3,
                     n, kact, 0, kcur, 0, 6, status, -20, 6, iterations);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(iterations, 2);
  for (int i = 0; i < n; ++i) {
    EXPECT_GE(x[i], 0.0);
    EXPECT_LE(x[i], 1.0);
  }
  // With the default limit the same problem solves: x = clip(i + 1) = 1.
  iterations = 0;
  lumbra::qp::OPTR03(&C, n, H.data(), n, G.data(), n, g.data(), &b, CI.data(), CS.data(),
                     x.data(), w.data(), want, IRE.data(), list.data(), ipvt.data(), 1.0, 3,
                     n, kact, 0, kcur, 0, 6, status, -20, 6, iterations);
  EXPECT_EQ(status, 0);
  for (int i = 0; i < n; ++i) EXPECT_EQ(x[i], 1.0);
}

TEST(QpDriverContract, HessianComesBackSymmetric) {
  Problem p(3, 0, 0);
  // Lower triangle defines the matrix; the upper holds garbage.
  p.h(0, 0) = 2.0; p.h(1, 1) = 2.0; p.h(2, 2) = 2.0;
  p.h(1, 0) = 0.5; p.h(2, 1) = -0.25;
  p.h(0, 1) = 9.0; p.h(1, 2) = 7.0; p.h(0, 2) = 3.0;
  for (int i = 0; i < 3; ++i) { p.c[i] = 1.0; p.lower[i] = -1.0; p.upper[i] = 1.0; }
  p.solve();
  ASSERT_EQ(p.status, 0);
  EXPECT_BITEQ(0.5, p.h(0, 1));
  EXPECT_BITEQ(-0.25, p.h(1, 2));
  EXPECT_BITEQ(0.0, p.h(0, 2));
  EXPECT_BITEQ(2.0, p.h(2, 2));
}

// ---- one variable ----------------------------------------------------------

TEST(QpScalar, Cases) {
  using lumbra::qp::qpScalar;
  double x = 5.0;
  int status = 1;
  const double none = 0.0;
  // h = 0, c = 0: equal ends, the upper one wins.
  qpScalar(0.0, 0.0, 0, 0, &none, &none, -1.0, 2.0, x, status);
  EXPECT_EQ(status, 0);
  EXPECT_BITEQ(2.0, x);
  // Strictly convex, clipped and interior.
  qpScalar(2.0, -1.0, 0, 0, &none, &none, -1.0, 2.0, x, status);
  EXPECT_BITEQ(0.5, x);
  qpScalar(2.0, -10.0, 0, 0, &none, &none, -1.0, 2.0, x, status);
  EXPECT_BITEQ(2.0, x);
  // The first equality with a usable coefficient fixes x; the second is
  // never looked at, even though it contradicts.
  const double C1[3] = {0.0, 4.0, 1.0};
  const double d1[3] = {0.0, 3.0, 9.0};
  qpScalar(1.0, 0.0, 2, 1, C1, d1, -1.0, 2.0, x, status);
  EXPECT_EQ(status, 0);
  EXPECT_BITEQ(0.75, x);
  // Zero row with a non-zero right side: -8; empty interval: -9; an
  // impossible zero inequality: -7.  x stays as it was.
  x = 42.0;
  const double C2[1] = {0.0};
  const double d2[1] = {1.0};
  qpScalar(1.0, 0.0, 1, 0, C2, d2, -1.0, 2.0, x, status);
  EXPECT_EQ(status, -8);
  const double C3[1] = {1.0};
  const double d3[1] = {5.0};
  qpScalar(1.0, 0.0, 1, 0, C3, d3, -1.0, 2.0, x, status);
  EXPECT_EQ(status, -9);
  const double d4[1] = {-1.0};
  qpScalar(1.0, 0.0, 0, 1, C2, d4, -1.0, 2.0, x, status);
  EXPECT_EQ(status, -7);
  EXPECT_BITEQ(42.0, x);
  // Inequalities narrow the interval; a negative coefficient raises low.
  const double C5[2] = {2.0, -1.0};
  const double d5[2] = {1.0, 0.25};
  double lo = 0.0, hi = 0.0;
  lumbra::qp::qpScalarInterval(0, 2, C5, d5, -1.0, 2.0, lo, hi, status);
  EXPECT_EQ(status, 0);
  EXPECT_BITEQ(-0.25, lo);
  EXPECT_BITEQ(0.5, hi);
}

TEST(QpScalar, DriverUsesScalarPathUnmapped) {
  Problem p(1, 1, 0);
  p.h(0, 0) = 1.0;
  p.a(0, 0) = 0.0;
  p.d[0] = 1.0;
  p.lower[0] = -1.0;
  p.upper[0] = 1.0;
  p.solve();
  EXPECT_EQ(p.status, -8);
}

// ---- random strictly convex problems -----------------------------------------

// H = A'A/n + diag, a budget, random inequalities through an interior
// point, boxes around it.  The driver must return a feasible point that
// satisfies the KKT conditions with its own multipliers.
TEST(QpDriverRandom, FeasibleAndKkt) {
  std::mt19937_64 rng(20240611);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> unif(0.0, 1.0);
  const int sizes[] = {2, 3, 5, 8, 13, 21, 34, 60, 100};
  int bindings = 0;  // bounds and inequalities with a non-zero multiplier
  for (int n : sizes) {
    for (int rep = 0; rep < 3; ++rep) {
      const int me = 1 + rep % 2;
      const int mi = (n / 2) + rep;
      Problem p(n, me, mi);
      std::vector<double> A(n * n);
      for (double& v : A) v = gauss(rng);
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
          double s = 0.0;
          for (int k = 0; k < n; ++k) s += A[k + i * n] * A[k + j * n];
          p.h(i, j) = s / n + (i == j ? 0.1 : 0.0);
        }
      std::vector<double> x0(n);
      for (int i = 0; i < n; ++i) {
        x0[i] = unif(rng);
        p.c[i] = gauss(rng);
        p.lower[i] = x0[i] - unif(rng);
        p.upper[i] = x0[i] + unif(rng);
      }
      for (int j = 0; j < me + mi; ++j) {
        double s = 0.0;
        for (int i = 0; i < n; ++i) {
          p.a(i, j) = j == 0 ? 1.0 : gauss(rng);
          s += p.a(i, j) * x0[i];
        }
        p.d[j] = j < me ? s : s + 0.1 * unif(rng);
      }
      p.solve();
      ASSERT_EQ(p.status, 0) << "n=" << n << " rep=" << rep;
      for (int i = 0; i < n + me + mi; ++i)
        if ((i < n || i >= n + me) && p.mult[i] != 0.0) ++bindings;
      EXPECT_TRUE(p.workIntact);
      // Tolerances: the solver's own activity tolerance is 1.8e-12; with
      // data of order 1 and n up to 100 rounding stays well below 1e-9.
      EXPECT_LT(p.maxViolation(), 1e-9) << "n=" << n;
      EXPECT_LT(p.kktDefect(), 1e-8) << "n=" << n;
      // No feasible point near x may do better: the objective at x is at
      // most that at the interior point x0.
      EXPECT_LE(p.objective(p.x), p.objective(x0) + 1e-9);
    }
  }
  // The data are meant to make many bounds and rows bind.
  EXPECT_GT(bindings, 500);
}

}  // namespace
