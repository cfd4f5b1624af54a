// Search direction: what a correct direction satisfies for each curvature
// status.  Values pass through BLAS and the factor routines: tolerance 1e-10
// on O(1) data (factors exact to about 1e-14, the solves lose a few digits).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kernels/index.h"
#include "qp/factors.h"
#include "test_factors_state.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

using testqp::FactorState;
using testqp::randomVector;
using testqp::Vec;
constexpr double kTol = 1e-10;

struct Direction {
  Vec p, y;
  int mode, drop;
  double alpha;
};

Direction direct(FactorState& s, const Vec& g, int mode, int drop, const Vec& yIn = {}) {
  Direction d{Vec(s.n, 7.0), Vec(2 * s.n + 2, 0.0), mode, drop, -1.0};
  std::copy(yIn.begin(), yIn.end(), d.y.begin());
  qpDirection(s.Q.data() + at(0, s.k, s.n), s.n, s.HR.data() + at(0, s.k + 1, s.n), s.n, g.data(),
              g.data(), d.y.data(), d.p.data(), s.ipvt.data(), 1.0, s.nz, s.n, s.st, d.mode,
              d.drop, d.alpha);
  return d;
}

double dotv(const Vec& a, const Vec& b) {
  double s = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}

// H x, or H x + g.
Vec hmul(const FactorState& s, const Vec& x, const Vec& g = {}) {
  Vec r = g.empty() ? Vec(s.n, 0.0) : g;
  for (int i = 0; i < s.n; ++i)
    for (int j = 0; j < s.n; ++j) r[i] += s.Hfull[at(i, j, s.n)] * x[j];
  return r;
}

// |Q(:,c)' v| <= tol for the columns [c0, c1): with [0, k) A'v = 0, with
// [k, n) Z'v = 0.
void expectOrthogonal(const FactorState& s, const Vec& v, int c0, int c1, const char* what) {
  for (int c = c0; c < c1; ++c) {
    double t = 0.0;
    for (int i = 0; i < s.n; ++i) t += s.Q[at(i, c, s.n)] * v[i];
    EXPECT_NEAR(0.0, t, kTol) << what << " column " << c;
  }
}

// s with random definite-or-not H and `rows` random normals, freshly factored.
FactorState factored(int n, Vec H, int rows, std::mt19937& gen) {
  FactorState s(n, H);
  for (int i = 0; i < rows; ++i) s.addFirst(randomVector(n, gen), 0);
  s.factorFresh(1);
  return s;
}

// Complete factor: p is the Newton step, Z'(Hp + g) = 0 and A'p = 0;
// handing in Z'g (mode 10) gives the same step.
TEST(QpDirection, NewtonStepSolvesReducedSystem) {
  const int n = 7;
  std::mt19937 gen(17);
  FactorState s = factored(n, testqp::randomSpd(n, gen), 3, gen);
  ASSERT_EQ(s.st, 0);
  const Vec g = randomVector(n, gen);
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 1);
  EXPECT_EQ(d.alpha, 1.0);
  expectOrthogonal(s, hmul(s, d.p, g), s.k, n, "Z'(Hp+g)");
  expectOrthogonal(s, d.p, 0, s.k, "A'p");
  Vec zg(s.nz, 0.0);
  for (int j = 0; j < s.nz; ++j)
    for (int i = 0; i < n; ++i) zg[j] += s.Q[at(i, n - 1 - j, n)] * g[i];
  Direction d10 = direct(s, g, 10, 0, zg);
  EXPECT_EQ(d10.mode, 0);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(d.p[i], d10.p[i], 1e-13);
}

// After a deletion at a subspace minimum only the freed column sees the
// gradient: its line step (p'Hp = 1) equals the full Newton step.
TEST(QpDirection, FreedColumnStepIsExactLineMinimiser) {
  const int n = 6;
  std::mt19937 gen(23);
  FactorState s = factored(n, testqp::randomSpd(n, gen), 3, gen);
  Vec g(n, 0.0);  // in the span of the active normals: Z'g = 0
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
  EXPECT_NEAR(std::fabs(pg), d1.alpha, kTol);
  Direction d0 = direct(s, g, 0, 0);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(d0.p[i], d1.alpha * d1.p[i], kTol);
}

// No curvature: a reduced gradient of zero gives p = 0 (stationary point),
// otherwise steepest descent in the null space.
TEST(QpDirection, ZeroHessianDirections) {
  const int n = 5;
  std::mt19937 gen(29);
  FactorState s = factored(n, Vec(n * n, 0.0), 2, gen);
  ASSERT_EQ(s.st, s.nz);
  Vec g(n);
  for (int i = 0; i < n; ++i) g[i] = 2.0 * s.Q[at(i, 0, n)] - s.Q[at(i, 1, n)];
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 1);
  for (int i = 0; i < n; ++i) EXPECT_EQ(0.0, d.p[i]);
  g = randomVector(n, gen);
  d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(dotv(d.p, g), 0.0);
  expectOrthogonal(s, d.p, 0, s.k, "A'p");
}

