// SPDX-License-Identifier: Apache-2.0
// Factor routines of the QP solver against direct recomputation (Q
// orthogonal, A = Q [R; 0], T'T = P'Z'HZP on the factored part) through
// mixed sequences of additions and deletions, and the curvature statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "qp/factors.h"
#include "test_factors_state.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

using testqp::FactorState;
using testqp::randomVector;
using testqp::Vec;

// Positive definite H: st stays 0 and the factors exact through a mixed
// sequence of additions (rows and bounds) and deletions.
TEST(QpFactors, DefiniteSequenceKeepsInvariants) {
  const int n = 9;
  std::mt19937 gen(11);
  FactorState s(n, testqp::randomLowRank(n, n, gen, 0.5));
  s.addFirst(randomVector(n, gen), 0);
  s.addFirst({}, -4);
  s.factorFresh();
  s.expectInvariants("fresh");
  for (int step = 0; step < 14; ++step) {
    if (s.nz >= 2 && (step % 3 != 2 || s.k < 2)) {
      const int id = (step % 4 == 1) ? -(1 + step % n) : 0;  // a bound now and then
      if (!s.add(randomVector(n, gen), id)) continue;
    } else {
      s.remove(1 + step % s.k);
    }
    EXPECT_EQ(s.st, 0) << "step " << step;
    s.expectInvariants("step " + std::to_string(step));
  }
}

// Semi-definite H of rank 3: st counts the directions without curvature
// as constraints enter, and a deletion coupling the new direction to the
// tail is repaired by the next addition.  Reference BLAS only: zero
// curvature shows within a few ulps, on either side of the pivot band.
TEST(QpFactors, SemidefiniteStatusTracksRank) {
  const int n = 8, q = 3;
  if (!lumbra::testing::referenceBlas()) GTEST_SKIP() << "rank decisions depend on the BLAS";
  std::mt19937 gen(5);
  FactorState s(n, testqp::randomLowRank(n, q, gen));
  s.addFirst(randomVector(n, gen), 0);
  s.factorFresh();
  EXPECT_EQ(s.st, s.nz - q);
  s.expectInvariants("fresh");
  for (int round = -1; round < 4; ++round) {
    if (round >= 0) {  // two deletions (one if the tail is coupled), then one addition
      s.remove(1);
      if (s.st >= 0 && s.st <= s.nz) s.remove(1);
      s.expectInvariants("remove, nz " + std::to_string(s.nz));
    }
    do {
      ASSERT_TRUE(s.add(randomVector(n, gen), 0));
      EXPECT_EQ(s.st, std::max(s.nz - q, 0)) << "round " << round << " nz " << s.nz;
      s.expectInvariants("add, nz " + std::to_string(s.nz));
    } while (round < 0 && s.nz > 2);
  }
}

// Statuses of a fresh factor with Z = reversal (so Z'HZ in position order
// is H): the pivot band 20 P around zero, refusal (flag 0) with status m,
// an indefinite pair seen only in its coupling, and the growth marker
// (10 m) when a row of T passes 1.2 sqrt(gamma).
TEST(QpReducedFactor, FreshStatuses) {
  const double tenP = 10.0 * kPrecision;
  Vec pair(9, 0.0), grow(9, 0.0);  // pair: diag (1, 0, 0), positions 2 and 3 coupled
  pair[at(0, 0, 3)] = pair[at(2, 1, 3)] = 1.0;
  grow[at(0, 0, 3)] = 1e-10;  // tiny first pivot with a large coupling
  grow[at(1, 0, 3)] = 1e-3;
  grow[at(1, 1, 3)] = grow[at(2, 2, 3)] = 1.0;
  struct Case { const char* what; int m; Vec H; int flag, kf; };
  const Case cases[] = {
      {"+10P: no curvature", 1, {tenP}, 1, 1},     {"-10P: no curvature", 1, {-tenP}, 1, 1},
      {"-30P: negative", 1, {-3.0 * tenP}, 1, -1}, {"refused", 1, {-1.0}, 0, 1},
      {"indefinite pair", 3, pair, 1, -2 - 3},     {"pair refused", 3, pair, 0, 3},
      {"growth", 3, grow, 1, -2 - 30}};
  for (const Case& c : cases) {
    const int m = c.m;
    Vec Z(static_cast<std::size_t>(m) * m, 0.0), T(Z.size(), 0.0), w(m);
    std::vector<int> ipvt(m);
    for (int j = 0; j < m; ++j) Z[at(m - 1 - j, j, m)] = 1.0;
    int kf = 0;
    ANFM03(c.H.data(), m, T.data(), m, Z.data(), m, w.data(), ipvt.data(), m, m, kf, c.flag,
           FactorState::kChannel);
    EXPECT_EQ(c.kf, kf) << c.what;
  }
}

// Diagonal pivoting picks the largest diagonal, the first of equals: with
// Z = reversal and H = diag(0, 2, 2), position 2 is pivot 1 (ahead of its
// tie, position 3), then position 3; the zero one is the singular tail.
TEST(QpReducedFactor, PivotTieGoesToTheFirstColumn) {
  const int m = 3;
  Vec H(9, 0.0), Z(9, 0.0), T(9, 0.0), w(m);
  H[at(1, 1, m)] = H[at(2, 2, m)] = 2.0;
  for (int j = 0; j < m; ++j) Z[at(m - 1 - j, j, m)] = 1.0;
  std::vector<int> ipvt(m);
  int kf = 0;
  ANFM03(H.data(), m, T.data(), m, Z.data(), m, w.data(), ipvt.data(), m, m, kf, 1,
         FactorState::kChannel);
  EXPECT_EQ((std::vector<int>{2, 3, 1}), ipvt);
  EXPECT_EQ(1, kf);
}

TEST(QpFactorsDeathTest, ArgumentTrap) {
  Vec Q(4, 0.0), R(6, 0.0);
  EXPECT_DEATH(ANFM02(Q.data(), 2, R.data(), 2, 2, 2, 0, FactorState::kChannel),
               "INCORRECT LIST OF CALLING IN ANFM02\\.");
}

}  // namespace
}  // namespace lumbra::qp
