#!/usr/bin/env bash
# Clean Debian roots to build and test Varnock on the releases its users run:
# a minbase root of each release, made with debootstrap and kept outside the
# source tree, and roots derived from it with more packages. A root is made
# again when it is missing or its package list changed; a lock keeps two
# callers from making the same root at once. Roots are build and test
# environments only: nothing in them reaches the network but apt.
#   debian-root.sh RELEASE [NAME PACKAGE...]   makes the root if needed, prints its path;
#       PACKAGE:ARCH (libfoo-dev:arm64) installs a package of another architecture
#   debian-root.sh --fresh RELEASE DIR          a new copy of RELEASE's minbase root at DIR
#   debian-root.sh --run ROOT [--user] [--bind DIR]... COMMAND...
#       runs COMMAND in ROOT with its own /proc, /dev and /tmp, each DIR at the same path;
#       --user runs it as nobody (HOME=/tmp)
# RELEASE is bookworm (Debian 12) or trixie (Debian 13); VARNOCK_ROOTS is where the
# roots are kept (/var/cache/varnock/roots).
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"

roots=${VARNOCK_ROOTS:-/var/cache/varnock/roots}
mirror=http://deb.debian.org/debian

usage() { die "usage: debian-root.sh RELEASE [NAME PACKAGE...] | --fresh RELEASE DIR | --run ROOT [--user] [--bind DIR]... COMMAND..."; }

run_in() {  # ROOT [--user] [--bind DIR]... COMMAND...
  local root=$1 user="" binds=()
  shift
  while [ $# -gt 0 ]; do
    case "$1" in
      --user) user=65534:65534; shift ;;
      --bind) binds+=("$2"); shift 2 ;;
      *) break ;;
    esac
  done
  [ $# -gt 0 ] || usage
  # The mounts live in a mount namespace of their own and vanish with it.
  # shellcheck disable=SC2016 # the inner script expands its own arguments
  unshare --mount --fork -- bash -c '
    set -e
    root=$1 user=$2 nbinds=$3; shift 3
    mount --make-rprivate /
    # The root a mount point of its own, so that a command in it can make its mounts private
    # (lab/isolated.sh does).
    mount --rbind "$root" "$root"
    mount --rbind /dev "$root/dev"
    mount -t proc proc "$root/proc"
    mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
    for ((i = 0; i < nbinds; i++)); do
      mkdir -p "$root$1"; mount --bind "$1" "$root$1"; shift
    done
    if [ -n "$user" ]; then
      exec env -i HOME=/tmp PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 chroot --userspec="$user" "$root" "$@"
    fi
    exec env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 chroot "$root" "$@"
  ' bash "$root" "$user" "${#binds[@]}" "${binds[@]}" "$@"
}

need_release() {
  case "$1" in bookworm | trixie) ;; *) die "unknown release: $1 (bookworm or trixie)" ;; esac
}

with_lock() {  # NAME COMMAND...: COMMAND while holding the lock of root NAME
  local name=$1; shift
  mkdir -p "$roots"
  exec {lock}>"$roots/.$name.lock"
  flock "$lock"
  "$@"
  exec {lock}>&-
}

make_minbase() {  # RELEASE
  local dir=$roots/$1-minbase
  [ -f "$dir/.complete" ] && return 0
  rm -rf "$dir" "$dir.new"
  command -v debootstrap >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq debootstrap >/dev/null
  echo "debian-root: making the $1 minbase root" >&2
  debootstrap --variant=minbase "$1" "$dir.new" "$mirror" >"$roots/$1-minbase.log" 2>&1 ||
    die "debootstrap $1 failed; see $roots/$1-minbase.log"
  printf 'deb %s %s main\ndeb %s %s-updates main\ndeb http://deb.debian.org/debian-security %s-security main\n' \
    "$mirror" "$1" "$mirror" "$1" "$1" >"$dir.new/etc/apt/sources.list"
  # Package scripts in a root never start a service.
  printf '#!/bin/sh\nexit 101\n' >"$dir.new/usr/sbin/policy-rc.d"
  chmod 755 "$dir.new/usr/sbin/policy-rc.d"
  run_in "$dir.new" sh -c 'apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get -y -qq upgrade >/dev/null'
  touch "$dir.new/.complete"
  mv "$dir.new" "$dir"
}

make_derived() {  # RELEASE NAME PACKAGE...
  local release=$1 name=$2; shift 2
  local dir=$roots/$name want
  want=$(printf '%s\n' "$@" | sort -u)
  if [ -f "$dir/.complete" ] && [ "$(cat "$dir/.packages")" = "$want" ]; then return 0; fi
  rm -rf "$dir" "$dir.new"
  echo "debian-root: making $name ($release: $*)" >&2
  cp -a "$roots/$release-minbase" "$dir.new"
  rm -f "$dir.new/.complete"
  # PACKAGE:ARCH (a cross build's libraries) adds ARCH to the root's dpkg first.
  local arch
  for arch in $(printf '%s\n' "$@" | sed -n 's/^[^:]*:\([a-z0-9]*\)$/\1/p' | sort -u); do
    run_in "$dir.new" dpkg --add-architecture "$arch"
  done
  run_in "$dir.new" sh -c 'apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$@" >/dev/null' sh "$@"
  printf '%s\n' "$want" >"$dir.new/.packages"
  touch "$dir.new/.complete"
  mv "$dir.new" "$dir"
}

[ $# -gt 0 ] || usage
case "$1" in
  --run)
    [ $# -ge 3 ] || usage
    shift
    run_in "$@"
    ;;
  --fresh)
    [ $# -eq 3 ] || usage
    need_root
    need_release "$2"
    with_lock "$2-minbase" make_minbase "$2"
    rm -rf "$3"
    cp -a "$roots/$2-minbase" "$3"
    echo "$3"
    ;;
  *)
    need_root
    need_release "$1"
    with_lock "$1-minbase" make_minbase "$1"
    if [ $# -eq 1 ]; then
      echo "$roots/$1-minbase"
    else
      [ $# -ge 3 ] || usage
      with_lock "$2" make_derived "$@"
      echo "$roots/$2"
    fi
    ;;
esac
