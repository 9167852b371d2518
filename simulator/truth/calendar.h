// Calendar and GPS time for the simulated world. Pure functions; Unix seconds are UTC.
#ifndef SIMULATOR_TRUTH_CALENDAR_H
#define SIMULATOR_TRUTH_CALENDAR_H

#include "truth.h"

namespace sim {

constexpr double seconds_per_week = 604800.0;

struct utc_moment {
    utc_date date;
    utc_time time;
};

utc_moment moment_of(double unix_seconds);

double unix_of(const utc_date &date, const utc_time &time);

utc_date days_before(const utc_date &date, int days);

// GPS time minus UTC at that moment, whole seconds; 0 before the first leap second.
int leap_seconds_at(double unix_seconds);

// UTC seconds since the GPS epoch, 1980-01-06 (no leap seconds in it; add leap_seconds_at for GPS
// time).
double since_gps_epoch(double unix_seconds);

// The system's clock, Unix seconds.
double system_wall_clock();

} // namespace sim

#endif
