#!/usr/bin/env bash
# Runs `avahi-browse -rtp _http._tcp` inside network namespace NS, against an
# avahi-daemon (announcing nothing) and a D-Bus system bus of its own, in a
# private /run: nothing touches the machine's own avahi or bus. Prints the
# browser's resolved IPv4 lines ("=;eth0;IPv4;...").
#   avahi-browse.sh NS
set -euo pipefail
ns=$1
[ -e "/run/netns/$ns" ] || { echo "avahi-browse.sh: no namespace $ns" >&2; exit 2; }
dir=$(mktemp -d -t varnock-browse.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cat >"$dir/avahi-daemon.conf" <<CONF
[server]
host-name=browser
use-ipv4=yes
use-ipv6=no
allow-interfaces=eth0
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
disable-publishing=yes
CONF
mkdir "$dir/services"
# shellcheck disable=SC2016 # the inner sh expands them
ip netns exec "$ns" unshare --mount --pid --fork --kill-child -- sh -c '
  set -e
  mount --make-rprivate /
  mount -t tmpfs -o size=1m varnock-browse /run
  mkdir -p /run/dbus /run/avahi-daemon
  mount --bind "$1/services" /etc/avahi/services
  dbus-daemon --system --fork --nopidfile
  avahi-daemon --file="$1/avahi-daemon.conf" --no-drop-root --no-chroot --no-rlimits -D
  for _ in $(seq 100); do avahi-daemon --check 2>/dev/null && break; sleep 0.1; done
  sleep 1
  avahi-browse -rtp _http._tcp | grep "^=;eth0;IPv4;"
' sh "$dir"
