#!/usr/bin/env bash
# Barcode scan suite: do printed barcodes scan? Label pages holding one
# Code 128, Code 39, EAN-13, QR or Data Matrix symbol (encoded by Debian's
# zint) at module widths from 1.25 to 4 dots, placed off the dot grid, are
# made as a PDF and as PNG pictures, converted by CUPS's own filters with the
# shipped label PPDs (cupsfilter -m application/vnd.cups-raster), run through
# our filter with every halftone choice of the PPD, decoded back to pictures
# with zplpreview (it reads any ZPL dialect's ~DG graphics), and read with real
# readers: zbarimg (zbar-tools) and dmtxread (dmtx-utils). The same documents
# also go through CUPS's own label filter, rastertolabel, with the ZPL model of
# CUPS's sample.drv (1-bit pages from cupsfilter with that PPD): the reference.
#
#   tools/barcode-scan.sh [options]
#     --build-dir DIR   use the filter, zplpreview and PPDs built there (as is);
#                       by default build/barcode-scan is configured and built
#     --out DIR         where the pages, jobs, preview PNGs and results go
#                       (default out/barcode-scan; emptied first)
#     --quick           the test's subset: 1.5 dots only, the PPD's default
#                       halftone only, no reference
#     --check           exit 1 unless the PPD's default halftone decodes every
#                       symbol at 1.5 dots and up, from the PDF and the PNG
#     --known LIST      with --check: pages allowed to fail, as DPI/SOURCE/SYMBOL
#                       (e.g. 203/png/datamatrix); they are listed, not failed
#     --dpi LIST        "203 300" by default
#     --widths LIST     module widths in dots, "1.25 1.5 1.75 2 2.5 3 4" by default
#     --halftones LIST  PPD choice words (default: every choice of the PPD)
#     --no-reference    skip CUPS's rastertolabel
#     --scales LIST     each page is drawn with every dot as N x N pixels for
#                       each N (zplpreview -s), as a reader held at a few
#                       distances sees it, and counts as scanned when any of
#                       them reads right (default "1 2 3")
#
# Prints one table per resolution (Markdown). Every read is in results.tsv in
# the output folder, and every page a reader saw is kept there as a PNG:
# <dpi>/<source>/<halftone>/<symbol>-<width>.png.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

build=""
out=$root/out/barcode-scan
quick=0
check=0
reference=1
dpis="203 300"
widths="1.25 1.5 1.75 2 2.5 3 4"
halftones=""
scales="1 2 3"
known=""
readers=$(nproc 2>/dev/null || echo 2)
while [ $# -gt 0 ]; do
  case $1 in
    --build-dir) build=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --quick) quick=1; shift ;;
    --check) check=1; shift ;;
    --dpi) dpis=$2; shift 2 ;;
    --widths) widths=$2; shift 2 ;;
    --halftones) halftones=$2; shift 2 ;;
    --no-reference) reference=0; shift ;;
    --scales) scales=$2; shift 2 ;;
    --known) known=$2; shift 2 ;;
    -h | --help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "barcode-scan: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done
if [ "$quick" -eq 1 ]; then
  widths="1.5"
  reference=0
fi

die() { echo "barcode-scan: $*" >&2; exit 1; }

if [ -z "$build" ]; then
  . tools/scripts/packages.sh
  # shellcheck disable=SC2086
  kelvo_ensure_packages $KELVO_BUILD_PACKAGES
  build=$root/build/barcode-scan
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVO_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target rastertokelvozpl zplpreview kelvo_ppds >/dev/null
fi
build=$(cd "$build" && pwd)
filter=$build/filter/rastertokelvozpl
preview=$build/tools/zplpreview
ppd_dir=$build/ppd/ppd
for f in "$filter" "$preview"; do [ -x "$f" ] || die "$f is missing: build the project first"; done
for c in zint zbarimg dmtxread cupsfilter ppdc gs ps2pdf; do
  command -v "$c" >/dev/null || die "$c not found: install the Debian packages zint zbar-tools dmtx-utils cups cups-ppdc cups-filters ghostscript"
done
theirs=/usr/lib/cups/filter/rastertolabel
[ "$reference" -eq 0 ] || [ -x "$theirs" ] || die "$theirs is missing (Debian package cups)"

