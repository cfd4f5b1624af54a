// Normal distribution function and quantile: published values bit for bit,
// and agreement with the C library's erfc.
#include <cmath>

#include "stats/normal.h"
#include "test_support.h"

namespace {

using lumbra::stats::machineConstant;
using lumbra::stats::normalCdf;
using lumbra::stats::normalQuantile;
using lumbra::stats::normalQuantileStart;
using lumbra::stats::polyEval;

TEST(NormalCdf, PublishedValues) {
  double cum = -1.0, ccum = -1.0;
  normalCdf(0.0, cum, ccum);
  EXPECT_BITEQ(0.5, cum);
  EXPECT_BITEQ(0.5, ccum);
  normalCdf(1.0, cum, ccum);
  EXPECT_BITEQ(0.8413447460685429, cum);
  EXPECT_BITEQ(0.15865525393145705, ccum);
  // Far in the lower tail the area is below the smallest normal double.
  normalCdf(-38.0, cum, ccum);
  EXPECT_BITEQ(0.0, cum);
  EXPECT_BITEQ(1.0, ccum);
  normalCdf(38.0, cum, ccum);
  EXPECT_BITEQ(1.0, cum);
  EXPECT_BITEQ(0.0, ccum);
}

TEST(NormalCdf, MachineConstantsAndHorner) {
  EXPECT_BITEQ(std::ldexp(1.0, -52), machineConstant(1));
  EXPECT_BITEQ(std::ldexp(1.0, -1022), machineConstant(2));
  const double a[3] = {1.0, -2.0, 0.5};
  EXPECT_BITEQ(1.0 - 2.0 * 4.0 + 0.5 * 16.0, polyEval(a, 3, 4.0));
  EXPECT_BITEQ(0.5, polyEval(a + 2, 1, 4.0));  // one coefficient: the constant
}

// Against 0.5 erfc(-x / sqrt 2) of the C library in the central and middle
// regions, both tails.  Tolerance: a few units in the last place of the
// smaller area (both sides are accurate to ~1e-16 relative there).
TEST(NormalCdf, AgreesWithErfc) {
  const double xs[] = {-5.65, -4.0, -2.5, -1.0, -0.66291, -0.3, -1e-9,
                       1e-20, 0.2,   0.66292, 1.3, 3.0,  5.6};
  for (double x : xs) {
    double cum = 0.0, ccum = 0.0;
    normalCdf(x, cum, ccum);
    const double lower = 0.5 * std::erfc(-x / std::sqrt(2.0));
    const double upper = 0.5 * std::erfc(x / std::sqrt(2.0));
    EXPECT_NEAR(cum, lower, 5e-15 * lower) << "x = " << x;
    EXPECT_NEAR(ccum, upper, 5e-15 * upper) << "x = " << x;
  }
}

// In the asymptotic tail the library's erfc loses digits, so the reference
// is the Mills-ratio continued fraction phi(x) / (x + 1/(x + 2/(x + ...)))
// evaluated with 50 decimal digits (2000 terms).  Tolerance 1e-15 relative:
// a few units in the last place.
TEST(NormalCdf, FarTailAgainstContinuedFraction) {
  struct Case {
    double x, area;
  };
  const Case cases[] = {{5.7, 5.9903714010635281878e-09},
                        {8.0, 6.2209605742717841235e-16},
                        {12.0, 1.7764821120776789977e-33},
                        {30.0, 4.9067139271481870595e-198}};
  for (const Case& c : cases) {
    double cum = 0.0, ccum = 0.0;
    normalCdf(c.x, cum, ccum);
    EXPECT_NEAR(ccum, c.area, 1e-15 * c.area) << "x = " << c.x;
    EXPECT_BITEQ(1.0 - ccum, cum);
    normalCdf(-c.x, cum, ccum);
    EXPECT_NEAR(cum, c.area, 1e-15 * c.area) << "x = " << -c.x;
  }
}

// The pairs are formed as the value-at-risk routines form them, q = 1 - p:
// 1.0 - 0.95 is 0.050000000000000044, and the point for that area is
// 1.6448536269514722 (for exactly 0.05 it would be 1.6448536269514729).
TEST(NormalQuantile, PublishedValues) {
  EXPECT_BITEQ(1.6448536269514722, normalQuantile(0.95, 1.0 - 0.95));
  EXPECT_BITEQ(2.3263478740408408, normalQuantile(0.99, 1.0 - 0.99));
  EXPECT_BITEQ(-1.4900501721371029e-08, normalQuantileStart(0.5));
  EXPECT_LT(std::fabs(normalQuantile(0.5, 0.5)), 1e-15);
  // The engine's lowest admissible level runs the distribution function in
  // its middle region, just below the tail region.
  const double z = normalQuantile(9.99999993922529e-09, 0.9999999900000001);
  EXPECT_NEAR(-5.612, z, 1e-3);
  EXPECT_GT(z, -5.656854248);
}

TEST(NormalQuantile, SymmetricPairs) {
  // The same lower-tail area gives exactly opposite points.
  EXPECT_BITEQ(-normalQuantile(0.95, 0.05), normalQuantile(0.05, 0.95));
  EXPECT_BITEQ(-1.6448536269514729, normalQuantile(0.05, 0.95));
  // 1 - 0.95 is not exactly 0.05: equal magnitude up to the last bits only.
  const double hi = normalQuantile(0.95, 1.0 - 0.95);
  const double lo = normalQuantile(0.05, 1.0 - 0.05);
  EXPECT_LT(lo, 0.0);
  EXPECT_NE(hi, -lo);
  EXPECT_NEAR(hi, -lo, 1e-14);
}

// Newton lands where the distribution function returns the area: checked
// against erfc (tolerance from the slope: dp = phi(z) dz, so a relative
// 1e-14 in z is far inside what a wrong iteration would give).
TEST(NormalQuantile, InvertsTheDistribution) {
  const double ps[] = {1e-8, 1e-6, 1e-3, 0.02, 0.1, 0.3, 0.45, 0.55, 0.8, 0.975, 0.999};
  for (double p : ps) {
    const double z = normalQuantile(p, 1.0 - p);
    const double area = 0.5 * std::erfc(-z / std::sqrt(2.0));
    EXPECT_NEAR(area, p, 1e-13 * p) << "p = " << p;
    const double start = normalQuantileStart(p);
    EXPECT_NEAR(start, z, 5e-3 * std::fabs(z) + 1e-7) << "start is a close guess, p = " << p;
  }
}

}  // namespace
