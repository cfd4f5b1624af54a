// Ratio test of the active-set QP solver: how far x may move along p before
// an inactive bound or inequality row is reached, and which one it is.
#include <algorithm>
#include <cmath>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "qp/factors.h"

namespace lumbra::qp {

// Smallest positive ratio over the inactive bounds (ties to the first
// variable, upper before lower) and rows (ties to the later constraint),
// then the step kind from the curvature kind and the natural step.
void qpStepLength(const double* CI, const double* CS, const double* x, double& alpha,
                  const double* work, const int* IRE, int& entering, const int& ibnd,
                  const int& n, const int& mi, int& kind) {
  const double t = kPrecision075;
  const double* grad = work;
  const double* resid = &work[n];
  const double* p = &work[static_cast<i64>(n) + mi];
  const double* cp = &work[2 * static_cast<i64>(n) + mi];
  const int q = kind;

  double a0 = 0.0, len = 0.0;
  if (q == 1) {
    a0 = alpha;
  } else {
    double pmax = 0.0;
    for (i64 i = 0; i < n; ++i) pmax = std::max(pmax, std::fabs(p[i]));
    len = 1.0 + pmax;
  }

  double best = kOverflow;
  int blk = 0;
  for (i64 i = 0; i < n; ++i) {
    if (IRE[i] != 0) continue;
    if (ibnd >= 2 && CS[i] <= kSqrtOverflow && p[i] > t) {
      const double a = (CS[i] - x[i]) / p[i];
      if (a < best && a > 0.0) {
        best = a;
        blk = static_cast<int>(i + 1);
      }
    } else if ((ibnd == 1 || ibnd == 3) && CI[i] >= -kSqrtOverflow && p[i] < -t) {
      const double a = (CI[i] - x[i]) / p[i];
      if (a < best && a > 0.0) {
        best = a;
        blk = static_cast<int>(-(i + 1));
      }
    }
  }
  for (i64 j = 0; j < mi; ++j) {
    if (IRE[n + j] != 0 || !(cp[j] > t)) continue;
    const double a = -(resid[j]) / cp[j];
    if (a <= best && a > 0.0) {
      best = a;
      blk = static_cast<int>(n + j + 1);
    }
  }

  if (best == kOverflow && q == 0) {
    kind = -1;
    return;
  }
  if (q == 2 && best == kOverflow) {
    // null curvature and nothing in the way: unbounded unless the
    // objective does not fall along p
    alpha = kOverflow;
    const int nn = n, one = 1;
    const double e = n > 0 ? ddot_(&nn, grad, &one, p, &one) : 0.0;
    if (e < -t) {
      kind = -1;
      return;
    }
    entering = 0;
    kind = 1;
  } else if (q != 1) {
    alpha = best;
    kind = 1;
    entering = blk;
  } else {
    const double a = std::min(best, a0);
    if (a == a0) {
      if (best == a0) {
        kind = 3;
        entering = blk;
      } else {
        kind = 2;
        entering = 0;
      }
    } else {
      entering = blk;
    }
    alpha = a;
  }
  if (q != 1 && len * alpha > kInverseSqrtPrecision) kind += 10;
}

}  // namespace lumbra::qp
