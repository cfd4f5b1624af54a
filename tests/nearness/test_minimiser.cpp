// SPDX-License-Identifier: Apache-2.0
// The minimiser n2qn1 on smooth bound-constrained problems with known
// minima, on its limits and on bad calls.  Strictly convex quadratics are
// checked against their exact minimiser, found independently by trying
// every pattern of free, lower and upper variables (3^n small linear
// systems) and keeping the one that meets the KKT conditions.
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

// f(x) with its gradient into g; the simulator hands it through.
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
  Vec x, g;
  double f = 0.0, epsabs = 0.0;
  int mode = 0, iter = 0, nsim = 0, calls = 0;
  IVec iz;
  Vec rz;
};

// Evaluates f and g at x0 (the caller's evaluation) and runs n2qn1 on
// fresh work arrays, or on those of `warm` for a warm start.
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
  gCalls = 0;
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

// Solves the m by m system M y = v by Gaussian elimination with partial
// pivoting (M and v are copies).
Vec solveDense(Vec M, Vec v, i64 m) {
  for (i64 c = 0; c < m; ++c) {
    i64 p = c;
    for (i64 i = c + 1; i < m; ++i)
      if (std::fabs(M[at(i, c, m)]) > std::fabs(M[at(p, c, m)])) p = i;
    for (i64 j = 0; j < m; ++j) std::swap(M[at(c, j, m)], M[at(p, j, m)]);
    std::swap(v[c], v[p]);
    for (i64 i = c + 1; i < m; ++i) {
      const double q = M[at(i, c, m)] / M[at(c, c, m)];
      for (i64 j = c; j < m; ++j) M[at(i, j, m)] -= q * M[at(c, j, m)];
      v[i] -= q * v[c];
    }
  }
  for (i64 i = m - 1; i >= 0; --i) {
    for (i64 j = i + 1; j < m; ++j) v[i] -= M[at(i, j, m)] * v[j];
    v[i] /= M[at(i, i, m)];
  }
  return v;
}

// The minimiser of 0.5 x'Ax - b'x over the box, by enumeration of the
// 3^n patterns: fix the held variables, solve for the free ones, keep the
// pattern that is feasible with multipliers of the right sign.
Vec boxQuadraticMinimiser(const Vec& A, const Vec& b, const Vec& lo, const Vec& hi) {
  const i64 n = static_cast<i64>(b.size());
  i64 patterns = 1;
  for (i64 i = 0; i < n; ++i) patterns *= 3;
  for (i64 p = 0; p < patterns; ++p) {
    Vec x(n, 0.0);
    std::vector<i64> freeIdx;
    i64 code = p;
    for (i64 i = 0; i < n; ++i, code /= 3) {
      const int kind = static_cast<int>(code % 3);
      if (kind == 0) freeIdx.push_back(i);
      x[i] = kind == 1 ? lo[i] : kind == 2 ? hi[i] : 0.0;
    }
    const i64 m = static_cast<i64>(freeIdx.size());
    Vec M(m * m), v(m);
    for (i64 a = 0; a < m; ++a) {
      v[a] = b[freeIdx[a]];
      for (i64 j = 0; j < n; ++j)
        if (std::find(freeIdx.begin(), freeIdx.end(), j) == freeIdx.end())
          v[a] -= A[at(freeIdx[a], j, n)] * x[j];
      for (i64 c = 0; c < m; ++c) M[at(a, c, m)] = A[at(freeIdx[a], freeIdx[c], n)];
    }
    const Vec y = m ? solveDense(M, v, m) : Vec();
    bool ok = true;
    for (i64 a = 0; a < m; ++a) {
      x[freeIdx[a]] = y[a];
      ok = ok && y[a] >= lo[freeIdx[a]] && y[a] <= hi[freeIdx[a]];
    }
    code = p;
    for (i64 i = 0; i < n && ok; ++i, code /= 3) {
      double gi = -b[i];
      for (i64 j = 0; j < n; ++j) gi += A[at(i, j, n)] * x[j];
      const int kind = static_cast<int>(code % 3);
      ok = (kind != 1 || gi >= 0.0) && (kind != 2 || gi <= 0.0);
    }
    if (ok) return x;
  }
  return {};
}

