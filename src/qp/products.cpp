// SPDX-License-Identifier: Apache-2.0
// Dot products and matrix-vector products of the QP solver through the
// BLAS; see products.h for the sums that each one forms.
#include "qp/products.h"

#include <algorithm>

#include "kernels/blas.h"

namespace lumbra::qp {

// u = H z from the lower triangle, a block of kLowerBlock columns at a
// time while the block is in cache.  The row part first: the rows of the
// block's triangular corner take their few terms here, and every row below
// the corner takes all the block's columns by DGEMV ('N', alpha 1, beta 1),
// u(i) = u(i) + z(j) H(i,j) for the block's columns j in ascending order.
// Then each column's sum below the diagonal (one DDOT from 0.0) is added to
// u(c), whose row part the block has just completed.
void qpLowerSymProduct(const double* H, i64 ldh, i64 n, const double* z, double* u) {
  for (i64 i = 0; i < n; ++i) u[i] = 0.0;
  constexpr i64 kLowerBlock = 32;
  constexpr double kOne = 1.0;
  constexpr int kUnit = 1;
  const int ld = static_cast<int>(ldh);
  for (i64 c0 = 0; c0 < n; c0 += kLowerBlock) {
    const i64 nb = std::min(kLowerBlock, n - c0);
    const i64 full = c0 + nb - 1;  // first row that meets every column of the block
    for (i64 i = c0; i < full; ++i) {
      double ui = u[i];
      for (i64 j = c0; j <= i; ++j) ui = ui + H[at(i, j, ldh)] * z[j];
      u[i] = ui;
    }
    const int rows = static_cast<int>(n - full), cols = static_cast<int>(nb);
    dgemv_("N", &rows, &cols, &kOne, &H[at(full, c0, ldh)], &ld, &z[c0], &kUnit, &kOne,
           &u[full], &kUnit, 1);
    for (i64 c = c0; c <= full && c + 1 < n; ++c)
      u[c] = u[c] + qpBlasDot(n - c - 1, &H[at(c + 1, c, ldh)], 1, &z[c + 1], 1);
  }
}

// out(j * step) = A(0:m-1,j)' x through DGEMV ('T', alpha 1, beta 0):
// y(j) = 0 + 1 * (sum from 0.0 over ascending i), the sequential sum.  The
// BLAS addresses a vector with a negative increment from its last element,
// which is where out(j * step) puts element cols-1.  With no rows DGEMV
// returns at once, so the zeros are written here.
void qpColumnDots(const double* A, i64 lda, i64 m, i64 cols, const double* x, double* out,
                  i64 step) {
  if (cols < 1) return;
  if (m < 1) {
    for (i64 j = 0; j < cols; ++j) out[j * step] = 0.0;
    return;
  }
  constexpr double kOne = 1.0, kZero = 0.0;
  constexpr int kUnit = 1;
  const int rows = static_cast<int>(m), nc = static_cast<int>(cols);
  const int ld = static_cast<int>(lda), inc = static_cast<int>(step);
  double* y = step < 0 ? out + (cols - 1) * step : out;
  dgemv_("T", &rows, &nc, &kOne, A, &ld, x, &kUnit, &kZero, y, &inc, 1);
}

// y = A x through DGEMV ('N', alpha 1, beta 0): y = 0, then
// y(i) = y(i) + x(j) A(i,j) column after column.
void qpColumnCombination(const double* A, i64 lda, i64 m, i64 cols, const double* x,
                         double* y) {
  if (m < 1 || cols < 1) return;
  constexpr double kOne = 1.0, kZero = 0.0;
  constexpr int kUnit = 1;
  const int rows = static_cast<int>(m), nc = static_cast<int>(cols), ld = static_cast<int>(lda);
  dgemv_("N", &rows, &nc, &kOne, A, &ld, x, &kUnit, &kZero, y, &kUnit, 1);
}

double qpBlasDot(i64 n, const double* x, i64 incx, const double* y, i64 incy) {
  if (n <= 0) return 0.0;
  const int nn = static_cast<int>(n), ix = static_cast<int>(incx), iy = static_cast<int>(incy);
  return ddot_(&nn, x, &ix, y, &iy);
}

double qpBlasNrm2(i64 n, const double* x, i64 inc) {
  if (n <= 0) return 0.0;
  const int nn = static_cast<int>(n), step = static_cast<int>(inc);
  return dnrm2_(&nn, x, &step);
}

}  // namespace lumbra::qp
