# SPDX-License-Identifier: Apache-2.0
"""The QP driver (through the helper program lumbra_qp_cli next to the shared
library) against cvxopt on random strictly convex problems: feasibility, the
KKT conditions with the returned multipliers, and the optimum against
cvxopt's.  cvxopt stops at a relative gap of about 1e-7, so objectives agree
to 1e-6 relative and the unique minimisers to 1e-4; the active-set answer is
exact to rounding, so feasibility and KKT residuals are held to 1e-9 and 1e-8."""
import os
import subprocess
import sys

import numpy as np
from cvxopt import matrix, solvers

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from lumbra_ctypes import report  # noqa: E402

solvers.options.update(show_progress=False, abstol=1e-9, reltol=1e-9, feastol=1e-9)
LIB = os.environ.get("LUMBRA_LIBRARY", "")
CLI = os.environ.get("LUMBRA_QP_CLI",
                     os.path.join(os.path.dirname(LIB), "tests", "qp", "lumbra_qp_cli"))


def run_driver(H, c, Ceq, deq, Cin, din, lo, up):
    n = len(c)
    parts = [f"{n} {Ceq.shape[1]} {Cin.shape[1]}"] + [
        " ".join(repr(float(v)) for v in a)
        for a in (H.flatten(order="F"), c, np.hstack([Ceq, Cin]).flatten(order="F"),
                  np.concatenate([deq, din]), lo, up)]
    out = subprocess.run([CLI], input="\n".join(parts), capture_output=True, text=True,
                         check=True).stdout.split()
    return int(out[0]), np.array(out[1:1 + n], float), np.array(out[1 + n:], float)


def run_cvxopt(H, c, Ceq, deq, Cin, din, lo, up):
    n = len(c)
    kw = {"A": matrix(Ceq.T.copy()), "b": matrix(deq.copy())} if Ceq.shape[1] else {}
    sol = solvers.qp(matrix(H), matrix(c), matrix(np.vstack([Cin.T, -np.eye(n), np.eye(n)])),
                     matrix(np.concatenate([din, -lo, up])), **kw)
    return sol["status"], np.array(sol["x"]).ravel()


def main():
    if not os.access(CLI, os.X_OK):
        print(f"helper program not found: {CLI}")
        report(1, 1)
    rng = np.random.default_rng(7)
    failures = total = 0
    for n in (3, 10, 25, 50, 100):
        for rep in range(3):
            me, mi = rep % 3, n // 3 + rep
            # Random problem around an interior point x0 of the bounds.
            A = rng.standard_normal((n, n))
            H = A.T @ A / n + 0.05 * np.eye(n)
            x0 = rng.uniform(0.0, 1.0, n)
            lo, up = x0 - rng.uniform(0.0, 1.0, n), x0 + rng.uniform(0.0, 1.0, n)
            Ceq = rng.standard_normal((n, me))
            Ceq[:, :1] = 1.0
            deq = Ceq.T @ x0
            Cin = rng.standard_normal((n, mi))
            din = Cin.T @ x0 + 0.1 * rng.uniform(0.0, 1.0, mi)
            c = 2.0 * rng.standard_normal(n)
            prob = (H, c, Ceq, deq, Cin, din, lo, up)
            status, x, mult = run_driver(*prob)
            cstat, xc = run_cvxopt(*prob)
            f, fc = 0.5 * x @ H @ x + c @ x, 0.5 * xc @ H @ xc + c @ xc
            viol = max(0.0, *np.abs(Ceq.T @ x - deq), *(Cin.T @ x - din), *(lo - x), *(x - up))
            mb, meq, mineq = mult[:n], mult[n:n + me], mult[n + me:]
            stat = np.max(np.abs(H @ x + c + mb + Ceq @ meq + Cin @ mineq))
            # Inequality and upper-bound multipliers >= 0, lower-bound ones
            # <= 0, and a bound not reached carries none.
            sign = max(0.0, *-mineq, *mb[np.abs(x - up) > 1e-9], *-mb[np.abs(x - lo) > 1e-9])
            comp = max(0.0, *np.abs(mineq * (Cin.T @ x - din)))
            dx = np.max(np.abs(x - xc))
            total += 1
            if not (status == 0 and cstat == "optimal" and viol < 1e-9 and sign < 1e-9
                    and stat < 1e-8 * max(1.0, np.max(np.abs(c))) and comp < 1e-9
                    and abs(f - fc) <= 1e-6 * (1.0 + abs(fc)) and dx < 1e-4):
                failures += 1
                print(f"FAIL n={n} rep={rep}: status={status} cvxopt={cstat} viol={viol:.2e} "
                      f"stat={stat:.2e} sign={sign:.2e} comp={comp:.2e} f={f:.12g} fc={fc:.12g} "
                      f"dx={dx:.2e}")
    # An empty feasible set (budget 10 on six weights in [0, 1]): status 1001.
    n = 6
    status, _, _ = run_driver(np.eye(n), np.zeros(n), np.ones((n, 1)), np.array([10.0]),
                              np.zeros((n, 0)), np.zeros(0), np.zeros(n), np.ones(n))
    total += 1
    if status != 1001:
        failures += 1
        print(f"FAIL infeasible: status {status}")
    report(failures, total)


if __name__ == "__main__":
    main()
