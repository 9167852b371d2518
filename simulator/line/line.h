// The serial line to the receiver: when bytes arrive, and in what state.
//
// Full duplex, each direction serial: a byte takes ten bit times (start, 8 data, stop) and waits
// for the bytes before it. A command reaches the receiver when its last byte would have arrived, an
// answer is handed over whole when its last byte would have arrived. No clock, no descriptors, no
// threads: the caller passes `now` in seconds, never decreasing, and asks when to come back.
#ifndef SIMULATOR_LINE_H
#define SIMULATOR_LINE_H

#include "receiver.h"
#include "spoil.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <span>
#include <vector>

namespace sim {

constexpr unsigned LINE_BITS_PER_BYTE = 10;

struct line_chunk {
    std::vector<uint8_t> bytes;
    double due; // when the last byte is there
};

struct line {
    unsigned baud = 9600; // 0 = bytes take no time
    line_faults faults;
    std::mt19937 random{1}; // fixed seed: a fault does the same damage in every run

    std::deque<line_chunk> commands; // on their way to the receiver
    std::deque<line_chunk> answers;  // on their way from it
    double commands_until = 0;       // when the last queued byte of that direction is through
    double answers_until = 0;
    double clock = 0; // how far the receiver has been taken

    uint64_t command_bytes = 0; // reached the receiver
    uint64_t answer_bytes = 0;  // reached the other end
    uint64_t lost_bytes = 0;    // no power, unplugged
};

// A command enters the line at `now`.
void line_send(line &wire, std::span<const uint8_t> bytes, double now);

// Takes the line and the receiver to `now`; returns the answers that have arrived, in order. Call
// it before anything else that changes the receiver at `now`, and after.
std::vector<std::vector<uint8_t>> line_step(line &wire, receiver &module, double now);

// When line_step has something to do; empty = nothing by itself.
std::optional<double> line_next_event(const line &wire, const receiver &module);

// The receiver has lost its power: what it was sending is lost.
void line_drop_answers(line &wire);

} // namespace sim

#endif
