// The log of dropped datagrams.
//
// A peer that floods us with rubbish must not flood the log: at most DROP_LINES_PER_WINDOW lines in
// a window of DROP_WINDOW_MS. How many were left out, or found no log daemon that took them, is
// told by the next line written.
//
// Thread contract: one drop_log belongs to one receive thread.
#ifndef MQUTILS_DROP_LOG_H
#define MQUTILS_DROP_LOG_H

#include "mqutils_log.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace mqutils {

constexpr unsigned DROP_LINES_PER_WINDOW = 5;
constexpr int64_t DROP_WINDOW_MS = 1000;

struct drop_log {
    uint8_t serv_id = 0;
    log_target target;
    bool started = false;
    int64_t window_start_ms = 0;
    unsigned lines_in_window = 0;
    unsigned suppressed = 0;
};

struct dropped_datagram {
    const char *reason;
    size_t bytes;    // its real length
    int claimed_src; // -1 = it has no header; the next two are then 0
    unsigned msg_id;
    unsigned msg_type;
    pid_t pid; // of the sender; 0 and uid -1 = not known
    uid_t uid;
};

// Counts the drop and writes a line if one may be written.
void drop_log_write(drop_log &log, int64_t now_ms, const dropped_datagram &drop);

// Tells what was left out, if anything was and its window is over.
void drop_log_flush(drop_log &log, int64_t now_ms);

// Tells what was left out, if anything was: the receive thread ends.
void drop_log_close(drop_log &log);

} // namespace mqutils

#endif
