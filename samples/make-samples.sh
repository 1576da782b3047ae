#!/usr/bin/env bash
# Re-renders the bundled sample pictures from their PostScript sources with
# Ghostscript (package ghostscript). The results are committed, so the
# project's scripts never need Ghostscript themselves.
set -euo pipefail
cd "$(dirname "$0")"
gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=pnggray -r203 -dTextAlphaBits=1 -dGraphicsAlphaBits=1 \
  -sOutputFile=label.png label.ps
gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=pnggray -r300 -dGraphicsAlphaBits=4 -sOutputFile=stencil.png stencil.ps
ps2pdf label.ps label.pdf
