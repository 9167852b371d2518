#!/usr/bin/env bash
# lsctl on a terminal whose libdbhandler has the service's four calls only, with and without our library for tools.
# Usage: four_calls_dbhandler.sh LSCTL FOREIGN-LIBRARY OUR-DIRECTORY
set -euo pipefail
lsctl=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$2" "$work/libdbhandler.so"
export LD_LIBRARY_PATH=$work:$3 DBHANDLER_FILE=$work/settings.db MQUTILS_DIR=$work/bus
# expect STATUS TEXT ARGUMENT...
expect() {
    local status=0 said
    said=$("$lsctl" settings "${@:3}" 2>&1) || status=$?
    if [ "$status" -ne "$1" ] || [[ $said != *"$2"* ]]; then
        printf 'lsctl settings %s: status %s:\n%s\n' "${*:3}" "$status" "$said"
        exit 1
    fi
}
expect 1 "stored in $work/settings.db, but this terminal's libdbhandler reads something else" --interval 5
: >"$work/libdbhandler_admin.so" # found first, and no library
expect 0 'on, every 1234 s'
expect 0 'on (power mode 2)' --power-status on
expect 1 'nothing is stored: this terminal has no libdbhandler_admin.so' --interval 5 --power-status off
