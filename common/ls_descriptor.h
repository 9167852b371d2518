// A descriptor that closes itself. Open with O_CLOEXEC: every descriptor is close-on-exec.
#ifndef LS_DESCRIPTOR_H
#define LS_DESCRIPTOR_H

#include <cerrno>
#include <unistd.h>
#include <utility>

// Closes `fd` if it is one and makes it -1. errno stays what it was: what failed before is often
// still to be told. Safe in a signal handler.
inline void ls_close(int &fd) noexcept {
    if (fd >= 0) {
        const int before = errno;
        close(fd);
        fd = -1;
        errno = before;
    }
}

// Owns a descriptor for the time of a scope; -1 = none.
struct ls_descriptor {
    int fd = -1;

    explicit ls_descriptor(int opened) noexcept : fd(opened) {}
    ~ls_descriptor() { ls_close(fd); }
    ls_descriptor(const ls_descriptor &) = delete;
    ls_descriptor &operator=(const ls_descriptor &) = delete;

    // The caller's from now on.
    int release() noexcept { return std::exchange(fd, -1); }
};

#endif
