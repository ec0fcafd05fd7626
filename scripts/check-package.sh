#!/usr/bin/env bash
# Builds the Debian package (scripts/package.sh) and checks it: its name and
# version follow the CMake project; its Depends name exactly the packages of
# the libraries the programs link; lintian reports nothing that is not
# overridden with a reason; unpacked into a temporary root it holds exactly
# the expected files, both programs run from there, both man pages render
# without a warning and list exactly the options of the help text, and the
# bash completion offers exactly those options, file names after --site and
# nothing after any other option that takes a value.
#   scripts/check-package.sh [build-dir]      (default: build-deb)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
builddir=$(realpath -m "${1:-$root/build-deb}")

start=$SECONDS
bash "$root/scripts/package.sh" "$builddir"
echo "check-package: package built in $((SECONDS - start))s"

checks=0 failures=0
check() {  # DESCRIPTION EXPECTED ACTUAL
  checks=$((checks + 1))
  if [ "$2" != "$3" ]; then
    failures=$((failures + 1))
    printf 'check-package: FAILED: %s\n  expected: %s\n  actual:   %s\n' "$1" "$2" "$3" >&2
  fi
}
set_of() { sort -u | paste -sd ' ' -; }  # lines in, one sorted line of words out

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$builddir/CMakeCache.txt")
deb=$builddir/varnock_${version}_$(dpkg --print-architecture).deb
check "package file" "$deb" "$(ls "$builddir"/varnock_*.deb)"
check "package version" "$version" "$(dpkg-deb -f "$deb" Version)"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
dpkg-deb -x "$deb" "$tmp"
bin=$tmp/usr/bin

# The dissector goes where tshark looks for global Lua plugins.
lua_plugins=$(tshark -G folders 2>/dev/null | sed -n 's/^Global Lua Plugins:[[:space:]]*//p')
check "files" "$(printf '%s\n' ./usr/bin/varnock ./usr/bin/varnock-device ".$lua_plugins/morl.lua" \
  ./usr/share/bash-completion/completions/varnock \
  ./usr/share/bash-completion/completions/varnock-device \
  ./usr/share/doc/varnock/README.md.gz ./usr/share/doc/varnock/changelog.gz \
  ./usr/share/doc/varnock/copyright ./usr/share/lintian/overrides/varnock \
  ./usr/share/man/man1/varnock.1.gz ./usr/share/man/man1/varnock-device.1.gz | set_of)" \
  "$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | set_of)"

# Depends: exactly the packages (or what they provide) that own the libraries
# the programs link.
depends=$(dpkg-deb -f "$deb" Depends)
echo "check-package: Depends: $depends"
depends=$(tr ',' '\n' <<<"$depends" | sed 's/(.*//; s/ //g' | set_of)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
linked=()
for soname in $(objdump -p "$bin/varnock" "$bin/varnock-device" | awk '$1 == "NEEDED" {print $2}' | sort -u); do
  owners=$(dpkg -S "*/$multiarch/$soname" 2>/dev/null | sed 's/: .*//; s/:[a-z0-9]*//g; s/,/ /g')
  names=" $owners "
  for owner in $owners; do
    names+="$(dpkg-query -W -f='${Provides}' "$owner" | sed 's/([^)]*)//g; s/,/ /g') "
  done
  found="(nothing for $soname)"
  for package in $depends; do
    [[ $names == *" $package "* ]] && found=$package
  done
  linked+=("$found")
done
check "Depends are the packages of the linked libraries" \
  "$(printf '%s\n' "${linked[@]}" | set_of)" "$depends"

# Every error, warning, info and pedantic tag fails unless it is overridden
# with a reason in packaging/lintian-overrides; overridden ones are shown.
lintian_status=0
report=$(lintian --display-info --pedantic --show-overrides --fail-on none "$deb" 2>&1) ||
  lintian_status=$?
printf '%s\n' "$report"
check "lintian runs" 0 "$lintian_status"
# The programs' override applies on some architectures only (packaging/lintian-overrides).
check "lintian tags not overridden" "" "$(grep -E '^[EWIPX]: ' <<<"$report" |
  grep -v '^I: varnock: unused-override spelling-error-in-binary uknown ' || true)"

check "varnock --version" "Varnock CLI, current version" "$("$bin/varnock" --version)"
check "varnock --help" "$("$builddir/app/varnock" --help)" "$("$bin/varnock" --help)"
check "varnock-device --version" "varnock-device $version" "$("$bin/varnock-device" --version)"
check "varnock-device --help" "$("$builddir/device/varnock-device" --help)" \
  "$("$bin/varnock-device" --help)"

