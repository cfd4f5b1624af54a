#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpus of the fuzz targets into tests/fuzz/corpus/.

Each seed is a readable call encoded in the byte format that
fuzz_input.h decodes: sizes as one byte (value - lower end of the range),
doubles as a tag byte 0 and their eight little-endian IEEE bytes, so every
number reaches the export bit for bit.  The seeds cover every export with
ordinary data, refused arguments, and the bad and degenerate inputs that
once broke the library (their names start with "regress_").  Inputs
that fuzzing found and that are kept byte for byte as it wrote them have
names starting with "found_"; this script leaves them in place.

Run it after changing a seed or the format; the files are committed.
"""
import math
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
NAN = math.nan
INF = math.inf
NO_NULL = 0


class Seed:
    def __init__(self):
        self.b = bytearray()

    def byte(self, v):
        self.b.append(v & 0xFF)
        return self

    def size(self, v, lo):
        return self.byte(v - lo)

    def null(self, k=None):
        return self.byte(NO_NULL if k is None else 0xF0 + k)

    def reals(self, xs):
        for x in xs:
            self.b.append(0)
            self.b += struct.pack("<d", x)
        return self

    def square(self, rows, mode=0):
        """mode 0: every element (row-major); 1: the diagonal; 2: lower triangle."""
        self.byte(mode)
        n = len(rows)
        for r in range(n):
            for c in range(n):
                if (mode == 1 and r != c) or (mode == 2 and c > r):
                    continue
                self.reals([rows[r][c]])
        return self


def diag(values):
    return [[v if r == c else 0.0 for c in range(len(values))] for r, v in enumerate(values)]


# ---- allocation ---------------------------------------------------------
MV, IT, SHARPE = 0, 1, 2


def alloc(kind, cov, mu, cons_rows, rhs, lower, upper, scalar, n_eq=0, n_ineq=None,
          bench=None, null=None, n=None, cov_mode=0, order=0):
    n_assets = len(mu)
    n_ineq = len(rhs) - n_eq if n_ineq is None else n_ineq
    s = Seed().byte(kind).null(null).size(n_assets if n is None else n, -1)
    s.size(n_eq, -1).size(n_ineq, -1)
    s.square(cov, cov_mode).reals(mu)
    if kind == IT:
        s.reals(bench[0]).reals([bench[1]])
    for row in cons_rows:
        s.reals(row)
    s.reals(rhs).byte(order).reals(lower).reals(upper).reals([scalar])
    return s


def alloc_seeds():
    cov3 = [[0.04, 0.006, 0.002], [0.006, 0.09, 0.01], [0.002, 0.01, 0.0225]]
    mu3 = [0.05, 0.10, 0.07]
    budget = [[1.0], [1.0], [1.0]]
    long_only = ([0.0] * 3, [1.0] * 3)
    seeds = {
        "mv_budget_long_only": alloc(MV, cov3, mu3, budget, [1.0], *long_only, 0.07, n_eq=1),
        "mv_no_rows": alloc(MV, cov3, mu3, [[], [], []], [], [-1.0] * 3, [2.0] * 3, 0.06),
        "it_budget": alloc(IT, cov3, mu3, budget, [1.0], *long_only, 0.01, n_eq=1,
                           bench=([0.01, 0.02, 0.015], 0.06)),
        "sharpe_long_only": alloc(SHARPE, cov3, mu3, [[], [], []], [], *long_only, 0.01),
        "sharpe_inequality": alloc(SHARPE, cov3, mu3, [[1.0], [0.0], [0.0]], [0.5], *long_only, 0.0),
        "refused_n1": alloc(MV, [[0.04]], [0.05], [[1.0]], [1.0], [0.0], [1.0], 0.0, n_eq=1),
        "refused_null_cov": alloc(MV, cov3, mu3, budget, [1.0], *long_only, 0.07, n_eq=1, null=0),
        "refused_lower_above_upper": alloc(SHARPE, cov3, mu3, budget, [1.0], [0.0, 0.5, 0.0],
                                           [1.0, 0.4, 1.0], 0.0, n_eq=1),
        "not_definite": alloc(MV, [[1.0, 2.0, 0.0], [2.0, 1.0, 0.0], [0.0, 0.0, 1.0]], mu3, budget,
                              [1.0], *long_only, 0.0, n_eq=1),
        "infeasible": alloc(MV, cov3, mu3, budget, [1.0], *long_only, 0.5, n_eq=1),
        # A heap overrun in the tracking-error allocator's feasibility stage:
        # two assets, one row sum w <= 1, wide bounds.
        "regress_it_two_assets_wide_bounds": alloc(
            IT, [[0.04, 0.0], [0.0, 0.08]], [0.05, 0.10], [[1.0], [1.0]], [1.0], [-1e5, -1e5],
            [1e5, 1e5], 0.0, bench=([0.01, 0.01], 0.05)),
        # The same overrun with five assets, no rows and zero-width bounds.
        "regress_it_five_assets_fixed_weight": alloc(
            IT, diag([0.03225, 0.01725, 0.01725, 1.626, 3.126]),
            [3.78125, -0.0003125, -3.125, -3.125, -2.8125], [[]] * 5, [],
            [3.09375, -0.0003125, -0.0003125, -2.8125, 0.031875],
            [3.09375, 0.0134375, 0.0, -2.78125, 0.063125], 0.0, cov_mode=1,
            bench=([0.031875, 0.0171875, 3.53125, 0.0378125, 0.0178125], 0.0)),
        # Exact ties in a diagonal covariance: the Sharpe allocator returned
        # weights outside their bounds.
        "regress_sharpe_tied_diagonal": alloc(
            SHARPE, diag([0.0025625, 0.001, 0.0013125, 0.09475, 0.0050625, 0.0200625, 0.001]),
            [0.0, -0.09375, -0.03125, 0.0, 0.0, -0.03125, 0.0], [[]] * 7, [],
            [0.0, 0.0, 0.0, 0.0, 0.0025, 0.0, 0.0246875],
            [1.0, 0.0, 0.0, 0.03125, 0.0028125, 0.09375, 0.5246875], -0.0003125, cov_mode=1),
        # Tied problem where MV missed an equality and an inequality.
        "regress_mv_tied_rows": alloc(
            MV, diag([3.34475, 3.34475, 0.001, 0.001, 0.001, 0.0056875, 0.016, 1.5635]),
            [0.0159375, 1.0, 0.0, 0.0378125, -0.03125, -0.03125, -0.03125, -0.03125],
            [list(r) for r in zip(*[iter([
                0, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875,
                -0.036875, 0, 0.03, 0.0009375, -2, -3.65625,
                -3.65625, -3.65625, -3.65625, -3.65625, -3.65625, 0,
                -0.036875, -0.036875, 0.035312500000000004, -0.036875, -0.0003125, -0.03125,
                -0.15625, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875,
                -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, -0.036875,
                -0.036875, -0.036875, -0.036875, -0.036875, -0.036875, 0,
                0, 0, 0.0021875, -0.036875, -0.036875, -0.036875])] * 6)],
            [-0.036875] * 6,
            [-0.036875, -0.036875, -0.036875, -0.036875, -0.036875, 0.0, 0.03, 0.0009375],
            [1.963125, 3.619375, 3.619375, 3.619375, 3.619375, 3.65625, 3.7175, 3.6571875],
            -3.65625, n_eq=3, cov_mode=1),
        # Non-finite data must not give return 0.
        "regress_mv_nan_mu": alloc(MV, cov3, [0.05, NAN, 0.07], budget, [1.0], *long_only, 0.06,
                                   n_eq=1),
        "regress_mv_inf_diagonal": alloc(MV, [[INF, 0, 0], [0, 0.09, 0], [0, 0, 0.0225]], mu3, budget,
                                         [1.0], *long_only, 0.06, n_eq=1),
        "regress_sharpe_nan_riskfree": alloc(SHARPE, cov3, mu3, [[], [], []], [], *long_only, NAN),
        "regress_it_inf_rhs": alloc(IT, cov3, mu3, budget, [INF], *long_only, 0.0,
                                    bench=([0.01, 0.02, 0.015], 0.06)),
    }
    return seeds


# ---- modelling ----------------------------------------------------------
def returns_seed(kind, prices, lag, null=None):
    s = Seed().byte(kind).null(null).size(len(prices), -1).size(len(prices[0]), -1)
    for row in prices:
        s.reals(row)
    return s.size(lag, -1)


def cov_seed(kind, rows, null=None):
    s = Seed().byte(kind).null(null).size(len(rows), -1).size(len(rows[0]), -1)
    for row in rows:
        s.reals(row)
    return s


def sdls_seed(target, eq, eq_values, ineq, ineq_lower, ineq_upper, tol, floor):
    n = len(target)
    s = Seed().byte(4).null().size(n, -1)
    for row in target:
        s.reals(row)
    s.size(len(eq_values), -1)
    for r in range(n):  # n rows of the matrices side by side
        for a in eq:
            s.reals(a[r])
    s.reals(eq_values).size(len(ineq_lower), -1)
    for r in range(n):
        for b in ineq:
            s.reals(b[r])
    return s.reals(ineq_lower).reals(ineq_upper).reals([tol, floor])


def sdls_corr_seed(target, tol, floor, mode=0):
    return Seed().byte(5).null().size(len(target), -1).square(target, mode).reals([tol, floor])


def modeling_seeds():
    prices = [[100.0, 50.0], [101.0, 49.5], [99.5, 50.25], [102.0, 51.0], [103.0, 50.5]]
    rets = [[0.01, 0.002, -0.004], [0.001, 0.007, -0.003], [0.001, 0.004, 0.002],
            [-0.002, 0.001, 0.0], [0.003, -0.005, 0.001]]
    near = [[1.0, 0.9, 0.7], [0.9, 1.0, -0.9], [0.7, -0.9, 1.0]]
    eye = [[1.0 if r == c else 0.0 for c in range(3)] for r in range(3)]
    return {
        "returns_lag1": returns_seed(0, prices, 1),
        "returns_lag_too_long": returns_seed(0, prices, 5),
        "log_returns_lag2": returns_seed(1, prices, 2),
        "log_returns_zero_price": returns_seed(1, [[1.0], [0.0], [2.0]], 1),
        "cov_three_assets": cov_seed(2, rets),
        "corr_three_assets": cov_seed(3, rets),
        "corr_constant_asset": cov_seed(3, [[r[0], 0.5] for r in rets]),
        "sdls_corr_indefinite": sdls_corr_seed(near, 1e-8, 0.0),
        "sdls_corr_floor": sdls_corr_seed(near, 1e-6, 0.01, mode=2),
        "sdls_unit_diagonal": sdls_seed(near, [[[1.0 if r == c == k else 0.0 for c in range(3)]
                                                for r in range(3)] for k in range(3)],
                                        [1.0, 1.0, 1.0], [eye], [2.0], [4.0], 1e-8, 0.0),
        "sdls_refused_floor": sdls_seed(near, [], [], [], [], [], 1e-8, -1.0),
        # Non-finite data and overflowing scale must not give return 0.
        "regress_cov_huge_scale": cov_seed(2, [[1e300 * r[0], r[1]] for r in rets]),
        "regress_corr_nan": cov_seed(3, [[NAN, 0.5, 0.1]] + rets[1:]),
        "regress_sdls_corr_nan_target": sdls_corr_seed([[1.0, NAN, 0.0], [NAN, 1.0, 0.0],
                                                        [0.0, 0.0, 1.0]], 1e-8, 0.0),
    }


# ---- analysis -----------------------------------------------------------
def analysis_seeds():
    cov3 = [[0.04, 0.006, 0.002], [0.006, 0.09, 0.01], [0.002, 0.01, 0.0225]]
    mu3 = [0.05, 0.10, 0.07]
    w3 = [0.5, 0.25, 0.25]
    hist = [[0.01, 0.002, -0.004], [0.001, 0.007, -0.003], [0.001, 0.004, 0.002],
            [-0.002, 0.001, 0.0], [0.003, -0.005, 0.001], [-0.02, 0.01, 0.004]]

    def exante(which, mu=mu3, cov=cov3, w=w3, level=0.95, null=None):
        s = Seed().byte(which).null(null).size(len(w), -1)
        if which != 0:
            s.square(cov)
        if which != 1:
            s.reals(mu)
        s.reals(w)
        if which == 2:
            s.reals([level])
        return s

    def modified(level=0.99, rows=hist, null=None):
        s = Seed().byte(3).null(null).size(len(rows), -1).size(len(w3), -1).reals(w3)
        for row in rows:
            s.reals(row)
        return s.square(cov3).reals([level])

    def expost(which, series):
        return Seed().byte(which).null().size(len(series), -1).reals(series)

    def kernel(data, points, sort=0):
        return Seed().byte(6).null().size(len(data), -1).size(len(points), -1).reals(data) \
            .byte(sort).reals(points)

    series = [0.01, -0.02, 0.005, 0.0, 0.012, -0.007]
    return {
        "exante_return": exante(0),
        "exante_volatility": exante(1),
        "normal_var": exante(2),
        "normal_var_level_one": exante(2, level=1.0),
        "modified_var": modified(),
        "modified_var_short_history": modified(rows=hist[:3]),
        "expost_return": expost(4, series),
        "expost_volatility": expost(5, series),
        "kernel": kernel(series, [-0.02, 0.0, 0.02]),
        "kernel_unsorted_points": kernel(series, [0.02, 0.0]),
        # Non-finite data must not give return 0.
        "regress_normal_var_nan_level": exante(2, level=NAN),
        "regress_exante_return_inf_mu": exante(0, mu=[INF, 0.1, 0.07]),
        "regress_modified_var_nan_history": modified(rows=[[NAN, 0.0, 0.0]] + hist[1:]),
        "regress_kernel_huge_data": kernel([1e300, -1e300, 0.0], [0.0]),
    }


# ---- simulation ---------------------------------------------------------
def simul(start, drift, cov, horizon, steps, mode=0, null=None):
    s = Seed().null(null).size(len(start), 1)
    s.byte(horizon & 0xFF).byte((horizon >> 8) & 0xFF).size(steps, 1)
    return s.reals(start).reals(drift).square(cov, mode)


def simul_seeds():
    cov3 = [[0.04, 0.006, 0.002], [0.006, 0.09, 0.01], [0.002, 0.01, 0.0225]]
    return {
        "three_assets": simul([100.0, 50.0, 20.0], [0.05, 0.03, 0.01], cov3, 1, 8),
        "one_step": simul([100.0], [0.05], [[0.04]], 1, 1),
        "zero_horizon": simul([100.0, 50.0], [0.05, 0.03], [[0.04, 0.0], [0.0, 0.09]], 0, 4),
        "perfect_correlation": simul([1.0, 1.0], [0.0, 0.0], [[0.04, 0.04], [0.04, 0.04]], 1, 5),
        "refused_null_drift": simul([100.0, 50.0], [0.05, 0.03], [[0.04, 0.0], [0.0, 0.09]], 1, 4,
                                    null=1),
        # A NaN in cov hung the eigen-solver of the reference LAPACK.
        "regress_nan_cov_three_assets": simul([100.0] * 3, [0.05] * 3,
                                              [[NAN, 0.01, 0.01], [0.01, 0.09, 0.0], [0.01, 0.0, 0.04]],
                                              1, 4),
        # A negative horizon gave NaN paths with return 0.
        "regress_negative_horizon": simul([100.0, 50.0], [0.05, 0.03], [[0.04, 0.0], [0.0, 0.09]], -1, 4),
        "regress_huge_drift": simul([100.0], [1e300], [[0.04]], 1000, 8),
    }


def main():
    for family, seeds in (("alloc", alloc_seeds()), ("modeling", modeling_seeds()),
                          ("analysis", analysis_seeds()), ("simul", simul_seeds())):
        folder = os.path.join(HERE, "corpus", family)
        os.makedirs(folder, exist_ok=True)
        for old in os.listdir(folder):
            if not old.startswith("found_"):
                os.remove(os.path.join(folder, old))
        for name, seed in seeds.items():
            with open(os.path.join(folder, name), "wb") as f:
                f.write(bytes(seed.b))


if __name__ == "__main__":
    main()