// A random strictly convex quadratic B diag(scale, 1, ..) B' / n + 0.3 I:
// condition below about 50 with scale 1.
void randomQuadratic(i64 n, std::mt19937_64& rng, Vec& A, Vec& b, double scale = 1.0) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Vec B(n * n);
  for (double& e : B) e = u(rng);
  A.assign(n * n, 0.0);
  b.assign(n, 0.0);
  for (i64 i = 0; i < n; ++i) {
    b[i] = 2.0 * u(rng);
    for (i64 j = 0; j < n; ++j) {
      double v = i == j ? 0.3 : 0.0;
      for (i64 k = 0; k < n; ++k) v += B[at(i, k, n)] * B[at(j, k, n)] * (k ? 1.0 : scale) / n;
      A[at(i, j, n)] = v;
    }
  }
}

// Random strictly convex quadratics in boxes that cut off the unconstrained
// minimiser, from starts inside, on bounds and in corners.  The answer
// meets the KKT conditions (free gradient within the stopping test, bound
// multipliers of the right sign up to the same resolution) and lies within
// 1e-6 of the exact minimiser: the stopping test bounds the free gradient
// by about 1e-7, and the smallest eigenvalue of A is at least 0.3.
TEST(Minimiser, ConvexQuadraticsWithActiveBounds) {
  std::mt19937_64 rng(77);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int withActive = 0;
  for (i64 n : {1, 2, 3, 5, 7}) {
    for (int rep = 0; rep < 6; ++rep) {
      Vec A, b;
      randomQuadratic(n, rng, A, b);
      Vec lo(n), hi(n), x0(n);
      for (i64 i = 0; i < n; ++i) {
        lo[i] = -0.5 + 0.4 * u(rng);
        hi[i] = 0.5 + 0.4 * u(rng);
        const int where = static_cast<int>(rng() % 3);
        x0[i] = where == 0 ? lo[i] : where == 1 ? hi[i] : 0.5 * (lo[i] + hi[i]);
      }
      const Vec xStar = boxQuadraticMinimiser(A, b, lo, hi);
      ASSERT_EQ(static_cast<i64>(xStar.size()), n);
      const Outcome r = minimise(quadratic(A, b), x0, lo, hi, Options{});
      ASSERT_EQ(r.mode, 1) << "n " << n << " rep " << rep;
      int held = 0;
      for (i64 i = 0; i < n; ++i) {
        EXPECT_NEAR(r.x[i], xStar[i], 1e-6) << "n " << n << " rep " << rep << " i " << i;
        // A step cut at a bound lands on it up to the rounding of x + t d.
        EXPECT_TRUE(r.x[i] >= lo[i] - 1e-15 && r.x[i] <= hi[i] + 1e-15) << r.x[i] - hi[i];
        const int active = r.iz[n + i];
        held += active != 0;
        if (active == 0) {
          EXPECT_LE(std::fabs(r.g[i]), 1e-6);
        } else {
          EXPECT_GE(active * -r.g[i], -1e-7);  // multiplier of the held bound
        }
      }
      EXPECT_EQ(r.iz[2 * n], n - held);
      EXPECT_LE(r.epsabs, 1e-7);  // root mean square of the free gradient
      EXPECT_EQ(r.nsim, r.calls + 1);
      withActive += held > 0;
    }
  }
  EXPECT_GT(withActive, 10);
}

// Ill-conditioned quadratics (one eigenvalue up to about 1000 times the
// others) from starts on lower bounds: bounds are met early and released
// later while a descent direction exists, by the predicted gain.  The
// minimiser is held to 1e-5: the smallest eigenvalue is at least 0.3 and
// the final free gradient is about 1e-7, or at the rounding level of f
// when the line search ends the run (mode 6).
TEST(Minimiser, IllConditionedQuadraticsReleaseBounds) {
  std::mt19937_64 rng(1);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int converged = 0;
  for (int rep = 0; rep < 40; ++rep) {
    const i64 n = 2 + rep % 5;
    Vec A, b;
    randomQuadratic(n, rng, A, b, std::pow(10.0, 2.0 + u(rng)));
    Vec lo(n), hi(n), x0(n);
    for (i64 i = 0; i < n; ++i) {
      lo[i] = -0.3 + 0.2 * u(rng);
      hi[i] = 0.3 + 0.2 * u(rng);
      x0[i] = rng() % 2 ? lo[i] + 0.5 * (hi[i] - lo[i]) * (1.0 + u(rng)) : lo[i];
    }
    const Vec xStar = boxQuadraticMinimiser(A, b, lo, hi);
    const Outcome r = minimise(quadratic(A, b), x0, lo, hi, Options{});
    EXPECT_TRUE(r.mode == 1 || r.mode == 6) << "rep " << rep << " mode " << r.mode;
    converged += r.mode == 1;
    for (i64 i = 0; i < n; ++i) EXPECT_NEAR(r.x[i], xStar[i], 1e-5) << "rep " << rep;
  }
  EXPECT_GE(converged, 30);
}

