// SPDX-License-Identifier: Apache-2.0
// The export calls shared by the bad-input, allocation-failure and
// concurrency tests.
#include "export_cases.h"

#include <cmath>
#include <cstring>

#include "lumbra.h"

namespace lumbra::testing {

const char* exportName(Export e) {
  switch (e) {
    case Export::AllocMV: return "ORXallocMV";
    case Export::AllocIT: return "ORXallocIT";
    case Export::AllocSharpe: return "ORXallocSharpeRatio";
    case Export::Returns: return "ORXmodelingReturns";
    case Export::LogReturns: return "ORXmodelingLogReturns";
    case Export::Cov: return "ORXmodelingCov";
    case Export::Corr: return "ORXmodelingCorr";
    case Export::SDLS: return "ORXmodelingSDLS";
    case Export::SDLScorr: return "ORXmodelingSDLScorr";
    case Export::ExanteReturn: return "ORXanalysisExanteReturn";
    case Export::ExanteVolatility: return "ORXanalysisExanteVolatility";
    case Export::ExanteNormalVaR: return "ORXanalysisExanteNormalVaR";
    case Export::ExanteModifiedVaR: return "ORXanalysisExanteModifiedVaR";
    case Export::ExpostReturn: return "ORXanalysisExpostReturn";
    case Export::ExpostVolatility: return "ORXanalysisExpostVolatility";
    case Export::GaussianKernel: return "ORXanalysisGaussianKernel";
    case Export::Simulation: return "ORXsimulGeometricBrownianX";
  }
  return "";
}

namespace {

long positiveProduct(long a, long b) { return a > 0 && b > 0 ? a * b : 0; }

}  // namespace

long resultCount(Export e, const CallData& d) {
  switch (e) {
    case Export::AllocMV:
    case Export::AllocIT:
    case Export::AllocSharpe: return d.n > 0 ? d.n : 0;
    case Export::Returns:
    case Export::LogReturns: return positiveProduct(d.nSeries, long{d.nObs} - d.lag);
    case Export::Cov:
    case Export::Corr: return positiveProduct(d.nAssets, d.nAssets);
    case Export::SDLS:
    case Export::SDLScorr: return positiveProduct(d.nNear, d.nNear);
    case Export::GaussianKernel: return d.nPoints > 0 ? d.nPoints : 0;
    case Export::Simulation: return positiveProduct(d.nSim, d.steps);
    default: return 1;
  }
}

int callExport(Export e, CallData& d) {
  double* out = d.out.data();
  int* st = &d.status;
  switch (e) {
    case Export::AllocMV:
      return ORXallocMV(&d.n, d.cov.data(), d.mu.data(), &d.nEq, &d.nIneq, d.cons.data(),
                        d.rhs.data(), d.lower.data(), d.upper.data(), &d.target, out, st);
    case Export::AllocIT:
      return ORXallocIT(&d.n, d.cov.data(), d.mu.data(), d.benchCov.data(), &d.benchReturn,
                        &d.nEq, &d.nIneq, d.cons.data(), d.rhs.data(), d.lower.data(),
                        d.upper.data(), &d.excess, out, st);
    case Export::AllocSharpe:
      return ORXallocSharpeRatio(&d.n, d.cov.data(), d.mu.data(), &d.nEq, &d.nIneq,
                                 d.cons.data(), d.rhs.data(), d.lower.data(), d.upper.data(),
                                 &d.riskFree, out, st);
    case Export::Returns:
      return ORXmodelingReturns(&d.nObs, &d.nSeries, d.prices.data(), &d.lag, out, st);
    case Export::LogReturns:
      return ORXmodelingLogReturns(&d.nObs, &d.nSeries, d.prices.data(), &d.lag, out, st);
    case Export::Cov: return ORXmodelingCov(&d.nHist, &d.nAssets, d.hist.data(), out, st);
    case Export::Corr: return ORXmodelingCorr(&d.nHist, &d.nAssets, d.hist.data(), out, st);
    case Export::SDLS:
      return ORXmodelingSDLS(&d.nNear, d.nearTarget.data(), &d.nNearEq, d.eqMatrices.data(),
                             d.eqValues.data(), &d.nNearIneq, d.ineqMatrices.data(),
                             d.ineqLower.data(), d.ineqUpper.data(), &d.tolerance,
                             &d.eigenFloor, out, st);
    case Export::SDLScorr:
      return ORXmodelingSDLScorr(&d.nNear, d.nearTarget.data(), &d.tolerance, &d.eigenFloor,
                                 out, st);
    case Export::ExanteReturn:
      return ORXanalysisExanteReturn(&d.nEx, d.exMu.data(), d.weights.data(), out, st);
    case Export::ExanteVolatility:
      return ORXanalysisExanteVolatility(&d.nEx, d.exCov.data(), d.weights.data(), out, st);
    case Export::ExanteNormalVaR:
      return ORXanalysisExanteNormalVaR(&d.nEx, d.exCov.data(), d.exMu.data(), d.weights.data(),
                                        &d.level, out, st);
    case Export::ExanteModifiedVaR:
      return ORXanalysisExanteModifiedVaR(&d.nHist, &d.nAssets, d.weights.data(), d.hist.data(),
                                          d.exCov.data(), &d.level, out, st);
    case Export::ExpostReturn:
      return ORXanalysisExpostReturn(&d.nSeriesObs, d.series.data(), out, st);
    case Export::ExpostVolatility:
      return ORXanalysisExpostVolatility(&d.nSeriesObs, d.series.data(), out, st);
    case Export::GaussianKernel:
      return ORXanalysisGaussianKernel(&d.nSeriesObs, &d.nPoints, d.series.data(),
                                       d.points.data(), out, st);
    case Export::Simulation:
      return ORXsimulGeometricBrownianX(&d.nSim, &d.horizon, &d.steps, d.start.data(),
                                        d.drift.data(), d.simCov.data(), out, st);
  }
  return -1;
}

namespace {

bool sameBits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

bool sameInputs(const CallData& a, const CallData& b) {
  const std::vector<double> CallData::*arrays[] = {
      &CallData::cov,        &CallData::mu,         &CallData::benchCov,  &CallData::cons,
      &CallData::rhs,        &CallData::lower,      &CallData::upper,     &CallData::prices,
      &CallData::hist,       &CallData::nearTarget, &CallData::eqMatrices, &CallData::eqValues,
      &CallData::ineqMatrices, &CallData::ineqLower, &CallData::ineqUpper, &CallData::exCov,
      &CallData::exMu,       &CallData::weights,    &CallData::series,    &CallData::points,
      &CallData::start,      &CallData::drift,      &CallData::simCov};
  for (auto field : arrays)
    if (!sameBits(a.*field, b.*field)) return false;
  const double CallData::*scalars[] = {&CallData::target,    &CallData::benchReturn,
                                       &CallData::excess,    &CallData::riskFree,
                                       &CallData::tolerance, &CallData::eigenFloor,
                                       &CallData::level};
  for (auto field : scalars)
    if (!sameBits(a.*field, b.*field)) return false;
  const int CallData::*counts[] = {
      &CallData::n,      &CallData::nEq,        &CallData::nIneq,     &CallData::nObs,
      &CallData::nSeries, &CallData::lag,       &CallData::nHist,     &CallData::nAssets,
      &CallData::nNear,  &CallData::nNearEq,    &CallData::nNearIneq, &CallData::nEx,
      &CallData::nSeriesObs, &CallData::nPoints, &CallData::nSim,     &CallData::horizon,
      &CallData::steps};
  for (auto field : counts)
    if (a.*field != b.*field) return false;
  return true;
}

Outcome runCase(Export e, CallData& d) {
  const CallData before = d;
  Outcome o;
  o.ret = callExport(e, d);
  o.status = d.status;
  const long count = resultCount(e, d);
  for (long k = 0; k < count && k < static_cast<long>(d.out.size()); ++k) {
    o.finite = o.finite && std::isfinite(d.out[k]);
    o.cleared = o.cleared && d.out[k] == 0.0;
  }
  o.inputsKept = sameInputs(before, d);
  return o;
}

}  // namespace lumbra::testing
