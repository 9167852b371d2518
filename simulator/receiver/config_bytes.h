// Where values stand in the configuration payloads; little-endian. For the configuration only.
#ifndef SIMULATOR_RECEIVER_CONFIG_BYTES_H
#define SIMULATOR_RECEIVER_CONFIG_BYTES_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace sim {

constexpr size_t port_number_at = 0;
constexpr size_t port_mode_at = 4;
constexpr size_t port_baud_at = 8;
constexpr size_t port_in_at = 12;
constexpr size_t port_out_at = 14;

constexpr size_t nmea_version_at = 1;
constexpr size_t nmea_satellites_at = 2;
constexpr size_t nmea_numbering_at = 8;
constexpr size_t nmea_main_talker_at = 9;
constexpr size_t nmea_gsv_talker_at = 10;
constexpr size_t nmea_form_at = 11;

constexpr size_t gnss_header = 4;
constexpr size_t gnss_block = 8;
constexpr size_t gnss_flags_at = 4; // in a block

inline uint16_t u16_at(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

inline uint32_t u32_at(std::span<const uint8_t> bytes, size_t at) {
    return u16_at(bytes, at) | static_cast<uint32_t>(u16_at(bytes, at + 2)) << 16;
}

inline void put_u16(std::span<uint8_t> bytes, size_t at, uint16_t value) {
    bytes[at] = static_cast<uint8_t>(value & 0xff);
    bytes[at + 1] = static_cast<uint8_t>(value >> 8);
}

inline void put_u32(std::span<uint8_t> bytes, size_t at, uint32_t value) {
    put_u16(bytes, at, static_cast<uint16_t>(value & 0xffff));
    put_u16(bytes, at + 2, static_cast<uint16_t>(value >> 16));
}

} // namespace sim

#endif
