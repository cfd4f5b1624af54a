#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Return series, covariance and correlation through the shared library
against numpy on random tables.

Tolerances: numpy sums in its own order (pairwise, BLAS) and divides by
T - 1 in double, while the library scales by the single-precision 1/(T-1);
so the covariance is compared with numpy's rescaled by that exact factor, to
1e-13 relative to the largest variance (rounding of two summation orders on
a few hundred terms).  Correlations, where the scale cancels, to 1e-13."""
import ctypes

import numpy as np

from lumbra_ctypes import arr, call, i32, matrix, check, finish

rng = np.random.default_rng(20261123)
for T, n in [(2, 1), (4, 3), (60, 5), (251, 12), (500, 40)]:
    prices = matrix(100.0 * np.exp(np.cumsum(rng.normal(0, 0.01, (T + 1, n)), axis=0)))
    before = prices.copy()
    for name, expected in [
        ("ORXmodelingReturns", (prices[1:] - prices[:-1]) / prices[:-1]),
        ("ORXmodelingLogReturns", np.log(prices[1:] / prices[:-1])),
    ]:
        out = np.zeros((T, n))
        code, status = call(name, i32(T + 1), i32(n), arr(prices), i32(1), arr(out))
        check(code == 0 and status == 0, f"{name} {T}x{n}: {code} {status}")
        check(np.array_equal(prices, before), f"{name} changed prices")
        if name == "ORXmodelingReturns":  # IEEE operations: the same bits
            check(np.array_equal(out, expected), f"{name} {T}x{n} values differ")
        else:  # numpy's vectorised log is within an ulp or two of the C library's
            check(np.allclose(out, expected, rtol=1e-15, atol=0), f"{name} {T}x{n} values")

    if T < 2:
        continue
    x = matrix(rng.normal(0.001, 0.02, (T, n)))
    before = x.copy()
    cov = np.zeros((n, n))
    code, status = call("ORXmodelingCov", i32(T), i32(n), arr(x), arr(cov))
    check(code == 0 and status == 0, f"cov {T}x{n}: {code} {status}")
    scale = float(np.float32(1.0) / np.float32(T - 1))
    ref = np.cov(x, rowvar=False).reshape(n, n) * (T - 1) * scale
    err = np.max(np.abs(cov - ref)) / np.max(np.diag(ref))
    check(err < 1e-13, f"cov {T}x{n} relative error {err:.3g}")
    check(np.array_equal(x, before), "cov changed returns")
    corr = np.zeros((n, n))
    code, status = call("ORXmodelingCorr", i32(T), i32(n), arr(x), arr(corr))
    check(code == 0 and status == 0, f"corr {T}x{n}: {code} {status}")
    check(np.array_equal(corr, corr.T), "corr not exactly symmetric")
    check(np.max(np.abs(corr - np.corrcoef(x, rowvar=False))) < 1e-13, f"corr {T}x{n}")

finish()
