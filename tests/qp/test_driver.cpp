// SPDX-License-Identifier: Apache-2.0
// The QP driver end to end: every failure status, the iteration limit, the
// one-variable path, and feasibility and KKT on random strictly convex
// problems (exact small cases live in the regression corpus).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "qp/qp.h"
#include "qp/solver.h"
#include "test_support.h"

namespace {

using Vec = std::vector<double>;
constexpr double kCanary = -7.25e300;
constexpr int kCanaryCount = 64;

// A problem in solver form, column-major, with the solver's outputs.
struct Problem {
  int n, me, mi;
  Vec H, c, C, d, lower, upper, x, mult;
  int status = 12345;
  bool workIntact = true;

  Problem(int n_, int me_, int mi_, double diag = 0.0, double lo = -1e300, double up = 1e300)
      : n(n_), me(me_), mi(mi_), H(n_ * n_, 0.0), c(n_, 0.0), C(n_ * (me_ + mi_) + 1, 0.0),
        d(me_ + mi_ + 1, 0.0), lower(n_, lo), upper(n_, up) {
    for (int i = 0; i < n; ++i) h(i, i) = diag;
  }
  double& h(int i, int j) { return H[i + j * n]; }
  double& a(int i, int j) { return C[i + j * n]; }

  // Runs the driver with work arrays of exactly the documented size and
  // canaries behind them to catch an overrun; mult starts at 99.
  void solve() {
    const long nw = long(n) * (n + 1) + lumbra::qp::kMainWork(n, mi);
    const long ni = 3L * n + me + 2L * mi + 4;
    Vec work(nw + kCanaryCount, kCanary);
    std::vector<int> iwork(ni + kCanaryCount, -777);
    x.assign(n, std::numeric_limits<double>::quiet_NaN());
    mult.assign(n + me + mi, 99.0);
    lumbra::qp::qpDriver(n, H.data(), c.data(), me, mi, C.data(), d.data(), lower.data(),
                         upper.data(), iwork.data(), work.data(), mult.data(), x.data(), status);
    workIntact = true;
    for (int k = 0; k < kCanaryCount; ++k)
      workIntact = workIntact && work[nw + k] == kCanary && iwork[ni + k] == -777;
  }
  double row(int j, const Vec& v) const {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += C[i + j * n] * v[i];
    return s;
  }
  double objective(const Vec& v) const {
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
    for (int j = 0; j < me + mi; ++j) v = std::fmax(v, j < me ? std::fabs(row(j, x) - d[j]) : row(j, x) - d[j]);
    for (int i = 0; i < n; ++i) v = std::fmax(v, std::fmax(lower[i] - x[i], x[i] - upper[i]));
    return v;
  }
  // Largest KKT defect relative to the scale of c: stationarity Hx + c +
  // m_b + C m_c = 0, signs (upper >= 0, lower <= 0, inequalities >= 0) and
  // complementarity.
  double kktDefect() const {
    double scaleG = 1.0, worst = 0.0;
    for (int i = 0; i < n; ++i) {
      double r = c[i] + mult[i];
      for (int j = 0; j < n; ++j) r += H[i + j * n] * x[j];
      for (int j = 0; j < me + mi; ++j) r += C[i + j * n] * mult[n + j];
      scaleG = std::fmax(scaleG, std::fabs(c[i]));
      worst = std::fmax(worst, std::fabs(r));
      if (mult[i] > 0) worst = std::fmax(worst, mult[i] * std::fabs(upper[i] - x[i]));
      if (mult[i] < 0) worst = std::fmax(worst, -mult[i] * std::fabs(x[i] - lower[i]));
    }
    for (int j = me; j < me + mi; ++j)
      worst = std::fmax(worst, std::fmax(-mult[n + j], std::fabs(mult[n + j]) * std::fabs(row(j, x) - d[j])));
    return worst / scaleG;
  }
};

// Each failure status; on infeasibility the multipliers are left alone.
TEST(QpDriverFailure, Statuses) {
  struct Case { const char* what; std::function<Problem()> make; int status; bool multKept; };
  const Case cases[] = {
      {"bounds cannot meet the budget", [] { Problem p(3, 1, 0, 1.0, 0.0, 0.25);
         for (int i = 0; i < 3; ++i) p.a(i, 0) = 1.0;
         p.d[0] = 1.0; return p; }, 1001, true},
      {"x0 + x1 <= -1 and >= 1", [] { Problem p(2, 0, 2, 1.0);
         p.C = {1, 1, -1, -1, 0}; p.d = {-1, -1, 0}; return p; }, 1001, false},
      {"inconsistent equalities", [] { Problem p(3, 2, 0, 1.0);
         for (int i = 0; i < 3; ++i) p.a(i, 0) = p.a(i, 1) = 1.0;
         p.d = {1.0, 2.0, 0.0}; return p; }, -1006, false},
      {"unbounded linear", [] { Problem p(3, 0, 0, 0.0, 0.0, 1.0);
         p.c[0] = -1.0; p.upper[0] = 1e300; return p; }, -1002, false},
      {"inverted bounds", [] { Problem p(3, 0, 0, 1.0);
         p.lower[1] = 1.0; p.upper[1] = 0.5; return p; }, -1005, false},
      {"negative me", [] { Problem p(2, 0, 0); p.me = -1; return p; }, -1005, false},
      {"one variable, zero row, non-zero side", [] { Problem p(1, 1, 0, 1.0, -1.0, 1.0);
         p.d[0] = 1.0; return p; }, -8, false},
  };
  for (const Case& k : cases) {
    Problem p = k.make();
    p.solve();
    EXPECT_EQ(p.status, k.status) << k.what;
    for (double m : p.mult) EXPECT_EQ(k.multKept ? 99.0 : m, m) << k.what;
  }
}

// Non-finite data end with a status, never hang, crash or overrun.
TEST(QpDriverFailure, NonFiniteDataEnds) {
  for (int which = 0; which < 3; ++which) {
    Problem p(4, 1, 1, 1.0, 0.0, 1.0);
    for (int i = 0; i < 4; ++i) p.a(i, 0) = 1.0, p.a(i, 1) = 0.5;
    p.d[0] = 1.0;
    p.d[1] = 0.4;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    (which == 0 ? p.h(2, 1) : which == 1 ? p.c[3] : p.a(1, 0)) =
        which == 2 ? std::numeric_limits<double>::infinity() : nan;
    p.solve();
    EXPECT_TRUE(p.workIntact) << which;
    EXPECT_NE(p.status, 12345) << which;
  }
}

// The iteration limit of the main loop: status 1 with x inside the box;
// with the default limit the same problem solves to x = clip(i + 1) = 1.
TEST(QpDriverFailure, IterationLimit) {
  const int n = 6;
  Vec H(n * n, 0.0), G(n * (n + 1), 0.0), g(n), x(n), CI(n, 0.0), CS(n, 1.0);
  for (int i = 0; i < n; ++i) H[i + i * n] = G[i + i * n] = 1.0, g[i] = -(i + 1.0);
  Vec w(lumbra::qp::kMainWork(n, 0));
  std::vector<int> IRE(n), list(2 * n + 1), ipvt(n + 3);
  int want = 1, kact = 0, kcur = 0, status = 0, iterations = 1;
  const double C = 0.0, b = 0.0;
  auto run = [&] {
    lumbra::qp::OPTR03(&C, n, H.data(), n, G.data(), n, g.data(), &b, CI.data(), CS.data(),
                       x.data(), w.data(), want, IRE.data(), list.data(), ipvt.data(), 1.0, 3, n,
                       kact, 0, kcur, 0, 6, status, -20, 6, iterations);
  };
  run();
  EXPECT_EQ(status, 1);
  EXPECT_EQ(iterations, 2);
  for (int i = 0; i < n; ++i) EXPECT_TRUE(x[i] >= 0.0 && x[i] <= 1.0) << x[i];
  iterations = 0;
  run();
  EXPECT_EQ(status, 0);
  for (int i = 0; i < n; ++i) EXPECT_EQ(x[i], 1.0);
}

// One variable on [-1, 2]: ties go to the upper end, the first usable
// equality fixes x (a later contradicting one is never read), and each
// failure (-8 zero row, -9 empty interval, -7 impossible zero inequality)
// leaves x as it was; an interval empty by less than the tolerance 1e-15
// is not empty (x <= -1 - 2^-52 against the lower bound -1); a coefficient
// at or below the tolerance makes a zero row.
TEST(QpScalar, Cases) {
  struct Case { double h, c; int me, mi; Vec C, d; int status; double x; };
  const double justBelow = std::nextafter(-1.0, -2.0);
  const Case cases[] = {{1.0, 0.0, 0, 1, {1.0}, {justBelow}, 0, justBelow},
                        {0.0, 0.0, 0, 0, {}, {}, 0, 2.0},
                        {2.0, -1.0, 0, 0, {}, {}, 0, 0.5},
                        {2.0, -10.0, 0, 0, {}, {}, 0, 2.0},
                        {1.0, 0.0, 2, 1, {0.0, 4.0, 1.0}, {0.0, 3.0, 9.0}, 0, 0.75},
                        {1.0, 0.0, 1, 0, {0.0}, {1.0}, -8, 42.0},
                        {1.0, 0.0, 1, 0, {1.0}, {5.0}, -9, 42.0},
                        {1.0, 0.0, 0, 1, {0.0}, {-1.0}, -7, 42.0},
                        // 1.00000000001e-15 is below the widened 1e-15f,
                        // 1.0000000036e-15: a zero row, so -7 (not -9)
                        {1.0, 0.0, 0, 1, {1.00000000001e-15}, {-1.0}, -7, 42.0}};
  const double none = 0.0;
  for (const Case& k : cases) {
    double x = 42.0;
    int status = 1;
    lumbra::qp::qpScalar(k.h, k.c, k.me, k.mi, k.C.empty() ? &none : k.C.data(),
                         k.d.empty() ? &none : k.d.data(), -1.0, 2.0, x, status);
    EXPECT_EQ(k.status, status) << k.h << " " << k.c << " " << k.me << " " << k.mi;
    EXPECT_BITEQ(k.x, x);
  }
}

// The violation the refinement tests: an equality counts only when it falls
// short, an inequality when it is exceeded, then each bound.  x = 1 on
// [-10, 10] (bounds far inside); dyadic data, exact.
TEST(QpViolation, CountsShortfallsOfEqualitiesAndExcessesOfInequalities) {
  struct Case { int me, mi; Vec C, b; double v; };
  const Case cases[] = {{2, 0, {1.0, 1.0}, {1.25, 1.5}, 0.5},    // two shortfalls: the larger
                        {2, 0, {1.0, 1.0}, {1.25, 0.5}, 0.25},   // an overshoot does not count
                        {1, 1, {1.0, 1.0}, {1.25, 0.0}, 1.0},    // excess of x <= 0
                        {1, 1, {1.0, 1.0}, {1.25, 2.0}, 0.25}};  // slack inequality
  const double x = 1.0, lower = -10.0, upper = 10.0;
  for (const Case& k : cases) {
    double v = 0.0;
    lumbra::qp::qpViolation(1, &x, k.me, k.mi, k.C.data(), k.b.data(), &lower, &upper, v);
    EXPECT_BITEQ(k.v, v) << k.b[0] << " " << k.b[1];
  }
}

// H = A'A/n + 0.1 I, a budget, random rows through an interior point x0,
// boxes around it: x feasible, KKT with its own multipliers, no worse than
// x0, and H back as given though only its lower triangle was read (the
// upper holds garbage on entry and comes back mirrored).  Tolerances: activity tolerance 1.8e-12; with O(1) data and n up to
// 100 rounding stays well below 1e-9.
TEST(QpDriverRandom, FeasibleAndKkt) {
  std::mt19937_64 rng(20240611);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> unif(0.0, 1.0);
  int bindings = 0;  // bounds and inequalities with a non-zero multiplier
  for (int n : {2, 3, 5, 8, 13, 21, 34, 60, 100})
    for (int rep = 0; rep < 3; ++rep) {
      const int me = 1 + rep % 2, mi = n / 2 + rep;
      Problem p(n, me, mi);
      Vec A(n * n), x0(n);
      for (double& v : A) v = gauss(rng);
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
          double s = 0.0;
          for (int k = 0; k < n; ++k) s += A[k + i * n] * A[k + j * n];
          p.h(i, j) = s / n + (i == j ? 0.1 : 0.0);
        }
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
      const Vec H = p.H;
      for (int j = 1; j < n; ++j)
        for (int i = 0; i < j; ++i) p.h(i, j) = 99.0;
      p.solve();
      ASSERT_EQ(p.status, 0) << "n=" << n << " rep=" << rep;
      for (std::size_t i = 0; i < H.size(); ++i) EXPECT_BITEQ(H[i], p.H[i]);
      for (int i = 0; i < n + me + mi; ++i) bindings += (i < n || i >= n + me) && p.mult[i] != 0.0;
      EXPECT_TRUE(p.workIntact);
      EXPECT_LT(p.maxViolation(), 1e-9) << "n=" << n;
      EXPECT_LT(p.kktDefect(), 1e-8) << "n=" << n;
      EXPECT_LE(p.objective(p.x), p.objective(x0) + 1e-9);
    }
  EXPECT_GT(bindings, 500);  // the data make many bounds and rows bind
}

}  // namespace
