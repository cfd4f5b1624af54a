// SPDX-License-Identifier: Apache-2.0
// The QP solver: statuses, feasibility and KKT on random and degenerate
// problems (on every BLAS; exact whole solves live in the bit-exact corpus),
// and edges a solve rarely shows: one variable, the violation, the ratio
// test, the reduced factor's statuses, a negative-curvature direction.
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
#if defined(__SANITIZE_ADDRESS__)
constexpr long kGuard = 0;  // AddressSanitizer catches an overrun itself
#else
constexpr long kGuard = 32;
#endif
constexpr double kMark = -0x1.5555p+77, kFar = 1e300;  // guard value; an absent bound

// A problem in solver form (column-major) and the driver's outputs.
struct Problem : lumbra::testing::DegenerateQp {
  Vec x, mult;
  int status = 12345;
  explicit Problem(const DegenerateQp& p) : DegenerateQp(p) {}
  Problem(int n_, int me_, int mi_, double diag, double lo = -kFar, double up = kFar) {
    n = n_, me = me_, mi = mi_, H.assign(n * n, 0.0), c.assign(n, 0.0);
    C.assign(n * (me + mi) + 1, 0.0), d.assign(me + mi + 1, 0.0), lower.assign(n, lo), upper.assign(n, up);
    for (int i = 0; i < n; ++i) H[i + i * n] = diag;
  }
  // Runs the driver on work of exactly n (n + 1) + kMainWork (kLinearWork if
  // linear) and a guard band; mult starts at 99.  True if the band is intact.
  bool solve(bool linear = false) {
    const long nw = long(n) * (n + 1) + (linear ? kLinearWork(n, mi) : kMainWork(n, mi));
    Vec work(nw + kGuard, kMark);
    std::vector<int> iwork(3 * n + me + 2 * mi + 4);
    x.assign(n, NAN), mult.assign(n + me + mi, 99.0);
    qpDriver(n, H.data(), c.data(), me, mi, C.data(), d.data(), lower.data(), upper.data(), iwork.data(),
             work.data(), mult.data(), x.data(), status);
    return std::all_of(work.begin() + nw, work.end(), [](double v) { return v == kMark; });
  }
  double row(int j) const {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += C[i + j * n] * x[i];
    return s;
  }
  double violation() const {
    double v = 0.0;
    for (int j = 0; j < me + mi; ++j) v = std::fmax(v, j < me ? std::fabs(row(j) - d[j]) : row(j) - d[j]);
    for (int i = 0; i < n; ++i) v = std::fmax(v, std::fmax(lower[i] - x[i], x[i] - upper[i]));
    return v;
  }
  // g = H x + c.
  Vec gradient() const {
    Vec g = c;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) g[i] += H[i + j * n] * x[j];
    return g;
  }
};

// Each failure status; on infeasibility the multipliers are left alone.
TEST(QpDriverFailure, Statuses) {
  struct Case { const char* what; Problem p; int status; bool multKept; };
  Case cases[] = {{"bounds miss the budget", Problem(3, 1, 0, 1.0, 0.0, 0.25), 1001, true},
                  {"x0 + x1 <= -1, >= 1", Problem(2, 0, 2, 1.0), 1001, false},
                  {"inconsistent equalities", Problem(3, 2, 0, 1.0), -1006, false},
                  {"unbounded", Problem(3, 0, 0, 0.0, 0.0, 1.0), -1002, false},
                  {"inverted bounds", Problem(3, 0, 0, 1.0), -1005, false},
                  {"negative me", Problem(2, 0, 0, 0.0), -1005, false},
                  {"1 variable, 0 x = 1", Problem(1, 1, 0, 1.0, -1.0, 1.0), -8, false}};
  std::fill_n(cases[0].p.C.begin(), 3, 1.0), cases[0].p.d[0] = 1.0;
  cases[1].p.C = {1, 1, -1, -1, 0}, cases[1].p.d = {-1, -1, 0};
  std::fill_n(cases[2].p.C.begin(), 6, 1.0), cases[2].p.d = {1.0, 2.0, 0.0};
  cases[3].p.c[0] = -1.0, cases[3].p.upper[0] = kFar, cases[4].p.lower[1] = 1.0, cases[4].p.upper[1] = 0.5;
  cases[5].p.me = -1, cases[6].p.d[0] = 1.0;
  for (Case& k : cases) {
    EXPECT_TRUE(k.p.solve()) << k.what;
    EXPECT_EQ(k.status, k.p.status) << k.what;
    for (double m : k.p.mult) EXPECT_EQ(k.multKept ? 99.0 : m, m) << k.what;
  }
}

