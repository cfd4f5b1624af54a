# SPDX-License-Identifier: Apache-2.0
"""Shared data of the package tests and direct calls of the exports."""
import ctypes

import numpy as np
import pandas as pd
import pytest

from lumbra._library import library  # the package from PYTHONPATH, as CTest sets it

ASSETS = ["AAA", "BBB", "CCC", "DDD"]


def raw(name, *args):
    """Export `name` on ints and private float64 copies: (code, status, copies)."""
    keep = [a if isinstance(a, int) else np.array(np.atleast_1d(a), float, order="C") for a in args]
    ptrs = [ctypes.byref(ctypes.c_int(a)) if isinstance(a, int) else
            a.ctypes.data_as(ctypes.POINTER(ctypes.c_double)) for a in keep]
    status = ctypes.c_int(-12345)
    code = getattr(library(), name)(*ptrs, ctypes.byref(status))
    return code, status.value, keep


@pytest.fixture(scope="session")
def u():
    """Correlated returns (250 by 4), prices, covariance, means; labelled P, R."""
    rng = np.random.default_rng(20261123)
    mix = np.eye(4) + np.triu(np.full((4, 4), 0.3), 1)
    rets = rng.normal(0.0, 0.01, (250, 4)) @ mix + np.array([0.0004, 0.0006, 0.0009, 0.0002])
    prices = 100.0 * np.cumprod(1.0 + np.vstack([np.zeros(4), rets]), axis=0)
    dates = pd.bdate_range("2024-01-01", periods=251)
    return {"returns": rets, "prices": prices, "cov": np.cov(rets.T), "mu": rets.mean(axis=0),
            "P": pd.DataFrame(prices, dates, ASSETS), "R": pd.DataFrame(rets, dates[1:], ASSETS)}
