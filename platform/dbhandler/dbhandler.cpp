// The exported calls of the settings database. See dbhandler.h.
// No exception leaves: a call that runs out of memory has failed.
#include "dbhandler_admin.h"

#include "dbhandler_worker.h"
#include "ls_export.h"

#include <exception>

namespace {

bool read_all(settings_values &values) try {
    return settings_read(values);
} catch (const std::exception &) {
    return false;
}

int read_status(setting_id id, int32_t *status) {
    settings_values values{};
    if (status == nullptr || !read_all(values))
        return -1;
    *status = static_cast<int32_t>(values[id]);
    return 0;
}

} // namespace

LS_EXPORT int db_read_gps_power_on_status(int32_t *status) {
    return read_status(gps_power_on_status, status);
}

LS_EXPORT int db_read_ta_power_on_status(int32_t *status) {
    return read_status(ta_power_on_status, status);
}

LS_EXPORT int db_read_location_history_settings(struct location_history_settings *result) {
    settings_values values{};
    if (result == nullptr || !read_all(values))
        return -1;
    result->status = static_cast<uint8_t>(values[location_history_status]);
    result->interval = static_cast<uint32_t>(values[location_history_interval]);
    return 0;
}

LS_EXPORT int db_set_gps_power_on_status(int32_t status) try {
    settings_values after{};
    const setting_change change{gps_power_on_status, status};
    return settings_write({&change, 1}, true, after) ? 0 : -1;
} catch (const std::exception &) {
    return -1;
}

// Not among the service's calls: a tool finds it by its name, and knows by it whose library this
// is.
LS_EXPORT int db_look_at_settings(struct db_settings *settings) try {
    settings_values values{};
    if (settings == nullptr)
        return DB_LOOK_FAILED;
    const outcome seen = settings_look(values);
    if (seen == outcome::done || seen == outcome::fresh)
        *settings = settings_record(values);
    switch (seen) {
    case outcome::done:
        return DB_LOOK_STORED;
    case outcome::fresh:
        return DB_LOOK_ABSENT;
    case outcome::foreign:
        return DB_LOOK_NOT_OURS;
    case outcome::denied:
        return DB_LOOK_DENIED;
    case outcome::damaged:
        return DB_LOOK_DAMAGED;
    case outcome::failed:
    case outcome::busy:
        break;
    }
    return DB_LOOK_FAILED;
} catch (const std::exception &) {
    return DB_LOOK_FAILED;
}
