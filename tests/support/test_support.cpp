// SPDX-License-Identifier: Apache-2.0
#include "test_support.h"

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "api/frame.h"

namespace lumbra::testing {
namespace {
int remaining = 0, asked = 0;

// Memory with every byte 0xff (each double a NaN, each int -1) while successes remain.
void* failingAllocate(std::size_t bytes) {
  ++asked;
  if (remaining-- <= 0) return nullptr;
  void* p = std::malloc(bytes);
  return p == nullptr ? nullptr : std::memset(p, 0xff, bytes);
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
