#!/usr/bin/env bash
# Packs the build as Debian packages and looks at what a machine would get from them.
#   package_test.sh BUILD_DIR SOURCES
set -euo pipefail
build=$1 sources=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
die() { echo "$*"; exit 1; }

# Packing is quick without compression.
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work" -D CPACK_DEBIAN_COMPRESSION_TYPE=none \
    >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
declare -A deb
for file in "$work"/*.deb; do
    deb[$(dpkg-deb -f "$file" Package)]=$file
    dpkg-deb -x "$file" "$work/root"
done
library=$(printf '%s\n' "${!deb[@]}" | grep -x 'libzorv-core[0-9]*') || die "no library: ${!deb[*]}"
field() { dpkg-deb -f "${deb[$1]}" "$2"; }

# Files and the link for compilers are apart, and each package names what it needs.
version=$(field "$library" Version)
[ "$(field libzorv-core-dev Depends)" = "$library (= $version)" ] || die "development depends on something else"
[[ $(field "$library" Depends) == *"libstdc++6"* ]] || die "library: $(field "$library" Depends)"
[[ $(field zorv Depends) == *"$library (= $version)"*"libavformat"* ]] || die "tools: $(field zorv Depends)"
dpkg-deb -c "${deb[$library]}" >"$work/files"
! grep -E 'libzorv_core\.so( |$)|/include/' "$work/files" || die "the library's package has development files"
if ! grep 'zorv_core/libonnxruntime' "$work/files" >"$work/runtime"; then
    [[ $(field "$library" Depends) == *libonnxruntime* ]] || die "nobody provides the model runtime"
fi
dpkg-deb -I "${deb[$library]}" triggers >"$work/triggers"
grep ldconfig "$work/triggers" >/dev/null || die "ldconfig is not run"
# Others that link with the library depend on it; nobody gets its model runtime from it.
[ "$(dpkg-deb -I "${deb[$library]}" shlibs)" = "libzorv_core ${library#libzorv-core} $library (>= ${version%%-*})" ] ||
    die "shlibs: $(dpkg-deb -I "${deb[$library]}" shlibs)"
for package in "${!deb[@]}"; do
    [ -s "$work/root/usr/share/doc/$package/copyright" ] || die "$package has no copyright file"
    gzip -t "$work/root/usr/share/doc/$package/"changelog*.gz || die "$package has no change log"
done

[ -s "$work/root/usr/share/man/man1/zorv.1.gz" ] || die "no manual page"

# A host is built against the development package and runs on the library's.
lib=$(dirname "$(find "$work/root" -name 'libzorv_core.so')")
export PKG_CONFIG_PATH="$lib/pkgconfig"
eval cc -std=c99 "'$sources/main.c'" -o "'$work/host'" "$(pkg-config --cflags --libs zorv_core)"
said=$(env -i LD_LIBRARY_PATH="$lib" "$work/host" "$work/none")
[ "$said" = "zorv_create: cannot open $work/none/manifest.json" ] || die "host: $said"
env -i "LD_LIBRARY_PATH=$lib" "$work/root/usr/bin/zorv" --version >/dev/null || die "the command line does not start"
if [ -n "${deb[gstreamer1.0-zorv]:-}" ] && command -v gst-inspect-1.0 >/dev/null; then
    plugins=$(dirname "$(find "$work/root" -name libgstzorv.so)")
    [ "$(basename "$plugins")" = gstreamer-1.0 ] || die "GStreamer does not look in $plugins"
    env -i PATH="$PATH" LD_LIBRARY_PATH="$lib" GST_REGISTRY="$work/registry" GST_PLUGIN_SYSTEM_PATH_1_0="$plugins" \
        gst-inspect-1.0 zorvface >"$work/element" || die "the element cannot be used"
fi
echo "packages work: ${!deb[*]}, $(du -csm "$work"/*.deb | tail -n 1 | cut -f1) MiB"
