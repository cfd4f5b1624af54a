# SPDX-License-Identifier: Apache-2.0
"""The status table against the header, and every error path: argument
failures named, solver failures, warnings, memory, unknown values."""
import pathlib
import re

import numpy as np
import pytest

import lumbra
from lumbra import _errors

HEADER = pathlib.Path(__file__).resolve().parents[2] / "include" / "lumbra.h"


def documented_statuses(text):
    """Every status value the header's comments name.  In each comment,
    from its first mention of a status on: the ranges (a..b), negative
    numbers and numbers from 1000 up, and a number right after the word
    "status" (as in "Status 5").  Small positive numbers elsewhere are
    counts, argument tests or return values ("(return 6)", "max(2M, 300)"),
    and the block of return values is left out."""
    number = r"(?<![\w.+-])(-?\d+)(?!\w|\.\d)"

    def counts(v):
        return v < 0 or v >= 1000

    found = set()
    for comment in re.findall(r"/\*(.*?)\*/", text, re.S):
        comment = re.sub(r"\s*\*\s+", " ", comment)
        comment = re.sub(r"Return values.*?301\+[^.]*\.", " ", comment, flags=re.S)
        start = re.search(r"\bstatus(es)?\b", comment, re.I)
        if not start:
            continue
        part = comment[start.start():]
        for lo, hi in re.findall(r"(-?\d+)\s*\.\.\s*(-?\d+)", part):
            a, b = sorted((int(lo), int(hi)))
            if counts(a) and counts(b):
                found.update(range(a, b + 1))
        part = re.sub(r"(-?\d+)\s*\.\.\s*(-?\d+)", " ", part)
        found.update(v for v in map(int, re.findall(number, part)) if counts(v))
        found.update(int(v) for v in re.findall(r"\bstatus(?:es)?:?\s+" + number, part, re.I))
    # The named values: #define ORX_STATUS_NAME value, negative ones in
    # parentheses.
    found.update(int(v) for v in
                 re.findall(r"^\s*#\s*define\s+ORX_STATUS_\w+\s+\(?\s*(-?\d+)\s*\)?", text, re.M))
    return found


def test_parser_reads_the_header_forms():
    text = ("/* Statuses: -108 cov not ok, 1007 limit, and -1002..-1004, 10077.\n"
            " * Status 5 (return 6): a warning.  Status -103: a price below 1e-30.\n"
            " * n >= 2 (301); cov[n][n] (302) and arguments (306..311). */\n"
            "/* Tests (303); the status (304) comes second.\n"
            " * Statuses (return 6 for the positive ones, 5 for the negative ones):\n"
            " *   1104   iteration limit max(2M, 300) reached; best point returned\n"
            " *   1105   evaluation limit (3 times the iteration limit) reached\n"
            " *  -1109   an equality misses by more than 1e-5; eigenFloor above\n"
            " *          0.999999999999999 gives -2001. */")
    assert documented_statuses(text) == {-108, 1007, -1002, -1003, -1004, 10077, 5, -103,
                                         1104, 1105, -1109, -2001}
    assert documented_statuses("/* n >= 2 (301). */") == set()
    assert documented_statuses("#define ORX_STATUS_A (-108) /* a */\n"
                               "#define ORX_STATUS_B      5 /* b */\n"
                               "#define ORX_RETURN_C    300\n") == {-108, 5}


def test_every_documented_status_has_a_message():
    documented = documented_statuses(HEADER.read_text())
    assert {-108, 1007, -100, -109, 5, -103, -1102, -1109, -2001, -18} <= documented  # the parser sees the header
    missing = sorted(documented - set(lumbra.STATUS_MESSAGES))
    assert not missing, f"statuses without a message in STATUS_MESSAGES: {missing}"


def test_messages_are_readable():
    for status, text in lumbra.STATUS_MESSAGES.items():
        assert len(text) >= 7 and text == text.strip(), status
    assert lumbra.STATUS_MESSAGES[-108] == "covariance matrix is not positive definite"
    assert lumbra.STATUS_MESSAGES[1007].startswith("iteration limit reached")
    assert "undocumented status 424242" == lumbra.status_message(424242)
    # LAPACK INFO values read according to the export.
    assert "Cholesky" in lumbra.status_message(3, "ORXsimulGeometricBrownianX")
    assert "DSYEVR INFO 7" in lumbra.status_message(7, "ORXmodelingSDLScorr")
    assert lumbra.status_message(-2001, "ORXmodelingSDLScorr") == lumbra.STATUS_MESSAGES[-2001]
    assert lumbra.status_message(-1102, "ORXmodelingSDLScorr") == lumbra.STATUS_MESSAGES[-1102]
    assert "DSYEVR INFO -4" in lumbra.status_message(-4, "ORXmodelingSDLS")
    assert lumbra.status_message(1104, "ORXmodelingSDLS") == lumbra.STATUS_MESSAGES[1104]


def test_every_argument_of_every_export_is_named():
    from lumbra._library import PROTOTYPES
    for export, kinds in PROTOTYPES.items():
        if export == "ORXlumbraTest":
            continue
        names = _errors.ARGUMENTS[export]
        # Every argument but the result and the status.
        assert len(names) == len(kinds) - 2, export


