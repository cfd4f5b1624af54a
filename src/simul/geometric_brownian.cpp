// SPDX-License-Identifier: Apache-2.0
// Correlated geometric Brownian paths by the simple-return Euler scheme:
// S(t+1) = S(t) (1 + drift dt + sqrt(dt) (L z)) element by element, with
// L L' the covariance after its eigenvalues are floored.  There is no
// exponential and no -sigma^2/2 term, so a shock below -1 makes a price
// negative; Sigma is the covariance of the shocks per unit of time.
#include <cmath>

#include "kernels/index.h"
#include "kernels/kernels.h"
#include "simul/random.h"
#include "simul/simul.h"
#include "simul/step.h"

namespace lumbra::simul {

using namespace lumbra::kernels;

namespace {

constexpr double kZero = 0.0;
constexpr double kUnitMean = 0.0;
constexpr double kUnitSd = 1.0;
constexpr double kOne = 1.0;
// Row of the start prices, 1-based as matSetRow counts rows.
constexpr int kFirstRow = 1;

}  // namespace

// w := L z; y := stepDrift + rootdt w
void simulShock(const int& n, const double* stepDrift, const double* L, const double& rootdt,
                const double* z, double* w, double* y) {
  matLowerMulVec(n, L, z, w);
  vecAddScaled(n, stepDrift, w, rootdt, y);
}

// z := n standard normal variates; y := stepDrift + rootdt (L z)
void simulStep(const int& n, const double* stepDrift, const double* L, const double& rootdt,
               double* scratch, double* y) {
  double* z = scratch;
  double* w = scratch + n;
  simulGaussianVector(n, kUnitMean, kUnitSd, z);
  simulShock(n, stepDrift, L, rootdt, z, w, y);
}

// paths(0,:) := start; paths(t+1,j) := (y(j) + 1.0) paths(t,j) for
// t = 0..steps-2 with dt = horizon / steps (steps, not steps - 1: the path
// stops one dt short of the horizon).
// Work: y (n), stepDrift (n), L (n*n), the clipped Cholesky's work
// (4n*n + 27n), z (n), w (n); 12n integers.
// Status: that of the clipped Cholesky factor.  A negative one (LAPACK
// refused its arguments) stops before the first move.  A positive one from
// DPOTRF means the floored matrix was still not numerically positive
// definite and no factor was written: L is then cleared, so the moves carry
// the drift alone and the paths stay finite and deterministic.
void simulGeometricBrownian(const int& n, const int& horizon, const int& steps,
                            const double* start, const double* drift, const double* Sigma,
                            int* iwork, double* work, double* paths, int& status) {
  const i64 nn = i64{n} * n;
  double* y = work;
  double* stepDrift = y + n;
  double* L = stepDrift + n;
  double* cholWork = L + nn;
  double* scratch = cholWork + 4 * nn + i64{27} * n;

  // A negative time span has no square root, and a NaN or an infinity in
  // the start or the drift would run through every price of the path.
  if (horizon < 0) {
    status = kStatusBadTime;
    return;
  }
  if (!allFinite(n, start) || !allFinite(n, drift)) {
    status = kStatusNotFinite;
    return;
  }
  const double dt = static_cast<double>(horizon) / static_cast<double>(steps);
  const double rootdt = std::sqrt(dt);
  status = 0;
  matSetRow(steps, n, paths, start, kFirstRow, status);
  vecCopyScale(n, drift, dt, stepDrift);
  // An empty asset list is not handed to LAPACK, whose argument check would
  // stop the process; there is nothing to factor or to move.
  if (n >= 1) {
    matClippedCholesky(n, Sigma, iwork, cholWork, L, status);
    if (status > 0) matFill(n, n, L, kZero);
    if (status >= 0) {
      for (i64 t = 0; t + 1 < steps; ++t) {
        simulStep(n, stepDrift, L, rootdt, scratch, y);
        for (i64 j = 0; j < n; ++j)
          paths[at(t + 1, j, steps)] = (y[j] + kOne) * paths[at(t, j, steps)];
      }
    }
  }
}

}  // namespace lumbra::simul
