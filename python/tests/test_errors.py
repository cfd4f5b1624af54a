# SPDX-License-Identifier: Apache-2.0
"""Every status the header documents has a message, and every error class path."""
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
NUMBER, RANGE = r"(?<![\w.+-])(-?\d+)(?!\w|\.\d)", r"(-?\d+)\s*\.\.\s*(-?\d+)"


def big(v):
    return v < 0 or v >= 1000  # small positive numbers are counts and return values


def documented_statuses(text):
    """Ranges, big numbers and "status N" after a comment's first "status"; defines."""
    found = set()
    for comment in re.findall(r"/\*(.*?)\*/", text, re.S):
        comment = re.sub(r"Return values.*?301\+[^.]*\.", " ", re.sub(r"\s*\*\s+", " ", comment),
                         flags=re.S)
        part = comment[re.search(r"\bstatus(es)?\b|$", comment, re.I).start():]
        ranges = [sorted(map(int, r)) for r in re.findall(RANGE, part)]
        found.update(v for a, b in ranges if big(a) and big(b) for v in range(a, b + 1))
        part = re.sub(RANGE, " ", part)
        found.update(v for v in map(int, re.findall(NUMBER, part)) if big(v))
        found.update(int(v) for v in re.findall(r"\bstatus(?:es)?:?\s+" + NUMBER, part, re.I))
    found.update(int(v) for v in
                 re.findall(r"^\s*#\s*define\s+ORX_STATUS_\w+\s+\(?\s*(-?\d+)\s*\)?", text, re.M))
    return found


def test_every_documented_status_has_a_message():
    documented = documented_statuses(HEADER.read_text())
    # The parser sees lists, ranges, "Status 5", defines; not argument tests, counts.
    assert {-108, 1007, -100, -109, 5, -103, -1102, -1109, -2001, -18} <= documented
    assert documented_statuses("/* n >= 2 (301); status (304) 2..5 */") == set()
    assert not sorted(documented - set(lumbra.STATUS_MESSAGES))
    # Unknown values, and LAPACK INFO values read according to the export.
    assert lumbra.status_message(424242) == "undocumented status 424242"
    assert "DSYEVR INFO 7" in lumbra.status_message(7, "ORXmodelingSDLScorr")


@pytest.mark.parametrize("call,code,status,argument", [
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, bounds=(0.5, 0.4)), 308, 0, "bounds"),
    (lambda u: lumbra.modified_var(np.ones(4), u["returns"][:3], u["cov"]), 301, 0, "returns"),
    (lambda u: lumbra.alloc_mv(np.array([[1.0, 2.0], [2.0, 1.0]]), [0.1, 0.2], 0.1), 5, -108, None),
    (lambda u: lumbra.log_returns(np.array([[1e-20], [1.0]])), 5, -103, None),
    (lambda u: lumbra.modified_var(np.ones(2), np.ones((6, 2)), np.eye(2)), 5, -104, None),
])
def test_failures_raise_their_class(u, call, code, status, argument):
    with pytest.raises(lumbra.ArgumentError if argument else lumbra.SolverError) as info:
        call(u)
    e = info.value
    assert (e.code, e.status) == (code, status) and isinstance(e, lumbra.LumbraError)
    assert (e.position, e.argument, isinstance(e, ValueError), f"`{argument}`" in str(e)) == \
        (code - 300, argument, True, True) if argument else lumbra.STATUS_MESSAGES[status] in str(e)


def test_warnings_memory_and_unknown_returns():
    # Perfectly correlated assets: no Cholesky factor on any BLAS, a warning.
    with pytest.warns(lumbra.LumbraWarning) as rec:
        paths = lumbra.simulate_gbm([1.0, 1.0, 1.0], [0.0, 0.0, 0.0], np.full((3, 3), 0.04), 1, 3)
    w = rec[0].message
    assert (w.code, w.function) == (6, "ORXsimulGeometricBrownianX") and w.status > 0
    assert "Cholesky" in str(w) and paths.shape == (3, 3)
    with pytest.raises(lumbra.LumbraMemoryError) as info:
        _errors.check("ORXmodelingCov", 2, 0)
    assert isinstance(info.value, MemoryError) and info.value.code == 2
    with pytest.raises(lumbra.LumbraError, match="unexpected return value 7"):
        _errors.check("ORXallocMV", 7, 0)


def test_library_not_found_lists_what_was_tried(tmp_path):
    code = "import lumbra\ntry: lumbra.version()\nexcept lumbra.LibraryNotFoundError as e: print(e)"
    env = dict(os.environ, LUMBRA_LIBRARY=str(tmp_path / "nowhere.so"))
    out = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                         cwd=pathlib.Path(lumbra.__file__).parents[1], check=True).stdout
    assert "cannot load liborx-lumbra-c-4.1.so" in out and "nowhere.so (no such file)" in out
