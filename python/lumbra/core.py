# SPDX-License-Identifier: Apache-2.0
"""One function per export of the library, for numpy and pandas users.

Conventions: matrices are given the usual way (one row per observation or
per constraint, one column per asset); numpy arrays of any real dtype and
layout, pandas objects or nested lists are accepted and copied once into
private row-major float64 arrays.  Results are numpy arrays, or pandas
objects carrying the input's labels when the input was labelled.  Nothing
is annualised; value at risk is a return quantile with its sign (a loss is
negative).
"""
from __future__ import annotations

from typing import Any, NamedTuple, Optional, Union

import ctypes
import numpy as np
import pandas as pd

from . import _convert as cv
from ._errors import check
from ._library import library

ArrayLike = Any
Vector = Union[np.ndarray, pd.Series]
Matrix = Union[np.ndarray, pd.DataFrame]


def _call(export: str, *args: Any) -> tuple[int, int]:
    """Calls `export` with its arguments and a status; returns both."""
    status = ctypes.c_int(0)
    code = getattr(library(), export)(*args, ctypes.byref(status))
    return code, status.value


def _as_series(values: np.ndarray, labels: Optional[pd.Index], name: Optional[str] = None):
    return values if labels is None else pd.Series(values, index=labels, name=name)


# ---- Allocation ---------------------------------------------------------

def _alloc_inputs(cov, mu, bounds, A_eq, b_eq, A_ub, b_ub, budget, check_finite, extra=()):
    """Private arrays for an allocator: n, cov, mu, nEq, nIneq, cons (n by
    nEq + nIneq, one column per constraint), rhs, lower, upper, labels, and
    the `extra` vectors aligned to the assets."""
    labels = cv.first_labels((cov, "square"), (mu, "vector"))
    cov = cv.align(labels, cov, "cov", "square")
    mu = cv.align(labels, mu, "mu")
    c = cv.square(cov, "cov", check_finite=check_finite)
    n = c.shape[0]
    m = cv.vector(mu, "mu", n, check_finite)
    extras = [cv.vector(cv.align(labels, x, nm), nm, n, check_finite) for x, nm in extra]
    lower, upper = cv.bounds_vectors(bounds, n, labels, check_finite)
    aeq, beq = cv.constraint_rows(A_eq, b_eq, n, labels, "eq", check_finite)
    aub, bub = cv.constraint_rows(A_ub, b_ub, n, labels, "ub", check_finite)
    if budget is not None:
        aeq = np.vstack([np.ones((1, n)), aeq])
        beq = np.concatenate([[cv.real(budget, "budget")], beq])
    n_eq, n_ineq = aeq.shape[0], aub.shape[0]
    # The library's layout: one column per constraint, equalities first.  An
    # empty set still needs a valid pointer.
    cons = np.ascontiguousarray(np.vstack([aeq, aub]).T) if n_eq + n_ineq else np.zeros(1)
    rhs = np.concatenate([beq, bub]) if n_eq + n_ineq else np.zeros(1)
    return n, c, m, n_eq, n_ineq, cons, rhs, lower, upper, labels, extras


def alloc_mv(cov: Matrix, mu: Vector, target: float, *, bounds: Any = (0.0, 1.0),
             A_eq: Optional[Matrix] = None, b_eq: Optional[ArrayLike] = None,
             A_ub: Optional[Matrix] = None, b_ub: Optional[ArrayLike] = None,
             budget: Optional[float] = 1.0, check_finite: bool = True) -> Vector:
    """Minimum-variance weights with expected return mu'w >= `target`.

    cov: (n, n) covariance; mu: (n,) expected returns.
    bounds: (lo, hi) of scalars or per-asset vectors, or an (n, 2) array.
    A_eq w = b_eq and A_ub w <= b_ub: one row per constraint.
    budget: sum(w) = budget is added as the first equality (None: no budget).
    Returns the weights (a Series indexed by asset when cov or mu is labelled).
    Raises ArgumentError, SolverError (e.g. status -108, -100); warns with
    LumbraWarning (e.g. 1007, iteration limit) and returns the last iterate.
    """
    n, c, m, ne, ni, cons, rhs, lo, hi, labels, _ = _alloc_inputs(
        cov, mu, bounds, A_eq, b_eq, A_ub, b_ub, budget, check_finite)
    w = np.zeros(n)
    code, status = _call("ORXallocMV", cv.iref(n), cv.dptr(c), cv.dptr(m), cv.iref(ne),
                         cv.iref(ni), cv.dptr(cons), cv.dptr(rhs), cv.dptr(lo), cv.dptr(hi),
                         cv.dref(cv.real(target, "target")), cv.dptr(w))
    check("ORXallocMV", code, status)
    return _as_series(w, labels, "weights")


