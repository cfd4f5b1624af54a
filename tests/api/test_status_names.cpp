// SPDX-License-Identifier: Apache-2.0
// The named statuses and return values of the public header against the
// frame's mapping, and the widened single-precision constants against the
// exact doubles the results depend on.
#include <gtest/gtest.h>

#include "api/frame.h"
#include "kernels/status.h"
#include "kernels/widened.h"
#include "lumbra.h"
#include "test_support.h"

namespace {

struct Named {
  const char* name;
  int value;
};

// Every named status with the value it must keep: a caller compiled against
// an older header reads these numbers.
constexpr Named kStatuses[] = {
    {"OK", ORX_STATUS_OK},
    {"TOO_FEW_OBSERVATIONS", ORX_STATUS_TOO_FEW_OBSERVATIONS},
    {"NEGATIVE_HORIZON", ORX_STATUS_NEGATIVE_HORIZON},
    {"FACTOR_NOT_FINITE", ORX_STATUS_FACTOR_NOT_FINITE},
    {"COV_NOT_FINITE", ORX_STATUS_COV_NOT_FINITE},
    {"DEGENERATE_ASSET", ORX_STATUS_DEGENERATE_ASSET}, {"BAD_LEVEL", ORX_STATUS_BAD_LEVEL},
    {"UNUSABLE_RETURN", ORX_STATUS_UNUSABLE_RETURN},
    {"UNUSABLE_VARIANCE", ORX_STATUS_UNUSABLE_VARIANCE},
    {"BAD_MOMENT_INDEX", ORX_STATUS_BAD_MOMENT_INDEX}, {"INFEASIBLE", ORX_STATUS_INFEASIBLE},
    {"INCONSISTENT", ORX_STATUS_INCONSISTENT}, {"COV_NOT_PD", ORX_STATUS_COV_NOT_PD},
    {"INACCURATE", ORX_STATUS_INACCURATE}, {"NO_SCALE", ORX_STATUS_NO_SCALE},
    {"START_VIOLATED", ORX_STATUS_START_VIOLATED},
    {"AUXILIARY_BUILD", ORX_STATUS_AUXILIARY_BUILD},
    {"NO_FEASIBLE_POINT", ORX_STATUS_NO_FEASIBLE_POINT},
    {"ITERATION_LIMIT", ORX_STATUS_ITERATION_LIMIT}, {"UNBOUNDED", ORX_STATUS_UNBOUNDED},
    {"CYCLING", ORX_STATUS_CYCLING}, {"STEP_TOO_LONG", ORX_STATUS_STEP_TOO_LONG},
    {"QP_INVALID_INPUT", ORX_STATUS_QP_INVALID_INPUT},
    {"EQUALITIES_INCONSISTENT", ORX_STATUS_EQUALITIES_INCONSISTENT},
    {"NOTHING_TO_ADD", ORX_STATUS_NOTHING_TO_ADD},
    {"START_ITERATION_LIMIT", ORX_STATUS_START_ITERATION_LIMIT},
    {"START_INVALID_INPUT", ORX_STATUS_START_INVALID_INPUT},
    {"REFINE_BAD_LIST", ORX_STATUS_REFINE_BAD_LIST},
    {"SCALAR_INEQUALITY", ORX_STATUS_SCALAR_INEQUALITY},
    {"SCALAR_EQUALITY", ORX_STATUS_SCALAR_EQUALITY}, {"SCALAR_EMPTY", ORX_STATUS_SCALAR_EMPTY},
    {"SIMULATOR_STOP", ORX_STATUS_SIMULATOR_STOP},
    {"MINIMISER_REFUSED", ORX_STATUS_MINIMISER_REFUSED},
    {"BFGS_FAILED", ORX_STATUS_BFGS_FAILED},
    {"MINIMISER_ITERATIONS", ORX_STATUS_MINIMISER_ITERATIONS},
    {"MINIMISER_SIMULATIONS", ORX_STATUS_MINIMISER_SIMULATIONS},
    {"NO_PROGRESS", ORX_STATUS_NO_PROGRESS}, {"RELEASE_FAILED", ORX_STATUS_RELEASE_FAILED},
    {"NO_PROGRESS_AT_ZERO", ORX_STATUS_NO_PROGRESS_AT_ZERO},
    {"EQUALITY_MISSED", ORX_STATUS_EQUALITY_MISSED},
    {"INEQUALITY_VIOLATED", ORX_STATUS_INEQUALITY_VIOLATED},
    {"BAD_EIGEN_FLOOR", ORX_STATUS_BAD_EIGEN_FLOOR},
};
constexpr int kExpected[] = {0,     -2,    -2,     -3,   -5,    5,     -102,  -103,
                             -104,  -1000, -100,  -101,   -108, -109,  -113,  1111,  -8888,
                             1001,  1007,  -1002, -1003,  -1004, -1005, -1006, -1008, 10077,
                             -10078, -18,  -7,    -8,     -9,   -1101, -1102, -1103, 1104,
                             1105,  1106,  -1107, -1108,  -1109, -1110, -2001};
static_assert(std::size(kStatuses) == std::size(kExpected));

TEST(StatusNames, KeepTheirValues) {
  for (std::size_t k = 0; k < std::size(kStatuses); ++k)
    EXPECT_EQ(kExpected[k], kStatuses[k].value) << kStatuses[k].name;
}

// The return value an export gives for each named status: by sign alone.
TEST(StatusNames, MapToTheirReturnValueBySign) {
  for (const Named& s : kStatuses) {
    const int expected =
        s.value < 0 ? ORX_RETURN_FAILURE : (s.value > 0 ? ORX_RETURN_WARNING : ORX_RETURN_OK);
    EXPECT_EQ(expected, lumbra::api::mapStatus(s.value)) << s.name;
  }
  EXPECT_EQ(0, ORX_RETURN_OK);
  EXPECT_EQ(2, ORX_RETURN_NO_MEMORY);
  EXPECT_EQ(5, ORX_RETURN_FAILURE);
  EXPECT_EQ(6, ORX_RETURN_WARNING);
  EXPECT_EQ(300, ORX_RETURN_ARGUMENT);
}

// The raw codes of the solver and its feasible-point search never collide
// with a public status they could be mistaken for after the driver.
TEST(StatusNames, SearchCodesShiftIntoTheirOwnRange) {
  using namespace lumbra::codes;
  const int shifted[] = {kMainSearchEqualities, kMainSearchNoPoint, kMainSearchCycling,
                         kMainSearchIterationLimit, kMainSearchInvalidInput, kMainSearchSix};
  for (int k = 0; k < 6; ++k) EXPECT_EQ(-11 - k, shifted[k]);
  EXPECT_EQ(-15, kMainNothingToAdd);  // shares the raw value of a bad search call
}

// Each widened constant is exactly the float literal, not the decimal.
TEST(WidenedConstants, AreTheSinglePrecisionValues) {
  using namespace lumbra::widened;
  const struct {
    double widened;
    double exact;
  } cases[] = {
      {k1e15, 999999986991104.0},
      {k1em5, 9.999999747378752e-6},
      {k1em8, 9.99999993922529e-9},
      {k1em12, 9.999999960041972e-13},
      {k1em15, 1.0000000036274937e-15},
      {k1em30, 1.0000000031710769e-30},
      {kSixth, 0.1666666716337204},
      {kTwentyFourth, 0.0416666679084301},
      {kThirtySixth, 0.02777777798473835},
      {kBandwidthFactor, 1.059000015258789},
      {double(kBandwidthExponent), 0.20000000298023224},
  };
  for (const auto& c : cases) EXPECT_BITEQ(c.exact, c.widened);
  EXPECT_NE(1e-8, k1em8);
}

}  // namespace
