// The settings as rows of one table. See dbhandler_rows.h.
#include "dbhandler_rows.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>

#include <sqlite3.h>

namespace {

struct range {
    int64_t lowest, highest;
    bool holds(int64_t value) const { return value >= lowest && value <= highest; }
};
constexpr int64_t INT32_LOWEST = std::numeric_limits<int32_t>::min();
constexpr int64_t INT32_HIGHEST = std::numeric_limits<int32_t>::max();
constexpr int64_t UINT32_HIGHEST = std::numeric_limits<uint32_t>::max();

struct setting {
    const char *name;
    int64_t fallback;
    range written;
    range read; // what the service itself judges, and what its record can hold
};

// In the order of setting_id.
constexpr std::array<setting, setting_count> settings{{
    {"gps_power_on_status", 2, {0, 2}, {INT32_LOWEST, INT32_HIGHEST}},
    {"ta_power_on_status", 0, {0, INT32_HIGHEST}, {0, INT32_HIGHEST}},
    {"location_history_status", 0, {0, 1}, {0, 255}},
    {"location_history_interval", 60, {1, UINT32_HIGHEST}, {1, UINT32_HIGHEST}},
}};

struct finalize_statement {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using statement = std::unique_ptr<sqlite3_stmt, finalize_statement>;

const char *path_of(sqlite3 *db) {
    const char *name = db != nullptr ? sqlite3_db_filename(db, "main") : nullptr;
    return name != nullptr ? name : settings_path();
}

outcome prepare(sqlite3 *db, const char *sql, statement &prepared) {
    sqlite3_stmt *raw = nullptr;
    int result = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
    prepared.reset(raw);
    if (result != SQLITE_ERROR)
        return judge(db, result, sql);
    // Our own text does not fit the tables: either there are none yet, or they are not ours.
    result = sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master", -1, &raw, nullptr);
    prepared.reset(raw);
    if (result == SQLITE_OK)
        result = sqlite3_step(raw);
    prepared.reset();
    if (result == SQLITE_DONE)
        return outcome::fresh;
    if (result != SQLITE_ROW)
        return judge(db, result, sql);
    log_error("%s is the database of something else; it is left as it is", path_of(db));
    return outcome::foreign;
}

} // namespace

outcome judge(sqlite3 *db, int result, const char *what) {
    switch (result & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return outcome::done;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return outcome::damaged;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL: // SQLite's own end of patience
        return outcome::busy;
    default:
        log_error("settings database %s: %s: %s (%d)", path_of(db), what,
                  db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(result), result);
        return outcome::failed;
    }
}

outcome execute(sqlite3 *db, const char *sql) {
    return judge(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql);
}

outcome read_values(sqlite3 *db, settings_values &values, finding &found) {
    statement select;
    if (const outcome o = prepare(
            db, "SELECT name, value, quote(value) FROM settings WHERE name IN (?1, ?2, ?3, ?4)",
            select);
        o != outcome::done)
        return o;
    static_assert(setting_count == 4, "the text above");
    for (size_t i = 0; i < settings.size(); i++)
        sqlite3_bind_text(select.get(), static_cast<int>(i) + 1, settings[i].name, -1,
                          SQLITE_STATIC);
    settings_values read = store_defaults();
    found = {};
    int row = 0;
    while ((row = sqlite3_step(select.get())) == SQLITE_ROW) {
        const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(select.get(), 0));
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(select.get(), 2));
        for (size_t i = 0; name != nullptr && text != nullptr && i < settings.size(); i++) {
            if (strcmp(name, settings[i].name) != 0)
                continue;
            const int64_t value = sqlite3_column_int64(select.get(), 1);
            found.impossible[i] = sqlite3_column_type(select.get(), 1) != SQLITE_INTEGER ||
                                  !settings[i].read.holds(value);
            found.text[i] = text;
            if (!found.impossible[i])
                read[i] = value;
        }
    }
    const outcome o = judge(db, row, "read");
    if (o == outcome::done)
        values = read;
    return o;
}

void complain(open_settings &link, const finding &found) {
    for (size_t i = 0; i < settings.size(); i++) {
        const size_t print = found.impossible[i] ? std::hash<std::string>{}(found.text[i]) | 1 : 0;
        if (print != link.complained[i] && print != 0)
            log_error("settings database %s: %s cannot be %.40s: its default, %lld, serves",
                      link.path.c_str(), settings[i].name, found.text[i].c_str(),
                      static_cast<long long>(settings[i].fallback));
        link.complained[i] = print;
    }
}

outcome upsert(sqlite3 *db, std::span<const setting_change> changes) {
    statement insert;
    if (const outcome o = prepare(db,
                                  "INSERT INTO settings(name, value) VALUES(?1, ?2) "
                                  "ON CONFLICT(name) DO UPDATE SET value = excluded.value",
                                  insert);
        o != outcome::done)
        return o;
    for (const setting_change &change : changes) {
        sqlite3_bind_text(insert.get(), 1, settings[change.id].name, -1, SQLITE_STATIC);
        sqlite3_bind_int64(insert.get(), 2, change.value);
        if (const outcome o = judge(db, sqlite3_step(insert.get()), "write"); o != outcome::done)
            return o;
        sqlite3_reset(insert.get());
    }
    return outcome::done;
}

outcome create_table(sqlite3 *db) {
    std::array<setting_change, setting_count> defaults{};
    for (size_t i = 0; i < defaults.size(); i++)
        defaults[i] = {static_cast<setting_id>(i), settings[i].fallback};
    const outcome o = execute(db, "CREATE TABLE settings(name TEXT PRIMARY KEY NOT NULL,"
                                  " value INTEGER NOT NULL) WITHOUT ROWID");
    return o == outcome::done ? upsert(db, defaults) : o;
}

settings_values store_defaults() {
    settings_values values{};
    std::transform(settings.begin(), settings.end(), values.begin(),
                   [](const setting &known) { return known.fallback; });
    return values;
}

bool store_accepts(std::span<const setting_change> changes) {
    return std::all_of(
        changes.begin(), changes.end(),
        [](const setting_change &change) {
            const bool right = settings[change.id].written.holds(change.value);
            if (!right)
                log_error("settings database: %lld refused for %s",
                          static_cast<long long>(change.value), settings[change.id].name);
            return right;
        });
}
