// Lock, damaged copies and log of the settings database. See dbhandler_files.h.
#include "dbhandler_files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds LOCK_INTERVAL{5}; // flock has no timed form
constexpr int MOST_COPIES_PER_SECOND = 100;
constexpr int64_t REPEATED_AFTER_MS = 1000;

// The last line of the log: two threads that race for it log a line too many, no more.
std::atomic<size_t> last_print{0};
std::atomic<int64_t> last_time{0}; // ms

// syslog(3) waits for a log daemon that takes nothing, with a lock that all threads share.
void to_syslog(std::string_view line) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return;
    const time_t now = time(nullptr);
    tm local{};
    std::array<char, 32> stamp{};
    if (localtime_r(&now, &local) != nullptr)
        strftime(stamp.data(), stamp.size(), "%b %e %H:%M:%S", &local);
    std::array<char, 1200> datagram{};
    const int length =
        snprintf(datagram.data(), datagram.size(), "<%d>%s %.64s[%ld]: dbhandler: %.*s",
                 LOG_DAEMON | LOG_ERR, stamp.data(), program_invocation_short_name,
                 static_cast<long>(getpid()), static_cast<int>(line.size()), line.data());
    sockaddr_un log{};
    log.sun_family = AF_UNIX;
    strcpy(log.sun_path, _PATH_LOG);
    if (length > 0)
        sendto(fd, datagram.data(), std::min(datagram.size() - 1, static_cast<size_t>(length)),
               MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&log), sizeof log);
    close(fd);
}

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
    for (int n = 1; n <= MOST_COPIES_PER_SECOND; n++) {
        std::string name = n == 1 ? base : base + "-" + std::to_string(n);
        struct stat there {};
        if (lstat(name.c_str(), &there) != 0 && lstat((name + "-wal").c_str(), &there) != 0 &&
            lstat((name + "-shm").c_str(), &there) != 0)
            return name;
    }
    return {};
}

} // namespace

// The environment of a privileged process is not its own: hence secure_getenv().
const char *settings_path() {
    const char *path = secure_getenv("DBHANDLER_FILE");
    return path != nullptr && *path != '\0' ? path : "/user/settings.db";
}

void log_error(const char *format, ...) {
    std::array<char, 1024> text{};
    va_list args;
    va_start(args, format);
    vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    const std::string_view line(text.data());
    std::replace_if(
        text.begin(), text.begin() + static_cast<std::ptrdiff_t>(line.size()),
        [](char c) { return c == 0x7f || static_cast<unsigned char>(c) < ' '; }, '?');

    const size_t print = std::hash<std::string_view>{}(line);
    const int64_t now = settings_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
    if (last_print.exchange(print) == print && now - last_time.load() < REPEATED_AFTER_MS)
        return;
    last_time = now;

    const char *target = secure_getenv("DBHANDLER_LOG");
    if (target != nullptr && strcmp(target, "stderr") == 0)
        fprintf(stderr, "dbhandler: %s\n", text.data());
    else
        to_syslog(line);
}

path_lock::path_lock(const std::string &path, int how, settings_clock::time_point deadline) {
    const std::string name = path + ".lock";
    struct stat database {};
    const bool exists = lstat(path.c_str(), &database) == 0;
    // Who may not have the database has no business with its lock either.
    const mode_t mode = exists ? database.st_mode & 0666 : 0666;
    int fd = open(name.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 && exists)
        fchmod(fd, mode); // less the mask, which others who share the database need not have
    else if (fd < 0 && errno == EEXIST)
        fd = open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    while (fd >= 0 && flock(fd, how | LOCK_NB) != 0) {
        busy_ = errno == EWOULDBLOCK || errno == EINTR;
        if (busy_ && settings_clock::now() < deadline) {
            std::this_thread::sleep_for(LOCK_INTERVAL);
            continue;
        }
        const int why = errno;
        close(std::exchange(fd, -1));
        errno = why;
    }
    if (fd < 0)
        log_error("settings lock %s: %s", name.c_str(),
                  busy_ ? "somebody keeps it" : strerror(errno));
    fd_ = fd;
}

path_lock::~path_lock() {
    if (fd_ >= 0)
        close(fd_);
}

bool set_aside(const std::string &path) {
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
