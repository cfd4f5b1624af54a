// SPDX-License-Identifier: Apache-2.0
// The line search nlis0 on one-dimensional problems.  A scripted simulator
// returns prescribed (indic, f, g) in turn whatever the point, so that every
// branch (extrapolation, cubic interpolation, bisection, refused points,
// the ends on tmin, the limits) is reached by construction; x0 = 0 and
// d = 1 make each trial point the step itself.  Smooth quadratics check the
// steps that a correct search must find.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "nearness/minimiser_internal.h"
#include "test_support.h"

namespace {

using namespace lumbra::nearness;

struct Reply {
  int indic;
  double f, g;
};
std::vector<Reply> gScript;
std::vector<double> gTrials;

void scripted(int& indic, const int&, const double* x, double& f, double* g, int*, double*) {
  gTrials.push_back(x[0]);
  const Reply r = gScript.at(gTrials.size() - 1);
  indic = r.indic;
  f = r.f;
  g[0] = r.g;
}

// f = 0.5 sum (x(i) - c(i))^2 with c in dzs.
void quadratic(int&, const int& n, const double* x, double& f, double* g, int* izs, double* dzs) {
  izs[0] += 1;
  f = 0.0;
  for (int i = 0; i < n; ++i) {
    g[i] = x[i] - dzs[i];
    f += 0.5 * g[i] * g[i];
  }
}

struct Search {
  double x = 0.0, f = 0.0, t = 1.0, tmin = 1e-10, tmax = 1e20;
  int logic = -99, nap = 0, napmax = 50;
};

// nlis0 from x0 = 0 along d = 1 with slope fp, on the script.
Search search(std::vector<Reply> script, Search in, double fp = -1.0,
           double amd = kSlopeConstant, double amf = kDescentConstant) {
  gScript = std::move(script);
  gTrials.clear();
  const double d = 1.0;
  double g = 0.0, xn = 0.0;
  int n = 1, imp = 0, io = 0;
  nlis0(n, scripted, dotProduct, &in.x, in.f, fp, in.t, in.tmin, in.tmax, &d, &g, amd, amf, imp,
        io, in.logic, in.nap, in.napmax, &xn, nullptr, nullptr, nullptr);
  return in;
}

TEST(LineSearch, BadCallsMoveNothing) {
  struct Case {
    double fp, t, tmax, amd, amf;
    int n;
  } cases[] = {{0.0, 1, 1, 0.99, 1e-4, 1},  {1.0, 1, 1, 0.99, 1e-4, 1},
               {-1.0, 0, 1, 0.99, 1e-4, 1}, {-1.0, 1, 0, 0.99, 1e-4, 1},
               {-1.0, 1, 1, 0.99, 0.0, 1},  {-1.0, 1, 1, 1e-4, 1e-4, 1},
               {-1.0, 1, 1, 1.0, 1e-4, 1},  {-1.0, 1, 1, 0.99, 1e-4, 0}};
  for (const Case& c : cases) {
    gScript.clear();
    gTrials.clear();
    double x = 3.0, f = 2.0, t = c.t, tmin = 0.5, g = 0.0, xn = 0.0, d = 1.0;
    int logic = 0, nap = 7;
    nlis0(c.n, scripted, dotProduct, &x, f, c.fp, t, tmin, c.tmax, &d, &g, c.amd, c.amf, 0, 0,
          logic, nap, 10, &xn, nullptr, nullptr, nullptr);
    EXPECT_EQ(logic, 6);
    EXPECT_BITEQ(3.0, x);
    EXPECT_BITEQ(2.0, f);
    EXPECT_BITEQ(c.t, t);
    EXPECT_BITEQ(0.5, tmin);
    EXPECT_EQ(nap, 7);
    EXPECT_TRUE(gTrials.empty());
  }
}

// The exact step of a quadratic along its exact direction passes both tests
// at once: one simulation, x on the minimiser (dyadic data, exact).
TEST(LineSearch, QuadraticExactStep) {
  int n = 2, calls = 0, logic = -1, nap = 3;
  double c[2] = {0.5, -1.25}, x[2] = {0.0, 0.0}, d[2] = {0.5, -1.25}, g[2], xn[2];
  double f = 0.5 * (0.25 + 1.5625), fp = -(0.25 + 1.5625), t = 1.0, tmin = 1e-10, tmax = 1e20;
  nlis0(n, quadratic, dotProduct, x, f, fp, t, tmin, tmax, d, g, kSlopeConstant,
        kDescentConstant, 0, 0, logic, nap, 100, xn, &calls, nullptr, c);
  EXPECT_EQ(logic, 0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(nap, 4);
  EXPECT_BITEQ(0.5, x[0]);
  EXPECT_BITEQ(-1.25, x[1]);
  EXPECT_BITEQ(0.0, f);
  EXPECT_BITEQ(0.0, g[0]);
}

// Each way the search ends, with the step it must end on.
TEST(LineSearch, OutcomesOfTheContract) {
  Search base;
  {
    // tmax below the first trial: logic starts at 1, and a descent success
    // ends the search at tmax although the slope is still too steep.
    Search in = base;
    in.tmax = 0.5;
    const Search r = search({{1, -0.5, -1.0}}, in);
    EXPECT_EQ(r.logic, 1);
    EXPECT_BITEQ(0.5, r.x);
    EXPECT_BITEQ(-0.5, r.f);
    EXPECT_EQ(r.nap, 1);
  }
  {
    // Extrapolation: f = (x - 100)^2 / 200 - 50 from 0 (fp = -1); at t = 1
    // the slope -0.99 is too steep and the cubic step is cut to 9 t, t = 10,
    // where the slope test holds.
    auto fOf = [](double x) { return (x - 100.0) * (x - 100.0) / 200.0 - 50.0; };
    const Search r = search({{1, fOf(1.0), -0.99}, {1, fOf(10.0), -0.9}}, base);
    EXPECT_EQ(r.logic, 0);
    ASSERT_EQ(gTrials.size(), 2u);
    EXPECT_BITEQ(10.0, gTrials[1]);
    EXPECT_BITEQ(10.0, r.x);
  }
  {
    // A cubic step shorter than 9 t: at t = 1, fp = -1, fpn = -1.5 (too
    // steep) and df = -1.5 give c = 3 fpn + fp - 4 df / t = 0.5 > 0, so the
    // step is t max(1, -fpn / c) = 3 and the next trial is t = 4.
    const Search r = search({{1, -1.5, -1.5}, {1, -3.0, -0.5}}, base);
    EXPECT_EQ(r.logic, 0);
    ASSERT_EQ(gTrials.size(), 2u);
    EXPECT_BITEQ(4.0, gTrials[1]);
  }
  {
    // The extrapolated step beyond tmax = 5 is cut there with logic 1, and
    // the next descent success ends the search there, slope still steep.
    Search in = base;
    in.tmax = 5.0;
    const Search r = search({{1, -1.0, -0.999}, {1, -4.9, -0.995}}, in);
    EXPECT_EQ(r.logic, 1);
    EXPECT_BITEQ(5.0, gTrials[1]);
    EXPECT_BITEQ(5.0, r.x);
    EXPECT_BITEQ(-4.9, r.f);
  }
  {
    // Interpolation: f = (x - 0.1)^2 / 2 from 0 (fp = -0.1) fails the
    // descent test at 1; the cubic through both ends is the quadratic
    // itself, whose minimiser 0.1 is the next trial and is accepted.
    auto fOf = [](double x) { return 0.5 * (x - 0.1) * (x - 0.1); };
    Search in = base;
    in.f = fOf(0.0);
    const Search r = search({{1, fOf(1.0), 0.9}, {1, fOf(0.1), 0.0}}, in, -0.1);
    EXPECT_EQ(r.logic, 0);
    ASSERT_EQ(gTrials.size(), 2u);
    EXPECT_NEAR(gTrials[1], 0.1, 1e-15);
    EXPECT_BITEQ(gTrials[1], r.x);
  }
  {
    // The cubic through two failed trials with equal negative slopes and
    // secant slope -2 (b = 0, disc = -1) has no minimum: bisection of the
    // bracket (0, 0.1).
    const Search r = search({{1, 1.0, -1.0}, {1, 1.6, -1.0}, {1, -0.01, -0.5}}, base);
    EXPECT_EQ(r.logic, 0);
    ASSERT_EQ(gTrials.size(), 3u);
    EXPECT_BITEQ(0.1, gTrials[1]);  // first cubic step, raised to the 10 % margin
    EXPECT_BITEQ(0.05, gTrials[2]);
    EXPECT_BITEQ(0.05, r.x);
  }
  {
    // A refused point becomes the upper end, the next trial 10 % into the
    // bracket; a failure after it interpolates as 0.1 td + 0.9 tg.
    const Search r = search({{-1, 0.0, 0.0}, {1, 1.0, 1.0}, {1, -0.001, -0.1}}, base);
    EXPECT_EQ(r.logic, 0);
    ASSERT_EQ(gTrials.size(), 3u);
    EXPECT_BITEQ(0.1, gTrials[1]);
    EXPECT_BITEQ(0.1 * 0.1 + 0.9 * 0.0, gTrials[2]);
  }
  {
    // A value that is not a number fails the descent test like a rise.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Search r = search({{1, nan, nan}, {1, -0.001, -0.1}}, base);
    EXPECT_EQ(r.logic, 0);
    ASSERT_EQ(gTrials.size(), 2u);
    EXPECT_BITEQ(0.1, gTrials[1]);
    EXPECT_BITEQ(-0.001, r.f);
  }
  {
    // Refused points until the bracket is below tmin: logic is the last
    // refusal, nothing moves.
    Search in = base;
    in.tmin = 0.05;
    in.f = 2.0;
    const Search r = search({{-1, 0, 0}, {-1, 0, 0}, {-2, 0, 0}}, in);
    EXPECT_EQ(r.logic, -2);
    EXPECT_BITEQ(0.0, r.x);
    EXPECT_BITEQ(2.0, r.f);
    EXPECT_EQ(r.nap, 3);
  }
  {
    // Descent failures until the bracket is below tmin with tg = 0: logic 6
    // and nothing moves.
    Search in = base;
    in.tmin = 0.3;
    const Search r = search({{1, 1.0, 1.0}, {1, 1.0, 1.0}}, in);
    EXPECT_EQ(r.logic, 6);
    EXPECT_BITEQ(0.0, r.x);
    EXPECT_BITEQ(0.0, r.f);
    EXPECT_EQ(r.nap, 2);
  }
  {
    // With a lower end, the end on tmin keeps the best lower point.
    Search in = base;
    in.tmin = 0.9;
    in.tmax = 1.5;
    const Search r = search({{1, -1.0, -1.0}, {1, 5.0, 1.0}}, in);
    EXPECT_EQ(r.logic, 6);
    EXPECT_BITEQ(1.5, gTrials[1]);
    EXPECT_BITEQ(1.0, r.x);
    EXPECT_BITEQ(-1.0, r.f);
  }
  {
    // Simulation limit: two steep successes (t = 1, then 10), the third
    // simulation is refused: logic 4 at the last lower point.
    Search in = base;
    in.napmax = 2;
    const Search r = search({{1, -1.0, -1.0}, {1, -10.0, -1.0}}, in);
    EXPECT_EQ(r.logic, 4);
    EXPECT_EQ(r.nap, 3);
    EXPECT_BITEQ(10.0, r.x);
    EXPECT_BITEQ(-10.0, r.f);
    EXPECT_EQ(gTrials.size(), 2u);
  }
  {
    // The simulator asks to stop: x and f of that evaluation.
    const Search r = search({{1, -1.0, -1.0}, {0, -3.0, -1.0}}, base);
    EXPECT_EQ(r.logic, 5);
    EXPECT_BITEQ(10.0, r.x);
    EXPECT_BITEQ(-3.0, r.f);
  }
  {
    // A first trial below tmin starts at tmin; tmin above tmax is lowered
    // to tmax and the trial cut there.
    Search in = base;
    in.t = 0.25;
    in.tmin = 2.0;
    in.tmax = 0.5;
    const Search r = search({{1, -0.5, -1.0}}, in);
    EXPECT_EQ(r.logic, 1);
    EXPECT_BITEQ(0.5, r.tmin);
    EXPECT_BITEQ(0.5, gTrials[0]);
  }
}

// A step so small that 10 % of the slope vanishes in the rounding of f is
// doubled until it shows, also past tmax before the cut.
TEST(LineSearch, FlatToRounding) {
  Search in;
  in.f = 1e10;
  in.t = 1e-9;
  const Search r = search({{1, 1e10 - 1.0, -0.5}}, in);
  ASSERT_EQ(gTrials.size(), 1u);
  const double t = gTrials[0];
  EXPECT_GT(t, 1e-9);
  EXPECT_TRUE(1e10 + t * (0.9 * -1.0) > 1e10 + t * -1.0);
  EXPECT_FALSE(1e10 + t / 2 * (0.9 * -1.0) > 1e10 + t / 2 * -1.0);
  EXPECT_EQ(r.logic, 0);

  in.tmax = 1e-8;  // below the doubled step
  const Search cut = search({{1, 1e10 - 1.0, -2.0}}, in);
  EXPECT_BITEQ(1e-8, gTrials[0]);
  EXPECT_EQ(cut.logic, 1);

  // A value that can never show the slope (not finite) ends the doubling.
  in.f = INFINITY;
  in.tmax = 4.0;
  const Search inf = search({{1, 1.0, -1.0}}, in);
  EXPECT_BITEQ(4.0, gTrials[0]);
  EXPECT_EQ(inf.logic, 1);
}

}  // namespace
