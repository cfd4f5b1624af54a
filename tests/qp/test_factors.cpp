// Factor routines of the QP solver against direct recomputation (Q
// orthogonal, A = Q [R; 0], T'T = P'Z'HZP on the factored part) through
// sequences of additions and deletions, and the curvature statuses.
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

// The precision constants are the machine's (catches a mistyped literal).
TEST(QpFactorConstants, MatchMachinePrecision) {
  EXPECT_BITEQ(dlamch_("P", 1), kPrecision);
  EXPECT_BITEQ(dlamch_("O", 1), kOverflow);
  EXPECT_BITEQ(std::sqrt(dlamch_("O", 1)), kSqrtOverflow);
  EXPECT_BITEQ(std::pow(kPrecision, 0.75), kPrecision075);
  EXPECT_BITEQ(std::pow(kPrecision, static_cast<double>(0.9f)), kPrecision09);
  EXPECT_BITEQ(1.0 / std::sqrt(kPrecision), kInverseSqrtPrecision);
}

// Positive definite H: st stays 0 and the factors exact through a mixed
// sequence of additions (rows and bounds) and deletions.
TEST(QpFactors, DefiniteSequenceKeepsInvariants) {
  const int n = 9;
  std::mt19937 gen(11);
  FactorState s(n, testqp::randomSpd(n, gen));
  s.addFirst(randomVector(n, gen), 0);
  s.addFirst({}, -4);
  s.factorFresh(1);
  EXPECT_EQ(s.st, 0);
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
  s.factorFresh(1);
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

// Indefinite H: negative statuses carried through additions until bounds
// on the three negative directions make the reduced Hessian definite.
TEST(QpFactors, IndefiniteStatusThroughAdditions) {
  const int n = 9;
  for (unsigned seed : {41u, 43u, 47u}) {
    std::mt19937 gen(seed);
    Vec H = testqp::randomSpd(n, gen);
    for (int i = 0; i < 3; ++i) H[at(i, i, n)] -= 30.0;
    FactorState s(n, H);
    s.addFirst(randomVector(n, gen), 0);
    s.factorFresh(1);
    EXPECT_LT(s.st, 0);
    s.expectInvariants("fresh");
    for (int id : {1, 2, 3}) {
      ASSERT_TRUE(s.add({}, id));
      s.expectInvariants("seed " + std::to_string(seed) + " bound " + std::to_string(id));
    }
    EXPECT_EQ(s.st, 0) << "seed " << seed;
  }
}

// A bound given by index gives the bits of the explicit signed unit vector.
TEST(QpFactors, BoundIndexEqualsExplicitUnitVector) {
  const int n = 6;
  std::mt19937 gen(3);
  const Vec H = testqp::randomSpd(n, gen);
  for (int sign : {1, -1}) {
    FactorState byIndex(n, H), byVector(n, H);
    const Vec a0 = randomVector(n, gen);
    byIndex.addFirst(a0, 0);
    byVector.addFirst(a0, 0);
    Vec e(n, 0.0);
    e[2] = sign;
    byIndex.addFirst({}, sign * 3);
    byVector.addFirst(e, 0);
    ASSERT_EQ(byIndex.k, 2);
    for (std::size_t i = 0; i < H.size(); ++i) EXPECT_BITEQ(byVector.Q[i], byIndex.Q[i]);
    for (std::size_t i = 0; i < byIndex.HR.size(); ++i) EXPECT_BITEQ(byVector.HR[i], byIndex.HR[i]);
  }
}

// n = 2, Q = I: the second normal (3, -5) leaves -5, with its sign, in the
// last place of R, through the reflection and through the rotation routine.
TEST(QpFactors, LastColumnTakesRemainingEntryWithSign) {
  FactorState s(2, {1, 0, 0, 1}), t(2, {1, 0, 0, 1});
  s.addFirst({}, 1);
  s.addFirst({3.0, -5.0}, 0);
  ASSERT_EQ(s.k, 2);
  EXPECT_BITEQ(-5.0, s.R(1, 1));
  EXPECT_NEAR(-3.0, s.R(0, 1), 1e-14);  // Q(:,0) = -e_0 to rounding of the reflection
  t.addFirst({}, 1);
  t.factorFresh(1);
  EXPECT_TRUE(t.add({3.0, -5.0}, 0));
  EXPECT_BITEQ(-5.0, t.R(1, 1));
}

// Zero and dependent normals are refused by both adding routines, and a
// refusal leaves the factors as they were.
TEST(QpFactors, DependentNormalsAreRefused) {
  const int n = 5;
  std::mt19937 gen(9);
  FactorState s(n, testqp::randomSpd(n, gen));
  const Vec a = randomVector(n, gen), b = randomVector(n, gen);
  s.addFirst(a, 0);
  s.addFirst(b, 0);
  Vec combo(n);
  for (int i = 0; i < n; ++i) combo[i] = 0.5 * a[i] - 2.0 * b[i];
  EXPECT_FALSE(s.addFirst(Vec(n, 0.0), 0));
  EXPECT_FALSE(s.addFirst(combo, 0));
  s.factorFresh(1);
  const Vec Qbefore = s.Q;
  EXPECT_FALSE(s.add(combo, 0));
  EXPECT_EQ(s.k, 2);
  for (std::size_t i = 0; i < Qbefore.size(); ++i) EXPECT_BITEQ(Qbefore[i], s.Q[i]);
  s.expectInvariants("after refusals");
}

// Deleting the last column of the list touches neither Q nor R.
TEST(QpFactors, DeletingLastColumnChangesNothing) {
  const int n = 5;
  std::mt19937 gen(21);
  FactorState s(n, testqp::randomSpd(n, gen));
  for (int i = 0; i < 3; ++i) s.addFirst(randomVector(n, gen), 0);
  const Vec Q0 = s.Q, HR0 = s.HR;
  ANFM02(s.Q.data(), n, s.Rp(), n, n, 3, 3, FactorState::kChannel);
  for (std::size_t i = 0; i < Q0.size(); ++i) EXPECT_BITEQ(Q0[i], s.Q[i]);
  for (std::size_t i = 0; i < HR0.size(); ++i) EXPECT_BITEQ(HR0[i], s.HR[i]);
}

// ANFM06 at a vertex: H = diag(h, 1), bounds on x_1 then x_0; dropping the
// second frees +-e_0, whose curvature h alone decides the new status.
TEST(QpFactors, ExtendFromVertex) {
  for (auto [h, st] : {std::pair{4.0, 0}, {0.0, 1}, {-1.0, -1}}) {
    FactorState s(2, {h, 0, 0, 1});
    s.addFirst({}, 2);
    s.addFirst({}, 1);
    s.st = 0;
    s.remove(2);
    ASSERT_EQ(s.nz, 1);
    EXPECT_EQ(s.st, st) << "h " << h;
    if (h > 0) {
      EXPECT_BITEQ(2.0, s.T(0, 0));
    }
  }
}

// Fresh factorisation with Z = reversal, so position j sees e_j and Z'HZ
// in position order is H itself.
struct Fresh {
  int kf = 0;
  Vec T;
  std::vector<int> ipvt;
};
Fresh factorPositions(int m, const Vec& H, int flag) {
  Vec Z(static_cast<std::size_t>(m) * m, 0.0), w(m);
  for (int c = 0; c < m; ++c) Z[at(m - 1 - c, c, m)] = 1.0;
  Fresh f{0, Vec(Z.size(), 0.0), std::vector<int>(m)};
  ANFM03(H.data(), m, f.T.data(), m, Z.data(), m, w.data(), f.ipvt.data(), m, m, f.kf, flag,
         FactorState::kChannel);
  return f;
}

// Statuses of the fresh factor: the pivot band 20 P around zero, refusal
// (flag 0) with status m, an indefinite pair seen only in its coupling,
// and the growth marker (10 m) when a row of T passes 1.2 sqrt(gamma).
TEST(QpReducedFactor, FreshStatuses) {
  const double tenP = 10.0 * kPrecision;
  Vec pair(9, 0.0), grow(9, 0.0);  // pair: diag (1, 0, 0), positions 2 and 3 coupled
  pair[at(0, 0, 3)] = pair[at(2, 1, 3)] = 1.0;
  grow[at(0, 0, 3)] = 1e-10;  // tiny first pivot with a large coupling
  grow[at(1, 0, 3)] = 1e-3;
  grow[at(1, 1, 3)] = grow[at(2, 2, 3)] = 1.0;
  Vec mild = grow;
  mild[at(1, 0, 3)] = 1e-6;
  struct Case { const char* what; int m; Vec H; int flag, kf; };
  const Case cases[] = {
      {"+10P: no curvature", 1, {tenP}, 1, 1},     {"-10P: no curvature", 1, {-tenP}, 1, 1},
      {"-30P: negative", 1, {-3.0 * tenP}, 1, -1}, {"definite", 1, {2.25}, 1, 0},
      {"refused", 1, {-1.0}, 0, 1},                {"zero: all tail", 4, Vec(16, 0.0), 1, 4},
      {"indefinite pair", 3, pair, 1, -2 - 3},     {"pair refused", 3, pair, 0, 3},
      {"growth", 3, grow, 1, -2 - 30},             {"no growth", 3, mild, 1, 0}};
  for (const Case& c : cases) EXPECT_EQ(c.kf, factorPositions(c.m, c.H, c.flag).kf) << c.what;
  EXPECT_BITEQ(1.5, factorPositions(1, {2.25}, 1).T[0]);
  EXPECT_BITEQ(1.0, factorPositions(3, pair, 1).T[at(1, 2, 3)]);
}

TEST(QpFactorsDeathTest, ArgumentTraps) {
  Vec Q(4, 0.0), R(6, 0.0), w(3);
  const int two = 2, one = 1, zero = 0, ch = FactorState::kChannel;
  EXPECT_DEATH(ANFM02(Q.data(), two, R.data(), two, two, two, zero, ch),
               "INCORRECT LIST OF CALLING IN ANFM02\\.");
  int id = 3;  // beyond n
  EXPECT_DEATH(ANFM01(Q.data(), two, R.data(), two, nullptr, w.data(), two, one, id, ch),
               "INCORRECT LIST OF CALLING IN ANFM01\\.");
}

}  // namespace
}  // namespace lumbra::qp
