// Settings in SQLite. See dbhandler_store.h.
//
// One table: settings(name TEXT PRIMARY KEY, value INTEGER). A row that is missing counts as its
// default, so a later version may add settings and a technician may delete a row.
#include "dbhandler_store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds BUSY_INTERVAL{2};
constexpr std::string_view sqlite_header("SQLite format 3\0", 16);
constexpr size_t READ_VERSION_AT = 19; // in the file
constexpr char READ_VERSION_WAL = 2;

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

// Waits a little for a lock, until the deadline.
int wait_for_lock(void *deadline, int) {
    if (settings_clock::now() >= *static_cast<const settings_clock::time_point *>(deadline))
        return 0;
    std::this_thread::sleep_for(BUSY_INTERVAL);
    return 1;
}

const char *path_of(sqlite3 *db) {
    const char *name = db != nullptr ? sqlite3_db_filename(db, "main") : nullptr;
    return name != nullptr ? name : settings_path();
}

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

outcome refuse(const std::string &path, const char *why) {
    log_error("settings database %s: %s; it is left as it is", path.c_str(), why);
    return outcome::foreign;
}

// Whether an opened file may be what it should be, read through SQLite: closing a descriptor of
// one's own would let go of all locks that the process has on the file. `wal`: whether it wants a
// -wal.
outcome check_header(sqlite3 *db, const std::string &path, bool &wal) {
    sqlite3_file *file = nullptr;
    sqlite3_int64 size = 0;
    wal = false;
    sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    if (file == nullptr || file->pMethods == nullptr ||
        file->pMethods->xFileSize(file, &size) != SQLITE_OK) {
        log_error("settings database %s: cannot be read", path.c_str());
        return outcome::failed;
    }
    if (size == 0)
        return outcome::done;
    // What a short file lacks is read as zeros.
    std::array<char, READ_VERSION_AT + 1> header{};
    const int result = file->pMethods->xRead(file, header.data(), header.size(), 0);
    if (result != SQLITE_OK && result != SQLITE_IOERR_SHORT_READ)
        return judge(db, result, "read");
    wal = header[READ_VERSION_AT] == READ_VERSION_WAL;
    const bool ours = std::equal(sqlite_header.begin(), sqlite_header.end(), header.begin());
    return ours ? outcome::done : refuse(path, "is no database");
}

// Opens what is at the path, and leaves in `there` which file that is.
outcome open_database(const std::string &path, bool create, database &opened, struct stat &there) {
    if (lstat(path.c_str(), &there) != 0) {
        if (errno == ENOENT && !create)
            return outcome::fresh;
        // Made here: SQLite would follow a link, and would leave no write permission for a group.
        const int fd =
            open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0 || fstat(fd, &there) != 0) {
            log_error("settings database %s: %s", path.c_str(), strerror(errno));
            return outcome::failed;
        }
        close(fd);
    }
    if (!S_ISREG(there.st_mode))
        return refuse(path, "is no regular file");
    sqlite3 *raw = nullptr;
    const int result =
        sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    opened.reset(raw);
    if (const outcome o = judge(raw, result, "open"); o != outcome::done)
        return o;
    struct stat now {};
    if (lstat(path.c_str(), &now) != 0 || now.st_dev != there.st_dev || now.st_ino != there.st_ino)
        return outcome::busy; // exchanged at this moment
    bool wal = false;
    if (const outcome o = check_header(raw, path, wal); o != outcome::done)
        return o;
    // Keep -wal and -shm between calls: a user who may only read the files could not make them.
    int keep = 1;
    sqlite3_file_control(raw, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    // Closing changes nothing in a file that has not proved to be sound, and a reader never.
    sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return outcome::done;
}

struct finding {
    std::array<bool, setting_count> impossible{};
    std::array<std::string, setting_count> text;
};

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

// One line a change, not one a read.
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

// Whether a -wal beside the database may add to it.
bool has_wal(const std::string &path) {
    struct stat wal {};
    return stat((path + "-wal").c_str(), &wal) == 0 ? wal.st_size != 0 : errno != ENOENT;
}

