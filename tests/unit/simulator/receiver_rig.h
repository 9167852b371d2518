// A receiver on a table: a world that stands still, a clock that is stepped, bytes as hex text.
#ifndef TESTS_RECEIVER_RIG_H
#define TESTS_RECEIVER_RIG_H

#include "receiver.h"
#include "receiver_nmea.h"
#include "receiver_ubx.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
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

inline bytes sentence(const std::string &body) {
    const std::string text = sim::nmea_sentence(body);
    return {text.begin(), text.end()};
}

inline bytes frame(uint16_t key, const std::string &payload_hex) {
    return sim::ubx_frame(key, from_hex(payload_hex));
}

// All messages of `receiver`, sentences as text, frames as hex, one a line.
inline std::string heard(sim::receiver &receiver, double now) {
    std::string all;
    for (const bytes &one : receiver.take_output(now))
        all += one[0] == '$' ? std::string(one.begin(), one.end()) : to_hex(one) + "\n";
    return all;
}

inline std::string ask(sim::receiver &receiver, const bytes &data, double now) {
    heard(receiver, now);
    receiver.input(data, now);
    return heard(receiver, now);
}

inline sim::receiver_options instant() {
    sim::receiver_options options;
    options.truth = [](double) { return known_epoch(); };
    options.instant_fix = true;
    options.wall_clock = [] { return 1704110400.0; };
    return options;
}

// Powered since 0 s and quiet until asked, talker GP.
inline sim::receiver_options polled() {
    sim::receiver_options options = instant();
    options.preconfigured = true;
    return options;
}

// A file that is gone at the end of the test.
struct temporary_file {
    std::string path;
    explicit temporary_file(const std::string &text = "", const char *name = "file") {
        std::string folder = (std::filesystem::temp_directory_path() / "receiver-XXXXXX").string();
        if (mkdtemp(folder.data()) != nullptr)
            path = folder + "/" + name;
        if (!text.empty())
            std::ofstream(path, std::ios::binary) << text;
    }
    ~temporary_file() {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(path).parent_path(), ignored);
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
};

inline std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace rig

#endif
