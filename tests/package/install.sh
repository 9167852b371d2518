#!/usr/bin/env bash
# The packages in a clean Debian tree: installed, used, booted, upgraded, removed, purged. Needs root.
# Usage: install.sh SOURCE-DIRECTORY PACKAGE-DIRECTORY [KEPT-TREE.tar]
# The tree is a fresh one of mmdebstrap; with KEPT-TREE.tar it is made once and used again.
set -euo pipefail
source_dir=$1
package_dir=$2
kept=${3:-}
skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root to install packages"
. "$source_dir/cmake/prepare.sh"
need_packages g++ cmake pkg-config mmdebstrap systemd-container
architecture=$(dpkg --print-architecture)
packages=("$package_dir"/*_{"$architecture",all}.deb)
[ -e "${packages[0]}" ] || { echo "FAILED: no packages in $package_dir: run cmake/package.sh" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
names=()
for package in "${packages[@]}"; do
    names+=("$(dpkg-deb -f "$package" Package)")
done
# shellcheck source=tests/package/service.sh
. "$source_dir/tests/package/service.sh"
step() { printf '== %s\n' "$*"; }

container=(systemd-nspawn -q --register=no --keep-unit --private-network --resolv-conf=off --timezone=off
    --link-journal=no --bind="$work/debs:/debs" --bind="$work/out:/out")
inside() { "${container[@]}" --pipe --directory="$tree" --setenv=DEBIAN_FRONTEND=noninteractive "$@" </dev/null; }

step "a clean tree"
mkdir -p "$tree" "$work/debs" "$work/out"
cp "${packages[@]}" "$work/debs/"
if [ -n "$kept" ] && [ -e "$kept" ]; then
    tar -xf "$kept" -C "$tree"
else
    "$source_dir/cmake/debian-sources.sh" >"$work/sources"
    mmdebstrap --variant=minbase --include=systemd,systemd-sysv,libglib2.0-0,libsqlite3-0,libncurses6,python3 "" "$work/tree.tar" - \
        <"$work/sources" 2>"$work/log" || { tail -n 20 "$work/log" >&2; exit 1; }
    tar -xf "$work/tree.tar" -C "$tree"
    [ -z "$kept" ] || mv "$work/tree.tar" "$kept"
fi
inside true || skip "systemd-nspawn cannot start a container on this machine"
picture "$tree" >"$work/before"

step "installed"
inside sh -c 'dpkg -i /debs/*.deb' >"$work/log" 2>&1 || { cat "$work/log"; fail "dpkg -i"; }
[ -z "$(inside dpkg --audit)" ] || fail "dpkg --audit is not content"
inside lsctl --version
inside lsctl --help >/dev/null || fail "lsctl --help"
[ -h "$tree/etc/systemd/system/multi-user.target.wants/location_service.service" ] || fail "the service is not enabled"

step "a simulated terminal, by nobody"
# shellcheck disable=SC2016  # for the shell inside
inside setpriv --reuid=65534 --regid=65534 --clear-groups sh -c 'cd "$(mktemp -d)" && exec simterm run t \
    --daemon /usr/lib/simterm/location_service --instant-fix --place 70.1,11.5 --baud 0 -- \
    sh -c "sleep 1; lsctl position; python3 /usr/share/doc/python3-location-client/examples/position.py"' \
    >"$work/log" 2>&1 || fail "simterm run"
{ grep -q '^Latitude .*70\.1' "$work/log" && grep -q '^70\.1' "$work/log"; } || { cat "$work/log"; fail "no position from the simulated terminal"; }

step "programs built against the -dev package"
"$source_dir/tests/package/dev.sh" "$tree" "$work/dev" || fail "-dev package"
cp "$work"/dev/by_* "$work/out/"
# No bus here: /run is empty until the tree boots.
inside /out/by_pkg_config || fail "program built with pkg-config"
inside /out/by_cmake || fail "program built with CMake"
said=$(inside /out/by_c)
[ "$said" = "board 1, /user/settings.db, -1" ] || fail "program in C said: $said"

step "booted, with the simulated receiver on its serial line"
cp "$source_dir"/tests/package/{booted,service}.sh "$work/out/"
cp -a "$tree" "$work/booted"
ln -s /etc/systemd/system/booted.service "$work/booted/etc/systemd/system/multi-user.target.wants/"
cat >"$work/booted/etc/systemd/system/booted.service" <<'UNIT'
[Unit]
After=location_service.service
[Service]
Type=oneshot
ExecStart=/bin/bash /out/booted.sh
StandardOutput=append:/out/booted.log
StandardError=inherit
ExecStopPost=/bin/systemctl --no-block poweroff
UNIT
timeout 240 "${container[@]}" --directory="$work/booted" --boot --console=read-only </dev/null \
    >"$work/console" 2>&1 || { tail -n 30 "$work/console"; fail "the tree did not boot and end"; }
cat "$work/out/booted.log"
grep -qx 'booted: all well' "$work/out/booted.log" || fail "the service in the booted tree"

step "upgraded"
echo '# mine' >>"$tree/etc/terminal.conf"
echo 'data' >"$tree/user/location/location_history"
inside sh -c 'dpkg -i /debs/*.deb' >"$work/log" 2>&1 || { cat "$work/log"; fail "upgrade"; }
grep -q '# mine' "$tree/etc/terminal.conf" || fail "the upgrade took /etc/terminal.conf back"
[ -s "$tree/user/location/location_history" ] || fail "the upgrade lost the history"

step "removed"
inside dpkg -r "${names[@]}" >"$work/log" 2>&1 || { cat "$work/log"; fail "dpkg -r"; }
for path in user/location/location_history etc/terminal.conf; do
    [ -s "$tree/$path" ] || fail "removing took $path, too"
done

step "purged"
inside dpkg -P "${names[@]}" >"$work/log" 2>&1 || { cat "$work/log"; fail "dpkg -P"; }
picture "$tree" >"$work/after"
left_over "$work/before" "$work/after" >"$work/left"
[ ! -s "$work/left" ] || { cat "$work/left"; fail "something is left, or gone"; }
[ $failed -ne 0 ] || echo "installed, used, booted, upgraded, removed and purged: nothing but users is left"
exit $failed
