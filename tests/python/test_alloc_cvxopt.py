"""Optimal portfolios of the three allocators against cvxopt's interior-point
QP on the same problems: random long-only and long-short universes with a
budget, sector caps and floors, bounds and a fixed holding.

What is checked for every problem:
  - lumbra's weights meet every constraint and bound to 1e-9;
  - lumbra's objective is no worse than cvxopt's (relative 1e-8: cvxopt
    stops at its own tolerance, so it can only be slightly worse);
  - the weights agree with cvxopt's to 1e-7 (the problems are strictly
    convex, so the optimum is unique; the slack is cvxopt's accuracy).
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import numpy as np  # noqa: E402
from cvxopt import matrix as cvx, solvers  # noqa: E402

import lumbra_ctypes as lc  # noqa: E402

solvers.options.update(show_progress=False, abstol=1e-12, reltol=1e-12, feastol=1e-12,
                       maxiters=200)

FEAS_TOL = 1e-9
OBJ_TOL = 1e-8
W_TOL = 1e-7

failures = 0
total = 0


def check(cond, what):
    global failures, total
    total += 1
    if not cond:
        failures += 1
        print("FAIL:", what)


def universe(rng, n):
    k = 3
    F = rng.normal(0.0, 0.12, (n, k))
    cov = F @ F.T / k + np.diag(rng.uniform(0.01, 0.04, n))
    cov = (cov + cov.T) / 2
    mu = rng.uniform(0.01, 0.15, n)
    return cov, mu


def problems(rng):
    """(name, n, cov, mu, eq rows, eq rhs, ineq rows, ineq rhs, lower, upper)."""
    out = []
    for n in (6, 12, 25):
        cov, mu = universe(rng, n)
        ones = np.ones((1, n))
        out.append(("long-only n=%d" % n, n, cov, mu, ones, np.array([1.0]),
                    np.zeros((0, n)), np.zeros(0), np.zeros(n), np.full(n, 0.4)))
        # Long-short: two sectors, each capped at 70% and held at -10% or
        # more, bounds [-0.3, 0.6], asset 1 fixed at 5%.
        s = np.zeros((2, n))
        s[0, : n // 2] = 1.0
        s[1, n // 2:] = 1.0
        G = np.vstack([s, -s])
        h = np.array([0.7, 0.7, 0.1, 0.1])
        lo, up = np.full(n, -0.3), np.full(n, 0.6)
        lo[1] = up[1] = 0.05
        out.append(("long-short n=%d" % n, n, cov, mu, ones, np.array([1.0]), G, h, lo, up))
    return out


def call_alloc(name, n, cov, mu, A, b, G, h, lo, up, *extra):
    m = A.shape[0] + G.shape[0]
    cons = lc.matrix(np.vstack([A, G]).T if m else np.zeros((n, 1)))
    rhs = lc.matrix(np.concatenate([b, h]) if m else np.zeros(1))
    cov_c = lc.matrix(cov)
    mu_c = lc.matrix(mu)
    lo_c, up_c = lc.matrix(lo), lc.matrix(up)
    w = np.zeros(n)
    args = [lc.i32(n), lc.arr(cov_c), lc.arr(mu_c)]
    if name == "ORXallocIT":
        q_c = lc.matrix(extra[0])
        args += [lc.arr(q_c), lc.f64(extra[1])]
        extra = extra[2:]
    args += [lc.i32(A.shape[0]), lc.i32(G.shape[0]), lc.arr(cons), lc.arr(rhs),
             lc.arr(lo_c), lc.arr(up_c), lc.f64(extra[0]), lc.arr(w)]
    code, status = lc.call(name, *args)
    return code, status, w


def cvx_qp(P, q, A, b, G, h, lo, up):
    n = P.shape[0]
    Gs = np.vstack([G, -np.eye(n), np.eye(n)])
    hs = np.concatenate([h, -lo, up])
    # Fixed variables (lo == up) become equalities: an interior point method
    # needs a strictly feasible interior in its inequalities.
    fixed = np.where(lo == up)[0]
    keep = np.ones(Gs.shape[0], bool)
    for i in fixed:
        keep[G.shape[0] + i] = keep[G.shape[0] + n + i] = False
    Ae = np.vstack([A] + [np.eye(n)[i:i + 1] for i in fixed])
    be = np.concatenate([b, lo[fixed]])
    sol = solvers.qp(cvx(P), cvx(q), cvx(Gs[keep]), cvx(hs[keep]), cvx(Ae), cvx(be))
    return sol["status"], np.array(sol["x"]).ravel()


def feasible(w, A, b, G, h, lo, up):
    ok = np.all(np.abs(A @ w - b) <= FEAS_TOL) if A.shape[0] else True
    ok = ok and (np.all(G @ w <= h + FEAS_TOL) if G.shape[0] else True)
    return ok and np.all(w >= lo - FEAS_TOL) and np.all(w <= up + FEAS_TOL)


def compare(label, w, ref, obj):
    check(obj(w) <= obj(ref) + OBJ_TOL * max(1.0, abs(obj(ref))),
          "%s: objective %r worse than cvxopt %r" % (label, obj(w), obj(ref)))
    err = np.max(np.abs(w - ref))
    check(err <= W_TOL, "%s: weights differ from cvxopt by %g" % (label, err))


rng = np.random.default_rng(20261123)
for (label, n, cov, mu, A, b, G, h, lo, up) in problems(rng):
    # Mean-variance at a target between the lowest and highest attainable:
    # cvxopt maximising the return gives the top.
    st, wmax = cvx_qp(np.eye(n) * 1e-9, -mu, A, b, G, h, lo, up)
    top = mu @ wmax
    target = 0.5 * (top + mu @ cvx_qp(cov, np.zeros(n), A, b, G, h, lo, up)[1])
    Gm, hm = np.vstack([G, -mu]), np.concatenate([h, [-target]])
    code, status, w = call_alloc("ORXallocMV", n, cov, mu, A, b, G, h, lo, up, target)
    check(code == 0 and status == 0, "%s MV: code %d status %d" % (label, code, status))
    st, ref = cvx_qp(cov, np.zeros(n), A, b, Gm, hm, lo, up)
    check(st == "optimal", "%s MV: cvxopt %s" % (label, st))
    check(feasible(w, A, b, Gm, hm, lo, up), "%s MV: infeasible" % label)
    compare(label + " MV", w, ref, lambda x: 0.5 * x @ cov @ x)

    # Tracking error against a feasible benchmark perturbed off the optimum.
    bench = ref + rng.normal(0, 0.02, n)
    bench[lo == up] = lo[lo == up]
    qv = cov @ bench
    rb, excess = mu @ bench, 0.25 * (top - mu @ bench)
    Gt, ht = np.vstack([G, -mu]), np.concatenate([h, [-(excess + rb)]])
    code, status, w = call_alloc("ORXallocIT", n, cov, mu, A, b, G, h, lo, up, qv, rb, excess)
    check(code == 0 and status == 0, "%s IT: code %d status %d" % (label, code, status))
    st, ref = cvx_qp(cov, -qv, A, b, Gt, ht, lo, up)
    check(st == "optimal", "%s IT: cvxopt %s" % (label, st))
    check(feasible(w, A, b, Gt, ht, lo, up), "%s IT: infeasible" % label)
    compare(label + " IT", w, ref, lambda x: 0.5 * x @ cov @ x - qv @ x)

    # Maximum Sharpe ratio, through cvxopt on the same homogeneous problem in
    # (y, tau): budget and unit excess return as equalities, the caller's
    # inequalities and bounds as homogeneous rows, y >= 0 and tau >= 0.  The
    # fixed holding is left out: in the homogeneous form it is two rows.
    lo2, up2 = np.where(lo == up, 0.0, lo), np.where(lo == up, 0.6, up)
    rf = 0.5 * (np.min(mu) + np.max(mu)) * 0.5
    code, status, w = call_alloc("ORXallocSharpeRatio", n, cov, mu, np.zeros((0, n)),
                                 np.zeros(0), G, h, lo2, up2, rf)
    check(code == 0 and status == 0, "%s SR: code %d status %d" % (label, code, status))
    N = n + 1
    P = np.zeros((N, N))
    P[:n, :n] = cov
    Ah = np.vstack([np.append(np.ones(n), -1.0), np.append(mu, -rf)])
    bh = np.array([0.0, 1.0])
    Gh = np.vstack([np.hstack([G, -h[:, None]]),
                    np.hstack([-np.eye(n), lo2[:, None]]),
                    np.hstack([np.eye(n), -up2[:, None]]),
                    -np.eye(N)])
    sol = solvers.qp(cvx(P), cvx(np.zeros(N)), cvx(Gh), cvx(np.zeros(Gh.shape[0])), cvx(Ah),
                     cvx(bh))
    z = np.array(sol["x"]).ravel()
    ref = z[:n] / z[n]
    check(sol["status"] == "optimal", "%s SR: cvxopt %s" % (label, sol["status"]))
    check(feasible(w, np.ones((1, n)), np.array([1.0]), G, h, np.maximum(lo2, 0), up2),
          "%s SR: infeasible" % label)
    ratio = lambda x: (mu @ x - rf) / np.sqrt(x @ cov @ x)  # noqa: E731
    check(ratio(w) >= ratio(ref) - OBJ_TOL,
          "%s SR: ratio %r below cvxopt %r" % (label, ratio(w), ratio(ref)))
    err = np.max(np.abs(w - ref))
    check(err <= W_TOL, "%s SR: weights differ from cvxopt by %g" % (label, err))

lc.report(failures, total)
