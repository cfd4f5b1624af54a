// Feasible point search, infeasibility measure, and the closing measures
// of the QP solver.  Data are small dyadic numbers wherever a result is
// compared bit for bit, so that every summation order in BLAS agrees.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "qp/factors.h"
#include "qp/solver.h"
#include "test_support.h"

namespace {

using namespace lumbra::qp;

constexpr double kNone = 1e300;  // an absent bound

// Work space of one OPTR01 call with ldc = ldq = ldr = n.
struct Search {
  int n, me, mi;
  std::vector<double> C, b, CI, CS, x, Q, HR, w;
  std::vector<int> list, IRE;
  int kact = -1, kcur = -1, status = 99;
  Search(int n_, int me_, int mi_)
      : n(n_), me(me_), mi(mi_), C(n_ * (me_ + mi_) + 1, 0.0), b(me_ + mi_ + 1, 0.0),
        CI(n_, -kNone), CS(n_, kNone), x(n_, 0.0), Q(n_ * n_), HR(n_ * (n_ + 1), 0.0),
        w(3 * n_ + 2 * mi_ + 1), list(n_ + me_ + mi_ + 1), IRE(n_ + mi_ + 1, 0) {}
  double& a(int i, int j) { return C[i + j * n]; }
  void run(int ind = 11) {
    OPTR01(C.data(), n, Q.data(), n, HR.data() + n, n, CI.data(), CS.data(), b.data(),
           x.data(), w.data(), list.data(), IRE.data(), 3, n, kact, me, kcur, mi, status, -20,
           6, ind);
  }
};

TEST(QpInfeasibility, StatesGradientAndSum) {
  const int n = 3, mi = 2;
  const double CI[3] = {0.0, -1.0, 0.0};
  const double CS[3] = {1.0, 1.0, 0.5};
  const double x[3] = {-0.25, 0.5, 0.75};
  // rows: x0 + x1 <= 0 (violated by 0.25), x2 <= 1 (satisfied)
  const double C[6] = {1.0, 1.0, 0.0, 0.0, 0.0, 1.0};
  const double b[2] = {0.0, 1.0};
  std::vector<double> w(3 * n + 2 * mi, -9.0);
  int IRE[5] = {7, 1, 7, 7, 7};  // x1 is held at its upper bound: skipped
  double sum = -1.0;
  int found = -1;
  qpInfeasibility(C, n, CI, CS, b, x, w.data(), IRE, 3, n, mi, 1, sum, found);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(IRE[0], -2);
  EXPECT_EQ(IRE[1], 1);
  EXPECT_EQ(IRE[2], 2);
  EXPECT_EQ(IRE[3], 2);
  EXPECT_EQ(IRE[4], 0);
  // sum = 0.25 (lower of x0) + 0.25 (upper of x2) + 0.25 (row 0)
  EXPECT_BITEQ(0.75, sum);
  // w = negative gradient: +1 for x0, -1 for x2, minus the violated row
  EXPECT_BITEQ(0.0, w[0]);
  EXPECT_BITEQ(-1.0, w[1]);
  EXPECT_BITEQ(-1.0, w[2]);
  EXPECT_BITEQ(0.25, w[3 * n + 0]);
  EXPECT_BITEQ(-0.25, w[3 * n + 1]);

  // The test mode stops at the first violation and leaves the states.
  int IRE2[5] = {0, 0, 0, 0, 0};
  qpInfeasibility(C, n, CI, CS, b, x, w.data(), IRE2, 3, n, mi, 0, sum, found);
  EXPECT_EQ(found, 1);
  for (int s : IRE2) EXPECT_EQ(s, 0);

  // Within the tolerance P^0.75 a bound counts as met.
  const double xin[3] = {-1e-12, 0.0, 0.5 + 1e-12};
  int IRE3[5] = {0, 0, 0, 0, 0};
  const double C0[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  qpInfeasibility(C0, n, CI, CS, b, xin, w.data(), IRE3, 3, n, mi, 1, sum, found);
  EXPECT_EQ(found, 0);
  EXPECT_BITEQ(0.0, sum);
}

// Budget row with bounds 0..1: the least-norm start 1/n meets every bound,
// the nearest bounds fill the working set, and the vertex they define is
// the first point tested.
TEST(QpFeasibleSearch, BudgetVertex) {
  Search s(4, 1, 0);
  for (int i = 0; i < 4; ++i) {
    s.a(i, 0) = 1.0;
    s.CI[i] = 0.0;
    s.CS[i] = 1.0;
  }
  s.b[0] = 1.0;
  s.run();
  ASSERT_EQ(s.status, 0);
  EXPECT_EQ(s.kcur, 1);
  EXPECT_EQ(s.kact, 4);
  EXPECT_EQ(s.list[0], 1);
  // Distances 0.75 to the upper and 0.25 to the lower limit: lower bounds
  // of x0, x1, x2 enter; then the working set is full.
  EXPECT_EQ(s.list[1], -1);
  EXPECT_EQ(s.list[2], -2);
  EXPECT_EQ(s.list[3], -3);
  EXPECT_EQ(s.IRE[3], 0);
  // Tolerance: x passes through Householder products (BLAS).
  EXPECT_NEAR(s.x[0], 0.0, 1e-15);
  EXPECT_NEAR(s.x[1], 0.0, 1e-15);
  EXPECT_NEAR(s.x[2], 0.0, 1e-15);
  EXPECT_NEAR(s.x[3], 1.0, 1e-15);
}

// The descent over the infeasibility: a start vertex that violates a row
// is walked to a feasible point.
TEST(QpFeasibleSearch, WalksToFeasiblePoint) {
  Search s(3, 0, 2);
  for (int i = 0; i < 3; ++i) {
    s.CI[i] = 0.0;
    s.CS[i] = 1.0;
  }
  // -x0 - x1 - x2 <= -2 (sum at least 2) and x0 - x2 <= 0
  s.a(0, 0) = -1.0; s.a(1, 0) = -1.0; s.a(2, 0) = -1.0; s.b[0] = -2.0;
  s.a(0, 1) = 1.0; s.a(2, 1) = -1.0; s.b[1] = 0.0;
  s.run();
  ASSERT_EQ(s.status, 0);
  const double sum = s.x[0] + s.x[1] + s.x[2];
  EXPECT_GE(sum, 2.0 - 1e-12);
  EXPECT_LE(s.x[0] - s.x[2], 1e-12);
  for (int i = 0; i < 3; ++i) {
    EXPECT_GE(s.x[i], -1e-12);
    EXPECT_LE(s.x[i], 1.0 + 1e-12);
  }
}

TEST(QpFeasibleSearch, EqualityCases) {
  // A dependent row with a residual above the tolerance: -1 at once.
  Search bad(3, 2, 0);
  for (int i = 0; i < 3; ++i) {
    bad.a(i, 0) = 1.0;
    bad.a(i, 1) = 2.0;
  }
  bad.b[0] = 1.0;
  bad.b[1] = 2.5;
  bad.run();
  EXPECT_EQ(bad.status, -1);

  // Consistent: it stays at the tail of the equality places, outside R.
  Search ok(3, 2, 0);
  for (int i = 0; i < 3; ++i) {
    ok.a(i, 0) = 2.0;
    ok.a(i, 1) = 1.0;
  }
  ok.b[0] = 1.5;
  ok.b[1] = 0.75;
  ok.run(1);
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.kcur, 1);
  EXPECT_EQ(ok.list[0], 1);
  EXPECT_EQ(ok.list[1], 2);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(ok.x[i], 0.25, 1e-15);

  // All working constraints are equalities and the point is infeasible:
  // nothing can be given up, -2.
  Search inf(2, 2, 0);
  inf.a(0, 0) = 1.0;
  inf.a(1, 1) = 1.0;
  inf.b[0] = 2.0;
  inf.b[1] = 0.0;
  inf.CS[0] = 1.0;
  inf.CI[0] = 0.0;
  inf.run();
  EXPECT_EQ(inf.status, -2);
}

TEST(QpFeasibleSearch, BadArguments) {
  Search s(3, 0, 0);
  s.CI[1] = 1.0;
  s.CS[1] = 0.0;
  s.run();
  EXPECT_EQ(s.status, -5);
  Search t(3, 0, 0);
  t.run(23);
  EXPECT_EQ(t.status, -5);
}

// ---- closing measures --------------------------------------------------------

TEST(QpMeasures, ViolationIsAsymmetricOnEqualities) {
  const double C[4] = {1.0, 1.0, 1.0, -1.0};
  const double x[2] = {0.5, 0.25};
  const double CI[2] = {0.0, 0.0};
  const double CS[2] = {1.0, 1.0};
  double v = 0.0;
  // x0 + x1 = 0.875 falls short by 0.125 and counts; x0 - x1 = 0 is
  // overshot by 0.25, and an overshoot counts only while it is below the
  // present value: it is passed over here.
  const double b[2] = {0.875, 0.0};
  qpViolation(2, x, 2, 0, C, b, CI, CS, v);
  EXPECT_BITEQ(0.125, v);
  // The same row as an inequality x0 - x1 <= 0, exceeded by 0.25.
  qpViolation(2, x, 0, 1, C + 2, b + 1, CI, CS, v);
  EXPECT_BITEQ(0.25, v);
  // Bounds alone: the largest of CI - x and x - CS.
  qpViolation(2, x, 0, 0, C, b, CI, CS, v);
  EXPECT_BITEQ(-0.25, v);
}

TEST(QpMeasures, ObjectiveAndAbsMax) {
  // Only the lower triangle is read: the upper holds garbage.
  const double H[9] = {2.0, 1.0, 0.5, 99.0, 4.0, -1.0, 99.0, 99.0, 1.0};
  const double g[3] = {1.0, -2.0, 0.25};
  const double x[3] = {0.5, -1.0, 2.0};
  double u[3];
  // Hx = (1 - 1 + 1, 0.5 - 4 - 2, 0.25 + 1 + 2) = (1, -5.5, 3.25)
  // f = x'(Hx/2 + g) = 0.5*1.5 + (-1)(-4.75) + 2*1.875 = 9.25
  EXPECT_BITEQ(9.25, qpObjective(H, 3, g, x, u, 1.0, 3));
  EXPECT_BITEQ(18.5, qpObjective(H, 3, g, x, u, 2.0, 3));
  const double v[4] = {1.0, -3.5, 3.5, 2.0};
  EXPECT_BITEQ(3.5, qpAbsMax(4, v));
  EXPECT_BITEQ(0.0, qpAbsMax(0, v));
}

TEST(QpMeasures, RefineRepairsDriftAndRefusesBadList) {
  // Working set: equality x0 + x1 = 1 and the upper bound of x1 at 0.25,
  // factored by the solver's own routine; x is off by 1e-6.
  const int n = 2;
  std::vector<double> Q(4), HR(n * (n + 1), 0.0), w(8);
  const double C[2] = {1.0, 1.0};
  const double b[1] = {1.0};
  const double CI[2] = {-kNone, -kNone};
  const double CS[2] = {kNone, 0.25};
  for (int j = 0; j < 2; ++j)
    for (int i = 0; i < 2; ++i) Q[i + j * n] = i == j ? 1.0 : 0.0;
  int id = 0;
  ANFM01(Q.data(), n, HR.data() + n, n, C, w.data(), n, 1, id, 6);
  ASSERT_EQ(id, 0);
  id = 2;
  ANFM01(Q.data(), n, HR.data() + n, n, nullptr, w.data(), n, 2, id, 6);
  ASSERT_EQ(id, 0);
  int list[2] = {1, 2};
  double x[2] = {0.75 - 1e-6, 0.25 + 1e-6};  // x1 above its bound
  double e[4];
  int status = 0;
  qpRefine(Q.data(), n, HR.data() + n, n, C, n, b, CI, CS, x, e, list, n, 2, 1, 1, 0, status);
  EXPECT_EQ(status, 0);
  EXPECT_NEAR(x[0], 0.75, 1e-15);
  EXPECT_NEAR(x[1], 0.25, 1e-15);

  // Already exact: nothing moves, bit for bit.
  double y[2] = {0.75, 0.25};
  qpRefine(Q.data(), n, HR.data() + n, n, C, n, b, CI, CS, y, e, list, n, 2, 1, 1, 0, status);
  EXPECT_BITEQ(0.75, y[0]);
  EXPECT_BITEQ(0.25, y[1]);

  // k = 0 does nothing; an equality place holding a bound index is -18.
  qpRefine(Q.data(), n, HR.data() + n, n, C, n, b, CI, CS, x, e, list, n, 0, 1, 0, 0, status);
  EXPECT_EQ(status, 0);
  int badList[2] = {-1, 2};
  qpRefine(Q.data(), n, HR.data() + n, n, C, n, b, CI, CS, x, e, badList, n, 2, 1, 1, 0,
           status);
  EXPECT_EQ(status, -18);
}

}  // namespace
