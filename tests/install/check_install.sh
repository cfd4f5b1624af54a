#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the build tree into a scratch prefix, then builds a consumer
# against it twice: through the CMake package and through pkg-config.
# Usage: check_install.sh BUILD_DIR SOURCE_DIR SCRATCH_DIR
set -eu
build=$1; here=$2; scratch=$3
rm -rf "$scratch"; mkdir -p "$scratch"
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
lib=$(ls -d "$scratch"/prefix/lib*/ | head -n 1)

cmake -S "$here/consumer" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
LD_LIBRARY_PATH="$lib" "$scratch/cmake-build/consumer"

export PKG_CONFIG_PATH="$lib/pkgconfig"
cc -o "$scratch/consumer-pc" "$here/consumer/consumer.c" $(pkg-config --cflags --libs orx-lumbra)
LD_LIBRARY_PATH="$lib" "$scratch/consumer-pc"

# Only the 18 exports are visible.
count=$(nm -D --defined-only "$lib/liborx-lumbra-c-4.1.so" | grep -c ' T ')
[ "$count" -eq 18 ] || { echo "expected 18 exports, found $count"; exit 1; }
echo "install: 1 passed, 0 failed"
