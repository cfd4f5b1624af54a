#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Nearest correlation matrix through ORXmodelingSDLScorr against an
independent reference: a semismooth Newton method on the dual, written here
in numpy and solved to a diagonal residual below 1e-9 (mostly 1e-13).

The reference treats the floor differently from the library: it writes
X = s I + Z with Z semi-definite and diag(Z) = 1 - s, where the library
shifts and scales the target.  Both are the same problem, so the optima must
agree.

Tolerances.  The library stops when the root mean square of the diagonal
residual is at most n * tolerance; we pass tolerance = 1e-7 / n, so the rms
residual is at most 1e-7 and no diagonal element misses 1 by more than
sqrt(n) * 1e-7.  (Much below 1e-8 the dual cannot go: its value, about
||X||^2 / 2, is known to 1e-16 relative, and near the optimum a step of
residual r gains only about r^2.)  The distance to the target is the optimum
of a strongly convex problem and a residual r in the constraints moves it
by O(r): the relative difference of the distances is held to 1e-6, the
elements to 1e-5, the smallest eigenvalue to the floor less 1e-8 (negative
eigenvalues are raised to 1e-30, and the diagonal residual does not touch
the eigenvalues of the projection)."""
import numpy as np

from lumbra_ctypes import arr, call, f64, i32, matrix, check, finish

rng = np.random.default_rng(11)
def project_psd(S):
    """Projection on the semi-definite cone; eigenvalues and vectors too."""
    w, P = np.linalg.eigh((S + S.T) / 2)
    return (P * np.maximum(w, 0)) @ P.T, w, P


def reference(G, b):
    """min 1/2 ||Z - G||^2 over Z semi-definite with diag(Z) = b, by Newton's
    method on the dual theta(y) = 1/2 ||Pi(G + Diag y)||^2 - b'y."""
    n = G.shape[0]
    y = b - np.diag(G)
    for _ in range(200):
        Z, w, P = project_psd(G + np.diag(y))
        F = np.diag(Z) - b
        if np.linalg.norm(F) < 1e-13:
            break
        pos = w > 0
        # Generalised Jacobian: V h = diag(P (Omega o (P' Diag(h) P)) P')
        Om = np.zeros((n, n))
        wp, wn = w[pos][:, None], w[~pos][None, :]
        Om[np.ix_(pos, pos)] = 1.0
        if pos.any() and (~pos).any():
            Om[np.ix_(pos, ~pos)] = wp / (wp - wn)
            Om[np.ix_(~pos, pos)] = Om[np.ix_(pos, ~pos)].T
        M = np.einsum("ki,kj->kij", P, P).reshape(n, n * n)
        V = M @ (Om.reshape(-1)[:, None] * M.T) + 1e-12 * np.eye(n)
        d = np.linalg.solve(V, -F)
        theta = 0.5 * np.sum(Z * Z) - b @ y
        t = 1.0
        for _ in range(40):
            Zt, _, _ = project_psd(G + np.diag(y + t * d))
            if 0.5 * np.sum(Zt * Zt) - b @ (y + t * d) <= theta + 1e-4 * t * (F @ d):
                break
            t /= 2
        else:  # the decrease is below the rounding of theta: take the full step
            t = 1.0
        y = y + t * d
    Z, _, _ = project_psd(G + np.diag(y))
    return Z, np.linalg.norm(np.diag(Z) - b)


def nearest(C, tol, floor):
    n = C.shape[0]
    out = np.zeros((n, n))
    code, status = call("ORXmodelingSDLScorr", i32(n), arr(C), f64(tol), f64(floor), arr(out))
    return code, status, out


def hard_target(n):
    """Unit diagonal, uniform off-diagonal entries: about half the
    eigenvalues negative."""
    A = rng.uniform(-1, 1, (n, n))
    C = np.triu(A, 1)
    return matrix(C + C.T + np.eye(n))


