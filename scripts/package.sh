#!/usr/bin/env bash
# Builds the Debian package of varnock and varnock-device from the project's
# own CMake build: the product alone (no tests, no benchmarks), with g++ in
# Release and Debian's hardening flags, stripped, packed by CPack's DEB
# generator with Depends computed by dpkg-shlibdeps. Prints the path of the
# package on its last line. With DEB_HOST_ARCH set to another architecture
# (arm64) it cross-builds with cmake/<multiarch>.cmake, the flags, Depends and
# package architecture being that architecture's. CMAKE-ARGs go to cmake as they
# are (scripts/platforms.sh adds the tests).
#   [DEB_HOST_ARCH=ARCH] scripts/package.sh [build-dir [CMAKE-ARG...]]   (default: build-deb)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
builddir=$(realpath -m "${1:-$root/build-deb}")
shift $(($# > 0 ? 1 : 0))
cd "$root"

compiler=(-DCMAKE_CXX_COMPILER=g++)
arch=${DEB_HOST_ARCH:-$(dpkg --print-architecture)}
if [ "$arch" != "$(dpkg --print-architecture)" ]; then
  # dpkg-buildflags and dpkg-shlibdeps (run by CPack) follow DEB_HOST_ARCH.
  export DEB_HOST_ARCH=$arch
  compiler=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null).cmake"
    -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$arch")
fi

# The dates in the man pages and the changelog are those of the last commit,
# so every build of one commit has the same text.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
export SOURCE_DATE_EPOCH

# The flags Debian builds its packages with, all hardening on; no -g, since
# the binaries are stripped.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all DEB_CXXFLAGS_MAINT_STRIP=-g
cxxflags="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)"
ldflags=$(dpkg-buildflags --get LDFLAGS)

cmake -S . -B "$builddir" -G Ninja -DCMAKE_BUILD_TYPE=Release "${compiler[@]}" \
  -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$ldflags" -DCMAKE_INSTALL_PREFIX=/usr \
  -DVARNOCK_WERROR=ON -DVARNOCK_TESTS=OFF -DVARNOCK_BENCH=OFF "$@" >/dev/null
cmake --build "$builddir" -j2
rm -f "$builddir"/varnock_*.deb
(cd "$builddir" && cpack -G DEB)
ls "$builddir"/varnock_*.deb
