#include "decode.h"

#include "ls_messages.h"
#include "printable.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace sim {
namespace {

template <class record>
record copy_of(std::span<const uint8_t> payload) {
    record copy;
    std::memcpy(&copy, payload.data(), sizeof copy);
    return copy;
}

// TS 23.032: metres of an uncertainty code.
double uncertainty(uint8_t code, double scale, double growth) {
    return scale * (std::pow(1 + growth, code) - 1);
}

std::string capabilities(std::span<const uint8_t> payload) {
    return copy_of<uint16_t>(payload) == 1 ? "GNSS available" : "GNSS not available";
}

std::string location(std::span<const uint8_t> payload) {
    // A record with something in it says how confident it is.
    if (std::all_of(payload.begin(), payload.end(), [](uint8_t byte) { return byte == 0; }))
        return "FAILED, an empty record: the receiver did not answer, or is off";
    const auto lpp = copy_of<gps_lpp_location>(payload);
    const double latitude =
        lpp.degrees_latitude * 90.0 / (1 << 23) * (lpp.latitude_sign == 1 ? -1 : 1);
    // 24 bits, two's complement.
    const int32_t turned = static_cast<int32_t>(lpp.degrees_longitude << 8) >> 8;
    const double longitude = turned * 360.0 / (1 << 24);
    std::array<char, 400> text;
    std::snprintf(text.data(), text.size(),
                  "latitude %.5f, longitude %.5f, latitude sign %u, vertical accuracy %u m, "
                  "uncertainty codes %u %u %u (%.0f m, %.0f m, altitude %.0f m), confidence %u %%, "
                  "orientation "
                  "%u degrees",
                  latitude, longitude, lpp.latitude_sign, lpp.altitude, lpp.uncertainty_semi_major,
                  lpp.uncertainity_semi_minor, lpp.uncertainty_altitude,
                  uncertainty(lpp.uncertainty_semi_major, 10, 0.1),
                  uncertainty(lpp.uncertainity_semi_minor, 10, 0.1),
                  uncertainty(lpp.uncertainty_altitude, 45, 0.025), lpp.confidence,
                  lpp.orientation_major_axis * 2U);
    return text.data();
}

// What others wrote must not reach a terminal's or the log's control.
std::string escaped(std::span<const char> text) {
    std::string shown;
    for (const char c : text) {
        std::array<char, 5> piece{c};
        if (c < ' ' || c > '~' || c == '"' || c == '\\')
            std::snprintf(piece.data(), piece.size(), "\\x%02X", static_cast<unsigned char>(c));
        shown += piece.data();
    }
    return shown;
}

std::string alarm(std::span<const uint8_t> payload) {
    const auto raised = copy_of<ws_alarm_pld>(payload);
    const std::string said =
        escaped(std::span(raised.text).first(strnlen(raised.text, sizeof raised.text)));
    const time_t seconds = raised.time;
    tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 32> when;
    std::strftime(when.data(), when.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string("\"").append(said).append("\" at ").append(when.data());
}

std::string power(std::span<const uint8_t> payload) {
    const auto status = copy_of<uint32_t>(payload);
    return "power status " + std::to_string(status) + (status == GPS_POWER_ON ? " (on)" : " (off)");
}

std::string exchange(std::span<const uint8_t> payload) {
    const auto asked = copy_of<gps_data_req_pld>(payload);
    if (asked.cmd_len > GPS_DATA_CMD_SIZE)
        return "command of " + std::to_string(asked.cmd_len) + " bytes";
    return printable(std::span(asked.command).first(asked.cmd_len));
}

struct known_message {
    uint32_t id;
    const char *name;
    size_t size; // of the payload that `contents` reads
    std::string (*contents)(std::span<const uint8_t> payload);
};

constexpr std::array<known_message, 6> KNOWN{{
    {SAL_REQUEST_LPP_CAPABILITIES, "LPP capabilities", 2, capabilities},
    {SAL_REQUEST_GNSS_LOCATION, "GNSS location", sizeof(gps_lpp_location), location},
    {WS_NOTIFY_ALARM_UPDATE, "alarm", sizeof(ws_alarm_pld), alarm},
    {LS_NOTIFY_POWER_MODE, "power mode", 4, power},
    {TA_REQUEST_GPS_DATA, "receiver exchange", sizeof(gps_data_req_pld), exchange},
    {SCM_RESPONSE_REGISTRATION, "registration", SIZE_MAX, nullptr},
}};

std::string raw(std::span<const uint8_t> payload) {
    std::string text = std::to_string(payload.size()) + " bytes";
    for (size_t i = 0; i < payload.size(); i++) {
        std::array<char, 4> hex;
        std::snprintf(hex.data(), hex.size(), " %02X", payload[i]);
        text.append(i == 0 ? ":" : "").append(hex.data());
    }
    return text;
}

} // namespace

std::string services_decode(const msg_hdr &hdr, std::span<const uint8_t> payload) {
    const char *const kinds[] = {"request", "response", "notification"};
    std::string text = hdr.msg_type < std::size(kinds)
                           ? kinds[hdr.msg_type]
                           : "message of type " + std::to_string(hdr.msg_type);
    text.append(" ").append(std::to_string(hdr.msg_id));
    text.append(" from ").append(std::to_string(hdr.src_serv_id));
    for (const known_message &known : KNOWN) {
        if (known.id == hdr.msg_id) {
            text.append(", ").append(known.name);
            if (known.size == payload.size())
                return text.append(": ").append(known.contents(payload));
        }
    }
    return text.append(": ").append(raw(payload));
}

} // namespace sim
