// The allocators' problem builders and point checks: the solver form each
// allocator hands over, and the exact edges of the feasibility tolerance.
// Everything here is plain copying and scalar arithmetic (or a matrix-vector
// product over unit columns), so results are compared bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "alloc/alloc_internal.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::alloc;

namespace {

constexpr double kEps = kFeasibilityTol;

double up(double v) { return std::nextafter(v, HUGE_VAL); }
double down(double v) { return std::nextafter(v, -HUGE_VAL); }

}  // namespace

TEST(AllocForms, MeanVarianceAndTrackingAppendTheReturnRow) {
  const int n = 3, nEq = 1, nIneq = 1;
  const std::vector<double> mu = {0.01, 0.02, 0.03};
  const std::vector<double> cons = {1, 1, 1, 0.5, -0.25, 2};  // budget, one inequality
  const std::vector<double> rhs = {1.0, 0.75};
  const std::vector<double> q = {0.004, -0.001, 0.002};
  std::vector<double> C(n * 3, -9.0), d(3, -9.0), c(n, -9.0);
  int me = -1, mi = -1;

  allocMVBuildProblem(n, mu.data(), 0.015, nEq, nIneq, cons.data(), rhs.data(), me, mi,
                      C.data(), d.data(), c.data());
  EXPECT_EQ(1, me);
  EXPECT_EQ(2, mi);
  for (int k = 0; k < 6; ++k) EXPECT_BITEQ(cons[k], C[k]);
  for (int i = 0; i < n; ++i) {
    EXPECT_BITEQ(-mu[i], C[at(i, 2, n)]);
    EXPECT_BITEQ(0.0, c[i]);
  }
  EXPECT_BITEQ(1.0, d[0]);
  EXPECT_BITEQ(0.75, d[1]);
  EXPECT_BITEQ(-0.015, d[2]);

  // The return limit is -(excess + benchReturn), summed in that order:
  // 0.1 + 0.2 is not 0.3 in binary, which tells the sum from a subtraction.
  allocITBuildProblem(n, 0.2, mu.data(), q.data(), 0.1, nEq, nIneq, cons.data(), rhs.data(),
                      me, mi, C.data(), d.data(), c.data());
  EXPECT_EQ(1, me);
  EXPECT_EQ(2, mi);
  EXPECT_BITEQ(-(0.1 + 0.2), d[2]);
  for (int i = 0; i < n; ++i) {
    EXPECT_BITEQ(-q[i], c[i]);
    EXPECT_BITEQ(-mu[i], C[at(i, 2, n)]);
  }
}

TEST(AllocForms, SharpeProblemIsHomogeneousAndSkipsEqualities) {
  const int n = 2, nEq = 1, nIneq = 1, N = n + 1;
  const std::vector<double> mu = {0.05, 0.08};
  // Equality column (3, 4) must not appear; inequality column (0.5, 1) <= 0.7.
  const std::vector<double> cons = {3, 4, 0.5, 1};
  const std::vector<double> rhs = {9.0, 0.7};
  const std::vector<double> lower = {-0.5, 0.25}, upper = {1.5, 0.75};
  const int K = nIneq + 2 * n + 2;
  std::vector<double> C(N * K, -9.0), d(K, -9.0);
  int me = 0, mi = 0;
  allocSharpeBuildProblem(n, mu.data(), 0.01, nEq, nIneq, cons.data(), rhs.data(),
                          lower.data(), upper.data(), me, mi, C.data(), d.data());
  EXPECT_EQ(2, me);
  EXPECT_EQ(nIneq + 2 * n, mi);
  const std::vector<double> expectC = {
      1, 1, -1,              // sum(y) - tau = 0
      0.05, 0.08, -0.01,     // mu'y - rf tau = 1
      0.5, 1, -0.7,          // A'y - b tau <= 0
      -1, 0, -0.5, 0, -1, 0.25,  // -y_i + lower_i tau <= 0
      1, 0, -1.5, 0, 1, -0.75};  // y_i - upper_i tau <= 0
  const std::vector<double> expectD = {0, 1, 0, 0, 0, 0, 0};
  for (int k = 0; k < N * K; ++k) EXPECT_BITEQ(expectC[k], C[k]) << "position " << k;
  for (int k = 0; k < K; ++k) EXPECT_BITEQ(expectD[k], d[k]) << "row " << k;
}

