// SPDX-License-Identifier: Apache-2.0
// The QP solver on any BLAS: feasibility and KKT on random and degenerate
// problems, and edges a solve rarely shows (exact solves: the golden corpus).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "degenerate_problems.h"
#include "kernels/index.h"
#include "qp/factors.h"
#include "qp/qp.h"
#include "qp/solver.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

using Vec = std::vector<double>;
constexpr double kMark = -0x1.5555p+77, kFar = 1e300;  // guard value; an absent bound

struct Problem : lumbra::testing::DegenerateQp {
  Vec x, mult;
  int status = 12345;
  explicit Problem(const DegenerateQp& p) : DegenerateQp(p) {}
  // Runs the driver on exactly the work it asks for; true if the guard band past it is intact.
  bool solve(bool linear = false) {
    const long nw = long(n) * (n + 1) + (linear ? kLinearWork(n, mi) : kMainWork(n, mi));
    Vec work(nw + 32, kMark);
    std::vector<int> iwork(3 * n + me + 2 * mi + 4);
    x.assign(n, NAN), mult.assign(n + me + mi, 99.0);
    qpDriver(n, H.data(), c.data(), me, mi, C.data(), d.data(), lower.data(), upper.data(), iwork.data(),
             work.data(), mult.data(), x.data(), status);
    return std::all_of(work.begin() + nw, work.end(), [](double v) { return v == kMark; });
  }
  double row(int j) const {  // C(:,j)' x - d(j)
    double s = -d[j];
    for (int i = 0; i < n; ++i) s += C[i + j * n] * x[i];
    return s;
  }
  double violation() const {
    double v = 0.0;
    for (int j = 0; j < me + mi; ++j) v = std::fmax(v, j < me ? std::fabs(row(j)) : row(j));
    for (int i = 0; i < n; ++i) v = std::fmax(v, std::fmax(lower[i] - x[i], x[i] - upper[i]));
    return v;
  }
  // Largest KKT defect with the solver's multipliers: Hx + c + m_b + C m_c = 0, upper-bound and
  // inequality multipliers >= 0, lower-bound ones <= 0, complementarity.
  double kktDefect() const {
    double defect = 0.0;
    for (int i = 0; i < n; ++i) {
      double r = c[i] + mult[i];
      for (int j = 0; j < n; ++j) r += H[i + j * n] * x[j];
      for (int j = 0; j < me + mi; ++j) r += C[i + j * n] * mult[n + j];
      defect = std::max({defect, std::fabs(r), std::fmax(mult[i], 0.0) * (upper[i] - x[i]),
                         std::fmax(-mult[i], 0.0) * (x[i] - lower[i])});
    }
    for (int j = me; j < me + mi; ++j) defect = std::max({defect, -mult[n + j], std::fabs(mult[n + j] * row(j))});
    return defect;
  }
};

// H = A'A/n + 0.1 I (lower triangle, garbage above), a budget and random rows through an
// interior point: x feasible and KKT with the solver's multipliers, H restored.  O(1) data,
// n <= 100: rounding << 1e-9.
TEST(QpDriverRandom, FeasibleAndKkt) {
  std::mt19937_64 rng(20240611);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> unif(0.0, 1.0);
  int bindings = 0;  // bounds and inequalities with a non-zero multiplier
  for (int n : {2, 3, 5, 8, 13, 21, 34, 60, 100})
    for (int rep = 0; rep < 3; ++rep) {
      const int me = 1 + rep % 2, mi = n / 2 + rep;
      Problem p({n, me, mi, Vec(n * n), Vec(n), Vec(n * (me + mi)), Vec(me + mi), Vec(n), Vec(n)});
      Vec A(n * n), x0(n);
      for (double& v : A) v = gauss(rng);
      for (int i = 0; i < n * n; ++i) {
        for (int k = 0; k < n; ++k) p.H[i] += A[k + i % n * n] * A[k + i / n * n];
        p.H[i] = p.H[i] / n + (i % (n + 1) == 0 ? 0.1 : 0.0);
      }
      for (int i = 0; i < n; ++i)
        x0[i] = unif(rng), p.c[i] = gauss(rng), p.lower[i] = x0[i] - unif(rng), p.upper[i] = x0[i] + unif(rng);
      for (int j = 0; j < me + mi; ++j) {
        for (int i = 0; i < n; ++i) p.C[i + j * n] = j == 0 ? 1.0 : gauss(rng), p.d[j] += p.C[i + j * n] * x0[i];
        p.d[j] += j < me ? 0.0 : 0.1 * unif(rng);
      }
      const Vec H = p.H;
      for (int j = 1; j < n; ++j) std::fill_n(p.H.begin() + j * n, j, 99.0);
      ASSERT_TRUE(p.solve() && p.status == 0 && H == p.H) << "n=" << n << " rep=" << rep << ": " << p.status;
      EXPECT_TRUE(p.violation() < 1e-9 && p.kktDefect() < 1e-8) << n << " " << p.violation() << " " << p.kktDefect();
      for (int i = 0; i < n + me + mi; ++i) bindings += (i < n || i >= n + me) && p.mult[i] != 0.0;
    }
  EXPECT_GT(bindings, 500);  // the data make many bounds and rows bind
}

