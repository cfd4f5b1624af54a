// SPDX-License-Identifier: Apache-2.0
// Fortran BLAS and LAPACK entry points used by the engine, declared by
// their standard symbols so that any implementation (reference, OpenBLAS)
// links.  Character arguments carry their hidden lengths at the end, as
// gfortran passes them.
#pragma once
#include <cstddef>

extern "C" {
void dcopy_(const int* n, const double* x, const int* incx, double* y, const int* incy);
double ddot_(const int* n, const double* x, const int* incx, const double* y, const int* incy);
void dscal_(const int* n, const double* a, double* x, const int* incx);
void daxpy_(const int* n, const double* a, const double* x, const int* incx, double* y,
            const int* incy);
double dnrm2_(const int* n, const double* x, const int* incx);
int idamax_(const int* n, const double* x, const int* incx);
void dswap_(const int* n, double* x, const int* incx, double* y, const int* incy);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha,
            const double* a, const int* lda, const double* x, const int* incx,
            const double* beta, double* y, const int* incy, std::size_t);
void dtrmv_(const char* uplo, const char* trans, const char* diag, const int* n,
            const double* a, const int* lda, double* x, const int* incx, std::size_t,
            std::size_t, std::size_t);
void dger_(const int* m, const int* n, const double* alpha, const double* x,
           const int* incx, const double* y, const int* incy, double* a, const int* lda);
void dsyrk_(const char* uplo, const char* trans, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* beta,
            double* c, const int* ldc, std::size_t, std::size_t);
void dgemm_(const char* ta, const char* tb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b,
            const int* ldb, const double* beta, double* c, const int* ldc, std::size_t,
            std::size_t);

void dsyevr_(const char* jobz, const char* range, const char* uplo, const int* n,
             double* a, const int* lda, const double* vl, const double* vu,
             const int* il, const int* iu, const double* abstol, int* m, double* w,
             double* z, const int* ldz, int* isuppz, double* work, const int* lwork,
             int* iwork, const int* liwork, int* info, std::size_t, std::size_t,
             std::size_t);
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info,
             std::size_t);
typedef int (*lumbra_dgees_select)(const double*, const double*);
void dgees_(const char* jobvs, const char* sort, lumbra_dgees_select select, const int* n,
            double* a, const int* lda, int* sdim, double* wr, double* wi, double* vs,
            const int* ldvs, double* work, const int* lwork, int* bwork, int* info,
            std::size_t, std::size_t);
double dlamch_(const char* cmach, std::size_t);
}
