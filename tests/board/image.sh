#!/usr/bin/env bash
# Makes what the emulated board boots, in DIR: vmlinuz, board.dtb, initrd.gz and base.img, an ext4 file system
# out of Debian's armhf packages. Without a loop device: the packages are unpacked here, and configured at the
# first boot of the board, whose result base.img is. Without root, too: fakeroot remembers whose the files are.
#   tests/board/image.sh DIR
# The file system has 1 GiB; what a boot is given besides lies behind it on the card (start-checks).
# Nothing is done when DIR already holds these packages. What each step took is left in DIR/image-times.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=cmake/prepare.sh
. "$here/../../cmake/prepare.sh"
[ $# -eq 1 ] || fail "usage: ${0##*/} DIR"

# Beside the essential ones: the service manager, what its units call, and what our packages need.
packages=(systemd-sysv udev kmod linux-image-armmp libglib2.0-0 libsqlite3-0 libncurses6 python3 busybox-static)
# For the first card and the power lines; crc32-arm-ce is for another core.
modules=(crc32c_generic sdhci-esdhc-imx ext4 gpio-mxc)
stamp="${packages[*]} ${modules[*]} $(cat "$here"/{image.sh,initrd-init,first-boot,checks.service,start-checks} | sha256sum)"
mkdir -p "$1"
cd "$1"
[ "$(cat packages 2>/dev/null || true)" != "$stamp" ] || exit 0
[ "$(id -u)" -eq 0 ] || [ -n "${FAKEROOTKEY:-}" ] || exec fakeroot "$here/image.sh" "$PWD"

: >image-times
started=$SECONDS
step=
# step TEXT: the step before has ended, this one begins.
step() {
    [ -z "$step" ] || printf '%s: %d s\n' "$step" $((SECONDS - started)) | tee -a image-times
    started=$SECONDS
    step=$1
}

# Writes the package database of root/ as if dpkg had unpacked the packages there, without their scripts.
make_database() {
    local package name paragraph member file info=root/var/lib/dpkg/info
    mkdir -p "$info" root/var/lib/dpkg/updates
    echo 1 >"$info/format"
    : >root/var/lib/dpkg/available
    for package in "$@"; do
        rm -rf control
        dpkg-deb -e "$package" control
        paragraph=$(cat control/control)
        name=$(sed -n 's/^Package: //p' <<<"$paragraph")
        ! grep -qx 'Multi-Arch: same' <<<"$paragraph" || name+=:armhf
        for file in control/*; do
            member=${file#control/}
            [ "$member" = control ] || cp -p "$file" "$info/$name.$member"
        done
        dpkg-deb --fsys-tarfile "$package" | tar -t --quoting-style=literal | sed 's|^\./|/|; s|^/$|/.|; s|\(.\)/$|\1|' >"$info/$name.list"
        printf '%s\n' "${paragraph/$'\n'/$'\nStatus: install ok unpacked\n'}"
        if [ -e control/conffiles ]; then
            echo Conffiles:
            grep '^/' control/conffiles | while read -r file; do
                printf ' %s %s\n' "$file" "$(md5sum <"root$file" | cut -d' ' -f1)"
            done
        fi
        echo
    done >root/var/lib/dpkg/status
    rm -rf control
}

step "fetching the board's packages"
rm -rf apt root initrd
"$here/../../cmake/foreign-apt.sh" armhf apt -y --no-install-recommends --download-only install \
    '?essential' '?priority(required)' "${packages[@]}" >fetch.log 2>&1 ||
    { tail -n 20 fetch.log >&2; fail "the board's packages could not be fetched"; }

step "unpacking them"
# /bin and its like are links from the beginning: dpkg would not make them.
mkdir -p root/usr/{bin,sbin,lib} root/board
for directory in bin sbin lib; do
    ln -s usr/$directory root/$directory
done
for package in apt/cache/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink -C root
done
kernel=$(basename root/lib/modules/*)
cp "root/boot/vmlinuz-$kernel" vmlinuz
cp "root/usr/lib/linux-image-$kernel/imx6q-sabrelite.dtb" board.dtb
# The third serial port, which the board's own description leaves off; without the engine that the emulator
# does not have.
port=$(fdtget -t s board.dtb /aliases serial2)
fdtput -t s board.dtb "$port" status okay
fdtput -d board.dtb "$port" dmas dma-names

depmod -b root "$kernel"
mkdir -p initrd/{bin,modules,dev,proc,root}
cp root/usr/bin/busybox initrd/bin/
install -m 755 "$here/initrd-init" initrd/init
for name in "${modules[@]}"; do
    modprobe -d "$PWD/root" -S "$kernel" --show-depends "$name"
done | sed -n 's/^insmod \([^ ]*\).*/\1/p' | grep -v crc32-arm-ce | awk '!seen[$0]++' >modules
number=10
while read -r module; do
    cp "$module" "initrd/modules/$number-${module##*/}"
    number=$((number + 1))
done <modules
(cd initrd && find . | cpio -o -H newc --quiet | gzip -1) >initrd.gz
# All other drivers are for what the emulator lacks, and each start would look for it.
rm -rf "root/lib/modules/$kernel/kernel" root/boot/* root/usr/lib/linux-image-*
depmod -b root "$kernel"

# The kernel is not configured: it would make an initrd of its own.
mapfile -t unpacked < <(find apt/cache/archives -name '*.deb' ! -name 'linux-image*' | sort)
make_database "${unpacked[@]}"
install -m 755 "$here"/{first-boot,start-checks} root/board/
install -m 644 "$here/checks.service" root/board/
rm -f first.img
truncate -s 1G first.img
mke2fs -q -t ext4 -d root first.img
rm -rf root initrd apt modules

step "first boot, which configures them"
python3 "$here/console.py" --directory . --card first.img --init /board/first-boot --timeout 3000 >first-boot.log 2>&1 ||
    { tail -n 20 first-boot.log >&2; fail "the first boot failed (whole output: $PWD/first-boot.log)"; }
step ""
mv first.img base.img
printf '%s\n' "$stamp" >packages
