#!/usr/bin/env bash
# Formatting and static analysis of the whole tree; needs clang-format, clang-tidy, shellcheck and a
# configured build directory that has everything (build/sim unless another one is given). Ends with 1
# when anything is found.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
build=${1:-build/sim}
found=0

# tidy [CLANG-TIDY OPTION...] <NUL-separated files. One file a call: with several, clang-tidy 14 takes
# every later va_list for an uninitialized one. The build's GCC warning flags are unknown to it.
tidy() {
    xargs -0 -P"$(nproc)" -n1 clang-tidy -quiet -p "$build" "$@" \
        --extra-arg=-Wno-unknown-warning-option 2>/dev/null
}

git ls-files -z '*.cpp' '*.h' '*.hpp' '*.c' | xargs -0 clang-format --dry-run -Werror || found=1
# The examples find their header with pkg-config alone; a test compiles them.
git ls-files -z '*.cpp' ':!tests' ':!benchmarks' ':!examples' | tidy || found=1
# The path analyzer spends its time in the test framework's macros; what tests do with memory and
# threads, the sanitizers watch.
git ls-files -z 'tests/*.cpp' 'benchmarks/*.cpp' | tidy --checks='-clang-analyzer-*' || found=1
git ls-files -z '*.sh' run test bench board .ci/run tests/board/{checks,first-boot,receiver,start-checks} |
    xargs -0 shellcheck -x || found=1
exit $found
