#!/usr/bin/env bash
# Takes the README's two pictures from a simulated terminal, in about three minutes:
#   docs/pictures/monitor.svg   the screen of lsctl monitor
#   docs/pictures/track.svg     a drive as lsctl history draws it
# Needs python3 and what ./run has built.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$PWD/build/sim
export PATH=$build/client:$build/simulator:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC2016  # for the shell inside
simterm run "$work/terminal" --daemon "$build/location_service/location_service" --instant-fix \
    --route simulator/routes/drive.route --history on --history-interval 2 -- bash -ec '
    python3 docs/pictures/take.py "$1" docs/pictures/monitor.svg
    lsctl settings --history off >/dev/null
    lsctl history --format svg --output docs/pictures/track.svg
' bash "$work/terminal" 2>"$work/said" || { cat "$work/said" >&2; exit 1; }
ls -l docs/pictures/*.svg
