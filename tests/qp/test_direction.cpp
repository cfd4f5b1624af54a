// SPDX-License-Identifier: Apache-2.0
// Search direction: what a correct direction satisfies for each curvature
// status.  Values pass through BLAS and the factor routines: tolerance 1e-10
// on O(1) data (factors exact to about 1e-14, the solves lose a few digits).
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
using testqp::randomVector;
using testqp::Vec;
constexpr double kTol = 1e-10;

struct Direction {
  Vec p;
  int drop;
  double alpha, pg, pHp;  // p'g and p'Hp
  Vec Hpg;                // H p + g
};

// s with H and `rows` random normals, freshly factored.
FactorState factored(int n, const Vec& H, int rows, std::mt19937& gen) {
  FactorState s(n, H);
  for (int i = 0; i < rows; ++i) s.addFirst(randomVector(n, gen), 0);
  s.factorFresh();
  return s;
}

// The direction for gradient g (mode 0), with A'p = 0 checked on the way.
Direction direct(const FactorState& s, const Vec& g) {
  const int n = s.n;
  Vec y(2 * n + 2, 0.0);
  Direction d{Vec(n, 7.0), 0, -1.0, 0.0, 0.0, g};
  int mode = 0;
  qpDirection(s.Q.data() + at(0, s.k, n), n, s.HR.data() + at(0, s.k + 1, n), n, g.data(),
              g.data(), y.data(), d.p.data(), s.ipvt.data(), 1.0, s.nz, n, s.st, mode, d.drop,
              d.alpha);
  for (int i = 0; i < n; ++i) {
    d.pg += d.p[i] * g[i];
    for (int j = 0; j < n; ++j) d.Hpg[i] += s.Hfull[at(i, j, n)] * d.p[j];
  }
  for (int i = 0; i < n; ++i) d.pHp += d.p[i] * (d.Hpg[i] - g[i]);
  for (int c = 0; c < s.k; ++c) {
    double t = 0.0;
    for (int i = 0; i < n; ++i) t += s.Q[at(i, c, n)] * d.p[i];
    EXPECT_NEAR(0.0, t, kTol) << "A'p, column " << c;
  }
  return d;
}

// |Z'v| <= tol.
void expectInRange(const FactorState& s, const Vec& v, const char* what) {
  for (int c = s.k; c < s.n; ++c) {
    double t = 0.0;
    for (int i = 0; i < s.n; ++i) t += s.Q[at(i, c, s.n)] * v[i];
    EXPECT_NEAR(0.0, t, kTol) << what << " column " << c;
  }
}

// Complete factor: p is the Newton step, Z'(Hp + g) = 0, full step.
TEST(QpDirection, NewtonStepSolvesReducedSystem) {
  const int n = 7;
  std::mt19937 gen(17);
  FactorState s = factored(n, testqp::randomLowRank(n, n, gen, 0.5), 3, gen);
  ASSERT_EQ(s.st, 0);
  const Direction d = direct(s, randomVector(n, gen));
  EXPECT_EQ(d.drop, 1);
  EXPECT_EQ(d.alpha, 1.0);
  EXPECT_LT(d.pg, 0.0);
  expectInRange(s, d.Hpg, "Z'(Hp+g)");
}

// Semi-definite: a reduced gradient reaching the singular tail gives a
// descent direction without curvature (Z'Hp = 0).  Reference BLAS only
// (rank decision in the last bits).
TEST(QpDirection, NullCurvatureDirection) {
  const int n = 6;
  std::mt19937 gen(37);
  FactorState s = factored(n, testqp::randomLowRank(n, 2, gen), 2, gen);
  if (!lumbra::testing::referenceBlas()) GTEST_SKIP() << "rank decision depends on the BLAS";
  ASSERT_EQ(s.st, 2);  // nz = 4, rank 2
  const Vec g = randomVector(n, gen);
  Direction d = direct(s, g);
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(d.pg, -1e-3);
  for (int i = 0; i < n; ++i) d.Hpg[i] -= g[i];
  expectInRange(s, d.Hpg, "Z'Hp");
}

// Indefinite reduced Hessian: p'Hp < 0, downhill, in the null space.
TEST(QpDirection, NegativeCurvatureDirection) {
  const int n = 7;
  std::mt19937 gen(31);
  Vec H = testqp::randomLowRank(n, n, gen, 0.5);
  for (int i = 0; i < n; ++i) H[at(i, i, n)] -= 4.0;
  FactorState s = factored(n, H, 2, gen);
  ASSERT_LT(s.st, 0);
  const Direction d = direct(s, randomVector(n, gen));
  EXPECT_EQ(d.drop, 0);
  EXPECT_LT(d.pHp, -1e-3);
  EXPECT_LE(d.pg, 0.0);
}

}  // namespace
}  // namespace lumbra::qp