// Rosenbrock's function, free in a wide box and cut by a bound through its
// valley; the chained form in 6 variables.
TEST(Minimiser, RosenbrockInABox) {
  const Objective rosen = [](const double* x, double* g) {
    const double a = x[1] - x[0] * x[0], b = 1.0 - x[0];
    g[0] = -400.0 * x[0] * a - 2.0 * b;
    g[1] = 200.0 * a;
    return 100.0 * a * a + b * b;
  };
  Options o;
  o.epsabs = 1e-9;
  {
    const Outcome r = minimise(rosen, {-1.2, 1.0}, {-2.0, -2.0}, {2.0, 2.0}, o);
    EXPECT_EQ(r.mode, 1);
    EXPECT_NEAR(r.x[0], 1.0, 1e-7);
    EXPECT_NEAR(r.x[1], 1.0, 1e-7);
  }
  {
    // x(0) <= 0.5: minimum (0.5, 0.25), held at the upper bound with
    // derivative -1 in x(0).
    const Outcome r = minimise(rosen, {-1.2, 1.0}, {-2.0, -2.0}, {0.5, 2.0}, o);
    EXPECT_EQ(r.mode, 1);
    EXPECT_BITEQ(0.5, r.x[0]);
    EXPECT_NEAR(r.x[1], 0.25, 1e-9);
    EXPECT_EQ(r.iz[2], 1);  // active(0) = +1
    EXPECT_NEAR(r.g[0], -1.0, 1e-7);
  }
  {
    const Objective chained = [](const double* x, double* g) {
      double f = 0.0;
      for (int i = 0; i < 6; ++i) g[i] = 0.0;
      for (int i = 0; i + 1 < 6; ++i) {
        const double a = x[i + 1] - x[i] * x[i], b = 1.0 - x[i];
        f += 100.0 * a * a + b * b;
        g[i] += -400.0 * x[i] * a - 2.0 * b;
        g[i + 1] += 200.0 * a;
      }
      return f;
    };
    const Outcome r = minimise(chained, Vec(6, -1.0), Vec(6, -3.0), Vec(6, 3.0), o);
    EXPECT_EQ(r.mode, 1);
    for (double v : r.x) EXPECT_NEAR(v, 1.0, 1e-6);
  }
}

// 0.5 ||x - c||^2 with c outside the box in five of eight coordinates: the
// minimiser is c clipped, with five bounds active at once, reached
// exactly.
TEST(Minimiser, SeveralBoundsAtOnce) {
  const Vec c = {2.0, -3.0, 0.25, 5.0, -0.5, -1.5, 0.75, 1.5};
  const Objective f = [c](const double* x, double* g) {
    double s = 0.0;
    for (size_t i = 0; i < c.size(); ++i) {
      g[i] = x[i] - c[i];
      s += 0.5 * g[i] * g[i];
    }
    return s;
  };
  const Vec lo(8, -1.0), hi(8, 1.0);
  const Outcome r = minimise(f, Vec(8, 0.0), lo, hi, Options{});
  EXPECT_EQ(r.mode, 1);
  for (size_t i = 0; i < c.size(); ++i) {
    const double clipped = std::clamp(c[i], -1.0, 1.0);
    if (clipped != c[i]) {
      EXPECT_NEAR(clipped, r.x[i], 1e-15);
      EXPECT_EQ(r.iz[8 + i], clipped > 0 ? 1 : -1);
    } else {
      EXPECT_NEAR(r.x[i], c[i], 1e-9);
    }
  }
  EXPECT_EQ(r.iz[16], 3);
}

