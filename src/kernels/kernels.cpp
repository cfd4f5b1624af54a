// SPDX-License-Identifier: Apache-2.0
// Dense matrix kernels on BLAS and LAPACK.
#include "kernels/kernels.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

#include "kernels/blas.h"

namespace lumbra::kernels {
namespace {

constexpr int kOne = 1;
constexpr double kUnit = 1.0;
constexpr double kMinusUnit = -1.0;
constexpr double kZero = 0.0;

// Largest element count handed to one level-1 BLAS call; longer arrays are
// processed in consecutive chunks, which gives the same elementwise result.
constexpr i64 kChunk = INT_MAX;

// y(0:count-1) := x(0:count-1) for a count that may exceed the BLAS int.
void copyLong(i64 count, const double* x, double* y) {
  for (i64 s = 0; s < count; s += kChunk) {
    const int len = static_cast<int>(count - s < kChunk ? count - s : kChunk);
    dcopy_(&len, x + s, &kOne, y + s, &kOne);
  }
}

// x(0:count-1) := alpha * x(0:count-1) for a count that may exceed the BLAS int.
void scaleLong(i64 count, const double& alpha, double* x) {
  for (i64 s = 0; s < count; s += kChunk) {
    const int len = static_cast<int>(count - s < kChunk ? count - s : kChunk);
    dscal_(&len, &alpha, x + s, &kOne);
  }
}

// C(i,j) := C(j,i) for i > j: the strict lower triangle from the upper,
// in tiles of 32 by 32 so that the strided reads stay in cache.
void mirrorUpper(i64 n, double* C) {
  constexpr i64 kTile = 32;
  for (i64 j0 = 0; j0 < n; j0 += kTile)
    for (i64 i0 = j0; i0 < n; i0 += kTile)
      for (i64 j = j0; j < std::min(n, j0 + kTile); ++j)
        for (i64 i = std::max(i0, j + 1); i < std::min(n, i0 + kTile); ++i)
          C[at(i, j, n)] = C[at(j, i, n)];
}

}  // namespace

// ---- vectors --------------------------------------------------------------

// y := x
void vecCopy(const int& n, const double* x, double* y) {
  if (n < 1) return;
  dcopy_(&n, x, &kOne, y, &kOne);
}

// x(i) := c
void vecFill(const int& n, double* x, const double& c) {
  for (i64 i = 0; i < n; ++i) x[i] = c;
}

// r := x' y
void vecDot(const int& n, const double* x, const double* y, double& r) {
  if (n < 1) return;
  r = ddot_(&n, x, &kOne, y, &kOne);
}

// r := min x(i); for n <= 1 simply x(0).
void vecMin(const int& n, const double* x, double& r) {
  r = x[0];
  for (i64 i = 1; i < n; ++i)
    if (x[i] < r) r = x[i];
}

// r := (x(0) + ... + x(n-1)) / n, summed in index order; 0.0 / n for n < 1.
void vecMean(const int& n, const double* x, double& r) {
  double s = 0.0;
  for (i64 i = 0; i < n; ++i) s += x[i];
  r = s / n;
}

// y := alpha x
void vecCopyScale(const int& n, const double* x, const double& alpha, double* y) {
  if (n < 1) return;
  dcopy_(&n, x, &kOne, y, &kOne);
  dscal_(&n, &alpha, y, &kOne);
}

// z := b + 1.0 a
void vecAdd(const int& n, const double* a, const double* b, double* z) {
  if (n < 1) return;
  dcopy_(&n, b, &kOne, z, &kOne);
  daxpy_(&n, &kUnit, a, &kOne, z, &kOne);
}

// z := a + (-1.0) b
void vecSub(const int& n, const double* a, const double* b, double* z) {
  if (n < 1) return;
  dcopy_(&n, a, &kOne, z, &kOne);
  daxpy_(&n, &kMinusUnit, b, &kOne, z, &kOne);
}

// z := a + alpha b
void vecAddScaled(const int& n, const double* a, const double* b, const double& alpha,
                  double* z) {
  if (n < 1) return;
  dcopy_(&n, a, &kOne, z, &kOne);
  daxpy_(&n, &alpha, b, &kOne, z, &kOne);
}

// A := x x'
void vecOuter(const int& n, const double* x, double* A) {
  if (n < 1) return;
  matFill(n, n, A, kZero);
  dger_(&n, &n, &kUnit, x, &kOne, x, &kOne, A, &n);
}

// ---- full matrices --------------------------------------------------------

// B := A (m by n, one contiguous copy)
void matCopy(const int& m, const int& n, const double* A, double* B) {
  if (m < 1 || n < 1) return;
  copyLong(i64{m} * n, A, B);
}

// A(i,j) := c
void matFill(const int& m, const int& n, double* A, const double& c) {
  if (m < 1 || n < 1) return;
  const i64 count = i64{m} * n;
  for (i64 k = 0; k < count; ++k) A[k] = c;
}

// A := c I, every element written
void matDiagonal(const int& n, double* A, const double& c) {
  if (n < 1) return;
  matFill(n, n, A, kZero);
  for (i64 i = 0; i < n; ++i) A[at(i, i, n)] = c;
}

// A := alpha A
void matScale(const int& m, const int& n, double* A, const double& alpha) {
  if (m < 1 || n < 1) return;
  scaleLong(i64{m} * n, alpha, A);
}

// B := alpha A (B may be A)
void matCopyScale(const int& m, const int& n, const double* A, const double& alpha,
                  double* B) {
  if (m < 1 || n < 1) return;
  if (A != B) copyLong(i64{m} * n, A, B);
  scaleLong(i64{m} * n, alpha, B);
}

// C := A + B elementwise (C may be A or B)
void matAdd(const int& m, const int& n, const double* A, const double* B, double* C) {
  if (m < 1 || n < 1) return;
  const i64 count = i64{m} * n;
  for (i64 k = 0; k < count; ++k) C[k] = A[k] + B[k];
}

// B := A + c I
void matAddDiag(const int& n, const double* A, const double& c, double* B) {
  if (n < 1) return;
  if (A != B) matCopy(n, n, A, B);
  for (i64 i = 0; i < n; ++i) B[at(i, i, n)] += c;
}

// r := sum A(i,i); 0.0 for n < 1
void matTrace(const int& n, const double* A, double& r) {
  r = 0.0;
  for (i64 i = 0; i < n; ++i) r += A[at(i, i, n)];
}

// C := A B, all n by n
void matMul(const int& n, const double* A, const double* B, double* C) {
  if (n < 1) return;
  dgemm_("N", "N", &n, &n, &n, &kUnit, A, &n, B, &n, &kZero, C, &n, 1, 1);
}

// C := X' X, X m by n with leading dimension m.  The upper triangle comes
// from DSYRK and is mirrored: the same inner products as the general
// product X' X (each C(i,j) a sum over the m rows, in row order in the
// reference BLAS), at half the work, and C exactly symmetric.
void matGram(const int& m, const int& n, const double* X, double* C) {
  if (m < 1 || n < 1) return;
  dsyrk_("U", "T", &n, &m, &kUnit, X, &m, &kZero, C, &n, 1, 1);
  mirrorUpper(n, C);
}

// C := Y Y', Y n by m with leading dimension n: the Gram matrix of the
// rows of Y, that is X' X for X = Y'.  DSYRK's rank-m update runs down
// contiguous columns, and each C(i,j) is still the sum over the m columns in
// column order (reference BLAS), as in matGram on the transposed matrix.
void matGramRows(const int& n, const int& m, const double* Y, double* C) {
  if (m < 1 || n < 1) return;
  dsyrk_("U", "N", &n, &m, &kUnit, Y, &n, &kZero, C, &n, 1, 1);
  mirrorUpper(n, C);
}

// y := A' x
void matTransMulVec(const int& n, const double* A, const double* x, double* y) {
  if (n < 1) return;
  dgemv_("T", &n, &n, &kUnit, A, &n, x, &kOne, &kZero, y, &kOne, 1);
}

// y := L x, L lower triangular (the strict upper part is not read)
void matLowerMulVec(const int& n, const double* L, const double* x, double* y) {
  if (n < 1) return;
  vecCopy(n, x, y);
  dtrmv_("L", "N", "N", &n, L, &n, y, &kOne, 1, 1, 1);
}

// r := sum_j x(j) (sum_k A(j,k) x(k)), A not assumed symmetric
void matQuadForm(const int& n, const double* A, const double* x, double& r) {
  r = 0.0;
  for (i64 j = 0; j < n; ++j) {
    double row = 0.0;
    for (i64 k = 0; k < n; ++k) row += A[at(j, k, n)] * x[k];
    r += x[j] * row;
  }
}

// means(j) := (A(0,j) + ... + A(m-1,j)) / m.  Eight columns are summed
// side by side, each sum with its own terms in row order, so that eight
// independent additions are in flight instead of one chain.
void matColMeans(const int& m, const int& n, const double* A, double* means) {
  constexpr i64 kSideBySide = 8;
  i64 j = 0;
  for (; j + kSideBySide <= n; j += kSideBySide) {
    double s[kSideBySide] = {};
    for (i64 i = 0; i < m; ++i)
      for (i64 k = 0; k < kSideBySide; ++k) s[k] += A[at(i, j + k, m)];
    for (i64 k = 0; k < kSideBySide; ++k) means[j + k] = s[k] / m;
  }
  for (; j < n; ++j) {
    double s = 0.0;
    for (i64 i = 0; i < m; ++i) s += A[at(i, j, m)];
    means[j] = s / m;
  }
}

// B := lower triangle of A, zeros above the diagonal
void matLowerPart(const int& n, const double* A, double* B) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i < n; ++i) B[at(i, j, n)] = i >= j ? A[at(i, j, n)] : 0.0;
}

