// lsctl: the payloads of the UBX messages that the service uses, in people's units.
#include <algorithm>
#include <array>
#include <cstring>

#include "lsctl_text.h"
#include "lsctl_ubx.h"

namespace {

using payload_t = std::span<const uint8_t>;
using names_t = std::span<const char *const>; // by bit or number; null = reserved

// The caller has looked at the payload's length.
template <class number>
number at(payload_t payload, size_t offset) {
    number value;
    std::memcpy(&value, payload.data() + offset, sizeof(value));
    return value;
}
uint32_t u2(payload_t payload, size_t offset) {
    return at<uint16_t>(payload, offset);
}
uint32_t u4(payload_t payload, size_t offset) {
    return at<uint32_t>(payload, offset);
}

// The name of a number, or the number where it has none.
lsctl_json named(names_t names, uint32_t number) {
    return number < names.size() && names[number] != nullptr ? lsctl_json(names[number])
                                                             : lsctl_json(number);
}

// The names of the bits that are set; "bit 9" for one without.
lsctl_json bits(names_t names, uint32_t mask) {
    lsctl_json list = lsctl_json::array();
    for (uint32_t bit = 0; bit < 32; ++bit) {
        if ((mask >> bit & 1) == 0)
            continue;
        list.push_back(bit < names.size() && names[bit] != nullptr ? std::string(names[bit])
                                                                   : lsctl_format("bit %u", bit));
    }
    return list;
}

// A text in a field of fixed width, as far as it is there.
std::string text_at(payload_t payload, size_t offset, size_t width) {
    const auto field = payload.subspan(std::min(offset, payload.size()));
    std::string text;
    for (const uint8_t byte : field.first(std::min(width, field.size()))) {
        if (byte == 0)
            break;
        text += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '?';
    }
    return text;
}

constexpr const char *PORTS[] = {"i2c", "uart1", "uart2", "usb", "spi"};
constexpr const char *PROTOCOLS[] = {"UBX", "NMEA", "RTCM"};
constexpr const char *SYSTEMS[] = {"GPS", "SBAS", "Galileo", "BeiDou", "IMES", "QZSS", "GLONASS"};

lsctl_json decode_prt(payload_t payload) {
    constexpr const char *parities[] = {"even", "odd", nullptr, nullptr, "none", "none"};
    constexpr std::array stop_bits = {1.0, 1.5, 2.0, 0.5};
    const uint32_t mode = u4(payload, 4);
    return {{"port", named(PORTS, payload[0])},
            {"baud_rate", u4(payload, 8)},
            {"data_bits", 5 + (mode >> 6 & 3)},
            {"parity", named(parities, mode >> 9 & 7)},
            {"stop_bits", stop_bits.at(mode >> 12 & 3)},
            {"protocols_in", bits(PROTOCOLS, u2(payload, 12))},
            {"protocols_out", bits(PROTOCOLS, u2(payload, 14))}};
}

lsctl_json decode_msg(payload_t payload) {
    lsctl_json rates = lsctl_json::object();
    for (size_t port = 0; port < std::size(PORTS) && 2 + port < payload.size(); ++port)
        rates[PORTS[port]] = payload[2 + port];
    return {{"message", ubx_name(payload[0], payload[1])}, {"solutions_per_message", rates}};
}

lsctl_json decode_inf(payload_t payload) {
    constexpr const char *kinds[] = {"error", "warning", "notice", "test", "debug"};
    constexpr size_t width = 10; // protocol, three reserved, a mask for each of six ports
    lsctl_json blocks = lsctl_json::array();
    for (; payload.size() >= width; payload = payload.subspan(width)) {
        lsctl_json block = {{"protocol", named(PROTOCOLS, payload[0])}};
        for (size_t port = 0; port < std::size(PORTS); ++port)
            block[PORTS[port]] = bits(kinds, payload[4 + port]);
        blocks.push_back(block);
    }
    return {{"information", blocks}};
}

lsctl_json decode_rate(payload_t payload) {
    constexpr const char *references[] = {"UTC", "GPS", "GLONASS", "BeiDou", "Galileo"};
    return {{"measurement_period_ms", u2(payload, 0)},
            {"measurements_per_solution", u2(payload, 2)},
            {"time_reference", named(references, u2(payload, 4))}};
}

lsctl_json decode_cfg(payload_t payload) {
    constexpr const char *sections[] = {
        "ports", "messages", "information", "navigation", "receiver manager", nullptr,
        nullptr, nullptr,    "sensors",     "inventory",  "antenna",          "logging",
    };
    constexpr const char *devices[] = {"battery-backed memory", "flash", "EEPROM", nullptr,
                                       "SPI flash"};
    constexpr size_t device_at = 12; // may be left out
    return {{"clear", bits(sections, u4(payload, 0))},
            {"save", bits(sections, u4(payload, 4))},
            {"load", bits(sections, u4(payload, 8))},
            {"devices",
             payload.size() > device_at ? bits(devices, payload[device_at]) : lsctl_json(nullptr)}};
}

lsctl_json decode_nmea(payload_t payload) {
    constexpr const char *hidden[] = {"GPS", "SBAS", nullptr, nullptr, "QZSS", "GLONASS", "BeiDou"};
    constexpr const char *talkers[] = {"by system", "GP", "GL", "GN", "GA", "GB"};
    constexpr const char *most[] = {"any number"};
    lsctl_json decoded = {{"version", lsctl_format("%u.%u", payload[1] >> 4U, payload[1] & 0xFU)},
                          {"most_satellites", named(most, payload[2])},
                          {"filter_mask", payload[0]},
                          {"flags", payload[3]},
                          {"systems_left_out", nullptr},
                          {"main_talker", nullptr},
                          {"gsv_talker", nullptr}};
    if (payload.size() >= 12) {
        decoded["systems_left_out"] = bits(hidden, u4(payload, 4));
        decoded["main_talker"] = named(talkers, payload[9]);
        decoded["gsv_talker"] = payload[10] == 1 ? "the main one" : "by system";
    }
    return decoded;
}

lsctl_json decode_pm2(payload_t payload) {
    constexpr const char *modes[] = {"on/off", "cyclic"};
    const uint32_t flags = u4(payload, 4);
    const auto flag = [flags](unsigned bit) { return (flags >> bit & 1) != 0; };
    return {{"mode", named(modes, flags >> 17 & 3)},
            {"extint_pin", flags >> 4 & 1},
            {"extint_wakes", flag(5)},
            {"extint_backup", flag(6)},
            {"waits_for_time_fix", flag(10)},
            {"updates_rtc", flag(11)},
            {"updates_ephemeris", flag(12)},
            {"update_period_ms", u4(payload, 8)},
            {"search_period_ms", u4(payload, 12)},
            {"grid_offset_ms", u4(payload, 16)},
            {"on_time_s", u2(payload, 20)},
            {"shortest_acquisition_s", u2(payload, 22)}};
}

lsctl_json decode_gnss(payload_t payload) {
    constexpr size_t header = 4;
    constexpr size_t width = 8;
    lsctl_json systems = lsctl_json::array();
    for (auto block = payload.subspan(header); block.size() >= width; block = block.subspan(width))
        systems.push_back({{"system", named(SYSTEMS, block[0])},
                           {"enabled", (block[4] & 1) != 0},
                           {"least_channels", block[1]},
                           {"most_channels", block[2]},
                           {"signal_mask", block[6]}});
    return {{"channels", payload[1]}, {"channels_in_use", payload[2]}, {"systems", systems}};
}

lsctl_json decode_pwr(payload_t payload) {
    std::string state = text_at(payload, 4, 4);
    state.erase(state.find_last_not_of(' ') + 1);
    return {{"state", state}};
}

lsctl_json decode_posecef(payload_t payload) {
    constexpr uint32_t unknown = 0xFFFFFFFF;
    const auto metres = [&](size_t offset) { return at<int32_t>(payload, offset) / 100.0; };
    const uint32_t accuracy_cm = u4(payload, 16);
    return {{"time_of_week_s", u4(payload, 0) / 1000.0},
            {"x_m", metres(4)},
            {"y_m", metres(8)},
            {"z_m", metres(12)},
            {"accuracy_m",
             accuracy_cm == unknown ? lsctl_json(nullptr) : lsctl_json(accuracy_cm / 100.0)}};
}

lsctl_json decode_ver(payload_t payload) {
    constexpr size_t software = 30;
    constexpr size_t hardware = 10;
    lsctl_json extensions = lsctl_json::array();
    for (size_t from = software + hardware; from < payload.size(); from += software)
        extensions.push_back(text_at(payload, from, software));
    return {{"software", text_at(payload, 0, software)},
            {"hardware", text_at(payload, software, hardware)},
            {"extensions", extensions}};
}

lsctl_json decode_acknowledge(payload_t payload) {
    return {{"message", ubx_name(payload[0], payload[1])}};
}

struct decoder {
    uint8_t msg_class;
    uint8_t id;
    size_t least; // bytes of payload
    lsctl_json (*decode)(payload_t payload);
};
constexpr decoder DECODERS[] = {
    {0x01, 0x01, 20, decode_posecef},    {0x05, 0x00, 2, decode_acknowledge},
    {0x05, 0x01, 2, decode_acknowledge}, {0x06, 0x00, 20, decode_prt},
    {0x06, 0x01, 3, decode_msg},         {0x06, 0x02, 10, decode_inf},
    {0x06, 0x08, 6, decode_rate},        {0x06, 0x09, 12, decode_cfg},
    {0x06, 0x17, 4, decode_nmea},        {0x06, 0x3B, 44, decode_pm2},
    {0x06, 0x3E, 4, decode_gnss},        {0x06, 0x57, 8, decode_pwr},
    {0x0A, 0x04, 40, decode_ver},
};

// "measurement_period_ms" as "measurement period", and its unit.
std::string label_of(std::string key, std::string &unit) {
    for (const char *each : {"ms", "s", "m"}) {
        if (key.ends_with(std::string("_").append(each))) {
            unit = std::string(" ").append(each);
            key.erase(key.rfind('_'));
            break;
        }
    }
    std::replace(key.begin(), key.end(), '_', ' ');
    return key;
}

std::string shown(const lsctl_json &value) {
    if (value.is_null())
        return "none";
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (value.is_string())
        return value.get<std::string>();
    if (!value.is_structured())
        return value.dump();
    std::string text;
    for (const auto &[key, each] : value.items()) {
        text += text.empty() ? "" : ", ";
        std::string unit;
        text += value.is_object() ? label_of(key, unit) + " " + shown(each) : shown(each);
    }
    return text.empty() ? "none" : text;
}

} // namespace

lsctl_json ubx_decoded(uint8_t msg_class, uint8_t id, payload_t payload) {
    for (const decoder &each : DECODERS)
        if (each.msg_class == msg_class && each.id == id && payload.size() >= each.least)
            return each.decode(payload);
    return nullptr;
}

std::string ubx_decoded_text(const lsctl_json &decoded) {
    std::string text;
    for (const auto &[key, value] : decoded.items()) {
        std::string unit;
        const std::string label = label_of(key, unit);
        const bool has_rows = value.is_array() && !value.empty() && value[0].is_object();
        if (!has_rows)
            text += lsctl_format("  %-26s %s%s\n", label.c_str(), shown(value).c_str(),
                                 value.is_null() ? "" : unit.c_str());
        for (size_t i = 0; has_rows && i < value.size(); ++i)
            text +=
                lsctl_format("  %-26s %s\n", i == 0 ? label.c_str() : "", shown(value[i]).c_str());
    }
    return text;
}
