// The receiver's ear: cuts a byte stream into sentences and UBX frames.
//
// Garbage, wrong checksums and endless messages are passed over; what is held is bounded.
#ifndef SIMULATOR_RECEIVER_INPUT_H
#define SIMULATOR_RECEIVER_INPUT_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace sim {

struct command {
    bool is_frame = false;
    std::string body; // of a sentence: between $ and *
    uint8_t frame_class = 0, frame_id = 0;
    std::vector<uint8_t> payload;
};

struct input_splitter {
    std::vector<uint8_t> held; // bytes of a message that is not complete
    double last_byte_at = 0.0; // when the newest of them came
};

// Takes bytes that arrived at `now`; returns the commands that are complete, in order.
std::vector<command> split_input(input_splitter &splitter, std::span<const uint8_t> bytes,
                                 double now);

} // namespace sim

#endif
