# SPDX-License-Identifier: Apache-2.0
"""Shared data and helpers of the package tests: a small universe, direct
ctypes calls of the exports (the results the wrappers must reproduce bit
for bit), and the skip for an engine the library reports as not built."""
import ctypes
import pathlib
import sys

import numpy as np
import pandas as pd
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import lumbra  # noqa: E402
from lumbra._library import library  # noqa: E402

ASSETS = ["AAA", "BBB", "CCC", "DDD"]


def raw(name, *args):
    """Calls export `name` directly: numpy arrays pass as pointers to
    private copies, ints as int*, floats as double*.  Returns (code,
    status, copies): copies[i] holds argument i after the call."""
    keep, ptrs = [], []
    for a in args:
        if isinstance(a, int):
            keep.append(a)
            ptrs.append(ctypes.byref(ctypes.c_int(a)))
        else:  # arrays and real scalars alike: a private float64 array
            c = np.array(np.atleast_1d(a), dtype=np.float64, order="C", copy=True)
            keep.append(c)
            ptrs.append(c.ctypes.data_as(ctypes.POINTER(ctypes.c_double)))
    status = ctypes.c_int(-12345)
    code = getattr(library(), name)(*ptrs, ctypes.byref(status))
    return code, status.value, keep


@pytest.fixture(scope="session")
def universe():
    """Returns (T by 4), their prices, covariance and means: a fixed,
    well-conditioned sample from a seeded generator."""
    rng = np.random.default_rng(20261123)
    mix = np.array([[1.0, 0.3, 0.1, 0.0], [0.0, 1.0, 0.4, 0.2],
                    [0.0, 0.0, 1.0, -0.3], [0.0, 0.0, 0.0, 1.0]])
    rets = rng.normal(0.0, 0.01, (250, 4)) @ mix + np.array([0.0004, 0.0006, 0.0009, 0.0002])
    prices = 100.0 * np.cumprod(1.0 + np.vstack([np.zeros(4), rets]), axis=0)
    cov = np.cov(rets.T)
    return {"returns": rets, "prices": prices, "cov": cov, "mu": rets.mean(axis=0)}


@pytest.fixture(scope="session")
def frame(universe):
    """The universe as pandas objects labelled by date and asset."""
    dates = pd.bdate_range("2024-01-01", periods=universe["prices"].shape[0])
    prices = pd.DataFrame(universe["prices"], index=dates, columns=ASSETS)
    rets = pd.DataFrame(universe["returns"], index=dates[1:], columns=ASSETS)
    return {"prices": prices, "returns": rets,
            "cov": pd.DataFrame(universe["cov"], index=ASSETS, columns=ASSETS),
            "mu": pd.Series(universe["mu"], index=ASSETS)}
