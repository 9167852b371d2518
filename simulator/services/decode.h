// Bus messages in words, for the log of the other services. Pure.
#ifndef SIMULATOR_SERVICES_DECODE_H
#define SIMULATOR_SERVICES_DECODE_H

#include "mqutils.h"

#include <cstdint>
#include <span>
#include <string>

namespace sim {

// One line: kind, id, sender, contents. A payload of the wrong size is shown as hexadecimal.
std::string services_decode(const msg_hdr &hdr, std::span<const uint8_t> payload);

} // namespace sim

#endif