rm -rf "$out"
mkdir -p "$out"
out=$(cd "$out" && pwd)
work=$out/work
mkdir -p "$work"
results=$out/results.tsv
printf 'dpi\tsource\thalftone\tsymbol\twidth\tdecoded\tread\n' >"$results"

# The filter saves two debug pictures per page into the spooler's folder
# when it exists; the ones this run made go again at the end.
spool=/var/spool/cups/tmp
ls "$spool" 2>/dev/null | sort >"$work/spool.before" || true
cleanup_spool() {
  ls "$spool" 2>/dev/null | sort | comm -13 "$work/spool.before" - | while read -r f; do
    case $f in origin_*.bmp | dithered_*.bmp | prnimg_*.bmp) rm -f "$spool/$f" ;; esac
  done
}
trap cleanup_spool EXIT

# --- the symbols: name, zint symbology, data, what the reader gives back ---
symbols=(code128 code39 ean13 qr datamatrix)
declare -A zint_type=([code128]=20 [code39]=8 [ean13]=13 [qr]=58 [datamatrix]=71)
declare -A zint_opts=([code128]="" [code39]="" [ean13]="" [qr]="" [datamatrix]="--square")
declare -A data=([code128]="KELVO-128-0042" [code39]="KELVO39" [ean13]="590123412345" [qr]="KELVO QR 0042"
  [datamatrix]="KELVO DM 0042")
declare -A expect=([code128]="CODE-128:KELVO-128-0042" [code39]="CODE-39:KELVO39" [ean13]="EAN-13:5901234123457"
  [qr]="QR-Code:KELVO QR 0042" [datamatrix]="KELVO DM 0042")
declare -A letter=([code128]=C [code39]=3 [ean13]=E [qr]=Q [datamatrix]=D)

# The module matrix of each symbol from zint's dump (rows of hex, one bit a
# module, padded): rows of 0 and 1, as wide as the widest row's last dark
# module (every symbology here ends in a dark module on some row).
for s in "${symbols[@]}"; do
  # shellcheck disable=SC2086
  zint -b "${zint_type[$s]}" ${zint_opts[$s]} -d "${data[$s]}" --dump |
    awk 'BEGIN { split("0000 0001 0010 0011 0100 0101 0110 0111 1000 1001 1010 1011 1100 1101 1110 1111", nib, " ")
                 for (i = 0; i < 16; i++) bits[substr("0123456789ABCDEF", i + 1, 1)] = nib[i + 1] }
         { row = ""
           for (i = 1; i <= NF; i++) row = row bits[substr($i, 1, 1)] bits[substr($i, 2, 1)]
           rows[NR] = row; last = match(row, /1[0]*$/); if (last > w) w = last }
         END { for (r = 1; r <= NR; r++) print substr(rows[r], 1, w) }' >"$work/$s.matrix"
  [ -s "$work/$s.matrix" ] || die "zint made no $s symbol"
done

# --- the documents ---
# A 4 x 2 inch label per symbol and module width, the symbol's modules drawn
# as filled rectangles. In the PDF the symbol's left edge sits 40.37 dots in
# and its bottom 60.61 dots up, so no edge is on the dot grid. The PNG is the
# same label as a picture at one pixel a module (as zint draws a symbol at
# scale 0.5), printed at the ppi that gives the module width, so CUPS's
# imagetoraster enlarges it; its true module width is dpi / ppi dots. 1D
# symbols are 0.8 inch tall.
page_ps() {  # <matrix> <module> <1D bar height> <x0> <y0> <inset>, in the page's units
  awk -v m="$2" -v h1d="$3" -v x0="$4" -v y0="$5" -v inset="$6" '
    { rows[NR] = $0 }
    END {
      n = NR; rh = (n == 1) ? h1d : m
      for (r = 1; r <= n; r++) {
        row = rows[r]; y = y0 + (n - r) * rh; x = 1; len = length(row)
        while (x <= len) {
          if (substr(row, x, 1) == "1") {
            e = x; while (e < len && substr(row, e + 1, 1) == "1") e++
            printf "%.5f %.5f %.5f %.5f rectfill\n", x0 + (x - 1) * m + inset, y + inset, (e - x + 1) * m - 2 * inset, rh - 2 * inset
            x = e + 1
          } else x++
        }
      }
      print "showpage"
    }' "$1"
}

