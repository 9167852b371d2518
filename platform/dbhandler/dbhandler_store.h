// The settings as named integers in the SQLite file, and what it takes to keep that file usable.
// Called by the library's own threads only, see dbhandler_worker.h: it waits for locks until the
// deadline, and for the disk without one.
#ifndef DBHANDLER_STORE_H
#define DBHANDLER_STORE_H

#include "dbhandler_files.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <sys/types.h>

enum setting_id : size_t {
    gps_power_on_status,
    ta_power_on_status,
    location_history_status,
    location_history_interval, // seconds
    setting_count
};

using settings_values = std::array<int64_t, setting_count>; // by setting_id

struct setting_change {
    setting_id id;
    int64_t value;
};

enum class outcome {
    done,
    failed,  // logged; the file is left alone
    foreign, // the same: what is there is no settings database
    denied,  // the same: this user may not read it
    busy,    // somebody else held a lock until the deadline
    fresh,   // there is no database yet
    damaged, // it was a database
};

struct sqlite3;
struct close_database {
    void operator()(sqlite3 *db) const;
};
using database = std::unique_ptr<sqlite3, close_database>;

// The database as a reader keeps it open, and which file that is.
struct open_settings {
    database db;
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    std::array<size_t, setting_count>
        complained{}; // hash of the value in the log already, 0 = none
};

// What a setting is without a row of its own.
settings_values store_defaults();

// False, with a line in the log: a value that must not be stored.
bool store_accepts(std::span<const setting_change> changes);

// Fills all values, of one moment, and takes no lock that a writer holds. A value that cannot be
// meant is logged and counts as its default. Another file at the path is opened anew.
outcome store_read(open_settings &link, const std::string &path,
                   settings_clock::time_point deadline, settings_values &values);

// Fills all values without writing anything: no file is made, moved or changed. The one call here
// that any thread may make; opens the file for itself. `fresh`: there is none, or it holds nothing
// yet, and the values are the defaults.
outcome store_look(const std::string &path, settings_clock::time_point deadline,
                   settings_values &values);

// Stores all changes or none, and fills `after` with all values as they are then. Creates the
// database when there is none, also when there is nothing to store. A damaged one is set aside for
// a new one if `repair` says so. Nothing is stored once `given_up` is set.
struct store_request {
    std::string path;
    std::span<const setting_change> changes;
    bool repair;
    settings_clock::time_point deadline;
    const std::atomic<bool> &given_up;
};
outcome store_write(const store_request &call, settings_values &after);

#endif
