"""Risk statistics through the shared library against independent
references: scipy's normal quantile, numpy's standard deviation, an
independent Cornish-Fisher evaluation from the portfolio series, and
scipy's gaussian_kde."""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import numpy as np  # noqa: E402
from scipy.special import ndtri  # noqa: E402
from scipy.stats import gaussian_kde  # noqa: E402

from lumbra_ctypes import arr, call, f64, i32, matrix, report  # noqa: E402

failures = 0
total = 0


def check(ok, what):
    global failures, total
    total += 1
    if not ok:
        failures += 1
        print("FAIL:", what)


def normal_var(level):
    """-z(level) through the normal VaR of one unit asset with unit variance."""
    cov, mu, w = matrix([[1.0]]), matrix([0.0]), matrix([1.0])
    res = np.zeros(1)
    code, status = call("ORXanalysisExanteNormalVaR", i32(1), arr(cov), arr(mu), arr(w),
                        f64(level), arr(res))
    return code, status, res[0]


# Quantile: the iteration runs on the lower-tail area min(level, 1 - level)
# as a double, so that is the area handed to scipy.  Tolerance 1e-15
# relative (plus 1e-16 absolute near the median).
for level in [1e-8, 1e-7, 1e-5, 0.001, 0.01, 0.025, 0.05, 0.1, 0.25, 0.4, 0.5, 0.6, 0.75,
              0.9, 0.95, 0.975, 0.99, 0.999, 0.99999, 0.99999999]:
    code, status, r = normal_var(level)
    area = level if level <= 1.0 - level else 1.0 - level
    z = ndtri(area) if level <= 1.0 - level else -ndtri(area)
    check(code == 0 and status == 0, f"level {level}: code {code} status {status}")
    check(abs(-r - z) <= 1e-15 * abs(z) + 1e-16, f"level {level}: {-r!r} vs scipy {z!r}")

for level in [1e-9, 0.999999999]:
    code, status, r = normal_var(level)
    check(code == 5 and status == -102 and r == 0.0, f"level {level} outside the limits")

rng = np.random.default_rng(20261123)

# Ex-post volatility against numpy (ddof = 1); tolerance 1e-13 relative
# for the one-pass formula on well-scaled data.
x = rng.normal(0.001, 0.02, 500)
res = np.zeros(1)
code, status = call("ORXanalysisExpostVolatility", i32(len(x)), arr(x), arr(res))
check(code == 0 and abs(res[0] - x.std(ddof=1)) <= 1e-13 * x.std(ddof=1), "ex-post volatility")


# Cornish-Fisher value at risk from the portfolio series: mean, sample
# variance with the single-precision 1/(T-1), skewness and kurtosis
# normalised by the given V, single-precision small-sample factors and
# expansion fractions.  Tolerance 1e-12 relative (summation orders differ).
def modified_var(R, V, w, level):
    T = R.shape[0]
    p = R @ w
    mean = p.mean()
    c = p - mean
    variance = (c @ c) * float(np.float32(1.0) / np.float32(T - 1))
    vv = w @ V @ w
    S = np.mean(c ** 3) / vv ** 1.5
    f = np.float32(T)
    a = float(np.float32(np.float32(T * (T - 2)) + np.float32(3.0)) * f
              / ((f - np.float32(2)) * (f - np.float32(1)) * (f - np.float32(3))))
    b = float((f - np.float32(1)) * np.float32(3) * (np.float32(2 * T) - np.float32(3))
              / (np.float32(T * (T - 2)) * (f - np.float32(3))))
    K = a * np.mean(c ** 4) / vv ** 2 - 3.0 - b
    z = ndtri(level) if level <= 1.0 - level else -ndtri(1.0 - level)
    c6, c24, c36 = (float(np.float32(1) / np.float32(k)) for k in (6, 24, 36))
    return mean + np.sqrt(variance) * (-z + (z * z - 1) * S * c6 - (z ** 3 - 3 * z) * K * c24
                                       + (2 * z ** 3 - 5 * z) * S * S * c36)


for T, n in [(4, 1), (30, 2), (60, 5)]:
    R = matrix(rng.standard_t(4, size=(T, n)) * 0.01 + 0.0005)
    V = matrix(np.cov(R.T) * 1.3 + np.eye(n) * 1e-5) if n > 1 else matrix([[1.5e-4]])
    w = matrix(rng.uniform(0.1, 1.0, n))
    for level in [0.01, 0.05, 0.95, 0.99]:
        ref = modified_var(R, V, w, level)
        Rc, Vc, out = R.copy(), V.copy(), np.zeros(1)
        code, status = call("ORXanalysisExanteModifiedVaR", i32(T), i32(n), arr(w), arr(Rc),
                            arr(Vc), f64(level), arr(out))
        check(code == 0 and status == 0, f"modified VaR T {T} n {n}: code {code}")
        check(abs(out[0] - ref) <= 1e-12 * abs(ref),
              f"modified VaR T {T} n {n} level {level}: {out[0]!r} vs {ref!r}")
        check(np.array_equal(Rc, R), "returns restored to row-major")

# Kernel density against scipy's gaussian_kde with the same bandwidth: the
# kernel constant 0.3989422748506426 differs from 1/sqrt(2 pi) by 1.4e-8
# relative, hence 1e-7 relative.
data = rng.normal(0.0, 0.015, 400)
points = np.linspace(-0.05, 0.05, 41)
bw = float(np.float32(1.059)) / float(np.float32(len(data)) ** np.float32(0.2))
ref = gaussian_kde(data, bw_method=bw)(points)
out = np.zeros(len(points))
code, status = call("ORXanalysisGaussianKernel", i32(len(data)), i32(len(points)), arr(data),
                    arr(points), arr(out))
check(code == 0 and status == 0, "kernel density status")
check(np.all(np.abs(out - ref) <= 1e-7 * ref), f"kernel density vs scipy: "
      f"max rel {np.max(np.abs(out - ref) / ref):.2e}")

report(failures, total)
