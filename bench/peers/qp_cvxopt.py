# SPDX-License-Identifier: Apache-2.0
"""Peer of bench_qp: cvxopt's qp on the mean-variance problems written by
`bench_qp --dump=DIR`.  Usage: OPENBLAS_NUM_THREADS=1 /usr/bin/python3
bench/peers/qp_cvxopt.py DIR.  Prints n, iterations and the fastest
solve in milliseconds of process CPU time."""
import sys
import time

import numpy as np
from cvxopt import matrix, solvers, spmatrix

solvers.options["show_progress"] = False


def load(path):
    v = np.loadtxt(path)
    n = int(v[0])
    cov = v[1:1 + n * n].reshape((n, n), order="F")
    mu = v[1 + n * n:1 + n * n + n]
    return n, cov, mu, v[-2], v[-1]


def problem(n, cov, mu, target, cap):
    P = matrix(cov)
    q = matrix(np.zeros(n))
    rows = [0] * n + list(range(1, n + 1)) + list(range(n + 1, 2 * n + 1))
    cols = list(range(n)) * 3
    vals = list(-mu) + [-1.0] * n + [1.0] * n
    G = spmatrix(vals, rows, cols, (2 * n + 1, n))
    h = matrix(np.concatenate([[-target], np.zeros(n), np.full(n, cap)]))
    A = matrix(np.ones((1, n)))
    b = matrix([1.0])
    return P, q, G, h, A, b


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else "/tmp/lumbra_qp_bench"
    for n in (50, 200, 500, 1000):
        args = problem(*load(f"{folder}/qp_{n}.txt"))
        times = []
        reps = 5 if n <= 200 else 3
        for _ in range(reps):
            t0 = time.process_time()
            sol = solvers.qp(*args)
            times.append(time.process_time() - t0)
        print(f"cvxopt n={n} status={sol['status']} iterations={sol['iterations']} "
              f"time_ms={1000 * min(times):.3f}")


if __name__ == "__main__":
    main()
