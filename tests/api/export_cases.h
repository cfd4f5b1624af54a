// SPDX-License-Identifier: Apache-2.0
// One valid call of every export on small data of its own, for the frame's tests to spoil.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "lumbra.h"

namespace lumbra::testing {

enum class Export { AllocMV, AllocIT, AllocSharpe, Returns, LogReturns, Cov, Corr, SDLS, SDLScorr,
  ExanteReturn, ExanteVolatility, ExanteNormalVaR, ExanteModifiedVaR, ExpostReturn,
  ExpostVolatility, GaussianKernel, Simulation, Count };
using E = Export;

struct Vec : std::vector<double> {  // compares bit for bit, NaN equal to itself
  using std::vector<double>::vector;
  bool operator==(const Vec& o) const {
    return size() == o.size() && (empty() || std::memcmp(data(), o.data(), size() * 8) == 0);
  }
};

// The arguments of one export by their documented names: d["name"] an array, row-major
// (a scalar: an array of one; an empty array: a null pointer); d("name") a count.
struct CallData {
  explicit CallData(Export e);
  Vec& operator[](const std::string& name) { return real.at(name); }
  int& operator()(const std::string& name) { return counts.at(name); }
  bool operator==(const CallData&) const = default;
  Export e;
  std::map<std::string, Vec> real;
  std::map<std::string, int> counts;
  Vec out = Vec(64, -777.0);
  int status = 12345;
};


struct Outcome {  // what a call left: the result finite, all zero; the inputs kept
  int ret = 0, status = 0;
  bool finite = true, cleared = true, inputsKept = true;
};

inline const char* exportName(Export e) {
  static const char* const names[] = {"ORXallocMV", "ORXallocIT", "ORXallocSharpeRatio",
      "ORXmodelingReturns", "ORXmodelingLogReturns", "ORXmodelingCov", "ORXmodelingCorr", "ORXmodelingSDLS",
      "ORXmodelingSDLScorr", "ORXanalysisExanteReturn", "ORXanalysisExanteVolatility",
      "ORXanalysisExanteNormalVaR", "ORXanalysisExanteModifiedVaR", "ORXanalysisExpostReturn",
      "ORXanalysisExpostVolatility", "ORXanalysisGaussianKernel", "ORXsimulGeometricBrownianX"};
  return names[static_cast<int>(e)];
}

inline CallData::CallData(Export e) : e(e) {
  const Vec history = {0.01, 0.02, -0.02, 0.01, 0.015, -0.01, 0.0, 0.03, 0.005, -0.02};
  const Vec cov2 = {0.04, 0.01, 0.01, 0.09}, series = {0.01, -0.02, 0.015, 0.0, 0.005};
  switch (e) {
    case E::AllocMV: case E::AllocIT: case E::AllocSharpe:  // budget equality, w0 + w1 <= 0.9
      counts = {{"n", 3}, {"nEq", 1}, {"nIneq", 1}};
      real = {{"cov", {0.04, 0.01, 0.0, 0.01, 0.09, 0.02, 0.0, 0.02, 0.16}},
              {"mu", {0.05, 0.08, 0.11}}, {"cons", {1.0, 1.0, 1.0, 0.0, 1.0, 1.0}},
              {"rhs", {1.0, 0.9}}, {"lower", {0.0, 0.0, 0.0}}, {"upper", {1.0, 1.0, 1.0}}};
      if (e == E::AllocMV) real["target"] = {0.07};
      if (e == E::AllocIT)
        real.insert({{"benchCov", {0.02, 0.03, 0.02}}, {"benchReturn", {0.06}}, {"excess", {0.01}}});
      if (e == E::AllocSharpe) real["riskFree"] = {0.02};
      break;
    case E::Returns: case E::LogReturns:  // four prices of two assets
      counts = {{"nObs", 4}, {"nSeries", 2}, {"lag", 1}};
      real = {{"prices", {100, 50, 101, 49.5, 99, 50.5, 102, 51}}};
      break;
    case E::Cov: case E::Corr:  // five observations of two assets
      counts = {{"nObs", 5}, {"nAssets", 2}}, real = {{"returns", history}};
      break;
    case E::SDLS:  // X(0,0) = 1 and -1 <= X(0,1) + X(1,0) <= 1
      counts = {{"nEq", 1}, {"nIneq", 1}}, real = {{"eqMatrices", {1.0, 0.0, 0.0, 0.0}}, {"eqValues", {1.0}},
          {"ineqMatrices", {0.0, 1.0, 1.0, 0.0}}, {"ineqLower", {-1.0}}, {"ineqUpper", {1.0}}};
      [[fallthrough]];
    case E::SDLScorr:
      counts.insert({"n", 2});
      real.insert({{"target", {1.0, 0.5, 0.5, 1.0}}, {"tolerance", {1e-8}}, {"eigenFloor", {0.0}}});
      break;
    case E::ExanteReturn: case E::ExanteVolatility: case E::ExanteNormalVaR:
      counts = {{"n", 2}}, real = {{"weights", {0.5, 0.5}}};
      if (e != E::ExanteVolatility) real["mu"] = {0.01, 0.02};
      if (e != E::ExanteReturn) real["cov"] = cov2;
      if (e == E::ExanteNormalVaR) real["level"] = {0.95};
      break;
    case E::ExanteModifiedVaR:
      counts = {{"nObs", 5}, {"nAssets", 2}};
      real = {{"weights", {0.5, 0.5}}, {"returns", history}, {"cov", cov2}, {"level", {0.95}}};
      break;
    case E::ExpostReturn: case E::ExpostVolatility:
      counts = {{"n", 5}}, real = {{"series", series}};
      break;
    case E::GaussianKernel:
      counts = {{"nObs", 5}, {"nPoints", 3}}, real = {{"data", series}, {"points", {-0.02, 0.0, 0.02}}};
      break;
    case E::Simulation:  // two assets, four time points
      counts = {{"n", 2}, {"horizon", 1}, {"steps", 4}};
      real = {{"start", {100.0, 50.0}}, {"drift", {0.05, 0.02}}, {"cov", {0.04, 0.0, 0.0, 0.09}}};
      break;
    case E::Count: break;
  }
}

// Doubles of the result (0 for a size <= 0).
inline long resultCount(const CallData& d) {
  auto c = [&](const char* name) { return long{d.counts.at(name)}; };
  auto product = [](long a, long b) { return a > 0 && b > 0 ? a * b : 0; };
  switch (d.e) {
    case E::AllocMV: case E::AllocIT: case E::AllocSharpe: return std::max(c("n"), 0L);
    case E::Returns: case E::LogReturns: return product(c("nSeries"), c("nObs") - c("lag"));
    case E::Cov: case E::Corr: return product(c("nAssets"), c("nAssets"));
    case E::SDLS: case E::SDLScorr: return product(c("n"), c("n"));
    case E::GaussianKernel: return std::max(c("nPoints"), 0L);
    case E::Simulation: return product(c("n"), c("steps"));
    default: return 1;
  }
}

// The call itself: result in d.out, status in d.status.
inline int callExport(CallData& d) {
  auto r = [&](const char* name) { return d[name].data(); };
  auto c = [&](const char* name) { return &d(name); };
  double* const out = d.out.data();
  int* const st = &d.status;
  switch (d.e) {
    case E::AllocMV: return ORXallocMV(c("n"), r("cov"), r("mu"), c("nEq"), c("nIneq"), r("cons"), r("rhs"),
        r("lower"), r("upper"), r("target"), out, st);
    case E::AllocIT: return ORXallocIT(c("n"), r("cov"), r("mu"), r("benchCov"), r("benchReturn"), c("nEq"),
        c("nIneq"), r("cons"), r("rhs"), r("lower"), r("upper"), r("excess"), out, st);
    case E::AllocSharpe: return ORXallocSharpeRatio(c("n"), r("cov"), r("mu"), c("nEq"), c("nIneq"), r("cons"),
        r("rhs"), r("lower"), r("upper"), r("riskFree"), out, st);
    case E::Returns: return ORXmodelingReturns(c("nObs"), c("nSeries"), r("prices"), c("lag"), out, st);
    case E::LogReturns: return ORXmodelingLogReturns(c("nObs"), c("nSeries"), r("prices"), c("lag"), out, st);
    case E::Cov: return ORXmodelingCov(c("nObs"), c("nAssets"), r("returns"), out, st);
    case E::Corr: return ORXmodelingCorr(c("nObs"), c("nAssets"), r("returns"), out, st);
    case E::SDLS: return ORXmodelingSDLS(c("n"), r("target"), c("nEq"), r("eqMatrices"), r("eqValues"),
        c("nIneq"), r("ineqMatrices"), r("ineqLower"), r("ineqUpper"), r("tolerance"), r("eigenFloor"), out, st);
    case E::SDLScorr: return ORXmodelingSDLScorr(c("n"), r("target"), r("tolerance"), r("eigenFloor"), out, st);
    case E::ExanteReturn: return ORXanalysisExanteReturn(c("n"), r("mu"), r("weights"), out, st);
    case E::ExanteVolatility: return ORXanalysisExanteVolatility(c("n"), r("cov"), r("weights"), out, st);
    case E::ExanteNormalVaR:
      return ORXanalysisExanteNormalVaR(c("n"), r("cov"), r("mu"), r("weights"), r("level"), out, st);
    case E::ExanteModifiedVaR: return ORXanalysisExanteModifiedVaR(c("nObs"), c("nAssets"), r("weights"),
        r("returns"), r("cov"), r("level"), out, st);
    case E::ExpostReturn: return ORXanalysisExpostReturn(c("n"), r("series"), out, st);
    case E::ExpostVolatility: return ORXanalysisExpostVolatility(c("n"), r("series"), out, st);
    case E::GaussianKernel:
      return ORXanalysisGaussianKernel(c("nObs"), c("nPoints"), r("data"), r("points"), out, st);
    case E::Simulation: return ORXsimulGeometricBrownianX(c("n"), c("horizon"), c("steps"), r("start"),
        r("drift"), r("cov"), out, st);
    case E::Count: break;
  }
  return -1;
}

inline Outcome runCase(CallData& d) {
  CallData before = d;
  Outcome o{callExport(d), d.status};
  const auto first = d.out.begin(), last = first + std::min<long>(resultCount(d), d.out.size());
  o.finite = std::all_of(first, last, [](double x) { return std::isfinite(x); });
  o.cleared = std::all_of(first, last, [](double x) { return x == 0.0; });
  before.out = d.out, before.status = d.status;
  o.inputsKept = before == d;
  return o;
}

}  // namespace lumbra::testing
