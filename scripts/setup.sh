#!/usr/bin/env bash
# Installs what building zorv needs and finds (or fetches) ONNX Runtime.
#
#   scripts/setup.sh            packages + ONNX Runtime; prints the runtime's folder
#   scripts/setup.sh --dev      also what the full test run needs (clang, GStreamer, Chromium, qemu ...)
#   scripts/setup.sh --package  also what scripts/package.sh needs (Debian's packaging tools, the
#                               licence texts of a fetched runtime)
#   scripts/setup.sh --wheel    also what scripts/wheel.sh needs (Python's packaging tools, patchelf,
#                               the licence texts)
#   scripts/setup.sh --print    only print the ONNX Runtime root, no installing
#
# ONNXRUNTIME_ROOT=DIR (with include/ and lib/) replaces the fetched one; so does an
# installed development package. Everything fetched lands in ZORV_CACHE
# (default ${XDG_CACHE_HOME:-~/.cache}/zorv), outside the checkout, checked by SHA-256.
set -euo pipefail

ORT_VERSION=1.21.0
ORT_NPM_SHA256=c711a4048a8b460a70de25a5008b1628e3773878ef9deec1dd4a4ccab46de01a
ORT_SOURCE_SHA256=32df1f82bd6b07b18372c0f387133214905cbde7a586b3ad83f0ed0075f80273
ORT_DEB_SHA256=14f7d959d5deacbcf1504830d4189f91fc67382b399ed9ae9d3aa9c4050ced08
CACHE="${ZORV_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zorv}"
ORT_DIR="$CACHE/onnxruntime-$ORT_VERSION"

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config ca-certificates
                libgtest-dev libgmock-dev libbenchmark-dev libstb-dev
                libspeexdsp-dev libcairo2-dev libcli11-dev nlohmann-json3-dev libfmt-dev
                libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev)
DEMO_PACKAGES=(python3 python3-onnx python3-numpy python3-scipy python3-pil espeak-ng)
PYTHON_PACKAGES=(python3-av python3-distributed python3-aiortc python3-aiohttp mypy)
GSTREAMER_BUILD_PACKAGES=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev)
GSTREAMER_PACKAGES=("${GSTREAMER_BUILD_PACKAGES[@]}" gstreamer1.0-tools gstreamer1.0-libav
                    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
                    gstreamer1.0-plugins-ugly nginx libnginx-mod-rtmp)
DEV_PACKAGES=("${GSTREAMER_PACKAGES[@]}" clang clang-format clang-tidy cppcheck valgrind qemu-user
              llvm git doxygen dpkg-dev chromium)

WHEEL_PACKAGES=(python3-build python3-setuptools python3-wheel python3-venv patchelf)
PACKAGE_PACKAGES=("${GSTREAMER_BUILD_PACKAGES[@]}" dpkg-dev fakeroot lintian xz-utils)

say() { printf '[setup] %s\n' "$*" >&2; }
die() { printf '[setup] %s\n' "$*" >&2; exit 1; }

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"
    elif command -v sudo >/dev/null; then sudo "$@"
    else die "need root for: $* (run as root or install sudo)"; fi
}

is_debian() {
    [ -r /etc/os-release ] || return 1
    (. /etc/os-release && [ "${ID:-}" = debian ] &&
        { [ "${VERSION_ID:-}" = 12 ] || [ "${VERSION_ID:-}" = 13 ]; })
}

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
            echo "$package"
    done
}

install_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ "${#missing[@]}" -eq 0 ] && return
    say "installing ${missing[*]}"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# A service of a package that is yet to be installed: the tests start a server of their own.
keep_off() {
    [ -d /run/systemd/system ] && [ -n "$(missing_packages "$1")" ] || return 0
    as_root systemctl mask --quiet "$1"
}

explain_manual_setup() {
    die "this script installs packages on Debian 12 and 13 only. Elsewhere install: a C++20 compiler,
  CMake >= 3.25, Ninja, pkg-config, GoogleTest, Google Benchmark, stb, SpeexDSP, CLI11, nlohmann-json, fmt,
  cairo, FFmpeg's development libraries, python3 with onnx, numpy, scipy, Pillow, PyAV, distributed, aiortc,
  aiohttp and mypy, and espeak-ng; unpack an official ONNX Runtime $ORT_VERSION Linux x64 archive, set ONNXRUNTIME_ROOT to its folder
  (the one with include/ and lib/) and set ZORV_SKIP_PACKAGES=1."
}

valid_root() { [ -f "$1/include/onnxruntime_cxx_api.h" ] || [ -f "$1/include/onnxruntime/onnxruntime_cxx_api.h" ] ||
               [ -f "$1/include/onnxruntime/core/session/onnxruntime_cxx_api.h" ]; }

check_sha256() { # file, expected
    echo "$2  $1" | sha256sum -c --quiet - >&2 || die "checksum mismatch: $1"
}

# The shared library comes from the runtime's npm package (CPU build, glibc >= 2.27).
fetch_library() { # work dir, destination lib dir
    say "fetching the ONNX Runtime $ORT_VERSION shared library"
    (cd "$1" && npm pack --silent "onnxruntime-node@$ORT_VERSION" >/dev/null)
    local archive="$1/onnxruntime-node-$ORT_VERSION.tgz"
    check_sha256 "$archive" "$ORT_NPM_SHA256"
    tar -xzf "$archive" -C "$1" --wildcards 'package/bin/napi-v3/linux/x64/libonnxruntime.so*'
    cp -L "$1/package/bin/napi-v3/linux/x64/libonnxruntime.so.1" "$2/libonnxruntime.so.$ORT_VERSION"
    ln -sf "libonnxruntime.so.$ORT_VERSION" "$2/libonnxruntime.so.1"
    ln -sf libonnxruntime.so.1 "$2/libonnxruntime.so"
}

