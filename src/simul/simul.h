// Simulation: correlated geometric Brownian paths on the library's random
// source.
#pragma once

namespace lumbra::simul {

// paths (column-major steps by n) of a geometric Brownian motion with time
// step horizon / steps.  Work: 12n integers, n (5n + 31) doubles.
void simulGeometricBrownian(const int& n, const int& horizon, const int& steps,
                            const double* start, const double* drift, const double* Sigma,
                            int* iwork, double* work, double* paths, int& status);

}  // namespace lumbra::simul
