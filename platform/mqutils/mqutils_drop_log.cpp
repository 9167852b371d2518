// The log of dropped datagrams: see mqutils_drop_log.h.

#include "mqutils_drop_log.h"

namespace mqutils {
namespace {

// Whether a line may be written at `now_ms`; counts it either way.
bool admit(drop_log &log, int64_t now_ms) {
    if (!log.started || now_ms - log.window_start_ms >= DROP_WINDOW_MS) {
        log.started = true;
        log.window_start_ms = now_ms;
        log.lines_in_window = 0;
    }
    return ++log.lines_in_window <= DROP_LINES_PER_WINDOW;
}

void tell_suppressed(drop_log &log) {
    if (log.suppressed > 0 &&
        log_line(log.target, "mqutils: service %u: %u more datagrams dropped without a line",
                 log.serv_id, log.suppressed))
        log.suppressed = 0;
}

} // namespace

void drop_log_write(drop_log &log, int64_t now_ms, const dropped_datagram &drop) {
    if (!admit(log, now_ms)) {
        ++log.suppressed;
        return;
    }
    tell_suppressed(log);
    if (!log_line(log.target,
                  "mqutils: service %u dropped a datagram of %zu bytes (claims service %d, message "
                  "%u, type %u; pid %d, uid %d): %s",
                  log.serv_id, drop.bytes, drop.claimed_src, drop.msg_id, drop.msg_type,
                  static_cast<int>(drop.pid), static_cast<int>(drop.uid), drop.reason))
        ++log.suppressed;
}

void drop_log_flush(drop_log &log, int64_t now_ms) {
    if (log.suppressed > 0 && now_ms - log.window_start_ms >= DROP_WINDOW_MS) {
        admit(log, now_ms);
        tell_suppressed(log);
    }
}

void drop_log_close(drop_log &log) {
    tell_suppressed(log);
    log_close(log.target);
}

} // namespace mqutils
