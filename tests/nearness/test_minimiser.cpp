// SPDX-License-Identifier: Apache-2.0
// The minimiser n2qn1 on bound-constrained problems with known minima or
// checked by the KKT conditions, on exact dyadic cases of its start, bound
// and scaling rules, on its limits and on bad calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "kernels/index.h"
#include "nearness/minimiser.h"
#include "nearness/minimiser_internal.h"
#include "test_support.h"

namespace {

using lumbra::at;
using lumbra::i64;
using namespace lumbra::nearness;
using Vec = std::vector<double>;
using IVec = std::vector<int>;

// f(x) with its gradient into g; the simulator hands it through and counts.
using Objective = std::function<double(const double* x, double* g)>;
const Objective* gObjective = nullptr;
int gCalls = 0;
bool gStop = false;  // set by an objective: this evaluation asks to stop

void simulator(int& indic, const int&, const double* x, double& f, double* g, int*, double*) {
  ++gCalls;
  gStop = false;
  f = (*gObjective)(x, g);
  if (gStop) indic = 0;
}

struct Options {
  double dxmin = 1e-9, df1 = 1.0, epsabs = 1e-7;
  int mode = 1, iter = 500, nsim = 1500;
};

struct Outcome {
  Vec x, g, rz;
  IVec iz;
  double f = 0.0, epsabs = 0.0;
  int mode = 0, iter = 0, nsim = 0, calls = 0;
};

// Evaluates f and g at x0 (the caller's evaluation) and runs n2qn1 on fresh
// work arrays, or on those of `warm`.
Outcome minimise(const Objective& obj, Vec x0, const Vec& lo, const Vec& hi, Options o,
                 const Outcome* warm = nullptr) {
  gObjective = &obj;
  const int n = static_cast<int>(x0.size());
  Outcome r;
  r.x = std::move(x0);
  r.g.assign(n, 0.0);
  gCalls = 0;
  r.f = obj(r.x.data(), r.g.data());
  r.iz = warm ? warm->iz : IVec(2 * n + 1, 0);
  r.rz = warm ? warm->rz : Vec(static_cast<size_t>(n + 9) * n / 2 + 1, 0.0);
  const Vec dxmin(n, o.dxmin);
  r.epsabs = o.epsabs;
  r.mode = o.mode;
  r.iter = o.iter;
  r.nsim = o.nsim;
  n2qn1(simulator, n, r.x.data(), r.f, r.g.data(), dxmin.data(), o.df1, r.epsabs, 0, 6, r.mode,
        r.iter, r.nsim, lo.data(), hi.data(), r.iz.data(), r.rz.data(), nullptr, nullptr,
        nullptr);
  r.calls = gCalls;
  return r;
}

// f = 0.5 x'Ax - b'x.
Objective quadratic(const Vec& A, const Vec& b) {
  return [A, b](const double* x, double* g) {
    const i64 n = static_cast<i64>(b.size());
    double f = 0.0;
    for (i64 i = 0; i < n; ++i) {
      double ax = 0.0;
      for (i64 j = 0; j < n; ++j) ax += A[at(i, j, n)] * x[j];
      g[i] = ax - b[i];
      f += x[i] * (0.5 * ax - b[i]);
    }
    return f;
  };
}

// 0.5 ||x - c||^2.
Objective distanceTo(const Vec& c) {
  return [c](const double* x, double* g) {
    double s = 0.0;
    for (size_t i = 0; i < c.size(); ++i) {
      g[i] = x[i] - c[i];
      s += 0.5 * g[i] * g[i];
    }
    return s;
  };
}

const Objective rosen = [](const double* x, double* g) {
  const double a = x[1] - x[0] * x[0], b = 1.0 - x[0];
  g[0] = -400.0 * x[0] * a - 2.0 * b;
  g[1] = 200.0 * a;
  return 100.0 * a * a + b * b;
};

// The KKT conditions at the answer: x in the box (a step cut at a bound
// lands on it up to the rounding of x + t d), a free variable with
// |g(i)| <= tol, a held one on its bound with the multiplier -active g(i)
// >= -tol, and nfree the count of the free.  Returns the count held.
int expectKkt(const Outcome& r, const Vec& lo, const Vec& hi, double tol) {
  const size_t n = r.x.size();
  int held = 0;
  for (size_t i = 0; i < n; ++i) {
    EXPECT_TRUE(r.x[i] >= lo[i] - 1e-15 && r.x[i] <= hi[i] + 1e-15) << i;
    const int active = r.iz[n + i];
    held += active != 0;
    if (active == 0) {
      EXPECT_LE(std::fabs(r.g[i]), tol) << i;
    } else {
      EXPECT_NEAR(r.x[i], active > 0 ? hi[i] : lo[i], 1e-9) << i;
      EXPECT_GE(-active * r.g[i], -tol) << i;
    }
  }
  EXPECT_EQ(r.iz[2 * n], static_cast<int>(n) - held);
  return held;
}

// Random strictly convex quadratics B diag(scale, 1, ..) B' / n + 0.3 I
// (scale up to 1000) in boxes that cut off the unconstrained minimiser,
// from starts inside, on bounds and in corners: bounds are met on the way
// and released again.  A convex problem is solved where the KKT conditions
// hold; the stopping test bounds the root mean square of the free gradient
// by 1e-7, so 1e-6 for one component (or the rounding level of f when the
// line search ends an ill-conditioned run, mode 6: 1e-5).
TEST(Minimiser, ConvexQuadraticsMeetTheKktConditions) {
  std::mt19937_64 rng(77);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int withActive = 0, converged = 0;
  for (int rep = 0; rep < 60; ++rep) {
    const i64 n = 1 + rep % 7;
    const double scale = rep < 30 ? 1.0 : std::pow(10.0, 2.0 + u(rng));
    Vec B(n * n), A(n * n, 0.0), b(n), lo(n), hi(n), x0(n);
    for (double& e : B) e = u(rng);
    for (i64 i = 0; i < n; ++i) {
      b[i] = 2.0 * u(rng);
      for (i64 j = 0; j < n; ++j) {
        A[at(i, j, n)] = i == j ? 0.3 : 0.0;
        for (i64 k = 0; k < n; ++k)
          A[at(i, j, n)] += B[at(i, k, n)] * B[at(j, k, n)] * (k ? 1.0 : scale) / n;
      }
      lo[i] = -0.5 + 0.4 * u(rng);
      hi[i] = 0.5 + 0.4 * u(rng);
      const int where = static_cast<int>(rng() % 3);
      x0[i] = where == 0 ? lo[i] : where == 1 ? hi[i] : 0.5 * (lo[i] + hi[i]);
    }
    const Outcome r = minimise(quadratic(A, b), x0, lo, hi, Options{});
    ASSERT_TRUE(r.mode == 1 || (scale > 1.0 && r.mode == 6)) << rep << " mode " << r.mode;
    converged += r.mode == 1;
    withActive += expectKkt(r, lo, hi, r.mode == 1 ? 1e-6 : 1e-5) > 0;
    if (r.mode == 1) EXPECT_LE(r.epsabs, 1e-7);  // root mean square of the free gradient
    EXPECT_EQ(r.nsim, r.calls + 1);
  }
  EXPECT_GT(withActive, 20);
  EXPECT_GE(converged, 50);
}

// Rosenbrock's function in a wide box, and cut by x(0) <= 0.5 through its
// valley: minimum (0.5, 0.25), held at the upper bound with derivative -1.
TEST(Minimiser, RosenbrockInABox) {
  Options o;
  o.epsabs = 1e-9;
  Outcome r = minimise(rosen, {-1.2, 1.0}, {-2.0, -2.0}, {2.0, 2.0}, o);
  EXPECT_EQ(r.mode, 1);
  EXPECT_NEAR(r.x[0], 1.0, 1e-7);
  EXPECT_NEAR(r.x[1], 1.0, 1e-7);
  r = minimise(rosen, {-1.2, 1.0}, {-2.0, -2.0}, {0.5, 2.0}, o);
  EXPECT_EQ(r.mode, 1);
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_NEAR(r.x[1], 0.25, 1e-9);
  EXPECT_EQ(r.iz[2], 1);
  EXPECT_NEAR(r.g[0], -1.0, 1e-7);
}

// 0.5 ||x - c||^2 with c outside the box in five of eight coordinates: the
// minimiser is c clipped, with five bounds active at once, reached exactly.
TEST(Minimiser, SeveralBoundsAtOnce) {
  const Vec c = {2.0, -3.0, 0.25, 5.0, -0.5, -1.5, 0.75, 1.5};
  const Vec lo(8, -1.0), hi(8, 1.0);
  const Outcome r = minimise(distanceTo(c), Vec(8, 0.0), lo, hi, Options{});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(expectKkt(r, lo, hi, 1e-9), 5);
  for (size_t i = 0; i < c.size(); ++i) EXPECT_NEAR(r.x[i], std::clamp(c[i], -1.0, 1.0), 1e-9);
}

// All variables tied at the same step to their upper bounds: the first
// step stops there (slope still too steep: logic 1, no update), and the
// next iteration finds them all at distance zero and activates them from
// the largest index down, so variable i ends at position i.
TEST(Minimiser, TieGoesToTheLargestIndex) {
  Options o;
  o.df1 = 1e6;  // first direction 500 in each variable
  const Outcome r = minimise(distanceTo(Vec(4, 1000.0)), Vec(4, 0.0), Vec(4, -1.0),
                             Vec(4, 1.0), o);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 2);  // the step at tmax, cut back there, evaluated twice
  EXPECT_EQ(r.iter, 2);
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(1.0, r.x[i], 1e-15);
    EXPECT_EQ(r.iz[4 + i], 1);
    EXPECT_EQ(r.iz[i], i + 1);
  }
  EXPECT_EQ(r.iz[8], 0);
  EXPECT_BITEQ(0.0, r.epsabs);
}