// B(i,j) := (A(i,j) + A(j,i)) * 0.5; safe with B = A
void matSymmetrise(const int& n, const double* A, double* B) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i) {
      const double v = (A[at(i, j, n)] + A[at(j, i, n)]) * 0.5;
      B[at(i, j, n)] = v;
      B[at(j, i, n)] = v;
    }
}

// A(i-1, 0:n-1) := x, with the row i counted from 1; -2 unless 0 < i <= ld.
void matSetRow(const int& ld, const int& n, double* A, const double* x, const int& i,
               int& status) {
  if (i <= 0 || i > ld) {
    status = codes::kBadPosition;
    return;
  }
  status = 0;
  for (i64 j = 0; j < n; ++j) A[at(i - 1, j, ld)] = x[j];
}

// Y(idx(j)-1, idx(i)-1) := X(j,i) with 1-based positions idx; Y has leading
// dimension m.  -2 when m < n or at the first idx(k) > m met while writing.
void matScatter(const int& n, const double* X, const int& m, const int* idx, double* Y,
                int& status) {
  status = 0;
  if (n < 1) return;
  if (m < n) {
    status = codes::kBadPosition;
    return;
  }
  for (i64 i = 0; i < n; ++i) {
    for (i64 j = 0; j < n; ++j) {
      if (idx[j] > m || idx[i] > m) {
        status = codes::kBadPosition;
        return;
      }
      Y[at(idx[j] - 1, idx[i] - 1, m)] = X[at(j, i, n)];
    }
  }
}