// All variables tied at the same step to their upper bounds: the first
// step stops there (tmax = 0.002, slope still too steep: logic 1, no
// update), and the next iteration finds them all at distance zero and
// activates them from the largest index down, so variable i ends at
// position i.
TEST(Minimiser, TieGoesToTheLargestIndex) {
  const Objective f = [](const double* x, double* g) {
    double s = 0.0;
    for (int i = 0; i < 4; ++i) {
      g[i] = x[i] - 1000.0;
      s += 0.5 * g[i] * g[i];
    }
    return s;
  };
  Options o;
  o.df1 = 1e6;  // first direction 500 in each variable
  const Outcome r = minimise(f, Vec(4, 0.0), Vec(4, -1.0), Vec(4, 1.0), o);
  EXPECT_EQ(r.mode, 1);
  // The first trial equals tmax without being flagged as cut (logic 0);
  // its extrapolation is cut back to tmax with logic 1, and that same point
  // is evaluated once more and accepted.
  EXPECT_EQ(r.calls, 2);
  EXPECT_EQ(r.iter, 2);
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(1.0, r.x[i], 1e-15);
    EXPECT_EQ(r.iz[4 + i], 1);
    EXPECT_EQ(r.iz[i], i + 1);
  }
  EXPECT_EQ(r.iz[8], 0);
  EXPECT_BITEQ(0.0, r.epsabs);
}

// Bounds met on the way and released again: f = 0.5 x'Ax with A =
// [1 -0.95; -0.95 1] has its minimiser 0 inside the box, but the first
// steps from (0.5, -0.9) run into x(0) = -0.1, where the reduced minimiser
// leaves a gradient pointing back into the box.  Likewise in eight
// variables coupled in a chain.
TEST(Minimiser, ReleasesBoundsWhoseMultiplierTurns) {
  {
    const Vec A = {1.0, -0.95, -0.95, 1.0};
    const Outcome r =
        minimise(quadratic(A, {0.0, 0.0}), {0.5, -0.9}, {-0.1, -1.0}, {1.0, 1.0}, Options{});
    EXPECT_EQ(r.mode, 1);
    EXPECT_EQ(r.iz[4], 2);
    EXPECT_NEAR(r.x[0], 0.0, 1e-6);
    EXPECT_NEAR(r.x[1], 0.0, 1e-6);
  }
  const i64 n = 8;
  Vec A(n * n, 0.0), b(n, 0.0);
  for (i64 i = 0; i < n; ++i) {
    A[at(i, i, n)] = 1.0;
    if (i + 1 < n) A[at(i, i + 1, n)] = A[at(i + 1, i, n)] = -0.45;
    b[i] = 0.05 * static_cast<double>(i % 3);
  }
  Vec lo(n, -0.05), hi(n, 1.0), x0(n);
  for (i64 i = 0; i < n; ++i) x0[i] = i % 2 ? 0.9 : -0.05;
  const Vec xStar = boxQuadraticMinimiser(A, b, lo, hi);
  const Outcome r = minimise(quadratic(A, b), x0, lo, hi, Options{});
  EXPECT_EQ(r.mode, 1);
  for (i64 i = 0; i < n; ++i) EXPECT_NEAR(r.x[i], xStar[i], 1e-6);
}