// The start, in dyadic numbers.  (a) A stationary start ends at once.
// (b) At a cold start a variable on a bound is held only when its gradient
// pushes out of the box.  (c) The first stop test measures the free
// gradient against epsabs sqrt(nfree), and a stationary free part releases
// a held bound before the caller's matrix is factorised.  (d) A bound at
// exactly dxmin along the direction counts as reached.
TEST(Minimiser, StartAndResolutionRules) {
  const Vec lo(2, -1.0), hi(2, 1.0);
  Options dyadic;
  dyadic.dxmin = std::ldexp(1.0, -30);
  // (a) mode 1 with one iteration and the caller's evaluation only.
  Outcome r = minimise(distanceTo({0.5, -0.25}), {0.5, -0.25}, lo, hi, Options{});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.iter, 1);
  EXPECT_EQ(r.nsim, 1);
  EXPECT_EQ(r.calls, 0);
  // Both pushing out (g = (-1, 1)): held, nothing evaluated.
  r = minimise(distanceTo({2.0, -2.0}), {1.0, -1.0}, lo, hi, Options{});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 0);
  EXPECT_EQ(r.iz[2], 1);
  EXPECT_EQ(r.iz[3], -1);
  // (b) Both pointing inwards (g = (0.5, -0.5)): free, and the diagonal
  // start 0.5 (0.25 + 0.25) / df1 = 1 takes one exact step to c.
  dyadic.df1 = 0.25;
  r = minimise(distanceTo({0.5, -0.5}), {1.0, -1.0}, lo, hi, dyadic);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_BITEQ(-0.5, r.x[1]);
  // (c) Mode 2 with the exact Hessian A; x(2) on its upper bound is held
  // whatever its gradient.  The free gradient (2^-10, 2^-10) has norm
  // 1.38e-3, within 1.2e-3 sqrt(2) but not 1.2e-3: x(2) (g = 1, inwards) is
  // released first, so the exact Newton step reaches the minimiser at once.
  {
    const Vec A = {2.0, 0.0, 1.0, 0.0, 2.0, 1.0, 1.0, 1.0, 2.0};
    const double e = std::ldexp(1.0, -10);
    const Vec b = {1.0 - e, 1.0 - e, 1.0}, lo3(3, -10.0), hi3 = {10.0, 10.0, 1.0};
    Outcome given;
    given.iz.assign(7, 0);
    given.rz.assign(19, 0.0);
    for (i64 j = 0; j < 3; ++j)
      for (i64 i = j; i < 3; ++i) given.rz[factorAt(i, j, 3)] = A[at(i, j, 3)];
    Options o;
    o.mode = 2;
    o.dxmin = 1.0 / 64;  // epsabs is scaled by dxmin like the gradient
    o.epsabs = 1.2e-3;
    r = minimise(quadratic(A, b), {0.0, 0.0, 1.0}, lo3, hi3, o, &given);
    EXPECT_EQ(r.mode, 1);
    EXPECT_EQ(r.calls, 1);
    for (int i = 0; i < 3; ++i) EXPECT_LE(std::fabs(r.g[i]), 1e-12);
  }
  // (d) One variable, c = 4.5, dxmin 0.5, df1 = 1.125: D = 9, the first
  // step (d = 0.5) lands at 0.5; the update leaves D = 1 and the next
  // direction 4 meets the bound 1 at tmax 0.125, tmax d = 0.5 = dxmin: the
  // variable is held where it stands.
  Options one;
  one.dxmin = 0.5;
  one.df1 = 1.125;
  r = minimise(distanceTo({4.5}), {0.0}, {-1.0}, {1.0}, one);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_EQ(r.iz[1], 1);
}

