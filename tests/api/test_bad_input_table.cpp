// SPDX-License-Identifier: Apache-2.0
// Every export against NaN, infinities, zero, negative and huge values and
// overflowing sizes: each case must end cleanly (a documented return, a
// finite result, zeros after a refusal, the inputs as they were), and the
// table of what each case returns is the one printed in the README between
// its two markers.  To rewrite the README's table after a deliberate
// change: LUMBRA_UPDATE_README=1 test_api --gtest_filter='BadInputTable.*'
// (the README of the source tree is found from this file's path).
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "export_cases.h"


using namespace lumbra::testing;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
constexpr double kHuge = 1e300;

const double kRealValues[] = {kNaN, kInf, -kInf, 0.0, -1.0, kHuge};
const char* const kRealHeads[] = {"NaN", "+Inf", "-Inf", "0", "-1", "1e300"};
const int kCountValues[] = {0, -1};

// One argument of one export, and how a value is put into it (the first
// element of an array; both (0,1) and (1,0) for an off-diagonal element, so
// that the matrix stays symmetric).
struct RealRow {
  Export e;
  const char* argument;
  std::function<void(CallData&, double)> set;
};
struct CountRow {
  Export e;
  const char* argument;
  std::function<void(CallData&, int)> set;
};
struct SizeRow {
  Export e;
  const char* what;
  std::function<void(CallData&)> set;
};

using Set = std::function<void(CallData&, double)>;
Set first(std::vector<double> CallData::*field) {
  return [field](CallData& d, double v) { (d.*field)[0] = v; };
}
Set element(std::vector<double> CallData::*field, int k) {
  return [field, k](CallData& d, double v) { (d.*field)[k] = v; };
}
Set offDiagonal(std::vector<double> CallData::*field, int n) {
  return [field, n](CallData& d, double v) { (d.*field)[1] = (d.*field)[n] = v; };
}
Set scalar(double CallData::*field) {
  return [field](CallData& d, double v) { d.*field = v; };
}
std::function<void(CallData&, int)> count(int CallData::*field) {
  return [field](CallData& d, int v) { d.*field = v; };
}

// The rows shared by the three allocators; the scalars differ.
void allocatorRows(Export e, std::vector<RealRow>& rows) {
  rows.push_back({e, "cov[0][0]", first(&CallData::cov)});
  rows.push_back({e, "cov[0][1], cov[1][0]", offDiagonal(&CallData::cov, 3)});
  rows.push_back({e, "mu[0]", first(&CallData::mu)});
  if (e == Export::AllocIT) rows.push_back({e, "benchCov[0]", first(&CallData::benchCov)});
  rows.push_back({e, "cons[0][0]", first(&CallData::cons)});
  rows.push_back({e, "rhs[0] (equality)", first(&CallData::rhs)});
  rows.push_back({e, "rhs[1] (inequality)", element(&CallData::rhs, 1)});
  rows.push_back({e, "lower[0]", first(&CallData::lower)});
  rows.push_back({e, "upper[0]", first(&CallData::upper)});
  if (e == Export::AllocMV) rows.push_back({e, "target", scalar(&CallData::target)});
  if (e == Export::AllocIT) {
    rows.push_back({e, "benchReturn", scalar(&CallData::benchReturn)});
    rows.push_back({e, "excess", scalar(&CallData::excess)});
  }
  if (e == Export::AllocSharpe) rows.push_back({e, "riskFree", scalar(&CallData::riskFree)});
}

