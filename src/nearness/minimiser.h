// SPDX-License-Identifier: Apache-2.0
// The bound-constrained quasi-Newton minimiser n2qn1 and its simulator
// contract, shared by the minimiser and the dual problems of the nearness
// solvers.
#pragma once

namespace lumbra::nearness {

// A simulator computes f and g at x.  indic is 4 on entry; on return 0 asks
// the minimiser to stop at once, a negative value says f and g cannot be
// computed at this x, a positive value is a normal evaluation.  izs and dzs
// are the caller's private data, handed through untouched.
using Simulator = void (*)(int& indic, const int& n, const double* x, double& f, double* g,
                           int* izs, double* dzs);

// Minimises f over binf <= x <= bsup by a projected BFGS method.  mode on
// entry 1 to 4 (how to start), on return 0 to 7 (how it ended); epsabs, iter
// and nsim come back with the final gradient measure, the iterations and the
// simulations used.  iz (2n + 1 integers) and rz ((n + 9) n / 2 doubles) are
// its work arrays, kept for a warm start (mode 4).
void n2qn1(Simulator simul, const int& n, double* x, double& f, double* g, const double* dxmin,
           const double& df1, double& epsabs, const int& imp, const int& io, int& mode,
           int& iter, int& nsim, const double* binf, const double* bsup, int* iz, double* rz,
           int* izs, double* rzs, double* dzs);

}  // namespace lumbra::nearness
