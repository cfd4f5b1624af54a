// Feasible point search, infeasibility measure, and the closing measures
// of the QP solver.  Data are small dyadic numbers wherever a result is
// compared bit for bit, so that every summation order in BLAS agrees.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "qp/factors.h"
#include "qp/solver.h"
#include "test_support.h"

namespace {

using namespace lumbra::qp;
using Vec = std::vector<double>;
constexpr double kNone = 1e300;  // an absent bound

// Work space of one OPTR01 call with ldc = ldq = ldr = n.
struct Search {
  int n, me, mi;
  Vec C, b, CI, CS, x, Q, HR, w;
  std::vector<int> list, IRE;
  int kact = -1, kcur = -1, status = 99;
  Search(int n_, int me_, int mi_, double lo = -kNone, double up = kNone)
      : n(n_), me(me_), mi(mi_), C(n_ * (me_ + mi_) + 1, 0.0), b(me_ + mi_ + 1, 0.0),
        CI(n_, lo), CS(n_, up), x(n_, 0.0), Q(n_ * n_), HR(n_ * (n_ + 1), 0.0),
        w(3 * n_ + 2 * mi_ + 1), list(n_ + me_ + mi_ + 1), IRE(n_ + mi_ + 1, 0) {}
  void run(int ind = 11) {
    OPTR01(C.data(), n, Q.data(), n, HR.data() + n, n, CI.data(), CS.data(), b.data(), x.data(),
           w.data(), list.data(), IRE.data(), 3, n, kact, me, kcur, mi, status, -20, 6, ind);
  }
};

// States, negative gradient and sum of violations; test mode (0) stops at
// the first violation and leaves the states; within P^0.75 a bound is met.
TEST(QpInfeasibility, StatesGradientAndSum) {
  const int n = 3, mi = 2;
  const double CI[3] = {0.0, -1.0, 0.0}, CS[3] = {1.0, 1.0, 0.5}, x[3] = {-0.25, 0.5, 0.75};
  // rows: x0 + x1 <= 0 (violated by 0.25), x2 <= 1 (satisfied)
  const double C[6] = {1.0, 1.0, 0.0, 0.0, 0.0, 1.0}, b[2] = {0.0, 1.0};
  Vec w(3 * n + 2 * mi, -9.0);
  int IRE[5] = {7, 1, 7, 7, 7};  // x1 is held at its upper bound: skipped
  double sum = -1.0;
  int found = -1;
  qpInfeasibility(C, n, CI, CS, b, x, w.data(), IRE, 3, n, mi, 1, sum, found);
  EXPECT_EQ(found, 1);
  const int states[5] = {-2, 1, 2, 2, 0};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(states[i], IRE[i]) << i;
  EXPECT_BITEQ(0.75, sum);  // lower of x0 + upper of x2 + row 0, 0.25 each
  // w: +1 for x0, -1 for x2, minus the violated row; row part after 3n
  const double wExp[5] = {0.0, -1.0, -1.0, 0.25, -0.25};
  for (int i = 0; i < 5; ++i) EXPECT_BITEQ(wExp[i], w[i < 3 ? i : 3 * n + i - 3]);

  int IRE2[5] = {0, 0, 0, 0, 0};
  qpInfeasibility(C, n, CI, CS, b, x, w.data(), IRE2, 3, n, mi, 0, sum, found);
  EXPECT_EQ(found, 1);
  for (int s : IRE2) EXPECT_EQ(s, 0);

  const double xin[3] = {-1e-12, 0.0, 0.5 + 1e-12}, C0[6] = {};
  qpInfeasibility(C0, n, CI, CS, b, xin, w.data(), IRE2, 3, n, mi, 1, sum, found);
  EXPECT_EQ(found, 0);
  EXPECT_BITEQ(0.0, sum);
}

// Budget with bounds 0..1: the least-norm start 1/n meets every bound, the
// nearest (lower, 0.25 away) bounds fill the working set in index order,
// and that vertex is the first point tested.  x through BLAS: tolerance.
TEST(QpFeasibleSearch, BudgetVertex) {
  Search s(4, 1, 0, 0.0, 1.0);
  for (int i = 0; i < 4; ++i) s.C[i] = 1.0;
  s.b[0] = 1.0;
  s.run();
  ASSERT_EQ(s.status, 0);
  EXPECT_EQ(s.kcur, 1);
  EXPECT_EQ(s.kact, 4);
  const int list[4] = {1, -1, -2, -3};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(list[i], s.list[i]) << i;
  EXPECT_EQ(s.IRE[3], 0);
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(i == 3 ? 1.0 : 0.0, s.x[i], 1e-15);
}

// A start vertex violating a row is walked to a feasible point.
TEST(QpFeasibleSearch, WalksToFeasiblePoint) {
  Search s(3, 0, 2, 0.0, 1.0);
  s.C = {-1, -1, -1, 1, 0, -1, 0};  // sum x >= 2 and x0 - x2 <= 0
  s.b = {-2.0, 0.0, 0.0};
  s.run();
  ASSERT_EQ(s.status, 0);
  EXPECT_GE(s.x[0] + s.x[1] + s.x[2], 2.0 - 1e-12);
  EXPECT_LE(s.x[0] - s.x[2], 1e-12);
  for (double v : s.x) EXPECT_TRUE(v >= -1e-12 && v <= 1.0 + 1e-12) << v;
}

// Consistent dependent equalities stay at the tail of the equality places,
// outside R; failures: a dependent row with a residual (-1), an infeasible
// point with only equalities working (-2), inverted bounds or a bad mode (-5).
TEST(QpFeasibleSearch, EqualitiesAndFailures) {
  Search ok(3, 2, 0);
  ok.C = {2, 2, 2, 1, 1, 1, 0};
  ok.b = {1.5, 0.75, 0.0};
  ok.run(1);
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.kcur, 1);
  EXPECT_EQ(ok.list[0], 1);
  EXPECT_EQ(ok.list[1], 2);
  for (double v : ok.x) EXPECT_NEAR(v, 0.25, 1e-15);

