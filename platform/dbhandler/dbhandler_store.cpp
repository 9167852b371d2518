// Settings in SQLite. See dbhandler_store.h.
//
// One table: settings(name TEXT PRIMARY KEY, value INTEGER). A row that is missing counts as its
// default, so a later version may add settings and a technician may delete a row.
#include "dbhandler_store.h"

#include "dbhandler_files.h"

#include <array>
#include <cerrno>
#include <limits>
#include <memory>

#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int busy_timeout_ms = 2000;

struct setting {
    const char *name;
    int64_t fallback;
    int64_t lowest;
    int64_t highest;
};

// In the order of setting_id.
constexpr std::array<setting, setting_count> settings{{
    {"gps_power_on_status", 2, 0, 2},
    {"ta_power_on_status", 0, 0, std::numeric_limits<int32_t>::max()},
    {"location_history_status", 0, 0, 1},
    {"location_history_interval", 60, 1, std::numeric_limits<uint32_t>::max()},
}};

enum class outcome {
    done,
    failed,  // logged; the file is left alone
    fresh,   // there is no database yet
    damaged, // not a database, or not ours
};

struct close_database {
    void operator()(sqlite3 *db) const { sqlite3_close(db); }
};
struct finalize_statement {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using database = std::unique_ptr<sqlite3, close_database>;
using statement = std::unique_ptr<sqlite3_stmt, finalize_statement>;

outcome judge(sqlite3 *db, int result, const char *what) {
    switch (result & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return outcome::done;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return outcome::damaged;
    default:
        log_error("settings database %s: %s: %s (%d)", settings_path(), what,
                  db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(result), result);
        return outcome::failed;
    }
}

outcome execute(sqlite3 *db, const char *sql) {
    return judge(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql);
}

outcome prepare(sqlite3 *db, const char *sql, statement &prepared) {
    sqlite3_stmt *raw = nullptr;
    const int result = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
    prepared.reset(raw);
    if (result != SQLITE_ERROR)
        return judge(db, result, sql);
    // Our own text does not fit the tables: either there are none yet, or they are not ours.
    if (sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master", -1, &raw, nullptr) != SQLITE_OK)
        return outcome::damaged;
    prepared.reset(raw);
    const int row = sqlite3_step(raw);
    prepared.reset();
    return row == SQLITE_DONE  ? outcome::fresh
           : row == SQLITE_ROW ? outcome::damaged
                               : judge(db, row, sql);
}

outcome open_database(bool create, database &opened) {
    if (!create && access(settings_path(), F_OK) != 0 && errno == ENOENT)
        return outcome::fresh;
    sqlite3 *raw = nullptr;
    const int flags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
    const int result = sqlite3_open_v2(settings_path(), &raw, flags, nullptr);
    opened.reset(raw);
    if (const outcome o = judge(raw, result, "open"); o != outcome::done)
        return o;
    sqlite3_busy_timeout(raw, busy_timeout_ms);
    // Keep -wal and -shm between calls: a user who may only read the files could not make them.
    int keep = 1;
    sqlite3_file_control(raw, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    // Until the file has proved to be sound, closing it must not change it.
    sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // A limit makes the close truncate the kept -wal.
    return execute(raw, "PRAGMA synchronous=FULL; PRAGMA journal_size_limit=0");
}

outcome write_values(sqlite3 *db, std::span<const stored_value> values) {
    if (const outcome o = execute(db, "BEGIN IMMEDIATE"); o != outcome::done)
        return o;
    statement insert;
    if (const outcome o = prepare(db,
                                  "INSERT INTO settings(name, value) VALUES(?1, ?2) "
                                  "ON CONFLICT(name) DO UPDATE SET value = excluded.value",
                                  insert);
        o != outcome::done)
        return o;
    for (const stored_value &value : values) {
        sqlite3_bind_text(insert.get(), 1, settings[value.id].name, -1, SQLITE_STATIC);
        sqlite3_bind_int64(insert.get(), 2, value.value);
        if (const outcome o = judge(db, sqlite3_step(insert.get()), "write"); o != outcome::done)
            return o;
        sqlite3_reset(insert.get());
    }
    return execute(db, "COMMIT");
}

outcome read_values(sqlite3 *db, std::span<stored_value> values) {
    if (const outcome o = execute(db, "BEGIN"); o != outcome::done)
        return o;
    statement select;
    if (const outcome o = prepare(db, "SELECT value FROM settings WHERE name = ?1", select);
        o != outcome::done)
        return o;
    for (stored_value &value : values) {
        const setting &known = settings[value.id];
        sqlite3_bind_text(select.get(), 1, known.name, -1, SQLITE_STATIC);
        const int row = sqlite3_step(select.get());
        if (const outcome o = judge(db, row, "read"); o != outcome::done)
            return o;
        value.value = known.fallback;
        if (row == SQLITE_ROW) {
            value.value = sqlite3_column_int64(select.get(), 0);
            if (sqlite3_column_type(select.get(), 0) != SQLITE_INTEGER ||
                value.value < known.lowest || value.value > known.highest) {
                log_error("settings database %s: %s has an impossible value", settings_path(),
                          known.name);
                return outcome::failed;
            }
        }
        sqlite3_reset(select.get());
    }
    return outcome::done;
}

outcome create_tables(sqlite3 *db) {
    // Not on every open: it would write into files that turn out not to be ours. Another journal
    // mode is as safe, only slower, so not getting this one is no failure.
    sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    if (const outcome o = execute(db, "BEGIN IMMEDIATE;"
                                      "CREATE TABLE settings(name TEXT PRIMARY KEY NOT NULL,"
                                      " value INTEGER NOT NULL) WITHOUT ROWID; COMMIT");
        o != outcome::done)
        return o;
    std::array<stored_value, setting_count> defaults{};
    for (size_t i = 0; i < defaults.size(); i++)
        defaults[i] = {static_cast<setting_id>(i), settings[i].fallback};
    return write_values(db, defaults);
}

// One try of a call: a read fills `reading`, a write stores `writing`.
struct request {
    std::span<stored_value> reading;
    std::span<const stored_value> writing;
};

outcome attempt(const request &call, bool create) {
    database db;
    outcome o = open_database(create, db);
    for (bool created = false; o == outcome::done;) {
        o = call.writing.empty() ? read_values(db.get(), call.reading)
                                 : write_values(db.get(), call.writing);
        if (o != outcome::fresh || !create || created)
            break;
        sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        o = create_tables(db.get());
        created = true;
    }
    if (o == outcome::done)
        sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    return o;
}

int run(const request &call) {
    {
        const path_lock shared(LOCK_SH);
        if (!shared.held())
            return -1;
        const outcome o = attempt(call, false);
        if (o == outcome::done || o == outcome::failed)
            return o == outcome::done ? 0 : -1;
    }
    const path_lock alone(LOCK_EX);
    if (!alone.held())
        return -1;
    // Another process may have repaired the file while this one waited: look again first.
    outcome o = attempt(call, true);
    if (o == outcome::damaged && set_aside())
        o = attempt(call, true);
    return o == outcome::done ? 0 : -1;
}

} // namespace

int store_read(std::span<stored_value> values) {
    return run({values, {}});
}

int store_write(std::span<const stored_value> values) {
    for (const stored_value &value : values)
        if (value.value < settings[value.id].lowest || value.value > settings[value.id].highest) {
            log_error("settings database: %lld refused for %s", static_cast<long long>(value.value),
                      settings[value.id].name);
            return -1;
        }
    return run({{}, values});
}
