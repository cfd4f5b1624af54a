# SPDX-License-Identifier: Apache-2.0
"""Inputs as Python users hold them: any real dtype and layout, lists,
pandas objects (labels kept, reordered to match), and bad input refused
before the call; the caller's arrays are never modified."""
import os
import pathlib
import subprocess
import sys

import numpy as np
import pandas as pd
import pytest

import lumbra
from conftest import ASSETS


def test_any_dtype_and_layout_give_the_same_result(universe):
    r = universe["returns"]
    want = lumbra.covariance(r)
    fortran = np.asfortranarray(r)
    strided = np.repeat(r, 2, axis=1)[:, ::2]
    assert not strided.flags["C_CONTIGUOUS"]
    for x in (fortran, strided, r.tolist(), r.astype(np.longdouble)):
        assert np.array_equal(lumbra.covariance(x), want)
    f32 = r.astype(np.float32)
    assert np.array_equal(lumbra.covariance(f32), lumbra.covariance(f32.astype(np.float64)))
    ints = np.array([[1, 2], [3, 5], [4, 4]], dtype=np.int16)
    assert np.array_equal(lumbra.covariance(ints), lumbra.covariance(ints.astype(float)))


def test_inputs_are_never_modified(universe):
    """The library converts cov, cons, returns and prices in place and
    symmetrises an allocator's cov: only private copies may reach it."""
    cov = universe["cov"].copy()
    cov[0, 1] += 1e-9  # not symmetric: an allocator would rebuild it
    mu, r, p = universe["mu"].copy(), universe["returns"].copy(), universe["prices"].copy()
    a_ub, bounds = np.array([[1.0, 0.0, 0.0, 0.0]]), (np.zeros(4), np.full(4, 0.8))
    kept = [x.copy() for x in (cov, mu, r, p, a_ub, *bounds)]
    w = np.full(4, 0.25)
    lumbra.alloc_mv(cov, mu, 0.0005, A_ub=a_ub, b_ub=[0.5], bounds=bounds)
    lumbra.alloc_max_sharpe(cov, mu, bounds=bounds)
    lumbra.alloc_tracking(cov, mu, w, 0.0)
    lumbra.returns(p), lumbra.log_returns(p), lumbra.covariance(r), lumbra.correlation(r)
    lumbra.exante_volatility(w, cov), lumbra.normal_var(w, cov, mu)
    lumbra.modified_var(w, r, cov), lumbra.simulate_gbm(p[0], mu, universe["cov"], 5, 6)
    for before, after in zip(kept, (cov, mu, r, p, a_ub, *bounds)):
        assert np.array_equal(before, after)
    # The nearness exports convert target and the constraint matrices.
    target, eq = np.array([[1.0, 0.9, 0.2], [0.8, 1.0, 0.95], [0.1, 0.9, 1.0]]), np.eye(3)[None]
    kept = target.copy()
    for call in (lambda: lumbra.nearest_correlation(target),
                 lambda: lumbra.nearest_psd(target, A_eq=eq, b_eq=[3.0], A_ineq=eq,
                                            ineq_lower=[2.0], ineq_upper=[4.0])):
        call()
        assert np.array_equal(target, kept) and np.array_equal(eq[0], np.eye(3))


def test_pandas_round_trips(frame):
    prices, rets = frame["prices"], frame["returns"]
    r = lumbra.returns(prices)
    assert r.index.equals(prices.index[1:]) and list(r.columns) == ASSETS
    np.testing.assert_allclose(r.to_numpy(), rets.to_numpy(), rtol=1e-10)
    assert lumbra.log_returns(prices["BBB"], 2).index.equals(prices.index[2:])
    cov = lumbra.covariance(rets)
    assert list(cov.index) == ASSETS and list(cov.columns) == ASSETS
    assert isinstance(lumbra.correlation(rets), pd.DataFrame)
    w = lumbra.alloc_max_sharpe(cov, frame["mu"])
    assert isinstance(w, pd.Series) and list(w.index) == ASSETS
    assert list(lumbra.expost_volatility(rets).index) == ASSETS
    pts = pd.Series([-0.01, 0.0, 0.01], index=["lo", "mid", "hi"])
    assert list(lumbra.kernel_density(rets["AAA"], pts).index) == ["lo", "mid", "hi"]
    path = lumbra.simulate_gbm(prices.iloc[0], frame["mu"], cov, 10, 11)
    assert list(path.columns) == ASSETS and path.shape == (11, 4)


def test_labels_are_aligned_not_trusted_by_position(frame):
    """A Series in another asset order is reordered to the covariance's."""
    cov, mu = frame["cov"], frame["mu"]
    shuffled = mu[["DDD", "BBB", "AAA", "CCC"]]
    w = lumbra.alloc_max_sharpe(cov, shuffled)
    assert w.equals(lumbra.alloc_max_sharpe(cov, mu))
    weights = pd.Series([0.1, 0.2, 0.3, 0.4], index=ASSETS)
    # Aligned to the first labelled argument's order, so the sums run in
    # another order: equal to the last bits (BLAS dot products).
    assert lumbra.exante_return(weights[::-1], mu) == \
        pytest.approx(lumbra.exante_return(weights, mu), rel=1e-14)
    assert lumbra.exante_volatility(weights, cov.loc[ASSETS[::-1], ASSETS[::-1]]) == \
        pytest.approx(lumbra.exante_volatility(weights, cov), rel=1e-14)
    # By position the answer would differ far beyond that.
    assert abs(lumbra.exante_return(weights.to_numpy()[::-1], mu) -
               lumbra.exante_return(weights, mu)) > 1e-5
    with pytest.raises(ValueError, match="labelled by assets"):
        lumbra.alloc_mv(cov, mu.rename({"AAA": "ZZZ"}), 0.0)


