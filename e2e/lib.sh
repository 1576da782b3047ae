# shellcheck shell=bash
# Helpers for running the driver inside a private CUPS server: Debian's own
# cupsd and cups-filters, configured under one scratch folder, listening only
# on a unix socket of its own, with fake ZPL printers on 127.0.0.1 as the
# devices. Nothing of the machine's own CUPS (its configuration, its
# scheduler, port 631) is read, written or stopped.
#
# Sourced by e2e-test.sh, tests/app/app_test.sh and tools/try-driver.sh. In outline:
#   e2e_init <scratch-dir> <build-dir> <fakezplprinter>
#   trap e2e_stop_all EXIT
#   e2e_start_queues                         # queues label and tattoo
#   id=$(e2e_print label picture.png -o Darkness=20)
#   e2e_wait_job "$id" 120
#   e2e_take_output label                    # sets E2E_OUTPUT: the bytes received
# Every process started here is stopped by e2e_stop_all, by its pid, and
# each one also ends by itself after E2E_LIFETIME seconds, so that even a
# test killed outright leaves nothing running for long.

E2E_LIFETIME=${E2E_LIFETIME:-900}
E2E_ROOT=""              # scratch folder of this run
E2E_FAKE_PRINTER=""      # the fakezplprinter program
E2E_PPD_DIR=""           # where the install put the PPDs
E2E_CUPSD_PID=""
E2E_OUTPUT=""
declare -A E2E_PORT=()         # printer name -> TCP port of its fake printer
declare -A E2E_PRINTER_PID=()  # printer name -> pid of its fake printer
declare -A E2E_TAKEN=()        # printer name -> number of jobs already taken

e2e_log() { echo "e2e: $*" >&2; }
e2e_die() {
  echo "e2e: FAILED: $*" >&2
  exit 1
}

# Dies unless every command named is installed.
e2e_require() {
  local command
  for command in "$@"; do
    command -v "$command" >/dev/null ||
      e2e_die "$command not found: install the Debian packages cups cups-client cups-filters ghostscript cmake"
  done
}

# Call first thing with the script's arguments: as root, runs the script
# again inside UTS and mount namespaces of its own, with a private /run and
# a private copy of /etc/hostname and an empty /etc/cups/ssl. A server under
# test that renamed the host (sethostname, /etc/hostname) or left TLS keys
# where libcups keeps root's would then change only the sandbox, and PAPPL's
# local socket (/run/<name>.sock for root) is this test's alone.
# Other users cannot rename the host; their PAPPL socket goes to TMPDIR,
# which the caller points at a folder of its own.
e2e_sandbox() {
  [ "$(id -u)" = 0 ] || return 0
  if [ -z "${E2E_SANDBOXED:-}" ]; then
    command -v unshare >/dev/null || e2e_die "unshare not found (Debian package util-linux)"
    E2E_SANDBOXED=1 exec unshare --uts --mount --propagation private -- bash "$0" "$@"
  fi
  mount -t tmpfs -o mode=0755,size=16m kelvo-test-run /run || e2e_die "cannot mount a private /run"
  if [ -e /etc/hostname ]; then
    cat /etc/hostname >/run/.hostname
    mount --bind /run/.hostname /etc/hostname || e2e_die "cannot make a private /etc/hostname"
  fi
  # libcups keeps root's TLS keys there unless told otherwise.
  if [ -d /etc/cups/ssl ]; then
    mount -t tmpfs -o mode=0755,size=1m kelvo-test-ssl /etc/cups/ssl || e2e_die "cannot make a private /etc/cups/ssl"
  fi
  E2E_HOST_BEFORE="$(hostname) $(cat /etc/hostname 2>/dev/null)"
}

# True while the host name and /etc/hostname are what they were when the
# sandbox was made.
e2e_host_unchanged() {
  [ -z "${E2E_HOST_BEFORE:-}" ] || [ "$(hostname) $(cat /etc/hostname 2>/dev/null)" = "$E2E_HOST_BEFORE" ]
}

