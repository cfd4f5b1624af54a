// SPDX-License-Identifier: Apache-2.0
// The call frame shared by every export: clearing of the outputs, work
// arrays from closed 64-bit size formulas, in-place layout conversion
// between the caller's row-major and the engine's column-major matrices,
// and the mapping of the engine's status to the return value.
#pragma once
#include <cstddef>

#include "kernels/index.h"
#include "kernels/kernels.h"
#include "kernels/status.h"

namespace lumbra::api {

// Return values of the exports.
inline constexpr int kReturnOk = ORX_RETURN_OK;
inline constexpr int kReturnNoMemory = ORX_RETURN_NO_MEMORY;
inline constexpr int kReturnFailure = ORX_RETURN_FAILURE;
inline constexpr int kReturnWarning = ORX_RETURN_WARNING;
// Argument k (1-based) failing its test returns kArgBase + k.
inline constexpr int kArgBase = ORX_RETURN_ARGUMENT;

// ---- checked size arithmetic ----------------------------------------------
// A size is a non-negative 64-bit count; kSizeInvalid marks one that
// overflowed or came out negative, and it propagates through both routines.
inline constexpr i64 kSizeInvalid = -1;
i64 sizeAdd(i64 a, i64 b);
i64 sizeMul(i64 a, i64 b);

// A work size under construction: the closed size formulas are written with
// these operators and come out kSizeInvalid on any overflow.
struct Size {
  i64 value;
  constexpr Size(i64 v) : value(v) {}  // NOLINT: implicit on purpose
};
inline Size operator+(Size a, Size b) { return sizeAdd(a.value, b.value); }
inline Size operator*(Size a, Size b) { return sizeMul(a.value, b.value); }
inline Size operator/(Size a, i64 b) { return a.value < 0 ? a : Size(a.value / b); }

// ---- work memory ----------------------------------------------------------
// Every allocation of the library goes through one function pointer, so the
// tests can make any chosen allocation fail.
using AllocateFn = void* (*)(std::size_t bytes);
void setAllocatorForTesting(AllocateFn allocate);  // nullptr restores malloc
// count elements of elemSize bytes; nullptr when the size is invalid, does
// not fit in memory, or the allocator fails.
void* workAllocate(i64 count, std::size_t elemSize);
void workRelease(void* p);

// x(0:count-1) := 0.0; nothing for count <= 0.
void clearDoubles(double* x, i64 count);

// Rewrites the row-major rows by cols matrix in a as the column-major rows
// by cols matrix, in place.  The way back is convertLayout(a, cols, rows).
// spare, when it holds at least rows*cols doubles, serves as the
// temporary instead of a fresh array.
void convertLayout(double* a, i64 rows, i64 cols, double* spare = nullptr, i64 spareCount = 0);

// Engine status to return value: negative 5, positive 6, zero 0.
int mapStatus(int status);

// A matrix the frame converts before the engine and restores after it.
struct Converted {
  double* a;
  i64 rows;
  i64 cols;
};

// Everything the frame needs to know about one call.
struct FrameCall {
  int failure = 0;            // status of the first failing argument test
  double* out = nullptr;      // result array cleared before anything else
  i64 outCount = 0;
  int* status = nullptr;
  i64 iworkSize = 0;          // 0: no integer work array
  i64 workSize = 0;           // 0: no real work array
  Converted in[3] = {};       // matrices converted around the engine
  int nIn = 0;
  double* outMatrix = nullptr;  // engine output left column-major rows by cols
  i64 outRows = 0;
  i64 outCols = 0;
  // Engine status that replaces a status >= 0 when the result holds a NaN or
  // an infinity (an overflow the input tests could not foresee).  Every
  // export whose engine computes a result sets it to its family's failure.
  int notFinite = 0;
};

// The last guard of every call: a result holding a NaN or an infinity is
// cleared, and unless the engine already failed its status becomes
// call.notFinite, so that no call succeeds, warns or even fails with a
// non-finite number in its outputs.
void refuseNonFiniteResult(const FrameCall& call);

// Clears the outputs and returns a failing argument test; otherwise obtains
// the work arrays, converts, runs engine(iwork, work), converts back and
// maps the status.
template <class Engine>
int runFrame(const FrameCall& call, Engine&& engine) {
  clearDoubles(call.out, call.outCount);
  *call.status = 0;
  if (call.failure != 0) return call.failure;
  if (call.iworkSize < 0 || call.workSize < 0) return kReturnNoMemory;

  int* iwork = nullptr;
  double* work = nullptr;
  int result = kReturnNoMemory;
  if (call.iworkSize > 0) iwork = static_cast<int*>(workAllocate(call.iworkSize, sizeof(int)));
  if (call.workSize > 0 && (call.iworkSize == 0 || iwork != nullptr))
    work = static_cast<double*>(workAllocate(call.workSize, sizeof(double)));
  const bool ready =
      (call.iworkSize == 0 || iwork != nullptr) && (call.workSize == 0 || work != nullptr);
  if (ready) {
    // The real work array, free before the engine starts and after it ends,
    // lends itself as the conversions' temporary.
    for (int k = 0; k < call.nIn; ++k)
      convertLayout(call.in[k].a, call.in[k].rows, call.in[k].cols, work, call.workSize);
    engine(iwork, work);
    for (int k = 0; k < call.nIn; ++k)
      convertLayout(call.in[k].a, call.in[k].cols, call.in[k].rows, work, call.workSize);
    if (call.outMatrix != nullptr)
      convertLayout(call.outMatrix, call.outCols, call.outRows, work, call.workSize);
    refuseNonFiniteResult(call);
    result = mapStatus(*call.status);
  }
  workRelease(work);
  workRelease(iwork);
  return result;
}

}  // namespace lumbra::api
