# SPDX-License-Identifier: Apache-2.0
"""Inputs in other layouts and as pandas objects; the caller's arrays untouched."""
import numpy as np
import pandas as pd
import pytest

import lumbra
from conftest import ASSETS


def test_layouts_and_pandas_labels(u):
    r, P, R, mu = u["returns"], u["P"], u["R"], pd.Series(u["mu"], index=ASSETS)
    for x in (np.asfortranarray(r), np.repeat(r, 2, axis=1)[:, ::2], r.tolist(), R):
        assert np.array_equal(np.asarray(lumbra.covariance(x)), lumbra.covariance(r))
    rets, cov = lumbra.returns(P), lumbra.covariance(R)
    assert rets.index.equals(P.index[1:]) and list(rets.columns) == ASSETS
    assert lumbra.log_returns(P["BBB"], 2).index.equals(P.index[2:])
    assert list(cov.index) == list(lumbra.correlation(R).columns) == ASSETS
    w = lumbra.alloc_max_sharpe(cov, mu)
    assert list(w.index) == list(lumbra.expost_volatility(R).index) == ASSETS
    # A Series in another asset order is reordered to the covariance's.
    assert w.equals(lumbra.alloc_max_sharpe(cov, mu[["DDD", "BBB", "AAA", "CCC"]]))
    pts = pd.Series([-0.01, 0.0, 0.01], index=["lo", "mid", "hi"])
    assert list(lumbra.kernel_density(R["AAA"], pts).index) == ["lo", "mid", "hi"]
    assert list(lumbra.simulate_gbm(P.iloc[0], mu, cov, 10, 11).columns) == ASSETS
    with pytest.raises(ValueError, match="labelled by assets"):
        lumbra.alloc_mv(cov, mu.rename({"AAA": "ZZZ"}), 0.0)
    with pytest.raises(ValueError, match="holds NaN"):
        lumbra.covariance(np.where(np.arange(4) == 1, np.nan, r))


def test_inputs_are_never_modified(u):
    # The library converts inputs in place and symmetrises cov: copies only.
    cov, w = u["cov"].copy(), np.full(4, 0.25)
    cov[0, 1] += 1e-9  # not symmetric: an allocator would rebuild it
    mu, r, p, a_ub = u["mu"].copy(), u["returns"].copy(), u["prices"].copy(), np.eye(4)[:1]
    t, eq = np.array([[1.0, 0.9, 0.2], [0.8, 1.0, 0.95], [0.1, 0.9, 1.0]]), np.eye(3)[None]
    kept = [x.copy() for x in (cov, mu, r, p, a_ub, t, eq)]
    lumbra.alloc_mv(cov, mu, 0.0005, A_ub=a_ub, b_ub=[0.5], bounds=(0.0, 0.8))
    lumbra.alloc_max_sharpe(cov, mu), lumbra.alloc_tracking(cov, mu, w, 0.0)
    lumbra.returns(p), lumbra.log_returns(p), lumbra.covariance(r), lumbra.correlation(r)
    lumbra.modified_var(w, r, cov), lumbra.simulate_gbm(p[0], mu, u["cov"], 5, 6)
    lumbra.nearest_correlation(t)
    lumbra.nearest_psd(t, A_eq=eq, b_eq=[3.0], A_ineq=eq, ineq_lower=[2.0], ineq_upper=[4.0])
    assert all(np.array_equal(a, b) for a, b in zip(kept, (cov, mu, r, p, a_ub, t, eq)))
