#!/bin/bash
# Whole jobs through kelvo-printer-app: one server on 127.0.0.1 and a free
# port, printers whose device is a folder (PAPPL's file device), jobs sent
# with the app's own "submit" and with ipptool.
#   app_test.sh <build-dir> jobs      byte equivalence with the filter,
#                                     copies, two printers at once, bad input,
#                                     sizes and media tracking from media-col
#   app_test.sh <build-dir> ipptool   ipp-everywhere.test and ipp-2.0.test, the
#                                     PPDs' sizes offered
#   app_test.sh <build-dir> cups      a private cupsd with a driverless queue
#                                     for the app's printer, printing with lp to
#                                     a fake ZPL printer
#   app_test.sh <build-dir> burst     fifty jobs from two clients at once to one
#                                     printer: all print, memory stays flat
#   app_test.sh <build-dir> burst2    the same, each client to its own printer
#   app_test.sh <build-dir> web       a default changed in the web interface with
#                                     headless Chromium; the next job uses it
#   app_test.sh <build-dir> status    the printer's state from fake printers:
#                                     reasons and supplies follow, jobs wait for
#                                     labels, a silent printer delays nothing
#   app_test.sh <build-dir> studio    the stencil studio in headless Chromium at a
#                                     tablet's and a phone's screen: the preview is
#                                     halftonepreview's, the print is the preview
# Two modes put the server on a network of its own: two network namespaces
# (e2e_netns_up), the server in one, started as the README's network example
# says, clients in the other. They need root and are skipped otherwise
# (tests/app/server_test.cpp checks the same decisions without a server).
#   app_test.sh <build-dir> dnssd     what phones find (avahi-browse, ippfind)
#                                     agrees with the IPP attributes; printers
#                                     added, renamed and deleted at run time; a
#                                     label printed through the advertised URI
#   app_test.sh <build-dir> remote    a stranger prints but cannot administer;
#                                     an administrator can, with a password and
#                                     TLS only; range and size checks; the web
#                                     interface in Chromium
#   app_test.sh <build-dir> pictures  PNG and JPEG decoded as a reference
#                                     decodes them, placed as IPP asks; lying and
#                                     broken documents end the job, nothing else
#   app_test.sh <build-dir> delivery  printers that stall, read slowly, close,
#                                     refuse or fail; kill -9 and SIGTERM while
#                                     printing
set -u
BUILD=$(cd "$1" && pwd)
MODE=$2
APP=$BUILD/app/kelvo-printer-app
PAGE=$BUILD/tests/app/kelvoapppage
SRC=$(cd "$(dirname "$0")/../.." && pwd)
ZPLPREVIEW=$BUILD/tools/zplpreview
# The private cupsd and the fake printers (its tables must be global).
# shellcheck source=e2e/lib.sh
. "$SRC/e2e/lib.sh"
e2e_sandbox "$@"
FILTER=$BUILD/filter/rastertokelvozpl
PPDS=$BUILD/ppd/ppd
W=$(mktemp -d /tmp/kelvo-app-test.XXXXXX)
# PAPPL's local socket, for a server not run as root.
export TMPDIR=$W
PID=""
FAILED=0
# Runs a command where the server is: in its namespace for the network modes.
IN_SERVER=()
NETWORK=""
case $MODE in dnssd | remote) NETWORK=1 ;; esac

fail() {
  echo "FAIL: $*" >&2
  FAILED=1
}
# "status" exits 0 with "Server is not running." when none is.
running() { "$APP" status 2>&1 | grep -qv 'not running'; }
cleanup() {
  e2e_stop_all
  if [ -n "$PID" ]; then kill "$PID" 2>/dev/null && wait "$PID" 2>/dev/null; fi
  e2e_netns_down
  # A subcommand that finds no server starts a private one; none may outlive the test.
  pkill -f "^$APP server -o private-server=true" 2>/dev/null || true
  if [ "$FAILED" -ne 0 ] && [ -f "$W/log" ]; then grep -E '^[EW] ' "$W/log" | tail -20 >&2; fi
  if [ -n "${APP_TEST_KEEP:-}" ]; then echo "kept $W" >&2; else rm -rf "$W"; fi
  if ! e2e_host_unchanged; then
    echo "FAIL: the server renamed the host: $(hostname) $(cat /etc/hostname 2>/dev/null)" >&2
    exit 1
  fi
}
trap cleanup EXIT

# The cups mode reads the copies each job was given from the debug log, the
# pictures mode the engine's lines, the status mode the printer's answers.
case $MODE in cups | pictures | status) LOG_LEVEL=debug ;; esac
running && { fail "a kelvo-printer-app server already holds this test's local socket"; exit 1; }
PORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
SERVER_OPTIONS=(-o listen-hostname=127.0.0.1)
if [ -n "$NETWORK" ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "SKIP: the $MODE test makes network namespaces and accounts of its own, which needs root"
    exit 77
  fi
  e2e_require ip dbus-daemon avahi-daemon avahi-browse ippfind ipptool curl openssl
  # An administrator, a clerk who is no administrator, and the PAM service
  # the package installs, all in the sandbox's own /etc.
  e2e_private_accounts "$W/accounts"
  e2e_add_group kelvo-admins
  e2e_add_user kadmin Adm1n-pass kelvo-admins
  e2e_add_user kclerk Cl3rk-pass
  e2e_add_pam_service kelvo-printer-app
  E2E_LIFETIME=280
  e2e_netns_up "$W/ns"
  IN_SERVER=("${E2E_IN_SERVER[@]}")
  SERVER_OPTIONS=(-o auth-service=kelvo-printer-app -o admin-group=kelvo-admins)
fi
# [stall-timeout]: starts the server (again, on the same state and spool).
start_server() {
  "${IN_SERVER[@]}" timeout -k 5 280 "$APP" server "${SERVER_OPTIONS[@]}" -o server-port="$PORT" \
    -o spool-directory="$W/spool" -o state-file="$W/state" -o log-file="$W/log" -o log-level="${LOG_LEVEL:-info}" \
    -o stall-timeout="${1:-30}" >>"$W/server.out" 2>>"$W/server.err" &
  PID=$!
  for _ in $(seq 100); do running && break; sleep 0.2; done
  running || { fail "server did not start"; exit 1; }
}
start_server 3

# name driver [device]: a folder under out/ unless another device is given
add_printer() {
  mkdir -p "$W/out/$1"
  "$APP" add -d "$1" -m "$2" -v "${3:-file://$W/out/$1}" || fail "add $1"
}
if [ "$MODE" = jobs ] || [ "$MODE" = ipptool ] || [ "$MODE" = pictures ]; then
  add_printer label203 kelvo_203
  add_printer label203b kelvo_203
  add_printer label300 kelvo_300
  add_printer tattoo kelvo_tattoo
fi

# ipp_test <name> <operation> <printer-uri|system-uri> [lines...]: one
# request in $W/<name>.test for ipptool; the lines follow the target ($uri).
ipp_test() {
  local name=$1 operation=$2 target=$3
  shift 3
  {
    printf '{\nOPERATION %s\nGROUP operation-attributes-tag\n' "$operation"
    printf 'ATTR charset attributes-charset utf-8\nATTR naturalLanguage attributes-natural-language en\n'
    printf 'ATTR uri %s $uri\n' "$target"
    printf '%s\n' "$@" '}'
  } >"$W/$name.test"
}
ipp_test wait Get-Job-Attributes printer-uri 'ATTR integer job-id $job_id' 'STATUS successful-ok' 'DISPLAY job-state' \
  'DISPLAY job-state-message'
# print.test's values unless given: ipptool ${JOB_DEFAULTS[@]} -d owner=...
JOB_DEFAULTS=(-d owner=anyone -d name=label.png -d format=image/png -d hold=no-hold -d brightness=0)
ipp_test print Print-Job printer-uri 'ATTR name requesting-user-name $owner' 'ATTR name job-name $name' \
  'ATTR keyword job-hold-until $hold' \
  'ATTR mimeMediaType document-format $format' 'GROUP job-attributes-tag' 'ATTR integer kelvo-brightness $brightness' \
  'FILE $filename' 'STATUS successful-ok' 'DISPLAY job-id'

# printer id -> "<job-state> <message>" now
job_state() {
  "${IN_SERVER[@]}" ipptool -d job_id="$2" -tv "ipp://127.0.0.1:$PORT/ipp/print/$1" "$W/wait.test" 2>&1 |
    awk '/job-state \(enum\)/ {s = $NF} /job-state-message/ {sub(/.*= /, ""); m = $0} END {print s, m}'
}
# printer id [seconds] -> "<job-state> <message>" once the job has ended
wait_job() {
  local state="" deadline=$((SECONDS + ${3:-90}))
  while [ "$SECONDS" -lt "$deadline" ]; do
    state=$(job_state "$1" "$2")
    case $state in completed* | aborted* | canceled*) break ;; esac
    sleep 0.2
  done
  echo "$state"
}
# printer file format -> prints the job's id; sent with ipptool, which also
# sends empty documents
ipp_submit() {
  ipptool -tv "${JOB_DEFAULTS[@]}" -d name="$(basename "$2")" -d format="$3" -f "$2" "ipp://127.0.0.1:$PORT/ipp/print/$1" "$W/print.test" 2>&1 |
    sed -n 's/.*job-id (integer) = //p'
}
# printer file [submit options...] -> prints the job's id
submit() {
  local printer=$1 file=$2 id
  shift 2
  id=$("$APP" submit -d "$printer" "$@" "$file" 2>&1) || { echo "submit-failed"; return; }
  echo "${id##*-}"
}
# printer file [submit options...] -> prints "<job-state> <message>" when the job has ended
run_job() {
  local id
  id=$(submit "$@")
  [ "$id" = submit-failed ] && { echo "$id"; return; }
  wait_job "$1" "$id"
}

# The filter's PPD for a printer: the shipped one, with the dialect the app
# speaks to that model and without debug pictures.
filter_ppd() {
  local ppd=$1 dialect=$2
  cat "$PPDS/$ppd"
  printf '*OpenUI *ZplDialect/ZPL Dialect: PickOne\n*DefaultZplDialect: %s\n*ZplDialect %s/%s: ""\n*CloseUI: *ZplDialect\n' \
    "$dialect" "$dialect" "$dialect"
  printf '*OpenUI *DebugImages/Debug Images: Boolean\n*DefaultDebugImages: False\n*DebugImages False/Off: ""\n*CloseUI: *DebugImages\n'
}

