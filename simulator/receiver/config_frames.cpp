// The CFG frames: what each accepts, how it is kept and how it is given back.
#include "config.h"

#include "config_bytes.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

namespace sim {

namespace {

using bytes_t = std::span<const uint8_t>;
using payload_t = std::vector<uint8_t>;

template <class range, class value>
bool one_of(const range &allowed, value wanted) {
    return std::find(std::begin(allowed), std::end(allowed), wanted) != std::end(allowed);
}

bool set_port(receiver_config &config, bytes_t payload) {
    constexpr uint32_t bauds[] = {4800, 9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600};
    constexpr unsigned eight_bits = 3;
    const unsigned character = u32_at(payload, port_mode_at) >> 6 & 3;
    if (payload[port_number_at] != uart_port || character != eight_bits ||
        !one_of(bauds, u32_at(payload, port_baud_at)))
        return false;
    std::copy(payload.begin(), payload.end(), config.port.begin());
    return true;
}

size_t kind_index(bytes_t payload) {
    const auto key = static_cast<uint16_t>(payload[0] << 8 | payload[1]);
    const auto kind = std::find_if(message_kinds.begin(), message_kinds.end(),
                                   [key](const message_kind &one) { return one.key == key; });
    return static_cast<size_t>(kind - message_kinds.begin());
}

// Class and id, then one rate for this port or one for each.
bool set_message(receiver_config &config, bytes_t payload) {
    const size_t index = kind_index(payload);
    if (index == message_kinds.size())
        return false;
    if (payload.size() == 3)
        config.rates[index][uart_port] = payload[2];
    else
        std::copy(payload.begin() + 2, payload.end(), config.rates[index].begin());
    return true;
}

std::optional<payload_t> get_message(const receiver_config &config, bytes_t poll) {
    const size_t index = kind_index(poll);
    if (index == message_kinds.size())
        return std::nullopt;
    payload_t answer(poll.begin(), poll.end());
    answer.insert(answer.end(), config.rates[index].begin(), config.rates[index].end());
    return answer;
}

constexpr size_t information_block = 10; // protocol, three reserved, a mask for each port

bool set_information(receiver_config &config, bytes_t payload) {
    for (size_t at = 0; at < payload.size(); at += information_block)
        if (payload[at] >= config.information.size())
            return false;
    for (size_t at = 0; at < payload.size(); at += information_block)
        std::copy_n(payload.begin() + static_cast<std::ptrdiff_t>(at + 4), port_count,
                    config.information[payload[at]].begin());
    return true;
}

std::optional<payload_t> get_information(const receiver_config &config, bytes_t poll) {
    payload_t answer;
    for (size_t protocol = 0; protocol < config.information.size(); ++protocol) {
        if (!poll.empty() && poll[0] != protocol)
            continue;
        answer.insert(answer.end(), {static_cast<uint8_t>(protocol), 0, 0, 0});
        answer.insert(answer.end(), config.information[protocol].begin(),
                      config.information[protocol].end());
    }
    return answer.empty() ? std::nullopt : std::optional(answer);
}

bool set_rate(receiver_config &config, bytes_t payload) {
    constexpr uint16_t shortest = 50;           // milliseconds
    constexpr uint16_t most_measurements = 127; // per solution
    constexpr uint16_t last_reference = 4;
    const uint16_t measurements = u16_at(payload, 2);
    if (u16_at(payload, 0) < shortest || measurements < 1 || measurements > most_measurements ||
        u16_at(payload, 4) > last_reference)
        return false;
    std::copy(payload.begin(), payload.end(), config.rate.begin());
    return true;
}

// Three forms, each longer than the one before; the two longer ones tell their number.
bool set_nmea(receiver_config &config, bytes_t payload) {
    constexpr uint8_t versions[] = {0x21, 0x23, 0x40, 0x41};
    constexpr uint8_t satellites[] = {0, 8, 12, 16};
    constexpr uint8_t last_talker = 5;
    if (!one_of(versions, payload[nmea_version_at]) ||
        !one_of(satellites, payload[nmea_satellites_at]))
        return false;
    if (payload.size() > 4 &&
        (payload[nmea_numbering_at] > 1 || payload[nmea_main_talker_at] > last_talker ||
         payload[nmea_gsv_talker_at] > 1 || payload[nmea_form_at] != (payload.size() > 12 ? 1 : 0)))
        return false;
    std::copy(payload.begin(), payload.end(), config.nmea.begin());
    config.nmea[nmea_form_at] = 1; // it is given back in the longest form
    return true;
}

bool set_power_management(receiver_config &config, bytes_t payload) {
    constexpr unsigned last_mode = 1; // ON/OFF and cyclic tracking
    const uint8_t form = payload.size() > 44 ? 2 : 1;
    if (payload[0] != form || (u32_at(payload, 4) >> 17 & 3) > last_mode)
        return false;
    config.power_management.assign(payload.begin(), payload.end());
    return true;
}

bool set_gnss(receiver_config &config, bytes_t payload) {
    constexpr uint8_t all_channels = 0xff;
    constexpr unsigned hardware_channels = 32;
    constexpr unsigned major_systems = 1U << 0 | 1U << 2 | 1U << 3 | 1U << 6;
    constexpr uint8_t fewest_channels = 4; // of a major system that is on
    constexpr uint8_t last_system = 6;
    const unsigned channels = payload[2] == all_channels ? hardware_channels : payload[2];
    if (payload[0] != 0 || channels > hardware_channels ||
        payload.size() != gnss_header + payload[3] * gnss_block)
        return false;
    unsigned named = 0, enabled = 0, reserved = 0;
    for (size_t at = gnss_header; at < payload.size(); at += gnss_block) {
        const uint8_t system = payload[at];
        if (system > last_system || (named >> system & 1) != 0 || payload[at + 1] > payload[at + 2])
            return false;
        named |= 1U << system;
        if ((payload[at + gnss_flags_at] & 1) == 0)
            continue;
        enabled |= 1U << system;
        reserved += payload[at + 1];
        if ((major_systems >> system & 1) != 0 && payload[at + 2] < fewest_channels)
            return false;
    }
    if ((enabled & major_systems) == 0 || reserved > channels)
        return false;
    config.gnss.assign(payload.begin(), payload.end());
    return true;
}

// The state is a number whose bytes are letters; some hosts write it as text, some as a number.
bool set_power_state(receiver_config &config, bytes_t payload) {
    constexpr std::string_view states[] = {"RUN ", "STOP", "BCKP", " NUR", "POTS", "PKCB"};
    const std::string_view wanted(reinterpret_cast<const char *>(&payload[4]), 4);
    if (payload[0] != 1 || !one_of(states, wanted))
        return false;
    std::copy(payload.begin(), payload.end(), config.power_state.begin());
    return true;
}

template <auto member>
std::optional<payload_t> get_bytes(const receiver_config &config, bytes_t) {
    return payload_t((config.*member).begin(), (config.*member).end());
}

std::optional<payload_t> get_port(const receiver_config &config, bytes_t poll) {
    if (!poll.empty() && poll[0] != uart_port)
        return std::nullopt;
    return get_bytes<&receiver_config::port>(config, poll);
}

constexpr int none = -1; // no such length

struct frame_type {
    uint16_t key;
    std::array<int, 3> lengths; // that set
    std::string_view name;
    size_t block;                    // 0: the lengths are exact; else any number of blocks follows
    std::array<int, 2> poll_lengths; // that ask
    bool (*set)(receiver_config &, bytes_t);
    std::optional<payload_t> (*get)(const receiver_config &, bytes_t);
};

using kept = receiver_config;

// clang-format off
constexpr frame_type frame_types[] = {
    {ubx_cfg_prt,  {20, none, none}, "PRT",  0,  {0, 1},    set_port,             get_port},
    {ubx_cfg_msg,  {3, 8, none},     "MSG",  0,  {2, none}, set_message,          get_message},
    {ubx_cfg_inf,  {10, none, none}, "INF",  10, {0, 1},    set_information,      get_information},
    {ubx_cfg_rate, {6, none, none},  "RATE", 0,  {0, none}, set_rate,             get_bytes<&kept::rate>},
    {ubx_cfg_nmea, {4, 12, 20},      "NMEA", 0,  {0, none}, set_nmea,             get_bytes<&kept::nmea>},
    {ubx_cfg_pm2,  {44, 48, none},   "PM2",  0,  {0, none}, set_power_management, get_bytes<&kept::power_management>},
    {ubx_cfg_gnss, {4, none, none},  "GNSS", 8,  {0, none}, set_gnss,             get_bytes<&kept::gnss>},
    {ubx_cfg_pwr,  {8, none, none},  "PWR",  0,  {0, none}, set_power_state,      get_bytes<&kept::power_state>},
};
// clang-format on

const frame_type *type_of(uint16_t key) {
    const auto type = std::find_if(std::begin(frame_types), std::end(frame_types),
                                   [key](const frame_type &one) { return one.key == key; });
    return type == std::end(frame_types) ? nullptr : type;
}

bool length_fits(const frame_type &type, size_t length) {
    const auto first = static_cast<size_t>(type.lengths[0]);
    if (type.block != 0)
        return length >= first && (length - first) % type.block == 0;
    return one_of(type.lengths, static_cast<int>(length));
}

} // namespace

bool config_set(receiver_config &config, uint16_t key, std::span<const uint8_t> payload) {
    const frame_type *type = type_of(key);
    return type != nullptr && length_fits(*type, payload.size()) && type->set(config, payload);
}

std::string_view config_name(uint16_t key) {
    const frame_type *type = type_of(key);
    return type == nullptr ? std::string_view{} : type->name;
}

bool config_is_poll(uint16_t key, size_t payload_length) {
    const frame_type *type = type_of(key);
    return type != nullptr && one_of(type->poll_lengths, static_cast<int>(payload_length));
}

std::optional<std::vector<uint8_t>> config_get(const receiver_config &config, uint16_t key,
                                               std::span<const uint8_t> poll) {
    const frame_type *type = type_of(key);
    return type == nullptr || !config_is_poll(key, poll.size()) ? std::nullopt
                                                                : type->get(config, poll);
}

std::vector<std::pair<uint16_t, std::vector<uint8_t>>> config_frames(
    const receiver_config &config) {
    std::vector<std::pair<uint16_t, payload_t>> frames;
    for (const uint16_t key :
         {ubx_cfg_prt, ubx_cfg_inf, ubx_cfg_rate, ubx_cfg_nmea, ubx_cfg_gnss, ubx_cfg_pm2})
        if (auto payload = config_get(config, key, {}))
            frames.emplace_back(key, std::move(*payload));
    for (const message_kind &kind : message_kinds) {
        const std::array<uint8_t, 2> poll{static_cast<uint8_t>(kind.key >> 8),
                                          static_cast<uint8_t>(kind.key & 0xff)};
        if (auto payload = config_get(config, ubx_cfg_msg, poll))
            frames.emplace_back(ubx_cfg_msg, std::move(*payload));
    }
    return frames;
}

} // namespace sim
