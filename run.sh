#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The project's two entry points on a fresh Debian 12 machine:
#   ./run.sh demo          builds the library and runs the demo on the sample data
#   ./run.sh test [STAGE]  builds everything and runs the whole test suite, in
#                          stages (all of them when none is named):
#     release    Release build, every test on the system BLAS (OpenBLAS)
#     reference  the tests pinned to the reference BLAS/LAPACK, same build
#     asan       AddressSanitizer + UBSan build, every C++ test
#     tsan       ThreadSanitizer build, the concurrency tests
#     fuzz       clang + libFuzzer under ASan/UBSan: the seed corpus, then
#                each target for LUMBRA_FUZZ_SECONDS (default 60) seconds,
#                from the random seed LUMBRA_FUZZ_SEED (default 1)
# Each installs the Debian packages it is missing when run as root, and the
# test command ends with one summary line per stage; it fails if any stage
# failed, found no test, or a fuzz target found anything.
set -uo pipefail
cd "$(dirname "$0")"
jobs=$(nproc 2>/dev/null || echo 2)

build_packages=(cmake make g++ pkg-config libblas-dev liblapack-dev libblas3 liblapack3
                libopenblas0-serial)
test_packages=(googletest libgtest-dev python3 python3-numpy python3-scipy python3-cvxopt
               python3-pandas python3-matplotlib python3-pytest python3-setuptools
               python3-statsmodels clang-14 libclang-rt-14-dev)
reference_path=/usr/lib/x86_64-linux-gnu/blas:/usr/lib/x86_64-linux-gnu/lapack
multiarch=x86_64-linux-gnu

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

# OpenBLAS, serial variant, as the system BLAS and LAPACK through Debian's
# alternatives, when the system still uses the reference library; another
# optimised BLAS the administrator chose (BLIS, MKL, another OpenBLAS
# variant) is left in place.  The reference library stays installed.
use_openblas() {
  local current
  current=$(readlink -f /usr/lib/$multiarch/libblas.so.3 2>/dev/null || true)
  case "$current" in
    */blas/libblas.so.3*|"")
      if [ "$(id -u)" -ne 0 ]; then
        echo "the system BLAS is the reference library; as root, run.sh makes OpenBLAS the default" >&2
        return 0
      fi
      update-alternatives --quiet --set libblas.so.3-$multiarch /usr/lib/$multiarch/openblas-serial/libblas.so.3
      update-alternatives --quiet --set liblapack.so.3-$multiarch /usr/lib/$multiarch/openblas-serial/liblapack.so.3
      ;;
  esac
  echo "system BLAS: $(readlink -f /usr/lib/$multiarch/libblas.so.3), LAPACK: $(readlink -f /usr/lib/$multiarch/liblapack.so.3)"
}

# Configures DIR with every option of the build stated, so that nothing an
# earlier command left in the cache decides what is built.
configure() {  # configure DIR [cmake options overriding the defaults...]
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DBLA_VENDOR=Generic \
    -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
    -DLUMBRA_BUILD_TESTS=ON -DLUMBRA_BUILD_EXAMPLES=OFF -DLUMBRA_BUILD_BENCH=OFF \
    -DLUMBRA_SANITIZE=OFF -DLUMBRA_TSAN=OFF -DLUMBRA_FUZZ=OFF "$@" >"$dir/configure.log" 2>&1 ||
    { cat "$dir/configure.log" >&2; return 1; }
}

build() {  # build DIR [targets...]
  local dir=$1; shift
  local targets=()
  for t in "$@"; do targets+=(--target "$t"); done
  cmake --build "$dir" -j"$jobs" "${targets[@]}" >"$dir/build.log" 2>&1 ||
    { tail -n 60 "$dir/build.log" >&2; return 1; }
}

demo() {
  ensure_packages "${build_packages[@]}"
  use_openblas
  mkdir -p build
  configure build -DLUMBRA_BUILD_TESTS=OFF -DLUMBRA_BUILD_EXAMPLES=ON || exit 1
  build build lumbra_demo || exit 1
  ./build/examples/lumbra_demo build
}

# ---- test stages: each prints its ctest output and leaves a one-line
# ---- result in $stage_note; the return status says whether it passed.
stage_note=""

