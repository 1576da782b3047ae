#!/usr/bin/env bash
# The printer application against LPrint (Debian's lprint, also on PAPPL) on
# the same 4x6 inch label PNG: both servers warm, each printing to a fake
# ZPL printer on 127.0.0.1, jobs sent alternately with each program's own
# "submit". Per label: wall time from submit to the last byte at the device
# (client start-up included, the same program size for both),
# and the server's CPU time (user + system) spent on it; plus the servers'
# memory idle and at their peak. Prints a Markdown table.
#
# Then the bytes each driver sends for one label: ours in each graphic
# encoding (hex, Z64, inline Z64), LPrint's and CUPS's rastertolabel's (with
# the ZPL model of CUPS's sample.drv). Once with each program's own
# defaults on the sample label, and once with the very same dots for all:
# the dots our threshold makes of the sample label and of the benchmark's
# generated label, handed to LPrint and our app as a black and white PNG and
# to rastertolabel as 1-bit raster. Every label is decoded and its dots
# compared with those handed in.
#
#   bench/app_compare.sh [runs]     (default 10 labels per server)
#
# KELVO_BENCH_HALFTONE=none times ours with that halftone instead of its
# label default. CPU per label is perf's task-clock of each server over the
# timed labels when perf can attach, else the kernel's 10 ms ticks. Builds
# what it needs (KELVO_BENCH_BUILD, build/release by default) and installs
# the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES lprint cups cups-ppdc

runs=${1:-10}
build=${KELVO_BENCH_BUILD:-build/release}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target kelvo-printer-app fakezplprinter kelvo-bench-raster >/dev/null
app=$PWD/$build/app/kelvo-printer-app
fake=$PWD/$build/tests/e2e/fakezplprinter
make_raster=$PWD/$build/bench/kelvo-bench-raster
label=$PWD/samples/label.png
halftone=${KELVO_BENCH_HALFTONE:+-o kelvo-halftone=$KELVO_BENCH_HALFTONE}

. bench/servers.sh kelvo-app-bench
# The server itself, the child of its timeout.
server_pid() { pgrep -P "$1" | head -1; }
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss_kb() { awk -v k="$2" '$1 == k ":" {print $2}' "/proc/$1/status"; }

# name program driver: a fake printer, a server on a free port with a
# private state and spool, and one printer of that driver.
declare -A port server device
start() {
  local name=$1 program=$2 driver=$3
  mkdir -p "$work/$name/out" "$work/$name/home"
  "$fake" -d "$work/$name/out" -f "$work/$name/fake.port" -t 900 2>/dev/null &
  pids+=($!)
  wait_for test -s "$work/$name/fake.port"
  device[$name]=$work/$name/out
  port[$name]=$(free_port)
  # LPrint keeps its state under HOME; both get a HOME of their own.
  HOME=$work/$name/home timeout 900 "$program" server -o listen-hostname=127.0.0.1 -o server-port="${port[$name]}" \
    -o spool-directory="$work/$name/spool" -o log-file="$work/$name/log" -o log-level=error \
    $([ "$name" = kelvo ] && echo "-o state-file=$work/$name/state") 2>/dev/null &
  pids+=($!)
  server[$name]=$!
  wait_for "$program" status -u "ipp://127.0.0.1:${port[$name]}/" >/dev/null 2>&1
  HOME=$work/$name/home "$program" add -u "ipp://127.0.0.1:${port[$name]}/" -d bench -m "$driver" \
    -v "socket://127.0.0.1:$(cat "$work/$name/fake.port")"
}
start kelvo "$app" kelvo_203
start lprint lprint zpl_4inch-203dpi-dt
declare -A program=([kelvo]=$app [lprint]=lprint)

