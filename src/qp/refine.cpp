// SPDX-License-Identifier: Apache-2.0
// Closing measures of the QP solver: refinement of x against the working
// set, the largest constraint violation, the objective value and the
// largest absolute entry.
#include <cmath>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "kernels/status.h"
#include "qp/factors.h"
#include "qp/solver.h"

namespace lumbra::qp {
namespace {

constexpr int kOne = 1;
constexpr double kUnit = 1.0;
constexpr double kZero = 0.0;
constexpr double kHalf = 0.5;
constexpr double kViolationStart = -1e30;  // below any violation that counts

}  // namespace

// Largest |v(i)|, through the BLAS index of the largest magnitude.
double qpAbsMax(const int& n, const double* v) {
  if (n < 1) return 0.0;
  const int i = idamax_(&n, v, &kOne);
  return std::fabs(v[i - 1]);
}

// v := the largest violation at x: overshoots of equality rows, excesses
// of inequality rows, then CI - x and x - CS for every variable.
void qpViolation(const int& n, const double* x, const int& me, const int& mi, const double* C,
                 const double* b, const double* CI, const double* CS, double& v) {
  v = kViolationStart;
  for (i64 j = 0; j < me; ++j) {
    const double e = qpDot(n, C + at(0, j, n), x) - b[j];
    // An equality counts only when it falls short: -e above the present v.
    if (-e > v) v = std::fabs(e);
  }
  for (i64 j = me; j < i64{me} + mi; ++j) {
    const double e = qpDot(n, C + at(0, j, n), x) - b[j];
    if (e > v) v = e;
  }
  for (i64 i = 0; i < n; ++i) {
    const double lo = CI[i] - x[i];
    if (lo > v) v = lo;
    const double up = x[i] - CS[i];
    if (up > v) v = up;
  }
}

// f = x'(H x / 2 + g), H x from the lower triangle:
// u(i) = H(i,0:i) x(0:i) + H(i+1:n-1,i)' x(i+1:n-1).
double qpObjective(const double* H, const int& ldh, const double* g, const double* x,
                   double* work, const double& scale, const int& n) {
  for (i64 i = 0; i < n; ++i) {
    const int lenRow = static_cast<int>(i + 1);
    const double s1 = ddot_(&lenRow, H + at(i, 0, ldh), &ldh, x, &kOne);
    const double s2 = qpDot(n - i - 1, H + at(i + 1, i, ldh), x + i + 1);
    work[i] = s1 + s2;
  }
  if (n >= 1) dscal_(&n, &kHalf, work, &kOne);
  for (i64 i = 0; i < n; ++i) work[i] = work[i] + g[i];
  double f = qpDot(n, x, work);
  if (scale != 1.0) f = f * scale;
  return f;
}

// One refinement step: e = residuals of the working constraints, solve
// R'u = e, d = Q(:,0:k-1) u; x += d unless that raises the largest violation.
void qpRefine(const double* Q, const int& ldq, const double* R, const int& ldr,
              const double* C, const int& ldc, const double* b, const double* CI,
              const double* CS, double* x, double* e, double* d, const int* list,
              const int& n, const int& k, const int& me, const int& kcur, const int& mi,
              int& status) {
  bool refine = false;
  for (i64 j = 0; j < k; ++j) {
    const i64 c = list[j];
    double rhs = 0.0;
    if (j < kcur) {
      if (c < 1) {
        status = ORX_STATUS_REFINE_BAD_LIST;
        return;
      }
      rhs = b[c - 1];
      e[j] = rhs - qpDot(n, C + at(0, c - 1, ldc), x);
    } else if (c >= 1 && c <= n) {
      rhs = CS[c - 1];
      e[j] = rhs - x[c - 1];
    } else if (c < 0) {
      rhs = CI[-c - 1];
      e[j] = x[-c - 1] - rhs;
    } else {
      const i64 row = me + (c - n) - 1;
      rhs = b[row];
      e[j] = rhs - qpDot(n, C + at(0, row, ldc), x);
    }
    if (std::fabs(e[j]) / (std::fabs(rhs) + 1.0) > kPrecision075) refine = true;
  }
  if (!refine) return;

  qpTriSolve(R, ldr, k, e, e, 1);
  const char trans = 'N';
  dgemv_(&trans, &n, &k, &kUnit, Q, &ldq, e, &kOne, &kZero, d, &kOne, 1);

  double before = 0.0;
  double after = 0.0;
  qpViolation(n, x, me, mi, C, b, CI, CS, before);
  for (i64 i = 0; i < n; ++i) x[i] = x[i] + d[i];
  qpViolation(n, x, me, mi, C, b, CI, CS, after);
  if (after > before)
    for (i64 i = 0; i < n; ++i) x[i] = x[i] - d[i];
}

}  // namespace lumbra::qp
