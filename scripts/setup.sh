#!/usr/bin/env bash
# Installs every Debian package Varnock needs, then configures and builds it.
# Idempotent: packages already present are not fetched again, and an existing
# build tree is only brought up to date.
#   scripts/setup.sh [--no-build] [build-dir]
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"

root=$(cd "$(dirname "$0")/.." && pwd)
build=1
if [ "${1:-}" = "--no-build" ]; then build=0; shift; fi
builddir=${1:-"$root/build"}

packages=(
  g++ cmake ninja-build pkg-config ccache
  libboost1.81-dev libboost-program-options1.81-dev
  libjsoncpp-dev googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  iproute2 iputils-ping util-linux procps time
  avahi-daemon avahi-utils netcat-openbsd python3 python3-zeroconf dbus-daemon
  dpkg-dev file lintian man-db bash-completion shellcheck tshark tcpdump nftables
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  if ! have_root; then
    echo "setup: missing packages (${missing[*]}); run as root to install them" >&2
    exit 1
  fi
  # avahi-daemon must never start in this machine's own network namespace: the
  # tests start their own responders inside isolated namespaces only. A
  # policy-rc.d that refuses every start keeps the package scripts from
  # launching it; an existing policy is put back afterwards.
  policy=/usr/sbin/policy-rc.d
  saved=""
  if [ -e "$policy" ]; then saved=$(mktemp); cp -p "$policy" "$saved"; fi
  restore() {
    if [ -n "$saved" ]; then cp -p "$saved" "$policy"; rm -f "$saved"; else rm -f "$policy"; fi
  }
  trap restore EXIT
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 755 "$policy"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  # apt may remove only older Boost development packages, which conflict with
  # the ones listed; any other removal is refused before anything changes.
  removals=$(apt-get install -s --no-install-recommends "${missing[@]}" | awk '$1 == "Remv" {print $2}')
  if [ -n "$removals" ]; then
    echo "setup: replacing $(paste -sd ' ' - <<<"$removals")" >&2
    if grep -qv '^libboost.*-dev$' <<<"$removals"; then
      echo "setup: refusing to remove packages other than older Boost development files" >&2
      exit 1
    fi
  fi
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  restore
  trap - EXIT
fi

# Stop any avahi-daemon the package may have started anyway in the host namespace.
if command -v avahi-daemon >/dev/null && avahi-daemon --check 2>/dev/null; then
  avahi-daemon --kill 2>/dev/null || true
fi

if [ "$build" = 1 ]; then
  cmake -S "$root" -B "$builddir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$builddir" -j2
fi
