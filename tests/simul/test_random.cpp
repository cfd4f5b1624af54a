// The random source on what is deterministic about it: the generator step
// from a known state, the seed reductions, the reseed for a given clock
// reading, and one Box-Muller variate from a known state.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "simul/random.h"
#include "test_support.h"

using namespace lumbra::simul;

namespace {

// The first uniforms of the generator from its initial state, with the
// combined values z behind them: z = 842, 54718832, 757022662.
constexpr double kFirstUniforms[3] = {3.920868194323862e-07, 0.025480442757642607,
                                      0.3525161612610669};

// Puts the shared state back to its initial value (seeds 0 stand for it).
void resetState() {
  const std::int32_t zero[2] = {0, 0};
  simulSeedPut(zero);
}

std::int32_t sharedSeed(int k) {
  std::int32_t seed[2];
  simulSeedGet(seed);
  return seed[k];
}

}  // namespace

TEST(SimulGenerator, PublishedSequenceFromTheInitialState) {
  std::int32_t s1 = kSeed1Initial;
  std::int32_t s2 = kSeed2Initial;
  EXPECT_BITEQ(kFirstUniforms[0], simulUniformStep(s1, s2));
  EXPECT_EQ(2147443549, s1);
  EXPECT_EQ(2147442707, s2);
  EXPECT_BITEQ(kFirstUniforms[1], simulUniformStep(s1, s2));
  EXPECT_EQ(546363367, s1);
  EXPECT_EQ(491644535, s2);
  EXPECT_BITEQ(kFirstUniforms[2], simulUniformStep(s1, s2));
  EXPECT_EQ(801095798, s1);
  EXPECT_EQ(44073136, s2);

  // The shared state gives the same sequence and starts from the same pair.
  resetState();
  EXPECT_EQ(kSeed1Initial, sharedSeed(0));
  EXPECT_EQ(kSeed2Initial, sharedSeed(1));
  for (double expected : kFirstUniforms) EXPECT_BITEQ(expected, simulUniform());
  EXPECT_EQ(801095798, sharedSeed(0));
  EXPECT_EQ(44073136, sharedSeed(1));
}

TEST(SimulGenerator, UniformsStayInsideTheOpenInterval) {
  // A negative difference of the components is shifted by m1 - 1: from
  // (1, 1) the components step to 40014 and 40692, z = -678 + 2147483562.
  std::int32_t s1 = 1;
  std::int32_t s2 = 1;
  EXPECT_BITEQ(2147482884 * 4.65661305739176e-10, simulUniformStep(s1, s2));
  // Over many steps no value reaches 0 or 1 and the components stay in range.
  s1 = kSeed1Initial;
  s2 = kSeed2Initial;
  for (int k = 0; k < 100000; ++k) {
    const double u = simulUniformStep(s1, s2);
    ASSERT_GT(u, 0.0);
    ASSERT_LT(u, 1.0);
    ASSERT_GE(s1, 1);
    ASSERT_LT(s1, kModulus1);
    ASSERT_GE(s2, 1);
    ASSERT_LT(s2, kModulus2);
  }
}

TEST(SimulGenerator, SeedReductionsAtEveryBoundary) {
  std::int32_t s1 = -1, s2 = -1;
  // 0 stands for the initial value.
  simulSeedReduce(0u, 0u, s1, s2);
  EXPECT_EQ(kSeed1Initial, s1);
  EXPECT_EQ(kSeed2Initial, s2);
  // Inside the ranges the seeds stay.
  simulSeedReduce(2147483562u, 2147483398u, s1, s2);
  EXPECT_EQ(2147483562, s1);
  EXPECT_EQ(2147483398, s2);
  simulSeedReduce(1u, 1u, s1, s2);
  EXPECT_EQ(1, s1);
  EXPECT_EQ(1, s2);
  // Just above the ranges: seed - (m - 1).
  simulSeedReduce(2147483563u, 2147483399u, s1, s2);
  EXPECT_EQ(1, s1);
  EXPECT_EQ(1, s2);
  // The last seeds folded by subtraction, then the first folded by + 172 and
  // + 500 with wrap-around (s1 folds at >= m1, s2 only at > m2 - 1).
  simulSeedReduce(4294967124u, 4294966796u, s1, s2);
  EXPECT_EQ(2147483562, s1);
  EXPECT_EQ(2147483398, s2);
  simulSeedReduce(4294967125u, 4294966797u, s1, s2);
  EXPECT_EQ(1, s1);
  EXPECT_EQ(1, s2);
  simulSeedReduce(4294967295u, 4294967295u, s1, s2);
  EXPECT_EQ(171, s1);
  EXPECT_EQ(499, s2);

  // simulSeedPut takes its integers as unsigned: -1 is 2^32 - 1.
  const std::int32_t negative[2] = {-1, -1};
  simulSeedPut(negative);
  EXPECT_EQ(171, sharedSeed(0));
  EXPECT_EQ(499, sharedSeed(1));
  resetState();
}

