#!/usr/bin/env bash
# The lab's shell library: every helper that the scripts building or using the
# simulated LAN share, each in one place. Scripts source it first thing:
#   source "$(dirname "$0")/../lab/lan/lib.sh"
# Programs that are not shell scripts run one helper as a command:
#   lab/lan/lib.sh HELPER ARGS...
# VARNOCK_WAIT: seconds a wait (for hosts to print "ready", for a port) may go
# without progress before it fails; 60 by default.

lab_abs() { case "$1" in /*) echo "$1" ;; *) echo "$PWD/$1" ;; esac; }
lab_dir=$(lab_abs "${BASH_SOURCE[0]%/*}")
[[ ${BASH_SOURCE[0]} == */* ]] || lab_dir=$PWD
lab_self=$(lab_abs "$0")
lab_name=${0##*/}
lab_name=${lab_name%.sh}
lan_sh=$lab_dir/lan.sh
VARNOCK_WAIT=${VARNOCK_WAIT:-60}

die() { echo "$lab_name: $*" >&2; exit 2; }

# --- root and isolation

have_root() { [ "$(id -u)" -eq 0 ]; }

need_root() {  # exits 77 ("not run") unless root
  have_root && return 0
  echo "$lab_name: needs root to build the simulated LAN; not run" >&2
  exit 77
}

isolate() {  # ARGS...: runs the calling script again with ARGS inside lab/lan/isolated.sh, unless it runs there already
  [ -n "${VARNOCK_ISOLATED:-}" ] || exec "$lab_dir/isolated.sh" bash "$lab_self" "$@"
}

# --- names and addresses of the LAN's nodes

lan_ns() {  # LAN NODE: the namespace of a node (finder, br or dHOST)
  case "$2" in
    finder) echo "$1-f" ;;
    br) echo "$1-br" ;;
    d[0-9]*) echo "$1-$2" ;;
    *) die "unknown node '$2' (finder, br or dHOST)" ;;
  esac
}

host_usable() {  # HOST: a host number of a LAN, whose address ends in neither .0 nor .255
  [[ "$1" =~ ^[0-9]+$ ]] && [ "$1" -ge 1 ] && [ "$1" -le 4094 ] && [ $(($1 % 256)) -ne 0 ] &&
    [ $(($1 % 256)) -ne 255 ]
}

host_list() {  # COUNT [FIRST]: COUNT usable host numbers from FIRST (2) on
  local n=$1 h=${2:-2}
  while [ "$n" -gt 0 ]; do
    if host_usable "$h"; then echo "$h"; n=$((n - 1)); fi
    h=$((h + 1))
  done
}

host_addr() {  # NET HOST...: the address of each host number, A.B.(C + H / 256).(H % 256) of NET A.B.C
  local a b c h
  IFS=. read -r a b c <<<"$1"
  for h in "${@:2}"; do echo "$a.$b.$((c + h / 256)).$((h % 256))"; done
}

host_mac() {  # HOST: locally administered, 02:76:6b ("vk") and the host number
  printf '02:76:6b:00:%02x:%02x\n' $(($1 / 256)) $(($1 % 256))
}

host_link_local() {  # HOST: the EUI-64 link-local address of host_mac
  printf 'fe80::76:6bff:fe00:%x\n' "$1"
}

# --- starting, stopping and clean-up

lab_pids=()
lab_lans=()
work=""

clean_up_on_exit() {  # makes $work; at exit, by a signal too, stops what was started here, takes the LANs down, removes $work
  # A signal's trap may not cut the clean-up short: its first step ignores them.
  trap 'trap "" HUP INT TERM; lab_clean_up' EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 143' TERM
  work=$(mktemp -d -t "varnock-$lab_name.XXXXXX")
}

lab_clean_up() {  # runs to its end: signals are ignored, by what it runs too
  trap '' HUP INT TERM
  local lan
  stop_started
  for lan in "${lab_lans[@]}"; do "$lan_sh" down "$lan" 2>/dev/null || true; done
  [ -z "$work" ] || rm -rf "$work"
}