# Polls "$@" every 0.2 s until it succeeds or `seconds` have passed.
e2e_poll() {
  local seconds=$1
  shift
  local deadline=$((SECONDS + seconds))
  until "$@"; do
    [ "$SECONDS" -ge "$deadline" ] && return 1
    sleep 0.2
  done
}

# Prepares the scratch folder: the project installed into it with DESTDIR,
# as a person would install it, and a ServerBin of its own that holds links
# to the system's filters and backends plus the project's filter. cupsd runs
# filters as its unprivileged User, which must reach them, so every folder
# on the way is world-readable; running as root, cupsd also refuses filters
# in folders that others may write to.
e2e_init() {
  E2E_ROOT=$1
  local build=$2 filter_dir component
  umask 022
  chmod 755 "$E2E_ROOT"
  mkdir -p "$E2E_ROOT/install"
  for component in filter ppd; do
    DESTDIR="$E2E_ROOT/install" cmake --install "$build" --component "$component" >/dev/null ||
      e2e_die "cmake --install of the $component component failed"
  done
  filter_dir=$(dirname "$(find "$E2E_ROOT/install" -name rastertokelvozpl -type f | head -1)")
  # shellcheck disable=SC2034  # for the scripts that source this
  E2E_PPD_DIR=$(dirname "$(find "$E2E_ROOT/install" -name kelvo203.ppd | head -1)")
  [ -x "$filter_dir/rastertokelvozpl" ] || e2e_die "the install put no filter under $E2E_ROOT/install"
  e2e_init_scheduler "$E2E_ROOT" "$3" "$filter_dir/rastertokelvozpl"
}

