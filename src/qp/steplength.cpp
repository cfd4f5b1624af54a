// SPDX-License-Identifier: Apache-2.0
// Ratio test of the active-set QP solver: how far x may move along p before
// an inactive bound or inequality row is reached, and which one it is.
#include <algorithm>
#include <cmath>

#include "kernels/index.h"
#include "qp/factors.h"
#include "qp/products.h"

namespace lumbra::qp {

namespace {

// Smallest positive ratio (limit - x_i) / p_i over the inactive bounds that
// p moves towards, into best and its signed index into blk.  Only a
// strictly smaller ratio replaces the incumbent, so ties go to the first
// variable; a variable whose upper bound is tested has no lower test.
// Ratios at or below zero are passed over: a bound that p leaves, or one it
// already touches, is the degeneracy screen's business, not this test's.
void nearestBound(const double* CI, const double* CS, const double* x, const double* p,
                  const int* IRE, int ibnd, i64 n, double& best, int& blk) {
  const double t = kPrecision075;
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
}

// The same over the inactive inequality rows that p moves towards
// (C_j'p > t): ratio -(C_j'x - b_j) / C_j'p.  Here an equal ratio replaces
// the incumbent, so ties among rows, and between a bound and a row, go to
// the later constraint.
void nearestRow(const double* resid, const double* cp, const int* IRE, i64 n, i64 mi,
                double& best, int& blk) {
  const double t = kPrecision075;
  for (i64 j = 0; j < mi; ++j) {
    if (IRE[n + j] != 0 || !(cp[j] > t)) continue;
    const double a = -(resid[j]) / cp[j];
    if (a <= best && a > 0.0) {
      best = a;
      blk = static_cast<int>(n + j + 1);
    }
  }
}

// Positive curvature: the natural step a0 is the minimiser along p, so the
// step is the smaller of a0 and the ratio.  Kind 2 when no constraint is
// reached by the full step, 3 when one is reached exactly at its end, and 1
// (left as it came in) when one stops it short.
void naturalStep(double best, int blk, double a0, double& alpha, int& entering, int& kind) {
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

}  // namespace

// Ratio test in three stages: the nearest blocking bound and row along p;
// the kind of step that follows from the curvature kind q (unbounded,
// blocked, full or exactly blocked); and, for the steps that have no
// natural length, a test that the step is not so long that the problem is
// better called unbounded.
void qpStepLength(const double* CI, const double* CS, const double* x, double& alpha,
                  const double* work, const int* IRE, int& entering, const int& ibnd,
                  const int& n, const int& mi, int& kind) {
  const double t = kPrecision075;
  const double* grad = work;
  const double* resid = &work[n];
  const double* p = &work[static_cast<i64>(n) + mi];
  const double* cp = &work[2 * static_cast<i64>(n) + mi];
  const int q = kind;

  // The natural step a0 for positive curvature; otherwise the length scale
  // 1 + max|p_i| of the final test.
  double a0 = 0.0, len = 0.0;
  if (q == 1) {
    a0 = alpha;
  } else {
    double pmax = 0.0;
    for (i64 i = 0; i < n; ++i) pmax = std::max(pmax, std::fabs(p[i]));
    len = 1.0 + pmax;
  }

  // Ratios: best stays at the overflow value when nothing blocks.
  double best = kOverflow;
  int blk = 0;
  nearestBound(CI, CS, x, p, IRE, ibnd, n, best, blk);
  nearestRow(resid, cp, IRE, n, mi, best, blk);

  // Kind of step.  Negative curvature with nothing in the way goes down
  // for ever.
  if (best == kOverflow && q == 0) {
    kind = -1;
    return;
  }
  if (q == 2 && best == kOverflow) {
    // Null curvature and nothing in the way: unbounded unless the
    // objective does not fall along p.  Otherwise an infinite step with no
    // entering constraint, which the length test below marks as too long.
    alpha = kOverflow;
    const double e = qpBlasDot(n, grad, 1, p, 1);
    if (e < -t) {
      kind = -1;
      return;
    }
    entering = 0;
    kind = 1;
  } else if (q != 1) {
    // No natural length: the step runs to the blocking constraint.
    alpha = best;
    kind = 1;
    entering = blk;
  } else {
    naturalStep(best, blk, a0, alpha, entering, kind);
  }

  // Length test: a step beyond 1/sqrt(P) relative to the size of p.
  if (q != 1 && len * alpha > kInverseSqrtPrecision) kind += 10;
}

}  // namespace lumbra::qp
