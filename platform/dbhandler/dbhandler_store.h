// The settings as named integers in the SQLite file, and what it takes to keep that file usable.
//
// No state: every call takes the lock file, opens the database, does its work and closes again. So
// any number of threads and processes may call at once, also across fork.
#ifndef DBHANDLER_STORE_H
#define DBHANDLER_STORE_H

#include <cstddef>
#include <cstdint>
#include <span>

enum setting_id : size_t {
    gps_power_on_status,
    ta_power_on_status,
    location_history_status,
    location_history_interval, // seconds
    setting_count
};

struct stored_value {
    setting_id id;
    int64_t value;
};

// Fills the values, all from one moment. 0, or -1: nothing was filled, the reason is in the log.
int store_read(std::span<stored_value> values);

// Stores all values or none. 0, or -1: out of range, or as above.
int store_write(std::span<const stored_value> values);

#endif
