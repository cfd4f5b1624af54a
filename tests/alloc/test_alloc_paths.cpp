// SPDX-License-Identifier: Apache-2.0
// Engine paths the exports cannot show: the one-asset problem, which skips
// the feasibility start and keeps the scalar solver's status, and what a
// failed feasibility start leaves in the weights; and the smallest scale
// the Sharpe transformation accepts.  Work arrays have the
// exact sizes of the export formulas, so the sanitizer build checks the
// carving too.
#include <gtest/gtest.h>

#include <vector>

#include "alloc/alloc.h"
#include "alloc/alloc_internal.h"
#include "lumbra.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::alloc;

namespace {
using Vec = std::vector<double>;
constexpr double kSentinel = -7.0;
std::vector<int> intWork(int n, int nEq, int nIneq) {
  return std::vector<int>(3 * n + nEq + 2 * nIneq + 6);
}
Vec mvWork(int n, int nEq, int nIneq) {
  return Vec(2 * n + 4 * nEq + 2 * n * (n + nEq + nIneq + 9) + 6 * nIneq + 15);
}
Vec itWork(int n, int nEq, int nIneq) {
  return Vec(n * (2 * (n + nEq + nIneq) + 18) + 4 * nEq + 6 * nIneq + 15);
}
}  // namespace

TEST(AllocPaths, OneAssetGoesStraightToTheScalarSolver) {
  // cov 0.25, mu 0.125, 0 <= w <= 1, no caller constraints.  The return row
  // -mu w <= -limit sets the interval's lower end at limit / mu.  A limit
  // needing w > 1 leaves the scalar solver's empty interval (-9) as it
  // stands (no feasibility start to make it -100, and the tracking
  // verification never runs) with the weight untouched.
  double cov[1] = {0.25};
  const double mu[1] = {0.125}, lower[1] = {0.0}, upper[1] = {1.0}, none[1] = {0.0};
  const struct { bool tracking; double q, benchReturn, arg; int status; double w; } cases[] = {
      {false, 0.0, 0.0, 0.0625, 0, 0.5},  // minimum 0 below the limit 0.5
      {false, 0.0, 0.0, 0.25, -9, kSentinel},
      {true, 0.0, 0.125, 0.125, -9, kSentinel},
      {true, 0.125, 0.0, 0.03125, 0, 0.5},  // minimum q / cov inside [0.25, 1]
  };
  std::vector<int> iwork = intWork(1, 0, 0);
  for (const auto& c : cases) {
    Vec work = c.tracking ? itWork(1, 0, 0) : mvWork(1, 0, 0);
    double w[1] = {kSentinel};
    int status = 99;
    if (c.tracking)
      allocIT(1, cov, mu, &c.q, c.benchReturn, 0, 0, none, none, lower, upper, c.arg,
              iwork.data(), work.data(), w, status);
    else
      allocMV(1, cov, mu, 0, 0, none, none, lower, upper, c.arg, iwork.data(), work.data(), w,
              status);
    EXPECT_EQ(c.status, status) << c.arg;
    EXPECT_BITEQ(c.w, w[0]) << c.arg;
  }
}

TEST(AllocPaths, FailedFeasibilityStartLeavesItsPointInTheWeights) {
  // Fully invested, long only, target above the best return: -100, and the
  // weights are the auxiliary solver's point (not cleared).  The start run
  // on its own, on the problem as the allocator builds it, must fail with
  // the solver's status and hand back the first n entries of its solution,
  // which are what the allocator returned, to the bit.
  const int n = 3, nEq = 1, nIneq = 0, m = 1;
  double cov[9] = {0.0625, 0.0, 0.0, 0.0, 0.03125, 0.0, 0.0, 0.0, 0.015625};
  const double mu[3] = {0.0625, 0.125, 0.25}, cons[3] = {1.0, 1.0, 1.0}, rhs[1] = {1.0};
  const double lower[3] = {0.0, 0.0, 0.0}, upper[3] = {1.0, 1.0, 1.0}, target = 0.5;
  std::vector<int> iwork = intWork(n, nEq, nIneq);
  Vec work = mvWork(n, nEq, nIneq), scratch = mvWork(n, nEq, nIneq);
  double w[3] = {kSentinel, kSentinel, kSentinel}, x[3] = {kSentinel, kSentinel, kSentinel};
  int status = 99, startStatus = 0, me = 0, mi = 0;
  allocMV(n, cov, mu, nEq, nIneq, cons, rhs, lower, upper, target, iwork.data(), work.data(), w,
          status);
  ASSERT_EQ(-100, status);
  Vec C(n * (m + 1)), d(m + 1), c(n);
  allocMVBuildProblem(n, mu, target, nEq, nIneq, cons, rhs, me, mi, C.data(), d.data(),
                      c.data());
  std::vector<int> iwork2 = intWork(n, nEq, nIneq);
  feasibleStart(n, lower, upper, me, mi, C.data(), d.data(), iwork2.data(), scratch.data(), x,
                startStatus);
  EXPECT_NE(0, startStatus);
  for (int i = 0; i < n; ++i) {
    EXPECT_BITEQ(scratch[i], x[i]) << i;
    EXPECT_BITEQ(x[i], w[i]) << i;
  }
}

TEST(AllocPaths, SharpeScaleDownToItsFloor) {
  // Returns and risk-free rate times 1e10 leave the tangency portfolio as it
  // is, but the scale tau = 1 / (mu' w - r_f) falls to about 1.7e-9: above
  // the floor 1e-12 the transformation is undone as usual (the scaled QP
  // rounds differently: 1e-9 on weights of order 1).  Times 1e14 tau is
  // below the floor: -113, with the fully invested weights of stage 1.
  int n = 3, nEq = 1, nIneq = 0;
  double cov[9] = {0.04, 0.01, 0.0, 0.01, 0.09, 0.02, 0.0, 0.02, 0.16};
  double cons[3] = {1.0, 1.0, 1.0}, rhs[1] = {1.0};
  double lower[3] = {0.0, 0.0, 0.0}, upper[3] = {1.0, 1.0, 1.0};
  double w[3][3];
  int status[3];
  const double scales[3] = {1.0, 1e10, 1e14};
  for (int k = 0; k < 3; ++k) {
    double mu[3] = {0.05 * scales[k], 0.08 * scales[k], 0.11 * scales[k]};
    double riskFree = 0.02 * scales[k];
    ORXallocSharpeRatio(&n, cov, mu, &nEq, &nIneq, cons, rhs, lower, upper, &riskFree, w[k],
                        &status[k]);
  }
  EXPECT_EQ(0, status[0]);
  EXPECT_EQ(0, status[1]);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(w[0][i], w[1][i], 1e-9) << i;
  EXPECT_EQ(-113, status[2]);
  EXPECT_NEAR(1.0, w[2][0] + w[2][1] + w[2][2], 1e-12);
}
