// Factor routines of the QP solver, checked against direct recomputation:
// Q orthogonal, A = Q [R; 0] for the active normals in list order, and
// T'T = P'Z'HZP on the factored part, after sequences of additions and
// deletions; plus the curvature statuses of the reduced factor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "qp/factors.h"
#include "test_factors_state.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

using lumbra::testing::bitEqual;
using testqp::FactorState;

TEST(QpFactorConstants, MatchMachinePrecision) {
  EXPECT_BITEQ(dlamch_("P", 1), kPrecision);
  EXPECT_BITEQ(dlamch_("O", 1), kOverflow);
  EXPECT_BITEQ(std::sqrt(dlamch_("O", 1)), kSqrtOverflow);
  EXPECT_BITEQ(std::pow(kPrecision, 0.75), kPrecision075);
  EXPECT_BITEQ(std::pow(kPrecision, static_cast<double>(0.9f)), kPrecision09);
  EXPECT_BITEQ(1.0 / std::sqrt(kPrecision), kInverseSqrtPrecision);
}

// Positive definite H: st stays 0 and the factors stay exact to rounding
// through a mixed sequence of additions (rows and bounds) and deletions.
TEST(QpFactors, DefiniteSequenceKeepsInvariants) {
  const int n = 9;
  std::mt19937 gen(11);
  FactorState s(n, testqp::randomSpd(n, gen));
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.addFirst({}, -4);
  s.factorFresh(1);
  EXPECT_EQ(s.st, 0);
  s.expectInvariants("fresh");
  for (int step = 0; step < 14; ++step) {
    const bool add = s.nz >= 2 && (step % 3 != 2 || s.k < 2);
    if (add) {
      const int id = (step % 4 == 1) ? -(1 + step % n) : 0;  // a bound now and then
      if (!s.add(testqp::randomVector(n, gen), id)) continue;
    } else {
      s.remove(1 + step % s.k);
    }
    EXPECT_EQ(s.st, 0) << "step " << step;
    s.expectInvariants("step " + std::to_string(step));
  }
}

// Semi-definite H of rank 3: the status counts the directions without
// curvature, the tail shrinks as constraints enter, and a deletion that
// couples the new direction to the tail is repaired by the next addition.
TEST(QpFactors, SemidefiniteStatusTracksRank) {
  const int n = 8, q = 3;
  // Zero curvature along the null space shows within a few ulps: which side
  // of the pivot band it falls on turns on the BLAS's rounding.
  if (!lumbra::testing::referenceBlas()) GTEST_SKIP() << "rank decisions depend on the BLAS";
  std::mt19937 gen(5);
  FactorState s(n, testqp::randomLowRank(n, q, gen));
  s.addFirst(testqp::randomVector(n, gen), 0);
  s.factorFresh(1);
  EXPECT_EQ(s.st, s.nz - q);  // nz = 7, rank 3
  s.expectInvariants("fresh");
  while (s.nz > 2) {
    ASSERT_TRUE(s.add(testqp::randomVector(n, gen), 0));
    EXPECT_EQ(s.st, std::max(s.nz - q, 0)) << "nz " << s.nz;
    s.expectInvariants("add, nz " + std::to_string(s.nz));
  }
  // back up to a singular tail: two deletions and one addition per round
  for (int round = 0; round < 4; ++round) {
    s.remove(1);
    if (s.st >= 0 && s.st <= s.nz) s.remove(1);  // else only an addition repairs it
    s.expectInvariants("remove, nz " + std::to_string(s.nz));
    ASSERT_TRUE(s.add(testqp::randomVector(n, gen), 0));
    EXPECT_EQ(s.st, std::max(s.nz - q, 0)) << "round " << round << " nz " << s.nz;
    s.expectInvariants("re-add, nz " + std::to_string(s.nz));
  }
}

// Indefinite H: negative statuses are carried through additions (rebuilt
// in part or afresh) until enough constraints make the reduced Hessian
// definite; the factored part stays exact throughout.
TEST(QpFactors, IndefiniteStatusThroughAdditions) {
  const int n = 9;
  for (unsigned seed : {41u, 43u, 47u}) {
    std::mt19937 gen(seed);
    std::vector<double> H = testqp::randomSpd(n, gen);
    for (int i = 0; i < 3; ++i) H[at(i, i, n)] -= 30.0;  // three strongly negative directions
    FactorState s(n, H);
    s.addFirst(testqp::randomVector(n, gen), 0);
    s.factorFresh(1);
    EXPECT_LT(s.st, 0);
    s.expectInvariants("fresh");
    // bounds on the first three variables remove the negative directions
    for (int id : {1, 2, 3}) {
      ASSERT_TRUE(s.add({}, id));
      s.expectInvariants("seed " + std::to_string(seed) + " bound " + std::to_string(id));
    }
    EXPECT_EQ(s.st, 0) << "seed " << seed;
  }
}

