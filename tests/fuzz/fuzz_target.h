// What every fuzz target defines, how it takes its input apart, and how it says that it found
// something.
#ifndef FUZZ_TARGET_H
#define FUZZ_TARGET_H

#include "scratch_dir.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// An input, taken from its front. What is no longer there is empty, or zero.
struct fuzz_input {
    std::string_view rest;

    std::string_view take(size_t size) {
        const std::string_view taken = rest.substr(0, size);
        rest.remove_prefix(taken.size());
        return taken;
    }
    // Up to `end`, which goes with it.
    std::string_view until(char end) {
        const std::string_view taken = take(std::min(rest.find(end), rest.size()));
        take(1);
        return taken;
    }
    // Little-endian.
    template <typename Number>
    Number number() {
        Number value = 0;
        const std::string_view taken = take(sizeof value);
        taken.copy(reinterpret_cast<char *>(&value), taken.size());
        return value;
    }
};

// One input, in a directory of the target's own that is there for all inputs.
void fuzz(fuzz_input input);

inline void fuzz_expect(bool condition, const char *what) {
    if (!condition) {
        fprintf(stderr, "finding: %s\n", what);
        abort();
    }
}

#endif
