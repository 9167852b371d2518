// A receiver on a table: a world that stands still, a clock that is stepped, bytes as text.
#ifndef TESTS_RECEIVER_RIG_H
#define TESTS_RECEIVER_RIG_H

#include "nmea.h"
#include "receiver.h"
#include "scratch_dir.h"
#include "sentence.h"
#include "ubx.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace rig {

using bytes = std::vector<uint8_t>;

// 2024-01-01 12:00:00 at 48 07.038 N 11 31 E, five satellites in view, three in the fix.
inline sim::epoch known_epoch() {
    sim::epoch now;
    now.time = sim::utc_time{12, 0, 0.0};
    now.date = sim::utc_date{1, 1, 2024};
    now.fix = sim::fix_quality::fix_3d;
    now.latitude = 48.0 + 7.038 / 60.0;
    now.longitude = 11.0 + 31.0 / 60.0;
    now.altitude = 545.4;
    now.geoid = 46.9;
    now.speed = 22.4 * 1852.0 / 3600.0;
    now.course = 84.4;
    now.satellites = {{4, 10, 5, 30, true},
                      {5, 20, 100, 31, true},
                      {9, 90, 359, 44, true},
                      {12, {}, {}, {}, false},
                      {24, 30, 10, 35, false}};
    now.slots = {4, 5, 0, 9};
    now.pdop = 2.5;
    now.hdop = 1.3;
    now.vdop = 2.1;
    now.tdop = 0.77;
    return now;
}

inline bytes as_bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

inline bytes from_hex(const std::string &text) {
    std::istringstream in(text);
    bytes out;
    for (std::string one; in >> one;)
        out.push_back(static_cast<uint8_t>(std::stoul(one, nullptr, 16)));
    return out;
}

inline std::string to_hex(const bytes &data) {
    std::string out;
    for (const uint8_t one : data) {
        char text[4];
        std::snprintf(text, sizeof text, "%02x ", one);
        out += text;
    }
    return out.substr(0, out.empty() ? 0 : out.size() - 1);
}

// "GPGPQ,ZDA" as a sentence, "0608 64 00 01 00 01 00" (class and id, payload) as a frame.
inline bytes command(const std::string &text) {
    if (text[0] != '0')
        return as_bytes(sim::nmea_sentence(text));
    return sim::ubx_frame(static_cast<uint16_t>(std::stoul(text.substr(0, 4), nullptr, 16)),
                          from_hex(text.substr(4)));
}

// All messages of `receiver`, sentences as text, frames as hex, one a line.
inline std::string heard(sim::receiver &receiver, double now) {
    std::string all;
    for (const bytes &one : receiver.take_output(now))
        all += one[0] == '$' ? std::string(one.begin(), one.end()) : to_hex(one) + "\n";
    return all;
}

inline std::string ask(sim::receiver &receiver, const bytes &data, double now = 0) {
    heard(receiver, now);
    receiver.input(data, now);
    return heard(receiver, now);
}

inline std::string ask(sim::receiver &receiver, const std::string &text, double now = 0) {
    return ask(receiver, command(text), now);
}

constexpr const char *zda_poll = "GPGPQ,ZDA";
constexpr const char *known_zda = "$GPZDA,120000.00,01,01,2024,00,00*61\r\n";

// `preconfigured`: quiet until asked, talker GP.
inline sim::receiver_options options(bool preconfigured = true) {
    sim::receiver_options made;
    made.truth = [](double) { return known_epoch(); };
    made.instant_fix = true;
    made.wall_clock = [] { return 1704110400.0; };
    made.preconfigured = preconfigured;
    return made;
}

// Powered since 0 s.
struct powered : sim::receiver {
    explicit powered(const sim::receiver_options &how = options()) : sim::receiver(how) {
        set_power(true, true, 0);
    }
};

} // namespace rig

#endif
