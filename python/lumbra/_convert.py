# SPDX-License-Identifier: Apache-2.0
"""Turning Python inputs into the private, row-major float64 arrays the
library takes, with the labels of pandas inputs kept for the results.

Every array handed to the library is a fresh copy: several exports rewrite
their matrices in place during the call (and an allocator's covariance comes
back symmetrised), so the caller's own arrays are never passed."""
from __future__ import annotations

import ctypes
import operator
from typing import Any, Sequence

import numpy as np
import pandas as pd

INT_MAX = 2**31 - 1


def is_pandas(x: Any) -> bool:
    return isinstance(x, (pd.Series, pd.DataFrame))


def real_array(x: Any, name: str, check_finite: bool = True) -> np.ndarray:
    """A private C-contiguous float64 copy of `x`; TypeError unless it holds
    real numbers, ValueError for NaN or infinity when `check_finite`."""
    if isinstance(x, pd.DataFrame):
        for col, dt in x.dtypes.items():
            if not pd.api.types.is_numeric_dtype(dt) or pd.api.types.is_bool_dtype(dt):
                raise TypeError(f"`{name}` must hold real numbers; column {col!r} has dtype {dt}")
        values = x.to_numpy(dtype=np.float64, na_value=np.nan)
    elif isinstance(x, pd.Series):
        if not pd.api.types.is_numeric_dtype(x.dtype) or pd.api.types.is_bool_dtype(x.dtype):
            raise TypeError(f"`{name}` must hold real numbers, not dtype {x.dtype}")
        values = x.to_numpy(dtype=np.float64, na_value=np.nan)
    else:
        try:
            values = np.asarray(x)
        except ValueError as err:  # ragged nested lists
            raise ValueError(f"`{name}` is not a rectangular array: {err}") from None
        if values.dtype.kind not in "iuf":
            raise TypeError(f"`{name}` must hold real numbers, not dtype {values.dtype}")
    out = np.array(values, dtype=np.float64, order="C", copy=True)
    if check_finite and not np.isfinite(out).all():
        raise ValueError(f"`{name}` holds NaN or infinite values (pass check_finite=False "
                         "to hand them to the library as they are)")
    return out


def vector(x: Any, name: str, n: int | None = None, check_finite: bool = True) -> np.ndarray:
    """A 1-D private copy, of length `n` when given."""
    a = real_array(x, name, check_finite)
    if a.ndim == 0:
        raise ValueError(f"`{name}` must be a 1-D array, not a scalar")
    if a.ndim != 1:
        raise ValueError(f"`{name}` must be 1-D, not of shape {a.shape}")
    if n is not None and a.shape[0] != n:
        raise ValueError(f"`{name}` has length {a.shape[0]}, expected {n}")
    return a


def matrix(x: Any, name: str, rows: int | None = None, cols: int | None = None,
           check_finite: bool = True) -> np.ndarray:
    """A 2-D private row-major copy of the given shape."""
    a = real_array(x, name, check_finite)
    if a.ndim != 2:
        raise ValueError(f"`{name}` must be 2-D, not of shape {a.shape}")
    if (rows is not None and a.shape[0] != rows) or (cols is not None and a.shape[1] != cols):
        want = f"({'*' if rows is None else rows}, {'*' if cols is None else cols})"
        raise ValueError(f"`{name}` has shape {a.shape}, expected {want}")
    return a


def square(x: Any, name: str, n: int | None = None, check_finite: bool = True) -> np.ndarray:
    a = matrix(x, name, check_finite=check_finite)
    if a.shape[0] != a.shape[1] or (n is not None and a.shape[0] != n):
        want = "square" if n is None else f"({n}, {n})"
        raise ValueError(f"`{name}` has shape {a.shape}, expected {want}")
    return a


def count(v: Any, name: str) -> int:
    """A Python int that fits the library's 32-bit counts."""
    try:
        k = operator.index(v)
    except TypeError:
        raise TypeError(f"`{name}` must be an integer, not {type(v).__name__}") from None
    if not -INT_MAX - 1 <= k <= INT_MAX:
        raise ValueError(f"`{name}` = {k} does not fit a 32-bit integer")
    return k


def real(v: Any, name: str) -> float:
    """A Python float from a real scalar."""
    if isinstance(v, (bool, np.bool_)) or not isinstance(v, (int, float, np.integer, np.floating)):
        raise TypeError(f"`{name}` must be a real number, not {type(v).__name__}")
    return float(v)


