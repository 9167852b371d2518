// The exported calls of the settings database. See dbhandler.h and dbhandler_admin.h.
// No exception leaves: a call that runs out of memory has failed.
#include "dbhandler.h"
#include "dbhandler_admin.h"

#include "dbhandler_files.h"
#include "dbhandler_store.h"

#include <array>
#include <exception>

#define DB_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

int read_all(std::span<stored_value> values) try {
    return store_read(values);
} catch (const std::exception &) {
    return -1;
}

int write_all(std::span<const stored_value> values) try {
    return store_write(values);
} catch (const std::exception &) {
    return -1;
}

int read_status(setting_id id, int32_t *status) {
    std::array<stored_value, 1> value{{{id, 0}}};
    if (status == nullptr || read_all(value) != 0)
        return -1;
    *status = static_cast<int32_t>(value[0].value);
    return 0;
}

int write_status(setting_id id, int32_t status) {
    const std::array<stored_value, 1> value{{{id, status}}};
    return write_all(value);
}

} // namespace

DB_EXPORT int db_read_gps_power_on_status(int32_t *status) {
    return read_status(gps_power_on_status, status);
}

DB_EXPORT int db_set_gps_power_on_status(int32_t status) {
    return write_status(gps_power_on_status, status);
}

DB_EXPORT int db_read_ta_power_on_status(int32_t *status) {
    return read_status(ta_power_on_status, status);
}

DB_EXPORT int db_set_ta_power_on_status(int32_t status) {
    return write_status(ta_power_on_status, status);
}

DB_EXPORT int db_read_location_history_settings(struct location_history_settings *result) {
    std::array<stored_value, 2> values{
        {{location_history_status, 0}, {location_history_interval, 0}}};
    if (result == nullptr || read_all(values) != 0)
        return -1;
    result->status = static_cast<uint8_t>(values[0].value);
    result->interval = static_cast<uint32_t>(values[1].value);
    return 0;
}

DB_EXPORT int db_set_location_history_settings(const struct location_history_settings *wanted) {
    if (wanted == nullptr)
        return -1;
    const std::array<stored_value, 2> values{
        {{location_history_status, wanted->status}, {location_history_interval, wanted->interval}}};
    return write_all(values);
}

DB_EXPORT const char *db_settings_file(void) {
    return settings_path();
}
