// SPDX-License-Identifier: Apache-2.0
// The allocators' point check at the edges of its tolerance, and the smallest scale the Sharpe
// transformation accepts (solves: test_alloc_cvxopt.py and the QP corpus).
#include <gtest/gtest.h>

#include <cmath>

#include "alloc/alloc_internal.h"
#include "lumbra.h"

using namespace lumbra::alloc;
constexpr double kEps = 9.99999993922529e-9;  // single-precision 1e-8

// Unit columns make each residual a copy of one x_i, probing every comparison at its last bit:
// equality x0 = 0, inequality x1 <= 0.5, bounds [-1, 1] or 0 (where x -/+ eps is exact).  Exact.
TEST(AllocForms, VerificationPassesAtTheToleranceAndFailsOneBitBeyond) {
  const double C[4] = {1, 0, 0, 1}, d[2] = {0.0, 0.5}, edge = 0.5 + kEps;
  auto up = [](double v) { return std::nextafter(v, HUGE_VAL); };  // -up(e): one bit below -e
  const struct { double x0, x1, lo1, up1; int status; } cases[] = {
      {kEps, edge, -1, 1, 0},      {-kEps, 0, -1, 1, 0},        {up(kEps), 0, -1, 1, -100},
      {-up(kEps), 0, -1, 1, -100}, {0, up(edge), -1, 1, -100},  {0, -kEps, 0, 1, 0},
      {0, -up(kEps), 0, 1, -100},  {0, kEps, -1, 0, 0},         {0, up(kEps), -1, 0, -100},
      {NAN, 0, -1, 1, 0},  // NaN compares false: the solver must catch it
  };
  for (const auto& k : cases) {
    double x[2] = {k.x0, k.x1}, lo[2] = {-1, k.lo1}, hi[2] = {1, k.up1}, work[2];
    int status = 12345;
    verifySolution(2, x, 1, 1, C, d, lo, hi, work, status);
    EXPECT_EQ(k.status, status) << "x = " << k.x0 << ", " << k.x1;
  }
}

// Returns and risk-free rate times 1e10 keep the tangency portfolio but bring the scale
// tau = 1 / (mu'w - r_f) to about 1.7e-9, above the floor 1e-12 (the scaled QP rounds apart:
// 1e-9 on weights of order 1); times 1e14 tau is below it: -113, fully invested stage-1 weights.
TEST(AllocPaths, SharpeScaleDownToItsFloor) {
  int n = 3, nEq = 1, nIneq = 0, status[3];
  double cov[9] = {0.04, 0.01, 0.0, 0.01, 0.09, 0.02, 0.0, 0.02, 0.16}, w[3][3];
  double cons[3] = {1.0, 1.0, 1.0}, rhs[1] = {1.0}, lower[3] = {0.0, 0.0, 0.0}, upper[3] = {1.0, 1.0, 1.0};
  const double scales[3] = {1.0, 1e10, 1e14};
  for (int k = 0; k < 3; ++k) {
    double mu[3] = {0.05 * scales[k], 0.08 * scales[k], 0.11 * scales[k]}, riskFree = 0.02 * scales[k];
    ORXallocSharpeRatio(&n, cov, mu, &nEq, &nIneq, cons, rhs, lower, upper, &riskFree, w[k], &status[k]);
  }
  EXPECT_TRUE(status[0] == 0 && status[1] == 0);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(w[0][i], w[1][i], 1e-9) << i;
  EXPECT_EQ(-113, status[2]);
  EXPECT_NEAR(1.0, w[2][0] + w[2][1] + w[2][2], 1e-12);
}
