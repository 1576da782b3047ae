#!/usr/bin/env bash
# The printer application against LPrint (Debian's lprint, also on PAPPL) on
# the same 4x6 inch label PNG: both servers warm, each printing to a fake
# ZPL printer on 127.0.0.1, jobs sent alternately with each program's own
# "submit". Per label: wall time from submit to the last byte at the device
# (client start-up included, the same program size for both),
# and the server's CPU time (user + system) spent on it; plus the servers'
# memory idle and at their peak. Prints a Markdown table.
#
#   bench/app_compare.sh [runs]     (default 10 labels per server)
#
# The application prints once through PAPPL's socket device and once through
# its own (kelvo-socket, which waits for the printer's answer to a status
# query after each job). KELVO_BENCH_BEFORE=<kelvo-printer-app> adds another
# build of the application (an older one, say) to the same run.
#
# Builds what it needs (KELVO_BENCH_BUILD, build/release by default) and
# installs the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
# Private host name and /run, as the server tests have (e2e/lib.sh).
. e2e/lib.sh
e2e_sandbox "$@"
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES lprint

runs=${1:-10}
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

# name program driver [scheme]: a fake printer, a server on a free port with
# a private state and spool, and one printer of that driver.
declare -A port server device
start() {
  local name=$1 program=$2 driver=$3 scheme=${4:-socket}
  mkdir -p "$work/$name/out" "$work/$name/home"
  # PAPPL names its local socket after the program: one name a server.
  if [ "$name" != lprint ]; then
    ln -s "$program" "$work/kelvo-printer-app-$name"
    program=$work/kelvo-printer-app-$name
  fi
  "$fake" -d "$work/$name/out" -f "$work/$name/fake.port" -t 900 2>/dev/null &
  pids+=($!)
  wait_for test -s "$work/$name/fake.port"
  device[$name]=$work/$name/out
  port[$name]=$(free_port)
  # LPrint keeps its state under HOME; both get a HOME of their own.
  HOME=$work/$name/home timeout 900 "$program" server -o listen-hostname=127.0.0.1 -o server-port="${port[$name]}" \
    -o spool-directory="$work/$name/spool" -o log-file="$work/$name/log" -o log-level=error \
    $([ "$name" != lprint ] && echo "-o state-file=$work/$name/state") 2>/dev/null &
  pids+=($!)
  server[$name]=$!
  wait_for "$program" status -u "ipp://127.0.0.1:${port[$name]}/" >/dev/null 2>&1
  HOME=$work/$name/home "$program" add -u "ipp://127.0.0.1:${port[$name]}/" -d bench -m "$driver" \
    -v "$scheme://127.0.0.1:$(cat "$work/$name/fake.port")"
}
start kelvo "$app" kelvo_203
start kelvo-socket "$app" kelvo_203 kelvo-socket
start lprint lprint zpl_4inch-203dpi-dt
declare -A program=([kelvo]=$work/kelvo-printer-app-kelvo [kelvo-socket]=$work/kelvo-printer-app-kelvo-socket
  [lprint]=lprint)
names=(kelvo kelvo-socket lprint)
if [ -n "${KELVO_BENCH_BEFORE:-}" ]; then
  start before "$KELVO_BENCH_BEFORE" kelvo_203
  program[before]=$work/kelvo-printer-app-before
  names=(before "${names[@]}")
fi

# One label: prints "<wall ms> <cpu ticks>" once the device has all of it.
# LPrint also opens connections of its own to ask the printer's status: the
# label is the one new file that holds a graphic.
one() {
  local name=$1 pid t0 c0 file="" f
  pid=$(server_pid "${server[$name]}")
  ls "${device[$name]}" >"$work/listed"
  c0=$(cpu_ticks "$pid")
  t0=$(date +%s%N)
  HOME=$work/$name/home "${program[$name]}" submit -u "ipp://127.0.0.1:${port[$name]}/ipp/print/bench" \
    -o media=oe_4x6-label_4x6in "$label" >/dev/null
  for _ in $(seq 400); do
    for f in $(ls "${device[$name]}" | grep -vxF -f "$work/listed" | grep '^job-[0-9]*\.zpl$'); do
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
echo "| server | wall per label, median (min-max) | server CPU per label | server CPU per label, whole run | bytes to the printer | RSS idle | RSS peak |"
echo "|---|---|---|---|---|---|---|"
declare -A wall cpu whole
declare -A label=([before]="kelvo-printer-app before" [kelvo]="kelvo-printer-app"
  [kelvo-socket]="kelvo-printer-app, kelvo-socket" [lprint]="LPrint $(dpkg-query -W -f '${Version}' lprint)")
for name in "${names[@]}"; do
  wall[$name]=$(cut -d' ' -f1 "$work/$name.txt" | median)
  cpu[$name]=$(awk -v hz="$hz" '{t += $2} END {printf "%.0f", t * 1000 / hz / NR}' "$work/$name.txt")
  whole[$name]=$(awk -v hz="$hz" -v a="${ticks0[$name]}" -v b="$(cpu_ticks "$(server_pid "${server[$name]}")")" \
    -v n="$runs" 'BEGIN {printf "%.1f", (b - a) * 1000 / hz / n}')
  range=$(cut -d' ' -f1 "$work/$name.txt" | sort -n | sed -n '1p;$p' | paste -sd-)
  bytes=$(stat -c %s "$work/$name.label")
  peak=$(rss_kb "$(server_pid "${server[$name]}")" VmHWM)
  echo "| ${label[$name]} |" \
    "${wall[$name]} ms ($range) | ${cpu[$name]} ms | ${whole[$name]} ms | $bytes | ${idle[$name]} kB | $peak kB |"
done
echo
ratios() { # name against
  echo "$1 / $2: wall $(awk -v a="${wall[$1]}" -v b="${wall[$2]}" 'BEGIN {printf "%.2f", a / b}')," \
    "CPU $(awk -v a="${cpu[$1]}" -v b="${cpu[$2]}" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}')," \
    "whole run $(awk -v a="${whole[$1]}" -v b="${whole[$2]}" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}')"
}
echo "$runs labels each, alternating. $(ratios kelvo lprint)$([ -n "${KELVO_BENCH_BEFORE:-}" ] && echo "; $(ratios kelvo before)")." \
  "CPU is in steps of $((1000 / hz)) ms per label, averaged."
