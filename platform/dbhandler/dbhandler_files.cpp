// Lock, damaged copies and log of the settings database. See dbhandler_files.h.
#include "dbhandler_files.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds lock_patience{5};      // longer than a user waits inside SQLite
constexpr std::chrono::milliseconds lock_interval{5}; // flock has no timed form
constexpr int most_copies_per_second = 100;

void sync_directory_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

// A name for the damaged database that is free, also with the endings of its companions.
std::string free_name(const std::string &path) {
    const time_t now = time(nullptr);
    tm utc{};
    std::array<char, 32> stamp{};
    if (gmtime_r(&now, &utc) == nullptr ||
        strftime(stamp.data(), stamp.size(), "%Y%m%d-%H%M%S", &utc) == 0)
        return {};
    const std::string base = path + ".damaged-" + stamp.data();
    for (int n = 1; n <= most_copies_per_second; n++) {
        std::string name = n == 1 ? base : base + "-" + std::to_string(n);
        struct stat there {};
        if (lstat(name.c_str(), &there) != 0 && lstat((name + "-wal").c_str(), &there) != 0 &&
            lstat((name + "-shm").c_str(), &there) != 0)
            return name;
    }
    return {};
}

} // namespace

const char *settings_path() {
    const char *path = getenv("DBHANDLER_FILE");
    return path != nullptr && *path != '\0' ? path : "/user/settings.db";
}

void log_error(const char *format, ...) {
    const char *target = getenv("DBHANDLER_LOG");
    va_list args;
    va_start(args, format);
    if (target != nullptr && strcmp(target, "stderr") == 0) {
        std::array<char, 1024> text{};
        vsnprintf(text.data(), text.size(), format, args);
        fprintf(stderr, "dbhandler: %s\n", text.data());
    } else {
        vsyslog(LOG_DAEMON | LOG_ERR, format, args);
    }
    va_end(args);
}

path_lock::path_lock(int how) : fd_(-1) {
    const std::string name = std::string(settings_path()) + ".lock";
    // Read-only is enough for flock, and lets users without write permission read the settings.
    fd_ = open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        log_error("settings lock %s: %s", name.c_str(), strerror(errno));
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + lock_patience;
    while (flock(fd_, how | LOCK_NB) != 0) {
        if ((errno == EWOULDBLOCK || errno == EINTR) &&
            std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(lock_interval);
            continue;
        }
        log_error("settings lock %s: %s", name.c_str(), strerror(errno));
        close(fd_);
        fd_ = -1;
        return;
    }
}

path_lock::~path_lock() {
    if (fd_ >= 0)
        close(fd_);
}

bool set_aside() {
    const std::string path = settings_path();
    const std::string name = free_name(path);
    if (name.empty()) {
        log_error("settings database %s is damaged, and no name is free to keep it", path.c_str());
        return false;
    }
    // The database goes first: should power fail in between, SQLite throws a -wal away that it
    // finds beside a missing or empty database.
    if (rename(path.c_str(), name.c_str()) != 0) {
        log_error("settings database %s is damaged and cannot be renamed: %s", path.c_str(),
                  strerror(errno));
        return false;
    }
    for (const std::string_view ending : {"-wal", "-shm"}) {
        const std::string from = path + std::string(ending);
        const std::string to = name + std::string(ending);
        if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT)
            log_error("settings file %s cannot be renamed: %s", from.c_str(), strerror(errno));
    }
    sync_directory_of(path);
    log_error("settings database %s was damaged: kept as %s, defaults serve", path.c_str(),
              name.c_str());
    return true;
}