# Options of a help text (-h, --help, ...), or only those that take a value.
help_options() {  # PROGRAM [arg]
  "$bin/$1" --help | grep -E '^  -' | sed -E 's/^  //; s/  .*//' |
    { if [ -n "${2:-}" ]; then grep ' arg'; else cat; fi; } | sed 's/ arg.*//' |
    grep -oE -- '-{1,2}[A-Za-z][A-Za-z-]*' | sort -u
}

for program in varnock varnock-device; do
  page=$tmp/usr/share/man/man1/$program.1.gz
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
  check "$program(1) renders without a warning" "" "$warnings"
  text=$(LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$page" 2>/dev/null)
  sections=(NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" EXAMPLES "SEE ALSO")
  case $program in
    varnock) sections+=(OUTPUT NETWORK TROUBLESHOOTING) ;;
    varnock-device) sections+=(WARNING) ;;
  esac
  check "$program(1) sections" "$(printf '%s\n' "${sections[@]}" | sort | paste -sd ,)" \
    "$(grep -E '^[A-Z][A-Z ]*$' <<<"$text" | sort | paste -sd ,)"
  check "$program(1) version" "varnock $version" "$(tail -n 1 <<<"$text" | awk '{print $1, $2}')"
  # The tags of the OPTIONS section: the line after each .TP.
  documented=$(zcat "$page" | awk '/^\.SH/ {on = ($2 == "OPTIONS")} on && tag; {tag = /^\.TP/}' |
    sed 's/\\-/-/g' | grep -oE -- '-{1,2}[A-Za-z][A-Za-z-]*' | set_of)
  check "$program(1) documents the options of --help" "$(help_options "$program" | set_of)" \
    "$documented"
done

# Completes the last word of a command line the way bash does on Tab, with
# only the completion file loaded, in a non-interactive bash.
complete_line() {  # PROGRAM WORD...
  bash --norc --noprofile -c '
    source "$0"
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
    spec=$(complete -p "$1"); function=${spec#*-F }; function=${function%% *}
    "$function" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf "%s\n" "${COMPREPLY[@]}"' "$tmp/usr/share/bash-completion/completions/$1" "$@" |
    set_of
}
common_prefix() {  # "WORD...": what Tab inserts
  local words prefix word
  read -ra words <<<"$1"
  prefix=${words[0]}
  for word in "${words[@]}"; do while [ "${word#"$prefix"}" = "$word" ]; do prefix=${prefix%?}; done; done
  echo "$prefix"
}

check "varnock --mo<Tab>" "--morl" "$(common_prefix "$(complete_line varnock varnock --mo)")"
check "varnock --mdns-w<Tab>" "--mdns-wait" "$(complete_line varnock varnock --mdns-w)"
check "varnock-device --http-p<Tab>" "--http-port" \
  "$(complete_line varnock-device varnock-device --http-p)"
for program in varnock varnock-device; do
  check "$program --<Tab>" "$(help_options "$program" | grep -- '^--' | set_of)" \
    "$(complete_line "$program" "$program" --)"
  spec=$(bash --norc --noprofile -c 'source "$0"; complete -p "$1"' \
    "$tmp/usr/share/bash-completion/completions/$program" "$program")
  check "$program completion falls back to no file names" "" "$(grep -oE -- '-o [a-z]+' <<<"$spec" || true)"
  for option in $(help_options "$program" arg); do
    [ "$program $option" != "varnock-device --site" ] || continue
    check "$program $option <Tab>" "" "$(complete_line "$program" "$program" "$option" "")"
  done
done
mkdir "$tmp/names" && touch "$tmp/names/site.json" "$tmp/names/site.txt" "$tmp/names/other.json"
check "varnock-device --site si<Tab>" "site.json site.txt" \
  "$(cd "$tmp/names" && complete_line varnock-device varnock-device --site si)"
check "varnock --mdns-wait=<Tab>" "" "$(complete_line varnock varnock --mdns-wait =)"
check "varnock --mdns-wait=1<Tab>" "" "$(complete_line varnock varnock --mdns-wait = 1)"

echo "check-package: $((checks - failures)) of $checks checks passed in $((SECONDS - start))s"
[ "$failures" -eq 0 ]
