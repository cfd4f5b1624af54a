// SPDX-License-Identifier: Apache-2.0
// The minimiser n2qn1 on bound-constrained problems: KKT conditions, known
// minima, exact dyadic cases of its start, bound and scaling rules, its limits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "nearness/minimiser_internal.h"
#include "test_support.h"

namespace {

using lumbra::at;
using lumbra::i64;
using namespace lumbra::nearness;
using Vec = std::vector<double>;

// f(x) with its gradient into g; the simulator counts the calls.
using Objective = std::function<double(const double* x, double* g)>;
const Objective* gObjective = nullptr;
int gCalls = 0;

void simulator(int&, const int&, const double* x, double& f, double* g, int*, double*) {
  ++gCalls;
  f = (*gObjective)(x, g);
}

struct Options {
  double dxmin = 1e-9, df1 = 1.0, epsabs = 1e-7;
  int mode = 1, iter = 500, nsim = 1500;
};

using End = std::pair<int, int>;  // how a run ended (mode) after how many calls
struct Outcome {
  Vec x, g, rz;
  std::vector<int> iz;
  double f, epsabs;
  int mode, iter, nsim, calls;
  End end() const { return {mode, calls}; }
};

// f and g at x0 (the caller's evaluation), then n2qn1 on fresh work arrays
// or rz0 (the caller's matrix in mode 2).
Outcome minimise(const Objective& obj, Vec x0, const Vec& lo, const Vec& hi, Options o,
                 const Vec* rz0 = nullptr) {
  gObjective = &obj;
  const size_t n = x0.size();
  Outcome r{std::move(x0), Vec(n), rz0 ? *rz0 : Vec((n + 9) * n / 2 + 1, 0.0),
            std::vector<int>(2 * n + 1, 0), 0.0, o.epsabs, o.mode, o.iter, o.nsim, 0};
  r.f = obj(r.x.data(), r.g.data());
  const Vec dxmin(n, o.dxmin);
  gCalls = 0;
  n2qn1(simulator, static_cast<int>(n), r.x.data(), r.f, r.g.data(), dxmin.data(), o.df1,
        r.epsabs, 0, 6, r.mode, r.iter, r.nsim, lo.data(), hi.data(), r.iz.data(), r.rz.data(),
        nullptr, nullptr, nullptr);
  r.calls = gCalls;
  return r;
}

// f = 0.5 x'Ax - b'x; A empty stands for the identity.
Objective quadratic(const Vec& A, const Vec& b) {
  return [A, b](const double* x, double* g) {
    const i64 n = static_cast<i64>(b.size());
    double f = 0.0;
    for (i64 i = 0; i < n; ++i) {
      g[i] = -b[i];
      for (i64 j = 0; j < n; ++j) g[i] += (A.empty() ? 1.0 * (i == j) : A[at(i, j, n)]) * x[j];
      f += 0.5 * x[i] * (g[i] - b[i]);
    }
    return f;
  };
}

Objective distanceTo(const Vec& c) { return quadratic({}, c); }  // 0.5 ||x - c||^2 + const

// KKT at the answer: x in the box (to the rounding of x + t d); |g(i)| <= tol if
// free; if held, on its bound with multiplier -active g(i) >= -tol; nfree right.
int expectKkt(const Outcome& r, const Vec& lo, const Vec& hi, double tol) {
  const size_t n = r.x.size();
  int held = 0;
  for (size_t i = 0; i < n; ++i) {
    EXPECT_TRUE(r.x[i] >= lo[i] - 1e-15 && r.x[i] <= hi[i] + 1e-15) << i;
    const int active = r.iz[n + i];
    held += active != 0;
    EXPECT_LE(active == 0 ? std::fabs(r.g[i]) : active * r.g[i], tol) << i;
    EXPECT_TRUE(active == 0 || std::fabs(r.x[i] - (active > 0 ? hi[i] : lo[i])) <= 1e-9) << i;
  }
  EXPECT_EQ(r.iz[2 * n], static_cast<int>(n) - held);
  return held;
}

// Random convex quadratics B diag(scale, 1, ..) B' / n + 0.3 I (scale to 1000), boxes
// cutting off the free minimiser, starts inside, on bounds, in corners: KKT holds, the
// rms free gradient <= 1e-7 giving 1e-6 a component (1e-5 if ill-conditioned, mode 6).
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
    const Outcome r = minimise(quadratic(A, b), x0, lo, hi, {});
    ASSERT_TRUE(r.mode == 1 || (scale > 1.0 && r.mode == 6)) << rep << " mode " << r.mode;
    converged += r.mode == 1;
    withActive += expectKkt(r, lo, hi, r.mode == 1 ? 1e-6 : 1e-5) > 0;
    EXPECT_TRUE(r.mode != 1 || r.epsabs <= 1e-7);  // root mean square of the free gradient
    EXPECT_EQ(r.nsim, r.calls + 1);
  }
  EXPECT_GT(withActive, 20);
  EXPECT_GE(converged, 50);
}

// c outside the box in five of eight coordinates: c clipped, five bounds active.
TEST(Minimiser, SeveralBoundsAtOnce) {
  const Vec c = {2.0, -3.0, 0.25, 5.0, -0.5, -1.5, 0.75, 1.5}, lo(8, -1.0), hi(8, 1.0);
  const Outcome r = minimise(distanceTo(c), Vec(8, 0.0), lo, hi, {});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(expectKkt(r, lo, hi, 1e-9), 5);
  for (size_t i = 0; i < c.size(); ++i) EXPECT_NEAR(r.x[i], std::clamp(c[i], -1.0, 1.0), 1e-9);
}

