#!/usr/bin/env bash
# The project's two entry points on a fresh Debian 12 machine:
#   ./run.sh demo   builds the library and runs the demo on the sample data
#   ./run.sh test   builds everything and runs the whole test suite
#                   (Release, then AddressSanitizer + UBSan, then the
#                   concurrency tests under ThreadSanitizer)
# Each installs the Debian packages it is missing when run as root.
set -euo pipefail
cd "$(dirname "$0")"
jobs=$(nproc 2>/dev/null || echo 2)

build_packages=(cmake make g++ pkg-config libblas-dev liblapack-dev)
test_packages=(googletest libgtest-dev python3 python3-numpy python3-scipy python3-cvxopt)

# Installs the listed Debian packages that are not installed yet.
ensure_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing Debian packages: ${missing[*]} (run as root, or install them)" >&2
    exit 1
  fi
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

configure() {  # configure DIR [cmake options...]
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
}

demo() {
  ensure_packages "${build_packages[@]}"
  configure build -DLUMBRA_BUILD_TESTS=OFF
  cmake --build build -j"$jobs" --target lumbra_demo >/dev/null
  ./build/examples/lumbra_demo build
}

run_tests() {
  ensure_packages "${build_packages[@]}" "${test_packages[@]}"
  export OPENBLAS_NUM_THREADS=1

  echo "== Release build, whole suite"
  configure build
  cmake --build build -j"$jobs" >/dev/null
  ctest --test-dir build -j"$jobs" --output-on-failure

  echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
  configure build-asan -DLUMBRA_SANITIZE=ON -DLUMBRA_BUILD_EXAMPLES=OFF
  cmake --build build-asan -j"$jobs" >/dev/null
  # Python tests load the library into an uninstrumented interpreter: they
  # ran above.
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
  UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan -j"$jobs" --output-on-failure -E '^python\.'

  echo "== ThreadSanitizer, concurrent simulation"
  configure build-tsan -DLUMBRA_TSAN=ON -DLUMBRA_BUILD_EXAMPLES=OFF
  cmake --build build-tsan -j"$jobs" --target test_simul >/dev/null
  TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan --output-on-failure -R 'simul\..*Concurren'
}

case "${1:-}" in
  demo) demo ;;
  test) run_tests ;;
  *) echo "usage: $0 demo|test" >&2; exit 2 ;;
esac
