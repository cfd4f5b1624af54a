#include "test_support.h"

#include <cstdlib>
#include <fstream>
#include <string>

#include "api/frame.h"

namespace lumbra::testing {
namespace {
int remaining = 0;
int asked = 0;
void* failingAllocate(std::size_t bytes) {
  ++asked;
  if (remaining <= 0) return nullptr;
  --remaining;
  return std::malloc(bytes);
}
}  // namespace

bool referenceBlas() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line))
    for (const char* name : {"openblas", "libmkl", "libblis", "atlas"})
      if (line.find(name) != std::string::npos) return false;
  return true;
}

FailingAllocator::FailingAllocator(int successes) {
  remaining = successes;
  asked = 0;
  api::setAllocatorForTesting(failingAllocate);
}
FailingAllocator::~FailingAllocator() { api::setAllocatorForTesting(nullptr); }
int FailingAllocator::requests() { return asked; }

}  // namespace lumbra::testing
