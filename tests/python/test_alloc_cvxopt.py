# SPDX-License-Identifier: Apache-2.0
"""The three allocators against cvxopt's interior-point QP on random long-only
and long-short universes (budget, sector caps and floors, bounds, a fixed
holding).  For every problem: the weights meet every constraint to 1e-9; the
objective is no worse than cvxopt's (relative 1e-8: cvxopt stops at its own
tolerance); the weights agree with cvxopt's to 1e-7 (strictly convex, so the
optimum is unique; the slack is cvxopt's accuracy).  Then problems on
exactly tied data, solved or, where the solver loses accuracy, refused."""
import os
import sys

import numpy as np
from cvxopt import matrix as cvx, solvers

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import lumbra_ctypes as lc  # noqa: E402

solvers.options.update(show_progress=False, abstol=1e-12, reltol=1e-12, feastol=1e-12,
                       maxiters=200)
FEAS_TOL, OBJ_TOL, W_TOL = 1e-9, 1e-8, 1e-7
results = []


def check(cond, what):
    results.append(bool(cond))
    if not cond:
        print("FAIL:", what)


def call_alloc(name, mu, cov, A, b, G, h, lo, up, *args):
    """args: target | q, benchReturn, excess | riskFree."""
    n, m = len(mu), A.shape[0] + G.shape[0]
    keep = [lc.matrix(a) for a in (cov, mu, np.vstack([A, G]).T if m else np.zeros((n, 1)),
                                   np.concatenate([b, h]) if m else np.zeros(1), lo, up)]
    cov_c, mu_c, cons, rhs, lo_c, up_c = keep
    w, pre = np.zeros(n), []
    if name == "ORXallocIT":
        keep.append(lc.matrix(args[0]))
        pre, args = [lc.arr(keep[-1]), lc.f64(args[1])], args[2:]
    code, status = lc.call(name, lc.i32(n), lc.arr(cov_c), lc.arr(mu_c), *pre,
                           lc.i32(A.shape[0]), lc.i32(G.shape[0]), lc.arr(cons), lc.arr(rhs),
                           lc.arr(lo_c), lc.arr(up_c), lc.f64(args[0]), lc.arr(w))
    check(code == 0 and status == 0, "%s: code %d status %d" % (name, code, status))
    return w


def cvx_qp(P, q, A, b, G, h, lo, up, strict=True):
    # Fixed variables become equalities (an interior point method needs a
    # strictly feasible interior); infinite bounds are left out.
    n, free = P.shape[0], lo != up
    I, bnd = np.eye(n), free & np.isfinite(lo)
    Gs = np.vstack([G, -I[bnd], I[bnd]])
    hs = np.concatenate([h, -lo[bnd], up[bnd]])
    sol = solvers.qp(cvx(P), cvx(q), cvx(Gs), cvx(hs), cvx(np.vstack([A, I[~free]])),
                     cvx(np.concatenate([b, lo[~free]])))
    check(sol["status"] == "optimal" or not strict, "cvxopt %s (n=%d)" % (sol["status"], n))
    return np.array(sol["x"]).ravel()


def compare(label, w, ref, obj, A, b, G, h, lo, up, scale=True):
    feas = (np.all(np.abs(A @ w - b) <= FEAS_TOL) and np.all(G @ w <= h + FEAS_TOL)
            and np.all(w >= lo - FEAS_TOL) and np.all(w <= up + FEAS_TOL))
    check(feas, label + ": infeasible")
    check(obj(w) <= obj(ref) + OBJ_TOL * (max(1.0, abs(obj(ref))) if scale else 1.0),
          "%s: objective %r worse than cvxopt %r" % (label, obj(w), obj(ref)))
    check(np.max(np.abs(w - ref)) <= W_TOL,
          "%s: weights differ from cvxopt by %g" % (label, np.max(np.abs(w - ref))))


rng = np.random.default_rng(20261123)
universes = []
for n in (6, 12, 25):
    F = rng.normal(0.0, 0.12, (n, 3))
    cov = F @ F.T / 3 + np.diag(rng.uniform(0.01, 0.04, n))
    universes.append(((cov + cov.T) / 2, rng.uniform(0.01, 0.15, n)))
