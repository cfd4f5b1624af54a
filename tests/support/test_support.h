// SPDX-License-Identifier: Apache-2.0
// Shared helpers of the test suite: bit-exact comparison with hexadecimal
// output, and a failing allocator for the allocation-failure paths.
#pragma once
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <string>

namespace lumbra::testing {

// "%a" rendering of a double, for failure messages of exact comparisons.
inline std::string hex(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%a", v);
  return buf;
}

// Exact equality of two doubles (NaN equal to NaN), printed in %a on failure.
inline ::testing::AssertionResult bitEqual(double expected, double actual) {
  if (expected == actual || (expected != expected && actual != actual))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "expected " << hex(expected) << " (" << expected << "), got " << hex(actual) << " ("
         << actual << ")";
}

#define EXPECT_BITEQ(expected, actual) EXPECT_TRUE(::lumbra::testing::bitEqual((expected), (actual)))

// True when the BLAS in this process is the reference implementation (no
// OpenBLAS, MKL, BLIS or ATLAS mapped).  Tests whose expectation turns on
// last-bit rounding inside BLAS calls (a rank decision on an exactly
// singular matrix, say) check that expectation only there.
bool referenceBlas();

// While one of these lives, the library's allocations succeed for the first
// `successes` requests and fail from then on (the conversion temporaries
// included).  The memory it hands out is filled with NaN, so that a path
// reading work memory before writing it shows.  Not reentrant: use from
// one test thread.
struct FailingAllocator {
  explicit FailingAllocator(int successes);
  ~FailingAllocator();
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;
  static int requests();  // allocations asked for since construction
};

}  // namespace lumbra::testing
