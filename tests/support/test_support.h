// SPDX-License-Identifier: Apache-2.0
// Shared test helpers: bit-exact comparison printed in %a, which BLAS is loaded, a failing allocator.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace lumbra::testing {

inline std::string hex(double v) {  // "%a", for messages of exact comparisons
  char buf[64];
  std::snprintf(buf, sizeof buf, "%a", v);
  return buf;
}

// Exact equality of two doubles (NaN equal to NaN), printed in %a on failure.
inline ::testing::AssertionResult bitEqual(double expected, double actual) {
  if (expected == actual || (expected != expected && actual != actual)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "expected " << hex(expected) << " (" << expected
                                       << "), got " << hex(actual) << " (" << actual << ")";
}
#define EXPECT_BITEQ(expected, actual) EXPECT_TRUE(::lumbra::testing::bitEqual((expected), (actual)))

// True when no OpenBLAS, MKL, BLIS or ATLAS is mapped: results turning on last bits hold.
bool referenceBlas();

// While one lives, the library's first `successes` allocations succeed on NaN-filled memory
// (a read before a write shows) and the later ones fail.  Not reentrant.
struct FailingAllocator {
  explicit FailingAllocator(int successes);
  ~FailingAllocator();
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;
  static int requests();  // allocations asked for since construction
};

}  // namespace lumbra::testing
