// POSIX timers on the monotonic clock whose expiry is a real-time signal with a three-argument
// handler. Keeps no state. Results: 0, or -1 (logged). The handler runs on the signal thread.
#ifndef GPS_TIMER_H
#define GPS_TIMER_H

#include <atomic>
#include <csignal>
#include <cstdint>
#include <ctime>

using timer_signal_handler = void (*)(int signal, siginfo_t *info, void *context);

// Creates a timer, not running, that raises SIGRTMIN + sig_offset; the signal's value is the
// pointer `timer_out`, where the timer's id is stored: never 0, which stands for no timer.
int create_timer(std::atomic<timer_t> *timer_out, timer_signal_handler handler, int sig_offset);

// First expiry after interval_s seconds, then every interval_s seconds.
int start_timer(timer_t timer_id, uint32_t interval_s);

// Ignores id 0. The signal's handler stays installed.
void delete_timer(timer_t timer_id);

#endif
