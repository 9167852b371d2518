// Bytes of the line as people read them. Pure.
#ifndef SIMULATOR_LINE_PRINTABLE_H
#define SIMULATOR_LINE_PRINTABLE_H

#include <cstdint>
#include <span>
#include <string>

namespace sim {

// Text as text, without its last line end, everything else as hexadecimal.
std::string printable(std::span<const uint8_t> bytes);

} // namespace sim

#endif