alive() { grep -qs '^State:[[:space:]]*[^Z[:space:]]' "/proc/$1/status"; }  # PID: runs, and is no zombie

stop_started() {  # TERM every process started by start_in or start_responder that still runs, by PID; waits for them
  local live=() pid running
  running=" $(jobs -p | tr '\n' ' ') "
  for pid in "${lab_pids[@]}"; do [[ $running != *" $pid "* ]] || live+=("$pid"); done
  lab_pids=()
  [ ${#live[@]} -gt 0 ] || return 0
  kill -TERM "${live[@]}" 2>/dev/null || true
  wait "${live[@]}" 2>/dev/null || true
}

lan_up() {  # LAN ARGS...: lan.sh up; the LAN is taken down on exit
  lab_lans+=("$1")
  "$lan_sh" up "$@"
}

lan_down() {  # LAN: stops what was started, takes the LAN down
  stop_started
  "$lan_sh" down "$1"
}

in_node() {  # LAN NODE COMMAND...: runs COMMAND in the node
  "$lan_sh" exec "$1" "$2" -- "${@:3}"
}

start_in() {  # LAN NODE LOG COMMAND...: COMMAND in the node in the background, output to LOG; its PID in $!
  "$lan_sh" exec "$1" "$2" -- "${@:4}" >"$3" 2>&1 &
  lab_pids+=($!)
}

start_responder() {  # LAN HOST NAME LOG: an mDNS responder in dHOST that announces NAME (lab/hosts/mdns-responder.sh)
  "$lab_dir/../hosts/mdns-responder.sh" "$1" "d$2" "$3" >"$4" 2>&1 &
  lab_pids+=($!)
}

# --- waiting

wait_ready() {  # FILE...: until each FILE holds a line "ready", which every host program of the lab prints once it serves
  local left=("$@") next f end=$((SECONDS + VARNOCK_WAIT))
  while [ ${#left[@]} -gt 0 ]; do
    mapfile -t next < <(grep -Lxs ready -- "${left[@]}" || true)
    for f in "${left[@]}"; do [ -e "$f" ] || next+=("$f"); done
    [ ${#next[@]} -lt ${#left[@]} ] && end=$((SECONDS + VARNOCK_WAIT))
    left=("${next[@]}")
    [ ${#left[@]} -gt 0 ] || return 0
    if [ "$SECONDS" -ge "$end" ]; then
      echo "$lab_name: ${#left[@]} host(s) not ready after ${VARNOCK_WAIT}s (VARNOCK_WAIT), ${left[0]}:" >&2
      tail -n 5 "${left[0]}" >&2 2>/dev/null || true
      return 1
    fi
    sleep 0.1
  done
}

wait_text() {  # FILE TEXT: until FILE holds TEXT
  local end=$((SECONDS + VARNOCK_WAIT))
  until grep -qsF -- "$2" "$1"; do
    if [ "$SECONDS" -ge "$end" ]; then
      echo "$lab_name: '$2' not in $1 after ${VARNOCK_WAIT}s (VARNOCK_WAIT)" >&2
      return 1
    fi
    sleep 0.1
  done
}

wait_port() {  # LAN NODE tcp|udp PORT: until the port is bound in the node
  local flag=-ltnH end=$((SECONDS + VARNOCK_WAIT))
  [ "$3" = udp ] && flag=-lunH
  until [ -n "$(in_node "$1" "$2" ss "$flag" "sport = :$4")" ]; do
    if [ "$SECONDS" -ge "$end" ]; then
      echo "$lab_name: $3 port $4 not bound in $2 after ${VARNOCK_WAIT}s (VARNOCK_WAIT)" >&2
      return 1
    fi
    sleep 0.05
  done
}

# --- kernel counters

snmp_counters() {  # "PROTO:KEY..." FILE...: per FILE in /proc/net/snmp's format, a line of FILE and the values
  awk -v keys="$1" '
    function flush(  line, i) {
      if (file == "") return
      line = file
      for (i = 1; i <= n; i++) line = line " " ((k[i] in v) ? v[k[i]] : "-")
      print line
    }
    BEGIN { n = split(keys, k, " ") }
    FNR == 1 { flush(); file = FILENAME; split("", v); split("", seen) }
    {
      p = substr($1, 1, length($1) - 1)
      if (p in seen) { for (i = 2; i <= NF; i++) v[p ":" h[p, i]] = $i }
      else { seen[p] = 1; for (i = 2; i <= NF; i++) h[p, i] = $i }
    }
    END { flush() }' "${@:2}"
}

node_counters() {  # LAN NODE "PROTO:KEY...": the values in the node's namespace
  in_node "$1" "$2" cat /proc/net/snmp | snmp_counters "$3" - | cut -d' ' -f2-
}

pid_counters() {  # "PROTO:KEY...": for each "NAME PID" line on stdin, NAME and the values in PID's namespace
  local name pid names=() files=()
  while read -r name pid; do
    [ -r "/proc/$pid/net/snmp" ] || continue
    names+=("$name")
    files+=("/proc/$pid/net/snmp")
  done
  [ ${#files[@]} -gt 0 ] || return 0
  paste -d' ' <(printf '%s\n' "${names[@]}") <(snmp_counters "$1" "${files[@]}" | cut -d' ' -f2-)
}

backlog_drops() {  # packets the kernel dropped from its per-CPU receive backlogs, all namespaces
  local total=0 dropped rest
  while read -r _ dropped rest; do total=$((total + 16#$dropped)); done </proc/net/softnet_stat
  echo "$total"
}

# --- the load LAN: many devices, and runs of the whole tool in its finder

# The device-type names of MORL service types 0 to 4, as varnock prints them: the shell's one
# copy, checked against the product's by tests/morl/DeviceTypeNamesTest.cpp.
device_types=(extender_dorn extender_brask pallor_module extender_quin extender_fell)

load_site_size=500

load_site() {  # KIND HOST...: the site file of HOST... (KIND MORL or MDNS); their lines of $work/expected
  local kind=$1 h sep="" node=d$2 file=$work/site-d$2.json
  shift
  if [ "$kind" = MORL ]; then
    echo '{"defaults": {"http": false, "mdns": false}, "devices": [' >"$file"
  else
    echo '{"defaults": {"morl": false, "services": ["2:1"]}, "devices": [' >"$file"
  fi
  for h in "$@"; do
    if [ "$kind" = MORL ]; then
      printf '%s{"address": "%s", "name": "morl-%s", "software-version": "1.%s", "services": ["%s:1"]}\n' \
        "$sep" "$(host_addr 10.0.0 "$h")" "$h" "$h" $((h % 5)) >>"$file"
      echo "$(host_addr 10.0.0 "$h") morl-$h 1.$h ${device_types[h % 5]} MORL $node" >>"$work/expected"
    else
      printf '%s{"address": "%s", "name": "http-%s", "software-version": "2.%s"}\n' \
        "$sep" "$(host_addr 10.0.0 "$h")" "$h" "$h" >>"$file"
      echo "$(host_addr 10.0.0 "$h") http-$h 2.$h ${device_types[2]} mDNS+HTTP $node" >>"$work/expected"
    fi
    sep=,
  done
  echo ']}' >>"$file"
}

load_lan_up() {  # LAN BUILD MORL MDNS: builds the LAN and starts its devices, until every one is ready
  # MORL devices from host 2 on, then mDNS/HTTP devices, as sites of up to
  # load_site_size addresses: a node and one `varnock-device --site` each, the
  # MORL sites without HTTP and mDNS, the others without MORL. Writes
  # $work/expected ("ADDR NAME VERSION TYPE METHOD NODE" a device) and
  # $work/pids ("NODE PID" a site).
  local lan=$1 build=$2 morl=$3 mdns=$4 hosts i n sites=() logs=() site node
  mapfile -t hosts < <(host_list $((morl + mdns)))
  : >"$work/pids"
  : >"$work/expected"
  for ((i = 0; i < morl + mdns; i += n)); do
    n=$load_site_size
    if [ "$i" -lt "$morl" ]; then
      [ $((morl - i)) -ge "$n" ] || n=$((morl - i))
      load_site MORL "${hosts[@]:i:n}"
    else
      [ $((morl + mdns - i)) -ge "$n" ] || n=$((morl + mdns - i))
      load_site MDNS "${hosts[@]:i:n}"
    fi
    sites+=("$(IFS=,; echo "${hosts[*]:i:n}")")
  done
  lan_up "$lan" "${sites[@]}" >/dev/null
  for site in "${sites[@]}"; do
    node=d${site%%,*}
    start_in "$lan" "$node" "$work/$node.log" "$build/device/varnock-device" --site "$work/site-$node.json"
    echo "$node $!" >>"$work/pids"
    logs+=("$work/$node.log")
  done
  wait_ready "${logs[@]}"
}

load_run() {  # LAN BUILD RUN: one `varnock -M 1 -T 1 --json` in the finder
  # Prints "WALL USER SYS RSS-KIB THREADS LISTED MISSED FINDER-RCVBUF-DROPS
  # BACKLOG-DROPS"; appends each device missed, with the kernel counters that
  # say where it was lost, to $work/missed; standard error to $work/err.
  local lan=$1 build=$2 run=$3 keys="Udp:InDatagrams Udp:RcvbufErrors Udp:OutDatagrams Tcp:PassiveOpens"
  local f0 f1 s0 s1 runner sampler wall user sys rss listed missed=0 ip name version type method node
  f0=$(node_counters "$lan" finder Udp:RcvbufErrors)
  pid_counters "$keys" <"$work/pids" >"$work/c0"
  s0=$(backlog_drops)
  in_node "$lan" finder /usr/bin/time -f "%e %U %S %M" -o "$work/time" \
    "$build/app/varnock" -M 1 -T 1 --json >"$work/out.json" 2>"$work/err" &
  runner=$!
  python3 "$lab_dir/peak-threads.py" "$runner" >"$work/peak" &
  sampler=$!
  wait "$runner" || true
  wait "$sampler" || true
  f1=$(node_counters "$lan" finder Udp:RcvbufErrors)
  pid_counters "$keys" <"$work/pids" >"$work/c1"
  s1=$(backlog_drops)
  read -r wall user sys rss < <(tail -n 1 "$work/time")
  listed=$(python3 -c '
import json, sys
for d in json.load(open(sys.argv[1]))["devices"]: print(d["ip"], d["name"], d["version"], d["device_type"])' \
    "$work/out.json" 2>/dev/null || true)
  while read -r ip name version type method node; do
    grep -qx "$ip $name $version $type" <<<"$listed" && continue
    missed=$((missed + 1))
    local a0 b0 o0 p0 a1 b1 o1 p1
    read -r _ a0 b0 o0 p0 < <(grep "^$node " "$work/c0") || true
    read -r _ a1 b1 o1 p1 < <(grep "^$node " "$work/c1") || true
    echo "run $run: $ip ($method) missed; its site $node: UDP in +$((a1 - a0)), receive-buffer drops" \
      "+$((b1 - b0)), out +$((o1 - o0)), TCP connections accepted +$((p1 - p0)); finder's" \
      "receive-buffer drops +$((f1 - f0)); kernel backlog drops +$((s1 - s0))" >>"$work/missed"
  done <"$work/expected"
  echo "$wall $user $sys $rss $(cat "$work/peak") $(grep -c . <<<"$listed") $missed $((f1 - f0)) $((s1 - s0))"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  set -euo pipefail
  { [ $# -ge 1 ] && declare -F "$1" >/dev/null; } || die "usage: lib.sh HELPER ARGS..."
  "$@"
fi