def asset_labels(x: Any) -> pd.Index | None:
    """Asset labels of a pandas input: a Series' index, a DataFrame's columns."""
    if isinstance(x, pd.Series):
        return x.index
    if isinstance(x, pd.DataFrame):
        return x.columns
    return None


def align(labels: pd.Index | None, x: Any, name: str, kind: str = "vector") -> Any:
    """`x` reordered to the asset `labels` when it is labelled by the same
    assets in another order; ValueError when its assets differ.  `kind`:
    "vector" (a Series), "square" (both axes), "columns" (asset columns)."""
    own = asset_labels(x)
    if labels is None or own is None or own.equals(labels):
        return x
    if kind == "square" and not x.index.equals(x.columns):
        raise ValueError(f"`{name}` must have the same labels on both axes")
    if len(own) != len(labels) or not own.is_unique or set(own) != set(labels):
        raise ValueError(f"`{name}` is labelled by assets {list(own)}, "
                         f"expected {list(labels)}")
    if kind == "square":
        return x.loc[labels, labels]
    if kind == "columns":
        return x.loc[:, labels]
    return x.loc[labels]


def first_labels(*xs: tuple[Any, str]) -> pd.Index | None:
    for x, kind in xs:
        if kind == "square" and isinstance(x, pd.DataFrame):
            if not x.index.equals(x.columns):
                raise ValueError("a covariance DataFrame must have the same labels on both axes")
            return x.columns
        if kind == "vector" and isinstance(x, pd.Series):
            return x.index
    return None


def dptr(a: np.ndarray) -> Any:
    """Pointer to the doubles of a private C-contiguous float64 array."""
    assert a.dtype == np.float64 and a.flags["C_CONTIGUOUS"]
    return a.ctypes.data_as(ctypes.POINTER(ctypes.c_double))


def iref(v: int) -> Any:
    return ctypes.byref(ctypes.c_int(v))


def dref(v: float) -> Any:
    return ctypes.byref(ctypes.c_double(v))


def bounds_vectors(bounds: Any, n: int, labels: pd.Index | None,
                   check_finite: bool = True) -> tuple[np.ndarray, np.ndarray]:
    """Lower and upper bound vectors from (lo, hi) scalars or per-asset
    vectors, or from an (n, 2) array of pairs."""
    if isinstance(bounds, (tuple, list)) and len(bounds) == 2:
        pair: Sequence[Any] = bounds
    else:
        b = bounds
        if isinstance(b, pd.DataFrame):
            b = align(labels, b.T, "bounds", "columns").T
        arr = matrix(b, "bounds", n, 2, check_finite=False)
        pair = (arr[:, 0], arr[:, 1])
    out = []
    for side, v in zip(("lower", "upper"), pair):
        if np.ndim(v) == 0:
            out.append(np.full(n, real(v, f"bounds ({side})")))
        else:
            out.append(vector(align(labels, v, f"bounds ({side})"), f"bounds ({side})", n,
                              check_finite=False))
    lower, upper = out
    if check_finite and (np.isnan(lower).any() or np.isnan(upper).any()):
        raise ValueError("`bounds` holds NaN values")
    return lower, upper


def constraint_rows(A: Any, b: Any, n: int, labels: pd.Index | None, name: str,
                    check_finite: bool = True) -> tuple[np.ndarray, np.ndarray]:
    """Rows of a constraint matrix (one row per constraint, one column per
    asset) and its right-hand sides; a 1-D A is one constraint."""
    aname, bname = f"A_{name}", f"b_{name}"
    if A is None:
        if b is not None:
            raise ValueError(f"`{bname}` is given without `{aname}`")
        return np.zeros((0, n)), np.zeros(0)
    if b is None:
        raise ValueError(f"`{aname}` is given without `{bname}`")
    A = align(labels, A, aname, "columns")
    a = real_array(A, aname, check_finite)
    if a.ndim == 1:
        a = a.reshape(1, -1)
    if a.ndim != 2 or a.shape[1] != n:
        raise ValueError(f"`{aname}` has shape {a.shape}, expected (constraints, {n}): "
                         "one row per constraint, one column per asset")
    rhs = real_array(b, bname, check_finite).reshape(-1) if np.ndim(b) else \
        np.array([real(b, bname)])
    if rhs.shape[0] != a.shape[0]:
        raise ValueError(f"`{bname}` has {rhs.shape[0]} values for {a.shape[0]} rows of `{aname}`")
    return a, rhs
