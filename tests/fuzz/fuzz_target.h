// What every fuzz target offers, and how it says that it found something.
#ifndef FUZZ_TARGET_H
#define FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// One input. Always 0; a finding ends the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

inline void fuzz_expect(bool condition, const char *what) {
    if (!condition) {
        fprintf(stderr, "finding: %s\n", what);
        abort();
    }
}

#endif