def alloc_tracking(cov: Matrix, mu: Vector, benchmark: Optional[Vector] = None,
                   excess: float = 0.0, *, benchmark_cov: Optional[Vector] = None,
                   benchmark_return: Optional[float] = None, bounds: Any = (0.0, 1.0),
                   A_eq: Optional[Matrix] = None, b_eq: Optional[ArrayLike] = None,
                   A_ub: Optional[Matrix] = None, b_ub: Optional[ArrayLike] = None,
                   budget: Optional[float] = 1.0, check_finite: bool = True) -> Vector:
    """Smallest tracking-error weights with expected return at least the
    benchmark's return + `excess`.

    The benchmark is given by its weights on the same assets (`benchmark`),
    or, for a benchmark outside the universe, by `benchmark_cov` (the
    covariance of each asset with it) and `benchmark_return`.  Other
    arguments as in alloc_mv.  The result is verified against the
    constraints (SolverError status -100 when it fails them).
    """
    if (benchmark is None) == (benchmark_cov is None):
        raise ValueError("give either `benchmark` weights or `benchmark_cov` "
                         "with `benchmark_return`")
    if benchmark_cov is not None and benchmark_return is None:
        raise ValueError("`benchmark_cov` needs `benchmark_return`")
    given = (benchmark, "benchmark") if benchmark is not None else (benchmark_cov, "benchmark_cov")
    n, c, m, ne, ni, cons, rhs, lo, hi, labels, (b,) = _alloc_inputs(
        cov, mu, bounds, A_eq, b_eq, A_ub, b_ub, budget, check_finite, extra=(given,))
    if benchmark is not None:
        bench_cov, bench_ret = c @ b, float(m @ b)
    else:
        bench_cov, bench_ret = b, cv.real(benchmark_return, "benchmark_return")
    bench_cov = np.ascontiguousarray(bench_cov, dtype=np.float64)
    w = np.zeros(n)
    code, status = _call("ORXallocIT", cv.iref(n), cv.dptr(c), cv.dptr(m), cv.dptr(bench_cov),
                         cv.dref(bench_ret), cv.iref(ne), cv.iref(ni), cv.dptr(cons),
                         cv.dptr(rhs), cv.dptr(lo), cv.dptr(hi),
                         cv.dref(cv.real(excess, "excess")), cv.dptr(w))
    check("ORXallocIT", code, status)
    return _as_series(w, labels, "weights")


def alloc_max_sharpe(cov: Matrix, mu: Vector, risk_free: float = 0.0, *,
                     bounds: Any = (0.0, 1.0), A_eq: Optional[Matrix] = None,
                     b_eq: Optional[ArrayLike] = None, A_ub: Optional[Matrix] = None,
                     b_ub: Optional[ArrayLike] = None, check_finite: bool = True) -> Vector:
    """Fully invested weights of largest Sharpe ratio (mu'w - risk_free) /
    sqrt(w' cov w).  The library imposes sum(w) = 1 itself; other arguments
    as in alloc_mv.  SolverError -100 when no feasible portfolio beats the
    risk-free rate, -113 when the problem's scale vanished.
    """
    n, c, m, ne, ni, cons, rhs, lo, hi, labels, _ = _alloc_inputs(
        cov, mu, bounds, A_eq, b_eq, A_ub, b_ub, None, check_finite)
    w = np.zeros(n)
    code, status = _call("ORXallocSharpeRatio", cv.iref(n), cv.dptr(c), cv.dptr(m),
                         cv.iref(ne), cv.iref(ni), cv.dptr(cons), cv.dptr(rhs), cv.dptr(lo),
                         cv.dptr(hi), cv.dref(cv.real(risk_free, "risk_free")), cv.dptr(w))
    check("ORXallocSharpeRatio", code, status)
    return _as_series(w, labels, "weights")


