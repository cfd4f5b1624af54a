#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The nearness exports against independent references: ORXmodelingSDLS against
cvxopt's coneqp, ORXmodelingSDLScorr against a semismooth Newton method on the dual
(floor as X = s I + Z, Z semi-definite).  Tolerances: the library's 1e-7 / M (M
constraint rows) bounds its rms residual by 1e-7, and the optimum moves by O(residual);
coneqp runs to 1e-10: distances agree to 1e-6 relative, elements to 1e-4; the Newton
reference converges below 1e-9: elements to 1e-5.  Constraints are held to the
library's own check 1e-5, the smallest eigenvalue to the floor less 1e-8."""
import numpy as np
from cvxopt import matrix as cvx, solvers

from lumbra_ctypes import arr, call, f64, i32, matrix, check, finish

solvers.options.update(show_progress=False, abstol=1e-10, reltol=1e-10, feastol=1e-10, maxiters=200)
rng = np.random.default_rng(41)
sym = lambda M: (M + M.T) / 2
upper = lambda C: np.triu(C) + np.triu(C, 1).T  # the symmetric matrix the library reads
symmetric = lambda n: sym(rng.normal(size=(n, n)))
unit = lambda n, i, j: sym(np.outer(np.eye(n)[i], np.eye(n)[j]))  # picks X(i, j)
# Unit diagonal, uniform off-diagonal (about half the eigenvalues negative); the
# junk below the diagonal, which the exports must not read, sits in every target.
hard_target = lambda n: matrix(np.eye(n) + np.triu(rng.uniform(-1, 1, (n, n)), 1)
                               + np.tril(rng.normal(size=(n, n)), -1))


def sdls(C, A, b, B, lo, up, tol, floor):
    """The export with lists of constraint matrices: (code, status, X)."""
    eq, ineq = (matrix(np.hstack(M) if M else np.zeros((len(C), 0))) for M in (A, B))
    b, lo, up = (matrix(np.asarray(v, dtype=float).reshape(-1)) for v in (b, lo, up))
    X = np.zeros(C.shape)
    return (*call("ORXmodelingSDLS", i32(len(C)), arr(C), i32(len(A)), arr(eq), arr(b), i32(len(B)),
                  arr(ineq), arr(lo), arr(up), f64(tol), f64(floor), arr(X)), X)


def nearest(C, tol, floor):
    X = np.zeros(C.shape)
    return (*call("ORXmodelingSDLScorr", i32(len(C)), arr(C), f64(tol), f64(floor), arr(X)), X)


def cone_reference(C, A, b, B, lo, up, floor):
    """The SDLS problem by cvxopt.coneqp, constraint matrices symmetrised."""
    n, I = C.shape[0], np.eye(C.shape[0])
    iu = np.triu_indices(n)
    E = np.array([np.outer(I[i], I[j]) + (i != j) * np.outer(I[j], I[i]) for i, j in zip(*iu)])
    weight = np.where(iu[0] == iu[1], 1.0, 2.0)
    rows = lambda Ms: [np.einsum("kij,ij->k", E, sym(M)) for M in Ms]
    G = np.vstack(rows(B) + [-r for r in rows(B)] + [-E.reshape(len(weight), n * n).T])
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
        # Generalised Jacobian V h = diag(P (Omega o (P' Diag(h) P)) P'), Omega the
        # divided differences of max(w, 0) (1 or 0 on equal eigenvalues).
        p = np.maximum(w, 0)
        wi, wj, pi, pj = w[:, None], w[None, :], p[:, None], p[None, :]
        with np.errstate(divide="ignore", invalid="ignore"):
            Om = np.where(wi != wj, (pi - pj) / (wi - wj), 1.0 * (wi > 0))
        M = np.einsum("ki,kj->kij", P, P).reshape(n, n * n)
        step = np.linalg.solve(M @ (Om.reshape(-1)[:, None] * M.T) + 1e-12 * np.eye(n), -F)
        # Armijo far out; full steps near the end, where theta's decrease is below rounding.
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
    check(abs(dist - dref) <= 1e-6 * dref + 1e-9,  # + coneqp's absolute accuracy, for dref ~ 0
          f"{tag}: distance {dist!r} vs reference {dref!r}")
    check(np.max(np.abs(X - Xr)) < elements, f"{tag}: away from the reference")
    check(np.linalg.eigvalsh(X)[0] >= floor - 1e-8, f"{tag}: smallest eigenvalue")


