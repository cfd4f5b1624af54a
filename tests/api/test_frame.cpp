// SPDX-License-Identifier: Apache-2.0
// The call frame through the exports: orders and replacements of the
// argument tests, clearing, caller's arrays left as they were, layout
// conversion, work-array failures and the status mapping.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <vector>

#include "api/frame.h"
#include "lumbra.h"
#include "test_support.h"

using namespace lumbra;
using lumbra::testing::FailingAllocator;

namespace {

constexpr double kSentinel = -777.0;
constexpr int kStatusSentinel = 12345;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// A two-asset allocation problem whose arrays a test can spoil one at a time.
struct AllocCase {
  int n = 2, nEq = 1, nIneq = 0;
  std::vector<double> cov = {0.04, 0.01, 0.01, 0.09};
  std::vector<double> mu = {0.05, 0.08};
  std::vector<double> bench = {0.02, 0.03};
  std::vector<double> cons = {1.0, 1.0};
  std::vector<double> rhs = {1.0};
  std::vector<double> lower = {0.0, 0.0};
  std::vector<double> upper = {1.0, 1.0};
  double target = 0.06, benchReturn = 0.05, excess = 0.01;
  std::vector<double> weights = {kSentinel, kSentinel};
  int status = kStatusSentinel;
  double *pCov = cov.data(), *pMu = mu.data(), *pBench = bench.data(), *pCons = cons.data(),
         *pRhs = rhs.data(), *pLower = lower.data(), *pUpper = upper.data();

  int mv() {
    return ORXallocMV(&n, pCov, pMu, &nEq, &nIneq, pCons, pRhs, pLower, pUpper, &target,
                      weights.data(), &status);
  }
  int it() {
    return ORXallocIT(&n, pCov, pMu, pBench, &benchReturn, &nEq, &nIneq, pCons, pRhs, pLower,
                      pUpper, &excess, weights.data(), &status);
  }
  int sharpe() {
    return ORXallocSharpeRatio(&n, pCov, pMu, &nEq, &nIneq, pCons, pRhs, pLower, pUpper,
                               &target, weights.data(), &status);
  }
  bool cleared() const { return status == 0 && weights[0] == 0.0 && weights[1] == 0.0; }
};

}  // namespace

TEST(AllocatorArguments, ChainStopsAtTheFirstFailureInItsOrder) {
  AllocCase c;
  c.nEq = -1;
  c.n = 1;
  EXPECT_EQ(304, c.mv());  // nEq is tested before n
  EXPECT_EQ(306, c.it());
  c.nEq = 1;
  EXPECT_EQ(301, c.mv());
  c.n = 2;
  c.pUpper = nullptr;
  c.pCov = nullptr;
  EXPECT_EQ(309, c.mv());
  EXPECT_EQ(311, c.it());
  c.pUpper = c.upper.data();
  c.pLower = nullptr;
  EXPECT_EQ(308, c.sharpe());
  c.pLower = c.lower.data();
  c.pRhs = nullptr;
  EXPECT_EQ(307, c.mv());
  c.pRhs = c.rhs.data();
  c.pMu = nullptr;
  c.pBench = nullptr;
  EXPECT_EQ(304, c.it());  // benchCov comes before mu
  EXPECT_EQ(303, c.mv());
  c.pMu = c.mu.data();
  EXPECT_EQ(302, c.mv());
  EXPECT_TRUE(c.cleared());
}

TEST(AllocatorArguments, NegativeInequalityCountReplacesTheChain) {
  AllocCase c;
  c.pCons = nullptr;
  c.nIneq = -3;
  EXPECT_EQ(305, c.mv());
  EXPECT_EQ(307, c.it());
  c.nEq = -1;
  EXPECT_EQ(305, c.sharpe());
}

