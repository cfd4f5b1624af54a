// SPDX-License-Identifier: Apache-2.0
// Simple and logarithmic returns over a lag.
#include "stats/returns.h"

#include <cmath>

#include "kernels/index.h"
#include "kernels/status.h"

namespace lumbra::stats {
namespace {

constexpr int kStatusBadDimensions = ORX_STATUS_TOO_FEW_OBSERVATIONS;
constexpr int kStatusTinyPrice = ORX_STATUS_UNUSABLE_RETURN;

// R(t,j) := f(P(t+lag,j), P(t,j)) for t = 0 .. T-lag-1, asset by asset;
// stops with -103 at the first denominator below floor.
template <class Return>
void lagReturns(const int& T, const int& n, const double* P, const int& lag, double* R,
                int& status, double floor, Return value) {
  if (T <= lag) {
    status = kStatusBadDimensions;
    return;
  }
  const i64 rows = i64{T} - lag;
  for (i64 j = 0; j < n; ++j) {
    for (i64 t = 0; t < rows; ++t) {
      const double b = P[at(t, j, T)];
      if (floor > b) {
        status = kStatusTinyPrice;
        return;
      }
      R[at(t, j, rows)] = value(P[at(t + lag, j, T)], b);
    }
  }
  status = 0;
}

// The same returns on the transposed tables Pt = P' (n by T) and
// Rt = R' (n by T-lag), with the same elements written: all of them when
// no denominator lies below floor, else, like lagReturns, those before the
// first such denominator in asset-by-asset order, the rest left untouched.
// Each element is the same operation on the same two prices, so the values
// are the same bit for bit; the common case sweeps both tables along
// contiguous memory.
template <class Return>
void lagReturnsTransposed(const int& T, const int& n, const double* Pt, const int& lag,
                          double* Rt, int& status, double floor, Return value) {
  if (T <= lag) {
    status = kStatusBadDimensions;
    return;
  }
  const i64 rows = i64{T} - lag, m = n;
  bool tiny = false;
  for (i64 k = 0; k < rows * m; ++k) tiny |= floor > Pt[k];
  if (!tiny) {
    for (i64 t = 0; t < rows; ++t)
      for (i64 j = 0; j < m; ++j) Rt[at(j, t, m)] = value(Pt[at(j, t + lag, m)], Pt[at(j, t, m)]);
    status = 0;
    return;
  }
  // Where lagReturns stops: the first tiny denominator, asset by asset.
  i64 stopJ = m, stopT = rows;
  for (i64 j = 0; j < m && stopJ == m; ++j)
    for (i64 t = 0; t < rows; ++t)
      if (floor > Pt[at(j, t, m)]) {
        stopJ = j;
        stopT = t;
        break;
      }
  for (i64 j = 0; j <= stopJ && j < m; ++j) {
    const i64 last = j < stopJ ? rows : stopT;
    for (i64 t = 0; t < last; ++t) Rt[at(j, t, m)] = value(Pt[at(j, t + lag, m)], Pt[at(j, t, m)]);
  }
  status = kStatusTinyPrice;
}

// (later - b) / b and log(later / b): one division, then one logarithm.
double simpleReturn(double later, double b) { return (later - b) / b; }
double logReturn(double later, double b) { return std::log(later / b); }

}  // namespace

// R(t,j) := (P(t+lag,j) - P(t,j)) / P(t,j)
void modelingReturnsSimple(const int& T, const int& n, const double* P, const int& lag,
                           double* R, int& status) {
  lagReturns(T, n, P, lag, R, status, kSimpleReturnFloor, simpleReturn);
}

// R(t,j) := log(P(t+lag,j) / P(t,j)): one division, then one logarithm.
void modelingReturnsLog(const int& T, const int& n, const double* P, const int& lag,
                        double* R, int& status) {
  lagReturns(T, n, P, lag, R, status, kLogReturnFloor, logReturn);
}

// modelingReturnsSimple on Pt = P' and Rt = R'.
void modelingReturnsSimpleTransposed(const int& T, const int& n, const double* Pt,
                                     const int& lag, double* Rt, int& status) {
  lagReturnsTransposed(T, n, Pt, lag, Rt, status, kSimpleReturnFloor, simpleReturn);
}

// modelingReturnsLog on Pt = P' and Rt = R'.
void modelingReturnsLogTransposed(const int& T, const int& n, const double* Pt, const int& lag,
                                  double* Rt, int& status) {
  lagReturnsTransposed(T, n, Pt, lag, Rt, status, kLogReturnFloor, logReturn);
}

}  // namespace lumbra::stats
