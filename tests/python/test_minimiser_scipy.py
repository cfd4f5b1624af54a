"""The minimiser n2qn1 (through the helper program lumbra_minimiser_cli next
to the shared library) against scipy's L-BFGS-B on random strictly convex
smooth problems in boxes: f = 0.5 x'Ax - b'x + 0.25 sum c_i x_i^4 with A
positive definite (smallest eigenvalue >= 0.2) and c >= 0, so the minimiser
is unique.  n2qn1 stops when the root mean square of the free gradient is
at most 1e-10 n, or (mode 6) when the line search finds no decrease left
above the rounding of f, which on the larger problems comes first;
L-BFGS-B is run to a projected gradient of 1e-12.  The
strong convexity then bounds each distance to the minimiser by about
1e-8, so the two answers must agree to 1e-7, their values to 1e-10
relative, and the n2qn1 answer must meet the KKT conditions to 1e-7."""
import os
import subprocess
import sys

import numpy as np
from scipy.optimize import minimize

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from lumbra_ctypes import report  # noqa: E402

LIB = os.environ.get("LUMBRA_LIBRARY", "")
CLI = os.environ.get("LUMBRA_MINIMISER_CLI",
                     os.path.join(os.path.dirname(LIB), "tests", "nearness",
                                  "lumbra_minimiser_cli"))


def objective(A, b, c):
    def fg(x):
        ax = A @ x
        return x @ (0.5 * ax - b) + 0.25 * c @ x**4, ax - b + c * x**3
    return fg


def run_cli(A, b, c, lo, up, x0):
    n = len(b)
    parts = [str(n)] + [" ".join(repr(float(v)) for v in a)
                        for a in (A.flatten(order="F"), b, c, lo, up, x0)]
    out = subprocess.run([CLI], input="\n".join(parts), capture_output=True, text=True,
                         check=True).stdout.split()
    return int(out[0]), int(out[1]), int(out[2]), float(out[3]), np.array(out[4:], float)


def main():
    if not os.access(CLI, os.X_OK):
        print(f"helper program not found: {CLI}")
        report(1, 1)
    rng = np.random.default_rng(2024)
    failures = total = 0
    for n in (1, 2, 5, 10, 20, 40):
        for rep in range(3):
            B = rng.standard_normal((n, n))
            A = B @ B.T / n + 0.2 * np.eye(n)
            b = 3.0 * rng.standard_normal(n)
            c = rng.uniform(0.0, 0.5, n) if rep else np.zeros(n)
            lo = -rng.uniform(0.1, 1.5, n)
            up = rng.uniform(0.1, 1.5, n)
            x0 = rng.uniform(lo, up)
            fg = objective(A, b, c)
            mode, iters, nsim, f, x = run_cli(A, b, c, lo, up, x0)
            ref = minimize(fg, x0, jac=True, method="L-BFGS-B", bounds=list(zip(lo, up)),
                           options={"ftol": 0.0, "gtol": 1e-12, "maxiter": 10000,
                                    "maxcor": 20})
            g = fg(x)[1]
            tol = 1e-7
            free = (x > lo + tol) & (x < up - tol)
            kkt = max(0.0, *np.abs(g[free]), *g[x >= up - tol], *-g[x <= lo + tol])
            viol = max(0.0, *(lo - x), *(x - up))
            dx = np.max(np.abs(x - ref.x))
            total += 1
            if not (mode in (1, 6) and dx < 1e-7 and kkt < 1e-7 and viol < 1e-14
                    and f <= ref.fun + 1e-10 * (1.0 + abs(ref.fun))):
                failures += 1
                print(f"FAIL n={n} rep={rep}: mode={mode} iter={iters} nsim={nsim} dx={dx:.2e} "
                      f"kkt={kkt:.2e} viol={viol:.2e} f={f:.15g} scipy={ref.fun:.15g}")
    report(failures, total)


if __name__ == "__main__":
    main()