std::vector<RealRow> realRows() {
  std::vector<RealRow> rows;
  for (Export e : {Export::AllocMV, Export::AllocIT, Export::AllocSharpe}) allocatorRows(e, rows);
  for (Export e : {Export::Returns, Export::LogReturns}) {
    rows.push_back({e, "prices[0][0]", first(&CallData::prices)});
    rows.push_back({e, "prices[3][0] (last row)", element(&CallData::prices, 6)});
  }
  for (Export e : {Export::Cov, Export::Corr})
    rows.push_back({e, "returns[0][0]", first(&CallData::hist)});
  rows.push_back({Export::SDLS, "target[0][1], target[1][0]", offDiagonal(&CallData::nearTarget, 2)});
  rows.push_back({Export::SDLS, "eqMatrices[0][0]", first(&CallData::eqMatrices)});
  rows.push_back({Export::SDLS, "eqValues[0]", first(&CallData::eqValues)});
  rows.push_back({Export::SDLS, "ineqMatrices[0][1], [1][0]", offDiagonal(&CallData::ineqMatrices, 2)});
  rows.push_back({Export::SDLS, "ineqLower[0]", first(&CallData::ineqLower)});
  rows.push_back({Export::SDLS, "ineqUpper[0]", first(&CallData::ineqUpper)});
  rows.push_back({Export::SDLS, "tolerance", scalar(&CallData::tolerance)});
  rows.push_back({Export::SDLS, "eigenFloor", scalar(&CallData::eigenFloor)});
  rows.push_back({Export::SDLScorr, "target[0][1], target[1][0]", offDiagonal(&CallData::nearTarget, 2)});
  rows.push_back({Export::SDLScorr, "tolerance", scalar(&CallData::tolerance)});
  rows.push_back({Export::SDLScorr, "eigenFloor", scalar(&CallData::eigenFloor)});
  rows.push_back({Export::ExanteReturn, "mu[0]", first(&CallData::exMu)});
  rows.push_back({Export::ExanteReturn, "weights[0]", first(&CallData::weights)});
  rows.push_back({Export::ExanteVolatility, "cov[0][0]", first(&CallData::exCov)});
  rows.push_back({Export::ExanteVolatility, "weights[0]", first(&CallData::weights)});
  rows.push_back({Export::ExanteNormalVaR, "cov[0][0]", first(&CallData::exCov)});
  rows.push_back({Export::ExanteNormalVaR, "mu[0]", first(&CallData::exMu)});
  rows.push_back({Export::ExanteNormalVaR, "weights[0]", first(&CallData::weights)});
  rows.push_back({Export::ExanteNormalVaR, "level", scalar(&CallData::level)});
  rows.push_back({Export::ExanteModifiedVaR, "weights[0]", first(&CallData::weights)});
  rows.push_back({Export::ExanteModifiedVaR, "returns[0][0]", first(&CallData::hist)});
  rows.push_back({Export::ExanteModifiedVaR, "cov[0][0]", first(&CallData::exCov)});
  rows.push_back({Export::ExanteModifiedVaR, "level", scalar(&CallData::level)});
  rows.push_back({Export::ExpostReturn, "series[0]", first(&CallData::series)});
  rows.push_back({Export::ExpostVolatility, "series[0]", first(&CallData::series)});
  rows.push_back({Export::GaussianKernel, "data[0]", first(&CallData::series)});
  rows.push_back({Export::GaussianKernel, "points[0]", first(&CallData::points)});
  rows.push_back({Export::Simulation, "start[0]", first(&CallData::start)});
  rows.push_back({Export::Simulation, "drift[0]", first(&CallData::drift)});
  rows.push_back({Export::Simulation, "cov[0][0]", first(&CallData::simCov)});
  rows.push_back({Export::Simulation, "cov[0][1], cov[1][0]", offDiagonal(&CallData::simCov, 2)});
  return rows;
}

std::vector<CountRow> countRows() {
  std::vector<CountRow> rows;
  for (Export e : {Export::AllocMV, Export::AllocIT, Export::AllocSharpe}) {
    rows.push_back({e, "n", count(&CallData::n)});
    rows.push_back({e, "nEq", count(&CallData::nEq)});
    rows.push_back({e, "nIneq", count(&CallData::nIneq)});
  }
  for (Export e : {Export::Returns, Export::LogReturns}) {
    rows.push_back({e, "nObs", count(&CallData::nObs)});
    rows.push_back({e, "nSeries", count(&CallData::nSeries)});
    rows.push_back({e, "lag", count(&CallData::lag)});
  }
  for (Export e : {Export::Cov, Export::Corr}) {
    rows.push_back({e, "nObs", count(&CallData::nHist)});
    rows.push_back({e, "nAssets", count(&CallData::nAssets)});
  }
  rows.push_back({Export::SDLS, "n", count(&CallData::nNear)});
  rows.push_back({Export::SDLS, "nEq", count(&CallData::nNearEq)});
  rows.push_back({Export::SDLS, "nIneq", count(&CallData::nNearIneq)});
  rows.push_back({Export::SDLScorr, "n", count(&CallData::nNear)});
  for (Export e : {Export::ExanteReturn, Export::ExanteVolatility, Export::ExanteNormalVaR})
    rows.push_back({e, "n", count(&CallData::nEx)});
  rows.push_back({Export::ExanteModifiedVaR, "nObs", count(&CallData::nHist)});
  rows.push_back({Export::ExanteModifiedVaR, "nAssets", count(&CallData::nAssets)});
  for (Export e : {Export::ExpostReturn, Export::ExpostVolatility})
    rows.push_back({e, "n", count(&CallData::nSeriesObs)});
  rows.push_back({Export::GaussianKernel, "nObs", count(&CallData::nSeriesObs)});
  rows.push_back({Export::GaussianKernel, "nPoints", count(&CallData::nPoints)});
  rows.push_back({Export::Simulation, "n", count(&CallData::nSim)});
  rows.push_back({Export::Simulation, "horizon", count(&CallData::horizon)});
  rows.push_back({Export::Simulation, "steps", count(&CallData::steps)});
  return rows;
}

