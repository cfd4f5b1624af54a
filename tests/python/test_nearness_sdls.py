#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Semi-definite least squares through ORXmodelingSDLS against cvxopt's
interior-point cone QP solver (coneqp), an independent method on the primal
problem: X is parametrised by its upper triangle, the objective is the
squared Frobenius distance, X - s I lies in the semi-definite cone, the
equalities are rows of A x = b and the two-sided inequalities two rows each
of the linear cone.

Tolerances.  coneqp runs with absolute, relative and feasibility tolerances
of 1e-10; the library with tolerance 1e-7 / M (rms constraint residual at
most 1e-7: much below 1e-8 its dual cannot go, since the dual value is known
to 1e-16 relative and a step of residual r gains only about r^2).  The optimum is unique (strongly convex objective), so both
results agree to about the square root of the solvers' accuracy in the
worst case; we hold the relative difference of the distances to 1e-6 and
the elements to 1e-4, the constraints to the library's own check 1e-5 and
the smallest eigenvalue to the floor less 1e-8."""
import numpy as np
from cvxopt import matrix as cvx, solvers

from lumbra_ctypes import arr, call, f64, i32, matrix, check, finish

solvers.options.update(show_progress=False, abstol=1e-10, reltol=1e-10, feastol=1e-10,
                       maxiters=200)
rng = np.random.default_rng(41)
def sdls(C, A, b, B, lo, up, tol, floor):
    """Calls the export with lists of constraint matrices; returns
    (code, status, X)."""
    n = C.shape[0]
    eq = matrix(np.hstack(A) if A else np.zeros((n, 0)))
    ineq = matrix(np.hstack(B) if B else np.zeros((n, 0)))
    b, lo, up = (matrix(np.asarray(v, dtype=float).reshape(-1)) for v in (b, lo, up))
    X = np.zeros((n, n))
    code, status = call("ORXmodelingSDLS", i32(n), arr(C), i32(len(A)), arr(eq), arr(b),
                        i32(len(B)), arr(ineq), arr(lo), arr(up), f64(tol), f64(floor), arr(X))
    return code, status, X


def reference(C, A, b, B, lo, up, floor):
    """The same problem by cvxopt.coneqp, with Csym from the upper triangle
    and the constraint matrices symmetrised."""
    n = C.shape[0]
    iu = np.triu_indices(n)
    nv = len(iu[0])
    E = np.zeros((nv, n, n))
    for k, (i, j) in enumerate(zip(*iu)):
        E[k, i, j] = E[k, j, i] = 1.0
    weight = np.where(iu[0] == iu[1], 1.0, 2.0)
    Cs = np.triu(C) + np.triu(C, 1).T
    P = np.diag(weight)
    q = -weight * Cs[iu]
    def row(M):
        return np.einsum("kij,ij->k", E, (M + M.T) / 2)
    Gl = [row(Bj) for Bj in B] + [-row(Bj) for Bj in B]
    hl = list(up) + [-v for v in lo]
    Gs = -E.reshape(nv, n * n).T
    hs = -floor * np.eye(n).reshape(-1)
    G = np.vstack(Gl + [Gs]) if Gl else Gs
    h = np.concatenate([np.array(hl, dtype=float), hs])
    dims = {"l": len(Gl), "q": [], "s": [n]}
    args = {}
    if A:
        args = {"A": cvx(np.array([row(Ai) for Ai in A])), "b": cvx(np.asarray(b, dtype=float))}
    sol = solvers.coneqp(cvx(P), cvx(q), cvx(G), cvx(h), dims, **args)
    x = np.array(sol["x"]).reshape(-1)
    return np.einsum("k,kij->ij", x, E), sol["status"]


def random_symmetric(n, scale=1.0):
    M = rng.normal(0, scale, (n, n))
    return (M + M.T) / 2


def compare(tag, C, A, b, B, lo, up, floor, asymmetric=False):
    Csym = np.triu(C) + np.triu(C, 1).T
    M = len(A) + 2 * len(B)
    code, status, X = sdls(C, A, b, B, lo, up, 1e-7 / max(M, 1), floor)
    # The tolerance asks for residuals near the end of double precision, so
    # the line search may run out of digits first (1106, result usable):
    # where exactly depends on the BLAS's roundings, and the reference
    # library's come out there on one of these problems.  The result must
    # meet every check below either way.
    check((code, status) in ((0, 0), (6, 1106)), f"{tag}: return {code} status {status}")
    check(np.array_equal(X, X.T), f"{tag}: result not exactly symmetric")
    Xr, how = reference(C, A, b, B, lo, up, floor)
    check(how == "optimal", f"{tag}: reference ended {how}")
    dist, dref = np.linalg.norm(X - Csym), np.linalg.norm(Xr - Csym)
    check(abs(dist - dref) <= 1e-6 * dref, f"{tag}: distance {dist!r} vs reference {dref!r}")
    check(np.max(np.abs(X - Xr)) < 1e-4, f"{tag}: away from the reference")
    check(np.linalg.eigvalsh(X)[0] >= floor - 1e-8, f"{tag}: smallest eigenvalue")
    for Ai, bi in zip(A, b):
        check(abs(np.trace(Ai @ X) - bi) <= 1e-5, f"{tag}: equality missed")
    for Bj, l, u in zip(B, lo, up):
        t = np.trace(Bj @ X)
        check(l - 1e-5 <= t <= u + 1e-5, f"{tag}: inequality violated")
    return X


def unit(n, i, j):
    """Constraint matrix picking X(i, j) (symmetric)."""
    E = np.zeros((n, n))
    E[i, j] += 0.5
    E[j, i] += 0.5
    return E


# Equalities: fixed entries and random symmetric constraints, consistent by
# construction (right-hand sides from a semi-definite X0 above the floor).
for n, m, floor in [(4, 2, 0.0), (6, 4, 0.0), (8, 5, 0.2), (10, 8, 0.05)]:
    C = random_symmetric(n) + rng.normal(size=(n, n)) * 0  # indefinite target
    L = rng.normal(size=(n, n))
    X0 = L @ L.T / n + floor * np.eye(n)
    A = [unit(n, 0, 0), unit(n, 0, n - 1)] + [random_symmetric(n) for _ in range(m - 2)]
    b = [np.trace(Ai @ X0) for Ai in A]
    compare(f"equalities n={n} m={m} floor={floor}", matrix(C), A, b, [], [], [], floor)

# Two-sided inequalities, some active at the optimum, with and without
# equalities.
for n, m, p, floor in [(5, 0, 3, 0.0), (7, 1, 4, 0.1), (9, 2, 6, 0.0)]:
    C = random_symmetric(n)
    L = rng.normal(size=(n, n))
    X0 = L @ L.T / n + floor * np.eye(n)
    A = [np.eye(n)][:m] + [random_symmetric(n) for _ in range(m - 1)]
    b = [np.trace(Ai @ X0) for Ai in A]
    B = [random_symmetric(n) for _ in range(p)]
    mid = [np.trace(Bj @ X0) for Bj in B]
    width = rng.uniform(0.05, 0.5, p)
    compare(f"inequalities n={n} m={m} p={p} floor={floor}", matrix(C), A, b, B,
            [v - w for v, w in zip(mid, width)], [v + w for v, w in zip(mid, width)], floor)

# Asymmetric constraint matrices: the solver works with their symmetric
# parts, the check with trace(A X) as given; the same X as with sym(A).
n = 6
C = matrix(random_symmetric(n))
A = [rng.normal(size=(n, n)) for _ in range(3)]
B = [rng.normal(size=(n, n)) for _ in range(2)]
L = rng.normal(size=(n, n))
X0 = L @ L.T / n
b = [np.trace(Ai @ X0) for Ai in A]
mid = [np.trace(Bj @ X0) for Bj in B]
lo, up = [v - 0.1 for v in mid], [v + 0.1 for v in mid]
Xa = compare("asymmetric constraints", C, A, b, B, lo, up, 0.0)
_, _, Xs = sdls(C, [(M + M.T) / 2 for M in A], b, [(M + M.T) / 2 for M in B], lo, up,
                1e-7 / 7, 0.0)
check(np.max(np.abs(Xa - Xs)) < 1e-12, "asymmetric constraints: differs from sym(A)")

# The lower triangle of the target is never read: the same bits.
C = matrix(rng.normal(size=(n, n)))
C2 = C.copy()
C2[np.tril_indices(n, -1)] = rng.normal(size=n * (n - 1) // 2)
r1 = sdls(C, A, b, B, lo, up, 1e-9, 0.1)
r2 = sdls(C2, A, b, B, lo, up, 1e-9, 0.1)
check(r1[0] == r2[0] and r1[1] == r2[1] and np.array_equal(r1[2], r2[2]),
      "lower triangle of the target was read")

# No constraints: the closed form, eigenvalues of the upper triangle's
# symmetric matrix raised to the floor (those below 1e-30 to 1e-30, then s
# added back).
for n, floor in [(1, 0.0), (5, 0.0), (12, 0.3)]:
    C = matrix(rng.normal(size=(n, n)))
    Csym = np.triu(C) + np.triu(C, 1).T
    w, Q = np.linalg.eigh(Csym - floor * np.eye(n))
    expected = (Q * np.maximum(w, 1e-30)) @ Q.T + floor * np.eye(n)
    code, status, X = sdls(C, [], [], [], [], [], 1e-8, floor)
    check(code == 0 and status == 0, f"unconstrained n={n}: {code} {status}")
    check(np.max(np.abs(X - expected)) < 1e-12 * max(1, np.abs(w).max()),
          f"unconstrained n={n}: {np.max(np.abs(X - expected)):.3g} from the clipping")
code, status, X = sdls(matrix([[-2.0]]), [], [], [], [], [], 1e-8, 0.0)
check(code == 0 and status == 0 and X[0, 0] == 1.0000000031710769e-30, f"n=1 negative: {X}")

# Inconsistent constraints end in the verification, with the result written.
n = 4
C = matrix(random_symmetric(n))
code, status, X = sdls(C, [unit(n, 0, 0), unit(n, 0, 0)], [1.0, 2.0], [], [], [], 1e-8, 0.0)
check(code == 5 and status == -1109 and X.any(), f"contradicting equalities: {code} {status}")
code, status, X = sdls(C, [], [], [unit(n, 1, 1)], [-2.0], [-1.0], 1e-8, 0.0)
check(code == 5 and status == -1110 and X.any(), f"negative diagonal wanted: {code} {status}")
code, status, X = sdls(C, [np.eye(n)], [1.0], [unit(n, 0, 0)], [2.0], [3.0], 1e-8, 0.0)
check(code == 5 and status in (-1109, -1110) and X.any(),
      f"trace 1 with X(0,0) >= 2: {code} {status}")

# A loose tolerance stops the dual at once (residual 0.5 <= 1 * 1.0); the
# check on the result then reports the missed equality.
C = matrix(np.diag([4.5, 1.0, 1.0]))
code, status, X = sdls(C, [unit(3, 0, 0)], [5.0], [], [], [], 1.0, 0.0)
check(code == 5 and status == -1109 and X[0, 0] == 4.5, f"loose tolerance: {code} {status}")

# Non-finite data fails up front with -1102 and a cleared result; a
# non-finite value in the ignored triangle of the target is harmless.
n = 4
base = dict(C=matrix(random_symmetric(n)), A=[unit(n, 0, 0)], b=[1.0], B=[unit(n, 1, 2)],
            lo=[-0.1], up=[0.1])
for bad in [np.nan, np.inf]:
    for where in ["C", "A", "b", "B", "lo", "up"]:
        args = {k: [np.array(x, dtype=float) for x in v] if isinstance(v, list) else v.copy()
                for k, v in base.items()}
        if where == "C":
            args["C"][0, 3] = bad
        elif where in ("A", "B"):
            args[where][0][3, 0] = bad
        else:
            args[where][0] = bad
        code, status, X = sdls(args["C"], args["A"], args["b"], args["B"], args["lo"],
                               args["up"], 1e-8, 0.0)
        ok = code == 5 and status == -1102 and not X.any()
        if where == "lo" and bad == np.inf or where in ("lo", "up") and np.isnan(bad):
            # The argument scan refuses lower > upper, and a NaN bound fails it.
            ok = code == 308 and status == 0 and not X.any()
        check(ok, f"{bad} in {where}: {code} {status}")
    C = base["C"].copy()
    C[3, 0] = bad
    code, status, X = sdls(C, [], [], [], [], [], 1e-8, 0.0)
    check(code == 0 and status == 0 and np.isfinite(X).all(), f"{bad} below the diagonal")

# Work sizes beyond memory: return 2 before anything is read or converted.
X = np.zeros((2, 2))
small = np.zeros(4)
code, status = call("ORXmodelingSDLS", i32(2), arr(matrix(np.eye(2))), i32(2**30), arr(small),
                    arr(small), i32(0), arr(small), arr(small), arr(small), f64(1e-8),
                    f64(0.0), arr(X))
check(code == 2 and status == 0 and not X.any(), f"huge nEq: {code} {status}")

finish()
