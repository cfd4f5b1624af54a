// SPDX-License-Identifier: Apache-2.0
// Matrix nearness: the nearest symmetric matrix under an eigenvalue floor
// and linear constraints, and the nearest correlation matrix.
#pragma once

namespace lumbra::nearness {

void sdlsSolve(const int& n, const double* target, const int& nEq, const double* eqMatrices,
               const double* eqValues, const int& nIneq, const double* ineqMatrices,
               const double* ineqLower, const double* ineqUpper, const double& tolerance,
               const double& eigenFloor, int* iz, double* work, double* result, int& status);

void sdlsCorrelation(const int& n, const double* target, const double& tolerance,
                     const double& eigenFloor, int* iz, double* work, double* result,
                     int& status);

}  // namespace lumbra::nearness
