// The files around the database: its path, the lock that guards the path, setting a damaged
// database aside, and the log of all this. No state; any thread.
#ifndef DBHANDLER_FILES_H
#define DBHANDLER_FILES_H

// Path of the database; see db_settings_file.
const char *settings_path();

// Error line to syslog, or to stderr when the environment says DBHANDLER_LOG=stderr.
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Lock on "<database>.lock". Users of the database hold it shared, who creates or moves the files
// holds it alone: SQLite's own locks live in the file and would move away with it.
class path_lock {
  public:
    explicit path_lock(int how); // LOCK_SH or LOCK_EX; waits up to 5 s
    ~path_lock();
    path_lock(const path_lock &) = delete;
    path_lock &operator=(const path_lock &) = delete;
    bool held() const { return fd_ >= 0; }

  private:
    int fd_;
};

// Renames database, -wal and -shm to "<database>.damaged-YYYYMMDD-HHMMSS[-n]" (UTC) with the same
// endings. Only under the exclusive lock. False: not moved, the reason is in the log.
bool set_aside();

#endif