// H = A'A/n + 0.1 I, a budget, random rows through an interior point x0,
// boxes around it: x feasible, KKT with the solver's own multipliers
// (Hx + c + m_b + C m_c = 0; upper >= 0, lower <= 0, inequalities >= 0;
// complementarity), and H back as given though only its lower triangle was
// read (garbage above on entry, mirrored on return).  Tolerances: O(1)
// data, n up to 100: rounding stays well below 1e-9.
TEST(QpDriverRandom, FeasibleAndKkt) {
  std::mt19937_64 rng(20240611);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> unif(0.0, 1.0);
  int bindings = 0;  // bounds and inequalities with a non-zero multiplier
  for (int n : {2, 3, 5, 8, 13, 21, 34, 60, 100})
    for (int rep = 0; rep < 3; ++rep) {
      const int me = 1 + rep % 2, mi = n / 2 + rep;
      Problem p(n, me, mi, 0.0);
      Vec A(n * n), x0(n);
      for (double& v : A) v = gauss(rng);
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
          double s = 0.0;
          for (int k = 0; k < n; ++k) s += A[k + i * n] * A[k + j * n];
          p.H[i + j * n] = s / n + (i == j ? 0.1 : 0.0);
        }
      for (int i = 0; i < n; ++i)
        x0[i] = unif(rng), p.c[i] = gauss(rng), p.lower[i] = x0[i] - unif(rng), p.upper[i] = x0[i] + unif(rng);
      for (int j = 0; j < me + mi; ++j) {
        double s = 0.0;
        for (int i = 0; i < n; ++i) p.C[i + j * n] = j == 0 ? 1.0 : gauss(rng), s += p.C[i + j * n] * x0[i];
        p.d[j] = j < me ? s : s + 0.1 * unif(rng);
      }
      const Vec H = p.H;
      for (int j = 1; j < n; ++j)
        for (int i = 0; i < j; ++i) p.H[i + j * n] = 99.0;
      EXPECT_TRUE(p.solve());
      ASSERT_EQ(p.status, 0) << "n=" << n << " rep=" << rep;
      for (std::size_t i = 0; i < H.size(); ++i) EXPECT_BITEQ(H[i], p.H[i]);
      EXPECT_LT(p.violation(), 1e-9) << "n=" << n;
      Vec r = p.gradient();
      double defect = 0.0, scale = 1.0;
      for (int i = 0; i < n; ++i) {
        r[i] += p.mult[i];
        for (int j = 0; j < me + mi; ++j) r[i] += p.C[i + j * n] * p.mult[n + j];
        defect = std::fmax(defect, std::fabs(r[i]));
        defect = std::fmax(defect, std::fmax(p.mult[i], 0.0) * std::fabs(p.upper[i] - p.x[i]));
        defect = std::fmax(defect, std::fmax(-p.mult[i], 0.0) * std::fabs(p.x[i] - p.lower[i]));
        scale = std::fmax(scale, std::fabs(p.c[i]));
        bindings += p.mult[i] != 0.0;
      }
      for (int j = me; j < me + mi; ++j) {
        defect = std::fmax(defect, std::fmax(-p.mult[n + j], std::fabs(p.mult[n + j] * (p.row(j) - p.d[j]))));
        bindings += p.mult[n + j] != 0.0;
      }
      EXPECT_LT(defect / scale, 1e-8) << "n=" << n;
    }
  EXPECT_GT(bindings, 500);  // the data make many bounds and rows bind
}

