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

}  // namespace

// R(t,j) := (P(t+lag,j) - P(t,j)) / P(t,j)
void modelingReturnsSimple(const int& T, const int& n, const double* P, const int& lag,
                           double* R, int& status) {
  lagReturns(T, n, P, lag, R, status, kSimpleReturnFloor,
             [](double later, double b) { return (later - b) / b; });
}

// R(t,j) := log(P(t+lag,j) / P(t,j)): one division, then one logarithm.
void modelingReturnsLog(const int& T, const int& n, const double* P, const int& lag,
                        double* R, int& status) {
  lagReturns(T, n, P, lag, R, status, kLogReturnFloor,
             [](double later, double b) { return std::log(later / b); });
}

}  // namespace lumbra::stats
