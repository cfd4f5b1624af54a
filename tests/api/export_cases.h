// SPDX-License-Identifier: Apache-2.0
// One valid call of every export on small data of its own, which the
// argument, bad-input, non-finite, allocation-failure and concurrency tests
// spoil, repeat or run side by side.
#pragma once
#include <cstring>
#include <vector>

namespace lumbra::testing {

enum class Export {
  AllocMV, AllocIT, AllocSharpe, Returns, LogReturns, Cov, Corr, SDLS, SDLScorr, ExanteReturn,
  ExanteVolatility, ExanteNormalVaR, ExanteModifiedVaR, ExpostReturn, ExpostVolatility,
  GaussianKernel, Simulation, Count
};
const char* exportName(Export e);

// Arrays and scalars that compare bit for bit (NaN equal to itself), so that
// "the inputs came back as they were" is the defaulted equality of CallData.
struct Vec : std::vector<double> {
  using std::vector<double>::vector;
  bool operator==(const Vec& o) const {
    return size() == o.size() && (empty() || std::memcmp(data(), o.data(), size() * 8) == 0);
  }
};
struct Real {
  double v;
  bool operator==(const Real& o) const { return std::memcmp(&v, &o.v, sizeof v) == 0; }
};

// The arguments of every export, each with a valid value; row-major
// matrices as the caller passes them.  A test changes what it needs.
struct CallData {
  // allocators: three assets, the budget as equality, w0 + w1 <= 0.9
  int n = 3, nEq = 1, nIneq = 1;
  Vec cov = {0.04, 0.01, 0.0, 0.01, 0.09, 0.02, 0.0, 0.02, 0.16}, mu = {0.05, 0.08, 0.11};
  Vec benchCov = {0.02, 0.03, 0.02}, cons = {1.0, 1.0, 1.0, 0.0, 1.0, 1.0}, rhs = {1.0, 0.9};
  Vec lower = {0.0, 0.0, 0.0}, upper = {1.0, 1.0, 1.0};
  Real target{0.07}, benchReturn{0.06}, excess{0.01}, riskFree{0.02};
  // return series: four prices of two assets
  int nObs = 4, nSeries = 2, lag = 1;
  Vec prices = {100.0, 50.0, 101.0, 49.5, 99.0, 50.5, 102.0, 51.0};
  // covariance, correlation, modified VaR: five observations of two assets
  int nHist = 5, nAssets = 2;
  Vec hist = {0.01, 0.02, -0.02, 0.01, 0.015, -0.01, 0.0, 0.03, 0.005, -0.02};
  // nearness: X(0,0) = 1 and -1 <= X(0,1) + X(1,0) <= 1
  int nNear = 2, nNearEq = 1, nNearIneq = 1;
  Vec nearTarget = {1.0, 0.5, 0.5, 1.0}, eqMatrices = {1.0, 0.0, 0.0, 0.0}, eqValues = {1.0};
  Vec ineqMatrices = {0.0, 1.0, 1.0, 0.0}, ineqLower = {-1.0}, ineqUpper = {1.0};
  Real tolerance{1e-8}, eigenFloor{0.0};
  // ex-ante measures: two assets
  int nEx = 2;
  Vec exCov = {0.04, 0.01, 0.01, 0.09}, exMu = {0.01, 0.02}, weights = {0.5, 0.5};
  Real level{0.95};
  // ex-post measures and kernel density
  int nSeriesObs = 5, nPoints = 3;
  Vec series = {0.01, -0.02, 0.015, 0.0, 0.005}, points = {-0.02, 0.0, 0.02};
  // simulation: two assets, four time points
  int nSim = 2, horizon = 1, steps = 4;
  Vec start = {100.0, 50.0}, drift = {0.05, 0.02}, simCov = {0.04, 0.0, 0.0, 0.09};
  // every export's result and status
  Vec out = Vec(64, -777.0);
  int status = 12345;
  bool operator==(const CallData&) const = default;
};

// Doubles of the export's result for the sizes in d (0 when not positive).
long resultCount(Export e, const CallData& d);

// Calls export e on d; its result lands in d.out, its status in d.status.
int callExport(Export e, CallData& d);

// What a call left: the return value, the status, whether the result is
// finite and all zero, and whether every input came back bit for bit.
struct Outcome {
  int ret = 0, status = 0;
  bool finite = true, cleared = true, inputsKept = true;
};
Outcome runCase(Export e, CallData& d);

}  // namespace lumbra::testing
