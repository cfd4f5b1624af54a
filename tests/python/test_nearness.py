#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The nearness exports against independent references: ORXmodelingSDLS
against cvxopt's cone QP solver (coneqp) on the primal problem, and
ORXmodelingSDLScorr against a semismooth Newton method on the dual written
here, which treats the floor its own way: X = s I + Z, Z semi-definite.

Tolerances.  The library runs with tolerance 1e-7 / M for M constraint
rows, so its rms constraint residual r is at most 1e-7 (the dual value is
known to 1e-16 relative and a step gains about r^2: 1e-8 is about the
limit); the optimum of a strongly convex problem moves by O(r).  coneqp
runs to 1e-10: the results agree to about its root, distances to 1e-6
relative, elements to 1e-4; the Newton reference converges below 1e-9:
elements to 1e-5.  Constraints are held to the library's own check 1e-5,
the smallest eigenvalue to the floor less 1e-8."""
import numpy as np
from cvxopt import matrix as cvx, solvers

from lumbra_ctypes import arr, call, f64, i32, matrix, check, finish

solvers.options.update(show_progress=False, abstol=1e-10, reltol=1e-10, feastol=1e-10,
                       maxiters=200)
rng = np.random.default_rng(41)
sym = lambda M: (M + M.T) / 2
upper = lambda C: np.triu(C) + np.triu(C, 1).T  # the symmetric matrix the library reads
symmetric = lambda n: sym(rng.normal(size=(n, n)))
unit = lambda n, i, j: sym(np.outer(np.eye(n)[i], np.eye(n)[j]))  # picks X(i, j)
hard_target = lambda n: matrix(2 * sym(np.triu(rng.uniform(-1, 1, (n, n)), 1)) + np.eye(n))


def sdls(C, A, b, B, lo, up, tol, floor):
    """The export with lists of constraint matrices: (code, status, X)."""
    n = C.shape[0]
    eq, ineq = (matrix(np.hstack(M) if M else np.zeros((n, 0))) for M in (A, B))
    b, lo, up = (matrix(np.asarray(v, dtype=float).reshape(-1)) for v in (b, lo, up))
    X = np.zeros((n, n))
    code, status = call("ORXmodelingSDLS", i32(n), arr(C), i32(len(A)), arr(eq), arr(b),
                        i32(len(B)), arr(ineq), arr(lo), arr(up), f64(tol), f64(floor), arr(X))
    return code, status, X


def nearest(C, tol, floor):
    X = np.zeros(C.shape)
    return (*call("ORXmodelingSDLScorr", i32(len(C)), arr(C), f64(tol), f64(floor), arr(X)), X)


def cone_reference(C, A, b, B, lo, up, floor):
    """The SDLS problem by cvxopt.coneqp, constraint matrices symmetrised."""
    n = C.shape[0]
    iu = np.triu_indices(n)
    E = np.zeros((len(iu[0]), n, n))
    for k, (i, j) in enumerate(zip(*iu)):
        E[k, i, j] = E[k, j, i] = 1.0
    weight = np.where(iu[0] == iu[1], 1.0, 2.0)
    rows = lambda Ms: [np.einsum("kij,ij->k", E, sym(M)) for M in Ms]
    Gs = -E.reshape(len(weight), n * n).T
    G = np.vstack(rows(B) + [-r for r in rows(B)] + [Gs])
    h = np.concatenate([np.asarray(up, float), -np.asarray(lo, float), -floor * np.eye(n).ravel()])
    args = {"A": cvx(np.array(rows(A))), "b": cvx(np.asarray(b, float))} if A else {}
    sol = solvers.coneqp(cvx(np.diag(weight)), cvx(-weight * upper(C)[iu]), cvx(G), cvx(h),
                         {"l": 2 * len(B), "q": [], "s": [n]}, **args)
    return np.einsum("k,kij->ij", np.array(sol["x"]).ravel(), E), sol["status"]


def newton_reference(G, d):
    """min 1/2 ||Z - G||^2 over Z semi-definite with diag(Z) = d, by Newton's
    method on the dual theta(y) = 1/2 ||Pi(G + Diag y)||^2 - d'y."""
    n = G.shape[0]
    def project(y):
        w, P = np.linalg.eigh(G + np.diag(y))
        return (P * np.maximum(w, 0)) @ P.T, w, P
    theta = lambda y: 0.5 * np.sum(project(y)[0] ** 2) - d @ y
    y = d - np.diag(G)
    for _ in range(200):
        Z, w, P = project(y)
        F = np.diag(Z) - d
        if np.linalg.norm(F) < 1e-13:
            break
        # Generalised Jacobian: V h = diag(P (Omega o (P' Diag(h) P)) P').
        # Omega: divided differences of max(w, 0), 1 or 0 on equal eigenvalues.
        p = np.maximum(w, 0)
        wi, wj, pi, pj = w[:, None], w[None, :], p[:, None], p[None, :]
        with np.errstate(divide="ignore", invalid="ignore"):
            Om = np.where(wi != wj, (pi - pj) / (wi - wj), 1.0 * (wi > 0))
        M = np.einsum("ki,kj->kij", P, P).reshape(n, n * n)
        step = np.linalg.solve(M @ (Om.reshape(-1)[:, None] * M.T) + 1e-12 * np.eye(n), -F)
        # Armijo on theta far out; full steps near the solution, where the
        # decrease of theta (about the squared residual) is below its rounding.
        t, far = 1.0, np.linalg.norm(F) > 1e-6
        while far and t > 1e-12 and theta(y + t * step) > theta(y) + 1e-4 * t * F @ step:
            t /= 2
        y = y + (t if t > 1e-12 else 1.0) * step
    Z = project(y)[0]
    return Z, np.linalg.norm(np.diag(Z) - d)


