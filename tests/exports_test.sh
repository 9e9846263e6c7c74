#!/bin/sh
# The library exports what its public headers declare, and nothing else. Usage: LIBRARY HEADERS...
set -eu
library=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

grep -hv "^#define" "$@" | tr '\n' ' ' | grep -oE 'TAVLEN_API [^;(]*\(' | grep -oE '[A-Za-z_0-9]+\($' | tr -d '(' |
    sort >"$work/declared"
nm -D --defined-only "$library" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' | sort >"$work/exported"
nm -D --defined-only "$library" | awk '$2 ~ /[BDRVW]/' >"$work/others"

test "$(wc -l <"$work/declared")" -gt 100
diff "$work/declared" "$work/exported"
diff /dev/null "$work/others"