TEST(AllocatorArguments, BoundScanReportsTheLowerBound) {
  AllocCase c;
  c.lower = {0.0, 0.7};
  c.upper = {1.0, 0.5};
  EXPECT_EQ(308, c.mv());
  EXPECT_EQ(310, c.it());
  EXPECT_TRUE(c.cleared());
  // The scan runs only after the chain passed: a null pointer wins.
  c.pMu = nullptr;
  EXPECT_EQ(303, c.mv());
}

TEST(AllocatorArguments, EqualBoundsPassTheScanNaNBoundsFailIt) {
  // Past the tests the frame runs the engine; whatever it says, it is not an
  // argument status.
  AllocCase c;
  c.lower = {0.5, 0.5};
  c.upper = {0.5, 0.5};
  EXPECT_LT(c.mv(), 300);
  // A NaN on either side fails the scan, which reports the lower bound.
  AllocCase d;
  d.lower = {0.0, kNaN};
  EXPECT_EQ(308, d.mv());
  d.lower = {0.0, 0.0};
  d.upper = {kNaN, 1.0};
  EXPECT_EQ(310, d.it());
  EXPECT_TRUE(d.cleared());
  AllocCase e;  // no constraints at all: the counts may be zero, the pointers not
  e.nEq = 0;
  EXPECT_LT(e.mv(), 300);
  e.pRhs = nullptr;
  EXPECT_EQ(307, e.mv());
}

TEST(ReturnsArguments, OrderReplacementAndPriceScan) {
  int nObs = 3, nSeries = 2, lag = 1, status = kStatusSentinel;
  std::vector<double> prices = {1.0, 2.0, 1.5, 2.5, 3.0, 0.0};
  std::vector<double> result(4, kSentinel);
  EXPECT_EQ(303, ORXmodelingReturns(&nObs, &nSeries, prices.data(), &lag, result.data(), &status));
  EXPECT_EQ(0, status);
  for (double v : result) EXPECT_BITEQ(0.0, v);
  prices[5] = -1.0;
  EXPECT_EQ(303, ORXmodelingLogReturns(&nObs, &nSeries, prices.data(), &lag, result.data(), &status));
  nSeries = 0;
  EXPECT_EQ(302, ORXmodelingReturns(&nObs, &nSeries, nullptr, &lag, result.data(), &status));
  nSeries = 2;
  nObs = 1;
  EXPECT_EQ(304, ORXmodelingReturns(&nObs, &nSeries, nullptr, &lag, result.data(), &status));
  nObs = 3;
  EXPECT_EQ(303, ORXmodelingReturns(&nObs, &nSeries, nullptr, &lag, result.data(), &status));
}

TEST(ReturnsArguments, LagOfAllObservationsClearsNothing) {
  int nObs = 3, nSeries = 2, lag = 3, status = kStatusSentinel;
  std::vector<double> prices = {1.0, 2.0, 1.5, 2.5, 3.0, 4.0};
  std::vector<double> result(4, kSentinel);
  EXPECT_EQ(304, ORXmodelingReturns(&nObs, &nSeries, prices.data(), &lag, result.data(), &status));
  EXPECT_EQ(0, status);
  for (double v : result) EXPECT_BITEQ(kSentinel, v);
  lag = 2;  // a valid lag: one row of two returns, the rest untouched
  EXPECT_EQ(0, ORXmodelingReturns(&nObs, &nSeries, prices.data(), &lag, result.data(), &status));
  EXPECT_BITEQ(2.0, result[0]);
  EXPECT_BITEQ(1.0, result[1]);
  EXPECT_BITEQ(kSentinel, result[2]);
}