  Search dep(3, 2, 0), inf(2, 2, 0), inv(3, 0, 0), mode(3, 0, 0);
  dep.C = {1, 1, 1, 2, 2, 2, 0};
  dep.b = {1.0, 2.5, 0.0};
  inf.C = {1, 0, 0, 1, 0};
  inf.b = {2.0, 0.0, 0.0};
  inf.CI[0] = 0.0;
  inf.CS[0] = 1.0;
  inv.CI[1] = 1.0;
  inv.CS[1] = 0.0;
  for (auto [s, ind, status] : {std::tuple{&dep, 11, -1}, {&inf, 11, -2}, {&inv, 11, -5},
                                {&mode, 23, -5}}) {
    s->run(ind);
    EXPECT_EQ(status, s->status);
  }
}

// Equalities count a shortfall, and an overshoot only while below the
// present value (passed over here); inequalities their excess; bounds
// alone the largest of CI - x and x - CS.
TEST(QpMeasures, Violation) {
  const double C[4] = {1.0, 1.0, 1.0, -1.0}, x[2] = {0.5, 0.25}, CI[2] = {0.0, 0.0},
               CS[2] = {1.0, 1.0}, b[2] = {0.875, 0.0};
  double v = 0.0;
  qpViolation(2, x, 2, 0, C, b, CI, CS, v);
  EXPECT_BITEQ(0.125, v);
  qpViolation(2, x, 0, 1, C + 2, b + 1, CI, CS, v);
  EXPECT_BITEQ(0.25, v);
  qpViolation(2, x, 0, 0, C, b, CI, CS, v);
  EXPECT_BITEQ(-0.25, v);
}

// Objective from the lower triangle only (99: garbage above), scaled; abs max.
TEST(QpMeasures, ObjectiveAndAbsMax) {
  const double H[9] = {2.0, 1.0, 0.5, 99.0, 4.0, -1.0, 99.0, 99.0, 1.0};
  const double g[3] = {1.0, -2.0, 0.25}, x[3] = {0.5, -1.0, 2.0};
  double u[3];
  // Hx = (1, -5.5, 3.25), f = x'(Hx/2 + g) = 0.75 + 4.75 + 3.75
  EXPECT_BITEQ(9.25, qpObjective(H, 3, g, x, u, 1.0, 3));
  EXPECT_BITEQ(18.5, qpObjective(H, 3, g, x, u, 2.0, 3));
  const double v[4] = {1.0, -3.5, 3.5, 2.0};
  EXPECT_BITEQ(3.5, qpAbsMax(4, v));
  EXPECT_BITEQ(0.0, qpAbsMax(0, v));
}

// Refinement onto the working set (x0 + x1 = 1, x1 at its upper bound
// 0.25) repairs a drift of 1e-6, leaves an exact point bit for bit, does
// nothing for k = 0, and refuses a bound index in an equality place (-18).
TEST(QpMeasures, RefineRepairsDriftAndRefusesBadList) {
  const int n = 2;
  Vec Q = {1, 0, 0, 1}, HR(n * (n + 1), 0.0), w(8);
  const double C[2] = {1.0, 1.0}, b[1] = {1.0}, CI[2] = {-kNone, -kNone}, CS[2] = {kNone, 0.25};
  int id = 0;
  ANFM01(Q.data(), n, HR.data() + n, n, C, w.data(), n, 1, id, 6);
  ASSERT_EQ(id, 0);
  id = 2;
  ANFM01(Q.data(), n, HR.data() + n, n, nullptr, w.data(), n, 2, id, 6);
  ASSERT_EQ(id, 0);
  int list[2] = {1, 2}, badList[2] = {-1, 2};
  double x[2] = {0.75 - 1e-6, 0.25 + 1e-6}, y[2] = {0.75, 0.25}, e[4];
  int status = 0;
  auto refine = [&](double* z, int* l, int k, int kcur) {
    qpRefine(Q.data(), n, HR.data() + n, n, C, n, b, CI, CS, z, e, l, n, k, 1, kcur, 0, status);
  };
  refine(x, list, 2, 1);
  EXPECT_EQ(status, 0);
  EXPECT_NEAR(x[0], 0.75, 1e-15);
  EXPECT_NEAR(x[1], 0.25, 1e-15);
  refine(y, list, 2, 1);
  EXPECT_BITEQ(0.75, y[0]);
  EXPECT_BITEQ(0.25, y[1]);
  refine(x, list, 0, 0);
  EXPECT_EQ(status, 0);
  refine(x, badList, 2, 1);
  EXPECT_EQ(status, -18);
}

}  // namespace
