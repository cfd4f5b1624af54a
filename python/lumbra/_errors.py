# SPDX-License-Identifier: Apache-2.0
"""Exceptions and warnings, the one table of status messages, and the
translation of an export's return value and status into them.

Return values of the exports: 0 success; 2 no work memory; 5 failure (the
reason in the negative status); 6 warning or partial result (a positive
status); 300 + k argument k failed its test.
"""
from __future__ import annotations

import warnings

# Readable meaning of every engine status.  Statuses whose meaning depends
# on the export (LAPACK INFO values) are in LAPACK_INFO_EXPORTS below.
STATUS_MESSAGES: dict[int, str] = {
    0: "success",
    -2: "too few observations for the computation (simulation: a negative horizon)",
    -3: "the covariance matrix rebuilt from its floored eigenvalues is not finite",
    -5: "the covariance matrix holds a NaN or an infinity",
    5: "an asset has (near) zero variance: its correlations are set to 0",
    # Return and risk statistics.
    -102: "confidence level outside the engine's limits [1e-8, 0.99999999]",
    -103: "a price used as a denominator is below the threshold "
          "(1e-30 for simple returns, 1e-15 for logarithmic returns), "
          "or a return that is not finite",
    -104: "a variance below 1e-30 or not finite: data, a variance or a result "
          "holding a NaN or an infinity",
    -1000: "a co-moment index or moment order is out of range",
    # Allocation.
    -100: "no feasible portfolio: the constraints, the bounds and the return "
          "requirement cannot all be met (or the result failed verification)",
    -101: "inconsistent constraints",
    -108: "covariance matrix is not positive definite",
    -109: "the solver's point misses a constraint or bound by more than 1e-8 "
          "relative (accuracy lost on degenerate data)",
    -113: "the scale variable of the Sharpe-ratio problem vanished: "
          "the solution has no scale to divide by",
    -8888: "the feasibility problem's constraint matrix could not be filled",
    1111: "the feasibility problem ended with a constraint violated by more than 1e-8",
    # Quadratic programming solver.
    1001: "no point meets the constraints (feasible-point search)",
    1007: "iteration limit reached: the weights are the last, feasible but "
          "not optimal, iterate",
    -1002: "the quadratic problem is unbounded on the current subspace",
    -1003: "the solver is cycling at a degenerate point",
    -1004: "a step grew so long that the objective counts as unbounded",
    -1005: "invalid input to the solver, such as a lower bound above its upper bound",
    -1006: "the equality constraints have no solution",
    -1007: "the quadratic programming solver failed",
    -1008: "the solver had to add a constraint and had none left",
    10077: "the feasible-point search reached its iteration limit",
    -10078: "the feasible-point search was given invalid arguments",
    -18: "the solver's final refinement met a bad entry of its working list",
    -6: "one-variable problem: no feasible value",
    -7: "one-variable problem: an inequality with a zero coefficient cannot hold",
    -8: "one-variable problem: an equality with a zero coefficient cannot hold",
    -9: "one-variable problem: the constraints leave no feasible value",
    # Matrix nearness.
    -1101: "the minimiser was asked to stop by its simulator",
    -1102: "the minimiser could not be started: a NaN or an infinity in the data, "
           "or a vanishing step bound",
    -1103: "the quasi-Newton (BFGS) update failed",
    1104: "iteration limit reached: the best point so far is returned",
    1105: "simulation limit reached: the best point so far is returned",
    1106: "the line search can make no more progress: the best point so far is returned",
    -1107: "the factor update failed while a bound was released",
    -1108: "the line search can make no more progress at a vanishing step",
    -1109: "an equality constraint misses by more than 1e-5",
    -1110: "an inequality constraint is violated by more than 1e-5",
    -2001: "eigenvalue floor outside [0, 0.999999999999999]",
}

# Exports for which a status outside their own documented values is a
# LAPACK INFO value: (message, the export's documented statuses).
LAPACK_INFO_EXPORTS: dict[str, tuple[str, frozenset]] = {
    "ORXsimulGeometricBrownianX": (
        "the covariance matrix has no Cholesky factor even after its eigenvalues were "
        "floored; the paths carry no meaning (LAPACK INFO {status})",
        frozenset({0, -2, -3, -5, -104})),
    "ORXmodelingSDLScorr": (
        "the final eigen-decomposition failed (LAPACK DSYEVR INFO {status})",
        frozenset({0, -1102, -2001})),
    "ORXmodelingSDLS": (
        "the final eigen-decomposition failed (LAPACK DSYEVR INFO {status})",
        frozenset({0, *range(-1110, -1100), 1104, 1105, 1106})),
}

