// SPDX-License-Identifier: Apache-2.0
// The allocators' problem builders and point checks: the solver form each
// allocator hands over and the exact edges of the feasibility tolerance.
// Plain copies and scalar arithmetic (or products over unit columns), so
// everything is compared bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "alloc/alloc_internal.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::alloc;
using Vec = std::vector<double>;

namespace {
constexpr double kEps = 9.99999993922529e-9;  // single-precision 1e-8
double up(double v) { return std::nextafter(v, HUGE_VAL); }
double down(double v) { return std::nextafter(v, -HUGE_VAL); }
void expectBits(const Vec& want, const double* got) {
  for (size_t k = 0; k < want.size(); ++k) EXPECT_BITEQ(want[k], got[k]) << "position " << k;
}
}  // namespace

TEST(AllocForms, MeanVarianceAndTrackingAppendTheReturnRow) {
  // Caller's columns (budget, one inequality) copied, then -mu <= -limit;
  // tracking sets c = -q and the limit -(excess + benchReturn), summed in
  // that order (0.1 + 0.2 is not 0.3 in binary).
  const int n = 3;
  const Vec mu = {0.01, 0.02, 0.03}, q = {0.004, -0.001, 0.002};
  const Vec cons = {1, 1, 1, 0.5, -0.25, 2}, rhs = {1.0, 0.75};
  for (bool tracking : {false, true}) {
    Vec C(n * 3, -9.0), d(3, -9.0), c(n, -9.0);
    int me = -1, mi = -1;
    if (tracking)
      allocITBuildProblem(n, 0.2, mu.data(), q.data(), 0.1, 1, 1, cons.data(), rhs.data(), me,
                          mi, C.data(), d.data(), c.data());
    else
      allocMVBuildProblem(n, mu.data(), 0.015, 1, 1, cons.data(), rhs.data(), me, mi, C.data(),
                          d.data(), c.data());
    EXPECT_EQ(1, me);
    EXPECT_EQ(2, mi);
    expectBits(cons, C.data());
    expectBits({-0.01, -0.02, -0.03}, C.data() + 2 * n);
    expectBits({1.0, 0.75, tracking ? -(0.1 + 0.2) : -0.015}, d.data());
    expectBits(tracking ? Vec{-0.004, 0.001, -0.002} : Vec(n, 0.0), c.data());
  }
}

TEST(AllocForms, SharpeProblemIsHomogeneousAndSkipsEqualities) {
  // The equality column (3, 4) must not appear; the inequality (0.5, 1) <= 0.7 does.
  const int n = 2, N = n + 1, K = 1 + 2 * n + 2;
  const Vec mu = {0.05, 0.08}, cons = {3, 4, 0.5, 1}, rhs = {9.0, 0.7};
  const Vec lower = {-0.5, 0.25}, upper = {1.5, 0.75};
  Vec C(N * K, -9.0), d(K, -9.0);
  int me = 0, mi = 0;
  allocSharpeBuildProblem(n, mu.data(), 0.01, 1, 1, cons.data(), rhs.data(), lower.data(),
                          upper.data(), me, mi, C.data(), d.data());
  EXPECT_EQ(2, me);
  EXPECT_EQ(1 + 2 * n, mi);
  const Vec expectC = {1, 1, -1,                   // sum(y) - tau = 0
                       0.05, 0.08, -0.01,          // mu'y - rf tau = 1
                       0.5, 1, -0.7,               // A'y - b tau <= 0
                       -1, 0, -0.5, 0, -1, 0.25,   // -y_i + lower_i tau <= 0
                       1, 0, -1.5, 0, 1, -0.75};   // y_i - upper_i tau <= 0
  expectBits(expectC, C.data());
  expectBits({0, 1, 0, 0, 0, 0, 0}, d.data());
}

TEST(AllocForms, AuxiliaryProblemPadsTheConstraintsWithAZeroRow) {
  const int N = 3;
  const Vec C = {1, 2, 3, 4}, lower = {-1.5, 0}, upper = {2, 0.5};
  Vec lo(N, 7), hi(N, 7), CAux(N * 2, 7), H(N * N, 7), c(N, 7);
  int status = 99;
  buildAuxiliaryProblem(2, lower.data(), upper.data(), 1, 1, C.data(), N, lo.data(), hi.data(),
                        CAux.data(), H.data(), c.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_EQ((Vec{-1.5, 0, -1}), lo);
  EXPECT_EQ((Vec{2, 0.5, 999999986991104.0}), hi);  // single-precision 1e15
  EXPECT_EQ((Vec{1, 2, 0, 3, 4, 0}), CAux);
  EXPECT_EQ(Vec(N * N, 0.0), H);
  EXPECT_EQ((Vec{0, 0, 1}), c);
}

TEST(AllocForms, VerificationPassesAtTheToleranceAndFailsOneBitBeyond) {
  // Unit columns make each residual a copy of one x_i, so the strict
  // comparisons can be probed at their last bit: equality on x0 = 0,
  // inequality x1 <= 0.5, bounds [-1, 1] unless a case moves one to 0
  // (where x -/+ eps is exact).
  const Vec C = {1, 0, 0, 1}, d = {0.0, 0.5};
  const double edge = 0.5 + kEps;
  const struct { double x0, x1, lo1, up1; int status; } cases[] = {
      {kEps, edge, -1, 1, 0},           {-kEps, 0, -1, 1, 0},
      {up(kEps), 0, -1, 1, -100},       {down(-kEps), 0, -1, 1, -100},
      {0, up(edge), -1, 1, -100},       {0, -kEps, 0, 1, 0},
      {0, down(-kEps), 0, 1, -100},     {0, kEps, -1, 0, 0},
      {0, up(kEps), -1, 0, -100},
      {NAN, 0, -1, 1, 0},  // NaN compares false: the solver must catch it
  };
  Vec work(2);
  for (const auto& k : cases) {
    const double x[2] = {k.x0, k.x1}, lo[2] = {-1, k.lo1}, hi[2] = {1, k.up1};
    int status = 12345;
    verifySolution(2, x, 1, 1, C.data(), d.data(), lo, hi, work.data(), status);
    EXPECT_EQ(k.status, status) << "x = " << k.x0 << ", " << k.x1;
  }
}

TEST(AllocForms, TrackingVerificationDropsAWarningAndTestsTheExcessReturn) {
  // Budget on two assets, mu'w = 0.375 exactly; the excess edge is computed
  // as the check reads it, and an incoming warning status must not survive.
  const Vec mu = {0.25, 0.5}, cons = {1, 1}, rhs = {1.0}, lo = {0, 0}, hi = {1, 1};
  const Vec w = {0.5, 0.5}, off = {0.5, 0.5 + 1.0 / 1024};
  const double bench = 0.125, edge = kEps + 0.375 - bench;
  Vec work(1);
  auto verify = [&](const Vec& x, double excess, int status) {
    allocITVerify(2, x.data(), mu.data(), bench, 1, 0, cons.data(), rhs.data(), lo.data(),
                  hi.data(), excess, work.data(), status);
    return status;
  };
  EXPECT_EQ(0, verify(w, edge, 1007));
  EXPECT_EQ(-100, verify(w, up(edge), 1001));
  EXPECT_EQ(-100, verify(off, -1.0, 0));  // off the budget, however low the excess
}