// All variables reach their upper bounds at one step (df1 = 1e6: direction 500 each),
// the search stops there; the next iteration holds them from the largest index down.
TEST(Minimiser, TieGoesToTheLargestIndex) {
  const Outcome r =
      minimise(distanceTo(Vec(4, 1000.0)), Vec(4, 0.0), Vec(4, -1.0), Vec(4, 1.0), {.df1 = 1e6});
  EXPECT_EQ(r.end(), End(1, 2));  // the step at tmax, cut back there, evaluated twice
  for (double x : r.x) EXPECT_NEAR(1.0, x, 1e-15);
  EXPECT_EQ(r.iz, std::vector<int>({1, 2, 3, 4, 1, 1, 1, 1, 0}));  // positions, all held
  EXPECT_BITEQ(0.0, r.epsabs);  // nothing free
}

// The start, in dyadic numbers: (a) a stationary start ends at once; (b) a cold start
// holds a variable on a bound only if its gradient points out; (c) the first stop test
// is epsabs sqrt(nfree), and a stationary free part releases a held bound before the
// caller's matrix is factorised; (d) a bound exactly dxmin away counts as reached.
TEST(Minimiser, StartAndResolutionRules) {
  const Vec lo(2, -1.0), hi(2, 1.0);
  Outcome r = minimise(distanceTo({0.5, -0.25}), {0.5, -0.25}, lo, hi, {});
  EXPECT_EQ(r.end(), End(1, 0));
  EXPECT_EQ(End(r.iter, r.nsim), End(1, 1));
  // (b) g = (0.5, -0.5) inwards: free; D = 0.5 (0.25 + 0.25) / df1 = 1, one step to c.
  r = minimise(distanceTo({0.5, -0.5}), {1.0, -1.0}, lo, hi,
               {.dxmin = std::ldexp(1.0, -30), .df1 = 0.25});
  EXPECT_EQ(r.end(), End(1, 1));
  EXPECT_EQ(r.x, Vec({0.5, -0.5}));
  // (c) Mode 2, exact Hessian, x(2) held on its bound: the free gradient norm
  // 1.38e-3 is within 1.2e-3 sqrt(2) but not 1.2e-3, so x(2) (g = 1, inwards)
  // is released first and the Newton step reaches the minimiser at once.
  const Vec A = {2.0, 0.0, 1.0, 0.0, 2.0, 1.0, 1.0, 1.0, 2.0};
  const double e = std::ldexp(1.0, -10);
  Vec given(19, 0.0);
  for (i64 j = 0; j < 3; ++j)
    for (i64 i = j; i < 3; ++i) given[factorAt(i, j, 3)] = A[at(i, j, 3)];
  r = minimise(quadratic(A, {1.0 - e, 1.0 - e, 1.0}), {0.0, 0.0, 1.0}, Vec(3, -10.0),
               {10.0, 10.0, 1.0}, {.dxmin = 1.0 / 64, .epsabs = 1.2e-3, .mode = 2}, &given);
  EXPECT_EQ(r.end(), End(1, 1));
  for (int i = 0; i < 3; ++i) EXPECT_LE(std::fabs(r.g[i]), 1e-12);
  // (d) D = 9, the first step lands at 0.5, the update leaves D = 1; direction
  // 4 meets the bound at tmax 0.125, tmax d = 0.5 = dxmin: held where it stands.
  r = minimise(distanceTo({4.5}), {0.0}, {-1.0}, {1.0}, {.dxmin = 0.5, .df1 = 1.125});
  EXPECT_EQ(r.end(), End(1, 1));
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_EQ(r.iz[1], 1);
}

// The limits: iter = 1 does one whole iteration, mode 4 with iter 2; a
// simulation limit, mode 5 with f and g refreshed by an uncounted call.
TEST(Minimiser, Limits) {
  // f = 2 x^2 from 1, dyadic: D = 0.5 (g dxmin)^2 / df1 / dxmin^2 = 1, the step
  // -4 overshoots, the cubic gives x = 0 (t = 0.25); scaling by y's / (s'Ds t)
  // = 4, BFGS removes v v' / s'v (v = -g: 4 - 1) and adds y y' / (t y's) = 4: D = 7.
  Outcome r = minimise(quadratic({4.0}, {0.0}), {1.0}, {-10.0}, {10.0},
                       {.dxmin = 0.5, .df1 = 8.0, .iter = 1});
  EXPECT_EQ(End(r.mode, r.iter), End(4, 2));
  EXPECT_EQ(r.nsim, 3);
  EXPECT_BITEQ(0.0, r.x[0]);
  EXPECT_BITEQ(7.0, r.rz[0]);

  const Objective valley = quadratic({1.0, 0.99, 0.99, 1.0}, {1.0, -1.0});
  r = minimise(valley, {1.5, 1.5}, Vec(2, -2.0), Vec(2, 2.0), {.nsim = 4});
  EXPECT_EQ(r.end(), End(5, 4));  // three counted simulations and the final one
  EXPECT_EQ(r.nsim, 5);           // nap passed its limit by one
  Vec g(2);
  EXPECT_BITEQ(valley(r.x.data(), g.data()), r.f);
  EXPECT_EQ(g, r.g);
}

}  // namespace
