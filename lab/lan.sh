#!/usr/bin/env bash
# A simulated LAN of Linux network namespaces: a bridge in a namespace of its
# own, one "finder" node and any number of device nodes, each joined to the
# bridge by a veth pair. No link, address or process of the LAN ever exists in
# the machine's own namespace. Needs root.
#
#   lan.sh up LAN [--net A.B.C] [--finder HOST] HOST...   create; HOST = host number
#   lan.sh down LAN                                       kill its processes, remove it
#   lan.sh exec LAN NODE -- COMMAND...                    run in a node (finder, dHOST, br)
#   lan.sh ns LAN NODE                                    the namespace name of a node
#   lan.sh ip LAN HOST                                    the address of a host number
#
# Host numbers run from 1 to 254 on a /24 (A.B.C.HOST); with any host above 254
# the LAN is a /23 and host H > 255 becomes A.B.(C+1).(H-256).
set -euo pipefail

die() { echo "lan.sh: $*" >&2; exit 2; }

ns_of() {  # LAN NODE
  case "$2" in
    finder) echo "$1-f" ;;
    br) echo "$1-br" ;;
    d[0-9]*) echo "$1-$2" ;;
    *) die "unknown node '$2' (finder, br or dHOST)" ;;
  esac
}

addr_of() {  # NET HOST
  local a b c h=$2
  IFS=. read -r a b c <<<"$1"
  if [ "$h" -ge 256 ]; then echo "$a.$b.$((c + 1)).$((h - 256))"; else echo "$a.$b.$c.$h"; fi
}

lan_namespaces() {  # LAN: every namespace of the LAN, bridge last
  ip netns list | awk '{print $1}' | grep -E "^$1-(f|d[0-9]+)\$" || true
  ip netns list | awk '{print $1}' | grep -E "^$1-br\$" || true
}

cmd_down() {
  local lan=$1 ns pids
  local all
  all=$(lan_namespaces "$lan")
  for ns in $all; do
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    [ -n "$pids" ] && kill -TERM $pids 2>/dev/null || true
  done
  for ns in $all; do
    for _ in 1 2 3 4 5 6 7 8 9 10; do
      pids=$(ip netns pids "$ns" 2>/dev/null || true)
      [ -z "$pids" ] && break
      sleep 0.1
    done
    [ -n "$pids" ] && kill -KILL $pids 2>/dev/null || true
  done
  for ns in $all; do ip netns del "$ns" 2>/dev/null || true; done
}

add_node() {  # LAN BRNS NODE ADDR PLEN
  local ns
  ns=$(ns_of "$1" "$3")
  ip netns add "$ns"
  # Link-local IPv6 must be usable at once: without this it stays tentative for
  # about a second and multicast sends to ff02::fb fail.
  nsenter --net="/run/netns/$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 \
    net.ipv6.conf.default.accept_dad=0 >/dev/null
  echo "link add $3 type veth peer name eth0 netns $ns" >>"$tmp/br.batch"
  echo "link set $3 master br0 up" >>"$tmp/br.batch2"
  # The default route lets the limited broadcast and the mDNS multicast out of eth0.
  printf 'link set lo up\naddr add %s/%s broadcast + dev eth0\nlink set eth0 up\nroute add default dev eth0\n' \
    "$4" "$5" >"$tmp/$3.batch"
}

cmd_up() {
  local lan=$1; shift
  local net=10.0.0 finder=1 hosts=() h plen=24
  while [ $# -gt 0 ]; do
    case "$1" in
      --net) net=$2; shift 2 ;;
      --finder) finder=$2; shift 2 ;;
      *) hosts+=("$1"); shift ;;
    esac
  done
  [ "$(id -u)" -eq 0 ] || die "needs root"
  [ ${#lan} -le 10 ] || die "LAN name too long: $lan"
  [ -z "$(lan_namespaces "$lan")" ] || die "LAN $lan exists already"
  for h in "$finder" "${hosts[@]}"; do
    [[ "$h" =~ ^[0-9]+$ ]] && [ "$h" -ge 1 ] && [ "$h" -le 510 ] && [ "$h" -ne 255 ] && [ "$h" -ne 256 ] ||
      die "bad host number $h"
    [ "$h" -gt 254 ] && plen=23
  done
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"; [ "${ok:-0}" = 1 ] || cmd_down "$lan"' EXIT
  : >"$tmp/br.batch"; : >"$tmp/br.batch2"
  local br="$lan-br"
  ip netns add "$br"
  ip -n "$br" link set lo up
  ip -n "$br" link add br0 type bridge stp_state 0 forward_delay 0
  ip -n "$br" link set br0 up
  add_node "$lan" "$br" finder "$(addr_of "$net" "$finder")" "$plen"
  for h in "${hosts[@]}"; do add_node "$lan" "$br" "d$h" "$(addr_of "$net" "$h")" "$plen"; done
  ip -n "$br" -batch "$tmp/br.batch"
  ip -n "$br" -batch "$tmp/br.batch2"
  ip -n "$(ns_of "$lan" finder)" -batch "$tmp/finder.batch"
  for h in "${hosts[@]}"; do ip -n "$(ns_of "$lan" "d$h")" -batch "$tmp/d$h.batch"; done
  ok=1
}

[ $# -ge 1 ] || die "usage: lan.sh up|down|exec|ns|ip LAN ..."
verb=$1; shift
case "$verb" in
  up) [ $# -ge 1 ] || die "usage: lan.sh up LAN [--net A.B.C] [--finder HOST] HOST..."; cmd_up "$@" ;;
  down) [ $# -eq 1 ] || die "usage: lan.sh down LAN"; cmd_down "$1" ;;
  exec)
    [ $# -ge 4 ] && [ "$3" = "--" ] || die "usage: lan.sh exec LAN NODE -- COMMAND..."
    ns=$(ns_of "$1" "$2"); shift 3
    [ -e "/run/netns/$ns" ] || die "no namespace $ns"
    exec ip netns exec "$ns" "$@"
    ;;
  ns) ns_of "$1" "$2" ;;
  ip) addr_of "${3:-10.0.0}" "$2" ;;
  *) die "unknown command $verb" ;;
esac
