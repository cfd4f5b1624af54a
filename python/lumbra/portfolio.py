# SPDX-License-Identifier: Apache-2.0
"""Beyond one call: the efficient frontier, its picture, and weights over a
rolling window of returns (the everyday back-test loop)."""
from __future__ import annotations

from typing import Any, Callable, Optional, Union

import numpy as np
import pandas as pd

from . import core
from ._errors import SolverError

FRONTIER_COLUMNS = ["target", "return", "volatility", "sharpe"]
# Status of "no feasible portfolio": a target beyond what the constraints
# allow, skipped when the targets are chosen here.
_INFEASIBLE = -100


def _assets(cov: Any, mu: Any) -> list:
    if isinstance(mu, pd.Series):
        return list(mu.index)
    if isinstance(cov, pd.DataFrame):
        return list(cov.columns)
    return [f"w{i}" for i in range(len(np.asarray(mu)))]


def _point(w: Any, cov: Any, mu: Any, risk_free: float) -> tuple[float, float, float]:
    """Return, volatility and Sharpe ratio of weights w."""
    ret = core.exante_return(np.asarray(w), np.asarray(mu, dtype=float))
    vol = core.exante_volatility(np.asarray(w), np.asarray(cov, dtype=float))
    return ret, vol, (ret - risk_free) / vol if vol > 0.0 else np.nan


def efficient_frontier(cov: Any, mu: Any, n_points: int = 20, *,
                       targets: Optional[Any] = None, risk_free: float = 0.0,
                       bounds: Any = (0.0, 1.0), A_eq: Any = None, b_eq: Any = None,
                       A_ub: Any = None, b_ub: Any = None,
                       budget: Optional[float] = 1.0) -> pd.DataFrame:
    """Minimum-variance portfolios over a range of target returns.

    Without `targets`, `n_points` targets run evenly from the return of the
    minimum-variance portfolio (found at the target min(mu)) to max(mu);
    targets the constraints cannot reach are left out.  Given `targets`
    are used as they are, and their errors raised.  Constraints as in
    alloc_mv.  Returns one row per portfolio: target, return, volatility,
    sharpe ((return - risk_free) / volatility), and one weight column per
    asset.
    """
    kw = dict(bounds=bounds, A_eq=A_eq, b_eq=b_eq, A_ub=A_ub, b_ub=b_ub, budget=budget)
    m = np.asarray(mu, dtype=float)
    names = _assets(cov, mu)
    chosen = targets is None
    if chosen:
        if n_points < 1:
            raise ValueError(f"`n_points` must be at least 1, not {n_points}")
        gmv = np.asarray(core.alloc_mv(cov, mu, float(m.min()), **kw))
        r0 = core.exante_return(gmv, m)
        targets = np.linspace(r0, m.max(), n_points) if n_points > 1 else np.array([r0])
    rows = []
    for t in np.asarray(targets, dtype=float).reshape(-1):
        try:
            w = np.asarray(core.alloc_mv(cov, mu, float(t), **kw))
        except SolverError as err:
            if chosen and err.status == _INFEASIBLE:
                continue
            raise
        rows.append([t, *_point(w, cov, m, risk_free), *w])
    return pd.DataFrame(rows, columns=FRONTIER_COLUMNS + names)


