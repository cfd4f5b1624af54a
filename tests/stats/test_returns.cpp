// SPDX-License-Identifier: Apache-2.0
// Return series: exact values, the two denominator limits, partial results.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "kernels/index.h"
#include "stats/returns.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::stats;

namespace {
constexpr double kSentinel = -777.0;
}  // namespace

TEST(ReturnSeries, SimpleAndLogOnTwoAssets) {
  // Column-major 3 by 2 prices.
  const std::vector<double> P = {100.0, 110.0, 99.0, 8.0, 8.0, 10.0};
  std::vector<double> R(4, -1.0), L(4, -1.0);
  int status = 9;
  modelingReturnsSimple(3, 2, P.data(), 1, R.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ((110.0 - 100.0) / 100.0, R[at(0, 0, 2)]);
  EXPECT_BITEQ((99.0 - 110.0) / 110.0, R[at(1, 0, 2)]);
  EXPECT_BITEQ(0.0, R[at(0, 1, 2)]);  // equal prices give exactly zero
  EXPECT_BITEQ(0.25, R[at(1, 1, 2)]);
  modelingReturnsLog(3, 2, P.data(), 1, L.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(std::log(110.0 / 100.0), L[at(0, 0, 2)]);  // log of the quotient
  EXPECT_BITEQ(0.0, L[at(0, 1, 2)]);
  EXPECT_BITEQ(std::log(1.25), L[at(1, 1, 2)]);
}

TEST(ReturnSeries, LongestLagGivesOneRow) {
  const std::vector<double> P = {2.0, 3.0, 5.0, 8.0};
  std::vector<double> R(1);
  int status = 9;
  modelingReturnsSimple(4, 1, P.data(), 3, R.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(3.0, R[0]);
  modelingReturnsSimple(4, 1, P.data(), 4, R.data(), status);
  EXPECT_EQ(-2, status);
}

TEST(ReturnSeries, EachRoutineKeepsItsOwnDenominatorLimit) {
  // 1e-20 passes the simple routine's 1e-30 and fails the log routine's
  // single-precision 1e-15.
  const std::vector<double> P = {1.0, 1e-20, 2.0};
  std::vector<double> R(2, -1.0);
  int status = 9;
  modelingReturnsSimple(3, 1, P.data(), 1, R.data(), status);
  EXPECT_EQ(0, status);
  std::vector<double> L = {-1.0, -1.0};
  modelingReturnsLog(3, 1, P.data(), 1, L.data(), status);
  EXPECT_EQ(-103, status);
  EXPECT_BITEQ(std::log(1e-20), L[0]);  // computed before the stop stays
  EXPECT_BITEQ(-1.0, L[1]);             // the rest is not written
  EXPECT_BITEQ(1.0000000036274937e-15, kLogReturnFloor);
}

TEST(ReturnSeries, TinyPriceOnlyMattersAsADenominator) {
  // 1e-40 in the last row is only a numerator; in the first column of the
  // second asset it is a denominator and stops the routine after asset 0.
  const std::vector<double> numerator = {1.0, 1e-40};
  std::vector<double> R(1);
  int status = 9;
  modelingReturnsSimple(2, 1, numerator.data(), 1, R.data(), status);
  EXPECT_EQ(0, status);
  const std::vector<double> P = {1.0, 2.0, 1e-40, 1.0};
  std::vector<double> S = {-1.0, -1.0};
  modelingReturnsSimple(2, 2, P.data(), 1, S.data(), status);
  EXPECT_EQ(-103, status);
  EXPECT_BITEQ(1.0, S[0]);
  EXPECT_BITEQ(-1.0, S[1]);
}

TEST(ReturnSeries, TransposedTablesGiveTheSameElementsAndStatus) {
  // The exports work on the caller's row-major tables as P' and R'.  The
  // values, the elements written (all, or those before the first tiny
  // denominator asset by asset) and the status must be those of the
  // column-major routines, for both kinds, with tiny prices placed in the
  // first column, mid-table, in the last denominator row, and only among
  // the prices that are never denominators.
  using Routine = void (*)(const int&, const int&, const double*, const int&, double*, int&);
  const std::pair<Routine, Routine> kinds[] = {
      {modelingReturnsSimple, modelingReturnsSimpleTransposed},
      {modelingReturnsLog, modelingReturnsLogTransposed}};
  const int T = 9, n = 4, lag = 2, rows = T - lag;
  struct Tiny {
    int t, j;
  };
  const std::vector<std::vector<Tiny>> placements = {
      {}, {{3, 0}}, {{5, 2}, {1, 3}}, {{rows - 1, 3}}, {{T - 1, 1}}, {{2, 1}, {2, 2}}};
  for (const auto& [plain, transposed] : kinds)
    for (const auto& tiny : placements) {
      std::vector<double> P(static_cast<size_t>(T) * n), Pt(P.size());
      for (int j = 0; j < n; ++j)
        for (int t = 0; t < T; ++t) P[at(t, j, T)] = 1.0 + 0.125 * ((t * 5 + j * 3) % 11);
      for (const Tiny& z : tiny) P[at(z.t, z.j, T)] = 1e-40;
      for (int j = 0; j < n; ++j)
        for (int t = 0; t < T; ++t) Pt[at(j, t, n)] = P[at(t, j, T)];
      std::vector<double> R(static_cast<size_t>(rows) * n, kSentinel), Rt(R.size(), kSentinel);
      int status = 9, statusT = 9;
      plain(T, n, P.data(), lag, R.data(), status);
      transposed(T, n, Pt.data(), lag, Rt.data(), statusT);
      EXPECT_EQ(status, statusT);
      for (int j = 0; j < n; ++j)
        for (int t = 0; t < rows; ++t)
          EXPECT_BITEQ(R[at(t, j, rows)], Rt[at(j, t, n)]) << "t " << t << " j " << j;
    }
}
