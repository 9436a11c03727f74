#!/usr/bin/env bash
# Wider instructions stay in the files of their instruction set. In the other objects there are
# none; and these files define nothing that the linker could give to others or that runs unasked:
# an inline function or a static initialiser of a header would be compiled with their flags.
#   instructions_test.sh OBJECT...      of an optimised build; *_avx* are those files
set -euo pipefail
failed=0 wide=0
complain() { echo "$1: $2"; failed=1; }
for object in "$@"; do
    if [[ $object == *_avx*.cpp.o ]]; then
        wide=$((wide + 1))
        # Weak and unique symbols, except the pointer to the exception handler.
        shared=$(nm -C --defined-only "$object" | grep -E '^\S+ [WVu] ' | grep -v 'DW\.ref\.' || true)
        [ -z "$shared" ] || complain "$object" "$shared"
        if readelf -SW "$object" | grep -q '\.init_array'; then
            complain "$object" 'a static initialiser'
        fi
    else
        # VEX and EVEX mnemonics begin with v; then what came between SSE2 and AVX.
        stray=$(objdump -d --no-show-raw-insn "$object" | grep -P -m 3 \
            '^ *[0-9a-f]+:\t(v[a-z]|popcnt|pshufb|palignr|pabs|phadd|haddp|pmul(ld|dq|hrsw)|p(min|max)(sb|uw|[us]d)|ptest|round[ps]|pblend|blendv?p|p?insr[bdq]|p?extr[bdq]|dpp|crc32|lddqu|movddup|movs[hl]dup|andn |bextr|bls|mulx|[sr][ah][lr]x|rorx|lzcnt|movbe)' || true)
        [ -z "$stray" ] || complain "$object" "$stray"
    fi
done
[ "$wide" -gt 0 ] || complain 'objects' 'none of an instruction set'
[ "$failed" = 0 ] && echo "$# objects, $wide of them of one instruction set"
