// UBX frames: B5 62, class, id, payload length (16 bit), payload, two checksum bytes;
// little-endian. Pure functions.
#ifndef SIMULATOR_RECEIVER_UBX_H
#define SIMULATOR_RECEIVER_UBX_H

#include "nmea.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace sim {

constexpr uint8_t ubx_sync_1 = 0xb5;
constexpr uint8_t ubx_sync_2 = 0x62;
constexpr size_t ubx_overhead = 8; // bytes around a payload

// class << 8 | id
constexpr uint16_t ubx_nav_posecef = 0x0101;
constexpr uint16_t ubx_nav_svinfo = 0x0130;
constexpr uint16_t ubx_nav_sat = 0x0135;
constexpr uint16_t ubx_ack_nak = 0x0500;
constexpr uint16_t ubx_ack_ack = 0x0501;
constexpr uint16_t ubx_mon_ver = 0x0a04;

// Over class, id, length and payload.
std::array<uint8_t, 2> ubx_checksum(std::span<const uint8_t> bytes);

std::vector<uint8_t> ubx_frame(uint16_t key, std::span<const uint8_t> payload);

// The frame that answers a poll of NAV or MON. Empty: no such poll.
std::vector<uint8_t> ubx_report(uint16_t key, const nav_report &report);

} // namespace sim

#endif
