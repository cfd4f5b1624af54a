#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Peer of bench_covariance: numpy.cov on a T = 2500 by n table (same BLAS,
run with OPENBLAS_NUM_THREADS=1).  Prints the best of several timings, in
process CPU time."""
import time
import timeit

import numpy as np

rng = np.random.default_rng(20261123)
for n in (500, 1000):
    x = rng.normal(0.0005, 0.02, (2500, n))
    runs = timeit.repeat(lambda: np.cov(x, rowvar=False), number=1, repeat=7,
                         timer=time.process_time)
    print(f"numpy.cov T=2500 n={n}: best {min(runs) * 1e3:.1f} ms, median {sorted(runs)[3] * 1e3:.1f} ms")
