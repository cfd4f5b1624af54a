// SPDX-License-Identifier: Apache-2.0
#include "test_support.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <fstream>
#include <string>

#include "api/frame.h"

namespace lumbra::testing {
namespace {
int remaining = 0;
int asked = 0;

// Fills the memory handed out with quiet NaNs (and the bytes of a partial
// last double with ones), so that reading work memory before writing it
// turns into a NaN somewhere in the result.
void fillWithNaN(void* p, std::size_t bytes) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  unsigned char* bytesOut = static_cast<unsigned char*>(p);
  std::size_t k = 0;
  for (; k + sizeof nan <= bytes; k += sizeof nan) std::memcpy(bytesOut + k, &nan, sizeof nan);
  std::memset(bytesOut + k, 0xff, bytes - k);
}

void* failingAllocate(std::size_t bytes) {
  ++asked;
  if (remaining <= 0) return nullptr;
  --remaining;
  void* p = std::malloc(bytes);
  if (p != nullptr) fillWithNaN(p, bytes);
  return p;
}
}  // namespace

bool referenceBlas() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  bool reference = true;
  while (std::getline(maps, line))
    for (const char* name : {"openblas", "libmkl", "libblis", "atlas"})
      if (line.find(name) != std::string::npos) reference = false;
  // A run pinned to the reference library (the test command's reference
  // stage) must not let such a test skip itself.
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