# name copy-to picture [options]: one label; prints "<wall ms> <cpu ticks>"
# once the device has all of it and copies it to copy-to. LPrint also opens
# connections of its own to ask the printer's status: the label is the one
# new file that holds a graphic.
one() {
  local name=$1 copy=$2 picture=$3 pid t0 c0 file="" f
  shift 3
  pid=$(server_pid "${server[$name]}")
  ls "${device[$name]}" >"$work/before"
  c0=$(cpu_ticks "$pid")
  t0=$(date +%s%N)
  HOME=$work/$name/home "${program[$name]}" submit -u "ipp://127.0.0.1:${port[$name]}/ipp/print/bench" \
    -o media=oe_4x6-label_4x6in "$@" "$picture" >/dev/null
  for _ in $(seq 400); do
    for f in $(ls "${device[$name]}" | grep -vxF -f "$work/before" | grep '^job-[0-9]*\.zpl$'); do
      grep -aq '^~DG\|\^GF' "${device[$name]}/$f" && grep -aq '\^XZ' "${device[$name]}/$f" && file=${device[$name]}/$f
    done
    [ -n "$file" ] && break
    sleep 0.05
  done
  [ -n "$file" ] || { echo "no label from $name" >&2; exit 1; }
  # LPrint holds the connection open for a while after the label, waiting
  # for a status answer; the fake printer dates the file by its last byte.
  local last
  last=$(stat -c %.9Y "$file")
  cp "$file" "$copy"
  echo "$(((${last/./} - t0) / 1000000)) $(($(cpu_ticks "$pid") - c0))"
}
# The timed label: ours with its default halftone (or KELVO_BENCH_HALFTONE).
label_of() {
  if [ "$1" = kelvo ]; then
    # shellcheck disable=SC2086
    one kelvo "$work/kelvo.label" "$label" $halftone
  else
    one lprint "$work/lprint.label" "$label"
  fi
}

# Warm: a first label each; idle memory is measured after it.
declare -A idle
for name in kelvo lprint; do
  label_of "$name" >/dev/null
  sleep 1
  idle[$name]=$(rss_kb "$(server_pid "${server[$name]}")" VmRSS)
done
# The servers' CPU over the whole run as well: the per-label figure counts
# 10 ms ticks between submit and last byte, this one all the server did for
# the labels, whenever it did it (perf's task-clock where perf may attach).
declare -A ticks0 perfpid
for name in kelvo lprint; do
  pid=$(server_pid "${server[$name]}")
  ticks0[$name]=$(cpu_ticks "$pid")
  if command -v perf >/dev/null && perf stat -e task-clock -p "$pid" -o "$work/$name.perf" -- sleep 0.01 2>/dev/null; then
    perf stat -e task-clock -p "$pid" -o "$work/$name.perf" 2>/dev/null &
    perfpid[$name]=$!
    pids+=($!)
  fi
done
load_start=$(cut -d' ' -f1 /proc/loadavg)
for ((i = 0; i < runs; i++)); do
  for name in kelvo lprint; do label_of "$name" >>"$work/$name.txt"; done
done
sleep 2
for name in "${!perfpid[@]}"; do
  kill -INT "${perfpid[$name]}" 2>/dev/null || true
  wait "${perfpid[$name]}" 2>/dev/null || true
done

hz=$(getconf CLK_TCK)
median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
echo "| server | wall per label, median (min-max) | server CPU per label (ticks) | server CPU per label, whole run | bytes to the printer | RSS idle | RSS peak |"
echo "|---|---|---|---|---|---|---|"
declare -A wall cpu whole
for name in kelvo lprint; do
  wall[$name]=$(cut -d' ' -f1 "$work/$name.txt" | median)
  cpu[$name]=$(awk -v hz="$hz" '{t += $2} END {printf "%.0f", t * 1000 / hz / NR}' "$work/$name.txt")
  if [ -s "$work/$name.perf" ]; then
    whole[$name]=$(awk -v n="$runs" '/task-clock/ {gsub(",", "", $1); printf "%.1f", $1 / n}' "$work/$name.perf")
    how="task-clock"
  else
    whole[$name]=$(awk -v hz="$hz" -v a="${ticks0[$name]}" -v b="$(cpu_ticks "$(server_pid "${server[$name]}")")" \
      -v n="$runs" 'BEGIN {printf "%.1f", (b - a) * 1000 / hz / n}')
    how="ticks"
  fi
  range=$(cut -d' ' -f1 "$work/$name.txt" | sort -n | sed -n '1p;$p' | paste -sd-)
  bytes=$(stat -c %s "$work/$name.label")
  peak=$(rss_kb "$(server_pid "${server[$name]}")" VmHWM)
  echo "| $([ "$name" = kelvo ] && echo "kelvo-printer-app${halftone:+ ($halftone)}" || echo "LPrint $(dpkg-query -W -f '${Version}' lprint)") |" \
    "${wall[$name]} ms ($range) | ${cpu[$name]} ms | ${whole[$name]} ms ($how) | $bytes | ${idle[$name]} kB | $peak kB |"