// B(iB-1+a, jB-1+b) := A(iA-1+a, jA-1+b) for the r by c block; positions
// counted from 1.  -2 with nothing written when a block leaves its matrix.
void matCopyBlock(const int& r, const int& c, const int& ldA, const int& colsA,
                  const double* A, const int& iA, const int& jA, const int& ldB,
                  const int& colsB, double* B, const int& iB, const int& jB,
                  int& status) {
  if (i64{iA} + r - 1 > ldA || i64{jA} + c - 1 > colsA || i64{iB} + r - 1 > ldB ||
      i64{jB} + c - 1 > colsB) {
    status = codes::kBadPosition;
    return;
  }
  status = 0;
  for (i64 b = 0; b < c; ++b)
    for (i64 a = 0; a < r; ++a)
      B[at(iB - 1 + a, jB - 1 + b, ldB)] = A[at(iA - 1 + a, jA - 1 + b, ldA)];
}

// ---- packed symmetric matrices --------------------------------------------

// P := upper triangle of A
void packFromFull(const int& n, const double* A, double* P) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i) P[packAt(i, j)] = A[at(i, j, n)];
}

// A(i,j) := A(j,i) := P(i,j)
void packToFull(const int& n, const double* P, double* A) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i) {
      A[at(i, j, n)] = P[packAt(i, j)];
      A[at(j, i, n)] = P[packAt(i, j)];
    }
}

