// Search direction: what a correct direction satisfies for each curvature
// status.  All values pass through BLAS products and the factor routines,
// so comparisons use a tolerance of 1e-10 on O(1) data (the factors are
// exact to about 1e-14; the solves lose a few digits more).
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kernels/index.h"
#include "qp/factors.h"
#include "test_factors_state.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

using testqp::FactorState;
constexpr double kTol = 1e-10;

struct Direction {
  std::vector<double> p, y;
  int mode, drop;
  double alpha;
};

Direction direct(FactorState& s, const std::vector<double>& g, int mode, int drop,
                 const std::vector<double>& a = {}, const std::vector<double>& yIn = {}) {
  Direction d{std::vector<double>(s.n, 7.0), std::vector<double>(2 * s.n + 2, 0.0), mode, drop,
              -1.0};
  for (std::size_t i = 0; i < yIn.size(); ++i) d.y[i] = yIn[i];
  const double scale = 1.0;
  qpDirection(s.Q.data() + at(0, s.k, s.n), s.n, s.HR.data() + at(0, s.k + 1, s.n), s.n,
              g.data(), a.empty() ? g.data() : a.data(), d.y.data(), d.p.data(), s.ipvt.data(),
              scale, s.nz, s.n, s.st, d.mode, d.drop, d.alpha);
  return d;
}

double dotv(const std::vector<double>& a, const std::vector<double>& b) {
  double s = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}

std::vector<double> hmul(const FactorState& s, const std::vector<double>& x) {
  std::vector<double> r(s.n, 0.0);
  for (int i = 0; i < s.n; ++i)
    for (int j = 0; j < s.n; ++j) r[i] += s.Hfull[at(i, j, s.n)] * x[j];
  return r;
}

// Q(:,cols)' v for the columns [c0, c1).
std::vector<double> project(const FactorState& s, const std::vector<double>& v, int c0, int c1) {
  std::vector<double> r;
  for (int c = c0; c < c1; ++c) {
    double t = 0.0;
    for (int i = 0; i < s.n; ++i) t += s.Q[at(i, c, s.n)] * v[i];
    r.push_back(t);
  }
  return r;
}

void expectZero(const std::vector<double>& v, double tol, const char* what) {
  for (std::size_t i = 0; i < v.size(); ++i) EXPECT_NEAR(0.0, v[i], tol) << what << " " << i;
}

// A complete factor: p is the Newton step, Z'(Hp + g) = 0 and A'p = 0;
// handing in Z'g (mode 10) gives the same step.
TEST(QpDirection, NewtonStepSolvesReducedSystem) {
  const int n = 7;
  std::mt19937 gen(17);
  FactorState s(n, testqp::randomSpd(n, gen));
  for (int i = 0; i < 3; ++i) s.addFirst(testqp::randomVector(n, gen), 0);
  s.factorFresh(1);
  ASSERT_EQ(s.st, 0);
  const std::vector<double> g = testqp::randomVector(n, gen);
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 1);
  EXPECT_EQ(d.alpha, 1.0);
  std::vector<double> r = hmul(s, d.p);
  for (int i = 0; i < n; ++i) r[i] += g[i];
  expectZero(project(s, r, s.k, n), kTol, "Z'(Hp+g)");
  expectZero(project(s, d.p, 0, s.k), kTol, "A'p");

  std::vector<double> zg(s.nz);
  for (int j = 0; j < s.nz; ++j) zg[j] = project(s, g, n - 1 - j, n - j)[0];
  Direction d10 = direct(s, g, 10, 0, {}, zg);
  EXPECT_EQ(d10.mode, 0);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(d.p[i], d10.p[i], 1e-13);
}

