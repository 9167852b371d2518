#!/usr/bin/env bash
# The man pages as groff and mandoc see them: no warning. Usage: manuals_lint.sh PAGE...
set -euo pipefail

# What asciidoctor writes into every page: its macros for links, and a blank line behind a heading.
own='skipping insecure request: mso|skipping unknown macro: *LINKSTYLE|skipping paragraph macro: sp after S[HS]'
status=0
for page in "$@"; do
    warnings=$(
        { mandoc -T lint -W warning "$page" || true; } | grep -Ev "$own" || true
        LC_ALL=C.UTF-8 MANWIDTH=100 man --warnings -l "$page" 2>&1 >/dev/null
    )
    # A page without text would pass all of the above.
    if [[ -n $warnings ]] || ! LC_ALL=C man -l "$page" | grep -q '^SEE ALSO'; then
        printf '%s: not clean\n%s\n' "$page" "$warnings"
        status=1
    fi
done
[ $# -gt 0 ] && exit "$status"
