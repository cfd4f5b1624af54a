// SPDX-License-Identifier: Apache-2.0
// Every export against NaN, infinities, zero, negative and huge values and
// overflowing sizes: each case must end cleanly (a documented return, a
// finite result, zeros after a refusal, the inputs as they were), and the
// table of what each case returns is the one printed in the README between
// its two markers.  To rewrite the README's table after a deliberate
// change: LUMBRA_UPDATE_README=1 test_api --gtest_filter='BadInputTable.*'
// (LUMBRA_TRACE_CASES=1 names each case before it runs).
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "export_cases.h"
#include "kernels/kernels.h"

using namespace lumbra::testing;
using E = Export;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// One argument of one export and how a value goes into it: the first
// element of an array, or both (0,1) and (1,0) of a symmetric matrix.
using Set = void (*)(CallData&, double);
struct Row {
  Export e;
  const char* argument;
  Set set;
};
#define AT(lvalue) [](CallData& d, double v) { lvalue = v; }
#define COUNT(field) [](CallData& d, double v) { d.field = static_cast<int>(v); }

std::vector<Row> realRows() {
  std::vector<Row> rows;
  for (E e : {E::AllocMV, E::AllocIT, E::AllocSharpe}) {
    rows.insert(rows.end(), {{e, "cov[0][0]", AT(d.cov[0])},
                             {e, "cov[0][1], cov[1][0]", AT(d.cov[1] = d.cov[3])},
                             {e, "mu[0]", AT(d.mu[0])}});
    if (e == E::AllocIT) rows.push_back({e, "benchCov[0]", AT(d.benchCov[0])});
    rows.insert(rows.end(), {{e, "cons[0][0]", AT(d.cons[0])},
                             {e, "rhs[0] (equality)", AT(d.rhs[0])},
                             {e, "rhs[1] (inequality)", AT(d.rhs[1])},
                             {e, "lower[0]", AT(d.lower[0])},
                             {e, "upper[0]", AT(d.upper[0])}});
    if (e == E::AllocMV) rows.push_back({e, "target", AT(d.target.v)});
    if (e == E::AllocIT)
      rows.insert(rows.end(), {{e, "benchReturn", AT(d.benchReturn.v)}, {e, "excess", AT(d.excess.v)}});
    if (e == E::AllocSharpe) rows.push_back({e, "riskFree", AT(d.riskFree.v)});
  }
  for (E e : {E::Returns, E::LogReturns})
    rows.insert(rows.end(), {{e, "prices[0][0]", AT(d.prices[0])},
                             {e, "prices[3][0] (last row)", AT(d.prices[6])}});
  rows.insert(rows.end(), {
      {E::Cov, "returns[0][0]", AT(d.hist[0])},
      {E::Corr, "returns[0][0]", AT(d.hist[0])},
      {E::SDLS, "target[0][1], target[1][0]", AT(d.nearTarget[1] = d.nearTarget[2])},
      {E::SDLS, "eqMatrices[0][0]", AT(d.eqMatrices[0])},
      {E::SDLS, "eqValues[0]", AT(d.eqValues[0])},
      {E::SDLS, "ineqMatrices[0][1], [1][0]", AT(d.ineqMatrices[1] = d.ineqMatrices[2])},
      {E::SDLS, "ineqLower[0]", AT(d.ineqLower[0])},
      {E::SDLS, "ineqUpper[0]", AT(d.ineqUpper[0])},
      {E::SDLS, "tolerance", AT(d.tolerance.v)},
      {E::SDLS, "eigenFloor", AT(d.eigenFloor.v)},
      {E::SDLScorr, "target[0][1], target[1][0]", AT(d.nearTarget[1] = d.nearTarget[2])},
      {E::SDLScorr, "tolerance", AT(d.tolerance.v)},
      {E::SDLScorr, "eigenFloor", AT(d.eigenFloor.v)},
      {E::ExanteReturn, "mu[0]", AT(d.exMu[0])},
      {E::ExanteReturn, "weights[0]", AT(d.weights[0])},
      {E::ExanteVolatility, "cov[0][0]", AT(d.exCov[0])},
      {E::ExanteVolatility, "weights[0]", AT(d.weights[0])},
      {E::ExanteNormalVaR, "cov[0][0]", AT(d.exCov[0])},
      {E::ExanteNormalVaR, "mu[0]", AT(d.exMu[0])},
      {E::ExanteNormalVaR, "weights[0]", AT(d.weights[0])},
      {E::ExanteNormalVaR, "level", AT(d.level.v)},
      {E::ExanteModifiedVaR, "weights[0]", AT(d.weights[0])},
      {E::ExanteModifiedVaR, "returns[0][0]", AT(d.hist[0])},
      {E::ExanteModifiedVaR, "cov[0][0]", AT(d.exCov[0])},
      {E::ExanteModifiedVaR, "level", AT(d.level.v)},
      {E::ExpostReturn, "series[0]", AT(d.series[0])},
      {E::ExpostVolatility, "series[0]", AT(d.series[0])},
      {E::GaussianKernel, "data[0]", AT(d.series[0])},
      {E::GaussianKernel, "points[0]", AT(d.points[0])},
      {E::Simulation, "start[0]", AT(d.start[0])},
      {E::Simulation, "drift[0]", AT(d.drift[0])},
      {E::Simulation, "cov[0][0]", AT(d.simCov[0])},
      {E::Simulation, "cov[0][1], cov[1][0]", AT(d.simCov[1] = d.simCov[2])}});
  return rows;
}

