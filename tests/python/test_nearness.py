#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The nearness exports against independent references: ORXmodelingSDLS
against cvxopt's interior-point cone QP solver (coneqp) on the primal
problem (X parametrised by its upper triangle, X - s I in the semi-definite
cone, equalities as rows of A x = b, each two-sided inequality two rows of
the linear cone); ORXmodelingSDLScorr against a semismooth Newton method on
the dual, written here in numpy, which treats the floor its own way
(X = s I + Z, Z semi-definite, diag(Z) = 1 - s) where the library shifts
and scales the target: the same problem, so the optima must agree.

Tolerances.  The library runs with tolerance 1e-7 / M for M constraint
rows: the root mean square of its constraint residual is then at most 1e-7
(much below 1e-8 the dual cannot go: its value is known to 1e-16 relative
and a step of residual r gains only about r^2).  The optimum of a strongly
convex problem moves by O(r) with a residual r.  coneqp runs to 1e-10, and
the results agree to about the square root of its accuracy in the worst
case: distances to 1e-6 relative, elements to 1e-4.  The Newton reference
converges to a residual below 1e-9: elements to 1e-5.  Constraints are held
to the library's own check 1e-5, the smallest eigenvalue to the floor less
1e-8 (negative eigenvalues are raised to 1e-30)."""
import numpy as np
from cvxopt import matrix as cvx, solvers

from lumbra_ctypes import arr, call, f64, i32, matrix, check, finish

solvers.options.update(show_progress=False, abstol=1e-10, reltol=1e-10, feastol=1e-10,
                       maxiters=200)
rng = np.random.default_rng(41)


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
    code, status = call("ORXmodelingSDLScorr", i32(C.shape[0]), arr(C), f64(tol), f64(floor),
                        arr(X))
    return code, status, X


def upper(C):
    """The symmetric matrix of the triangle the library reads."""
    return np.triu(C) + np.triu(C, 1).T


def sym(M):
    return (M + M.T) / 2


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
        pos = w > 0
        Om = np.zeros((n, n))
        Om[np.ix_(pos, pos)] = 1.0
        wp, wn = w[pos][:, None], w[~pos][None, :]
        Om[np.ix_(pos, ~pos)] = wp / (wp - wn)
        Om[np.ix_(~pos, pos)] = Om[np.ix_(pos, ~pos)].T
        M = np.einsum("ki,kj->kij", P, P).reshape(n, n * n)
        step = np.linalg.solve(M @ (Om.reshape(-1)[:, None] * M.T) + 1e-12 * np.eye(n), -F)
        t = 1.0
        while t > 1e-12 and theta(y + t * step) > theta(y) + 1e-4 * t * (F @ step):
            t /= 2
        y = y + (t if t > 1e-12 else 1.0) * step  # below the rounding of theta: full step
    Z = project(y)[0]
    return Z, np.linalg.norm(np.diag(Z) - d)


def agrees(tag, X, Xr, C, floor, elements):
    """X symmetric to the bit, as near the target as the reference, close to
    it, and above the floor."""
    dist, dref = np.linalg.norm(X - upper(C)), np.linalg.norm(Xr - upper(C))
    check(np.array_equal(X, X.T), f"{tag}: result not exactly symmetric")
    check(abs(dist - dref) <= 1e-6 * dref, f"{tag}: distance {dist!r} vs reference {dref!r}")
    check(np.max(np.abs(X - Xr)) < elements, f"{tag}: away from the reference")
    check(np.linalg.eigvalsh(X)[0] >= floor - 1e-8, f"{tag}: smallest eigenvalue")


def compare(tag, C, A, b, B=(), lo=(), up=(), floor=0.0):
    B, lo, up = list(B), list(lo), list(up)
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


def symmetric(n):
    return sym(rng.normal(size=(n, n)))


def unit(n, i, j):
    """Constraint matrix picking X(i, j)."""
    return sym(np.eye(n)[:, [i]] @ np.eye(n)[[j], :])


# Consistent equalities (fixed entries, random symmetric matrices) and
# two-sided inequalities, some active at the optimum, with right-hand sides
# from a semi-definite X0 above the floor; indefinite targets.
for n, m, p, floor in [(4, 2, 0, 0.0), (6, 4, 0, 0.0), (8, 5, 0, 0.2), (10, 8, 0, 0.05),
                       (5, 0, 3, 0.0), (7, 1, 4, 0.1), (9, 2, 6, 0.0)]:
    L = rng.normal(size=(n, n))
    X0 = L @ L.T / n + floor * np.eye(n)
    A = [unit(n, 0, 0), unit(n, 0, n - 1)][:m] + [symmetric(n) for _ in range(m - 2)]
    if p and m:
        A[0] = np.eye(n)
    B = [symmetric(n) for _ in range(p)]
    mid, width = [np.trace(Bj @ X0) for Bj in B], rng.uniform(0.05, 0.5, p)
    compare(f"n={n} m={m} p={p} floor={floor}", matrix(symmetric(n)), A,
            [np.trace(Ai @ X0) for Ai in A], B, mid - width, mid + width, floor)

# Asymmetric constraint matrices: the solver works with their symmetric
# parts, the check with trace(A X) as given: the same X as with sym(A).
n = 6
C = matrix(symmetric(n))
A, B = [rng.normal(size=(n, n)) for _ in range(3)], [rng.normal(size=(n, n)) for _ in range(2)]
X0 = (lambda L: L @ L.T / n)(rng.normal(size=(n, n)))
b, mid = [np.trace(Ai @ X0) for Ai in A], np.array([np.trace(Bj @ X0) for Bj in B])
Xa = compare("asymmetric constraints", C, A, b, B, mid - 0.1, mid + 0.1)
Xs = sdls(C, [sym(M) for M in A], b, [sym(M) for M in B], mid - 0.1, mid + 0.1, 1e-7 / 7, 0.0)[2]
check(np.max(np.abs(Xa - Xs)) < 1e-12, "asymmetric constraints: differs from sym(A)")

# The lower triangle of the target is never read by either export: the same bits.
C = matrix(rng.normal(size=(n, n)))
C2 = C.copy()
C2[np.tril_indices(n, -1)] = rng.normal(size=n * (n - 1) // 2)
for run in (lambda T: sdls(T, A, b, B, mid - 0.1, mid + 0.1, 1e-9, 0.1),
            lambda T: nearest(T, 1e-10, 0.1)):
    r1, r2 = run(C), run(C2)
    check(r1[:2] == r2[:2] and np.array_equal(r1[2], r2[2]), "lower triangle was read")

# No constraints: the closed form, eigenvalues of the target above the floor
# raised to 1e-30.
for n, floor in [(1, 0.0), (5, 0.0), (12, 0.3)]:
    C = matrix(rng.normal(size=(n, n)))
    w, Q = np.linalg.eigh(upper(C) - floor * np.eye(n))
    expected = (Q * np.maximum(w, 1e-30)) @ Q.T + floor * np.eye(n)
    code, status, X = sdls(C, [], [], [], [], [], 1e-8, floor)
    check(code == 0 and status == 0, f"unconstrained n={n}: {code} {status}")
    check(np.max(np.abs(X - expected)) < 1e-12 * max(1, np.abs(w).max()), f"unconstrained n={n}")

# Constraints the result misses end in the verification (-1109 equality,
# -1110 inequality) with the result written: contradicting equalities (X(0,0)
# = 1.5 misses both), a negative diagonal wanted, and a loose tolerance that
# stops the dual at once (residual 0.5 <= 1).
n = 4
C = matrix(symmetric(n))
for tag, args, expected in [
        ("contradicting equalities", ([unit(n, 0, 0)] * 2, [1.0, 2.0], [], [], []), (-1109,)),
        ("negative diagonal", ([], [], [unit(n, 1, 1)], [-2.0], [-1.0]), (-1110,)),
        ("trace 1 with X(0,0) >= 2", ([np.eye(n)], [1.0], [unit(n, 0, 0)], [2.0], [3.0]),
         (-1109, -1110))]:
    code, status, X = sdls(C, *args, 1e-8, 0.0)
    check(code == 5 and status in expected and X.any(), f"{tag}: {code} {status}")
code, status, X = sdls(matrix(np.diag([4.5, 1.0, 1.0])), [unit(3, 0, 0)], [5.0], [], [], [],
                       1.0, 0.0)
check(code == 5 and status == -1109 and X[0, 0] == 4.5, f"loose tolerance: {code} {status}")

# Non-finite data fails with -1102 and a cleared result (a NaN bound fails
# the argument scan, lower > upper: 308); in the ignored triangle it is
# harmless.
base = dict(C=matrix(symmetric(n)), A=[unit(n, 0, 0)], b=[1.0], B=[unit(n, 1, 2)], lo=[-0.1],
            up=[0.1])
for where, at in [("C", (0, 3)), ("A", (0, 3, 0)), ("b", (0,)), ("B", (0, 3, 0)),
                  ("lo", (0,)), ("up", (0,)), ("C", (3, 0))]:
    args = {k: np.array(v, dtype=float) for k, v in base.items()}
    args[where][at] = np.nan
    code, status, X = sdls(*(list(a) if k != "C" else a for k, a in args.items()), 1e-8, 0.0)
    expected = (0, 0) if at == (3, 0) else (308, 0) if where in ("lo", "up") else (5, -1102)
    check((code, status) == expected and (X.any() == (at == (3, 0))), f"NaN in {where}{at}")

# The nearest correlation matrix: unit diagonal targets with uniform
# off-diagonal entries (about half the eigenvalues negative).
def hard_target(n):
    C = np.triu(rng.uniform(-1, 1, (n, n)), 1)
    return matrix(C + C.T + np.eye(n))


for n in [5, 12, 25, 50]:
    for floor in [0.0, 0.1, 0.3]:
        C = hard_target(n)
        before = C.copy()
        code, status, X = nearest(C, 1e-7 / n, floor)
        tag = f"correlation n={n} floor={floor}"
        check(code == 0 and status == 0, f"{tag}: return {code} status {status}")
        check(np.array_equal(C, before), f"{tag}: target changed")
        Z, res = newton_reference(C - floor * np.eye(n), (1 - floor) * np.ones(n))
        check(res < 1e-9, f"{tag}: reference did not converge ({res:.3g})")
        agrees(tag, X, Z + floor * np.eye(n), C, floor, 1e-5)
        check(np.max(np.abs(np.diag(X) - 1)) <= np.sqrt(n) * 1e-7, f"{tag}: diagonal")

# A correlation matrix comes back up to the rounding of Z diag(w) Z'; for
# n = 1 the result is 1 whatever the target.
C = matrix(np.corrcoef(rng.normal(size=(40, 8)), rowvar=False))
code, status, X = nearest(C, 1e-10, 0.0)
check(code == 0 and status == 0 and np.max(np.abs(X - C)) < 1e-14, "correlation target moved")
for value in [-3.0, 0.0, 7.5]:
    code, status, X = nearest(matrix([[value]]), 1e-12, 0.0)
    check(code == 0 and status == 0 and abs(X[0, 0] - 1) <= 1e-12, f"n=1 target {value}")

# A loose tolerance is reported as success all the same, with a diagonal
# visibly off 1: the status comes from the last eigen-decomposition only.
code, status, X = nearest(hard_target(30), 1e-2, 0.0)
check(code == 0 and status == 0, f"loose tolerance: {code} {status}")
check(np.max(np.abs(np.diag(X) - 1)) > 1e-6, "loose tolerance: diagonal too good to be loose")

# Bad input: a NaN or an infinity in the read triangle fails with -1102 and
# a cleared result; a floor outside [0, 1) is refused by the argument test
# (304), a tolerance that is not positive too (303).  Between the largest
# accepted floor and 1 the engine itself refuses (-2001); at that floor,
# 0.999999999999999, it still solves: X is the identity to within 1 - floor.
C = hard_target(6)
for bad in [np.nan, np.inf, -np.inf]:
    D = C.copy()
    D[1, 4] = bad
    code, status, X = nearest(D, 1e-8, 0.0)
    check(code == 5 and status == -1102 and not X.any(), f"{bad} in target: {code} {status}")
for tol, floor, expected in [(1e-8, 1.0, (304, 0)), (1e-8, -0.1, (304, 0)),
                             (1e-8, np.nan, (304, 0)), (0.0, 0.0, (303, 0)),
                             (np.nan, 0.0, (303, 0)), (1e-8, 0.9999999999999995, (5, -2001))]:
    check(nearest(C, tol, floor)[:2] == expected, f"tolerance {tol} floor {floor}")
code, status, X = nearest(C, 1e-8, 0.999999999999999)
check(code == 0 and status == 0 and np.max(np.abs(X - np.eye(6))) < 1e-13, "largest floor")

finish()
