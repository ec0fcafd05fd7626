#!/usr/bin/env bash
# A simulated LAN of Linux network namespaces: a bridge in a namespace of its
# own (a chain of them past 500 nodes), one "finder" node and any number of
# device nodes, each joined to the bridge by a veth pair. No link, address or
# process of the LAN ever exists in the machine's own namespace. Needs root.
#
#   lan.sh up LAN [--net A.B.C] [--finder HOST] [--prefix LEN] HOST...
#                                                         create; HOST = host number
#   lan.sh down LAN                                       kill its processes, remove it
#   lan.sh exec LAN NODE -- COMMAND...                    run in a node (finder, dHOST, br)
#   lan.sh ns LAN NODE                                    the namespace name of a node
#   lan.sh ip LAN HOST [A.B.C]                            the address of a host number
#   lan.sh mac HOST                                       the MAC address of a host number
#
# Host H is A.B.(C + H / 256).(H % 256); host numbers whose last byte would be
# 0 or 255 are refused. The subnet is the smallest from /24 to /20 that holds
# every host (up to 4094), or a larger /LEN when given (for address ranges
# beyond the nodes); A.B.C must start it. HOST,HOST,... is a site: one node
# (named after its first host) that holds the addresses of all those hosts, so
# that one process can be every device of it (`varnock-device --site`).
#
# The neighbour (ARP) table is one per kernel, shared by every namespace, and
# holds 1024 dynamic entries by default; a LAN of a thousand devices answering
# the finder by unicast would overflow it. So every node has a fixed MAC
# (`lan.sh mac`), the finder a permanent entry for every device, and every
# device one for the finder (IPv4 and the finder's IPv6 link-local address):
# permanent entries are not counted against that limit, and nobody has to
# resolve anybody on the finder's account.
set -euo pipefail

# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/lib.sh"

lan_namespaces() {  # LAN: every namespace of the LAN, bridge last
  ip netns list | awk '{print $1}' | grep -E "^$1-(f|d[0-9]+)\$" || true
  ip netns list | awk '{print $1}' | grep -E "^$1-br\$" || true
}