// The limits: iter = 1 does one whole iteration and returns mode 4 with
// iter 2; a simulation limit returns mode 5 with f and g refreshed at x by
// a final evaluation that nap does not count; a simulator asking to stop
// ends the run with mode 0.
TEST(Minimiser, Limits) {
  const Vec lo(2, -2.0), hi(2, 2.0);
  Options o;
  o.iter = 1;
  Outcome r = minimise(rosen, {-1.2, 1.0}, lo, hi, o);
  EXPECT_EQ(r.mode, 4);
  EXPECT_EQ(r.iter, 2);
  EXPECT_LT(r.f, 24.2);  // f(-1.2, 1)

  // The first iteration on f = 2 x^2 from x = 1, exact in dyadic numbers:
  // diagonal start D = 0.5 (g dxmin)^2 / df1 / dxmin^2 = 1 (df1 = 8), the
  // step -4 overshoots, the cubic gives t = 0.25 and x = 0; the first
  // scaling multiplies D by y's / (s'Ds t) = 16 / 16 / 0.25 = 4; the BFGS
  // pair then removes v v' / s'v with v = -g (4 - 16 / 16 = 3) and adds
  // y y' / (t y's) = 16 / 4, which leaves D = 7.
  const Objective parabola = [](const double* x, double* g) {
    g[0] = 4.0 * x[0];
    return 2.0 * x[0] * x[0];
  };
  o.df1 = 8.0;
  o.dxmin = 0.5;
  r = minimise(parabola, {1.0}, {-10.0}, {10.0}, o);
  EXPECT_EQ(r.mode, 4);
  EXPECT_EQ(r.nsim, 3);
  EXPECT_BITEQ(0.0, r.x[0]);
  EXPECT_BITEQ(7.0, r.rz[0]);

  o = Options{};
  o.nsim = 4;
  r = minimise(rosen, {-1.2, 1.0}, lo, hi, o);
  EXPECT_EQ(r.mode, 5);
  EXPECT_EQ(r.nsim, 5);   // nap passed its limit by one
  EXPECT_EQ(r.calls, 4);  // three counted simulations and the final one
  Vec g(2);
  EXPECT_BITEQ(rosen(r.x.data(), g.data()), r.f);
  EXPECT_BITEQ(g[0], r.g[0]);
  EXPECT_BITEQ(g[1], r.g[1]);

  const Objective stopping = [](const double* x, double* g) {
    if (gCalls == 3) gStop = true;
    return rosen(x, g);
  };
  r = minimise(stopping, {-1.2, 1.0}, lo, hi, Options{});
  EXPECT_EQ(r.mode, 0);
  EXPECT_EQ(r.calls, 3);
}

