#!/usr/bin/env bash
# The sample job: builds the filter, turns the bundled pictures into 8-bit
# CUPS raster pages, prints them through the filter with the shipped PPDs and
# decodes what the printer would receive into preview PNGs.
#   out/sample-job/label.zpl    4x6 inch label, 203 dpi label printer
#   out/sample-job/stencil.zpl  tattoo stencil, 300 dpi stencil printer
#   out/sample-job/*-1.png      the graphics of the jobs as the printer sees them
#   out/sample-job/*.log        the filter's diagnostics
# Installs the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES

build=build/release
out=out/sample-job
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target rastertokelvozpl pngtoraster zplpreview kelvo_ppds
rm -rf "$out"
mkdir -p "$out"

filter=$build/filter/rastertokelvozpl
ppds=$build/ppd/ppd

# name, picture, dpi, page size name, PPD, job options
run_job() {
  local name=$1 picture=$2 dpi=$3 size=$4 ppd=$5 options=$6
  "$build/tools/pngtoraster" -r "$dpi" -s "$size" "$out/$name.ras" "$picture"
  PPD="$ppds/$ppd" "$filter" 1 "$USER" "$name" 1 "$options" "$out/$name.ras" >"$out/$name.zpl" 2>"$out/$name.log"
  echo "== $name: $picture through $ppd with \"$options\""
  "$build/tools/zplpreview" -o "$out/$name" "$out/$name.zpl"
}

USER=${USER:-$(id -un)}
run_job label samples/label.png 203 4x6 kelvo203.ppd "HalftoneType=None PrintSpeed=4 Darkness=20 MediaMethod=Transfer"
run_job stencil samples/stencil.png 300 "" kelvotat.ppd "HalftoneType=Tattoo Darkness=25"

echo
echo "Setup block of the label job:"
tr -d '\r' <"$out/label.zpl" | grep -v '^$' | sed -n '1,11p' | sed 's/^/    /'
echo
echo "Results are in $out:"
ls -l "$out"