done
echo
echo "$runs labels each, alternating; ours / LPrint: wall $(awk -v a="${wall[kelvo]}" -v b="${wall[lprint]}" 'BEGIN {printf "%.2f", a / b}')," \
  "CPU $(awk -v a="${cpu[kelvo]}" -v b="${cpu[lprint]}" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}')," \
  "whole run $(awk -v a="${whole[kelvo]}" -v b="${whole[lprint]}" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}')." \
  "CPU per label is in steps of $((1000 / hz)) ms, averaged. Load average $load_start at the start," \
  "$(cut -d' ' -f1 /proc/loadavg) at the end, $(nproc) cores."

# ---- bytes per label ----
ppdc -d "$work/ppd" /usr/share/cups/drv/sample.drv >/dev/null
zpl_ppd=$(grep -l '^\*ModelName: ".*ZPL' "$work"/ppd/*.ppd | head -1)
# dots <job> <png>: the dots of the job's graphic, 812 wide, as a PNG.
dots() { "$make_raster" -z "$1" -w 812 -p "$2"; }
# cell <job> <reference png>: the job's bytes, marked when its dots differ.
cell() {
  dots "$1" "$work/cell.png"
  if [ -z "$2" ] || cmp -s "$work/cell.png" "$2"; then stat -c %s "$1"; else echo "$(stat -c %s "$1") (other dots)"; fi
}
# row <title> <picture> <reference png or ""> <our options...>
row() {
  local title=$1 picture=$2 ref=$3 hex z64 inl lp rtl
  shift 3
  one kelvo "$work/b-hex" "$picture" "$@" >/dev/null
  one kelvo "$work/b-z64" "$picture" "$@" -o kelvo-graphic-encoding=z64 >/dev/null
  one kelvo "$work/b-inline" "$picture" "$@" -o kelvo-graphic-encoding=inline-z64 >/dev/null
  one lprint "$work/b-lprint" "$picture" >/dev/null
  # Everything is held to the dots of our hex label.
  dots "$work/b-hex" "$work/b-hex.png"
  hex=$(cell "$work/b-hex" "$ref")
  z64=$(cell "$work/b-z64" "$work/b-hex.png")
  inl=$(cell "$work/b-inline" "$work/b-hex.png")
  lp=$(cell "$work/b-lprint" "$work/b-hex.png")
  if [ -n "$ref" ]; then
    "$make_raster" -1 -z "$work/b-hex" -w 812 "$work/b.ras"
    PPD=$zpl_ppd /usr/lib/cups/filter/rastertolabel 1 bench bench 1 "" "$work/b.ras" >"$work/b-rtl" 2>/dev/null
    rtl=$(cell "$work/b-rtl" "$work/b-hex.png")
  else
    rtl="-"
  fi
  echo "| $title | $hex | $z64 | $inl | $lp | $rtl |"
}
echo
echo "| label | ours, hex | ours, Z64 | ours, inline Z64 | LPrint | rastertolabel |"
echo "|---|---:|---:|---:|---:|---:|"
row "sample label, each program's defaults" "$label" ""
# The same dots for everybody: what our threshold prints of each page.
one kelvo "$work/t-sample" "$label" -o kelvo-halftone=none >/dev/null
dots "$work/t-sample" "$work/same-sample.png"
row "sample label, the same dots for all" "$work/same-sample.png" "$work/same-sample.png" -o kelvo-halftone=none
"$make_raster" -k label -p "$work/bench-label.png"
one kelvo "$work/t-bench" "$work/bench-label.png" -o kelvo-halftone=none >/dev/null
dots "$work/t-bench" "$work/same-bench.png"
row "benchmark label page, the same dots for all" "$work/same-bench.png" "$work/same-bench.png" -o kelvo-halftone=none
echo
echo "Bytes of one label as the printer receives it (setup commands included). \"other dots\": the label's" \
  "dots differ from those of our hex label of the row."
