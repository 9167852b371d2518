// Settings in SQLite. See dbhandler_store.h.
#include "dbhandler_rows.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
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

// Waits a little for a lock, until the deadline.
int wait_for_lock(void *deadline, int) {
    if (settings_clock::now() >= *static_cast<const settings_clock::time_point *>(deadline))
        return 0;
    std::this_thread::sleep_for(BUSY_INTERVAL);
    return 1;
}

outcome refuse(const std::string &path, const char *why) {
    log_error("settings database %s: %s; it is left as it is", path.c_str(), why);
    return outcome::foreign;
}

// Whether one of the files beside the database holds anything.
bool has_companion(const std::string &path, const char *ending) {
    struct stat there {};
    return stat((path + ending).c_str(), &there) == 0 ? there.st_size != 0 : errno != ENOENT;
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
    // A power loss while it was made may have left its end without its beginning; SQLite then takes
    // all of it back by the journal.
    const bool unfinished = std::count(header.begin(), header.end(), '\0') == std::ssize(header) &&
                            has_companion(path, "-journal");
    return ours || unfinished ? outcome::done : refuse(path, "is no database");
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
    if (has_companion(path, "-wal"))
        return outcome::failed;
    const outcome o = open_to_read(path, "?immutable=1", alone);
    return o == outcome::done ? read_values(alone.get(), values, found) : o;
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
        const bool alone = wal && !has_companion(path, "-wal");
        if (o == outcome::done && alone)
            o = open_to_read(path, "?immutable=1", link.db);
        finding found;
        if (o == outcome::done) {
            sqlite3_busy_handler(link.db.get(), wait_for_lock, &deadline);
            o = read_values(link.db.get(), values, found);
        }
        struct stat after {};
        // Read without a lock: somebody may have written meanwhile.
        const bool moved =
            lstat(path.c_str(), &after) != 0 || after.st_ino != before.st_ino ||
            after.st_dev != before.st_dev ||
            (alone && (has_companion(path, "-wal") || after.st_size != before.st_size ||
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