// A warm start (mode 4) continues with the arrays of the previous run to
// the same minimiser; from the caller's LDL' factor of the exact Hessian
// (mode 3) one step reaches it; a warm start whose H is indefinite across
// the bound to release ends with mode 7, nothing moved.
TEST(Minimiser, WarmStartAndGivenFactor) {
  const Vec A = {2.0, 1.0, 0.0, 1.0, 2.0, 1.0, 0.0, 1.0, 2.0}, b = {1.0, -2.0, 3.0};
  const Vec lo(3, -1.0), hi(3, 1.0);
  Options o;
  o.iter = 2;
  const Outcome first = minimise(quadratic(A, b), Vec(3, 0.0), lo, hi, o);
  ASSERT_EQ(first.mode, 4);
  o = Options{};
  o.mode = 4;
  Outcome r = minimise(quadratic(A, b), first.x, lo, hi, o, &first);
  EXPECT_EQ(r.mode, 1);
  const Outcome cold = minimise(quadratic(A, b), Vec(3, 0.0), lo, hi, Options{});
  EXPECT_GT(expectKkt(cold, lo, hi, 1e-6), 0);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(r.x[i], cold.x[i], 1e-6);

  Outcome given;
  given.rz.assign(19, 0.0);
  given.iz.assign(7, 0);
  for (i64 j = 0; j < 3; ++j)
    for (i64 i = j; i < 3; ++i) given.rz[factorAt(i, j, 3)] = A[at(i, j, 3)];
  int rank = 0;
  factorFromMatrix(given.rz.data(), 3, rank);
  o.mode = 3;
  r = minimise(quadratic(A, {0.5, 0.0, -0.5}), Vec(3, 0.0), Vec(3, -9.0), Vec(3, 9.0), o,
               &given);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  for (int i = 0; i < 3; ++i) EXPECT_LE(std::fabs(r.g[i]), 1e-12);

  // Variable 0 free (D = 1), variable 1 held at its upper bound with
  // H(0,1) = 2, H(1,1) = 1; stationary in variable 0, the simple test
  // releases variable 1, whose Schur complement 1 - 2^2 / 1 is negative.
  Outcome bad;
  bad.iz = {1, 2, 0, 1, 1};
  bad.rz = {1.0, 2.0, 1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};  // T, R, Q
  Options warm;
  warm.mode = 4;
  r = minimise(distanceTo({0.0, 0.5}), {0.0, 1.0}, {-1.0, -1.0}, {1.0, 1.0}, warm, &bad);
  EXPECT_EQ(r.mode, 7);
  EXPECT_EQ(r.calls, 0);
  EXPECT_BITEQ(1.0, r.x[1]);
}

