"""The QP driver against cvxopt on random strictly convex problems.

The driver runs through the helper program lumbra_qp_cli (built in the test
tree next to the shared library).  For every problem the test checks what
is true of a correct answer: feasibility, the KKT conditions with the
returned multipliers, and the optimal value against cvxopt's interior-point
solution.  Tolerances: cvxopt stops at a relative gap of about 1e-7, so the
objectives agree to 1e-6 relative and the (unique) minimisers to 1e-4; the
active-set solution itself is exact to rounding, so its feasibility and KKT
residuals are held to 1e-9 and 1e-8."""
import os
import subprocess
import sys

import numpy as np
from cvxopt import matrix, solvers

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from lumbra_ctypes import report  # noqa: E402

solvers.options["show_progress"] = False
solvers.options["abstol"] = 1e-9
solvers.options["reltol"] = 1e-9
solvers.options["feastol"] = 1e-9

LIB = os.environ.get("LUMBRA_LIBRARY", "")
CLI = os.environ.get("LUMBRA_QP_CLI",
                     os.path.join(os.path.dirname(LIB), "tests", "qp", "lumbra_qp_cli"))


def run_driver(H, c, Ceq, deq, Cin, din, lo, up):
    n = len(c)
    C = np.hstack([Ceq, Cin]) if Ceq.size or Cin.size else np.zeros((n, 0))
    d = np.concatenate([deq, din])
    parts = [f"{n} {Ceq.shape[1]} {Cin.shape[1]}"]
    for a in (H.flatten(order="F"), c, C.flatten(order="F"), d, lo, up):
        parts.append(" ".join(repr(float(v)) for v in a))
    out = subprocess.run([CLI], input="\n".join(parts), capture_output=True, text=True,
                         check=True).stdout.split()
    status = int(out[0])
    x = np.array([float(v) for v in out[1:1 + n]])
    mult = np.array([float(v) for v in out[1 + n:]])
    return status, x, mult


def run_cvxopt(H, c, Ceq, deq, Cin, din, lo, up):
    n = len(c)
    G = np.vstack([Cin.T, -np.eye(n), np.eye(n)])
    h = np.concatenate([din, -lo, up])
    kw = {}
    if Ceq.shape[1]:
        kw = {"A": matrix(Ceq.T.copy()), "b": matrix(deq.copy())}
    sol = solvers.qp(matrix(H), matrix(c), matrix(G), matrix(h), **kw)
    return sol["status"], np.array(sol["x"]).ravel()


def problem(rng, n, me, mi):
    A = rng.standard_normal((n, n))
    H = A.T @ A / n + 0.05 * np.eye(n)
    x0 = rng.uniform(0.0, 1.0, n)
    lo = x0 - rng.uniform(0.0, 1.0, n)
    up = x0 + rng.uniform(0.0, 1.0, n)
    Ceq = rng.standard_normal((n, me))
    if me:
        Ceq[:, 0] = 1.0
    deq = Ceq.T @ x0
    Cin = rng.standard_normal((n, mi))
    din = Cin.T @ x0 + 0.1 * rng.uniform(0.0, 1.0, mi)
    c = 2.0 * rng.standard_normal(n)
    return H, c, Ceq, deq, Cin, din, lo, up


def main():
    if not os.access(CLI, os.X_OK):
        print(f"helper program not found: {CLI}")
        report(1, 1)
    rng = np.random.default_rng(7)
    failures = 0
    total = 0
    for n in (3, 10, 25, 50, 100):
        for rep in range(3):
            me, mi = rep % 3, n // 3 + rep
            H, c, Ceq, deq, Cin, din, lo, up = problem(rng, n, me, mi)
            status, x, mult = run_driver(H, c, Ceq, deq, Cin, din, lo, up)
            cstat, xc = run_cvxopt(H, c, Ceq, deq, Cin, din, lo, up)
            total += 1
            f = 0.5 * x @ H @ x + c @ x
            fc = 0.5 * xc @ H @ xc + c @ xc
            viol = max([0.0] + list(np.abs(Ceq.T @ x - deq)) + list(Cin.T @ x - din)
                       + list(lo - x) + list(x - up))
            mb, meq, min_ = mult[:n], mult[n:n + me], mult[n + me:]
            stat = H @ x + c + mb + Ceq @ meq + Cin @ min_
            # upper-bound multipliers are >= 0, lower-bound ones <= 0, and a
            # bound that is not reached carries none
            sign = max([0.0] + list(-min_) + list(mb[np.abs(x - up) > 1e-9])
                       + list(-mb[np.abs(x - lo) > 1e-9]))
            comp = max([0.0] + list(np.abs(min_ * (Cin.T @ x - din))))
            ok = (status == 0 and cstat == "optimal" and viol < 1e-9
                  and np.max(np.abs(stat)) < 1e-8 * max(1.0, np.max(np.abs(c)))
                  and sign < 1e-9 and comp < 1e-9
                  and abs(f - fc) <= 1e-6 * (1.0 + abs(fc))
                  and np.max(np.abs(x - xc)) < 1e-4)
            if not ok:
                failures += 1
                print(f"FAIL n={n} rep={rep}: status={status} cvxopt={cstat} viol={viol:.2e} "
                      f"stat={np.max(np.abs(stat)):.2e} sign={sign:.2e} comp={comp:.2e} "
                      f"f={f:.12g} fc={fc:.12g} dx={np.max(np.abs(x - xc)):.2e}")
    # An empty feasible set: the driver says 1001 where cvxopt finds no point.
    n = 6
    H = np.eye(n)
    c = np.zeros(n)
    Ceq = np.ones((n, 1))
    status, _, _ = run_driver(H, c, Ceq, np.array([10.0]), np.zeros((n, 0)), np.zeros(0),
                              np.zeros(n), np.ones(n))
    total += 1
    if status != 1001:
        failures += 1
        print(f"FAIL infeasible: status {status}")
    report(failures, total)


if __name__ == "__main__":
    main()
