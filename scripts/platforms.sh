#!/usr/bin/env bash
# The platform matrix: Varnock built, installed and tested on Debian 12
# (bookworm) and 13 (trixie), amd64 and arm64, each in clean roots of its
# release (scripts/debian-root.sh). For each target:
#   package    built by scripts/package.sh in a build root of the release, with
#              its compiler and libraries (arm64: cross-built), with the tests;
#              the same files as Debian 12 amd64's package
#   lintian    that release's lintian: no tag that is not overridden
#   install    `apt-get install ./varnock_*.deb` into a fresh minbase root adds
#              exactly the packages Depends names and what they depend on
#              (arm64: a root of the build machine with arm64 added to dpkg,
#              as no arm64 root can run here without the host's binfmt_misc);
#              `apt-get remove` and autoremove give back the same files
#   lan        the installed varnock and varnock-device find each other on a
#              lab LAN (arm64 through Debian 13's qemu-user); the text and
#              --json output, --help and --version equal Debian 12 amd64's;
#              the installed man pages render without a warning
#   unit       every test program, as nobody (so the LAN tests skip)
#   e2e        the end-to-end LAN table in the build root (amd64 only)
# then prints one table of the results with their figures and times, and
# fails if any target failed. Needs root. The roots are cached in
# $VARNOCK_CACHE/roots, the compiler caches in $VARNOCK_CACHE/ccache
# (VARNOCK_CACHE: /var/cache/varnock; another folder gives a cold run).
#   scripts/platforms.sh [TARGET...]   TARGET: bookworm-amd64 trixie-amd64 bookworm-arm64 trixie-arm64
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"
root=$(cd "$(dirname "$0")/.." && pwd)
need_root
isolate "$@"

targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(bookworm-amd64 trixie-amd64 bookworm-arm64 trixie-arm64)
# Debian 12 amd64 is what the others are compared with.
[[ " ${targets[*]} " == *" bookworm-amd64 "* ]] || targets=(bookworm-amd64 "${targets[@]}")

# Debian 12's default Boost is 1.74; Varnock needs 1.81, which it has too. Debian 13's is 1.83.
build_packages() {  # RELEASE
  local boost=libboost-program-options-dev
  [ "$1" != bookworm ] || boost=libboost-program-options1.81-dev
  echo g++ cmake ninja-build pkg-config ccache "$boost" libjsoncpp-dev libgtest-dev libgmock-dev \
    dpkg-dev file lintian man-db iproute2 procps avahi-daemon dbus-daemon python3 \
    crossbuild-essential-arm64 "$boost:arm64" libjsoncpp-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
}
cache=${VARNOCK_CACHE:-/var/cache/varnock}
export VARNOCK_ROOTS=$cache/roots
out=$root/build-platform
logdir=$out/logs
host_arch=$(dpkg --print-architecture)
SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct)
mkdir -p "$logdir" "$cache/ccache" "$cache/work"
clean_up_on_exit
roots() { bash "$root/scripts/debian-root.sh" "$@"; }

declare -A cell
columns=(package lintian install lan unit e2e)
failed=0
fail() {  # TARGET COLUMN TEXT: the step failed
  cell[$1,$2]="FAIL: $3"
  failed=1
  echo "platforms: $1 $2 FAILED: $3 (logs in $logdir)" >&2
}

qemu=""
qemu_path() {  # Debian 13's qemu-user, statically linked, run from its root with -L
  [ -n "$qemu" ] || qemu=$(roots trixie trixie-qemu qemu-user)/usr/bin/qemu-aarch64
  echo "$qemu"
}

norm_files() {  # DEB MULTIARCH: its files, the multiarch folder written MULTIARCH
  dpkg-deb -c "$1" | awk '$1 !~ /^d/ {print $6}' | sed "s,/$2/,/MULTIARCH/," | sort
}

step_package() {  # TARGET RELEASE ARCH BUILD-ROOT
  local start=$SECONDS env=(SOURCE_DATE_EPOCH="$SOURCE_DATE_EPOCH" CCACHE_DIR="$cache/ccache/$2")
  mkdir -p "$cache/ccache/$2"
  [ "$3" = "$host_arch" ] || env+=(DEB_HOST_ARCH="$3")
  if ! roots --run "$4" --bind "$root" --bind "$cache/ccache/$2" env "${env[@]}" \
    bash "$root/scripts/package.sh" "$out/$1" -DVARNOCK_TESTS=ON >"$logdir/$1-package.log" 2>&1; then
    fail "$1" package "build failed"
    return 1
  fi
  deb=$(ls "$out/$1"/varnock_*_"$3".deb)
  multiarch=$(dpkg-architecture -a"$3" -qDEB_HOST_MULTIARCH 2>/dev/null)
  norm_files "$deb" "$multiarch" >"$out/$1.files"
  if ! diff "$out/bookworm-amd64.files" "$out/$1.files" >"$logdir/$1-files.diff"; then
    fail "$1" package "files differ from bookworm-amd64's"
    return 0
  fi
  cell[$1,package]="$(($(stat -c %s "$deb") / 1024)) KiB, $((SECONDS - start))s"
}

