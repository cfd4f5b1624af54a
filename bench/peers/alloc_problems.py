# SPDX-License-Identifier: Apache-2.0
"""Writes the allocator benchmark problems, shared by lumbra's benchmark and
its peers so that all solve identical data.

For each n in 50, 200, 500: a factor covariance with specific risk, expected
returns, a budget equality, ten sector caps (inequalities), bounds [0, 0.1]
(0.05 for n = 500 would also do; 0.1 keeps every size feasible), a target
halfway between the equal-weight return and the largest attainable, an
equal-weight benchmark for the tracking problem and a risk-free rate.

File alloc_n<n>.bin (float64, little endian): n, nEq, nIneq, then cov (n*n,
row-major), mu (n), cons (n by nEq+nIneq, row-major), rhs, lower, upper,
target, q (n), benchReturn, excess, riskFree.

Usage: alloc_problems.py [directory]  (default /tmp/lumbra_alloc_bench)
"""
import os
import sys

import numpy as np
from cvxopt import matrix as cvx, solvers

SIZES = (50, 200, 500)
SECTORS = 10


def problem(n, rng):
    k = 5
    F = rng.normal(0.0, 0.01, (n, k))
    cov = F @ F.T + np.diag(rng.uniform(0.5e-4, 2e-4, n))
    cov = (cov + cov.T) / 2
    mu = rng.uniform(0.0, 0.001, n)
    sector = np.arange(n) % SECTORS
    S = np.zeros((SECTORS, n))
    S[sector, np.arange(n)] = 1.0
    cons = np.vstack([np.ones((1, n)), S]).T  # n by (1 + SECTORS)
    rhs = np.concatenate([[1.0], np.full(SECTORS, 0.25)])
    lower, upper = np.zeros(n), np.full(n, 0.1)
    # Largest attainable return: a linear program over the same constraints.
    G = np.vstack([S, -np.eye(n), np.eye(n)])
    h = np.concatenate([rhs[1:], -lower, upper])
    solvers.options["show_progress"] = False
    top = -solvers.lp(cvx(-mu), cvx(G), cvx(h), cvx(np.ones((1, n))), cvx(1.0))["primal objective"]
    ew = mu.mean()
    target = 0.5 * (ew + top)
    bench = np.full(n, 1.0 / n)
    q = cov @ bench
    return dict(cov=cov, mu=mu, cons=cons, rhs=rhs, lower=lower, upper=upper, target=target,
                q=q, benchReturn=mu @ bench, excess=0.25 * (top - ew), riskFree=0.5 * ew)


def write(path, n, p):
    head = np.array([n, 1, SECTORS], dtype=np.float64)
    parts = [head, p["cov"].ravel(), p["mu"], p["cons"].ravel(), p["rhs"], p["lower"],
             p["upper"], [p["target"]], p["q"], [p["benchReturn"]], [p["excess"]],
             [p["riskFree"]]]
    np.concatenate([np.asarray(x, dtype="<f8").ravel() for x in parts]).tofile(path)


def read(path):
    a = np.fromfile(path, dtype="<f8")
    n, ne, ni = (int(v) for v in a[:3])
    m = ne + ni
    pos = 3

    def take(k):
        nonlocal pos
        v = a[pos:pos + k]
        pos += k
        return v

    p = dict(n=n, nEq=ne, nIneq=ni)
    p["cov"] = take(n * n).reshape(n, n)
    p["mu"] = take(n)
    p["cons"] = take(n * m).reshape(n, m)
    p["rhs"] = take(m)
    p["lower"], p["upper"] = take(n), take(n)
    p["target"] = take(1)[0]
    p["q"] = take(n)
    p["benchReturn"], p["excess"], p["riskFree"] = take(1)[0], take(1)[0], take(1)[0]
    return p


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "/tmp/lumbra_alloc_bench"
    os.makedirs(out, exist_ok=True)
    rng = np.random.default_rng(4242)
    for n in SIZES:
        write(os.path.join(out, "alloc_n%d.bin" % n), n, problem(n, rng))
    print("problems written to", out)


if __name__ == "__main__":
    main()