# Runs apt-get on the Debian release that ships this version of the runtime, under private apt
# state, so that the machine's own sources stay as they are.
release_apt() { # work dir, arguments
    local apt="$1/apt"
    shift
    local options=(-o "Dir::Etc::sourcelist=$apt/sources.list" -o Dir::Etc::sourceparts=-
                   -o "Dir::State::lists=$apt/lists" -o "Dir::Cache=$apt/cache"
                   -o APT::Sandbox::User=root -o Acquire::Languages=none)
    if [ ! -d "$apt" ]; then
        local site
        site=$(apt-get indextargets --format '$(SITE)' | grep -v security | sort -u | head -n 1)
        [ -n "$site" ] || die "no Debian mirror configured in apt"
        mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial"
        printf '%s [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s trixie main\n' \
            deb "$site" deb-src "$site" >"$apt/sources.list"
        apt-get "${options[@]}" update -qq >&2
    fi
    apt-get "${options[@]}" "$@" >&2
}

fetch_headers() { # work dir, destination root
    say "fetching the ONNX Runtime $ORT_VERSION headers"
    (cd "$1" && release_apt "$1" download -qq libonnxruntime-dev)
    local deb
    deb=$(ls "$1"/libonnxruntime-dev_*.deb)
    check_sha256 "$deb" "$ORT_DEB_SHA256"
    dpkg -x "$deb" "$1/deb"
    mkdir -p "$2/include"
    cp -RL "$1/deb/usr/include/onnxruntime/." "$2/include/"
    cp "$1/deb/usr/share/doc/libonnxruntime-dev/copyright" "$2/"
}

# Packages that contain the runtime pass its licence on, and those of what is linked into it.
fetch_licences() {
    [ -f "$ORT_DIR/LICENSE" ] && [ -f "$ORT_DIR/ThirdPartyNotices.txt" ] && return
    say "fetching the ONNX Runtime $ORT_VERSION licence texts"
    local work
    work=$(mktemp -d "$CACHE/fetch.XXXXXX")
    trap 'rm -rf "$work"' RETURN
    (cd "$work" && release_apt "$work" source --download-only --tar-only -qq onnxruntime)
    check_sha256 "$work/onnxruntime_$ORT_VERSION+dfsg.orig.tar.xz" "$ORT_SOURCE_SHA256"
    tar -xJf "$work"/*.orig.tar.xz -C "$ORT_DIR" --strip-components=1 \
        "onnxruntime-$ORT_VERSION/LICENSE" "onnxruntime-$ORT_VERSION/ThirdPartyNotices.txt"
}

fetch_onnxruntime() {
    valid_root "$ORT_DIR" && [ -f "$ORT_DIR/lib/libonnxruntime.so.1" ] && return
    is_debian || explain_manual_setup
    command -v npm >/dev/null || install_packages npm
    mkdir -p "$CACHE"
    local work
    work=$(mktemp -d "$CACHE/fetch.XXXXXX")
    trap 'rm -rf "$work"' RETURN
    mkdir -p "$work/root/lib"
    fetch_library "$work" "$work/root/lib"
    fetch_headers "$work" "$work/root"
    rm -rf "$ORT_DIR"
    mv "$work/root" "$ORT_DIR"
}

find_onnxruntime() {
    if [ -n "${ONNXRUNTIME_ROOT:-}" ]; then
        valid_root "$ONNXRUNTIME_ROOT" || die "ONNXRUNTIME_ROOT=$ONNXRUNTIME_ROOT has no ONNX Runtime headers under include/"
        echo "$ONNXRUNTIME_ROOT"
    elif [ -f /usr/include/onnxruntime/onnxruntime_cxx_api.h ]; then
        echo /usr
    else
        echo "$ORT_DIR"
    fi
}

root=$(find_onnxruntime) || exit 1
if [ "${1:-}" != --print ]; then
    if [ "${ZORV_SKIP_PACKAGES:-0}" != 1 ]; then
        is_debian || explain_manual_setup
        install_packages "${BUILD_PACKAGES[@]}" "${DEMO_PACKAGES[@]}" "${PYTHON_PACKAGES[@]}"
        if [ "${1:-}" = --dev ]; then
            keep_off nginx
            install_packages "${DEV_PACKAGES[@]}" "${WHEEL_PACKAGES[@]}"
            install_packages "libclang-rt-$(clang -dumpversion | cut -d. -f1)-dev"
        fi
        if [ "${1:-}" = --package ]; then install_packages "${PACKAGE_PACKAGES[@]}"; fi
        if [ "${1:-}" = --wheel ]; then install_packages "${WHEEL_PACKAGES[@]}"; fi
    fi
    [ "$root" != "$ORT_DIR" ] || fetch_onnxruntime
    if [ "$root" = "$ORT_DIR" ] && [[ ${1:-} =~ ^--(package|wheel)$ ]]; then fetch_licences; fi
fi
echo "$root"