// A stationary start ends at once: mode 1, one iteration, the caller's
// evaluation only.  With all variables held and the gradient pushing out
// the simple release test decides the same.
TEST(Minimiser, StationaryStart) {
  const Objective f = [](const double* x, double* g) {
    g[0] = x[0] - 0.5;
    g[1] = 2.0 * (x[1] + 0.25);
    return 0.5 * g[0] * g[0] + 0.25 * g[1] * g[1];
  };
  Outcome r = minimise(f, {0.5, -0.25}, {-1.0, -1.0}, {1.0, 1.0}, Options{});
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.iter, 1);
  EXPECT_EQ(r.nsim, 1);
  EXPECT_EQ(r.calls, 0);
  EXPECT_EQ(r.iz[4], 2);
  r = minimise(f, {1.0, -1.0}, {-1.0, -1.0}, {1.0, 1.0}, Options{});  // g = (0.5, -1.5)
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.iz[4], 2);  // both pointing inwards: free
  const Objective out = [](const double* x, double* g) {
    g[0] = x[0] - 2.0;
    g[1] = 2.0 * (x[1] + 3.0);
    return 0.5 * g[0] * g[0] + 0.25 * g[1] * g[1];
  };
  r = minimise(out, {1.0, -1.0}, {-1.0, -1.0}, {1.0, 1.0}, Options{});  // g = (-1, 4)
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 0);
  EXPECT_EQ(r.iz[2], 1);
  EXPECT_EQ(r.iz[3], -1);
  EXPECT_EQ(r.iz[4], 0);

  // From a given matrix (mode 2) a variable within resolution of a bound is
  // held whatever its gradient; stationary in the other variable, the
  // simple test releases it at once, and the exact Hessian I reaches the
  // minimiser (0.5, -0.25) in one step.
  const Objective unit = [](const double* x, double* g) {
    g[0] = x[0] - 0.5;
    g[1] = x[1] + 0.25;
    return 0.5 * (g[0] * g[0] + g[1] * g[1]);
  };
  Outcome given;
  given.rz = {1.0, 0.0, 1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  given.iz.assign(5, 0);
  Options o;
  o.mode = 2;
  r = minimise(unit, {1.0, -0.25}, {-1.0, -1.0}, {1.0, 1.0}, o, &given);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.iz[4], 2);
  EXPECT_BITEQ(0.5, r.x[0]);
  EXPECT_BITEQ(-0.25, r.x[1]);
}

// The limits: iter = 1 does one whole iteration and returns mode 4 with
// iter 2; a simulation limit returns mode 5 with f and g refreshed at x by
// a final evaluation that nap does not count.
TEST(Minimiser, Limits) {
  const Objective rosen = [](const double* x, double* g) {
    const double a = x[1] - x[0] * x[0], b = 1.0 - x[0];
    g[0] = -400.0 * x[0] * a - 2.0 * b;
    g[1] = 200.0 * a;
    return 100.0 * a * a + b * b;
  };
  const Vec lo(2, -2.0), hi(2, 2.0);
  Options o;
  o.iter = 1;
  Outcome r = minimise(rosen, {-1.2, 1.0}, lo, hi, o);
  EXPECT_EQ(r.mode, 4);
  EXPECT_EQ(r.iter, 2);
  EXPECT_GE(r.calls, 1);
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
  o = Options{};
  o.iter = 1;
  o.df1 = 8.0;
  o.dxmin = 0.5;
  r = minimise(parabola, {1.0}, {-10.0}, {10.0}, o);
  EXPECT_EQ(r.mode, 4);
  EXPECT_EQ(r.nsim, 3);
  EXPECT_BITEQ(0.0, r.x[0]);
  EXPECT_BITEQ(0.0, r.g[0]);
  EXPECT_BITEQ(7.0, r.rz[0]);

  o = Options{};
  o.nsim = 4;
  r = minimise(rosen, {-1.2, 1.0}, lo, hi, o);
  EXPECT_EQ(r.mode, 5);
  EXPECT_EQ(r.nsim, 5);       // nap passed its limit by one
  EXPECT_EQ(r.calls, 4);      // three counted simulations and the final one
  Vec g(2);
  EXPECT_BITEQ(rosen(r.x.data(), g.data()), r.f);
  EXPECT_BITEQ(g[0], r.g[0]);
  EXPECT_BITEQ(g[1], r.g[1]);

  // A simulator that asks to stop on its third call: mode 0 at that point.
  const Objective stopping = [&rosen](const double* x, double* g) {
    if (gCalls == 3) gStop = true;
    return rosen(x, g);
  };
  r = minimise(stopping, {-1.2, 1.0}, lo, hi, Options{});
  EXPECT_EQ(r.mode, 0);
  EXPECT_EQ(r.calls, 3);
  EXPECT_EQ(r.nsim, 4);
}

