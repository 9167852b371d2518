// lsctl: records as text and as JSON.
#include "lsctl_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

namespace {

constexpr std::array<const char *, 7> DAYS = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                              "Thursday", "Friday", "Saturday"};

constexpr uint32_t SECONDS_PER_DAY = 86400;
constexpr uint32_t SECONDS_PER_WEEK = 7 * SECONDS_PER_DAY;

bool is_hemisphere(char letter) {
    return letter == 'N' || letter == 'S' || letter == 'E' || letter == 'W';
}

char shown_hemisphere(char letter) {
    return is_hemisphere(letter) ? letter : '?';
}

double signed_degrees(double magnitude, char hemisphere) {
    return hemisphere == 'S' || hemisphere == 'W' ? -magnitude : magnitude;
}

lsctl_json utc_json(const gps_time_fields &time) {
    const std::string text = lsctl_utc(time);
    return text.empty() ? lsctl_json(nullptr) : lsctl_json(text);
}

std::string utc_or_unknown(const gps_time_fields &time) {
    const std::string text = lsctl_utc(time);
    return text.empty() ? "unknown" : text;
}

size_t listed(const gps_sat_info &info) {
    return std::min<size_t>(info.num_sat_in_view, GPS_SAT_SLOTS);
}

bool is_used(const gps_sat_info &info, uint8_t prn) {
    return prn != 0 && std::find(std::begin(info.sat_used_prn), std::end(info.sat_used_prn), prn) !=
                           std::end(info.sat_used_prn);
}

bool is_listed(const gps_sat_info &info, uint8_t prn) {
    const auto *end = info.sat_prn + listed(info);
    return std::find(info.sat_prn, end, prn) != end;
}

} // namespace

std::string lsctl_format(const char *format, ...) {
    char *made = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&made, format, arguments);
    va_end(arguments);
    if (length < 0)
        throw std::bad_alloc();
    const std::unique_ptr<char, decltype(&free)> owned(made, free);
    return {made, static_cast<size_t>(length)};
}

std::string lsctl_utc(const gps_time_fields &time) {
    if (time.month < 1 || time.month > 12 || time.day < 1 || time.day > 31 || time.hour > 23 ||
        time.minute > 59 || time.second > 60)
        return {};
    return lsctl_format("%04u-%02u-%02uT%02u:%02u:%02uZ", time.year, time.month, time.day,
                        time.hour, time.minute, time.second);
}

std::string lsctl_degrees(double magnitude, char hemisphere) {
    return lsctl_format("%.6f deg %c", magnitude, shown_hemisphere(hemisphere));
}

std::string lsctl_degrees_minutes(double magnitude, char hemisphere) {
    if (!std::isfinite(magnitude) || std::fabs(magnitude) > 1000)
        return "unknown";
    // Rounded once, as a whole, so that minutes never read 60.
    const long long units = std::llround(magnitude * 60 * 10000);
    return lsctl_format("%lld deg %02lld.%04lld' %c", units / 600000, units / 10000 % 60,
                        units % 10000, shown_hemisphere(hemisphere));
}

const char *lsctl_fix_name(uint32_t fix_type) {
    switch (fix_type) {
    case GPS_FIX_2D:
        return "2D";
    case GPS_FIX_3D:
        return "3D";
    default:
        return "none";
    }
}

std::string lsctl_position_text(const gps_pos_data &position) {
    const auto row = [](const char *name, double magnitude, char hemisphere) {
        return lsctl_format("%-11s %-18s (%s)\n", name,
                            lsctl_degrees(magnitude, hemisphere).c_str(),
                            lsctl_degrees_minutes(magnitude, hemisphere).c_str());
    };
    std::string text = lsctl_format("%-11s %s\n", "Time", utc_or_unknown(position.time).c_str());
    text += lsctl_format("%-11s %s, %u satellites used\n", "Fix", lsctl_fix_name(position.fix_type),
                         position.num_satellites);
    text += row("Latitude", position.latitude, position.lat_dir);
    text += row("Longitude", position.longitude, position.lon_dir);
    text += lsctl_format("%-11s %.1f m above mean sea level\n", "Altitude", position.altitude);
    text += lsctl_format("%-11s %.1f m horizontal, %.1f m vertical\n", "Accuracy",
                         static_cast<double>(position.horizontal_accuracy),
                         static_cast<double>(position.vertical_accuracy));
    return text;
}