step_lintian() {  # TARGET BUILD-ROOT
  local tags report
  report=$(roots --run "$2" --user --bind "$out" lintian --display-info --pedantic --show-overrides \
    --fail-on none "$deb" 2>&1) || { fail "$1" lintian "lintian did not run"; return 0; }
  printf '%s\n' "$report" >"$logdir/$1-lintian.log"
  # The programs' override applies on some architectures only (packaging/lintian-overrides).
  tags=$(grep -E '^[EWIPX]: ' <<<"$report" | grep -cv '^I: varnock: unused-override spelling-error-in-binary uknown ' || true)
  if [ "$tags" -ne 0 ]; then fail "$1" lintian "$tags tags"; return 0; fi
  cell[$1,lintian]="clean, $(grep -cE '^O: ' <<<"$report" || true) overridden"
}

packages_of() {  # ROOT: "PACKAGE:ARCH INSTALLED-KIB" a line
  dpkg-query --root="$1" -W -f='${binary:Package} ${Installed-Size}\n' | sort
}

files_of() {  # ROOT: every file and link, apt's and dpkg's own records left out
  (cd "$1" && find . -xdev \( -path ./var/lib/apt -o -path ./var/lib/dpkg -o -path ./var/cache \
    -o -path ./var/log -o -path ./tmp -o -path ./proc -o -path ./dev \) -prune -o -print | sort)
}

relations_of() {  # ROOT PACKAGE Depends|Recommends: the package names it names there
  if [ "$3" = Depends ]; then
    dpkg-query --root="$1" -W -f='${Depends} ${Pre-Depends}' "$2"
  else
    dpkg-query --root="$1" -W -f='${Recommends}' "$2"
  fi | sed 's/([^)]*)//g; s/[,|]/ /g; s/:any//g'
}

closure() {  # ROOT WITH-RECOMMENDS NEW: " NAME ... " varnock's Depends and theirs among NEW, recursively
  local names followed=" " more=1 p
  names=" $(relations_of "$1" varnock Depends) "
  while [ "$more" -eq 1 ]; do
    more=0
    while read -r p _; do
      [[ $names == *" ${p%%:*} "* && $followed != *" $p "* ]] || continue
      followed+="$p " more=1
      names+="$(relations_of "$1" "$p" Depends) "
      [ "$2" -eq 0 ] || names+="$(relations_of "$1" "$p" Recommends) "
    done <<<"$3"
  done
  echo "$names"
}

