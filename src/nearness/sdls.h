// SPDX-License-Identifier: Apache-2.0
// Semi-definite least squares through its dual: the routines below the two
// engine entries of nearness.h, shared by the general solver and the
// nearest correlation matrix, and visible to the tests and benchmarks.
#pragma once
#include "kernels/index.h"
#include "kernels/status.h"
#include "kernels/widened.h"
#include "nearness/minimiser.h"

namespace lumbra::nearness {

// Statuses of the nearness engines.
inline constexpr int kSdlsSimulatorStop = ORX_STATUS_SIMULATOR_STOP;   // mode 0
inline constexpr int kSdlsBadCall = ORX_STATUS_MINIMISER_REFUSED;         // mode 2, and an input not finite
inline constexpr int kSdlsUpdateFailed = ORX_STATUS_BFGS_FAILED;    // mode 3
inline constexpr int kSdlsIterationLimit = ORX_STATUS_MINIMISER_ITERATIONS;   // mode 4
inline constexpr int kSdlsSimulationLimit = ORX_STATUS_MINIMISER_SIMULATIONS;  // mode 5
inline constexpr int kSdlsNoProgress = ORX_STATUS_NO_PROGRESS;       // mode 6, dxmin(0) large enough
inline constexpr int kSdlsReleaseFailed = ORX_STATUS_RELEASE_FAILED;   // mode 7
inline constexpr int kSdlsStalled = ORX_STATUS_NO_PROGRESS_AT_ZERO;         // mode 6, dxmin(0) below resolution
inline constexpr int kSdlsEqualityMissed = ORX_STATUS_EQUALITY_MISSED;
inline constexpr int kSdlsInequalityMissed = ORX_STATUS_INEQUALITY_VIOLATED;
inline constexpr int kSdlsFloorOutOfRange = ORX_STATUS_BAD_EIGEN_FLOOR;

// Shift thresholds: the eigenvalue floor s counts above these (single-
// precision 1e-15 with equalities alone, and for the correlation matrix;
// single-precision 1e-30 once inequalities are present).
inline constexpr double kShiftEqualities = widened::k1em15;
inline constexpr double kShiftInequalities = widened::k1em30;
// Bound on the multipliers: single-precision 1e20 widened.
inline constexpr double kDualBound = double(1e20f);  // 1.0000000200408773e+20
// Tolerance of the final check of each constraint: single-precision 1e-5.
inline constexpr double kCheckTolerance = widened::k1em5;

// Real work of one projection (packEigenClip): 3n*n + 27n doubles.
inline i64 sdlsProjectionWork(i64 n) { return 3 * n * n + 27 * n; }

// Runs n2qn1 on simul from x, cold, with the stopping constants of the
// nearness solvers; maps its ending to status.  iz: n2qn1's 2nv + 1
// integers, then the simulator's integers.  rz: dxmin (nv), n2qn1's
// (nv + 9) nv / 2 doubles, then the simulator's real data.  f and g come
// back at the final x; iter and nsim with the iterations and simulations
// used.
void sdlsDualMinimise(Simulator simul, const int& nv, double* x, const double& tolerance,
                      const double* binf, const double* bsup, int* iz, double* rz, double& f,
                      double* g, int& iter, int& nsim, int& status);

// The real data of the equality simulator, in the order of dzs:
// b-hat (m), C-hat (nn), A (m nn), P (nn), w (m), S (nn), projection work.
struct EqualityData {
  double* bhat;
  double* chat;
  double* A;
  double* P;
  double* w;
  double* S;
  double* eigenWork;
};
EqualityData carveEqualityData(const int& n, const int& m, double* dzs);

// The real data of the inequality simulator, in the order of dzs:
// C-hat (nn), A (m nn), b-hat (m), B (p nn), l-hat (p), u-hat (p),
// P (nn), w1 (m), w2 (p), w3 (p), S (nn), projection work.
struct InequalityData {
  double* chat;
  double* A;
  double* bhat;
  double* B;
  double* lhat;
  double* uhat;
  double* P;
  double* w1;
  double* w2;
  double* w3;
  double* S;
  double* eigenWork;
};
InequalityData carveInequalityData(const int& n, const int& m, const int& p, double* dzs);

// Dual of the problem with equalities alone, z = y (m values).
// izs: n, eigen status, 12n integers for DSYEVR; dzs: EqualityData.
void sdlsSimulEqualities(int& indic, const int& m, const double* y, double& f, double* g,
                         int* izs, double* dzs);

// Dual with inequalities, z = (y, lambda, mu), m + 2p values.
// izs: n, m, p, eigen status, 12n integers for DSYEVR; dzs: InequalityData.
void sdlsSimulInequalities(int& indic, const int& nv, const double* z, double& f, double* g,
                           int* izs, double* dzs);

// Dual of the nearest correlation matrix, one multiplier per diagonal entry.
// izs: eigen status, 12n integers for DSYEVR.
// dzs: C-hat (nn), P (nn), d (n), S (nn), projection work.
void sdlsSimulCorr(int& indic, const int& n, const double* y, double& f, double* g, int* izs,
                   double* dzs);

// P := projection of C-hat + Diag(y) on the semi-definite cone; S is scratch.
void sdlsProjectCorr(const int& n, const double* y, const double* chat, double* S, int* iwork,
                     double* work, double* P, int& info);

// S := C-hat + sum_i y(i) A(i) + sum_j (lambda(j) - mu(j)) B(j), packed; z
// holds y (m), lambda (p), mu (p).
void sdlsCombine(const int& n, const int& m, const int& p, const double* z, const double* chat,
                 const double* A, const double* B, double* S);

// The two paths of sdlsSolve: shift, pack, run the dual, rebuild X, verify.
void sdlsEqualities(const int& n, const double* C, const int& m, const double* Afull,
                    const double* b, const double& tolerance, const double& s, int* iz,
                    double* work, double* X, int& status);
void sdlsInequalities(const int& n, const double* C, const int& m, const double* Afull,
                      const double* b, const int& p, const double* Bfull, const double* l,
                      const double* u, const double& tolerance, const double& s, int* iz,
                      double* work, double* X, int& status);

// Set-up of the dual, the minimisation and the final projection into P.
// area: the dual's area (z, bounds, gradient, dxmin, n2qn1's work, the
// simulator's data).
void sdlsDualEqualities(const int& n, const int& m, const double* bhat, const double* chat,
                        const double* A, const double& tolerance, int* iz, double* area,
                        double* P, int& status);
void sdlsDualInequalities(const int& n, const int& m, const int& p, const double* bhat,
                          const double* lhat, const double* uhat, const double* chat,
                          const double* A, const double* B, const double& tolerance, int* iz,
                          double* area, double* P, int& status);

// Final verification with the caller's matrices as given; T is n*n scratch.
void sdlsCheckEqualities(const int& n, const int& m, const double* A, const double* b,
                         const double* X, double* T, int& status);
void sdlsCheckInequalities(const int& n, const int& p, const double* B, const double* l,
                           const double* u, const double* X, double* T, int& status);

// True when every element of x(0:count-1) is finite.
bool sdlsAllFinite(i64 count, const double* x);
// True when every element of the upper triangle of the n by n matrix C is finite.
bool sdlsUpperFinite(const int& n, const double* C);

}  // namespace lumbra::nearness
