// SPDX-License-Identifier: Apache-2.0
#include "test_support.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include "api/frame.h"

namespace lumbra::testing {
namespace {
int remaining = 0, asked = 0;

// Memory filled with quiet NaNs (a partial last double with ones) while successes remain.
void* failingAllocate(std::size_t bytes) {
  ++asked;
  if (remaining-- <= 0) return nullptr;
  auto* p = static_cast<unsigned char*>(std::malloc(bytes));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::size_t k = 0;
  if (p == nullptr) return nullptr;
  for (; k + sizeof nan <= bytes; k += sizeof nan) std::memcpy(p + k, &nan, sizeof nan);
  std::memset(p + k, 0xff, bytes - k);
  return p;
}
}  // namespace

bool referenceBlas() {
  std::ifstream maps("/proc/self/maps");
  bool reference = true;
  for (std::string line; std::getline(maps, line);)
    for (const char* name : {"openblas", "libmkl", "libblis", "atlas"})
      reference = reference && line.find(name) == std::string::npos;
  // A run pinned to the reference library must not let such a test skip.
  if (!reference && std::getenv("LUMBRA_REQUIRE_REFERENCE_BLAS") != nullptr)
    ADD_FAILURE() << "this run needs the reference BLAS/LAPACK, and an optimised BLAS is loaded";
  return reference;
}

FailingAllocator::FailingAllocator(int successes) {
  remaining = successes;
  asked = 0;
  api::setAllocatorForTesting(failingAllocate);
}
FailingAllocator::~FailingAllocator() { api::setAllocatorForTesting(nullptr); }
int FailingAllocator::requests() { return asked; }

}  // namespace lumbra::testing
