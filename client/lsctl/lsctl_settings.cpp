// lsctl settings: what the settings database holds for the location service.
//
// The database belongs to the terminal: it is read and written directly, also while the service
// does not run. A running service is told with a notification, as WS tells it.
#include "lsctl_bus.h"
#include "lsctl_text.h"

#include <optional>

#include <CLI/CLI.hpp>
#include <dlfcn.h>

#include "lsctl_settings.h"

namespace {

struct settings_command {
    // As typed.
    std::optional<std::string> history;
    std::optional<uint32_t> interval_s;
    std::optional<int32_t> antenna;
    std::optional<std::string> power;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;

  private:
    bool wants_history() const;
    unsigned wanted_members(db_settings *wanted) const;
    int store_and_read(const lsctl_options &options, db_settings *stored) const;
    int have_settings(const lsctl_options &options, db_settings *stored, bool *exists) const;
};

// What only our own settings libraries have: looked up here, so that lsctl starts on a terminal
// whose libdbhandler is another one.
struct admin_calls {
    decltype(&db_look_at_settings) look = nullptr; // null: the service uses another libdbhandler
    decltype(&db_change_settings) change = nullptr;
    decltype(&db_settings_file) file = nullptr;
};

const admin_calls &admin() {
    static const admin_calls found = [] {
        admin_calls calls;
        calls.look =
            reinterpret_cast<decltype(calls.look)>(dlsym(RTLD_DEFAULT, "db_look_at_settings"));
        if (void *library = dlopen("libdbhandler_admin.so", RTLD_NOW | RTLD_LOCAL)) {
            calls.change =
                reinterpret_cast<decltype(calls.change)>(dlsym(library, "db_change_settings"));
            calls.file = reinterpret_cast<decltype(calls.file)>(dlsym(library, "db_settings_file"));
        }
        return calls;
    }();
    return found;
}

bool read_settings(db_settings *stored) {
    return db_read_location_history_settings(&stored->history) == 0 &&
           db_read_ta_power_on_status(&stored->ta_power_on_status) == 0 &&
           db_read_gps_power_on_status(&stored->gps_power_on_status) == 0;
}

std::string file_name() {
    return admin().file != nullptr ? admin().file() : "the settings file";
}

int database_failure(const lsctl_options &options, const char *what) {
    return lsctl_fail_as(options, "settings_failed", LSCTL_FAILED,
                         file_name() + " cannot be " + what + "; the system log says why");
}

// What is stored, without touching a file. *look is DB_LOOK_STORED or DB_LOOK_ABSENT on success.
int tell_of_settings(const lsctl_options &options, db_settings *stored, int *look) {
    *look = DB_LOOK_STORED;
    if (admin().look == nullptr)
        return read_settings(stored) ? LSCTL_OK : database_failure(options, "read");
    *look = admin().look(stored);
    switch (*look) {
    case DB_LOOK_STORED:
    case DB_LOOK_ABSENT:
        return LSCTL_OK;
    case DB_LOOK_NOT_OURS:
        return lsctl_fail_as(options, "not_settings", LSCTL_FAILED,
                             file_name() + " is not a settings database; it is left as it is");
    case DB_LOOK_DAMAGED:
        return lsctl_fail_as(options, "settings_damaged", LSCTL_FAILED,
                             file_name() + " is a damaged settings database; the location service "
                                           "sets it aside when it reads it, and goes on with the "
                                           "defaults");
    case DB_LOOK_DENIED:
        return lsctl_fail_as(options, "permission_denied", LSCTL_FAILED,
                             file_name() + " may not be read by this user; members of the group "
                                           "terminal-data and root may");
    default:
        return database_failure(options, "read");
    }
}

bool settings_command::wants_history() const {
    return history.has_value() || interval_s.has_value();
}

// The members typed, with their values.
unsigned settings_command::wanted_members(db_settings *wanted) const {
    unsigned members = 0;
    if (history.has_value()) {
        members |= DB_HISTORY_STATUS;
        wanted->history.status = *history == "on" ? 1 : 0;
    }
    if (interval_s.has_value()) {
        members |= DB_HISTORY_INTERVAL;
        wanted->history.interval = *interval_s;
    }
    if (antenna.has_value()) {
        members |= DB_TA_POWER_ON_STATUS;
        wanted->ta_power_on_status = *antenna;
    }
    if (power.has_value()) {
        // The words stand for the modes that lsctl power uses for them.
        const std::string mode = *power == "on" ? "2" : *power == "off" ? "0" : *power;
        members |= DB_GPS_POWER_ON_STATUS;
        wanted->gps_power_on_status = mode[0] - '0';
    }
    return members;
}

bool holds(const db_settings &stored, unsigned members, const db_settings &wanted) {
    return ((members & DB_HISTORY_STATUS) == 0 || stored.history.status == wanted.history.status) &&
           ((members & DB_HISTORY_INTERVAL) == 0 ||
            stored.history.interval == wanted.history.interval) &&
           ((members & DB_TA_POWER_ON_STATUS) == 0 ||
            stored.ta_power_on_status == wanted.ta_power_on_status) &&
           ((members & DB_GPS_POWER_ON_STATUS) == 0 ||
            stored.gps_power_on_status == wanted.gps_power_on_status);
}

// Stores what was typed, all of it or nothing, and reads what is stored then.
int settings_command::store_and_read(const lsctl_options &options, db_settings *stored) const {
    db_settings wanted{};
    const unsigned members = wanted_members(&wanted);
    if (members == DB_GPS_POWER_ON_STATUS) { // every libdbhandler has this one
        if (db_set_gps_power_on_status(wanted.gps_power_on_status) != 0)
            return database_failure(options, "written");
    } else if (members != 0) {
        if (admin().change == nullptr) {
            return lsctl_fail(options, LOCATION_FAILED,
                              "nothing is stored: this terminal has no libdbhandler_admin.so, and "
                              "its libdbhandler stores the receiver's --power-status only");
        }
        if (admin().change(members, &wanted, nullptr) != 0)
            return database_failure(options, "written");
    }
    if (!read_settings(stored))
        return database_failure(options, "read");
    if (!holds(*stored, members, wanted)) {
        return lsctl_fail(options, LOCATION_FAILED,
                          lsctl_format("stored in %s, but this terminal's libdbhandler reads "
                                       "something else: it is another one that keeps its settings "
                                       "elsewhere, or somebody changed them again",
                                       admin().file != nullptr ? admin().file() : "the database"));
    }
    return LSCTL_OK;
}

// Shows without a trace, or stores what was typed where there is nothing in the way.
int settings_command::have_settings(const lsctl_options &options, db_settings *stored,
                                    bool *exists) const {
    db_settings wanted{};
    int look = DB_LOOK_STORED;
    const int status = tell_of_settings(options, stored, &look);
    *exists = look != DB_LOOK_ABSENT;
    if (status != LSCTL_OK || wanted_members(&wanted) == 0)
        return status;
    *exists = true;
    return store_and_read(options, stored);
}

bool takes_up_later(location_result told) {
    return told == LOCATION_NO_DAEMON || told == LOCATION_NO_BUS;
}

// `told`: how telling the service of what was stored went.
int show(const lsctl_options &options, const db_settings &stored, bool exists,
         location_result told) {
    const uint8_t status = stored.history.status;
    const std::string acquisition = status == 1   ? "on"
                                    : status == 0 ? "off"
                                                  : lsctl_format("not valid (%u)", status);
    std::string text = lsctl_format("%-15s %s, every %u s\n", "History", acquisition.c_str(),
                                    stored.history.interval);
    text += lsctl_format("%-15s %d%s\n", "Antenna type", stored.ta_power_on_status,
                         stored.ta_power_on_status == LS_ANTENNA_TYPE_GNSS ? " (GNSS)" : "");
    text +=
        lsctl_format("%-15s %s\n", "Receiver",
                     lsctl_power_text(static_cast<uint32_t>(stored.gps_power_on_status)).c_str());
    lsctl_json object = {{"history_on", status == 1},
                         {"history_interval_s", stored.history.interval},
                         {"antenna_type", stored.ta_power_on_status},
                         {"power_on_status", stored.gps_power_on_status}};
    object["settings_file"] = admin().file != nullptr ? lsctl_json(admin().file()) : lsctl_json();
    object["settings_file_exists"] = exists;
    if (told != LOCATION_ANSWERED && !takes_up_later(told)) {
        lsctl_fail_with(options, lsctl_result_name(told),
                        "settings stored, but the location service could not be told: " +
                            lsctl_sentence(options, told),
                        object, text);
        return lsctl_exit_of(told);
    }
    return lsctl_show(options, object, text);
}

// Tells the service as WS, or under another id where WS is running.
location_result notify(const lsctl_options &options) {
    const lsctl_link as_ws(options.as != 0 ? options.as : uint32_t{LS_SERV_WS});
    if (options.as == 0 && as_ws.result == LOCATION_ID_TAKEN) {
        const lsctl_link as_tool(0);
        return as_tool.result == LOCATION_ANSWERED
                   ? location_client_notify_history_settings(as_tool.client)
                   : as_tool.result;
    }
    return as_ws.result == LOCATION_ANSWERED ? location_client_notify_history_settings(as_ws.client)
                                             : as_ws.result;
}

void settings_command::add_options(CLI::App &app) {
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

int settings_command::run(const lsctl_options &options) const {
    db_settings stored{};
    bool exists = true;
    if (const int status = have_settings(options, &stored, &exists); status != LSCTL_OK)
        return status;
    const location_result told = wants_history() ? notify(options) : LOCATION_ANSWERED;
    if (const int status = show(options, stored, exists, told); status != LSCTL_OK)
        return status;
    if (!exists) {
        lsctl_complain(file_name() + " does not exist or is empty: these are the defaults, with "
                                     "which the location service starts");
    }
    if (antenna.has_value() || power.has_value()) {
        lsctl_complain("antenna type and receiver at start: taken up at the next start of the "
                       "location service");
    }
    if (wants_history() && stored.history.status == 1 &&
        stored.gps_power_on_status != GPS_POWER_ON) {
        lsctl_complain("no history is acquired while the receiver is stored as off: " +
                       lsctl_power_advice("on", {LS_SERV_WS, LS_SERV_CLIENT_9, LS_SERV_VOIP}));
    }
    if (takes_up_later(told))
        lsctl_complain("settings stored; the location service is not running and takes them up at "
                       "its next start");
    return LSCTL_OK;
}

} // namespace

bool lsctl_look_at_settings(db_settings *stored) {
    if (admin().look == nullptr)
        return read_settings(stored);
    const int look = admin().look(stored);
    return look == DB_LOOK_STORED || look == DB_LOOK_ABSENT;
}

std::string lsctl_settings_file() {
    return admin().file != nullptr ? admin().file() : "";
}

lsctl_runner lsctl_settings(CLI::App &app) {
    return lsctl_make<settings_command>(app);
}
