#!/usr/bin/env bash
# Checks the sources without running them; anything found is an error.
#
#   scripts/lint.sh                  all of the following
#   scripts/lint.sh format           formatting (clang-format)
#   scripts/lint.sh cppcheck         cppcheck
#   scripts/lint.sh tidy [FILE...]   clang-tidy: src/, driver/, tools/ and the GStreamer element where
#                                    it can be built, or the given sources
set -euo pipefail
cd "$(dirname "$0")/.."

check_format() {
    git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format --dry-run -Werror
}

check_cppcheck() {
    cppcheck --quiet -j "$(nproc)" --std=c++20 --language=c++ -D__x86_64__ \
        --enable=warning,performance,portability --inline-suppr --suppressions-list=.cppcheck-suppressions \
        --error-exitcode=1 -Iinclude -Isrc -Idriver $(printf -- '-I%s ' tools/*/) src driver tools
}

# One compilation per job, the longest first. The compile commands are GCC's; clang need not know
# every warning in them.
check_tidy() {
    local files=("$@") folders=('src/*.cpp' 'driver/*.cpp' 'tools/*.cpp')
    cmake --preset release -B build/lint -DZORV_BUILD_TESTS=OFF -DZORV_BUILD_BENCH=OFF >/dev/null
    ! grep -q hosts/gstreamer build/lint/compile_commands.json || folders+=('hosts/gstreamer/*.cpp')
    [ "$#" -gt 0 ] || mapfile -t -d '' files < <(git ls-files -z "${folders[@]}")
    ls -S "${files[@]}" | xargs -n 1 -P "$(nproc)" clang-tidy -p build/lint --quiet \
        --extra-arg=-Wno-unknown-warning-option 2> >(grep -v 'warnings\? generated\.$' >&2)
}

case "${1:-all}" in
    format) check_format ;;
    cppcheck) check_cppcheck ;;
    tidy) shift; check_tidy "$@" ;;
    all) check_format; check_cppcheck; check_tidy ;;
    *) sed -n '2,/^set/p' "$0" | grep '^#'; exit 2 ;;
esac
