// SPDX-License-Identifier: Apache-2.0
// Exports of the data-modelling family: return series, covariance,
// correlation and matrix nearness.
#include <cmath>

#include "api/frame.h"
#include "kernels/kernels.h"
#include "lumbra.h"
#include "nearness/nearness.h"
#include "nearness/sdls.h"
#include "stats/analysis.h"
#include "stats/covariance.h"
#include "stats/returns.h"

namespace lumbra::api {
namespace {

// Tests of the two return exports: nObs, then prices, a bad nSeries
// replacing either; the scan for a price that is not positive and finite
// only when all passed so far; a bad lag replacing everything.
int returnsArgumentStatus(int nObs, int nSeries, const double* prices, int lag) {
  int failure = 0;
  if (nObs < 2) failure = kArgBase + 1;
  else if (prices == nullptr) failure = kArgBase + 3;
  if (nSeries < 1) failure = kArgBase + 2;
  if (failure == 0) {
    const i64 count = i64{nObs} * nSeries;
    // A price must be a positive finite number; written so that a NaN
    // fails as well.
    for (i64 k = 0; k < count; ++k)
      if (!(prices[k] > 0.0 && prices[k] < HUGE_VAL)) {
        failure = kArgBase + 3;
        break;
      }
  }
  if (lag <= 0 || lag >= nObs) failure = kArgBase + 4;
  return failure;
}

using ReturnsEngine = void (*)(const int&, const int&, const double*, const int&, double*,
                               int&);

// The frame of both return exports; they need no work array.  The caller's
// row-major price and result tables are, read as they stand, the
// column-major P' and R', on which the engine's transposed routines work
// directly: every return is an operation on two prices, so converting both
// tables there and back would only move numbers.  The caller's prices are
// not written during the call.
int returnsExport(ReturnsEngine engine, int* nObs, int* nSeries, double* prices, int* lag,
                  double* result, int* status) {
  FrameCall call;
  call.failure = returnsArgumentStatus(*nObs, *nSeries, prices, *lag);
  call.out = result;
  call.outCount = sizeMul(*nSeries, i64{*nObs} - *lag);
  call.status = status;
  call.notFinite = stats::kStatusUnusableReturn;
  return runFrame(call, [&](int*, double*) { engine(*nObs, *nSeries, prices, *lag, result, *status); });
}

// Frame of the covariance and correlation exports: nObs before returns, a
// bad nAssets replacing either; result n by n.  The caller's row-major T by
// n table is, read as it stands, the column-major n by T matrix X': the
// layout the engine holds its centred table in.  Converting it to X and
// back would move every number twice for the engine to transpose it once
// more, so the engine reads X' directly (with the same sums, bit for bit)
// and the caller's table is never written.
FrameCall momentsFrame(int* nObs, int* nAssets, const double* returns, double* result,
                       int* status) {
  FrameCall call;
  if (*nObs < 2) call.failure = kArgBase + 1;
  else if (returns == nullptr) call.failure = kArgBase + 3;
  if (*nAssets < 1) call.failure = kArgBase + 2;
  call.out = result;
  call.outCount = sizeMul(*nAssets, *nAssets);
  call.status = status;
  call.outMatrix = result;
  call.outRows = *nAssets;
  call.outCols = *nAssets;
  call.notFinite = stats::kStatusUnusableVariance;
  return call;
}

// Tests of ORXmodelingSDLS, in the order documented in the header.
int sdlsArgumentStatus(int n, const void* target, int nEq, const void* eqMatrices,
                       const void* eqValues, int nIneq, const void* ineqMatrices,
                       const double* ineqLower, const double* ineqUpper, double tolerance,
                       double eigenFloor) {
  int failure = 0;
  if (nEq < 0) failure = kArgBase + 3;
  else if (n < 1) failure = kArgBase + 1;
  else if (ineqUpper == nullptr) failure = kArgBase + 9;
  else if (ineqLower == nullptr) failure = kArgBase + 8;
  else if (ineqMatrices == nullptr) failure = kArgBase + 7;
  else if (eqValues == nullptr) failure = kArgBase + 5;
  else if (eqMatrices == nullptr) failure = kArgBase + 4;
  else if (target == nullptr) failure = kArgBase + 2;
  if (nIneq < 0) {
    failure = kArgBase + 6;
  } else if (failure == 0) {
    // Negated, so that a NaN on either side is refused too.
    for (i64 i = 0; i < nIneq; ++i)
      if (!(ineqLower[i] <= ineqUpper[i])) {
        failure = kArgBase + 8;
        break;
      }
  }
  // Written as negated comparisons so that a NaN is refused too.
  if (!(eigenFloor >= 0.0)) failure = kArgBase + 11;
  else if (!(tolerance > 0.0)) failure = kArgBase + 10;
  return failure;
}

}  // namespace
}  // namespace lumbra::api

