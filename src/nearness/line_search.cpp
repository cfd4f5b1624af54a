// SPDX-License-Identifier: Apache-2.0
// Line search nlis0 of the minimiser n2qn1: a step satisfying the two Wolfe
// conditions, found by bracketing between a lower end tg (descent test met,
// slope still too steep) and an upper end td (descent test failed), with
// cubic interpolation inside the bracket and safeguarded cubic
// extrapolation before one exists.
#include <algorithm>
#include <cmath>

#include "kernels/index.h"
#include "nearness/minimiser_internal.h"

namespace lumbra::nearness {

namespace {

constexpr double kRoundingShare = 0.9;      // share of the slope that must show in f + t fp
constexpr double kExtrapolationLimit = 9.0;  // an extrapolated step grows t at most tenfold
constexpr double kBracketMargin = 0.1;       // interpolated steps keep this share off each end
constexpr double kBracketRest = 0.9;         // weight of tg after a refused point

// The ends of the bracket, the previous trial and the simulator's reports.
struct Bracket {
  double tg, fg, fpg;  // lower end: descent test met
  double td;           // upper end; 0.0 while there is none
  double ta, fa, fpa;  // previous trial
  int indicd;          // report at the trial that last set td
  int indicPrev;       // report of the simulation before
};

// x := x + t d.
void moveAlong(i64 n, double* x, double t, const double* d) {
  for (i64 i = 0; i < n; ++i) x[i] = x[i] + t * d[i];
}

// True when x + t d is, in every component, x itself or the last trial xn:
// the next trial would not be a new point.
bool noNewPoint(i64 n, const double* x, double t, const double* d, const double* xn) {
  for (i64 i = 0; i < n; ++i) {
    const double v = x[i] + t * d[i];
    if (v != x[i] && v != xn[i]) return false;
  }
  return true;
}

// Safeguarded cubic extrapolation from the trial t (value f + df, slope
// fpn) with c = 3 fpn + fp - 4 df / t: t + min(9 t, t max(1, -fpn / c))
// when c > 0, else t + 9 t; cut at tmax with logic 1.
void extrapolate(double& t, double fp, double fpn, double df, double tmax, int& logic) {
  const double c = 3.0 * fpn + fp - 4.0 * df / t;
  double step = kExtrapolationLimit * t;
  if (c > 0.0) step = std::min(step, t * std::max(1.0, -fpn / c));
  const double tnew = t + step;
  if (tmax > tnew) {
    t = tnew;
  } else {
    t = tmax;
    logic = 1;
  }
}

// Cubic interpolation between the previous trial (ta, fa, fpa) and this one
// (t, fn, fpn), confined to [tg + 0.1 (td - tg), td - 0.1 (td - tg)];
// bisection when the cubic has no minimum, and 0.1 td + 0.9 tg after a
// refused point.
void interpolate(double& t, double fn, double fpn, const Bracket& b) {
  double tnew;
  if (b.indicPrev < 1) {
    tnew = kBracketMargin * b.td + kBracketRest * b.tg;
  } else {
    const double den = b.ta - t;
    const double a = 3.0 * (b.fa - fn) / den;
    const double bb = b.fpa - a + fpn;
    const double disc = bb * bb - b.fpa * fpn;
    if (disc < 0.0) {
      tnew = (b.tg + b.td) * 0.5;
    } else {
      double r = disc;
      if (b.ta > t) r = bb - std::sqrt(disc);
      if (t > b.ta) r = std::sqrt(disc) + bb;
      tnew = t + den * fpn / (r + fpn);
      const double width = b.td - b.tg;
      tnew = std::max(b.tg + kBracketMargin * width, tnew);
      tnew = std::min(b.td - kBracketMargin * width, tnew);
    }
  }
  t = tnew;
}

}  // namespace

// sum u(i) v(i), ascending i.
void dotProduct(const int& n, const double* u, const double* v, double& result, int*, double*,
                double*) {
  double sum = 0.0;
  for (i64 i = 0; i < n; ++i) sum += u[i] * v[i];
  result = sum;
}

// Start: checks, rounding-doubling of t, cut at tmax.  Loop: simulate at
// x + t d; accept on both tests (or on the descent test at tmax); otherwise
// move an end of the bracket and choose the next t; end when the bracket is
// narrower than tmin or no new point remains, keeping the best lower point.
void nlis0(const int& n, Simulator simul, ScalarProduct prosca, double* x, double& f,
           const double& fp, double& t, double& tmin, const double& tmax, const double* d,
           double* g, const double& amd, const double& amf, const int&, const int&, int& logic,
           int& nap, const int& napmax, double* xn, int* izs, double* rzs, double* dzs) {
  if (!(n >= 1 && fp < 0.0 && t > 0.0 && tmax > 0.0 && amf > 0.0 && amd > amf && amd < 1.0)) {
    logic = 6;
    return;
  }
  const double m1 = amf * fp;  // descent test: f(t) - f <= t m1
  const double m2 = amd * fp;  // slope test: f'(t) > m2
  if (t <= tmin) {
    t = tmin;
    if (tmax < tmin) tmin = tmax;
  }
  // Double a step so small that 10 percent of the slope vanishes in the
  // rounding of f + t fp (only a finite t can ever show it).
  while (!(f + t * (kRoundingShare * fp) > f + t * fp) && std::isfinite(t)) t = 2.0 * t;
  if (t > tmax) {
    t = tmax;
    logic = 1;
  } else {
    logic = 0;
  }
  for (i64 i = 0; i < n; ++i) xn[i] = x[i] + t * d[i];

  Bracket b{0.0, f, fp, 0.0, 0.0, f, fp, 0, 1};
  for (;;) {
    nap += 1;
    if (nap > napmax) {
      logic = 4;
      f = b.fg;
      if (b.tg != 0.0) moveAlong(n, x, b.tg, d);
      return;
    }
    int indic = 4;
    double fn = 0.0;
    simul(indic, n, xn, fn, g, izs, dzs);
    if (indic == 0) {
      f = fn;
      logic = 5;
      for (i64 i = 0; i < n; ++i) x[i] = xn[i];
      return;
    }
    if (indic < 0) {
      // The point cannot be computed: it becomes the upper end.
      b.indicd = indic;
      b.td = t;
      logic = 0;
      t = b.tg + kBracketMargin * (b.td - b.tg);
    } else {
      double fpn = 0.0;
      prosca(n, d, g, fpn, izs, rzs, dzs);
      const double df = fn - f;
      const double tried = t;
      // Descent test: f(t) - f <= t m1.  A value that is not a number
      // fails it, so such a point becomes an upper end and is never kept.
      if (!(df <= t * m1)) {
        logic = 0;
        b.td = t;
        b.indicd = indic;
        interpolate(t, fn, fpn, b);
      } else {
        if (fpn > m2 || logic == 1) {
          if (fpn > m2) logic = 0;
          f = fn;
          for (i64 i = 0; i < n; ++i) x[i] = xn[i];
          return;
        }
        b.tg = t;
        b.fg = fn;
        b.fpg = fpn;
        if (b.td == 0.0)
          extrapolate(t, fp, fpn, df, tmax, logic);
        else
          interpolate(t, fn, fpn, b);
      }
      b.ta = tried;
      b.fa = fn;
      b.fpa = fpn;
    }
    b.indicPrev = indic;
    if (b.td != 0.0 && (tmin > b.td - b.tg || noNewPoint(n, x, t, d, xn))) {
      logic = b.indicd < 0 ? b.indicd : 6;
      if (b.tg != 0.0) {
        f = b.fg;
        moveAlong(n, x, b.tg, d);
      }
      return;
    }
    for (i64 i = 0; i < n; ++i) xn[i] = x[i] + t * d[i];
  }
}

}  // namespace lumbra::nearness
