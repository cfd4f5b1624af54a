#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds the benchmarks and runs every one of them with its peers, first on
# Debian's reference BLAS/LAPACK, then on the system's default BLAS
# (OpenBLAS), one thread each, and prints the tables of bench/README.md.
#
#   bench/run_all.sh [BUILD_DIR]        (default build-bench)
#
# The library is linked against the generic libblas.so.3 / liblapack.so.3,
# so that the dynamic linker picks the implementation at run time: the
# reference one through LD_LIBRARY_PATH, the system's choice without it.
# Needs: Google Benchmark, python3 with numpy, scipy and cvxopt, and R with
# quadprog, and statsmodels (all Debian packages).  Takes about a quarter of an
# hour on two cores.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DLUMBRA_BUILD_BENCH=ON \
  -DBLA_VENDOR=Generic >/dev/null
cmake --build "$build" -j2 --target bench_covariance bench_alloc bench_qp bench_stats \
  bench_simul bench_nearness lumbra >/dev/null
exec /usr/bin/python3 "$root/bench/run_all.py" "$build"
