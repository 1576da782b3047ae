#!/bin/bash
# The Debian packages as an administrator meets them: built with
# dpkg-buildpackage from a copy of the tree, checked with lintian, installed
# with apt-get, used, and purged again.
#   - the installed files, and nothing outside the packages' places;
#   - the installed filter prints the same bytes as the tested build's;
#   - a job through a private cupsd, on a queue made with lpadmin -m from the
#     model name lpinfo -m lists;
#   - the printer application started as its systemd unit starts it (the
#     unit's command line and environment file, its file system and
#     capability limits reproduced here), with a free port set the way an
#     administrator sets one: a printer added with the admin's own command,
#     a label printed to a fake printer, loopback only, its state kept across
#     a restart;
#   - systemd-analyze verify on the unit, where systemd is installed;
#   - after the purge nothing of it is left, and the machine's package
#     states are what they were.
# Needs root; runs in the UTS and mount namespaces of e2e_sandbox, so that the
# installed server can reach neither the host name nor a running systemd.
#   package_test.sh <build-dir>
set -u
SRC=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=e2e/lib.sh
. "$SRC/e2e/lib.sh"
PACKAGES="kelvo-cups-driver kelvo-printer-app"
UNIT=/lib/systemd/system/kelvo-printer-app.service

# unit_setting <unit> <name>: the values of a setting, continued lines joined.
unit_setting() {
  sed -e ':a' -e '/\\$/{N;s/\\\n/ /;ba' -e '}' "$1" | sed -n "s/^$2=//p"
}

