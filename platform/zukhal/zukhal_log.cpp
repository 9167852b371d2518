// The log call. It uses no heap and no lock, but for the C library's time zone lock in the time of
// a syslog line, so it may run in a signal handler that interrupts an idle thread while others log.
// What a line costs when its level is switched off is one comparison. The buffers of a line that is
// written take 4 KB of stack.
//
// A line is one write or one datagram, so lines of many threads and processes never mix. A target
// that does not take the line within send_patience_ms, or is not there, loses it to stderr; if
// stderr does not take it either, it is gone: the log must not stop or end the program.
#include "zukhal.h"
#include "zukhal_internal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int send_patience_ms = 200;

// Lines above this level are dropped. INT_MAX at first, so that the first line of the process comes
// through to read the configuration.
std::atomic<int> g_threshold{INT_MAX};

// Written by log_start before any line is delivered, constant afterwards.
log_target g_target = log_target::standard_error;
int g_fd = STDERR_FILENO;         // file or syslog socket; open until the process ends
const char *g_log_file = nullptr; // absolute path of the file behind g_fd
sockaddr_un g_syslog{};

// Bytes of the message before escaping; what is longer cannot fit in the line anyway.
constexpr size_t text_size = line_size;

bool write_line(int fd, const log_line &line) {
    // A pipe may be full for ever, or have lost its reader, which would raise SIGPIPE.
    pollfd target{fd, POLLOUT, 0};
    if (poll(&target, 1, send_patience_ms) != 1 || target.revents != POLLOUT)
        return false;
    return write(fd, line.bytes.data(), line.length) == static_cast<ssize_t>(line.length);
}

// Log rotation renames or removes the file: open the path anew. dup3 puts the new file under the
// old number in one step, so other threads write to the one or the other, never elsewhere.
void follow_log_file() {
    struct stat path {};
    struct stat open_file {};
    if (stat(g_log_file, &path) == 0 && fstat(g_fd, &open_file) == 0 &&
        path.st_ino == open_file.st_ino && path.st_dev == open_file.st_dev)
        return;
    const int fd = open(g_log_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0)
        return;
    dup3(fd, g_fd, O_CLOEXEC);
    close(fd);
}

bool send_syslog(const log_line &line) {
    // Unconnected on purpose: it finds the log daemon again after a restart by itself.
    return sendto(g_fd, line.bytes.data(), line.length, MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr *>(&g_syslog), sizeof g_syslog) >= 0;
}

void deliver(const log_place &place, std::string_view text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    log_line line;
    if (g_target == log_target::syslog) {
        line_compose(line, line_form::syslog, now, place, text);
        if (send_syslog(line))
            return;
    }
    line_compose(line, line_form::file, now, place, text);
    if (g_target == log_target::file) {
        follow_log_file();
        if (write_line(g_fd, line))
            return;
    }
    write_line(STDERR_FILENO, line);
}

// All that zuk_log_tmplt does for a line that is not switched off; apart from it, so that for the
// others the compiler saves no registers.
__attribute__((noinline, format(printf, 2, 0))) void write_message(int level, const char *format,
                                                                   const char *module, int line,
                                                                   va_list args) {
    const int error = errno;
    zukhal_configuration();
    // The first line of the process knows its level only now.
    if (level > g_threshold.load(std::memory_order_relaxed)) {
        errno = error;
        return;
    }
    std::array<char, text_size> text;
    if (format == nullptr)
        format = "(no format)";
    errno = error; // for %m
    const int n = vsnprintf(text.data(), text.size(), format, args);
    std::string_view message = format; // better than nothing when vsnprintf fails
    if (n >= 0) {
        message = {text.data(), std::min(static_cast<size_t>(n), text.size() - 1)};
        while (static_cast<size_t>(n) < text.size() && message.ends_with('\n'))
            message.remove_suffix(1);
    }
    deliver({std::clamp(level, LOG_EMERG, LOG_DEBUG), module, line}, message);
    errno = error;
}

} // namespace

bool log_start(const zukhal_config &config) {
    bool opened = true;
    int why_not = 0;
    g_target = config.target;
    if (g_target == log_target::file) {
        g_log_file = config.log_file;
        // O_NONBLOCK: a named pipe without a reader must not stop the program.
        g_fd = open(g_log_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
        opened = g_fd >= 0;
        why_not = errno;
        if (!opened)
            g_target = log_target::syslog;
    }
    if (g_target == log_target::syslog) {
        g_syslog.sun_family = AF_UNIX;
        strncpy(g_syslog.sun_path, config.log_socket, sizeof g_syslog.sun_path - 1);
        g_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const timeval patience{0, send_patience_ms * 1000L};
        setsockopt(g_fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        // The C library allocates for the time zone now, and not in a log call.
        tzset();
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
    }
    // "debug" lets everything pass, whatever numbers programs use beyond it.
    g_threshold.store(config.level >= LOG_DEBUG ? INT_MAX : config.level,
                      std::memory_order_relaxed);
    errno = why_not; // of the file, whatever befell the way to syslog
    return opened;
}

void log_complaint(std::string_view text) {
    deliver({LOG_ERR, "zukhal", 0}, text);
}

ZUK_EXPORT void zuk_log_tmplt(int level, const char *format, const char *module, int line, ...) {
    if (level > g_threshold.load(std::memory_order_relaxed))
        return;
    va_list args;
    va_start(args, line);
    write_message(level, format, module, line, args);
    va_end(args);
}
