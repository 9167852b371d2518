# shellcheck shell=bash disable=SC2034
# Sourced by ./run, ./test, ./board and .ci/run: the packages they need, and configuring and building a preset.
# The caller stands in the project's directory.

build_packages=(g++ cmake ninja-build pkg-config libglib2.0-dev libsqlite3-dev libcli11-dev nlohmann-json3-dev
    libncurses-dev)
test_packages=(libgtest-dev libbenchmark-dev gpsbabel gpsd-clients python3-gps libxml2-utils python3 zsh asciidoctor
    mandoc man-db systemd make kconfig-frontends-nox)
analysis_packages=(clang-format clang-tidy shellcheck)
fuzz_packages=(clang llvm libclang-rt-dev)
bench_packages=(gpsd valgrind qemu-user)
armhf_packages=(g++-arm-linux-gnueabihf qemu-user-static mmdebstrap debian-archive-keyring)
board_packages=(qemu-system-arm debian-archive-keyring cpio device-tree-compiler e2fsprogs kmod fakeroot python3)

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

is_installed() {
    dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null | grep -q '^ii'
}

# Installs what is missing of the packages given; needs root or sudo for that.
need_packages() {
    local package missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "packages are missing; as root, type: apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update -q &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends "${missing[@]}"; } \
        >"$log" 2>&1 </dev/null; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        fail "the packages could not be installed; as root, type: apt-get install ${missing[*]}"
    fi
    rm -f "$log"
}

# build_preset PRESET [TARGET...]: quiet unless it fails. Where the libraries of tests and benchmarks are not installed,
# without these: ./test and ./bench install them.
build_preset() {
    local preset=$1 log="build/$1.log" options=()
    shift
    is_installed libgtest-dev || options+=(-DLS_TESTS=OFF)
    is_installed libbenchmark-dev || options+=(-DLS_BENCHMARKS=OFF)
    mkdir -p build
    echo "Building preset $preset"
    cmake --preset "$preset" "${options[@]}" >"$log" 2>&1 || { cat "$log" >&2; fail "configuring preset $preset failed"; }
    cmake --build --preset "$preset" ${1:+--target "$@"} >"$log" 2>&1 ||
        { grep -E 'error|FAILED|undefined' "$log" >&2 || tail -n 40 "$log" >&2; fail "building preset $preset failed (whole output: $log)"; }
}
