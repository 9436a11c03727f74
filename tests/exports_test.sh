#!/usr/bin/env bash
# What the library exports, what the public header declares and what it marks with ZORV_API are the
# same, and every one of them is a function whose comment says from which threads it may be called.
#   exports_test.sh LIBRARY HEADER COMPILER
set -euo pipefail
symbols=$(nm -D --defined-only "$1")
others=$(awk '$(NF - 1) != "T"' <<<"$symbols")
[ -z "$others" ] || { echo "exported, but no function: $others"; exit 1; }
exported=$(awk '{print $NF}' <<<"$symbols" | sort)
text=$("$3" -E -P -x c "$2" | tr '\n' ' ' | tr ';' '\n')
names() { grep -oE '\bzorv_[a-z_0-9]+ *\(' | tr -d ' (' | sort; }
declared=$(names <<<"$text")
[ -n "$declared" ] || { echo "no declarations found in $2"; exit 1; }
marked=$(grep 'visibility("default")' <<<"$text" | names)
diff <(echo "$declared") <(echo "$marked") || { echo "declared < > marked with ZORV_API"; exit 1; }
diff <(echo "$declared") <(echo "$exported") || { echo "declared < > exported"; exit 1; }
unlabelled=$(awk '/^\/\*\*/ { comment = "" } !/^ZORV_API/ { comment = comment " " $0 }
    /^ZORV_API/ && tolower(comment) !~ /(any|one)[ *]+thread|thread-safety/' "$2")
[ -z "$unlabelled" ] || { echo "no word on threads: $unlabelled"; exit 1; }
echo "$(wc -l <<<"$exported") functions"
