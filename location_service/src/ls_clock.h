// The monotonic clock, and a pause that a signal does not cut short.
#ifndef LS_CLOCK_H
#define LS_CLOCK_H

#include <cerrno>
#include <cstdint>
#include <ctime>

inline int64_t ls_monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Less than a second.
inline void ls_sleep_us(long microseconds) {
    timespec left = {.tv_sec = 0, .tv_nsec = microseconds * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

#endif
