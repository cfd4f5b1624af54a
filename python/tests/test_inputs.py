# SPDX-License-Identifier: Apache-2.0
"""Inputs as Python users hold them: any real dtype and layout, pandas
objects (labels kept, aligned by label), bad input refused before the call;
the caller's arrays are never modified."""
import numpy as np
import pandas as pd
import pytest

import lumbra
from conftest import ASSETS


def test_dtypes_layouts_and_pandas_labels(u):
    r, P, R = u["returns"], u["P"], u["R"]
    want = lumbra.covariance(r)
    for x in (np.asfortranarray(r), np.repeat(r, 2, axis=1)[:, ::2], r.tolist(),
              r.astype(np.longdouble)):
        assert np.array_equal(lumbra.covariance(x), want)
    ints = np.array([[1, 2], [3, 5], [4, 4]], dtype=np.int16)
    assert np.array_equal(lumbra.covariance(ints), lumbra.covariance(ints.astype(float)))
    rets = lumbra.returns(P)
    assert rets.index.equals(P.index[1:]) and list(rets.columns) == ASSETS
    assert lumbra.log_returns(P["BBB"], 2).index.equals(P.index[2:])
    cov = lumbra.covariance(R)
    assert list(cov.index) == ASSETS and list(cov.columns) == ASSETS
    assert np.array_equal(cov.to_numpy(), want)
    assert list(lumbra.correlation(R).columns) == ASSETS
    mu = pd.Series(u["mu"], index=ASSETS)
    w = lumbra.alloc_max_sharpe(cov, mu)
    assert list(w.index) == ASSETS and list(lumbra.expost_volatility(R).index) == ASSETS
    # A Series in another asset order is reordered to the covariance's.
    assert w.equals(lumbra.alloc_max_sharpe(cov, mu[["DDD", "BBB", "AAA", "CCC"]]))
    pts = pd.Series([-0.01, 0.0, 0.01], index=["lo", "mid", "hi"])
    assert list(lumbra.kernel_density(R["AAA"], pts).index) == ["lo", "mid", "hi"]
    path = lumbra.simulate_gbm(P.iloc[0], mu, cov, 10, 11)
    assert list(path.columns) == ASSETS and path.shape == (11, 4)
    with pytest.raises(ValueError, match="labelled by assets"):
        lumbra.alloc_mv(cov, mu.rename({"AAA": "ZZZ"}), 0.0)


def test_inputs_are_never_modified(u):
    """The library converts cov, cons, returns, prices and the nearness
    targets in place and symmetrises an allocator's cov: only private copies
    may reach it."""
    cov = u["cov"].copy()
    cov[0, 1] += 1e-9  # not symmetric: an allocator would rebuild it
    mu, r, p, a_ub = u["mu"].copy(), u["returns"].copy(), u["prices"].copy(), np.eye(4)[:1]
    t, eq, w = np.array([[1.0, 0.9, 0.2], [0.8, 1.0, 0.95], [0.1, 0.9, 1.0]]), np.eye(3)[None], np.full(4, 0.25)
    kept = [x.copy() for x in (cov, mu, r, p, a_ub, t, eq)]
    lumbra.alloc_mv(cov, mu, 0.0005, A_ub=a_ub, b_ub=[0.5], bounds=(0.0, 0.8))
    lumbra.alloc_max_sharpe(cov, mu), lumbra.alloc_tracking(cov, mu, w, 0.0)
    lumbra.returns(p), lumbra.log_returns(p), lumbra.covariance(r), lumbra.correlation(r)
    lumbra.exante_volatility(w, cov), lumbra.normal_var(w, cov, mu)
    lumbra.modified_var(w, r, cov), lumbra.simulate_gbm(p[0], mu, u["cov"], 5, 6)
    lumbra.nearest_correlation(t)
    lumbra.nearest_psd(t, A_eq=eq, b_eq=[3.0], A_ineq=eq, ineq_lower=[2.0], ineq_upper=[4.0])
    assert all(np.array_equal(a, b) for a, b in zip(kept, (cov, mu, r, p, a_ub, t, eq)))




@pytest.mark.parametrize("call,error,text", [
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"][:3], 0.0), ValueError, "`mu` has length 3"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, A_ub=np.ones((2, 4)), b_ub=[1.0]),
     ValueError, "`b_ub` has 1 values for 2 rows"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], "high"), TypeError, "`target`"),
    (lambda u: lumbra.covariance(u["returns"].astype(complex)), TypeError, "real numbers"),
    (lambda u: lumbra.covariance([[1.0, 2.0], [3.0]]), ValueError, "rectangular"),
    (lambda u: lumbra.returns(u["prices"], 1.5), TypeError, "`lag` must be an integer"),
    (lambda u: lumbra.simulate_gbm([1.0], [0.0], [[0.1]], -1, 2), ValueError, "`horizon`"),
    (lambda u: lumbra.nearest_psd(np.eye(2), A_eq=np.zeros((1, 2, 2))), ValueError, "`b_eq`"),
    (lambda u: lumbra.returns(np.where(np.arange(4) == 1, np.nan, u["prices"])), ValueError,
     "`prices` holds NaN"),
])
def test_bad_input_is_refused_before_the_call(u, call, error, text):
    with pytest.raises(error, match=text):
        call(u)