// d(i) := P(i,i)
void packDiag(const int& n, const double* P, double* d) {
  for (i64 i = 0; i < n; ++i) d[i] = P[packAt(i, i)];
}

// P := diag(d); d(0) lands in P(0,0) before n is looked at
void packFromDiag(const int& n, const double* d, double* P) {
  P[0] = d[0];
  for (i64 j = 1; j < n; ++j) {
    for (i64 i = 0; i < j; ++i) P[packAt(i, j)] = 0.0;
    P[packAt(j, j)] = d[j];
  }
}

// R := P + Q over the n(n+1)/2 packed positions
void packAdd(const int& n, const double* P, const double* Q, double* R) {
  const i64 count = n < 1 ? 0 : i64{n} * (n + 1) / 2;
  for (i64 k = 0; k < count; ++k) R[k] = P[k] + Q[k];
}

// r := trace(P Q): off-diagonal products counted twice, one accumulator
// running over the packed positions in order.
void packInner(const int& n, const double* P, const double* Q, double& r) {
  r = 0.0;
  for (i64 j = 0; j < n; ++j) {
    for (i64 i = 0; i < j; ++i) r += (P[packAt(i, j)] * 2.0) * Q[packAt(i, j)];
    r += P[packAt(j, j)] * Q[packAt(j, j)];
  }
}

// r := Frobenius norm of the full symmetric matrix held in P.
void packFrobenius(const int& n, const double* P, double& r) {
  double s = 0.0;
  for (i64 j = 0; j < n; ++j) {
    for (i64 i = 0; i < j; ++i) s += (P[packAt(i, j)] * P[packAt(i, j)]) * 2.0;
    s += P[packAt(j, j)] * P[packAt(j, j)];
  }
  r = std::sqrt(s);
}

// P(i,j) := (A(j,i) + A(i,j)) * 0.5 for i <= j
void packSymmetriseFromFull(const int& n, const double* A, double* P) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i) P[packAt(i, j)] = (A[at(j, i, n)] + A[at(i, j, n)]) * 0.5;
}

// ---- spectral -------------------------------------------------------------

// Scans x(0:count-1) for a NaN or an infinity.
bool allFinite(i64 count, const double* x) {
  for (i64 k = 0; k < count; ++k)
    if (!std::isfinite(x[k])) return false;
  return true;
}

namespace {

// True when the n by n matrix A may be handed to LAPACK; a size below 1 has
// no elements to test.
bool matrixFinite(const int& n, const double* A) {
  return n < 1 || allFinite(i64{n} * n, A);
}

// Reciprocal of the square of the unit roundoff, 2^106: an element below
// 2^-106 times the largest one is negligible (see flushNegligible).
constexpr double kNegligibleInverse = 0x1p106;

// Sets to zero every element of the upper triangle of the n by n matrix A
// whose magnitude is below u^2 max|A(i,j)| (u = 2^-53, i <= j).
//
// DSYEVR's relatively robust representations hunt the small eigenvalues to
// full relative accuracy. When the upper triangle spans nearly the whole
// exponent range (say 1e15 beside 1e-289), the bisection of DSTEMR chases an
// eigenvalue near the underflow threshold and may never return, on the
// reference LAPACK and on OpenBLAS's alike. The perturbation E made here has
// ||E||_2 <= n u^2 ||A||_2, far below the backward error n u ||A||_2 that
// DSYEVR commits anyway, so the decomposition is as good a decomposition of A;
// a matrix with no element that small is left bit for bit as it is. The test
// |a| 2^106 < max is exact (scaling by a power of two), and cannot underflow.
void flushNegligible(const int& n, double* A) {
  double largest = 0.0;
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i) largest = std::max(largest, std::fabs(A[at(i, j, n)]));
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i <= j; ++i)
      if (std::fabs(A[at(i, j, n)]) * kNegligibleInverse < largest) A[at(i, j, n)] = 0.0;
}

}  // namespace

