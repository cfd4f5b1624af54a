// SPDX-License-Identifier: Apache-2.0
// The call frame through the exports: the order of the argument tests (one
// table over every export), clearing, the caller's arrays left as they
// were, the layout conversion and the status mapping.
#include <gtest/gtest.h>

#include <vector>

#include "api/frame.h"
#include "export_cases.h"
#include "lumbra.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::testing;

namespace {
constexpr double kSentinel = -777.0;
constexpr int kPasses = 0;  // passes every argument test, whatever the engine says
#define SPOIL(...) [](CallData& d) { __VA_ARGS__; }
}  // namespace

// Each export tests its arguments in a fixed order and reports the first
// failure as 300 + position; some tests replace the whole chain (a negative
// inequality count, the VaR level, the nearness tolerance and floor), some
// run only after it (the bound scan, the kernel's points).  A refusal
// writes status 0, clears exactly the result and leaves every input as it
// was.  An empty vector stands for a null pointer.
TEST(Arguments, EachExportReportsTheFirstFailureInItsOrder) {
  using E = Export;
  const struct {
    Export e;
    const char* what;
    void (*spoil)(CallData&);
    int ret;
  } cases[] = {
      // allocators: nEq, n, upper, lower, rhs, cons, benchCov, mu, cov
      {E::AllocMV, "nEq before n", SPOIL(d.nEq = -1, d.n = 1), 304},
      {E::AllocIT, "nEq before n", SPOIL(d.nEq = -1, d.n = 1), 306},
      {E::AllocMV, "upper before lower, cov", SPOIL(d.upper = {}, d.lower = {}, d.cov = {}), 309},
      {E::AllocIT, "upper before lower, cov", SPOIL(d.upper = {}, d.lower = {}, d.cov = {}), 311},
      {E::AllocSharpe, "lower before cov", SPOIL(d.lower = {}, d.cov = {}), 308},
      {E::AllocMV, "rhs", SPOIL(d.rhs = {}), 307},
      {E::AllocIT, "benchCov before mu", SPOIL(d.mu = {}, d.benchCov = {}), 304},
      {E::AllocMV, "mu before cov", SPOIL(d.mu = {}, d.cov = {}), 303},
      {E::AllocMV, "cov", SPOIL(d.cov = {}), 302},
      {E::AllocMV, "negative nIneq replaces the chain", SPOIL(d.cons = {}, d.nIneq = -3), 305},
      {E::AllocIT, "negative nIneq replaces the chain", SPOIL(d.cons = {}, d.nIneq = -3), 307},
      {E::AllocSharpe, "negative nIneq replaces nEq too", SPOIL(d.nEq = -1, d.nIneq = -3), 305},
      {E::AllocMV, "lower above upper", SPOIL(d.lower[1] = 0.7, d.upper[1] = 0.5), 308},
      {E::AllocIT, "lower above upper", SPOIL(d.lower[1] = 0.7, d.upper[1] = 0.5), 310},
      {E::AllocMV, "bound scan after the chain", SPOIL(d.lower[1] = 0.7, d.upper[1] = 0.5, d.mu = {}), 303},
      {E::AllocMV, "equal bounds pass", SPOIL(d.lower = d.upper = {0.25, 0.25, 0.5}), kPasses},
      {E::AllocMV, "no constraints, still a rhs", SPOIL(d.nEq = d.nIneq = 0, d.rhs = {}), 307},
      // returns: nSeries, nObs, prices, then lag, then the price scan
      {E::Returns, "nSeries first", SPOIL(d.nSeries = 0, d.prices = {}), 302},
      {E::Returns, "nObs before prices", SPOIL(d.nObs = 1, d.prices = {}), 304},
      {E::Returns, "prices", SPOIL(d.prices = {}), 303},
      {E::LogReturns, "lag of all observations", SPOIL(d.lag = 4), 304},
      // covariance and correlation: nAssets, nObs, returns
      {E::Cov, "nObs below 2", SPOIL(d.nHist = 1, d.hist = {}), 301},
      {E::Corr, "returns", SPOIL(d.nHist = 2, d.hist = {}), 303},
      {E::Cov, "nAssets first", SPOIL(d.nAssets = 0, d.hist = {}), 302},
      // ex-ante and ex-post measures: the level replaces the chain
      {E::ExanteNormalVaR, "level 1 before n", SPOIL(d.level.v = 1.0, d.nEx = 0), 305},
      {E::ExanteModifiedVaR, "level 0 before the sizes", SPOIL(d.level.v = 0.0, d.nHist = 2, d.nAssets = 0), 306},
      {E::ExanteModifiedVaR, "nObs below 4", SPOIL(d.nHist = 3, d.nAssets = 1), 301},
      {E::ExanteModifiedVaR, "cov before returns, weights",
       SPOIL(d.nHist = 4, d.nAssets = 1, d.weights = {}, d.hist = {}, d.exCov = {}), 305},
      {E::ExanteNormalVaR, "weights before cov", SPOIL(d.exCov = {}, d.weights = {}), 304},
      {E::ExanteReturn, "weights", SPOIL(d.weights = {}), 303},
      {E::ExanteVolatility, "cov", SPOIL(d.exCov = {}), 302},
      {E::ExpostVolatility, "one observation", SPOIL(d.nSeriesObs = 1), 301},
      {E::ExpostReturn, "one observation, no series", SPOIL(d.nSeriesObs = 1, d.series = {}), 302},
      // kernel density: nPoints, nObs, points, data, then the order of points
      {E::GaussianKernel, "points decrease", SPOIL(d.points[2] = -0.01), 304},
      {E::GaussianKernel, "equal points pass", SPOIL(d.points[2] = 0.0), kPasses},
      {E::GaussianKernel, "nPoints first", SPOIL(d.nPoints = 0, d.nSeriesObs = 1, d.series = {}, d.points = {}), 302},
      {E::GaussianKernel, "points before data", SPOIL(d.series = {}, d.points = {}), 304},
      {E::GaussianKernel, "data", SPOIL(d.series = {}), 303},
      // nearness: the chain, then the bounds; tolerance and floor replace it
      {E::SDLS, "inequality bounds crossed", SPOIL(d.nNearEq = 0, d.ineqLower = {1.0}, d.ineqUpper = {0.5}), 308},
      {E::SDLS, "n before the bounds",
       SPOIL(d.nNearEq = -1, d.nNear = 0, d.ineqLower = {1.0}, d.ineqUpper = {0.5}), 303},
      {E::SDLS, "negative nIneq", SPOIL(d.nNearEq = d.nNearIneq = -1, d.nNear = 0), 306},
      {E::SDLS, "tolerance replaces the chain",
       SPOIL(d.nNearEq = d.nNearIneq = -1, d.nNear = 0, d.tolerance.v = 0.0), 310},
      {E::SDLS, "floor replaces the tolerance",
       SPOIL(d.nNearEq = d.nNearIneq = -1, d.nNear = 0, d.tolerance.v = 0.0, d.eigenFloor.v = -1.0), 311},
      {E::SDLScorr, "tolerance before n", SPOIL(d.nNear = 0, d.tolerance.v = 0.0, d.eigenFloor.v = 0.5), 303},
      {E::SDLScorr, "floor 1 before the tolerance", SPOIL(d.nNear = 0, d.tolerance.v = 0.0, d.eigenFloor.v = 1.0), 304},
      {E::SDLScorr, "target", SPOIL(d.nearTarget = {}), 302},
      // simulation: start, drift, cov from the last
      {E::Simulation, "start before drift, cov", SPOIL(d.start = {}, d.drift = {}, d.simCov = {}), 306},
      {E::Simulation, "drift", SPOIL(d.start = {}, d.drift = {}), 305},
      {E::Simulation, "start", SPOIL(d.start = {}), 304},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << exportName(c.e) << ": " << c.what);
    CallData d;
    c.spoil(d);
    const Outcome o = runCase(c.e, d);
    EXPECT_TRUE(o.inputsKept);
    if (c.ret == kPasses) {
      EXPECT_LT(o.ret, 300);
      continue;
    }
    EXPECT_EQ(c.ret, o.ret);
    EXPECT_EQ(0, o.status);
    EXPECT_TRUE(o.cleared);
    EXPECT_BITEQ(kSentinel, d.out[resultCount(c.e, d)]);
  }
}

