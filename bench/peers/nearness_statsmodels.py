#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Peer of bench_nearness: the nearest correlation matrix by
ORXmodelingSDLScorr (through ctypes, LUMBRA_LIBRARY) and by statsmodels'
corr_nearest (alternating projections), on the same targets, in the same
process, on the same BLAS/LAPACK; run with OPENBLAS_NUM_THREADS=1.  Times
are CPU times of the process (one thread), which a loaded machine disturbs
less than wall-clock times.

Equal accuracy: statsmodels returns a unit diagonal and stops when the
smallest eigenvalue reaches its threshold, so its error is in the
eigenvalues; ours is in the diagonal.  We search the smallest iteration
budget (n_fact = budget / n) for which statsmodels' smallest eigenvalue
misses 0 by no more than our largest diagonal error and its distance to the
target is no larger than ours (1 + 1e-8); both are timed at that point, and
statsmodels once more at its default budget (n_fact = 100).

Usage: nearness_statsmodels.py [--dump DIR] [--sizes 100,300,500] [--default-upto N] [--max-budget B]
  --dump DIR writes each target as DIR/{hard,mild}_N.bin (raw float64,
  row-major) for bench_nearness to read."""
import argparse
import ctypes
import os
import time
import warnings

import numpy as np
from statsmodels.stats.correlation_tools import corr_nearest

LIB = ctypes.CDLL(os.environ.get("LUMBRA_LIBRARY", "liborx-lumbra-c-4.1.so"))
P = ctypes.POINTER(ctypes.c_double)


def hard_target(n, rng):
    """Unit diagonal, off-diagonal entries uniform in [-1, 1]: about half
    the eigenvalues negative."""
    U = np.triu(rng.uniform(-1, 1, (n, n)), 1)
    return U + U.T + np.eye(n)


def mild_target(n, rng):
    """Sample correlation of 2n observations from five factors, with 1% of
    the pairs overridden by hand to +-0.9."""
    F = rng.normal(size=(2 * n, 5))
    R = F @ rng.normal(size=(5, n)) * 0.5 + rng.normal(size=(2 * n, n))
    C = np.corrcoef(R, rowvar=False)
    pairs = rng.choice(n * (n - 1) // 2, size=max(3, n * (n - 1) // 200), replace=False)
    iu = np.triu_indices(n, 1)
    for k in pairs:
        i, j = iu[0][k], iu[1][k]
        C[i, j] = C[j, i] = rng.choice([-0.9, 0.9])
    return C


def ours(C, tol):
    n = C.shape[0]
    target = np.ascontiguousarray(C)
    out = np.zeros((n, n))
    status = ctypes.c_int(0)
    t0 = time.process_time()
    code = LIB.ORXmodelingSDLScorr(ctypes.byref(ctypes.c_int(n)), target.ctypes.data_as(P),
                                   ctypes.byref(ctypes.c_double(tol)),
                                   ctypes.byref(ctypes.c_double(0.0)), out.ctypes.data_as(P),
                                   ctypes.byref(status))
    elapsed = time.process_time() - t0
    assert code == 0, (code, status.value)
    return out, elapsed


def theirs(C, budget):
    n = C.shape[0]
    t0 = time.process_time()
    X = corr_nearest(C, threshold=1e-15, n_fact=budget / n)
    return X, time.process_time() - t0


def measures(X, C):
    return (np.linalg.norm(X - C), np.max(np.abs(np.diag(X) - 1)), np.linalg.eigvalsh(X)[0])


def equal_accuracy(C, dist, diag_err, max_budget):
    """Smallest budget reaching our accuracy, by doubling and bisection."""
    def good(b):
        X, _ = theirs(C, b)
        d, _, lam = measures(X, C)
        return -lam <= diag_err and d <= dist * (1 + 1e-8)
    lo, hi = 0, 1
    while not good(hi):
        lo, hi = hi, 2 * hi
        if hi > max_budget:
            return None
    while hi - lo > max(1, hi // 50):  # to 2%
        mid = (lo + hi) // 2
        lo, hi = (lo, mid) if good(mid) else (mid, hi)
    return hi


def main():
    warnings.simplefilter("ignore")  # corr_nearest warns at every budget it exhausts
    ap = argparse.ArgumentParser()
    ap.add_argument("--dump")
    ap.add_argument("--sizes", default="100,300,500")
    ap.add_argument("--tol", type=float, default=1e-10)
    ap.add_argument("--max-budget", type=int, default=2048)
    ap.add_argument("--default-upto", type=int, default=100,
                    help="largest n at which statsmodels runs its default budget; above, "
                         "its time is estimated from the cost of one iteration")
    args = ap.parse_args()
    print("kind n | ours ms, dist, max|diag-1| | statsmodels equal: budget, ms, dist, "
          "lambda_min | ours/sm | statsmodels default: ms, dist, lambda_min | ours/sm")
    for n in [int(v) for v in args.sizes.split(",")]:
        for k, (kind, make) in enumerate((("hard", hard_target), ("mild", mild_target))):
            C = make(n, np.random.default_rng([20261123, n, k]))  # the same for any --sizes
            if args.dump:
                C.astype(np.float64).tofile(os.path.join(args.dump, f"{kind}_{n}.bin"))
            X, t_ours = ours(C, args.tol)
            d, e, lam = measures(X, C)
            budget = equal_accuracy(C, d, e, args.max_budget)
            line = f"{kind} {n} | {t_ours * 1e3:.0f}, {d:.10f}, {e:.1e} |"
            if budget is None:
                line += f" not reached within {args.max_budget} iterations |"
            else:
                Xs, t_eq = theirs(C, budget)
                ds, _, ls = measures(Xs, C)
                line += (f" {budget}, {t_eq * 1e3:.0f}, {ds:.10f}, {ls:.1e} |"
                         f" {t_ours / t_eq:.2f} |")
            if n <= args.default_upto:
                Xd, t_def = theirs(C, 100 * n)
                dd, _, ld = measures(Xd, C)
                line += f" {t_def * 1e3:.0f}, {dd:.10f}, {ld:.1e} | {t_ours / t_def:.3f}"
            elif budget is not None:  # 100 n iterations at the cost of one measured above
                t_def = t_eq / budget * 100 * n
                line += f" ~{t_def * 1e3:.0f} (estimated) | ~{t_ours / t_def:.4f}"
            print(line, flush=True)


if __name__ == "__main__":
    main()