// w ascending eigenvalues and Z orthonormal eigenvectors of symmetric A (upper
// triangle read), by DSYEVR on a copy in work(0:n*n-1) whose negligible
// elements are set to zero first.
void matEigenSym(const int& n, const double* A, int* iwork, double* work, double* w,
                 double* Z, int& info) {
  if (!matrixFinite(n, A)) {
    info = kInfoNotFiniteEigen;
    return;
  }
  const i64 nn = i64{n} * n;
  matCopy(n, n, A, work);
  flushNegligible(n, work);
  const double vl = 0.0, vu = 0.0, abstol = 0.0;
  const int il = 1, iu = n, lwork = 26 * n, liwork = 10 * n;
  int found = 0;
  dsyevr_("V", "A", "U", &n, work, &n, &vl, &vu, &il, &iu, &abstol, &found, w, Z, &n,
          iwork + i64{10} * n, work + nn, &lwork, iwork, &liwork, &info, 1, 1, 1);
}

// C := Z diag(d) Z', through W := Z diag(d)
void matEigenRebuild(const int& n, const double* Z, const double* d, double* W,
                     double* C) {
  if (n < 1) return;
  for (i64 j = 0; j < n; ++j)
    for (i64 i = 0; i < n; ++i) W[at(i, j, n)] = Z[at(i, j, n)] * d[j];
  dgemm_("N", "T", &n, &n, &n, &kUnit, W, &n, Z, &n, &kZero, C, &n, 1, 1);
}

namespace {

// Raises every eigenvalue below the floor to it; a NaN stays, since the
// comparison fails for it.
void floorEigenvalues(const int& n, double* w, const double& floor) {
  for (i64 i = 0; i < n; ++i)
    if (floor > w[i]) w[i] = floor;
}

}  // namespace

// Q := P with its eigenvalues raised to kEigenFloor (packed in and out).
// Work: C (n*n), w (n), Z (n*n), scratch (n*n + 26n).
void packEigenClip(const int& n, const double* P, int* iwork, double* work, double* Q,
                   int& info) {
  const i64 nn = i64{n} * n;
  double* C = work;
  double* w = C + nn;
  double* Z = w + n;
  double* scratch = Z + nn;
  packToFull(n, P, C);
  matEigenSym(n, C, iwork, scratch, w, Z, info);
  if (info < 0) return;
  floorEigenvalues(n, w, kEigenFloor);
  matEigenRebuild(n, Z, w, scratch, C);
  packSymmetriseFromFull(n, C, Q);
}

// B := A with its eigenvalues raised to floor (full in and out); same work
// layout as packEigenClip, C being where the rebuilt matrix lands.
void matEigenClip(const int& n, const double* A, const double& floor, int* iwork,
                  double* work, double* B, int& info) {
  const i64 nn = i64{n} * n;
  double* C = work;
  double* w = C + nn;
  double* Z = w + n;
  double* scratch = Z + nn;
  matEigenSym(n, A, iwork, scratch, w, Z, info);
  if (info < 0) return;
  floorEigenvalues(n, w, floor);
  matEigenRebuild(n, Z, w, scratch, C);
  matSymmetrise(n, C, B);
}