# pages.list: dpi source symbol width ppi true-width input-file, one page a line
: >"$work/pages.list"
for dpi in $dpis; do
  mkdir -p "$work/$dpi"
  {
    echo "%!PS"
    for s in "${symbols[@]}"; do
      for w in $widths; do
        echo "<< /PageSize [288 144] >> setpagedevice 0 setgray"
        page_ps "$work/$s.matrix" "$(awk -v w="$w" -v d="$dpi" 'BEGIN { printf "%.6f", w * 72 / d }')" 57.6 \
          "$(awk -v d="$dpi" 'BEGIN { printf "%.6f", 40.37 * 72 / d }')" \
          "$(awk -v d="$dpi" 'BEGIN { printf "%.6f", 60.61 * 72 / d }')" 0
        echo "$dpi pdf $s $w - $w $work/$dpi/labels.pdf" >>"$work/pages.list"
      done
    done
  } >"$work/$dpi/labels.ps"
  ps2pdf -dAutoRotatePages=/None "$work/$dpi/labels.ps" "$work/$dpi/labels.pdf"
  for w in $widths; do
    ppi=$(awk -v w="$w" -v d="$dpi" 'BEGIN { printf "%d", d / w + 0.5 }')
    {
      echo "%!PS"
      for s in "${symbols[@]}"; do
        # pixel units; the symbol 32 dots in and 48 up, rounded to pixels
        echo "<< /PageSize [288 144] >> setpagedevice 0 setgray 72 $ppi div dup scale"
        page_ps "$work/$s.matrix" 1 "$(awk -v p="$ppi" 'BEGIN { printf "%d", 0.8 * p }')" \
          "$(awk -v p="$ppi" -v d="$dpi" 'BEGIN { printf "%d", 32 * p / d }')" \
          "$(awk -v p="$ppi" -v d="$dpi" 'BEGIN { printf "%d", 48 * p / d }')" 0.02
      done
    } >"$work/$dpi/w$w.ps"
    gs -q -dSAFER -dNOPAUSE -dBATCH -sDEVICE=pnggray -r"$ppi" -sOutputFile="$work/$dpi/w$w-%d.png" "$work/$dpi/w$w.ps"
    i=0
    for s in "${symbols[@]}"; do
      i=$((i + 1))
      mv "$work/$dpi/w$w-$i.png" "$work/$dpi/$s-$w.png"
      echo "$dpi png $s $w $ppi $(awk -v p="$ppi" -v d="$dpi" 'BEGIN { printf "%.3f", d / p }') $work/$dpi/$s-$w.png" \
        >>"$work/pages.list"
    done
  done
done

# --- CUPS's conversion: one raster stream per resolution, source and PPD ---
# Raster streams of one kind are joined by dropping the later ones' sync word.
cups_raster() {  # <ppd> <out.ras> <page size> <resolution option or ""> <dpi> <source>
  local ppd=$1 ras=$2 size=$3 res=$4 dpi=$5 source=$6 n=0
  : >"$ras"
  if [ "$source" = pdf ]; then
    # shellcheck disable=SC2086
    cupsfilter -p "$ppd" -m application/vnd.cups-raster -o PageSize="$size" $res "$work/$dpi/labels.pdf" \
      >"$ras" 2>"$ras.log" || die "cupsfilter failed on the $dpi dpi PDF (see $ras.log)"
    return
  fi
  while read -r d src s w ppi aw file; do
    [ "$d" = "$dpi" ] && [ "$src" = png ] || continue
    # shellcheck disable=SC2086
    cupsfilter -p "$ppd" -m application/vnd.cups-raster -o PageSize="$size" $res -o ppi="$ppi" "$file" \
      >"$ras.one" 2>"$ras.log" || die "cupsfilter failed on $file at $ppi ppi (see $ras.log)"
    if [ "$n" -eq 0 ]; then cat "$ras.one" >>"$ras"; else tail -c +5 "$ras.one" >>"$ras"; fi
    n=$((n + 1))
  done <"$work/pages.list"
}

