#!/bin/sh
# The fuzz targets' share of the test suite.
#   smoke.sh replay <fuzzer> <folder>...
#       runs every file of the folders through the target once
#   smoke.sh run <fuzzer> <seeds> <artifacts> <seconds> <max_len> [flag...]
#       fuzzes for <seconds> on a scratch copy of <seeds>, so the repository
#       stays as it is; a crash, leak or hang leaves its input in <artifacts>
set -eu
mode=$1 fuzzer=$2
shift 2
limits="-timeout=10 -rss_limit_mb=2048"

case $mode in
  replay)
    files=$(find "$@" -type f 2>/dev/null | sort)
    [ -n "$files" ] || { echo "nothing to replay"; exit 0; }
    # The failing file is already known; keep its copy out of the build folder.
    # shellcheck disable=SC2086
    exec "$fuzzer" $limits -artifact_prefix="${TMPDIR:-/tmp}/" $files
    ;;
  run)
    seeds=$1 artifacts=$2 seconds=$3 maxlen=$4
    shift 4
    scratch=$(mktemp -d)
    trap 'rm -rf "$scratch"' EXIT
    cp "$seeds"/* "$scratch"/
    mkdir -p "$artifacts"
    name=$(basename "$fuzzer")
    # shellcheck disable=SC2086
    "$fuzzer" "$scratch" $limits -max_total_time="$seconds" -max_len="$maxlen" \
      -artifact_prefix="$artifacts/$name-" -print_final_stats=1 "$@"
    ;;
  *)
    echo "usage: $0 replay|run ..." >&2
    exit 2
    ;;
esac
