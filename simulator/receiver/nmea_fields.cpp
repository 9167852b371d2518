// The fields that sentences are made of. Pure functions.
#include "nmea_fields.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace sim {

namespace {

// Minutes with five decimals, counted in units of the last one so that 59.999999 carries.
std::string angle_field(double degrees, int degree_digits) {
    constexpr long long units_per_minute = 100000;
    constexpr long long units_per_degree = 60 * units_per_minute;
    const long long units =
        std::llround(std::fabs(degrees) * static_cast<double>(units_per_degree));
    const long long minutes = units % units_per_degree;
    return text_of("%0*lld%02lld.%05lld", degree_digits, units / units_per_degree,
                   minutes / units_per_minute, minutes % units_per_minute);
}

} // namespace

std::string text_of(const char *format, ...) {
    std::array<char, 256> text{};
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return length < 0 ? std::string() : std::string(text.data());
}

std::string number_field(const std::optional<double> &value, int decimals) {
    return value ? text_of("%.*f", decimals, *value) : std::string();
}

std::string integer_field(const std::optional<int> &value, int digits) {
    return value ? text_of("%0*d", digits, *value) : std::string();
}

std::string time_field(const std::optional<utc_time> &time) {
    if (!time)
        return "";
    const long rounded = std::lround(time->second * 100.0);
    const long hundredths = time->second < 60.0 ? std::min(rounded, 5999L) : rounded;
    return text_of("%02d%02d%02ld.%02ld", time->hour, time->minute, hundredths / 100,
                   hundredths % 100);
}

std::string short_date_field(const std::optional<utc_date> &date) {
    return date ? text_of("%02d%02d%02d", date->day, date->month, date->year % 100) : std::string();
}

std::string position_fields(const epoch &now) {
    if (now.fix == fix_quality::none || !now.latitude || !now.longitude)
        return ",,,";
    return angle_field(*now.latitude, 2) + (*now.latitude < 0 ? ",S," : ",N,") +
           angle_field(*now.longitude, 3) + (*now.longitude < 0 ? ",W" : ",E");
}

size_t used_count(const epoch &now) {
    return static_cast<size_t>(std::count_if(
        now.slots.begin(), now.slots.end(), [](int prn) { return prn > 0; }));
}

} // namespace sim
