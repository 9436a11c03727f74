#!/usr/bin/env bash
# Builds Debian packages for the release that this machine runs: library, development files, command
# line. They land in build/package/packages. They depend on the system's ONNX Runtime where it has one
# (libonnxruntime-dev) and contain a fetched one otherwise.
#
# DEBFULLNAME and DEBEMAIL name whoever answers for the packages.
set -euo pipefail
cd "$(dirname "$0")/.."

say() { printf '\n== %s\n' "$*"; }

root=$(scripts/setup.sh --package)
. /etc/os-release
options=(-DCPACK_DEBIAN_PACKAGE_RELEASE="1~deb${VERSION_ID:?}")
if [ -n "${DEBEMAIL:-}" ]; then
    options+=(-DCPACK_DEBIAN_PACKAGE_MAINTAINER="${DEBFULLNAME:-$DEBEMAIL} <$DEBEMAIL>")
fi
# The distribution's compiler settings, for which CMake knows no preprocessor flags of their own;
# packages are stripped, so without debugging information. The date is that of the sources.
export DEB_BUILD_MAINT_OPTIONS=hardening=+bindnow DEB_CFLAGS_MAINT_STRIP=-g DEB_CXXFLAGS_MAINT_STRIP=-g
eval "$(dpkg-buildflags --export=sh)"
export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH

say "building with ONNX Runtime from $root"
ONNXRUNTIME_ROOT="$root" cmake --preset package "${options[@]}"
cmake --build --preset package
rm -rf build/package/packages
(cd build/package && cpack -G DEB)
say 'checking'
lintian --fail-on warning build/package/packages/*.deb
ls -l build/package/packages/*.deb
