// lsctl: values of a drawing in words.
#include "words.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

std::string length_text(double metres) {
    std::array<char, 32> text{};
    if (metres < 1000)
        std::snprintf(text.data(), text.size(), "%g m", metres);
    else
        std::snprintf(text.data(), text.size(), "%g km", metres / 1000);
    return text.data();
}

std::string duration_text(int64_t seconds) {
    std::array<char, 48> text{};
    if (seconds < 60) {
        std::snprintf(text.data(), text.size(), "%" PRId64 " s", seconds);
    } else if (seconds < 3600) {
        std::snprintf(text.data(), text.size(), "%" PRId64 " min", seconds / 60);
    } else if (seconds < 86400) {
        std::snprintf(text.data(), text.size(), "%" PRId64 " h %02" PRId64 " min", seconds / 3600,
                      seconds / 60 % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%" PRId64 " d %" PRId64 " h", seconds / 86400,
                      seconds / 3600 % 24);
    }
    return text.data();
}

// "UTC+01:00", where the point was logged.
std::string zone_text(const track_point &point) {
    const auto instant = static_cast<time_t>(point.utc);
    tm local = {};
    localtime_r(&instant, &local);
    const int64_t minutes = std::llabs(local.tm_gmtoff) / 60;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "UTC%c%02" PRId64 ":%02" PRId64,
                  local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return text.data();
}

std::string date_text(const track_point &point) {
    return std::string(point.line.substr(0, 19));
}
