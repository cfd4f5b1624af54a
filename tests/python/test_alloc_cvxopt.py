# SPDX-License-Identifier: Apache-2.0
"""The allocators against cvxopt's QP on random universes, then on exactly tied data: a portfolio
meets every constraint to 1e-9, its objective is no worse than cvxopt's (relative 1e-8: cvxopt's
tolerance), its weights agree to 1e-7 (unique optimum; cvxopt's accuracy)."""
import os
import sys

import numpy as np
from cvxopt import matrix as cvx, solvers

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import lumbra_ctypes as lc  # noqa: E402

solvers.options.update(show_progress=False, abstol=1e-12, reltol=1e-12, feastol=1e-12, maxiters=200)
FEAS_TOL, OBJ_TOL, W_TOL = 1e-9, 1e-8, 1e-7


def call_alloc(name, cov, mu, A, b, G, h, lo, up, scalar, pre=(np.zeros(1),), refusals=()):
    """One export on rows A w = b, G w <= h; pre = (q, benchReturn) for tracking.  Returns
    (code, status, w); success or one of the given (code, status) refusals is required."""
    n, m = len(mu), len(b) + len(h)
    keep = [lc.matrix(a) for a in (cov, mu, np.vstack([A, G]).T if m else np.zeros((n, 1)),
                                   np.concatenate([b, h]) if m else np.zeros(1), lo, up, pre[0], np.zeros(n))]
    code, status = lc.call(name, lc.i32(n), lc.arr(keep[0]), lc.arr(keep[1]),
                           *([lc.arr(keep[6]), lc.f64(pre[1])] if len(pre) > 1 else []),
                           lc.i32(len(b)), lc.i32(len(h)), lc.arr(keep[2]), lc.arr(keep[3]),
                           lc.arr(keep[4]), lc.arr(keep[5]), lc.f64(scalar), lc.arr(keep[7]))
    lc.check((code, status) in ((0, 0), *refusals), "%s: code %d status %d" % (name, code, status))
    return code, status, keep[7]


def cvx_qp(P, q, A, b, G, h, lo, up, strict=True):
    # Fixed variables become equalities (an interior point needs an interior); infinite bounds go.
    n, free, I = P.shape[0], lo != up, np.eye(P.shape[0])
    bnd = free & np.isfinite(lo)  # lower and upper bounds are finite together here
    sol = solvers.qp(cvx(P), cvx(q), cvx(np.vstack([G, -I[bnd], I[bnd]])),
                     cvx(np.concatenate([h, -lo[bnd], up[bnd]])), cvx(np.vstack([A, I[~free]])),
                     cvx(np.concatenate([b, lo[~free]])))
    lc.check(sol["status"] == "optimal" or not strict, "cvxopt %s (n=%d)" % (sol["status"], n))
    return np.array(sol["x"]).ravel()


def compare(label, w, ref, obj, A, b, G, h, lo, up, scale=True):
    lc.check(np.all(np.abs(A @ w - b) <= FEAS_TOL) and np.all(G @ w <= h + FEAS_TOL)
             and np.all(w >= lo - FEAS_TOL) and np.all(w <= up + FEAS_TOL), label + ": infeasible")
    lc.check(obj(w) <= obj(ref) + OBJ_TOL * (max(1.0, abs(obj(ref))) if scale else 1.0),
             "%s: objective %r worse than cvxopt %r" % (label, obj(w), obj(ref)))
    lc.check(np.max(np.abs(w - ref)) <= W_TOL, "%s: weights differ by %g" % (label, np.max(np.abs(w - ref))))


def sharpe_reference(cov, mu, G, h, lo, up, rf):
    """cvxopt on the homogeneous form in (y, tau): budget and unit excess return as
    equalities, rows and bounds homogeneous, y, tau >= 0."""
    n, P = len(mu), np.zeros((len(mu) + 1, len(mu) + 1))
    P[:n, :n] = cov
    Gh = np.vstack([np.hstack([G, -h[:, None]]), np.hstack([-np.eye(n), lo[:, None]]),
                    np.hstack([np.eye(n), -up[:, None]]), -np.eye(n + 1)])
    Ah = np.vstack([np.append(np.ones(n), -1.0), np.append(mu, -rf)])
    inf = np.full(n + 1, np.inf)
    z = cvx_qp(P, np.zeros(n + 1), Ah, np.array([0.0, 1.0]), Gh, np.zeros(len(Gh)), -inf, inf)
    return z[:n] / z[n]