// A warm start continues with the arrays of the previous run and reaches
// the same minimiser; starts from a given matrix (mode 2) or factor (mode
// 3) take the exact Hessian of a quadratic to its minimiser in one step.
TEST(Minimiser, WarmStartAndGivenHessian) {
  std::mt19937_64 rng(4);
  Vec A, b;
  randomQuadratic(4, rng, A, b);
  const Vec lo(4, -10.0), hi(4, 10.0);
  const Vec xStar = boxQuadraticMinimiser(A, b, lo, hi);
  Options o;
  o.iter = 2;
  const Outcome first = minimise(quadratic(A, b), Vec(4, 0.0), lo, hi, o);
  ASSERT_EQ(first.mode, 4);
  o = Options{};
  o.mode = 4;
  const Outcome warm = minimise(quadratic(A, b), first.x, lo, hi, o, &first);
  EXPECT_EQ(warm.mode, 1);
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(warm.x[i], xStar[i], 1e-6);

  Outcome given;
  given.rz.assign((4 + 9) * 4 / 2, 0.0);
  given.iz.assign(9, 0);
  for (i64 j = 0; j < 4; ++j)
    for (i64 i = j; i < 4; ++i) given.rz[factorAt(i, j, 4)] = A[at(i, j, 4)];
  o.mode = 2;
  Outcome r = minimise(quadratic(A, b), Vec(4, 0.0), lo, hi, o, &given);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.iter, 2);
  EXPECT_EQ(r.calls, 1);
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(r.x[i], xStar[i], 1e-12);

  int rank = 0;
  factorFromMatrix(given.rz.data(), 4, rank);
  o.mode = 3;
  r = minimise(quadratic(A, b), Vec(4, 0.0), lo, hi, o, &given);
  EXPECT_EQ(r.mode, 1);
  EXPECT_EQ(r.calls, 1);

  // A warm start whose H is indefinite across the bound: variable 1 free
  // (D = 1), variable 2 held at its upper bound with H(1,2) = 2, H(2,2) = 1.
  // Stationary in variable 1, the simple test releases variable 2, whose
  // Schur complement 1 - 2^2 / 1 is negative: mode 7, nothing moved.
  {
    const Objective f2 = [](const double* x, double* g) {
      g[0] = x[0];
      g[1] = x[1] - 0.5;
      return 0.5 * (x[0] * x[0] + g[1] * g[1]);
    };
    Outcome bad;
    bad.iz = {1, 2, 0, 1, 1};
    bad.rz.assign(11, 0.0);
    bad.rz[0] = 1.0;  // T: D(0)
    bad.rz[1] = 2.0;  // R: H(0, 1)
    bad.rz[2] = 1.0;  // Q: H(1, 1)
    Options w;
    w.mode = 4;
    const Outcome r7 = minimise(f2, {0.0, 1.0}, {-1.0, -1.0}, {1.0, 1.0}, w, &bad);
    EXPECT_EQ(r7.mode, 7);
    EXPECT_EQ(r7.iter, 1);
    EXPECT_EQ(r7.calls, 0);
    EXPECT_BITEQ(0.0, r7.x[0]);
    EXPECT_BITEQ(1.0, r7.x[1]);
  }

  // An indefinite matrix is replaced by the diagonal start.
  for (double& e : given.rz) e = 0.0;
  given.rz[factorAt(0, 0, 4)] = -1.0;
  o.mode = 2;
  r = minimise(quadratic(A, b), Vec(4, 0.0), lo, hi, o, &given);
  EXPECT_EQ(r.mode, 1);
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(r.x[i], xStar[i], 1e-6);
}

