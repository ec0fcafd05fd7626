#!/usr/bin/env bash
# Interruption check: starts the demo, the load check and the hostile soak (each
# in a session of its own), signals each at a chosen moment with `kill PID` or,
# as Ctrl-C does, to its process group, and checks that it ends within STOP s and
# leaves no process, network namespace, host veth link, TMPDIR file or changed
# net.core.rmem_max (a load check killed by SIGKILL leaves it raised, and saved
# for the next one's start to put back). A machine whose rmem_max is at least
# 2 MiB has it lowered to the kernel's default for the check. Needs root.
#   tests/interrupt/interrupt_check.sh BUILD
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../../lab/lan/lib.sh"
[ $# -eq 1 ] || die "usage: $0 BUILD"
build=$(cd "$1" && pwd)
root=$(cd "$lab_dir/../.." && pwd)
need_root
STOP=5

# SCRIPT | SIGNAL | SENT BY | MOMENT | after a line matching | and this many s
rows=(
  "demo|INT|kill|LAN being built|^Building a simulated LAN|0"
  "demo|TERM|Ctrl-C|devices starting|^Building a simulated LAN|0.5"
  "demo|TERM|kill|varnock runs|^\\\$ varnock -M|1"
  "demo|INT|Ctrl-C|varnock runs|^\\\$ varnock -M|1.5"
  "demo|INT|kill|clean-up|^}$|0"
  "demo|TERM|Ctrl-C|clean-up|^}$|0"
  "load|TERM|kill|LAN being built|raised to 2097152|1.5"
  "load|INT|kill|varnock runs|devices up in|0.5"
  "load|KILL|kill|varnock runs|devices up in|0.5"
  "load|TERM|kill|the next start|put back to|0.3"
  "soak|INT|kill|hosts starting||1.5"
  "soak|TERM|kill|varnock attacked|^hostile LAN:|2"
)
command_of() {  # SCRIPT: its command line
  case "$1" in
    demo) echo "$root/scripts/demo.sh --build $build" ;;
    load) echo "$root/tests/load/load_check.sh --runs 1 $build" ;;
    soak) echo "$root/tests/soak/hostile_soak.sh --runs 1 --flood 1 $build" ;;
  esac
}

clean_up_on_exit
trap 'trap "" HUP INT TERM; lab_clean_up; [ -z "${rmem0:-}" ] || sysctl -qw net.core.rmem_max="$rmem0"' EXIT
rmem0=$(sysctl -n net.core.rmem_max)
if [ "$rmem0" -ge 2097152 ]; then sysctl -qw net.core.rmem_max=212992; else rmem0=""; fi

host_state() {  # the network namespaces and veth links of the host
  ip netns list
  ls -A /run/netns 2>/dev/null || true
  ip -o link show type veth | cut -d: -f2
}

ended() { ! alive "$1"; }  # PID: whether PID, a child, has ended

inner_ns() {  # PID: the PID namespace of the command that lab/lan/isolated.sh runs as PID, if it runs
  local unshare init
  unshare=$(cat "/proc/$1/task/$1/children" 2>/dev/null || true)
  init=$(cat "/proc/${unshare%% *}/task/${unshare%% *}/children" 2>/dev/null || true)
  [ -n "$init" ] || return 0
  readlink "/proc/${init%% *}/ns/pid" 2>/dev/null | tr -dc 0-9 || true
}

leave() { left+=("$*"); bad=1; }  # TEXT: what a row left, a fault