// Sizes whose work formula overflows while the caller's arrays stay small;
// larger counts than the caller's arrays hold cannot be tried (the library
// reads and clears what the counts say).
std::vector<SizeRow> sizeRows() {
  return {
      {Export::ExanteModifiedVaR, "nAssets = 2^31 - 1",
       [](CallData& d) { d.nAssets = INT_MAX; }},
      {Export::Simulation, "n = 2^31 - 1, steps = 0",
       [](CallData& d) {
         d.nSim = INT_MAX;
         d.steps = 0;
       }},
  };
}

// "0", "308", "5 / -100": the return value, with the status when the engine
// ran and did not succeed.
std::string cell(const Outcome& o) {
  if (o.ret == 0 || o.ret == 2 || o.ret > 300) return std::to_string(o.ret);
  return std::to_string(o.ret) + " / " + std::to_string(o.status);
}

// Runs one case and checks what every case must leave, whatever its value.
// With LUMBRA_TRACE_CASES set each case is named before it runs, so that a
// case that aborts the process can be found.
Outcome checkedRun(Export e, CallData& d, const std::string& label) {
  if (std::getenv("LUMBRA_TRACE_CASES") != nullptr) std::fprintf(stderr, "%s\n", label.c_str());
  const Outcome o = runCase(e, d);
  const bool known = o.ret == 0 || o.ret == 2 || o.ret == 5 || o.ret == 6 || o.ret > 300;
  EXPECT_TRUE(known) << label << ": return " << o.ret;
  EXPECT_TRUE(o.finite) << label << ": a result is not finite (return " << o.ret << ")";
  if (o.ret == 0) {
    EXPECT_EQ(0, o.status) << label;
  }
  if (o.ret == 2 || o.ret > 300) {
    EXPECT_EQ(0, o.status) << label;
    EXPECT_TRUE(o.cleared) << label;
  }
  EXPECT_TRUE(o.inputsKept) << label << ": an input came back changed";
  return o;
}

std::string exportColumn(Export e, Export& previous, bool& any) {
  const bool same = any && previous == e;
  previous = e;
  any = true;
  return same ? "" : std::string("`") + exportName(e) + "`";
}

// The three markdown tables of the README, built by running every case.
std::string badInputTable() {
  std::ostringstream t;
  t << "| Export | Argument |";
  for (const char* h : kRealHeads) t << " " << h << " |";
  t << "\n|---|---|---|---|---|---|---|---|\n";
  Export previous = Export::AllocMV;
  bool any = false;
  for (const RealRow& row : realRows()) {
    t << "| " << exportColumn(row.e, previous, any) << " | `" << row.argument << "` |";
    for (double v : kRealValues) {
      CallData d;
      row.set(d, v);
      t << " " << cell(checkedRun(row.e, d, std::string(exportName(row.e)) + " " + row.argument))
        << " |";
    }
    t << "\n";
  }
  t << "\n| Export | Count | 0 | -1 |\n|---|---|---|---|\n";
  any = false;
  for (const CountRow& row : countRows()) {
    t << "| " << exportColumn(row.e, previous, any) << " | `" << row.argument << "` |";
    for (int v : kCountValues) {
      CallData d;
      row.set(d, v);
      t << " " << cell(checkedRun(row.e, d, std::string(exportName(row.e)) + " " + row.argument))
        << " |";
    }
    t << "\n";
  }
  t << "\n| Export | Overflowing size | Result |\n|---|---|---|\n";
  for (const SizeRow& row : sizeRows()) {
    CallData d;
    row.set(d);
    t << "| `" << exportName(row.e) << "` | " << row.what << " | "
      << cell(checkedRun(row.e, d, std::string(exportName(row.e)) + " " + row.what)) << " |\n";
  }
  return t.str();
}

constexpr const char* kBegin = "<!-- bad-input-table:begin -->\n";
constexpr const char* kEnd = "<!-- bad-input-table:end -->";

std::filesystem::path readmePath() {
  return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "README.md";
}

}  // namespace

TEST(BadInputTable, ReadmeTableIsTheOneTheCasesGive) {
  const std::string table = badInputTable();
  std::ifstream in(readmePath());
  ASSERT_TRUE(in) << readmePath();
  std::stringstream whole;
  whole << in.rdbuf();
  std::string text = whole.str();
  const size_t begin = text.find(kBegin);
  const size_t end = text.find(kEnd);
  ASSERT_NE(std::string::npos, begin) << "README has no " << kBegin;
  ASSERT_NE(std::string::npos, end);
  const size_t from = begin + std::string(kBegin).size();
  const std::string current = text.substr(from, end - from);
  if (current != table && std::getenv("LUMBRA_UPDATE_README") != nullptr) {
    text.replace(from, end - from, table);
    std::ofstream(readmePath()) << text;
    return;
  }
  EXPECT_EQ(table, current) << "the README's bad-input table is out of date; the cases give:\n"
                            << table;
}