cmd_down() {
  local ns pids all
  mapfile -t all < <(lan_namespaces "$1")
  for ns in "${all[@]}"; do
    mapfile -t pids < <(ip netns pids "$ns" 2>/dev/null || true)
    [ ${#pids[@]} -eq 0 ] || kill -TERM "${pids[@]}" 2>/dev/null || true
  done
  for ns in "${all[@]}"; do
    for _ in 1 2 3 4 5 6 7 8 9 10; do
      mapfile -t pids < <(ip netns pids "$ns" 2>/dev/null || true)
      [ ${#pids[@]} -gt 0 ] || break
      sleep 0.1
    done
    [ ${#pids[@]} -eq 0 ] || kill -KILL "${pids[@]}" 2>/dev/null || true
  done
  for ns in "${all[@]}"; do ip netns del "$ns" 2>/dev/null || true; done
}

add_node() {  # LAN BRNS NODE HOST ADDR PLEN
  local ns
  ns=$(lan_ns "$1" "$3")
  ip netns add "$ns"
  # Link-local IPv6 must be usable at once: without this it stays tentative for
  # about a second and multicast sends to ff02::fb fail. No router ever
  # answers here, and every node would keep soliciting one: on a LAN of a
  # thousand nodes those multicasts, each copied to every port, overflow the
  # kernel's per-CPU receive backlog (net.core.netdev_max_backlog) and it
  # drops the LAN's other packets with them.
  nsenter --net="/run/netns/$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 \
    net.ipv6.conf.default.accept_dad=0 net.ipv6.conf.default.router_solicitations=0 >/dev/null
  echo "link add $3 type veth peer name eth0 netns $ns address $(host_mac "$4")" >>"$tmp/br.batch"
  # Every 500 nodes get a bridge of their own: a bridge takes at most 1023
  # ports, and it copies a broadcast to all of them at once into the per-CPU
  # receive backlog, which holds 1000 packets (net.core.netdev_max_backlog).
  echo "link set $3 master br$((nodes / 500)) up" >>"$tmp/br.batch2"
  nodes=$((nodes + 1))
  # The default route lets the limited broadcast and the mDNS multicast out of eth0.
  printf 'link set lo up\naddr add %s/%s broadcast + dev eth0\nlink set eth0 up\nroute add default dev eth0\n' \
    "$5" "$6" >"$tmp/$3.batch"
}

neighbour() {  # NODE ADDR HOST: a permanent neighbour entry in NODE's batch
  echo "neigh replace $2 lladdr $(host_mac "$3") dev eth0 nud permanent" >>"$tmp/$1.batch"
}

cmd_up() {
  local lan=$1; shift
  local net=10.0.0 finder=1 groups=() hosts=() h plen=24 top=0 given="" site first members
  while [ $# -gt 0 ]; do
    case "$1" in
      --net) net=$2; shift 2 ;;
      --finder) finder=$2; shift 2 ;;
      --prefix) given=$2; shift 2 ;;
      *) groups+=("$1"); IFS=, read -r -a members <<<"$1"; hosts+=("${members[@]}"); shift ;;
    esac
  done
  need_root
  [ ${#lan} -le 10 ] || die "LAN name too long: $lan"
  [ -z "$(lan_namespaces "$lan")" ] || die "LAN $lan exists already"
  for h in "$finder" "${hosts[@]}"; do
    host_usable "$h" || die "bad host number $h"
    [ "$h" -gt "$top" ] && top=$h
  done
  while [ "$top" -ge $((1 << (32 - plen))) ]; do plen=$((plen - 1)); done
  if [ -n "$given" ]; then
    { [[ "$given" =~ ^[0-9]+$ ]] && [ "$given" -ge 20 ] && [ "$given" -le "$plen" ]; } ||
      die "--prefix must be 20 to $plen for these hosts"
    plen=$given
  fi
  [ $((${net##*.} % (1 << (24 - plen)))) -eq 0 ] || die "$net.0 does not start a /$plen"
  building=$lan tmp=""
  trap '[ -z "$tmp" ] || rm -rf "$tmp"; [ "${ok:-0}" = 1 ] || cmd_down "$building"' EXIT
  tmp=$(mktemp -d -t varnock-lan.XXXXXX)
  : >"$tmp/br.batch"; : >"$tmp/br.batch2"
  local br b
  br=$(lan_ns "$lan" br)
  ip netns add "$br"
  # The bridges and their ports need no addresses of their own.
  nsenter --net="/run/netns/$br" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 \
    net.ipv6.conf.default.disable_ipv6=1 >/dev/null
  ip -n "$br" link set lo up
  # The bridges in a chain, one broadcast domain.
  for b in $(seq 0 $((${#groups[@]} / 500))); do
    ip -n "$br" link add "br$b" type bridge stp_state 0 forward_delay 0
    ip -n "$br" link set "br$b" up
    [ "$b" -eq 0 ] && continue
    ip -n "$br" link add "up$b" type veth peer name "down$b"
    ip -n "$br" link set "up$b" master "br$((b - 1))" up
    ip -n "$br" link set "down$b" master "br$b" up
  done
  nodes=0
  add_node "$lan" "$br" finder "$finder" "$(host_addr "$net" "$finder")" "$plen"
  for site in "${groups[@]}"; do
    first=${site%%,*}
    add_node "$lan" "$br" "d$first" "$first" "$(host_addr "$net" "$first")" "$plen"
    neighbour "d$first" "$(host_addr "$net" "$finder")" "$finder"
    neighbour "d$first" "$(host_link_local "$finder")" "$finder"
    IFS=, read -r -a members <<<"$site"
    for h in "${members[@]}"; do
      [ "$h" = "$first" ] ||
        echo "addr add $(host_addr "$net" "$h")/$plen broadcast + dev eth0" >>"$tmp/d$first.batch"
      neighbour finder "$(host_addr "$net" "$h")" "$first"
    done
  done
  ip -n "$br" -batch "$tmp/br.batch"
  ip -n "$br" -batch "$tmp/br.batch2"
  ip -n "$(lan_ns "$lan" finder)" -batch "$tmp/finder.batch"
  for site in "${groups[@]}"; do ip -n "$(lan_ns "$lan" "d${site%%,*}")" -batch "$tmp/d${site%%,*}.batch"; done
  ok=1
}

[ $# -ge 1 ] || die "usage: lan.sh up|down|exec|ns|ip|mac ..."
verb=$1; shift
case "$verb" in
  up) [ $# -ge 1 ] || die "usage: lan.sh up LAN [--net A.B.C] [--finder HOST] [--prefix LEN] HOST..."; cmd_up "$@" ;;
  down) [ $# -eq 1 ] || die "usage: lan.sh down LAN"; cmd_down "$1" ;;
  exec)
    { [ $# -ge 4 ] && [ "$3" = "--" ]; } || die "usage: lan.sh exec LAN NODE -- COMMAND..."
    ns=$(lan_ns "$1" "$2"); shift 3
    [ -e "/run/netns/$ns" ] || die "no namespace $ns"
    exec ip netns exec "$ns" "$@"
    ;;
  ns) lan_ns "$1" "$2" ;;
  ip) host_addr "${3:-10.0.0}" "$2" ;;
  mac) host_mac "$1" ;;
  *) die "unknown command $verb" ;;
esac
