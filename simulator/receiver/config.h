// The receiver's configuration: what UBX CFG frames and PUBX 40 and 41 set, checked and kept.
//
// Values are kept as the payload bytes that set them, so that a poll gives them back to the byte.
// Pure functions over a value; no I/O.
#ifndef SIMULATOR_RECEIVER_CONFIG_H
#define SIMULATOR_RECEIVER_CONFIG_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sim {

// class << 8 | id
constexpr uint16_t ubx_cfg_prt = 0x0600;
constexpr uint16_t ubx_cfg_msg = 0x0601;
constexpr uint16_t ubx_cfg_inf = 0x0602;
constexpr uint16_t ubx_cfg_rst = 0x0604;
constexpr uint16_t ubx_cfg_rate = 0x0608;
constexpr uint16_t ubx_cfg_cfg = 0x0609;
constexpr uint16_t ubx_cfg_nmea = 0x0617;
constexpr uint16_t ubx_cfg_pm2 = 0x063b;
constexpr uint16_t ubx_cfg_gnss = 0x063e;
constexpr uint16_t ubx_cfg_pwr = 0x0657;

// Bits of a port's protocol masks.
constexpr unsigned protocol_ubx = 1;
constexpr unsigned protocol_nmea = 2;

// Sections of CFG-CFG's masks.
constexpr uint32_t section_port = 1 << 0;
constexpr uint32_t section_messages = 1 << 1;
constexpr uint32_t section_information = 1 << 2;
constexpr uint32_t section_navigation = 1 << 3;
constexpr uint32_t section_receiver_manager = 1 << 4;
constexpr uint32_t all_sections = 0x1f;

// A message whose periodic output can be set.
struct message_kind {
    uint16_t key;               // class << 8 | id; class F0 = NMEA, F1 = PUBX
    std::string_view nmea_type; // "GGA"; empty: a PUBX message or a frame
    uint8_t fresh_rate;         // of a fresh receiver, in epochs; 0 = off
};

constexpr std::array message_kinds{
    message_kind{0xf000, "GGA", 1}, message_kind{0xf001, "GLL", 1}, message_kind{0xf002, "GSA", 1},
    message_kind{0xf003, "GSV", 1}, message_kind{0xf004, "RMC", 1}, message_kind{0xf005, "VTG", 1},
    message_kind{0xf008, "ZDA", 0}, message_kind{0xf100, "", 0},    message_kind{0xf103, "", 0},
    message_kind{0xf104, "", 0},    message_kind{0x0101, "", 0},    message_kind{0x0130, "", 0},
    message_kind{0x0135, "", 0},
};

constexpr size_t port_count = 6; // I2C, UART 1, UART 2, USB, SPI, reserved
constexpr size_t uart_port = 1;  // the only one that leads anywhere

struct receiver_config {
    std::array<uint8_t, 20> port;
    std::array<std::array<uint8_t, port_count>, message_kinds.size()> rates;
    std::array<std::array<uint8_t, port_count>, 2> information; // masks for UBX and NMEA
    std::array<uint8_t, 6> rate;
    std::array<uint8_t, 20> nmea;
    std::vector<uint8_t> gnss;
    std::vector<uint8_t> power_management;
    std::array<uint8_t, 8> power_state; // never saved: power-on is running

    bool operator==(const receiver_config &) const = default;
};

receiver_config fresh_config();

// Takes a CFG payload. False: unknown frame, bad length or bad value; nothing has changed.
bool config_set(receiver_config &config, uint16_t key, std::span<const uint8_t> payload);

// "RATE" for CFG-RATE; empty: unknown frame.
std::string_view config_name(uint16_t key);

// Whether this payload of a CFG frame asks instead of sets.
bool config_is_poll(uint16_t key, size_t payload_length);

// The payload that answers a poll. Empty optional: not to be had.
std::optional<std::vector<uint8_t>> config_get(const receiver_config &config, uint16_t key,
                                               std::span<const uint8_t> poll);

// The fields behind PUBX,40 or PUBX,41. False: ignored.
bool config_pubx_rate(receiver_config &config, std::span<const std::string_view> fields);
bool config_pubx_port(receiver_config &config, std::span<const std::string_view> fields);

void config_copy_sections(const receiver_config &from, receiver_config &to, uint32_t sections);

// All that is ever saved, as CFG frames (key, payload) that config_set takes back.
std::vector<std::pair<uint16_t, std::vector<uint8_t>>> config_frames(const receiver_config &config);

// What the values mean.
unsigned input_protocols(const receiver_config &config);
unsigned output_protocols(const receiver_config &config);
double epoch_period(const receiver_config &config); // seconds
bool gps_enabled(const receiver_config &config);
std::string main_talker(const receiver_config &config);
std::string gsv_talker(const receiver_config &config);
bool notices_on_nmea(const receiver_config &config);

enum class gnss_state { running, stopped, backup };
gnss_state wanted_gnss_state(const receiver_config &config);

} // namespace sim

#endif
