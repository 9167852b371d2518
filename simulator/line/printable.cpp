#include "printable.h"

#include <array>
#include <cstdio>

namespace sim {

std::string printable(std::span<const uint8_t> bytes) {
    bool text = true;
    size_t length = bytes.size();
    while (length > 0 && (bytes[length - 1] == '\r' || bytes[length - 1] == '\n'))
        length--;
    for (const uint8_t byte : bytes.first(length))
        text = text && ((byte >= ' ' && byte < 0x7F) || byte == '\r' || byte == '\n');
    std::string shown;
    if (text) {
        for (const uint8_t byte : bytes.first(length))
            if (byte == '\n')
                shown += " | ";
            else if (byte != '\r')
                shown.push_back(static_cast<char>(byte));
        return shown;
    }
    for (const uint8_t byte : bytes) {
        std::array<char, 4> hex;
        std::snprintf(hex.data(), hex.size(), "%02X ", byte);
        shown += hex.data();
    }
    shown.pop_back();
    return shown;
}

} // namespace sim
