// SPDX-License-Identifier: Apache-2.0
// Exports of the risk-analysis family.
#include "api/frame.h"
#include "kernels/kernels.h"
#include "lumbra.h"
#include "stats/analysis.h"

using namespace lumbra;
using namespace lumbra::api;

namespace {

// A value-at-risk level must lie strictly inside (0, 1); written as a
// negated comparison so that a NaN is refused too.
bool levelRefused(double level) { return !(level > 0.0 && level < 1.0); }

// Frame of an export with a scalar result and no work array; a result that
// is not finite ends with notFinite.
FrameCall scalarFrame(int failure, double* result, int* status, int notFinite) {
  FrameCall call;
  call.failure = failure;
  call.out = result;
  call.outCount = 1;
  call.status = status;
  call.notFinite = notFinite;
  return call;
}

}  // namespace

extern "C" LUMBRA_API int ORXanalysisExanteReturn(int* n, double* mu, double* weights,
                                                  double* result, int* status) {
  int failure = 0;
  if (*n < 1) failure = kArgBase + 1;
  else if (weights == nullptr) failure = kArgBase + 3;
  else if (mu == nullptr) failure = kArgBase + 2;
  return runFrame(scalarFrame(failure, result, status, stats::kStatusUnusableReturn),
                  [&](int*, double*) {
    stats::analysisPortfolioReturn(*n, mu, weights, *result, *status);
  });
}

extern "C" LUMBRA_API int ORXanalysisExanteVolatility(int* n, double* cov, double* weights,
                                                      double* result, int* status) {
  int failure = 0;
  if (*n < 1) failure = kArgBase + 1;
  else if (weights == nullptr) failure = kArgBase + 3;
  else if (cov == nullptr) failure = kArgBase + 2;
  FrameCall call = scalarFrame(failure, result, status, stats::kStatusUnusableVariance);
  call.in[0] = {cov, *n, *n};
  call.nIn = 1;
  return runFrame(call, [&](int*, double*) {
    stats::analysisPortfolioVolatility(*n, cov, weights, *result, *status);
  });
}

extern "C" LUMBRA_API int ORXanalysisExanteNormalVaR(int* n, double* cov, double* mu,
                                                     double* weights, double* level,
                                                     double* result, int* status) {
  int failure = 0;
  if (*n < 1) failure = kArgBase + 1;
  else if (weights == nullptr) failure = kArgBase + 4;
  else if (mu == nullptr) failure = kArgBase + 3;
  else if (cov == nullptr) failure = kArgBase + 2;
  if (levelRefused(*level)) failure = kArgBase + 5;
  FrameCall call = scalarFrame(failure, result, status, stats::kStatusUnusableVariance);
  call.in[0] = {cov, *n, *n};
  call.nIn = 1;
  return runFrame(call, [&](int*, double*) {
    stats::analysisNormalVaR(*n, cov, mu, weights, *level, *result, *status);
  });
}

extern "C" LUMBRA_API int ORXanalysisExanteModifiedVaR(int* nObs, int* nAssets,
                                                       double* weights, double* returns,
                                                       double* cov, double* level,
                                                       double* result, int* status) {
  int failure = 0;
  if (*nAssets < 1) failure = kArgBase + 2;
  else if (*nObs < 4) failure = kArgBase + 1;
  else if (cov == nullptr) failure = kArgBase + 5;
  else if (returns == nullptr) failure = kArgBase + 4;
  else if (weights == nullptr) failure = kArgBase + 3;
  if (levelRefused(*level)) failure = kArgBase + 6;
  FrameCall call = scalarFrame(failure, result, status, stats::kStatusUnusableVariance);
  const Size T = *nObs, N = *nAssets;
  call.workSize = (N * (T + 6 * N + 2)).value;
  call.in[0] = {returns, *nObs, *nAssets};
  call.in[1] = {cov, *nAssets, *nAssets};
  call.nIn = 2;
  return runFrame(call, [&](int*, double* work) {
    // An infinite covariance makes the skewness 0 and the kurtosis -3 - b,
    // a finite but meaningless expansion: non-finite data are refused.
    const i64 nn = i64{*nAssets} * *nAssets;
    if (!kernels::allFinite(*nAssets, weights) || !kernels::allFinite(nn, cov) ||
        !kernels::allFinite(i64{*nObs} * *nAssets, returns)) {
      *status = stats::kStatusUnusableVariance;
      return;
    }
    stats::analysisModifiedVaR(*nObs, *nAssets, weights, returns, cov, *level, work, *result,
                               *status);
  });
}

extern "C" LUMBRA_API int ORXanalysisExpostReturn(int* n, double* series, double* result,
                                                  int* status) {
  int failure = 0;
  if (*n < 1) failure = kArgBase + 1;
  else if (series == nullptr) failure = kArgBase + 2;
  return runFrame(scalarFrame(failure, result, status, stats::kStatusUnusableReturn),
                  [&](int*, double*) {
    *status = 0;
    kernels::vecMean(*n, series, *result);
  });
}

extern "C" LUMBRA_API int ORXanalysisExpostVolatility(int* n, double* series, double* result,
                                                      int* status) {
  int failure = 0;
  if (*n < 2) failure = kArgBase + 1;
  else if (series == nullptr) failure = kArgBase + 2;
  return runFrame(scalarFrame(failure, result, status, stats::kStatusUnusableVariance),
                  [&](int*, double*) {
    *result = 0.0;
    *status = 0;
    stats::analysisSeriesStdDev(*n, series, *result, *status);
  });
}

extern "C" LUMBRA_API int ORXanalysisGaussianKernel(int* nObs, int* nPoints, double* data,
                                                    double* points, double* result,
                                                    int* status) {
  int failure = 0;
  if (*nObs < 2) failure = kArgBase + 1;
  else if (points == nullptr) failure = kArgBase + 4;
  else if (data == nullptr) failure = kArgBase + 3;
  if (*nPoints <= 0) {
    failure = kArgBase + 2;
  } else if (failure == 0) {
    // Every point a number, none below its predecessor; negated
    // comparisons, so that a NaN anywhere is refused.
    for (i64 i = 0; i < *nPoints; ++i)
      if (!(points[i] == points[i]) || (i > 0 && !(points[i - 1] <= points[i]))) {
        failure = kArgBase + 4;
        break;
      }
  }
  FrameCall call;
  call.failure = failure;
  call.out = result;
  call.outCount = *nPoints;
  call.status = status;
  call.notFinite = stats::kStatusUnusableVariance;
  return runFrame(call, [&](int*, double*) {
    stats::analysisGaussianKernel(*nObs, *nPoints, data, points, result, *status);
  });
}