TEST(ReturnsExport, LayoutRoundTripAndEngineStatus) {
  // Row-major 3 by 2 prices; the result comes back row-major 2 by 2 and the
  // prices as they were.
  int nObs = 3, nSeries = 2, lag = 1, status = kStatusSentinel;
  const std::vector<double> original = {100.0, 8.0, 125.0, 10.0, 100.0, 12.0};
  std::vector<double> prices = original;
  std::vector<double> result(4, kSentinel);
  EXPECT_EQ(0, ORXmodelingReturns(&nObs, &nSeries, prices.data(), &lag, result.data(), &status));
  EXPECT_EQ(original, prices);
  EXPECT_EQ((std::vector<double>{0.25, 0.25, -0.2, 0.2}), result);
  // A positive price below the log routine's limit in the first asset's
  // second row: engine status -103 there; the first return stays, the rest
  // (the second asset included) as cleared, and the prices come back.
  prices[2] = 1e-20;
  const std::vector<double> spoilt = prices;
  EXPECT_EQ(5, ORXmodelingLogReturns(&nObs, &nSeries, prices.data(), &lag, result.data(), &status));
  EXPECT_EQ(-103, status);
  EXPECT_EQ(spoilt, prices);
  EXPECT_BITEQ(std::log(1e-20 / 100.0), result[0]);
  EXPECT_BITEQ(0.0, result[1]);
  EXPECT_BITEQ(0.0, result[2]);
  EXPECT_BITEQ(0.0, result[3]);
}

TEST(MomentsArguments, AssetCountReplacesTheOthers) {
  int nObs = 1, nAssets = 2, status = kStatusSentinel;
  std::vector<double> result(4, kSentinel);
  EXPECT_EQ(301, ORXmodelingCov(&nObs, &nAssets, nullptr, result.data(), &status));
  nObs = 2;
  EXPECT_EQ(303, ORXmodelingCorr(&nObs, &nAssets, nullptr, result.data(), &status));
  for (double v : result) EXPECT_BITEQ(0.0, v);
  nAssets = 0;
  EXPECT_EQ(302, ORXmodelingCov(&nObs, &nAssets, nullptr, result.data(), &status));
}

TEST(MomentsExport, CallerArraysUnchangedAndResultRowMajor) {
  // Three observations of three assets, dyadic deviations; the covariance
  // scale is 0.5 exactly.
  int nObs = 3, nAssets = 3, status = kStatusSentinel;
  const std::vector<double> original = {1.0, 0.0, 4.0, 2.0, 2.0, 4.0, 3.0, 1.0, 4.0};
  std::vector<double> returns = original;
  std::vector<double> cov(9, kSentinel), corr(9, kSentinel);
  EXPECT_EQ(0, ORXmodelingCov(&nObs, &nAssets, returns.data(), cov.data(), &status));
  EXPECT_EQ(original, returns);
  EXPECT_EQ((std::vector<double>{1.0, 0.5, 0.0, 0.5, 1.0, 0.0, 0.0, 0.0, 0.0}), cov);
  // Asset 2 is constant: correlation warning, export return 6.
  EXPECT_EQ(6, ORXmodelingCorr(&nObs, &nAssets, returns.data(), corr.data(), &status));
  EXPECT_EQ(5, status);
  EXPECT_EQ(original, returns);
  EXPECT_EQ((std::vector<double>{1.0, 0.5, 0.0, 0.5, 1.0, 0.0, 0.0, 0.0, 1.0}), corr);
}

TEST(WorkArrays, AllocationFailureReturnsTwoWithOutputsCleared) {
  int nObs = 3, nAssets = 2, status = kStatusSentinel;
  std::vector<double> returns = {1.0, 2.0, 2.0, 4.0, 3.0, 5.0};
  const std::vector<double> original = returns;
  std::vector<double> cov(4, kSentinel);
  {
    FailingAllocator failing(0);
    EXPECT_EQ(2, ORXmodelingCov(&nObs, &nAssets, returns.data(), cov.data(), &status));
  }
  EXPECT_EQ(0, status);
  for (double v : cov) EXPECT_BITEQ(0.0, v);
  EXPECT_EQ(original, returns);

  // An allocator needs both arrays: the integer one succeeds, the real one
  // fails, and the first is released (LeakSanitizer would tell otherwise).
  AllocCase c;
  {
    FailingAllocator failing(1);
    EXPECT_EQ(2, c.mv());
    EXPECT_EQ(2, FailingAllocator::requests());
  }
  EXPECT_TRUE(c.cleared());
}