// Bad calls end with mode 2 and nothing moved; a simulator that returns
// NaN ends in one of the documented modes within the limits.
TEST(Minimiser, BadCalls) {
  const Objective f = [](const double* x, double* g) {
    g[0] = x[0];
    return 0.5 * x[0] * x[0];
  };
  struct Case {
    int n, mode, iter, nsim, imp;
    double df1, epsabs, dxmin, x, lo, hi;
  } cases[] = {
      {0, 1, 10, 10, 0, 1.0, 0.0, 1e-9, 0.5, -1.0, 1.0},   // n
      {1, 1, 10, 10, 0, 0.0, 0.0, 1e-9, 0.5, -1.0, 1.0},   // df1 in mode 1
      {1, 1, 10, 10, 0, 1.0, -1.0, 1e-9, 0.5, -1.0, 1.0},  // epsabs
      {1, 1, 10, 10, 6, 1.0, 0.0, 1e-9, 0.5, -1.0, 1.0},   // imp
      {1, 0, 10, 10, 0, 1.0, 0.0, 1e-9, 0.5, -1.0, 1.0},   // mode
      {1, 5, 10, 10, 0, 1.0, 0.0, 1e-9, 0.5, -1.0, 1.0},   // mode
      {1, 1, 0, 10, 0, 1.0, 0.0, 1e-9, 0.5, -1.0, 1.0},    // iter
      {1, 1, 10, 0, 0, 1.0, 0.0, 1e-9, 0.5, -1.0, 1.0},    // nsim
      {1, 1, 10, 10, 0, 1.0, 0.0, 0.0, 0.5, -1.0, 1.0},    // dxmin
      {1, 1, 10, 10, 0, 1.0, 0.0, -1.0, 0.5, -1.0, 1.0},   // dxmin
      {1, 1, 10, 10, 0, 1.0, 0.0, 1e-9, 0.5, 1.0, -1.0},   // inconsistent bounds
      {1, 1, 10, 10, 0, 1.0, 0.0, 1e-9, 1.5, -1.0, 1.0},   // start outside
  };
  for (const Case& c : cases) {
    gObjective = &f;
    gCalls = 0;
    double x[1] = {c.x}, g[1] = {7.0}, fv = 3.0, eps = c.epsabs, dx[1] = {c.dxmin};
    double lo[1] = {c.lo}, hi[1] = {c.hi}, rz[6] = {}, df1 = c.df1;
    int iz[3] = {}, mode = c.mode, iter = c.iter, nsim = c.nsim;
    n2qn1(simulator, c.n, x, fv, g, dx, df1, eps, c.imp, 6, mode, iter, nsim, lo, hi, iz, rz,
          nullptr, nullptr, nullptr);
    EXPECT_EQ(mode, 2);
    EXPECT_BITEQ(c.x, x[0]);
    EXPECT_BITEQ(3.0, fv);
    EXPECT_BITEQ(7.0, g[0]);
    EXPECT_BITEQ(c.epsabs, eps);
    EXPECT_EQ(iter, c.iter);
    EXPECT_EQ(nsim, c.nsim);
    EXPECT_EQ(gCalls, 0);
  }
  // A warm start on arrays that no run has left.
  {
    const Objective f2 = [](const double* x, double* g) {
      g[0] = x[0];
      g[1] = x[1];
      return 0.5 * (x[0] * x[0] + x[1] * x[1]);
    };
    const Vec lo(2, -1.0), hi(2, 1.0);
    Outcome blank;
    blank.iz = {1, 1, 0, 0, 2};  // position not a permutation
    blank.rz.assign(11, 0.0);
    Options o;
    o.mode = 4;
    EXPECT_EQ(minimise(f2, {0.5, 0.5}, lo, hi, o, &blank).mode, 2);
    blank.iz = {1, 2, 0, -1, 2};  // a held variable among the free positions
    EXPECT_EQ(minimise(f2, {0.5, 0.5}, lo, hi, o, &blank).mode, 2);
  }

  // NaN from the second evaluation on, in a box and without bounds: such
  // points fail the descent test, the bracket shrinks onto the start and
  // the run ends there with no further progress (mode 6), f finite.
  for (double bound : {2.0, 1e20}) {
    const Objective nan = [](const double* x, double* g) {
      if (gCalls >= 1) {
        g[0] = g[1] = std::numeric_limits<double>::quiet_NaN();
        return std::numeric_limits<double>::quiet_NaN();
      }
      g[0] = x[0] - 1.0;
      g[1] = x[1] + 1.0;
      return 0.5 * (g[0] * g[0] + g[1] * g[1]);
    };
    Options o;
    o.iter = 50;
    o.nsim = 150;
    const Outcome r = minimise(nan, {0.0, 0.0}, Vec(2, -bound), Vec(2, bound), o);
    EXPECT_EQ(r.mode, 6);
    EXPECT_BITEQ(0.0, r.x[0]);
    EXPECT_BITEQ(0.0, r.x[1]);
    EXPECT_BITEQ(1.0, r.f);
    EXPECT_LE(r.calls, 150);
  }
  // NaN at the caller's evaluation already.
  const Objective nanFirst = [](const double*, double* g) {
    g[0] = std::numeric_limits<double>::quiet_NaN();
    return std::numeric_limits<double>::quiet_NaN();
  };
  const Outcome r = minimise(nanFirst, {0.0}, {-1.0}, {1.0}, Options{});
  EXPECT_EQ(r.mode, 6);
  EXPECT_EQ(r.calls, 0);
}

}  // namespace
