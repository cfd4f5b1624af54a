#!/usr/bin/env python3
"""Mutation measurement of the test suite.

Applies, one at a time, the fixed list of single-point faults below to src/,
rebuilds the given build tree incrementally, runs the whole CTest suite there
(the Python tests and the reference-BLAS runs included) and records which
tests fail.  A mutant no test notices survives; one the compiler refuses is
counted apart.  Every mutated file is restored after its run, on an error or
a signal too, and checked against git.

    tests/mutation/mutate.py --build build-mutation          # every mutant
    tests/mutation/mutate.py --list                          # the list only
    tests/mutation/mutate.py --build build-mutation --only S03 --only Q05

The build tree must be configured like the release stage of the test command
(tests on, BLA_VENDOR=Generic); see README.md.
"""
import argparse
import json
import os
import re
import signal
import subprocess
import sys
import time
from collections import defaultdict
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent

# The faults: (id, file, text found exactly once, its replacement, what it is).
LIST = [
    # ---- kernels
    ("K01", "src/kernels/kernels.cpp", "r = x[0];\n  for (i64 i = 1; i < n; ++i)",
     "r = x[0];\n  for (i64 i = 2; i < n; ++i)", "vecMin starts at x(2): x(1) never compared"),
    ("K02", "src/kernels/kernels.cpp", "lwork = 26 * n, liwork", "lwork = 25 * n, liwork",
     "DSYEVR real workspace one n short"),
    ("K03", "src/kernels/kernels.h", "kDefiniteThreshold = widened::k1em12;",
     "kDefiniteThreshold = 1e-12;", "definiteness threshold: widened 1e-12f replaced by 1e-12"),
    ("K04", "src/kernels/kernels.cpp", "if (floor > w[i]) w[i] = floor;",
     "if (floor < w[i]) w[i] = floor;", "eigenvalue floor comparison reversed"),
    ("K05", "src/kernels/kernels.cpp", "i >= j ? A[at(i, j, n)] : 0.0",
     "i > j ? A[at(i, j, n)] : 0.0", "lower part drops the diagonal (>= to >)"),
    ("K06", "src/kernels/kernels.cpp", "std::max(i0, j + 1)", "std::max(i0, j + 2)",
     "mirror of the upper triangle skips the first subdiagonal"),
    ("K07", "src/kernels/kernels.cpp", "if (i <= 0 || i > ld) {", "if (i <= 0 || i >= ld) {",
     "matSetRow refuses the last row (> to >=)"),
    ("K08", "src/kernels/kernels.cpp", "const double shift = kDefiniteThreshold + margin;",
     "const double shift = kDefiniteThreshold - margin;",
     "definiteness certificate: margin subtracted instead of added"),
    ("K09", "src/kernels/kernels.cpp", "if (idx[j] > m || idx[i] > m) {",
     "if (idx[j] >= m || idx[i] >= m) {", "matScatter refuses the last position"),
    ("K10", "src/kernels/kernels.cpp", "daxpy_(&n, &kMinusUnit, b, &kOne, z, &kOne);",
     "daxpy_(&n, &kUnit, b, &kOne, z, &kOne);", "vecSub adds"),
    ("K11", "src/kernels/kernels.cpp", "* kNegligibleInverse < largest) A[at(i, j, n)] = 0.0;",
     "* kNegligibleInverse <= largest) A[at(i, j, n)] = 0.0;",
     "negligible elements flushed at the edge too"),
    ("K12", "src/kernels/kernels.cpp", "for (i64 k = 0; k < count; ++k)\n    if (!std::isfinite(x[k]))",
     "for (i64 k = 1; k < count; ++k)\n    if (!std::isfinite(x[k]))", "finiteness scan skips the first element"),
    # ---- stats
    ("S01", "src/stats/modified_var.cpp",
     "  const float f = static_cast<float>(T);\n"
     "  const float tt2 = static_cast<float>(i64{T} * (T - 2));\n"
     "  const float twoT = static_cast<float>(i64{2} * T);\n"
     "  const float fa = (tt2 + 3.0f) * f / ((f - 2.0f) * (f - 1.0f) * (f - 3.0f));\n"
     "  const float fb = ((f - 1.0f) * 3.0f) * (twoT - 3.0f) / (tt2 * (f - 3.0f));",
     "  const double f = static_cast<double>(T);\n"
     "  const double tt2 = static_cast<double>(i64{T} * (T - 2));\n"
     "  const double twoT = static_cast<double>(i64{2} * T);\n"
     "  const double fa = (tt2 + 3.0) * f / ((f - 2.0) * (f - 1.0) * (f - 3.0));\n"
     "  const double fb = ((f - 1.0) * 3.0) * (twoT - 3.0) / (tt2 * (f - 3.0));",
     "kurtosis correction factors in double instead of float"),
    ("S02", "src/stats/covariance.cpp",
     "const float denominator = static_cast<float>(T - 1);\n  const float one = 1.0f;",
     "const double denominator = static_cast<double>(T - 1);\n  const double one = 1.0;",
     "covariance scale 1/(T-1) in double instead of float"),
    ("S03", "src/stats/kernel_density.cpp", "const double h = kBandwidthFactor * sigma / d;",
     "const double h = 1.059 * sigma / d;", "bandwidth factor: widened 1.059f replaced by 1.059"),
    ("S04", "src/stats/kernel_density.cpp", "for (i64 j = 0; j < n; ++j) {\n      const double e",
     "for (i64 j = 1; j < n; ++j) {\n      const double e", "kernel sum skips the first observation"),
    ("S05", "src/stats/expost.cpp", "const double dof = n - 1;", "const double dof = n;",
     "standard deviation divides by n, not n - 1"),
    ("S06", "src/stats/returns.cpp", "return (later - b) / b; }", "return (later - b) / later; }",
     "simple return divided by the later price"),
    ("S07", "src/stats/returns.h", "kLogReturnFloor = widened::k1em15;",
     "kLogReturnFloor = 1e-15;", "log-return floor: widened 1e-15f replaced by 1e-15"),
    ("S08", "src/stats/modified_var.cpp", "(0.0 - z) - (q - 3.0) * z * kTwentyFourth * K;",
     "(0.0 - z) + (q - 3.0) * z * kTwentyFourth * K;", "Cornish-Fisher kurtosis term sign"),
    ("S09", "src/stats/modified_var.cpp", "using widened::kSixth;",
     "constexpr double kSixth = 1.0 / 6.0;", "1/6: widened float replaced by the double"),
    ("S10", "src/stats/modified_var.cpp", "m = (1.0 / T) * sum;", "m = (1.0 / (T - 1)) * sum;",
     "raw moment divided by T - 1"),
    ("S11", "src/stats/covariance.cpp",
     "    for (i64 l = 0; l < k; ++l) Corr[at(k, l, n)] = Corr[at(l, k, n)];\n", "",
     "correlation not mirrored to the lower triangle (line deleted)"),
    ("S12", "src/stats/exante.cpp", "  result = (0.0 - s) * z + m;", "  result = s * z + m;",
     "normal VaR volatility term sign"),
    ("S13", "src/stats/normal.cpp", "if (y <= kCentralLimit) {", "if (y < kCentralLimit) {",
     "normal CDF region boundary (<= to <)"),
    ("S14", "src/stats/normal.cpp", "if (std::fabs(dx / xn) < kNewtonTolerance)",
     "if (std::fabs(dx) < kNewtonTolerance)", "quantile Newton stop absolute, not relative"),
    ("S15", "src/stats/expost.cpp", "result = kVarianceFloor > v ? 0.0 : std::sqrt(v);",
     "result = std::sqrt(v);", "ex-post volatility without the variance floor"),
    ("S16", "src/stats/covariance.cpp", "        status = kStatusDegenerateAsset;\n", "",
     "constant asset without its warning (line deleted)"),
    # ---- qp
    ("Q01", "src/qp/steplength.cpp", "if (a <= best && a > 0.0) {", "if (a < best && a > 0.0) {",
     "ratio test: row ties go to the first row (tie-break reversed)"),
    ("Q02", "src/qp/steplength.cpp", "if (ibnd >= 2 && CS[i] <= kSqrtOverflow && p[i] > t) {",
     "if (ibnd > 2 && CS[i] <= kSqrtOverflow && p[i] > t) {",
     "ratio test ignores upper bounds in bound mode 2"),
    ("Q03", "src/qp/driver.cpp", "case codes::kMainSearchNoPoint: return ORX_STATUS_NO_FEASIBLE_POINT;",
     "case codes::kMainSearchNoPoint: return -ORX_STATUS_NO_FEASIBLE_POINT;",
     "no feasible point mapped to a failure status"),
    ("Q04", "src/qp/driver.cpp", "x = fHigh > fLow ? low : high;", "x = fHigh >= fLow ? low : high;",
     "scalar QP: tie goes to the lower end"),
    ("Q05", "src/qp/driver.cpp", "if (lo - kScalarTiny > hi) status = ORX_STATUS_SCALAR_EMPTY;",
     "if (lo > hi) status = ORX_STATUS_SCALAR_EMPTY;", "scalar interval: empty test without its tolerance"),
    ("Q06", "src/qp/driver.cpp", "kScalarTiny = widened::k1em15;", "kScalarTiny = 1e-15;",
     "scalar tolerance: widened 1e-15f replaced by 1e-15"),
    ("Q07", "src/qp/refine.cpp", "if (after > before)", "if (after < before)",
     "refinement undone when it helps"),
    ("Q08", "src/qp/refine.cpp", "if (-e > v) v = std::fabs(e);", "if (e > v) v = std::fabs(e);",
     "violation: equality overshoot counted instead of shortfall"),
    ("Q09", "src/qp/factors.cpp", "if (d < -tol) return static_cast<int>(-L);",
     "if (d < tol) return static_cast<int>(-L);", "last pivot: singular tail called negative"),
    ("Q10", "src/qp/factors.cpp", "if (diagOf(T, ldt, K, c) > best) {",
     "if (diagOf(T, ldt, K, c) >= best) {", "pivoting tie goes to the later column"),
    ("Q11", "src/qp/steplength.cpp", "len * alpha > kInverseSqrtPrecision",
     "alpha > kInverseSqrtPrecision", "step length test without the scale of p"),
    ("Q12", "src/qp/driver.cpp", "multipliers[-idx - 1] = -lambda[k];",
     "multipliers[-idx - 1] = lambda[k];", "lower-bound multiplier sign"),
    ("Q13", "src/qp/direction.cpp", "double e = c * p[nz - 1];\n  if (e > 0.0) {",
     "double e = c * p[nz - 1];\n  if (e >= 0.0) {", "definite step: sign test (> to >=)"),
    ("Q14", "src/qp/optr03.cpp", "if (L.mult[j - 1] < L.minMult) {",
     "if (L.mult[j - 1] <= L.minMult) {", "most negative multiplier: tie goes to the later"),
    ("Q15", "src/qp/optr03.cpp", "for (int j = L.kcur + 1; j <= L.kact; ++j)",
     "for (int j = L.kcur + 1; j < L.kact; ++j)", "last active multiplier never considered"),
    ("Q16", "src/qp/optr01.cpp", "upper = p.CS[i] - x[i] <= x[i] - p.CI[i];",
     "upper = p.CS[i] - x[i] < x[i] - p.CI[i];", "start vertex: nearer-bound tie reversed"),
    ("Q17", "src/qp/optr01.cpp", "if (best > -kPrecision075) return -2;",
     "if (best > kPrecision075) return -2;", "start vertex: multiplier test sign"),
    ("Q18", "src/qp/driver.cpp", "kIterationLimit = 2500;", "kIterationLimit = 25;",
     "iteration limit 25 instead of 2500"),
    ("Q19", "src/qp/direction.cpp", "if (c * p[r - 1] < 0.0)", "if (c * p[r - 1] > 0.0)",
     "coupling-row direction: sign test reversed"),
    ("Q20", "src/qp/direction.cpp", "p[r - 1] = -b * b;", "p[r - 1] = b * b;",
     "coupling-row direction: pivot term sign"),
    # ---- alloc
    ("A01", "src/alloc/alloc_mv.cpp", "if (excess > kFeasibilityTol + r - benchReturn)",
     "if (excess > r - benchReturn)", "tracking excess test without its tolerance"),
    ("A02", "src/alloc/alloc_mv.cpp",
     "  if (status == kDriverNoFeasiblePoint) status = kStatusInconsistent;\n}\n\n// Minimum",
     "}\n\n// Minimum", "mean-variance: no feasible point not mapped to inconsistent"),
    ("A03", "src/alloc/alloc_internal.h", "kSharpeMargin = 100.0 * widened::k1em12;",
     "kSharpeMargin = 1e-10;", "Sharpe margin: widened 1e-12f times 100 replaced by 1e-10"),
    ("A04", "src/alloc/alloc_sharpe.cpp", "upperZ[n] = n * kHugeBound;", "upperZ[n] = kHugeBound;",
     "Sharpe scale bound not multiplied by n"),
    ("A05", "src/alloc/feasibility.cpp", "x[i] - kFeasibilityTol > upper[i]",
     "x[i] + kFeasibilityTol > upper[i]", "upper bound check tolerance sign"),
    ("A06", "src/alloc/result_check.cpp", "(s > kUnit ? s : kUnit)", "(s > kUnit ? kUnit : s)",
     "result check allowance: min instead of max"),
    ("A07", "src/alloc/alloc_inputs.cpp",
     "if (!(lower[i] < kInf) || !(upper[i] > -kInf)) return false;",
     "if (!(lower[i] < kInf)) return false;", "an upper bound of -inf accepted"),
    ("A08", "src/alloc/alloc_mv.cpp", "if (n > 1) {\n    feasibleStart",
     "if (n > 2) {\n    feasibleStart", "feasibility start skipped for two assets"),
    ("A09", "src/alloc/alloc_mv.cpp", "c[i] = -benchCov[i];", "c[i] = benchCov[i];",
     "tracking linear term sign"),
    ("A10", "src/alloc/alloc_mv.cpp", "if (!certified) matPositiveDefiniteCheck(",
     "if (certified) matPositiveDefiniteCheck(", "definiteness check run only when certified"),
    ("A11", "src/alloc/feasibility.cpp", "if (kFeasibilityTolLow > e || e > kFeasibilityTol) {",
     "if (e > kFeasibilityTol) {", "equality shortfall not checked"),
    ("A12", "src/alloc/alloc_sharpe.cpp", "if (std::fabs(tau) < kScaleFloor) {",
     "if (std::fabs(tau) < kFeasibilityTol) {", "Sharpe scale floor: wrong constant"),
    # ---- nearness
    ("N01", "src/nearness/sdls_corr.cpp", "if (!(s >= 0.0 && s <= kFloorMax)) {",
     "if (!(s >= 0.0 && s < kFloorMax)) {", "largest eigenvalue floor refused (<= to <)"),
    ("N02", "src/nearness/sdls_dual.cpp", "kStallResolution = widened::k1em15;",
     "kStallResolution = 1e-15;", "stall resolution: widened 1e-15f replaced by 1e-15"),
    ("N03", "src/nearness/sdls_dual.cpp", "decrease > kDecreaseFloor ? decrease : kDecreaseFloor",
     "decrease < kDecreaseFloor ? decrease : kDecreaseFloor", "expected decrease: min for max"),
    ("N04", "src/nearness/sdls_solve.cpp", "if (std::fabs(t - b[i]) > kCheckTolerance) {",
     "if (t - b[i] > kCheckTolerance) {", "equality check without the absolute value"),
    ("N05", "src/nearness/sdls_solve.cpp", "if (l[j] - kCheckTolerance > t",
     "if (l[j] + kCheckTolerance > t", "inequality check lower tolerance sign"),
    ("N06", "src/nearness/line_search.cpp", "if (c > 0.0) step = std::min(step,",
     "if (c < 0.0) step = std::min(step,", "cubic extrapolation test reversed"),
    ("N07", "src/nearness/factor_updates.cpp", "if (r1 <= kRecurrenceSwitch) {",
     "if (r1 < kRecurrenceSwitch) {", "rank-one update recurrence switch (<= to <)"),
    ("N08", "src/nearness/sdls_corr.cpp", "lower[i] = -kCorrBound;", "lower[i] = 0.0;",
     "correlation dual variables bounded below by 0"),
    ("N09", "src/nearness/sdls_solve.cpp", "  if (projection < 0) status = projection;\n", "",
     "failed projection status dropped (line deleted)"),
    ("N10", "src/nearness/sdls_dual.cpp", "iter = 2 * nv > kMinIterations ? 2 * nv : kMinIterations;",
     "iter = kMinIterations;", "iteration budget not grown with the size"),
    ("N11", "src/nearness/line_search.cpp", "if (tmax > tnew) {", "if (tmax < tnew) {",
     "extrapolation cut at tmax reversed"),
    ("N12", "src/nearness/minimiser.cpp", "x >= s.bsup[i] - dx && (!cold || g < 0.0)",
     "x >= s.bsup[i] - dx && (!cold || g > 0.0)", "upper bound activated on the wrong slope"),
    ("N13", "src/nearness/minimiser.cpp", "const double c = 0.5 * sum / s.df1;",
     "const double c = sum / s.df1;", "diagonal start without its half"),
    ("N14", "src/nearness/minimiser.cpp", "if (gdx <= s.epsabs * sqrtCount(s.nfree)) {",
     "if (gdx <= s.epsabs) {", "first stop test without the root of the free count"),
    ("N15", "src/nearness/minimiser.cpp", "    if (c <= tmax) {", "    if (c < tmax) {",
     "nearest bound tie to the first index"),
    ("N16", "src/nearness/minimiser.cpp", "if (s.iterations > s.iterMax) {",
     "if (s.iterations >= s.iterMax) {", "iteration limit one short"),
    ("N17", "src/nearness/minimiser.cpp", "s.dxmin[idx - 1] >= std::fabs(tmax * s.dir[idx - 1])",
     "s.dxmin[idx - 1] > std::fabs(tmax * s.dir[idx - 1])", "bound reached test strict"),
    ("N18", "src/nearness/minimiser.cpp", "if (s.active[i] == 0) sum += s.g[i] * s.g[i];",
     "if (s.active[i] != 0) sum += s.g[i] * s.g[i];", "free gradient norm over the active set"),
    ("N19", "src/nearness/minimiser.cpp", "const double factor = num / den / t;",
     "const double factor = num / den;", "Oren-Luenberger scale without the step"),
    ("N20", "src/nearness/minimiser.cpp", "else if (s.binf[i] + dx >= x && (!cold || g > 0.0))",
     "else if (s.binf[i] + dx >= x && (!cold || g < 0.0))", "lower bound activated on the wrong slope"),
    # ---- simul
    ("M01", "src/simul/geometric_brownian.cpp", "    if (status > 0) matFill(n, n, L, kZero);\n",
     "", "Cholesky factor not cleared after a failed DPOTRF (line deleted)"),
    ("M02", "src/simul/geometric_brownian.cpp",
     "static_cast<double>(horizon) / static_cast<double>(steps);",
     "static_cast<double>(horizon) / static_cast<double>(steps - 1);", "dt = horizon / (steps - 1)"),
    ("M03", "src/simul/random.cpp", "if (z < 1) z += kCombineShift;",
     "if (z < 0) z += kCombineShift;", "combined generator: z = 0 not wrapped"),
    ("M04", "src/simul/random.cpp", "else if (b - top2 > top2) r2 = b + kFold2;",
     "else if (b - top2 >= top2) r2 = b + kFold2;", "second seed fold test (> to >=)"),
    ("M05", "src/simul/random.cpp", "kTwoPi = 6.283185307;", "kTwoPi = 6.283185307179586;",
     "2 pi: the short constant replaced by the double"),
    ("M06", "src/simul/random.cpp", "static_cast<std::uint32_t>(ms - kClockCentre);",
     "static_cast<std::uint32_t>(ms + kClockCentre);", "reseed factor sign"),
    ("M07", "src/simul/geometric_brownian.cpp", "vecAddScaled(n, stepDrift, w, rootdt, y);",
     "vecAddScaled(n, w, stepDrift, rootdt, y);", "shock: drift and noise swapped"),
    ("M08", "src/simul/geometric_brownian.cpp", "(y[j] + kOne) * paths", "(y[j] - kOne) * paths",
     "price move sign"),
    ("M09", "src/simul/geometric_brownian.cpp", "if (horizon < 0) {", "if (horizon <= 0) {",
     "zero horizon refused"),
    ("M10", "src/simul/random.cpp", "std::sqrt(0.0 - (logU1 + logU1))",
     "std::sqrt(0.0 - logU1)", "Box-Muller radius without the factor 2"),
    # ---- api
    ("P01", "src/api/exports_alloc.cpp",
     "  else if (upper == nullptr) failed = pos.upper;\n  else if (lower == nullptr) failed = pos.lower;",
     "  else if (lower == nullptr) failed = pos.lower;\n  else if (upper == nullptr) failed = pos.upper;",
     "allocators: null tests of upper and lower swapped"),
    ("P02", "src/api/exports_analysis.cpp", "else if (*nObs < 4) failure = kArgBase + 1;",
     "else if (*nObs < 3) failure = kArgBase + 1;", "modified VaR: nObs < 4 relaxed to < 3"),
    ("P03", "src/api/frame.h", "  clearDoubles(call.out, call.outCount);\n  *call.status = 0;",
     "  *call.status = 0;", "result not cleared before the argument tests"),
    ("P04", "src/api/frame.cpp", "for (i64 i0 = 0; i0 <= j0; i0 += kTile)",
     "for (i64 i0 = 0; i0 < j0; i0 += kTile)", "square transpose skips the diagonal tiles"),
    ("P05", "src/api/frame.cpp", "if (next < start) continue;", "if (next <= start) continue;",
     "cycle transpose skips every cycle"),
    ("P06", "src/api/exports_alloc.cpp", "if (!(lower[i] <= upper[i])) return kArgBase + pos.lower;",
     "if (lower[i] > upper[i]) return kArgBase + pos.lower;", "a NaN bound passes the bound scan"),
    ("P07", "src/api/exports_alloc.cpp", "kITArgs{1, 2, 3, 4, 6, 7, 8, 9, 10, 11};",
     "kITArgs{1, 2, 3, 4, 6, 7, 8, 9, 11, 10};", "tracking allocator: lower and upper positions swapped"),
    ("P08", "src/api/exports_modeling.cpp", "if (lag <= 0 || lag >= nObs) failure",
     "if (lag <= 0 || lag > nObs) failure", "returns: lag = nObs accepted"),
    ("P09", "src/api/exports_modeling.cpp", "*eigenFloor >= 0.0 && *eigenFloor < 1.0",
     "*eigenFloor >= 0.0 && *eigenFloor <= 1.0", "correlation: eigenvalue floor 1 accepted"),
    ("P10", "src/api/frame.cpp", "if (*call.status >= 0) *call.status = call.notFinite;",
     "if (*call.status > 0) *call.status = call.notFinite;", "non-finite result keeps status 0"),
    ("P11", "src/api/frame.cpp", "if (status > 0) return kReturnWarning;",
     "if (status > 0) return kReturnOk;", "warning status returned as success"),
    ("P12", "src/api/frame.cpp", "double* tmp = spareCount >= count ? spare : nullptr;",
     "double* tmp = spareCount > count ? spare : nullptr;", "spare work exactly the size refused"),
    ("P13", "src/api/frame.cpp", "if (status < 0) return kReturnFailure;",
     "if (status < -2) return kReturnFailure;", "statuses -1 and -2 returned as success"),
    ("P14", "src/api/exports_analysis.cpp", "!(points[i - 1] <= points[i])",
     "!(points[i - 1] < points[i])", "kernel density: equal points refused"),
]
MUTANTS = [dict(zip(("id", "file", "find", "replace", "description"), m)) for m in LIST]
FAILED_LINE = re.compile(r"^\s*\d+\s+-\s+(\S+)\s+\(([^()]*)\)\s*$")


