// SPDX-License-Identifier: Apache-2.0
// Dense matrix kernels: the small vocabulary of vector, matrix, packed and
// spectral operations the engine is written in.  Sizes and scalars are
// passed by reference, arrays by pointer; results go to the last arguments.
// Matrices are column-major (see index.h); packed symmetric matrices hold
// their upper triangle by columns.  Nothing here allocates: work arrays are
// carved by the caller.
#pragma once
#include "kernels/index.h"
#include "kernels/status.h"
#include "kernels/widened.h"

namespace lumbra::kernels {

// The eigenvalue floor used by packEigenClip and matClippedCholesky: the
// single-precision value of 1e-30 widened to double.
inline constexpr double kEigenFloor = widened::k1em30;
// Threshold of the positive-definiteness test: single-precision 1e-12.
inline constexpr double kDefiniteThreshold = widened::k1em12;
// INFO of a spectral kernel whose matrix holds a NaN or an infinity.  Such a
// matrix never reaches LAPACK (reference DSYEVR can loop for ever on a NaN):
// the kernel reports it as LAPACK reports an illegal argument, minus the
// position of the matrix in the LAPACK call, so every caller treats it as a
// hard failure.  The matrix is the fifth argument of DSYEVR and DGEES and
// the third of DPOTRF.
inline constexpr int kInfoNotFiniteEigen = ORX_STATUS_COV_NOT_FINITE;
inline constexpr int kInfoNotFiniteCholesky = ORX_STATUS_FACTOR_NOT_FINITE;

// True when the count numbers x(0:count-1) are all finite (true for none).
bool allFinite(i64 count, const double* x);

// ---- vectors --------------------------------------------------------------
void vecCopy(const int& n, const double* x, double* y);
void vecFill(const int& n, double* x, const double& c);
void vecDot(const int& n, const double* x, const double* y, double& r);
void vecMin(const int& n, const double* x, double& r);
void vecMean(const int& n, const double* x, double& r);
void vecCopyScale(const int& n, const double* x, const double& alpha, double* y);
void vecAdd(const int& n, const double* a, const double* b, double* z);
void vecSub(const int& n, const double* a, const double* b, double* z);
void vecAddScaled(const int& n, const double* a, const double* b, const double& alpha,
                  double* z);
void vecOuter(const int& n, const double* x, double* A);

// ---- full matrices --------------------------------------------------------
void matCopy(const int& m, const int& n, const double* A, double* B);
void matFill(const int& m, const int& n, double* A, const double& c);
void matDiagonal(const int& n, double* A, const double& c);
void matScale(const int& m, const int& n, double* A, const double& alpha);
void matCopyScale(const int& m, const int& n, const double* A, const double& alpha,
                  double* B);
void matAdd(const int& m, const int& n, const double* A, const double* B, double* C);
void matAddDiag(const int& n, const double* A, const double& c, double* B);
void matTrace(const int& n, const double* A, double& r);
void matMul(const int& n, const double* A, const double* B, double* C);
void matGram(const int& m, const int& n, const double* X, double* C);
// C := Y Y' for Y n by m (leading dimension n): matGram of Y'.
void matGramRows(const int& n, const int& m, const double* Y, double* C);
void matTransMulVec(const int& n, const double* A, const double* x, double* y);
void matLowerMulVec(const int& n, const double* L, const double* x, double* y);
void matQuadForm(const int& n, const double* A, const double* x, double& r);
void matColMeans(const int& m, const int& n, const double* A, double* means);
void matLowerPart(const int& n, const double* A, double* B);
void matSymmetrise(const int& n, const double* A, double* B);
void matSetRow(const int& ld, const int& n, double* A, const double* x, const int& i,
               int& status);
void matScatter(const int& n, const double* X, const int& m, const int* idx, double* Y,
                int& status);
void matCopyBlock(const int& r, const int& c, const int& ldA, const int& colsA,
                  const double* A, const int& iA, const int& jA, const int& ldB,
                  const int& colsB, double* B, const int& iB, const int& jB,
                  int& status);

// ---- packed symmetric matrices --------------------------------------------
void packFromFull(const int& n, const double* A, double* P);
void packToFull(const int& n, const double* P, double* A);
void packDiag(const int& n, const double* P, double* d);
void packFromDiag(const int& n, const double* d, double* P);
void packAdd(const int& n, const double* P, const double* Q, double* R);
void packInner(const int& n, const double* P, const double* Q, double& r);
void packFrobenius(const int& n, const double* P, double& r);
void packSymmetriseFromFull(const int& n, const double* A, double* P);

// ---- spectral -------------------------------------------------------------
// Every spectral kernel first tests its n by n input for NaN and infinities
// and, when one is there, returns kInfoNotFiniteEigen (eigen-solver, Schur
// form) or kInfoNotFiniteCholesky (Cholesky factor) without calling LAPACK
// and without writing its outputs.
// Work: 12n integers, n*n + 26n doubles.
void matEigenSym(const int& n, const double* A, int* iwork, double* work, double* w,
                 double* Z, int& info);
// Work: W is n*n doubles.
void matEigenRebuild(const int& n, const double* Z, const double* d, double* W,
                     double* C);
// Work: 12n integers, 3n*n + 27n doubles.
void packEigenClip(const int& n, const double* P, int* iwork, double* work, double* Q,
                   int& info);
// Work: 12n integers, 3n*n + 27n doubles.
void matEigenClip(const int& n, const double* A, const double& floor, int* iwork,
                  double* work, double* B, int& info);
// tmp: n*n doubles.
void matCholeskyLower(const int& n, const double* A, double* tmp, double* L, int& info);
// Work: 12n integers, 4n*n + 27n doubles.
void matClippedCholesky(const int& n, const double* A, int* iwork, double* work,
                        double* L, int& info);
// Work: n integers, n*n + 6n doubles.
void matSchurEigen(const int& n, const double* A, int* iwork, double* work, double* wr,
                   double* vs, int& info);
// The real parts alone, without Schur vectors (same values, less work).
// Work: n integers, n*n + 6n doubles.
void matSchurRealParts(const int& n, const double* A, int* iwork, double* work, double* wr,
                       int& info);
// Work: n integers, 2n*n + 7n doubles.
void matPositiveDefiniteCheck(const int& n, const double* A, int* iwork, double* work,
                              int& flag);
// certified := true when a Cholesky factorisation of A - (threshold +
// margin) I proves that matPositiveDefiniteCheck would set flag 0; false
// proves nothing.  Work: n*n doubles.
void matDefiniteCertificate(const int& n, const double* A, double* work, bool& certified);

}  // namespace lumbra::kernels
