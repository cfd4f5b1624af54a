# SPDX-License-Identifier: Apache-2.0
"""The efficient frontier, its picture and rolling weights."""
import matplotlib
import numpy as np
import pandas as pd
import pytest

import lumbra
from conftest import ASSETS

matplotlib.use("Agg")


def test_efficient_frontier(frame):
    cov, mu = frame["cov"], frame["mu"]
    f = lumbra.efficient_frontier(cov, mu, 12, risk_free=0.0001)
    assert list(f.columns) == ["target", "return", "volatility", "sharpe"] + ASSETS
    assert len(f) == 12
    w = f[ASSETS].to_numpy()
    np.testing.assert_allclose(w.sum(axis=1), 1.0, atol=1e-12)
    assert (w > -1e-12).all() and (f["return"] >= f["target"] - 1e-12).all()
    # Up the frontier, more return costs more risk.
    assert (np.diff(f["volatility"]) > -1e-12).all() and (np.diff(f["return"]) > 0).all()
    np.testing.assert_allclose(f["sharpe"], (f["return"] - 0.0001) / f["volatility"])
    row = f.iloc[5]
    assert np.array_equal(row[ASSETS].to_numpy(),
                          lumbra.alloc_mv(cov, mu, row["target"]).to_numpy())
    # No portfolio on it beats the maximum-Sharpe one.
    tangency = lumbra.alloc_max_sharpe(cov, mu, 0.0001)
    best = (tangency @ mu - 0.0001) / np.sqrt(tangency @ cov @ tangency)
    assert f["sharpe"].max() <= best + 1e-9


def test_frontier_targets(universe):
    c, mu = universe["cov"], universe["mu"]
    f = lumbra.efficient_frontier(c, mu, targets=[0.0005, 0.0006])
    assert list(f.columns[4:]) == ["w0", "w1", "w2", "w3"] and list(f["target"]) == [0.0005, 0.0006]
    # Chosen targets beyond reach are left out; given ones are an error.
    capped = lumbra.efficient_frontier(c, mu, 10, bounds=(0.0, 0.4))
    assert 1 <= len(capped) < 10
    with pytest.raises(lumbra.SolverError):
        lumbra.efficient_frontier(c, mu, targets=[mu.max()], bounds=(0.0, 0.4))


def test_plot_frontier(frame, tmp_path):
    ax = lumbra.plot_frontier(frame["cov"], frame["mu"], risk_free=0.0001, scale=100.0)
    labels = [t.get_label() for t in ax.get_lines()] + \
             [c.get_label() for c in ax.collections]
    assert "efficient frontier" in labels and "capital market line" in labels
    assert "assets" in labels and any(label.startswith("maximum Sharpe") for label in labels)
    assert sorted(t.get_text() for t in ax.texts) == sorted(ASSETS)
    out = tmp_path / "frontier.png"
    ax.figure.savefig(out)
    assert out.stat().st_size > 10000
    import matplotlib.pyplot as plt
    plt.close(ax.figure)


def test_rolling_allocation(frame):
    rets = frame["returns"]
    w = lumbra.rolling_allocation(rets, 60, step=20)
    assert list(w.columns) == ASSETS and len(w) == len(range(60, len(rets) + 1, 20))
    assert w.index[0] == rets.index[59] and w.index[-1] == rets.index[59 + 20 * (len(w) - 1)]
    first = rets.iloc[:60]
    direct = lumbra.alloc_max_sharpe(lumbra.covariance(first), lumbra.expost_return(first))
    assert np.array_equal(w.iloc[0].to_numpy(), direct.to_numpy())
    np.testing.assert_allclose(w.sum(axis=1), 1.0, atol=1e-12)
    mv = lumbra.rolling_allocation(rets, 100, step=50, method="min_variance", bounds=(0.0, 0.5))
    assert (mv.to_numpy() <= 0.5 + 1e-12).all()
    equal = lumbra.rolling_allocation(rets, 50, step=100, method=lambda c, m: np.full(4, 0.25))
    assert (equal.to_numpy() == 0.25).all()


def test_rolling_allocation_failures(frame):
    rets = frame["returns"]
    # A risk-free rate no portfolio beats: each window fails with -100.
    with pytest.raises(lumbra.SolverError):
        lumbra.rolling_allocation(rets, 60, step=60, risk_free=1.0)
    nan = lumbra.rolling_allocation(rets, 60, step=60, risk_free=1.0, on_error="nan")
    assert nan.isna().all().all()
    for bad in (dict(window=1), dict(window=10**6), dict(window=20, step=0),
                dict(window=20, method="magic"), dict(window=20, on_error="skip")):
        with pytest.raises(ValueError):
            lumbra.rolling_allocation(rets, **bad)
    assert isinstance(lumbra.rolling_allocation(rets.to_numpy(), 200, step=50), pd.DataFrame)
