# SPDX-License-Identifier: Apache-2.0
"""Shared data of the package tests and direct calls of the exports."""
import ctypes
import pathlib
import sys

import numpy as np
import pandas as pd
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from lumbra._library import library  # noqa: E402

ASSETS = ["AAA", "BBB", "CCC", "DDD"]


def raw(name, *args):
    """Calls export `name` with ints as int* and anything else as a private
    float64 copy; returns (code, status, the copies after the call)."""
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
            "P": pd.DataFrame(prices, index=dates, columns=ASSETS),
            "R": pd.DataFrame(rets, index=dates[1:], columns=ASSETS)}
