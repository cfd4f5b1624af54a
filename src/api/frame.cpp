// SPDX-License-Identifier: Apache-2.0
// Frame services shared by the exports.
#include "api/frame.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace lumbra::api {
namespace {

std::atomic<AllocateFn> allocator{nullptr};

// Position that element k of a row-major rows by cols matrix takes in the
// column-major layout of the same matrix.
i64 columnMajorPosition(i64 k, i64 rows, i64 cols) { return (k % cols) * rows + k / cols; }

// In-place row-major to column-major rewrite without extra memory, by
// following the cycles of the permutation k -> columnMajorPosition(k).  Each
// cycle is moved once, from its smallest member.  Used only when the
// temporary of convertLayout cannot be obtained: slower, same result.
void convertByCycles(double* a, i64 rows, i64 cols) {
  const i64 count = rows * cols;
  for (i64 start = 1; start + 1 < count; ++start) {
    i64 next = columnMajorPosition(start, rows, cols);
    while (next > start) next = columnMajorPosition(next, rows, cols);
    if (next < start) continue;  // this cycle was moved from a smaller member
    double carried = a[start];
    i64 k = start;
    do {
      const i64 to = columnMajorPosition(k, rows, cols);
      const double displaced = a[to];
      a[to] = carried;
      carried = displaced;
      k = to;
    } while (k != start);
  }
}

// Side of the square tiles the conversions move at a time: two tiles of
// 32 by 32 doubles (16 KiB) stay in the first-level cache, so every cache
// line read or written is used whole before it is evicted.
constexpr i64 kTile = 32;

// tmp(c*rows + r) := a(r*cols + c), tile by tile.
void transposeIntoTemporary(const double* a, i64 rows, i64 cols, double* tmp) {
  for (i64 r0 = 0; r0 < rows; r0 += kTile) {
    const i64 r1 = std::min(rows, r0 + kTile);
    for (i64 c0 = 0; c0 < cols; c0 += kTile) {
      const i64 c1 = std::min(cols, c0 + kTile);
      for (i64 c = c0; c < c1; ++c)
        for (i64 r = r0; r < r1; ++r) tmp[at(r, c, rows)] = a[r * cols + c];
    }
  }
}

// a := a' for a square n by n matrix, in place: the tiles above the
// diagonal trade places with their mirror images below it.
void transposeSquareInPlace(double* a, i64 n) {
  for (i64 j0 = 0; j0 < n; j0 += kTile) {
    const i64 j1 = std::min(n, j0 + kTile);
    for (i64 i0 = 0; i0 <= j0; i0 += kTile) {
      const i64 i1 = std::min(n, i0 + kTile);
      for (i64 j = j0; j < j1; ++j)
        for (i64 i = i0; i < std::min(i1, j); ++i) std::swap(a[at(i, j, n)], a[at(j, i, n)]);
    }
  }
}

// Work arrays from this size up are offered transparent huge pages.
constexpr std::size_t kHugePageAdviceBytes = std::size_t{4} << 20;

// Asks the kernel to back the whole pages of a large fresh block with huge
// pages where it can: a table of many megabytes then costs a handful of
// page faults on first touch instead of one per 4 KiB.  A hint only; the
// contents and the results are unaffected, and nothing happens elsewhere.
void adviseHugePages(void* p, std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (p == nullptr || bytes < kHugePageAdviceBytes) return;
  const long pageSize = sysconf(_SC_PAGESIZE);
  if (pageSize <= 0) return;
  const auto page = static_cast<std::uintptr_t>(pageSize);
  const std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(p) + page - 1) / page * page;
  const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(p) + bytes) / page * page;
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)p;
  (void)bytes;
#endif
}

}  // namespace

i64 sizeAdd(i64 a, i64 b) {
  i64 r = 0;
  if (a < 0 || b < 0 || __builtin_add_overflow(a, b, &r)) return kSizeInvalid;
  return r;
}

i64 sizeMul(i64 a, i64 b) {
  i64 r = 0;
  if (a < 0 || b < 0 || __builtin_mul_overflow(a, b, &r)) return kSizeInvalid;
  return r;
}

void setAllocatorForTesting(AllocateFn allocate) { allocator.store(allocate); }

void* workAllocate(i64 count, std::size_t elemSize) {
  if (count < 0) return nullptr;
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(static_cast<std::uint64_t>(count), elemSize, &bytes) ||
      bytes > static_cast<std::size_t>(PTRDIFF_MAX))
    return nullptr;
  if (bytes == 0) bytes = 1;
  const AllocateFn allocate = allocator.load();
  if (allocate != nullptr) return allocate(bytes);
  void* p = std::malloc(bytes);
  adviseHugePages(p, bytes);
  return p;
}

void workRelease(void* p) { std::free(p); }

void clearDoubles(double* x, i64 count) {
  for (i64 k = 0; k < count; ++k) x[k] = 0.0;
}

// A square matrix is transposed in place.  Otherwise the elements go to a
// temporary, tmp(c*rows + r) := a(r*cols + c), which is then copied back:
// the caller's spare memory when it holds rows*cols doubles (the frame
// lends its real work array, which the engine has not begun or has
// finished using, so the call touches no memory beyond its work), else a
// fresh array, else the cycles of the permutation.
void convertLayout(double* a, i64 rows, i64 cols, double* spare, i64 spareCount) {
  if (rows <= 1 || cols <= 1) return;  // a vector reads the same both ways
  if (rows == cols) {
    transposeSquareInPlace(a, rows);
    return;
  }
  const i64 count = rows * cols;
  double* tmp = spareCount >= count ? spare : nullptr;
  const bool owned = tmp == nullptr;
  if (owned) tmp = static_cast<double*>(workAllocate(count, sizeof(double)));
  if (tmp == nullptr) {
    convertByCycles(a, rows, cols);
    return;
  }
  transposeIntoTemporary(a, rows, cols, tmp);
  std::memcpy(a, tmp, static_cast<std::size_t>(count) * sizeof(double));
  if (owned) workRelease(tmp);
}

void refuseNonFiniteResult(const FrameCall& call) {
  if (kernels::allFinite(call.outCount, call.out)) return;
  clearDoubles(call.out, call.outCount);
  if (*call.status >= 0) *call.status = call.notFinite;
}

int mapStatus(int status) {
  if (status < 0) return kReturnFailure;
  if (status > 0) return kReturnWarning;
  return kReturnOk;
}

}  // namespace lumbra::api
