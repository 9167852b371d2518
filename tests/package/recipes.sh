#!/usr/bin/env bash
# The Yocto recipe and the Buildroot package, as far as they can be read without Yocto and Buildroot: syntax,
# licence sums, version, and that they make the users that the sysusers.d files make.
# Usage: recipes.sh SOURCE-DIRECTORY VERSION
set -euo pipefail
source_dir=$1
version=$2
packaging=$source_dir/packaging
recipe=$packaging/yocto/location-service_$version.bb
buildroot=$packaging/buildroot
package=$buildroot/location_service
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

grep -q "md5=$(md5sum <"$source_dir/LICENSE" | cut -d' ' -f1)\"" "$recipe" || fail "licence sum of the recipe"
(cd "$source_dir" && grep -v '^#' "$package/location_service.hash" | sed 's/^sha256  //' | sha256sum -c --quiet) ||
    fail "licence sum of the Buildroot package"
grep -qx "LOCATION_SERVICE_VERSION = $version" "$package/location_service.mk" || fail "version in the .mk"

# Users as "name its-other-groups", from the files and from both build systems.
sed -nE 's/^u +([^ ]+).*/\1/p; s/^m +([^ ]+) +(.*)/\1 \2/p' "$packaging"/sysusers/*.conf |
    awk '{groups[$1] = groups[$1] (groups[$1] == "" ? "" : ",") $2} END {for (u in groups) print u, groups[u]}' |
    sed 's/ $//' | sort >"$work/users"
grep -oE '\$\{NO_LOGIN\} [^;"\\]*' "$recipe" |
    sed -E 's/^[^ ]+ (--groups ([^ ]+) )?([^ ]+) *$/\3 \2/; s/ $//' | sort | diff "$work/users" - ||
    fail "users of the recipe"

# The .mk with just enough of Buildroot around it.
cat >"$work/Makefile" <<'MAKE'
qstrip = $(strip $(subst ",,$(1)))
define cmake-package
$(info site $(LOCATION_SERVICE_SITE))
$(info depends $(LOCATION_SERVICE_DEPENDENCIES))
$(info options $(LOCATION_SERVICE_CONF_OPTS))
endef
include $(PACKAGE)/location_service.mk
$(foreach name,USERS PERMISSIONS INSTALL_INIT_SYSTEMD,$(if $(LOCATION_SERVICE_$(name)),,$(error $(name) is empty)))
users: ; $(info $(LOCATION_SERVICE_USERS))@:
MAKE
make_said() { make -s -f "$work/Makefile" "PACKAGE=$package" BR2_PACKAGE_LOCATION_SERVICE_SOURCE='"/a/b"' "$@"; }
make_said BR2_PACKAGE_LOCATION_SERVICE_LSCTL=y >"$work/made" || fail "the .mk"
grep -qx 'site /a/b' "$work/made" || fail "source directory of the .mk: $(head -n 1 "$work/made")"
for wanted in "^depends .*cli11" "^options .*LS_CLIENT=ON"; do
    grep -q "$wanted" "$work/made" || fail ".mk with lsctl: no $wanted"
done
awk '$2 == "-1" && $1 != "-" {print $1, $8}' "$work/made" | sed 's/ -$//' | sort | diff "$work/users" - ||
    fail "users of the .mk"
make_said >"$work/made"
! grep -q cli11 "$work/made" || fail ".mk without lsctl wants cli11"

# Config.in with the symbols it refers to.
if command -v kconfig-conf >/dev/null; then
    {
        for symbol in USE_MMU TOOLCHAIN_USES_GLIBC TOOLCHAIN_HAS_THREADS USE_WCHAR INSTALL_LIBSTDCPP \
            TOOLCHAIN_GCC_AT_LEAST_12 INIT_SYSTEMD; do
            printf 'config BR2_%s\n\tbool\n\tdefault y\n' $symbol
        done
        for symbol in LIBGLIB2 SQLITE CLI11 JSON_FOR_MODERN_CPP NCURSES; do
            printf 'config BR2_PACKAGE_%s\n\tbool "%s"\n' $symbol $symbol
        done
        printf 'source "%s"\n' "$package/Config.in"
    } >"$work/Config.in"
    (cd "$work" && echo 'CONFIG_BR2_PACKAGE_LOCATION_SERVICE=y' >.config &&
        kconfig-conf --olddefconfig Config.in >said 2>&1) || fail "Config.in: $(cat "$work/said")"
    ! grep -Ei 'warning|error' "$work/said" || fail "Config.in"
    for symbol in SQLITE LIBGLIB2 CLI11 JSON_FOR_MODERN_CPP NCURSES; do
        grep -q "BR2_PACKAGE_$symbol=y" "$work/.config" || fail "Config.in does not select $symbol"
    done
else
    echo "kconfig-conf is missing: Config.in was not read"
fi
exit $failed
