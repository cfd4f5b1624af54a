// SPDX-License-Identifier: Apache-2.0
// The dual functions of the nearness problems and the driver of the
// minimiser.  Each evaluation of a dual is one projection on the cone of
// semi-definite matrices: with S(z) the target plus the combination of the
// constraint matrices weighted by the multipliers z, P(z) its projection,
//   theta(z) = 1/2 ||P(z)||^2 - (right-hand sides . z)
// is convex and smooth, and its gradient is the vector of constraint
// residuals at P(z).
#include <cmath>

#include "kernels/kernels.h"
#include "nearness/sdls.h"

namespace lumbra::nearness {
namespace {

using namespace lumbra::kernels;

// Print level and output unit of n2qn1: silent.
constexpr int kSilent = 0;
constexpr int kOutputUnit = 6;
constexpr int kColdStart = 1;
// Iteration limit max(2 nv, kMinIterations), simulations kSimPerIteration
// times that.
constexpr int kMinIterations = 300;
constexpr int kSimPerIteration = 3;
// Expected first decrease |f0| / kDecreaseDivisor, at least kDecreaseFloor
// (the double nearest 1e-15).
constexpr double kDecreaseDivisor = 10.0;
constexpr double kDecreaseFloor = 1e-15;
// Resolution of the multipliers df1 * kResolution / gmax, gmax at least
// kGradientFloor.
constexpr double kResolution = 1e-10;
constexpr double kGradientFloor = 1e-6;
// Below this dxmin(0) a stalled line search counts as a failure.
constexpr double kStallResolution = widened::k1em15;

// n2qn1's ending as a status of the nearness solvers.
int statusFromMode(int mode, double dxmin0) {
  if (mode < 1) return kSdlsSimulatorStop;
  switch (mode) {
    case 2: return kSdlsBadCall;
    case 3: return kSdlsUpdateFailed;
    case 4: return kSdlsIterationLimit;
    case 5: return kSdlsSimulationLimit;
    case 6: return dxmin0 >= kStallResolution ? kSdlsNoProgress : kSdlsStalled;
    case 7: return kSdlsReleaseFailed;
    default: return 0;
  }
}

// The plain Euclidean scalar product needs no data of its own; n2qn1
// hands this word through to it untouched.
double gScalarProductData[1] = {0.0};

// Packed order n(n+1)/2 of an n by n symmetric matrix.
i64 packedSize(i64 n) { return n * (n + 1) / 2; }

}  // namespace

// Sets the constants of n2qn1 from one evaluation at x and runs it.
void sdlsDualMinimise(Simulator simul, const int& nv, double* x, const double& tolerance,
                      const double* binf, const double* bsup, int* iz, double* rz, double& f,
                      double* g, int& iter, int& nsim, int& status) {
  double* dxmin = rz;
  double* rzMin = dxmin + nv;
  double* dzs = rzMin + (i64{nv} + 9) * nv / 2;
  int* izs = iz + 2 * i64{nv} + 1;

  status = 0;
  int mode = kColdStart;
  iter = 2 * nv > kMinIterations ? 2 * nv : kMinIterations;
  nsim = kSimPerIteration * iter;
  int indic = 4;
  simul(indic, nv, x, f, g, izs, dzs);
  double epsabs = static_cast<double>(nv) * tolerance;
  const double decrease = std::fabs(f) / kDecreaseDivisor;
  const double df1 = decrease > kDecreaseFloor ? decrease : kDecreaseFloor;
  // gmax = max(kGradientFloor, max_i |g(i)|)
  double gmax = kGradientFloor;
  for (i64 i = 0; i < nv; ++i)
    if (std::fabs(g[i]) > gmax) gmax = std::fabs(g[i]);
  for (i64 i = 0; i < nv; ++i) dxmin[i] = df1 * kResolution / gmax;

  n2qn1(simul, nv, x, f, g, dxmin, df1, epsabs, kSilent, kOutputUnit, mode, iter, nsim, binf,
        bsup, iz, rzMin, izs, gScalarProductData, dzs);
  status = statusFromMode(mode, dxmin[0]);
}

// S := C-hat + (sum_i y(i) A(i) + sum_j (lambda(j) - mu(j)) B(j)), the sum
// formed position by position in the order of the multipliers.
void sdlsCombine(const int& n, const int& m, const int& p, const double* z, const double* chat,
                 const double* A, const double* B, double* S) {
  const i64 nn = packedSize(n);
  for (i64 k = 0; k < nn; ++k) S[k] = 0.0;
  for (i64 i = 0; i < m; ++i) {
    const double* Ai = A + i * nn;
    for (i64 k = 0; k < nn; ++k) S[k] += z[i] * Ai[k];
  }
  for (i64 j = 0; j < p; ++j) {
    const double weight = z[m + j] - z[m + p + j];
    const double* Bj = B + j * nn;
    for (i64 k = 0; k < nn; ++k) S[k] += weight * Bj[k];
  }
  packAdd(n, S, chat, S);
}

// Carves the equality simulator's data from dzs (layout in sdls.h).
EqualityData carveEqualityData(const int& n, const int& m, double* dzs) {
  const i64 nn = packedSize(n);
  EqualityData d;
  d.bhat = dzs;
  d.chat = d.bhat + m;
  d.A = d.chat + nn;
  d.P = d.A + m * nn;
  d.w = d.P + nn;
  d.S = d.w + m;
  d.eigenWork = d.S + nn;
  return d;
}

// Carves the inequality simulator's data from dzs (layout in sdls.h).
InequalityData carveInequalityData(const int& n, const int& m, const int& p, double* dzs) {
  const i64 nn = packedSize(n);
  InequalityData d;
  d.chat = dzs;
  d.A = d.chat + nn;
  d.bhat = d.A + m * nn;
  d.B = d.bhat + m;
  d.lhat = d.B + p * nn;
  d.uhat = d.lhat + p;
  d.P = d.uhat + p;
  d.w1 = d.P + nn;
  d.w2 = d.w1 + m;
  d.w3 = d.w2 + p;
  d.S = d.w3 + p;
  d.eigenWork = d.S + nn;
  return d;
}

// theta(y) = 1/2 ||P||^2 - b-hat . y, g(i) = <P, A(i)> - b-hat(i).
void sdlsSimulEqualities(int&, const int& m, const double* y, double& f, double* g, int* izs,
                         double* dzs) {
  const int n = izs[0];
  int& eigenStatus = izs[1];
  int* iwork = izs + 2;
  const i64 nn = packedSize(n);
  const EqualityData d = carveEqualityData(n, m, dzs);

  const int none = 0;
  sdlsCombine(n, m, none, y, d.chat, d.A, nullptr, d.S);
  packEigenClip(n, d.S, iwork, d.eigenWork, d.P, eigenStatus);
  double norm = 0.0, by = 0.0;
  packFrobenius(n, d.P, norm);
  vecDot(m, d.bhat, y, by);
  f = 0.5 * norm * norm - by;
  for (i64 i = 0; i < m; ++i) packInner(n, d.P, d.A + i * nn, d.w[i]);
  vecSub(m, d.w, d.bhat, g);
}

// theta(z) = 1/2 ||P||^2 - (b-hat . y + l-hat . lambda - u-hat . mu), and
// the gradient <P, A(i)> - b-hat(i), <P, B(j)> - l-hat(j), u-hat(j) - <P, B(j)>.
void sdlsSimulInequalities(int&, const int&, const double* z, double& f, double* g, int* izs,
                           double* dzs) {
  const int n = izs[0], m = izs[1], p = izs[2];
  int& eigenStatus = izs[3];
  int* iwork = izs + 4;
  const i64 nn = packedSize(n);
  const InequalityData d = carveInequalityData(n, m, p, dzs);
  const double* y = z;
  const double* lambda = z + m;
  const double* mu = lambda + p;

  sdlsCombine(n, m, p, z, d.chat, d.A, d.B, d.S);
  packEigenClip(n, d.S, iwork, d.eigenWork, d.P, eigenStatus);
  double norm = 0.0, by = 0.0, ll = 0.0, um = 0.0;
  packFrobenius(n, d.P, norm);
  vecDot(m, d.bhat, y, by);
  vecDot(p, d.lhat, lambda, ll);
  vecDot(p, d.uhat, mu, um);
  f = 0.5 * norm * norm - (by + ll - um);
  for (i64 i = 0; i < m; ++i) packInner(n, d.P, d.A + i * nn, d.w1[i]);
  vecSub(m, d.w1, d.bhat, g);
  for (i64 j = 0; j < p; ++j) packInner(n, d.P, d.B + j * nn, d.w2[j]);
  vecSub(p, d.w2, d.lhat, g + m);
  const double minusOne = -1.0;
  vecCopyScale(p, d.w2, minusOne, d.w3);
  vecAdd(p, d.w3, d.uhat, g + m + p);  // u-hat + 1.0 * w3
}

// P := projection of Diag(y) + C-hat.
void sdlsProjectCorr(const int& n, const double* y, const double* chat, double* S, int* iwork,
                     double* work, double* P, int& info) {
  packFromDiag(n, y, S);
  packAdd(n, S, chat, S);
  packEigenClip(n, S, iwork, work, P, info);
}

// theta(y) = 1/2 ||P||^2 - sum_i y(i), g(i) = P(i,i) - 1.
void sdlsSimulCorr(int&, const int& n, const double* y, double& f, double* g, int* izs,
                   double* dzs) {
  int& eigenStatus = izs[0];
  int* iwork = izs + 1;
  const i64 nn = packedSize(n);
  double* chat = dzs;
  double* P = chat + nn;
  double* d = P + nn;
  double* S = d + n;
  double* eigenWork = S + nn;

  sdlsProjectCorr(n, y, chat, S, iwork, eigenWork, P, eigenStatus);
  double norm = 0.0, sum = 0.0;
  packFrobenius(n, P, norm);
  for (i64 i = 0; i < n; ++i) sum += y[i];
  f = 0.5 * norm * norm - sum;
  packDiag(n, P, d);
  for (i64 i = 0; i < n; ++i) g[i] = d[i] - 1.0;
}

// True when no element of x(0:count-1) is a NaN or an infinity.
bool sdlsAllFinite(i64 count, const double* x) {
  for (i64 k = 0; k < count; ++k)
    if (!std::isfinite(x[k])) return false;
  return true;
}

// True when no element C(i,j), i <= j, is a NaN or an infinity.
bool sdlsUpperFinite(const int& n, const double* C) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i)
      if (!std::isfinite(C[at(i, j, n)])) return false;
  return true;
}

}  // namespace lumbra::nearness
