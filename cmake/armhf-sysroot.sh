#!/usr/bin/env bash
# Makes the sysroot of the ARMv7 build: headers and libraries out of Debian's armhf packages, unpacked and
# not installed, from the package sources this machine uses itself.
#   cmake/armhf-sysroot.sh [DIR]      DIR: build/armhf-sysroot unless given
# Nothing is done when DIR already holds these packages. DIR appears whole or not at all.
set -euo pipefail

packages=(libc6-dev libgcc-s1 libstdc++6 libglib2.0-dev libsqlite3-dev libcli11-dev nlohmann-json3-dev
    libncurses-dev libgtest-dev)
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
# What neither the compiler nor a program under the emulator reads. The emulator looks up every path in the
# sysroot first: /etc, /tmp and the like must not exist there.
unwanted=(./bin ./boot ./dev ./etc ./home ./media ./mnt ./opt ./proc ./root ./run ./sbin ./srv ./sys ./tmp ./var
    ./usr/bin ./usr/games ./usr/sbin './usr/lib/python*' './usr/share/python*' ./usr/share/bash-completion
    ./usr/share/doc ./usr/share/gtk-doc ./usr/share/locale ./usr/share/man ./usr/share/zoneinfo)

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# Absolute links would lead out of the sysroot: the linker then finds no shared library and silently takes the
# static one.
make_links_relative() {
    local link target
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln -sfn "$(dirname "${link#./}" | sed 's|[^/][^/]*|..|g')$target" "$link"
    done < <(find . -type l -lname '/*' -print0)
    [ -z "$(find . -type l -lname '/*')" ] || fail "absolute links are left in the sysroot"
    local dangling
    dangling=$(find . -name '*.so' -xtype l)
    [ -z "$dangling" ] || fail "libraries without their file:" "$dangling"
}

[ $# -le 1 ] || fail "usage: ${0##*/} [DIR]"
dir=${1:-$(dirname "$0")/../build/armhf-sysroot}
stamp="${packages[*]} without ${unwanted[*]}"
[ "$(cat "$dir/.packages" 2>/dev/null || true)" != "$stamp" ] || exit 0
# Never remove what this script did not make.
[ ! -e "$dir" ] || [ -e "$dir/.packages" ] || rmdir "$dir" 2>/dev/null ||
    fail "$dir is there and is not a sysroot of mine"

for tool in mmdebstrap apt-get; do
    command -v "$tool" >/dev/null || fail "$tool is missing"
done
[ -r "$keyring" ] || fail "the package debian-archive-keyring is missing"
sources=$("$(dirname "$0")/debian-sources.sh")

mkdir -p "$(dirname "$dir")"
work=$(mktemp -d "$dir.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work/root"
include=$(IFS=, && echo "${packages[*]}")
# No suite and no mirror of its own: the sources come on standard input.
printf '%s\n' "$sources" |
    mmdebstrap --variant=extract --architectures=armhf --format=tar --include="$include" "" - - \
        2>"$work/log" |
    tar -x -C "$work/root" --no-same-owner "${unwanted[@]/#/--exclude=}" 2>>"$work/log" ||
    { tail -n 20 "$work/log" >&2; fail "the packages could not be unpacked"; }
# Since Debian 13 the loader's path goes through a link that no library package brings.
[ -e "$work/root/lib" ] || ln -s usr/lib "$work/root/lib"
(cd "$work/root" && make_links_relative)

printf '%s\n' "$stamp" >"$work/root/.packages"
chmod 755 "$work/root"
rm -rf "$dir"
mv -T "$work/root" "$dir"
