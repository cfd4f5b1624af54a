# SPDX-License-Identifier: Apache-2.0
"""Finding and loading the shared library, and the ctypes prototypes of its
18 exports.

The library is looked for, in this order:

1. the environment variable ``LUMBRA_LIBRARY``: the path of the library file,
   or of a directory holding it;
2. the installed location: ``cmake --install`` writes ``_installed.py`` into
   this package with the library directory relative to the package;
3. the build trees of a source checkout: ``build/`` first, then any other
   ``build*/`` directory next to ``python/``, most recently built first;
4. the system's dynamic loader search path (``LD_LIBRARY_PATH``, ld.so cache).

Every place tried, and why it failed, is listed in the error when none works.
"""
from __future__ import annotations

import ctypes
import os
import pathlib
import threading

LIBRARY_NAME = "liborx-lumbra-c-4.1.so"
ENVIRONMENT_VARIABLE = "LUMBRA_LIBRARY"

_int_p = ctypes.POINTER(ctypes.c_int)
_dbl_p = ctypes.POINTER(ctypes.c_double)
_I, _D = _int_p, _dbl_p

# Argument kinds of every export, in order: I for int*, D for double*.
PROTOTYPES: dict[str, tuple] = {
    "ORXallocMV": (_I, _D, _D, _I, _I, _D, _D, _D, _D, _D, _D, _I),
    "ORXallocIT": (_I, _D, _D, _D, _D, _I, _I, _D, _D, _D, _D, _D, _D, _I),
    "ORXallocSharpeRatio": (_I, _D, _D, _I, _I, _D, _D, _D, _D, _D, _D, _I),
    "ORXmodelingReturns": (_I, _I, _D, _I, _D, _I),
    "ORXmodelingLogReturns": (_I, _I, _D, _I, _D, _I),
    "ORXmodelingCov": (_I, _I, _D, _D, _I),
    "ORXmodelingCorr": (_I, _I, _D, _D, _I),
    "ORXmodelingSDLS": (_I, _D, _I, _D, _D, _I, _D, _D, _D, _D, _D, _D, _I),
    "ORXmodelingSDLScorr": (_I, _D, _D, _D, _D, _I),
    "ORXanalysisExanteReturn": (_I, _D, _D, _D, _I),
    "ORXanalysisExanteVolatility": (_I, _D, _D, _D, _I),
    "ORXanalysisExanteNormalVaR": (_I, _D, _D, _D, _D, _D, _I),
    "ORXanalysisExanteModifiedVaR": (_I, _I, _D, _D, _D, _D, _D, _I),
    "ORXanalysisExpostReturn": (_I, _D, _D, _I),
    "ORXanalysisExpostVolatility": (_I, _D, _D, _I),
    "ORXanalysisGaussianKernel": (_I, _I, _D, _D, _D, _I),
    "ORXsimulGeometricBrownianX": (_I, _I, _I, _D, _D, _D, _D, _I),
    "ORXlumbraTest": (_I, _I, _I, _I, _I, _I),
}


class LibraryNotFoundError(OSError):
    """The shared library could not be found or loaded; the message lists
    every place tried."""


def _package_dir() -> pathlib.Path:
    return pathlib.Path(__file__).resolve().parent


def _candidates() -> list[tuple[str, pathlib.Path | str]]:
    """The places to try, in order, each with the name of its rule."""
    found: list[tuple[str, pathlib.Path | str]] = []
    env = os.environ.get(ENVIRONMENT_VARIABLE)
    if env:
        path = pathlib.Path(env)
        found.append((f"${ENVIRONMENT_VARIABLE}", path / LIBRARY_NAME if path.is_dir() else path))
        # An explicit choice is final: falling back silently to another
        # copy would hide a mistake in the variable.
        return found
    try:
        from . import _installed  # written by cmake --install

        found.append(("installed", (_package_dir() / _installed.LIBRARY_DIR / LIBRARY_NAME).resolve()))
    except ImportError:
        pass
    checkout = _package_dir().parent.parent
    builds = sorted((p for p in checkout.glob("build*") if (p / LIBRARY_NAME).exists()),
                    key=lambda p: (p.name != "build", -(p / LIBRARY_NAME).stat().st_mtime))
    found.extend(("build tree", p / LIBRARY_NAME) for p in builds)
    if not builds:
        found.append(("build tree", checkout / "build" / LIBRARY_NAME))
    found.append(("loader search path", LIBRARY_NAME))
    return found


def _prototype(lib: ctypes.CDLL) -> ctypes.CDLL:
    """Sets argument and result types of every export."""
    for name, args in PROTOTYPES.items():
        fn = getattr(lib, name)
        fn.argtypes = list(args)
        fn.restype = ctypes.c_int
    return lib


def load(path: str | os.PathLike | None = None) -> ctypes.CDLL:
    """Loads the library from `path`, or from the first place that works."""
    tried = []
    places = [("argument", pathlib.Path(path))] if path is not None else _candidates()
    for rule, place in places:
        if isinstance(place, pathlib.Path) and not place.exists():
            tried.append(f"  {rule}: {place} (no such file)")
            continue
        try:
            lib = ctypes.CDLL(str(place))
        except OSError as err:
            tried.append(f"  {rule}: {place} ({err})")
            continue
        try:
            return _prototype(lib)
        except AttributeError as err:
            tried.append(f"  {rule}: {place} (not the lumbra library: {err})")
    raise LibraryNotFoundError(
        f"cannot load {LIBRARY_NAME}; tried, in order:\n" + "\n".join(tried) +
        f"\nSet {ENVIRONMENT_VARIABLE} to the library's path, build it with "
        "`cmake --build build --target lumbra`, or install it with `cmake --install`.")


_lock = threading.Lock()
_lib: ctypes.CDLL | None = None


def library() -> ctypes.CDLL:
    """The loaded library, loaded on first use."""
    global _lib
    with _lock:
        if _lib is None:
            _lib = load()
        return _lib


def library_path() -> str:
    """File name of the loaded library."""
    return library()._name
