// The bus directory: see mqutils_directory.h.
//
// Taking an id. Looking whether the present socket has an owner, removing it when it has none and
// binding the new one are one step under flock() of the directory, and so is giving an id back. So
// of two starters one runs through all of it and the other finds a live owner. The proof of life is
// the kernel's: connect() to a datagram socket succeeds as long as some process holds the bound
// socket, whatever became of its owner, and is refused afterwards. The kernel also drops the lock
// of a process that dies half-way; what such a process leaves is no socket or a dead one, both of
// which the next starter deals with. There is no lock file that could be removed under a waiter.
//
// Whoever may read the directory may hold that lock; waiting for it is therefore bounded. Owners
// need read, write and search permission, nobody else needs any.

#include "mqutils_directory.h"

#include "mqutils_clock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace mqutils {
namespace {

constexpr int lock_wait_ms = 1000;
constexpr int lock_retry_ms = 2;

// Any service may send to any other: who it is, the receiver learns from the kernel. Who takes part
// at all is decided by the permissions of the directory.
constexpr mode_t socket_mode = 0666;

constexpr size_t id_characters = 4; // "255" and its NUL
using id_text = std::array<char, id_characters>;

id_text text_of(uint8_t serv_id) {
    id_text text{};
    std::to_chars(text.data(), text.data() + text.size() - 1, serv_id);
    return text;
}

struct descriptor_guard {
    int descriptor;

    explicit descriptor_guard(int opened) : descriptor(opened) {}
    descriptor_guard(const descriptor_guard &) = delete;
    descriptor_guard &operator=(const descriptor_guard &) = delete;
    ~descriptor_guard() {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
};

struct directory_lock {
    descriptor_guard file;
    bool held = false;

    explicit directory_lock(const bus_directory &directory)
        : file(openat(directory.descriptor, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
    directory_lock(const directory_lock &) = delete;
    directory_lock &operator=(const directory_lock &) = delete;
    ~directory_lock() {
        if (held) {
            // Not left to close(): a child forked meanwhile shares the open file and its lock.
            flock(file.descriptor, LOCK_UN);
        }
    }

    int take() {
        if (file.descriptor < 0) {
            return errno;
        }
        const int64_t deadline = monotonic_ms() + lock_wait_ms;
        while (flock(file.descriptor, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR) {
                return errno;
            }
            if (monotonic_ms() >= deadline) {
                return EBUSY;
            }
            poll(nullptr, 0, lock_retry_ms);
        }
        held = true;
        return 0;
    }
};

// 0 = nothing has the name any more.
int clear_the_name(const bus_directory &directory, uint8_t serv_id) {
    uid_t owner = 0;
    const int found = directory_owner(directory, serv_id, owner);
    if (found != 0) {
        return found == ENOENT ? 0 : found;
    }
    const descriptor_guard probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.descriptor < 0) {
        return errno;
    }
    const sockaddr_un address = directory_address(directory, serv_id);
    if (connect(probe.descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
        0) {
        return EADDRINUSE;
    }
    if (errno != ECONNREFUSED) {
        return errno;
    }
    return unlinkat(directory.descriptor, text_of(serv_id).data(), 0) == 0 ? 0 : errno;
}

// Sets mode and learns identity of the file just bound. Held by a descriptor, not looked up again:
// in a directory that others may write to, the name may already be something else.
int adopt_the_file(const bus_directory &directory, uint8_t serv_id, socket_identity &identity) {
    const descriptor_guard file(
        openat(directory.descriptor, text_of(serv_id).data(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (file.descriptor < 0 || fstat(file.descriptor, &status) != 0) {
        return errno;
    }
    if (!S_ISSOCK(status.st_mode) || status.st_uid != geteuid()) {
        return EADDRINUSE;
    }
    identity = {status.st_dev, status.st_ino};
    if ((status.st_mode & 0777) == socket_mode) {
        return 0;
    }
    // fchmod() refuses an O_PATH descriptor; its entry in /proc names the same file.
    std::array<char, sizeof "/proc/self/fd/-2147483648"> name{};
    std::snprintf(name.data(), name.size(), "/proc/self/fd/%d", file.descriptor);
    return chmod(name.data(), socket_mode) == 0 ? 0 : errno;
}

} // namespace

int directory_open(bus_directory &directory, const char *path) {
    directory.descriptor = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directory.descriptor < 0) {
        return errno;
    }
    directory.base = {};
    directory.base.sun_family = AF_UNIX;
    constexpr size_t room = sizeof directory.base.sun_path - id_characters + 1;
    int length = std::snprintf(directory.base.sun_path, room, "%s/", path);
    // The plain name is what socket listings show, so it is preferred where it fits.
    if (path[0] != '/' || length < 0 || static_cast<size_t>(length) >= room) {
        length =
            std::snprintf(directory.base.sun_path, room, "/proc/self/fd/%d/", directory.descriptor);
    }
    directory.base_length = static_cast<size_t>(length);
    return 0;
}

void directory_close(bus_directory &directory) {
    if (directory.descriptor >= 0) {
        close(directory.descriptor);
        directory.descriptor = -1;
    }
}

sockaddr_un directory_address(const bus_directory &directory, uint8_t serv_id) {
    sockaddr_un address = directory.base;
    const id_text text = text_of(serv_id);
    std::memcpy(address.sun_path + directory.base_length, text.data(), text.size());
    return address;
}

int directory_claim(const bus_directory &directory, uint8_t serv_id, int socket,
                    socket_identity &identity) {
    directory_lock lock(directory);
    int error = lock.take();
    if (error == 0) {
        error = clear_the_name(directory, serv_id);
    }
    if (error != 0) {
        return error;
    }
    const sockaddr_un address = directory_address(directory, serv_id);
    if (bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return errno;
    }
    error = adopt_the_file(directory, serv_id, identity);
    if (error != 0) {
        unlinkat(directory.descriptor, text_of(serv_id).data(), 0);
    }
    return error;
}

void directory_give_back(const bus_directory &directory, uint8_t serv_id,
                         const socket_identity &identity) {
    directory_lock lock(directory);
    if (lock.take() != 0) {
        return; // the file stays, without an owner: the next starter replaces it
    }
    struct stat status {};
    const id_text name = text_of(serv_id);
    if (fstatat(directory.descriptor, name.data(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_dev == identity.device && status.st_ino == identity.inode) {
        unlinkat(directory.descriptor, name.data(), 0);
    }
}

int directory_owner(const bus_directory &directory, uint8_t serv_id, uid_t &owner) {
    struct stat status {};
    if (fstatat(directory.descriptor, text_of(serv_id).data(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    if (!S_ISSOCK(status.st_mode)) {
        return ENOTSOCK;
    }
    owner = status.st_uid;
    return 0;
}

} // namespace mqutils
