#!/usr/bin/env bash
# The printer application against LPrint (Debian's lprint, also on PAPPL) on
# the same 4x6 inch label PNG: both servers warm, each printing to a fake
# ZPL printer on 127.0.0.1, jobs sent alternately with each program's own
# "submit". Per label: wall time from submit to the last byte at the device
# (client start-up included, the same program size for both),
# and the server's CPU time (user + system) spent on it; plus the servers'
# memory idle and at their peak. Prints a Markdown table.
#
# Given printer states (the fake printer's, fake_zpl_printer.cpp: "ready"
# answers status queries, "silent" never does), each server prints to one
# fake printer in each state, all in the same run; the table then also
# counts the status queries each printer saw, within jobs and on
# connections of their own, and the labels that took over a second.
#
#   bench/app_compare.sh [runs [states...]]   (default 10 labels per server, ready)
#
# Builds what it needs (KELVO_BENCH_BUILD, build/release by default) and
# installs the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES lprint

runs=${1:-10}
shift $(($# > 0 ? 1 : 0))
states=("${@:-ready}")
build=${KELVO_BENCH_BUILD:-build/release}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target kelvo-printer-app fakezplprinter >/dev/null
app=$PWD/$build/app/kelvo-printer-app
fake=$PWD/$build/tests/e2e/fakezplprinter
label=$PWD/samples/label.png

work=$(mktemp -d /tmp/kelvo-app-bench.XXXXXX)
pids=()
finish() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [ -n "${KELVO_BENCH_KEEP:-}" ]; then echo "kept $work" >&2; else rm -rf "$work"; fi
}
trap finish EXIT

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
wait_for() {
  local i
  for i in $(seq 100); do "$@" && return 0; sleep 0.1; done
  return 1
}
# The server itself, the child of its timeout.
server_pid() { pgrep -P "$1" | head -1; }
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss_kb() { awk -v k="$2" '$1 == k ":" {print $2}' "/proc/$1/status"; }

# name program driver state: a fake printer in that state, a server on a
# free port with a private state and spool, and one printer of that driver.
declare -A port server device kind
start() {
  local name=$1 program=$2 driver=$3 state=$4
  mkdir -p "$work/$name/out" "$work/$name/home"
  echo "$state" >"$work/$name/state"
  "$fake" -d "$work/$name/out" -f "$work/$name/fake.port" -s "$work/$name/state" -t 900 2>"$work/$name/fake.log" &
  pids+=($!)
  wait_for test -s "$work/$name/fake.port"
  device[$name]=$work/$name/out
  port[$name]=$(free_port)
  kind[$name]=${name%%-*}
  # LPrint keeps its state under HOME; both get a HOME of their own.
  HOME=$work/$name/home timeout 900 "$program" server -o listen-hostname=127.0.0.1 -o server-port="${port[$name]}" \
    -o spool-directory="$work/$name/spool" -o log-file="$work/$name/log" -o log-level=error \
    $([ "${kind[$name]}" = kelvo ] && echo "-o state-file=$work/$name/state.app") 2>/dev/null &
  pids+=($!)
  server[$name]=$!
  wait_for "$program" status -u "ipp://127.0.0.1:${port[$name]}/" >/dev/null 2>&1
  HOME=$work/$name/home "$program" add -u "ipp://127.0.0.1:${port[$name]}/" -d bench -m "$driver" \
    -v "socket://127.0.0.1:$(cat "$work/$name/fake.port")"
}
names=()
for state in "${states[@]}"; do
  start "kelvo-$state" "$app" kelvo_203 "$state"
  start "lprint-$state" lprint zpl_4inch-203dpi-dt "$state"
  names+=("kelvo-$state" "lprint-$state")
done
declare -A program=([kelvo]=$app [lprint]=lprint)

# One label: prints "<wall ms> <cpu ticks>" once the device has all of it.
# LPrint also opens connections of its own to ask the printer's status: the
# label is the one new file that holds a graphic.
one() {
  local name=$1 pid t0 c0 file="" f
  pid=$(server_pid "${server[$name]}")
  ls "${device[$name]}" >"$work/before"
  c0=$(cpu_ticks "$pid")
  t0=$(date +%s%N)
  HOME=$work/$name/home "${program[${kind[$name]}]}" submit -u "ipp://127.0.0.1:${port[$name]}/ipp/print/bench" \
    -o media=oe_4x6-label_4x6in "$label" >/dev/null
  for _ in $(seq 400); do
    for f in $(ls "${device[$name]}" | grep -vxF -f "$work/before" | grep '^job-[0-9]*\.zpl$'); do
      grep -aq '^~DG\|\^GF' "${device[$name]}/$f" && file=${device[$name]}/$f
    done
    [ -n "$file" ] && break
    sleep 0.05
  done
  [ -n "$file" ] || { echo "no label from $name" >&2; exit 1; }
  # LPrint holds the connection open for a while after the label, waiting
  # for a status answer; the fake printer dates the file by its last byte.
  local last
  last=$(stat -c %.9Y "$file")
  cp "$file" "$work/$name.label"
  echo "$(((${last/./} - t0) / 1000000)) $(($(cpu_ticks "$pid") - c0))"
}

# Warm: a first label each; idle memory is measured after it.
declare -A idle
for name in "${names[@]}"; do
  one "$name" >/dev/null
  sleep 1
  idle[$name]=$(rss_kb "$(server_pid "${server[$name]}")" VmRSS)
done
# The servers' CPU over the whole run as well: the per-label figure counts
# 10 ms ticks between submit and last byte, this one all the server did for
# the labels, whenever it did it.
declare -A ticks0
for name in "${names[@]}"; do ticks0[$name]=$(cpu_ticks "$(server_pid "${server[$name]}")"); done
for ((i = 0; i < runs; i++)); do
  for name in "${names[@]}"; do one "$name" >>"$work/$name.txt"; done
done
sleep 2

hz=$(getconf CLK_TCK)
median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
echo "| server | printer | wall per label, median (min-max) | mean | labels over 1 s | server CPU per label | server CPU per label, whole run | status queries in jobs / alone | bytes to the printer | RSS idle | RSS peak |"
echo "|---|---|---|---|---|---|---|---|---|---|---|"
declare -A wall cpu whole mean
for name in "${names[@]}"; do
  wall[$name]=$(cut -d' ' -f1 "$work/$name.txt" | median)
  cpu[$name]=$(awk -v hz="$hz" '{t += $2} END {printf "%.0f", t * 1000 / hz / NR}' "$work/$name.txt")
  whole[$name]=$(awk -v hz="$hz" -v a="${ticks0[$name]}" -v b="$(cpu_ticks "$(server_pid "${server[$name]}")")" \
    -v n="$runs" 'BEGIN {printf "%.1f", (b - a) * 1000 / hz / n}')
  range=$(cut -d' ' -f1 "$work/$name.txt" | sort -n | sed -n '1p;$p' | paste -sd-)
  slow=$(awk '$1 > 1000' "$work/$name.txt" | wc -l)
  mean[$name]=$(awk '{t += $1} END {printf "%.0f", t / NR}' "$work/$name.txt")
  # The fake printer logs each query, then how its connection ended.
  read -r injob alone < <(awk '/ query after / {q++} /status queries only/ {a += q; q = 0}
    / saved | ended early / {j += q; q = 0} END {print j + 0, a + q}' "$work/$name/fake.log")
  bytes=$(stat -c %s "$work/$name.label")
  peak=$(rss_kb "$(server_pid "${server[$name]}")" VmHWM)
  echo "| $([ "${kind[$name]}" = kelvo ] && echo kelvo-printer-app || echo "LPrint $(dpkg-query -W -f '${Version}' lprint)") |" \
    "${name#*-} | ${wall[$name]} ms ($range) | ${mean[$name]} ms | $slow | ${cpu[$name]} ms | ${whole[$name]} ms | $injob / $alone |" \
    "$bytes | ${idle[$name]} kB | $peak kB |"
done
echo
for state in "${states[@]}"; do
  echo "$runs labels each, alternating; printer $state, ours / LPrint:" \
    "wall $(awk -v a="${wall[kelvo-$state]}" -v b="${wall[lprint-$state]}" 'BEGIN {printf "%.2f", a / b}')," \
    "CPU $(awk -v a="${cpu[kelvo-$state]}" -v b="${cpu[lprint-$state]}" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}')," \
    "whole run $(awk -v a="${whole[kelvo-$state]}" -v b="${whole[lprint-$state]}" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}')."
done
if [ "${#states[@]}" -gt 1 ]; then
  for name in kelvo lprint; do
    echo "$name: wall per label with the printer ${states[1]} minus ${states[0]}:" \
      "$((${wall[$name-${states[1]}]} - ${wall[$name-${states[0]}]})) ms (medians)," \
      "$((${mean[$name-${states[1]}]} - ${mean[$name-${states[0]}]})) ms (means)."
  done
fi
echo "CPU is in steps of $((1000 / hz)) ms per label, averaged."
