# SPDX-License-Identifier: Apache-2.0
"""The efficient frontier, its picture (Agg backend) and rolling weights."""
import matplotlib
import numpy as np
import pandas as pd

import lumbra
from conftest import ASSETS

matplotlib.use("Agg")


def test_frontier_plot_and_rolling_weights(u, tmp_path):
    cov, mu = pd.DataFrame(u["cov"], ASSETS, ASSETS), pd.Series(u["mu"], ASSETS)
    f = lumbra.efficient_frontier(cov, mu, 12, risk_free=0.0001)
    assert list(f.columns) == ["target", "return", "volatility", "sharpe"] + ASSETS and len(f) == 12
    # Up the frontier more return costs more risk; each row is alloc_mv's.
    assert (np.diff(f["volatility"]) > -1e-12).all() and (np.diff(f["return"]) > 0).all()
    assert np.array_equal(f[ASSETS].iloc[5], lumbra.alloc_mv(cov, mu, f["target"].iloc[5]))
    tangency = lumbra.alloc_max_sharpe(cov, mu, 0.0001)
    assert f["sharpe"].max() <= (tangency @ mu - 0.0001) / np.sqrt(tangency @ cov @ tangency) + 1e-9
    ax = lumbra.plot_frontier(cov, mu, risk_free=0.0001, frontier=f)
    labels = [t.get_label() for t in ax.get_lines()] + [c.get_label() for c in ax.collections]
    assert {"efficient frontier", "capital market line", "assets"} <= set(labels)
    ax.figure.savefig(tmp_path / "f.png")
    assert (tmp_path / "f.png").stat().st_size > 10000
    # Rolling weights: the first window's are alloc_max_sharpe's on its figures.
    rolling, first = lumbra.rolling_allocation(u["R"], 60, step=20), u["R"].iloc[:60]
    assert len(rolling) == 10 and rolling.index[0] == u["R"].index[59]
    assert np.array_equal(rolling.iloc[0], lumbra.alloc_max_sharpe(
        lumbra.covariance(first), lumbra.expost_return(first)))