def agrees(tag, X, Xr, C, floor, elements):
    """X symmetric to the bit, as near C as Xr, close to it, above the floor."""
    dist, dref = np.linalg.norm(X - upper(C)), np.linalg.norm(Xr - upper(C))
    check(np.array_equal(X, X.T), f"{tag}: result not exactly symmetric")
    check(abs(dist - dref) <= 1e-6 * dref, f"{tag}: distance {dist!r} vs reference {dref!r}")
    check(np.max(np.abs(X - Xr)) < elements, f"{tag}: away from the reference")
    check(np.linalg.eigvalsh(X)[0] >= floor - 1e-8, f"{tag}: smallest eigenvalue")


def compare(tag, C, A, b, B=(), lo=(), up=(), floor=0.0):
    code, status, X = sdls(C, A, b, B, lo, up, 1e-7 / max(len(A) + 2 * len(B), 1), floor)
    # The tolerance asks for residuals near the end of double precision, so
    # the line search may run out of digits first (1106, result usable):
    # where depends on the BLAS's roundings, and the reference library's
    # come out there on one of these problems.  Every check holds either way.
    check((code, status) in ((0, 0), (6, 1106)), f"{tag}: return {code} status {status}")
    Xr, how = cone_reference(C, A, b, B, lo, up, floor)
    check(how == "optimal", f"{tag}: reference ended {how}")
    agrees(tag, X, Xr, C, floor, 1e-4)
    for Ai, bi in zip(A, b):
        check(abs(np.trace(Ai @ X) - bi) <= 1e-5, f"{tag}: equality missed")
    for Bj, l, u in zip(B, lo, up):
        check(l - 1e-5 <= np.trace(Bj @ X) <= u + 1e-5, f"{tag}: inequality violated")
    return X


# Consistent equalities (fixed entries, random symmetric matrices) and
# two-sided inequalities, some active at the optimum, with right-hand sides
# from a semi-definite X0 above the floor; indefinite targets.
for n, m, p, floor in [(4, 2, 0, 0.0), (6, 4, 0, 0.0), (8, 5, 0, 0.2), (10, 8, 0, 0.05),
                       (5, 0, 3, 0.0), (7, 1, 4, 0.1), (9, 2, 6, 0.0)]:
    L = rng.normal(size=(n, n))
    X0 = L @ L.T / n + floor * np.eye(n)
    A = [np.eye(n) if p else unit(n, 0, 0), unit(n, 0, n - 1)][:m]
    A += [symmetric(n) for _ in range(m - 2)]
    B = [symmetric(n) for _ in range(p)]
    mid, width = [np.trace(Bj @ X0) for Bj in B], rng.uniform(0.05, 0.5, p)
    compare(f"n={n} m={m} p={p} floor={floor}", matrix(symmetric(n)), A,
            [np.trace(Ai @ X0) for Ai in A], B, mid - width, mid + width, floor)

