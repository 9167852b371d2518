// lsctl: records as text in people's units, and as JSON with the unit in each key. Pure functions.
#ifndef LSCTL_TEXT_H
#define LSCTL_TEXT_H

#include <optional>
#include <string>

#include "lsctl.h"

std::string lsctl_format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// "2019-02-05T10:51:05Z", or "" when the fields are no date and time (all zero, say).
std::string lsctl_utc(const gps_time_fields &time);

// "70.132317 deg N" and "70 deg 07.9390' N"; '?' for a letter that is no hemisphere.
std::string lsctl_degrees(double magnitude, char hemisphere);
std::string lsctl_degrees_minutes(double magnitude, char hemisphere);

// "2D", "3D" or "none".
const char *lsctl_fix_name(uint32_t fix_type);

std::string lsctl_position_text(const gps_pos_data &position);
std::string lsctl_position_line(const gps_pos_data &position); // one line, for watch
lsctl_json lsctl_position_json(const gps_pos_data &position);

// How far the system clock is from the receiver's time.
struct lsctl_clock_offset {
    double ahead_s; // of the system clock; negative = behind
    double uncertainty_s;
};
// The receiver's time is told in whole seconds and was read between the two readings of the system
// clock, seconds since the epoch. None when the fields are no date and time.
std::optional<lsctl_clock_offset> lsctl_clock_offset_of(const gps_time_fields &utc, double before_s,
                                                        double after_s);
std::string lsctl_time_text(const gps_time_fields &utc, uint32_t time_of_week,
                            const std::optional<lsctl_clock_offset> &offset);
lsctl_json lsctl_time_json(const gps_time_fields &utc, uint32_t time_of_week,
                           const std::optional<lsctl_clock_offset> &offset);

std::string lsctl_satellites_text(const gps_sat_info &info);
lsctl_json lsctl_satellites_json(const gps_sat_info &info);

std::string lsctl_speed_text(const gps_speed_data &speed);
lsctl_json lsctl_speed_json(const gps_speed_data &speed);

std::string lsctl_power_text(uint32_t mode); // "on (power mode 2)"
lsctl_json lsctl_power_json(uint32_t mode);

#endif
