// SPDX-License-Identifier: Apache-2.0
// Semi-definite least squares: the symmetric X nearest to a target C with
// trace(sym(A(i)) X) = b(i), l(j) <= trace(sym(B(j)) X) <= u(j) and
// X - s I semi-definite.  With Y = X - s I the problem is the projection
// of C - s I on the intersection of the semi-definite cone with the shifted
// constraints; it is solved through its dual (see sdls_dual.cpp), and X is
// rebuilt from the projection at the final multipliers and checked against
// the caller's constraints as given.
#include <cmath>

#include "kernels/kernels.h"
#include "nearness/nearness.h"
#include "nearness/sdls.h"

namespace lumbra::nearness {
namespace {

using namespace lumbra::kernels;

i64 packedSize(i64 n) { return n * (n + 1) / 2; }

// The dual's own area: z, its bounds, the gradient, then (from dxmin on)
// the real work handed to sdlsDualMinimise.
struct DualArea {
  double* z;
  double* lower;
  double* upper;
  double* g;
  double* rz;   // dxmin, n2qn1's work, then the simulator's data
  double* sim;  // the simulator's data
};

// Carves the dual area of nv variables from work.
DualArea carveDual(i64 nv, double* work) {
  DualArea d;
  d.z = work;
  d.lower = d.z + nv;
  d.upper = d.lower + nv;
  d.g = d.upper + nv;
  d.rz = d.g + nv;
  d.sim = d.rz + nv + (nv + 9) * nv / 2;
  return d;
}

// Shifted: F := C - s I and each rhs(i) := v(i) - s trace(M(i)) over the
// full, unsymmetrised M(i); otherwise plain copies.
void shiftRightHandSides(const int& n, const int& count, const double* M, const double* v,
                         bool shifted, const double& s, double* rhs) {
  if (!shifted) {
    vecCopy(count, v, rhs);
    return;
  }
  const i64 n2 = i64{n} * n;
  for (i64 i = 0; i < count; ++i) {
    double t = 0.0;
    matTrace(n, M + i * n2, t);
    rhs[i] = v[i] - s * t;
  }
}

// F := C - s I when shifted, else C.
void shiftTarget(const int& n, const double* C, bool shifted, const double& s, double* F) {
  if (shifted) {
    const double minusS = 0.0 - s;
    matAddDiag(n, C, minusS, F);
  } else {
    matCopy(n, n, C, F);
  }
}

// Packs the symmetric parts of count full n by n matrices, one after the other.
void packConstraints(const int& n, const int& count, const double* M, double* packed) {
  const i64 n2 = i64{n} * n, nn = packedSize(n);
  for (i64 i = 0; i < count; ++i) packSymmetriseFromFull(n, M + i * n2, packed + i * nn);
}

// X := F + s I when shifted, else F.
void rebuild(const int& n, const double* P, bool shifted, const double& s, double* F,
             double* X) {
  packToFull(n, P, F);
  if (shifted) matAddDiag(n, F, s, X);
  else matCopy(n, n, F, X);
}

// trace(M X) by the full product into T (n by n scratch).
double traceOfProduct(const int& n, const double* M, const double* X, double* T) {
  double t = 0.0;
  matMul(n, M, X, T);
  matTrace(n, T, t);
  return t;
}

// Final projection at z: S := combination, P := its projection; the status
// of the projection stands when negative, otherwise the minimiser's.
void finalProjection(const int& n, const int& m, const int& p, const double* z,
                     const double* chat, const double* A, const double* B, int* iwork,
                     double* S, double* eigenWork, double* P, int& status) {
  int projection = 0;
  for (i64 k = 0; k < packedSize(n); ++k) P[k] = 0.0;  // defined even if LAPACK refuses
  sdlsCombine(n, m, p, z, chat, A, B, S);
  packEigenClip(n, S, iwork, eigenWork, P, projection);
  if (projection < 0) status = projection;
}

// Starting point 0 and bounds: y free within +-kDualBound, lambda and mu
// in [0, kDualBound].
void dualStart(i64 m, i64 p, const DualArea& d) {
  const i64 nv = m + 2 * p;
  for (i64 k = 0; k < nv; ++k) {
    d.z[k] = 0.0;
    d.lower[k] = k < m ? -kDualBound : 0.0;
    d.upper[k] = kDualBound;
  }
}

}  // namespace

// |trace(A(i) X) - b(i)| <= kCheckTolerance for each i, in order, with the
// matrices as given; the first miss sets kSdlsEqualityMissed.  T: n*n scratch.
void sdlsCheckEqualities(const int& n, const int& m, const double* A, const double* b,
                         const double* X, double* T, int& status) {
  const i64 n2 = i64{n} * n;
  for (i64 i = 0; i < m; ++i) {
    const double t = traceOfProduct(n, A + i * n2, X, T);
    if (std::fabs(t - b[i]) > kCheckTolerance) {
      status = kSdlsEqualityMissed;
      return;
    }
  }
}

// l(j) - tol <= trace(B(j) X) <= u(j) + tol for each j, in order; the first
// violation sets kSdlsInequalityMissed.  T: n*n scratch.
void sdlsCheckInequalities(const int& n, const int& p, const double* B, const double* l,
                           const double* u, const double* X, double* T, int& status) {
  const i64 n2 = i64{n} * n;
  for (i64 j = 0; j < p; ++j) {
    const double t = traceOfProduct(n, B + j * n2, X, T);
    if (l[j] - kCheckTolerance > t || t > u[j] + kCheckTolerance) {
      status = kSdlsInequalityMissed;
      return;
    }
  }
}

// Dual of the equality problem on the prepared data: P := projection at the
// final y.  With m = 0 the target alone is projected.
void sdlsDualEqualities(const int& n, const int& m, const double* bhat, const double* chat,
                        const double* A, const double& tolerance, int* iz, double* area,
                        double* P, int& status) {
  const i64 nn = packedSize(n);
  const DualArea d = carveDual(m, area);
  const EqualityData sim = carveEqualityData(n, m, d.sim);
  status = 0;
  if (m == 0) {
    finalProjection(n, 0, 0, nullptr, chat, nullptr, nullptr, iz, sim.S, sim.eigenWork, P,
                    status);
    return;
  }
  dualStart(m, 0, d);
  vecCopy(m, bhat, sim.bhat);
  for (i64 k = 0; k < nn; ++k) sim.chat[k] = chat[k];
  for (i64 k = 0; k < m * nn; ++k) sim.A[k] = A[k];
  int* izs = iz + 2 * i64{m} + 1;
  izs[0] = n;
  izs[1] = 0;
  double f = 0.0;
  int iter = 0, nsim = 0;
  sdlsDualMinimise(sdlsSimulEqualities, m, d.z, tolerance, d.lower, d.upper, iz, d.rz, f, d.g,
                   iter, nsim, status);
  finalProjection(n, m, 0, d.z, chat, A, nullptr, iz, sim.S, sim.eigenWork, P, status);
}

// Dual of the problem with inequalities: P := projection at the final z.
void sdlsDualInequalities(const int& n, const int& m, const int& p, const double* bhat,
                          const double* lhat, const double* uhat, const double* chat,
                          const double* A, const double* B, const double& tolerance, int* iz,
                          double* area, double* P, int& status) {
  const i64 nn = packedSize(n);
  const int nv = m + 2 * p;
  const DualArea d = carveDual(nv, area);
  const InequalityData sim = carveInequalityData(n, m, p, d.sim);
  dualStart(m, p, d);
  for (i64 k = 0; k < nn; ++k) sim.chat[k] = chat[k];
  for (i64 k = 0; k < m * nn; ++k) sim.A[k] = A[k];
  vecCopy(m, bhat, sim.bhat);
  for (i64 k = 0; k < p * nn; ++k) sim.B[k] = B[k];
  vecCopy(p, lhat, sim.lhat);
  vecCopy(p, uhat, sim.uhat);
  int* izs = iz + 2 * i64{nv} + 1;
  izs[0] = n;
  izs[1] = m;
  izs[2] = p;
  izs[3] = 0;
  double f = 0.0;
  int iter = 0, nsim = 0;
  sdlsDualMinimise(sdlsSimulInequalities, nv, d.z, tolerance, d.lower, d.upper, iz, d.rz, f,
                   d.g, iter, nsim, status);
  finalProjection(n, m, p, d.z, chat, A, B, iz, sim.S, sim.eigenWork, P, status);
}

// Equalities alone.  work: b-hat (m), F (n*n), C-hat (nn), P (nn), A (m nn),
// then the dual's area.
void sdlsEqualities(const int& n, const double* C, const int& m, const double* Afull,
                    const double* b, const double& tolerance, const double& s, int* iz,
                    double* work, double* X, int& status) {
  const i64 nn = packedSize(n);
  const bool shifted = s > kShiftEqualities;
  double* bhat = work;
  double* F = bhat + m;
  double* chat = F + i64{n} * n;
  double* P = chat + nn;
  double* A = P + nn;
  double* area = A + m * nn;

  shiftTarget(n, C, shifted, s, F);
  shiftRightHandSides(n, m, Afull, b, shifted, s, bhat);
  packFromFull(n, F, chat);
  packConstraints(n, m, Afull, A);
  sdlsDualEqualities(n, m, bhat, chat, A, tolerance, iz, area, P, status);
  rebuild(n, P, shifted, s, F, X);
  if (status >= 0) sdlsCheckEqualities(n, m, Afull, b, X, F, status);
}

// Equalities and inequalities.  work: b-hat (m), l-hat (p), u-hat (p),
// F (n*n), C-hat (nn), P (nn), A (m nn), B (p nn), then the dual's area.
void sdlsInequalities(const int& n, const double* C, const int& m, const double* Afull,
                      const double* b, const int& p, const double* Bfull, const double* l,
                      const double* u, const double& tolerance, const double& s, int* iz,
                      double* work, double* X, int& status) {
  const i64 nn = packedSize(n);
  const bool shifted = s > kShiftInequalities;
  double* bhat = work;
  double* lhat = bhat + m;
  double* uhat = lhat + p;
  double* F = uhat + p;
  double* chat = F + i64{n} * n;
  double* P = chat + nn;
  double* A = P + nn;
  double* B = A + m * nn;
  double* area = B + p * nn;

  shiftTarget(n, C, shifted, s, F);
  shiftRightHandSides(n, m, Afull, b, shifted, s, bhat);
  shiftRightHandSides(n, p, Bfull, l, shifted, s, lhat);
  shiftRightHandSides(n, p, Bfull, u, shifted, s, uhat);
  packFromFull(n, F, chat);
  packConstraints(n, m, Afull, A);
  packConstraints(n, p, Bfull, B);
  sdlsDualInequalities(n, m, p, bhat, lhat, uhat, chat, A, B, tolerance, iz, area, P, status);
  rebuild(n, P, shifted, s, F, X);
  if (status >= 0) sdlsCheckEqualities(n, m, Afull, b, X, F, status);
  if (status >= 0) sdlsCheckInequalities(n, p, Bfull, l, u, X, F, status);
}

// The engine of ORXmodelingSDLS.  Data holding a NaN or an infinity (in the
// upper triangle of the target, a constraint matrix, a right-hand side, a
// bound or the floor) ends with kSdlsBadCall and X cleared, before any
// eigen-decomposition could meet it.
void sdlsSolve(const int& n, const double* target, const int& nEq, const double* eqMatrices,
               const double* eqValues, const int& nIneq, const double* ineqMatrices,
               const double* ineqLower, const double* ineqUpper, const double& tolerance,
               const double& eigenFloor, int* iz, double* work, double* result, int& status) {
  status = 0;
  const i64 n2 = i64{n} * n;
  const bool finite = std::isfinite(eigenFloor) && sdlsUpperFinite(n, target) &&
                      sdlsAllFinite(nEq * n2, eqMatrices) && sdlsAllFinite(nEq, eqValues) &&
                      sdlsAllFinite(nIneq * n2, ineqMatrices) &&
                      sdlsAllFinite(nIneq, ineqLower) && sdlsAllFinite(nIneq, ineqUpper);
  if (!finite) {
    for (i64 k = 0; k < n2; ++k) result[k] = 0.0;
    status = kSdlsBadCall;
    return;
  }
  if (nIneq != 0)
    sdlsInequalities(n, target, nEq, eqMatrices, eqValues, nIneq, ineqMatrices, ineqLower,
                     ineqUpper, tolerance, eigenFloor, iz, work, result, status);
  else
    sdlsEqualities(n, target, nEq, eqMatrices, eqValues, tolerance, eigenFloor, iz, work,
                   result, status);
}

}  // namespace lumbra::nearness
