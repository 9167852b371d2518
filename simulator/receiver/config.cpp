// What the kept configuration means, how PUBX changes it, and what a fresh receiver has.
#include "config.h"

#include "config_bytes.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace sim {

namespace {

constexpr uint8_t system_gps = 0;

template <class number>
std::optional<number> number_in(std::string_view text, int base) {
    number value{};
    const char *end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, value, base);
    return failure == std::errc{} && stop == end ? std::optional(value) : std::nullopt;
}

// Systems that are switched on, as a bit mask of their numbers.
unsigned systems_enabled(const receiver_config &config) {
    unsigned systems = 0;
    for (size_t at = gnss_header; at + gnss_block <= config.gnss.size(); at += gnss_block)
        if ((config.gnss[at + gnss_flags_at] & 1) != 0)
            systems |= 1U << config.gnss[at];
    return systems;
}

} // namespace

receiver_config fresh_config() {
    receiver_config config{};
    config.port = {1, 0, 0, 0, 0xd0, 0x08, 0, 0, 0x80, 0x25, // UART 1, 8N1, 9600 baud
                   0, 0, 7, 0, 3,    0,    0, 0, 0,    0};   // all in, UBX and NMEA out
    for (size_t i = 0; i < message_kinds.size(); ++i)
        config.rates[i] = {0, message_kinds[i].fresh_rate, 0, message_kinds[i].fresh_rate, 0, 0};
    config.information[0] = {0, 0, 0, 0, 0, 0};
    config.information[1] = {7, 7, 7, 7, 7, 0}; // errors, warnings, notices
    config.rate = {0xe8, 0x03, 1, 0, 1, 0};     // 1000 ms, each one a solution, GPS time
    config.nmea = {0, 0x40, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    config.gnss = {0, 32, 32, 2,              // message version, channels, blocks
                   0, 8,  16, 0, 1, 0, 1, 0,  // GPS, L1 C/A
                   6, 8,  14, 0, 1, 0, 1, 0}; // GLONASS, L1
    config.power_management = {1, 0, 0, 0, 0x00, 0x10, 0, 0, 0xe8, 0x03, 0, 0, 0x10, 0x27, 0, 0};
    config.power_management.resize(44); // search every 10 s, position every second
    config.power_state = {1, 0, 0, 0, 'R', 'U', 'N', ' '};
    return config;
}

bool config_pubx_rate(receiver_config &config, std::span<const std::string_view> fields) {
    if (fields.size() < port_count)
        return false;
    const auto kind =
        std::find_if(message_kinds.begin(), message_kinds.end(), [&](const message_kind &one) {
            return !fields[0].empty() && one.nmea_type == fields[0];
        });
    if (kind == message_kinds.end())
        return false;
    std::array<uint8_t, port_count> rates{};
    for (size_t port = 0; port + 1 < port_count; ++port) {
        const auto rate = number_in<uint8_t>(fields[port + 1], 10);
        if (!rate)
            return false;
        rates[port] = *rate;
    }
    config.rates[static_cast<size_t>(kind - message_kinds.begin())] = rates;
    return true;
}

bool config_pubx_port(receiver_config &config, std::span<const std::string_view> fields) {
    if (fields.size() < 5)
        return false;
    const auto port = number_in<uint8_t>(fields[0], 10);
    const auto in = number_in<uint16_t>(fields[1], 16);
    const auto out = number_in<uint16_t>(fields[2], 16);
    const auto baud = number_in<uint32_t>(fields[3], 10);
    const auto automatic = number_in<uint8_t>(fields[4], 10);
    if (!port || !in || !out || !baud || !automatic || *automatic > 1)
        return false;
    std::array<uint8_t, 20> payload = config.port;
    payload[port_number_at] = *port;
    put_u32(payload, port_baud_at, *baud);
    put_u16(payload, port_in_at, *in);
    put_u16(payload, port_out_at, *out);
    return config_set(config, ubx_cfg_prt, payload);
}

void config_copy_sections(const receiver_config &from, receiver_config &to, uint32_t sections) {
    if ((sections & section_port) != 0)
        to.port = from.port;
    if ((sections & section_messages) != 0)
        to.rates = from.rates;
    if ((sections & section_information) != 0)
        to.information = from.information;
    if ((sections & section_navigation) != 0) {
        to.rate = from.rate;
        to.nmea = from.nmea;
    }
    if ((sections & section_receiver_manager) != 0) {
        to.gnss = from.gnss;
        to.power_management = from.power_management;
    }
}

unsigned input_protocols(const receiver_config &config) {
    return u16_at(config.port, port_in_at);
}

unsigned output_protocols(const receiver_config &config) {
    return u16_at(config.port, port_out_at);
}

double epoch_period(const receiver_config &config) {
    return u16_at(config.rate, 0) * u16_at(config.rate, 2) / 1000.0;
}

bool gps_enabled(const receiver_config &config) {
    return (systems_enabled(config) >> system_gps & 1) != 0;
}

std::string main_talker(const receiver_config &config) {
    constexpr std::array<const char *, 6> talkers{"", "GP", "GL", "GN", "GA", "GB"};
    const uint8_t wanted = config.nmea[nmea_main_talker_at];
    if (wanted != 0)
        return talkers[wanted];
    return systems_enabled(config) == 1U << system_gps ? "GP" : "GN";
}

std::string gsv_talker(const receiver_config &config) {
    return config.nmea[nmea_gsv_talker_at] != 0 ? main_talker(config) : "GP";
}

bool notices_on_nmea(const receiver_config &config) {
    constexpr unsigned notice = 1 << 2;
    return (config.information[1][uart_port] & notice) != 0;
}

gnss_state wanted_gnss_state(const receiver_config &config) {
    const std::string_view name(reinterpret_cast<const char *>(&config.power_state[4]), 4);
    if (name == "RUN " || name == " NUR")
        return gnss_state::running;
    return name == "STOP" || name == "POTS" ? gnss_state::stopped : gnss_state::backup;
}

} // namespace sim
