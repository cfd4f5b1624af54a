// SPDX-License-Identifier: Apache-2.0
// Return series: simple and logarithmic returns of a price table over a
// fixed lag.  P is column-major T by n; R is column-major (T - lag) by n.
#pragma once
#include "kernels/widened.h"

namespace lumbra::stats {

// Denominator limits of the two return routines: the double nearest 1e-30,
// and the single-precision value of 1e-15 widened to double.
inline constexpr double kSimpleReturnFloor = 1e-30;
inline constexpr double kLogReturnFloor = widened::k1em15;

void modelingReturnsSimple(const int& T, const int& n, const double* P, const int& lag,
                           double* R, int& status);
void modelingReturnsLog(const int& T, const int& n, const double* P, const int& lag,
                        double* R, int& status);

// The same two computations on the transposed tables, Pt = P' (n by T) and
// Rt = R' (n by T - lag): the layouts of a caller's row-major tables.  Same
// values and the same elements written, status included, bit for bit.
void modelingReturnsSimpleTransposed(const int& T, const int& n, const double* Pt,
                                     const int& lag, double* Rt, int& status);
void modelingReturnsLogTransposed(const int& T, const int& n, const double* Pt, const int& lag,
                                  double* Rt, int& status);

}  // namespace lumbra::stats