RETURN_MESSAGES: dict[int, str] = {
    0: "success",
    2: "a work array could not be obtained",
    5: "the computation failed",
    6: "warning or partial result",
}

# C name, Python name and test of every argument of every export, by
# position: argument k fails with return value 300 + k.
ARGUMENTS: dict[str, tuple[tuple[str, str, str], ...]] = {}
_ALLOC = (("n", "cov", "at least 2 assets"), ("cov", "cov", "covariance matrix"),
          ("mu", "mu", "expected returns"), ("nEq", "A_eq", "number of equalities >= 0"),
          ("nIneq", "A_ub", "number of inequalities >= 0"),
          ("cons", "A_eq/A_ub", "constraint matrix"), ("rhs", "b_eq/b_ub", "right-hand sides"),
          ("lower", "bounds", "lower bounds, none above its upper bound"),
          ("upper", "bounds", "upper bounds"))
ARGUMENTS["ORXallocMV"] = _ALLOC + (("target", "target", ""),)
ARGUMENTS["ORXallocSharpeRatio"] = _ALLOC + (("riskFree", "risk_free", ""),)
ARGUMENTS["ORXallocIT"] = _ALLOC[:3] + (
    ("benchCov", "benchmark", "covariance of each asset with the benchmark"),
    ("benchReturn", "benchmark", "")) + _ALLOC[3:] + (("excess", "excess", ""),)
for _name in ("ORXmodelingReturns", "ORXmodelingLogReturns"):
    ARGUMENTS[_name] = (("nObs", "prices", "at least 2 observations"),
                        ("nSeries", "prices", "at least 1 series"),
                        ("prices", "prices", "every price strictly positive"),
                        ("lag", "lag", "0 < lag < number of observations"))
for _name in ("ORXmodelingCov", "ORXmodelingCorr"):
    ARGUMENTS[_name] = (("nObs", "returns", "at least 2 observations"),
                        ("nAssets", "returns", "at least 1 asset"),
                        ("returns", "returns", "return table"))
ARGUMENTS["ORXmodelingSDLS"] = (
    ("n", "target", "at least 1 row"), ("target", "target", "target matrix"),
    ("nEq", "A_eq", "number of equalities >= 0"), ("eqMatrices", "A_eq", "equality matrices"),
    ("eqValues", "b_eq", "equality values"), ("nIneq", "A_ineq", "number of inequalities >= 0"),
    ("ineqMatrices", "A_ineq", "inequality matrices"),
    ("ineqLower", "ineq_lower", "inequality lower limits, none above its upper limit"),
    ("ineqUpper", "ineq_upper", "inequality upper limits"), ("tolerance", "tolerance", "> 0"),
    ("eigenFloor", "eigen_floor", ">= 0"))
ARGUMENTS["ORXmodelingSDLScorr"] = (
    ("n", "target", "at least 1 row"), ("target", "target", "target matrix"),
    ("tolerance", "tolerance", "> 0"), ("eigenFloor", "eigen_floor", "0 <= eigen_floor < 1"))
ARGUMENTS["ORXanalysisExanteReturn"] = (
    ("n", "weights", "at least 1 asset"), ("mu", "mu", "expected returns"),
    ("weights", "weights", "weights"))
ARGUMENTS["ORXanalysisExanteVolatility"] = (
    ("n", "weights", "at least 1 asset"), ("cov", "cov", "covariance matrix"),
    ("weights", "weights", "weights"))
ARGUMENTS["ORXanalysisExanteNormalVaR"] = (
    ("n", "weights", "at least 1 asset"), ("cov", "cov", "covariance matrix"),
    ("mu", "mu", "expected returns"), ("weights", "weights", "weights"),
    ("level", "level", "0 < level < 1"))
ARGUMENTS["ORXanalysisExanteModifiedVaR"] = (
    ("nObs", "returns", "at least 4 observations"), ("nAssets", "weights", "at least 1 asset"),
    ("weights", "weights", "weights"), ("returns", "returns", "return history"),
    ("cov", "cov", "covariance matrix"), ("level", "level", "0 < level < 1"))
