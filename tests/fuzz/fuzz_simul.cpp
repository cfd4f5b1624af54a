// SPDX-License-Identifier: Apache-2.0
// Fuzz target of the path simulation.  The caller guarantees n >= 1 and
// steps >= 1 (the export does not test its integers), so the sizes stay in
// that range; horizon is any 16-bit value.  Besides the frame's invariants:
// a path returned with 0 starts at the start prices, bit for bit.
//
// Input: null argument, n in [1, 5], horizon (2 bytes, signed), steps in
// [1, 8], start, drift, cov (full, diagonal or symmetric).
#include "fuzz_input.h"
#include "lumbra.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumbra::fuzz;
  const char* name = "ORXsimulGeometricBrownianX";
  Input in{data, size};
  const int nullAt = in.nullAt();
  int n = in.size(1, 5);
  const int lo = in.byte(), hi = in.byte();
  int horizon = static_cast<std::int16_t>(static_cast<std::uint16_t>(lo | (hi << 8)));
  int steps = in.size(1, 8);
  Array start = readArray(in, n, nullAt == 0);
  Array drift = readArray(in, n, nullAt == 1);
  Array cov = readSquare(in, n, nullAt == 2);
  const Array given[] = {start, drift, cov};
  std::vector<double> paths(static_cast<std::size_t>(n) * steps, 1.0);
  int status = -7777;
  const int ret =
      ORXsimulGeometricBrownianX(&n, &horizon, &steps, start.data(), drift.data(), cov.data(), paths.data(), &status);
  checkFrame(name, ret, status, 8, {&paths});
  checkRestored(name, {{&given[0], &start}, {&given[1], &drift}, {&given[2], &cov}});
  if (ret == 0)
    for (int i = 0; i < n; ++i)
      if (std::memcmp(&paths[i], &start.v[i], sizeof(double)) != 0) fail(name, "first row is not the start");
  return 0;
}