// Bad calls end with mode 2 and nothing evaluated or moved; so does a warm
// start on arrays no run has left.
TEST(Minimiser, BadCalls) {
  struct Case {
    int n, mode, iter, nsim;
    double df1, epsabs, dxmin, x, lo, hi;
  } cases[] = {
      {0, 1, 9, 9, 1, 0, 1e-9, 0.5, -1, 1},  {1, 1, 9, 9, 0, 0, 1e-9, 0.5, -1, 1},
      {1, 1, 9, 9, 1, -1, 1e-9, 0.5, -1, 1}, {1, 0, 9, 9, 1, 0, 1e-9, 0.5, -1, 1},
      {1, 5, 9, 9, 1, 0, 1e-9, 0.5, -1, 1},  {1, 1, 0, 9, 1, 0, 1e-9, 0.5, -1, 1},
      {1, 1, 9, 0, 1, 0, 1e-9, 0.5, -1, 1},  {1, 1, 9, 9, 1, 0, 0.0, 0.5, -1, 1},
      {1, 1, 9, 9, 1, 0, 1e-9, 0.5, 1, -1},  {1, 1, 9, 9, 1, 0, 1e-9, 1.5, -1, 1}};
  const Objective f = distanceTo({0.0});
  for (const Case& c : cases) {
    gObjective = &f;
    gCalls = 0;
    double x[1] = {c.x}, g[1] = {7.0}, fv = 3.0, eps = c.epsabs, dx[1] = {c.dxmin};
    double lo[1] = {c.lo}, hi[1] = {c.hi}, rz[6] = {};
    int iz[3] = {}, mode = c.mode, iter = c.iter, nsim = c.nsim;
    n2qn1(simulator, c.n, x, fv, g, dx, c.df1, eps, 0, 6, mode, iter, nsim, lo, hi, iz, rz,
          nullptr, nullptr, nullptr);
    EXPECT_EQ(mode, 2);
    EXPECT_BITEQ(c.x, x[0]);
    EXPECT_BITEQ(3.0, fv);
    EXPECT_EQ(iter, c.iter);
    EXPECT_EQ(gCalls, 0);
  }
  Outcome blank;
  blank.iz = {1, 2, 0, -1, 2};  // a held variable among the free positions
  blank.rz.assign(11, 0.0);
  Options o;
  o.mode = 4;
  EXPECT_EQ(minimise(distanceTo({0.0, 0.0}), {0.5, 0.5}, {-1, -1}, {1, 1}, o, &blank).mode, 2);
}

// A value that is not a number, from the second evaluation on or at the
// caller's own, in a box or without bounds: the run ends with mode 6 at
// the last good point.
TEST(Minimiser, NotANumberEndsAtTheLastGoodPoint) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Objective f = [nan](const double* x, double* g) {
    if (gCalls >= 1) return g[0] = g[1] = nan;
    g[0] = x[0] - 1.0;
    g[1] = x[1] + 1.0;
    return 0.5 * (g[0] * g[0] + g[1] * g[1]);
  };
  for (double bound : {2.0, 1e20}) {
    const Outcome r = minimise(f, {0.0, 0.0}, Vec(2, -bound), Vec(2, bound), Options{});
    EXPECT_EQ(r.mode, 6);
    EXPECT_BITEQ(0.0, r.x[0]);
    EXPECT_BITEQ(0.0, r.x[1]);
    EXPECT_BITEQ(1.0, r.f);
  }
  const Outcome r = minimise([nan](const double*, double* g) { return g[0] = nan; }, {0.0},
                             {-1.0}, {1.0}, Options{});
  EXPECT_EQ(r.mode, 6);
  EXPECT_EQ(r.calls, 0);
}

}  // namespace
