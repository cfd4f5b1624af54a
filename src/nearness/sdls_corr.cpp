// SPDX-License-Identifier: Apache-2.0
// The nearest correlation matrix: X symmetric with unit diagonal and
// eigenvalues at least s, nearest to the target C.  With
// X = (1 - s) Y + s I the floor is taken out by a shift and a scaling, Y is
// the nearest correlation matrix (floor 0) to C-hat = (C - s I) / (1 - s),
// and the right-hand sides stay 1.  The constraints are the diagonal
// entries, so the dual combines its multipliers into a diagonal matrix and
// its gradient is the diagonal of the projection less one.
#include <bit>
#include <cmath>
#include <cstdint>

#include "kernels/kernels.h"
#include "nearness/nearness.h"
#include "nearness/sdls.h"

namespace lumbra::nearness {
namespace {

using namespace lumbra::kernels;

// Largest floor accepted: the double 0.999999999999999.
constexpr double kFloorMax = std::bit_cast<double>(std::uint64_t{0x3FEFFFFFFFFFFFF7});
// The multipliers are free within +-1e20 (exact doubles).
constexpr double kCorrBound = 1e20;

}  // namespace

// work: F (n*n), packed result (nn), y, lower, upper, g, dxmin (n each),
// n2qn1's work ((n + 9) n / 2), then the simulator's data: C-hat (nn),
// P (nn), d (n), S (nn), projection work.  iz: n2qn1's 2n + 1 integers, the
// eigen status, 12n integers for DSYEVR.
//
// The status comes from the last eigen-decomposition alone: however the
// minimiser ended, the result is the projection at its last multipliers,
// and the diagonal is as near 1 as the stopping test made it.  A NaN or an
// infinity in the upper triangle of C gives kSdlsBadCall with X cleared.
void sdlsCorrelation(const int& n, const double* target, const double& tolerance,
                     const double& eigenFloor, int* iz, double* work, double* result,
                     int& status) {
  const double s = eigenFloor;
  const i64 n2 = i64{n} * n, nn = i64{n} * (n + 1) / 2;
  // Written as a negated range test so that a NaN floor is refused too.
  if (!(s >= 0.0 && s <= kFloorMax)) {
    status = kSdlsFloorOutOfRange;
    return;
  }
  if (!sdlsUpperFinite(n, target)) {
    for (i64 k = 0; k < n2; ++k) result[k] = 0.0;
    status = kSdlsBadCall;
    return;
  }
  status = 0;
  const double oneMinus = 1.0 - s;
  const double scale = 1.0 / oneMinus;
  const bool shifted = s > kShiftEqualities;

  double* F = work;
  double* packedX = F + n2;
  double* y = packedX + nn;
  double* lower = y + n;
  double* upper = lower + n;
  double* g = upper + n;
  double* rz = g + n;  // dxmin, n2qn1's work, simulator data
  double* chat = rz + n + (i64{n} + 9) * n / 2;
  double* S = chat + 2 * nn + n;  // behind P and d
  double* eigenWork = S + nn;
  int* izs = iz + 2 * i64{n} + 1;
  int& eigenStatus = izs[0];
  int* iwork = izs + 1;

  // F := (C - s I) / (1 - s), or C
  if (shifted) {
    const double minusS = 0.0 - s;
    matAddDiag(n, target, minusS, F);
    matCopyScale(n, n, F, scale, F);
  } else {
    matCopy(n, n, target, F);
  }
  for (i64 i = 0; i < n; ++i) {
    y[i] = 0.0;
    lower[i] = -kCorrBound;
    upper[i] = kCorrBound;
  }
  eigenStatus = 0;
  packFromFull(n, F, chat);

  double f = 0.0;
  int iter = 0, nsim = 0, dualStatus = 0;
  sdlsDualMinimise(sdlsSimulCorr, n, y, tolerance, lower, upper, iz, rz, f, g, iter, nsim,
                   dualStatus);
  // The minimiser's ending is not reported: only the final projection
  // counts.  The packed area is cleared first so that a projection refused
  // by LAPACK still leaves a defined result.
  status = 0;
  for (i64 k = 0; k < nn; ++k) packedX[k] = 0.0;
  sdlsProjectCorr(n, y, chat, S, iwork, eigenWork, packedX, status);
  packToFull(n, packedX, F);
  // X := (1 - s) F + s I, or F
  if (shifted) {
    matScale(n, n, F, oneMinus);
    matAddDiag(n, F, s, result);
  } else {
    matCopy(n, n, F, result);
  }
}

}  // namespace lumbra::nearness
