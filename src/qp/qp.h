// SPDX-License-Identifier: Apache-2.0
// Active-set quadratic programming: the one entry of the solver.
//
// Minimise 1/2 x'Hx + c'x subject to C_j'x = d_j (j < me), C_j'x <= d_j
// (me <= j < me + mi) and lower <= x <= upper.  H is column-major n by n
// and only its lower triangle is read; C holds one constraint per column
// with leading dimension n.  multipliers (n + me + mi) come out in the order
// bounds, equalities, inequalities.
#pragma once

namespace lumbra::qp {

void qpDriver(const int& n, double* H, double* c, const int& me, const int& mi, double* C,
              double* d, double* lower, double* upper, int* iwork, double* work,
              double* multipliers, double* x, int& status);

}  // namespace lumbra::qp
