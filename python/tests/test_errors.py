# SPDX-License-Identifier: Apache-2.0
"""Every documented status has a message (read from the header), and every
error path: argument failures named, solver failures, warnings, memory,
unknown values, a library that cannot be found."""
import os
import pathlib
import re
import subprocess
import sys

import numpy as np
import pytest

import lumbra
from lumbra import _errors

HEADER = pathlib.Path(__file__).resolve().parents[2] / "include" / "lumbra.h"
NUMBER = r"(?<![\w.+-])(-?\d+)(?!\w|\.\d)"


def documented_statuses(text):
    """Status values the header names: in each comment from its first
    mention of a status on, ranges a..b, negative numbers and numbers from
    1000 up, and a number right after "status" (small positive numbers
    elsewhere are counts, argument tests or return values); and the values
    of the ORX_STATUS_ defines."""
    found = set()
    for comment in re.findall(r"/\*(.*?)\*/", text, re.S):
        comment = re.sub(r"Return values.*?301\+[^.]*\.", " ", re.sub(r"\s*\*\s+", " ", comment),
                         flags=re.S)
        start = re.search(r"\bstatus(es)?\b", comment, re.I)
        if not start:
            continue
        part = comment[start.start():]
        for lo, hi in re.findall(r"(-?\d+)\s*\.\.\s*(-?\d+)", part):
            a, b = sorted((int(lo), int(hi)))
            if (a < 0 or a >= 1000) and (b < 0 or b >= 1000):
                found.update(range(a, b + 1))
        part = re.sub(r"(-?\d+)\s*\.\.\s*(-?\d+)", " ", part)
        found.update(v for v in map(int, re.findall(NUMBER, part)) if v < 0 or v >= 1000)
        found.update(int(v) for v in re.findall(r"\bstatus(?:es)?:?\s+" + NUMBER, part, re.I))
    found.update(int(v) for v in
                 re.findall(r"^\s*#\s*define\s+ORX_STATUS_\w+\s+\(?\s*(-?\d+)\s*\)?", text, re.M))
    return found


def test_every_documented_status_has_a_message():
    documented = documented_statuses(HEADER.read_text())
    # The parser sees the header's forms: lists, ranges, "Status 5", defines.
    assert {-108, 1007, -100, -109, 5, -103, -1102, -1109, -2001, -18} <= documented
    assert documented_statuses("/* n >= 2 (301); status (304) 2..5 */") == set()
    assert not sorted(documented - set(lumbra.STATUS_MESSAGES))
    assert lumbra.status_message(424242) == "undocumented status 424242"
    # LAPACK INFO values read according to the export.
    assert "Cholesky" in lumbra.status_message(3, "ORXsimulGeometricBrownianX")
    assert "DSYEVR INFO 7" in lumbra.status_message(7, "ORXmodelingSDLScorr")


@pytest.mark.parametrize("call,position,argument", [
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, bounds=(0.5, 0.4)), 8, "bounds"),
    (lambda u: lumbra.alloc_tracking(u["cov"], u["mu"], np.full(4, 0.25), bounds=(1, 0)), 10, "bounds"),
    (lambda u: lumbra.returns(u["prices"], 10**6), 4, "lag"),
    (lambda u: lumbra.log_returns(-u["prices"]), 3, "prices"),
    (lambda u: lumbra.covariance(u["returns"][:1]), 1, "returns"),
    (lambda u: lumbra.modified_var(np.ones(4), u["returns"][:3], u["cov"]), 1, "returns"),  # < 4
    (lambda u: lumbra.kernel_density(u["returns"][:, 0], [0.1, 0.0]), 4, "points"),
    (lambda u: lumbra.nearest_psd(np.eye(3), A_ineq=np.eye(3), ineq_lower=[1.0],
                                  ineq_upper=[0.0]), 8, "ineq_lower"),
])
def test_argument_errors_name_the_argument(u, call, position, argument):
    with pytest.raises(lumbra.ArgumentError) as info:
        call(u)
    err = info.value
    assert (err.code, err.status, err.position, err.argument) == (300 + position, 0, position,
                                                                  argument)
    assert f"`{argument}`" in str(err) and isinstance(err, ValueError)




@pytest.mark.parametrize("call,status", [
    (lambda u: lumbra.alloc_mv(np.array([[1.0, 2.0], [2.0, 1.0]]), [0.1, 0.2], 0.1), -108),
    (lambda u: lumbra.alloc_max_sharpe(u["cov"], u["mu"], 1.0), -100),
    (lambda u: lumbra.log_returns(np.array([[1e-20], [1.0]])), -103),
    (lambda u: lumbra.modified_var(np.ones(2), np.ones((6, 2)), np.eye(2)), -104),
    (lambda u: lumbra.nearest_psd(np.eye(2), A_eq=np.zeros((1, 2, 2)), b_eq=[1.0]), None),
])
def test_solver_errors(u, call, status):
    with pytest.raises(lumbra.SolverError) as info:
        call(u)
    assert info.value.code == 5 and info.value.status == (status or info.value.status)
    assert lumbra.STATUS_MESSAGES[info.value.status] in str(info.value)


def test_warnings_memory_and_unknown_returns():
    # Perfectly correlated assets: no Cholesky factor (positive INFO) on any
    # BLAS; the library warns and the path is returned.
    with pytest.warns(lumbra.LumbraWarning) as rec:
        paths = lumbra.simulate_gbm([1.0, 1.0, 1.0], [0.0, 0.0, 0.0], np.full((3, 3), 0.04), 1, 3)
    w = rec[0].message
    assert (w.code, w.function) == (6, "ORXsimulGeometricBrownianX") and w.status > 0
    assert "Cholesky" in str(w) and paths.shape == (3, 3)
    with pytest.raises(lumbra.LumbraMemoryError) as info:
        _errors.check("ORXmodelingCov", 2, 0)
    assert isinstance(info.value, MemoryError) and info.value.code == 2
    with pytest.warns(lumbra.LumbraWarning, match="iteration limit"):
        _errors.check("ORXallocMV", 6, 1007)
    with pytest.raises(lumbra.LumbraError, match="unexpected return value 7"):
        _errors.check("ORXallocMV", 7, 0)
    assert all(issubclass(c, lumbra.LumbraError) for c in
               (lumbra.ArgumentError, lumbra.SolverError, lumbra.LumbraMemoryError))


def test_library_not_found_lists_what_was_tried(tmp_path):
    code = "import lumbra\ntry:\n    lumbra.version()\nexcept lumbra.LibraryNotFoundError as e:\n" \
           "    print(e)\n"
    env = dict(os.environ, LUMBRA_LIBRARY=str(tmp_path / "nowhere.so"))
    out = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                         cwd=pathlib.Path(lumbra.__file__).parents[1], check=True).stdout
    assert "cannot load liborx-lumbra-c-4.1.so" in out and "nowhere.so (no such file)" in out
