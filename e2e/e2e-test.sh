#!/usr/bin/env bash
# End-to-end test of the driver as a person installs and uses it: the
# filter and the PPDs installed into a private CUPS server (Debian's cupsd
# and cups-filters), one queue per printer model made with lpadmin from the
# shipped PPDs, pictures and documents printed with lp, and every byte the
# printer receives caught by a fake ZPL printer and checked: the wake-up
# line feeds, the setup block of every page, the copy count, and graphics
# that decode to pages of the right size with a plausible share of dots.
# Also checks that a job through CUPS gives the same bytes as the filter run
# by hand on the raster CUPS handed it.
#
# Needs the Debian packages cups, cups-client, cups-filters and ghostscript.
# Run by ctest; by hand:
#   e2e/e2e-test.sh --build-dir build/release
# E2E_KEEP=1 keeps the scratch folder (logs, jobs, previews) after a pass.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")
# shellcheck source=e2e/lib.sh
. "$here/lib.sh"

[[ $# -eq 2 && $1 = --build-dir ]] || e2e_die "usage: $0 --build-dir <build tree>"
build=$(cd "$2" && pwd) || e2e_die "no build tree at $2"
filter=$build/filter/rastertokelvozpl zplpreview=$build/tools/zplpreview
pngtoraster=$build/tools/pngtoraster fake=$build/tests/e2e/fakezplprinter
for program in "$filter" "$zplpreview" "$pngtoraster" "$fake"; do
  [ -x "$program" ] || e2e_die "$program is missing: build the project first"
done
e2e_require cupsd lpadmin lp lpstat gs timeout cmake

T=$(mktemp -d /tmp/kelvo-e2e.XXXXXX)
passed=0
finish() {
  e2e_stop_all
  if [ "$passed" = 1 ] && [ -z "${E2E_KEEP:-}" ]; then
    rm -rf "$T"
  else
    e2e_log "logs, jobs and previews kept in $T"
  fi
}
trap finish EXIT
trap 'exit 130' INT TERM

e2e_init "$T" "$build" "$fake"
mkdir -p "$T/docs" "$T/jobs" "$T/preview" "$T/hand"

# Documents made here. The two pages fill known parts of a 4x6 inch label
# (288 x 432 points): the left half, then the bottom quarter.
SAMPLES=$src/samples
DOCS=$T/docs
printf '%%!PS\nshowpage\n' >"$DOCS/blank.ps"
printf '%%!PS\n0 0 144 432 rectfill showpage\n0 0 288 108 rectfill showpage\n' >"$DOCS/two-pages.ps"
"$pngtoraster" -r 203 -c 2 -s 4x6 "$DOCS/label.ras" "$SAMPLES/label.png" || e2e_die "pngtoraster failed"
"$pngtoraster" -r 300 "$DOCS/stencil.ras" "$SAMPLES/stencil.png" || e2e_die "pngtoraster failed"

# Page formats: the raster page CUPS makes (dots), and the format start and
# label size lines the printer must get for it. The label queue speaks
# standard ZPL (^XA, the page's own dots); the tattoo queue the stencil
# printers' dialect, where dots = 203 x millimetres multiplied in single
# precision and truncated, so that 812 dots would give ^PW811.
declare -A FORMAT_DOTS=() FORMAT_SIZE=()
while read -r format dots size; do
  FORMAT_DOTS[$format]=$dots
  FORMAT_SIZE[$format]=$size
done <<'EOF'
4x6         812x1218    ^XA;^PW812;^LL1218
A4          2480x3508   SIZE 210.0 mm, 297.0 mm;^XX;^PW1678;^LL2373
A4-picture  2480x3307   SIZE 210.0 mm, 280.0 mm;^XX;^PW1678;^LL2237
Tattoo_A6   1240x1750   SIZE 105.0 mm, 148.2 mm;^XX;^PW839;^LL1184
stencil300  900x1200    SIZE 76.2 mm, 101.6 mm;^XX;^PW608;^LL811
EOF
# A4 is 595.28 x 841.89 points, 2480 x 3508 dots at 300 dpi. The stencil
# picture (900 x 1200) fills the A4 width: 2480 x 1200 / 900 = 3307 rows.
# Tattoo_A6 is 297.64 x 420 points, 1240 x 1750 dots. stencil300 is the picture as a raster
# page of its own at 300 dpi.

# Jobs. ink: the share of dots per page, in percent, one range per page.
# A third of the label's pixels are darker than mid-gray, and the threshold
# prints them; the flower picture averages 31 % ink, which the stencil
# chain keeps, somewhat darkened by its sharpening, and so does the label
# through the chain; a blank page stays blank. setup: the media,
# orientation, speed, darkness, print method and post-print lines of every
# page, as the queue's PPD defaults and the options make them (label queue
# defaults: LabelGaps with 3 mm gaps, Direct, TearOff; tattoo queue: Normal
# paper, no post action). raster-label's two copies come from its raster
# page header.
scenarios=$(
  cat <<EOF
# name        queue  document               format     copies ink                 setup                            lp options
label-png     label  $SAMPLES/label.png     4x6        2      20-40               ^MNY;^PON;^PR4;~SD20;^MTT;^MMT,N -o PrintSpeed=4 -o Darkness=20 -o MediaMethod=Transfer -n 2
label-pdf     label  $SAMPLES/label.pdf     4x6        1      20-40               ^MNN;^POI;^PR2;~SD0;^MTD;^MMC,N  -o PaperType=Continue -o Origin=Rotation180 -o PostAction=Cut -o PrintSpeed=2 -o Darkness=0
two-pages     label  $DOCS/two-pages.ps     4x6        1      49.5-50.5,24.5-25.5 ^MNM;^PON;^MTD;^MMP,N            -o PaperType=LabelMark -o GapsHeight=2 -o PostAction=PeelOff
stencil       tattoo $SAMPLES/stencil.png   A4-picture 1      20-60               ^PON;^PR3;~SD25;^MTD             -o HalftoneType=Tattoo -o PrintSpeed=3 -o Darkness=25
stencil-x8    tattoo $SAMPLES/stencil.png   A4-picture 3      20-60               ^MNN;^PON;^MTD                   -o HalftoneType=Tattoo_X8 -o PaperType=Continue -n 3
blank-tattoo  tattoo $DOCS/blank.ps         A4         1      0-0.1               ^PON;^MTD                        -o HalftoneType=Tattoo
blank-x8      tattoo $DOCS/blank.ps         A4         1      0-0.1               ^PON;^MTD                        -o HalftoneType=Tattoo_X8
label-a6      tattoo $SAMPLES/label.pdf     Tattoo_A6  1      20-60               ^POI;^PR1;^MTD                   -o PageSize=Tattoo_A6 -o Origin=Rotation180 -o PrintSpeed=1
raster-label  label  $DOCS/label.ras        4x6        2      20-40               ^MNY;^PON;^PR6;~SD30;^MTD;^MMT,N -o document-format=application/vnd.cups-raster -o PrintSpeed=6 -o Darkness=30
raster-x8     tattoo $DOCS/stencil.ras      stencil300 1      20-60               ^PON;^MTD                        -o document-format=application/vnd.cups-raster -o HalftoneType=Tattoo_X8
EOF
)

# The job as text, with carriage returns shown as ^M and each graphic's
# data (one line of compressed rows up to the recall) as <graphic>.
job_outline() {
  cat -v "$1" | awk '{ if ($0 ~ /^[0-9A-Za-z,:]*\^FO0,0\^XGR:CUPS\.GRF,1,1\^FS$/) print "<graphic>"; else print }'
}

# What job_outline must give: 64 line feeds, then for every page the setup
# block, the copy count, the download header and the graphic, and the end
# of the label.
expected_outline() {
  local format=$1 copies=$2 pages=$3 setup=$4
  local w=${FORMAT_DOTS[$format]%x*} h=${FORMAT_DOTS[$format]#*x}
  local bpr=$(((w + 7) / 8)) i line size
  IFS=';' read -ra size <<<"${FORMAT_SIZE[$format]}"
  local start=^XX
  [ "${size[0]}" = "^XA" ] && start=^XA
  for ((i = 0; i < 64; i++)); do echo; done
  for ((i = 0; i < pages; i++)); do
    printf '%s^M\n' "${size[@]}"
    IFS=';' read -ra lines <<<"$setup"
    for line in "${lines[@]}"; do printf '%s^M\n' "$line"; done
    printf '%s\n' "^XZ^M" "^M" "$start^M" "^PQ$copies" "~DGR:CUPS.GRF,$((bpr * h)),$bpr," "<graphic>" "^XZ^M"
  done
}

# Decodes the job with zplpreview and checks every page's size and share of dots.
check_graphics() {
  local name=$1 job=$2 format=$3 inks=$4
  local w=${FORMAT_DOTS[$format]%x*} h=${FORMAT_DOTS[$format]#*x}
  local report
  report=$("$zplpreview" -o "$T/preview/$name" "$job") || e2e_die "$name: zplpreview cannot decode the job"
  # One line a page; indented notes about standard printers follow some.
  report=$(grep -v '^  ' <<<"$report")
  IFS=',' read -ra ranges <<<"$inks"
  [ "$(wc -l <<<"$report")" -eq "${#ranges[@]}" ] || e2e_die "$name: expected ${#ranges[@]} pages, decoded: $report"
  local i=0 pw ph dots range
  while read -r _ pw _ ph _ dots _; do
    range=${ranges[$i]}
    i=$((i + 1))
    if [ "$pw" -ne $(((w + 7) / 8 * 8)) ] || [ "$ph" -ne "$h" ]; then
      e2e_die "$name page $i: graphic of $pw x $ph dots, expected $w x $h"
    fi
    awk -v d="$dots" -v a=$((w * h)) -v lo="${range%-*}" -v hi="${range#*-}" \
      'BEGIN { p = 100 * d / a; exit !(p >= lo && p <= hi) }' ||
      e2e_die "$name page $i: $dots dots of $((w * h)), outside $range %"
  done <<<"$report"
}

# The argument `n` that CUPS gave the filters of job `id`, from the log.
job_argv() {
  sed -n "s/^D \[[^]]*\] \[Job $1\] argv\[$2\]=\"\(.*\)\"$/\1/p" "$T/log/error_log" | head -1
}

# The raster CUPS handed the filter is the job file itself: run the filter
# built in the tree on it by hand, with the queue's PPD and the arguments
# CUPS used, as the scheduler's user, and compare with what the printer got.
check_by_hand() {
  local name=$1 queue=$2 id=$3 document=$4 job=$5
  local spooled
  spooled=$T/spool/d$(printf '%05d' "$id")-001
  [ "$(job_argv "$id" 6)" = "$spooled" ] || e2e_die "$name: CUPS did not hand the filter the job file"
  cmp -s "$spooled" "$document" || e2e_die "$name: the job file differs from the raster printed"
  local run_as=()
  if [ "$(id -u)" -eq 0 ]; then run_as=(setpriv --reuid=lp --regid=lp --clear-groups --); fi
  # A copy, as the scheduler's user may not reach into the build tree.
  cp "$filter" "$T/hand/rastertokelvozpl"
  env -i PATH=/usr/bin:/bin PPD="$T/conf/ppd/$queue.ppd" "${run_as[@]}" "$T/hand/rastertokelvozpl" \
    "$(job_argv "$id" 1)" "$(job_argv "$id" 2)" "$(job_argv "$id" 3)" "$(job_argv "$id" 4)" \
    "$(job_argv "$id" 5)" "$spooled" >"$T/jobs/$name.by-hand.zpl" 2>"$T/log/$name.by-hand.err" ||
    e2e_die "$name: the filter run by hand failed: $(grep ERROR "$T/log/$name.by-hand.err")"
  cmp "$job" "$T/jobs/$name.by-hand.zpl" || e2e_die "$name: the printer got other bytes than the filter run by hand"
}

e2e_start_queues

count=0
while read -r name queue document format copies inks setup options; do
  case $name in '#'* | '') continue ;; esac
  # shellcheck disable=SC2086  # the options are words
  id=$(e2e_print "$queue" "$document" $options)
  e2e_wait_job "$id" 120
  e2e_take_output "$queue"
  job=$T/jobs/$name.zpl
  cp "$E2E_OUTPUT" "$job"
  IFS=',' read -ra pages <<<"$inks"
  if ! diff <(expected_outline "$format" "$copies" "${#pages[@]}" "$setup") <(job_outline "$job") \
    >"$T/log/$name.diff"; then
    e2e_die "$name: the printer got other commands than expected (< expected, > received):
$(head -20 "$T/log/$name.diff")"
  fi
  check_graphics "$name" "$job" "$format" "$inks"
  grep -q "\[Job $id\] PAGE: 1 $copies$" "$T/log/error_log" || e2e_die "$name: no page log line of the filter"
  case $document in *.ras) check_by_hand "$name" "$queue" "$id" "$document" "$job" ;; esac
  e2e_log "$name: job $id printed as expected"
  count=$((count + 1))
done <<<"$scenarios"

# The label's PNG and PDF are one PostScript drawing rendered at 203 dpi;
# the label PPDs have Ghostscript paint a dot only where its centre is
# inside a shape (bars keep their width), so the PDF path and CUPS's image
# path no longer give exactly the same dots. Every stroke of the PDF is up
# to a dot thinner; on this label of thin lines and small text that is about
# 8 % fewer dots (313862 against 289927). More than 10 % means one of the
# paths lost or misplaced part of the page.
png_dots=$("$zplpreview" -o "$T/preview/cmp-png" "$T/jobs/label-png.zpl" | awk 'NR == 1 { print $6 }')
pdf_dots=$("$zplpreview" -o "$T/preview/cmp-pdf" "$T/jobs/label-pdf.zpl" | awk 'NR == 1 { print $6 }')
awk -v a="$png_dots" -v b="$pdf_dots" 'BEGIN { d = a - b; if (d < 0) d = -d; exit !(d <= 0.10 * a) }' ||
  e2e_die "label-png and label-pdf: the same label gives $png_dots and $pdf_dots dots"

# The filter's messages reach the log (LogLevel debug); none may be an error.
if grep -E '^E |ERROR:' "$T/log/error_log" >"$T/log/errors"; then
  e2e_die "the scheduler's log holds errors:
$(head -10 "$T/log/errors")"
fi

e2e_stop_all
e2e_poll 10 e2e_nothing_listening || e2e_die "something still listens after the stop"
passed=1
e2e_log "all $count jobs printed as expected"
