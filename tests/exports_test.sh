#!/usr/bin/env bash
# The library exports exactly the functions that the public header declares.
#   exports_test.sh LIBRARY HEADER
set -euo pipefail
exported=$(nm -D --defined-only "$1" | awk '{print $NF}' | sed 's/@.*//' | sort -u)
declared=$(sed -n '/^ZORV_API/,/;/p' "$2" | grep -oE '\bzorv_[a-z_0-9]+\(' | tr -d '(' | sort -u)
[ -n "$declared" ] || { echo "no declarations found in $2"; exit 1; }
diff <(echo "$declared") <(echo "$exported") && echo "$(wc -l <<<"$exported") functions"