// Replaces the multipliers by ones fitted to the constraints active within tol: projected
// coordinate descent on |Hx + c + m_b + C m_c|, signs as kktDefect wants them.
void fitMultipliers(Problem& p, double tol) {
  const int n = p.n;
  Vec r = p.c, a(n);
  for (int i = 0; i < n * n; ++i) r[i % n] += p.H[i] * p.x[i / n];
  p.mult.assign(n + p.me + p.mi, 0.0);
  for (int sweep = 0; sweep < 2000; ++sweep)
    for (int q = 0; q < n + p.me + p.mi; ++q) {
      const bool up = q < n && p.upper[q] - p.x[q] <= tol, lo = q < n && p.x[q] - p.lower[q] <= tol;
      if (q < n ? !(up || lo) : q >= n + p.me && std::fabs(p.row(q - n)) > tol) continue;  // inactive
      for (int i = 0; i < n; ++i) a[i] = q < n ? double(i == q) : p.C[i + (q - n) * n];
      double ar = 0.0, aa = 0.0;
      for (int i = 0; i < n; ++i) ar += a[i] * r[i], aa += a[i] * a[i];
      double next = p.mult[q] - ar / aa;
      if (q >= n + p.me || (up && !lo)) next = std::max(0.0, next);
      if (lo && !up) next = std::min(0.0, next);
      for (int i = 0; i < n; ++i) r[i] += (next - p.mult[q]) * a[i];
      p.mult[q] = next;
    }
}

// The corpus's degenerate problems: status 0 or "no feasible point"; a solved point feasible
// and KKT with fitted multipliers (the solver's are as its last stop test formed them).  Zero
// Hessians run on the linear work.  Dyadic O(1) data, n <= 9: rounding a few 1e-16 a step.
TEST(QpDegenerate, SolvedPointsAreFeasibleAndMeetTheKuhnTuckerConditions) {
  int solved = 0;
  for (int k = 0; k < lumbra::testing::kDegenerateCount; ++k) {
    Problem p(lumbra::testing::degenerateProblem(k));
    EXPECT_TRUE(p.solve((k / 6) % 4 == 1)) << k;
    EXPECT_TRUE(p.status == 0 || p.status == 1001) << k << ": " << p.status;
    if (p.status != 0) continue;
    ++solved, fitMultipliers(p, 1e-10);
    EXPECT_TRUE(p.violation() <= 1e-10 && p.kktDefect() <= 1e-8) << k << " " << p.violation() << " " << p.kktDefect();
  }
  EXPECT_GE(solved, 40);
}

// One variable on [-1, 2]: ties go to the upper end, the first usable equality fixes x, a
// failure (-8 zero row, -9 empty, -7 impossible zero inequality) leaves x alone; empty by less
// than 1e-15 is not empty; a coefficient at or below the widened 1e-15f (1.0000000036e-15) is zero.
TEST(QpScalar, Cases) {
  struct Case { double h, c; int me, mi; Vec C, d; int status; double x; };
  const double justBelow = std::nextafter(-1.0, -2.0), none = 0.0;
  const Case cases[] = {{1.0, 0.0, 0, 1, {1.0}, {justBelow}, 0, justBelow}, {0.0, 0.0, 0, 0, {}, {}, 0, 2.0},
                        {2.0, -1.0, 0, 0, {}, {}, 0, 0.5}, {2.0, -10.0, 0, 0, {}, {}, 0, 2.0},
                        {1.0, 0.0, 2, 1, {0.0, 4.0, 1.0}, {0.0, 3.0, 9.0}, 0, 0.75},
                        {1.0, 0.0, 1, 0, {0.0}, {1.0}, -8, 42.0}, {1.0, 0.0, 1, 0, {1.0}, {5.0}, -9, 42.0},
                        {1.0, 0.0, 0, 1, {0.0}, {-1.0}, -7, 42.0},
                        {1.0, 0.0, 0, 1, {1.00000000001e-15}, {-1.0}, -7, 42.0}};
  for (const Case& k : cases) {
    double x = 42.0;
    int status = 1;
    qpScalar(k.h, k.c, k.me, k.mi, k.C.empty() ? &none : k.C.data(), k.d.empty() ? &none : k.d.data(), -1.0,
             2.0, x, status);
    EXPECT_EQ(k.status, status) << k.h << " " << k.c << " " << k.me << " " << k.mi;
    EXPECT_BITEQ(k.x, x);
  }
}

