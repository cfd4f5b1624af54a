// SPDX-License-Identifier: Apache-2.0
// Ex-ante portfolio return, variance, volatility and normal value at risk
// from given expected returns and covariance.
#include <cmath>

#include "kernels/kernels.h"
#include "stats/analysis.h"
#include "stats/normal.h"

namespace lumbra::stats {

using namespace lumbra::kernels;

// r := w' mu
void analysisPortfolioReturn(const int& n, const double* mu, const double* w, double& r,
                             int& status) {
  status = 0;
  vecDot(n, w, mu, r);
}

// v := w' Sigma w, Sigma not assumed symmetric.
void analysisPortfolioVariance(const int& n, const double* Sigma, const double* w, double& v,
                               int& status) {
  status = 0;
  v = 0.0;
  matQuadForm(n, Sigma, w, v);
}

// s := sqrt(w' Sigma w); a negative form gives NaN with status 0.
void analysisPortfolioVolatility(const int& n, const double* Sigma, const double* w,
                                 double& s, int& status) {
  status = 0;
  s = 0.0;
  double v = 0.0;
  analysisPortfolioVariance(n, Sigma, w, v, status);
  if (status >= 0) s = std::sqrt(v);
}

// result := w' mu - sigma z(level): the lower return quantile of a normal
// portfolio, a loss being negative.
void analysisNormalVaR(const int& n, const double* Sigma, const double* mu, const double* w,
                       const double& level, double& result, int& status) {
  status = 0;
  result = 0.0;
  if (level < kLevelLow || level > kLevelHigh) {
    status = kStatusBadLevel;
    return;
  }
  double m = 0.0, s = 0.0;
  analysisPortfolioReturn(n, mu, w, m, status);
  analysisPortfolioVolatility(n, Sigma, w, s, status);
  const double z = normalQuantile(level, 1.0 - level);
  result = (0.0 - s) * z + m;
}

}  // namespace lumbra::stats