using namespace lumbra;
using namespace lumbra::api;

extern "C" LUMBRA_API int ORXmodelingReturns(int* nObs, int* nSeries, double* prices, int* lag,
                                             double* result, int* status) {
  return returnsExport(stats::modelingReturnsSimpleTransposed, nObs, nSeries, prices, lag,
                       result, status);
}

extern "C" LUMBRA_API int ORXmodelingLogReturns(int* nObs, int* nSeries, double* prices,
                                                int* lag, double* result, int* status) {
  return returnsExport(stats::modelingReturnsLogTransposed, nObs, nSeries, prices, lag, result,
                       status);
}

extern "C" LUMBRA_API int ORXmodelingCov(int* nObs, int* nAssets, double* returns,
                                         double* result, int* status) {
  FrameCall call = momentsFrame(nObs, nAssets, returns, result, status);
  const Size T = *nObs, N = *nAssets;
  call.workSize = (T * N + N).value;
  return runFrame(call, [&](int*, double* work) {
    double* means = work;
    double* centred = work + *nAssets;
    stats::modelingCovSampleTransposed(*nObs, *nAssets, returns, means, centred, result,
                                       *status);
  });
}

extern "C" LUMBRA_API int ORXmodelingCorr(int* nObs, int* nAssets, double* returns,
                                          double* result, int* status) {
  FrameCall call = momentsFrame(nObs, nAssets, returns, result, status);
  const Size T = *nObs, N = *nAssets;
  call.workSize = (N * (T + N + 2)).value;
  return runFrame(call, [&](int*, double* work) {
    stats::modelingCorrSampleTransposed(*nObs, *nAssets, returns, work, result, *status);
  });
}

extern "C" LUMBRA_API int ORXmodelingSDLS(int* n, double* target, int* nEq, double* eqMatrices,
                                          double* eqValues, int* nIneq, double* ineqMatrices,
                                          double* ineqLower, double* ineqUpper,
                                          double* tolerance, double* eigenFloor,
                                          double* result, int* status) {
  FrameCall call;
  call.failure = sdlsArgumentStatus(*n, target, *nEq, eqMatrices, eqValues, *nIneq,
                                    ineqMatrices, ineqLower, ineqUpper, *tolerance, *eigenFloor);
  call.out = result;
  call.outCount = sizeMul(*n, *n);
  call.status = status;
  if (call.failure == 0) {
    const Size N = *n, E = *nEq, I = *nIneq;
    const Size t = E + 2 * I;
    call.iworkSize = (12 * N + 2 * E + 4 * I + 5).value;
    call.workSize =
        (N * (4 * N + 27) + t * (t + 25) / 2 + (N * (N + 1) / 2) * (2 * (E + I) + 5)).value;
    call.in[0] = {target, *n, *n};
    call.in[1] = {eqMatrices, *n, i64{*nEq} * *n};
    call.in[2] = {ineqMatrices, *n, i64{*nIneq} * *n};
    call.nIn = 3;
  }
  call.outMatrix = result;
  call.outRows = *n;
  call.outCols = *n;
  call.notFinite = nearness::kSdlsBadCall;
  return runFrame(call, [&](int* iz, double* work) {
    nearness::sdlsSolve(*n, target, *nEq, eqMatrices, eqValues, *nIneq, ineqMatrices,
                        ineqLower, ineqUpper, *tolerance, *eigenFloor, iz, work, result,
                        *status);
  });
}

extern "C" LUMBRA_API int ORXmodelingSDLScorr(int* n, double* target, double* tolerance,
                                              double* eigenFloor, double* result, int* status) {
  FrameCall call;
  if (*n < 1) call.failure = kArgBase + 1;
  else if (target == nullptr) call.failure = kArgBase + 2;
  if (!(*tolerance > 0.0)) call.failure = kArgBase + 3;
  if (!(*eigenFloor >= 0.0 && *eigenFloor < 1.0)) call.failure = kArgBase + 4;
  call.out = result;
  call.outCount = sizeMul(*n, *n);
  call.status = status;
  if (call.failure == 0) {
    const Size N = *n;
    call.iworkSize = (14 * N + 3).value;
    call.workSize = (N * (7 * N + 40)).value;
  }
  call.in[0] = {target, *n, *n};
  call.nIn = 1;
  call.outMatrix = result;
  call.outRows = *n;
  call.outCols = *n;
  call.notFinite = nearness::kSdlsBadCall;
  return runFrame(call, [&](int* iz, double* work) {
    nearness::sdlsCorrelation(*n, target, *tolerance, *eigenFloor, iz, work, result, *status);
  });
}