def plot_frontier(cov: Any, mu: Any, *, frontier: Optional[pd.DataFrame] = None,
                  risk_free: float = 0.0, n_points: int = 40, ax: Any = None,
                  scale: float = 1.0, title: Optional[str] = None,
                  bounds: Any = (0.0, 1.0), A_eq: Any = None, b_eq: Any = None,
                  A_ub: Any = None, b_ub: Any = None) -> Any:
    """Draws the efficient frontier, the single assets, the maximum-Sharpe
    portfolio and the capital market line on a matplotlib Axes (a new
    figure when `ax` is None) and returns the Axes.  `scale` multiplies
    returns and volatilities for display (e.g. 100 for percent).

    matplotlib is an optional dependency (Debian: python3-matplotlib).
    """
    try:
        import matplotlib.pyplot as plt
    except ImportError as err:  # pragma: no cover - depends on the system
        raise ImportError("plot_frontier needs matplotlib (Debian: python3-matplotlib)") from err
    kw = dict(bounds=bounds, A_eq=A_eq, b_eq=b_eq, A_ub=A_ub, b_ub=b_ub)
    if frontier is None:
        frontier = efficient_frontier(cov, mu, n_points, risk_free=risk_free, **kw)
    if ax is None:
        _, ax = plt.subplots(figsize=(8, 5.5))
    m = np.asarray(mu, dtype=float)
    vols = np.sqrt(np.diag(np.asarray(cov, dtype=float)))
    ax.plot(scale * frontier["volatility"], scale * frontier["return"], color="#1f5fa8",
            lw=2.5, label="efficient frontier")
    ax.scatter(scale * vols, scale * m, color="#444444", zorder=3, label="assets")
    for name, x, y in zip(_assets(cov, mu), vols, m):
        ax.annotate(str(name), (scale * x, scale * y), xytext=(6, 3), textcoords="offset points",
                    fontsize=8)
    try:
        w = np.asarray(core.alloc_max_sharpe(cov, mu, risk_free, **kw))
    except SolverError:
        w = None  # no portfolio beats the risk-free rate: no tangency to draw
    if w is not None:
        ret, vol, sharpe = _point(w, cov, m, risk_free)
        xmax = 1.1 * max(vols.max(), frontier["volatility"].max())
        ax.plot([0.0, scale * xmax], [scale * risk_free, scale * (risk_free + sharpe * xmax)],
                color="#888888", ls="--", lw=1.2, label="capital market line")
        ax.scatter([scale * vol], [scale * ret], color="#d62728", s=70, zorder=4,
                   label=f"maximum Sharpe ({sharpe:.3f})")
    ax.set_xlim(left=0.0)
    lo, hi = min(m.min(), risk_free), m.max()
    pad = 0.1 * (hi - lo if hi > lo else 1e-4)
    ax.set_ylim(scale * (lo - pad), scale * (hi + pad))
    ax.set_xlabel("volatility")
    ax.set_ylabel("expected return")
    ax.set_title(title or "Efficient frontier")
    ax.grid(alpha=0.3)
    ax.legend(loc="lower right", fontsize=8)
    return ax


Method = Union[str, Callable[[pd.DataFrame, pd.Series], Any]]


def rolling_allocation(returns: pd.DataFrame, window: int, *, method: Method = "max_sharpe",
                       step: int = 1, risk_free: float = 0.0, target: Optional[float] = None,
                       on_error: str = "raise", **constraints: Any) -> pd.DataFrame:
    """Weights recomputed over a rolling window of a returns DataFrame.

    For each window of `window` rows (advancing by `step`), the covariance
    and the mean returns of the window give the weights of `method`:
    "max_sharpe" (alloc_max_sharpe at `risk_free`), "min_variance"
    (alloc_mv at `target`, by default the smallest mean return, which under
    long-only budget constraints gives the minimum-variance portfolio), or a
    callable f(cov, mu) returning weights.  Further keyword arguments
    (bounds, A_eq, ...) go to the allocator.  One row per window, indexed by
    the label of the window's last row.  on_error="nan" turns a failing
    window into a row of NaN instead of raising.
    """
    if not isinstance(returns, pd.DataFrame):
        returns = pd.DataFrame(np.asarray(returns, dtype=float))
    if not 2 <= window <= len(returns):
        raise ValueError(f"`window` must lie in [2, {len(returns)}], not {window}")
    if step < 1:
        raise ValueError(f"`step` must be at least 1, not {step}")
    if on_error not in ("raise", "nan"):
        raise ValueError(f"`on_error` must be 'raise' or 'nan', not {on_error!r}")
    rows, index = [], []
    for end in range(window, len(returns) + 1, step):
        sub = returns.iloc[end - window:end]
        cov, mu = core.covariance(sub), core.expost_return(sub)
        try:
            if callable(method):
                w = method(cov, mu)
            elif method == "max_sharpe":
                w = core.alloc_max_sharpe(cov, mu, risk_free, **constraints)
            elif method == "min_variance":
                t = float(mu.min()) if target is None else target
                w = core.alloc_mv(cov, mu, t, **constraints)
            else:
                raise ValueError(f"unknown method {method!r}")
        except SolverError:
            if on_error == "raise":
                raise
            w = np.full(returns.shape[1], np.nan)
        rows.append(np.asarray(w, dtype=float))
        index.append(returns.index[end - 1])
    return pd.DataFrame(rows, index=pd.Index(index, name=returns.index.name),
                        columns=returns.columns)