# ---- Data modelling -----------------------------------------------------

def _table(x: Any, name: str, check_finite: bool) -> tuple[np.ndarray, bool]:
    """A 2-D table (rows: observations); a 1-D input is one column."""
    a = cv.real_array(x, name, check_finite)
    if a.ndim == 1:
        return a.reshape(-1, 1), True
    if a.ndim != 2:
        raise ValueError(f"`{name}` must be 1-D or 2-D, not of shape {a.shape}")
    return a, False


def _returns(export: str, prices: Any, lag: int, check_finite: bool):
    p, flat = _table(prices, "prices", check_finite)
    lag = cv.count(lag, "lag")
    t, k = p.shape
    # The library clears k * (t - lag) values even when it refuses the lag.
    out = np.zeros(max(k * (t - lag), 0) + 1)
    code, status = _call(export, cv.iref(t), cv.iref(k), cv.dptr(p), cv.iref(lag), cv.dptr(out))
    check(export, code, status, stacklevel=4)
    r = out[:k * (t - lag)].reshape(t - lag, k)
    if isinstance(prices, pd.DataFrame):
        return pd.DataFrame(r, index=prices.index[lag:], columns=prices.columns)
    if isinstance(prices, pd.Series):
        return pd.Series(r[:, 0], index=prices.index[lag:], name=prices.name)
    return r[:, 0] if flat else r


def returns(prices: Matrix, lag: int = 1, *, check_finite: bool = True) -> Matrix:
    """Simple returns p[t] / p[t - lag] - 1 of a price table (one row per
    observation, one column per series; a 1-D input is one series).  A
    DataFrame keeps its columns and the index from row `lag` on."""
    return _returns("ORXmodelingReturns", prices, lag, check_finite)


def log_returns(prices: Matrix, lag: int = 1, *, check_finite: bool = True) -> Matrix:
    """Logarithmic returns log(p[t] / p[t - lag]), shaped as in returns()."""
    return _returns("ORXmodelingLogReturns", prices, lag, check_finite)


def _moments(export: str, rets: Any, check_finite: bool):
    r, _ = _table(rets, "returns", check_finite)
    t, k = r.shape
    out = np.zeros(k * k)
    code, status = _call(export, cv.iref(t), cv.iref(k), cv.dptr(r), cv.dptr(out))
    check(export, code, status, stacklevel=4)
    out = out.reshape(k, k)
    labels = cv.asset_labels(rets) if isinstance(rets, pd.DataFrame) else None
    return out if labels is None else pd.DataFrame(out, index=labels, columns=labels)


def covariance(returns: Matrix, *, check_finite: bool = True) -> Matrix:
    """Sample covariance (divisor T - 1, applied as a single-precision
    factor) of a return table, one row per observation.  A DataFrame gives a
    DataFrame labelled by its columns on both axes."""
    return _moments("ORXmodelingCov", returns, check_finite)


def correlation(returns: Matrix, *, check_finite: bool = True) -> Matrix:
    """Sample correlation of a return table.  An asset of (near) zero
    variance gets correlations 0, with a LumbraWarning (status 5)."""
    return _moments("ORXmodelingCorr", returns, check_finite)


def _side_by_side(mats: Any, name: str, n: int, check_finite: bool) -> tuple[int, np.ndarray]:
    """k matrices of n by n, given as a (k, n, n) array or a list, laid side
    by side as the n by k*n row-major block the library takes."""
    if mats is None:
        return 0, np.zeros(1)
    a = cv.real_array(mats, name, check_finite)
    if a.ndim == 2:
        a = a.reshape(1, *a.shape)
    if a.ndim != 3 or a.shape[1:] != (n, n):
        raise ValueError(f"`{name}` has shape {a.shape}, expected (k, {n}, {n})")
    k = a.shape[0]
    return k, (np.ascontiguousarray(a.transpose(1, 0, 2).reshape(n, k * n)) if k else np.zeros(1))