step_install() {  # TARGET RELEASE ARCH: installs into $inst
  local before new p explained required start=$SECONDS
  inst=$cache/work/$1
  roots --fresh "$2" "$inst" >/dev/null
  if [ "$3" != "$host_arch" ]; then
    roots --run "$inst" sh -c "dpkg --add-architecture $3 && apt-get update -qq" >/dev/null
  fi
  # The folder of the package, bound into the root to install from, is no file of apt's.
  mkdir -p "$inst$out/$1"
  before=$(packages_of "$inst")
  echo "$before" >"$out/$1.files-before.packages"
  files_of "$inst" >"$out/$1.files-before"
  if ! roots --run "$inst" --bind "$out/$1" env DEBIAN_FRONTEND=noninteractive apt-get install -y "$deb" \
    >"$logdir/$1-install.log" 2>&1; then
    fail "$1" install "apt-get install failed"
    return 1
  fi
  new=$(comm -13 <(echo "$before") <(packages_of "$inst") | grep -v '^varnock[: ]')
  printf '%s\n' "$new" >"$out/$1.added"
  # Each package apt added must be named by Depends, or depended on by one it added (apt
  # installs what those recommend too: Debian 13's libc6 recommends libidn2-0).
  required=$(closure "$inst" 0 "$new")
  explained=$(closure "$inst" 1 "$new")
  # In a root of another architecture, apt adds that architecture's C library too (and what it
  # recommends); what Depends needs that the release's minbase lacks by name is what an arm64
  # minbase would get.
  local count=0 kib=0 own=0 own_kib=0 names extra=() note=""
  names=" $(awk -F '[: ]' '{print $1}' <<<"$before" | tr '\n' ' ') "
  while read -r p size; do
    count=$((count + 1)) kib=$((kib + size))
    [[ $explained == *" ${p%%:*} "* ]] || extra+=("$p")
    [[ $names == *" ${p%%:*} "* || $required != *" ${p%%:*} "* ]] || own=$((own + 1)) own_kib=$((own_kib + size))
  done <<<"$new"
  if [ ${#extra[@]} -gt 0 ]; then
    fail "$1" install "not from Depends: ${extra[*]}"
    return 0
  fi
  [ "$own" -eq "$count" ] || note=" ($own, $((own_kib * 10 / 1024 / 10)).$((own_kib * 10 / 1024 % 10)) MiB not in minbase)"
  cell[$1,install]="+$count, $((kib * 10 / 1024 / 10)).$((kib * 10 / 1024 % 10)) MiB$note, $((SECONDS - start))s"
}

step_remove() {  # TARGET: apt-get remove, then autoremove: the root's files as before
  # but those of the packages apt keeps (the C library of another architecture, Priority required).
  local kept
  if ! roots --run "$inst" sh -c 'apt-get remove -y varnock && apt-get autoremove --purge -y' \
    >>"$logdir/$1-install.log" 2>&1; then
    fail "$1" install "apt-get remove failed"
    return 0
  fi
  kept=$(comm -13 <(sed 's/ .*//' "$out/$1.files-before.packages") <(packages_of "$inst" | sed 's/ .*//'))
  diff "$out/$1.files-before" <(files_of "$inst") >"$work/remove.diff" || true
  {
    grep '^< ' "$work/remove.diff" || true
    sed -n 's/^> //p' "$work/remove.diff" |
      grep -vxF -f <(for p in $kept; do
        # Debian 12's packages list /lib, which is /usr/lib in a merged-/usr root.
        dpkg-query --root="$inst" -L "$p" | sed -E 's,^/(bin|sbin|lib[a-z0-9]*)/,/usr/\1/,; s,^,.,'
      done) || true
  } >"$logdir/$1-remove.diff"
  if [ -s "$logdir/$1-remove.diff" ]; then
    fail "$1" install "apt-get remove leaves files (see $1-remove.diff)"
  elif [ -n "$kept" ]; then
    cell[$1,install]+=", removed (apt keeps $(wc -w <<<"$kept"))"
  else
    cell[$1,install]+=", removed"
  fi
}

lan_count=0
step_lan() {  # TARGET ARCH BUILD-ROOT: the installed programs on a lab LAN
  local lan=pf$lan_count run=() bin=/usr/bin program option start=$SECONDS
  lan_count=$((lan_count + 1))
  # amd64 runs in the installed root; arm64 through qemu-user, with the root's libraries.
  if [ "$2" = "$host_arch" ]; then run=(chroot "$inst"); else run=("$(qemu_path)" -L "$inst") bin=$inst/usr/bin; fi
  for program in varnock varnock-device; do
    for option in --help --version; do
      "${run[@]}" "$bin"/"$program" "$option" >"$out/$1.$program$option" 2>&1 || true
    done
  done
  # Installed pages with the release's man, as in the build root.
  if ! roots --run "$3" --bind "$inst/usr/share/man" sh -c "for p in $inst/usr/share/man/man1/varnock*.1.gz;
    do MANWIDTH=80 man --warnings -l \$p >/dev/null || exit 1; done" >"$out/$1.man" 2>&1 ||
    [ -s "$out/$1.man" ]; then
    fail "$1" lan "man pages: $(head -n 1 "$out/$1.man")"
    return 0
  fi
  lan_up "$lan" 10 11 12 20 21 >/dev/null
  device() {  # HOST ARGS...
    start_in "$lan" "d$1" "$work/$lan-d$1.log" "${run[@]}" "$bin"/varnock-device "${@:2}"
  }
  device 10 --name Pallor-Main --software-version 2.4.1 --service 2:1 --no-http
  device 11 --name Dorn-Hall-2 --software-version 1.0.3 --service 0:7 --no-http
  device 12 --name Brask-Gate --software-version 2.0.0 --service 1:1
  device 20 --name Fell-Lab --software-version 0.9.8 --service 4:2 --no-morl
  device 21 --name Quin-Roof --software-version 1.1.0 --service 3:1 --service 3:2 --no-http
  if wait_ready "$work/$lan"-d{10,11,12,20,21}.log; then
    in_node "$lan" finder "${run[@]}" "$bin"/varnock -M 2 -T 2 >"$out/$1.text" 2>&1 || true
    in_node "$lan" finder "${run[@]}" "$bin"/varnock --json -M 2 -T 2 >"$out/$1.json" 2>&1 || true
  fi
  cp "$work/$lan"-d*.log "$logdir/" 2>/dev/null || true
  # The emulator's parent processes ignore TERM: the LAN's own clean-up kills what is left.
  "$lan_sh" down "$lan"
  stop_started
  local file differ=()
  for file in text json varnock--help varnock--version varnock-device--help varnock-device--version; do
    cmp -s "$out/bookworm-amd64.$file" "$out/$1.$file" || differ+=("$file")
  done
  if [ "$(grep -c '^ .*:' "$out/$1.text" 2>/dev/null)" != 5 ]; then
    fail "$1" lan "$(grep -c '^ .*:' "$out/$1.text" 2>/dev/null) of 5 devices listed"
  elif [ ${#differ[@]} -gt 0 ]; then
    fail "$1" lan "differs from bookworm-amd64: ${differ[*]}"
  else
    cell[$1,lan]="5 devices, text and json equal, $((SECONDS - start))s"
  fi
}

step_unit() {  # TARGET ARCH BUILD-ROOT: every test program as nobody
  local exe passed=0 skipped=0 start=$SECONDS status=0 run=()
  run=(roots --run "$3" --user --bind "$root")
  # arm64: the build root holds the arm64 libraries (multiarch); the emulator is static.
  [ "$2" = "$host_arch" ] || run+=(--bind "$(dirname "$(qemu_path)")" "$(qemu_path)")
  : >"$logdir/$1-unit.log"
  for exe in "$out/$1"/tests/*/*_test; do
    "${run[@]}" "$exe" --gtest_brief=1 >>"$logdir/$1-unit.log" 2>&1 || status=1
  done
  passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) test.*/\1/p' "$logdir/$1-unit.log" | paste -sd+ - | bc)
  skipped=$(sed -n 's/^\[  SKIPPED \] \([0-9]*\) test.*/\1/p' "$logdir/$1-unit.log" | paste -sd+ - | bc)
  if [ "$status" -ne 0 ]; then fail "$1" unit "$(grep -c '^\[  FAILED  \] [A-Z]' "$logdir/$1-unit.log") failed"
  else cell[$1,unit]="$passed passed, ${skipped:-0} skipped (LAN), $((SECONDS - start))s"; fi
}

step_e2e() {  # TARGET BUILD-ROOT: the end-to-end LAN table, in the build root as root
  local start=$SECONDS
  if roots --run "$2" --bind "$root" sh -c "cd '$out/$1' && ctest --output-on-failure -R '^VarnockLan\\.'" \
    >"$logdir/$1-e2e.log" 2>&1 && grep -q '100% tests passed, 0 tests failed out of [1-9]' "$logdir/$1-e2e.log"; then
    cell[$1,e2e]="$(sed -n 's/.*tests failed out of \([0-9]*\)/\1/p' "$logdir/$1-e2e.log") passed, $((SECONDS - start))s"
  else
    fail "$1" e2e "see $1-e2e.log"
  fi
}

matrix_start=$SECONDS
for target in "${targets[@]}"; do
  release=${target%-*} arch=${target#*-}
  case "$target" in bookworm-amd64 | trixie-amd64 | bookworm-arm64 | trixie-arm64) ;; *) die "unknown target $target" ;; esac
  echo "platforms: $target ($((SECONDS - matrix_start))s)"
  for column in "${columns[@]}"; do cell[$target,$column]="-"; done
  start=$SECONDS
  # shellcheck disable=SC2046 # a list of package names
  build_root=$(roots "$release" "$release-build" $(build_packages "$release"))
  echo "platforms: build root of $release ready in $((SECONDS - start))s"
  step_package "$target" "$release" "$arch" "$build_root" || continue
  step_lintian "$target" "$build_root"
  if step_install "$target" "$release" "$arch"; then
    step_lan "$target" "$arch" "$build_root"
    step_remove "$target"
  fi
  rm -rf "$inst"
  step_unit "$target" "$arch" "$build_root"
  [ "$arch" != "$host_arch" ] || step_e2e "$target" "$build_root"
done

echo
{
  echo "target|package built|lintian|installs exactly its Depends|LAN run equal to bookworm-amd64|unit tests|end-to-end"
  for target in "${targets[@]}"; do
    line=$target
    for column in "${columns[@]}"; do line+="|${cell[$target,$column]}"; done
    echo "$line"
  done
} | column -t -s '|'
echo "platforms: $([ "$failed" -eq 0 ] && echo passed || echo FAILED) in $((SECONDS - matrix_start))s"
exit "$failed"