# ctest with the given arguments, never satisfied by an empty selection
# and with a time limit per test, so that a hang fails its test instead of
# stalling the command; notes "N tests" from ctest's own count.
run_ctest() {  # run_ctest DIR [ctest arguments...]
  local dir=$1; shift
  local log=$dir/ctest.log rc
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error --timeout 600 "$@" 2>&1 | tee "$log"
  rc=${PIPESTATUS[0]}
  stage_note=$(grep -Eo '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
  [ -n "$stage_note" ] || stage_note="no tests run"
  return "$rc"
}

stage_release() {
  mkdir -p build
  configure build -DLUMBRA_BUILD_EXAMPLES=ON && build build || { stage_note="build failed"; return 1; }
  run_ctest build -LE '^reference$'
}

stage_reference() {
  mkdir -p build
  configure build -DLUMBRA_BUILD_EXAMPLES=ON && build build || { stage_note="build failed"; return 1; }
  run_ctest build -L '^reference$'
}

stage_asan() {
  mkdir -p build-asan
  configure build-asan -DLUMBRA_SANITIZE=ON && build build-asan || { stage_note="build failed"; return 1; }
  # Python tests load the library into an uninstrumented interpreter: they
  # run in the release stage.
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
  UBSAN_OPTIONS=print_stacktrace=1 \
    run_ctest build-asan -E '^python\.' -LE '^reference$'
}

stage_tsan() {
  mkdir -p build-tsan
  configure build-tsan -DLUMBRA_TSAN=ON && build build-tsan test_api test_simul ||
    { stage_note="build failed"; return 1; }
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    run_ctest build-tsan -R 'Concurren'
}

# Replays each input a fuzz target saved (up to 20) and prints how many
# broke which invariant or set off which sanitizer, with the first engine
# routine on the stack.
classify_findings() {  # classify_findings TARGET ARTIFACT_PREFIX
  local target=$1 prefix=$2 f
  for f in $(ls "$prefix"* 2>/dev/null | head -n 20); do
    timeout 60 "$target" -timeout=10 "$f" 2>&1 | awk '
      /fuzz invariant broken/ && !what { sub(/^.*fuzz invariant broken in /, ""); what = $0 }
      /ERROR: (Address|Leak)Sanitizer|runtime error:/ && !what { sub(/^==[0-9]+==ERROR: /, ""); sub(/ on address.*/, ""); what = $0 }
      /ERROR: libFuzzer: timeout/ && !what { what = "timeout (an input ran over 10 s)" }
      / in lumbra::/ && !/ in lumbra::fuzz::/ && what && !where { sub(/^.* in lumbra::/, ""); sub(/\(.*/, ""); where = $0 }
      END { if (!what) what = "crash"; print what (where ? " [" where "]" : "") }'
  done | sort | uniq -c | sort -rn
}

# The fuzz targets: every input of the committed corpus on both BLAS, then
# each target for a bounded time from a working copy of its corpus, in one
# process from a fixed random seed, so that a run can be repeated; it stops
# at the first finding.  Any
# crash, sanitizer report, broken invariant, leak or per-input timeout fails
# the stage; the inputs land in build-fuzz/findings/, the logs in
# build-fuzz/logs/.
stage_fuzz() {
  local seconds=${LUMBRA_FUZZ_SECONDS:-60} dir=build-fuzz failed=0 found=() n
  mkdir -p "$dir"
  configure "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DLUMBRA_FUZZ=ON -DLUMBRA_BUILD_TESTS=OFF &&
    build "$dir" fuzz_alloc fuzz_modeling fuzz_analysis fuzz_simul ||
    { stage_note="build failed"; return 1; }
  run_ctest "$dir" || failed=1
  local corpus_note=$stage_note
  rm -rf "$dir/findings"
  mkdir -p "$dir/findings" "$dir/logs"
  for family in alloc modeling analysis simul; do
    mkdir -p "$dir/corpus/$family"
    echo "fuzzing $family for ${seconds}s"
    local rc=0
    "$dir/tests/fuzz/fuzz_$family" \
      -max_total_time="$seconds" -seed="${LUMBRA_FUZZ_SEED:-1}" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$dir/findings/$family-" \
      "$dir/corpus/$family" "tests/fuzz/corpus/$family" >"$dir/logs/$family.log" 2>&1 || rc=$?
    n=$(find "$dir/findings" -name "$family-*" | wc -l)
    if [ "$n" -gt 0 ] || [ "$rc" -ne 0 ]; then
      classify_findings "$dir/tests/fuzz/fuzz_$family" "$dir/findings/$family-"
      found+=("$family:$n")
      failed=1
    fi
  done
  stage_note="corpus: $corpus_note; fuzzing ${seconds}s per target: "
  if [ ${#found[@]} -eq 0 ]; then stage_note+="no finding"; else stage_note+="findings ${found[*]}"; fi
  return "$failed"
}

run_tests() {
  local stages=("$@")
  [ ${#stages[@]} -gt 0 ] || stages=(release reference asan tsan fuzz)
  ensure_packages "${build_packages[@]}" "${test_packages[@]}"
  use_openblas
  export OPENBLAS_NUM_THREADS=1
  local summary=() failed=0 passed=0 start rc
  for s in "${stages[@]}"; do
    declare -F "stage_$s" >/dev/null || { echo "unknown stage: $s" >&2; exit 2; }
    echo "== stage $s"
    start=$SECONDS
    stage_note=""
    "stage_$s"
    rc=$?
    local verdict=passed
    if [ "$rc" -eq 0 ]; then passed=$((passed + 1)); else verdict=FAILED; failed=$((failed + 1)); fi
    summary+=("$(printf '%-10s %-7s %4ds  %s' "$s" "$verdict" $((SECONDS - start)) "$stage_note")")
  done
  echo "== summary"
  printf '%s\n' "${summary[@]}"
  echo "stages: $passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}

case "${1:-}" in
  demo) demo ;;
  test) shift; run_tests "$@" ;;
  *) echo "usage: $0 demo | test [release|reference|asan|tsan|fuzz]..." >&2; exit 2 ;;
esac
