// SPDX-License-Identifier: Apache-2.0
// The minimiser n2qn1 on bound-constrained problems, checked by the KKT
// conditions and known minima, on exact dyadic cases of its start, bound
// and scaling rules, and on its limits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
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

// f(x) with its gradient into g; the simulator hands it through and counts.
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

struct Outcome {
  Vec x, g, rz;
  std::vector<int> iz;
  double f, epsabs;
  int mode, iter, nsim, calls;
};

// Evaluates f and g at x0 (the caller's evaluation) and runs n2qn1 on
// fresh work arrays, rz0 (the caller's matrix in mode 2) if given.
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

// f = 0.5 x'Ax - b'x.
Objective quadratic(const Vec& A, const Vec& b) {
  return [A, b](const double* x, double* g) {
    const i64 n = static_cast<i64>(b.size());
    double f = 0.0;
    for (i64 i = 0; i < n; ++i) {
      g[i] = -b[i];
      for (i64 j = 0; j < n; ++j) g[i] += A[at(i, j, n)] * x[j];
      f += 0.5 * x[i] * (g[i] - b[i]);
    }
    return f;
  };
}

// 0.5 ||x - c||^2 less a constant: gradient x - c.
Objective distanceTo(const Vec& c) {
  const i64 n = static_cast<i64>(c.size());
  Vec I(n * n, 0.0);
  for (i64 i = 0; i < n; ++i) I[at(i, i, n)] = 1.0;
  return quadratic(I, c);
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
// from starts inside, on bounds and in corners; solved where the KKT
// conditions hold.  The stopping test bounds the rms free gradient by 1e-7,
// so 1e-6 for one component (1e-5 when the line search ends an
// ill-conditioned run at the rounding level of f, mode 6).
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

// The distance to c outside the box in five of eight coordinates: the
// minimiser c clipped, with five bounds active at once, reached exactly.
TEST(Minimiser, SeveralBoundsAtOnce) {
  const Vec c = {2.0, -3.0, 0.25, 5.0, -0.5, -1.5, 0.75, 1.5}, lo(8, -1.0), hi(8, 1.0);
  const Outcome r = minimise(distanceTo(c), Vec(8, 0.0), lo, hi, {});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(expectKkt(r, lo, hi, 1e-9), 5);
  for (size_t i = 0; i < c.size(); ++i) EXPECT_NEAR(r.x[i], std::clamp(c[i], -1.0, 1.0), 1e-9);
}

// All variables tied at the same step to their upper bounds: the first step
// stops there (slope still too steep: logic 1), and the next finds them all
// at distance zero and holds them from the largest index down.
TEST(Minimiser, TieGoesToTheLargestIndex) {
  // df1 = 1e6: the first direction is 500 in each variable.
  const Outcome r =
      minimise(distanceTo(Vec(4, 1000.0)), Vec(4, 0.0), Vec(4, -1.0), Vec(4, 1.0), {.df1 = 1e6});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 2);  // the step at tmax, cut back there, evaluated twice
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(1.0, r.x[i], 1e-15);
    EXPECT_EQ(r.iz[4 + i], 1);
    EXPECT_EQ(r.iz[i], i + 1);
  }
  EXPECT_BITEQ(0.0, r.epsabs);  // nothing free
}