# e2e_init_scheduler <scratch-dir> <fakezplprinter> [filter]: the scratch
# folder and ServerBin without installing anything, for queues that need no
# filter of ours (driverless ones).
e2e_init_scheduler() {
  E2E_ROOT=$1
  E2E_FAKE_PRINTER=$2
  local filter=${3:-}
  umask 022
  mkdir -p "$E2E_ROOT"
  chmod 755 "$E2E_ROOT"
  mkdir -p "$E2E_ROOT"/{conf,spool/tmp,cache,state,log,run,out,home}
  chmod 700 "$E2E_ROOT/run"  # the scheduler's socket: ours only

  local system_bin sub f
  system_bin=$(cups-config --serverbin 2>/dev/null || echo /usr/lib/cups)
  mkdir -p "$E2E_ROOT/serverbin/filter"
  for sub in backend cgi-bin daemon driver monitor notifier; do
    if [ -e "$system_bin/$sub" ]; then ln -s "$system_bin/$sub" "$E2E_ROOT/serverbin/$sub"; fi
  done
  for f in "$system_bin"/filter/*; do
    ln -s "$f" "$E2E_ROOT/serverbin/filter/"
  done
  if [ -n "$filter" ]; then ln -sf "$filter" "$E2E_ROOT/serverbin/filter/rastertokelvozpl"; fi

  # The client programs talk to our scheduler only, and read no lpoptions
  # or client.conf of this machine or of its users.
  export CUPS_SERVER=$E2E_ROOT/run/cups.sock
  export CUPS_SERVERROOT=$E2E_ROOT/conf
  export HOME=$E2E_ROOT/home
}

# e2e_start_printer <name> [fakezplprinter options...]: starts a fake ZPL
# printer; its jobs land in out/<name>/. It answers status queries as the
# state named in out/<name>.state says ("ready" to begin with; see kStates
# in fake_zpl_printer.cpp).
e2e_start_printer() {
  local name=$1
  local dir=$E2E_ROOT/out/$name
  mkdir -p "$dir"
  echo ready >"$dir.state"
  "$E2E_FAKE_PRINTER" -d "$dir" -f "$dir.port" -s "$dir.state" -t "$E2E_LIFETIME" "${@:2}" \
    2>>"$E2E_ROOT/log/printer-$name.log" &
  E2E_PRINTER_PID[$name]=$!
  E2E_TAKEN[$name]=0
  e2e_poll 20 test -s "$dir.port" || e2e_die "fake printer $name did not start (log/printer-$name.log)"
  E2E_PORT[$name]=$(cat "$dir.port")
}

e2e_write_config() {
  local conf=$E2E_ROOT/conf
  {
    echo "ServerRoot $conf"
    echo "ServerBin $E2E_ROOT/serverbin"
    echo "DataDir $(cups-config --datadir 2>/dev/null || echo /usr/share/cups)"
    echo "DocumentRoot $E2E_ROOT/state"
    echo "RequestRoot $E2E_ROOT/spool"
    echo "TempDir $E2E_ROOT/spool/tmp"
    echo "CacheDir $E2E_ROOT/cache"
    echo "StateDir $E2E_ROOT/state"
    echo "AccessLog $E2E_ROOT/log/access_log"
    echo "ErrorLog $E2E_ROOT/log/error_log"
    echo "PageLog $E2E_ROOT/log/page_log"
    echo "Printcap $E2E_ROOT/state/printcap"
    echo "FileDevice No"
    if [ "$(id -u)" -eq 0 ]; then
      echo "User lp"
      echo "Group lp"
      echo "SystemGroup root"
    else
      echo "SystemGroup $(id -gn)"
    fi
  } >"$conf/cups-files.conf"
  # No authentication: only we can reach the socket. Job files are kept so
  # that a test can look at what the filter was handed.
  cat >"$conf/cupsd.conf" <<EOF
Listen $E2E_ROOT/run/cups.sock
LogLevel debug
MaxLogSize 0
Browsing No
BrowseLocalProtocols none
DefaultShared No
WebInterface No
DefaultAuthType None
DefaultPaperSize None
ErrorPolicy abort-job
PreserveJobHistory Yes
PreserveJobFiles Yes
JobKillDelay 5
<Location />
  Order allow,deny
  Allow all
</Location>
<Policy default>
  JobPrivateAccess all
  JobPrivateValues none
  SubscriptionPrivateAccess all
  SubscriptionPrivateValues none
  <Limit All>
    Order deny,allow
  </Limit>
</Policy>
EOF
}

e2e_scheduler_running() {
  lpstat -r 2>/dev/null | grep -q "is running"
}

# Starts cupsd in the foreground as a child of this shell.
e2e_start_cupsd() {
  e2e_write_config
  local conf=$E2E_ROOT/conf
  cupsd -t -c "$conf/cupsd.conf" -s "$conf/cups-files.conf" >"$E2E_ROOT/log/cupsd-check.log" 2>&1 ||
    e2e_die "cupsd rejects the configuration: $(cat "$E2E_ROOT/log/cupsd-check.log")"
  timeout -k 10 "$E2E_LIFETIME" cupsd -f -c "$conf/cupsd.conf" -s "$conf/cups-files.conf" \
    >>"$E2E_ROOT/log/cupsd.out" 2>&1 &
  E2E_CUPSD_PID=$!
  e2e_poll 30 e2e_scheduler_running || e2e_die "cupsd did not come up; see $E2E_ROOT/log/error_log"
}

# e2e_add_queue <queue> <ppd> [lpadmin options...]: a queue printing to the
# fake printer of the same name. No SNMP: the fake printer does not answer
# it, and the backend would wait for it on every job.
e2e_add_queue() {
  local queue=$1 ppd=$2
  shift 2
  local uri="socket://127.0.0.1:${E2E_PORT[$queue]}/?snmp=false"
  # lpadmin warns on every PPD that drivers are deprecated; only show its
  # messages when it fails.
  lpadmin -p "$queue" -E -v "$uri" -P "$ppd" "$@" 2>"$E2E_ROOT/log/lpadmin.err" ||
    e2e_die "lpadmin could not add $queue: $(cat "$E2E_ROOT/log/lpadmin.err")"
}

# e2e_print <queue> <file> [lp options...]; prints the job id.
e2e_print() {
  local queue=$1 file=$2 out
  shift 2
  out=$(lp -d "$queue" "$@" -- "$file") || e2e_die "lp refused $file for $queue"
  # "request id is label-3 (1 file(s))"
  out=${out#request id is "$queue"-}
  echo "${out%% *}"
}

e2e_job_done() {
  ! lpstat -W not-completed -o 2>/dev/null | grep -q -- "-$1 "
}

# The two fake printers and their queues, label (kelvo203.ppd) and tattoo
# (kelvotat.ppd), in a running private scheduler.
e2e_start_queues() {
  e2e_start_printer label
  e2e_start_printer tattoo
  e2e_start_cupsd
  e2e_add_queue label "$E2E_PPD_DIR/kelvo203.ppd"
  e2e_add_queue tattoo "$E2E_PPD_DIR/kelvotat.ppd"
}

# Waits until job `id` has left the queue and checks that it completed.
e2e_wait_job() {
  local id=$1 seconds=$2
  e2e_poll "$seconds" e2e_job_done "$id" || e2e_die "job $id not finished after $seconds s"
  e2e_poll 10 grep -q "\[Job $id\] Job completed\." "$E2E_ROOT/log/error_log" ||
    e2e_die "job $id did not complete: $(grep "\[Job $id\]" "$E2E_ROOT/log/error_log" | grep -E '^E |abort|stopped|cancel' | tail -5)"
}

# Sets E2E_OUTPUT to the file of the next job that the fake printer `name`
# received, waiting for it. (Not for $(...): the count must stay in this shell.)
e2e_take_output() {
  local name=$1
  local n=$((E2E_TAKEN[$name] + 1))
  E2E_OUTPUT=$E2E_ROOT/out/$name/job-$n.zpl
  e2e_poll 30 test -e "$E2E_OUTPUT" || e2e_die "printer $name received no job number $n"
  E2E_TAKEN[$name]=$n
}

# Pids of all descendants of `pid`.
e2e_descendants() {
  local child
  for child in $(pgrep -P "$1" 2>/dev/null); do
    echo "$child"
    e2e_descendants "$child"
  done
}

# Stops one process by pid: TERM, then KILL after a grace period.
e2e_stop_pid() {
  local pid=$1
  kill -TERM "$pid" 2>/dev/null || return 0
  local deadline=$((SECONDS + 15))
  while kill -0 "$pid" 2>/dev/null && [ "$SECONDS" -lt "$deadline" ]; do sleep 0.1; done
  kill -KILL "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  return 0
}

# Stops everything this module started, filters and backends that cupsd
# left behind included. Safe to call more than once.
e2e_stop_all() {
  local name pid left
  if [ -n "$E2E_CUPSD_PID" ]; then
    left=$(e2e_descendants "$E2E_CUPSD_PID")
    e2e_stop_pid "$E2E_CUPSD_PID"
    for pid in $left; do kill -KILL "$pid" 2>/dev/null; done
    E2E_CUPSD_PID=""
  fi
  for name in "${!E2E_PRINTER_PID[@]}"; do
    e2e_stop_pid "${E2E_PRINTER_PID[$name]}"
    unset "E2E_PRINTER_PID[$name]"
  done
}

# True when nothing accepts connections on the fake printers' ports or on
# the scheduler's socket any more.
e2e_nothing_listening() {
  local name
  for name in "${!E2E_PORT[@]}"; do
    if (exec 3<>"/dev/tcp/127.0.0.1/${E2E_PORT[$name]}") 2>/dev/null; then return 1; fi
  done
  ! e2e_scheduler_running
}

# Two network namespaces joined by a veth pair, for a server and a client
# that reach each other only over the network, as a phone and a shop's
# server do: the server at 192.0.2.1 in one, the client at 192.0.2.2 in the
# other, nothing else on the link and no route out. Each namespace has a
# D-Bus system bus and an avahi-daemon of its own (sockets under
# <folder>/server and <folder>/client), so multicast DNS stays on the link;
# the client's avahi calls itself kelvo-test-client, the server's takes the
# machine's name. Inside the e2e_sandbox the namespaces' names live on its
# private /run; e2e_netns_down removes them earlier.
#   e2e_netns_up <folder>          # root only
#   e2e_in server|client cmd...    # cmd in that namespace, on its bus
#   "${E2E_IN_SERVER[@]}" cmd &    # the same as a command: $! is cmd's pid
#   e2e_stop_avahi server|client
E2E_NS_ROOT=""
E2E_SERVER_ADDR=192.0.2.1
E2E_CLIENT_ADDR=192.0.2.2
E2E_IN_SERVER=()
E2E_IN_CLIENT=()
declare -A E2E_NS=()       # side -> namespace name
declare -A E2E_NS_PIDS=()  # "<side> bus|avahi" -> pid

e2e_netns_up() {
  E2E_NS_ROOT=$1
  [ "$(id -u)" = 0 ] || e2e_die "network namespaces need root"
  e2e_require ip dbus-daemon avahi-daemon
  E2E_NS[server]=kelvo-s$$
  E2E_NS[client]=kelvo-c$$
  ip netns add "${E2E_NS[server]}" && ip netns add "${E2E_NS[client]}" || e2e_die "ip netns add failed"
  ip link add kelvo-s netns "${E2E_NS[server]}" type veth peer name kelvo-c netns "${E2E_NS[client]}" ||
    e2e_die "cannot make the veth pair"
  local side addr
  for side in server client; do
    addr=$E2E_SERVER_ADDR
    [ "$side" = client ] && addr=$E2E_CLIENT_ADDR
    ip -n "${E2E_NS[$side]}" link set lo up &&
      ip -n "${E2E_NS[$side]}" addr add "$addr/24" dev "kelvo-${side:0:1}" &&
      ip -n "${E2E_NS[$side]}" link set "kelvo-${side:0:1}" up || e2e_die "cannot set up the $side's link"
    mkdir -p "$E2E_NS_ROOT/$side"
    e2e_start_bus "$side"
  done
  E2E_IN_SERVER=(env "DBUS_SYSTEM_BUS_ADDRESS=unix:path=$E2E_NS_ROOT/server/bus" ip netns exec "${E2E_NS[server]}")
  E2E_IN_CLIENT=(env "DBUS_SYSTEM_BUS_ADDRESS=unix:path=$E2E_NS_ROOT/client/bus" ip netns exec "${E2E_NS[client]}")
  e2e_start_avahi server
  e2e_start_avahi client kelvo-test-client
}

e2e_in() {
  local side=$1
  shift
  if [ "$side" = client ]; then "${E2E_IN_CLIENT[@]}" "$@"; else "${E2E_IN_SERVER[@]}" "$@"; fi
}

e2e_start_bus() {
  local side=$1 dir=$E2E_NS_ROOT/$1
  cat >"$dir/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$dir/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
CONF
  timeout -k 5 "$E2E_LIFETIME" ip netns exec "${E2E_NS[$side]}" \
    dbus-daemon --config-file="$dir/bus.conf" --nofork --nopidfile 2>"$dir/bus.log" &
  E2E_NS_PIDS["$side bus"]=$!
  e2e_poll 20 test -S "$dir/bus" || e2e_die "the $side's D-Bus did not start: $(cat "$dir/bus.log")"
}

# e2e_start_avahi <side> [host name]: avahi-daemon on the side's veth only,
# with a /run/avahi-daemon (pid file, socket) of its own.
e2e_start_avahi() {
  local side=$1 name=${2:-} dir=$E2E_NS_ROOT/$1
  {
    echo "[server]"
    [ -n "$name" ] && echo "host-name=$name"
    echo "use-ipv4=yes"
    echo "use-ipv6=no"
    echo "allow-interfaces=kelvo-${side:0:1}"
    echo "enable-dbus=yes"
    echo "[wide-area]"
    echo "enable-wide-area=no"
    echo "[publish]"
    echo "publish-hinfo=no"
    echo "publish-workstation=no"
  } >"$dir/avahi.conf"
  mkdir -p /run/avahi-daemon
  : >"$dir/avahi.log"
  timeout -k 5 "$E2E_LIFETIME" env "DBUS_SYSTEM_BUS_ADDRESS=unix:path=$dir/bus" \
    ip netns exec "${E2E_NS[$side]}" unshare --mount --propagation private -- sh -c \
    'mount -t tmpfs -o size=1m avahi /run/avahi-daemon && exec avahi-daemon -f "$1" --no-drop-root --no-chroot --no-rlimits' \
    sh "$dir/avahi.conf" >"$dir/avahi.log" 2>&1 &
  E2E_NS_PIDS["$side avahi"]=$!
  e2e_poll 20 grep -q "Server startup complete" "$dir/avahi.log" ||
    e2e_die "the $side's avahi-daemon did not start: $(tail -5 "$dir/avahi.log")"
}

e2e_stop_avahi() {
  local key="$1 avahi"
  [ -n "${E2E_NS_PIDS[$key]:-}" ] || return 0
  e2e_stop_tree "${E2E_NS_PIDS[$key]}"
  unset "E2E_NS_PIDS[$key]"
}

# Stops a process and everything it started, by pid.
e2e_stop_tree() {
  local left pid
  left=$(e2e_descendants "$1")
  for pid in $left; do kill -TERM "$pid" 2>/dev/null; done
  e2e_stop_pid "$1"
  for pid in $left; do kill -KILL "$pid" 2>/dev/null; done
  return 0
}

# Stops the daemons (avahi before the buses they use) and removes the
# namespaces. Safe to call more than once.
e2e_netns_down() {
  local side
  for side in server client; do e2e_stop_avahi "$side"; done
  for side in server client; do
    [ -z "${E2E_NS_PIDS[$side bus]:-}" ] || e2e_stop_tree "${E2E_NS_PIDS[$side bus]}"
    unset "E2E_NS_PIDS[$side bus]"
    [ -z "${E2E_NS[$side]:-}" ] || ip netns delete "${E2E_NS[$side]}" 2>/dev/null
    unset "E2E_NS[$side]"
  done
  return 0
}

# Accounts of the test's own, inside the e2e_sandbox only: private copies of
# /etc/passwd, /etc/shadow, /etc/group, /etc/gshadow and /etc/pam.d are
# mounted over the machine's, so users, groups and PAM services the test
# adds vanish with it and the machine's files never change.
#   e2e_private_accounts <folder>
#   e2e_add_group <group>
#   e2e_add_user <user> <password> [group]
#   e2e_add_pam_service <name>      # the stock Debian common-auth/-account
e2e_private_accounts() {
  local dir=$1 file
  [ -n "${E2E_SANDBOXED:-}" ] || e2e_die "private accounts only inside e2e_sandbox"
  mkdir -p "$dir"
  for file in passwd shadow group gshadow; do
    [ -e "/etc/$file" ] || continue
    cp -p "/etc/$file" "$dir/$file"
    mount --bind "$dir/$file" "/etc/$file" || e2e_die "cannot mount a private /etc/$file"
  done
  cp -a /etc/pam.d "$dir/pam.d"
  mount --bind "$dir/pam.d" /etc/pam.d || e2e_die "cannot mount a private /etc/pam.d"
}

e2e_add_group() {
  local gid=$((60000 + $(wc -l </etc/group)))
  echo "$1:x:$gid:" >>/etc/group
  [ -e /etc/gshadow ] && echo "$1:!::" >>/etc/gshadow
  return 0
}

e2e_add_user() {
  local user=$1 password=$2 group=${3:-} uid=$((60000 + $(wc -l </etc/passwd)))
  echo "$user:x:$uid:$uid::/nonexistent:/usr/sbin/nologin" >>/etc/passwd
  echo "$user:$(openssl passwd -6 "$password"):19000:0:99999:7:::" >>/etc/shadow
  echo "$user:x:$uid:" >>/etc/group
  [ -n "$group" ] || return 0
  # In place: the file is a mount point, which sed -i cannot replace.
  local groups
  groups=$(awk -F: -v g="$group" -v u="$user" 'BEGIN {OFS = ":"} $1 == g {$4 = ($4 == "" ? u : $4 "," u)} {print}' /etc/group)
  printf '%s\n' "$groups" >/etc/group
}

e2e_add_pam_service() {
  printf '@include common-auth\n@include common-account\n' >"/etc/pam.d/$1"
}