for n in [5, 12, 25, 50]:
    for floor in [0.0, 0.1, 0.3]:
        C = hard_target(n)
        before = C.copy()
        tol = 1e-7 / n
        code, status, X = nearest(C, tol, floor)
        tag = f"n={n} floor={floor}"
        check(code == 0 and status == 0, f"{tag}: return {code} status {status}")
        check(np.array_equal(C, before), f"{tag}: target changed")
        check(np.array_equal(X, X.T), f"{tag}: result not exactly symmetric")
        Z, res = reference(C - floor * np.eye(n), (1 - floor) * np.ones(n))
        Xr = Z + floor * np.eye(n)
        check(res < 1e-9, f"{tag}: reference did not converge ({res:.3g})")
        dist, dref = np.linalg.norm(X - C), np.linalg.norm(Xr - C)
        check(abs(dist - dref) <= 1e-6 * dref, f"{tag}: distance {dist!r} vs {dref!r}")
        check(np.max(np.abs(X - Xr)) < 1e-5, f"{tag}: away from the reference")
        check(np.linalg.eigvalsh(X)[0] >= floor - 1e-8, f"{tag}: smallest eigenvalue")
        check(np.max(np.abs(np.diag(X) - 1)) <= np.sqrt(n) * 1e-7, f"{tag}: diagonal {np.max(np.abs(np.diag(X) - 1)):.3g} rms {np.sqrt(np.mean((np.diag(X) - 1)**2)):.3g}")

# The lower triangle of the target is never read: garbage there changes
# nothing, to the bit.
C = hard_target(20)
_, _, X1 = nearest(C, 1e-10, 0.1)
C2 = C.copy()
C2[np.tril_indices(20, -1)] = rng.normal(size=190)
_, _, X2 = nearest(C2, 1e-10, 0.1)
check(np.array_equal(X1, X2), "lower triangle of the target was read")

# A target that already is a correlation matrix: zero gradient at the start,
# so it comes back up to the rounding of Z diag(w) Z'.
R = rng.normal(size=(40, 8))
C = matrix(np.corrcoef(R, rowvar=False))
code, status, X = nearest(C, 1e-10, 0.0)
check(code == 0 and status == 0, f"correlation target: {code} {status}")
check(np.max(np.abs(X - C)) < 1e-14, f"correlation target moved {np.max(np.abs(X - C)):.3g}")

# n = 1: the diagonal is 1 whatever the target.
for value in [-3.0, 0.0, 7.5]:
    code, status, X = nearest(matrix([[value]]), 1e-12, 0.0)
    check(code == 0 and status == 0 and abs(X[0, 0] - 1) <= 1e-12, f"n=1 target {value}: {X}")

# A loose tolerance is reported as success all the same, with a diagonal
# visibly off 1: the status comes from the last eigen-decomposition only.
C = hard_target(30)
code, status, X = nearest(C, 1e-2, 0.0)
check(code == 0 and status == 0, f"loose tolerance: {code} {status}")
check(np.max(np.abs(np.diag(X) - 1)) > 1e-6, "loose tolerance: diagonal too good to be loose")

# Bad input: a NaN or an infinity in the read triangle fails with -1102 and
# a cleared result; in the ignored triangle it is harmless.  A floor of 1 or
# more is refused by the argument test, a non-positive tolerance too.
for bad in [np.nan, np.inf, -np.inf]:
    C = hard_target(6)
    C[1, 4] = bad
    code, status, X = nearest(C, 1e-8, 0.0)
    check(code == 5 and status == -1102 and not X.any(), f"{bad} in target: {code} {status}")
    C = hard_target(6)
    C[4, 1] = bad
    code, status, X = nearest(C, 1e-8, 0.0)
    check(code == 0 and status == 0 and np.isfinite(X).all(), f"{bad} below: {code} {status}")
C = hard_target(4)
for floor, expected in [(1.0, 304), (1.5, 304), (-0.1, 304), (np.nan, 304)]:
    code, status, X = nearest(C, 1e-8, floor)
    check(code == expected and status == 0 and not X.any(), f"floor {floor}: {code}")
for tol in [0.0, -1.0, np.nan]:
    code, status, X = nearest(C, tol, 0.0)
    check(code == 303 and status == 0, f"tolerance {tol}: {code}")
# Between the largest accepted floor and 1 the engine itself refuses; at
# that floor, 0.999999999999999, it still solves: X is the identity to
# within the distance 1 - floor allows.
code, status, X = nearest(C, 1e-8, 0.9999999999999995)
check(code == 5 and status == -2001, f"floor just below 1: {code} {status}")
code, status, X = nearest(C, 1e-8, 0.999999999999999)
check(code == 0 and status == 0 and np.max(np.abs(X - np.eye(4))) < 1e-13,
      f"largest floor: {code} {status}")

finish()
