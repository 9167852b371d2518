#!/usr/bin/env bash
# Builds small programs against an installed -dev package: with pkg-config, with CMake, and in C.
# Usage: dev.sh TREE OUTPUT-DIRECTORY
set -euo pipefail
tree=$1
out=$2
mkdir -p "$out/cmake"
cat >"$out/dev.cpp" <<'SOURCE'
#include <location_client.hpp>

#include <cstdio>

int main() {
    location_client_owner client;
    const location_result result = location_client_open(0, client);
    std::puts(location_client_error_text(result));
    return result == LOCATION_NO_BUS ? 0 : 1;
}
SOURCE
cat >"$out/dev.c" <<'SOURCE'
#include <dbhandler.h>
#include <dbhandler_admin.h>
#include <mqutils.h>
#include <zukhal.h>

#include <stdio.h>

int main(void) {
    struct scm_conn conn = {0};
    printf("board %d, %s, %d\n", get_zuk_type(), db_settings_file(), scm_conn_init(&conn, 0));
    return 0;
}
SOURCE
multiarch=$(cd "$tree/usr/lib" && echo ./*/pkgconfig)
library_dir=$tree/usr/lib/$(basename "$(dirname "$multiarch")")
export PKG_CONFIG_SYSROOT_DIR=$tree PKG_CONFIG_LIBDIR=$library_dir/pkgconfig
# What the libraries link to themselves is this machine's or the tree's, whichever the linker finds.
indirect=-Wl,-rpath-link,$library_dir
read -ra flags < <(pkg-config --cflags --libs location_client)
g++ -std=c++20 -Wall -Wextra -Werror "$out/dev.cpp" -o "$out/by_pkg_config" "${flags[@]}" "$indirect"
read -ra flags < <(pkg-config --cflags --libs terminal-platform)
gcc -std=c11 -Wall -Wextra -Werror "$out/dev.c" -o "$out/by_c" "${flags[@]}" -ldbhandler_admin "$indirect"
cat >"$out/cmake/CMakeLists.txt" <<PROJECT
cmake_minimum_required(VERSION 3.25)
project(dev CXX)
find_package(location_service 3.0 REQUIRED)
add_executable(by_cmake "$out/dev.cpp")
target_compile_features(by_cmake PRIVATE cxx_std_20)
target_link_libraries(by_cmake PRIVATE location_service::location_client)
target_link_options(by_cmake PRIVATE $indirect)
set_target_properties(by_cmake PROPERTIES SKIP_BUILD_RPATH ON RUNTIME_OUTPUT_DIRECTORY "$out")
PROJECT
{
    cmake -S "$out/cmake" -B "$out/cmake/build" -DCMAKE_PREFIX_PATH="$tree/usr"
    cmake --build "$out/cmake/build"
} >"$out/cmake.log" 2>&1 || { cat "$out/cmake.log"; exit 1; }
