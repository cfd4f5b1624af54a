// SPDX-License-Identifier: Apache-2.0
// Sample covariance and correlation of a column-major T by n table X.
#pragma once
#include "kernels/status.h"

namespace lumbra::stats {

// Smallest variance, and product of standard deviations, that the
// correlation divides by: the double nearest 1e-30.
inline constexpr double kCorrelationFloor = 1e-30;
// Engine status of a correlation with an asset of (near) zero variance.
inline constexpr int kStatusDegenerateAsset = ORX_STATUS_DEGENERATE_ASSET;

// 1 / (T - 1) computed in single precision and widened: part of the
// estimator's results.
double covarianceScale(int T);

// The centred scratch C (T*n doubles) holds the centred table transposed,
// n by T.
void modelingCovSample(const int& T, const int& n, const double* X, double* means, double* C,
                       double* Cov, int& status);
void modelingCovCentered(const int& T, const int& n, const double* X, const double* means,
                         double* C, double* Cov, int& status);
void modelingCovFromCentered(const int& T, const int& n, const double* C, double* Cov,
                             int& status);
// Work: means (n), C (T*n), Cov (n*n), s (n).  A covariance holding a NaN
// or an infinity ends with kStatusUnusableVariance (-104), Corr unwritten.
void modelingCorrSample(const int& T, const int& n, const double* X, double* work,
                        double* Corr, int& status);

// The same two computations on X given transposed, Xt = X' (n by T, one
// observation per column): the layout in which a caller's row-major table
// arrives, and the one the centred table is held in.  Same results, bit for
// bit, with the same work arrays.
void modelingCovSampleTransposed(const int& T, const int& n, const double* Xt, double* means,
                                 double* C, double* Cov, int& status);
void modelingCorrSampleTransposed(const int& T, const int& n, const double* Xt, double* work,
                                  double* Corr, int& status);

}  // namespace lumbra::stats
