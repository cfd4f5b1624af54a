// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the fuzz targets: a decoder that turns the fuzzer's
// bytes into bounded sizes and arbitrary doubles, caller-owned arrays of the
// exact documented sizes (so AddressSanitizer sees any write past them), and
// the checks every export's call frame must pass whatever its input.
//
// Input encoding (the committed seeds in corpus/ are written in it):
//   byte()        one byte, 0 once the input is exhausted
//   size(lo, hi)  lo + byte() % (hi - lo + 1)
//   real()        a tag byte, then by tag % 8:
//                   0  eight bytes, little-endian IEEE bits (any double)
//                   1  a signed 16-bit integer (2 bytes LE) / 64
//                   2  NaN
//                   3  +Inf
//                   4  -Inf
//                   5  0.0, or -0.0 when tag >= 128
//                   6  1e300 scaled by 1e-600 when tag & 16, negated when tag & 8
//                   7  a signed byte / 32
//   nullAt()      a byte; at 0xF0 and above, byte - 0xF0 names the one
//                 pointer argument passed as null
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

namespace lumbra::fuzz {

// Reader over the fuzzer's bytes.
struct Input {
  const std::uint8_t* p;
  std::size_t left;

  // Next byte, or 0 once the data is used up.
  std::uint8_t byte() {
    if (left == 0) return 0;
    --left;
    return *p++;
  }

  // An integer in [lo, hi] from one byte.
  int size(int lo, int hi) { return lo + static_cast<int>(byte() % (hi - lo + 1)); }

  // A double from a tag byte and its payload (see the table above).
  double real() {
    const std::uint8_t tag = byte();
    switch (tag % 8) {
      case 0: {
        std::uint64_t bits = 0;
        for (int k = 0; k < 8; ++k) bits |= static_cast<std::uint64_t>(byte()) << (8 * k);
        double v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
      }
      case 1: {
        const std::uint16_t lo = byte();
        const std::uint16_t hi = byte();
        return static_cast<std::int16_t>(static_cast<std::uint16_t>(lo | (hi << 8))) / 64.0;
      }
      case 2: return std::nan("");
      case 3: return HUGE_VAL;
      case 4: return -HUGE_VAL;
      case 5: return tag >= 128 ? -0.0 : 0.0;
      case 6: {
        const double m = (tag & 16) ? 1e-300 : 1e300;
        return (tag & 8) ? -m : m;
      }
      default: return static_cast<std::int8_t>(byte()) / 32.0;
    }
  }

  // Index of the pointer argument to pass as null, or -1.
  int nullAt() {
    const int b = byte();
    return b >= 0xF0 ? b - 0xF0 : -1;
  }
};

// A caller-owned array of exactly max(count, 0) doubles filled from the
// input; data() is null when it is the argument chosen to be null.
struct Array {
  std::vector<double> v;
  bool null = false;
  // The pointer handed to the export; an empty array is a zero-byte heap
  // block, so AddressSanitizer reports any access to it.
  double* data() {
    static double* const empty = static_cast<double*>(std::malloc(0));
    return null ? nullptr : (v.empty() ? empty : v.data());
  }
};

// The element count a size argument stands for: 0 when it is negative.
inline long pos(long v) { return v > 0 ? v : 0; }

// The output pointer handed to an export: a zero-byte block when empty.
inline double* outPtr(std::vector<double>& r) { return r.empty() ? Array{}.data() : r.data(); }

// Builds an array of count doubles decoded from the input.
inline Array readArray(Input& in, long count, bool null) {
  Array a;
  a.null = null;
  a.v.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  for (double& x : a.v) x = in.real();
  return a;
}

// An n by n matrix, row-major, in one of three shapes chosen by a byte:
// every element from the input, only the diagonal (zeros elsewhere), or the
// lower triangle mirrored to a symmetric matrix.
inline Array readSquare(Input& in, int n, bool null) {
  const int mode = in.byte() % 3;
  const long nn = n > 0 ? static_cast<long>(n) * n : 0;
  Array a;
  a.null = null;
  a.v.assign(static_cast<std::size_t>(nn), 0.0);
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c) {
      if (mode == 1 && r != c) continue;
      if (mode == 2 && c > r) continue;
      a.v[static_cast<std::size_t>(r) * n + c] = in.real();
      if (mode == 2) a.v[static_cast<std::size_t>(c) * n + r] = a.v[static_cast<std::size_t>(r) * n + c];
    }
  return a;
}

// Reports a broken invariant and aborts, which the fuzzer records as a crash.
[[noreturn]] inline void fail(const char* exportName, const char* what) {
  std::fprintf(stderr, "fuzz invariant broken in %s: %s\n", exportName, what);
  std::abort();
}

inline bool sameBits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

inline bool allFinite(const std::vector<double>& a) {
  for (double x : a)
    if (!std::isfinite(x)) return false;
  return true;
}

// Every element is +0.0 (what the frame's clearing writes).
inline bool allCleared(const std::vector<double>& a) {
  for (double x : a)
    if (x != 0.0 || std::signbit(x)) return false;
  return true;
}

// The frame's invariants for an export with nArgs arguments whose outputs
// are `outputs` (status separately):
//  - the return value is 0, 2, 5, 6 or 300 + k for an argument k;
//  - the status agrees with it by sign (0 with 0 and 2 and refusals);
//  - a refusal or a missing work array leaves every output cleared;
//  - a return of 0 never comes with a non-finite output.
inline void checkFrame(const char* name, int ret, int status, int nArgs,
                       const std::vector<const std::vector<double>*>& outputs) {
  const bool refused = ret > 300 && ret <= 300 + nArgs;
  if (!(ret == 0 || ret == 2 || ret == 5 || ret == 6 || refused)) fail(name, "return value outside the documented set");
  if ((ret == 0 || ret == 2 || refused) && status != 0) fail(name, "status not 0 with return 0, 2 or a refusal");
  if (ret == 5 && status >= 0) fail(name, "return 5 without a negative status");
  if (ret == 6 && status <= 0) fail(name, "return 6 without a positive status");
  for (const std::vector<double>* out : outputs) {
    if ((ret == 2 || refused) && !allCleared(*out)) fail(name, "outputs not cleared after a refusal");
    if (ret == 0 && !allFinite(*out)) fail(name, "return 0 with a non-finite output");
  }
}

// Input arrays that must come back bit for bit as given: (before, after) pairs.
inline void checkRestored(const char* name, std::initializer_list<std::pair<const Array*, const Array*>> arrays) {
  for (auto [before, after] : arrays)
    if (!sameBits(before->v, after->v)) fail(name, "input array not restored bit for bit");
}

}  // namespace lumbra::fuzz