def _limits(x: Any, name: str, k: int, check_finite: bool) -> np.ndarray:
    if x is None:
        if k:
            raise ValueError(f"`{name}` is needed with {k} constraint matrices")
        return np.zeros(1)
    v = cv.vector(np.atleast_1d(x) if not cv.is_pandas(x) else x, name, k, check_finite)
    return v if k else np.zeros(1)


def nearest_psd(target: Matrix, *, A_eq: Optional[ArrayLike] = None,
                b_eq: Optional[ArrayLike] = None, A_ineq: Optional[ArrayLike] = None,
                ineq_lower: Optional[ArrayLike] = None, ineq_upper: Optional[ArrayLike] = None,
                eigen_floor: float = 0.0, tolerance: float = 1e-8,
                check_finite: bool = True) -> Matrix:
    """Symmetric matrix nearest to `target` in the Frobenius norm with all
    eigenvalues >= eigen_floor, under <A_k, X> = b_eq[k] and ineq_lower[k]
    <= <B_k, X> <= ineq_upper[k] (<A, X> = trace(A X)).

    target: (n, n), only its upper triangle is read.  A_eq, A_ineq: (k, n, n)
    arrays (or lists) of constraint matrices.  `tolerance` drives the
    minimiser's stopping test.  A DataFrame target keeps its labels.
    """
    t = cv.square(target, "target", check_finite=check_finite)
    n = t.shape[0]
    ne, eq = _side_by_side(A_eq, "A_eq", n, check_finite)
    ni, ineq = _side_by_side(A_ineq, "A_ineq", n, check_finite)
    beq = _limits(b_eq, "b_eq", ne, check_finite)
    lo = _limits(ineq_lower, "ineq_lower", ni, check_finite)
    hi = _limits(ineq_upper, "ineq_upper", ni, check_finite)
    out = np.zeros(n * n)
    code, status = _call("ORXmodelingSDLS", cv.iref(n), cv.dptr(t), cv.iref(ne), cv.dptr(eq),
                         cv.dptr(beq), cv.iref(ni), cv.dptr(ineq), cv.dptr(lo), cv.dptr(hi),
                         cv.dref(cv.real(tolerance, "tolerance")),
                         cv.dref(cv.real(eigen_floor, "eigen_floor")), cv.dptr(out))
    check("ORXmodelingSDLS", code, status)
    return _like_square(out.reshape(n, n), target)


def nearest_correlation(target: Matrix, *, eigen_floor: float = 0.0, tolerance: float = 1e-8,
                        check_finite: bool = True) -> Matrix:
    """Correlation matrix (unit diagonal) nearest to `target` in the
    Frobenius norm with all eigenvalues >= eigen_floor (0 <= floor < 1).
    Only the upper triangle of `target` is read."""
    t = cv.square(target, "target", check_finite=check_finite)
    n = t.shape[0]
    out = np.zeros(n * n)
    code, status = _call("ORXmodelingSDLScorr", cv.iref(n), cv.dptr(t),
                         cv.dref(cv.real(tolerance, "tolerance")),
                         cv.dref(cv.real(eigen_floor, "eigen_floor")), cv.dptr(out))
    check("ORXmodelingSDLScorr", code, status)
    return _like_square(out.reshape(n, n), target)


def _like_square(out: np.ndarray, like: Any) -> Matrix:
    if isinstance(like, pd.DataFrame):
        return pd.DataFrame(out, index=like.index, columns=like.columns)
    return out


# ---- Risk analysis ------------------------------------------------------

def _portfolio(weights, check_finite, *others):
    """weights and the (x, name, kind) inputs aligned on common labels."""
    labels = cv.first_labels((weights, "vector"), *[(x, k) for x, _, k in others])
    w = cv.vector(cv.align(labels, weights, "weights"), "weights", check_finite=check_finite)
    out = []
    for x, name, kind in others:
        x = cv.align(labels, x, name, kind)
        out.append(cv.square(x, name, w.shape[0], check_finite) if kind == "square"
                   else cv.vector(x, name, w.shape[0], check_finite))
    return w, out


