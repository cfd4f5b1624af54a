// SPDX-License-Identifier: Apache-2.0
// Modified (Cornish-Fisher) value at risk: the normal quantile corrected
// for the portfolio's skewness and excess kurtosis, with the moments formed
// from the asset history by sums over asset tuples.
#include <cmath>

#include "kernels/kernels.h"
#include "kernels/widened.h"
#include "stats/analysis.h"
#include "stats/covariance.h"
#include "stats/normal.h"

namespace lumbra::stats {

using namespace lumbra::kernels;

namespace {

// Below this sample variance (the single-precision value of 1e-30, widened)
// the expansion has no scale.
constexpr double kVarianceFloor = widened::k1em30;
// Expansion coefficients 1/6, 1/24, 1/36 as single-precision values, widened.
using widened::kSixth;
using widened::kThirtySixth;
using widened::kTwentyFourth;

// The four sums below add, in one running accumulator, the products
// y(a1) y(a2) ... y(aq) over all index tuples, t outermost and a1 before a2
// before ..., with y(a) = w(a) R(t,a).  The partial product of the outer
// indices is formed once per outer index and reused by the inner loops:
// the product is evaluated left to right, so this gives the same bits as
// forming it afresh for every tuple.  The running sum is a strictly
// sequential chain of additions, which sets the pace.

// sum over t, a of y(a)
double tupleSum1(i64 T, i64 n, const double* w, const double* R) {
  double sum = 0.0;
  for (i64 t = 0; t < T; ++t)
    for (i64 a = 0; a < n; ++a) sum += w[a] * R[at(t, a, T)];
  return sum;
}

// sum over t, a, b of y(a) y(b)
double tupleSum2(i64 T, i64 n, const double* w, const double* R) {
  double sum = 0.0;
  for (i64 t = 0; t < T; ++t)
    for (i64 a = 0; a < n; ++a) {
      const double ya = w[a] * R[at(t, a, T)];
      for (i64 b = 0; b < n; ++b) sum += ya * (w[b] * R[at(t, b, T)]);
    }
  return sum;
}

// sum over t, a, b, c of y(a) y(b) y(c)
double tupleSum3(i64 T, i64 n, const double* w, const double* R) {
  double sum = 0.0;
  for (i64 t = 0; t < T; ++t)
    for (i64 a = 0; a < n; ++a) {
      const double ya = w[a] * R[at(t, a, T)];
      for (i64 b = 0; b < n; ++b) {
        const double yab = ya * (w[b] * R[at(t, b, T)]);
        for (i64 c = 0; c < n; ++c) sum += yab * (w[c] * R[at(t, c, T)]);
      }
    }
  return sum;
}

// sum over t, a, b, c, d of y(a) y(b) y(c) y(d); about T n^4 terms.
double tupleSum4(i64 T, i64 n, const double* w, const double* R) {
  double sum = 0.0;
  for (i64 t = 0; t < T; ++t)
    for (i64 a = 0; a < n; ++a) {
      const double ya = w[a] * R[at(t, a, T)];
      for (i64 b = 0; b < n; ++b) {
        const double yab = ya * (w[b] * R[at(t, b, T)]);
        for (i64 c = 0; c < n; ++c) {
          const double yabc = yab * (w[c] * R[at(t, c, T)]);
          for (i64 d = 0; d < n; ++d) sum += yabc * (w[d] * R[at(t, d, T)]);
        }
      }
    }
  return sum;
}

// Small-sample factors of the excess kurtosis, in single precision:
// a = T (T^2 - 2T + 3) / ((T-1)(T-2)(T-3)), b = 3 (T-1)(2T-3) / (T (T-2)(T-3)).
void kurtosisFactors(int T, double& a, double& b) {
  const float f = static_cast<float>(T);
  const float tt2 = static_cast<float>(i64{T} * (T - 2));
  const float twoT = static_cast<float>(i64{2} * T);
  const float fa = (tt2 + 3.0f) * f / ((f - 2.0f) * (f - 1.0f) * (f - 3.0f));
  const float fb = ((f - 1.0f) * 3.0f) * (twoT - 3.0f) / (tt2 * (f - 3.0f));
  a = static_cast<double>(fa);
  b = static_cast<double>(fb);
}

}  // namespace

// M(i,j) = M(j,i) := (1/T) sum over t of c(t,i) c(t,j) c(t,k), c(t,i) = R(t,i) - means(i).
void analysisCoMomentSlice(const int& T, const int& n, const int& k, const double* R,
                           double* means, double* M, int& status) {
  if (k < 0 || k >= n) {
    status = kStatusBadIndex;
    return;
  }
  status = 0;
  matColMeans(T, n, R, means);
  const double inv = 1.0 / T;
  for (i64 i = 0; i < n; ++i)
    for (i64 j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (i64 t = 0; t < T; ++t)
        sum += (R[at(t, i, T)] - means[i]) * (R[at(t, j, T)] - means[j]) *
               (R[at(t, k, T)] - means[k]);
      M[at(i, j, n)] = inv * sum;
      M[at(j, i, n)] = M[at(i, j, n)];
    }
}

// m3 := trace(A E) with A = w w' and E = sum over k of w(k) M_k, which is the
// sum over i, j, k of w(i) w(j) w(k) M_k(i,j).
void analysisThirdMoment(const int& T, const int& n, const double* w, const double* R,
                         double* work, double& m3, int& status) {
  const i64 nn = i64{n} * n;
  double* A = work;
  double* means = A + nn;
  double* D = means + n;
  double* B = D + nn;
  double* E = B + nn;
  double* G = E + nn;
  m3 = 0.0;
  status = 0;
  vecOuter(n, w, A);
  matFill(n, n, B, 0.0);
  for (int k = 0; k < n; ++k) {
    analysisCoMomentSlice(T, n, k, R, means, D, status);
    if (status < 0) return;
    matCopyScale(n, n, D, w[k], D);
    matAdd(n, n, D, B, E);
    matCopy(n, n, E, B);
  }
  matMul(n, A, E, G);
  matTrace(n, G, m3);
}

// S := m3 / s^3 with s the volatility under V; no guard for s = 0.
void analysisSkewness(const int& T, const int& n, const double* w, const double* R,
                      const double* V, double* work, double& S, int& status) {
  S = 0.0;
  if (T < 3) {
    status = kStatusBadSize;
    return;
  }
  double m3 = 0.0, s = 0.0;
  analysisThirdMoment(T, n, w, R, work, m3, status);
  if (status < 0) return;
  analysisPortfolioVolatility(n, V, w, s, status);
  S = m3 / (s * s * s);
}

// m := (1/T) sum over t and all q-tuples of the products of w(a) R(t,a).
void analysisRawMoment(const int& T, const int& n, const int& order, const double* w,
                       const double* R, double& m, int& status) {
  if (order < 1 || order >= 5) {
    m = 0.0;
    status = kStatusBadIndex;
    return;
  }
  status = 0;
  if (T < 1) {
    m = 0.0 / T;
    return;
  }
  double sum = 0.0;
  switch (order) {
    case 1: sum = tupleSum1(T, n, w, R); break;
    case 2: sum = tupleSum2(T, n, w, R); break;
    case 3: sum = tupleSum3(T, n, w, R); break;
    default: sum = tupleSum4(T, n, w, R); break;
  }
  m = (1.0 / T) * sum;
}

// K := a c4 / v^2 - 3 - b: the corrected excess kurtosis, with c4 the fourth
// central moment (divisor T) from the raw moments and v the variance under V.
void analysisExcessKurtosis(const int& T, const int& n, const double* w, const double* R,
                            const double* V, double& K, int& status) {
  K = 0.0;
  if (T < 4) {
    status = kStatusBadSize;
    return;
  }
  status = 0;
  double v = 0.0;
  analysisPortfolioVariance(n, V, w, v, status);
  double m[4] = {0.0, 0.0, 0.0, 0.0};
  for (int q = 1; q <= 4; ++q) {
    analysisRawMoment(T, n, q, w, R, m[q - 1], status);
    if (status < 0) return;
  }
  const double m1 = m[0], m2 = m[1], m3 = m[2], m4 = m[3];
  const double c4 = (6.0 * m1 * m2 - 4.0 * m3) * m1 + (m4 - 3.0 * ((m1 * m1) * (m1 * m1)));
  double a = 0.0, b = 0.0;
  kurtosisFactors(T, a, b);
  K = a * (c4 / (v * v)) - 3.0 - b;
}

// result := mean + sigma (-z + (z^2-1) S/6 - (z^3-3z) K/24 + (2z^3-5z) S^2/36),
// the Cornish-Fisher lower quantile with its sign.
void analysisCornishFisher(const double& mean, const double& variance, const double& S,
                           const double& K, const double& z, double& result, int& status) {
  if (kVarianceFloor > variance) {
    status = kStatusZeroVariance;
    result = 0.0;
    return;
  }
  status = 0;
  const double q = z * z;
  const double u = (q - 1.0) * kSixth + ((q + q) - 5.0) * z * kThirtySixth * S;
  const double v = (0.0 - z) - (q - 3.0) * z * kTwentyFourth * K;
  result = std::sqrt(variance) * (u * S + v) + mean;
}

// Cornish-Fisher value at risk: scale and mean from the sample covariance and
// means of R, skewness and kurtosis normalised by V.
void analysisModifiedVaR(const int& T, const int& n, const double* w, const double* R,
                         const double* V, const double& level, double* work, double& result,
                         int& status) {
  const i64 nn = i64{n} * n;
  double* means = work;
  double* Chat = means + n;
  double* C = Chat + nn;
  double* third = C + i64{T} * n;
  double mean = 0.0, variance = 0.0, S = 0.0, K = 0.0;
  status = 0;
  result = 0.0;
  if (level < kLevelLow || level > kLevelHigh) {
    status = kStatusBadLevel;
    return;
  }
  modelingCovSample(T, n, R, means, C, Chat, status);
  if (status < 0) return;
  analysisPortfolioReturn(n, means, w, mean, status);
  if (status < 0) return;
  analysisPortfolioVariance(n, Chat, w, variance, status);
  if (status < 0) return;
  analysisSkewness(T, n, w, R, V, third, S, status);
  if (status < 0) return;
  analysisExcessKurtosis(T, n, w, R, V, K, status);
  if (status < 0) return;
  const double z = normalQuantile(level, 1.0 - level);
  analysisCornishFisher(mean, variance, S, K, z, result, status);
}

}  // namespace lumbra::stats