std::vector<Row> countRows() {
  std::vector<Row> rows;
  for (E e : {E::AllocMV, E::AllocIT, E::AllocSharpe})
    rows.insert(rows.end(), {{e, "n", COUNT(n)}, {e, "nEq", COUNT(nEq)}, {e, "nIneq", COUNT(nIneq)}});
  for (E e : {E::Returns, E::LogReturns})
    rows.insert(rows.end(),
                {{e, "nObs", COUNT(nObs)}, {e, "nSeries", COUNT(nSeries)}, {e, "lag", COUNT(lag)}});
  for (E e : {E::Cov, E::Corr})
    rows.insert(rows.end(), {{e, "nObs", COUNT(nHist)}, {e, "nAssets", COUNT(nAssets)}});
  rows.insert(rows.end(), {{E::SDLS, "n", COUNT(nNear)}, {E::SDLS, "nEq", COUNT(nNearEq)},
                           {E::SDLS, "nIneq", COUNT(nNearIneq)}, {E::SDLScorr, "n", COUNT(nNear)}});
  for (E e : {E::ExanteReturn, E::ExanteVolatility, E::ExanteNormalVaR})
    rows.push_back({e, "n", COUNT(nEx)});
  rows.insert(rows.end(), {{E::ExanteModifiedVaR, "nObs", COUNT(nHist)},
                           {E::ExanteModifiedVaR, "nAssets", COUNT(nAssets)},
                           {E::ExpostReturn, "n", COUNT(nSeriesObs)},
                           {E::ExpostVolatility, "n", COUNT(nSeriesObs)},
                           {E::GaussianKernel, "nObs", COUNT(nSeriesObs)},
                           {E::GaussianKernel, "nPoints", COUNT(nPoints)},
                           {E::Simulation, "n", COUNT(nSim)},
                           {E::Simulation, "horizon", COUNT(horizon)},
                           {E::Simulation, "steps", COUNT(steps)}});
  return rows;
}

// Sizes whose work formula overflows while the caller's arrays stay small
// (larger counts than the arrays hold cannot be tried: the library reads
// and clears what the counts say).
const Row kSizeRows[] = {
    {E::ExanteModifiedVaR, "nAssets = 2^31 - 1", [](CallData& d, double) { d.nAssets = INT_MAX; }},
    {E::Simulation, "n = 2^31 - 1, steps = 0",
     [](CallData& d, double) { d.nSim = INT_MAX, d.steps = 0; }}};

// An infinity may pass only where it means "no limit": a bound on its own
// side, the nearness tolerance, a kernel point below all data.
bool meansNoLimit(const std::string& argument, double v) {
  return argument == (v > 0 ? "upper[0]" : "lower[0]") || (argument == "tolerance" && v > 0) ||
         (argument == "points[0]" && v < 0);
}

// Runs one case, checks what every case must leave, and gives its cell:
// the return, with the status when the engine ran and did not succeed.
std::string cell(const Row& row, double v) {
  const std::string label = std::string(exportName(row.e)) + " " + row.argument;
  if (std::getenv("LUMBRA_TRACE_CASES") != nullptr) std::fprintf(stderr, "%s\n", label.c_str());
  CallData d;
  row.set(d, v);
  const Outcome o = runCase(row.e, d);
  SCOPED_TRACE(::testing::Message() << label << " = " << v << ": return " << o.ret);
  EXPECT_TRUE(o.ret == 0 || o.ret == 2 || o.ret == 5 || o.ret == 6 || o.ret > 300);
  EXPECT_TRUE(o.finite && o.inputsKept);
  if (o.ret == 0 || o.ret == 2 || o.ret > 300) EXPECT_EQ(0, o.status);
  if (o.ret == 2 || o.ret > 300) EXPECT_TRUE(o.cleared);
  // Non-finite data never gives a success.
  if (std::isnan(v) || (std::isinf(v) && !meansNoLimit(row.argument, v))) EXPECT_NE(0, o.ret);
  if (o.ret == 0 || o.ret == 2 || o.ret > 300) return std::to_string(o.ret);
  return std::to_string(o.ret) + " / " + std::to_string(o.status);
}