// Smallest |g + A lambda|_inf over the normals A active at x (within tol),
// lambda >= 0 on inequalities and bounds: cyclic coordinate descent on the
// least squares, projected; on a few constraints far below 1e-8.
double kktResidual(const Problem& p, double tol) {
  const int n = p.n;
  std::vector<std::pair<Vec, bool>> normals;  // normal, sign-constrained
  for (int j = 0; j < p.me + p.mi; ++j)
    if (j < p.me || std::fabs(p.row(j) - p.d[j]) <= tol)
      normals.emplace_back(Vec(p.C.begin() + j * n, p.C.begin() + (j + 1) * n), j >= p.me);
  for (int i = 0; i < n; ++i)
    for (int side : {1, -1})
      if (std::fabs(p.x[i] - (side > 0 ? p.upper[i] : p.lower[i])) <= tol) {
        normals.emplace_back(Vec(n, 0.0), true);
        normals.back().first[i] = side;
      }
  Vec r = p.gradient(), lambda(normals.size(), 0.0);
  for (int sweep = 0; sweep < 2000; ++sweep)
    for (size_t q = 0; q < normals.size(); ++q) {
      const Vec& a = normals[q].first;
      double ar = 0.0, aa = 0.0;
      for (int i = 0; i < n; ++i) ar += a[i] * r[i], aa += a[i] * a[i];
      const double next = normals[q].second ? std::max(0.0, lambda[q] - ar / aa) : lambda[q] - ar / aa;
      for (int i = 0; i < n; ++i) r[i] += (next - lambda[q]) * a[i];
      lambda[q] = next;
    }
  double worst = 0.0;
  for (double v : r) worst = std::max(worst, std::fabs(v));
  return worst;
}

// The corpus's degenerate problems by what holds for any correct answer on
// any BLAS: status 0 or "no feasible point"; a solved point meets every row
// and bound, and g = Hx + c is minus a non-negative combination of the
// active normals (fitted: the solver's multipliers stand as the stop test
// last formed them).  Zero Hessians run on the linear work.  Tolerances:
// dyadic O(1) data, n <= 9, so a few 1e-16 of rounding per operation.
TEST(QpDegenerate, SolvedPointsAreFeasibleAndMeetTheKuhnTuckerConditions) {
  int solved = 0;
  for (int k = 0; k < lumbra::testing::kDegenerateCount; ++k) {
    Problem p(lumbra::testing::degenerateProblem(k));
    EXPECT_TRUE(p.solve((k / 6) % 4 == 1)) << k;
    if (p.status != 0) {
      EXPECT_EQ(1001, p.status) << k;
      continue;
    }
    ++solved;
    EXPECT_LE(p.violation(), 1e-10) << k;
    EXPECT_LE(kktResidual(p, 1e-10), 1e-8) << k;
  }
  EXPECT_GE(solved, 40);
}