def none(n):  # no rows
    return np.zeros((0, n)), np.zeros(0)


def plus_row(G, h, a, t):  # the rows G w <= h and a w <= t
    return np.vstack([G, a]), np.concatenate([h, [t]])


rng = np.random.default_rng(20261123)
universes = [(F @ F.T / 3 + np.diag(rng.uniform(0.01, 0.04, n)), rng.uniform(0.01, 0.15, n))
             for n in (6, 12, 25) for F in [rng.normal(0.0, 0.12, (n, 3))]]
for cov, mu in universes:
    n, cov, A, b = len(mu), (cov + cov.T) / 2, np.ones((1, len(mu))), np.array([1.0])
    # Long-short: two sectors in [-10%, 70%], bounds [-0.3, 0.6], asset 1 fixed at 5%.
    s = np.vstack([np.arange(n) < n // 2, np.arange(n) >= n // 2]).astype(float)
    lo_ls, up_ls = np.full(n, -0.3), np.full(n, 0.6)
    lo_ls[1] = up_ls[1] = 0.05
    for label, G, h, lo, up in (
            ("long-only n=%d" % n, *none(n), np.zeros(n), np.full(n, 0.4)),
            ("long-short n=%d" % n, np.vstack([s, -s]), np.array([0.7, 0.7, 0.1, 0.1]), lo_ls, up_ls)):
        # Mean-variance halfway between the minimum-variance and the top return.
        top = mu @ cvx_qp(np.eye(n) * 1e-9, -mu, A, b, G, h, lo, up, strict=False)
        target = 0.5 * (top + mu @ cvx_qp(cov, np.zeros(n), A, b, G, h, lo, up))
        Gm, hm = plus_row(G, h, -mu, -target)
        w = call_alloc("ORXallocMV", cov, mu, A, b, G, h, lo, up, target)[2]
        ref = cvx_qp(cov, np.zeros(n), A, b, Gm, hm, lo, up)
        compare(label + " MV", w, ref, lambda x: 0.5 * x @ cov @ x, A, b, Gm, hm, lo, up)
        # Tracking error against a feasible benchmark perturbed off that optimum.
        bench = ref + rng.normal(0, 0.02, n)
        bench[lo == up] = lo[lo == up]
        qv, rb = cov @ bench, mu @ bench
        excess = 0.25 * (top - rb)
        Gt, ht = plus_row(G, h, -mu, -(excess + rb))
        w = call_alloc("ORXallocIT", cov, mu, A, b, G, h, lo, up, excess, (qv, rb))[2]
        ref = cvx_qp(cov, -qv, A, b, Gt, ht, lo, up)
        compare(label + " IT", w, ref, lambda x: 0.5 * x @ cov @ x - qv @ x, A, b, Gt, ht, lo, up)
        # Maximum Sharpe ratio (no caller equality; the fixed holding freed: homogeneous, two rows).
        lo2, up2 = np.where(lo == up, 0.0, lo), np.where(lo == up, 0.6, up)
        rf = 0.25 * (np.min(mu) + np.max(mu))
        w = call_alloc("ORXallocSharpeRatio", cov, mu, *none(n), G, h, lo2, up2, rf)[2]
        compare(label + " SR", w, sharpe_reference(cov, mu, G, h, lo2, up2, rf),
                lambda x: -(mu @ x - rf) / np.sqrt(x @ cov @ x), A, b, G, h, np.maximum(lo2, 0), up2,
                scale=False)  # a ratio: absolute 1e-8

# Fuzzing reproducers on exactly tied data.  Tracking error reaches the exact optimum: the
# first Sigma^-1 (q + mu 2/15) = (5/12, 7/24), return row active, to 1e-10 (bounds of 1e5 round
# at 1e-11, which the refinement must take out); the second, separable, each free weight at the
# bound nearest q_i / var_i, to 1e-12.  On the Sharpe-ratio and mean-variance problems the start
# vertex comes from constraints dependent in exact arithmetic: the allocator may refuse (-109, or
# -100 when the feasibility start's own point misses a bound) but never return 0 with weights
# outside their bounds or a point cvxopt beats.
for cov, mu, q, rb, G, h, lo, up, exact in (
        (np.diag([.04, .08]), np.array([.05, .10]), np.array([.01, .01]), .05, np.ones((1, 2)),
         np.array([1.0]), np.full(2, -1e5), np.full(2, 1e5), ([5 / 12, 7 / 24], 1e-10)),
        (np.diag([0.03225, 0.01725, 0.01725, 1.626, 3.126]),
         np.array([3.78125, -0.0003125, -3.125, -3.125, -2.8125]),
         np.array([0.031875, 0.0171875, 3.53125, 0.0378125, 0.0178125]), 0.0, *none(5),
         np.array([3.09375, -0.0003125, -0.0003125, -2.8125, 0.031875]),
         np.array([3.09375, 0.0134375, 0, -2.78125, 0.063125]),
         ([3.09375, 0.0134375, 0.0, -2.78125, 0.031875], 1e-12))):
    n, label = len(mu), "tied IT n=%d" % len(mu)
    w = call_alloc("ORXallocIT", cov, mu, *none(n), G, h, lo, up, 0.0, (q, rb))[2]
    Gt, ht = plus_row(G, h, -mu, -rb)
    ref = cvx_qp(cov, -q, *none(n), Gt, ht, lo, up)
    compare(label, w, ref, lambda x: 0.5 * x @ cov @ x - q @ x, *none(n), Gt, ht, lo, up)
    lc.check(np.max(np.abs(w - exact[0])) <= exact[1], "%s: %r" % (label, w))

cov, rf = np.diag([0.0025625, 0.001, 0.0013125, 0.09475, 0.0050625, 0.0200625, 0.001]), -0.0003125
mu, lo = np.array([0, -0.09375, -0.03125, 0, 0, -0.03125, 0]), np.array([0, 0, 0, 0, 0.0025, 0, 0.0246875])
up = np.array([1, 0, 0, 0.03125, 0.0028125, 0.09375, 0.5246875])
code, _, w = call_alloc("ORXallocSharpeRatio", cov, mu, *none(7), *none(7), lo, up, rf, refusals=[(5, -109)])
ref = sharpe_reference(cov, mu, *none(7), lo, up, rf)
ratio = lambda x: (mu @ x - rf) / np.sqrt(x @ cov @ x)  # noqa: E731
lc.check(ratio(ref) > 0, "tied SR: cvxopt finds a positive ratio")
if code == 0:
    compare("tied SR", w, ref, lambda x: -ratio(x), np.ones((1, 7)), np.ones(1), *none(7),
            np.maximum(lo, 0), up, scale=False)

o = -0.036875
cov = np.diag([3.34475, 3.34475, 0.001, 0.001, 0.001, 0.0056875, 0.016, 1.5635])
mu = np.array([0.0159375, 1, 0, 0.0378125, -0.03125, -0.03125, -0.03125, -0.03125])
lo = np.array([o] * 5 + [0, 0.03, 0.0009375])
up = np.array([1.963125, 3.619375, 3.619375, 3.619375, 3.619375, 3.65625, 3.7175, 3.6571875])
cons = np.array([  # row-major: asset i, then its coefficient in each of the six rows
    0, o, o, o, o, o, o, 0, 0.03, 0.0009375, -2, -3.65625, -3.65625, -3.65625, -3.65625, -3.65625,
    -3.65625, 0, o, o, 0.035312500000000004, o, -0.0003125, -0.03125, -0.15625, o, o, o, o, o, o, o,
    o, o, o, o, o, o, o, o, o, 0, 0, 0, 0.0021875, o, o, o]).reshape(8, 6)
A, b, G, h, target = cons[:, :3].T, np.full(3, o), cons[:, 3:].T, np.full(3, o), -3.65625
code, _, w = call_alloc("ORXallocMV", cov, mu, A, b, G, h, lo, up, target, refusals=[(5, -100), (5, -109)])
Gm, hm = plus_row(G, h, -mu, -target)
if code == 0:
    compare("tied MV", w, cvx_qp(cov, np.zeros(8), A, b, Gm, hm, lo, up), lambda x: 0.5 * x @ cov @ x,
            A, b, Gm, hm, lo, up)

lc.finish()