std::string lsctl_position_line(const gps_pos_data &position) {
    return lsctl_format("%-20s  %-4s  %10.6f %c  %11.6f %c  %8.1f m  +-%.1f m  %2u satellites",
                        utc_or_unknown(position.time).c_str(), lsctl_fix_name(position.fix_type),
                        position.latitude, shown_hemisphere(position.lat_dir), position.longitude,
                        shown_hemisphere(position.lon_dir), position.altitude,
                        static_cast<double>(position.horizontal_accuracy), position.num_satellites);
}

lsctl_json lsctl_position_json(const gps_pos_data &position) {
    // Four digits behind the point are all that the floats hold.
    const auto metres = [](float value) {
        return std::round(static_cast<double>(value) * 10000) / 10000;
    };
    return {
        {"time_utc", utc_json(position.time)},
        {"fix_type", lsctl_fix_name(position.fix_type)},
        {"satellites_used", position.num_satellites},
        {"latitude_deg", signed_degrees(position.latitude, position.lat_dir)},
        {"longitude_deg", signed_degrees(position.longitude, position.lon_dir)},
        {"altitude_m", position.altitude},
        {"horizontal_accuracy_m", metres(position.horizontal_accuracy)},
        {"vertical_accuracy_m", metres(position.vertical_accuracy)},
    };
}

std::optional<lsctl_clock_offset> lsctl_clock_offset_of(const gps_time_fields &utc, double before_s,
                                                        double after_s) {
    if (lsctl_utc(utc).empty())
        return std::nullopt;
    std::tm fields{};
    fields.tm_year = utc.year - 1900;
    fields.tm_mon = utc.month - 1;
    fields.tm_mday = utc.day;
    fields.tm_hour = utc.hour;
    fields.tm_min = utc.minute;
    fields.tm_sec = utc.second;
    constexpr double half = 0.5; // of the second whose fraction is not told
    const double told_s = static_cast<double>(timegm(&fields)) + half;
    const auto tenths = [](double seconds) { return std::round(seconds * 10) / 10; };
    return lsctl_clock_offset{tenths((before_s + after_s) / 2 - told_s),
                              tenths(half + (after_s - before_s) / 2)};
}

std::string lsctl_time_text(const gps_time_fields &utc, uint32_t time_of_week,
                            const std::optional<lsctl_clock_offset> &offset) {
    std::string text = lsctl_format("%-13s %s\n", "Time", utc_or_unknown(utc).c_str());
    text += lsctl_format("%-13s %u s", "Time of week", time_of_week);
    if (time_of_week < SECONDS_PER_WEEK) {
        const uint32_t of_day = time_of_week % SECONDS_PER_DAY;
        text += lsctl_format(" (%s %02u:%02u:%02u)", DAYS.at(time_of_week / SECONDS_PER_DAY),
                             of_day / 3600, of_day / 60 % 60, of_day % 60);
    }
    text += lsctl_format("\n%-13s ", "System clock");
    if (!offset) {
        text += "not compared: the receiver does not know the time\n";
    } else if (std::fabs(offset->ahead_s) <= offset->uncertainty_s) {
        text += lsctl_format("agrees (within %.1f s)\n", offset->uncertainty_s);
    } else {
        text += lsctl_format("%.1f s %s (+-%.1f s)\n", std::fabs(offset->ahead_s),
                             offset->ahead_s > 0 ? "ahead" : "behind", offset->uncertainty_s);
    }
    return text;
}