// One variable on [-1, 2]: ties go to the upper end, the first usable
// equality fixes x, a failure (-8 zero row, -9 empty, -7 impossible zero
// inequality) leaves x alone; empty by less than 1e-15 is not empty; a
// coefficient at or below the widened 1e-15f (1.0000000036e-15) is zero.
TEST(QpScalar, Cases) {
  struct Case { double h, c; int me, mi; Vec C, d; int status; double x; };
  const double justBelow = std::nextafter(-1.0, -2.0), none = 0.0;
  const Case cases[] = {{1.0, 0.0, 0, 1, {1.0}, {justBelow}, 0, justBelow},
                        {0.0, 0.0, 0, 0, {}, {}, 0, 2.0},
                        {2.0, -1.0, 0, 0, {}, {}, 0, 0.5},
                        {2.0, -10.0, 0, 0, {}, {}, 0, 2.0},
                        {1.0, 0.0, 2, 1, {0.0, 4.0, 1.0}, {0.0, 3.0, 9.0}, 0, 0.75},
                        {1.0, 0.0, 1, 0, {0.0}, {1.0}, -8, 42.0},
                        {1.0, 0.0, 1, 0, {1.0}, {5.0}, -9, 42.0},
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

// The violation the refinement tests: an equality counts only when it falls
// short, an inequality when it is exceeded.  x = 1 on [-10, 10]; exact.
TEST(QpViolation, CountsShortfallsOfEqualitiesAndExcessesOfInequalities) {
  struct Case { int me, mi; Vec b; double v; };
  const Case cases[] = {{2, 0, {1.25, 1.5}, 0.5},    // two shortfalls: the larger
                        {2, 0, {1.25, 0.5}, 0.25},   // an overshoot does not count
                        {1, 1, {1.25, 0.0}, 1.0},    // excess of x <= 0
                        {1, 1, {1.25, 2.0}, 0.25}};  // slack inequality
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
  constexpr int kAny = -99;  // entering or alpha (NaN) not checked
  struct Case {
    const char* what;
    int n, mi, boundMode;
    Vec p, lower, upper, x, grad, resid, cp;  // empty: absent bounds, zeros, residuals -1
    std::vector<int> ire;
    int kindIn;
    double alphaIn;
    int kind, entering;
    double alpha;
  };
  const Case cases[] = {
      {"bound ties: the first variable", 3, 0, 3, {0.5, -0.25, 1.0}, {-kFar, -0.5, -kFar}, {1.0, kFar, 3.0}, {},
       {}, {}, {}, {}, 0, 0.0, 1, 1, 2.0},
      {"ties with rows: the later constraint", 2, 3, 3, {0.5, 0.0}, {}, {1.0, kFar}, {}, {}, {-1.0, -0.5, -3.0},
       {0.5, 0.25, 1.0}, {}, 0, 0.0, 1, 2 + 2, 2.0},
      // x_1 on its bound (ratio 0), x_2 far, x_3 moves below tolerance, x_4 and row 2 active
      {"skips zero, far, tiny, active", 4, 2, 3, {1.0, 1.0, 1e-12, 1.0}, {}, {1.0, 1e200, 0.25, 0.125},
       {1.0, 0.0, 0.0, 0.0}, {}, {-8.0, -0.5}, {2.0, 1.0}, {0, 0, 0, 1, 0, 1}, 0, 0.0, 1, 5, 4.0},
      {"natural step equal to the block", 1, 0, 3, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 1.0, 3, 1, 1.0},
      {"natural step shorter", 1, 0, 3, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 0.5, 2, kAny, 0.5},
      {"negative curvature, unblocked", 2, 0, 3, {1.0, -0.5}, {}, {}, {}, {-1.0, 0.0}, {}, {}, {}, 0, 0.0, -1,
       kAny, NAN},
      {"flat, unblocked: very long", 2, 0, 3, {1.0, -0.5}, {}, {}, {}, {0.5, 1.0}, {}, {}, {}, 2, 0.0, 11, 0,
       kOverflow},
      {"(1 + 1) 2^25 = 2^26: not long", 1, 0, 3, {1.0}, {}, {33554432.0}, {}, {}, {}, {}, {}, 0, 0.0, 1, 1,
       33554432.0},
      {"2^27 > 2^26: long", 1, 0, 3, {1.0}, {}, {67108864.0}, {}, {}, {}, {}, {}, 2, 0.0, 11, 1, 67108864.0},
      // upper bounds only: 0.5 blocks at 1; the lower -0.25, at 0.25, is not looked at
      {"bound mode 2", 2, 0, 2, {0.5, -1.0}, {-kFar, -0.25}, {0.5, kFar}, {}, {}, {}, {}, {}, 1, 4.0, 1, 1, 1.0},
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
    EXPECT_EQ(c.kind, kind) << c.what;
    EXPECT_EQ(c.entering == kAny ? entering : c.entering, entering) << c.what;
    EXPECT_BITEQ(std::isnan(c.alpha) ? alpha : c.alpha, alpha) << c.what;
  }
}

// Statuses of a fresh reduced factor with Z = reversal (so Z'HZ in
// position order is H): the pivot band 20 P around zero, refusal (flag 0)
// with status m, an indefinite pair seen only in its coupling, the growth
// marker (10 m) when a row of T passes 1.2 sqrt(gamma), and the diagonal
// pivoting, the first of equal diagonals first (H = diag(0, 2, 2):
// positions 2, 3, then the zero one as the singular tail).  Last, a
// random H of rank 3 in 8 dimensions has 5 directions without curvature:
// a rank decision in the last bits of BLAS products, pinned to the
// reference BLAS.
TEST(QpReducedFactor, FreshStatuses) {
  const double tenP = 10.0 * kPrecision;
  Vec pair(9, 0.0), grow(9, 0.0), tie(9, 0.0), rank3(64, 0.0), B(24);
  pair[at(0, 0, 3)] = pair[at(2, 1, 3)] = 1.0;  // diag (1, 0, 0), positions 2 and 3 coupled
  grow[at(0, 0, 3)] = 1e-10;                      // tiny first pivot, large coupling
  grow[at(1, 0, 3)] = 1e-3;
  grow[at(1, 1, 3)] = grow[at(2, 2, 3)] = 1.0;
  tie[at(1, 1, 3)] = tie[at(2, 2, 3)] = 2.0;
  std::mt19937 gen(5);
  for (double& b : B) b = std::uniform_real_distribution<double>(-1.0, 1.0)(gen);
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j)
      for (int l = 0; l < 3; ++l) rank3[at(i, j, 8)] += B[at(i, l, 8)] * B[at(j, l, 8)];
  struct Case { const char* what; int m; Vec H; int flag, kf; std::vector<int> ipvt; };
  const Case cases[] = {{"+10P: no curvature", 1, {tenP}, 1, 1, {}},
                        {"-10P: no curvature", 1, {-tenP}, 1, 1, {}},
                        {"-30P: negative", 1, {-3.0 * tenP}, 1, -1, {}},
                        {"refused", 1, {-1.0}, 0, 1, {}},
                        {"indefinite pair", 3, pair, 1, -2 - 3, {}},
                        {"pair refused", 3, pair, 0, 3, {}},
                        {"growth", 3, grow, 1, -2 - 30, {}},
                        {"pivot tie", 3, tie, 1, 1, {2, 3, 1}},
                        {"rank 3 of 8", 8, rank3, 1, 5, {}}};
  for (const Case& c : cases) {
    if (c.m == 8 && !lumbra::testing::referenceBlas()) continue;
    const int m = c.m;
    Vec Z(static_cast<std::size_t>(m) * m, 0.0), T(Z.size(), 0.0), w(m);
    std::vector<int> ipvt(m);
    for (int j = 0; j < m; ++j) Z[at(m - 1 - j, j, m)] = 1.0;
    int kf = 0;
    ANFM03(c.H.data(), m, T.data(), m, Z.data(), m, w.data(), ipvt.data(), m, m, kf, c.flag, 6);
    EXPECT_EQ(c.kf, kf) << c.what;
    EXPECT_EQ(c.ipvt.empty() ? ipvt : c.ipvt, ipvt) << c.what;
  }
}

// The direction of a coupling row over a zero pivot (st > 2 nz, r = 3 nz -
// st), by its formula: p(0:r-2) = -T(0:r-2,r:nz-1) b with b = T(r-1,r:nz-1),
// p(r-1) = -|b|^2, solved with the leading r triangle, then -b; negated
// when c p(r-1) < 0, c = -Z(:,0)'g.  nz = 3, r = 2, Z = I, ipvt = I, so p
// comes out reversed; T(0:1,0:1) = [2 1; 0 1/2], b = 2, T(0,2) = 1 give
// (3, -8, -2) before the sign.  Dyadic: exact on every BLAS.
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
    EXPECT_EQ((Vec{-2 * s, -8 * s, 3 * s}), p) << g0;
    EXPECT_EQ(0, drop);
  }
}

}  // namespace
}  // namespace lumbra::qp
