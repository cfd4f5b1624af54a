// SPDX-License-Identifier: Apache-2.0
// Risk analysis: ex-ante return, volatility, normal and modified value at
// risk, ex-post return and volatility, Gaussian kernel density.
#pragma once
#include "kernels/status.h"
#include "kernels/widened.h"

namespace lumbra::stats {

// Engine statuses of the analysis routines.
inline constexpr int kStatusBadSize = ORX_STATUS_TOO_FEW_OBSERVATIONS;
inline constexpr int kStatusBadLevel = ORX_STATUS_BAD_LEVEL;
inline constexpr int kStatusZeroVariance = ORX_STATUS_UNUSABLE_VARIANCE;
// The calls' statuses for data or results that are not finite numbers:
// -103 where the result is a return (as for a price below the return
// series' floor), -104 where it rests on a variance.
inline constexpr int kStatusUnusableReturn = ORX_STATUS_UNUSABLE_RETURN;
inline constexpr int kStatusUnusableVariance = kStatusZeroVariance;
inline constexpr int kStatusBadIndex = ORX_STATUS_BAD_MOMENT_INDEX;

// Confidence levels the value-at-risk engines accept: the single-precision
// value of 1e-8 widened to double, and 1 - 1e-8 as a double.
inline constexpr double kLevelLow = widened::k1em8;
inline constexpr double kLevelHigh = 0.9999999900000001;

// ---- ex-ante measures from given moments -----------------------------------
void analysisPortfolioReturn(const int& n, const double* mu, const double* w, double& r,
                             int& status);
void analysisPortfolioVariance(const int& n, const double* Sigma, const double* w, double& v,
                               int& status);
void analysisPortfolioVolatility(const int& n, const double* Sigma, const double* w,
                                 double& s, int& status);
void analysisNormalVaR(const int& n, const double* Sigma, const double* mu, const double* w,
                       const double& level, double& result, int& status);

// ---- modified (Cornish-Fisher) value at risk from a history ------------------
// R is the T by n history (column-major), V the covariance that scales the
// skewness and kurtosis.  Work: n (T + 6n + 2) doubles.
void analysisModifiedVaR(const int& T, const int& n, const double* w, const double* R,
                         const double* V, const double& level, double* work, double& result,
                         int& status);
// Work: the third-moment area, n (5n + 1) doubles.
void analysisSkewness(const int& T, const int& n, const double* w, const double* R,
                      const double* V, double* work, double& S, int& status);
void analysisExcessKurtosis(const int& T, const int& n, const double* w, const double* R,
                            const double* V, double& K, int& status);
// Work: A (n*n), slice means (n), D, B, E, G (n*n each).
void analysisThirdMoment(const int& T, const int& n, const double* w, const double* R,
                         double* work, double& m3, int& status);
// Co-moment slice of asset k (0-based): M(i,j) = mean over t of
// c(t,i) c(t,j) c(t,k) with c the centred history, divisor T.
void analysisCoMomentSlice(const int& T, const int& n, const int& k, const double* R,
                           double* means, double* M, int& status);
// Raw moment of order 1 to 4 of the portfolio return, by the sum over all
// index tuples.
void analysisRawMoment(const int& T, const int& n, const int& order, const double* w,
                       const double* R, double& m, int& status);
void analysisCornishFisher(const double& mean, const double& variance, const double& S,
                           const double& K, const double& z, double& result, int& status);

// ---- ex-post measures and kernel density ------------------------------------
void analysisSeriesStdDev(const int& n, const double* x, double& result, int& status);
void analysisGaussianKernel(const int& n, const int& m, const double* x, const double* g,
                            double* f, int& status);

}  // namespace lumbra::stats
