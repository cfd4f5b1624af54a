// SPDX-License-Identifier: Apache-2.0
// One valid call of every export on small data of its own, which the
// bad-input table, the allocation-failure sweep and the concurrency tests
// spoil, repeat or run side by side.
#pragma once
#include <string>
#include <vector>

namespace lumbra::testing {

enum class Export {
  AllocMV, AllocIT, AllocSharpe, Returns, LogReturns, Cov, Corr, SDLS, SDLScorr,
  ExanteReturn, ExanteVolatility, ExanteNormalVaR, ExanteModifiedVaR, ExpostReturn,
  ExpostVolatility, GaussianKernel, Simulation
};
inline constexpr Export kAllExports[] = {
    Export::AllocMV,          Export::AllocIT,           Export::AllocSharpe,
    Export::Returns,          Export::LogReturns,        Export::Cov,
    Export::Corr,             Export::SDLS,              Export::SDLScorr,
    Export::ExanteReturn,     Export::ExanteVolatility,  Export::ExanteNormalVaR,
    Export::ExanteModifiedVaR, Export::ExpostReturn,     Export::ExpostVolatility,
    Export::GaussianKernel,   Export::Simulation};

const char* exportName(Export e);

// The arguments of every export, each with a valid value; row-major
// matrices as the caller passes them.  A test changes what it needs.
struct CallData {
  // allocators: three assets, the budget as equality, one inequality
  int n = 3, nEq = 1, nIneq = 1;
  std::vector<double> cov = {0.04, 0.01, 0.0, 0.01, 0.09, 0.02, 0.0, 0.02, 0.16};
  std::vector<double> mu = {0.05, 0.08, 0.11};
  std::vector<double> benchCov = {0.02, 0.03, 0.02};
  std::vector<double> cons = {1.0, 1.0, 1.0, 0.0, 1.0, 1.0};  // n by 2: budget, w1 + w2 <= 0.9
  std::vector<double> rhs = {1.0, 0.9};
  std::vector<double> lower = {0.0, 0.0, 0.0};
  std::vector<double> upper = {1.0, 1.0, 1.0};
  double target = 0.07, benchReturn = 0.06, excess = 0.01, riskFree = 0.02;
  // return series: four prices of two assets
  int nObs = 4, nSeries = 2, lag = 1;
  std::vector<double> prices = {100.0, 50.0, 101.0, 49.5, 99.0, 50.5, 102.0, 51.0};
  // covariance, correlation, modified VaR: five observations of two assets
  int nHist = 5, nAssets = 2;
  std::vector<double> hist = {0.01, 0.02, -0.02, 0.01, 0.015, -0.01, 0.0, 0.03, 0.005, -0.02};
  // nearness: X(0,0) = 1 and -1 <= X(0,1) + X(1,0) <= 1
  int nNear = 2, nNearEq = 1, nNearIneq = 1;
  std::vector<double> nearTarget = {1.0, 0.5, 0.5, 1.0};
  std::vector<double> eqMatrices = {1.0, 0.0, 0.0, 0.0};
  std::vector<double> eqValues = {1.0};
  std::vector<double> ineqMatrices = {0.0, 1.0, 1.0, 0.0};
  std::vector<double> ineqLower = {-1.0}, ineqUpper = {1.0};
  double tolerance = 1e-8, eigenFloor = 0.0;
  // ex-ante measures: two assets
  int nEx = 2;
  std::vector<double> exCov = {0.04, 0.01, 0.01, 0.09};
  std::vector<double> exMu = {0.01, 0.02};
  std::vector<double> weights = {0.5, 0.5};
  double level = 0.95;
  // ex-post measures and kernel density
  int nSeriesObs = 5, nPoints = 3;
  std::vector<double> series = {0.01, -0.02, 0.015, 0.0, 0.005};
  std::vector<double> points = {-0.02, 0.0, 0.02};
  // simulation: two assets, four time points
  int nSim = 2, horizon = 1, steps = 4;
  std::vector<double> start = {100.0, 50.0}, drift = {0.05, 0.02};
  std::vector<double> simCov = {0.04, 0.0, 0.0, 0.09};
  // every export's result and status
  std::vector<double> out = std::vector<double>(64, -777.0);
  int status = 12345;
};

// Doubles of the export's result for the sizes in d (0 when not positive).
long resultCount(Export e, const CallData& d);

// Calls export e on d; its result lands in d.out, its status in d.status.
int callExport(Export e, CallData& d);

// What a call left: the return value, the status, and whether the result
// is finite, all zero, and whether every input came back bit for bit.
struct Outcome {
  int ret = 0;
  int status = 0;
  bool finite = true;
  bool cleared = true;
  bool inputsKept = true;
};
Outcome runCase(Export e, CallData& d);

// True when the inputs (everything but out and status) agree bit for bit.
bool sameInputs(const CallData& a, const CallData& b);

}  // namespace lumbra::testing
