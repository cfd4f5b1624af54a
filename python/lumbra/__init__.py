# SPDX-License-Identifier: Apache-2.0
"""lumbra: numerical library for quantitative portfolio work, for numpy and
pandas users.

One function per export of the shared library ``liborx-lumbra-c-4.1.so``
(allocation, returns and covariance, matrix nearness, risk figures, path
simulation), plus an efficient frontier, its picture and rolling weights.
The library is found through ``LUMBRA_LIBRARY``, the installed location or
a build tree (see ``lumbra._library``).
"""
from ._errors import (STATUS_MESSAGES, ArgumentError, LumbraError, LumbraMemoryError,
                      LumbraWarning, SolverError, status_message)
from ._library import LIBRARY_NAME, LibraryNotFoundError, library_path
from .core import (LibraryVersion, alloc_max_sharpe, alloc_mv, alloc_tracking, correlation,
                   covariance, exante_return, exante_volatility, expost_return,
                   expost_volatility, kernel_density, log_returns, modified_var,
                   nearest_correlation, nearest_psd, normal_var, returns, simulate_gbm, version)
from .portfolio import efficient_frontier, plot_frontier, rolling_allocation

__version__ = "4.1.0"

__all__ = [
    "alloc_mv", "alloc_tracking", "alloc_max_sharpe", "returns", "log_returns", "covariance",
    "correlation", "nearest_psd", "nearest_correlation", "exante_return", "exante_volatility",
    "normal_var", "modified_var", "expost_return", "expost_volatility", "kernel_density",
    "simulate_gbm", "version", "efficient_frontier", "plot_frontier", "rolling_allocation",
    "LumbraError", "ArgumentError", "LumbraMemoryError", "SolverError", "LumbraWarning",
    "LibraryNotFoundError", "LibraryVersion", "STATUS_MESSAGES", "status_message",
    "library_path", "LIBRARY_NAME",
]