# unit_exec <unit>: replaces this process (which runs in a mount
# namespace of its own) by the unit's ExecStart, as systemd runs it: the
# EnvironmentFile's variables in an otherwise empty environment, $NAME split
# into words, ProtectSystem=strict (everything read-only but /proc, /sys,
# /dev, the StateDirectory and the ReadWritePaths), PrivateTmp, ProtectHome,
# UMask, NoNewPrivileges and the CapabilityBoundingSet. The system call,
# address family and kernel settings are left to systemd.
unit_exec() {
  local unit=$1 line name value word mp path
  local -A env=()
  local envfile
  envfile=$(unit_setting "$unit" EnvironmentFile)
  envfile=${envfile#-}
  if [ -n "$envfile" ] && [ -f "$envfile" ]; then
    while IFS= read -r line; do
      case $line in '' | '#'*) continue ;; esac
      name=${line%%=*} value=${line#*=}
      value=${value#\"} value=${value%\"}
      env[$name]=$value
    done <"$envfile"
  fi
  local -a command=()
  # shellcheck disable=SC2086  # words, as systemd splits them
  for word in $(unit_setting "$unit" ExecStart); do
    if [[ $word =~ ^\$([A-Za-z_][A-Za-z0-9_]*)$ ]]; then
      # shellcheck disable=SC2206
      command+=(${env[${BASH_REMATCH[1]}]:-})
    else
      command+=("$word")
    fi
  done
  case ${command[0]} in /*) ;; *) e2e_die "ExecStart with a prefix this test does not know: ${command[0]}" ;; esac

  mount --make-rprivate / || e2e_die "cannot make the mounts private"
  if [ "$(unit_setting "$unit" ProtectSystem)" = strict ]; then
    while read -r mp; do
      mp=$(printf '%b' "$mp")
      case $mp in /proc | /proc/* | /sys | /sys/* | /dev | /dev/*) continue ;; esac
      mount -o remount,bind,ro "$mp" || e2e_die "cannot make $mp read-only"
    done < <(awk '{print $5}' /proc/self/mountinfo)
  fi
  if [ "$(unit_setting "$unit" ProtectHome)" = yes ]; then
    for path in /home /root /run/user; do
      if [ -d "$path" ]; then mount -t tmpfs -o ro,mode=0755 protect-home "$path"; fi
    done
  fi
  if [ "$(unit_setting "$unit" PrivateTmp)" = yes ]; then
    mount -t tmpfs -o mode=1777 private-tmp /tmp && mount -t tmpfs -o mode=1777 private-tmp /var/tmp ||
      e2e_die "cannot make a private /tmp"
  fi
  # shellcheck disable=SC2046
  for path in $(unit_setting "$unit" StateDirectory | sed 's|^|/var/lib/|') $(unit_setting "$unit" ReadWritePaths); do
    [[ $path = -* && ! -e ${path#-} ]] && continue
    path=${path#-}
    mount --bind "$path" "$path" && mount -o remount,bind,rw "$path" || e2e_die "ReadWritePaths: no $path"
  done
  local caps
  caps=$(unit_setting "$unit" CapabilityBoundingSet | tr 'A-Z ' 'a-z\n' | sed -n 's/^cap_/+/p' | paste -sd,)
  local -a limits=()
  [ -n "$caps" ] && limits+=(--bounding-set "-all,$caps" --inh-caps -all)
  [ "$(unit_setting "$unit" NoNewPrivileges)" = yes ] && limits+=(--no-new-privs)
  umask "$(unit_setting "$unit" UMask | grep . || echo 0022)"
  cd / || exit 1
  local -a environment=(PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin)
  for name in "${!env[@]}"; do environment+=("$name=${env[$name]}"); done
  echo "unit_exec: ${command[*]} (${limits[*]})"
  exec env -i "${environment[@]}" setpriv "${limits[@]}" -- "${command[@]}"
}
if [ "${1:-}" = --unit-exec ]; then
  shift
  unit_exec "$@"
fi

[ $# -eq 1 ] || e2e_die "usage: $0 <build-dir>"
if [ "$(id -u)" != 0 ]; then
  echo "SKIP: the package test installs and purges Debian packages: run it as root"
  exit 77
fi
e2e_sandbox "$@"
BUILD=$(cd "$1" && pwd)
e2e_require dpkg-buildpackage dh lintian apt-get setpriv ss cupsd lpadmin lpinfo lp
FAKE=$BUILD/tests/e2e/fakezplprinter
[ -x "$FAKE" ] && [ -x "$BUILD/filter/rastertokelvozpl" ] || e2e_die "build the project first"

# One run at a time on a machine: the packages are the machine's. A run
# that was killed outright (a timeout) leaves its mark, and the next one
# purges what it installed.
exec 9>/tmp/kelvo-package-test.lock
flock -w 600 9 || e2e_die "another package test holds /tmp/kelvo-package-test.lock"
MARK=/tmp/kelvo-package-test.installed
if [ -e "$MARK" ]; then
  echo "purging the packages a killed run of this test installed"
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive flock -w 300 /tmp/apt.lock dpkg --purge $PACKAGES >/dev/null || e2e_die "dpkg --purge"
  rm -f "$MARK"
fi
for pkg in $PACKAGES; do
  if dpkg-query -W -f='${db:Status-Abbrev}' "$pkg" 2>/dev/null | grep -q '^[a-z]i'; then
    echo "SKIP: $pkg is installed on this machine; the test would replace and then purge it"
    exit 77
  fi
done
T=$(mktemp -d /tmp/kelvo-package-test.XXXXXX)
chmod 755 "$T"
FAILED=0
INSTALLED=0
APP_PID=""
fail() {
  echo "FAIL: $*" >&2
  FAILED=1
}
# apt and dpkg wait for each other through this lock on the project's machines.
apt_get() { DEBIAN_FRONTEND=noninteractive flock -w 300 /tmp/apt.lock apt-get -q -y -o DPkg::Lock::Timeout=300 "$@"; }
package_states() {
  dpkg-query -W -f='${db:Status-Abbrev} ${binary:Package} ${Version}\n'
  apt-mark showauto | sed 's/^/auto /'
}

# As systemd stops it: SIGTERM.
stop_app() {
  [ -n "$APP_PID" ] || return 0
  e2e_stop_pid "$APP_PID"
  APP_PID=""
}
purge() {
  [ "$INSTALLED" = 1 ] || return 0
  # shellcheck disable=SC2086
  apt_get purge $PACKAGES >"$T/purge.log" 2>&1 || fail "apt-get purge: $(tail -5 "$T/purge.log")"
  INSTALLED=0
  rm -f "$MARK"
}
cleanup() {
  local status=$?
  stop_app
  e2e_stop_all
  purge
  if [ "$status" -ne 0 ] || [ "$FAILED" -ne 0 ] || [ -n "${PACKAGE_TEST_KEEP:-}" ]; then
    echo "kept $T" >&2
  else
    rm -rf "$T"
  fi
  if ! e2e_host_unchanged; then
    echo "FAIL: the host was renamed: $(hostname) $(cat /etc/hostname 2>/dev/null)" >&2
    exit 1
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM
package_states >"$T/states.before"

# Build, from a copy: dpkg-buildpackage writes beside the source.
mkdir "$T/src"
if git -C "$SRC" rev-parse --git-dir >/dev/null 2>&1; then
  git -C "$SRC" ls-files -z -co --exclude-standard | tar -C "$SRC" --null -T - --ignore-failed-read -cf - 2>/dev/null
else
  tar -C "$SRC" --exclude=./build --exclude='./build-*' --exclude=./out -cf - .
fi | tar -C "$T/src" -xf - || e2e_die "cannot copy the tree"
project=$(sed -n 's/^project([^ ]* VERSION \([0-9.]*\).*/\1/p' "$SRC/CMakeLists.txt")
version=$(dpkg-parsechangelog -l "$T/src/debian/changelog" -S Version)
[ "$version" = "$project" ] || fail "debian/changelog is at $version, CMakeLists.txt at $project"
start=$SECONDS
(cd "$T/src" && DEB_BUILD_OPTIONS="nocheck parallel=2 noautodbgsym" timeout 600 dpkg-buildpackage -b -us -uc) \
  >"$T/build.log" 2>&1 || e2e_die "dpkg-buildpackage failed: $(tail -20 "$T/build.log")"
echo "built in $((SECONDS - start)) s: $(cd "$T" && echo ./*.deb)"
debs=()
for pkg in $PACKAGES; do debs+=("$T/${pkg}_${version}_$(dpkg --print-architecture).deb"); done
lintian --fail-on error,warning "$T"/*.changes >"$T/lintian.log" 2>&1 ||
  fail "lintian: $(grep -E '^[EW]:' "$T/lintian.log")"
echo "lintian: $(grep -cE '^[EW]:' "$T/lintian.log") errors and warnings, $(grep -c '^I:' "$T/lintian.log") notes"

# apt-get would install nothing but these two: what they need is installed.
changes=$(apt-get -s -q install --no-install-recommends "${debs[@]}" 2>&1 | awk '/^(Inst|Remv|Purg) / {print $1, $2}' | sort)
[ "$changes" = "$(printf 'Inst %s\n' $PACKAGES | sort)" ] ||
  e2e_die "apt-get would change more than the two packages: $changes"
INSTALLED=1
touch "$MARK"
apt_get install --no-install-recommends "${debs[@]}" >"$T/install.log" 2>&1 ||
  e2e_die "apt-get install: $(tail -10 "$T/install.log")"

# The files: each in its place, nothing elsewhere.
# shellcheck disable=SC2086
dpkg -L $PACKAGES | sort -u | while read -r path; do [ -z "$path" ] || [ -d "$path" ] || echo "$path"; done >"$T/files"
while read -r path; do
  case $path in
    /usr/bin/* | /usr/lib/cups/filter/* | /usr/share/ppd/kelvo/* | /usr/share/man/man1/* | /usr/share/doc/kelvo-*/* | \
      /lib/systemd/system/kelvo-printer-app.service | /usr/lib/tmpfiles.d/kelvo-printer-app.conf | \
      /etc/default/kelvo-printer-app) ;;
    *) fail "a file outside the packages' places: $path" ;;
  esac
done <"$T/files"
for path in /usr/lib/cups/filter/rastertokelvozpl /usr/bin/{zplpreview,halftonepreview,pngtoraster,kelvo-printer-app}; do
  [ "$(stat -c '%U %a' "$path" 2>/dev/null)" = "root 755" ] || fail "$path: $(stat -c '%U %a' "$path" 2>&1)"
done
for page in zplpreview halftonepreview pngtoraster kelvo-printer-app; do
  [ -f "/usr/share/man/man1/$page.1.gz" ] || fail "no manual page $page(1)"
done
for ppd in "$BUILD"/ppd/ppd/*.ppd; do
  cmp -s "$ppd" "/usr/share/ppd/kelvo/${ppd##*/}" || fail "installed ${ppd##*/} differs from the build's"
done
[ "$(find /usr/share/ppd/kelvo -name '*.ppd' | wc -l)" = "$(find "$BUILD/ppd/ppd" -name '*.ppd' | wc -l)" ] ||
  fail "the package has other PPDs than the build"
for path in /var/lib/kelvo-printer-app /var/spool/kelvo-printer-app; do
  [ "$(stat -c '%U %a' "$path" 2>/dev/null)" = "root 700" ] || fail "$path: $(stat -c '%U %a' "$path" 2>&1)"
done
echo "installed: $(grep -c . "$T/files") paths"

# The packaged filter prints what the tested one prints, stencils included
# (the packages are built with Debian's compiler flags).
mkdir -p "$T/tmp"
/usr/bin/pngtoraster -r 203 -s 4x6 "$T/label.ras" "$SRC/samples/label.png" &&
  /usr/bin/pngtoraster -r 300 "$T/stencil.ras" "$SRC/samples/stencil.png" || fail "pngtoraster"
for job in label:kelvo203 stencil:kelvotat; do
  for filter in /usr/lib/cups/filter/rastertokelvozpl "$BUILD/filter/rastertokelvozpl"; do
    PPD=/usr/share/ppd/kelvo/${job#*:}.ppd TMPDIR=$T/tmp "$filter" 1 root test 1 "" "$T/${job%:*}.ras" \
      >>"$T/${job%:*}.$([ "$filter" = "$BUILD/filter/rastertokelvozpl" ] && echo build || echo installed)" 2>/dev/null ||
      fail "$filter on ${job%:*}"
  done
  cmp -s "$T/${job%:*}.installed" "$T/${job%:*}.build" || fail "${job%:*}: the installed filter prints other bytes"
done
echo "installed filter, same bytes as the build's: label $(stat -c %s "$T/label.build") bytes, stencil $(stat -c %s "$T/stencil.build")"

# Decodes a job with the installed zplpreview: "<graphics> <width>x<height> ...".
decode() {
  /usr/bin/zplpreview -o "$T/preview" "$1" | awk '{printf "%s%sx%s", (NR > 1 ? " " : ""), $2, $4} END {print ""}'
}

# CUPS: lpinfo -m finds the installed model; a queue made from it prints.
e2e_init_scheduler "$T/cups" "$FAKE"
e2e_start_printer label
e2e_start_printer app
e2e_start_cupsd
model=$(lpinfo -m 2>/dev/null | awk '/Kelvo ZPL Label Printer 203dpi/ {print $1; exit}')
[ -n "$model" ] || e2e_die "lpinfo -m lists no Kelvo model: $(lpinfo -m 2>&1 | grep -i kelvo)"
lpadmin -p label -E -v "socket://127.0.0.1:${E2E_PORT[label]}/?snmp=false" -m "$model" 2>"$T/lpadmin.err" ||
  e2e_die "lpadmin -m $model: $(cat "$T/lpadmin.err")"
id=$(e2e_print label "$SRC/samples/label.png" -o PageSize=4x6)
e2e_wait_job "$id" 60
e2e_take_output label
got=$(decode "$E2E_OUTPUT")
# 4 x 6 inches at 203 dpi: 812 x 1218 dots, rows sent in whole bytes (816).
[ "$got" = "816x1218" ] || fail "CUPS job on $model: graphics $got, wanted one 4x6 label (816x1218)"
echo "CUPS queue from lpinfo's $model: $got"

# The printer application, as its unit starts it, on a free port that the
# environment file gives. Its root client reaches it through /run.
APP=/usr/bin/kelvo-printer-app
PORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
printf 'KELVO_PRINTER_APP_OPTIONS="-o server-port=%s"\n' "$PORT" >>/etc/default/kelvo-printer-app
running() { "$APP" status 2>&1 | grep -qv 'not running'; }
start_app() {
  # The unit's private /tmp hides $T: the log is opened here.
  unshare --mount --propagation private -- bash "$0" --unit-exec "$UNIT" >>"$T/app.log" 2>&1 &
  APP_PID=$!
  e2e_poll 20 running || e2e_die "the service did not start: $(grep -E "^(E \[|unit_exec|setpriv)" "$T/app.log" | tail -5)"
}
start_app
"$APP" add -d label -m kelvo_203 -v "socket://127.0.0.1:${E2E_PORT[app]}" || fail "kelvo-printer-app add"
listening=$(ss -ltnpH | awk -v pid="pid=$APP_PID," 'index($0, pid) {print $4}' | sort | paste -sd' ')
[ -n "$listening" ] && [ -z "$(tr ' ' '\n' <<<"$listening" | grep -v -E "^(127\.0\.0\.1|\[::1\]):$PORT$")" ] ||
  fail "the service listens on '$listening', not on loopback port $PORT only"
echo "service listening on: $listening"
"$APP" submit -u "ipp://localhost:$PORT/ipp/print/label" -o media=oe_4x6-label_4x6in "$SRC/samples/label.png" >/dev/null ||
  fail "submit to ipp://localhost:$PORT"
e2e_take_output app
got=$(decode "$E2E_OUTPUT")
[ "$got" = "816x1218" ] || fail "the service's label: graphics $got, wanted one 4x6 label (816x1218)"
echo "service printed: $got"
# Stopped and started again, it has its printer.
stop_app
grep -q "socket://127.0.0.1:${E2E_PORT[app]}" /var/lib/kelvo-printer-app/state || fail "the state file lacks the printer"
start_app
"$APP" printers 2>&1 | grep -q '^label$' || fail "after a restart the service has no printer label: $("$APP" printers 2>&1)"
stop_app

if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify "$UNIT" >"$T/verify.log" 2>&1 || fail "systemd-analyze verify: $(cat "$T/verify.log")"
  echo "systemd-analyze verify: passed"
else
  echo "systemd-analyze not installed: the unit file is not verified"
fi

# Purged, nothing is left.
e2e_stop_all
purge
left=""
# shellcheck disable=SC2046
for path in $(cat "$T/files") /usr/share/ppd/kelvo /usr/share/doc/kelvo-cups-driver /usr/share/doc/kelvo-printer-app \
  /var/lib/kelvo-printer-app /var/spool/kelvo-printer-app /run/kelvo-printer-app.sock \
  $(find /etc/systemd /var/lib/systemd -name '*kelvo*' 2>/dev/null); do
  if [ -e "$path" ]; then left="$left $path"; fi
done
[ -z "$left" ] || fail "left after the purge:$left"
package_states >"$T/states.after"
diff "$T/states.before" "$T/states.after" >&2 || fail "the machine's package states changed"
[ "$FAILED" -eq 0 ] && echo "package: all passed"
exit "$FAILED"