# --- reading a page ---
declare -A zbar_name=([code128]=code128 [code39]=code39 [ean13]=ean13 [qr]=qrcode)
read_page() {  # <png> <symbol>: prints what the reader read (empty if nothing)
  if [ "$2" = datamatrix ]; then
    timeout 60 dmtxread -N1 -m 4000 "$1" 2>/dev/null | head -1 || true
  else
    timeout 60 zbarimg -q --nodbus -Sdisable -S"${zbar_name[$2]}.enable" "$1" 2>/dev/null | tr '\n' ' ' |
      sed 's/ $//' || true
  fi
}

# read_scales <picture prefix> <symbol>: reads the page drawn at each scale
# (the reader held at a few distances) and stops at the first right read;
# prints that read, or else the last one
read_scales() {
  local k got=""
  for k in $scales; do
    got=$(read_page "$1-x$k.png" "$2")
    [ "$got" = "${expect[$2]}" ] && break
  done
  echo "$got"
}

# decode_job <job.zpl> <dpi> <source> <halftone label>: previews the job's
# pages, reads each (as many at a time as there are cores), appends to
# results.tsv; the largest-scale pictures stay in the output folder
decode_job() {
  local job=$1 dpi=$2 source=$3 label=$4 dir i=0 got ok k
  dir=$out/$dpi/$source/$label
  mkdir -p "$dir"
  for k in $scales; do
    "$preview" -s "$k" -o "$work/x$k-page" "$job" >/dev/null || die "zplpreview could not read $job"
  done
  local pages=()
  while read -r d src s w ppi aw file; do
    [ "$d" = "$dpi" ] && [ "$src" = "$source" ] || continue
    i=$((i + 1))
    for k in $scales; do
      [ -f "$work/x$k-page-$i.png" ] || die "$job has no page $i"
      mv "$work/x$k-page-$i.png" "$work/$i-x$k.png"
    done
    pages+=("$s $w $aw")
    while [ "$(jobs -rp | wc -l)" -ge "$readers" ]; do wait -n || true; done
    read_scales "$work/$i" "$s" >"$work/read-$i.txt" &
  done <"$work/pages.list"
  wait
  i=0
  for p in "${pages[@]}"; do
    i=$((i + 1))
    read -r s w aw <<<"$p"
    got=$(cat "$work/read-$i.txt")
    ok=0
    [ "$got" = "${expect[$s]}" ] && ok=1
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$dpi" "$source" "$label" "$s" "$aw" "$ok" "$got" >>"$results"
    mv "$work/$i-x${scales##* }.png" "$dir/$s-$w.png"
  done
  rm -f "$work"/[0-9]*-x*.png "$work"/read-*.txt
}

