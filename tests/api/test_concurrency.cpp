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

TEST(ExportConcurrency, FourFamiliesAtOnceMatchSerialCalls) {
  using E = Export;
  const std::vector<std::vector<E>> families = {
      {E::AllocMV, E::AllocIT, E::AllocSharpe},
      {E::Returns, E::LogReturns, E::Cov, E::Corr},
      {E::ExanteReturn, E::ExanteVolatility, E::ExanteNormalVaR, E::ExanteModifiedVaR,
       E::ExpostReturn, E::ExpostVolatility, E::GaussianKernel},
      {E::Simulation}};
  std::vector<std::vector<CallData>> serial(families.size());
  for (size_t f = 0; f < families.size(); ++f)
    for (E e : families[f]) {
      serial[f].emplace_back();
      ASSERT_EQ(0, callExport(e, serial[f].back())) << exportName(e);
    }
  // Twelve rounds of the family's calls; counts the calls whose result differs.
  std::vector<int> mismatches(families.size(), 0);
  auto repeat = [&](size_t f) {
    for (int round = 0; round < 12; ++round)
      for (size_t j = 0; j < families[f].size(); ++j) {
        const E e = families[f][j];
        CallData d;
        bool same = callExport(e, d) == 0 && d.status == serial[f][j].status;
        for (long k = 0; k < resultCount(e, d); ++k)
          same = same && (e == E::Simulation ? std::isfinite(d.out[k]) : d.out[k] == serial[f][j].out[k]);
        mismatches[f] += same ? 0 : 1;
      }
  };
  std::vector<std::thread> threads;
  for (size_t f = 0; f < families.size(); ++f) threads.emplace_back(repeat, f);
  for (std::thread& t : threads) t.join();
  for (size_t f = 0; f < families.size(); ++f)
    EXPECT_EQ(0, mismatches[f]) << "family of " << exportName(families[f][0]);
}
