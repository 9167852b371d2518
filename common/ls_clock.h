// The clock behind every deadline: it is moved by no time setting and stands still while the
// machine sleeps. Safe in a signal handler.
#ifndef LS_CLOCK_H
#define LS_CLOCK_H

#include <cerrno>
#include <cstdint>
#include <ctime>

inline int64_t ls_monotonic_ns() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline int64_t ls_monotonic_ms() noexcept {
    return ls_monotonic_ns() / 1'000'000;
}

// A pause, shorter than a second, that a signal does not cut short.
inline void ls_sleep_us(long microseconds) noexcept {
    timespec left = {.tv_sec = 0, .tv_nsec = microseconds * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

#endif
