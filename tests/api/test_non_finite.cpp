// SPDX-License-Identifier: Apache-2.0
// Calls on NaN, infinities and overflowing data: each ends with the failure
// status its family documents, a cleared (never non-finite) result and the
// inputs as they were.  The reproducers of the hang in the simulation's
// eigen-decomposition and of the successes with non-finite results.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "export_cases.h"
#include "kernels/kernels.h"
#include "test_support.h"

using namespace lumbra::testing;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const double kNonFinite[] = {kNaN, kInf, -kInf};

// Runs e on d and expects return 5 with the status, everything cleared.
void expectFailure(Export e, CallData& d, int status, const std::string& what) {
  const Outcome o = runCase(e, d);
  EXPECT_EQ(5, o.ret) << exportName(e) << " " << what;
  EXPECT_EQ(status, o.status) << exportName(e) << " " << what;
  EXPECT_TRUE(o.cleared) << exportName(e) << " " << what;
  EXPECT_TRUE(o.inputsKept) << exportName(e) << " " << what;
}

using Spoil = std::function<void(CallData&, double)>;

}  // namespace

TEST(NonFiniteData, SimulationWithANaNInTheCovarianceEnds) {
  // Reference DSYEVR never returned on this matrix; the kernel refuses it
  // and the path keeps only its start row.
  CallData d;
  d.nSim = 3;
  d.start = {100.0, 100.0, 100.0};
  d.drift = {0.05, 0.05, 0.05};
  d.simCov = {kNaN, 0.01, 0.01, 0.01, 0.09, 0.0, 0.01, 0.0, 0.04};
  const CallData before = d;
  EXPECT_EQ(5, callExport(Export::Simulation, d));
  EXPECT_EQ(lumbra::kernels::kInfoNotFiniteEigen, d.status);
  EXPECT_TRUE(sameInputs(before, d));
  for (int t = 0; t < d.steps; ++t)
    for (int j = 0; j < 3; ++j) EXPECT_BITEQ(t == 0 ? 100.0 : 0.0, d.out[t * 3 + j]);
  for (double v : kNonFinite) {
    CallData e;
    e.simCov[2] = e.simCov[1] = v;
    const Outcome o = runCase(Export::Simulation, e);
    EXPECT_EQ(5, o.ret);
    EXPECT_EQ(lumbra::kernels::kInfoNotFiniteEigen, o.status);
    EXPECT_TRUE(o.finite && o.inputsKept);
  }
}

TEST(NonFiniteData, AllocatorsRefuseEveryNonFiniteOrOverflowingDatum) {
  // Before, a NaN in a row made it never violated (dropped), an infinity
  // ran into the solver's updates: return 0 with NaN weights or a portfolio
  // that ignored the row.
  const std::vector<Export> all = {Export::AllocMV, Export::AllocIT, Export::AllocSharpe};
  const struct {
    const char* what;
    std::vector<Export> readers;
    Spoil set;
  } data[] = {
      {"mu", all, [](CallData& d, double v) { d.mu[1] = v; }},
      {"cons", all, [](CallData& d, double v) { d.cons[3] = v; }},
      {"rhs equality", all, [](CallData& d, double v) { d.rhs[0] = v; }},
      {"rhs inequality", all, [](CallData& d, double v) { d.rhs[1] = v; }},
      {"benchCov", {Export::AllocIT}, [](CallData& d, double v) { d.benchCov[2] = v; }},
      {"target", {Export::AllocMV}, [](CallData& d, double v) { d.target = v; }},
      {"benchReturn", {Export::AllocIT}, [](CallData& d, double v) { d.benchReturn = v; }},
      {"excess", {Export::AllocIT}, [](CallData& d, double v) { d.excess = v; }},
      {"riskFree", {Export::AllocSharpe}, [](CallData& d, double v) { d.riskFree = v; }},
  };
  // Data whose products overflow are refused as well: the outcome would
  // turn on the BLAS's order of summation.
  for (const auto& datum : data)
    for (Export e : datum.readers)
      for (double v : {kNaN, kInf, -kInf, 1e300, -1e155}) {
        CallData d;
        datum.set(d, v);
        expectFailure(e, d, -100, datum.what);
      }
}

TEST(NonFiniteData, AllocatorCovarianceAndBounds) {
  for (Export e : {Export::AllocMV, Export::AllocIT, Export::AllocSharpe}) {
    // +inf on the diagonal used to pass the definiteness test (its Schur
    // form has NaN real parts, which the minimum skipped).
    for (double v : kNonFinite) {
      CallData d;
      d.cov[4] = v;
      expectFailure(e, d, -108, "cov diagonal");
    }
    // An infinite bound on its own side means no bound; on the wrong side
    // it leaves no admissible weight.
    CallData open;
    open.lower = {-kInf, -kInf, -kInf};
    open.upper = {kInf, kInf, kInf};
    EXPECT_EQ(0, runCase(e, open).ret) << exportName(e);
    CallData shut;
    shut.upper[0] = -kInf;
    shut.lower[0] = -kInf;
    expectFailure(e, shut, -100, "upper -inf");
    // A NaN bound fails the argument scan, which reports the lower bound.
    CallData nanBound;
    nanBound.upper[2] = kNaN;
    EXPECT_EQ(e == Export::AllocIT ? 310 : 308, runCase(e, nanBound).ret);
  }
}

