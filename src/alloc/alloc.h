// SPDX-License-Identifier: Apache-2.0
// Portfolio allocators: minimum variance at a target return, smallest
// tracking error at a target excess return, largest Sharpe ratio.  All
// matrices column-major; cons holds one constraint per column (leading
// dimension n), equalities first, inequalities as cons_j' w <= rhs_j.
#pragma once

namespace lumbra::alloc {

void allocMV(const int& n, double* cov, const double* mu, const int& nEq, const int& nIneq,
             const double* cons, const double* rhs, const double* lower, const double* upper,
             const double& target, int* iwork, double* work, double* weights, int& status);

void allocIT(const int& n, double* cov, const double* mu, const double* benchCov,
             const double& benchReturn, const int& nEq, const int& nIneq, const double* cons,
             const double* rhs, const double* lower, const double* upper,
             const double& excess, int* iwork, double* work, double* weights, int& status);

void allocSharpeRatio(const int& n, double* cov, const double* mu, const int& nEq,
                      const int& nIneq, const double* cons, const double* rhs,
                      const double* lower, const double* upper, const double& riskFree,
                      int* iwork, double* work, double* weights, int& status);

}  // namespace lumbra::alloc
