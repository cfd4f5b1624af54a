// SPDX-License-Identifier: Apache-2.0
// Simulation: correlated geometric Brownian paths on the library's random
// source.
#pragma once
#include "kernels/status.h"

namespace lumbra::simul {

// Statuses of the simulation besides the spectral kernels' INFO (which is
// kInfoNotFiniteEigen or kInfoNotFiniteCholesky for a covariance holding a
// NaN or an infinity): a negative horizon or no time point, and a start
// price, a drift or a simulated price that is not a finite number.
inline constexpr int kStatusBadTime = ORX_STATUS_NEGATIVE_HORIZON;
inline constexpr int kStatusNotFinite = ORX_STATUS_UNUSABLE_VARIANCE;

// paths (column-major steps by n) of a geometric Brownian motion with time
// step horizon / steps.  A negative horizon (kStatusBadTime) or a start or
// drift that is not finite (kStatusNotFinite) ends the call before anything
// is written.  Work: 12n integers, n (5n + 31) doubles.
void simulGeometricBrownian(const int& n, const int& horizon, const int& steps,
                            const double* start, const double* drift, const double* Sigma,
                            int* iwork, double* work, double* paths, int& status);

}  // namespace lumbra::simul
