// SPDX-License-Identifier: Apache-2.0
// One move of the simulated path: the correlated shocks of one time step.
// Internal header of the simulation, shared with its tests.
#pragma once

namespace lumbra::simul {

// y := stepDrift + rootdt * (L z), z given; w (n) receives L z.
void simulShock(const int& n, const double* stepDrift, const double* L, const double& rootdt,
                const double* z, double* w, double* y);

// y := stepDrift + rootdt * (L z) for n fresh standard normal variates z,
// drawn in asset order.  scratch holds z (n) then w (n).
void simulStep(const int& n, const double* stepDrift, const double* L, const double& rootdt,
               double* scratch, double* y);

}  // namespace lumbra::simul
