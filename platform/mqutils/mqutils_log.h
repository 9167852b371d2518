// The lines of the bus library: to the system log and, when asked for, to stderr as well.
//
// Not syslog(3): it waits without limit for a log daemon that hangs, and the receive thread must
// not. Here nothing waits: a line that is not taken at once is lost, and the caller is told.
//
// Thread contract: a log_target belongs to one thread at a time. Not for signal handlers.
#ifndef MQUTILS_LOG_H
#define MQUTILS_LOG_H

namespace mqutils {

struct log_target {
    bool to_stderr = false;
    int socket = -1; // of the system log; opened by the first line
};

// Writes one line at warning level, cut at 255 characters; the text begins with "mqutils: " by
// itself. False = nobody took it.
[[gnu::format(printf, 2, 3)]] bool log_line(log_target &target, const char *format, ...);

void log_close(log_target &target);

} // namespace mqutils

#endif
