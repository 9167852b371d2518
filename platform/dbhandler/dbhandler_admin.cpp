// The calls for tools. See dbhandler_admin.h. No exception leaves, as in dbhandler.cpp.
#include "dbhandler_admin.h"

#include "dbhandler_worker.h"
#include "ls_export.h"

#include <exception>
#include <vector>

LS_EXPORT int db_change_settings(unsigned members, const struct db_settings *wanted,
                                 struct db_settings *stored) try {
    if (wanted == nullptr || members == 0)
        return -1;
    const struct {
        unsigned member;
        setting_change change;
    } known[] = {
        {DB_HISTORY_STATUS, {location_history_status, wanted->history.status}},
        {DB_HISTORY_INTERVAL, {location_history_interval, wanted->history.interval}},
        {DB_TA_POWER_ON_STATUS, {ta_power_on_status, wanted->ta_power_on_status}},
        {DB_GPS_POWER_ON_STATUS, {gps_power_on_status, wanted->gps_power_on_status}},
    };
    std::vector<setting_change> changes;
    for (const auto &one : known) {
        if ((members & one.member) != 0)
            changes.push_back(one.change);
        members &= ~one.member;
    }
    settings_values after{};
    if (members != 0 || !settings_write(changes, false, after))
        return -1;
    if (stored != nullptr)
        *stored = settings_record(after);
    return 0;
} catch (const std::exception &) {
    return -1;
}

LS_EXPORT int db_set_location_history_settings(const struct location_history_settings *wanted) {
    if (wanted == nullptr)
        return -1;
    const db_settings all{*wanted, 0, 0};
    return db_change_settings(DB_HISTORY_STATUS | DB_HISTORY_INTERVAL, &all, nullptr);
}

LS_EXPORT int db_set_ta_power_on_status(int32_t status) {
    const db_settings all{{}, status, 0};
    return db_change_settings(DB_TA_POWER_ON_STATUS, &all, nullptr);
}

LS_EXPORT const char *db_settings_file(void) {
    return settings_path();
}
