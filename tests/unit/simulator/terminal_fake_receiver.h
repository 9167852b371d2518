// A receiver for tests of what lies around it: it answers every line of text with the same text
// between "<" and ">", after a delay that the test sets.
#ifndef TERMINAL_FAKE_RECEIVER_H
#define TERMINAL_FAKE_RECEIVER_H

#include "receiver.h"

#include <string>

namespace sim {

extern double fake_receiver_delay_s; // between the last byte of a command and the answer

inline std::string as_text(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

inline std::vector<uint8_t> as_bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

} // namespace sim

#endif
