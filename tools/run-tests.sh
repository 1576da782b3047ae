#!/usr/bin/env bash
# Builds the project twice and runs every test in both builds:
#   build/release   g++, optimised, as shipped
#   build/sanitize  clang with AddressSanitizer and UndefinedBehaviorSanitizer,
#                   plus a short run of every fuzz target
# Installs the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES

jobs=$(nproc 2>/dev/null || echo 2)
status=0

run_build() {
  local dir=$1; shift
  echo "=== $dir: configure and build"
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "=== $dir: tests"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" || status=1
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Neither build needs the benchmarks; the printer application's tests run in
# the release build only, and the sanitizer build keeps line tables, enough
# for its reports, instead of whole debug information.
run_build build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVO_BUILD_BENCH=OFF
run_build build/sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVO_SANITIZE=ON -DKELVO_FUZZ=ON \
  -DKELVO_BUILD_BENCH=OFF -DKELVO_BUILD_APP=OFF -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -gline-tables-only -DNDEBUG" \
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -gline-tables-only -DNDEBUG"

if [ "$status" -ne 0 ]; then
  echo "run-tests: FAILED"
else
  echo "run-tests: all tests passed in both builds"
fi
exit "$status"
