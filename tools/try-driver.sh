#!/usr/bin/env bash
# Try the driver without touching this machine's own CUPS: starts a private
# CUPS server (Debian's cupsd and cups-filters, on a unix socket of its own)
# with the project's filter and PPDs installed into a scratch folder, adds a
# label printer and a tattoo-stencil printer whose device is a fake ZPL
# printer on 127.0.0.1, prints the sample pictures (and any files you name),
# and turns what the printers received into PNG pages with zplpreview.
#
# Usage: tools/try-driver.sh [--build-dir DIR] [--out DIR] [--hold] [file ...]
#   --build-dir DIR  build tree to use (default build/release; configured and
#                    built as needed)
#   --out DIR        where the ZPL jobs and PNG pages go (default: a new
#                    folder under /tmp, named at the end)
#   --hold           keep the server running until Enter is pressed, to
#                    print more with lp (the command to use is shown)
#   file ...         more documents to print on the label printer
# Needs the Debian packages cups, cups-client, cups-filters and ghostscript.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")
# shellcheck source=e2e/lib.sh
. "$src/e2e/lib.sh"

build=$src/build/release out="" hold=0 extra=()
while [ $# -gt 0 ]; do
  case $1 in
    --build-dir) build=${2:?--build-dir needs a folder}; shift ;;
    --out) out=${2:?--out needs a folder}; shift ;;
    --hold) hold=1 ;;
    -h | --help) sed -n '2,17p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) e2e_die "unknown option $1 (try --help)" ;;
    *) extra+=("$(cd "$(dirname "$1")" && pwd)/$(basename "$1")") ;;
  esac
  shift
done
e2e_require cupsd lpadmin lp lpstat gs cmake

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || e2e_die "cmake configure failed"
fi
e2e_log "building the filter, the PPDs and the tools in $build"
cmake --build "$build" -j2 --target rastertokelvozpl kelvo_ppds zplpreview fakezplprinter >/dev/null ||
  e2e_die "the build failed; run: cmake --build $build"
build=$(cd "$build" && pwd)

out=${out:-$(mktemp -d /tmp/kelvo-try-driver.XXXXXX)}
mkdir -p "$out" || e2e_die "cannot create $out"
out=$(cd "$out" && pwd)
T=$(mktemp -d /tmp/kelvo-e2e.XXXXXX)
finish() {
  e2e_stop_all
  [ -f "$T/log/error_log" ] && cp "$T/log/error_log" "$out/cupsd-error_log"
  rm -rf "$T"
}
trap finish EXIT
trap 'exit 130' INT TERM

e2e_init "$T" "$build" "$build/tests/e2e/fakezplprinter"
e2e_start_queues
e2e_log "private CUPS server up; queues: label (ZPL Label Printer 203dpi), tattoo (ZPL Tattoo Stencil 300dpi)"

# try_print <name> <queue> <file> [lp options...]: prints, waits, previews.
try_print() {
  local name=$1 queue=$2 file=$3 id
  shift 3
  id=$(e2e_print "$queue" "$file" "$@")
  e2e_wait_job "$id" 300
  e2e_take_output "$queue"
  cp "$E2E_OUTPUT" "$out/$name.zpl"
  echo "$name: $(basename "$file") on $queue $*"
  "$build/tools/zplpreview" -o "$out/$name" "$out/$name.zpl" | sed 's/^/  /'
}

try_print label-png label "$src/samples/label.png"
try_print label-pdf label "$src/samples/label.pdf" -o PrintSpeed=4 -o Darkness=20 -o MediaMethod=Transfer
try_print stencil-tattoo tattoo "$src/samples/stencil.png" -o HalftoneType=Tattoo
try_print stencil-tattoo-x8 tattoo "$src/samples/stencil.png" -o HalftoneType=Tattoo_X8
n=0
for file in "${extra[@]}"; do
  n=$((n + 1))
  try_print "extra-$n" label "$file"
done

if [ "$hold" = 1 ]; then
  echo
  echo "The server keeps running. In another shell, for example:"
  echo "  CUPS_SERVER=$CUPS_SERVER lp -d label -o Darkness=15 my-label.pdf"
  echo "  CUPS_SERVER=$CUPS_SERVER lpoptions -p tattoo -l"
  echo "Jobs arrive as $T/out/<queue>/job-<n>.zpl; preview one with"
  echo "  $build/tools/zplpreview -o page $T/out/label/job-1.zpl"
  read -r -p "Press Enter to stop the server. " _
fi
echo "The ZPL jobs and their pages as PNG are in $out"
