// SPDX-License-Identifier: Apache-2.0
// Exports of the simulation family and the version probe.
#include "api/frame.h"
#include "lumbra.h"
#include "simul/simul.h"

using namespace lumbra;
using namespace lumbra::api;

namespace {

// Version reported by ORXlumbraTest, and the fixed build stamp (the date of
// the interface, yyyymmdd).
constexpr int kVersion[4] = {10, 4, 1, 16};
constexpr int kBuildStamp = 20261123;
constexpr int kProbeLast = 2;

}  // namespace

extern "C" LUMBRA_API int ORXsimulGeometricBrownianX(int* n, int* horizon, int* steps,
                                                     double* start, double* drift,
                                                     double* cov, double* paths, int* status) {
  FrameCall call;
  if (cov == nullptr) call.failure = kArgBase + 6;
  else if (drift == nullptr) call.failure = kArgBase + 5;
  else if (start == nullptr) call.failure = kArgBase + 4;
  call.out = paths;
  call.outCount = sizeMul(*n, *steps);
  call.status = status;
  const Size N = *n;
  call.iworkSize = (12 * N).value;
  call.workSize = (N * (5 * N + 31)).value;
  call.in[0] = {cov, *n, *n};
  call.nIn = 1;
  call.outMatrix = paths;
  call.outRows = *steps;
  call.outCols = *n;
  call.notFinite = simul::kStatusNotFinite;
  return runFrame(call, [&](int* iwork, double* work) {
    simul::simulGeometricBrownian(*n, *horizon, *steps, start, drift, cov, iwork, work, paths,
                                  *status);
  });
}

extern "C" LUMBRA_API int ORXlumbraTest(int* a, int* b, int* c, int* d, int* stamp, int* f) {
  *a = kVersion[0];
  *b = kVersion[1];
  *c = kVersion[2];
  *d = kVersion[3];
  *stamp = kBuildStamp;
  *f = kProbeLast;
  return 0;
}
