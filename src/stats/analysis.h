// Risk analysis: ex-ante return, volatility, normal and modified value at
// risk, ex-post return and volatility, Gaussian kernel density.
#pragma once

namespace lumbra::stats {

void analysisPortfolioReturn(const int& n, const double* mu, const double* w, double& r,
                             int& status);
void analysisPortfolioVolatility(const int& n, const double* Sigma, const double* w,
                                 double& s, int& status);
void analysisNormalVaR(const int& n, const double* Sigma, const double* mu, const double* w,
                       const double& level, double& result, int& status);
// Work: n (T + 6n + 2) doubles.
void analysisModifiedVaR(const int& T, const int& n, const double* w, const double* R,
                         const double* V, const double& level, double* work, double& result,
                         int& status);
void analysisSeriesStdDev(const int& n, const double* x, double& result, int& status);
void analysisGaussianKernel(const int& n, const int& m, const double* x, const double* g,
                            double* f, int& status);

}  // namespace lumbra::stats
