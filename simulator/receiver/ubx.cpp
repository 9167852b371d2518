// UBX frames and the reports among them. Pure functions.
#include "ubx.h"

#include "calendar.h"
#include "geometry.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string_view>

namespace sim {

namespace {

// One sigma of a range, metres; times a dilution it is an accuracy.
constexpr double range_error = 2.5;
constexpr uint32_t unknown_accuracy = 0xffffffff; // centimetres
constexpr size_t most_satellites = 32;

using payload_t = std::vector<uint8_t>;

void put(payload_t &payload, uint32_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i)
        payload.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void put_text(payload_t &payload, std::string_view text, size_t bytes) {
    payload.insert(payload.end(), text.begin(), text.end());
    payload.resize(payload.size() + bytes - text.size());
}

uint32_t signed_bits(double value) {
    return static_cast<uint32_t>(static_cast<int32_t>(std::lround(value)));
}

// GPS time of week, milliseconds; 0 until time and date are known.
uint32_t time_of_week(const nav_report &report) {
    if (!report.now.time || !report.now.date)
        return 0;
    const double seconds =
        since_gps_epoch(unix_of(*report.now.date, *report.now.time)) + report.leap_seconds;
    const double of_week = seconds - std::floor(seconds / seconds_per_week) * seconds_per_week;
    return static_cast<uint32_t>(std::llround(of_week * 1000.0) % 604800000);
}

payload_t nav_posecef(const nav_report &report) {
    const epoch &now = report.now;
    const bool fixed = now.fix != fix_quality::none && now.latitude && now.longitude;
    // A receiver that never knew better starts from the surface at latitude and longitude 0.
    const ecef at = fixed ? geodetic_to_ecef(*now.latitude, *now.longitude,
                                             now.altitude.value_or(0) + now.geoid.value_or(0))
                          : geodetic_to_ecef(0, 0, 0);
    payload_t payload;
    put(payload, time_of_week(report), 4);
    for (const double metres : {at.x, at.y, at.z})
        put(payload, signed_bits(metres * 100.0), 4);
    put(payload,
        fixed && now.pdop ? signed_bits(*now.pdop * range_error * 100.0) : unknown_accuracy, 4);
    return payload;
}

size_t listed(const nav_report &report) {
    return std::min(report.now.satellites.size(), most_satellites);
}

payload_t nav_sat(const nav_report &report) {
    payload_t payload;
    put(payload, time_of_week(report), 4);
    put(payload, 1, 1); // version
    put(payload, static_cast<uint32_t>(listed(report)), 1);
    put(payload, 0, 2);
    for (size_t i = 0; i < listed(report); ++i) {
        const satellite &one = report.now.satellites[i];
        const uint32_t quality = one.used ? 7 : one.cn0 ? 4 : 1; // locked, code only, searching
        const uint32_t healthy = 1 << 4;
        const uint32_t orbit = one.elevation ? 1U << 8 | 1U << 11 | 1U << 12 : 0; // ephemeris
        put(payload, 0, 1);                                                       // GPS
        put(payload, static_cast<uint32_t>(one.prn), 1);
        put(payload, static_cast<uint32_t>(one.cn0.value_or(0)), 1);
        put(payload, static_cast<uint32_t>(one.elevation.value_or(-91)), 1); // -91: unknown
        put(payload, static_cast<uint32_t>(one.azimuth.value_or(0)), 2);
        put(payload, 0, 2);
        put(payload, quality | (one.used ? 1U << 3 : 0) | healthy | orbit, 4);
    }
    return payload;
}

payload_t nav_svinfo(const nav_report &report) {
    payload_t payload;
    put(payload, time_of_week(report), 4);
    put(payload, static_cast<uint32_t>(listed(report)), 1);
    put(payload, 4, 1); // hardware generation
    put(payload, 0, 2);
    for (size_t i = 0; i < listed(report); ++i) {
        const satellite &one = report.now.satellites[i];
        const uint32_t orbit = one.elevation ? 1U << 2 | 1U << 3 : 0; // known, from ephemeris
        put(payload, static_cast<uint32_t>(i), 1);
        put(payload, static_cast<uint32_t>(one.prn), 1);
        put(payload, (one.used ? 1U : 0) | orbit, 1);
        put(payload, one.used ? 7 : one.cn0 ? 4 : 1, 1);
        put(payload, static_cast<uint32_t>(one.cn0.value_or(0)), 1);
        put(payload, static_cast<uint32_t>(one.elevation.value_or(-91)), 1);
        put(payload, static_cast<uint32_t>(one.azimuth.value_or(0)), 2);
        put(payload, 0, 4);
    }
    return payload;
}

payload_t mon_ver(const nav_report &) {
    payload_t payload;
    put_text(payload, "SIM 1.00", 30);
    put_text(payload, "00080000", 10);
    put_text(payload, "PROTVER=18.00", 30);
    put_text(payload, "GPS;GLO;GAL;BDS", 30);
    return payload;
}

struct report_type {
    uint16_t key;
    payload_t (*payload)(const nav_report &);
};

constexpr report_type report_types[] = {
    {ubx_nav_posecef, nav_posecef},
    {ubx_nav_sat, nav_sat},
    {ubx_nav_svinfo, nav_svinfo},
    {ubx_mon_ver, mon_ver},
};

} // namespace

std::array<uint8_t, 2> ubx_checksum(std::span<const uint8_t> bytes) {
    uint8_t a = 0, b = 0;
    for (const uint8_t one : bytes) {
        a = static_cast<uint8_t>(a + one);
        b = static_cast<uint8_t>(b + a);
    }
    return {a, b};
}

std::vector<uint8_t> ubx_frame(uint16_t key, std::span<const uint8_t> payload) {
    std::vector<uint8_t> frame;
    frame.reserve(payload.size() + ubx_overhead);
    put(frame, ubx_sync_1 | ubx_sync_2 << 8, 2);
    put(frame, key >> 8, 1);
    put(frame, key & 0xff, 1);
    put(frame, static_cast<uint32_t>(payload.size()), 2);
    for (const uint8_t one : payload)
        frame.push_back(one);
    for (const uint8_t one : ubx_checksum(std::span(frame).subspan(2)))
        frame.push_back(one);
    return frame;
}

std::vector<uint8_t> ubx_report(uint16_t key, const nav_report &report) {
    const auto known = std::find_if(std::begin(report_types), std::end(report_types),
                                    [key](const report_type &one) { return one.key == key; });
    return known == std::end(report_types) ? std::vector<uint8_t>{}
                                           : ubx_frame(key, known->payload(report));
}

} // namespace sim
