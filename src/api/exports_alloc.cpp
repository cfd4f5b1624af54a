// SPDX-License-Identifier: Apache-2.0
// Exports of the portfolio allocators.
#include "alloc/alloc.h"
#include "alloc/alloc_internal.h"
#include "api/frame.h"
#include "lumbra.h"

namespace lumbra::api {
namespace {

// Positions of the arguments the three allocators test; the tracking-error
// allocator has two more arguments before its counts.
struct AllocArgs {
  int n, cov, mu, benchCov, nEq, nIneq, cons, rhs, lower, upper;
};
constexpr AllocArgs kMVArgs{1, 2, 3, 0, 4, 5, 6, 7, 8, 9};
constexpr AllocArgs kITArgs{1, 2, 3, 4, 6, 7, 8, 9, 10, 11};

// The allocators' argument tests: one chain stopping at its first failure, a
// negative nIneq replacing it, and, if the chain passed, the scan of the
// bounds (a lower bound not at or below its upper bound reports lower, so
// that a NaN in either is refused too).
int allocArgumentStatus(const AllocArgs& pos, int n, const void* cov, const void* mu,
                        const void* benchCov, int nEq, int nIneq, const void* cons,
                        const void* rhs, const double* lower, const double* upper) {
  int failed = 0;
  if (nEq < 0) failed = pos.nEq;
  else if (n < 2) failed = pos.n;
  else if (upper == nullptr) failed = pos.upper;
  else if (lower == nullptr) failed = pos.lower;
  else if (rhs == nullptr) failed = pos.rhs;
  else if (cons == nullptr) failed = pos.cons;
  else if (pos.benchCov != 0 && benchCov == nullptr) failed = pos.benchCov;
  else if (mu == nullptr) failed = pos.mu;
  else if (cov == nullptr) failed = pos.cov;
  if (nIneq < 0) return kArgBase + pos.nIneq;
  if (failed == 0) {
    for (i64 i = 0; i < n; ++i)
      if (!(lower[i] <= upper[i])) return kArgBase + pos.lower;
  }
  return failed == 0 ? 0 : kArgBase + failed;
}

// The frame common to the three allocators: cov (n by n) and cons (n by m)
// converted around the engine, weights cleared.
FrameCall allocFrame(int failure, int n, double* cov, int nEq, int nIneq, double* cons,
                     double* weights, int* status) {
  FrameCall call;
  call.failure = failure;
  call.out = weights;
  call.outCount = n;
  call.status = status;
  call.in[0] = {cov, n, n};
  call.in[1] = {cons, n, i64{nEq} + nIneq};
  call.nIn = 2;
  call.notFinite = alloc::kStatusInfeasible;
  return call;
}

}  // namespace
}  // namespace lumbra::api

using namespace lumbra;
using namespace lumbra::api;

extern "C" LUMBRA_API int ORXallocMV(int* n, double* cov, double* mu, int* nEq, int* nIneq,
                                     double* cons, double* rhs, double* lower, double* upper,
                                     double* target, double* weights, int* status) {
  const int failure = allocArgumentStatus(kMVArgs, *n, cov, mu, nullptr, *nEq, *nIneq, cons,
                                          rhs, lower, upper);
  FrameCall call = allocFrame(failure, *n, cov, *nEq, *nIneq, cons, weights, status);
  if (failure == 0) {
    const Size N = *n, E = *nEq, I = *nIneq;
    call.iworkSize = (3 * N + E + 2 * I + 6).value;
    call.workSize = (2 * N + 4 * E + 2 * N * (N + E + I + 9) + 6 * I + 15).value;
  }
  return runFrame(call, [&](int* iwork, double* work) {
    alloc::allocMV(*n, cov, mu, *nEq, *nIneq, cons, rhs, lower, upper, *target, iwork, work,
                   weights, *status);
  });
}

extern "C" LUMBRA_API int ORXallocIT(int* n, double* cov, double* mu, double* benchCov,
                                     double* benchReturn, int* nEq, int* nIneq, double* cons,
                                     double* rhs, double* lower, double* upper, double* excess,
                                     double* weights, int* status) {
  const int failure = allocArgumentStatus(kITArgs, *n, cov, mu, benchCov, *nEq, *nIneq, cons,
                                          rhs, lower, upper);
  FrameCall call = allocFrame(failure, *n, cov, *nEq, *nIneq, cons, weights, status);
  if (failure == 0) {
    const Size N = *n, E = *nEq, I = *nIneq;
    call.iworkSize = (3 * N + E + 2 * I + 6).value;
    call.workSize = (N * (2 * (N + E + I) + 18) + 4 * E + 6 * I + 15).value;
  }
  return runFrame(call, [&](int* iwork, double* work) {
    alloc::allocIT(*n, cov, mu, benchCov, *benchReturn, *nEq, *nIneq, cons, rhs, lower, upper,
                   *excess, iwork, work, weights, *status);
  });
}

extern "C" LUMBRA_API int ORXallocSharpeRatio(int* n, double* cov, double* mu, int* nEq,
                                              int* nIneq, double* cons, double* rhs,
                                              double* lower, double* upper, double* riskFree,
                                              double* weights, int* status) {
  const int failure = allocArgumentStatus(kMVArgs, *n, cov, mu, nullptr, *nEq, *nIneq, cons,
                                          rhs, lower, upper);
  FrameCall call = allocFrame(failure, *n, cov, *nEq, *nIneq, cons, weights, status);
  if (failure == 0) {
    const Size N = *n, E = *nEq, I = *nIneq;
    call.iworkSize = (7 * N + E + 2 * I + 7).value;
    call.workSize = (N * (2 * (3 * N + E) + 3 * I + 34) + 4 * E + 9 * I + 33).value;
  }
  return runFrame(call, [&](int* iwork, double* work) {
    alloc::allocSharpeRatio(*n, cov, mu, *nEq, *nIneq, cons, rhs, lower, upper, *riskFree,
                            iwork, work, weights, *status);
  });
}