// L := lower Cholesky factor of A by DPOTRF on tmp; L is written only when
// DPOTRF succeeds.
void matCholeskyLower(const int& n, const double* A, double* tmp, double* L, int& info) {
  if (!matrixFinite(n, A)) {
    info = kInfoNotFiniteCholesky;
    return;
  }
  matCopy(n, n, A, tmp);
  dpotrf_("L", &n, tmp, &n, &info, 1);
  if (info == 0) matLowerPart(n, tmp, L);
}

// L := Cholesky factor of A after its eigenvalues are floored at kEigenFloor.
// Work: B (n*n), then the rest for the clip and the factorisation.
void matClippedCholesky(const int& n, const double* A, int* iwork, double* work,
                        double* L, int& info) {
  const i64 nn = i64{n} * n;
  double* B = work;
  double* rest = work + nn;
  info = 0;
  matEigenClip(n, A, kEigenFloor, iwork, rest, B, info);
  if (info >= 0) matCholeskyLower(n, B, rest, L, info);
}

namespace {
int selectNone(const double*, const double*) { return 0; }
}  // namespace

// wr := real parts of the eigenvalues of A and vs := its Schur vectors, by
// DGEES on a copy.  Work: copy (n*n), DGEES work (5n), wi (n).
void matSchurEigen(const int& n, const double* A, int* iwork, double* work, double* wr,
                   double* vs, int& info) {
  if (!matrixFinite(n, A)) {
    info = kInfoNotFiniteEigen;
    return;
  }
  const i64 nn = i64{n} * n;
  matCopy(n, n, A, work);
  const int lwork = 5 * n;
  int sdim = 0;
  dgees_("V", "N", selectNone, &n, work, &n, &sdim, wr, work + nn + i64{5} * n, vs, &n,
         work + nn, &lwork, iwork, &info, 1, 1);
}

// wr := real parts of the eigenvalues of A, by DGEES on a copy without
// Schur vectors.  DGEES runs the same reduction and the same QR sweeps on
// the matrix whether or not it accumulates the vectors, so the eigenvalues
// are those of matSchurEigen, bit for bit, at about half the cost.
// Work: copy (n*n), DGEES work (5n), wi (n).
void matSchurRealParts(const int& n, const double* A, int* iwork, double* work, double* wr,
                       int& info) {
  if (!matrixFinite(n, A)) {
    info = kInfoNotFiniteEigen;
    return;
  }
  const i64 nn = i64{n} * n;
  matCopy(n, n, A, work);
  const int lwork = 5 * n;
  const int ldvs = 1;
  int sdim = 0;
  double unusedVs = 0.0;
  dgees_("N", "N", selectNone, &n, work, &n, &sdim, wr, work + nn + i64{5} * n, &unusedVs,
         &ldvs, work + nn, &lwork, iwork, &info, 1, 1);
}

// flag := 1 when the smallest real part of an eigenvalue of A is below the
// threshold; a failing DGEES leaves its INFO in flag, and a matrix holding a
// NaN or an infinity leaves kInfoNotFiniteEigen there (its wr stays NaN).
// Work: Schur scratch (n*n + 6n), wr (n), then n*n doubles not needed by
// this path (room for Schur vectors).
void matPositiveDefiniteCheck(const int& n, const double* A, int* iwork, double* work,
                              int& flag) {
  const i64 nn = i64{n} * n;
  double* wr = work + nn + i64{6} * n;
  flag = 0;
  // A failing DGEES may leave wr partly unwritten: NaN there is skipped by
  // the minimum's comparisons, so the flag then keeps DGEES's INFO.
  vecFill(n, wr, std::numeric_limits<double>::quiet_NaN());
  matSchurRealParts(n, A, iwork, work, wr, flag);
  double smallest = 0.0;
  vecMin(n, wr, smallest);
  if (kDefiniteThreshold > smallest) flag = 1;
}

