#!/usr/bin/env bash
# The examples in C and C++ as their user builds them: outside the tree, with the C and C++ compilers and what
# pkg-config says of an installed tree that was moved; then run on a simulated terminal.
# Usage: examples.sh SOURCE-DIRECTORY BUILD-DIRECTORY SIMTERM DAEMON
set -euo pipefail
source_dir=$1 build_dir=$2 simterm=$3 daemon=$4
for program in pkg-config make; do
    command -v $program >/dev/null || { echo "skipped: no $program"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
for component in library dev platform; do
    cmake --install "$build_dir" --prefix "$work/first" --component $component >/dev/null
done
mv first moved
pc=$(find "$work/moved" -name location_client.pc)
PKG_CONFIG_PATH=$(dirname "$pc")
LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
export PKG_CONFIG_PATH LD_LIBRARY_PATH
strict='-Wall -Wextra -Wpedantic -Werror'
make -s -f "$source_dir/examples/Makefile" CFLAGS="$strict" CXXFLAGS="$strict"

cat >run.sh <<'SH'
for language in c cpp; do
    ./updates-$language 2 4 >updates-$language.out &
    ./position-$language >position-$language.out
done
wait
# The first line of the history is there by now, or soon.
for language in c cpp; do
    for try in $(seq 100); do
        ! ./history_gpx-$language >history_gpx-$language.out 2>/dev/null || ! grep -q trkpt history_gpx-$language.out || break
        sleep 0.1
    done
done
SH
env -u LD_LIBRARY_PATH "$simterm" run terminal --daemon "$daemon" --baud 0 --instant-fix --place=-47.5,8.25 \
    --history on --history-interval 1 -- env LD_LIBRARY_PATH="$LD_LIBRARY_PATH" sh run.sh >said 2>&1 || { cat said; exit 1; }

failed=0
# expect FILE COUNT PATTERN: so many lines of the file are like this.
expect() {
    [ "$(grep -cE "$3" "$1")" = "$2" ] || { echo "FAILED: $1 has not $2 times $3:"; cat "$1"; failed=1; }
}
expect position-c.out 1 '^47\.5[0-9]{5} S 8\.2[0-9]{5} E, '
expect position-cpp.out 1 '^-47\.5[0-9]{5} 8\.2[0-9]{5}, '
for language in c cpp; do
    expect updates-$language.out 2 '^47\.5[0-9]{5} S 8\.2[0-9]{5} E$'
    grep -qE '^<trkpt lat="-47\.5[0-9]{5}" lon="8\.2[0-9]{5}"><time>20.*Z</time></trkpt>$' history_gpx-$language.out ||
        { echo "FAILED: no history in $language:"; cat history_gpx-$language.out; failed=1; }
done
[ $failed -eq 0 ] || cat said
head -n 4 ./*.out
exit $failed