TEST(SimulGenerator, ReseedMultipliesByTheCentredMillisecond) {
  // ms = 500 zeroes both seeds, which the reduction turns into the initial
  // state, whatever the state was.
  const std::int32_t some[2] = {123456789, 987654321};
  simulSeedPut(some);
  simulReseedAt(500);
  EXPECT_EQ(kSeed1Initial, sharedSeed(0));
  EXPECT_EQ(kSeed2Initial, sharedSeed(1));
  // ms = 501 multiplies by 1.
  simulSeedPut(some);
  simulReseedAt(501);
  EXPECT_EQ(123456789, sharedSeed(0));
  EXPECT_EQ(987654321, sharedSeed(1));
  // Negative multipliers: the products wrap to large unsigned numbers and
  // take the folding branches.  (1, 1) times -1 is 2^32 - 1 each.
  const std::int32_t ones[2] = {1, 1};
  simulSeedPut(ones);
  simulReseedAt(499);
  EXPECT_EQ(171, sharedSeed(0));
  EXPECT_EQ(499, sharedSeed(1));
  // The initial state times -1, -500, 499 and -250 (worked out in unbounded
  // integers and reduced independently).
  const struct {
    int ms;
    std::int32_t s1, s2;
  } cases[] = {{499, 172, 500},
               {0, 43000, 125000},
               {999, 2147440734, 2147358898},
               {250, 21500, 62500}};
  for (const auto& c : cases) {
    resetState();
    simulReseedAt(c.ms);
    EXPECT_EQ(c.s1, sharedSeed(0)) << "ms " << c.ms;
    EXPECT_EQ(c.s2, sharedSeed(1)) << "ms " << c.ms;
  }
  resetState();
}

TEST(SimulGenerator, OneGaussianVariateFromTheInitialState) {
  // From the initial state u1 = 842 / m1 and u2 = 54718832 / m1 (scaled), and
  // the variate is mean + (sqrt(-2 ln u1) sd) cos(6.283185307 u2).  The
  // expected value was worked out apart from this code; log, sqrt and cos may
  // differ by an ulp between maths libraries, so the tolerance is 1e-14
  // relative.  A full-precision 2 pi would move the value by 7.4e-13 relative
  // and the sine branch would give 0.866, both far outside it.
  constexpr double kStandard = 5.362255498630253;
  resetState();
  const double g = simulGaussianDraw(0.0, 1.0);
  EXPECT_NEAR(kStandard, g, 1e-14 * kStandard);
  // Exactly two uniforms were used: the second variate of the pair is not
  // kept for later.
  EXPECT_EQ(546363367, sharedSeed(0));
  EXPECT_EQ(491644535, sharedSeed(1));

  resetState();
  const double shifted = simulGaussianDraw(0.25, 2.0);
  EXPECT_NEAR(0.25 + 2.0 * kStandard, shifted, 1e-14 * shifted);

  // At ms = 500 the reseed restores the initial state, so a variate drawn in
  // that millisecond is always this one.
  const std::int32_t some[2] = {42, 4242};
  simulSeedPut(some);
  simulReseedAt(500);
  EXPECT_NEAR(kStandard, simulGaussianDraw(0.0, 1.0), 1e-14 * kStandard);
  resetState();
}