// The refinement's violation counts an equality's shortfall (the larger of two; not an
// overshoot) and an inequality's excess (not its slack).  x = 1 on [-10, 10]; exact.
TEST(QpViolation, CountsShortfallsOfEqualitiesAndExcessesOfInequalities) {
  struct Case { int me, mi; Vec b; double v; };
  const Case cases[] = {{2, 0, {1.25, 1.5}, 0.5}, {2, 0, {1.25, 0.5}, 0.25}, {1, 1, {1.25, 0.0}, 1.0},
                        {1, 1, {1.25, 2.0}, 0.25}};
  const double x = 1.0, lower = -10.0, upper = 10.0, C[2] = {1.0, 1.0};
  for (const Case& k : cases) {
    double v = 0.0;
    qpViolation(1, &x, k.me, k.mi, C, k.b.data(), &lower, &upper, v);
    EXPECT_BITEQ(k.v, v) << k.b[0] << " " << k.b[1];
  }
}

// Ratio test on small dyadic data, where every ratio is exact: blocking
// constraint, tie-breaks, step kinds, the long-step flag, bound mode 2.
TEST(QpStepLength, Cases) {
  constexpr int kAny = -99;  // entering not checked
  struct Case {  // empty vectors: absent bounds, zeros, residuals -1
    const char* what; int n, mi, boundMode; Vec p, lower, upper, x, grad, resid, cp; std::vector<int> ire;
    int kindIn; double alphaIn; int kind, entering; double alpha;
  };
  const Case cases[] = {
      {"bound ties: the first variable", 3, 0, 3, {0.5, -0.25, 1.0}, {-kFar, -0.5, -kFar}, {1.0, kFar, 3.0}, {},
       {}, {}, {}, {}, 0, 0.0, 1, 1, 2.0},
      {"ties with rows: the later constraint", 2, 3, 3, {0.5, 0.0}, {}, {1.0, kFar}, {}, {}, {-1.0, -0.5, -3.0},
       {0.5, 0.25, 1.0}, {}, 0, 0.0, 1, 2 + 2, 2.0},
      {"skips x_1 on its bound, x_2 far, x_3 moving below tolerance, x_4 and row 2 active", 4, 2, 3, {1.0, 1.0, 1e-12, 1.0}, {}, {1.0, 1e200, 0.25, 0.125},
       {1.0, 0.0, 0.0, 0.0}, {}, {-8.0, -0.5}, {2.0, 1.0}, {0, 0, 0, 1, 0, 1}, 0, 0.0, 1, 5, 4.0},
      {"natural step equal to the block", 1, 0, 3, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 1.0, 3, 1, 1.0},
      {"natural step shorter", 1, 0, 3, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 0.5, 2, kAny, 0.5},
      {"2 x 2^25 = 2^26: not long", 1, 0, 3, {1.0}, {}, {0x1p25}, {}, {}, {}, {}, {}, 0, 0.0, 1, 1, 0x1p25},
      {"2 x 2^26 > 2^26: long", 1, 0, 3, {1.0}, {}, {0x1p26}, {}, {}, {}, {}, {}, 2, 0.0, 11, 1, 0x1p26},
      {"bound mode 2: upper bounds only (the lower at 0.25 is not looked at)", 2, 0, 2, {0.5, -1.0}, {-kFar, -0.25}, {0.5, kFar}, {}, {}, {}, {}, {}, 1, 4.0, 1, 1, 1.0},
  };
  for (const Case& c : cases) {
    auto orFill = [](const Vec& v, int len, double fill) { return v.empty() ? Vec(len, fill) : v; };
    Vec work = orFill(c.grad, c.n, 0.0), lower = orFill(c.lower, c.n, -kFar), upper = orFill(c.upper, c.n, kFar),
        x = orFill(c.x, c.n, 0.0);
    for (const Vec& part : {orFill(c.resid, c.mi, -1.0), c.p, orFill(c.cp, c.mi, 0.0)})
      work.insert(work.end(), part.begin(), part.end());
    std::vector<int> ire = c.ire.empty() ? std::vector<int>(c.n + c.mi, 0) : c.ire;
    int kind = c.kindIn, entering = kAny;
    double alpha = c.alphaIn;
    qpStepLength(lower.data(), upper.data(), x.data(), alpha, work.data(), ire.data(), entering, c.boundMode,
                 c.n, c.mi, kind);
    EXPECT_TRUE(kind == c.kind && (c.entering == kAny || entering == c.entering))
        << c.what << ": kind " << kind << ", entering " << entering;
    EXPECT_BITEQ(c.alpha, alpha) << c.what;
  }
}