def on_term(signum, frame):
    raise KeyboardInterrupt(f"signal {signum}")


def check_list():
    """Every find text occurs exactly once in its file; the ids are unique."""
    errors = [f"{i}: duplicate id" for i in {m["id"] for m in MUTANTS}
              if sum(m["id"] == i for m in MUTANTS) > 1]
    for m in MUTANTS:
        path = ROOT / m["file"]
        count = path.read_text().count(m["find"]) if path.is_file() else 0
        if count != 1 or m["find"] == m["replace"]:
            errors.append(f"{m['id']}: find text occurs {count} times in {m['file']}")
    return errors


def folder(m):
    return m["file"].split("/")[1]


def git_clean(paths):
    return subprocess.run(["git", "-C", str(ROOT), "diff", "--quiet", "--", *paths]).returncode == 0


def run(cmd, env=None):
    """Runs cmd; returns (exit status, combined output, seconds)."""
    start = time.monotonic()
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                       env=env, errors="replace")
    return p.returncode, p.stdout, time.monotonic() - start


def build(args):
    return run(["cmake", "--build", args.build, "-j", str(args.jobs)])


def ctest(args, env):
    """Runs the suite; returns (failed tests {name: reason}, seconds)."""
    cmd = ["ctest", "--test-dir", args.build, "-j", str(args.jobs), "--no-tests=error",
           "--timeout", str(args.timeout)] + (["-E", args.exclude] if args.exclude else [])
    rc, out, secs = run(cmd, env)
    # The names after "The following tests FAILED:" (not the skipped ones listed before it).
    tail = out.split("The following tests FAILED:", 1)[1] if "tests FAILED:" in out else ""
    failed = dict(m.groups() for m in map(FAILED_LINE.match, tail.splitlines()) if m)
    if rc != 0 and not failed:
        # ctest failed without naming a test: count it against a pseudo-test
        # so that the mutant is not called a survivor.
        failed["<ctest>"] = f"exit {rc}"
    return failed, secs