TEST(WorkArrays, OversizedFormulasAreAllocationFailures) {
  using namespace lumbra::api;
  EXPECT_EQ(kSizeInvalid, sizeMul(INT64_MAX / 2, 3));
  EXPECT_EQ(kSizeInvalid, sizeAdd(INT64_MAX, 1));
  EXPECT_EQ(kSizeInvalid, (Size(3) * kSizeInvalid + 4).value);
  const Size big = INT_MAX;
  EXPECT_EQ(kSizeInvalid, (big * big * big).value);
  EXPECT_EQ(i64{INT_MAX} * INT_MAX, (big * big).value);
  EXPECT_EQ(nullptr, workAllocate(INT64_MAX / 4, sizeof(double)));

  double out[2] = {kSentinel, kSentinel};
  int status = kStatusSentinel;
  bool ran = false;
  FrameCall call;
  call.out = out;
  call.outCount = 2;
  call.status = &status;
  call.workSize = kSizeInvalid;
  EXPECT_EQ(2, runFrame(call, [&](int*, double*) { ran = true; }));
  EXPECT_FALSE(ran);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(0.0, out[1]);
}

TEST(WorkArrays, LayoutConversionBothWays) {
  // Shapes below, at and across the 32-element tiles, square ones (moved in
  // place) among them; each converted with a fresh temporary, with spare
  // memory lent by the caller, and with neither (the permutation's cycles).
  using namespace lumbra::api;
  const std::pair<i64, i64> shapes[] = {{2, 3}, {3, 2}, {4, 4}, {1, 5}, {7, 3},
                                        {32, 32}, {33, 33}, {70, 45}, {45, 70}, {64, 96}};
  enum class Temporary { Fresh, Spare, None };
  for (const auto& [rows, cols] : shapes)
    for (Temporary temporary : {Temporary::Fresh, Temporary::Spare, Temporary::None}) {
      SCOPED_TRACE(::testing::Message() << rows << " by " << cols << ", temporary "
                                        << static_cast<int>(temporary));
      std::vector<double> a(static_cast<size_t>(rows * cols));
      for (size_t k = 0; k < a.size(); ++k) a[k] = static_cast<double>(k);
      const std::vector<double> original = a;
      std::vector<double> spare(temporary == Temporary::Spare ? a.size() : 0, kSentinel);
      {
        FailingAllocator failing(temporary == Temporary::None ? 0 : 2);
        convertLayout(a.data(), rows, cols, spare.data(), static_cast<i64>(spare.size()));
        for (i64 r = 0; r < rows; ++r)
          for (i64 c = 0; c < cols; ++c) EXPECT_EQ(original[r * cols + c], a[at(r, c, rows)]);
        convertLayout(a.data(), cols, rows, spare.data(), static_cast<i64>(spare.size()));
        // Squares and lent memory need no allocation.
        const bool allocates = rows != cols && rows > 1 && cols > 1;
        EXPECT_EQ(allocates && temporary != Temporary::Spare ? 2 : 0, FailingAllocator::requests());
      }
      EXPECT_EQ(original, a);
    }
}