// After a deletion at a subspace minimum only the freed column sees the
// gradient: the line step along it equals the full Newton step.
TEST(QpDirection, FreedColumnStepIsExactLineMinimiser) {
  const int n = 6;
  std::mt19937 gen(23);
  FactorState s(n, testqp::randomSpd(n, gen));
  for (int i = 0; i < 3; ++i) s.addFirst(testqp::randomVector(n, gen), 0);
  s.factorFresh(1);
  // g in the span of the active normals: Z'g = 0 before the deletion
  std::vector<double> g(n, 0.0);
  const double u[3] = {0.75, -1.5, 0.5};
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < n; ++i) g[i] += u[c] * s.Q[at(i, c, n)];
  s.remove(2);
  ASSERT_EQ(s.st, 0);
  Direction d1 = direct(s, g, 1, -2);
  EXPECT_EQ(d1.drop, 1);
  const double pg = dotv(d1.p, g), pHp = dotv(d1.p, hmul(s, d1.p));
  EXPECT_LT(pg, 0.0);
  EXPECT_NEAR(-pg / pHp, d1.alpha, kTol);
  EXPECT_NEAR(std::fabs(pg), d1.alpha, kTol);  // p'Hp = 1 by construction
  Direction d0 = direct(s, g, 0, 0);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(d0.p[i], d1.alpha * d1.p[i], kTol);
}

// No curvature at all: a negligible reduced gradient gives p = 0 (a
// stationary point); otherwise the steepest descent in the null space.
TEST(QpDirection, ZeroHessianDirections) {
  const int n = 5;
  std::mt19937 gen(29);
  FactorState s(n, std::vector<double>(n * n, 0.0));
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.factorFresh(1);
  ASSERT_EQ(s.st, s.nz);
  std::vector<double> g(n);
  for (int i = 0; i < n; ++i) g[i] = 2.0 * s.Q[at(i, 0, n)] - s.Q[at(i, 1, n)];
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 1);
  for (int i = 0; i < n; ++i) EXPECT_EQ(0.0, d.p[i]);

  g = testqp::randomVector(n, gen);
  d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(dotv(d.p, g), 0.0);
  expectZero(project(s, d.p, 0, s.k), kTol, "A'p");
}

// Indefinite reduced Hessian: p'Hp < 0 in the null space, downhill.
TEST(QpDirection, NegativeCurvatureDirection) {
  const int n = 7;
  std::mt19937 gen(31);
  std::vector<double> H = testqp::randomSpd(n, gen);
  for (int i = 0; i < n; ++i) H[at(i, i, n)] -= 4.0;  // shift into indefiniteness
  FactorState s(n, H);
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.factorFresh(1);
  ASSERT_LT(s.st, 0);
  const std::vector<double> g = testqp::randomVector(n, gen);
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(dotv(d.p, hmul(s, d.p)), -1e-3);
  EXPECT_LE(dotv(d.p, g), 0.0);
  expectZero(project(s, d.p, 0, s.k), kTol, "A'p");
}

// An indefinite pair seen only through its coupling (zero diagonals).
TEST(QpDirection, IndefinitePairDirection) {
  // k = 0, Z = I: position j stands for variable n-1-j.  Positions (1, 2, 3)
  // have diagonal (1, 0, 0) and positions 2, 3 are coupled.
  const int n = 3;
  std::vector<double> H(9, 0.0);
  H[at(2, 2, n)] = 1.0;
  H[at(1, 0, n)] = 1.0;
  H[at(0, 1, n)] = 1.0;
  FactorState s(n, H);
  s.factorFresh(1);
  ASSERT_EQ(s.st, -2 - n);
  const std::vector<double> g = {0.25, -0.5, 1.0};
  Direction d = direct(s, g, 0, 0);
  EXPECT_LT(dotv(d.p, hmul(s, d.p)), -0.5);
  EXPECT_LE(dotv(d.p, g), 0.0);
}

// Semi-definite: a reduced gradient with a component in the singular tail
// gives a null-curvature direction; without one, the Newton step on the
// factored part.
TEST(QpDirection, NullCurvatureDirection) {
  const int n = 6;
  std::mt19937 gen(37);
  FactorState s(n, testqp::randomLowRank(n, 2, gen));
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.factorFresh(1);
  // The two null directions show as zero curvature within a few ulps: which
  // side of the pivot band they fall on turns on the BLAS's rounding.
  if (!lumbra::testing::referenceBlas()) GTEST_SKIP() << "rank decision depends on the BLAS";
  ASSERT_EQ(s.st, 2);  // nz = 4, rank 2
  const std::vector<double> g = testqp::randomVector(n, gen);
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(dotv(d.p, g), -1e-3);
  expectZero(project(s, hmul(s, d.p), s.k, n), kTol, "Z'Hp");
  expectZero(project(s, d.p, 0, s.k), kTol, "A'p");

  // gradient in the range of H (plus the active normals): nothing in the tail
  std::vector<double> g2 = hmul(s, testqp::randomVector(n, gen));
  for (int i = 0; i < n; ++i) g2[i] += s.Q[at(i, 0, n)];
  Direction d2 = direct(s, g2, 0, 0);
  EXPECT_EQ(d2.drop, 1);
  EXPECT_EQ(d2.alpha, 1.0);
  std::vector<double> r = hmul(s, d2.p);
  for (int i = 0; i < n; ++i) r[i] += g2[i];
  expectZero(project(s, r, s.k, n), kTol, "Z'(Hp+g)");
}

