// SPDX-License-Identifier: Apache-2.0
// Sample covariance and correlation.
#include "stats/covariance.h"

#include <algorithm>
#include <cmath>

#include "kernels/index.h"
#include "kernels/kernels.h"
#include "stats/analysis.h"

namespace lumbra::stats {

using namespace lumbra::kernels;

namespace {
constexpr int kStatusBadDimensions = ORX_STATUS_TOO_FEW_OBSERVATIONS;
// Side of the tiles in which the centring transposes the table.
constexpr i64 kCentreTile = 32;

// C'(j,i) := X(i,j) - means(j) over the tile i0 <= i < i1, j0 <= j < j1.
// Moving one tile of 32 by 32 doubles at a time keeps the strided side of
// the transposition in the first-level cache.
void centreTile(i64 T, i64 n, const double* X, const double* means, double* C, i64 i0,
                i64 i1, i64 j0, i64 j1) {
  for (i64 i = i0; i < i1; ++i)
    for (i64 j = j0; j < j1; ++j) C[at(j, i, n)] = X[at(i, j, T)] - means[j];
}

// means(j) := (Xt(j,0) + ... + Xt(j,T-1)) / T for the table held
// transposed, Xt = X' (n by T).  Each sum starts at 0.0 and adds its terms
// in observation order, as matColMeans does down a column of X, so the
// means are the same bit for bit; the sweep runs along contiguous columns
// of Xt with all n sums side by side.
void meansOfTransposed(i64 T, i64 n, const double* Xt, double* means) {
  for (i64 j = 0; j < n; ++j) means[j] = 0.0;
  for (i64 i = 0; i < T; ++i)
    for (i64 j = 0; j < n; ++j) means[j] += Xt[at(j, i, n)];
  for (i64 j = 0; j < n; ++j) means[j] /= static_cast<double>(T);
}

// Corr from Cov: s(k) := sqrt(Cov(k,k)) where Cov(k,k) > 1e-30, else 0.0;
// Corr(l,k) := Cov(k,l) / (s(l) s(k)) for l < k, mirrored; a pair whose
// product of deviations is at or below 1e-30 (or NaN) gets 0.0 and the
// warning status 5.  The diagonal is 1.0 for every asset.
void correlationFromCovariance(i64 n, const double* Cov, double* s, double* Corr,
                               int& status) {
  // A NaN or an infinity in the data, or a covariance that overflowed,
  // would leave s = 0 or an infinite s and so a finite but meaningless 0.0
  // correlation: refused here, Corr left as it was.
  if (!allFinite(n * n, Cov)) {
    status = kStatusUnusableVariance;
    return;
  }
  for (i64 k = 0; k < n; ++k) {
    const double v = Cov[at(k, k, n)];
    s[k] = v > kCorrelationFloor ? std::sqrt(v) : 0.0;
  }
  const int order = static_cast<int>(n);
  matDiagonal(order, Corr, 1.0);
  if (n < 2) return;
  for (i64 k = 1; k < n; ++k) {
    for (i64 l = 0; l < k; ++l) {
      const double p = s[l] * s[k];
      if (p > kCorrelationFloor) {
        Corr[at(l, k, n)] = Cov[at(k, l, n)] / p;
      } else {
        Corr[at(l, k, n)] = 0.0;
        status = kStatusDegenerateAsset;
      }
    }
    for (i64 l = 0; l < k; ++l) Corr[at(k, l, n)] = Corr[at(l, k, n)];
  }
}

// The correlation's work array: column means (n), centred table (T n),
// covariance (n n), scales (n), in this order.
struct CorrWork {
  double* means;
  double* C;
  double* Cov;
  double* s;
};
CorrWork carveCorrWork(i64 T, i64 n, double* work) {
  CorrWork w;
  w.means = work;
  w.C = w.means + n;
  w.Cov = w.C + T * n;
  w.s = w.Cov + n * n;
  return w;
}

}  // namespace

// 1 / (T - 1) with T - 1 converted to float and divided in float: the
// estimator carries only a single-precision mantissa in its scale.
double covarianceScale(int T) {
  const float denominator = static_cast<float>(T - 1);
  const float one = 1.0f;
  return static_cast<double>(one / denominator);
}

// Cov := scale * C' C for the centred table C, which is held transposed
// (n by T, one observation per column): the Gram product then runs as a
// rank-T update over contiguous columns, with the same sums.
void modelingCovFromCentered(const int& T, const int& n, const double* C, double* Cov,
                             int& status) {
  if (T < 2) {
    status = kStatusBadDimensions;
    return;
  }
  status = 0;
  matGramRows(n, T, C, Cov);
  const double scale = covarianceScale(T);
  matScale(n, n, Cov, scale);
}

// C'(j,i) := X(i,j) - means(j), the centred table transposed (n by T), then
// the covariance of it.
void modelingCovCentered(const int& T, const int& n, const double* X, const double* means,
                         double* C, double* Cov, int& status) {
  status = 0;
  for (i64 j0 = 0; j0 < n; j0 += kCentreTile)
    for (i64 i0 = 0; i0 < T; i0 += kCentreTile)
      centreTile(T, n, X, means, C, i0, std::min<i64>(T, i0 + kCentreTile), j0,
                 std::min<i64>(n, j0 + kCentreTile));
  modelingCovFromCentered(T, n, C, Cov, status);
}

// Sample covariance of X: column means, then the centred product.
void modelingCovSample(const int& T, const int& n, const double* X, double* means, double* C,
                       double* Cov, int& status) {
  matColMeans(T, n, X, means);
  modelingCovCentered(T, n, X, means, C, Cov, status);
}

// Correlation of X: the covariance into the work array, then Corr from it.
void modelingCorrSample(const int& T, const int& n, const double* X, double* work,
                        double* Corr, int& status) {
  const CorrWork w = carveCorrWork(T, n, work);
  status = 0;
  matColMeans(T, n, X, w.means);
  modelingCovCentered(T, n, X, w.means, w.C, w.Cov, status);
  if (status < 0) return;
  correlationFromCovariance(n, w.Cov, w.s, Corr, status);
}

// modelingCovSample of X given as Xt = X' (n by T): the means in the same
// order of sums, C'(j,i) := Xt(j,i) - means(j) along contiguous columns,
// then the same centred product.  Same results, bit for bit.
void modelingCovSampleTransposed(const int& T, const int& n, const double* Xt, double* means,
                                 double* C, double* Cov, int& status) {
  meansOfTransposed(T, n, Xt, means);
  status = 0;
  for (i64 i = 0; i < T; ++i)
    for (i64 j = 0; j < n; ++j) C[at(j, i, n)] = Xt[at(j, i, n)] - means[j];
  modelingCovFromCentered(T, n, C, Cov, status);
}

// modelingCorrSample of X given as Xt = X' (n by T), with the same work
// array.  Same results, bit for bit.
void modelingCorrSampleTransposed(const int& T, const int& n, const double* Xt, double* work,
                                  double* Corr, int& status) {
  const CorrWork w = carveCorrWork(T, n, work);
  status = 0;
  modelingCovSampleTransposed(T, n, Xt, w.means, w.C, w.Cov, status);
  if (status < 0) return;
  correlationFromCovariance(n, w.Cov, w.s, Corr, status);
}

}  // namespace lumbra::stats