lsctl_json lsctl_time_json(const gps_time_fields &utc, uint32_t time_of_week,
                           const std::optional<lsctl_clock_offset> &offset) {
    return {
        {"time_utc", utc_json(utc)},
        {"time_of_week_s", time_of_week},
        {"clock_ahead_s", offset ? lsctl_json(offset->ahead_s) : lsctl_json(nullptr)},
        {"clock_uncertainty_s", offset ? lsctl_json(offset->uncertainty_s) : lsctl_json(nullptr)}};
}

std::string lsctl_satellites_text(const gps_sat_info &info) {
    std::string text = lsctl_format("%-5s %s\n", "Time", utc_or_unknown(info.time).c_str());
    text += "  PRN  C/N0 dB-Hz                             used\n";
    for (size_t i = 0; i < listed(info); ++i) {
        const unsigned snr = info.sat_snr[i];
        // One sign for 2 dB-Hz; more than 60 dB-Hz does not occur.
        const std::string bar(std::min(snr / 2, 30U), '#');
        text += lsctl_format("  %3u  %4s  %-30s      %s\n", info.sat_prn[i],
                             snr == 0 ? "-" : std::to_string(snr).c_str(), bar.c_str(),
                             is_used(info, info.sat_prn[i]) ? "yes" : "no");
    }
    for (const uint8_t prn : info.sat_used_prn) {
        if (prn != 0 && !is_listed(info, prn)) {
            text +=
                lsctl_format("  %3u  %4s  %-30s      %s\n", prn, "?", "(not in the list)", "yes");
        }
    }
    text += lsctl_format("%u in view, %u used", info.num_sat_in_view, info.num_sat_usable);
    if (info.num_sat_in_view > GPS_SAT_SLOTS)
        text += lsctl_format(" (the service lists the first %zu)", GPS_SAT_SLOTS);
    return text + "\n";
}

lsctl_json lsctl_satellites_json(const gps_sat_info &info) {
    lsctl_json satellites = lsctl_json::array();
    for (size_t i = 0; i < listed(info); ++i) {
        const uint8_t snr = info.sat_snr[i];
        satellites.push_back({{"prn", info.sat_prn[i]},
                              {"cn0_dbhz", snr == 0 ? lsctl_json(nullptr) : lsctl_json(snr)},
                              {"used", is_used(info, info.sat_prn[i])}});
    }
    for (const uint8_t prn : info.sat_used_prn)
        if (prn != 0 && !is_listed(info, prn))
            satellites.push_back({{"prn", prn}, {"cn0_dbhz", nullptr}, {"used", true}});
    return {{"time_utc", utc_json(info.time)},
            {"satellites_in_view", info.num_sat_in_view},
            {"satellites_used", info.num_sat_usable},
            {"satellites", satellites}};
}

std::string lsctl_speed_text(const gps_speed_data &speed) {
    std::string text = lsctl_format("%-6s %s\n", "Time", utc_or_unknown(speed.time).c_str());
    text += lsctl_format("%-6s %u km/h", "Speed", speed.speed_int);
    if (speed.speed_frac != 0) {
        // 12.5 and 12.05 arrive alike, so no decimal number can be shown.
        text += lsctl_format(" and a fraction (digits %u, their place is not transmitted)",
                             speed.speed_frac);
    }
    return text + "; both numbers wrap at 256\n";
}

lsctl_json lsctl_speed_json(const gps_speed_data &speed) {
    return {{"time_utc", utc_json(speed.time)},
            {"speed_whole_kmh", speed.speed_int},
            {"speed_fraction_digits", speed.speed_frac}};
}

std::string lsctl_power_text(uint32_t mode) {
    const char *state = mode == GPS_POWER_ON                                 ? "on"
                        : mode == GPS_POWER_OFF || mode == GPS_POWER_OFF_ALT ? "off"
                                                                             : "unknown";
    return lsctl_format("%s (power mode %u)", state, mode);
}

lsctl_json lsctl_power_json(uint32_t mode) {
    return {{"receiver_on", mode == GPS_POWER_ON}, {"power_mode", mode}};
}
