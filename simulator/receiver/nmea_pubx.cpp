// PUBX 00 (position), 03 (satellites) and 04 (time). Pure functions.
#include "calendar.h"
#include "nmea.h"
#include "nmea_fields.h"
#include "sentence.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

// One sigma of a range, metres; times a dilution it is an accuracy.
constexpr double range_error = 2.5;
// What a receiver without a fix says of its accuracy, metres.
constexpr const char *unknown_accuracies = "5303302,3750001";
constexpr size_t longest_lock = 64; // seconds; the field goes no further

std::string pubx_position(const nav_report &report) {
    const epoch &now = report.now;
    const std::string head = "PUBX,00," + time_field(now.time) + ",";
    if (now.fix == fix_quality::none)
        return head + "0000.00000,N,00000.00000,E,0.000,NF," + unknown_accuracies +
               ",0.000,0.00,0.000,,99.99,99.99,99.99,0,0,0";
    const auto times = [](const std::optional<double> &value, double factor) {
        return value ? std::optional(*value * factor) : std::nullopt;
    };
    const auto height =
        now.altitude ? std::optional(*now.altitude + now.geoid.value_or(0.0)) : std::nullopt;
    return head + position_fields(now) + "," + number_field(height, 3) +
           (now.fix == fix_quality::fix_2d ? ",G2," : ",G3,") +
           number_field(times(now.hdop, range_error), 1) + "," +
           number_field(times(now.vdop, range_error), 1) + "," +
           number_field(times(now.speed, 3.6), 3) + "," + number_field(now.course, 2) + ",0.000,," +
           number_field(now.hdop, 2) + "," + number_field(now.vdop, 2) + "," +
           number_field(now.tdop, 2) + text_of(",%zu,0,0", used_count(now));
}

std::string pubx_satellites(const nav_report &report) {
    const std::vector<satellite> &all = report.now.satellites;
    std::string body = text_of("PUBX,03,%02zu", all.size());
    for (const satellite &one : all)
        body += text_of(",%d,%s,", one.prn, one.used ? "U" : "-") + integer_field(one.azimuth, 3) +
                "," + integer_field(one.elevation, 2) + "," + integer_field(one.cn0, 2) +
                text_of(",%03zu", one.used ? longest_lock : 0);
    return body;
}

std::string pubx_time(const nav_report &report) {
    const epoch &now = report.now;
    std::string body = "PUBX,04," + time_field(now.time) + "," + short_date_field(now.date) + ",";
    if (now.time && now.date) {
        const double seconds = since_gps_epoch(unix_of(*now.date, *now.time));
        const double week = std::floor(seconds / seconds_per_week);
        body += text_of("%.2f,%.0f,", seconds - week * seconds_per_week, week);
    } else {
        body += ",,";
    }
    // D: the default of the firmware, until the sky has told.
    return body + text_of("%d%s,0,0.000,21,", report.leap_seconds,
                          now.fix == fix_quality::none ? "D" : "");
}

} // namespace

std::string pubx_answer(int number, const nav_report &report, const nmea_style &style) {
    constexpr size_t address_fields = 2;
    std::string body;
    switch (number) {
    case 0:
        body = pubx_position(report);
        break;
    case 3:
        body = pubx_satellites(report);
        break;
    case 4:
        body = pubx_time(report);
        break;
    default:
        return "";
    }
    return nmea_sentence(style.blank ? blanked(body, address_fields) : body);
}

} // namespace sim
