#!/usr/bin/env bash
# Runs a command in fresh mount and PID namespaces with a private /run/netns,
# so every network namespace and process it leaves behind vanishes with it,
# even when it is killed. Without root it runs the command as it is (tests that
# need the simulated LAN then skip themselves). Scripts run themselves here
# through lib.sh's isolate; VARNOCK_ISOLATED tells them they are inside.
#   isolated.sh COMMAND...
# SIGINT, SIGTERM or SIGHUP to this script (`kill PID`) reaches every process
# of the command once, as Ctrl-C reaches a terminal's foreground processes; the
# script ends when the command has cleaned up and ended, and whatever it left
# gets SIGTERM, then SIGKILL. The command runs in a session of its own, so a
# Ctrl-C reaches it through this script only. SIGKILL to this script ends the
# namespaces at once.
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/lib.sh"
if ! have_root || ! command -v unshare >/dev/null; then exec "$@"; fi

wait_for() {  # PID: until PID, a child, has ended, whatever signals come meanwhile; its status in $status
  status=0
  while kill -0 "$1" 2>/dev/null; do wait "$1" && status=0 || status=$?; done
}

# shellcheck disable=SC2317  # the traps call stop and forward
# Only as PID 1 of the new namespace: there kill -1 reaches its processes alone.
if [ "${1:-}" = --init ] && [ $$ -eq 1 ]; then
  # The namespaces' first process: passes the first signal to every other one.
  shift
  stopping=""
  stop() { [ -n "$stopping" ] || { stopping=$1; kill -s "$1" -1 2>/dev/null || true; }; }
  trap 'stop INT' INT
  trap 'stop TERM' TERM
  trap 'stop HUP' HUP
  # Started asynchronously, the command would ignore SIGINT and read /dev/null.
  env --default-signal=INT,QUIT "$@" 0<&0 &
  wait_for $!
  # What the command left gets SIGTERM and up to 2 s before the namespace ends.
  kill -TERM -1 2>/dev/null || true
  for _ in $(seq 20); do
    kill -0 -1 2>/dev/null || break
    sleep 0.1
  done
  exit "$status"
fi

mkdir -p /run/netns
export VARNOCK_ISOLATED=1
# When this script ends, unshare gets SIGKILL, and passes it to its child. As in
# --init, SIGINT is not ignored and standard input is this script's.
# shellcheck disable=SC2016  # the inner shell expands them
env --default-signal=INT,QUIT setpriv --pdeathsig KILL \
  unshare --mount --pid --fork --kill-child --mount-proc -- sh -c \
  'mount --make-rprivate / && mount -t tmpfs -o size=1m varnock-netns /run/netns && exec setsid bash "$0" --init "$@"' \
  "$lab_dir/isolated.sh" "$@" 0<&0 &
ns=$!

# shellcheck disable=SC2317
forward() {  # SIGNAL: to the namespaces' first process, once that handles SIGNAL
  local init mask bit=$((1 << ($(kill -l "$1") - 1)))
  while kill -0 "$ns" 2>/dev/null; do
    init=$(cat "/proc/$ns/task/$ns/children" 2>/dev/null || true)
    init=${init%% *}
    mask=$(sed -n 's/^SigCgt:\s*//p' "/proc/${init:-0}/status" 2>/dev/null || true)
    if [ -n "$mask" ] && ((16#$mask & bit)); then kill -s "$1" "$init" 2>/dev/null || true; return 0; fi
    sleep 0.02
  done
}
trap 'forward INT' INT
trap 'forward TERM' TERM
trap 'forward HUP' HUP
wait_for "$ns"
exit "$status"
