#!/usr/bin/env bash
# Runs as root in the booted tree of install.sh, and does what the machine of a terminal would: gives the tree
# a serial line and power lines (simterm's), and plays udev. Then it looks at the service.
set -uo pipefail
# shellcheck source=tests/package/service.sh
. "$(dirname "$0")/service.sh"

# Without its serial line the service has failed, and systemd tries again.
failed_once() { [ "$(property ExecMainStatus)" = 255 ]; }
check "a start without the serial line fails with 255" until_true 10 failed_once
systemctl stop location_service.service
# Quicker than in earnest: ten starts, and then none until somebody says so.
starts() { journalctl --no-pager -b -u location_service.service | grep -c 'status=255'; }
before=$(starts)
mkdir /run/systemd/system/location_service.service.d
printf '[Service]\nRestartSec=100ms\n' >/run/systemd/system/location_service.service.d/quick.conf
systemctl daemon-reload
systemctl start location_service.service
check "it is left alone after some failures" until_true 60 systemctl is-failed location_service.service
[ $(($(starts) - before)) = 10 ] || fail "starts without a serial line: $(starts), $before of them before"
! systemctl start location_service.service 2>/dev/null || fail "it started again without reset-failed"
rm -r /run/systemd/system/location_service.service.d
systemctl daemon-reload

add_people

# The machine. The two rules' commands are taken from the rules file.
mkdir /tmp/terminal
simterm run /tmp/terminal --instant-fix --place 70.1,11.5 --no-services >/tmp/simterm.log 2>&1 &
check "simterm" until_true 10 test -e /tmp/terminal/dev/ttymxc2
: >/dev/ttymxc2
mount --bind "$(readlink -f /tmp/terminal/dev/ttymxc2)" /dev/ttymxc2
chgrp terminal-location /dev/ttymxc2 && chmod 660 /dev/ttymxc2
mount -t tmpfs none /sys/class && mkdir /sys/class/gpio && mount --bind /tmp/terminal/sys/class/gpio /sys/class/gpio
chown -R root:root /sys/class/gpio
chmod 200 /sys/class/gpio/*export
systemd-tmpfiles --create location_service.conf
# simterm exports them itself before the first start; here nobody has.
for line in 102 37; do
    echo $line >/sys/class/gpio/unexport
    check "gpio$line" until_true 10 test ! -e /sys/class/gpio/gpio$line
done
rules=$(grep -o 'RUN+="[^"]*"' /usr/lib/udev/rules.d/60-location_service.rules | sed 's/^RUN+="//; s/"$//')
while sleep 0.2; do
    for line in 102 37; do
        path=/sys/class/gpio/gpio$line
        # simterm makes its files anew when a line is exported; the kernel's are root's, too.
        [ -e $path/value ] && [ "$(stat -c %G $path/direction)" = root ] && sh -c "${rules//\/sys%p/$path}"
    done
done &
udev=$!

# The history is on at the very first start.
rm -f /user/location/location_history*
as terminal-ws lsctl settings --antenna 4 --history on --interval 1
systemctl reset-failed location_service.service
check "systemctl start" systemctl start location_service.service
check "an answer" until_true 40 as technician lsctl position
position=/usr/share/doc/python3-location-client/examples/position.py
check "an answer in Python" as technician python3 $position
check "a service in Python" as terminal-ws python3 -c 'from location_client import Client; Client(6).get_power()'
[[ $(as stranger python3 $position 2>&1) == *'(bus_denied)'* ]] || fail "a stranger in Python"

printf 'bus directory:\n'
diff - <(cd /run/terminal-bus && find . ! -name '3[3-9]' ! -name '[45]?' ! -name '6?' -printf '%m %u:%g %P %l\n' | sort -k 3) <<'LAYOUT' ||
755 root:root  
777 root:root 12 own/12/socket
777 root:root 2 own/2/socket
777 root:root 3 own/3/socket
777 root:root 32 own/tools/32
777 root:root 6 own/6/socket
777 root:root 8 own/8/socket
777 root:root 9 own/9/socket
755 root:root own 
2711 terminal-ta:terminal-bus own/12 
2711 terminal-sal:terminal-bus own/2 
2711 terminal-voip:terminal-bus own/3 
2711 terminal-ws:terminal-bus own/6 
2711 terminal-location:terminal-bus own/8 
660 terminal-location:terminal-bus own/8/socket 
2711 terminal-client9:terminal-bus own/9 
3771 root:terminal-tools own/tools 
644 root:root policy 
LAYOUT
    fail "bus directory"

printf 'the process:\n'
check_confined

printf 'who may ask:\n'
check "a tool" as technician lsctl power
check "VoIP itself" as terminal-voip lsctl power --as 3
for who in 'terminal-ta --as 3' 'terminal-ta --as 13' 'stranger' 'terminal-voip'; do
    # shellcheck disable=SC2086  # user and options
    ! as ${who%% *} lsctl power ${who#"${who%% *}"} || fail "asked: $who"
done

printf 'history and settings:\n'
has_lines() { [ "$(as technician lsctl history | grep -c ',2D,70.1')" -ge "$1" ]; }
check "a history from the first start on" until_true 20 has_lines 3
check "settings" as terminal-ws lsctl settings --history off
ls -l /user /user/location
[ -z "$(find /user -type f ! -group terminal-data)" ] || fail "a file of another group in /user"
for file in gps_control_prm.txt settings.db stub_location/stub_loc.gps location/location_history{,.txt}; do
    for who in technician terminal-location terminal-ws; do
        check "$who may write $file" as $who test -w "/user/$file"
    done
    ! as stranger test -w "/user/$file" || fail "anybody may write $file"
done

# What another policy refuses does not arrive, whoever is in which group.
printf 'policy:\n'
check "the installed policy" cmp /etc/terminal-bus.policy /run/terminal-bus/policy
echo '8: 1001 request from 3' >/run/terminal-bus/policy
systemctl restart location_service.service
check "VoIP under another policy" until_true 20 as terminal-voip lsctl power --as 3
! as technician lsctl power --timeout 0.5 || fail "a tool got past the policy"
check "the refusal in the log" until_true 10 sh -c "journalctl -b | grep 'refused by the policy'"
install -m 644 /etc/terminal-bus.policy /run/terminal-bus/policy
systemctl restart location_service.service
check "a tool under the installed policy" until_true 20 as technician lsctl power
pid=$(property MainPID)

printf 'killed:\n'
kill -KILL "$pid"
check "a restart" until_true 40 as technician lsctl position
[ "$(property NRestarts)" = 1 ] || fail "restarts: $(property NRestarts)"

printf 'stopped:\n'
systemctl stop location_service.service
check_stopped
# simterm looks now and then: of a quick restart it may see nothing.
events=$(grep -o -E '(un)?exported' /tmp/simterm.log)
[ "$(head -n 4 <<<"$events" | uniq | xargs)" = 'unexported exported' ] || fail "power lines taken away and exported"
[ "$(tail -n 2 <<<"$events" | uniq)" = unexported ] || fail "power lines given back"
kill $udev %1
[ $failed -eq 0 ] || { journalctl --no-pager -u location_service.service | tail -n 40; cat /tmp/simterm.log; }
[ $failed -ne 0 ] || echo "booted: all well"