TEST(WorkArrays, ConversionsBorrowTheWorkArray) {
  // The modified VaR of a 40 by 3 table: the conversions of the table (and
  // of the covariance, in place) use the real work array as their
  // temporary, so the whole call makes one allocation.
  int nObs = 40, nAssets = 3, status = kStatusSentinel;
  std::vector<double> returns(static_cast<size_t>(nObs) * nAssets);
  for (size_t k = 0; k < returns.size(); ++k) returns[k] = static_cast<double>(k % 7) * 0.25 - 0.5;
  std::vector<double> cov = {1.0, 0.25, 0.0, 0.25, 2.0, 0.5, 0.0, 0.5, 1.5};
  std::vector<double> weights = {0.25, 0.25, 0.5};
  const std::vector<double> originalReturns = returns, originalCov = cov;
  double level = 0.95, unlimited = kSentinel, borrowed = kSentinel;
  ASSERT_EQ(0, ORXanalysisExanteModifiedVaR(&nObs, &nAssets, weights.data(), returns.data(),
                                            cov.data(), &level, &unlimited, &status));
  FailingAllocator failing(1);
  EXPECT_EQ(0, ORXanalysisExanteModifiedVaR(&nObs, &nAssets, weights.data(), returns.data(),
                                            cov.data(), &level, &borrowed, &status));
  EXPECT_EQ(1, FailingAllocator::requests());
  EXPECT_BITEQ(unlimited, borrowed);
  EXPECT_EQ(originalReturns, returns);
  EXPECT_EQ(originalCov, cov);
}

TEST(AnalysisArguments, LevelRefusalComesFirst) {
  int n = 0, nObs = 2, nAssets = 0, status = kStatusSentinel;
  double level = 1.0, result = kSentinel;
  EXPECT_EQ(305, ORXanalysisExanteNormalVaR(&n, nullptr, nullptr, nullptr, &level, &result, &status));
  EXPECT_BITEQ(0.0, result);
  level = 0.0;
  EXPECT_EQ(306, ORXanalysisExanteModifiedVaR(&nObs, &nAssets, nullptr, nullptr, nullptr, &level,
                                              &result, &status));
  level = 0.95;
  EXPECT_EQ(301, ORXanalysisExanteNormalVaR(&n, nullptr, nullptr, nullptr, &level, &result, &status));
  EXPECT_EQ(302, ORXanalysisExanteModifiedVaR(&nObs, &nAssets, nullptr, nullptr, nullptr, &level,
                                              &result, &status));
  nAssets = 1;
  EXPECT_EQ(301, ORXanalysisExanteModifiedVaR(&nObs, &nAssets, nullptr, nullptr, nullptr, &level,
                                              &result, &status));
  nObs = 4;
  EXPECT_EQ(305, ORXanalysisExanteModifiedVaR(&nObs, &nAssets, nullptr, nullptr, nullptr, &level,
                                              &result, &status));
  n = 1;
  double mu = 0.0;
  EXPECT_EQ(304, ORXanalysisExanteNormalVaR(&n, nullptr, &mu, nullptr, &level, &result, &status));
  EXPECT_EQ(303, ORXanalysisExanteReturn(&n, &mu, nullptr, &result, &status));
  EXPECT_EQ(302, ORXanalysisExanteVolatility(&n, nullptr, &mu, &result, &status));
  n = 1;
  EXPECT_EQ(301, ORXanalysisExpostVolatility(&n, &mu, &result, &status));
  EXPECT_EQ(302, ORXanalysisExpostReturn(&n, nullptr, &result, &status));
}

TEST(AnalysisArguments, KernelPointsMustNotDecrease) {
  int nObs = 3, nPoints = 3, status = kStatusSentinel;
  double data[3] = {0.0, 1.0, 2.0};
  double points[3] = {0.0, 0.5, 0.25};
  double result[3] = {kSentinel, kSentinel, kSentinel};
  EXPECT_EQ(304, ORXanalysisGaussianKernel(&nObs, &nPoints, data, points, result, &status));
  for (double v : result) EXPECT_BITEQ(0.0, v);
  points[2] = 0.5;  // equal points pass
  EXPECT_LT(ORXanalysisGaussianKernel(&nObs, &nPoints, data, points, result, &status), 300);
  nPoints = 0;
  nObs = 1;
  EXPECT_EQ(302, ORXanalysisGaussianKernel(&nObs, &nPoints, nullptr, nullptr, result, &status));
  nPoints = 3;
  EXPECT_EQ(301, ORXanalysisGaussianKernel(&nObs, &nPoints, data, points, result, &status));
  nObs = 3;
  EXPECT_EQ(304, ORXanalysisGaussianKernel(&nObs, &nPoints, nullptr, nullptr, result, &status));
  EXPECT_EQ(303, ORXanalysisGaussianKernel(&nObs, &nPoints, nullptr, points, result, &status));
}

