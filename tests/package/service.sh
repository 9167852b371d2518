# shellcheck shell=bash disable=SC2034  # failed is for those who source this
# Sourced by what looks, as root, at the installed service on a running system: booted.sh in a container,
# ../board/checks on the emulated board.
unit=location_service.service
failed=0
fail() { printf 'FAILED: %s\n' "$*"; failed=1; }
# check TEXT COMMAND...: the command must succeed.
check() { local text=$1; shift; "$@" || fail "$text"; }
# until_true SECONDS COMMAND...
until_true() {
    local end=$((SECONDS + $1))
    shift
    while ! "$@" >/dev/null 2>&1; do
        ((SECONDS < end)) || return 1
        sleep 0.1
    done
}
as() { local user=$1; shift; setpriv --reuid="$user" --regid="$user" --init-groups -- "$@"; }
property() { systemctl show -P "$1" $unit; }

# One who may ask, and one who may not.
add_people() {
    useradd --system --groups terminal-bus,terminal-tools,terminal-data technician
    useradd --system stranger
}

# The running process has its own user, no capability, and the filter of system calls; and in its own eyes most
# of the file system cannot be written to.
check_confined() {
    local pid path
    pid=$(property MainPID)
    diff - <(grep -E '^(Uid|CapPrm|CapEff|CapBnd|CapAmb|NoNewPrivs|Seccomp):' "/proc/$pid/status" | sed "s/$(id -u terminal-location)/own/g") <<'STATUS' ||
Uid:	own	own	own	own
CapPrm:	0000000000000000
CapEff:	0000000000000000
CapBnd:	0000000000000000
CapAmb:	0000000000000000
NoNewPrivs:	1
Seccomp:	2
STATUS
        fail "privileges of the process"
    for path in /etc /usr /run /run/terminal-bus /run/terminal-bus/own /sys/kernel /var; do
        ! nsenter -t "$pid" -m touch "$path/written" 2>/dev/null || fail "$path can be written to"
    done
}

# check_stopped: it ended in order, and nothing of it is on the bus.
check_stopped() {
    local ended
    ended="$(property Result), status $(property ExecMainStatus)"
    [ "$ended" = "success, status 0" ] || fail "stop: $ended"
    [ ! -e /run/terminal-bus/own/8/socket ] || fail "the socket stayed"
}

# picture DIRECTORY: what is in the tree, with mode, owner and, for files, size and time of change; without what dpkg
# and the system itself keep.
picture() {
    (cd "$1" && find . -xdev \( -path ./var/lib/dpkg -o -path ./var/log -o -path ./var/cache -o -path ./run -o \
        -path ./tmp -o -path ./dev -o -path ./proc -o -path ./sys -o -path ./etc/ld.so.cache -o -path ./var/lib/systemd -o \
        -path ./var/tmp -o -path ./board \) -prune -o \
        -printf '%M %u:%g %p' \( -type f -printf ' %s %T@\n' -o -printf ' %l\n' \) | LC_ALL=C sort)
}

# left_over BEFORE AFTER: the difference of two pictures. Users and groups stay; see the packages' postrm.
left_over() {
    diff "$1" "$2" | grep '^[<>]' | grep -Ev ' \./etc/(passwd|group|shadow|gshadow)-? ' || true
}
