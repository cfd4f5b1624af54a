// SPDX-License-Identifier: Apache-2.0
// Exports of every family called at once from four threads, each on its own
// data: allocation, modelling, analysis and simulation.  Each thread's
// results must equal those of the same calls made serially beforehand; the
// simulation shares its generator, so its paths can only be finite with a
// clean status.  Run under ThreadSanitizer by the test command.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

#include "export_cases.h"

using namespace lumbra::testing;

namespace {

constexpr int kRounds = 12;

struct Serial {
  Export e;
  int ret;
  CallData data;
};

// The serial results of a family's exports.
std::vector<Serial> serialResults(const std::vector<Export>& family) {
  std::vector<Serial> results;
  for (Export e : family) {
    Serial s{e, 0, CallData()};
    s.ret = callExport(e, s.data);
    results.push_back(s);
  }
  return results;
}

// Repeats the family's calls; counts the calls whose result differs.
int repeatFamily(const std::vector<Serial>& expected, int rounds) {
  int mismatches = 0;
  for (int r = 0; r < rounds; ++r)
    for (const Serial& s : expected) {
      CallData d;
      const int ret = callExport(s.e, d);
      bool same = ret == s.ret && d.status == s.data.status;
      const long count = resultCount(s.e, d);
      for (long k = 0; k < count; ++k) {
        if (s.e == Export::Simulation)
          same = same && std::isfinite(d.out[k]);
        else
          same = same && (d.out[k] == s.data.out[k]);
      }
      mismatches += same ? 0 : 1;
    }
  return mismatches;
}

}  // namespace

TEST(ExportConcurrency, FourFamiliesAtOnceMatchSerialCalls) {
  const std::vector<std::vector<Export>> families = {
      {Export::AllocMV, Export::AllocIT, Export::AllocSharpe},
      {Export::Returns, Export::LogReturns, Export::Cov, Export::Corr},
      {Export::ExanteReturn, Export::ExanteVolatility, Export::ExanteNormalVaR,
       Export::ExanteModifiedVaR, Export::ExpostReturn, Export::ExpostVolatility,
       Export::GaussianKernel},
      {Export::Simulation}};
  std::vector<std::vector<Serial>> expected;
  for (const auto& family : families) expected.push_back(serialResults(family));
  for (const auto& family : expected)
    for (const Serial& s : family) ASSERT_EQ(0, s.ret) << exportName(s.e);

  std::vector<int> mismatches(families.size(), 0);
  std::vector<std::thread> threads;
  for (size_t f = 0; f < families.size(); ++f)
    threads.emplace_back([&, f] { mismatches[f] = repeatFamily(expected[f], kRounds); });
  for (std::thread& t : threads) t.join();
  for (size_t f = 0; f < families.size(); ++f)
    EXPECT_EQ(0, mismatches[f]) << "family " << f << " (first export "
                                << exportName(families[f][0]) << ")";
}