// certified := true when a Cholesky factorisation proves that the smallest
// eigenvalue of A lies so far above the definiteness threshold t that the
// Schur-form test of matPositiveDefiniteCheck must find every real part at
// or above t, that is flag 0.  A false result proves nothing: the Schur
// test then decides.  Work: n*n doubles.
//
// Only an exactly symmetric A with finite entries is tried.  With u = 2^-53
// the unit roundoff, gamma(k) = k u / (1 - k u), s = t + margin:
//
// 1. B := A - s I is formed in floating point, only the diagonal rounds:
//    B = A - s I + D with |D(i,i)| <= u (|A(i,i)| + s).
// 2. A successful DPOTRF gives L with L L' = B + dB and, in any order of
//    summation, |dB| <= gamma(n+1) |L| |L'| elementwise.  L L' is positive
//    semi-definite, so lambda_min(B) >= -||dB||_2, and
//    ||dB||_2 <= gamma(n+1) || |L| |L'| ||_2 <= gamma(n+1) ||L||_F^2
//    = gamma(n+1) trace(L L') <= gamma(n+1) / (1 - gamma(n+1)) trace(B)
//    <= 2 gamma(n+1) (1 + u) sum_i |A(i,i)| <= 4 (n+1) u sum_i |A(i,i)|
//    while (n+1) u <= 1/4.  Hence
//    lambda_min(A) >= s - 4 (n+1) u sum_i |A(i,i)| - u (max_i |A(i,i)| + s).
// 3. DGEES returns the eigenvalues of A + E, an exact orthogonal
//    similarity, with ||E||_2 <= ||E||_F <= p(n) u ||A||_F; the normwise
//    bounds of the Householder reduction and of the QR sweeps grow no
//    faster than n^2 u, and p(n) = 8 n^2 + 64 is taken with room to spare
//    (a larger margin only sends more matrices to the Schur test).  A is
//    symmetric, so by Bauer-Fike every eigenvalue of A + E lies within
//    ||E||_2 of one of A: every real part is >= lambda_min(A) - ||E||_2.
// 4. With X = (4 (n+1) + 1) u sum_i |A(i,i)| + p(n) u ||A||_F + n^2 DBL_MIN
//    (the last term covers the absolute error of gradual underflow) and
//    margin = X + 4 u (t + X), which also pays for the rounding of s
//    itself and of the u s in step 2, steps 2 and 3 give every real part
//    >= t: the Schur test finds the matrix definite.  The constants carry
//    a factor of two over the bounds, which covers the rounding of the
//    sums that form X.
//
// The certificate assumes that the QR iteration of DGEES converges, which
// it does on symmetric matrices; on a failure DGEES would report its INFO.
void matDefiniteCertificate(const int& n, const double* A, double* work, bool& certified) {
  certified = false;
  if (n < 1) return;
  const i64 m = n;
  double diagonalSum = 0.0, diagonalMax = 0.0, squares = 0.0;
  for (i64 j = 0; j < m; ++j) {
    for (i64 i = 0; i < j; ++i) {
      const double a = A[at(i, j, m)];
      if (!(a == A[at(j, i, m)])) return;  // asymmetric, or NaN
      squares += 2.0 * a * a;
    }
    const double d = std::fabs(A[at(j, j, m)]);
    diagonalSum += d;
    diagonalMax = std::max(diagonalMax, d);
    squares += d * d;
  }
  const double u = std::numeric_limits<double>::epsilon() / 2.0;
  const double order = static_cast<double>(n);
  if ((order + 1.0) * u > 0.25) return;
  const double schurFactor = 8.0 * order * order + 64.0;
  const double bound = (4.0 * (order + 1.0) + 1.0) * u * diagonalSum +
                       schurFactor * u * std::sqrt(squares) +
                       order * order * std::numeric_limits<double>::min();
  const double margin = bound + 4.0 * u * (kDefiniteThreshold + bound);
  const double shift = kDefiniteThreshold + margin;
  if (!std::isfinite(shift) || !std::isfinite(diagonalMax)) return;
  matCopy(n, n, A, work);
  for (i64 j = 0; j < m; ++j) work[at(j, j, m)] -= shift;
  int info = 0;
  dpotrf_("L", &n, work, &n, &info, 1);
  certified = info == 0;
}

}  // namespace lumbra::kernels
