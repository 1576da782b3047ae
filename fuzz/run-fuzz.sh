#!/usr/bin/env bash
# Fuzzes the filter for as long as you like:
#
#   fuzz/run-fuzz.sh <seconds per target> [target]
#
# Targets: fuzz_filter fuzz_settings fuzz_zpl_decode fuzz_image (all when
# none is named), one after the other. Builds build/fuzz (clang with
# AddressSanitizer, UndefinedBehaviorSanitizer and libFuzzer) when needed.
# Each target's corpus grows in fuzz/work/<target>/corpus, starting from the
# seeds in fuzz/corpus/<target>; every crash, leak, undefined behaviour,
# out-of-memory or hang (10 s per input) is saved in
# fuzz/work/<target>/findings/ and the run goes on. A finding becomes a file
# in fuzz/regressions/<target>/ and a test once it is fixed.
#
# KELVO_FUZZ_BUILD picks another build folder; KELVO_FUZZ_JOBS runs that many
# fuzzing processes per target (default 1; the machine's cores are shared).
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 1 ] || ! [[ $1 =~ ^[0-9]+$ ]]; then
  echo "usage: $0 <seconds per target> [target]" >&2
  exit 2
fi
seconds=$1
all="fuzz_filter fuzz_settings fuzz_zpl_decode fuzz_image"
targets=${2:-$all}
build=${KELVO_FUZZ_BUILD:-build/fuzz}
jobs=${KELVO_FUZZ_JOBS:-1}

. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVO_SANITIZE=ON -DKELVO_FUZZ=ON \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" --target $targets -j2

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Largest input and extra flags per target, as in fuzz/CMakeLists.txt.
flags_for() {
  case $1 in
    fuzz_filter) echo "-max_len=16384 -malloc_limit_mb=4200" ;;
    fuzz_settings) echo "-max_len=4096" ;;
    fuzz_zpl_decode) echo "-max_len=8192" ;;
    fuzz_image) echo "-max_len=8192" ;;
    *) echo "unknown fuzz target: $1" >&2; exit 2 ;;
  esac
}

summary=()
for target in $targets; do
  work=fuzz/work/$target
  mkdir -p "$work/corpus" "$work/findings"
  echo "=== $target: ${seconds}s, log in $work/log"
  # shellcheck disable=SC2046
  "$build/fuzz/$target" "$work/corpus" "fuzz/corpus/$target" $(flags_for "$target") \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -fork="$jobs" \
    -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
    -artifact_prefix="$work/findings/" -print_final_stats=1 >"$work/log" 2>&1 || true
  # Fork mode reports "#<runs>: cov: ..." lines; the last one has the total.
  runs=$(grep -oE '^#[0-9]+' "$work/log" | tail -1 | tr -d '#')
  corpus=$(find "$work/corpus" -type f | wc -l)
  findings=$(find "$work/findings" -type f | wc -l)
  summary+=("$target: ${runs:-0} runs in ${seconds}s, corpus $corpus files, findings $findings")
done

echo
printf '%s\n' "${summary[@]}"
if find fuzz/work -path '*/findings/*' -type f | grep -q .; then
  echo "findings are waiting in fuzz/work/*/findings/"
  exit 1
fi
