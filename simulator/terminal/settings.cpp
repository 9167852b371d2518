#include "settings.h"

#include "dbhandler.h"
#include "dbhandler_admin.h"
#include "gps_data.h"
#include "ls_messages.h"

#include <array>
#include <cstdio>

namespace sim {
namespace {

constexpr uint32_t HISTORY_INTERVAL_S = 60;

} // namespace

bool settings_apply(const terminal_options &options, bool fresh, std::string &error) {
    if (options.power_status.has_value() || fresh) {
        if (db_set_gps_power_on_status(options.power_status.value_or(GPS_POWER_ON)) != 0) {
            error = "storing the power-on status in the settings database failed";
            return false;
        }
    }
    if (options.antenna.has_value() || fresh) {
        if (db_set_ta_power_on_status(options.antenna.value_or(LS_ANTENNA_TYPE_GNSS)) != 0) {
            error = "storing the antenna type in the settings database failed";
            return false;
        }
    }
    if (options.history.has_value() || options.history_interval.has_value() || fresh) {
        location_history_settings history{0, HISTORY_INTERVAL_S};
        if (!fresh && db_read_location_history_settings(&history) != 0) {
            error = "reading the history settings from the settings database failed";
            return false;
        }
        history.status = options.history.value_or(history.status != 0) ? 1 : 0;
        history.interval = options.history_interval.value_or(history.interval);
        if (db_set_location_history_settings(&history) != 0) {
            error = "storing the history settings in the settings database failed";
            return false;
        }
    }
    return true;
}

bool settings_antenna(int32_t &antenna, std::string &error) {
    if (db_read_ta_power_on_status(&antenna) != 0) {
        error = "reading the antenna type from the settings database failed";
        return false;
    }
    return true;
}

std::string settings_describe() {
    int32_t power = -1;
    int32_t antenna = -1;
    location_history_settings history{};
    if (db_read_gps_power_on_status(&power) != 0 || db_read_ta_power_on_status(&antenna) != 0 ||
        db_read_location_history_settings(&history) != 0)
        return "unreadable";
    std::array<char, 96> text;
    std::snprintf(text.data(), text.size(),
                  "power status %d, antenna type %d, history %s every %u s", power, antenna,
                  history.status != 0 ? "on" : "off", history.interval);
    return text.data();
}

} // namespace sim