for cov, mu in universes:
    n = len(mu)
    A, b = np.ones((1, n)), np.array([1.0])
    # Long-short: two sectors each capped at 70% and floored at -10%, bounds
    # [-0.3, 0.6], asset 1 fixed at 5%.
    s = np.zeros((2, n))
    s[0, :n // 2] = s[1, n // 2:] = 1.0
    lo_ls, up_ls = np.full(n, -0.3), np.full(n, 0.6)
    lo_ls[1] = up_ls[1] = 0.05
    for label, G, h, lo, up in (
            ("long-only n=%d" % n, np.zeros((0, n)), np.zeros(0), np.zeros(n), np.full(n, 0.4)),
            ("long-short n=%d" % n, np.vstack([s, -s]), np.array([0.7, 0.7, 0.1, 0.1]),
             lo_ls, up_ls)):
        # Mean-variance halfway between the minimum-variance and the top return.
        top = mu @ cvx_qp(np.eye(n) * 1e-9, -mu, A, b, G, h, lo, up, strict=False)
        target = 0.5 * (top + mu @ cvx_qp(cov, np.zeros(n), A, b, G, h, lo, up))
        Gm, hm = np.vstack([G, -mu]), np.concatenate([h, [-target]])
        w = call_alloc("ORXallocMV", mu, cov, A, b, G, h, lo, up, target)
        ref = cvx_qp(cov, np.zeros(n), A, b, Gm, hm, lo, up)
        compare(label + " MV", w, ref, lambda x: 0.5 * x @ cov @ x, A, b, Gm, hm, lo, up)

        # Tracking error against a feasible benchmark perturbed off that optimum.
        bench = ref + rng.normal(0, 0.02, n)
        bench[lo == up] = lo[lo == up]
        qv, rb = cov @ bench, mu @ bench
        excess = 0.25 * (top - rb)
        Gt, ht = np.vstack([G, -mu]), np.concatenate([h, [-(excess + rb)]])
        w = call_alloc("ORXallocIT", mu, cov, A, b, G, h, lo, up, qv, rb, excess)
        ref = cvx_qp(cov, -qv, A, b, Gt, ht, lo, up)
        compare(label + " IT", w, ref, lambda x: 0.5 * x @ cov @ x - qv @ x, A, b, Gt, ht, lo, up)

        # Maximum Sharpe ratio: cvxopt on the homogeneous problem in (y, tau)
        # (budget and unit excess return as equalities; the caller's rows and
        # bounds homogeneous; y, tau >= 0).  The fixed holding is freed: in
        # that form it is two rows.
        lo2, up2 = np.where(lo == up, 0.0, lo), np.where(lo == up, 0.6, up)
        rf = 0.25 * (np.min(mu) + np.max(mu))
        w = call_alloc("ORXallocSharpeRatio", mu, cov, np.zeros((0, n)), np.zeros(0), G, h,
                       lo2, up2, rf)
        P = np.zeros((n + 1, n + 1))
        P[:n, :n] = cov
        Gh = np.vstack([np.hstack([G, -h[:, None]]), np.hstack([-np.eye(n), lo2[:, None]]),
                        np.hstack([np.eye(n), -up2[:, None]]), -np.eye(n + 1)])
        Ah = np.vstack([np.append(np.ones(n), -1.0), np.append(mu, -rf)])
        z = cvx_qp(P, np.zeros(n + 1), Ah, np.array([0.0, 1.0]), Gh, np.zeros(len(Gh)),
                   np.full(n + 1, -np.inf), np.full(n + 1, np.inf))
        compare(label + " SR", w, z[:n] / z[n], lambda x: -(mu @ x - rf) / np.sqrt(x @ cov @ x),
                A, b, G, h, np.maximum(lo2, 0), up2, scale=False)  # ratio: absolute 1e-8

# Exactly tied data (diagonal covariances with repeated values, zero-width
# bounds, rows repeating one coefficient).  The tracking-error problems must
# be solved; on the tied Sharpe-ratio and mean-variance problems the
# solver's start vertex is built from constraints that are dependent in
# exact arithmetic, and the allocator may refuse the result (-109, or -100
# when the feasibility start's own point misses a bound), but it may never
# return 0 with a point that cvxopt beats or that misses a constraint.


def call_raw(name, n, cov, mu, pre, nEq, nIneq, cons_rm, rhs, lo, up, scalar):
    keep = [lc.matrix(a) for a in (cov, mu, cons_rm, rhs, lo, up)] + [lc.matrix(a) for a in pre]
    w = np.zeros(n)
    pre_args = [lc.arr(keep[6]), lc.f64(pre[1])] if pre else []
    code, status = lc.call(name, lc.i32(n), lc.arr(keep[0]), lc.arr(keep[1]), *pre_args,
                           lc.i32(nEq), lc.i32(nIneq), lc.arr(keep[2]), lc.arr(keep[3]),
                           lc.arr(keep[4]), lc.arr(keep[5]), lc.f64(scalar), lc.arr(w))
    return code, status, w


none = np.zeros((1, 1))
# Two assets, sum w <= 1, bounds +-1e5 (the feasibility start once overran
# its work here); five assets, no rows, fixed and tied bounds.
for cov, mu, q, rb, G, h, lo, up in (
        (np.diag([.04, .08]), np.array([.05, .10]), np.array([.01, .01]), .05,
         np.ones((1, 2)), np.array([1.0]), np.full(2, -1e5), np.full(2, 1e5)),
        (np.diag([0.03225, 0.01725, 0.01725, 1.626, 3.126]),
         np.array([3.78125, -0.0003125, -3.125, -3.125, -2.8125]),
         np.array([0.031875, 0.0171875, 3.53125, 0.0378125, 0.0178125]), 0.0,
         np.zeros((0, 5)), np.zeros(0),
         np.array([3.09375, -0.0003125, -0.0003125, -2.8125, 0.031875]),
         np.array([3.09375, 0.0134375, 0, -2.78125, 0.063125]))):
    n = len(mu)
    cons = G.T.copy() if len(h) else none
    code, status, w = call_raw("ORXallocIT", n, cov, mu, [q, np.array([rb])], 0, len(h), cons,
                               h if len(h) else np.zeros(1), lo, up, 0.0)
    check(code == 0 and status == 0, "tied IT n=%d: code %d status %d" % (n, code, status))
    Gt, ht = np.vstack([G, -mu]), np.concatenate([h, [-rb]])
    ref = cvx_qp(cov, -q, np.zeros((0, n)), np.zeros(0), Gt, ht, lo, up)
    compare("tied IT n=%d" % n, w, ref, lambda x: 0.5 * x @ cov @ x - q @ x,
            np.zeros((0, n)), np.zeros(0), Gt, ht, lo, up)

# Sharpe ratio, seven assets, no rows.
cov = np.diag([0.0025625, 0.001, 0.0013125, 0.09475, 0.0050625, 0.0200625, 0.001])
mu = np.array([0, -0.09375, -0.03125, 0, 0, -0.03125, 0])
lo = np.array([0, 0, 0, 0, 0.0025, 0, 0.0246875])
up = np.array([1, 0, 0, 0.03125, 0.0028125, 0.09375, 0.5246875])
rf, n = -0.0003125, 7
code, status, w = call_raw("ORXallocSharpeRatio", n, cov, mu, [], 0, 0, none, np.zeros(1), lo,
                           up, rf)
P = np.zeros((n + 1, n + 1))
P[:n, :n] = cov
Gh = np.vstack([np.hstack([-np.eye(n), lo[:, None]]), np.hstack([np.eye(n), -up[:, None]]),
                -np.eye(n + 1)])
Ah = np.vstack([np.append(np.ones(n), -1.0), np.append(mu, -rf)])
z = cvx_qp(P, np.zeros(n + 1), Ah, np.array([0.0, 1.0]), Gh, np.zeros(len(Gh)),
           np.full(n + 1, -np.inf), np.full(n + 1, np.inf))
ratio = lambda x: (mu @ x - rf) / np.sqrt(x @ cov @ x)  # noqa: E731
check(z[n] > 0 and ratio(z[:n] / z[n]) > 0, "tied SR: cvxopt finds a positive ratio")
if code == 0:
    compare("tied SR", w, z[:n] / z[n], lambda x: -ratio(x), np.ones((1, n)), np.ones(1),
            np.zeros((0, n)), np.zeros(0), np.maximum(lo, 0), up, scale=False)
else:
    check(code == 5 and status == -109, "tied SR: code %d status %d" % (code, status))

# Mean variance, eight assets, three equalities and three inequalities.
cov = np.diag([3.34475, 3.34475, 0.001, 0.001, 0.001, 0.0056875, 0.016, 1.5635])
mu = np.array([0.0159375, 1, 0, 0.0378125, -0.03125, -0.03125, -0.03125, -0.03125])
lo = np.array([-0.036875] * 5 + [0, 0.03, 0.0009375])
up = np.array([1.963125, 3.619375, 3.619375, 3.619375, 3.619375, 3.65625, 3.7175, 3.6571875])
cons = np.array([
    0, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, 0, 0.03, 0.0009375,
    -2, -3.65625, -3.65625, -3.65625, -3.65625, -3.65625, -3.65625, 0, -0.036875, -0.036875,
    0.035312500000000004, -0.036875, -0.0003125, -0.03125, -0.15625, -0.036875, -0.036875,
    -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875,
    -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, 0, 0, 0, 0.0021875,
    -0.036875, -0.036875, -0.036875]).reshape(8, 6)
rhs, target, n = np.full(6, -0.036875), -3.65625, 8
code, status, w = call_raw("ORXallocMV", n, cov, mu, [], 3, 3, cons, rhs, lo, up, target)
A, b = cons[:, :3].T, rhs[:3]
Gm, hm = np.vstack([cons[:, 3:].T, -mu]), np.concatenate([rhs[3:], [-target]])
ref = cvx_qp(cov, np.zeros(n), A, b, Gm, hm, lo, up)
if code == 0:
    compare("tied MV", w, ref, lambda x: 0.5 * x @ cov @ x, A, b, Gm, hm, lo, up)
else:
    check(code == 5 and status in (-100, -109), "tied MV: code %d status %d" % (code, status))

lc.report(len(results) - sum(results), len(results))
