// SPDX-License-Identifier: Apache-2.0
// Standard normal distribution: lower and upper tail areas, and the quantile
// by Newton's iteration from a rational starting value.
#pragma once

namespace lumbra::stats {

// a(0) + a(1) x + ... + a(k-1) x^(k-1) by Horner's rule from a(k-1) down;
// for k < 2 simply a(k-1).
double polyEval(const double* a, const int& k, const double& x);

// i = 1: spacing of doubles at 1.0 (2^-52); i = 2: smallest normal double
// (2^-1022).  Both are formed from the integers of the binary64 format.
double machineConstant(const int& i);

// cum := P(X <= x), ccum := P(X > x) for a standard normal X.
void normalCdf(const double& x, double& cum, double& ccum);

// Rational approximation of the p-quantile, the start of the iteration.
double normalQuantileStart(const double& p);

// The point with lower tail area p, given p and q = 1 - p.
double normalQuantile(const double& p, const double& q);

}  // namespace lumbra::stats