TEST(QpFactors, BoundIndexEqualsExplicitUnitVector) {
  const int n = 6;
  std::mt19937 gen(3);
  const std::vector<double> H = testqp::randomSpd(n, gen);
  for (int sign : {1, -1}) {
    FactorState byIndex(n, H), byVector(n, H);
    const std::vector<double> a0 = testqp::randomVector(n, gen);
    byIndex.addFirst(a0, 0);
    byVector.addFirst(a0, 0);
    std::vector<double> e(n, 0.0);
    e[2] = sign;
    byIndex.addFirst({}, sign * 3);
    byVector.addFirst(e, 0);
    ASSERT_EQ(byIndex.k, 2);
    for (std::size_t i = 0; i < byIndex.Q.size(); ++i) EXPECT_BITEQ(byVector.Q[i], byIndex.Q[i]);
    for (std::size_t i = 0; i < byIndex.HR.size(); ++i)
      EXPECT_BITEQ(byVector.HR[i], byIndex.HR[i]);
  }
}

TEST(QpFactors, LastColumnTakesRemainingEntryWithSign) {
  // n = 2, Q = I: the second normal (3, -5) leaves -5 in the last place.
  const int n = 2;
  FactorState s(n, std::vector<double>{1, 0, 0, 1});
  s.addFirst({}, 1);
  s.addFirst({3.0, -5.0}, 0);
  ASSERT_EQ(s.k, 2);
  EXPECT_BITEQ(-5.0, s.R(1, 1));
  EXPECT_NEAR(-3.0, s.R(0, 1), 1e-14);  // Q(:,0) = -e_0 to rounding of the reflection
  // the same through the rotation routine
  FactorState t(n, std::vector<double>{1, 0, 0, 1});
  t.addFirst({}, 1);
  t.factorFresh(1);
  EXPECT_TRUE(t.add({3.0, -5.0}, 0));
  EXPECT_BITEQ(-5.0, t.R(1, 1));
}

TEST(QpFactors, DependentNormalsAreRefused) {
  const int n = 5;
  std::mt19937 gen(9);
  FactorState s(n, testqp::randomSpd(n, gen));
  const std::vector<double> a = testqp::randomVector(n, gen), b = testqp::randomVector(n, gen);
  s.addFirst(a, 0);
  s.addFirst(b, 0);
  std::vector<double> combo(n), zero(n, 0.0);
  for (int i = 0; i < n; ++i) combo[i] = 0.5 * a[i] - 2.0 * b[i];
  EXPECT_FALSE(s.addFirst(zero, 0));
  EXPECT_FALSE(s.addFirst(combo, 0));
  s.factorFresh(1);
  const std::vector<double> Qbefore = s.Q;
  EXPECT_FALSE(s.add(combo, 0));
  EXPECT_EQ(s.k, 2);
  for (std::size_t i = 0; i < Qbefore.size(); ++i) EXPECT_BITEQ(Qbefore[i], s.Q[i]);
  s.expectInvariants("after refusals");
}

TEST(QpFactors, DeletingLastColumnChangesNothing) {
  const int n = 5;
  std::mt19937 gen(21);
  FactorState s(n, testqp::randomSpd(n, gen));
  for (int i = 0; i < 3; ++i) s.addFirst(testqp::randomVector(n, gen), 0);
  const std::vector<double> Q0 = s.Q, HR0 = s.HR;
  const int k = 3, p = 3, channel = 6;
  ANFM02(s.Q.data(), s.n, s.HR.data() + s.n, s.n, s.n, k, p, channel);
  for (std::size_t i = 0; i < Q0.size(); ++i) EXPECT_BITEQ(Q0[i], s.Q[i]);
  for (std::size_t i = 0; i < HR0.size(); ++i) EXPECT_BITEQ(HR0[i], s.HR[i]);
}