@pytest.mark.parametrize("call,position,argument", [
    (lambda u: lumbra.alloc_mv(u["cov"][:1, :1], u["mu"][:1], 0.0), 1, "cov"),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 0.0, bounds=(0.5, 0.4)), 8, "bounds"),
    (lambda u: lumbra.alloc_max_sharpe(u["cov"][:1, :1], u["mu"][:1]), 1, "cov"),
    (lambda u: lumbra.alloc_tracking(u["cov"], u["mu"], np.full(4, 0.25), bounds=(1, 0)),
     10, "bounds"),
    (lambda u: lumbra.returns(u["prices"], 0), 4, "lag"),
    (lambda u: lumbra.returns(u["prices"], 10**6), 4, "lag"),
    (lambda u: lumbra.log_returns(-u["prices"]), 3, "prices"),
    (lambda u: lumbra.returns(np.array([[1.0, 0.0], [2.0, 1.0]])), 3, "prices"),
    (lambda u: lumbra.covariance(u["returns"][:1]), 1, "returns"),
    (lambda u: lumbra.correlation(np.zeros((5, 0))), 2, "returns"),
    (lambda u: lumbra.normal_var(np.ones(4), u["cov"], u["mu"], 1.0), 5, "level"),
    (lambda u: lumbra.modified_var(np.ones(4), u["returns"], u["cov"], 0.0), 6, "level"),
    (lambda u: lumbra.modified_var(np.ones(4), u["returns"][:3], u["cov"]), 1, "returns"),
    (lambda u: lumbra.exante_return(np.zeros(0), np.zeros(0)), 1, "weights"),
    (lambda u: lumbra.expost_volatility(np.ones(1)), 1, "series"),
    (lambda u: lumbra.kernel_density(u["returns"][:, 0], [0.1, 0.0]), 4, "points"),
    (lambda u: lumbra.kernel_density(u["returns"][:, 0], np.zeros(0)), 2, "points"),
    (lambda u: lumbra.nearest_correlation(np.eye(3), tolerance=0.0), 3, "tolerance"),
    (lambda u: lumbra.nearest_correlation(np.eye(3), eigen_floor=1.0), 4, "eigen_floor"),
    (lambda u: lumbra.nearest_psd(np.eye(3), eigen_floor=-1.0), 11, "eigen_floor"),
    (lambda u: lumbra.nearest_psd(np.eye(3), A_ineq=np.eye(3), ineq_lower=[1.0],
                                  ineq_upper=[0.0]), 8, "ineq_lower"),
])
def test_argument_errors_name_the_argument(universe, call, position, argument):
    with pytest.raises(lumbra.ArgumentError) as info:
        call(universe)
    err = info.value
    assert (err.code, err.status, err.position, err.argument) == (300 + position, 0, position,
                                                                  argument)
    assert f"`{argument}`" in str(err) and isinstance(err, ValueError)


@pytest.mark.parametrize("call,status", [
    (lambda u: lumbra.alloc_mv(np.array([[1.0, 2.0], [2.0, 1.0]]), [0.1, 0.2], 0.1), -108),
    (lambda u: lumbra.alloc_mv(u["cov"], u["mu"], 1.0), -100),
    (lambda u: lumbra.alloc_max_sharpe(u["cov"], u["mu"], 1.0), -100),
    (lambda u: lumbra.normal_var(np.ones(4), u["cov"], u["mu"], 1e-9), -102),
    (lambda u: lumbra.log_returns(np.array([[1.0], [1e-20]]) [::-1]), -103),
    (lambda u: lumbra.modified_var(np.ones(2), np.ones((6, 2)), np.eye(2)), -104),
])
def test_solver_errors(universe, call, status):
    with pytest.raises(lumbra.SolverError) as info:
        call(universe)
    assert (info.value.code, info.value.status) == (5, status)
    assert lumbra.STATUS_MESSAGES[status] in str(info.value)


def test_simulation_without_cholesky_factor_warns():
    """Perfectly correlated assets: the floored covariance has no Cholesky
    factor (a positive LAPACK INFO, on the reference BLAS and OpenBLAS
    alike); the library warns and the path is returned."""
    with pytest.warns(lumbra.LumbraWarning) as rec:
        paths = lumbra.simulate_gbm([1.0, 1.0, 1.0], [0.0, 0.0, 0.0], np.full((3, 3), 0.04), 1, 3)
    w = rec[0].message
    assert (w.code, w.function) == (6, "ORXsimulGeometricBrownianX") and w.status > 0
    assert "Cholesky" in str(w) and paths.shape == (3, 3)


def test_translation_of_every_return_value():
    _errors.check("ORXmodelingCov", 0, 0)
    with pytest.raises(lumbra.LumbraMemoryError) as info:
        _errors.check("ORXmodelingCov", 2, 0)
    assert isinstance(info.value, MemoryError) and info.value.code == 2
    with pytest.warns(lumbra.LumbraWarning, match="iteration limit"):
        _errors.check("ORXallocMV", 6, 1007)
    with pytest.raises(lumbra.SolverError, match="not positive definite"):
        _errors.check("ORXallocMV", 5, -108)
    with pytest.raises(lumbra.LumbraError, match="unexpected return value 7"):
        _errors.check("ORXallocMV", 7, 0)
    for cls in (lumbra.ArgumentError, lumbra.SolverError, lumbra.LumbraMemoryError):
        assert issubclass(cls, lumbra.LumbraError)
    assert issubclass(lumbra.LumbraWarning, Warning)


def test_nearness_failure_statuses_reach_the_caller():
    # An equality no symmetric matrix can meet: trace(0 X) = 1.
    with pytest.raises(lumbra.SolverError) as info:
        lumbra.nearest_psd(np.eye(2), A_eq=np.zeros((1, 2, 2)), b_eq=[1.0])
    assert info.value.status in (-1102, -1103, -1107, -1108, -1109)
