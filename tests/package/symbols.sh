#!/usr/bin/env bash
# A library's exported symbols against the list that its package brings: programs are linked to them.
# Usage: symbols.sh NM LIBRARY LIST.symbols
set -euo pipefail
diff <(sed -nE 's/^ ([^ ]+) .*/\1/p' "$3" | LC_ALL=C sort) \
    <("$1" -D --defined-only "$2" | awk '{sub("@@", "@", $3); print $3 ~ /@/ ? $3 : $3 "@" $3}' | LC_ALL=C sort) ||
    { echo "FAILED: < is in $3 only, > in $2 only" >&2; exit 1; }
