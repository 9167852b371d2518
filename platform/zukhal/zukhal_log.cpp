// The log call. It uses no heap and no lock, but for the C library's time zone lock in the time of
// a syslog line, so it may run in a signal handler that interrupts an idle thread while others log.
// What a line costs when its level is switched off is one comparison. The buffers of a line that is
// written take 4 KB of stack.
//
// A line is one write or one datagram, so lines of many threads and processes never mix, and none
// is kept back that would be lost with the process. A target that does not take the line within
// SEND_PATIENCE_MS, or is not there, loses it to stderr; if stderr does not take it either, it is
// gone: the log must not stop or end the program. After such a wait nobody waits for some seconds.
// What the target has not got is counted, and the count logged as soon as it takes lines again.
#include "ls_clock.h"
#include "ls_descriptor.h"
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

constexpr int SEND_PATIENCE_MS = 200;
constexpr long HURRY_S = 5; // after a wait in vain

// Lines above this level are dropped. INT_MAX at first, so that the first line of the process comes
// through to read the configuration.
std::atomic<int> g_threshold{INT_MAX};

// Written by log_start before any line is delivered, constant afterwards.
log_target g_target = log_target::standard_error;
int g_fd = STDERR_FILENO;         // file or syslog socket; open until the process ends
const char *g_log_file = nullptr; // absolute path of the file behind g_fd
sockaddr_un g_syslog{};

std::atomic<bool> g_regular{false}; // g_fd is a regular file, which makes nobody wait
std::atomic<unsigned> g_looked{0};  // second of the wall clock in which rotation was looked for

std::atomic<long> g_hurry_until{0}; // no line waits before this second of CLOCK_MONOTONIC; 0 = off
std::atomic<unsigned> g_missing{0}; // lines that the target has not got

// Bytes of the message before escaping; what is longer cannot fit in the line anyway.
constexpr size_t TEXT_SIZE = LINE_SIZE;

long monotonic_s() {
    return static_cast<long>(ls_monotonic_ms() / 1000);
}

bool in_hurry() {
    long until = g_hurry_until.load(std::memory_order_relaxed);
    if (until == 0)
        return false;
    if (monotonic_s() < until)
        return true;
    g_hurry_until.compare_exchange_strong(until, 0);
    return false;
}

void begin_hurry() {
    g_hurry_until = monotonic_s() + HURRY_S;
}

// For what may be full for ever, or have lost its reader, which would raise SIGPIPE.
bool may_write(int fd) {
    const bool hurry = in_hurry();
    pollfd target{fd, POLLOUT, 0};
    const int ready = poll(&target, 1, hurry ? 0 : SEND_PATIENCE_MS);
    if (ready == 0 && !hurry)
        begin_hurry();
    return ready == 1 && target.revents == POLLOUT;
}

bool write_line(int fd, const log_line &line) {
    return write(fd, line.bytes.data(), line.length) == static_cast<ssize_t>(line.length);
}

// O_NONBLOCK: a named pipe without a reader must not stop the program.
int open_log_file() {
    return open(g_log_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
}

bool is_regular(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// Log rotation renames or removes the file: once a second, open the path anew if need be. dup3 puts
// the new file under the old number in one step, so other threads write to the one or the other,
// never elsewhere.
void follow_log_file(unsigned second) {
    if (g_looked.load(std::memory_order_relaxed) == second || g_looked.exchange(second) == second)
        return;
    struct stat path {};
    struct stat open_file {};
    if (stat(g_log_file, &path) == 0 && fstat(g_fd, &open_file) == 0 &&
        path.st_ino == open_file.st_ino && path.st_dev == open_file.st_dev)
        return;
    const ls_descriptor opened(open_log_file());
    if (opened.fd < 0)
        return;
    g_regular = false;
    dup3(opened.fd, g_fd, O_CLOEXEC);
    g_regular = is_regular(opened.fd);
}

bool connect_syslog() {
    return connect(g_fd, reinterpret_cast<const sockaddr *>(&g_syslog), sizeof g_syslog) == 0;
}

bool send_syslog(const log_line &line) {
    const bool hurry = in_hurry();
    const int flags = MSG_NOSIGNAL | (hurry ? MSG_DONTWAIT : 0);
    const auto sent = [&] { return send(g_fd, line.bytes.data(), line.length, flags) >= 0; };
    if (sent())
        return true;
    if (errno == EAGAIN) {
        if (!hurry)
            begin_hurry();
        connect_syslog(); // another one may have taken the place of one that hangs
        return false;
    }
    return connect_syslog() && sent(); // it was started anew
}

bool to_target(const log_line &line, const timespec &now) {
    if (g_target == log_target::syslog)
        return send_syslog(line);
    if (g_target == log_target::file)
        follow_log_file(static_cast<unsigned>(now.tv_sec));
    return (g_regular.load(std::memory_order_relaxed) || may_write(g_fd)) && write_line(g_fd, line);
}

void report_missing(log_line &line, line_form form, const timespec &now) {
    const unsigned count = g_missing.exchange(0);
    std::array<char, 80> text{};
    snprintf(text.data(), text.size(), "lines that the log did not take in time: %u", count);
    line_compose(line, form, now, {LOG_WARNING, "zukhal", __LINE__}, text.data());
    if (!to_target(line, now))
        g_missing += count;
}

void deliver(const log_place &place, std::string_view text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto form = g_target == log_target::syslog ? line_form::syslog : line_form::file;
    log_line line;
    line_compose(line, form, now, place, text);
    if (to_target(line, now)) {
        if (g_missing.load(std::memory_order_relaxed) != 0 && !in_hurry())
            report_missing(line, form, now);
        return;
    }
    g_missing++;
    if (g_target == log_target::standard_error)
        return;
    if (form != line_form::file)
        line_compose(line, line_form::file, now, place, text);
    if (may_write(STDERR_FILENO))
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
    std::array<char, TEXT_SIZE> text;
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
        g_fd = open_log_file();
        opened = g_fd >= 0;
        why_not = errno;
        g_regular = opened && is_regular(g_fd);
        if (!opened)
            g_target = log_target::syslog;
    }
    if (g_target == log_target::syslog) {
        g_syslog.sun_family = AF_UNIX;
        strncpy(g_syslog.sun_path, config.log_socket, sizeof g_syslog.sun_path - 1);
        g_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const timeval patience{0, SEND_PATIENCE_MS * 1000L};
        setsockopt(g_fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        // A connected socket saves a search for the path with every line.
        connect_syslog();
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

LS_EXPORT void zuk_log_tmplt(int level, const char *format, const char *module, int line, ...) {
    if (level > g_threshold.load(std::memory_order_relaxed))
        return;
    va_list args;
    va_start(args, line);
    write_message(level, format, module, line, args);
    va_end(args);
}