# The lower triangle of the target is never read by either export: the same bits.
C = matrix(rng.normal(size=(n, n)))
C2 = C + np.tril(rng.normal(size=(n, n)), -1)
for run in (lambda T: sdls(T, [np.eye(n)], [n], [unit(n, 0, 1)], [0.0], [0.1], 1e-9, 0.1),
            lambda T: nearest(T, 1e-10, 0.1)):
    r1, r2 = run(C), run(C2)
    check(r1[:2] == r2[:2] and np.array_equal(r1[2], r2[2]), "lower triangle was read")

# No constraints: the closed form, eigenvalues of the target above the floor
# raised to 1e-30.
for n, floor in [(1, 0.0), (12, 0.3)]:
    C = matrix(rng.normal(size=(n, n)))
    w, Q = np.linalg.eigh(upper(C) - floor * np.eye(n))
    X = sdls(C, [], [], [], [], [], 1e-8, floor)[2]
    check(np.max(np.abs(X - (Q * np.maximum(w, 1e-30)) @ Q.T - floor * np.eye(n))) < 1e-11,
          f"unconstrained n={n}")

# Constraints the result misses end in the verification (-1109 equality,
# -1110 inequality) with the result written: contradicting equalities (X(0,0)
# = 1.5 misses both) and a negative diagonal wanted.
n = 4
C = matrix(symmetric(n))
for tag, args, expected in [
        ("contradicting equalities", ([unit(n, 0, 0)] * 2, [1.0, 2.0], [], [], []), (-1109,)),
        ("negative diagonal", ([], [], [unit(n, 1, 1)], [-2.0], [-1.0]), (-1110,))]:
    code, status, X = sdls(C, *args, 1e-8, 0.0)
    check(code == 5 and status in expected and X.any(), f"{tag}: {code} {status}")

# The nearest correlation matrix to unit diagonal targets with uniform
# off-diagonal entries (about half the eigenvalues negative).
for n in [5, 12, 25, 50]:
    for floor in [0.0, 0.1, 0.3]:
        C = hard_target(n)
        code, status, X = nearest(C, 1e-7 / n, floor)
        tag = f"correlation n={n} floor={floor}"
        check(code == 0 and status == 0, f"{tag}: return {code} status {status}")
        Z, res = newton_reference(C - floor * np.eye(n), (1 - floor) * np.ones(n))
        check(res < 1e-9, f"{tag}: reference did not converge ({res:.3g})")
        agrees(tag, X, Z + floor * np.eye(n), C, floor, 1e-5)
        check(np.max(np.abs(np.diag(X) - 1)) <= np.sqrt(n) * 1e-7, f"{tag}: diagonal")

# A loose tolerance is reported as success all the same, with a diagonal
# visibly off 1: the status comes from the last eigen-decomposition only.
code, status, X = nearest(hard_target(30), 1e-2, 0.0)
check(code == 0 and status == 0, f"loose tolerance: {code} {status}")
check(np.max(np.abs(np.diag(X) - 1)) > 1e-6, "loose tolerance: diagonal too good to be loose")

# Between the largest floor accepted, 0.999999999999999, and 1 the engine
# refuses; at that floor it solves: X is the identity within 1 - floor.
C = hard_target(6)
check(nearest(C, 1e-8, 0.9999999999999995)[:2] == (5, -2001), "floor just below 1")
code, status, X = nearest(C, 1e-8, 0.999999999999999)
check(code == 0 and status == 0 and np.max(np.abs(X - np.eye(6))) < 1e-13, "largest floor")

finish()
