#!/usr/bin/env bash
# Builds zorv and runs its tests.
#
#   scripts/test.sh          the release build and every test
#   scripts/test.sh --all    before that: scripts/lint.sh, the header's reference, the tests under
#                            ASan+UBSan, the threaded ones under TSan, and a minute of fuzzing per
#                            target; after it the Python package as it is installed, the tests with the
#                            portable paths and the count of code lines (what CI runs)
set -euo pipefail
cd "$(dirname "$0")/.."

ALL=0
[ "${1:-}" = --all ] && ALL=1
FUZZ_SECONDS="${ZORV_FUZZ_SECONDS:-60}"
export ZORV_WERROR=ON

say() { printf '\n== %s\n' "$*"; }

build() { # preset, further options of the build tool
    say "building: $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$@"
}

check_sources() { # clang-tidy of all but the library is left to scripts/lint.sh: it takes minutes
    say 'formatting and static analysis'
    scripts/lint.sh format
    scripts/lint.sh cppcheck
    git ls-files -z 'src/*.cpp' | xargs -0 scripts/lint.sh tidy
}

check_reference() {
    say 'reference of the public header'
    mkdir -p build
    doxygen docs/reference/Doxyfile
}

fuzz_one() { # target; a finding lands in build/fuzz/found
    local name dir seeds=()
    name=$(basename "$1")
    for dir in "fuzz/seeds/$name" "build/fuzz/fuzz/seeds/$name"; do # kept; written by the build
        [ ! -d "$dir" ] || seeds+=("$dir")
    done
    mkdir -p "build/fuzz/corpus/$name" build/fuzz/found
    "$1" -max_total_time="$FUZZ_SECONDS" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/found/$name-" "build/fuzz/corpus/$name" "${seeds[@]}" \
        >"build/fuzz/$name.log" 2>&1
}

run_fuzzers() { # two at a time
    local target log failed=0
    build fuzz
    say "fuzzing for $FUZZ_SECONDS s per target"
    export -f fuzz_one
    export FUZZ_SECONDS
    printf '%s\0' build/fuzz/bin/*_fuzz | xargs -0 -n 1 -P 2 bash -c 'fuzz_one "$1"' - || failed=1
    for target in build/fuzz/bin/*_fuzz; do
        say "$(basename "$target")"
        log="build/fuzz/$(basename "$target").log"
        grep -E '^(Done|stat::)' "$log" || tail -n 100 "$log"
    done
    return "$failed"
}

if [ "$ALL" = 1 ]; then
    scripts/setup.sh --dev >/dev/null
    say 'share of tests'
    scripts/code_lines.py
    check_sources
    check_reference
    build asan
    say 'tests under ASan+UBSan'
    ctest --preset asan -LE slow -j 2 --output-on-failure
    build tsan --target zorv_threaded_tests
    say 'threaded tests under TSan'
    ctest --preset tsan -R 'Stream|Context|Common|Parallel|Engines|Int8Conv|GridSampleOperator|AtOnce|Utt|utt_calls|Telemetry' -LE slow -j 2 --output-on-failure
    run_fuzzers
else
    scripts/setup.sh >/dev/null
fi
# Tests that need a large component, GStreamer say, carry the label large.
LARGE=(-LE large)
if [ "$ALL" = 1 ]; then
    LARGE=()
    export ZORV_REQUIRE_HOSTS=ON
fi
build release
say 'tests'
ctest --preset release -j 2 "${LARGE[@]}"
if [ "$ALL" = 1 ]; then
    say 'the Python package in environments of its own'
    scripts/wheel.sh
    python3 bindings/python/tests/wheel_test.py . build/demo
    say 'the Node package where it is installed'
    scripts/node.sh --test
    say 'tests with the portable paths'
    ZORV_SIMD=portable ctest --preset release -j 2 -LE 'slow|large' -E '^(memcheck|without_avx|install|demo|library|header)'
fi
