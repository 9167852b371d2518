#!/usr/bin/env bash
# What ./run shows, inside a terminal that simterm has brought up (its environment is set, the commands
# are in PATH). Usage: tour.sh DIR live|short
#   live   the position once a second, until interrupted
#   short  one look at each thing the service does, then the end; leaves DIR/drive.svg and drive.gpx
set -uo pipefail
dir=$1
mode=$2

fail() {
    printf '\nstep failed: %s\n' "$*" >&2
    printf 'last lines of %s/log/terminal.log:\n' "$dir" >&2
    tail -n 5 "$dir/log/terminal.log" >&2
    exit 1
}

# Runs a command and shows it; its status must be the one given.
step() {
    local wanted=$1 status=0
    shift
    printf '\n$ %s\n' "$*"
    "$@" || status=$?
    [ "$status" -eq "$wanted" ] || fail "$* (exit status $status, expected $wanted)"
}

# Waits for the line that a stand-in service writes about what it received, and shows it.
show_service_line() {
    local line
    for ((tenth = 0; tenth < 150; ++tenth)); do
        line=$(grep -m 1 -E "$1" "$dir/log/services.log") && { printf '%s\n' "$line"; return; }
        sleep 0.1
    done
    fail "no line with '$1' in log/services.log"
}

# On board type 2 the service leaves its first two minutes out of the location history.
if [ "$mode" = short ] && grep -q '^type *= *2' "$dir/etc/terminal.conf"; then
    echo 'LOCATION_HISTORY_BOOT_TIME_OFFSET 0.0' >>"$dir/user/gps_control_prm.txt"
    sed -i 's/^LOCATION_HISTORY_BOOT_TIME_OFFSET .*/LOCATION_HISTORY_BOOT_TIME_OFFSET 0.0/' \
        "$dir/user/gps_control_prm.txt"
    simterm ctl "$dir" restart-daemon || fail "restart of the daemon"
fi

# The daemon configures the receiver first, and the receiver looks for its satellites.
printf '\nWaiting for the first fix '
for ((second = 0; ; ++second)); do
    answer=$(lsctl position 2>&1) && break
    [ "$second" -lt 60 ] || fail "no fix within a minute; lsctl position says: $answer"
    printf .
    sleep 1
done
echo

if [ "$mode" = live ]; then
    while :; do
        answer=$(lsctl position 2>&1)
        printf '\033[H\033[JPosition once a second; Ctrl-C ends everything.\n\n%s\n' "$answer"
        sleep 1
    done
fi

echo
echo "A location history of this drive, a line a second:"
step 0 lsctl settings --history on --interval 1
step 0 lsctl power
step 0 lsctl time
step 0 lsctl position
step 0 lsctl position --json
step 0 lsctl speed
printf '\n$ lsctl satellites\n'
lsctl satellites || echo "(a sky of twelve and more does not fit into one answer)"
step 0 lsctl nmea PUBX,00
step 0 lsctl ubx 06 08
step 0 lsctl watch -n 2 -i 4
step 0 simterm ctl "$dir" sal request-location
show_service_line 'SAL .*request 19'
echo
echo "A line that damages the receiver's answers, and heals:"
step 0 simterm ctl "$dir" fault checksum on
step 1 lsctl time
step 0 simterm ctl "$dir" fault checksum off
step 0 lsctl time
echo
echo "Driving on for a while, then the history as lines and as files:"
for ((second = 0; second < 30; ++second)); do
    lines=$(lsctl history | wc -l)
    [ "$lines" -lt 30 ] || break
    sleep 1
done
[ "$lines" -ge 30 ] || fail "only $lines lines of history"
step 0 lsctl settings --history off
step 0 lsctl history --since 3s
step 0 lsctl history --format svg --output "$dir/drive.svg"
step 0 lsctl history --format gpx --output "$dir/drive.gpx"
echo "$lines lines of history, drawn in $dir/drive.svg"
echo
echo "Everything answered."
