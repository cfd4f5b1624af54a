# SPDX-License-Identifier: Apache-2.0
"""ctypes binding of the shared library for the Python reference tests.

Every export takes pointers; these helpers pass numpy arrays (row-major,
float64) and plain Python numbers and return (code, status, outputs)."""
import ctypes
import os
import sys

import numpy as np

LIB = ctypes.CDLL(os.environ.get("LUMBRA_LIBRARY", "liborx-lumbra-c-4.1.so"))


def i32(v):
    return ctypes.byref(ctypes.c_int(int(v)))


def f64(v):
    return ctypes.byref(ctypes.c_double(float(v)))


def arr(a):
    """Pointer to a C-contiguous float64 array (the array must stay alive)."""
    assert a.dtype == np.float64 and a.flags["C_CONTIGUOUS"]
    return a.ctypes.data_as(ctypes.POINTER(ctypes.c_double))


def matrix(a):
    return np.ascontiguousarray(np.asarray(a, dtype=np.float64))


def call(name, *args):
    """Calls export `name`; returns (return value, status)."""
    status = ctypes.c_int(-12345)
    code = getattr(LIB, name)(*args, ctypes.byref(status))
    return code, status.value


def report(failures, total):
    """Closing line and exit code of a reference test script."""
    print(f"{total - failures} passed, {failures} failed")
    sys.exit(1 if failures else 0)


# Running count of the checks of one script: (checks made, checks failed).
_tally = [0, 0]


def check(ok, what):
    """Counts one check of a script; prints what failed."""
    _tally[0] += 1
    if not ok:
        _tally[1] += 1
        print("FAIL:", what)


def finish():
    """Closing line and exit code from the checks counted by check()."""
    report(_tally[1], _tally[0])
