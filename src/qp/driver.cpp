// SPDX-License-Identifier: Apache-2.0
// The QP driver: fixed solver settings, the one-variable case, the
// arrangement of the data for the main iteration and the mapping of its raw
// result to the status values the allocators pass on.
#include <cmath>

#include "kernels/index.h"
#include "kernels/status.h"
#include "kernels/widened.h"
#include "qp/qp.h"
#include "qp/solver.h"

namespace lumbra::qp {
namespace {

constexpr int kBoundMode = 3;         // lower and upper bounds both present
constexpr int kIterationLimit = 2500;  // passes of the main loop
constexpr int kColdStart = 1;          // the solver clears x and finds its own start
constexpr int kPrintLevel = -20;       // nothing is ever printed
constexpr int kOutputUnit = 6;         // unused, since nothing is printed
constexpr double kScalarTiny = widened::k1em15;

// Driver status for a raw status of the main iteration; values without an
// entry pass unchanged.
int mapStatus(int raw) {
  switch (raw) {
    case codes::kMainIterationLimit: return ORX_STATUS_ITERATION_LIMIT;
    case codes::kMainUnbounded: return ORX_STATUS_UNBOUNDED;  // or no usable curvature
    case codes::kMainCycling: return ORX_STATUS_CYCLING;
    case codes::kMainStepTooLong: return ORX_STATUS_STEP_TOO_LONG;
    case codes::kMainInvalidInput: return ORX_STATUS_QP_INVALID_INPUT;
    case codes::kMainSearchEqualities: return ORX_STATUS_EQUALITIES_INCONSISTENT;
    case codes::kMainSearchNoPoint: return ORX_STATUS_NO_FEASIBLE_POINT;
    case codes::kMainSearchCycling: return ORX_STATUS_CYCLING;
    case codes::kMainSearchIterationLimit: return ORX_STATUS_START_ITERATION_LIMIT;
    // Bad search arguments and "nothing to add" share the raw value.
    case codes::kMainSearchInvalidInput: return ORX_STATUS_NOTHING_TO_ADD;
    case codes::kMainSearchSix: return ORX_STATUS_START_INVALID_INPUT;
    default: return raw;
  }
}

// G(i,j) := H(i,j) for i >= j: the lower triangle, diagonal included.
void copyLower(const int& n, const double* H, double* G) {
  for (i64 j = 0; j < n; ++j)
    for (i64 i = j; i < n; ++i) G[at(i, j, n)] = H[at(i, j, n)];
}

// H := the symmetric matrix whose lower triangle is that of G.
void restoreSymmetric(const int& n, const double* G, double* H) {
  copyLower(n, G, H);
  for (i64 j = 0; j < n; ++j)
    for (i64 i = j + 1; i < n; ++i) H[at(j, i, n)] = H[at(i, j, n)];
}

// Scatters the working-set multipliers lambda(0:kact-1) to the output order
// bounds (n), equalities (me), inequalities (mi).
void scatterMultipliers(const int& n, const int& me, const int& mi, const int* list,
                        const int& kact, const int& kcur, const double* lambda,
                        double* multipliers) {
  for (i64 k = 0; k < i64{n} + me + mi; ++k) multipliers[k] = 0.0;
  for (i64 k = 0; k < kact; ++k) {
    const i64 idx = list[k];
    if (k < kcur) {
      multipliers[n + idx - 1] = lambda[k];  // equality idx
    } else if (idx < 0) {
      multipliers[-idx - 1] = -lambda[k];  // lower bound of x(-idx)
    } else if (idx <= n) {
      multipliers[idx - 1] = lambda[k];  // upper bound of x(idx)
    } else {
      multipliers[n + me + (idx - n) - 1] = lambda[k];  // inequality idx - n
    }
  }
}

}  // namespace

// Feasible interval [low, high] of one variable under its equalities,
// inequalities and bounds.
void qpScalarInterval(const int& me, const int& mi, const double* C, const double* d,
                      const double& lower, const double& upper, double& low, double& high,
                      int& status) {
  double lo = lower;
  double hi = upper;
  status = 0;
  // The first equality with a usable coefficient fixes the value; the
  // later ones are not looked at.
  for (i64 j = 0; j < me; ++j) {
    const double a = C[j];
    const double b = d[j];
    if (std::fabs(a) > kScalarTiny) {
      const double v = b / a;
      if (v < lo || v > hi) {
        status = ORX_STATUS_SCALAR_EMPTY;
        return;
      }
      lo = v;
      hi = v;
      break;
    }
    if (std::fabs(b) > kScalarTiny) {
      status = ORX_STATUS_SCALAR_EQUALITY;
      return;
    }
  }
  for (i64 j = me; j < i64{me} + mi; ++j) {
    const double a = C[j];
    const double b = d[j];
    if (a > kScalarTiny) {
      const double v = b / a;
      if (v < hi) hi = v;
    } else if (a < -kScalarTiny) {
      const double v = b / a;
      if (v > lo) lo = v;
    } else if (b < -kScalarTiny) {
      status = ORX_STATUS_SCALAR_INEQUALITY;
      return;
    }
  }
  low = lo;
  high = hi;
  if (lo - kScalarTiny > hi) status = ORX_STATUS_SCALAR_EMPTY;
}

// x := argmin 1/2 h x^2 + c x over the feasible interval; for h not
// positive, the better end (the upper one on a tie).
void qpScalar(const double& h, const double& c, const int& me, const int& mi, const double* C,
              const double* d, const double& lower, const double& upper, double& x,
              int& status) {
  double low = lower;
  double high = upper;
  qpScalarInterval(me, mi, C, d, lower, upper, low, high, status);
  if (status < 0) return;
  if (h > kScalarTiny) {
    const double xs = -c / h;
    if (low > xs) {
      x = low;
    } else if (xs > high) {
      x = high;
    } else {
      x = xs;
    }
    return;
  }
  const double fHigh = (h / 2 * high + c) * high;
  const double fLow = (h / 2 * low + c) * low;
  x = fHigh > fLow ? low : high;
}

// Runs the main iteration on G = lower triangle of H (with room for the
// factors), H itself serving as the orthogonal matrix; restores H and
// unpacks objective and multipliers on success.
void qpCore(double* H, const double* c, const double* C, const double* d, const double* lower,
            const double* upper, const int& boundMode, const int& me, const int& mi,
            double* x, double& objective, double* work, int* iwork, double* multipliers,
            const int& printLevel, const int& unit, const int& n, int& startMode,
            int& status, const int& iterationLimit) {
  const i64 nn = n > 0 ? n : 0;
  const i64 m = (me > 0 ? me : 0) + (mi > 0 ? mi : 0);
  double* G = work;
  double* w = work + nn * (nn + 1);
  int* IRE = iwork;
  int* list = iwork + nn + (mi > 0 ? mi : 0);
  int* ipvt = list + nn + m + 1;

  copyLower(n, H, G);

  // The main iteration's own numbering of the start modes.
  const int saved = startMode;
  int ind = startMode;
  if (startMode == 1) ind = 6;
  if (startMode == 2) ind = 1;
  if (startMode == 3) ind = 2;

  const int ldc = n;
  int wantObjective = 1;
  int kact = 0;
  int kcur = 0;
  int iterations = iterationLimit;
  const double scale = 1.0;
  OPTR03(C, ldc, H, n, G, n, c, d, lower, upper, x, w, wantObjective, IRE, list, ipvt, scale,
         boundMode, n, kact, me, kcur, mi, ind, status, printLevel, unit, iterations);
  startMode = saved;

  restoreSymmetric(n, G, H);
  if (status != 0) return;

  objective = w[wantObjective - 1];
  scatterMultipliers(n, me, mi, list, kact, kcur, w + nn + mi, multipliers);
}

// Solves the QP with the library's fixed settings and maps the result to
// the allocators' status values.
void qpDriver(const int& n, double* H, double* c, const int& me, const int& mi, double* C,
              double* d, double* lower, double* upper, int* iwork, double* work,
              double* multipliers, double* x, int& status) {
  status = 0;
  if (n == 1) {
    qpScalar(H[0], c[0], me, mi, C, d, lower[0], upper[0], x[0], status);
    return;
  }
  double objective = 0.0;
  int startMode = kColdStart;
  qpCore(H, c, C, d, lower, upper, kBoundMode, me, mi, x, objective, work, iwork, multipliers,
         kPrintLevel, kOutputUnit, n, startMode, status, kIterationLimit);
  status = mapStatus(status);
}

}  // namespace lumbra::qp
