// SPDX-License-Identifier: Apache-2.0
// The call frame through the exports: orders and replacements of the
// argument tests (one table over every export), clearing, caller's arrays
// left as they were, layout conversion, work-array failures and the status
// mapping.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "api/frame.h"
#include "export_cases.h"
#include "lumbra.h"
#include "test_support.h"

using namespace lumbra;
using lumbra::testing::FailingAllocator;

namespace {

constexpr double kSentinel = -777.0;
constexpr int kStatusSentinel = 12345;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
// Expected return of a call that passes every argument test: whatever the
// engine says, it is not an argument status.
constexpr int kPasses = 0;

using lumbra::testing::CallData;
using lumbra::testing::Export;

// A null pointer in place of the array.
void drop(std::vector<double>& v) { std::vector<double>().swap(v); }

struct ArgCase {
  Export e;
  const char* what;
  std::function<void(CallData&)> spoil;
  int ret;
};

}  // namespace

// Each export tests its arguments in a fixed order and reports the first
// failure as 300 + position; some tests replace the whole chain (a negative
// inequality count, the VaR level), some run only after it (the bound scan,
// the price scan, the kernel's points).  A refusal writes status 0, clears
// exactly the result (nothing beyond it) and leaves every input as it was.
TEST(Arguments, EachExportReportsTheFirstFailureInItsOrder) {
  using E = Export;
  const ArgCase cases[] = {
      // allocators: nEq, n, upper, lower, rhs, cons, benchCov, mu, cov
      {E::AllocMV, "nEq before n", [](CallData& d) { d.nEq = -1; d.n = 1; }, 304},
      {E::AllocIT, "nEq before n", [](CallData& d) { d.nEq = -1; d.n = 1; }, 306},
      {E::AllocMV, "n below 2", [](CallData& d) { d.n = 1; }, 301},
      {E::AllocMV, "upper before lower and cov",
       [](CallData& d) { drop(d.upper); drop(d.lower); drop(d.cov); }, 309},
      {E::AllocIT, "upper before lower and cov",
       [](CallData& d) { drop(d.upper); drop(d.lower); drop(d.cov); }, 311},
      {E::AllocSharpe, "lower before cov", [](CallData& d) { drop(d.lower); drop(d.cov); }, 308},
      {E::AllocMV, "rhs", [](CallData& d) { drop(d.rhs); }, 307},
      {E::AllocIT, "benchCov before mu", [](CallData& d) { drop(d.mu); drop(d.benchCov); }, 304},
      {E::AllocMV, "mu before cov", [](CallData& d) { drop(d.mu); drop(d.cov); }, 303},
      {E::AllocMV, "cov", [](CallData& d) { drop(d.cov); }, 302},
      {E::AllocMV, "negative nIneq replaces the chain",
       [](CallData& d) { drop(d.cons); d.nIneq = -3; }, 305},
      {E::AllocIT, "negative nIneq replaces the chain",
       [](CallData& d) { drop(d.cons); d.nIneq = -3; }, 307},
      {E::AllocSharpe, "negative nIneq replaces nEq too",
       [](CallData& d) { d.nEq = -1; d.nIneq = -3; }, 305},
      {E::AllocMV, "lower above upper: the lower bound",
       [](CallData& d) { d.lower[1] = 0.7; d.upper[1] = 0.5; }, 308},
      {E::AllocIT, "lower above upper: the lower bound",
       [](CallData& d) { d.lower[1] = 0.7; d.upper[1] = 0.5; }, 310},
      {E::AllocMV, "the bound scan runs after the chain",
       [](CallData& d) { d.lower[1] = 0.7; d.upper[1] = 0.5; drop(d.mu); }, 303},
      {E::AllocMV, "NaN lower bound", [](CallData& d) { d.lower[1] = kNaN; }, 308},
      {E::AllocIT, "NaN upper bound", [](CallData& d) { d.upper[0] = kNaN; }, 310},
      {E::AllocMV, "equal bounds pass",
       [](CallData& d) { d.lower = d.upper = {0.25, 0.25, 0.5}; }, kPasses},
      {E::AllocMV, "no constraints", [](CallData& d) { d.nEq = d.nIneq = 0; }, kPasses},
      {E::AllocMV, "no constraints, still a rhs",
       [](CallData& d) { d.nEq = d.nIneq = 0; drop(d.rhs); }, 307},
      // returns: nSeries, nObs, prices, then lag, then the price scan
      {E::Returns, "a zero price", [](CallData& d) { d.prices[7] = 0.0; }, 303},
      {E::LogReturns, "a negative price", [](CallData& d) { d.prices[7] = -1.0; }, 303},
      {E::Returns, "nSeries first", [](CallData& d) { d.nSeries = 0; drop(d.prices); }, 302},
      {E::Returns, "nObs before prices", [](CallData& d) { d.nObs = 1; drop(d.prices); }, 304},
      {E::Returns, "prices", [](CallData& d) { drop(d.prices); }, 303},
      {E::Returns, "lag of all observations", [](CallData& d) { d.lag = 4; }, 304},
      {E::LogReturns, "lag of all observations", [](CallData& d) { d.lag = 4; }, 304},
      // covariance and correlation: nAssets, nObs, returns
      {E::Cov, "nObs below 2", [](CallData& d) { d.nHist = 1; drop(d.hist); }, 301},
      {E::Corr, "returns", [](CallData& d) { d.nHist = 2; drop(d.hist); }, 303},
      {E::Cov, "nAssets first", [](CallData& d) { d.nAssets = 0; drop(d.hist); }, 302},
      // ex-ante and ex-post measures: the level replaces the chain
      {E::ExanteNormalVaR, "level 1 before n", [](CallData& d) { d.level = 1.0; d.nEx = 0; }, 305},
      {E::ExanteModifiedVaR, "level 0 before the sizes",
       [](CallData& d) { d.level = 0.0; d.nHist = 2; d.nAssets = 0; }, 306},
      {E::ExanteNormalVaR, "n", [](CallData& d) { d.nEx = 0; }, 301},
      {E::ExanteModifiedVaR, "nAssets", [](CallData& d) { d.nHist = 2; d.nAssets = 0; }, 302},
      {E::ExanteModifiedVaR, "nObs below 4", [](CallData& d) { d.nHist = 3; d.nAssets = 1; }, 301},
      {E::ExanteModifiedVaR, "cov before returns and weights",
       [](CallData& d) {
         d.nHist = 4;
         d.nAssets = 1;
         drop(d.weights);
         drop(d.hist);
         drop(d.exCov);
       },
       305},
      {E::ExanteNormalVaR, "weights before cov",
       [](CallData& d) { drop(d.exCov); drop(d.weights); }, 304},
      {E::ExanteReturn, "weights", [](CallData& d) { drop(d.weights); }, 303},
      {E::ExanteVolatility, "cov", [](CallData& d) { drop(d.exCov); }, 302},
      {E::ExpostVolatility, "one observation", [](CallData& d) { d.nSeriesObs = 1; }, 301},
      {E::ExpostReturn, "one observation, no series",
       [](CallData& d) { d.nSeriesObs = 1; drop(d.series); }, 302},
      // kernel density: nPoints, nObs, points, data, then the order of points
      {E::GaussianKernel, "points decrease", [](CallData& d) { d.points[2] = -0.01; }, 304},
      {E::GaussianKernel, "equal points pass", [](CallData& d) { d.points[2] = 0.0; }, kPasses},
      {E::GaussianKernel, "nPoints first",
       [](CallData& d) { d.nPoints = 0; d.nSeriesObs = 1; drop(d.series); drop(d.points); }, 302},
      {E::GaussianKernel, "nObs", [](CallData& d) { d.nSeriesObs = 1; }, 301},
      {E::GaussianKernel, "points before data",
       [](CallData& d) { drop(d.series); drop(d.points); }, 304},
      {E::GaussianKernel, "data", [](CallData& d) { drop(d.series); }, 303},
      // nearness: the chain, then the bounds, the tolerance and the floor
      {E::SDLS, "inequality bounds crossed",
       [](CallData& d) { d.nNearEq = 0; d.ineqLower = {1.0}; d.ineqUpper = {0.5}; }, 308},
      {E::SDLS, "n before the bounds",
       [](CallData& d) { d.nNearEq = -1; d.nNear = 0; d.ineqLower = {1.0}; d.ineqUpper = {0.5}; },
       303},
      {E::SDLS, "negative nIneq",
       [](CallData& d) { d.nNearEq = d.nNearIneq = -1; d.nNear = 0; }, 306},
      {E::SDLS, "tolerance replaces the chain",
       [](CallData& d) { d.nNearEq = d.nNearIneq = -1; d.nNear = 0; d.tolerance = 0.0; }, 310},
      {E::SDLS, "floor replaces the tolerance",
       [](CallData& d) {
         d.nNearEq = d.nNearIneq = -1;
         d.nNear = 0;
         d.tolerance = 0.0;
         d.eigenFloor = -1.0;
       },
       311},
      {E::SDLScorr, "tolerance before n",
       [](CallData& d) { d.nNear = 0; d.tolerance = 0.0; d.eigenFloor = 0.5; }, 303},
      {E::SDLScorr, "floor 1 before the tolerance",
       [](CallData& d) { d.nNear = 0; d.tolerance = 0.0; d.eigenFloor = 1.0; }, 304},
      {E::SDLScorr, "target", [](CallData& d) { drop(d.nearTarget); }, 302},
      // simulation: start, drift, cov from the last
      {E::Simulation, "start before drift and cov",
       [](CallData& d) { drop(d.start); drop(d.drift); drop(d.simCov); }, 306},
      {E::Simulation, "drift", [](CallData& d) { drop(d.start); drop(d.drift); }, 305},
      {E::Simulation, "start", [](CallData& d) { drop(d.start); }, 304},
  };
  for (const ArgCase& c : cases) {
    SCOPED_TRACE(::testing::Message() << lumbra::testing::exportName(c.e) << ": " << c.what);
    CallData d;
    c.spoil(d);
    const long count = lumbra::testing::resultCount(c.e, d);
    const lumbra::testing::Outcome o = lumbra::testing::runCase(c.e, d);
    EXPECT_TRUE(o.inputsKept);
    if (c.ret == kPasses) {
      EXPECT_LT(o.ret, 300);
      continue;
    }
    EXPECT_EQ(c.ret, o.ret);
    EXPECT_EQ(0, o.status);
    EXPECT_TRUE(o.cleared);
    EXPECT_BITEQ(kSentinel, d.out[count]);
  }
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
  CallData c;
  lumbra::testing::Outcome o;
  {
    FailingAllocator failing(1);
    o = lumbra::testing::runCase(Export::AllocMV, c);
    EXPECT_EQ(2, FailingAllocator::requests());
  }
  EXPECT_EQ(2, o.ret);
  EXPECT_EQ(0, o.status);
  EXPECT_TRUE(o.cleared);
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