TEST(NonFiniteData, NaNFailsEveryRangeTest) {
  CallData d;
  d.level = kNaN;
  EXPECT_EQ(305, runCase(Export::ExanteNormalVaR, d).ret);
  EXPECT_EQ(306, runCase(Export::ExanteModifiedVaR, d).ret);
  for (double v : kNonFinite) {
    CallData p;
    p.prices[5] = v;
    EXPECT_EQ(303, runCase(Export::Returns, p).ret) << v;
    EXPECT_EQ(303, runCase(Export::LogReturns, p).ret) << v;
  }
  CallData k;
  k.nPoints = 1;
  k.points[0] = kNaN;
  EXPECT_EQ(304, runCase(Export::GaussianKernel, k).ret);
  k.nPoints = 3;
  k.points = {0.0, kNaN, 1.0};
  EXPECT_EQ(304, runCase(Export::GaussianKernel, k).ret);
  // Infinite points are numbers in order: the density there is 0.
  k.points = {-kInf, 0.0, kInf};
  const Outcome o = runCase(Export::GaussianKernel, k);
  EXPECT_EQ(0, o.ret);
  EXPECT_BITEQ(0.0, k.out[0]);
  EXPECT_GT(k.out[1], 0.0);
  EXPECT_BITEQ(0.0, k.out[2]);
}

TEST(NonFiniteData, StatisticsOfNonFiniteDataFail) {
  // A NaN in the history: the correlation used to come back finite, with
  // 0.0 for the NaN asset and the warning 5.
  for (double v : kNonFinite) {
    CallData d;
    d.hist[2] = v;
    expectFailure(Export::Cov, d, -104, "returns");
    expectFailure(Export::Corr, d, -104, "returns");
    expectFailure(Export::ExanteModifiedVaR, d, -104, "returns");
    CallData s;
    s.series[1] = v;
    expectFailure(Export::ExpostReturn, s, -103, "series");
    expectFailure(Export::ExpostVolatility, s, -104, "series");
    expectFailure(Export::GaussianKernel, s, -104, "data");
    CallData x;
    x.exMu[0] = v;
    expectFailure(Export::ExanteReturn, x, -103, "mu");
    expectFailure(Export::ExanteNormalVaR, x, -104, "mu");
    CallData c;
    c.exCov[3] = v;
    expectFailure(Export::ExanteVolatility, c, -104, "cov");
    expectFailure(Export::ExanteModifiedVaR, c, -104, "cov");
  }
}

TEST(NonFiniteData, OverflowingResultsFail) {
  // 1e300-scale data: finite inputs whose covariance overflows.
  CallData d;
  for (size_t k = 0; k < d.hist.size(); ++k) d.hist[k] *= 1e302;
  expectFailure(Export::Cov, d, -104, "covariance overflow");
  expectFailure(Export::Corr, d, -104, "correlation overflow");
  // One asset's variance overflows, the other's does not: its correlation
  // would have come out 0.0 (finite over infinite).
  CallData one;
  for (size_t k = 0; k < one.hist.size(); k += 2) one.hist[k] *= 1e302;
  expectFailure(Export::Corr, one, -104, "one variance overflows");
  // Simulated prices beyond the double range.
  CallData s;
  s.start = {1e300, 1e300};
  s.simCov = {1e300, 0.0, 0.0, 1e300};
  expectFailure(Export::Simulation, s, -104, "paths overflow");
  // Returns whose quotient overflows.
  CallData r;
  r.prices[0] = 1e-20;
  r.prices[2] = 1e300;
  expectFailure(Export::Returns, r, -103, "return overflow");
}

TEST(NonFiniteData, DegenerateButFiniteDataFail) {
  // A constant sample has no bandwidth: the densities were NaN with status 0.
  CallData k;
  k.series = {0.5, 0.5, 0.5, 0.5, 0.5};
  expectFailure(Export::GaussianKernel, k, -104, "constant sample");
  // An indefinite covariance: the square root of a negative form.
  CallData v;
  v.exCov = {-0.04, 0.0, 0.0, -0.09};
  expectFailure(Export::ExanteVolatility, v, -104, "negative form");
  expectFailure(Export::ExanteNormalVaR, v, -104, "negative form");
  // A negative horizon: the time step has no square root.
  CallData s;
  s.horizon = -1;
  expectFailure(Export::Simulation, s, -2, "negative horizon");
  for (double x : kNonFinite) {
    CallData p;
    p.start[1] = x;
    expectFailure(Export::Simulation, p, -104, "start");
    CallData q;
    q.drift[0] = x;
    expectFailure(Export::Simulation, q, -104, "drift");
  }
}