// A deletion next to a singular tail whose new direction couples to the
// tail leaves a status above nz: the direction stays in the null space and
// goes downhill; with a zero pivot it has negative curvature.
// H couples x_0 to x_1, which has no curvature of its own; x_2, x_3 have
// unit curvature, and x_0 has curvature h00 (0: zero pivot, 1: a pivot).
TEST(QpDirection, CoupledTailAfterDeletion) {
  const int n = 4;
  for (double h00 : {0.0, 1.0}) {
    std::vector<double> H(16, 0.0);
    H[at(0, 0, n)] = h00;
    H[at(1, 0, n)] = H[at(0, 1, n)] = 1.0;
    H[at(2, 2, n)] = H[at(3, 3, n)] = 1.0;
    FactorState s(n, H);
    s.addFirst({}, -1);  // lower bound of x_0
    s.factorFresh(1);
    ASSERT_EQ(s.st, 1);  // x_1 carries no curvature
    s.remove(1);
    ASSERT_EQ(s.nz, 4);
    if (h00 == 0.0) {
      EXPECT_EQ(s.st, 1 + 3 + 2);  // zero pivot coupled to the tail
    } else {
      EXPECT_EQ(s.st, 1 + 2 * 4);  // a pivot with a row of couplings
    }
    s.expectInvariants("h00 " + std::to_string(h00));
    // at a subspace minimum only the freed direction sees the gradient
    const std::vector<double> g = {-0.5, 0.0, 0.0, 0.0};
    Direction d = direct(s, g, 1, -1);
    EXPECT_EQ(d.drop, 0);
    EXPECT_LT(dotv(d.p, g), 0.0) << "h00 " << h00;
    EXPECT_GT(d.p[0], 0.0);  // x_0 leaves its lower bound upwards
    expectZero(project(s, d.p, 0, s.k), kTol, "A'p");
    // the zero pivot coupled to the tail gives p'Hp = -2 |coupling|^2 (the
    // product of the unit step on the new position with the couplings)
    if (h00 == 0.0) {
      EXPECT_NEAR(-2.0, dotv(d.p, hmul(s, d.p)), kTol);
    }
  }
}

TEST(QpTriSolve, BothSystemsExactOnDyadicData) {
  // R = [2 1 -1; 0 4 2; 0 0 0.5], column-major, ld 3
  const std::vector<double> R = {2, 0, 0, 1, 4, 0, -1, 2, 0.5};
  const int ld = 3, m = 3, forward = 1, backward = 2;
  const std::vector<double> x = {1.5, -0.25, 2};
  // R x and R' x computed by hand
  std::vector<double> b = {2 * 1.5 + 1 * -0.25 + -1 * 2, 4 * -0.25 + 2 * 2, 0.5 * 2};
  std::vector<double> bt = {2 * 1.5, 1 * 1.5 + 4 * -0.25, -1 * 1.5 + 2 * -0.25 + 0.5 * 2};
  std::vector<double> out(3);
  qpTriSolve(R.data(), ld, m, b.data(), out.data(), backward);
  for (int i = 0; i < 3; ++i) EXPECT_BITEQ(x[i], out[i]);
  qpTriSolve(R.data(), ld, m, bt.data(), bt.data(), forward);  // in place
  for (int i = 0; i < 3; ++i) EXPECT_BITEQ(x[i], bt[i]);
}

}  // namespace
}  // namespace lumbra::qp
