# SPDX-License-Identifier: Apache-2.0
"""Risk statistics through the exports against scipy, numpy and Cornish-Fisher."""
import math
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import numpy as np  # noqa: E402
from scipy.special import ndtri  # noqa: E402
from scipy.stats import gaussian_kde  # noqa: E402

from lumbra_ctypes import arr, call, check, f64, finish, i32, matrix  # noqa: E402

f32 = np.float32


def quantile(level):
    """scipy's point for the lower-tail area min(level, 1 - level)."""
    return ndtri(level) if level <= 1.0 - level else -ndtri(1.0 - level)


# Normal VaR of a unit asset is -z(level): 1e-15 relative plus 1e-16 near the
# median; just beyond the engine's limits 5, -102, result 0.
res, one = np.zeros(1), matrix([1.0])
for level in [1e-9, 1e-8, 1e-5, 0.01, 0.05, 0.25, 0.5, 0.6, 0.9, 0.99, 0.99999999, 0.999999999]:
    z, code, status = quantile(level), *call("ORXanalysisExanteNormalVaR", i32(1), arr(one),
                                             arr(np.zeros(1)), arr(one), f64(level), arr(res))
    check((code, status, res[0]) == (5, -102, 0.0) if level in (1e-9, 0.999999999) else
          code == status == 0 and abs(-res[0] - z) <= 1e-15 * abs(z) + 1e-16,
          f"normal VaR at {level}: code {code} status {status}, {-res[0]!r} vs {z!r}")

rng = np.random.default_rng(20261123)

# Covariance (single-precision scale 1/(T-1)) and correlation against numpy, 1e-13
# relative to the largest entry, across the tiles; a constant asset warns (6, 5).
for T, n in [(2, 1), (40, 9), (130, 70)]:
    X = matrix(rng.uniform(-0.01, 0.01, (T, n)))
    cov, corr, D = np.zeros((n, n)), np.zeros((n, n)), X - X.mean(axis=0)
    c1, s1 = call("ORXmodelingCov", i32(T), i32(n), arr(X.copy()), arr(cov))
    c2, s2 = call("ORXmodelingCorr", i32(T), i32(n), arr(X.copy()), arr(corr))
    ref = (D.T @ D) * float(f32(1) / f32(T - 1))
    check(c1 == s1 == c2 == s2 == 0 and np.abs(cov - ref).max() <= 1e-13 * np.abs(ref).max()
          and np.abs(corr - np.corrcoef(X.T)).max() <= 1e-13 and np.array_equal(corr, corr.T),
          f"covariance / correlation {T} x {n}")
X[:, 3] = 0.5
code, status = call("ORXmodelingCorr", i32(T), i32(n), arr(X), arr(corr))
check((code, status) == (6, 5) and not np.delete(corr[3], 3).any() and corr[3, 3] == 1.0,
      f"constant asset: code {code} status {status}")

# Ex-post volatility against numpy (ddof = 1), 1e-13 for the one-pass formula; a
# constant series' variance has either sign: negative floored to 0, positive kept.
x = rng.normal(0.001, 0.02, 500)
for x, want in [(x, x.std(ddof=1)), (np.full(5, 0.7), 0.0),
                (np.full(5, 0.1), math.sqrt(1.734723475976807e-18))]:
    code, status = call("ORXanalysisExpostVolatility", i32(len(x)), arr(x), arr(res))
    check(code == status == 0 and abs(res[0] - want) <= 1e-13 * want, f"ex-post {x[0]}: {res[0]!r}")

# Floors 1e-30 (simple) and single-precision 1e-15 = 1.0000000036e-15 (log: stops
# at 1.000000002e-15, return 5, status -103, the values before the stop kept).
for name, want in [("ORXmodelingReturns", (0, 0)), ("ORXmodelingLogReturns", (5, -103))]:
    out = np.full(2, -1.0)
    got = call(name, i32(3), i32(1), arr(matrix([1.0, 1.000000002e-15, 2.0])), i32(1), arr(out))
    check(got == want and (want[0] == 0 or list(out) == [math.log(1.000000002e-15), 0.0]),
          f"{name} with a tiny price: {got}, {out}")


def modified_var(R, V, w, level):
    """Cornish-Fisher VaR, moments normalised by V, single-precision factors."""
    T, f, one, p, vv = R.shape[0], f32(R.shape[0]), f32(1), R @ w, w @ V @ w
    c = p - p.mean()
    S = np.mean(c ** 3) / vv ** 1.5
    a = float((f32(T * (T - 2)) + f32(3)) * f / ((f - f32(2)) * (f - one) * (f - f32(3))))
    b = float((f - one) * f32(3) * (f32(2 * T) - f32(3)) / (f32(T * (T - 2)) * (f - f32(3))))
    K = a * np.mean(c ** 4) / vv ** 2 - 3.0 - b
    z, (c6, c24, c36) = quantile(level), (float(one / f32(k)) for k in (6, 24, 36))
    return p.mean() + np.sqrt((c @ c) * float(one / f32(T - 1))) * (
        -z + (z * z - 1) * S * c6 - (z ** 3 - 3 * z) * K * c24 + (2 * z ** 3 - 5 * z) * S * S * c36)


# Heavy tails, T = 4 to 400 (single-precision factors matter), 1e-12 relative.
for T, n in [(4, 1), (13, 3), (60, 5), (400, 3)]:
    R = matrix(rng.standard_t(4, size=(T, n)) * 0.01 + 0.0005)
    V = matrix(np.cov(R.T) * 1.3 + np.eye(n) * 1e-5) if n > 1 else matrix([[1.5e-4]])
    w = matrix(rng.uniform(-0.3, 1.0, n))
    for level in [0.01, 0.5, 0.95, 0.99]:
        ref, Rc, out = modified_var(R, V, w, level), R.copy(), np.zeros(1)
        code, status = call("ORXanalysisExanteModifiedVaR", i32(T), i32(n), arr(w), arr(Rc),
                            arr(V.copy()), f64(level), arr(out))
        check(code == status == 0 and abs(out[0] - ref) <= 1e-12 * abs(ref) and
              np.array_equal(Rc, R), f"modified VaR T {T} n {n} at {level}: {out[0]!r}, {ref!r}")

# Kernel density against gaussian_kde with the same bandwidth: the kernel
# constant 0.3989422748506426 is 1.4e-8 relative off 1/sqrt(2 pi), so 1e-7.
data, points, out = rng.normal(0.0, 0.015, 400), np.linspace(-0.05, 0.05, 41), np.zeros(41)
ref = gaussian_kde(data, bw_method=float(f32(1.059)) / float(f32(400) ** f32(0.2)))(points)
code, status = call("ORXanalysisGaussianKernel", i32(400), i32(41), arr(data), arr(points),
                    arr(out))
check(code == status == 0 and np.all(np.abs(out - ref) <= 1e-7 * ref), "kernel density vs scipy")

finish()
