# SPDX-License-Identifier: Apache-2.0
"""Risk statistics through the shared library against independent
references: scipy's normal quantile, numpy's standard deviation, a
Cornish-Fisher evaluation from the portfolio series, scipy's gaussian_kde."""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import numpy as np  # noqa: E402
from scipy.special import ndtri  # noqa: E402
from scipy.stats import gaussian_kde  # noqa: E402

from lumbra_ctypes import arr, call, f64, i32, matrix, report  # noqa: E402

results = []


def check(ok, what):
    results.append(bool(ok))
    if not ok:
        print("FAIL:", what)


def quantile(level):
    """scipy's point for the lower-tail area min(level, 1 - level) as a double."""
    return ndtri(level) if level <= 1.0 - level else -ndtri(1.0 - level)


# Normal VaR of a unit asset is -z(level).  Tolerance 1e-15 relative plus
# 1e-16 near the median; just beyond the engine's limits 5, -102, result 0.
for level in [1e-9, 1e-8, 1e-7, 1e-5, 0.001, 0.01, 0.025, 0.05, 0.1, 0.25, 0.4, 0.5, 0.6,
              0.75, 0.9, 0.95, 0.975, 0.99, 0.999, 0.99999, 0.99999999, 0.999999999]:
    res = np.zeros(1)
    code, status = call("ORXanalysisExanteNormalVaR", i32(1), arr(matrix([[1.0]])),
                        arr(matrix([0.0])), arr(matrix([1.0])), f64(level), arr(res))
    if level in (1e-9, 0.999999999):
        check(code == 5 and status == -102 and res[0] == 0.0, f"level {level} outside limits")
    else:
        z = quantile(level)
        check(code == 0 and status == 0 and abs(-res[0] - z) <= 1e-15 * abs(z) + 1e-16,
              f"level {level}: code {code} status {status}, {-res[0]!r} vs scipy {z!r}")

rng = np.random.default_rng(20261123)

# Ex-post volatility against numpy (ddof = 1): 1e-13 relative for the
# one-pass formula on well-scaled data.
x, res = rng.normal(0.001, 0.02, 500), np.zeros(1)
code, status = call("ORXanalysisExpostVolatility", i32(len(x)), arr(x), arr(res))
check(code == 0 and abs(res[0] - x.std(ddof=1)) <= 1e-13 * x.std(ddof=1), "ex-post volatility")


# Cornish-Fisher VaR from the portfolio series: sample variance with the
# single-precision 1/(T-1), skewness and kurtosis normalised by the given V
# (not the sample covariance), single-precision factors and fractions.
def modified_var(R, V, w, level):
    T, f, one = R.shape[0], np.float32(R.shape[0]), np.float32(1)
    c = R @ w - (R @ w).mean()
    variance = (c @ c) * float(one / np.float32(T - 1))
    vv = w @ V @ w
    S = np.mean(c ** 3) / vv ** 1.5
    a = float(np.float32(np.float32(T * (T - 2)) + np.float32(3)) * f
              / ((f - np.float32(2)) * (f - one) * (f - np.float32(3))))
    b = float((f - one) * np.float32(3) * (np.float32(2 * T) - np.float32(3))
              / (np.float32(T * (T - 2)) * (f - np.float32(3))))
    K = a * np.mean(c ** 4) / vv ** 2 - 3.0 - b
    z = quantile(level)
    c6, c24, c36 = (float(one / np.float32(k)) for k in (6, 24, 36))
    return (R @ w).mean() + np.sqrt(variance) * (
        -z + (z * z - 1) * S * c6 - (z ** 3 - 3 * z) * K * c24 + (2 * z ** 3 - 5 * z) * S * S * c36)


# Heavy-tailed histories from the minimum T = 4 up; 1e-12 relative covers
# the different summation orders.  The returns come back row-major.
for T, n in [(4, 1), (13, 3), (30, 2), (60, 5)]:
    R = matrix(rng.standard_t(4, size=(T, n)) * 0.01 + 0.0005)
    V = matrix(np.cov(R.T) * 1.3 + np.eye(n) * 1e-5) if n > 1 else matrix([[1.5e-4]])
    w = matrix(rng.uniform(-0.3, 1.0, n))
    for level in [0.01, 0.05, 0.5, 0.95, 0.99]:
        ref = modified_var(R, V, w, level)
        Rc, out = R.copy(), np.zeros(1)
        code, status = call("ORXanalysisExanteModifiedVaR", i32(T), i32(n), arr(w), arr(Rc),
                            arr(V.copy()), f64(level), arr(out))
        check(code == 0 and status == 0 and abs(out[0] - ref) <= 1e-12 * abs(ref)
              and np.array_equal(Rc, R),
              f"modified VaR T {T} n {n} level {level}: code {code}, {out[0]!r} vs {ref!r}")

# Kernel density against gaussian_kde with the same bandwidth: the kernel
# constant 0.3989422748506426 is 1.4e-8 relative off 1/sqrt(2 pi), so 1e-7.
data, points = rng.normal(0.0, 0.015, 400), np.linspace(-0.05, 0.05, 41)
ref = gaussian_kde(data, bw_method=float(np.float32(1.059))
                   / float(np.float32(len(data)) ** np.float32(0.2)))(points)
out = np.zeros(len(points))
code, status = call("ORXanalysisGaussianKernel", i32(len(data)), i32(len(points)), arr(data),
                    arr(points), arr(out))
check(code == 0 and status == 0 and np.all(np.abs(out - ref) <= 1e-7 * ref),
      f"kernel density vs scipy: code {code}, max rel {np.max(np.abs(out - ref) / ref):.2e}")

report(results.count(False), len(results))