def group_of(test):
    """Group of a test for the report: prefix.Suite for GoogleTest cases
    (qp.QpDriver.Kkt -> qp.QpDriver), the whole name otherwise."""
    parts = test.split(".")
    if len(parts) >= 3 and parts[0] not in ("python", "reference", "fuzz"):
        return ".".join(parts[:2])
    return test


def summarise(results):
    """Score, survivors, the groups that kill each mutant and the kills that
    only one group makes."""
    killed = [r for r in results if r["outcome"] == "killed"]
    counted = [r for r in results if r["outcome"] in ("killed", "survived")]
    unique = defaultdict(list)
    for r in killed:
        groups = {group_of(t) for t in r["killed_by"]}
        if len(groups) == 1:
            unique[groups.pop()].append(r["id"])
    folders = defaultdict(lambda: [0, 0])
    for r in counted:
        folders[r["folder"]][0] += r["outcome"] == "killed"
        folders[r["folder"]][1] += 1
    return {"score": f"{len(killed)}/{len(counted)}",
            "compiler": [r["id"] for r in results if r["outcome"] == "compiler"],
            "survived": [r["id"] for r in results if r["outcome"] == "survived"],
            "per_folder": {k: f"{a}/{b}" for k, (a, b) in sorted(folders.items())},
            "unique_kills_per_group": dict(sorted(unique.items()))}


