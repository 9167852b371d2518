#!/usr/bin/env bash
# Builds all Debian packages and lints them; they are left in build/packages/.
#   cmake/package.sh [amd64|armhf]     this machine's architecture unless given
#
# Two builds: the terminal's, and the workstation's for simterm, whose daemon lives in its directory. What a
# package depends on is read from its programs by dpkg-shlibdeps. For another architecture than this
# machine's, nothing of which is installed here, it gets that architecture's own library packages, unpacked.
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/prepare.sh

machine=$(dpkg --print-architecture)
architecture=${1:-$machine}
case $architecture in
"$machine" | armhf) ;;
*) fail "usage: cmake/package.sh [$machine|armhf]" ;;
esac
# shlibdeps asks these two; the tools for another architecture carry its name.
export DEB_HOST_ARCH=$architecture
multiarch=$(dpkg-architecture -a"$architecture" -qDEB_HOST_MULTIARCH 2>/dev/null)

packages=("${build_packages[@]}" asciidoctor dpkg-dev lintian)
work=$PWD/build/package-$architecture
options=(-G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$multiarch"
    -DLS_DEBIAN=ON)
if [ "$architecture" != "$machine" ]; then
    packages+=("${armhf_packages[@]}")
    options+=(--toolchain "$PWD/cmake/armhf-toolchain.cmake")
fi
need_packages "${packages[@]}"
[ "$architecture" = "$machine" ] || cmake/armhf-sysroot.sh

# Whatever compiles and links takes these from the environment.
buildflags() {
    DEB_BUILD_MAINT_OPTIONS=hardening=+bindnow dpkg-buildflags --get "$1"
}
CFLAGS="$(buildflags CPPFLAGS) $(buildflags CFLAGS)"
CXXFLAGS="$(buildflags CPPFLAGS) $(buildflags CXXFLAGS)"
LDFLAGS=$(buildflags LDFLAGS)
export CFLAGS CXXFLAGS LDFLAGS

# build NAME [CMAKE OPTION...]
build() {
    local name=$1 log=$work/$1.log
    shift
    echo "Building for $architecture packages: $name"
    { cmake -S . -B "$work/$name" "${options[@]}" "$@" && cmake --build "$work/$name"; } >"$log" 2>&1 ||
        { tail -n 40 "$log" >&2; fail "building $name failed (whole output: $log)"; }
}

# stage BUILD COMPONENT: installs it into a tree of its own, which DEBIAN marks as a package for shlibdeps.
stage() {
    rm -rf "$work/tree/$2"
    DESTDIR=$work/tree/$2 cmake --install "$work/$1" --component "$2" >>"$work/install.log"
    mkdir "$work/tree/$2/DEBIAN"
}

# The libraries of the other architecture as its own packages bring them, each with its control files:
# only they say which version of a library has which symbol.
fetch_libraries() {
    local apt=$work/apt package
    rm -rf "$apt" "$work/libraries"
    mkdir -p "$apt/debs" "$work/libraries"
    (cd "$apt/debs" && "$OLDPWD/cmake/foreign-apt.sh" "$architecture" "$apt" \
        download libc6 libgcc-s1 libstdc++6 libglib2.0-0 libsqlite3-0 libncurses6 libtinfo6) >"$apt/log" 2>&1 ||
        { tail -n 20 "$apt/log" >&2; fail "the libraries could not be fetched"; }
    for package in "$apt"/debs/*.deb; do
        dpkg-deb -R "$package" "$work/libraries/$(dpkg-deb -f "$package" Package)"
    done
}

# depends COMPONENT: prints what its programs and libraries link to, as a dependency field.
depends() {
    local component=$1 files=() found=()
    mapfile -d '' -t files < <(find "$work/tree/$component" -type f -exec sh -c \
        'for f; do [ "$(head -c 4 "$f" | tr -d "\177")" = ELF ] && printf "%s\0" "$f"; done' sh {} +)
    [ ${#files[@]} -gt 0 ] || return 0
    for directory in "$work"/tree/{platform,library} "$work"/libraries/*/; do
        [ ! -d "$directory" ] || found+=("-S${directory%/}")
    done
    # A package does not depend on itself. Anything shlibdeps is in doubt about is an error here, but for the
    # names of ARM's own runtime, which no package's list of symbols has.
    (cd "$work/shlibdeps" && dpkg-shlibdeps "${found[@]}" "-x$(name_of "$component")" -O "${files[@]}" 2>log &&
        ! grep -v ' symbol __aeabi_' log >&2) | sed -n 's/^shlibs:Depends=//p'
}

# The name of a component's package, as CPack knows it.
name_of() {
    sed -n "s/^set(CPACK_DEBIAN_${1^^}_PACKAGE_NAME \"\(.*\)\")/\1/p" "$work"/{terminal,sim}/CPackConfig.cmake
}

# pack BUILD COMPONENT...
pack() {
    local build=$1 component list settings=()
    shift
    for component in "$@"; do
        list=$(depends "$component") || fail "the dependencies of $component could not be told"
        settings+=(-D "LS_DEPENDS_$component=$list")
    done
    (cd "$work/$build" && cpack -G DEB -B "$work/cpack/$build" \
        -D "CPACK_DEBIAN_PACKAGE_ARCHITECTURE=$architecture" "${settings[@]}") >"$work/cpack-$build.log" 2>&1 ||
        { tail -n 20 "$work/cpack-$build.log" >&2; fail "packing $build failed"; }
}

mkdir -p "$work/shlibdeps/debian" build/packages
build terminal -DLS_ROOT= -DLS_CLIENT=ON
build sim -DLS_ROOT=. -DLS_SIMULATOR=ON

printf 'Source: location-service\n\nPackage: location-service\nArchitecture: any\n' >"$work/shlibdeps/debian/control"
for component in daemon platform library client python dev; do
    stage terminal "$component"
done
stage sim simulator
for component in platform library; do
    cp "$work/terminal/packaging/debian/$(name_of $component)"/s* "$work/tree/$component/DEBIAN/"
done
[ "$architecture" = "$machine" ] || fetch_libraries

rm -rf "$work/cpack"
pack terminal daemon platform library client python dev
pack sim simulator
rm -f build/packages/*_{"$architecture",all}.deb
mv "$work"/cpack/*/*.deb build/packages/

made=(build/packages/*_{"$architecture",all}.deb)
lintian --allow-root --fail-on error,warning "${made[@]}" || fail "lintian is not content"
# This machine's are installed in a test. Of the others apt says whether it could, on a bare system.
if [ "$architecture" != "$machine" ]; then
    cmake/foreign-apt.sh "$architecture" "$work/apt" --no-install-recommends -s install "${made[@]/#/./}" \
        >"$work/install.log" 2>&1 ||
        { tail -n 20 "$work/install.log" >&2; fail "the packages could not be installed"; }
fi
for package in "${made[@]}"; do
    echo "$package"
    dpkg-deb -f "$package" Depends | sed 's/^/    /'
done