jobs_mode() {
  filter_ppd kelvo203.ppd Standard >"$W/f203.ppd"
  filter_ppd kelvo300.ppd Standard >"$W/f300.ppd"
  filter_ppd kelvotat.ppd Kelvo >"$W/ftat.ppd"
  mkdir -p "$W/tmp"

  # Equivalence: the same 8-bit page through the app (PWG raster) and through
  # the filter (CUPS raster) with the matching PPD choices gives the same bytes.
  # The halftone keywords name the kernel that the PPD word runs
  # (jarvis-judice-ninke-diffusion is the PPD's Stucki); the old keywords
  # (jarvis-judice-ninke) are still taken.
  # name printer media dpi ppd copies | app options | filter options
  local n=0 name printer media dpi ppd copies app_opts filter_opts
  while IFS='|' read -r name printer media dpi ppd copies app_opts filter_opts; do
    [ -z "$name" ] && continue
    n=$((n + 1))
    "$PAGE" "$media" "$dpi" 1 "$W/$name.pwg" "$W/$name.1.ras" || fail "$name: page maker"
    "$PAGE" "$media" "$dpi" "$copies" "$W/$name.x.pwg" "$W/$name.ras" || fail "$name: page maker"
    # shellcheck disable=SC2086
    result=$(run_job "$printer" "$W/$name.pwg" -o copies="$copies" $app_opts)
    [ "${result%% *}" = completed ] || fail "$name: job ended '$result'"
    PPD="$W/$ppd" TMPDIR="$W/tmp" "$FILTER" 1 user title "$copies" "$filter_opts" "$W/$name.ras" >"$W/$name.filter" 2>/dev/null ||
      fail "$name: filter failed"
    if cmp -s "$W/out/$printer/$name.pwg.prn" "$W/$name.filter"; then
      echo "same bytes: $name ($(stat -c %s "$W/$name.filter") bytes)"
    else
      fail "$name: the app sent other bytes than the filter ($(stat -c %s "$W/out/$printer/$name.pwg.prn" 2>/dev/null) vs $(stat -c %s "$W/$name.filter"))"
    fi
  done <<'EOF'
plain203|label203|oe_4x6-label_4x6in|203|f203.ppd|1||Darkness=15
stucki203|label203|oe_4x6-label_4x6in|203|f203.ppd|1|-o kelvo-halftone=jarvis-judice-ninke-diffusion -o kelvo-brightness=20 -o print-darkness=20 -o print-speed=10160|HalftoneType=Stucki Brightness=20 Darkness=21 PrintSpeed=4
copies203|label203|om_2x1-label_50.55x25.4mm|203|f203.ppd|3|-o kelvo-halftone=burkes-diffusion -o kelvo-post-action=none|HalftoneType=Ordered Darkness=15 PostAction=None
mirror300|label300|oe_4x3-label_4x3in|300|f300.ppd|1|-o kelvo-mirror=true -o kelvo-negative=true -o kelvo-rotate-180=true -o kelvo-halftone=jarvis-judice-ninke -o print-darkness=-50 -o kelvo-post-action=partial-cut|MirrorImage=True NegativeImage=True Origin=Rotation180 PostAction=PartialCut HalftoneType=JarvisJudiceNinke Darkness=0
tattoo|tattoo|iso_a4_210x297mm|300|ftat.ppd|1||Darkness=15
tattoox8|tattoo|iso_a4_210x297mm|300|ftat.ppd|2|-o kelvo-halftone=tattoo-x8 -o kelvo-brightness=-30 -o kelvo-anti-wrinkle=2|HalftoneType=Tattoo_X8 Brightness=-30 Darkness=15 AntiWrinkle=2
EOF

  # Two printers at once: each prints exactly what it prints alone.
  cp "$W/stucki203.pwg" "$W/both1.pwg"
  cp "$W/plain203.pwg" "$W/both2.pwg"
  run_job label203 "$W/both1.pwg" -o kelvo-halftone=stucki -o kelvo-brightness=20 -o print-darkness=20 \
    -o print-speed=10160 >"$W/both1.state" &
  local first=$!
  run_job label203b "$W/both2.pwg" >"$W/both2.state"
  wait "$first"
  cmp -s "$W/out/label203/both1.pwg.prn" "$W/stucki203.filter" || fail "two at once: label203 differs from its job alone"
  cmp -s "$W/out/label203b/both2.pwg.prn" "$W/plain203.filter" || fail "two at once: label203b differs from its job alone"
  echo "two printers at once: $(cat "$W/both1.state") / $(cat "$W/both2.state")"

  # Copies of a PNG: one graphic, which the printer repeats (^PQ3), as for
  # raster documents (the engine halftones a page in place, once).
  cp "$(dirname "$0")/../../samples/label.png" "$W/copies.png"
  result=$(run_job label203 "$W/copies.png" -o copies=3)
  local graphics pq
  graphics=$(grep -ac '~DGR:CUPS.GRF' "$W/out/label203/copies.png.prn")
  pq=$(grep -ao '\^PQ[0-9]*' "$W/out/label203/copies.png.prn" | sort | uniq -c | tr -s ' ')
  [ "$graphics" = 1 ] && [ "$pq" = " 1 ^PQ3" ] || fail "PNG, 3 copies: $graphics graphics, ^PQ: $pq"
  echo "PNG copies=3: $graphics labels ($pq) [$result]"

  # ZPL passes through untouched, once a copy; its format is found by content.
  printf '^XA\n^FO50,50^A0N,40,40^FDKelvo^FS\n^XZ\n' >"$W/hello.zpl"
  result=$(run_job label300 "$W/hello.zpl" -o copies=2)
  cat "$W/hello.zpl" "$W/hello.zpl" | cmp -s - "$W/out/label300/hello.zpl.prn" || fail "ZPL passthrough: $result"
  echo "ZPL passthrough copies=2: [$result]"

  # A raster document cut short ends the job with a message; the next job prints.
  head -c 3000 "$W/plain203.pwg" >"$W/cut.pwg"
  result=$(run_job label203 "$W/cut.pwg")
  [ "${result%% *}" = aborted ] || fail "raster cut short: $result"
  cp "$W/plain203.pwg" "$W/after.pwg"
  result=$(run_job label203 "$W/after.pwg")
  cmp -s "$W/out/label203/after.pwg.prn" "$W/plain203.filter" || fail "job after a raster cut short: $result"

  # A page wider than the head is refused.
  "$PAGE" oe_6x4-label_6x4in 203 1 "$W/wide.pwg" "$W/wide.ras" || fail "page maker"
  result=$(run_job label203 "$W/wide.pwg")
  [ "${result%% *}" != completed ] || fail "a 6 inch wide page was printed"
  echo "6 inch wide page: $result"
  [ "$n" -eq 6 ] || fail "only $n equivalence cases ran"
  # Label sizes and media tracking as a client's media-col gives them: the
  # page width (^PW), length (^LL) and tracking (^MN) the printer gets, a
  # custom size within the head among them.
  ipp_test media-col Print-Job printer-uri 'ATTR name requesting-user-name test' 'ATTR name job-name $name' \
    'ATTR mimeMediaType document-format image/png' 'GROUP job-attributes-tag' 'ATTR collection media-col {' \
    '  MEMBER collection media-size {' '    MEMBER integer x-dimension $x' '    MEMBER integer y-dimension $y' '  }' \
    '  MEMBER keyword media-tracking $tracking' '}' 'FILE $filename' 'STATUS successful-ok'
  local x y tracking want got m=0
  while IFS='|' read -r printer x y tracking want; do
    [ -z "$printer" ] && continue
    m=$((m + 1))
    cp "$SRC/samples/label.png" "$W/media$m.png"
    ipptool -d name="media$m.png" -d x="$x" -d y="$y" -d tracking="$tracking" -f "$W/media$m.png" \
      "ipp://127.0.0.1:$PORT/ipp/print/$printer" "$W/media-col.test" >/dev/null || fail "media-col $x x $y"
    e2e_poll 30 test -s "$W/out/$printer/media$m.png.prn" || { fail "media-col $x x $y: nothing printed"; continue; }
    sleep 0.5
    got=$(grep -ao '\^PW[0-9]*\|\^LL[0-9]*\|\^MN.' "$W/out/$printer/media$m.png.prn" | paste -sd' ')
    [ "$got" = "$want" ] || fail "$printer $x x $y $tracking: $got, expected $want"
    echo "$printer media-col $x x $y, $tracking: $got"
  done <<'EOF'
label203|5588|2794|mark|^PW446 ^LL223 ^MNM
label203|4004|3003|gap|^PW320 ^LL240 ^MNY
label300|10160|15240|continuous|^PW1200 ^LL1800 ^MNN
EOF
  [ "$m" -eq 3 ] || fail "only $m media-col cases ran"
}

