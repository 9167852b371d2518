// What can go wrong with bytes on the serial line. Pure functions; the caller owns the random
// state, so the same seed gives the same damage.
#ifndef SIMULATOR_LINE_SPOIL_H
#define SIMULATOR_LINE_SPOIL_H

#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace sim {

// Faults of the line, all off at first.
struct line_faults {
    bool cut = false;            // an answer ends early
    unsigned cut_bytes = 0;      // bytes that still arrive; 0 = half of the answer
    bool checksum = false;       // the checksum of every sentence and frame is wrong
    unsigned garbage_before = 0; // random bytes in front of an answer
    unsigned garbage_after = 0;  // random bytes behind an answer
    unsigned noise = 0;          // of 1000 bytes, how many get one wrong bit, both ways
    unsigned late_ms = 0;        // an answer starts this much later
    bool unplugged = false;      // nothing gets through
};

// One wrong bit in about `per_thousand` of 1000 bytes.
void line_add_noise(std::span<uint8_t> bytes, unsigned per_thousand, std::mt19937 &random);

// The answer as it arrives under `faults`: checksum, then cut, then noise, then garbage around it.
std::vector<uint8_t> line_spoil(std::vector<uint8_t> answer, const line_faults &faults,
                                std::mt19937 &random);

} // namespace sim

#endif