TEST(AllocForms, AuxiliaryProblemPadsTheConstraintsWithAZeroRow) {
  const int n = 2, me = 1, mi = 1, N = 3;
  const std::vector<double> C = {1, 2, 3, 4};
  const std::vector<double> lower = {-1.5, 0}, upper = {2, 0.5};
  std::vector<double> lo(N, 7), hi(N, 7), CAux(N * 2, 7), H(N * N, 7), c(N, 7);
  int status = 99;
  buildAuxiliaryProblem(n, lower.data(), upper.data(), me, mi, C.data(), N, lo.data(),
                        hi.data(), CAux.data(), H.data(), c.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_EQ((std::vector<double>{-1.5, 0, -1}), lo);
  EXPECT_EQ((std::vector<double>{2, 0.5, 999999986991104.0}), hi);
  EXPECT_EQ((std::vector<double>{1, 2, 0, 3, 4, 0}), CAux);
  EXPECT_EQ(std::vector<double>(N * N, 0.0), H);
  EXPECT_EQ((std::vector<double>{0, 0, 1}), c);
}

// Unit columns make every r_j = C_j' x a copy of one x_i, so each residual
// is known exactly and the tolerance can be probed at its last bit.
TEST(AllocForms, VerificationPassesAtTheToleranceAndFailsOneBitBeyond) {
  const int n = 2;
  const std::vector<double> C = {1, 0, 0, 1};  // equality on x0, inequality on x1
  const std::vector<double> d = {0.0, 0.5};
  const std::vector<double> lower = {-1, -1}, upper = {1, 1};
  std::vector<double> work(2);
  auto check = [&](double x0, double x1, const std::vector<double>& lo,
                   const std::vector<double>& hi) {
    const double x[2] = {x0, x1};
    int status = 12345;
    verifySolution(n, x, 1, 1, C.data(), d.data(), lo.data(), hi.data(), work.data(), status);
    return status;
  };
  const double ineqEdge = 0.5 + kEps;
  EXPECT_EQ(0, check(kEps, ineqEdge, lower, upper));
  EXPECT_EQ(0, check(-kEps, 0.0, lower, upper));
  EXPECT_EQ(-100, check(up(kEps), 0.0, lower, upper));
  EXPECT_EQ(-100, check(down(-kEps), 0.0, lower, upper));
  EXPECT_EQ(-100, check(0.0, up(ineqEdge), lower, upper));
  // Bounds: lower > x + eps and x - eps > upper, on the inequality variable,
  // with a bound at 0 so that x -/+ eps is exact.
  EXPECT_EQ(0, check(0.0, -kEps, {-1, 0}, upper));
  EXPECT_EQ(-100, check(0.0, down(-kEps), {-1, 0}, upper));
  EXPECT_EQ(0, check(0.0, kEps, lower, {1, 0}));
  EXPECT_EQ(-100, check(0.0, up(kEps), lower, {1, 0}));
  // A NaN compares false everywhere, so it passes the check: the solver
  // and not the verification has to catch it.
  EXPECT_EQ(0, check(NAN, 0.0, lower, upper));
}

TEST(AllocForms, TrackingVerificationDropsAWarningAndTestsTheExcessReturn) {
  const int n = 2;
  const std::vector<double> mu = {0.25, 0.5};
  const std::vector<double> cons = {1, 1};  // budget
  const std::vector<double> rhs = {1.0};
  const std::vector<double> lower = {0, 0}, upper = {1, 1};
  const std::vector<double> w = {0.5, 0.5};  // mu'w = 0.375 exactly
  std::vector<double> work(1);
  const double benchReturn = 0.125;
  const double edge = kEps + 0.375 - benchReturn;  // as the test reads
  int status = 1007;
  allocITVerify(n, w.data(), mu.data(), benchReturn, 1, 0, cons.data(), rhs.data(),
                lower.data(), upper.data(), edge, work.data(), status);
  EXPECT_EQ(0, status);
  status = 1001;
  allocITVerify(n, w.data(), mu.data(), benchReturn, 1, 0, cons.data(), rhs.data(),
                lower.data(), upper.data(), up(edge), work.data(), status);
  EXPECT_EQ(-100, status);
  // A point off the budget fails however low the required excess.
  const std::vector<double> off = {0.5, 0.5 + 1.0 / 1024};
  allocITVerify(n, off.data(), mu.data(), benchReturn, 1, 0, cons.data(), rhs.data(),
                lower.data(), upper.data(), -1.0, work.data(), status);
  EXPECT_EQ(-100, status);
}

TEST(AllocForms, CarvingFollowsTheDocumentedOffsets) {
  // n = 3 and m = 2: c at 0, multipliers at n, d at 2n + m + 1, C at
  // 2n + 2m + 2, scratch n (m + 1) further on.
  std::vector<double> work(64);
  AllocLayout w;
  allocCarve(3, 2, work.data(), w);
  EXPECT_EQ(0, w.c - work.data());
  EXPECT_EQ(3, w.multipliers - work.data());
  EXPECT_EQ(9, w.d - work.data());
  EXPECT_EQ(12, w.C - work.data());
  EXPECT_EQ(21, w.scratch - work.data());
}