TEST(NearnessArguments, ChainsAndOverridingTests) {
  int n = 2, nEq = 0, nIneq = 1, status = kStatusSentinel;
  double target[4] = {1.0, 0.0, 0.0, 1.0}, B[4] = {1.0, 0.0, 0.0, 0.0};
  double b = 0.0, lo = 1.0, hi = 0.5, tol = 1e-8, floor = 0.0;
  double result[4] = {kSentinel, kSentinel, kSentinel, kSentinel};
  EXPECT_EQ(308, ORXmodelingSDLS(&n, target, &nEq, B, &b, &nIneq, B, &lo, &hi, &tol, &floor,
                                 result, &status));
  EXPECT_BITEQ(0.0, result[3]);
  nEq = -1;
  n = 0;
  EXPECT_EQ(303, ORXmodelingSDLS(&n, target, &nEq, B, &b, &nIneq, B, &lo, &hi, &tol, &floor,
                                 result, &status));
  nIneq = -1;
  EXPECT_EQ(306, ORXmodelingSDLS(&n, target, &nEq, B, &b, &nIneq, B, &lo, &hi, &tol, &floor,
                                 result, &status));
  tol = 0.0;
  EXPECT_EQ(310, ORXmodelingSDLS(&n, target, &nEq, B, &b, &nIneq, B, &lo, &hi, &tol, &floor,
                                 result, &status));
  floor = -1.0;
  EXPECT_EQ(311, ORXmodelingSDLS(&n, target, &nEq, B, &b, &nIneq, B, &lo, &hi, &tol, &floor,
                                 result, &status));
  n = 0;
  tol = 0.0;
  floor = 0.5;
  EXPECT_EQ(303, ORXmodelingSDLScorr(&n, nullptr, &tol, &floor, result, &status));
  floor = 1.0;
  EXPECT_EQ(304, ORXmodelingSDLScorr(&n, nullptr, &tol, &floor, result, &status));
  n = 2;
  tol = 1e-8;
  floor = 0.0;
  EXPECT_EQ(302, ORXmodelingSDLScorr(&n, nullptr, &tol, &floor, result, &status));
}

TEST(SimulationArguments, PointerChainAndClearing) {
  int n = 2, horizon = 1, steps = 3, status = kStatusSentinel;
  double start[2] = {1.0, 1.0};
  std::vector<double> paths(6, kSentinel);
  EXPECT_EQ(306, ORXsimulGeometricBrownianX(&n, &horizon, &steps, nullptr, nullptr, nullptr,
                                            paths.data(), &status));
  for (double v : paths) EXPECT_BITEQ(0.0, v);
  double cov[4] = {1.0, 0.0, 0.0, 1.0};
  EXPECT_EQ(305, ORXsimulGeometricBrownianX(&n, &horizon, &steps, nullptr, nullptr, cov,
                                            paths.data(), &status));
  EXPECT_EQ(304, ORXsimulGeometricBrownianX(&n, &horizon, &steps, nullptr, start, cov,
                                            paths.data(), &status));
}

TEST(VersionProbe, WritesItsSixValues) {
  int v[6] = {0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, ORXlumbraTest(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5]));
  EXPECT_EQ(10, v[0]);
  EXPECT_EQ(4, v[1]);
  EXPECT_EQ(1, v[2]);
  EXPECT_EQ(16, v[3]);
  EXPECT_NE(0, v[4]);
  EXPECT_EQ(2, v[5]);
}