// The three markdown tables of the README, built by running every case.
std::string badInputTable() {
  std::ostringstream t;
  E previous = E::Count;
  auto line = [&](const Row& row, std::initializer_list<double> values) {
    t << "| " << (row.e == previous ? "" : "`" + std::string(exportName(row.e)) + "`") << " | `"
      << row.argument << "` |";
    for (double v : values) t << " " << cell(row, v) << " |";
    t << "\n";
    previous = row.e;
  };
  t << "| Export | Argument | NaN | +Inf | -Inf | 0 | -1 | 1e300 |\n|---|---|---|---|---|---|---|---|\n";
  for (const Row& row : realRows()) line(row, {kNaN, kInf, -kInf, 0.0, -1.0, 1e300});
  t << "\n| Export | Count | 0 | -1 |\n|---|---|---|---|\n";
  previous = E::Count;
  for (const Row& row : countRows()) line(row, {0.0, -1.0});
  t << "\n| Export | Overflowing size | Result |\n|---|---|---|\n";
  for (const Row& row : kSizeRows)
    t << "| `" << exportName(row.e) << "` | " << row.argument << " | " << cell(row, 0.0) << " |\n";
  return t.str();
}

}  // namespace

TEST(BadInputTable, ReadmeTableIsTheOneTheCasesGive) {
  const std::string table = badInputTable();
  const auto readme = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "README.md";
  std::ifstream in(readme);
  ASSERT_TRUE(in) << readme;
  std::stringstream whole;
  whole << in.rdbuf();
  std::string text = whole.str();
  const std::string begin = "<!-- bad-input-table:begin -->\n";
  const size_t from = text.find(begin), end = text.find("<!-- bad-input-table:end -->");
  ASSERT_TRUE(from != std::string::npos && end != std::string::npos) << "README has no table markers";
  const std::string current = text.substr(from + begin.size(), end - from - begin.size());
  if (current != table && std::getenv("LUMBRA_UPDATE_README") != nullptr) {
    text.replace(from + begin.size(), current.size(), table);
    std::ofstream(readme) << text;
    return;
  }
  EXPECT_EQ(table, current) << "the README's bad-input table is out of date; the cases give:\n" << table;
}

// Non-finite or overflowing data that no single argument of the table above
// holds: each call fails with its family's status, a finite result and the
// inputs as they were.
TEST(NonFiniteData, CompoundCasesFail) {
  const struct {
    Export e;
    const char* what;
    void (*spoil)(CallData&);
    int status;
  } cases[] = {
      // An upper bound of -inf leaves no admissible weight, even when the
      // lower bound below it passes the argument scan.
      {E::AllocMV, "bounds -inf", [](CallData& d) { d.lower[0] = d.upper[0] = -kInf; }, -100},
      {E::AllocIT, "bounds -inf", [](CallData& d) { d.lower[0] = d.upper[0] = -kInf; }, -100},
      {E::AllocSharpe, "bounds -inf", [](CallData& d) { d.lower[0] = d.upper[0] = -kInf; }, -100},
      // Reference DSYEVR never returned on a 3 by 3 covariance with a NaN.
      {E::Simulation, "NaN in a 3 by 3 cov",
       [](CallData& d) {
         d.nSim = 3, d.start = {100.0, 100.0, 100.0}, d.drift = {0.05, 0.05, 0.05};
         d.simCov = {kNaN, 0.01, 0.01, 0.01, 0.09, 0.0, 0.01, 0.0, 0.04};
       },
       lumbra::kernels::kInfoNotFiniteEigen},
      {E::Simulation, "paths overflow",
       [](CallData& d) { d.start = {1e300, 1e300}, d.simCov = {1e300, 0.0, 0.0, 1e300}; }, -104},
      {E::Returns, "quotient overflows", [](CallData& d) { d.prices[0] = 1e-20, d.prices[2] = 1e300; }, -103},
      {E::Cov, "covariance overflows", [](CallData& d) { for (double& x : d.hist) x *= 1e302; }, -104},
      // One variance overflows: the correlation would be finite over infinite.
      {E::Corr, "one variance overflows",
       [](CallData& d) { for (size_t k = 0; k < d.hist.size(); k += 2) d.hist[k] *= 1e302; }, -104},
      {E::GaussianKernel, "constant sample: no bandwidth",
       [](CallData& d) { d.series = {0.5, 0.5, 0.5, 0.5, 0.5}; }, -104},
      {E::ExanteNormalVaR, "negative form", [](CallData& d) { d.exCov = {-0.04, 0.0, 0.0, -0.09}; }, -104},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << exportName(c.e) << ": " << c.what);
    CallData d;
    c.spoil(d);
    const Outcome o = runCase(c.e, d);
    EXPECT_EQ(5, o.ret);
    EXPECT_EQ(c.status, o.status);
    EXPECT_TRUE(o.finite && o.inputsKept);
  }
}