def exante_return(weights: Vector, mu: Vector, *, check_finite: bool = True) -> float:
    """Expected portfolio return w'mu."""
    w, (m,) = _portfolio(weights, check_finite, (mu, "mu", "vector"))
    r = ctypes.c_double(0.0)
    code, status = _call("ORXanalysisExanteReturn", cv.iref(w.shape[0]), cv.dptr(m), cv.dptr(w),
                         ctypes.byref(r))
    check("ORXanalysisExanteReturn", code, status)
    return r.value


def exante_volatility(weights: Vector, cov: Matrix, *, check_finite: bool = True) -> float:
    """Portfolio volatility sqrt(w' cov w)."""
    w, (c,) = _portfolio(weights, check_finite, (cov, "cov", "square"))
    r = ctypes.c_double(0.0)
    code, status = _call("ORXanalysisExanteVolatility", cv.iref(w.shape[0]), cv.dptr(c),
                         cv.dptr(w), ctypes.byref(r))
    check("ORXanalysisExanteVolatility", code, status)
    return r.value


def normal_var(weights: Vector, cov: Matrix, mu: Vector, level: float = 0.95, *,
               check_finite: bool = True) -> float:
    """Normal value at risk w'mu - sqrt(w' cov w) z(level): the return
    quantile at 1 - level, with its sign (a loss is negative)."""
    w, (c, m) = _portfolio(weights, check_finite, (cov, "cov", "square"), (mu, "mu", "vector"))
    r = ctypes.c_double(0.0)
    code, status = _call("ORXanalysisExanteNormalVaR", cv.iref(w.shape[0]), cv.dptr(c),
                         cv.dptr(m), cv.dptr(w), cv.dref(cv.real(level, "level")),
                         ctypes.byref(r))
    check("ORXanalysisExanteNormalVaR", code, status)
    return r.value


def modified_var(weights: Vector, returns: Matrix, cov: Optional[Matrix] = None,
                 level: float = 0.95, *, check_finite: bool = True) -> float:
    """Modified (Cornish-Fisher) value at risk from a return history
    (T >= 4 rows, one column per asset) and a covariance (by default the
    sample covariance of the history)."""
    labels = cv.first_labels((weights, "vector"), (cov, "square"))
    if labels is None and isinstance(returns, pd.DataFrame):
        labels = returns.columns
    w = cv.vector(cv.align(labels, weights, "weights"), "weights", check_finite=check_finite)
    n = w.shape[0]
    r = cv.matrix(cv.align(labels, returns, "returns", "columns"), "returns", cols=n,
                  check_finite=check_finite)
    if cov is None:
        c = np.ascontiguousarray(np.asarray(covariance(r, check_finite=check_finite)))
    else:
        c = cv.square(cv.align(labels, cov, "cov", "square"), "cov", n, check_finite)
    out = ctypes.c_double(0.0)
    code, status = _call("ORXanalysisExanteModifiedVaR", cv.iref(r.shape[0]), cv.iref(n),
                         cv.dptr(w), cv.dptr(r), cv.dptr(c), cv.dref(cv.real(level, "level")),
                         ctypes.byref(out))
    check("ORXanalysisExanteModifiedVaR", code, status)
    return out.value


def _series_stat(export: str, series: Any, check_finite: bool):
    """Runs a statistic of one series on a 1-D input, or on each column of
    a 2-D one (a Series indexed by the columns of a DataFrame)."""
    a = cv.real_array(series, "series", check_finite)
    if a.ndim not in (1, 2):
        raise ValueError(f"`series` must be 1-D or 2-D, not of shape {a.shape}")
    cols = [a] if a.ndim == 1 else [np.ascontiguousarray(a[:, j]) for j in range(a.shape[1])]
    values = []
    for col in cols:
        r = ctypes.c_double(0.0)
        code, status = _call(export, cv.iref(col.shape[0]), cv.dptr(col), ctypes.byref(r))
        check(export, code, status, stacklevel=4)
        values.append(r.value)
    if a.ndim == 1:
        return values[0]
    out = np.array(values)
    return pd.Series(out, index=series.columns) if isinstance(series, pd.DataFrame) else out


