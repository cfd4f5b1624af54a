# SPDX-License-Identifier: Apache-2.0
"""cvxopt peer of the allocator benchmark: the same three problems as
bench_alloc (minimum variance at a target, tracking error, maximum Sharpe
ratio through its homogeneous QP in (y, tau)), solved by cvxopt.solvers.qp
at its default tolerances.  Prints one line per case, time in microseconds
(fastest of repeated solves, process CPU time):  cvxopt <problem> <n> <microseconds>

Usage: alloc_cvxopt.py [directory]  (problems from alloc_problems.py)
"""
import os
import sys
import time

import numpy as np
from cvxopt import matrix as cvx, solvers

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from alloc_problems import SIZES, read  # noqa: E402

solvers.options["show_progress"] = False


def qp_data(p, kind):
    """P, q, G, h, A, b of the problem in cvxopt's form."""
    n, ne = p["n"], p["nEq"]
    C, d = p["cons"], p["rhs"]
    A, b = C[:, :ne].T, d[:ne]
    Gi, hi = C[:, ne:].T, d[ne:]
    lo, up = p["lower"], p["upper"]
    if kind in ("MV", "IT"):
        limit = p["target"] if kind == "MV" else p["excess"] + p["benchReturn"]
        G = np.vstack([Gi, -p["mu"][None, :], -np.eye(n), np.eye(n)])
        h = np.concatenate([hi, [-limit], -lo, up])
        q = np.zeros(n) if kind == "MV" else -p["q"]
        return p["cov"], q, G, h, A, b
    # Homogeneous Sharpe problem, N = n + 1; the caller's equalities are not
    # part of it (the budget is its first row).
    N, rf = n + 1, p["riskFree"]
    P = np.zeros((N, N))
    P[:n, :n] = p["cov"]
    Ah = np.vstack([np.append(np.ones(n), -1.0), np.append(p["mu"], -rf)])
    bh = np.array([0.0, 1.0])
    Gh = np.vstack([np.hstack([Gi, -hi[:, None]]), np.hstack([-np.eye(n), lo[:, None]]),
                    np.hstack([np.eye(n), -up[:, None]]), -np.eye(N)])
    return P, np.zeros(N), Gh, np.zeros(Gh.shape[0]), Ah, bh


def solve(data):
    P, q, G, h, A, b = data
    sol = solvers.qp(cvx(P), cvx(q), cvx(G), cvx(h), cvx(A), cvx(b))
    if sol["status"] != "optimal":
        raise RuntimeError(sol["status"])
    return np.array(sol["x"]).ravel()


def best_time(fn, budget=1.0, least=3):
    times = []
    start = time.perf_counter()
    while len(times) < least or time.perf_counter() - start < budget:
        t0 = time.process_time()
        fn()
        times.append(time.process_time() - t0)
        if len(times) >= 200:
            break
    return min(times)


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else "/tmp/lumbra_alloc_bench"
    for n in SIZES:
        p = read(os.path.join(directory, "alloc_n%d.bin" % n))
        for kind in ("MV", "IT", "SR"):
            data = qp_data(p, kind)
            # The conversion to cvxopt matrices is part of a caller's cost, as
            # the layout conversion is part of lumbra's.
            t = best_time(lambda: solve(data))
            print("cvxopt %s %d %.1f" % (kind, n, t * 1e6), flush=True)


if __name__ == "__main__":
    main()
