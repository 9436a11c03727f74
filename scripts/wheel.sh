#!/usr/bin/env bash
# Builds the Python package: build/dist/zorv-*.whl, one wheel for every CPython from 3.9 on, with the
# library, the model runtime and whatever else they need that Python's platform tag does not promise.
#
# The tag follows from the symbols: the C library's version that the libraries ask for. libstdc++ is
# linked into ours, which asks for a newer one than the runtime does, without what nobody calls of it.
set -euo pipefail
cd "$(dirname "$0")/.."

say() { printf '\n== %s\n' "$*"; }

root=$(scripts/setup.sh --wheel)
export ONNXRUNTIME_ROOT="$root"
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH
python=/usr/bin/python3
[ -x "$python" ] || python=python3

say "building with ONNX Runtime from $root"
cmake --preset wheel >/dev/null
cmake --build --preset wheel --target zorv_core

say 'collecting'
stage=build/wheel/python
rm -rf "$stage"
mkdir -p "$stage/zorv/lib" "$stage/licences" build/dist
cp bindings/python/{pyproject.toml,setup.py} "$stage"
cp bindings/python/zorv/{*.py,py.typed} "$stage/zorv"
cp build/wheel/licences/{onnxruntime*,stb,speexdsp}.txt "$stage/licences"

# The libraries that every Linux of the tag has.
everywhere='^(lib(c|m|dl|rt|pthread|gcc_s|stdc\+\+)\.so|ld-linux)'
needed() { objdump -p "$1" | awk '$1 == "NEEDED" {print $2}' | grep -vE "$everywhere" || true; }
# Another package of the process may bring its own of these, so ours have names of their own.
own_name() { echo "libzorv_${1#lib}"; }
collect() { # library, name; what it needs comes with it
    local from=$1 to="$stage/zorv/lib/$2" name
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

glibc=$(objdump -T "$stage"/zorv/lib/* | grep -oE 'GLIBC_2\.[0-9]+' | sort -Vu | tail -n 1)
ZORV_WHEEL_PLATFORM="manylinux_2_${glibc#GLIBC_2.}_$(uname -m)"
ZORV_WHEEL_VERSION=$(sed -n 's/^CMAKE_PROJECT_VERSION:.*=//p' build/wheel/CMakeCache.txt)
export ZORV_WHEEL_PLATFORM ZORV_WHEEL_VERSION
rm -f build/dist/zorv-*.whl
"$python" -m build --wheel --no-isolation --outdir build/dist "$stage" >build/wheel/python.log 2>&1 ||
    { cat build/wheel/python.log; exit 1; }
ls -l build/dist/zorv-*.whl
