// Frame services shared by the exports.
#include "api/frame.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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
  return allocate != nullptr ? allocate(bytes) : std::malloc(bytes);
}

void workRelease(void* p) { std::free(p); }

void clearDoubles(double* x, i64 count) {
  for (i64 k = 0; k < count; ++k) x[k] = 0.0;
}

// tmp(c*rows + r) := a(r*cols + c), then a := tmp.
void convertLayout(double* a, i64 rows, i64 cols) {
  if (rows <= 1 || cols <= 1) return;  // a vector reads the same both ways
  const i64 count = rows * cols;
  double* tmp = static_cast<double*>(workAllocate(count, sizeof(double)));
  if (tmp == nullptr) {
    convertByCycles(a, rows, cols);
    return;
  }
  for (i64 r = 0; r < rows; ++r)
    for (i64 c = 0; c < cols; ++c) tmp[at(r, c, rows)] = a[r * cols + c];
  std::memcpy(a, tmp, static_cast<std::size_t>(count) * sizeof(double));
  workRelease(tmp);
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
