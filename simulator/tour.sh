#!/usr/bin/env bash
# What ./run shows without a terminal, inside a simulated one (its environment is set, the commands are in
# PATH): one look at each thing the service does, then the end. Leaves DIR/drive.svg and drive.gpx.
# Usage: tour.sh DIR [RECORDING]
# A RECORDING of a real receiver may have no fix, or lose it: what needs one is then left out.
set -uo pipefail
dir=$1
recording=${2:-}

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

no_fix() {
    [ -n "$recording" ] || fail "$*"
    echo "(no fix in this recording${fixed:+ at this moment})"
}

# The same for what needs a fix.
fix_step() {
    printf '\n$ %s\n' "$*"
    "$@" || no_fix "$* (exit status $?, expected 0)"
}

# Waits for the line that a stand-in service writes about what it received, and shows it.
show_service_line() {
    local line
    for ((tenth = 0; tenth < 150; ++tenth)); do
        line=$(grep -m 1 -E "$1" "$dir/log/services.log") && { printf '%s\n' "$line"; return; }
        sleep 0.1
    done
    no_fix "no line with '$1' in log/services.log"
}

# On board type 2 the service leaves its first two minutes out of the location history.
if grep -q '^type *= *2' "$dir/etc/terminal.conf"; then
    echo 'LOCATION_HISTORY_BOOT_TIME_OFFSET 0.0' >>"$dir/user/gps_control_prm.txt"
    sed -i 's/^LOCATION_HISTORY_BOOT_TIME_OFFSET .*/LOCATION_HISTORY_BOOT_TIME_OFFSET 0.0/' \
        "$dir/user/gps_control_prm.txt"
    simterm ctl "$dir" restart-daemon || fail "restart of the daemon"
fi

# The daemon configures the receiver first, and the receiver looks for its satellites.
fixed=''
printf '\nWaiting for the first fix '
for ((second = 0; second < 60; ++second)); do
    answer=$(lsctl position 2>&1) && { fixed=yes; break; }
    # Nothing to wait for: no GGA, RMC or GLL of the recording has one.
    [ -z "$recording" ] || grep -qE \
        '^\$..(GGA,([^,]*,){5}[1-9]|RMC,[^,]*,A|GLL,([^,]*,){5}A)' "$recording" || break
    printf .
    sleep 1
done
echo
[ -n "$fixed" ] || no_fix "no fix within a minute; lsctl position says: $answer"

echo
echo "A location history of this drive, a line a second:"
step 0 lsctl settings --history on --interval 1
step 0 lsctl power
fix_step lsctl time
fix_step lsctl position
fix_step lsctl position --json
fix_step lsctl speed
printf '\n$ lsctl satellites\n'
lsctl satellites || echo "(a sky of twelve and more does not fit into one answer)"
step 0 lsctl nmea PUBX,00
step 0 lsctl ubx 06 08
fix_step lsctl watch -n 2 -i 4
step 0 simterm ctl "$dir" sal request-location
show_service_line 'SAL .*request 19'
echo
echo "A line that damages the receiver's answers, and heals:"
step 0 simterm ctl "$dir" fault checksum on
step 1 lsctl time
step 0 simterm ctl "$dir" fault checksum off
fix_step lsctl time
echo
echo "Driving on for a while, then the history as lines and as files:"
lines=0
for ((second = 0; second < (${#fixed} ? 30 : 0); ++second)); do
    lines=$(lsctl history 2>/dev/null | wc -l)
    [ "$lines" -lt 30 ] || break
    sleep 1
done
step 0 lsctl settings --history off
if [ "$lines" -ge 30 ]; then
    step 0 lsctl history --since 3s
    step 0 lsctl history --format svg --output "$dir/drive.svg"
    step 0 lsctl history --format gpx --output "$dir/drive.gpx"
    echo "$lines lines of history, drawn in $dir/drive.svg"
else
    no_fix "only $lines lines of history"
fi
echo
echo "Everything answered."