TEST(MomentsExport, CallerArraysUnchangedAndResultRowMajor) {
  // Three observations of three assets, dyadic deviations: the covariance
  // scale is 0.5 exactly and every sum is exact, whatever the BLAS.
  int nObs = 3, nAssets = 3, status = 12345;
  const std::vector<double> original = {1.0, 0.0, 4.0, 2.0, 2.0, 4.0, 3.0, 1.0, 4.0};
  std::vector<double> returns = original, cov(9, kSentinel), corr(9, kSentinel);
  EXPECT_EQ(0, ORXmodelingCov(&nObs, &nAssets, returns.data(), cov.data(), &status));
  EXPECT_EQ(original, returns);
  EXPECT_EQ((std::vector<double>{1.0, 0.5, 0.0, 0.5, 1.0, 0.0, 0.0, 0.0, 0.0}), cov);
  // Asset 2 is constant: the degenerate-asset warning, export return 6.
  EXPECT_EQ(6, ORXmodelingCorr(&nObs, &nAssets, returns.data(), corr.data(), &status));
  EXPECT_EQ(ORX_STATUS_DEGENERATE_ASSET, status);
  EXPECT_EQ(original, returns);
  EXPECT_EQ((std::vector<double>{1.0, 0.5, 0.0, 0.5, 1.0, 0.0, 0.0, 0.0, 1.0}), corr);
}

