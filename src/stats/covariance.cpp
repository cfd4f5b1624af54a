// Sample covariance and correlation.
#include "stats/covariance.h"

#include <cmath>

#include "kernels/index.h"
#include "kernels/kernels.h"
#include "stats/analysis.h"

namespace lumbra::stats {

using namespace lumbra::kernels;

namespace {
constexpr int kStatusBadDimensions = ORX_STATUS_TOO_FEW_OBSERVATIONS;
}

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
  for (i64 i = 0; i < T; ++i)
    for (i64 j = 0; j < n; ++j) C[at(j, i, n)] = X[at(i, j, T)] - means[j];
  modelingCovFromCentered(T, n, C, Cov, status);
}

// Sample covariance of X: column means, then the centred product.
void modelingCovSample(const int& T, const int& n, const double* X, double* means, double* C,
                       double* Cov, int& status) {
  matColMeans(T, n, X, means);
  modelingCovCentered(T, n, X, means, C, Cov, status);
}

// Corr(l,k) := Cov(k,l) / (s(l) s(k)) with s the standard deviations; a pair
// whose product of deviations is at or below 1e-30 (or NaN) gets 0.0 and the
// warning status 5.  The diagonal is 1.0 for every asset.
void modelingCorrSample(const int& T, const int& n, const double* X, double* work,
                        double* Corr, int& status) {
  const i64 nn = i64{n} * n;
  double* means = work;
  double* C = means + n;
  double* Cov = C + i64{T} * n;
  double* s = Cov + nn;
  status = 0;
  matColMeans(T, n, X, means);
  modelingCovCentered(T, n, X, means, C, Cov, status);
  if (status < 0) return;
  // A NaN or an infinity in the data, or a covariance that overflowed,
  // would leave s = 0 or an infinite s and so a finite but meaningless 0.0
  // correlation: refused here, Corr left as it was.
  if (!allFinite(nn, Cov)) {
    status = kStatusUnusableVariance;
    return;
  }
  for (i64 k = 0; k < n; ++k) {
    const double v = Cov[at(k, k, n)];
    s[k] = v > kCorrelationFloor ? std::sqrt(v) : 0.0;
  }
  matDiagonal(n, Corr, 1.0);
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

}  // namespace lumbra::stats
