// SPDX-License-Identifier: Apache-2.0
// The call frame through the exports: the README's bad-input table, status names, the order
// of the argument tests, non-finite data, layout conversion, failing allocations, threads.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <memory>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "api/frame.h"
#include "export_cases.h"
#include "kernels/kernels.h"
#include "lumbra.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::testing;

namespace {

std::string sourceFile(const std::string& path) {  // a file of the source tree
  std::ifstream in(std::filesystem::path(__FILE__).parent_path() / "../.." / path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Puts v where a row's argument says ("cov[0][1], cov[1][0]"; "n = 2^31 - 1" its own); notes names.
void put(CallData& d, const std::string& argument, double v, std::set<std::string>& covered) {
  static const std::regex place(R"((\w*)(?:\[(\d+)\])?(?:\[(\d+)\])?(?: = ([^,]+))?)");
  const std::string places = argument.substr(0, argument.find(" ("));
  std::string name;
  for (std::sregex_iterator m(places.begin(), places.end(), place), end; m != end; ++m) {
    const std::smatch& p = *m;
    if (p.length() == 0) continue;
    if (p[1].length() > 0) covered.insert(exportName(d.e) + (":" + (name = p[1].str())));
    const double value = !p[4].matched ? v : p[4] == "2^31 - 1" ? INT_MAX : std::stod(p[4]);
    if (d.counts.count(name) != 0) {
      d(name) = static_cast<int>(value);
      continue;
    }
    Vec& x = d[name];  // row-major: prices have nSeries columns, the other matrices are square
    const long cols = name == "prices" ? d("nSeries") : std::lround(std::sqrt(x.size()));
    const long i = p[2].matched ? std::stol(p[2]) : 0;
    x.at(p[3].matched ? i * cols + std::stol(p[3]) : i) = value;
  }
}

// Where an infinity means "no limit": bounds, tolerance, points below the data.
bool meansNoLimit(const std::string& argument, double v) {
  return argument == (v > 0 ? "upper[0]" : "lower[0]") || (argument == "tolerance" && v > 0) ||
         (argument == "points[0]" && v < 0);
}

// The README's tables with every cell rerun; a header row gives the values.
std::string rerun(const std::string& tables, std::set<std::string>& covered) {
  std::istringstream in(tables);
  std::ostringstream out;
  std::vector<double> values;
  E e = E::Count;
  auto unquoted = [](const std::string& c) { return c[0] == '`' ? c.substr(1, c.size() - 2) : c; };
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> cells;
    for (size_t from = 1, to; (to = line.find(" |", from)) != std::string::npos; from = to + 2)
      cells.push_back(line.substr(from + 1, to - from - 1));
    const bool header = line.rfind("| Export |", 0) == 0;
    if (header) values.clear();
    for (size_t k = 2; header && k < cells.size(); ++k) values.push_back(std::strtod(cells[k].c_str(), nullptr));
    if (header || line.rfind("|--", 0) == 0 || cells.size() < 3) {
      out << line << "\n";
      continue;
    }
    for (int k = 0; k < static_cast<int>(E::Count) && !cells[0].empty(); ++k)
      if (unquoted(cells[0]) == exportName(static_cast<E>(k))) e = static_cast<E>(k);
    out << "| " << cells[0] << " | " << cells[1] << " |";
    const std::string argument = unquoted(cells[1]);
    for (double v : values) {  // every case ends cleanly, non-finite data never with 0
      CallData d(e);
      put(d, argument, v, covered);
      const Outcome o = runCase(d);
      SCOPED_TRACE(::testing::Message() << exportName(e) << " " << argument << " = " << v);
      const bool refused = o.ret == 2 || o.ret > 300, ran = o.ret == 5 || o.ret == 6;
      EXPECT_TRUE((o.ret == 0 || refused) ? o.status == 0 : ran) << o.ret;
      EXPECT_TRUE(o.finite && o.inputsKept && (!refused || o.cleared));
      EXPECT_FALSE(o.ret == 0 && (std::isnan(v) || (std::isinf(v) && !meansNoLimit(argument, v))));
      out << " " << o.ret << (ran ? " / " + std::to_string(o.status) : "") << " |";
    }
    out << "\n";
  }
  return out.str();
}

// The work arrays each export obtains first (integer, real), in enum order.
constexpr int kWorkArrays[] = {2, 2, 2, 0, 0, 1, 1, 2, 2, 0, 0, 0, 1, 0, 0, 0, 2};

// Same status and result bits (fresh variates: simulated paths only finite).
bool sameCall(const CallData& expected, const CallData& d) {
  return d.status == expected.status && (d.e != E::Simulation ? d.out == expected.out
      : std::all_of(d.out.begin(), d.out.end(), [](double x) { return std::isfinite(x); }));
}

}  // namespace

// The README's bad-input table ("5 / -104": return / status) is what the library gives, in full.
TEST(BadInputTable, ReadmeTableIsTheOneTheCasesGive) {
  const std::string text = sourceFile("README.md"), begin = "<!-- bad-input-table:begin -->\n";
  const size_t from = text.find(begin) + begin.size(), end = text.find("<!-- bad-input-table:end -->");
  ASSERT_TRUE(from >= begin.size() && end != std::string::npos) << "README has no table markers";
  const std::string current = text.substr(from, end - from);
  std::set<std::string> covered;
  const std::string table = rerun(current, covered);
  std::set<std::string> arguments;  // a row for every argument of every export
  for (int k = 0; k < static_cast<int>(E::Count); ++k) {
    const CallData d(static_cast<E>(k));
    for (const auto& a : d.real) arguments.insert(exportName(d.e) + (":" + a.first));
    for (const auto& a : d.counts) arguments.insert(exportName(d.e) + (":" + a.first));
  }
  EXPECT_EQ(arguments, covered);
  // Every status the public header names maps to its export return by sign.
  const std::string header = sourceFile("include/lumbra.h");
  const std::regex named(R"(#define (ORX_STATUS_\w+) +\(?(-?\d+))");
  size_t count = 0, defines = 0;  // every one of them read
  for (std::sregex_iterator m(header.begin(), header.end(), named), end; m != end; ++m, ++count) {
    const int s = std::stoi((*m)[2]), expected = s < 0 ? ORX_RETURN_FAILURE : s > 0 ? ORX_RETURN_WARNING : 0;
    EXPECT_EQ(expected, api::mapStatus(s)) << (*m)[1];
  }
  for (size_t at = 0; (at = header.find("#define ORX_STATUS_", at)) != std::string::npos; ++at) ++defines;
  EXPECT_EQ(defines, count);
  EXPECT_EQ(table, current) << "the README's bad-input table is out of date";
}

#define SPOIL(...) [](CallData& d) { __VA_ARGS__; }

// The first failure in each export's order of tests, clearing exactly the result; compound NaNs.
TEST(Arguments, FirstFailureInOrderAndCompoundNonFiniteData) {
  const struct { Export e; const char* what; void (*spoil)(CallData&); int ret, status = 0; } cases[] = {
      // allocators: nEq, n, upper, lower, rhs, cons, benchCov, mu, cov
      {E::AllocIT, "upper before lower, cov", SPOIL(d["upper"] = {}, d["lower"] = {}, d["cov"] = {}), 311},
      {E::AllocMV, "negative nIneq replaces the chain", SPOIL(d["cons"] = {}, d("nIneq") = -3), 305},
      {E::AllocMV, "bound scan last", SPOIL(d["lower"][1] = 0.7, d["upper"][1] = 0.5, d["mu"] = {}), 303},
      // returns: lag after the sizes and prices; VaR: the level replaces the chain
      {E::LogReturns, "lag of all observations", SPOIL(d("lag") = 4), 304},
      {E::ExanteNormalVaR, "level 1 before n", SPOIL(d["level"] = {1.0}, d("n") = 0), 305},
      {E::ExanteModifiedVaR, "nObs below 4", SPOIL(d("nObs") = 3, d("nAssets") = 1), 301},
      {E::GaussianKernel, "points decrease", SPOIL(d["points"][2] = -0.01), 304},
      // nearness: the chain, then the bounds; tolerance and floor replace it
      {E::SDLS, "n before the bounds",
       SPOIL(d("nEq") = -1, d("n") = 0, d["ineqLower"] = {1.0}, d["ineqUpper"] = {0.5}), 303},
      {E::SDLS, "tolerance replaces the chain", SPOIL(d("nIneq") = -1, d["tolerance"] = {0.0}), 310},
      {E::SDLS, "floor first", SPOIL(d("nIneq") = -1, d["tolerance"] = {0.0}, d["eigenFloor"] = {-1}), 311},
      {E::SDLScorr, "floor 1 before the tolerance", SPOIL(d["tolerance"] = {0.0}, d["eigenFloor"] = {1.0}), 304},
      {E::Simulation, "cov, drift, start", SPOIL(d["start"] = {}, d["drift"] = {}, d["cov"] = {}), 306},
      // An upper bound of -inf leaves no admissible weight, though the lower one passes the scan.
      {E::AllocMV, "bounds -inf", SPOIL(d["lower"][0] = d["upper"][0] = -HUGE_VAL), 5, -100},
      // Reference DSYEVR never returned on a 3 by 3 covariance with a NaN.
      {E::Simulation, "NaN in a 3 by 3 cov", SPOIL(d("n") = 3, d["start"] = {1, 1, 1}, d["drift"] = {0, 0, 0},
       d["cov"] = {NAN, 0.01, 0.01, 0.01, 0.09, 0.0, 0.01, 0.0, 0.04}), 5, kernels::kInfoNotFiniteEigen},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << exportName(c.e) << ": " << c.what);
    CallData d(c.e);
    c.spoil(d);
    const Outcome o = runCase(d);
    EXPECT_TRUE(o.inputsKept && o.finite && o.ret == c.ret && o.status == c.status) << o.ret << " / " << o.status;
    EXPECT_TRUE(c.ret < 300 || (o.cleared && d.out[resultCount(d)] == -777.0));
  }
}

