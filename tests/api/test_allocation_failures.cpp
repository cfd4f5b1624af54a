// SPDX-License-Identifier: Apache-2.0
// Every allocation of every export made to fail in turn, the work arrays
// and the layout-conversion temporaries alike, on memory that the test
// allocator fills with NaN.  A failing work array ends the call with 2, the
// outputs cleared and the inputs as they were; a failing conversion
// temporary changes nothing, since the conversion then moves the elements in
// place.  The successful calls on NaN-filled memory give the same result as
// on ordinary memory, so no path reads work memory before writing it.
#include <gtest/gtest.h>

#include <cmath>

#include "export_cases.h"
#include "test_support.h"

using namespace lumbra::testing;

namespace {

// The work arrays an export obtains before anything else: an integer and a
// real one for the allocators, the nearness exports and the simulation, a
// real one for the covariance, the correlation and the modified VaR.
int workArrays(Export e) {
  switch (e) {
    case Export::AllocMV:
    case Export::AllocIT:
    case Export::AllocSharpe:
    case Export::SDLS:
    case Export::SDLScorr:
    case Export::Simulation: return 2;
    case Export::Cov:
    case Export::Corr:
    case Export::ExanteModifiedVaR: return 1;
    default: return 0;
  }
}

// Same return, status and result bits; the simulation draws fresh variates
// each time, so only its status and finiteness can agree.
void expectSameCall(Export e, const CallData& expected, int expectedRet, const CallData& d,
                    int ret, const std::string& what) {
  EXPECT_EQ(expectedRet, ret) << exportName(e) << " " << what;
  EXPECT_EQ(expected.status, d.status) << exportName(e) << " " << what;
  const long count = resultCount(e, d);
  for (long k = 0; k < count; ++k) {
    if (e == Export::Simulation)
      EXPECT_TRUE(std::isfinite(d.out[k])) << what;
    else
      EXPECT_BITEQ(expected.out[k], d.out[k]) << exportName(e) << " " << what << " element " << k;
  }
}

}  // namespace

TEST(AllocationFailures, EachAllocationOfEveryExportFailsInTurn) {
  for (Export e : kAllExports) {
    CallData plain;
    const int plainRet = callExport(e, plain);
    CallData filled;
    int total = 0, filledRet = 0;
    {
      FailingAllocator none(1 << 20);  // never fails, fills with NaN
      filledRet = callExport(e, filled);
      total = FailingAllocator::requests();
    }
    expectSameCall(e, plain, plainRet, filled, filledRet, "on NaN-filled work memory");
    EXPECT_GE(total, workArrays(e)) << exportName(e);
    for (int k = 0; k < total; ++k) {
      CallData d;
      Outcome o;
      {
        FailingAllocator failing(k);
        o = runCase(e, d);
      }
      const std::string what = "allocation " + std::to_string(k) + " of " + std::to_string(total);
      EXPECT_TRUE(o.inputsKept) << exportName(e) << " " << what;
      if (k < workArrays(e)) {
        EXPECT_EQ(2, o.ret) << exportName(e) << " " << what;
        EXPECT_EQ(0, o.status) << exportName(e) << " " << what;
        EXPECT_TRUE(o.cleared) << exportName(e) << " " << what;
      } else {
        expectSameCall(e, plain, plainRet, d, o.ret, what + " (a conversion temporary)");
      }
    }
  }
}
