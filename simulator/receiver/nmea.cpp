// Standard sentences from one moment's truth. Pure functions.
//
// A field that is not known is empty, as on a real receiver; without a fix the units go too.
#include "nmea.h"

#include "nmea_fields.h"
#include "sentence.h"

#include <algorithm>
#include <iterator>

namespace sim {

namespace {

constexpr double knot = 1852.0 / 3600.0; // metres per second
constexpr size_t slot_count = 12;
constexpr size_t satellites_per_gsv = 4;
constexpr size_t most_gsv_satellites = 16;

bool has_fix(const nav_report &report) {
    return report.now.fix != fix_quality::none;
}

// The positioning mode that ends RMC, GLL and VTG since version 2.3.
std::string mode_field(const nav_report &report, const nmea_style &style) {
    if (style.version < 0x23)
        return "";
    return has_fix(report) ? ",A" : ",N";
}

std::string body_gga(const nav_report &report, const nmea_style &style) {
    const epoch &now = report.now;
    const std::string head =
        style.talker + "GGA," + time_field(now.time) + "," + position_fields(now);
    if (!has_fix(report))
        return head + ",0,00,99.99,,,,,,";
    const size_t used = std::min(used_count(now), slot_count);
    return head + text_of(",1,%02zu,", used) + number_field(now.hdop, 2) + "," +
           number_field(now.altitude, 1) + ",M," + number_field(now.geoid, 1) + ",M,,";
}

std::string body_gll(const nav_report &report, const nmea_style &style) {
    return style.talker + "GLL," + position_fields(report.now) + "," + time_field(report.now.time) +
           (has_fix(report) ? ",A" : ",V") + mode_field(report, style);
}

std::string body_gsa(const nav_report &report, const nmea_style &style) {
    const epoch &now = report.now;
    const char *mode = !has_fix(report) ? "1" : now.fix == fix_quality::fix_2d ? "2" : "3";
    std::string body = style.talker + "GSA,A," + mode;
    for (size_t slot = 0; slot < slot_count; ++slot) {
        const int prn = slot < now.slots.size() ? now.slots[slot] : 0;
        body += prn > 0 ? text_of(",%02d", prn) : std::string(",");
    }
    for (const auto &dilution : {now.pdop, now.hdop, now.vdop}) {
        body += ',';
        body += has_fix(report) ? number_field(dilution, 2) : "99.99";
    }
    return body + (style.version >= 0x41 ? ",1" : "");
}

std::string body_rmc(const nav_report &report, const nmea_style &style) {
    const epoch &now = report.now;
    const auto knots = now.speed ? std::optional(*now.speed / knot) : std::nullopt;
    return style.talker + "RMC," + time_field(now.time) + (has_fix(report) ? ",A," : ",V,") +
           position_fields(now) + "," + number_field(knots, 3) + "," + number_field(now.course, 2) +
           "," + short_date_field(now.date) + ",," + mode_field(report, style) +
           (style.version >= 0x41 ? ",V" : "");
}

std::string body_vtg(const nav_report &report, const nmea_style &style) {
    const epoch &now = report.now;
    if (!has_fix(report))
        return style.talker + "VTG,,,,,,,," + mode_field(report, style);
    const auto knots = now.speed ? std::optional(*now.speed / knot) : std::nullopt;
    const auto kmh = now.speed ? std::optional(*now.speed * 3.6) : std::nullopt;
    return style.talker + "VTG," + number_field(now.course, 2) + ",T,,M," + number_field(knots, 3) +
           ",N," + number_field(kmh, 3) + ",K" + mode_field(report, style);
}

std::string body_zda(const nav_report &report, const nmea_style &style) {
    const epoch &now = report.now;
    const std::string head = style.talker + "ZDA," + time_field(now.time);
    if (!now.date)
        return head + ",,,,00,00";
    return head + text_of(",%02d,%02d,%04d,00,00", now.date->day, now.date->month, now.date->year);
}

std::vector<std::string> bodies_gsv(const nav_report &report, const nmea_style &style) {
    const std::vector<satellite> &all = report.now.satellites;
    const size_t in_view = std::min({all.size(), style.max_satellites, most_gsv_satellites});
    const size_t sentences =
        std::max<size_t>(1, (in_view + satellites_per_gsv - 1) / satellites_per_gsv);
    std::vector<std::string> bodies;
    for (size_t sentence = 0; sentence < sentences; ++sentence) {
        std::string body =
            style.gsv_talker + text_of("GSV,%zu,%zu,%02zu", sentences, sentence + 1, in_view);
        const size_t end = std::min(in_view, (sentence + 1) * satellites_per_gsv);
        for (size_t at = sentence * satellites_per_gsv; at < end; ++at)
            body += text_of(",%02d,", all[at].prn) + integer_field(all[at].elevation, 2) + "," +
                    integer_field(all[at].azimuth, 3) + "," + integer_field(all[at].cn0, 2);
        bodies.push_back(body + (style.version >= 0x41 ? ",1" : ""));
    }
    return bodies;
}

struct sentence_type {
    std::string_view name;
    std::string (*body)(const nav_report &, const nmea_style &);
};

constexpr sentence_type sentence_types[] = {
    {"GGA", body_gga}, {"GLL", body_gll}, {"GSA", body_gsa},
    {"RMC", body_rmc}, {"VTG", body_vtg}, {"ZDA", body_zda},
};

} // namespace

std::string blanked(std::string_view body, size_t kept) {
    std::string blank;
    size_t number = 0;
    for (const std::string_view one : nmea_fields(body)) {
        blank += number == 0 ? "" : ",";
        blank += number < kept ? one : std::string_view{};
        ++number;
    }
    return blank;
}

std::string nmea_answer(std::string_view type, const nav_report &report, const nmea_style &style) {
    if (type == "GSV") {
        constexpr size_t counters = 3; // address, number of sentences, number of this one
        std::string answer;
        for (const std::string &body : bodies_gsv(report, style))
            answer += nmea_sentence(style.blank ? blanked(body, counters) : body);
        return answer;
    }
    const auto known = std::find_if(std::begin(sentence_types), std::end(sentence_types),
                                    [&](const sentence_type &one) { return one.name == type; });
    if (known == std::end(sentence_types))
        return "";
    const std::string body = known->body(report, style);
    return nmea_sentence(style.blank ? blanked(body, 1) : body);
}

} // namespace sim