// Row-major to column-major and back across tiles: fresh, lent (exact size) or no temporary (cycles).
TEST(WorkArrays, LayoutConversionBothWays) {
  const std::pair<i64, i64> shapes[] = {{2, 3}, {4, 4}, {1, 5}, {7, 3}, {33, 33}, {70, 45}, {64, 96}};
  for (const auto& [rows, cols] : shapes)
    for (const int spareCount : {0, static_cast<int>(rows * cols), -1}) {  // -1: no temporary
      SCOPED_TRACE(::testing::Message() << rows << " by " << cols << ", spare " << spareCount);
      std::vector<double> a(static_cast<size_t>(rows * cols)), spare(std::max(spareCount, 0));
      for (size_t k = 0; k < a.size(); ++k) a[k] = static_cast<double>(k);
      const std::vector<double> original = a;
      FailingAllocator failing(spareCount < 0 ? 0 : 2);
      api::convertLayout(a.data(), rows, cols, spare.data(), static_cast<i64>(spare.size()));
      for (i64 r = 0; r < rows; ++r)
        for (i64 c = 0; c < cols; ++c) ASSERT_EQ(original[r * cols + c], a[at(r, c, rows)]);
      api::convertLayout(a.data(), cols, rows, spare.data(), static_cast<i64>(spare.size()));
      const bool allocates = rows != cols && rows > 1 && cols > 1 && spareCount <= 0;
      EXPECT_EQ(allocates ? 2 : 0, FailingAllocator::requests());
      EXPECT_EQ(original, a);
    }
}

