#!/usr/bin/env bash
# Builds the Python package: build/dist/zorv-*.whl, one wheel for every CPython from 3.9 on, with the
# library, the model runtime and whatever else they need that Python's platform tag does not promise.
#
# The tag follows from the symbols: the C library's version that the libraries ask for. libstdc++ is
# linked into ours, without its unused parts, since ours is newer than the one that the runtime asks
# for.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --wheel >/dev/null
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH
python=/usr/bin/python3
[ -x "$python" ] || python=python3

stage=build/wheel/python
rm -rf "$stage"
mkdir -p "$stage/zorv/web" build/dist
cp bindings/python/{pyproject.toml,setup.py} "$stage"
cp bindings/python/zorv/{*.py,py.typed} "$stage/zorv"
cp hosts/web/{*.py,page.html} "$stage/zorv/web"
scripts/portable_library.sh "$stage/zorv/lib" "$stage/licences"

glibc=$(objdump -T "$stage"/zorv/lib/* | grep -oE 'GLIBC_2\.[0-9]+' | sort -Vu | tail -n 1)
ZORV_WHEEL_PLATFORM="manylinux_2_${glibc#GLIBC_2.}_$(uname -m)"
ZORV_WHEEL_VERSION=$(sed -n 's/^CMAKE_PROJECT_VERSION:.*=//p' build/wheel/CMakeCache.txt)
export ZORV_WHEEL_PLATFORM ZORV_WHEEL_VERSION
rm -f build/dist/zorv-*.whl
"$python" -m build --wheel --no-isolation --outdir build/dist "$stage" >build/wheel/python.log 2>&1 ||
    { cat build/wheel/python.log; exit 1; }
ls -l build/dist/zorv-*.whl