failures=0
printf '%-5s %-6s %-6s %-16s %-26s %-7s %-6s %s\n' script signal sent moment "(seen running)" stopped status left
for i in "${!rows[@]}"; do
  IFS='|' read -r script sig how moment pattern delay <<<"${rows[i]}"
  log=$work/row$i.log
  export TMPDIR=$work/tmp$i
  mkdir "$TMPDIR"
  [ "${previous:-}" = KILL ] || rmem=$(sysctl -n net.core.rmem_max)
  before=$(host_state)
  # shellcheck disable=SC2046  # the command line is words without blanks
  setsid env --default-signal=INT bash $(command_of "$script") >"$log" 2>&1 &
  pid=$!
  lab_pids+=("$pid")
  end=$((SECONDS + 60))
  until { [ -z "$pattern" ] || grep -Eqs -- "$pattern" "$log"; } || ended "$pid" || [ $SECONDS -ge $end ]; do sleep 0.02; done
  sleep "$delay"
  ns=$(inner_ns "$pid")
  left=() bad=0
  running=$(ps -e -o pidns=,args=)
  ended "$pid" && leave "(ended before the signal)"
  t0=$(date +%s.%N)
  {  # bash notes a child that a SIGKILL ended before its wait
    if [ "$how" = kill ]; then kill -s "$sig" "$pid"; else kill -s "$sig" -- "-$pid"; fi || true
    # What the script was doing, to show the moment hit.
    seen=$(awk -v n="${ns:-x}" '$1 == n' <<<"$running" |
      grep -oE 'lan\.sh (up|down)|/(varnock|varnock-device|varnock-hostile|avahi-daemon) ' | tr -d '/ ' |
      sed 's/lan.sh/lan.sh /' | sort -u | paste -sd, - || true)
    # Polled rather than `wait -n`, which misses a child that bash reaped before it was called.
    for ((k = 0; k < STOP * 50; k++)); do ended "$pid" && break; sleep 0.02; done
    stopped=$(awk -v a="$t0" -v b="$(date +%s.%N)" 'BEGIN { printf "%.2f s", b - a }')
    status=-
    if ended "$pid"; then wait "$pid" && status=0 || status=$?; fi
  } 2>/dev/null
  [ "$status" != - ] || leave "still running after ${STOP}s"
  lab_pids=()
  for _ in $(seq 40); do  # a SIGKILL ends the namespaces a moment later
    mapfile -t procs < <(ps -e -o pid=,sid=,pidns=,comm= | awk -v s="$pid" -v n="${ns:-x}" '$2 == s || $3 == n')
    [ ${#procs[@]} -gt 0 ] || break
    sleep 0.05
  done
  [ ${#procs[@]} -eq 0 ] || leave "processes: $(printf '%s; ' "${procs[@]}")"
  for p in "${procs[@]}"; do kill -KILL "${p%% *}" 2>/dev/null || true; done
  [ "$(host_state)" = "$before" ] || leave "host namespaces or links: $(diff <(echo "$before") <(host_state) | grep '^>')"
  tmpfiles=$(ls -A "$TMPDIR")
  now=$(sysctl -n net.core.rmem_max)
  if [ "$sig" = KILL ]; then
    saved=$(cat /run/varnock/load-check.rmem_max 2>/dev/null || true)
    left+=("as after any SIGKILL: rmem_max $now (saved: $saved), files: ${tmpfiles//$'\n'/ }")
    { [ "$now" = 2097152 ] && [ "$saved" = "$rmem" ]; } || bad=1
  else
    [ -z "$tmpfiles" ] || leave "files: ${tmpfiles//$'\n'/ }"
    [ "$now" = "$rmem" ] || leave "rmem_max $now, was $rmem"
  fi
  rm -rf "$TMPDIR"
  previous=$sig
  if [ "$bad" = 1 ]; then
    failures=$((failures + 1))
    tail -n 5 "$log" | sed 's/^/  | /'
  fi
  [ ${#left[@]} -gt 0 ] || left=(nothing)
  printf '%-5s %-6s %-6s %-16s %-26s %-7s %-6s %s\n' "$script" "$sig" "$how" "$moment" "(${seen:--})" "$stopped" \
    "$status" "${left[*]}"
done
echo "interrupt_check: $((${#rows[@]} - failures)) of ${#rows[@]} rows passed"
[ "$failures" -eq 0 ]
