#!/usr/bin/env bash
# Where a filter's start-up goes. perf's task-clock (CPU time) and page
# faults, `perf stat -r <runs>` per program, the programs taking turns for
# <rounds> rounds; the medians of the rounds as a Markdown table:
#   - a C program that does nothing;
#   - the same program linked with libcups and libcupsimage: loading them
#     and the libraries they pull in (GnuTLS, Kerberos, Avahi, ...);
#   - our filter and CUPS's rastertolabel (with the ZPL model of CUPS's
#     sample.drv) on a job without pages: that plus reading the PPD and the
#     options;
#   - both on the benchmark's 4x6 label (ours with the threshold and with
#     Burkes diffusion, theirs on the same content as 1-bit raster).
#
#   bench/startup.sh [rounds] [runs]     (default 5 rounds of 20 runs)
#
# Builds what it needs into build/bench.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES cups cups-ppdc linux-perf

rounds=${1:-5}
runs=${2:-20}
build=build/bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target rastertokelvozpl kelvo_ppds kelvo-bench-raster >/dev/null
ours=$build/filter/rastertokelvozpl
theirs=/usr/lib/cups/filter/rastertolabel
ppd=$build/ppd/ppd/kelvo203.ppd

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ppdc -d "$work/ppd" /usr/share/cups/drv/sample.drv >/dev/null
zpl_ppd=$(grep -l '^\*ModelName: ".*ZPL' "$work"/ppd/*.ppd | head -1)
echo 'int main(void) { return 0; }' >"$work/nothing.c"
cc -O2 -o "$work/nothing" "$work/nothing.c"
cc -O2 -o "$work/nothing-cups" "$work/nothing.c" -Wl,--no-as-needed -lcups -lcupsimage
: >"$work/empty.ras"
"$build/bench/kelvo-bench-raster" -k label -r 203 "$work/label8.ras"
"$build/bench/kelvo-bench-raster" -1 -k label -r 203 "$work/label1.ras"

# name | command (run with PPD set as given)
cases=(
  "a program that does nothing||$work/nothing"
  "the same, linked with libcups and libcupsimage||$work/nothing-cups"
  "ours, a job without pages|$ppd|$ours 1 u t 1 DebugImages=False $work/empty.ras"
  "rastertolabel, a job without pages|$zpl_ppd|$theirs 1 u t 1 '' $work/empty.ras"
  "ours, 4x6 label, threshold|$ppd|$ours 1 u t 1 HalftoneType=None $work/label8.ras"
  "ours, 4x6 label, Burkes diffusion|$ppd|$ours 1 u t 1 HalftoneType=Ordered $work/label8.ras"
  "rastertolabel, 4x6 label|$zpl_ppd|$theirs 1 u t 1 '' $work/label1.ras"
)
load_start=$(cut -d' ' -f1 /proc/loadavg)
for ((r = 0; r < rounds; r++)); do
  n=0
  for c in "${cases[@]}"; do
    IFS='|' read -r _ case_ppd command <<<"$c"
    n=$((n + 1))
    # shellcheck disable=SC2086
    eval "PPD='$case_ppd' perf stat -r $runs -e task-clock,page-faults -o '$work/stat' -- $command" >/dev/null 2>&1 || true
    awk '/task-clock/ {gsub(",", "", $1); t = $1} /page-faults/ {gsub(",", "", $1); f = $1} END {print t, f}' \
      "$work/stat" >>"$work/c$n.txt"
  done
done
median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
echo "| program | CPU ms (task-clock) | page faults |"
echo "|---|---:|---:|"
n=0
for c in "${cases[@]}"; do
  n=$((n + 1))
  echo "| ${c%%|*} | $(cut -d' ' -f1 "$work/c$n.txt" | median) | $(cut -d' ' -f2 "$work/c$n.txt" | median) |"
done
echo
echo "Medians of $rounds rounds of $runs runs each, programs in turn; $(nproc) cores, $(date -u +%Y-%m-%d);" \
  "load average $load_start at the start, $(cut -d' ' -f1 /proc/loadavg) at the end."
