# SPDX-License-Identifier: Apache-2.0
"""The installed package finds the installed library without any variable."""
import os
import pathlib
import subprocess
import sys

import pytest


def test_installed_package_finds_the_installed_library(tmp_path):
    build = os.environ.get("LUMBRA_BUILD_DIR") or pytest.skip("no LUMBRA_BUILD_DIR to install")
    subprocess.run(["cmake", "--install", build, "--prefix", str(tmp_path)], check=True,
                   capture_output=True)
    env = {k: v for k, v in os.environ.items() if k not in ("LUMBRA_LIBRARY", "PYTHONPATH")}
    env["PYTHONPATH"] = str(tmp_path / "lib" / "python3" / "dist-packages")
    code = ("import lumbra, numpy as np; print(lumbra.__file__); print(lumbra.library_path()); "
            "print(lumbra.covariance(np.array([[1.0, 2.0], [2.0, 1.0], [0.0, 0.0]]))[0, 0])")
    out = subprocess.run([sys.executable, "-c", code], env=env, cwd=tmp_path,
                         capture_output=True, text=True, check=True).stdout.split("\n")
    assert all(pathlib.Path(f).resolve().is_relative_to(tmp_path.resolve()) for f in out[:2])
    assert float(out[2]) == 1.0