ipptool_mode() {
  local printer ppd file out speeds
  # "all" stands for the attributes libcups knows, which print-speed is not.
  ipp_test speed Get-Printer-Attributes printer-uri 'ATTR keyword requested-attributes print-speed-supported' \
    'STATUS successful-ok'
  ipp_test media Get-Printer-Attributes printer-uri 'ATTR keyword requested-attributes media-size-supported' \
    'STATUS successful-ok'
  for printer in label203:kelvo203 label300:kelvo300 tattoo:kelvotat; do
    ppd=${printer#*:}
    printer=${printer%:*}
    # print-speed-supported spans the PPD's PrintSpeed choices (inches a
    # second; IPP counts hundredths of a millimetre).
    speeds=$(sed -n 's/^\*PrintSpeed \([0-9]*\)\/.*/\1/p' "$PPDS/$ppd.ppd" | sort -n | sed -n '1p;$p' |
      awk '{printf "%s%d", (NR > 1 ? "-" : ""), $1 * 2540}')
    out=$(ipptool -tv "ipp://127.0.0.1:$PORT/ipp/print/$printer" "$W/speed.test" 2>&1 |
      sed -n 's/.*print-speed-supported (rangeOfInteger) = //p')
    [ -n "$speeds" ] && [ "$out" = "$speeds" ] || fail "$printer: print-speed-supported '$out', its PPD's speeds '$speeds'"
    echo "$printer print-speed-supported: $out"
    # Every size of the printer's PPD, in the same dots: the width a whole
    # multiple of 4 dots at most the PPD's, the length within a row.
    if [ "$printer" != tattoo ]; then
      local dpi=${printer#label} sizes matched
      sizes=$(ipptool -tv "ipp://127.0.0.1:$PORT/ipp/print/$printer" "$W/media.test" 2>&1 |
        sed -n 's/.*media-size-supported ([^)]*) = //p' | grep -o '{x-dimension=[0-9-]* y-dimension=[0-9-]*}')
      matched=$(sed -n 's/^\*PaperDimension \([^/]*\)\/[^:]*: "\([0-9.]*\) \([0-9.]*\)"/\1 \2 \3/p' "$PPDS/$ppd.ppd" |
        awk -v dpi="$dpi" -v sizes="$sizes" '
          BEGIN { n = split(sizes, s, "\n")
                  for (i = 1; i <= n; i++) { split(s[i], f, /[=} ]/); if (f[2] !~ /-/) { w[i] = int(f[2] * dpi / 2540); l[i] = int(f[4] * dpi / 2540) } } }
          { pw = int(int($2 * dpi / 72 + 0.5) / 4) * 4; pl = int($3 * dpi / 72 + 0.5); found = 0
            for (i in w) if (w[i] == pw && l[i] - pl <= 1 && pl - l[i] <= 1 && !(i in used)) { used[i] = 1; found = 1; break }
            if (found) m++; else print "missing " $1 > "/dev/stderr" }
          END { print m + 0 }')
      echo "$printer: $matched of its PPD's sizes offered; custom sizes $(grep 'x-dimension=[0-9]*-' <<<"$sizes")"
      [ "$matched" -ge 40 ] && [ "$matched" = "$(grep -c '^\*PaperDimension ' "$PPDS/$ppd.ppd")" ] &&
        [ "$(grep -c 'x-dimension=[0-9]*-' <<<"$sizes")" = 1 ] ||
        fail "$printer: $matched PPD sizes offered of $(grep -c '^\*PaperDimension ' "$PPDS/$ppd.ppd"), custom '$sizes'"
    fi
    # -I goes on after a failure; -f gives the print tests a document.
    # printer-up-time counts whole seconds and must be above 0.
    sleep 1
    for file in ipp-everywhere.test ipp-2.0.test; do
      out=$(cd /usr/share/cups/ipptool &&
        timeout 120 ipptool -t -I -f "$SRC/samples/label.png" "ipp://127.0.0.1:$PORT/ipp/print/$printer" "$file" 2>&1)
      echo "$printer $file: $(grep -c '\[PASS\]' <<<"$out") passed, $(grep -c '\[SKIP\]' <<<"$out") skipped, $(grep -c '\[FAIL\]' <<<"$out") failed"
      grep '\[SKIP\]' <<<"$out" | sed 's/ *\[SKIP\]//; s/^ */    skipped: /' | sort -u
      # Tests whose sample documents Debian does not ship do not run.
      sed -n 's/^ipptool: Filename "\([^"]*\)".* of "\(.*\)" cannot be read\./    not run (no \1): the rest of \2/p' <<<"$out"
      # Known gaps: PAPPL 1.3 has no "overrides", and a host can make a ZPL
      # printer neither show a message nor flash or sound, so its
      # identify-actions say "none". To a client on the loopback PAPPL 1.3
      # offers no ipps URI (no certificate names "localhost") but still lists
      # tls in uri-security-supported; clients on other machines get both
      # URIs (the dnssd mode checks that).
      local unexpected
      unexpected=$(awk '/\[FAIL\]/ {t = $0} /EXPECTED:/ && t != "" {print t " :: " $0}' <<<"$out" |
        grep -v -E 'PWG 5100.14 section 5.1/5.2 .*EXPECTED: (overrides-supported$|identify-actions-(supported|default) WITH-VALUE)' |
        grep -v -E 'RFC 8011 section 4.2.5: Get-Printer-Attributes Operation \(default\).*EXPECTED: (printer-uri-supported \(1 values\) SAME-COUNT-AS uri-security-supported|uri-security-supported \(2 values\) SAME-COUNT-AS uri-authentication-supported \(1 values\))')
      awk '/\[FAIL\]/ {t = $0} /EXPECTED:/ && t != "" {print "    failed: " $0}' <<<"$out" | sed 's/ *EXPECTED: / /' | sort -u
      if [ -n "$unexpected" ] || { grep -q '\[FAIL\]' <<<"$out" && ! grep -q 'EXPECTED' <<<"$out"; }; then
        fail "$printer $file: ${unexpected:-no details}"
        grep -A8 '\[FAIL\]' <<<"$out" >&2
      fi
    done
  done
}

# What the application reports of a printer: "<printer-state-reasons, sorted>
# <printer-supply levels, comma separated>".
ipp_test state Get-Printer-Attributes printer-uri \
  'ATTR keyword requested-attributes printer-state-reasons,printer-supply,printer-supply-description' \
  'STATUS successful-ok' 'EXPECT printer-supply SAME-COUNT-AS printer-supply-description' \
  'DISPLAY printer-state-reasons' 'DISPLAY printer-supply'
printer_state() {
  local out
  out=$(timeout 10 ipptool -tv "ipp://127.0.0.1:$PORT/ipp/print/$1" "$W/state.test" 2>&1)
  echo "$(sed -n 's/.*printer-state-reasons ([^)]*) = //p' <<<"$out" | tr ',' '\n' | sort | paste -sd,)" \
    "$(grep -o 'level=-\?[0-9]*' <<<"$out" | cut -d= -f2 | paste -sd,)"
}

# printer fake-state "reasons levels" [words [seconds]]: puts the fake
# printer in a state and waits until the application reports it and, given
# `words`, its log names the state in them; prints the wait.
expect_state() {
  local printer=$1 state=$2 want=$3 words=${4:-} bound=${5:-10} got="" said="" start
  echo "$state" >"$W/e2e/out/$printer.state"
  start=$(date +%s.%N)
  while :; do
    got=$(printer_state "$printer")
    [ -n "$words" ] && said=$(grep "\[Printer $printer\] Printer status: " "$W/log" | tail -1 | sed 's/.*Printer status: //')
    [ "$got" = "$want" ] && [ "$said" = "$words" ] && break
    if awk "BEGIN {exit !($(date +%s.%N) - $start > $bound)}"; then
      fail "$printer in state $state: the application says '$got' ('$said') after $bound s, expected '$want' ('$words')"
      return 1
    fi
    sleep 0.3
  done
  printf '%s %s: %s after %.1f s\n' "$printer" "$state" "$got${words:+ ($words)}" "$(awk "BEGIN {print $(date +%s.%N) - $start}")"
}

# printer file: prints the seconds from submitting the job to the fake
# printer's last byte of it.
timed_job() {
  local printer=$1 file=$2 before start
  before=$(find "$W/e2e/out/$printer" -name 'job-*.zpl' | wc -l)
  start=$(date +%s.%N)
  "$APP" submit -d "$printer" "$file" >/dev/null || { echo 999; return; }
  e2e_poll 60 test -e "$W/e2e/out/$printer/job-$((before + 1)).zpl" || { echo 999; return; }
  awk "BEGIN {print $(stat -c %.9Y "$W/e2e/out/$printer/job-$((before + 1)).zpl") - $start}"
}

# The printer's state as a fake printer reports it, read with ipptool: each
# condition appears and clears within a bound; answers that are no answers
# change nothing but the supplies' levels; a job waits while the labels are
# out; a printer that never answers delays no job.
status_mode() {
  E2E_LIFETIME=240
  local fake=$BUILD/tests/e2e/fakezplprinter
  [ -x "$fake" ] || { fail "build fakezplprinter first"; return; }
  e2e_init_scheduler "$W/e2e" "$fake"
  e2e_start_printer label
  add_printer label kelvo_203 "socket://127.0.0.1:${E2E_PORT[label]}"
  # Thermal-transfer media: the ribbon is a supply as well.
  ipp_test ribbon Set-Printer-Attributes printer-uri 'GROUP printer-attributes-tag' 'ATTR collection media-col-ready {' \
    '  MEMBER collection media-size {' '    MEMBER integer x-dimension 10160' '    MEMBER integer y-dimension 15240' \
    '  }' '  MEMBER keyword media-source main-roll' '  MEMBER keyword media-type thermal-transfer' \
    '  MEMBER keyword media-tracking gap' '}' 'STATUS successful-ok'
  ipptool -t "ipp://127.0.0.1:$PORT/ipp/print/label" "$W/ribbon.test" >/dev/null || fail "media-col-ready"

  # Levels: 0 empty, 10 low, -3 some left, -2 unknown (labels, ribbon).
  local state reasons levels words n=0
  while IFS='|' read -r state reasons levels words; do
    [ -z "$state" ] && continue
    n=$((n + 1))
    expect_state label "$state" "$reasons $levels" "$words"
  done <<'EOF'
ready|none|-3,-3|ready
media-out|media-empty|0,-3|Out of labels
ready|none|-3,-3|ready
media-low|media-low|10,-3|Labels nearly out
ribbon-out|marker-supply-empty|-3,0|Out of ribbon
head-open|cover-open|-3,-3|Print head open
media-out-and-head-open|cover-open,media-empty|0,-3|Out of labels; Print head open
jam|media-jam|-3,-3|Paper jam
cutter|other|-3,-3|Cutter fault
head-hot|other|-3,-3|Print head too hot
paused|offline|-3,-3|Paused at the printer
ready|none|-3,-3|ready
EOF
  [ "$n" -eq 12 ] || fail "only $n states ran"

  # An answer that is no answer, once: the reasons stay, the levels are
  # unknown, the log says what came.
  local said
  for state in garbage:"no status answer" partial:"part of an answer" silent:"no answer" late:"no answer"; do
    expect_state label "${state%%:*}" "none -2,-2" || continue
    said=$(grep "\[Printer label\] Status query:" "$W/log" | tail -1)
    [ "${said#*Status query: }" = "${state#*:}" ] || fail "${state%%:*}: the log says '$said'"
    expect_state label ready "none -3,-3" ready
  done

  # A job while the labels are out waits, with media-needed, and prints
  # once they are back.
  expect_state label media-out "media-empty 0,-3" "Out of labels"
  cp "$SRC/samples/label.png" "$W/wait.png"
  local before
  before=$(find "$W/e2e/out/label" -name 'job-*.zpl' | wc -l)
  "$APP" submit -d label "$W/wait.png" >/dev/null || fail "submit while out of labels"
  e2e_poll 20 eval '[ "$(printer_state label)" = "media-empty,media-needed 0,-3" ]' ||
    fail "no media-needed while a job waits: $(printer_state label)"
  sleep 1
  [ ! -e "$W/e2e/out/label/job-$((before + 1)).zpl" ] || fail "the job printed while the labels were out"
  expect_state label ready "none -3,-3" ready 15
  e2e_poll 20 test -e "$W/e2e/out/label/job-$((before + 1)).zpl" || fail "the waiting job did not print"
  echo "a job waited with media-needed while the labels were out and printed when they were back"

  # Two questions unanswered by a printer that answered before: "other";
  # then it is asked only every few minutes.
  expect_state label silent "other -2,-2" "The printer stopped answering; its labels, ribbon or print head may need attention" 15
  local asked
  asked=$(grep -c "\[Printer label\] Status query:" "$W/log")
  for _ in $(seq 15); do printer_state label >/dev/null; sleep 0.4; done
  [ "$(grep -c "\[Printer label\] Status query:" "$W/log")" -eq "$asked" ] ||
    fail "a printer that left two questions unanswered was asked again within seconds"

  # A printer that never answers delays no job by more than a question's
  # wait, beside one that answers. Jobs start while the application still
  # asks it (its first two questions).
  e2e_start_printer mute
  echo silent >"$W/e2e/out/mute.state"
  e2e_start_printer ready
  add_printer mute kelvo_203 "socket://127.0.0.1:${E2E_PORT[mute]}"
  add_printer ready kelvo_203 "socket://127.0.0.1:${E2E_PORT[ready]}"
  local i mute=() answering=()
  for i in 1 2 3 4; do
    cp "$SRC/samples/label.png" "$W/t$i.png"
    mute+=("$(timed_job mute "$W/t$i.png")")
    answering+=("$(timed_job ready "$W/t$i.png")")
    printer_state mute >/dev/null
    printer_state ready >/dev/null
  done
  local mm am
  mm=$(printf '%s\n' "${mute[@]}" | sort -n | sed -n 2p)
  am=$(printf '%s\n' "${answering[@]}" | sort -n | sed -n 2p)
  echo "seconds a job (never-answering printer): ${mute[*]}; (answering printer): ${answering[*]}"
  awk "BEGIN {exit !($mm - $am < 0.3 + 0.5)}" ||
    fail "jobs to a printer that never answers take $mm s, to one that answers $am s"
  grep -q "\[Printer mute\] Status query: no answer" "$W/log" || fail "the never-answering printer was not asked"

  # An older printer that answers ~HS only.
  e2e_start_printer old
  echo hs-only-media-out >"$W/e2e/out/old.state"
  add_printer old kelvo_203 "socket://127.0.0.1:${E2E_PORT[old]}"
  expect_state old hs-only-media-out "media-empty 0" "Out of labels" 15
  expect_state old hs-only-ready "none -3" ready
}

# Decodes a job: "<graphics> <dots of each, comma separated> <^PQ counts>".
decode() {
  local report
  mkdir -p "$W/preview"
  report=$("$ZPLPREVIEW" -o "$W/preview/$(basename "$1")" "$1") || { echo "0 - -"; return; }
  echo "$(grep -c '^[^ ]' <<<"$report")" \
    "$(awk '/^[^ ]/ {printf "%s%s", (n++ ? "," : ""), $6}' <<<"$report")" \
    "$(grep -ao '\^PQ[0-9]*' "$1" | tr '\n' ',' | sed 's/,$//')"
}

cups_mode() {
  E2E_LIFETIME=240
  local fake=$BUILD/tests/e2e/fakezplprinter
  [ -x "$fake" ] && [ -x "$ZPLPREVIEW" ] || { fail "build fakezplprinter and zplpreview first"; return; }
  e2e_require cupsd lpadmin lp lpstat gs
  chmod 755 "$W"  # cupsd's backends run as its own user
  e2e_init_scheduler "$W/cups" "$fake"
  e2e_start_printer label
  add_printer label203 kelvo_203 "socket://127.0.0.1:${E2E_PORT[label]}"
  add_printer ref203 kelvo_203
  e2e_start_cupsd
  lpadmin -p q -E -v "ipp://127.0.0.1:$PORT/ipp/print/label203" -m everywhere 2>"$W/lpadmin.err" ||
    { fail "lpadmin -m everywhere: $(cat "$W/lpadmin.err")"; return; }
  # CUPS 2.4 names the sizes of a printer whose media are all borderless
  # "4x6.Borderless" but makes the plain "4x6" the default, which the queue
  # lacks; it then prints on Letter, wider than the head. cupsd writes the
  # PPD after lpadmin returns.
  local ppd=$W/cups/conf/ppd/q.ppd
  e2e_poll 30 grep -q '^\*PageSize 4x6.Borderless:' "$ppd" || { fail "cupsd made no PPD with 4x6.Borderless"; return; }
  lpadmin -p q -o PageSize=4x6.Borderless || fail "lpadmin PageSize"
  grep -q '^\*DefaultPageSize: 4x6.Borderless$' "$ppd" || fail "the queue's default size: $(grep DefaultPageSize "$ppd")"

  # name file [lp options...]: prints, waits, sets GOT to "<graphics> <dots> <^PQ>"
  # and JOB to the bytes the printer received.
  local GOT JOB
  cups_print() {
    local name=$1 file=$2 id
    shift 2
    id=$(e2e_print q "$file" "$@")
    e2e_wait_job "$id" 60
    e2e_take_output label
    JOB=$W/$name.zpl
    mv "$E2E_OUTPUT" "$JOB"
    GOT=$(decode "$JOB")
    echo "$name: $GOT"
  }
  local pdf png
  cups_print pdf "$SRC/samples/label.pdf"
  pdf=$GOT
  cups_print png "$SRC/samples/label.png"
  png=$GOT
  # The PDF is the PNG's picture on a 4x6 inch page: Ghostscript's 203 dpi
  # page is the PNG's own pixels, and both print the same dots.
  read -r n dots pq <<<"$pdf"
  [ "$n" = 1 ] && [ "$pq" = "^PQ1" ] || fail "PDF: $pdf"
  [ "$pdf" = "$png" ] || fail "the PDF printed '$pdf', its PNG '$png'"

  # Copies: CUPS's PDF chain makes them as pages (the queue asks for manual
  # copies), each label once.
  cups_print pdf-copies "$SRC/samples/label.pdf" -n 2
  [ "$GOT" = "2 $dots,$dots ^PQ1,^PQ1" ] || fail "PDF -n 2: $GOT"
  # A PNG goes to the app as it is, and the app prints it once for every
  # copy it is asked for. CUPS 2.4's ipp backend asks for none here: it
  # leaves copies to the filters even when no filter runs.
  cups_print png-copies "$SRC/samples/label.png" -n 2
  local asked
  asked=$(sed -n 's/.*\[Job \([0-9]*\)\] halftone .*, copies \([0-9]*\)$/\1 \2/p' "$W/log" | tail -1)
  read -r n _ pq <<<"$GOT"
  [ -n "$asked" ] && [ "$n $pq" = "1 ^PQ${asked#* }" ] || fail "PNG -n 2: $GOT, the app was asked for ${asked#* } copies"
  echo "PNG -n 2: the app was asked for ${asked#* } copies and printed $pq"

  # Halftone: cupsd keeps vendor choices of an everywhere queue to itself
  # (the ipp backend sends only the attributes its PPD knows), so the
  # choice is the printer's default, set through the app. The PNG arrives
  # unchanged, so the job prints what the app's own submit prints with the
  # choice given.
  "$APP" modify -d label203 -o kelvo-halftone-default=stucki || fail "modify kelvo-halftone-default"
  cups_print png-stucki "$SRC/samples/label.png" -o kelvo-halftone=stucki
  cp "$SRC/samples/label.png" "$W/ref.png"
  result=$(run_job ref203 "$W/ref.png" -o kelvo-halftone=stucki)
  cmp -s "$JOB" "$W/out/ref203/ref.png.prn" || fail "stucki default through CUPS differs from a stucki job: $result"
  read -r n stucki _ <<<"$GOT"
  [ "$n" = 1 ] && [ "$stucki" != "$dots" ] || fail "stucki printed '$GOT', the default '$png'"
  echo "halftone default none: $dots dots; stucki: $stucki dots"

  # Out of labels: the queue says so while its job waits in the
  # application (CUPS's ipp backend reads printer-state-reasons during a
  # job), and prints it once the labels are back.
  echo media-out >"$W/cups/out/label.state"
  e2e_poll 20 eval '[ "$(printer_state label203)" = "media-empty 0" ]' ||
    { fail "the application did not see the labels out: $(printer_state label203)"; return; }
  local id alerts
  id=$(e2e_print q "$SRC/samples/label.png")
  e2e_poll 40 eval 'lpstat -l -p q | grep -q "media-empty"' || fail "lpstat -l -p q never said media-empty"
  alerts=$(lpstat -l -p q | grep -i "alerts\|media" | tr -s ' \t' ' ' | paste -sd'|')
  echo "lpstat -l -p while the labels are out: $alerts"
  echo ready >"$W/cups/out/label.state"
  e2e_wait_job "$id" 60
  e2e_take_output label
  # The queue's default halftone is Stucki by now.
  [ "$(decode "$E2E_OUTPUT")" = "1 $stucki ^PQ1" ] || fail "the job that waited for labels printed $(decode "$E2E_OUTPUT")"
}

# Resident memory of the server process (the child of timeout), in kB.
server_rss() {
  awk '/^VmRSS:/ {print $2}' "/proc/$(pgrep -P "$PID" | head -1)/status"
}

# Fifty jobs from two clients at once, the app's submit and ipptool, to one
# printer ("one") or each to its own ("two").
burst_mode() {
  local label=$SRC/samples/label.png
  local pa=burst pb=burst
  [ "$1" = two ] && pb=burstb
  add_printer burst kelvo_203
  [ "$pb" = burst ] || add_printer "$pb" kelvo_203
  # The first jobs warm the server up: its memory after them is the base.
  local i result
  for i in 1 2 3 4 5; do
    cp "$label" "$W/warm$i.png"
    result=$(run_job burst "$W/warm$i.png")
    [ "${result%% *}" = completed ] || fail "warm-up job $i: $result"
  done
  local before
  before=$(server_rss)
  # 25 jobs from each client, as fast as the server takes them. Both reach
  # the server by its address: were it gone, the app's client would start
  # a server of its own on the local socket.
  for i in $(seq 25); do cp "$label" "$W/a$i.png"; cp "$label" "$W/b$i.png"; done
  local start=$SECONDS
  (for i in $(seq 25); do
    timeout 30 "$APP" submit -u "ipp://127.0.0.1:$PORT/ipp/print/$pa" "$W/a$i.png" >/dev/null || echo "submit a$i failed"
  done) >"$W/a.err" 2>&1 &
  local a=$!
  (for i in $(seq 25); do
    timeout 30 ipptool "${JOB_DEFAULTS[@]}" -d name="b$i.png" -f "$W/b$i.png" "ipp://127.0.0.1:$PORT/ipp/print/$pb" "$W/print.test" >/dev/null ||
      echo "ipptool b$i failed"
  done) >"$W/b.err" 2>&1 &
  local b=$!
  wait "$a" "$b"
  if [ -s "$W/a.err" ] || [ -s "$W/b.err" ]; then fail "submissions refused: $(sort -u "$W/a.err" "$W/b.err" | head -5)"; fi
  # All 55 labels arrive, each the same bytes as the first.
  local deadline=$((SECONDS + 100)) done=0
  while [ "$SECONDS" -lt "$deadline" ] && kill -0 "$PID" 2>/dev/null; do
    done=$(find "$W/out/burst" "$W/out/$pb" -name '*.prn' | sort -u | wc -l)
    [ "$done" -ge 55 ] && break
    sleep 0.2
  done
  local seconds=$((SECONDS - start))
  done=$(find "$W/out/burst" "$W/out/$pb" -name '*.prn' | sort -u | wc -l)
  local differ=0 f
  for f in $(find "$W/out/burst" "$W/out/$pb" -name '*.prn' | sort -u); do
    cmp -s "$f" "$W/out/burst/warm1.png.prn" || differ=$((differ + 1))
  done
  [ "$done" -eq 55 ] && [ "$differ" -eq 0 ] || fail "burst: $done of 55 labels, $differ differ from the first"
  [ -n "$(pgrep -P "$PID")" ] || { fail "the server is gone after the burst"; return; }
  local after
  after=$(server_rss)
  echo "burst ($1 printer(s)): 50 jobs from two clients in ${seconds} s, $done labels alike;" \
    "server RSS after 5 jobs ${before} kB, after the burst ${after} kB"
  [ "$after" -lt $((2 * before)) ] || fail "the server's memory grew from $before kB to $after kB"
}

# The Kelvo choices in words on the printing defaults pages (a label printer
# whose default halftone was saved under its old keyword, and the stencil
# printer), and the stencil printer's default halftone changed with a real
# browser; the next job prints with it.
web_mode() {
  if ! /usr/bin/python3 -c 'import selenium' 2>/dev/null || [ ! -x /usr/bin/chromium ] || [ ! -x /usr/bin/chromedriver ]; then
    echo "SKIP: needs the Debian packages chromium, chromium-driver and python3-selenium"
    exit 77
  fi
  local stencil=$SRC/samples/stencil.png result
  add_printer label kelvo_300
  add_printer tattoo kelvo_tattoo
  add_printer tattooref kelvo_tattoo
  # The screenshots stay in the build tree for a person to look at.
  local shots=$BUILD/tests/app
  rm -f "$shots"/web-defaults*.png
  "$APP" modify -d label -o kelvo-halftone-default=stucki || fail "modify kelvo-halftone-default"
  timeout 90 /usr/bin/python3 "$SRC/tests/app/web_defaults.py" "http://127.0.0.1:$PORT" label - \
    "$shots/web-defaults-label.png" jarvis-judice-ninke-diffusion || fail "the label printer's page is not in words"
  cp "$stencil" "$W/before.png"
  result=$(run_job tattoo "$W/before.png")
  [ "${result%% *}" = completed ] || fail "job before: $result"
  timeout 90 /usr/bin/python3 "$SRC/tests/app/web_defaults.py" "http://127.0.0.1:$PORT" tattoo \
    jarvis-judice-ninke-diffusion "$shots/web-defaults.png" tattoo || fail "the browser did not save the default"
  local shot
  for shot in web-defaults-label.png web-defaults.png; do
    [ -s "$shots/$shot" ] && echo "screenshot: $shots/$shot" || fail "no screenshot $shot"
  done
  # No avahi-daemon here: the Add Printer page says so instead of ending
  # the server in an assertion inside avahi.
  curl -s "http://127.0.0.1:$PORT/addprinter" | grep -q 'Network discovery is unavailable' && running ||
    fail "/addprinter without avahi-daemon"
  cp "$stencil" "$W/after.png"
  result=$(run_job tattoo "$W/after.png")
  [ "${result%% *}" = completed ] || fail "job after: $result"
  # The same picture with the choice sent along under its old keyword: the
  # same bytes.
  cp "$stencil" "$W/ref.png"
  result=$(run_job tattooref "$W/ref.png" -o kelvo-halftone=stucki)
  cmp -s "$W/out/tattoo/after.png.prn" "$W/out/tattooref/ref.png.prn" ||
    fail "the job after the change is not printed with Jarvis, Judice and Ninke"
  local before after
  before=$(decode "$W/out/tattoo/before.png.prn")
  after=$(decode "$W/out/tattoo/after.png.prn")
  [ "${before#* }" != "${after#* }" ] || fail "the same dots before and after the change: $before"
  echo "stencil printer, default halftone tattoo: $before; after the browser chose Jarvis, Judice and Ninke: $after"
}

# The stencil studio in a real browser (tests/app/studio.py); its
# screenshots and the pictures it compared stay in the build tree.
studio_mode() {
  if ! /usr/bin/python3 -c 'import selenium' 2>/dev/null || [ ! -x /usr/bin/chromium ] || [ ! -x /usr/bin/chromedriver ]; then
    echo "SKIP: needs the Debian packages chromium, chromium-driver and python3-selenium"
    exit 77
  fi
  add_printer tattoo kelvo_tattoo
  printf '{\nOPERATION Get-Printer-Attributes\nGROUP operation-attributes-tag\nATTR charset attributes-charset utf-8\nATTR naturalLanguage attributes-natural-language en\nATTR uri printer-uri $uri\nATTR keyword requested-attributes all\nSTATUS successful-ok\n}\n' >"$W/all.test"
  settings() {
    ipptool -tv "ipp://127.0.0.1:$PORT/ipp/print/tattoo" "$W/all.test" | grep -E -- '-(default|configured|ready) \(' | sort
  }
  settings >"$W/settings.before"
  local out=$BUILD/tests/app/studio
  rm -rf "$out"
  mkdir -p "$out"
  timeout 240 /usr/bin/python3 -u "$SRC/tests/app/studio.py" "http://127.0.0.1:$PORT" tattoo "$BUILD" "$W/out/tattoo" \
    "$out" "$SRC/samples/stencil.png" || fail "the studio in the browser"
  echo "screenshots: $(ls "$out"/studio-*-{preview,one-dot-one-pixel,message}.png 2>/dev/null | tr '\n' ' ')"
  # The studio changed no setting of the printer.
  settings >"$W/settings.after"
  [ -s "$W/settings.before" ] && cmp -s "$W/settings.before" "$W/settings.after" ||
    fail "the printer's settings changed: $(diff "$W/settings.before" "$W/settings.after" | head -5)"
}


# --- The network modes: the client's side is the other namespace. ---

# ask <uri> <test> [ipptool options]: one request from the client's side;
# prints its status-code.
ask() {
  local uri=$1 test=$2
  shift 2
  e2e_in client timeout 60 ipptool -tv "$@" "$uri" "$W/$test.test" 2>&1 |
    sed -n 's/^ *status-code = \([a-z-]*\).*/\1/p' | head -1
}

# attribute <uri> <name>: a printer's attribute as the client reads it.
attribute() {
  ipp_test attribute Get-Printer-Attributes printer-uri "ATTR keyword requested-attributes $2"
  e2e_in client timeout 30 ipptool -tv "$1" "$W/attribute.test" 2>&1 | sed -n "s/^ *$2 ([^)]*) = //p" | head -1
}

# The record of service <name> of <type> as the client resolves it:
# =;interface;protocol;name;type;domain;host;address;port;"key=value" ...
service_record() {
  e2e_in client timeout 20 avahi-browse -rtpk "$1" 2>/dev/null | grep "^=;[^;]*;IPv4;$2;" | head -1
}
txt() { grep -o "\"$2=[^\"]*\"" <<<"$1" | head -1 | sed 's/^"[^=]*=//; s/"$//'; }

# Waits up to 10 s for the printer's _ipp._tcp record to be there ("found")
# or gone ("gone"); sets RECORD and says how long it took.
RECORD=""
wait_record() {
  local printer=$1 want=$2 start=$SECONDS
  while :; do
    RECORD=$(service_record _ipp._tcp "$printer")
    if { [ "$want" = found ] && [ -n "$RECORD" ]; } || { [ "$want" = gone ] && [ -z "$RECORD" ]; }; then
      echo "$printer $want after $((SECONDS - start)) s"
      return 0
    fi
    [ $((SECONDS - start)) -ge 10 ] && { fail "$printer not $want within 10 s"; return 1; }
    sleep 0.5
  done
}

# A job file's arrival in out/<printer>/, for up to 60 s.
wait_output() { e2e_poll 60 test -s "$W/out/$1/$2.prn"; }

dnssd_mode() {
  local host printer record address port rp uri attributes value
  host=$(hostname)
  # Started as the README says, with auth-service and so listening on every
  # address: the machine keeps its name (the sandbox's copies would show it).
  [ "$(e2e_in server hostname)" = "$host" ] && e2e_host_unchanged ||
    fail "the host name changed at start-up: $(e2e_in server hostname), /etc/hostname $(cat /etc/hostname)"
  add_printer label203 kelvo_203
  add_printer tattoo kelvo_tattoo
  for printer in label203 tattoo; do
    wait_record "$printer" found || continue
    record=$RECORD
    IFS=';' read -r _ _ _ _ _ _ value address port _ <<<"$record"
    [ "$value" = "$host.local" ] || fail "$printer: advertised on host $value, the machine is $host"
    rp=$(txt "$record" rp)
    uri="ipp://$address:$port/$rp"
    [ "$address:$port/$rp" = "$E2E_SERVER_ADDR:$PORT/ipp/print/$printer" ] || fail "$printer: advertised as $uri"
    ipp_test attrs Get-Printer-Attributes printer-uri \
      'ATTR keyword requested-attributes urf-supported,document-format-supported,printer-uuid,printer-uri-supported,uri-security-supported,uri-authentication-supported'
    attributes=$(e2e_in client timeout 30 ipptool -tv "$uri" "$W/attrs.test" 2>&1)
    # From another machine: an ipp and an ipps URI, each with its security
    # and authentication.
    value=$(sed -n 's/^ *printer-uri-supported ([^)]*) = //p' <<<"$attributes")
    [ "$(tr , '\n' <<<"$value" | grep -c .)" = 2 ] &&
      [ "$(sed -n 's/^ *uri-security-supported ([^)]*) = //p' <<<"$attributes")" = none,tls ] &&
      [ "$(sed -n 's/^ *uri-authentication-supported ([^)]*) = //p' <<<"$attributes" | tr , '\n' | grep -c .)" = 2 ] ||
      fail "$printer: printer-uri-supported $value, uri-security-supported as in: $attributes"
    value=$(sed -n 's/^ *urf-supported ([^)]*) = //p' <<<"$attributes")
    [ -n "$value" ] && [ "$(txt "$record" URF)" = "$value" ] || fail "$printer: URF $(txt "$record" URF), urf-supported $value"
    value=$(sed -n 's/^ *document-format-supported ([^)]*) = //p' <<<"$attributes")
    for format in $(txt "$record" pdl | tr , ' '); do
      tr , '\n' <<<"$value" | grep -qx "$format" || fail "$printer: pdl has $format, document-format-supported $value"
    done
    value=$(sed -n 's/^ *printer-uuid ([^)]*) = //p' <<<"$attributes")
    [ "urn:uuid:$(txt "$record" UUID)" = "$value" ] || fail "$printer: UUID $(txt "$record" UUID), printer-uuid $value"
    # TLS in the record exactly when ipps answers, and then _ipps._tcp too.
    local tls ipps=no secure=no
    tls=$(txt "$record" TLS)
    e2e_in client timeout 30 ipptool -q "ipps://$address:$port/$rp" "$W/attrs.test" && ipps=yes
    [ -n "$(service_record _ipps._tcp "$printer")" ] && secure=yes
    [ "$([ -n "$tls" ] && echo yes || echo no) $ipps" = "$secure $secure" ] ||
      fail "$printer: TLS='$tls' in the record, ipps works: $ipps, _ipps._tcp advertised: $secure"
    echo "$printer: $uri, TLS=$tls, ipps works: $ipps, kind=$(txt "$record" kind), URF and UUID as in IPP"
  done

  # What ippfind lists (the URIs use the host name, which the client's
  # avahi resolves).
  local found
  found=$(e2e_in client timeout 20 ippfind -T 5 _ipp._tcp 2>&1)
  for printer in label203 tattoo; do
    grep -qx "ipp://$host.local:$PORT/ipp/print/$printer" <<<"$found" || fail "ippfind: no $printer in: $found"
  done

  # A label through the advertised URI prints what the same picture sent
  # on the server's own machine prints.
  cp "$SRC/samples/label.png" "$W/local.png"
  value=$(run_job label203 "$W/local.png")
  [ "${value%% *}" = completed ] || fail "local job: $value"
  value=$(e2e_in client timeout 60 ipptool -tv "${JOB_DEFAULTS[@]}" -d name=remote.png -f "$SRC/samples/label.png" \
    "ipp://$E2E_SERVER_ADDR:$PORT/ipp/print/label203" "$W/print.test" 2>&1 | sed -n 's/^ *status-code = //p')
  wait_output label203 remote.png && cmp -s "$W/out/label203/remote.png.prn" "$W/out/label203/local.png.prn" ||
    fail "the label through the advertised URI ($value) differs from the local one"

  # PAPPL 1.3 reports printer-id 0 for every printer, so Delete-Printer
  # names tattoo by its number: printers are numbered from 1 as added.
  ipp_test delete Delete-Printer system-uri 'ATTR integer printer-id $id'
  "${IN_SERVER[@]}" ipptool -d id=2 "ipp://127.0.0.1:$PORT/ipp/system" "$W/delete.test" || fail "delete tattoo"
  wait_record tattoo gone
  add_printer label300 kelvo_300
  wait_record label300 found
  # Renamed in the web interface (its DNS-SD name), from the server's machine.
  local page=http://127.0.0.1:$PORT/label300/config token
  token=$("${IN_SERVER[@]}" curl -s -c "$W/cookies" "$page" | sed -n 's/.*name="session" value="\([^"]*\)".*/\1/p')
  "${IN_SERVER[@]}" curl -s -b "$W/cookies" -o /dev/null --data-urlencode "session=$token" \
    --data-urlencode dns_sd_name=FrontDesk "$page" || fail "the web interface did not rename label300"
  wait_record FrontDesk found
  wait_record label300 gone
  service_record _ipp._tcp label203 | grep -q . || fail "label203 is gone after the others' changes"
}

# clear_text_status <printer-uri> <operation as \x..\x..>: the HTTP status
# of the answer to that operation, sent by curl from the client's side in
# clear text (ipptool would switch to TLS by itself).
clear_text_status() {
  local uri=$1 operation=$2
  # version 2.0, the operation, request-id 1, then the operation attributes.
  {
    printf '\x02\x00%b\x00\x00\x00\x01\x01' "$operation"
    printf '\x47\x00\x12attributes-charset\x00\x05utf-8'
    printf '\x48\x00\x1battributes-natural-language\x00\x02en'
    printf "\\x45\\x00\\x0bprinter-uri\\x00\\x$(printf %02x ${#uri})%s\\x03" "$uri"
  } >"$W/clear.ipp"
  e2e_in client curl -s -o /dev/null -w '%{http_code}' -H 'Content-Type: application/ipp' \
    --data-binary @"$W/clear.ipp" "http://${uri#ipp://}"
}

remote_mode() {
  add_printer label203 kelvo_203
  local base=$E2E_SERVER_ADDR:$PORT
  local printer=ipp://$base/ipp/print/label203 system=ipp://$base/ipp/system
  local admin=ipps://kadmin:Adm1n-pass@$base clerk=ipps://kclerk:Cl3rk-pass@$base
  local name op target got
  ipp_test set Set-Printer-Attributes printer-uri 'GROUP printer-attributes-tag' \
    'ATTR keyword kelvo-halftone-default $halftone' 'ATTR integer kelvo-brightness-default $brightness'
  ipp_test pause Pause-Printer printer-uri
  ipp_test resume Resume-Printer printer-uri
  ipp_test create Create-Printer system-uri 'ATTR keyword printer-service-type print' \
    'ATTR keyword smi55357-driver kelvo_203' 'ATTR uri smi55357-device-uri file:///dev/null' \
    'GROUP printer-attributes-tag' 'ATTR name printer-name $name'
  ipp_test delete Delete-Printer system-uri 'ATTR integer printer-id $id'
  ipp_test printers Get-Printers system-uri 'ATTR keyword requested-attributes printer-name' 'DISPLAY printer-name'
  ipp_test shutdown Shutdown-All-Printers system-uri
  ipp_test job Get-Job-Attributes printer-uri 'ATTR integer job-id $job' 'ATTR name requesting-user-name $owner'
  ipp_test job-op '$op' printer-uri 'ATTR integer job-id $job' 'ATTR name requesting-user-name $owner'
  printers() { e2e_in client timeout 30 ipptool -tv "$system" "$W/printers.test" | sed -n 's/^ *printer-name ([^)]*) = //p' | sort | tr '\n' ' '; }

  # Without a login nothing that changes the server goes through, and
  # nothing changes.
  while read -r name op target; do
    got=$(ask "$target" "$op" -d halftone=stucki -d brightness=0 -d name=evil -d id=1)
    [ "$got" = client-error-not-authenticated ] || fail "$name without a login: $got"
  done <<EOF
set-default set $printer
pause pause $printer
create-printer create $system
delete-printer delete $system
shutdown shutdown $system
EOF
  [ "$(attribute "$printer" kelvo-halftone-default)" = barcode-text ] &&
    [ "$(attribute "$printer" printer-state)" = idle ] && [ "$(printers)" = "label203 " ] && running ||
    fail "a request without a login changed the server: $(attribute "$printer" kelvo-halftone-default)," \
      "$(attribute "$printer" printer-state), printers $(printers)"
  got=$(clear_text_status "$printer" '\x00\x10')
  [ "$got" = 426 ] || fail "Pause-Printer in clear text: HTTP $got, not 426 Upgrade Required"
  got=$(ask "$clerk/ipp/print/label203" set -d halftone=stucki -d brightness=0)
  [ "$got" = client-error-forbidden ] || fail "a clerk's login: $got"
  echo "without a login and as a clerk: refused, nothing changed; in clear text: HTTP 426"

  # Printing is open; someone else's job is not.
  local job
  got=$(ask "$printer" print "${JOB_DEFAULTS[@]}" -d owner=alice -f "$SRC/samples/label.png")
  [ "$got" = successful-ok ] && wait_output label203 label.png || fail "a stranger's label: $got"
  job=$(e2e_in client timeout 60 ipptool -tv "${JOB_DEFAULTS[@]}" -d owner=alice -d hold=indefinite \
    -f "$SRC/samples/label.png" "$printer" "$W/print.test" | sed -n 's/^ *job-id (integer) = //p' | head -1)
  for op in Cancel-Job Hold-Job Release-Job; do
    got=$(ask "$printer" job-op -d op=$op -d job="$job" -d owner=mallory)
    [ "$got" = client-error-not-authenticated ] || fail "$op of alice's job by mallory: $got"
  done
  state() { e2e_in client timeout 30 ipptool -tv -d job="$job" -d owner=alice "$printer" "$W/job.test" | sed -n 's/^ *job-state (enum) = //p'; }
  [ "$(state)" = pending-held ] || fail "alice's held job after mallory: $(state)"
  got=$(ask "$printer" job-op -d op=Cancel-Job -d job="$job" -d owner=alice)
  [ "$got" = successful-ok ] && [ "$(state)" = canceled ] || fail "alice cancelling her job: $got, $(state)"
  echo "printing without a login: works; another's job: refused; alice cancels her own"

  # Values the printer does not offer, and a request of 100,000 attributes.
  got=$(ask "$printer" print "${JOB_DEFAULTS[@]}" -d brightness=2147483647 -f "$SRC/samples/label.png")
  [ "$got" = client-error-bad-request ] || fail "kelvo-brightness=2147483647: $got"
  got=$(ask "$admin/ipp/print/label203" set -d halftone=stucki -d brightness=101)
  [ "$got" = client-error-bad-request ] && [ "$(attribute "$printer" kelvo-brightness-default)" = 0 ] ||
    fail "kelvo-brightness-default=101: $got, now $(attribute "$printer" kelvo-brightness-default)"
  # The local socket and the web forms reach PAPPL without the check: the
  # server puts back the defaults of before within a second.
  "$APP" modify -d label203 -o kelvo-brightness-default=7 || fail "modify through the local socket"
  sleep 1.5
  "$APP" modify -d label203 -o kelvo-brightness-default=999 || fail "modify through the local socket"
  sleep 1.5
  got=$(attribute "$printer" kelvo-brightness-default)
  "$APP" modify -d label203 -o kelvo-brightness-default=0
  [ "$got" = 7 ] || fail "kelvo-brightness-default=999 after 7 through the local socket: now $got"
  {
    printf '{\nOPERATION Print-Job\nGROUP operation-attributes-tag\n'
    printf 'ATTR charset attributes-charset utf-8\nATTR naturalLanguage attributes-natural-language en\n'
    printf 'ATTR uri printer-uri $uri\nGROUP job-attributes-tag\n'
    awk 'BEGIN {for (i = 0; i < 100000; i++) printf "ATTR keyword x-filler-%d aaaaaaaaaaaaaaaa\n", i}'
    printf 'FILE $filename\n}\n'
  } >"$W/big.test"
  local before after
  before=$(server_rss)
  got=$(ask "$admin/ipp/print/label203" big -f "$SRC/samples/label.png")
  sleep 2  # the server gives freed memory back once a second
  after=$(server_rss)
  [ "$got" = client-error-request-value-too-long ] && [ $((after - before)) -lt 4096 ] ||
    fail "100,000 attributes: $got, server RSS $before kB before, $after kB after"
  echo "out-of-range values: bad-request; 100,000 attributes: $got, RSS $before kB -> $after kB"

  # The web interface: pages that change something ask for a login, over
  # TLS only; the read-only ones and printing do not.
  local web=http://$base
  got="$(e2e_in client curl -s -o /dev/null -w '%{http_code}' "$web/") $(e2e_in client curl -s -o /dev/null -w '%{http_code}' "$web/label203/printing")"
  got="$got $(e2e_in client curl -sk -o /dev/null -w '%{http_code}' "https://$base/label203/printing")"
  got="$got $(e2e_in client curl -sk -o /dev/null -w '%{http_code}' "https://$base/logfile.txt")"
  got="$got $(e2e_in client curl -sk -o /dev/null -w '%{http_code}' -u kclerk:Cl3rk-pass "https://$base/logfile.txt")"
  got="$got $(e2e_in client curl -sk -o /dev/null -w '%{http_code}' -u kadmin:Adm1n-pass "https://$base/logfile.txt")"
  # (The log comes in parts: 206.)
  [ "$got" = "200 301 401 401 403 206" ] ||
    fail "home, printing defaults (http, https), log (no login, clerk, admin): $got, not 200 301 401 401 403 206"
  e2e_in client curl -sk -D - -o /dev/null "https://$base/label203/printing" | grep -qi '^WWW-Authenticate: Basic' ||
    fail "a page that needs a login does not ask browsers for one"
  # The certificate made at the first start: for the machine's name, valid.
  openssl x509 -in "$W/tls/$(hostname).local.crt" -noout -checkend 86400 >/dev/null ||
    fail "no valid certificate for $(hostname).local in $W/tls"
  if /usr/bin/python3 -c 'import selenium' 2>/dev/null && [ -x /usr/bin/chromium ]; then
    local shot=$BUILD/tests/app/web-remote.png
    e2e_in client timeout 90 /usr/bin/python3 "$SRC/tests/app/web_defaults.py" "$web" label203 stucki-diffusion "$W/no-login.png"
    got=$?
    [ "$got" = 3 ] && [ "$(attribute "$printer" kelvo-halftone-default)" = barcode-text ] ||
      fail "the browser without a login: exit $got, default $(attribute "$printer" kelvo-halftone-default)"
    e2e_in client timeout 90 /usr/bin/python3 "$SRC/tests/app/web_defaults.py" "https://$base" label203 stucki-diffusion \
      "$shot" - kadmin:Adm1n-pass || fail "the browser with the admin's login did not save the default"
    [ "$(attribute "$printer" kelvo-halftone-default)" = stucki-diffusion ] ||
      fail "after the browser's change: $(attribute "$printer" kelvo-halftone-default)"
  else
    echo "web part skipped: needs chromium, chromium-driver and python3-selenium"
  fi

  # An administrator's login over TLS changes the server.
  while read -r name op target; do
    got=$(ask "$admin$target" "$op" -d halftone=stucki -d brightness=-5 -d name=evil -d id=2)
    [ "$got" = successful-ok ] || fail "$name as an administrator: $got"
  done <<EOF
set-default set /ipp/print/label203
pause pause /ipp/print/label203
create-printer create /ipp/system
EOF
  [ "$(attribute "$printer" kelvo-halftone-default) $(attribute "$printer" kelvo-brightness-default)" = "stucki -5" ] &&
    [ "$(attribute "$printer" printer-state)" = stopped ] && [ "$(printers)" = "evil label203 " ] ||
    fail "the administrator's changes: $(attribute "$printer" kelvo-halftone-default)," \
      "$(attribute "$printer" printer-state), printers $(printers)"
  [ "$(ask "$admin/ipp/print/label203" resume)" = successful-ok ] && [ "$(ask "$admin/ipp/system" delete -d id=2)" = successful-ok ] &&
    [ "$(attribute "$printer" printer-state)" = idle ] && [ "$(printers)" = "label203 " ] ||
    fail "resume and delete as an administrator: $(attribute "$printer" printer-state), printers $(printers)"

  # A user of the server's machine who is no administrator, over the loopback.
  chmod 755 "$W"
  chmod 644 "$W/set.test"
  got=$("${IN_SERVER[@]}" setpriv --reuid=kclerk --regid=kclerk --clear-groups timeout 30 ipptool -tv \
    -d halftone=none -d brightness=0 "ipp://127.0.0.1:$PORT/ipp/print/label203" "$W/set.test" 2>&1 |
    sed -n 's/^ *status-code = \([a-z-]*\).*/\1/p')
  [ "$got" = client-error-not-authenticated ] || fail "a local clerk over the loopback: $got"

  # Files of the server's, and the local socket: its user and admin group only.
  got="$(stat -c '%a %G' /run/kelvo-printer-app.sock) $(stat -c %a "$W/state") $(stat -c %a "$W/tls/"*.key)"
  [ "$got" = "770 kelvo-admins 600 600" ] || fail "socket, state file, key: $got"

  # Once avahi-daemon is gone, the Add Printer page says that discovery is
  # unavailable, and the server goes on (PAPPL's page would hang it later).
  e2e_stop_avahi server
  sleep 1
  got=$(e2e_in client curl -sk -u kadmin:Adm1n-pass "https://$base/addprinter" | grep -o 'Network discovery is unavailable')
  [ -n "$got" ] && [ "$(attribute "$printer" printer-state)" = idle ] || fail "/addprinter without avahi: $got"
  echo "administrator over TLS: changes made; local clerk refused; socket, state file, key: 770, 600, 600;" \
    "/addprinter without avahi: $got."

  # (Not asking the local socket meanwhile: PAPPL 1.3 can hang when a client
  # comes while it shuts down.)
  local server
  server=$(pgrep -P "$PID")
  got=$(ask "$admin/ipp/system" shutdown)
  e2e_poll 10 eval "! kill -0 $server 2>/dev/null" && [ "$got" = successful-ok ] ||
    { fail "shutdown as an administrator: $got"; [ -n "${APP_TEST_KEEP:-}" ] && gdb -p "$server" -batch -ex "thread apply all bt 12" >"$W/hang.txt" 2>&1; }
}

# Pictures through the application's own decoder.
pictures_mode() {
  local pngtoraster=$BUILD/tools/pngtoraster result
  filter_ppd kelvo203.ppd Standard >"$W/f203.ppd"
  filter_ppd kelvo300.ppd Standard >"$W/f300.ppd"
  mkdir -p "$W/tmp"

  # Decoding: a picture the size of its label prints what the filter prints
  # of pngtoraster's page of it (libpng's own reading, transparency laid on
  # white). A JPEG's reference is ImageMagick's grey PNG of it.
  # name|printer|media|WxH|dpi|ppd|ImageMagick options making it from a colour picture
  local n=0 name printer media size dpi ppd make reference
  while IFS='|' read -r name printer media size dpi ppd make; do
    [ -z "$name" ] && continue
    n=$((n + 1))
    [ -f "$W/colour-$size.png" ] || convert -size "$size" gradient:yellow-blue \( -size "$size" radial-gradient:white-black \) \
      -compose multiply -composite "$W/colour-$size.png"
    # shellcheck disable=SC2086
    convert "$W/colour-$size.png" $make "$W/$name" || fail "$name: convert"
    reference=$W/$name
    if [ "${name##*.}" = jpg ]; then
      reference=$W/$name.png
      convert "$W/$name" -define png:color-type=0 -define png:bit-depth=8 "$reference"
    fi
    "$pngtoraster" -r "$dpi" "$W/$name.ras" "$reference" || fail "$name: pngtoraster"
    result=$(run_job "$printer" "$W/$name" -o media="$media" -o kelvo-halftone=floyd-steinberg)
    PPD="$W/$ppd" TMPDIR="$W/tmp" "$FILTER" 1 user title 1 "HalftoneType=FloydSteinberg Darkness=15" "$W/$name.ras" \
      >"$W/$name.filter" 2>/dev/null || fail "$name: filter failed"
    if cmp -s "$W/out/$printer/$name.prn" "$W/$name.filter"; then
      echo "decoded alike: $name"
    else
      fail "$name: printed otherwise than its reference page [$result]"
    fi
  done <<'EOF'
grey8.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-colorspace gray -define png:color-type=0 -define png:bit-depth=8
grey1.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-colorspace gray -monochrome -define png:bit-depth=1
grey2.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-colorspace gray -depth 2 -define png:color-type=0 -define png:bit-depth=2
grey4i.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-colorspace gray -depth 4 -define png:color-type=0 -define png:bit-depth=4 -interlace PNG
grey16.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-colorspace gray -depth 16 -define png:color-type=0
greyalpha.png|label300|oe_4x3-label_4x3in|1200x900|300|f300.ppd|-colorspace gray ( +clone -rotate 90 -resize 1200x900! ) -compose copy_opacity -composite -define png:color-type=4
palette.png|label203|om_2x1-label_50.55x25.4mm|404x203|203|f203.ppd|-colors 40 -define png:color-type=3
palettetrns.png|label203|om_2x1-label_50.55x25.4mm|404x203|203|f203.ppd|( +clone -threshold 50% ) -compose copy_opacity -composite -colors 40 -define png:color-type=3
rgb8i.png|label300|oe_4x3-label_4x3in|1200x900|300|f300.ppd|-define png:color-type=2 -depth 8 -interlace PNG
rgb16.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-define png:color-type=2 -depth 16
rgba8.png|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|( +clone -colorspace gray -negate ) -compose copy_opacity -composite -define png:color-type=6
grey.jpg|label203|oe_4x6-label_4x6in|812x1218|203|f203.ppd|-colorspace gray -quality 90
EOF
  [ "$n" -eq 12 ] || fail "only $n decoding cases ran"

  # Placement on a 4x6 inch label (812 x 1218 dots): a white picture whose
  # top-left quarter is black, thresholded; where the black lands, worked out
  # by hand. Dots take the pixel under their centre; where the difference is
  # odd, the extra dot goes right and down.
  #   (812 - 406) / 2 = 203, (1218 - 609) / 2 = 304
  #   300 x 200 turned upright: from (306, 459); not turned: from (256, 509)
  #   fit 900 x 1000: 812 / 900 of it, 812 x 902 from row 158; its 450 x 500 black quarter 406 x 451
  #   fill 900 x 1000: 1218 / 1000 of it, 1096 x 1218, 142 dots cropped on the left
  #   none 900 x 1000: 44 dots cropped on the left, from row 109
  #   101.5 dpi: 406 x 609 pixels make 812 x 1218 dots; 406 dpi: 203 x 305 dots from (304, 456),
  #   dot x showing pixel 2x + 1
  #   CMYK: black and magenta print (grey 0 and 105), cyan and yellow do not (179, 226)
  # name|picture|ImageMagick options|job options|black
  local picture options black got
  while IFS='|' read -r name picture make options black; do
    [ -z "$name" ] && continue
    # (The options may quote drawing commands.)
    eval "convert -size $picture xc:white -fill black -draw 'rectangle 0,0 $((${picture%x*} / 2 - 1)),$((${picture#*x} / 2 - 1))' \
      $make \"\$W/\$name\"" || fail "$name: convert"
    # shellcheck disable=SC2086
    result=$(run_job label203 "$W/$name" -o kelvo-halftone=none $options)
    rm -f "$W/place"*.png
    "$ZPLPREVIEW" -o "$W/place" "$W/out/label203/$name.prn" >/dev/null 2>&1
    # A white border keeps the trim from taking black as the background.
    got=$(convert "$W/place-1.png" -bordercolor white -border 1 -format '%@' info: 2>/dev/null |
      awk -F'[x+]' '{printf "%dx%d+%d+%d", $1, $2, $3 - 1, $4 - 1}')
    [ "$got" = "$black" ] || fail "$name ($picture $options): black at $got, not $black [$result]"
    n=$((n + 1))
  done <<'EOF'
small-none.png|406x609|-define png:color-type=0|-o print-scaling=none|203x304+203+304
small-auto.png|406x609|-define png:color-type=0||203x304+203+304
small-fit.png|406x609|-define png:color-type=0|-o print-scaling=fit|406x608+0+0
large-auto.png|1624x2436|-define png:color-type=0||406x609+0+0
other-fit.png|900x1000|-define png:color-type=0|-o print-scaling=fit|406x451+0+158
other-fill.png|900x1000|-define png:color-type=0|-o print-scaling=fill|406x609+0+0
other-none.png|900x1000|-define png:color-type=0|-o print-scaling=none|406x500+0+109
wide-auto.png|300x200|-define png:color-type=0||100x150+306+609
wide-landscape.png|300x200|-define png:color-type=0|-o orientation-requested=4|100x150+306+609
wide-reverse-landscape.png|300x200|-define png:color-type=0|-o orientation-requested=5|100x150+406+459
wide-portrait.png|300x200|-define png:color-type=0|-o orientation-requested=3|150x100+256+509
wide-reverse-portrait.png|300x200|-define png:color-type=0|-o orientation-requested=6|150x100+406+609
dpi-none.png|406x609|-units PixelsPerInch -density 101.5 -define png:color-type=0|-o print-scaling=none|406x608+0+0
dpi.jpg|406x609|-units PixelsPerInch -density 406 -colorspace gray -quality 100|-o print-scaling=none|101x152+304+456
cmyk.jpg|406x609|-fill magenta -draw "rectangle 0,304 202,608" -fill cyan -draw "rectangle 203,0 405,303" -fill yellow -draw "rectangle 203,304 405,608" -colorspace CMYK -quality 100|-o print-scaling=none|203x609+203+304
EOF

  [ "$n" -eq 27 ] || fail "only $((n - 12)) placement cases ran"
  echo "placed as worked out by hand: $((n - 12)) pictures"

  # The engine's lines go to the job's log, not to the server's output.
  grep -q '\[Job [0-9]*\] Page of [0-9]* x [0-9]* dots halftoned' "$W/log" || fail "no engine line in the jobs' log"
  ! grep -q 'dots halftoned' "$W/server.out" "$W/server.err" || fail "engine lines on the server's output"

  # Documents that lie or are broken: each job ends aborted with a message
  # naming the problem within seconds, and the printer goes on.
  local label=$SRC/samples/label.png bytes
  cp "$label" "$W/ref.png"
  result=$(run_job label203 "$W/ref.png")
  [ "${result%% *}" = completed ] || fail "the reference label: $result"
  bytes=$(stat -c %s "$label")
  convert "$label" -quality 90 "jpg:$W/jpeg-as-png"
  cp "$label" "$W/png-as-jpeg"
  head -c 100 "$label" >"$W/png-cut-100"
  head -c $((bytes / 2)) "$label" >"$W/png-cut-half"
  head -c $((bytes - 20)) "$label" >"$W/png-cut-end"
  head -c $(($(stat -c %s "$W/jpeg-as-png") / 2)) "$W/jpeg-as-png" >"$W/jpeg-cut-half"
  head -c 4096 /dev/urandom >"$W/random"
  { printf '\377\330\377'; head -c 4096 /dev/urandom; } >"$W/random-jpeg"
  # A header of 2^31 - 1 pixels a side, a real 20000 x 20000 picture, and a
  # picture whose text chunk claims 2 GB.
  python3 - "$W" <<'PY'
import struct, sys, zlib
def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xffffffff)
def png(side, rows):
    ihdr = struct.pack(">IIBBBBB", side, side, 1, 0, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", ihdr) + chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b"")
open(sys.argv[1] + "/png-2g", "wb").write(png(2**31 - 1, bytes(1000)))
open(sys.argv[1] + "/png-20000", "wb").write(png(20000, bytes(2501 * 20000)))
small = png(8, bytes(8 * 2))
open(sys.argv[1] + "/png-text-2g", "wb").write(small[:33] + struct.pack(">I", 2**31 - 1) + b"tEXtdate" + small[33:])
PY
  # name|sent as|the message says
  local bad format says start names=()
  while IFS='|' read -r bad format says; do
    [ -z "$bad" ] && continue
    start=$SECONDS
    result=$(wait_job label203 "$(ipp_submit label203 "$W/$bad" "$format")")
    [ "${result%% *}" = aborted ] && [[ $result == *"$says"* ]] && [ $((SECONDS - start)) -le 5 ] ||
      fail "$bad as $format: '$result' after $((SECONDS - start)) s"
    names+=("$bad:$format")
  done <<'EOF'
jpeg-as-png|image/png|sent as a PNG picture but is a JPEG picture
png-as-jpeg|image/jpeg|sent as a JPEG picture but is a PNG picture
png-cut-100|image/png|damaged
png-cut-half|image/png|damaged or cut short
png-cut-end|image/png|damaged or cut short
jpeg-cut-half|image/jpeg|damaged or cut short
png-2g|image/png|damaged
png-20000|image/png|20000 x 20000 pixels
png-text-2g|image/png|damaged or cut short
random|image/png|is no picture
random-jpeg|image/jpeg|damaged
EOF
  # An empty document never becomes a job.
  : >"$W/empty"
  [ -z "$(ipp_submit label203 "$W/empty" image/png)" ] || fail "an empty document was taken"
  echo "bad documents: ${#names[@]} aborted with their message, an empty one refused"
  # The server is quiet again and has written next to nothing itself.
  local server ticks
  server=$(pgrep -P "$PID" | head -1)
  ticks=$(awk '{print $14 + $15}' "/proc/$server/stat")
  sleep 2
  ticks=$(($(awk '{print $14 + $15}' "/proc/$server/stat") - ticks))
  [ "$ticks" -le 20 ] || fail "the server spent $ticks ticks of CPU in 2 s after the bad documents"
  local peak
  peak=$(awk '/^VmHWM:/ {print $2}' "/proc/$server/status")
  [ "$peak" -lt 204800 ] || fail "the server's memory peaked at $peak kB"
  echo "then the server: $ticks CPU ticks in 2 s, memory peak $peak kB"
  [ "$(cat "$W/server.out" "$W/server.err" | wc -c)" -lt 4096 ] ||
    fail "the server wrote $(cat "$W/server.out" "$W/server.err" | wc -c) bytes"

  # Twenty bad jobs interleaved with twenty good ones, sent at once: the good
  # ones print exactly the reference label.
  local i entry id good=0 ids=()
  for i in $(seq 20); do
    entry=${names[$((i % ${#names[@]}))]}
    cp "$W/${entry%%:*}" "$W/bad$i"
    cp "$label" "$W/good$i.png"
    ids+=("$(ipp_submit label203 "$W/bad$i" "${entry#*:}")")
    ids+=("$(submit label203 "$W/good$i.png")")
  done
  for id in "${ids[@]}"; do wait_job label203 "$id" 120 >/dev/null; done
  for i in $(seq 20); do
    cmp -s "$W/out/label203/good$i.png.prn" "$W/out/label203/ref.png.prn" && good=$((good + 1))
  done
  [ "$good" -eq 20 ] || fail "interleaved with bad jobs, $good of 20 good labels printed exactly"
  echo "twenty bad jobs among twenty good ones: $good good labels exact"
}

# The application's own network device against a fake printer that fails in
# the ways printers fail (stall time 3 s; the slow printer takes twice that
# for its job).
delivery_mode() {
  E2E_ROOT=$W/fake
  E2E_FAKE_PRINTER=$BUILD/tests/e2e/fakezplprinter
  E2E_LIFETIME=280
  mkdir -p "$E2E_ROOT/log"
  local mode=$W/printer-mode result
  echo save >"$mode"
  e2e_start_printer zpl -c "$mode"
  add_printer zpl kelvo_203 "kelvo-socket://127.0.0.1:${E2E_PORT[zpl]}"
  add_printer ref kelvo_203
  # What the printer must receive: the job as a file device gets it, then
  # the status query that confirms it.
  cp "$SRC/samples/label.png" "$W/label.png"
  convert -size 812x1624 xc:gray50 +noise Random -colorspace gray "$W/big.png"
  convert -size 100x100 xc:black "$W/small.png"
  local picture
  for picture in label big; do
    result=$(run_job ref "$W/$picture.png" -o media="$([ "$picture" = big ] && echo oe_4x8-label_4x8in || echo oe_4x6-label_4x6in)")
    { cat "$W/out/ref/$picture.png.prn"; printf '~HQES'; } >"$W/expected-$picture"
  done
  # The newest file the fake printer saved.
  newest() { find "$E2E_ROOT/out/zpl" -name 'job-*' -printf '%T@ %p\n' | sort -n | tail -1 | cut -d' ' -f2; }
  reasons() {
    ipptool -tv "ipp://127.0.0.1:$PORT/ipp/print/zpl" get-printer-attributes.test 2>/dev/null |
      sed -n 's/.*printer-state-reasons (keyword) = //p'
  }

  # printer mode|picture|end state|the message says
  local printer state says
  while IFS='|' read -r printer picture state says; do
    echo "$printer" >"$mode"
    cp "$W/$picture.png" "$W/try.png"
    result=$(run_job zpl "$W/try.png" -o media="$([ "$picture" = big ] && echo oe_4x8-label_4x8in || echo oe_4x6-label_4x6in)")
    [ "${result%% *}" = "$state" ] && [[ $result == *"$says"* ]] || fail "printer $printer: '$result'"
    if [ "$state" = completed ]; then
      cmp -s "$(newest)" "$W/expected-$picture" || fail "printer $printer: the job completed, the printer has other bytes"
    fi
    [ "$printer" != never-read ] || [ "$(reasons)" = offline ] || fail "printer $printer: state reasons '$(reasons)'"
    # Behaving again, the printer prints the next job exactly.
    echo save >"$mode"
    result=$(run_job zpl "$W/label.png")
    cmp -s "$(newest)" "$W/expected-label" && [ "$(reasons)" = none ] ||
      fail "after $printer: '$result', state reasons '$(reasons)'"
    echo "printer $printer: ${state}${says:+: $says}; the next job exact"
  done <<'EOF'
save|label|completed|
never-read|small|aborted|bytes but has not answered for 3 s
never-read|big|aborted|took no data for 3 s
close-after=4000|big|aborted|closed the connection
slow=50000|big|completed|
EOF

  # Cancelled while the printer takes nothing: cancelled at once.
  echo never-read >"$mode"
  local id start
  id=$(submit zpl "$W/big.png" -o media=oe_4x8-label_4x8in)
  sleep 1
  start=$SECONDS
  "$APP" cancel -d zpl -j "$id" >/dev/null
  result=$(wait_job zpl "$id" 10)
  [ "${result%% *}" = canceled ] && [ $((SECONDS - start)) -le 1 ] || fail "cancelled while stalled: '$result'"
  echo "cancelled while the printer takes nothing: $result after $((SECONDS - start)) s"

  # A printer that refuses connections holds the job until it takes them.
  echo refuse >"$mode"
  sleep 0.5
  id=$(submit zpl "$W/label.png")
  sleep 4
  result=$(job_state zpl "$id")
  case $result in completed* | aborted*) fail "while the printer refuses connections: $result" ;; esac
  echo save >"$mode"
  result=$(wait_job zpl "$id" 30)
  cmp -s "$(newest)" "$W/expected-label" || fail "refused, then taken: '$result'"
  echo "printer refusing: the job waits, then $result"

  # Write errors PAPPL reports on its own devices.
  add_printer full kelvo_203 file:///dev/full
  result=$(run_job full "$W/label.png")
  [[ $result == "aborted The printer took only 0 of the "*" bytes sent to it" ]] || fail "/dev/full: $result"

  # Stopped while a job waits for the printer, with three queued behind it:
  # after a restart all four print, without a new submission. kill -9 while
  # the app's own connection waits; SIGTERM while PAPPL's socket device is
  # stuck in a write (8 MB of ZPL, more than the sockets hold), where only
  # the app can end the server within 5 s.
  add_printer raw kelvo_203 "socket://127.0.0.1:${E2E_PORT[zpl]}"
  { printf '^XA^LL9999^FX'; head -c 8000000 /dev/zero | tr '\0' A; printf '^FS^XZ\n'; } >"$W/large.zpl"
  local how printer ids server t0 ms i
  for how in KILL TERM; do
    printer=$([ "$how" = KILL ] && echo zpl || echo raw)
    echo never-read >"$mode"
    kill "$PID" && wait "$PID"
    start_server 60
    if [ "$how" = KILL ]; then
      ids=("$(submit zpl "$W/big.png" -o media=oe_4x8-label_4x8in)")
    else
      ids=("$(submit raw "$W/large.zpl")")
    fi
    for i in 1 2 3; do ids+=("$(submit "$printer" "$W/label.png")"); done
    e2e_poll 10 grep -q "id=\"${ids[3]}\"" "$W/state" || fail "$how: the queued jobs were not saved"
    server=$(pgrep -P "$PID" | head -1)
    t0=$(date +%s%N)
    # (The shell's notice of the killed server stays out of the output.)
    {
      kill -"$how" "$server"
      e2e_poll 10 test ! -e "/proc/$server"
      ms=$((($(date +%s%N) - t0) / 1000000))
      wait "$PID"
    } 2>/dev/null
    [ "$ms" -le 5000 ] || fail "SIG$how: the server took $ms ms to end"
    echo save >"$mode"
    touch "$W/restart"
    start_server 60
    for id in "${ids[@]}"; do
      result=$(wait_job "$printer" "$id" 30)
      [ "${result%% *}" = completed ] || fail "SIG$how, job $id: $result"
    done
    result=$(job_state "$printer" "${ids[0]}")
    [[ $result == *"printed again from its start"* ]] || fail "SIG$how, the interrupted job: $result"
    # In the order they were sent, the interrupted job first.
    result=$(find "$E2E_ROOT/out/zpl" -name 'job-*.zpl' -newer "$W/restart" -printf '%T@ %p\n' | sort -n |
      cut -d' ' -f2 | xargs cat | grep -ao '\^LL[0-9]*' | tr '\n' ' ')
    [ "$result" = "^LL$([ "$how" = KILL ] && echo 1624 || echo 9999) ^LL1218 ^LL1218 ^LL1218 " ] ||
      fail "SIG$how: labels printed after the restart: $result"
    echo "SIG$how while printing, three queued: the server gone in $ms ms; after the restart, in order: $result"
  done
}

case $MODE in
  jobs) jobs_mode ;;
  pictures) pictures_mode ;;
  delivery) delivery_mode ;;
  burst) burst_mode one ;;
  burst2) burst_mode two ;;
  web) web_mode ;;
  studio) studio_mode ;;
  cups) cups_mode ;;
  ipptool) ipptool_mode ;;
  status) status_mode ;;
  dnssd) dnssd_mode ;;
  remote) remote_mode ;;
  *) fail "unknown mode $MODE" ;;
esac
[ "$FAILED" -eq 0 ] && echo "app $MODE: all passed"
exit "$FAILED"
