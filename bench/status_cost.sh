#!/usr/bin/env bash
# What asking the printer's status costs a label: the printer application
# and LPrint (Debian's lprint, also on PAPPL, which asks ~HQES too), each
# printing the same 4x6 inch label PNG to one fake ZPL printer that answers
# ~HQES and ~HS ("answering") and to one that never does ("silent"), all four in
# one run, labels sent in turn with each program's own "submit". Per label:
# wall time from submit to the last byte at the device; per printer, the
# status queries it saw (within jobs, and on connections of their own) and
# the labels that took over a second. Prints a Markdown table.
#
#   bench/status_cost.sh [runs]     (default 20 labels per server and printer)
#
# Builds what it needs (KELVO_BENCH_BUILD, build/release by default) and
# installs the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES lprint

runs=${1:-20}
build=${KELVO_BENCH_BUILD:-build/release}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target kelvo-printer-app fakezplprinter >/dev/null
app=$PWD/$build/app/kelvo-printer-app
fake=$PWD/$build/tests/e2e/fakezplprinter
label=$PWD/samples/label.png

. bench/servers.sh kelvo-status-bench

# <server>-<state>: a fake printer in that state, the server on a free port
# with a private state and spool, one printer on the fake printer.
names=(kelvo-answering lprint-answering kelvo-silent lprint-silent)
declare -A program=([kelvo]=$app [lprint]=lprint) driver=([kelvo]=kelvo_203 [lprint]=zpl_4inch-203dpi-dt) port
for name in "${names[@]}"; do
  kind=${name%-*}
  mkdir -p "$work/$name/out" "$work/$name/home"
  echo "${name#*-}" >"$work/$name/state"
  "$fake" -d "$work/$name/out" -f "$work/$name/fake.port" -s "$work/$name/state" -t 900 2>"$work/$name/fake.log" &
  pids+=($!)
  wait_for test -s "$work/$name/fake.port"
  port[$name]=$(free_port)
  # LPrint keeps its state under HOME; both get a HOME of their own.
  HOME=$work/$name/home timeout 900 "${program[$kind]}" server -o listen-hostname=127.0.0.1 \
    -o server-port="${port[$name]}" -o spool-directory="$work/$name/spool" -o log-level=error \
    -o log-file="$work/$name/log" $([ "$kind" = kelvo ] && echo "-o state-file=$work/$name/app.state") 2>/dev/null &
  pids+=($!)
  wait_for "${program[$kind]}" status -u "ipp://127.0.0.1:${port[$name]}/" >/dev/null 2>&1
  HOME=$work/$name/home "${program[$kind]}" add -u "ipp://127.0.0.1:${port[$name]}/" -d bench -m "${driver[$kind]}" \
    -v "socket://127.0.0.1:$(cat "$work/$name/fake.port")"
done

# One label: prints its milliseconds from submit to the last byte (the fake
# printer dates the job's file by it; status-only connections leave no file).
one() {
  local name=$1 n t0
  n=$(find "$work/$name/out" -name 'job-*.zpl' | wc -l)
  t0=$(date +%s%N)
  HOME=$work/$name/home "${program[${name%-*}]}" submit -u "ipp://127.0.0.1:${port[$name]}/ipp/print/bench" \
    -o media=oe_4x6-label_4x6in "$label" >/dev/null
  for _ in $(seq 600); do [ -e "$work/$name/out/job-$((n + 1)).zpl" ] && break; sleep 0.05; done
  [ -e "$work/$name/out/job-$((n + 1)).zpl" ] || { echo "no label from $name" >&2; exit 1; }
  local last
  last=$(stat -c %.9Y "$work/$name/out/job-$((n + 1)).zpl")
  echo $(((${last/./} - t0) / 1000000))
}

for name in "${names[@]}"; do one "$name" >/dev/null; done  # warm
load_start=$(cut -d' ' -f1 /proc/loadavg)
for ((i = 0; i < runs; i++)); do
  for name in "${names[@]}"; do one "$name" >>"$work/$name.txt"; done
done

echo "| server | printer | wall per label, median (min-max) | mean | labels over 1 s | status queries in jobs / alone |"
echo "|---|---|---|---|---|---|"
declare -A median mean
for name in "${names[@]}"; do
  median[$name]=$(sort -n "$work/$name.txt" | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}')
  mean[$name]=$(awk '{t += $1} END {printf "%.0f", t / NR}' "$work/$name.txt")
  range=$(sort -n "$work/$name.txt" | sed -n '1p;$p' | paste -sd-)
  # The fake printer logs each query, then how its connection ended.
  read -r injob alone < <(awk '/ query after / {q++} /status queries only/ {a += q; q = 0}
    / saved | ended early / {j += q; q = 0} END {print j + 0, a + q}' "$work/$name/fake.log")
  echo "| $([ "${name%-*}" = kelvo ] && echo kelvo-printer-app || echo "LPrint $(dpkg-query -W -f '${Version}' lprint)") |" \
    "${name#*-} | ${median[$name]} ms ($range) | ${mean[$name]} ms | $(awk '$1 > 1000' "$work/$name.txt" | wc -l) |" \
    "$injob / $alone |"
done
echo
for kind in kelvo lprint; do
  echo "$kind, silent printer minus answering: $((${median[$kind-silent]} - ${median[$kind-answering]})) ms a label" \
    "(medians), $((${mean[$kind-silent]} - ${mean[$kind-answering]})) ms (means)."
done
echo "$runs labels to each, in turn. Load average $load_start at the start, $(cut -d' ' -f1 /proc/loadavg) at the end," \
  "$(nproc) cores."
