// SPDX-License-Identifier: Apache-2.0
// The export calls shared by the tests of the call frame.
#include "export_cases.h"

#include <algorithm>
#include <cmath>

#include "lumbra.h"

namespace lumbra::testing {

const char* exportName(Export e) {
  static const char* const names[] = {
      "ORXallocMV", "ORXallocIT", "ORXallocSharpeRatio", "ORXmodelingReturns",
      "ORXmodelingLogReturns", "ORXmodelingCov", "ORXmodelingCorr", "ORXmodelingSDLS",
      "ORXmodelingSDLScorr", "ORXanalysisExanteReturn", "ORXanalysisExanteVolatility",
      "ORXanalysisExanteNormalVaR", "ORXanalysisExanteModifiedVaR", "ORXanalysisExpostReturn",
      "ORXanalysisExpostVolatility", "ORXanalysisGaussianKernel", "ORXsimulGeometricBrownianX"};
  return names[static_cast<int>(e)];
}

long resultCount(Export e, const CallData& d) {
  auto product = [](long a, long b) { return a > 0 && b > 0 ? a * b : 0; };
  switch (e) {
    case Export::AllocMV: case Export::AllocIT: case Export::AllocSharpe: return std::max(d.n, 0);
    case Export::Returns: case Export::LogReturns: return product(d.nSeries, long{d.nObs} - d.lag);
    case Export::Cov: case Export::Corr: return product(d.nAssets, d.nAssets);
    case Export::SDLS: case Export::SDLScorr: return product(d.nNear, d.nNear);
    case Export::GaussianKernel: return std::max(d.nPoints, 0);
    case Export::Simulation: return product(d.nSim, d.steps);
    default: return 1;
  }
}

int callExport(Export e, CallData& d) {
  double* out = d.out.data();
  int* st = &d.status;
  switch (e) {
    case Export::AllocMV:
      return ORXallocMV(&d.n, d.cov.data(), d.mu.data(), &d.nEq, &d.nIneq, d.cons.data(),
                        d.rhs.data(), d.lower.data(), d.upper.data(), &d.target.v, out, st);
    case Export::AllocIT:
      return ORXallocIT(&d.n, d.cov.data(), d.mu.data(), d.benchCov.data(), &d.benchReturn.v,
                        &d.nEq, &d.nIneq, d.cons.data(), d.rhs.data(), d.lower.data(),
                        d.upper.data(), &d.excess.v, out, st);
    case Export::AllocSharpe:
      return ORXallocSharpeRatio(&d.n, d.cov.data(), d.mu.data(), &d.nEq, &d.nIneq,
                                 d.cons.data(), d.rhs.data(), d.lower.data(), d.upper.data(),
                                 &d.riskFree.v, out, st);
    case Export::Returns:
      return ORXmodelingReturns(&d.nObs, &d.nSeries, d.prices.data(), &d.lag, out, st);
    case Export::LogReturns:
      return ORXmodelingLogReturns(&d.nObs, &d.nSeries, d.prices.data(), &d.lag, out, st);
    case Export::Cov: return ORXmodelingCov(&d.nHist, &d.nAssets, d.hist.data(), out, st);
    case Export::Corr: return ORXmodelingCorr(&d.nHist, &d.nAssets, d.hist.data(), out, st);
    case Export::SDLS:
      return ORXmodelingSDLS(&d.nNear, d.nearTarget.data(), &d.nNearEq, d.eqMatrices.data(),
                             d.eqValues.data(), &d.nNearIneq, d.ineqMatrices.data(),
                             d.ineqLower.data(), d.ineqUpper.data(), &d.tolerance.v,
                             &d.eigenFloor.v, out, st);
    case Export::SDLScorr:
      return ORXmodelingSDLScorr(&d.nNear, d.nearTarget.data(), &d.tolerance.v, &d.eigenFloor.v,
                                 out, st);
    case Export::ExanteReturn:
      return ORXanalysisExanteReturn(&d.nEx, d.exMu.data(), d.weights.data(), out, st);
    case Export::ExanteVolatility:
      return ORXanalysisExanteVolatility(&d.nEx, d.exCov.data(), d.weights.data(), out, st);
    case Export::ExanteNormalVaR:
      return ORXanalysisExanteNormalVaR(&d.nEx, d.exCov.data(), d.exMu.data(), d.weights.data(),
                                        &d.level.v, out, st);
    case Export::ExanteModifiedVaR:
      return ORXanalysisExanteModifiedVaR(&d.nHist, &d.nAssets, d.weights.data(), d.hist.data(),
                                          d.exCov.data(), &d.level.v, out, st);
    case Export::ExpostReturn: return ORXanalysisExpostReturn(&d.nSeriesObs, d.series.data(), out, st);
    case Export::ExpostVolatility:
      return ORXanalysisExpostVolatility(&d.nSeriesObs, d.series.data(), out, st);
    case Export::GaussianKernel:
      return ORXanalysisGaussianKernel(&d.nSeriesObs, &d.nPoints, d.series.data(),
                                       d.points.data(), out, st);
    case Export::Simulation:
      return ORXsimulGeometricBrownianX(&d.nSim, &d.horizon, &d.steps, d.start.data(),
                                        d.drift.data(), d.simCov.data(), out, st);
    case Export::Count: break;
  }
  return -1;
}

Outcome runCase(Export e, CallData& d) {
  CallData before = d;
  Outcome o;
  o.ret = callExport(e, d);
  o.status = d.status;
  const long count = std::min<long>(resultCount(e, d), static_cast<long>(d.out.size()));
  for (long k = 0; k < count; ++k) {
    o.finite = o.finite && std::isfinite(d.out[k]);
    o.cleared = o.cleared && d.out[k] == 0.0;
  }
  before.out = d.out;
  before.status = d.status;
  o.inputsKept = before == d;
  return o;
}

}  // namespace lumbra::testing
