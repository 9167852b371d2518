// The files around the database: its path, the lock that guards the path, setting a damaged
// database aside, and the log of all this. Any thread.
#ifndef DBHANDLER_FILES_H
#define DBHANDLER_FILES_H

#include <atomic>
#include <chrono>
#include <string>

using settings_clock = std::chrono::steady_clock;

// Path of the database; see db_settings_file.
const char *settings_path();

// Error line to syslog, or to stderr when the environment says DBHANDLER_LOG=stderr. Never waits
// for the log: what it does not take at once is lost. The same line comes once a second at most.
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Lock on "<database>.lock". Who writes holds it shared, who creates or moves the files holds it
// alone: SQLite's own locks live in the file and would move away with it. Readers do without.
class path_lock {
  public:
    // LOCK_SH or LOCK_EX; waits until the deadline, and logs when it did not get it.
    path_lock(const std::string &path, int how, settings_clock::time_point deadline);
    ~path_lock();
    path_lock(const path_lock &) = delete;
    path_lock &operator=(const path_lock &) = delete;
    bool held() const { return fd_ >= 0; }
    bool busy() const { return busy_; } // not held because somebody else has it

  private:
    int fd_ = -1;
    bool busy_ = false;
};

// Renames database, -wal and -shm to "<database>.damaged-YYYYMMDD-HHMMSS[-n]" (UTC) with the same
// endings. Only under the exclusive lock. False: not moved, the reason is in the log.
bool set_aside(const std::string &path);

#endif