// `how`: SQLite's words for the manner of opening.
outcome open_to_read(const std::string &path, const char *how, database &opened) {
    std::string uri = "file:";
    for (const char c : path)
        if (c == '%' || c == '?' || c == '#')
            uri.append("%")
                .append(1, "0123456789ABCDEF"[c >> 4])
                .append(1, "0123456789ABCDEF"[c & 15]);
        else
            uri.append(1, c);
    sqlite3 *raw = nullptr;
    const int result =
        sqlite3_open_v2(uri.append(how).c_str(), &raw,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
    opened.reset(raw);
    if (result == SQLITE_OK)
        sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return judge(raw, result, "open");
}

// A file system that is read-only or full has no room for a -shm. Where no -wal has anything to
// add, the file itself is all there is.
outcome read_without_companions(const std::string &path, settings_values &values, finding &found) {
    database alone;
    if (has_wal(path))
        return outcome::failed;
    const outcome o = open_to_read(path, "?immutable=1", alone);
    return o == outcome::done ? read_values(alone.get(), values, found) : o;
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

outcome transact(sqlite3 *db, const store_request &call, bool create, settings_values &after) {
    outcome o = execute(db, "BEGIN IMMEDIATE");
    finding found;
    if (o == outcome::done)
        o = read_values(db, after, found);
    if (o == outcome::fresh && create)
        o = create_table(db);
    if (o == outcome::done)
        o = upsert(db, call.changes);
    if (o == outcome::done)
        o = read_values(db, after, found);
    if (o == outcome::done && call.given_up)
        o = outcome::busy;
    if (o == outcome::done)
        o = execute(db, "COMMIT");
    if (o != outcome::done)
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return o;
}

outcome attempt(const store_request &call, bool create, settings_values &after) {
    database db;
    struct stat there {};
    settings_clock::time_point deadline = call.deadline;
    outcome o = open_database(call.path, create, db, there);
    if (o != outcome::done)
        return o;
    sqlite3_busy_handler(db.get(), wait_for_lock, &deadline);
    // A small -wal is soon read again after a power loss; at the close it goes to nothing.
    o = execute(
        db.get(),
        "PRAGMA synchronous=FULL; PRAGMA journal_size_limit=0; PRAGMA wal_autocheckpoint=32");
    if (o == outcome::done)
        o = transact(db.get(), call, create, after);
    if (o == outcome::done) {
        // Not before: it would write into files that turn out not to be ours. In another journal
        // mode readers wait for writers; not getting this one is no failure.
        sqlite3_exec(db.get(), "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
        sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    }
    return o;
}

} // namespace

void close_database::operator()(sqlite3 *db) const {
    sqlite3_close(db);
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

outcome store_read(open_settings &link, const std::string &path,
                   settings_clock::time_point deadline, settings_values &values) {
    struct stat there {};
    const auto is_still_there = [&] {
        return path == link.path && lstat(path.c_str(), &there) == 0 &&
               there.st_dev == link.device && there.st_ino == link.inode;
    };
    for (;;) {
        outcome o = outcome::done;
        if (link.db == nullptr || !is_still_there()) {
            o = open_database(path, false, link.db, there);
            if (path != link.path)
                link.complained = {};
            link.path = path;
            link.device = there.st_dev;
            link.inode = there.st_ino;
        }
        finding found;
        if (o == outcome::done) {
            sqlite3_busy_handler(link.db.get(), wait_for_lock, &deadline);
            o = read_values(link.db.get(), values, found);
            if (o == outcome::failed)
                o = read_without_companions(path, values, found);
            // A -wal is opened by its name: it was this file's if the file is still there.
            if (!is_still_there())
                o = outcome::busy;
        }
        if (o == outcome::done)
            complain(link, found);
        else
            link.db.reset();
        if (o != outcome::busy || settings_clock::now() >= deadline)
            return o;
    }
}

outcome store_look(const std::string &path, settings_clock::time_point deadline,
                   settings_values &values) {
    for (;;) {
        struct stat before {};
        values = store_defaults();
        if (lstat(path.c_str(), &before) != 0 && (errno == ENOENT || errno == ENOTDIR))
            return outcome::fresh;
        // What is seen, not who asks: a privileged process reads with its own rights.
        if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0 && errno == EACCES)
            return outcome::denied;
        if (!S_ISREG(before.st_mode))
            return refuse(path, "is no regular file");
        if (before.st_size == 0)
            return outcome::fresh;
        open_settings link;
        link.path = path;
        bool wal = false;
        outcome o = open_to_read(path, "?mode=ro", link.db);
        if (o == outcome::done)
            o = check_header(link.db.get(), path, wal);
        // SQLite would make the -wal and the -shm that it does not find.
        const bool alone = wal && !has_wal(path);
        if (o == outcome::done && alone)
            o = open_to_read(path, "?immutable=1", link.db);
        finding found;
        if (o == outcome::done) {
            sqlite3_busy_handler(link.db.get(), wait_for_lock, &deadline);
            o = read_values(link.db.get(), values, found);
        }
        struct stat after {};
        // Read without a lock: somebody may have written meanwhile.
        const bool moved = lstat(path.c_str(), &after) != 0 || after.st_ino != before.st_ino ||
                           after.st_dev != before.st_dev ||
                           (alone && (has_wal(path) || after.st_size != before.st_size ||
                                      after.st_mtim.tv_sec != before.st_mtim.tv_sec ||
                                      after.st_mtim.tv_nsec != before.st_mtim.tv_nsec));
        if (!moved || settings_clock::now() >= deadline) {
            if (o == outcome::done)
                complain(link, found);
            return moved ? outcome::busy : o;
        }
    }
}

outcome store_write(const store_request &call, settings_values &after) {
    {
        const path_lock shared(call.path, LOCK_SH, call.deadline);
        if (!shared.held())
            return shared.busy() ? outcome::busy : outcome::failed;
        const outcome o = attempt(call, false, after);
        if (o != outcome::fresh && (o != outcome::damaged || !call.repair))
            return o;
    }
    const path_lock alone(call.path, LOCK_EX, call.deadline);
    if (!alone.held())
        return alone.busy() ? outcome::busy : outcome::failed;
    // Another process may have repaired the file while this one waited: look again first.
    outcome o = attempt(call, true, after);
    if (o == outcome::damaged && call.repair && set_aside(call.path))
        o = attempt(call, true, after);
    return o == outcome::damaged ? outcome::failed : o;
}
