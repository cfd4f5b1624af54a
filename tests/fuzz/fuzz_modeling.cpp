// SPDX-License-Identifier: Apache-2.0
// Fuzz target of the modelling exports: returns, logarithmic returns,
// covariance, correlation and the two matrix-nearness exports.  Besides the
// frame's invariants: a covariance returned with 0 has no negative
// variance, and a correlation no entry outside [-1, 1] (up to rounding).
//
// Input: export, null argument, then per export
//   returns, log returns:  nObs in [-1, 10], nSeries in [-1, 4], prices, lag in [-1, 11]
//   cov, corr:             nObs in [-1, 10], nAssets in [-1, 5], returns
//   SDLS:                  n in [-1, 4], target, nEq in [-1, 2], eqMatrices,
//                          eqValues, nIneq in [-1, 2], ineqMatrices,
//                          ineqLower, ineqUpper, tolerance, eigenFloor
//   SDLS corr:             n in [-1, 5], target, tolerance, eigenFloor
#include <cmath>

#include "fuzz_input.h"
#include "lumbra.h"

namespace lumbra::fuzz {
namespace {

// Rounding allowance of the correlation bound: a quotient of a covariance
// by a product of square roots may exceed 1 by a few units in the last place.
constexpr double kCorrSlack = 1e-12;

void fuzzReturns(Input& in, bool logarithmic) {
  const char* name = logarithmic ? "ORXmodelingLogReturns" : "ORXmodelingReturns";
  const int nullAt = in.nullAt();
  int nObs = in.size(-1, 10), nSeries = in.size(-1, 4);
  Array prices = readArray(in, pos(nObs) * pos(nSeries), nullAt == 0);
  int lag = in.size(-1, 11);
  const Array given = prices;
  // The export clears nSeries * (nObs - lag) doubles whatever the lag, and
  // nothing when either factor is negative: the array is sized the same way.
  const long rows = static_cast<long>(nObs) - lag;
  std::vector<double> result(nSeries >= 0 && rows >= 0 ? nSeries * rows : 0, 1.0);
  int status = -7777;
  double* out = outPtr(result);
  const int ret = logarithmic ? ORXmodelingLogReturns(&nObs, &nSeries, prices.data(), &lag, out, &status)
                              : ORXmodelingReturns(&nObs, &nSeries, prices.data(), &lag, out, &status);
  checkFrame(name, ret, status, 6, {&result});
  checkRestored(name, {{&given, &prices}});
}

void fuzzCovariance(Input& in, bool correlation) {
  const char* name = correlation ? "ORXmodelingCorr" : "ORXmodelingCov";
  const int nullAt = in.nullAt();
  int nObs = in.size(-1, 10), nAssets = in.size(-1, 5);
  Array returns = readArray(in, pos(nObs) * pos(nAssets), nullAt == 0);
  const Array given = returns;
  std::vector<double> result(pos(nAssets) * pos(nAssets), 1.0);
  int status = -7777;
  double* out = outPtr(result);
  const int ret = correlation ? ORXmodelingCorr(&nObs, &nAssets, returns.data(), out, &status)
                              : ORXmodelingCov(&nObs, &nAssets, returns.data(), out, &status);
  checkFrame(name, ret, status, 5, {&result});
  checkRestored(name, {{&given, &returns}});
  if (ret != 0) return;
  for (int i = 0; i < nAssets; ++i) {
    if (!correlation && result[i * nAssets + i] < 0.0) fail(name, "negative variance");
    for (int j = 0; correlation && j < nAssets; ++j)
      if (std::fabs(result[i * nAssets + j]) > 1.0 + kCorrSlack) fail(name, "correlation outside [-1, 1]");
  }
}

void fuzzSdls(Input& in) {
  const char* name = "ORXmodelingSDLS";
  const int nullAt = in.nullAt();
  int n = in.size(-1, 4);
  Array target = readArray(in, pos(n) * pos(n), nullAt == 0);
  int nEq = in.size(-1, 2);
  Array eqMatrices = readArray(in, pos(n) * pos(n) * pos(nEq), nullAt == 1);
  Array eqValues = readArray(in, pos(nEq), nullAt == 2);
  int nIneq = in.size(-1, 2);
  Array ineqMatrices = readArray(in, pos(n) * pos(n) * pos(nIneq), nullAt == 3);
  Array ineqLower = readArray(in, pos(nIneq), nullAt == 4);
  Array ineqUpper = readArray(in, pos(nIneq), nullAt == 5);
  double tolerance = in.real(), eigenFloor = in.real();
  const Array given[] = {target, eqMatrices, eqValues, ineqMatrices, ineqLower, ineqUpper};
  std::vector<double> result(pos(n) * pos(n), 1.0);
  int status = -7777;
  double* out = outPtr(result);
  const int ret = ORXmodelingSDLS(&n, target.data(), &nEq, eqMatrices.data(), eqValues.data(), &nIneq,
                                  ineqMatrices.data(), ineqLower.data(), ineqUpper.data(), &tolerance,
                                  &eigenFloor, out, &status);
  checkFrame(name, ret, status, 13, {&result});
  checkRestored(name, {{&given[0], &target}, {&given[1], &eqMatrices}, {&given[2], &eqValues},
                       {&given[3], &ineqMatrices}, {&given[4], &ineqLower}, {&given[5], &ineqUpper}});
}

void fuzzSdlsCorr(Input& in) {
  const char* name = "ORXmodelingSDLScorr";
  const int nullAt = in.nullAt();
  int n = in.size(-1, 5);
  Array target = readSquare(in, n > 0 ? n : 0, nullAt == 0);
  double tolerance = in.real(), eigenFloor = in.real();
  const Array given = target;
  std::vector<double> result(pos(n) * pos(n), 1.0);
  int status = -7777;
  double* out = outPtr(result);
  const int ret = ORXmodelingSDLScorr(&n, target.data(), &tolerance, &eigenFloor, out, &status);
  checkFrame(name, ret, status, 6, {&result});
  checkRestored(name, {{&given, &target}});
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumbra::fuzz;
  Input in{data, size};
  switch (in.byte() % 6) {
    case 0: fuzzReturns(in, false); break;
    case 1: fuzzReturns(in, true); break;
    case 2: fuzzCovariance(in, false); break;
    case 3: fuzzCovariance(in, true); break;
    case 4: fuzzSdls(in); break;
    default: fuzzSdlsCorr(in); break;
  }
  return 0;
}
