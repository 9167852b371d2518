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
sed -e "s|=/usr/sbin/location_service|=$daemon|" -e "s|=/usr/libexec/location_service/|=$packaging/libexec/|" \
    "$packaging/systemd/location_service.service" >"$unit"
said=$(systemd-analyze verify --man=no "$unit" 2>&1 | grep -F location_service || true)
[ -z "$said" ] || fail "verify: $said"

exposure() { systemd-analyze security --offline=yes --no-pager --threshold=15 "$@" 2>&1; }
exposure "$unit" >"$work/exposure" || fail "exposure above 1.5: $(tail -n 1 "$work/exposure")"
tail -n 1 "$work/exposure"
cat "$packaging/examples/suspend.conf" >>"$unit"
exposure "$unit" >"$work/exposure" || fail "exposure with suspend.conf above 1.5: $(tail -n 1 "$work/exposure")"

# A second line of one of these would widen the sandbox unseen: exactly these values, once.
while read -r setting; do
    found=$(grep "^${setting%%=*}=" "$packaging/systemd/location_service.service")
    [ "$found" = "$setting" ] || fail "wanted $setting, found $found"
done <<'SETTINGS'
User=terminal-location
CapabilityBoundingSet=
AmbientCapabilities=
NoNewPrivileges=yes
DevicePolicy=closed
DeviceAllow=/dev/ttymxc2 rw
RestrictAddressFamilies=AF_UNIX
ProtectSystem=strict
SETTINGS

# The power lines are exported on board type 1 alone; there it waits at the first, because no udev is here.
for row in '1: ' '2:[board]\ntype=2 ; behind the TA' '1:[other]\ntype=2\n[board]\n#type=2\ntype = 1'; do
    gpio=$work/gpio-$RANDOM
    mkdir "$gpio"
    : >"$gpio/export"
    printf '%b\n' "${row#*:}" >"$work/terminal.conf"
    timeout 2 "$packaging/libexec/power-lines" "$gpio" "$work/terminal.conf" 2>/dev/null || true
    exported=
    [ "${row%%:*}" != 1 ] || exported=102
    [ "$(cat "$gpio/export")" = "$exported" ] || fail "board of '$row': exported $(cat "$gpio/export")"
done
exit $failed
