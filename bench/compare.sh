#!/usr/bin/env bash
# Whole-process comparison with CUPS's own label filter (rastertolabel) on
# the same content: CUPS's filter gets 1-bit pages, ours the 8-bit ink pages
# it is given in a real job. The two are run alternately, several times per
# case, and the results are printed as a Markdown table: CPU time as
# minimum / median / maximum, the ratio of the medians, how much the
# slowest of our runs took over our median, and medians of the rest.
#
#   bench/compare.sh [runs]      (default 21 runs per filter and case)
#
# Builds what it needs (release build in build/bench) and installs the Debian
# packages it needs when they are missing. CPU time is user + system time of
# the filter process (all its threads), which is what matters on a busy print
# server; wall time also counts waiting for a shared core. Our filter runs the
# unsharp mask of a large stencil page on every core it may use (at most 8)
# and the rest on one; KELVO_THREADS=1 bench/compare.sh measures it all on
# one thread. The load average printed at the end tells whether the machine
# was idle.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES cups cups-ppdc

runs=${1:-21}
build=build/bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target rastertokelvozpl kelvo_ppds kelvo-bench-raster kelvo-bench-measure >/dev/null

theirs=/usr/lib/cups/filter/rastertolabel
ours=$build/filter/rastertokelvozpl
make_raster=$build/bench/kelvo-bench-raster
measure=$build/bench/kelvo-bench-measure
spool=/var/spool/cups/tmp
[ -x "$theirs" ] || { echo "compare: $theirs is missing" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# CUPS's sample driver file holds a ZPL label printer model; compile it.
ppdc -d "$work/ppd" /usr/share/cups/drv/sample.drv >/dev/null
zpl_ppd=$(grep -l '^\*ModelName: ".*ZPL' "$work"/ppd/*.ppd | head -1)
[ -n "$zpl_ppd" ] || { echo "compare: no ZPL model in sample.drv" >&2; exit 1; }

# The pages: the same content as 8-bit ink for ours and 1-bit for theirs.
"$make_raster" -k label -r 203 "$work/label8.ras"
"$make_raster" -1 -k label -r 203 "$work/label1.ras"
"$make_raster" -n 10 -k label -r 203 "$work/label8x10.ras"
"$make_raster" -1 -n 10 -k label -r 203 "$work/label1x10.ras"
"$make_raster" -k photo -r 300 "$work/a4-8.ras"
"$make_raster" -1 -k photo -r 300 "$work/a4-1.ras"
# No page at all: what starting the filter costs (libcups and its libraries,
# the PPD, the job options).
: >"$work/empty.ras"

# Debug pictures are off in the shipped PPDs; should a run save any into
# the spooler's folder, they go again.
before_run() { ls "$spool" 2>/dev/null | sort >"$work/spool.before" || true; }
after_run() {
  ls "$spool" 2>/dev/null | sort | comm -13 "$work/spool.before" - | while read -r f; do
    case $f in kelvozpl-debug-*.bmp) rm -f "$spool/$f" ;; esac
  done
}

# run_one <label> <ppd> <options> <raster> <command>: appends
# "user sys wall maxrss bytes" to $work/<label>.txt
run_one() {
  local label=$1 ppd=$2 options=$3 raster=$4 command=$5
  before_run
  # CUPS's filter fails a job without pages ("No pages were found").
  if ! PPD=$ppd "$measure" "$work/out.zpl" "$work/err.txt" "$command" 1 bench bench 1 "$options" "$raster" \
    >>"$work/$label.txt" && [ "$raster" != "$work/empty.ras" ]; then
    echo "compare: $label failed:" >&2
    tail -5 "$work/err.txt" >&2
    exit 1
  fi
  after_run
}

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
smallest() { sort -g | head -1; }
largest() { sort -g | tail -1; }
cpu() { awk '{ print ($1 + $2) * 1000 }' "$1"; }

# name | our PPD | our options | our raster | their raster
cases=(
  "start-up only (a job without pages)|kelvo203.ppd||empty.ras|empty.ras"
  "4x6 label 203 dpi, None|kelvo203.ppd|HalftoneType=None|label8.ras|label1.ras"
  "4x6 label 203 dpi, error diffusion (Burkes)|kelvo203.ppd|HalftoneType=Ordered|label8.ras|label1.ras"
  "10-page label job, None|kelvo203.ppd|HalftoneType=None|label8x10.ras|label1x10.ras"
  "A4 300 dpi, Tattoo|kelvotat.ppd|HalftoneType=Tattoo|a4-8.ras|a4-1.ras"
  "A4 300 dpi, Tattoo_X8|kelvotat.ppd|HalftoneType=Tattoo_X8|a4-8.ras|a4-1.ras"
)

load_start=$(cut -d' ' -f1 /proc/loadavg)
printf '| Case | CPU ms ours, min / median / max | CPU ms theirs, min / median / max | CPU ratio | slowest / median, ours | wall ms ours | wall ms theirs | max RSS MB ours | max RSS MB theirs | bytes ours | bytes theirs |\n'
printf '|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n'
n=0
for c in "${cases[@]}"; do
  IFS='|' read -r name ppd options ours_raster theirs_raster <<<"$c"
  n=$((n + 1))
  : >"$work/o$n.txt"
  : >"$work/t$n.txt"
  for ((r = 0; r < runs; r++)); do
    run_one "t$n" "$zpl_ppd" "" "$work/$theirs_raster" "$theirs"
    run_one "o$n" "$build/ppd/ppd/$ppd" "$options" "$work/$ours_raster" "$ours"
  done
  o=$work/o$n.txt
  t=$work/t$n.txt
  awk -v n="$name" \
    -v o1="$(cpu "$o" | smallest)" -v o2="$(cpu "$o" | median)" -v o3="$(cpu "$o" | largest)" \
    -v t1="$(cpu "$t" | smallest)" -v t2="$(cpu "$t" | median)" -v t3="$(cpu "$t" | largest)" \
    -v wo="$(awk '{ print $3 * 1000 }' "$o" | median)" -v wt="$(awk '{ print $3 * 1000 }' "$t" | median)" \
    -v ro="$(awk '{ print $4 / 1024 }' "$o" | median)" -v rt="$(awk '{ print $4 / 1024 }' "$t" | median)" \
    -v bo="$(awk '{ print $5 }' "$o" | median)" -v bt="$(awk '{ print $5 }' "$t" | median)" 'BEGIN {
      printf "| %s | %.1f / %.1f / %.1f | %.1f / %.1f / %.1f | %.2f | %.2f | %.1f | %.1f | %.1f | %.1f | %d | %d |\n",
        n, o1, o2, o3, t1, t2, t3, (t2 > 0 ? o2 / t2 : 0), (o2 > 0 ? o3 / o2 : 0), wo, wt, ro, rt, bo, bt }'
done
echo
echo "$runs alternating runs each; $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores, $(date -u +%Y-%m-%d);" \
  "load average $load_start at the start, $(cut -d' ' -f1 /proc/loadavg) at the end${KELVO_THREADS:+; KELVO_THREADS=$KELVO_THREADS}."