def compare(tag, C, A, b, B=(), lo=(), up=(), floor=0.0):
    code, status, X = sdls(C, A, b, B, lo, up, 1e-7 / max(len(A) + 2 * len(B), 1), floor)
    # Residuals near the end of double precision: the line search may run out of
    # digits first (1106, result usable), depending on the BLAS's roundings.
    check((code, status) in ((0, 0), (6, 1106)), f"{tag}: return {code} status {status}")
    Xr, how = cone_reference(C, A, b, B, lo, up, floor)
    check(how == "optimal", f"{tag}: reference ended {how}")
    agrees(tag, X, Xr, C, floor, 1e-4)
    for Ai, bi in zip(A, b):
        check(abs(np.trace(Ai @ X) - bi) <= 1e-5, f"{tag}: equality missed")
    for Bj, l, u in zip(B, lo, up):
        check(l - 1e-5 <= np.trace(Bj @ X) <= u + 1e-5, f"{tag}: inequality violated")


# No constraints (the projection alone), consistent equalities (fixed entries, random
# matrices), two-sided inequalities with right-hand sides from a semi-definite X0.
for n, m, p, floor in [(1, 0, 0, 0.0), (12, 0, 0, 0.3), (4, 2, 0, 0.0), (6, 4, 0, 0.0),
                       (8, 5, 0, 0.2), (10, 8, 0, 0.05), (5, 0, 3, 0.0), (7, 1, 4, 0.1),
                       (9, 2, 6, 0.0)]:
    L = rng.normal(size=(n, n))
    X0 = L @ L.T / n + floor * np.eye(n)
    A = [np.eye(n) if p else unit(n, 0, 0), unit(n, 0, n - 1)][:m]
    A += [symmetric(n) for _ in range(m - 2)]
    B = [symmetric(n) for _ in range(p)]
    mid, width = [np.trace(Bj @ X0) for Bj in B], rng.uniform(0.05, 0.5, p)
    compare(f"n={n} m={m} p={p} floor={floor}", matrix(rng.normal(size=(n, n))), A,
            [np.trace(Ai @ X0) for Ai in A], B, mid - width, mid + width, floor)

# Missed constraints end in the verification (-1109 equality, -1110 inequality), the result
# written: contradicting equalities on -X(0,0) (both missed from below), a negative diagonal.
n, C = 4, matrix(symmetric(4))
for tag, args, expected in [
        ("contradicting equalities", ([-unit(n, 0, 0)] * 2, [1.0, 2.0], [], [], []), -1109),
        ("negative diagonal", ([], [], [unit(n, 1, 1)], [-2.0], [-1.0]), -1110)]:
    code, status, X = sdls(C, *args, 1e-8, 0.0)
    check((code, status) == (5, expected) and X.any(), f"{tag}: {code} {status}")

# The nearest correlation matrix, against the Newton reference.
for n, floor in [(n, floor) for n in (5, 12, 25, 50) for floor in (0.0, 0.1, 0.3)]:
    C = hard_target(n)
    code, status, X = nearest(C, 1e-7 / n, floor)
    tag = f"correlation n={n} floor={floor}"
    check(code == 0 and status == 0, f"{tag}: return {code} status {status}")
    Z, res = newton_reference(upper(C) - floor * np.eye(n), (1 - floor) * np.ones(n))
    check(res < 1e-9, f"{tag}: reference did not converge ({res:.3g})")
    agrees(tag, X, Z + floor * np.eye(n), C, floor, 1e-5)
    check(np.max(np.abs(np.diag(X) - 1)) <= np.sqrt(n) * 1e-7, f"{tag}: diagonal")

# A loose tolerance is a success with a diagonal visibly off 1 (status from the last eigensolve).
code, status, X = nearest(hard_target(30), 1e-2, 0.0)
check((code, status) == (0, 0) and np.max(np.abs(np.diag(X) - 1)) > 1e-6, "loose tolerance")

# Above the largest floor accepted, 0.999999999999999, the engine refuses;
# at it, X = I within 1 - floor.
C = hard_target(6)
check(nearest(C, 1e-8, 0.9999999999999995)[:2] == (5, -2001), "floor just below 1")
code, status, X = nearest(C, 1e-8, 0.999999999999999)
check(code == 0 and status == 0 and np.max(np.abs(X - np.eye(6))) < 1e-13, "largest floor")

finish()