@pytest.mark.parametrize("call,error,text", [
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"][:3], 0.0), ValueError, "`mu` has length 3"),
    (lambda u: lumbra.alloc_mv(u["cov"][:3], u["mu"], 0.0), ValueError, "`cov` has shape"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, A_eq=np.ones(3), b_eq=1.0), ValueError,
     "`A_eq` has shape"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, A_ub=np.ones((2, 4)), b_ub=[1.0]),
     ValueError, "`b_ub` has 1 values for 2 rows"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, A_ub=np.ones(4)), ValueError,
     "without `b_ub`"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, bounds=(0, np.ones(3))), ValueError,
     "bounds"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], "high"), TypeError, "`target`"),
    (lambda u: lumbra.alloc_tracking(u["cov"], u["mu"]), ValueError, "benchmark"),
    (lambda u: lumbra.covariance(np.array([["a", "b"], ["c", "d"]])), TypeError, "real numbers"),
    (lambda u: lumbra.covariance(u["returns"].astype(complex)), TypeError, "real numbers"),
    (lambda u: lumbra.covariance(u["returns"] > 0), TypeError, "real numbers"),
    (lambda u: lumbra.covariance(pd.DataFrame({"a": ["x", "y"], "b": [1.0, 2.0]})), TypeError,
     "column 'a'"),
    (lambda u: lumbra.covariance(np.zeros((2, 2, 2))), ValueError, "1-D or 2-D"),
    (lambda u: lumbra.covariance([[1.0, 2.0], [3.0]]), ValueError, "rectangular"),
    (lambda u: lumbra.returns(u["prices"], 1.5), TypeError, "`lag` must be an integer"),
    (lambda u: lumbra.returns(u["prices"], 2**40), ValueError, "32-bit"),
    (lambda u: lumbra.exante_volatility(np.ones(3), u["cov"]), ValueError, "`cov` has shape"),
    (lambda u: lumbra.modified_var(np.ones(4), u["returns"][:, :3]), ValueError, "`returns`"),
    (lambda u: lumbra.kernel_density(np.ones((3, 2)), [0.0]), ValueError, "`data` must be 1-D"),
    (lambda u: lumbra.simulate_gbm([1.0], [0.0], [[0.1]], 1, 0), ValueError, "`steps`"),
    (lambda u: lumbra.simulate_gbm([], [], np.zeros((0, 0)), 1, 2), ValueError, "`start`"),
    (lambda u: lumbra.simulate_gbm([1.0], [0.0], [[0.1]], -1, 2), ValueError, "`horizon`"),
    (lambda u: lumbra.simulate_gbm([1.0], [0.0], [[0.1]], 1.5, 2), TypeError, "`horizon`"),
    (lambda u: lumbra.nearest_psd(np.eye(2), A_eq=np.zeros((1, 3, 3)), b_eq=[1.0]), ValueError,
     "`A_eq` has shape"),
    (lambda u: lumbra.nearest_psd(np.eye(2), A_eq=np.zeros((1, 2, 2))), ValueError, "`b_eq`"),
    (lambda u: lumbra.nearest_correlation(np.ones((2, 3))), ValueError, "`target`"),
])
def test_bad_input_is_refused_before_the_call(universe, call, error, text):
    with pytest.raises(error, match=text):
        call(universe)


def test_non_finite_values(universe):
    p = universe["prices"].copy()
    p[3, 1] = np.nan
    with pytest.raises(ValueError, match="`prices` holds NaN"):
        lumbra.returns(p)
    # Handed through on request: the library's own answer, never a crash
    # (a NaN price fails the library's price test, argument 3).
    with pytest.raises(lumbra.ArgumentError) as info:
        lumbra.returns(p, check_finite=False)
    assert info.value.code == 303 and info.value.argument == "prices"
    c = universe["cov"].copy()
    c[0, 0] = np.inf
    with pytest.raises(ValueError, match="`cov` holds NaN"):
        lumbra.alloc_mv(c, universe["mu"], 0.0)


def test_library_not_found_lists_what_was_tried(tmp_path):
    code = "import lumbra\ntry:\n    lumbra.version()\nexcept OSError as e:\n    print(e)\n"
    env = dict(os.environ, LUMBRA_LIBRARY=str(tmp_path / "nowhere.so"))
    out = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                         cwd=pathlib.Path(lumbra.__file__).parents[1], check=True).stdout
    assert "cannot load liborx-lumbra-c-4.1.so" in out and "$LUMBRA_LIBRARY" in out
    assert "nowhere.so (no such file)" in out


def test_library_directory_in_the_environment(tmp_path):
    """LUMBRA_LIBRARY may name the directory that holds the library."""
    directory = pathlib.Path(lumbra.library_path()).resolve().parent
    code = "import lumbra; print(lumbra.library_path()); print(lumbra.version().release)"
    env = dict(os.environ, LUMBRA_LIBRARY=str(directory))
    out = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                         cwd=pathlib.Path(lumbra.__file__).parents[1], check=True).stdout
    assert out.split() == [str(directory / lumbra.LIBRARY_NAME), "4.1"]