def print_summary(s, results):
    print("\n== mutants")
    for r in results:
        by = ", ".join(sorted({group_of(t) for t in r["killed_by"]}))
        print(f"{r['id']:5s} {r['outcome']:9s} {r['file']}: {r['description']}"
              + (f"  [{by}]" if by else ""))
    k, n = (int(x) for x in s["score"].split("/"))
    print("\n== score")
    print(f"killed {s['score']}" + (f" = {100.0 * k / n:.1f}%" if n else "")
          + f"; refused by the compiler (left out): {', '.join(s['compiler']) or 'none'}")
    print("per folder (killed/run): " + ", ".join(f"{a} {b}" for a, b in s["per_folder"].items()))
    print("survivors: " + (", ".join(s["survived"]) or "none"))
    for g, ids in s["unique_kills_per_group"].items():
        print(f"only {g} kills: {', '.join(ids)}")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=str(ROOT / "build-mutation"), help="configured build tree")
    ap.add_argument("--only", action="append", default=[], metavar="ID", help="this mutant only (repeatable)")
    ap.add_argument("--list", action="store_true", help="check and print the list, run nothing")
    ap.add_argument("--jobs", type=int, default=2, help="parallel build and ctest jobs")
    ap.add_argument("--timeout", type=int, default=300, help="seconds per test")
    ap.add_argument("--exclude", default="", help="ctest -E regex of tests not to run")
    ap.add_argument("--json", default="", help="write the results here (after every mutant)")
    ap.add_argument("--skip-baseline", action="store_true", help="do not run the unmutated suite first")
    args = ap.parse_args()

    errors = check_list()
    if errors:
        print("the mutant list does not fit the sources:", *errors, sep="\n  ")
        return 2
    if args.list:
        for m in MUTANTS:
            print(f"{m['id']:5s} {m['file']}: {m['description']}")
        return 0
    selected = [m for m in MUTANTS if not args.only or m["id"] in args.only]
    if len(selected) != len(set(args.only) or MUTANTS):
        print("unknown id in --only")
        return 2
    # Round robin over the folders, so that a run cut short still covers all.
    rank = defaultdict(int)
    for m in selected:
        m["rank"] = rank[folder(m)]
        rank[folder(m)] += 1
    selected.sort(key=lambda m: (m["rank"], m["id"]))
    if not git_clean(["src"]):
        print("src/ has uncommitted changes: the mutants need the committed sources")
        return 2
    if build(args)[0] != 0:
        print(f"{args.build} does not build unmutated (configured? see README.md)")
        return 2

    env = dict(os.environ, OPENBLAS_NUM_THREADS="1")
    signal.signal(signal.SIGTERM, on_term)
    results, baseline = [], set()
    if not args.skip_baseline:
        failed, secs = ctest(args, env)
        baseline = set(failed)
        print(f"baseline: {len(failed)} failing ({', '.join(sorted(failed))}), {secs:.0f}s", flush=True)
    start_all = time.monotonic()
    dirty = []
    try:
        for i, m in enumerate(selected, 1):
            path = ROOT / m["file"]
            original = path.read_bytes()
            r = {"id": m["id"], "folder": folder(m), "file": m["file"],
                 "description": m["description"], "outcome": "compiler", "killed_by": []}
            try:
                path.write_text(original.decode().replace(m["find"], m["replace"], 1))
                if build(args)[0] == 0:
                    failed, secs = ctest(args, env)
                    r["killed_by"] = sorted(t for t in failed if t not in baseline)
                    r["outcome"] = "killed" if r["killed_by"] else "survived"
            finally:
                path.write_bytes(original)
            results.append(r)
            if args.json:
                Path(args.json).write_text(json.dumps({"mutants": results}, indent=1) + "\n")
            print(f"[{i}/{len(selected)}] {m['id']} {r['outcome']} {len(r['killed_by'])} failing", flush=True)
    except KeyboardInterrupt as e:
        print(f"\nstopped ({e or 'interrupt'}); sources restored")
    finally:
        dirty = [f for f in {m["file"] for m in selected} if not git_clean([f])]
        if dirty:
            print("ERROR: not restored: " + ", ".join(sorted(dirty)))
    build(args)  # leave the build tree matching the sources again
    summary = summarise(results)
    if args.json:
        Path(args.json).write_text(json.dumps({"mutants": results, "summary": summary}, indent=1) + "\n")
    print_summary(summary, results)
    print(f"mutant runs took {time.monotonic() - start_all:.0f}s")
    return 1 if dirty else 0


if __name__ == "__main__":
    sys.exit(main())