// ANFM06 at a vertex: c = z'Hz alone decides the new status.
TEST(QpFactors, ExtendFromVertex) {
  const int n = 2;
  for (double h : {4.0, 0.0, -1.0}) {
    // H = diag(h, 1); constraints e_0 then e_1; dropping e_1 frees e_1...
    // so drop the first one: the new null vector is +-e_0 with z'Hz = h.
    FactorState s(n, std::vector<double>{h, 0, 0, 1});
    s.addFirst({}, 2);
    s.addFirst({}, 1);
    s.st = 0;
    s.nz = 0;
    s.remove(2);
    ASSERT_EQ(s.nz, 1);
    if (h > 0) {
      EXPECT_EQ(s.st, 0);
      EXPECT_BITEQ(2.0, s.T(0, 0));
    } else if (h == 0) {
      EXPECT_EQ(s.st, 1);
    } else {
      EXPECT_EQ(s.st, -1);
    }
  }
}

// Factorisation from scratch with Z = reversal, so that position j of the
// factor sees e_j and Z'HZ in position order is H itself.
struct Fresh {
  int kf;
  std::vector<double> T;
  std::vector<int> ipvt;
};
Fresh factorPositions(int m, const std::vector<double>& H, int flag) {
  std::vector<double> Z(static_cast<std::size_t>(m) * m, 0.0), w(m);
  for (int c = 0; c < m; ++c) Z[at(m - 1 - c, c, m)] = 1.0;
  Fresh f{0, std::vector<double>(static_cast<std::size_t>(m) * m, 0.0), std::vector<int>(m)};
  const int channel = 6;
  ANFM03(H.data(), m, f.T.data(), m, Z.data(), m, w.data(), f.ipvt.data(), m, m, f.kf, flag,
         channel);
  return f;
}

TEST(QpReducedFactor, SingleDiagonalBands) {
  const double tenP = 10.0 * kPrecision;
  EXPECT_EQ(factorPositions(1, {tenP}, 1).kf, 1);       // in the band: no curvature
  EXPECT_EQ(factorPositions(1, {-tenP}, 1).kf, 1);
  EXPECT_EQ(factorPositions(1, {-3.0 * tenP}, 1).kf, -1);
  Fresh f = factorPositions(1, {2.25}, 1);
  EXPECT_EQ(f.kf, 0);
  EXPECT_BITEQ(1.5, f.T[0]);
  EXPECT_EQ(factorPositions(1, {-1.0}, 0).kf, 1);  // refused: status n = 1
}

TEST(QpReducedFactor, ZeroMatrixIsAllTail) {
  Fresh f = factorPositions(4, std::vector<double>(16, 0.0), 1);
  EXPECT_EQ(f.kf, 4);
}

TEST(QpReducedFactor, NegativeCurvatureOnlyInCoupling) {
  // diag (1, 0, 0), coupling 1 between positions 2 and 3 (1-based)
  const int m = 3;
  std::vector<double> H(9, 0.0);
  H[at(0, 0, m)] = 1.0;
  H[at(2, 1, m)] = 1.0;
  Fresh f = factorPositions(m, H, 1);
  EXPECT_EQ(f.kf, -2 - m);  // indefinite pair at positions 2, 3
  EXPECT_BITEQ(1.0, f.T[at(1, 2, m)]);
  EXPECT_EQ(factorPositions(m, H, 0).kf, m);  // plain refusal
}

TEST(QpReducedFactor, GrowthStopsPlainFactorisation) {
  // a tiny first pivot with a large coupling: the row of T grows past
  // 1.2 sqrt(gamma) though every diagonal of H is positive
  const int m = 3;
  std::vector<double> H(9, 0.0);
  H[at(0, 0, m)] = 1e-10;
  H[at(1, 0, m)] = 1e-3;
  H[at(1, 1, m)] = 1.0;
  H[at(2, 2, m)] = 1.0;
  Fresh f = factorPositions(m, H, 1);
  EXPECT_EQ(f.kf, -2 - 10 * m);  // negative pivot at 2, with the growth marker
  // without the growth row the same pivots are accepted
  H[at(1, 0, m)] = 1e-6;
  EXPECT_EQ(factorPositions(m, H, 1).kf, 0);
}

TEST(QpFactorsDeathTest, ArgumentTraps) {
  std::vector<double> Q(4, 0.0), R(6, 0.0);
  const int ld = 2, n = 2, k = 2, p = 0, channel = 6;
  EXPECT_DEATH(ANFM02(Q.data(), ld, R.data(), ld, n, k, p, channel),
               "INCORRECT LIST OF CALLING IN ANFM02\\.");
  int id = 3;  // beyond n
  std::vector<double> w(3);
  const int k1 = 1;
  EXPECT_DEATH(ANFM01(Q.data(), ld, R.data(), ld, nullptr, w.data(), n, k1, id, channel),
               "INCORRECT LIST OF CALLING IN ANFM01\\.");
}

}  // namespace
}  // namespace lumbra::qp
