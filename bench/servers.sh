# shellcheck shell=bash
# What the benches that start servers share: a scratch folder, the pids of
# what they start (each stopped by its pid at the end), a free port, and
# polling. Sourced from the project's root:
#   . bench/servers.sh <name>     sets `work` and `pids`; KELVO_BENCH_KEEP keeps `work`
work=$(mktemp -d "/tmp/$1.XXXXXX")
pids=()
bench_finish() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [ -n "${KELVO_BENCH_KEEP:-}" ]; then echo "kept $work" >&2; else rm -rf "$work"; fi
}
trap bench_finish EXIT

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
# Polls "$@" every 0.1 s, up to 10 s.
wait_for() {
  local i
  for i in $(seq 100); do "$@" && return 0; sleep 0.1; done
  return 1
}