if [ "$reference" -eq 1 ]; then
  ppdc -d "$work/cups-ppd" /usr/share/cups/drv/sample.drv >/dev/null 2>&1
  zebra_ppd=$(grep -l '^\*ModelName: ".*ZPL' "$work"/cups-ppd/*.ppd | head -1)
  [ -n "$zebra_ppd" ] || die "no ZPL model in CUPS's sample.drv"
fi

for dpi in $dpis; do
  ppd=$ppd_dir/kelvo$dpi.ppd
  [ -f "$ppd" ] || die "no PPD for $dpi dpi: $ppd"
  default=$(sed -n 's/^\*DefaultHalftoneType: *//p' "$ppd")
  if [ "$quick" -eq 1 ]; then
    list=$default
  elif [ -n "$halftones" ]; then
    list=$halftones
  else
    list=$(sed -n 's/^\*HalftoneType \([^/:]*\).*/\1/p' "$ppd")
  fi
  for source in pdf png; do
    ras=$work/$dpi-$source.ras
    cups_raster "$ppd" "$ras" 4x2 "" "$dpi" "$source"
    for h in $list; do
      PPD=$ppd "$filter" 1 scan barcode 1 "HalftoneType=$h" "$ras" >"$work/job.zpl" 2>"$work/filter.log" ||
        die "the filter failed with $h on the $dpi dpi $source pages (see $work/filter.log)"
      label=$h
      [ "$h" = "$default" ] && label="$h*"
      decode_job "$work/job.zpl" "$dpi" "$source" "$label"
      cleanup_spool
    done
    if [ "$reference" -eq 1 ]; then
      cups_raster "$zebra_ppd" "$work/ref.ras" w288h144 "-o Resolution=${dpi}dpi" "$dpi" "$source"
      PPD=$zebra_ppd "$theirs" 1 scan barcode 1 "" "$work/ref.ras" >"$work/ref.zpl" 2>"$work/ref.log" ||
        die "rastertolabel failed on the $dpi dpi $source pages (see $work/ref.log)"
      decode_job "$work/ref.zpl" "$dpi" "$source" "CUPS-rastertolabel"
    fi
  done
done

# --- the tables ---
# Per resolution: a row per halftone (* = the PPD's default), a column per
# module width; a cell shows the symbols read from the PDF, then from the PNG
# (C Code 128, 3 Code 39, E EAN-13, Q QR, D Data Matrix, - not read). The last
# column is the smallest width from which every symbol is read at every
# larger width too.
awk -F'\t' -v widths="$widths" '
  NR == 1 { next }
  {
    key = $1 SUBSEP $3
    if (!(key in seen)) { seen[key] = 1; order[++n] = key }
    dpis[$1] = 1
    # the nominal width this page belongs to (PNG widths are dpi / ppi)
    nominal = $5; best = 1e9
    split(widths, ws, " ")
    for (i in ws) if ((d = (ws[i] - $5) ^ 2) < best) { best = d; nominal = ws[i] }
    total[key, nominal]++; good[key, nominal] += $6
    sym[$4] = 1
    ch = ($4 == "code128") ? "C" : ($4 == "code39") ? "3" : ($4 == "ean13") ? "E" : ($4 == "qr") ? "Q" : "D"
    cell[key, nominal, $2] = cell[key, nominal, $2] ($6 ? ch : "-")
  }
  END {
    nw = split(widths, ws, " ")
    for (d in dpis) {
      printf "\n%s dpi: symbols read from the PDF | from the PNG (C Code 128, 3 Code 39, E EAN-13, Q QR, D Data Matrix, - not read)\n\n", d
      printf "| Halftone |"; for (i = 1; i <= nw; i++) printf " %s dots |", ws[i]; printf " read | smallest width |\n"
      printf "|---|"; for (i = 1; i <= nw; i++) printf "---|"; printf "---:|---:|\n"
      for (k = 1; k <= n; k++) {
        split(order[k], p, SUBSEP); if (p[1] != d) continue
        printf "| %s |", p[2]; all = 0; ok = 0; smallest = "none"
        for (i = 1; i <= nw; i++) {
          printf " %s %s |", cell[order[k], ws[i], "pdf"], cell[order[k], ws[i], "png"]
          all += total[order[k], ws[i]]; ok += good[order[k], ws[i]]
        }
        for (i = nw; i >= 1; i--) { if (good[order[k], ws[i]] < total[order[k], ws[i]]) break; smallest = ws[i] }
        printf " %d/%d | %s |\n", ok, all, smallest
      }
    }
  }' "$results" | tee "$out/table.md"
echo
echo "Pages, preview PNGs and every read: $out"

if [ "$check" -eq 1 ]; then
  default_pages=$(awk -F'\t' 'NR > 1 && $3 ~ /\*$/ && $5 >= 1.5 { print $1 "/" $2 "/" $4 "\t" $5 "\t" $6 "\t" $7 }' "$results")
  [ -n "$default_pages" ] || die "check: no page of the default halftone at 1.5 dots or more was read"
  failed="" allowed=""
  while IFS=$'\t' read -r page w ok got; do
    [ "$ok" = 1 ] && continue
    case " $known " in
      *" $page "*) allowed+="  $page at $w dots"$'\n' ;;
      *) failed+="  $page at $w dots: read \"$got\""$'\n' ;;
    esac
  done <<<"$default_pages"
  [ -z "$allowed" ] || printf 'barcode-scan: known failures of the default halftone (--known):\n%s' "$allowed"
  if [ -n "$failed" ]; then
    printf 'barcode-scan: FAILED: the default halftone pages that did not scan:\n%s' "$failed" >&2
    exit 1
  fi
  echo "barcode-scan: the default halftone scans all $(wc -l <<<"$default_pages") symbols at 1.5 dots and up${allowed:+, but the known failures above}"
fi
