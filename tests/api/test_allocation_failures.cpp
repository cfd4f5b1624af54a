// SPDX-License-Identifier: Apache-2.0
// Every export with each of its allocations failing in turn; four families on four threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "export_cases.h"
#include "test_support.h"

using namespace lumbra::testing;
using E = Export;

namespace {

// The work arrays each export obtains first (integer, real), in enum order.
constexpr int kWorkArrays[] = {2, 2, 2, 0, 0, 1, 1, 2, 2, 0, 0, 0, 1, 0, 0, 0, 2};

// Same status and result bits (fresh variates: simulated paths only finite).
bool sameCall(const CallData& expected, const CallData& d) {
  auto finite = [](double x) { return std::isfinite(x); };
  return d.status == expected.status &&
         (d.e == E::Simulation ? std::all_of(d.out.begin(), d.out.end(), finite) : d.out == expected.out);
}

}  // namespace

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

// Each family (allocation, modelling but nearness, analysis, simulation) twelve times on a
// thread of its own gives the serial results (run under ThreadSanitizer too).
TEST(ExportConcurrency, FourFamiliesAtOnceMatchSerialCalls) {
  const int families[4][2] = {{0, 3}, {3, 7}, {9, 16}, {16, 17}};
  std::vector<std::vector<CallData>> serial(4);
  for (int f = 0; f < 4; ++f)
    for (int i = families[f][0]; i < families[f][1]; ++i) {
      serial[f].emplace_back(static_cast<E>(i));
      ASSERT_EQ(0, callExport(serial[f].back())) << exportName(E(i));
    }
  int mismatches[4] = {};
  std::vector<std::thread> threads;
  for (int f = 0; f < 4; ++f)
    threads.emplace_back([&, f] {
      for (int round = 0; round < 12; ++round)
        for (const CallData& expected : serial[f]) {
          CallData d(expected.e);
          mismatches[f] += callExport(d) == 0 && sameCall(expected, d) ? 0 : 1;
        }
    });
  for (std::thread& t : threads) t.join();
  for (int f = 0; f < 4; ++f) EXPECT_EQ(0, mismatches[f]) << exportName(serial[f][0].e);
}
