// SPDX-License-Identifier: Apache-2.0
// Dot products and matrix-vector products of the QP solver, several
// independent sums at a time; see products.h for why the bits are those of
// the reference BLAS.
#include "qp/products.h"

#include "kernels/blas.h"

namespace lumbra::qp {

namespace {

// s(b) = A(r0:m-1,b)' x(r0:m-1) added term after term to s(b), for the B
// columns b of the block at A.
template <int B>
void blockDots(const double* A, i64 lda, i64 r0, i64 m, const double* x, double* s) {
  double acc[B];
  for (int b = 0; b < B; ++b) acc[b] = s[b];
  for (i64 i = r0; i < m; ++i) {
    const double xi = x[i];
    for (int b = 0; b < B; ++b) acc[b] = acc[b] + A[at(i, b, lda)] * xi;
  }
  for (int b = 0; b < B; ++b) s[b] = acc[b];
}

// out(j * step) for the B columns from column j0.
template <int B>
void columnDotsBlock(const double* A, i64 lda, i64 m, i64 j0, const double* x, double* out,
                     i64 step) {
  double s[B];
  for (int b = 0; b < B; ++b) s[b] = 0.0;
  blockDots<B>(&A[at(0, j0, lda)], lda, 0, m, x, s);
  for (int b = 0; b < B; ++b) out[(j0 + b) * step] = s[b];
}

// u(c) = u(c) + H(c+1:n-1,c)' z(c+1:n-1) for the B columns c from c0 (all
// with at least one term).  Rows c0+1..c0+B-1 meet only the columns whose
// sums have begun; from row c0+B on every column takes its term.
template <int B>
void lowerBlock(const double* H, i64 ldh, i64 n, i64 c0, const double* z, double* u) {
  double s[B];
  for (int b = 0; b < B; ++b) s[b] = 0.0;
  for (i64 r = c0 + 1; r < c0 + B; ++r)
    for (int b = 0; b < B; ++b)
      if (c0 + b < r) s[b] = s[b] + H[at(r, c0 + b, ldh)] * z[r];
  blockDots<B>(&H[at(0, c0, ldh)], ldh, c0 + B, n, z, s);
  for (int b = 0; b < B; ++b) u[c0 + b] = u[c0 + b] + s[b];
}

// y(0:m-1) = y + x(0) A(:,0) + ... + x(B-1) A(:,B-1), each y(i) taking its
// terms in column order.
template <int B>
void combinationBlock(const double* A, i64 lda, i64 m, const double* x, double* y) {
  double t[B];
  for (int b = 0; b < B; ++b) t[b] = x[b];
  for (i64 i = 0; i < m; ++i) {
    double yi = y[i];
    for (int b = 0; b < B; ++b) yi = yi + t[b] * A[at(i, b, lda)];
    y[i] = yi;
  }
}

// u(i) = u(i) + H(i,c0) z(c0) + ... + H(i,c0+B-1) z(c0+B-1) in column
// order for every row i >= c0, each row taking only the columns j <= i.
template <int B>
void rowBlock(const double* H, i64 ldh, i64 n, i64 c0, const double* z, double* u) {
  double zb[B];
  for (int b = 0; b < B; ++b) zb[b] = z[c0 + b];
  for (i64 i = c0; i < c0 + B - 1 && i < n; ++i) {
    double ui = u[i];
    for (int b = 0; b < B; ++b)
      if (c0 + b <= i) ui = ui + H[at(i, c0 + b, ldh)] * zb[b];
    u[i] = ui;
  }
  const double* h = &H[at(0, c0, ldh)];
  for (i64 i = c0 + B - 1; i < n; ++i) {
    double ui = u[i];
    for (int b = 0; b < B; ++b) ui = ui + h[at(i, b, ldh)] * zb[b];
    u[i] = ui;
  }
}

}  // namespace

// u(i) = H(i,0:i) z(0:i) from u = 0, eight columns per sweep.
void qpLowerRowProducts(const double* H, i64 ldh, i64 n, const double* z, double* u) {
  for (i64 i = 0; i < n; ++i) u[i] = 0.0;
  i64 c = 0;
  for (; c + 8 <= n; c += 8) rowBlock<8>(H, ldh, n, c, z, u);
  for (; c < n; ++c) rowBlock<1>(H, ldh, n, c, z, u);
}

// out(j * step) = A(0:m-1,j)' x, eight columns at a time.
void qpColumnDots(const double* A, i64 lda, i64 m, i64 cols, const double* x, double* out,
                  i64 step) {
  i64 j = 0;
  for (; j + 8 <= cols; j += 8) columnDotsBlock<8>(A, lda, m, j, x, out, step);
  for (; j + 4 <= cols; j += 4) columnDotsBlock<4>(A, lda, m, j, x, out, step);
  for (; j < cols; ++j) columnDotsBlock<1>(A, lda, m, j, x, out, step);
}

// u(i) = u(i) + H(i+1:n-1,i)' z(i+1:n-1), i = 0..n-2, eight columns at a time.
void qpLowerColumnDotsAdd(const double* H, i64 ldh, i64 n, const double* z, double* u) {
  const i64 cols = n - 1;  // column n-1 has no term below the diagonal
  i64 c = 0;
  for (; c + 8 <= cols; c += 8) lowerBlock<8>(H, ldh, n, c, z, u);
  for (; c + 4 <= cols; c += 4) lowerBlock<4>(H, ldh, n, c, z, u);
  for (; c < cols; ++c) lowerBlock<1>(H, ldh, n, c, z, u);
}

// y = A x column after column from y = 0, four columns per sweep over y.
void qpColumnCombination(const double* A, i64 lda, i64 m, i64 cols, const double* x,
                         double* y) {
  if (m < 1 || cols < 1) return;
  for (i64 i = 0; i < m; ++i) y[i] = 0.0;
  i64 j = 0;
  for (; j + 4 <= cols; j += 4) combinationBlock<4>(&A[at(0, j, lda)], lda, m, &x[j], y);
  for (; j < cols; ++j) combinationBlock<1>(&A[at(0, j, lda)], lda, m, &x[j], y);
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
