// SPDX-License-Identifier: Apache-2.0
// Standard normal distribution function and quantile.
#include "stats/normal.h"

#include <cmath>

namespace lumbra::stats {

namespace {

// Integers of the binary64 format from which the two machine constants are
// formed: radix, mantissa digits, smallest exponent.
constexpr int kRadix = 2;
constexpr int kDigits = 53;
constexpr int kMinExponent = -1021;

// Region limits of the distribution function: the central rational fit holds
// for |x| <= 0.66291, the middle one up to sqrt(32) (stored to nine decimals),
// the asymptotic one beyond.
constexpr double kCentralLimit = 0.66291;
constexpr double kTailLimit = 5.656854248;
// x^2 / 2 is split as u^2 / 2 + (x - u)(x + u) / 2 with u a multiple of
// 1 / 1.6, so that exp(-x^2 / 2) loses little to the rounding of x^2.
constexpr double kSplit = 1.6;
// 1 / sqrt(2 pi) in the asymptotic tail.
constexpr double kTailDensity = 0.3989422804014327;
// 1 / sqrt(2 pi) in the Newton step; it differs from the tail constant in
// the last digit and is kept as it is.
constexpr double kNewtonDensity = 0.3989422804014326;
constexpr int kNewtonLimit = 100;
constexpr double kNewtonTolerance = 1e-13;

// Central region: x num(x^2) / den(x^2).
constexpr double kA[5] = {2.2352520354606837, 161.02823106855587, 1067.6894854603709,
                          18154.98125334356, 0.06568233791820745};
constexpr double kB[4] = {47.202581904688245, 976.0985517377767, 10260.932208618979,
                          45507.78933502673};
// Middle region: exp(-x^2 / 2) num(y) / den(y).
constexpr double kC[9] = {0.39894151208813466, 8.883149794388377,  93.50665613217785,
                          597.2702763948002,   2494.5375852903726, 6848.190450536283,
                          11602.65143764735,   9842.714838383978,  1.0765576773720192e-08};
constexpr double kD[8] = {22.266688044328117, 235.387901782625,   1519.3775994075547,
                          6485.558298266761,  18615.571640885097, 34900.95272114598,
                          38912.00328609327,  19685.429676859992};
// Tail region: asymptotic series in 1 / x^2.
constexpr double kP[6] = {0.215898534057957,     0.12740116116024736,
                          0.022235277870649807,  0.0014216191932278934,
                          2.9112874951168793e-05, 0.023073441764940174};
constexpr double kQ[5] = {1.284260096144911, 0.4682382124808651, 0.06598813786892856,
                          0.0037823963320275824, 7.297515550839662e-05};
// Starting value: y + N(y) / E(y) with y = sqrt(-2 ln p).
constexpr double kStartN[5] = {-0.322232431088, -1.0, -0.342242088547, -0.0204231210245,
                               -4.53642210148e-05};
constexpr double kStartE[5] = {0.099348462606, 0.588581570495, 0.531103462366,
                               0.10353775285, 0.0038560700634};

// radix^k for an integer k, by repeated multiplication or division (exact
// for a power of two).
double radixPower(int k) {
  double r = 1.0;
  for (int i = 0; i < k; ++i) r *= kRadix;
  for (int i = 0; i > k; --i) r /= kRadix;
  return r;
}

// exp(-u^2 / 2) exp(-d) t with u := trunc(v * 1.6) / 1.6 and
// d := (v - u)(v + u) / 2: the tail area of the two outer regions.
double splitExpTail(const double& v, const double& t) {
  const double u = std::trunc(v * kSplit) / kSplit;
  const double d = ((v - u) * 0.5) * (v + u);
  return (std::exp(0.0 - (0.5 * u) * u) * std::exp(0.0 - d)) * t;
}

// Central region: cum, ccum := 0.5 +- x num(s) / den(s), s = x^2.
void cdfCentral(const double& x, const double& y, double& cum, double& ccum) {
  const double eps = machineConstant(1);
  const double s = y > eps * 0.5 ? x * x : 0.0;
  const double num = (((kA[4] * s + kA[0]) * s + kA[1]) * s + kA[2]) * s + kA[3];
  const double den = (((s + kB[0]) * s + kB[1]) * s + kB[2]) * s + kB[3];
  const double t = x * num / den;
  cum = 0.5 + t;
  ccum = 0.5 - t;
}

// Middle region: r := exp(-y^2 / 2) num(y) / den(y), the area beyond y.
double cdfMiddleTail(const double& y) {
  double num = kC[8] * y;
  double den = y;
  for (int i = 0; i < 7; ++i) {
    num = (num + kC[i]) * y;
    den = (den + kD[i]) * y;
  }
  num = num + kC[7];
  den = den + kD[7];
  return splitExpTail(y, num / den);
}

// Tail region: r := exp(-x^2 / 2) (1/sqrt(2 pi) - q num(q) / den(q)) / y,
// q = 1 / x^2; the exponent split runs on x itself.
double cdfFarTail(const double& x, const double& y) {
  const double q = 1.0 / (x * x);
  const double num = ((((kP[5] * q + kP[0]) * q + kP[1]) * q + kP[2]) * q + kP[3]) * q + kP[4];
  const double den = ((((q + kQ[0]) * q + kQ[1]) * q + kQ[2]) * q + kQ[3]) * q + kQ[4];
  const double t = (kTailDensity - (num * q) / den) / y;
  return splitExpTail(x, t);
}

}  // namespace

// r := a(k-1); r := r x + a(i) for i = k-2 down to 0.
double polyEval(const double* a, const int& k, const double& x) {
  double r = a[k - 1];
  for (int i = k - 2; i >= 0; --i) r = r * x + a[i];
  return r;
}

// eps = radix^(1 - digits), tiny = radix^(minExponent + 2) / radix^3.
double machineConstant(const int& i) {
  if (i == 1) return radixPower(1 - kDigits);
  if (i == 2) return radixPower(kMinExponent + 2) / radixPower(3);
  return 0.0;
}

// Three regions in y = |x|; tail areas below the smallest normal double
// are flushed to 0.0.
void normalCdf(const double& x, double& cum, double& ccum) {
  const double y = std::fabs(x);
  if (y <= kCentralLimit) {
    cdfCentral(x, y, cum, ccum);
  } else {
    const double r = y <= kTailLimit ? cdfMiddleTail(y) : cdfFarTail(x, y);
    if (x > 0.0) {
      cum = 1.0 - r;
      ccum = r;
    } else {
      cum = r;
      ccum = 1.0 - r;
    }
  }
  const double tiny = machineConstant(2);
  if (cum < tiny) cum = 0.0;
  if (ccum < tiny) ccum = 0.0;
}

// -(y + N(y) / E(y)) for the lower tail area s = min(p, 1 - p), y = sqrt(-2 ln s);
// the sign follows the side of p.
double normalQuantileStart(const double& p) {
  const bool lower = 0.5 >= p;
  const double s = lower ? p : 1.0 - p;
  const double y = std::sqrt(0.0 - (std::log(s) + std::log(s)));
  const double v = polyEval(kStartN, 5, y) / polyEval(kStartE, 5, y) + y;
  return lower ? -1.0 * v : 1.0 * v;
}

// Newton on the lower tail: x := x - (Phi(x) - pp) / phi(x) with pp = min(p, q),
// until the relative step is below 1e-13; the sign is restored at the end.
// Without convergence in 100 steps the starting value is returned.
double normalQuantile(const double& p, const double& q) {
  const bool small = p <= q;
  const double pp = small ? p : q;
  const double x0 = normalQuantileStart(pp);
  double x = x0;
  for (int iter = 0; iter < kNewtonLimit; ++iter) {
    double cum = 0.0, ccum = 0.0;
    normalCdf(x, cum, ccum);
    const double dx = (cum - pp) / (std::exp((-0.5 * x) * x) * kNewtonDensity);
    const double xn = x - dx;
    if (std::fabs(dx / xn) < kNewtonTolerance) return small ? xn : -xn;
    x = xn;
  }
  return small ? x0 : -x0;
}

}  // namespace lumbra::stats