// A fresh reduced factor, Z = reversal: the pivot band 20 P around zero, refusal (flag 0:
// status m), a pair indefinite only in its coupling, the growth marker, equal pivots in order;
// rank 3 of 8 (5 directions without curvature, decided in the last bits of BLAS products) is
// pinned to the reference BLAS.
TEST(QpReducedFactor, FreshStatuses) {
  const double tenP = 10.0 * kPrecision;
  const Vec pair = {1, 0, 0, 0, 0, 1, 0, 0, 0};  // diag (1, 0, 0), positions 2 and 3 coupled
  const Vec grow = {1e-10, 1e-3, 0, 0, 1, 0, 0, 0, 1};  // tiny first pivot, large coupling
  Vec rank3(64, 0.0), B(24);
  std::mt19937 gen(5);
  for (double& b : B) b = std::uniform_real_distribution<double>(-1.0, 1.0)(gen);
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j)
      for (int l = 0; l < 3; ++l) rank3[at(i, j, 8)] += B[at(i, l, 8)] * B[at(j, l, 8)];
  struct Case { const char* what; int m; Vec H; int flag, kf; std::vector<int> ipvt; };
  const Case cases[] = {{"+10P: no curvature", 1, {tenP}, 1, 1, {}}, {"-10P: no curvature", 1, {-tenP}, 1, 1, {}},
                        {"-30P: negative", 1, {-3.0 * tenP}, 1, -1, {}}, {"refused", 1, {-1.0}, 0, 1, {}},
                        {"indefinite pair", 3, pair, 1, -2 - 3, {}}, {"pair refused", 3, pair, 0, 3, {}},
                        {"growth", 3, grow, 1, -2 - 30, {}},
                        {"pivot tie", 3, {0, 0, 0, 0, 2, 0, 0, 0, 2}, 1, 1, {2, 3, 1}},
                        {"rank 3 of 8", 8, rank3, 1, 5, {}}};
  for (const auto& [what, m, H, flag, kfWanted, ipvtWanted] : cases) {
    if (m == 8 && !lumbra::testing::referenceBlas()) continue;
    Vec Z(static_cast<std::size_t>(m) * m, 0.0), T(Z.size(), 0.0), w(m);
    std::vector<int> ipvt(m);
    for (int j = 0; j < m; ++j) Z[at(m - 1 - j, j, m)] = 1.0;
    int kf = 0;
    ANFM03(H.data(), m, T.data(), m, Z.data(), m, w.data(), ipvt.data(), m, m, kf, flag, 6);
    EXPECT_TRUE(kf == kfWanted && (ipvtWanted.empty() || ipvt == ipvtWanted)) << what << ": " << kf;
  }
}

// A coupling row over a zero pivot (r = 3 nz - st): p(0:r-2) = -T(0:r-2,r:nz-1) b,
// b = T(r-1,r:nz-1), p(r-1) = -|b|^2, solved with the leading r triangle, then -b; negated when
// c p(r-1) < 0, c = -Z(:,0)'g.  nz = 3, r = 2, Z = ipvt = I: (3, -8, -2) reversed, before the
// sign.  Dyadic: exact on every BLAS.
TEST(QpDirection, CouplingRowFormula) {
  const Vec Z = {1, 0, 0, 0, 1, 0, 0, 0, 1}, T = {2, 0, 0, 1, 0.5, 0, 1, 2, 0};
  const std::vector<int> ipvt = {1, 2, 3};
  for (double g0 : {1.0, -1.0}) {
    const Vec g = {g0, 0.5, 0.25};
    Vec y(6, 0.0), p(3, 7.0);
    int mode = 1, drop = 0;
    double alpha = -1.0;
    qpDirection(Z.data(), 3, T.data(), 3, g.data(), g.data(), y.data(), p.data(), ipvt.data(), 1.0, 3, 3,
                3 * 3 - 2, mode, drop, alpha);
    const double s = g0 > 0 ? 1.0 : -1.0;  // c = -g0: negated when c > 0
    EXPECT_TRUE(p == (Vec{-2 * s, -8 * s, 3 * s}) && drop == 0) << g0 << ": " << p[0] << " " << p[2];
  }
}

}  // namespace
}  // namespace lumbra::qp