TEST(WorkArrays, LayoutConversionBothWays) {
  // Shapes below, at and across the 32-element tiles, square ones (moved in
  // place) among them; each converted with a fresh temporary, with spare
  // memory of exactly its size lent by the caller, and with neither (the
  // permutation's cycles).  Squares and lent memory allocate nothing.
  const std::pair<i64, i64> shapes[] = {{2, 3}, {3, 2}, {4, 4}, {1, 5}, {7, 3},
                                        {32, 32}, {33, 33}, {70, 45}, {45, 70}, {64, 96}};
  enum Temporary { Fresh, Spare, None };
  for (const auto& [rows, cols] : shapes)
    for (Temporary temporary : {Fresh, Spare, None}) {
      SCOPED_TRACE(::testing::Message() << rows << " by " << cols << ", temporary " << temporary);
      std::vector<double> a(static_cast<size_t>(rows * cols));
      for (size_t k = 0; k < a.size(); ++k) a[k] = static_cast<double>(k);
      const std::vector<double> original = a;
      std::vector<double> spare(temporary == Spare ? a.size() : 0, kSentinel);
      FailingAllocator failing(temporary == None ? 0 : 2);
      api::convertLayout(a.data(), rows, cols, spare.data(), static_cast<i64>(spare.size()));
      for (i64 r = 0; r < rows; ++r)
        for (i64 c = 0; c < cols; ++c) ASSERT_EQ(original[r * cols + c], a[at(r, c, rows)]);
      api::convertLayout(a.data(), cols, rows, spare.data(), static_cast<i64>(spare.size()));
      const bool allocates = rows != cols && rows > 1 && cols > 1 && temporary != Spare;
      EXPECT_EQ(allocates ? 2 : 0, FailingAllocator::requests());
      EXPECT_EQ(original, a);
    }
}

// Every named status of the header maps to its export return by sign alone.
TEST(StatusNames, MapToTheirReturnValueBySign) {
#define S(name) {#name, ORX_STATUS_##name}
  const std::pair<const char*, int> statuses[] = {
      S(OK), S(TOO_FEW_OBSERVATIONS), S(NEGATIVE_HORIZON), S(FACTOR_NOT_FINITE), S(COV_NOT_FINITE),
      S(DEGENERATE_ASSET), S(BAD_LEVEL), S(UNUSABLE_RETURN), S(UNUSABLE_VARIANCE),
      S(BAD_MOMENT_INDEX), S(INFEASIBLE), S(INCONSISTENT), S(COV_NOT_PD), S(INACCURATE),
      S(NO_SCALE), S(START_VIOLATED), S(AUXILIARY_BUILD), S(NO_FEASIBLE_POINT),
      S(ITERATION_LIMIT), S(UNBOUNDED), S(CYCLING), S(STEP_TOO_LONG), S(QP_INVALID_INPUT),
      S(EQUALITIES_INCONSISTENT), S(NOTHING_TO_ADD), S(START_ITERATION_LIMIT),
      S(START_INVALID_INPUT), S(REFINE_BAD_LIST), S(SCALAR_INEQUALITY), S(SCALAR_EQUALITY),
      S(SCALAR_EMPTY), S(SIMULATOR_STOP), S(MINIMISER_REFUSED), S(BFGS_FAILED),
      S(MINIMISER_ITERATIONS), S(MINIMISER_SIMULATIONS), S(NO_PROGRESS), S(RELEASE_FAILED),
      S(NO_PROGRESS_AT_ZERO), S(EQUALITY_MISSED), S(INEQUALITY_VIOLATED), S(BAD_EIGEN_FLOOR)};
#undef S
  for (const auto& [name, value] : statuses)
    EXPECT_EQ(value < 0 ? ORX_RETURN_FAILURE : value > 0 ? ORX_RETURN_WARNING : ORX_RETURN_OK,
              api::mapStatus(value)) << name;
  // The version probe, the one export outside the frame.
  int v[6] = {0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, ORXlumbraTest(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5]));
  EXPECT_NE(0, v[4]);
  v[4] = 0;
  EXPECT_EQ((std::vector<int>{10, 4, 1, 16, 0, 2}), std::vector<int>(v, v + 6));
}