// Indefinite reduced Hessian (a shifted random one, and a pair seen only in
// its coupling, Z = I): p'Hp < 0, downhill, in the null space.
TEST(QpDirection, NegativeCurvatureDirection) {
  const int n = 7;
  std::mt19937 gen(31);
  Vec H = testqp::randomSpd(n, gen);
  for (int i = 0; i < n; ++i) H[at(i, i, n)] -= 4.0;
  FactorState s = factored(n, H, 2, gen);
  ASSERT_LT(s.st, 0);
  const Vec g = randomVector(n, gen);
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(dotv(d.p, hmul(s, d.p)), -1e-3);
  EXPECT_LE(dotv(d.p, g), 0.0);
  expectOrthogonal(s, d.p, 0, s.k, "A'p");

  // positions (1, 2, 3) = variables (2, 1, 0): diagonal (1, 0, 0), 2 and 3 coupled
  FactorState t(3, {0, 1, 0, 1, 0, 0, 0, 0, 1});
  t.factorFresh(1);
  ASSERT_EQ(t.st, -2 - 3);
  const Vec gt = {0.25, -0.5, 1.0};
  d = direct(t, gt, 0, 0);
  EXPECT_LT(dotv(d.p, hmul(t, d.p)), -0.5);
  EXPECT_LE(dotv(d.p, gt), 0.0);
}

// Semi-definite: a reduced gradient reaching the singular tail gives a
// null-curvature descent direction; one in the range of H the Newton step
// on the factored part.  Reference BLAS only (rank decision in the last bits).
TEST(QpDirection, NullCurvatureDirection) {
  const int n = 6;
  std::mt19937 gen(37);
  FactorState s = factored(n, testqp::randomLowRank(n, 2, gen), 2, gen);
  if (!lumbra::testing::referenceBlas()) GTEST_SKIP() << "rank decision depends on the BLAS";
  ASSERT_EQ(s.st, 2);  // nz = 4, rank 2
  const Vec g = randomVector(n, gen);
  Direction d = direct(s, g, 0, 0);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(dotv(d.p, g), -1e-3);
  expectOrthogonal(s, hmul(s, d.p), s.k, n, "Z'Hp");
  expectOrthogonal(s, d.p, 0, s.k, "A'p");
  Vec g2 = hmul(s, randomVector(n, gen));
  for (int i = 0; i < n; ++i) g2[i] += s.Q[at(i, 0, n)];
  Direction d2 = direct(s, g2, 0, 0);
  EXPECT_EQ(d2.drop, 1);
  EXPECT_EQ(d2.alpha, 1.0);
  expectOrthogonal(s, hmul(s, d2.p, g2), s.k, n, "Z'(Hp+g)");
}

// A deletion next to a singular tail whose freed direction couples to it
// leaves st above nz; the direction stays in the null space, goes downhill
// and, with a zero pivot, has p'Hp = -2 |coupling|^2.  H couples x_0 to
// x_1 (no curvature of its own); x_2, x_3 unit; x_0 has curvature h00.
TEST(QpDirection, CoupledTailAfterDeletion) {
  const int n = 4;
  for (auto [h00, st] : {std::pair{0.0, 1 + 3 + 2}, {1.0, 1 + 2 * 4}}) {
    Vec H(16, 0.0);
    H[at(0, 0, n)] = h00;
    H[at(1, 0, n)] = H[at(0, 1, n)] = H[at(2, 2, n)] = H[at(3, 3, n)] = 1.0;
    FactorState s(n, H);
    s.addFirst({}, -1);  // lower bound of x_0
    s.factorFresh(1);
    ASSERT_EQ(s.st, 1);
    s.remove(1);
    ASSERT_EQ(s.nz, 4);
    EXPECT_EQ(s.st, st) << "h00 " << h00;
    s.expectInvariants("h00 " + std::to_string(h00));
    const Vec g = {-0.5, 0.0, 0.0, 0.0};
    Direction d = direct(s, g, 1, -1);
    EXPECT_EQ(d.drop, 0);
    EXPECT_LT(dotv(d.p, g), 0.0) << "h00 " << h00;
    EXPECT_GT(d.p[0], 0.0);  // x_0 leaves its lower bound upwards
    expectOrthogonal(s, d.p, 0, s.k, "A'p");
    if (h00 == 0.0) {
      EXPECT_NEAR(-2.0, dotv(d.p, hmul(s, d.p)), kTol);
    }
  }
}

}  // namespace
}  // namespace lumbra::qp
