// The clock behind every deadline of the bus library: milliseconds that no time setting moves.
// Safe in a signal handler.
#ifndef MQUTILS_CLOCK_H
#define MQUTILS_CLOCK_H

#include <cstdint>
#include <ctime>

namespace mqutils {

inline int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace mqutils

#endif
