#!/usr/bin/env bash
# Builds the library for packages of other languages and collects it with what it needs that not every
# Linux has, each looking for the others beside itself.
#
#   scripts/portable_library.sh LIBRARIES LICENCES    # two folders to write to
#
# libstdc++ is linked in, without its unused parts: ours is newer than the one that the runtime asks
# for.
set -euo pipefail
cd "$(dirname "$0")/.."
libraries=$1 licences=$2

say() { printf '\n== %s\n' "$*"; }

root=$(scripts/setup.sh --wheel)
export ONNXRUNTIME_ROOT="$root"
say "building with ONNX Runtime from $root"
cmake --preset wheel >/dev/null
cmake --build --preset wheel --target zorv_core

say 'collecting'
mkdir -p "$libraries" "$licences"
cp build/wheel/licences/{onnxruntime*,stb,speexdsp}.txt "$licences"

everywhere='^(lib(c|m|dl|rt|pthread|gcc_s|stdc\+\+)\.so|ld-linux)'
needed() { objdump -p "$1" | awk '$1 == "NEEDED" {print $2}' | grep -vE "$everywhere" || true; }
# Another package of the process may bring its own of these, so ours have names of their own.
own_name() { echo "libzorv_${1#lib}"; }
collect() { # library, name; what it needs comes with it
    local from=$1 to="$libraries/$2" name
    [ ! -f "$to" ] || return 0
    cp -L "$from" "$to"
    strip --strip-unneeded "$to"
    patchelf --set-soname "$2" --set-rpath '$ORIGIN' "$to"
    for name in $(needed "$from"); do
        patchelf --replace-needed "$name" "$(own_name "$name")" "$to"
        collect "$(ldd "$from" | awk -v name="$name" '$1 == name {print $3}')" "$(own_name "$name")"
    done
}
collect build/wheel/lib/libzorv_core.so libzorv_core.so.0
