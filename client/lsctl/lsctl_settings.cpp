// lsctl settings: what the settings database holds for the location service.
//
// The database belongs to the terminal: it is read and written directly, also while the service
// does not run. A running service is told with a notification, as WS tells it.
#include "lsctl_text.h"

#include <optional>

#include <CLI/CLI.hpp>

#include "dbhandler.h"
#include "dbhandler_admin.h"

namespace {

// As typed.
std::optional<std::string> history;
std::optional<uint32_t> interval_s;
std::optional<int32_t> antenna;
std::optional<std::string> power;

struct settings {
    location_history_settings history;
    int32_t antenna;
    int32_t power;
};

bool read_settings(settings *stored) {
    return db_read_location_history_settings(&stored->history) == 0 &&
           db_read_ta_power_on_status(&stored->antenna) == 0 &&
           db_read_gps_power_on_status(&stored->power) == 0;
}

int database_failure(const lsctl_options &options, const char *what) {
    return lsctl_fail(
        options, location_result::failed,
        lsctl_format("the settings database %s cannot be %s", db_settings_file(), what));
}

bool wants_history() {
    return history.has_value() || interval_s.has_value();
}

// Stores what was typed. False: a value could not be stored.
bool store(settings *stored) {
    if (wants_history()) {
        if (history.has_value()) {
            stored->history.status = *history == "on" ? 1 : 0;
        }
        stored->history.interval = interval_s.value_or(stored->history.interval);
        if (db_set_location_history_settings(&stored->history) != 0) {
            return false;
        }
    }
    if (antenna.has_value()) {
        stored->antenna = *antenna;
        if (db_set_ta_power_on_status(stored->antenna) != 0) {
            return false;
        }
    }
    if (power.has_value()) {
        // The words stand for the modes that lsctl power uses for them.
        const std::string mode = *power == "on" ? "2" : *power == "off" ? "0" : *power;
        stored->power = mode[0] - '0';
        if (db_set_gps_power_on_status(stored->power) != 0) {
            return false;
        }
    }
    return true;
}

int show(const lsctl_options &options, const settings &stored) {
    const bool on = stored.history.status == 1;
    std::string text = lsctl_format("%-15s %s, every %u s\n", "History", on ? "on" : "off",
                                    stored.history.interval);
    text += lsctl_format("%-15s %d%s\n", "Antenna type", stored.antenna,
                         stored.antenna == LS_ANTENNA_TYPE_GNSS ? " (GNSS)" : "");
    text += lsctl_format("%-15s %s\n", "Receiver",
                         lsctl_power_text(static_cast<uint32_t>(stored.power)).c_str());
    return lsctl_show(options,
                      {{"history_on", on},
                       {"history_interval_s", stored.history.interval},
                       {"antenna_type", stored.antenna},
                       {"power_on_status", stored.power},
                       {"settings_file", db_settings_file()}},
                      text);
}

// Tells the service as WS, or under another id where WS is running.
location_result notify(const lsctl_options &options) {
    const lsctl_link as_ws(options.as != 0 ? options.as : uint32_t{LS_SERV_WS});
    if (options.as == 0 && as_ws.result == location_result::id_taken) {
        const lsctl_link as_tool(0);
        return as_tool.result == location_result::answered
                   ? location_client_notify_history_settings(as_tool.client)
                   : as_tool.result;
    }
    return as_ws.result == location_result::answered
               ? location_client_notify_history_settings(as_ws.client)
               : as_ws.result;
}

int tell_the_service(const lsctl_options &options) {
    const location_result result = notify(options);
    switch (result) {
    case location_result::answered:
        return LSCTL_OK;
    case location_result::no_daemon:
    case location_result::no_bus:
        lsctl_complain("settings stored; the location service is not running and takes them up at "
                       "its next start");
        return LSCTL_OK;
    default:
        lsctl_complain("settings stored, but the location service could not be told: " +
                       lsctl_sentence(options, result));
        return lsctl_exit_of(result);
    }
}

} // namespace

void lsctl_add_settings(CLI::App &app) {
    history.reset();
    interval_s.reset();
    antenna.reset();
    power.reset();
    app.add_option("--history", history, "Acquisition of the location history")
        ->option_text("on|off")
        ->check(CLI::IsMember({"on", "off"}));
    app.add_option("--interval", interval_s, "Seconds between the lines of the history")
        ->option_text("SECONDS")
        ->check(CLI::Range(uint32_t{1}, uint32_t{31'536'000}));
    app.add_option("--antenna", antenna, "Antenna type; 4 serves requests")
        ->option_text("TYPE")
        ->check(CLI::Range(0, 255));
    app.add_option("--power-status", power,
                   "Receiver at the service's start: on (2) or off (0, or 1); at once: lsctl power")
        ->option_text("on|off|0|1|2")
        ->check(CLI::IsMember({"on", "off", "0", "1", "2"}));
}

int lsctl_run_settings(const lsctl_options &options) {
    settings stored{};
    if (!read_settings(&stored)) {
        return database_failure(options, "read");
    }
    if (!store(&stored)) {
        return database_failure(options, "written");
    }
    if (const int status = show(options, stored); status != LSCTL_OK) {
        return status;
    }
    if (antenna.has_value() || power.has_value()) {
        lsctl_complain("antenna type and receiver at start: taken up at the next start of the "
                       "location service");
    }
    if (wants_history() && stored.history.status == 1 && stored.power != GPS_POWER_ON) {
        lsctl_complain("no history is acquired while the receiver is stored as off: lsctl power on "
                       "--as 6");
    }
    return wants_history() ? tell_the_service(options) : LSCTL_OK;
}
