// SPDX-License-Identifier: Apache-2.0
// Fuzz target of the three allocators.  Beyond the frame's invariants it
// checks, whenever every input is finite and the call returns 0, that the
// portfolio keeps its bounds and every constraint row, the return row
// included, within a tolerance relative to the size of the terms.
//
// Input: export (MV, IT, Sharpe), null argument, n in [-1, 8], nEq and
// nIneq in [-1, 3], cov (full, diagonal or symmetric), mu, [IT: benchCov,
// benchReturn], cons (n rows by nEq + nIneq, row-major), rhs, a byte whose
// odd value swaps every lower > upper pair, lower, upper, and the scalar
// target / excess / riskFree.
#include <cmath>

#include "fuzz_input.h"
#include "lumbra.h"

namespace lumbra::fuzz {
namespace {

// Relative tolerance of the result checks.  The solver's own feasibility
// tests are absolute at 1e-8 on the working set; 1e-6 relative to the
// magnitude of the terms leaves room for rounding on badly scaled data while
// catching a constraint missed outright.
constexpr double kRelTol = 1e-6;

enum Kind { kMV, kIT, kSharpe };
const char* const kNames[] = {"ORXallocMV", "ORXallocIT", "ORXallocSharpeRatio"};

struct Problem {
  Kind kind;
  int n, nEq, nIneq;
  Array cov, mu, benchCov, cons, rhs, lower, upper;
  double benchReturn = 0.0, scalar = 0.0;
};

Problem decode(Input& in) {
  Problem p;
  p.kind = static_cast<Kind>(in.byte() % 3);
  const int nullAt = in.nullAt();
  p.n = in.size(-1, 8);
  p.nEq = in.size(-1, 3);
  p.nIneq = in.size(-1, 3);
  const long n = p.n > 0 ? p.n : 0;
  const long m = (p.nEq > 0 ? p.nEq : 0) + (p.nIneq > 0 ? p.nIneq : 0);
  // Pointer arguments in order: cov, mu, benchCov, cons, rhs, lower, upper.
  p.cov = readSquare(in, static_cast<int>(n), nullAt == 0);
  p.mu = readArray(in, n, nullAt == 1);
  if (p.kind == kIT) {
    p.benchCov = readArray(in, n, nullAt == 2);
    p.benchReturn = in.real();
  }
  p.cons = readArray(in, n * m, nullAt == 3);
  p.rhs = readArray(in, m, nullAt == 4);
  const bool order = in.byte() % 2 == 1;
  p.lower = readArray(in, n, nullAt == 5);
  p.upper = readArray(in, n, nullAt == 6);
  if (order)
    for (long i = 0; i < n; ++i)
      if (p.lower.v[i] > p.upper.v[i]) std::swap(p.lower.v[i], p.upper.v[i]);
  p.scalar = in.real();
  return p;
}

int call(Problem& p, std::vector<double>& w, int& status) {
  double* wp = outPtr(w);
  switch (p.kind) {
    case kMV:
      return ORXallocMV(&p.n, p.cov.data(), p.mu.data(), &p.nEq, &p.nIneq, p.cons.data(), p.rhs.data(),
                        p.lower.data(), p.upper.data(), &p.scalar, wp, &status);
    case kIT:
      return ORXallocIT(&p.n, p.cov.data(), p.mu.data(), p.benchCov.data(), &p.benchReturn, &p.nEq,
                        &p.nIneq, p.cons.data(), p.rhs.data(), p.lower.data(), p.upper.data(), &p.scalar,
                        wp, &status);
    default:
      return ORXallocSharpeRatio(&p.n, p.cov.data(), p.mu.data(), &p.nEq, &p.nIneq, p.cons.data(),
                                 p.rhs.data(), p.lower.data(), p.upper.data(), &p.scalar, wp, &status);
  }
}

// cov comes back with its lower triangle as given and its upper triangle
// either as given or rebuilt from the lower.
void checkCovRestored(const char* name, const Array& before, const Array& after, int n) {
  for (int r = 0; r < n; ++r)
    for (int c = 0; c <= r; ++c) {
      const double lo0 = before.v[r * n + c], lo1 = after.v[r * n + c];
      const double up0 = before.v[c * n + r], up1 = after.v[c * n + r];
      if (std::memcmp(&lo0, &lo1, sizeof lo0) != 0) fail(name, "lower triangle of cov not restored");
      if (std::memcmp(&up1, &up0, sizeof up0) != 0 && std::memcmp(&up1, &lo0, sizeof lo0) != 0)
        fail(name, "upper triangle of cov neither restored nor mirrored");
    }
}

// a' x <= b + kRelTol (1 + |b| + sum |a_i x_i|), with a of stride `stride`.
bool rowHolds(const double* a, long stride, const std::vector<double>& x, double b, double sign) {
  double sum = 0.0, mag = std::fabs(b);
  for (std::size_t i = 0; i < x.size(); ++i) {
    sum += a[i * stride] * x[i];
    mag += std::fabs(a[i * stride] * x[i]);
  }
  return sign * (sum - b) <= kRelTol * (1.0 + mag);
}

bool inputsFinite(const Problem& p) {
  return allFinite(p.cov.v) && allFinite(p.mu.v) && allFinite(p.benchCov.v) && allFinite(p.cons.v) &&
         allFinite(p.rhs.v) && allFinite(p.lower.v) && allFinite(p.upper.v) &&
         std::isfinite(p.benchReturn) && std::isfinite(p.scalar);
}

// Bounds, equality and inequality rows, and the allocator's own row: the
// return row of MV and IT, full investment and a return at least the
// risk-free rate for the Sharpe ratio.
void checkPortfolio(const Problem& p, const std::vector<double>& w) {
  const char* name = kNames[p.kind];
  const long m = p.nEq + p.nIneq;
  for (int i = 0; i < p.n; ++i) {
    const double tl = kRelTol * (1.0 + std::fabs(p.lower.v[i]));
    const double tu = kRelTol * (1.0 + std::fabs(p.upper.v[i]));
    if (w[i] < p.lower.v[i] - tl || w[i] > p.upper.v[i] + tu) fail(name, "weight outside its bounds");
  }
  // The Sharpe-ratio allocator's homogeneous problem leaves the caller's
  // equalities out (only its feasibility stage sees them), so its result
  // need not meet them; its inequalities and bounds are rows of that
  // problem and must hold.
  const long first = p.kind == kSharpe ? p.nEq : 0;
  for (long j = first; j < m; ++j) {
    const double* col = p.cons.v.data() + j;
    if (!rowHolds(col, m, w, p.rhs.v[j], 1.0)) fail(name, "constraint row violated");
    if (j < p.nEq && !rowHolds(col, m, w, p.rhs.v[j], -1.0)) fail(name, "equality row violated");
  }
  const std::vector<double> ones(w.size(), 1.0);
  switch (p.kind) {
    case kMV:
      if (!rowHolds(p.mu.v.data(), 1, w, p.scalar, -1.0)) fail(name, "return below the target");
      break;
    case kIT:
      if (!rowHolds(p.mu.v.data(), 1, w, p.benchReturn + p.scalar, -1.0))
        fail(name, "return below benchmark plus excess");
      break;
    default:
      if (!rowHolds(ones.data(), 1, w, 1.0, 1.0) || !rowHolds(ones.data(), 1, w, 1.0, -1.0))
        fail(name, "weights do not sum to 1");
      if (!rowHolds(p.mu.v.data(), 1, w, p.scalar, -1.0)) fail(name, "return below the risk-free rate");
  }
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumbra::fuzz;
  Input in{data, size};
  Problem p = decode(in);
  const Problem given = p;
  std::vector<double> w(p.n > 0 ? p.n : 0, 1.0);
  int status = -7777;
  const int ret = call(p, w, status);
  const char* name = kNames[p.kind];
  if (p.n != given.n || p.nEq != given.nEq || p.nIneq != given.nIneq) fail(name, "a size argument changed");
  if (std::memcmp(&p.scalar, &given.scalar, sizeof p.scalar) != 0 ||
      std::memcmp(&p.benchReturn, &given.benchReturn, sizeof p.benchReturn) != 0)
    fail(name, "a scalar argument changed");
  checkFrame(name, ret, status, p.kind == kIT ? 14 : 12, {&w});
  checkCovRestored(name, given.cov, p.cov, p.n > 0 ? p.n : 0);
  checkRestored(name, {{&given.mu, &p.mu}, {&given.benchCov, &p.benchCov}, {&given.cons, &p.cons},
                       {&given.rhs, &p.rhs}, {&given.lower, &p.lower}, {&given.upper, &p.upper}});
  if (ret == 0 && inputsFinite(p)) checkPortfolio(p, w);
  return 0;
}