ARGUMENTS["ORXanalysisExpostReturn"] = (("n", "series", "at least 1 value"),
                                        ("series", "series", "series"))
ARGUMENTS["ORXanalysisExpostVolatility"] = (("n", "series", "at least 2 values"),
                                            ("series", "series", "series"))
ARGUMENTS["ORXanalysisGaussianKernel"] = (
    ("nObs", "data", "at least 2 observations"), ("nPoints", "points", "at least 1 point"),
    ("data", "data", "sample"), ("points", "points", "points in non-decreasing order"))
ARGUMENTS["ORXsimulGeometricBrownianX"] = (
    ("n", "start", "at least 1 asset"), ("horizon", "horizon", ""), ("steps", "steps", ">= 1"),
    ("start", "start", "start prices"), ("drift", "drift", "drifts"),
    ("cov", "cov", "covariance matrix"))


class LumbraError(Exception):
    """A call of the library failed.  `code` is the export's return value,
    `status` its detailed status, `function` the export's C name."""

    def __init__(self, message: str, code: int, status: int, function: str = ""):
        super().__init__(message)
        self.code = code
        self.status = status
        self.function = function


class ArgumentError(LumbraError, ValueError):
    """An argument failed the library's test (return value 301 and up).
    `position` is its 1-based C position, `argument` the Python argument."""

    def __init__(self, message: str, code: int, status: int, function: str,
                 position: int, argument: str):
        super().__init__(message, code, status, function)
        self.position = position
        self.argument = argument


class LumbraMemoryError(LumbraError, MemoryError):
    """The library could not obtain its work memory (return value 2)."""


class SolverError(LumbraError):
    """The computation ran and failed (return value 5, negative status)."""


class LumbraWarning(UserWarning):
    """The computation ran with a warning or a partial result (return value 6,
    positive status); the result is returned."""

    def __init__(self, message: str, code: int = 6, status: int = 0, function: str = ""):
        super().__init__(message)
        self.code = code
        self.status = status
        self.function = function


# Statuses whose meaning in one export differs from the table above.
EXPORT_MESSAGES: dict[str, dict[int, str]] = {
    "ORXsimulGeometricBrownianX": {
        -2: "the horizon is negative",
        -5: "the covariance matrix holds a NaN or an infinity",
        -104: "a start price, a drift or a simulated price is not finite",
    },
}


def status_message(status: int, function: str = "") -> str:
    """The readable meaning of `status` as `function` reports it."""
    if status in EXPORT_MESSAGES.get(function, {}):
        return EXPORT_MESSAGES[function][status]
    if function in LAPACK_INFO_EXPORTS:
        text, own = LAPACK_INFO_EXPORTS[function]
        if status not in own:
            return text.format(status=status)
    if status in STATUS_MESSAGES:
        return STATUS_MESSAGES[status]
    return f"undocumented status {status}"


def argument_message(function: str, position: int) -> tuple[str, str]:
    """(Python argument name, readable test) of argument `position`."""
    table = ARGUMENTS.get(function, ())
    if 1 <= position <= len(table):
        cname, pyname, test = table[position - 1]
        text = f"`{pyname}` (argument {position}, {cname}, of {function})"
        return pyname, text + (f" failed its test: {test}" if test else " failed its test")
    return "", f"argument {position} of {function} failed its test"


def check(function: str, code: int, status: int, stacklevel: int = 3) -> None:
    """Raises or warns for a non-zero return value of export `function`."""
    if code == 0:
        return
    if code == 6:
        warnings.warn(LumbraWarning(f"{function}: {status_message(status, function)} "
                                    f"(status {status})", code, status, function),
                      stacklevel=stacklevel)
        return
    if code == 5:
        raise SolverError(f"{function}: {status_message(status, function)} (status {status})",
                          code, status, function)
    if code == 2:
        raise LumbraMemoryError(f"{function}: {RETURN_MESSAGES[2]}", code, status, function)
    if code > 300:
        name, text = argument_message(function, code - 300)
        raise ArgumentError(text, code, status, function, code - 300, name)
    raise LumbraError(f"{function}: unexpected return value {code} (status {status})",
                      code, status, function)
