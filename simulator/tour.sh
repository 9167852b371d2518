#!/usr/bin/env bash
# What ./run shows, inside a terminal that simterm has brought up (its environment is set, the commands
# are in PATH). Usage: tour.sh DIR live|short
#   live   the position once a second, until interrupted
#   short  one look at each thing the service does, then the end
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
echo "Everything answered."
