// SPDX-License-Identifier: Apache-2.0
// Normal distribution function and quantile: published values bit for bit,
// erfc and a high-precision tail (the quantile against scipy over the whole
// level range is in tests/python/test_stats_reference.py).
#include <cmath>

#include "stats/normal.h"
#include "test_support.h"

namespace {

using namespace lumbra::stats;

TEST(NormalCdf, PublishedValues) {
  const struct {
    double x, cum, ccum;
  } cases[] = {{0.0, 0.5, 0.5},
               {1.0, 0.8413447460685429, 0.15865525393145705},
               {-38.0, 0.0, 1.0},  // lower area below the smallest normal double
               {38.0, 1.0, 0.0},
               // the end of the central region still takes the central fit;
               // the middle one gives an upper area one ulp lower
               {0.66291, 0x1.7e1bcea074aa2p-1, 0x1.03c862bf16abcp-2}};
  for (const auto& c : cases) {
    double cum = -1.0, ccum = -1.0;
    normalCdf(c.x, cum, ccum);
    EXPECT_BITEQ(c.cum, cum) << "x = " << c.x;
    EXPECT_BITEQ(c.ccum, ccum) << "x = " << c.x;
  }
  EXPECT_BITEQ(std::ldexp(1.0, -52), machineConstant(1));
  EXPECT_BITEQ(std::ldexp(1.0, -1022), machineConstant(2));
}

// Central and middle regions against 0.5 erfc(-x / sqrt 2), tolerance a few
// ulps of the smaller area (both ~1e-16 relative there).  In the far tail
// erfc loses digits, so the reference there is the Mills-ratio continued
// fraction to 50 digits, tolerance 1e-15 relative; the other area is 1 - it.
TEST(NormalCdf, AgreesWithErfcAndTheFarTail) {
  for (double x : {-5.65, -4.0, -2.5, -1.0, -0.66291, -0.3, -1e-9, 1e-20, 0.2, 0.66292, 1.3,
                   3.0, 5.6}) {
    double cum = 0.0, ccum = 0.0;
    normalCdf(x, cum, ccum);
    const double lower = 0.5 * std::erfc(-x / std::sqrt(2.0));
    const double upper = 0.5 * std::erfc(x / std::sqrt(2.0));
    EXPECT_NEAR(cum, lower, 5e-15 * lower) << "x = " << x;
    EXPECT_NEAR(ccum, upper, 5e-15 * upper) << "x = " << x;
  }
  const struct {
    double x, area;
  } tail[] = {{5.7, 5.9903714010635281878e-09},
              {8.0, 6.2209605742717841235e-16},
              {12.0, 1.7764821120776789977e-33},
              {30.0, 4.9067139271481870595e-198}};
  for (const auto& c : tail) {
    double cum = 0.0, ccum = 0.0;
    normalCdf(c.x, cum, ccum);
    EXPECT_NEAR(ccum, c.area, 1e-15 * c.area) << "x = " << c.x;
    EXPECT_BITEQ(1.0 - ccum, cum);
    normalCdf(-c.x, cum, ccum);
    EXPECT_NEAR(cum, c.area, 1e-15 * c.area) << "x = " << -c.x;
  }
}

// Pairs formed as the value-at-risk routines form them, q = 1 - p: 1 - 0.95
// is 0.050000000000000044, whose point is ...722; exactly 0.05 gives ...729,
// and the same lower area gives exactly opposite points.
TEST(NormalQuantile, PublishedValuesAndSymmetry) {
  EXPECT_BITEQ(1.6448536269514722, normalQuantile(0.95, 1.0 - 0.95));
  EXPECT_BITEQ(2.3263478740408408, normalQuantile(0.99, 1.0 - 0.99));
  EXPECT_BITEQ(-1.6448536269514729, normalQuantile(0.05, 0.95));
  EXPECT_BITEQ(-normalQuantile(0.95, 0.05), normalQuantile(0.05, 0.95));
  EXPECT_BITEQ(-1.4900501721371029e-08, normalQuantileStart(0.5));
  // Far in the tail the Newton stop is relative: the last step is below
  // 1e-13 |x| but not below 1e-13, and one step more moves the last bit.
  const double p = 0x1.5b26e797d18f9p-77;
  EXPECT_BITEQ(-0x1.3f7b39d90216fp+3, normalQuantile(p, 1.0 - p));
}

}  // namespace
