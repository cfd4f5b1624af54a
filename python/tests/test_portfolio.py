# SPDX-License-Identifier: Apache-2.0
"""The efficient frontier, its picture (Agg backend) and rolling weights."""
import matplotlib
import numpy as np
import pandas as pd
import pytest

import lumbra
from conftest import ASSETS

matplotlib.use("Agg")


def test_efficient_frontier_and_its_plot(u, tmp_path):
    cov, mu = pd.DataFrame(u["cov"], ASSETS, ASSETS), pd.Series(u["mu"], ASSETS)
    f = lumbra.efficient_frontier(cov, mu, 12, risk_free=0.0001)
    assert list(f.columns) == ["target", "return", "volatility", "sharpe"] + ASSETS and len(f) == 12
    w = f[ASSETS].to_numpy()
    assert np.allclose(w.sum(axis=1), 1.0, atol=1e-12) and (w > -1e-12).all()
    # Up the frontier more return costs more risk; each row is alloc_mv's.
    assert (np.diff(f["volatility"]) > -1e-12).all() and (np.diff(f["return"]) > 0).all()
    assert np.array_equal(w[5], lumbra.alloc_mv(cov, mu, f["target"].iloc[5]).to_numpy())
    np.testing.assert_allclose(f["sharpe"], (f["return"] - 0.0001) / f["volatility"])
    tangency = lumbra.alloc_max_sharpe(cov, mu, 0.0001)
    assert f["sharpe"].max() <= (tangency @ mu - 0.0001) / np.sqrt(tangency @ cov @ tangency) + 1e-9
    with pytest.raises(lumbra.SolverError):  # a given target beyond reach
        lumbra.efficient_frontier(cov, mu, targets=[mu.max()], bounds=(0.0, 0.4))
    ax = lumbra.plot_frontier(cov, mu, risk_free=0.0001, frontier=f)
    labels = [t.get_label() for t in ax.get_lines()] + [c.get_label() for c in ax.collections]
    assert {"efficient frontier", "capital market line", "assets"} <= set(labels)
    assert sorted(t.get_text() for t in ax.texts) == ASSETS
    ax.figure.savefig(tmp_path / "frontier.png")
    assert (tmp_path / "frontier.png").stat().st_size > 10000


def test_rolling_allocation(u):
    rets = u["R"]
    w = lumbra.rolling_allocation(rets, 60, step=20)
    assert list(w.columns) == ASSETS and len(w) == len(range(60, 251, 20))
    assert w.index[0] == rets.index[59]
    first = rets.iloc[:60]
    direct = lumbra.alloc_max_sharpe(lumbra.covariance(first), lumbra.expost_return(first))
    assert np.array_equal(w.iloc[0].to_numpy(), direct.to_numpy())
    # A risk-free rate no portfolio beats: every window fails (-100).
    assert lumbra.rolling_allocation(rets, 60, step=60, risk_free=1.0, on_error="nan").isna().all().all()
