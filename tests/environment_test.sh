#!/usr/bin/env bash
# docs/environment.md lists the environment variables that the code reads, and no others.
#   environment_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
name='ZORV_[A-Z0-9_]+|W2V_ONNX'
read_by_code=$(grep -rhoE "\"($name)\"" src tools | tr -d '"' | sort -u)
listed=$(sed -n '/^## Build/q; /^| `/p' docs/environment.md | cut -d'|' -f2 | grep -oE "$name" | sort -u)
[ "$(wc -w <<<"$read_by_code")" -ge 25 ] || { echo "found hardly any: $read_by_code"; exit 1; }
diff <(echo "$read_by_code") <(echo "$listed") ||
    { echo "< read by the code alone, > listed alone"; exit 1; }
# The column "read by" names files that do.
while IFS='|' read -r _ variables files _; do
    for file in $(grep -oE '`[a-z0-9_]+/[a-z0-9_]+`' <<<"$files" | tr -d '`'); do
        for variable in $(grep -oE "$name" <<<"$variables"); do
            grep -qs "\"$variable\"" {src,tools}/"${file#tools/}".{cpp,h} ||
                { echo "$file does not read $variable"; exit 1; }
        done
    done
done < <(sed '/^## Build/q' docs/environment.md | grep '^| `')
