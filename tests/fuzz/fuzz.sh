#!/usr/bin/env bash
# fuzz.sh SECONDS: runs each fuzz target for so long, two at a time, from its corpus and what earlier runs
# found; what is new stays in build/fuzz/found. Then tells which functions of the code below no corpus reaches:
# each stands in unreached.txt with its reason, or is a fault. SECONDS 0: that alone.
set -euo pipefail
cd "$(dirname "$0")/../.."
. cmake/prepare.sh

seconds=${1-}
[[ $seconds =~ ^[0-9]+$ ]] || fail "usage: fuzz.sh SECONDS"
# What takes bytes from outside.
code=({location_service,client}/src/*.cpp platform/{mqutils,dbhandler}/*.cpp client/lsctl/track/*.cpp
    client/lsctl/lsctl_{engineering,history,sentence,static_file,text,ubx}*.cpp
    client/lsctl/stream/stream_gpsd_requests.cpp)
listed=tests/fuzz/unreached.txt
# A target works in a directory of its own: paths are whole.
corpora=$PWD/tests/data/fuzz
out=$PWD/build/fuzz
names=("$corpora"/*)
names=("${names[@]##*/}")

fuzz() {
    local name=$1 log=$out/$1.log
    rm -f "$out/$name-"{crash,leak,timeout,oom}-*
    mkdir -p "$out/found/$name"
    if LLVM_PROFILE_FILE=/dev/null "$out/tests/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=4096 \
        -close_fd_mask=2 -artifact_prefix="$out/$name-" "$out/found/$name" "$corpora/$name" >"$log" 2>&1; then
        printf '%-20s %s\n' "$name" "$(grep -E '^Done [0-9]+ runs' "$log")"
        return
    fi
    echo "$name: a finding (whole output: $log)"
    local input
    for input in "$out/$name-"{crash,leak,timeout,oom}-*; do
        [ -e "$input" ] || continue
        echo "Input: $input; belongs into tests/data/fuzz/$name once it is mended"
        LLVM_PROFILE_FILE=/dev/null timeout 120 "$out/tests/fuzz/${name}_fuzz" "$input" 2>&1 | tail -n 60
    done
    return 1
}

fuzz_all() {
    local name running=0 failed=0
    local rounds=$(((${#names[@]} + 1) / 2))
    echo "Fuzzing ${#names[@]} targets for $seconds s each, two at a time: $((rounds * seconds)) s"
    for name in "${names[@]}"; do
        if ((running == 2)); then
            wait -n || failed=1
            running=1
        fi
        fuzz "$name" &
        running=$((running + 1))
    done
    while ((running > 0)); do
        wait -n || failed=1
        running=$((running - 1))
    done
    return "$failed"
}

# What llvm-cov tells of each function of the code after the committed corpora.
measure() {
    local name profiles=$out/profiles objects=("$out/platform/"{mqutils,dbhandler}/lib*.so)
    rm -rf "$profiles"
    for name in "${names[@]}"; do
        objects+=("$out/tests/fuzz/${name}_fuzz")
        LLVM_PROFILE_FILE="$profiles/$name.%m.profraw" "$out/tests/fuzz/${name}_fuzz" -runs=0 "$corpora/$name" \
            >"$out/$name-corpus.log" 2>&1 || fail "$name: its own corpus fails (see $out/$name-corpus.log)"
    done
    llvm-profdata merge -o "$profiles/all" "$profiles/"*.profraw
    llvm-cov report -show-functions -Xdemangler=llvm-cxxfilt -path-equivalence="$PWD,$PWD" -instr-profile="$profiles/all" \
        "$out/location_service/location_service" "${objects[@]/#/-object=}" "${code[@]/#/$PWD/}" 2>"$out/llvm-cov.log"
}

# "FILE FUNCTION REACHED" of each, 0 or 1; what has one name in a file is one, a lambda is its function's.
functions() {
    awk '/^File / { file = $2; sub(/.*\/\.\.\/\.\.\//, "", file); sub(/\047:$/, "", file); next }
        /%$/ && !/^TOTAL/ && !/\$_[0-9]|\047lambda/ {
            reached = $(NF - 8) != $(NF - 7)
            sub(/( +[0-9]+ +[0-9]+ +[0-9.]+%)+$/, ""); gsub(/\(anonymous namespace\)::/, "")
            sub(/^[^ :]*\.cpp:/, ""); sub(/[(<[].*/, ""); sub(/.* /, "")
            seen[file " " $0] += reached
        }
        END { for (each in seen) print each, (seen[each] > 0) }' "$1" | sort
}

# Every function that is not reached has its reason, and every reason is needed.
compare() {
    awk 'FNR == NR && /^[^#]/ {
            if (!/ -- ./) { print FILENAME ":" FNR ": no reason"; bad = 1 }
            for (i = 2; $i != "--" && i <= NF; ++i) {
                sometimes = sub(/\?$/, "", $i)
                listed[$1 " " $i] = 1
                if (sometimes) used[$1 " " $i] = 1
            }
        }
        FNR == NR { next }
        { ++count }
        $3 == 1 { next }
        { ++unreached; key = $1 " " $2; file = $1 " *" }
        key in listed { used[key] = 1; next }
        file in listed { used[file] = 1; next }
        { print key ": no target reaches it, and no reason is given"; bad = 1 }
        END {
            for (key in listed) if (!(key in used)) { print key ": has a reason not to be reached, and is"; bad = 1 }
            printf "%d of %d functions are reached, %d have a reason not to be\n", count - unreached, count, unreached
            exit bad
        }' "$listed" "$1"
}

need_packages "${build_packages[@]}" "${test_packages[@]}" "${fuzz_packages[@]}"
build_preset fuzz location_service dbhandler_admin "${names[@]/%/_fuzz}"
if ((seconds > 0)); then
    fuzz_all || fail "fuzzing found something"
fi
measure >"$out/llvm-cov.txt"
functions "$out/llvm-cov.txt" >"$out/functions.txt"
compare "$out/functions.txt" || fail "tests/fuzz/unreached.txt does not fit (see above; lines and branches: $out/llvm-cov.txt)"
