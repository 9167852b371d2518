// The fields that sentences are made of. Pure functions, for the sentence writers only.
#ifndef SIMULATOR_RECEIVER_NMEA_FIELDS_H
#define SIMULATOR_RECEIVER_NMEA_FIELDS_H

#include "truth.h"

#include <optional>
#include <string>
#include <string_view>

namespace sim {

// printf into a string.
std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));

std::string number_field(const std::optional<double> &value, int decimals);

std::string integer_field(const std::optional<int> &value, int digits);

// hhmmss.ss, never rounded up into the next minute.
std::string time_field(const std::optional<utc_time> &time);

// ddmmyy.
std::string short_date_field(const std::optional<utc_date> &date);

// ddmm.mmmmm,N,dddmm.mmmmm,E or three bare commas.
std::string position_fields(const epoch &now);

// Satellites in the fix.
size_t used_count(const epoch &now);

// The body with nothing in its fields behind the first `kept`.
std::string blanked(std::string_view body, size_t kept);

} // namespace sim

#endif