// The start, in dyadic numbers.  (a) A stationary start ends at once.
// (b) At a cold start a variable on a bound is held only when its gradient
// pushes out of the box.  (c) The first stop test measures the free
// gradient against epsabs sqrt(nfree), and a stationary free part releases
// a held bound before the caller's matrix is factorised.  (d) A bound at
// exactly dxmin along the direction counts as reached.
TEST(Minimiser, StartAndResolutionRules) {
  const Vec lo(2, -1.0), hi(2, 1.0);
  // (a) mode 1 with one iteration and the caller's evaluation only.
  Outcome r = minimise(distanceTo({0.5, -0.25}), {0.5, -0.25}, lo, hi, {});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.iter, 1);
  EXPECT_EQ(r.nsim, 1);
  EXPECT_EQ(r.calls, 0);
  // (b) Both pointing inwards (g = (0.5, -0.5)): free, and the diagonal
  // start 0.5 (0.25 + 0.25) / df1 = 1 takes one exact step to c.
  r = minimise(distanceTo({0.5, -0.5}), {1.0, -1.0}, lo, hi,
               {.dxmin = std::ldexp(1.0, -30), .df1 = 0.25});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_BITEQ(-0.5, r.x[1]);
  // (c) Mode 2 with the exact Hessian A; x(2) on its upper bound is held
  // whatever its gradient.  The free gradient (2^-10, 2^-10) has norm
  // 1.38e-3, within 1.2e-3 sqrt(2) but not 1.2e-3: x(2) (g = 1, inwards) is
  // released first, so the exact Newton step reaches the minimiser at once.
  const Vec A = {2.0, 0.0, 1.0, 0.0, 2.0, 1.0, 1.0, 1.0, 2.0};
  const double e = std::ldexp(1.0, -10);
  Vec given(19, 0.0);
  for (i64 j = 0; j < 3; ++j)
    for (i64 i = j; i < 3; ++i) given[factorAt(i, j, 3)] = A[at(i, j, 3)];
  // dxmin 1/64: epsabs is scaled by dxmin like the gradient.
  r = minimise(quadratic(A, {1.0 - e, 1.0 - e, 1.0}), {0.0, 0.0, 1.0}, Vec(3, -10.0),
               {10.0, 10.0, 1.0}, {.dxmin = 1.0 / 64, .epsabs = 1.2e-3, .mode = 2}, &given);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  for (int i = 0; i < 3; ++i) EXPECT_LE(std::fabs(r.g[i]), 1e-12);
  // (d) One variable, c = 4.5, dxmin 0.5, df1 = 1.125: D = 9, the first
  // step (d = 0.5) lands at 0.5; the update leaves D = 1 and the next
  // direction 4 meets the bound 1 at tmax 0.125, tmax d = 0.5 = dxmin: the
  // variable is held where it stands.
  r = minimise(distanceTo({4.5}), {0.0}, {-1.0}, {1.0}, {.dxmin = 0.5, .df1 = 1.125});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_EQ(r.iz[1], 1);
}

// The limits: iter = 1 does one whole iteration, mode 4 with iter 2; a
// simulation limit, mode 5 with f and g refreshed by an uncounted call.
TEST(Minimiser, Limits) {
  // The first iteration on f = 2 x^2 from x = 1, exact in dyadic numbers:
  // diagonal start D = 0.5 (g dxmin)^2 / df1 / dxmin^2 = 1 (df1 = 8), the
  // step -4 overshoots, the cubic gives t = 0.25 and x = 0; the first
  // scaling multiplies D by y's / (s'Ds t) = 16 / 16 / 0.25 = 4; the BFGS
  // pair then removes v v' / s'v with v = -g (4 - 16 / 16 = 3) and adds
  // y y' / (t y's) = 16 / 4, which leaves D = 7.
  Outcome r = minimise(quadratic({4.0}, {0.0}), {1.0}, {-10.0}, {10.0},
                       {.dxmin = 0.5, .df1 = 8.0, .iter = 1});
  EXPECT_EQ(r.mode, 4);
  EXPECT_EQ(r.iter, 2);
  EXPECT_EQ(r.nsim, 3);
  EXPECT_BITEQ(0.0, r.x[0]);
  EXPECT_BITEQ(7.0, r.rz[0]);

  r = minimise(rosen, {-1.2, 1.0}, {-2.0, -2.0}, {2.0, 2.0}, {.nsim = 4});
  EXPECT_EQ(r.mode, 5);
  EXPECT_EQ(r.nsim, 5);   // nap passed its limit by one
  EXPECT_EQ(r.calls, 4);  // three counted simulations and the final one
  Vec g(2);
  EXPECT_BITEQ(rosen(r.x.data(), g.data()), r.f);
  EXPECT_EQ(g, r.g);
}

}  // namespace