// A failing work array gives 2, status 0, the result cleared, no leak; a failing conversion
// temporary changes nothing; on NaN-filled memory the plain result (no read before a write).
TEST(AllocationFailures, EachAllocationOfEveryExportFailsInTurn) {
  for (int i = 0; i < static_cast<int>(E::Count); ++i) {
    const E e = static_cast<E>(i);
    SCOPED_TRACE(exportName(e));
    CallData plain(e), filled(e);
    const int ret = callExport(plain);
    auto never = std::make_unique<FailingAllocator>(1 << 20);
    EXPECT_EQ(ret, callExport(filled));
    const int total = FailingAllocator::requests();
    never.reset();
    EXPECT_TRUE(sameCall(plain, filled));
    EXPECT_GE(total, kWorkArrays[i]);
    for (int k = 0; k < total; ++k) {
      SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(total));
      CallData d(e);
      FailingAllocator failing(k);
      const Outcome o = runCase(d);
      EXPECT_TRUE(o.inputsKept);
      EXPECT_TRUE(k < kWorkArrays[i] ? o.ret == 2 && o.status == 0 && o.cleared
                                     : o.ret == ret && sameCall(plain, d)) << o.ret << " " << o.status;
    }
  }
}

// Each family (alloc, modelling but nearness, analysis, simulation) on its own thread: serial results.
TEST(ExportConcurrency, FourFamiliesAtOnceMatchSerialCalls) {
  const int families[4][2] = {{0, 3}, {3, 7}, {9, 16}, {16, 17}};
  std::vector<CallData> serial;
  for (int i = 0; i < static_cast<int>(E::Count); ++i) {
    serial.emplace_back(static_cast<E>(i));
    ASSERT_EQ(0, callExport(serial.back())) << exportName(E(i));
  }
  int mismatches[4] = {};
  std::vector<std::thread> threads;
  for (int f = 0; f < 4; ++f)
    threads.emplace_back([&, f] {
      for (int round = 0; round < 12; ++round)
        for (int i = families[f][0]; i < families[f][1]; ++i) {
          CallData d(serial[i].e);
          mismatches[f] += callExport(d) == 0 && sameCall(serial[i], d) ? 0 : 1;
        }
    });
  for (std::thread& t : threads) t.join();
  for (int f = 0; f < 4; ++f) EXPECT_EQ(0, mismatches[f]) << exportName(E(families[f][0]));
}
