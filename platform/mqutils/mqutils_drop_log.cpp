// The log of dropped datagrams: see mqutils_drop_log.h.

#include "mqutils_drop_log.h"

#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace mqutils {
namespace {

using log_line = std::array<char, 256>;

// `wanted` is what snprintf() returned for `line`.
void write_line(const drop_log &log, log_line &line, int wanted) {
    if (wanted < 0) {
        return;
    }
    syslog(LOG_WARNING, "%s", line.data());
    if (log.to_stderr) {
        const size_t length = std::min(static_cast<size_t>(wanted), line.size() - 1);
        line[length] = '\n'; // in the place of the NUL
        // One write, so that lines of several services do not mix. A closed stderr is no error.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), length + 1);
    }
}

void tell_suppressed(drop_log &log) {
    if (log.suppressed > 0) {
        log_line line{};
        const int wanted =
            std::snprintf(line.data(), line.size(),
                          "mqutils: service %u: %u more datagrams dropped without a line",
                          log.serv_id, log.suppressed);
        write_line(log, line, wanted);
        log.suppressed = 0;
    }
}

bool window_is_over(const drop_log &log, int64_t now_ms) {
    return !log.started || now_ms - log.window_start_ms >= drop_window_ms;
}

} // namespace

bool drop_log_admit(drop_log &log, int64_t now_ms) {
    if (window_is_over(log, now_ms)) {
        log.started = true;
        log.window_start_ms = now_ms;
        log.lines_in_window = 0;
    }
    if (log.lines_in_window >= drop_lines_per_window) {
        ++log.suppressed;
        return false;
    }
    ++log.lines_in_window;
    return true;
}

void drop_log_write(drop_log &log, int64_t now_ms, const dropped_datagram &drop) {
    if (!drop_log_admit(log, now_ms)) {
        return;
    }
    tell_suppressed(log);
    log_line line{};
    const int wanted = std::snprintf(
        line.data(), line.size(),
        "mqutils: service %u dropped a datagram of %zu bytes (claims service %d, pid %d, "
        "uid %d): %s",
        log.serv_id, drop.bytes, drop.claimed_src, static_cast<int>(drop.pid),
        static_cast<int>(drop.uid), drop.reason);
    write_line(log, line, wanted);
}

void drop_log_flush(drop_log &log, int64_t now_ms) {
    if (log.suppressed > 0 && window_is_over(log, now_ms)) {
        tell_suppressed(log);
    }
}

void drop_log_close(drop_log &log) {
    tell_suppressed(log);
}

} // namespace mqutils
