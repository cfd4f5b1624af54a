// SPDX-License-Identifier: Apache-2.0
// The line search nlis0 on scripts: the simulator returns prescribed
// (indic, f, g) whatever the point, so each branch is reached by construction;
// x0 = 0 and d = 1 make each trial the step.
#include <gtest/gtest.h>

#include <limits>
#include <tuple>
#include <vector>

#include "nearness/minimiser_internal.h"
#include "test_support.h"

namespace {

using namespace lumbra::nearness;

using Reply = std::tuple<int, double, double>;  // indic, f, g
std::vector<Reply> gScript;
std::vector<double> gTrials;

void scripted(int& indic, const int&, const double* x, double& f, double* g, int*, double*) {
  gTrials.push_back(x[0]);
  std::tie(indic, f, g[0]) = gScript.at(gTrials.size() - 1);
}

const double kNan = std::numeric_limits<double>::quiet_NaN();
double bowl(double x) { return (x - 100.0) * (x - 100.0) / 200.0 - 50.0; }  // f'(0) = -1

// Each way the search goes and ends (t = 1, fp = -1, f0 = 0): trials, end point, value, logic.
TEST(LineSearch, TrialsAndEnds) {
  struct Case {
    const char* what;
    double tmin, tmax;
    int napmax;
    std::vector<Reply> script;  // the simulator's replies in turn
    std::vector<double> trials;  // the steps it must try
    int logic;
    double x, f;  // where it must end
  } cases[] = {
      {"tmax below the first trial: a descent success ends at tmax, logic 1", 1e-10, 0.5,
       50, {{1, -0.5, -1}}, {0.5}, 1, 0.5, -0.5},
      {"slope too steep at 1: the cubic step is cut to 9 t", 1e-10, 1e20, 50,
       {{1, bowl(1), -0.99}, {1, bowl(10), -0.9}}, {1, 10}, 0, 10, bowl(10)},
      // c = 3 fpn + fp - 4 df / t = 0.5 > 0: the step is t max(1, -fpn / c) = 3.
      {"a cubic step shorter than 9 t", 1e-10, 1e20, 50,
       {{1, -1.5, -1.5}, {1, -3, -0.5}}, {1, 4}, 0, 4, -3},
      {"the extrapolation is cut at tmax, where a success ends it, logic 1", 1e-10, 5, 50,
       {{1, -1, -0.999}, {1, -4.9, -0.995}}, {1, 5}, 1, 5, -4.9},
      // b = 0, disc = -1: the cubic has no minimum.
      {"cubic step raised to the 10 % margin, then bisection", 1e-10, 1e20, 50,
       {{1, 1, -1}, {1, 1.6, -1}, {1, -0.01, -0.5}}, {1, 0.1, 0.05}, 0, 0.05, -0.01},
      {"a refused point is an upper end: 10 % into the bracket", 1e-10, 1e20, 50,
       {{-1, 0, 0}, {1, 1, 1}, {1, -0.001, -0.1}}, {1, 0.1, 0.1 * 0.1}, 0, 0.1 * 0.1, -0.001},
      {"not a number fails the descent test like a rise", 1e-10, 1e20, 50,
       {{1, kNan, kNan}, {1, -0.001, -0.1}}, {1, 0.1}, 0, 0.1, -0.001},
      {"not a number until below tmin: logic 6 at the last good point", 0.9, 1.5, 50,
       {{1, -1, -1}, {1, kNan, kNan}}, {1, 1.5}, 6, 1, -1},
      {"simulation limit: logic 4 at the last lower point", 1e-10, 1e20, 2,
       {{1, -1, -1}, {1, -10, -1}}, {1, 10}, 4, 10, -10},
  };
  for (const Case& c : cases) {
    gScript = c.script;
    gTrials.clear();
    double x = 0.0, f = 0.0, t = 1.0, tmin = c.tmin, g = 0.0, xn = 0.0, d = 1.0;
    int logic = -99, nap = 0;
    nlis0(1, scripted, dotProduct, &x, f, -1.0, t, tmin, c.tmax, &d, &g, kSlopeConstant,
          kDescentConstant, 0, 0, logic, nap, c.napmax, &xn, nullptr, nullptr, nullptr);
    // Trials to 1e-15: a cubic's minimiser may be rounded in another order.
    ASSERT_EQ(gTrials.size(), c.trials.size()) << c.what;
    for (size_t k = 0; k < gTrials.size(); ++k)
      EXPECT_NEAR(gTrials[k], c.trials[k], 1e-15) << c.what;
    EXPECT_EQ(logic, c.logic) << c.what;
    EXPECT_BITEQ(c.x, x) << c.what;
    EXPECT_BITEQ(c.f, f) << c.what;
    EXPECT_EQ(nap, static_cast<int>(c.trials.size()) + (c.logic == 4)) << c.what;
  }
}

}  // namespace
