// SPDX-License-Identifier: Apache-2.0
// Fuzz target of the analysis exports.  Besides the frame's invariants: a
// volatility returned with 0 is not negative, nor is a kernel density.
//
// Input: export, null argument, then per export
//   ex-ante return:        n in [-1, 6], mu, weights
//   ex-ante volatility:    n in [-1, 6], cov, weights
//   normal VaR:            n in [-1, 6], cov, mu, weights, level
//   modified VaR:          nObs in [-1, 10], nAssets in [-1, 4], weights,
//                          returns, cov, level
//   ex-post return, vol.:  n in [-1, 10], series
//   kernel density:        nObs in [-1, 10], nPoints in [-1, 5], data, a byte
//                          whose odd value sorts the points, points
#include <algorithm>
#include <cmath>

#include "fuzz_input.h"
#include "lumbra.h"

namespace lumbra::fuzz {
namespace {

// One scalar result and its status, checked against the frame.
struct Scalar {
  std::vector<double> r{1.0};
  int status = -7777;
};

void fuzzExante(Input& in, int which) {
  static const char* const names[] = {"ORXanalysisExanteReturn", "ORXanalysisExanteVolatility",
                                      "ORXanalysisExanteNormalVaR"};
  const char* name = names[which];
  const int nullAt = in.nullAt();
  int n = in.size(-1, 6);
  Array cov = which == 0 ? Array{} : readSquare(in, n > 0 ? n : 0, nullAt == 0);
  Array mu = which == 1 ? Array{} : readArray(in, pos(n), nullAt == 1);
  Array weights = readArray(in, pos(n), nullAt == 2);
  double level = which == 2 ? in.real() : 0.0;
  const Array given[] = {cov, mu, weights};
  Scalar s;
  int ret, nArgs;
  if (which == 0) {
    ret = ORXanalysisExanteReturn(&n, mu.data(), weights.data(), s.r.data(), &s.status);
    nArgs = 5;
  } else if (which == 1) {
    ret = ORXanalysisExanteVolatility(&n, cov.data(), weights.data(), s.r.data(), &s.status);
    nArgs = 5;
  } else {
    ret = ORXanalysisExanteNormalVaR(&n, cov.data(), mu.data(), weights.data(), &level, s.r.data(),
                                     &s.status);
    nArgs = 7;
  }
  checkFrame(name, ret, s.status, nArgs, {&s.r});
  checkRestored(name, {{&given[0], &cov}, {&given[1], &mu}, {&given[2], &weights}});
  if (which == 1 && ret == 0 && s.r[0] < 0.0) fail(name, "negative volatility");
}

void fuzzModifiedVaR(Input& in) {
  const char* name = "ORXanalysisExanteModifiedVaR";
  const int nullAt = in.nullAt();
  int nObs = in.size(-1, 10), nAssets = in.size(-1, 4);
  Array weights = readArray(in, pos(nAssets), nullAt == 0);
  Array returns = readArray(in, pos(nObs) * pos(nAssets), nullAt == 1);
  Array cov = readSquare(in, nAssets > 0 ? nAssets : 0, nullAt == 2);
  double level = in.real();
  const Array given[] = {weights, returns, cov};
  Scalar s;
  const int ret = ORXanalysisExanteModifiedVaR(&nObs, &nAssets, weights.data(), returns.data(), cov.data(),
                                               &level, s.r.data(), &s.status);
  checkFrame(name, ret, s.status, 8, {&s.r});
  checkRestored(name, {{&given[0], &weights}, {&given[1], &returns}, {&given[2], &cov}});
}

void fuzzExpost(Input& in, bool volatility) {
  const char* name = volatility ? "ORXanalysisExpostVolatility" : "ORXanalysisExpostReturn";
  const int nullAt = in.nullAt();
  int n = in.size(-1, 10);
  Array series = readArray(in, pos(n), nullAt == 0);
  const Array given = series;
  Scalar s;
  const int ret = volatility ? ORXanalysisExpostVolatility(&n, series.data(), s.r.data(), &s.status)
                             : ORXanalysisExpostReturn(&n, series.data(), s.r.data(), &s.status);
  checkFrame(name, ret, s.status, 4, {&s.r});
  checkRestored(name, {{&given, &series}});
  if (volatility && ret == 0 && s.r[0] < 0.0) fail(name, "negative volatility");
}

void fuzzKernel(Input& in) {
  const char* name = "ORXanalysisGaussianKernel";
  const int nullAt = in.nullAt();
  int nObs = in.size(-1, 10), nPoints = in.size(-1, 5);
  Array data = readArray(in, pos(nObs), nullAt == 0);
  const bool sorted = in.byte() % 2 == 1;
  Array points = readArray(in, pos(nPoints), nullAt == 1);
  if (sorted) std::sort(points.v.begin(), points.v.end());
  const Array given[] = {data, points};
  std::vector<double> result(pos(nPoints), 1.0);
  int status = -7777;
  double* out = outPtr(result);
  const int ret = ORXanalysisGaussianKernel(&nObs, &nPoints, data.data(), points.data(), out, &status);
  checkFrame(name, ret, status, 6, {&result});
  checkRestored(name, {{&given[0], &data}, {&given[1], &points}});
  if (ret == 0)
    for (double d : result)
      if (d < 0.0) fail(name, "negative density");
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumbra::fuzz;
  Input in{data, size};
  switch (in.byte() % 7) {
    case 0: fuzzExante(in, 0); break;
    case 1: fuzzExante(in, 1); break;
    case 2: fuzzExante(in, 2); break;
    case 3: fuzzModifiedVaR(in); break;
    case 4: fuzzExpost(in, false); break;
    case 5: fuzzExpost(in, true); break;
    default: fuzzKernel(in); break;
  }
  return 0;
}
