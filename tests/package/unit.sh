#!/usr/bin/env bash
# The service unit without a running systemd: it parses, its exposure stays low, and what its comments promise
# is in it. Usage: unit.sh PACKAGING-DIRECTORY DAEMON
set -euo pipefail
packaging=$1
daemon=$2
command -v systemd-analyze >/dev/null || { echo "skipped: systemd-analyze is missing"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

# verify wants to see the programs; these are the ones of the build.
unit=$work/location_service.service
sed -e "s|=/usr/sbin/location_service|=$daemon|" -e "s|=\(-\?\)/usr/libexec/location_service/|=\1$packaging/libexec/|" \
    "$packaging/systemd/location_service.service" >"$unit"
said=$(systemd-analyze verify --man=no "$unit" 2>&1 | grep -F location_service || true)
[ -z "$said" ] || fail "verify: $said"

exposure() { systemd-analyze security --offline=yes --no-pager --threshold=15 "$@" 2>&1; }
exposure "$unit" >"$work/exposure" || fail "exposure above 1.5: $(tail -n 1 "$work/exposure")"
tail -n 1 "$work/exposure"
cat "$packaging/examples/suspend.conf" >>"$unit"
exposure "$unit" >"$work/exposure" || fail "exposure with suspend.conf above 1.5: $(tail -n 1 "$work/exposure")"

# The health check parses, is confined, and is for those who enable it.
health=$work/location-service-health.service
sed -e "s|=\(+\?\)/usr/libexec/location_service/|=\1$packaging/libexec/|" \
    "$packaging/systemd/location-service-health.service" >"$health"
cp "$packaging/systemd/location-service-health.timer" "$work"
said=$(systemd-analyze verify --man=no "$health" "$work/location-service-health.timer" 2>&1 | grep -F health || true)
[ -z "$said" ] || fail "verify: $said"
systemd-analyze security --offline=yes --no-pager --threshold=20 "$health" >"$work/exposure" 2>&1 ||
    fail "exposure of the health check above 2: $(tail -n 1 "$work/exposure")"
grep -qx 'disable location-service-health.timer' "$packaging"/preset/*.preset || fail "the health check is enabled"

# It restarts after the third status 4 in a row: what lsctl says, and the restarts there have been by then.
mkdir "$work/bin" "$work/run"
# shellcheck disable=SC2016  # for the script
printf '#!/bin/sh\nexit "$SAYS"\n' >"$work/bin/lsctl"
printf '#!/bin/sh\necho "$*" >>"%s"\n' "$work/restarts" >"$work/bin/systemctl"
chmod +x "$work"/bin/*
: >"$work/restarts"
for row in 4:0 4:0 1:0 4:0 4:0 4:1 4:1 0:1 1:1 1:1 1:1 3:1 4:1 4:1 3:1 4:1 4:1 4:2; do
    for step in '' restart; do
        # shellcheck disable=SC2086  # no argument is no argument
        SAYS=${row%:*} RUNTIME_DIRECTORY=$work/run PATH=$work/bin:$PATH "$packaging/libexec/health-check" $step \
            >/dev/null || fail "health-check $step with $row"
    done
    [ "$(grep -cx 'try-restart location_service.service' "$work/restarts")" = "${row#*:}" ] || fail "restarts at $row"
done

# A second line of one of these would widen the sandbox, or the limit of starts, unseen: exactly these, once.
while read -r setting; do
    found=$(grep "^${setting%%=*}=" "$packaging/systemd/location_service.service" || true)
    [ "$found" = "$setting" ] || fail "wanted $setting, found $found"
done <<'SETTINGS'
StartLimitIntervalSec=600
StartLimitBurst=10
RestartSec=5
User=terminal-location
SupplementaryGroups=terminal-data terminal-bus terminal-tools
UMask=0007
CapabilityBoundingSet=
AmbientCapabilities=
NoNewPrivileges=yes
DevicePolicy=closed
DeviceAllow=/dev/ttymxc2 rw
RestrictAddressFamilies=AF_UNIX
ProtectSystem=strict
SETTINGS

# Of a writable path within another systemd makes nothing of its own. Where it is a link, as sysfs has them for exported
# lines, what it leads to would stay read-only.
writable=$(sed -n 's/^ReadWritePaths=//p' "$packaging/systemd/location_service.service" | tr ' ' '\n' | sed 's/^-//')
for path in $writable; do
    ! grep "^$path/" <<<"$writable" || fail "writable within $path, which is writable as well"
done

# The power lines are exported on board type 1 alone; there it waits at the first, because no udev is here.
for row in '0: ' '2:[board]\ntype=2 ; behind the TA' '1:[other]\ntype=2\n[board]\n#type=2\ntype = 1'; do
    gpio=$work/gpio-$RANDOM
    mkdir "$gpio"
    : >"$gpio/export"
    printf '%b\n' "${row#*:}" >"$work/terminal.conf"
    timeout 2 "$packaging/libexec/power-lines" "$gpio" "$work/terminal.conf" 2>/dev/null || true
    exported=
    [ "${row%%:*}" != 1 ] || exported=102
    [ "$(cat "$gpio/export")" = "$exported" ] || fail "board of '$row': exported $(cat "$gpio/export")"
done

# A ring is made where there is none or one too short for its header; anything else is left alone.
ring=$work/location_history
for row in 'rm -f RING' ': >RING' 'printf 1234567 >RING' 'printf 12345678 >RING' 'echo lines >>RING' \
    'rm RING; ln -s nowhere RING' 'rm RING; mkfifo RING'; do
    eval "${row//RING/$ring}"
    before=$(stat -c '%i %s %F' "$ring" 2>/dev/null || true)
    timeout 5 "$packaging/libexec/history-ring" "$work" || fail "history-ring after '$row'"
    case $row in
    'rm -f'* | ':'* | *1234567\ *) [ "$(od -An -tx1 "$ring")" = ' 08 00 00 00 08 00 00 00' ] || fail "ring after '$row'" ;;
    *) [ "$(stat -c '%i %s %F' "$ring")" = "$before" ] || fail "ring touched after '$row'" ;;
    esac
done
for path in "$work/nowhere" "$ring.new"; do
    [ ! -e "$path" ] || fail "history-ring left $path"
done
exit $failed