def expost_return(series: ArrayLike, *, check_finite: bool = True) -> Union[float, Vector]:
    """Mean of a return series; of each column of a 2-D input."""
    return _series_stat("ORXanalysisExpostReturn", series, check_finite)


def expost_volatility(series: ArrayLike, *, check_finite: bool = True) -> Union[float, Vector]:
    """Sample standard deviation (divisor n - 1) of a return series; of each
    column of a 2-D input."""
    return _series_stat("ORXanalysisExpostVolatility", series, check_finite)


def kernel_density(data: ArrayLike, points: ArrayLike, *, check_finite: bool = True) -> Vector:
    """Gaussian kernel density of `data` (bandwidth 1.059 sigma n^(-1/5)) at
    the non-decreasing `points`.  A Series of points gives a Series with
    the same index."""
    x = cv.vector(data, "data", check_finite=check_finite)
    g = cv.vector(np.atleast_1d(points) if np.ndim(points) == 0 else points, "points",
                  check_finite=check_finite)
    f = np.zeros(max(g.shape[0], 1))
    code, status = _call("ORXanalysisGaussianKernel", cv.iref(x.shape[0]), cv.iref(g.shape[0]),
                         cv.dptr(x), cv.dptr(g), cv.dptr(f))
    check("ORXanalysisGaussianKernel", code, status)
    f = f[:g.shape[0]]
    return pd.Series(f, index=points.index, name="density") if isinstance(points, pd.Series) else f


# ---- Simulation ---------------------------------------------------------

def simulate_gbm(start: Vector, drift: Vector, cov: Matrix, horizon: int, steps: int, *,
                 check_finite: bool = True) -> Matrix:
    """One correlated geometric Brownian path: `steps` rows (the first the
    start prices), time step horizon / steps in the units of `drift` and
    `cov`, Euler steps S(t+1) = S(t) (1 + drift dt + sqrt(dt) L z).
    `horizon` and `steps` are integers.  Labelled inputs give a DataFrame
    with the assets as columns and the step number as index."""
    labels = cv.first_labels((start, "vector"), (drift, "vector"), (cov, "square"))
    s = cv.vector(cv.align(labels, start, "start"), "start", check_finite=check_finite)
    n = s.shape[0]
    d = cv.vector(cv.align(labels, drift, "drift"), "drift", n, check_finite)
    c = cv.square(cv.align(labels, cov, "cov", "square"), "cov", n, check_finite)
    horizon, steps = cv.count(horizon, "horizon"), cv.count(steps, "steps")
    # The library does not test these counts: they are the caller's duty.
    if n < 1:
        raise ValueError("`start` must hold at least one asset")
    if steps < 1:
        raise ValueError(f"`steps` must be at least 1, not {steps}")
    if horizon < 0:
        raise ValueError(f"`horizon` must not be negative, not {horizon}")
    paths = np.zeros(steps * n)
    code, status = _call("ORXsimulGeometricBrownianX", cv.iref(n), cv.iref(horizon),
                         cv.iref(steps), cv.dptr(s), cv.dptr(d), cv.dptr(c), cv.dptr(paths))
    check("ORXsimulGeometricBrownianX", code, status)
    paths = paths.reshape(steps, n)
    return paths if labels is None else pd.DataFrame(paths, columns=labels)


# ---- Version probe ------------------------------------------------------

class LibraryVersion(NamedTuple):
    """The six values of the version probe, named as in the header."""
    a: int
    b: int
    c: int
    d: int
    stamp: int
    f: int

    @property
    def release(self) -> str:
        """Release number, "4.1"."""
        return f"{self.b}.{self.c}"


def version() -> LibraryVersion:
    """The library's version probe (10, 4, 1, 16, build stamp, 2)."""
    v = [ctypes.c_int(0) for _ in range(6)]
    library().ORXlumbraTest(*[ctypes.byref(x) for x in v])
    return LibraryVersion(*[x.value for x in v])
