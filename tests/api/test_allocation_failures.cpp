// SPDX-License-Identifier: Apache-2.0
// Every allocation of every export made to fail in turn, the work arrays
// and the layout-conversion temporaries alike, on memory that the test
// allocator fills with NaN.  A failing work array ends the call with 2, the
// outputs cleared and the inputs as they were (LeakSanitizer sees a work
// array not released); a failing conversion temporary changes nothing,
// since the conversion then moves the elements in place.  Calls on
// NaN-filled memory give the plain result, so no path reads work memory
// before writing it.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "export_cases.h"
#include "test_support.h"

using namespace lumbra::testing;

namespace {

// The work arrays an export obtains before anything else: an integer and a
// real one for the allocators, the nearness exports and the simulation, a
// real one for the covariance, the correlation and the modified VaR.
int workArrays(Export e) {
  switch (e) {
    case Export::AllocMV: case Export::AllocIT: case Export::AllocSharpe: case Export::SDLS:
    case Export::SDLScorr: case Export::Simulation: return 2;
    case Export::Cov: case Export::Corr: case Export::ExanteModifiedVaR: return 1;
    default: return 0;
  }
}

// Same return, status and result bits; the simulation draws fresh variates
// on each call, so only its status and finiteness can agree.
void expectSameCall(Export e, const CallData& expected, int expectedRet, const CallData& d, int ret) {
  EXPECT_EQ(expectedRet, ret);
  EXPECT_EQ(expected.status, d.status);
  for (long k = 0; k < resultCount(e, d); ++k) {
    if (e == Export::Simulation) EXPECT_TRUE(std::isfinite(d.out[k])) << k;
    else EXPECT_BITEQ(expected.out[k], d.out[k]) << "element " << k;
  }
}

}  // namespace

TEST(AllocationFailures, EachAllocationOfEveryExportFailsInTurn) {
  for (int i = 0; i < static_cast<int>(Export::Count); ++i) {
    const Export e = static_cast<Export>(i);
    SCOPED_TRACE(exportName(e));
    CallData plain, filled;
    const int plainRet = callExport(e, plain);
    int total = 0, filledRet = 0;
    {
      FailingAllocator never(1 << 20);  // never fails, fills with NaN
      filledRet = callExport(e, filled);
      total = FailingAllocator::requests();
    }
    expectSameCall(e, plain, plainRet, filled, filledRet);
    EXPECT_GE(total, workArrays(e));
    for (int k = 0; k < total; ++k) {
      SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(total));
      CallData d;
      Outcome o;
      {
        FailingAllocator failing(k);
        o = runCase(e, d);
      }
      EXPECT_TRUE(o.inputsKept);
      if (k < workArrays(e)) {
        EXPECT_EQ(2, o.ret);
        EXPECT_EQ(0, o.status);
        EXPECT_TRUE(o.cleared);
      } else {
        expectSameCall(e, plain, plainRet, d, o.ret);
      }
    }
  }
}
