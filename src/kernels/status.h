// SPDX-License-Identifier: Apache-2.0
// The engine's status values.  Every value that leaves the engine is one of
// the public names of lumbra.h (ORX_STATUS_...), used as they stand.  The
// codes below stay inside: the solver's raw results, which qpDriver maps
// to public statuses, and the kernels' report of a position outside a
// matrix, which its callers replace.
#pragma once
#include "lumbra.h"

namespace lumbra::codes {

// ---- QP main iteration (OPTR03), mapped by qpDriver ------------------------
inline constexpr int kMainIterationLimit = 1;  // -> ORX_STATUS_ITERATION_LIMIT
inline constexpr int kMainUnbounded = -1;      // -> ORX_STATUS_UNBOUNDED
inline constexpr int kMainCycling = -2;        // -> ORX_STATUS_CYCLING
inline constexpr int kMainStepTooLong = -3;    // -> ORX_STATUS_STEP_TOO_LONG
inline constexpr int kMainInvalidInput = -4;   // -> ORX_STATUS_QP_INVALID_INPUT
inline constexpr int kMainNothingToAdd = -15;  // -> ORX_STATUS_NOTHING_TO_ADD
// A failure s of the feasible-point search ends the main iteration with
// s + kMainSearchShift (-11 .. -15).
inline constexpr int kMainSearchShift = -10;

// ---- feasible-point search (OPTR01) ---------------------------------------
inline constexpr int kSearchEqualities = -1;      // the equality rows have no solution
inline constexpr int kSearchNoPoint = -2;         // no feasible point
inline constexpr int kSearchCycling = -3;         // cycling at a degenerate point
inline constexpr int kSearchIterationLimit = -4;  // more than n + me + mi steps
inline constexpr int kSearchInvalidInput = -5;    // bad arguments or bounds
// Search statuses after the shift: the main iteration's raw -11 .. -16.
inline constexpr int kMainSearchEqualities = kSearchEqualities + kMainSearchShift;
inline constexpr int kMainSearchNoPoint = kSearchNoPoint + kMainSearchShift;
inline constexpr int kMainSearchCycling = kSearchCycling + kMainSearchShift;
inline constexpr int kMainSearchIterationLimit = kSearchIterationLimit + kMainSearchShift;
inline constexpr int kMainSearchInvalidInput = kSearchInvalidInput + kMainSearchShift;
inline constexpr int kMainSearchSix = -6 + kMainSearchShift;  // raw -16: see qpDriver

// ---- kernels ---------------------------------------------------------------
// A row, block or scatter position outside its matrix; nothing written.
inline constexpr int kBadPosition = -2;

}  // namespace lumbra::codes
