// SPDX-License-Identifier: Apache-2.0
// Dot products and matrix-vector products of the QP solver.
//
// Every inner product here is the plain sequential sum s = 0.0, then
// s = s + a(i) x(i) for ascending i: the sum that the reference DDOT and
// DGEMV ('T') form (the unrolled loop of DDOT adds its five products one
// after the other), and every matrix-vector product is the
// column-after-column sweep of the reference DGEMV ('N'), y(i) = y(i) +
// x(j) A(i,j).  These routines hand those sums to the BLAS, in pieces
// chosen so that the reference library forms exactly the sums described at
// each routine (the regression corpus holds the solver to them); an
// optimised BLAS forms the same sums in its own order, to within rounding.
#pragma once
#include "kernels/index.h"

namespace lumbra::qp {

// out(j * step) = A(0:m-1,j)' x(0:m-1) for j = 0..cols-1; step may be
// negative (out then points at the place of column 0).
void qpColumnDots(const double* A, i64 lda, i64 m, i64 cols, const double* x, double* out,
                  i64 step);

// u = H z from the stored lower triangle of the symmetric H, grouped per
// row as u(i) = H(i,0:i) z(0:i) + H(i+1:n-1,i)' z(i+1:n-1): the first sum
// formed from 0.0 by adding H(i,j) z(j) for j = 0..i in turn (the order of
// a strided row dot product), the second a sequential dot down column i
// from 0.0, added last (nothing is added to u(n-1)).
void qpLowerSymProduct(const double* H, i64 ldh, i64 n, const double* z, double* u);

// y(0:m-1) = A(0:m-1,0:cols-1) x, as DGEMV 'N' with alpha 1 and beta 0
// forms it: y = 0, then y(i) = y(i) + x(j) A(i,j) for j = 0..cols-1.
// Nothing is written when cols < 1 (DGEMV returns at once then).
void qpColumnCombination(const double* A, i64 lda, i64 m, i64 cols, const double* x,
                         double* y);

// x' y over n entries with strides, through the BLAS DDOT; 0.0 for n <= 0.
double qpBlasDot(i64 n, const double* x, i64 incx, const double* y, i64 incy);

// Euclidean norm of n entries with stride inc, through the BLAS DNRM2; 0.0
// for n <= 0.
double qpBlasNrm2(i64 n, const double* x, i64 inc);

}  // namespace lumbra::qp
