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
// Where the name of a service is a symbolic link, its target is the service's place: all of the
// above happens there, in the directory that the target is in. So a directory in which nobody may
// create anything can still give each service a place of its own. Only links of the user who owns
// the bus directory count; any other is what it always was, something in the way.
//
// Whoever may read a place's directory may hold that lock; waiting for it is therefore bounded.
// Owners need read, write and search permission there, senders only search permission.

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
#include <string_view>

namespace mqutils {
namespace {

constexpr int lock_wait_ms = 1000;
constexpr int lock_retry_ms = 2;

// Any service may send to any other: who it is, the receiver learns from the kernel. Who takes part
// at all is decided by the permissions of the directory.
constexpr mode_t socket_mode = 0666;

constexpr size_t id_characters = 4; // "255" and its NUL
using id_text = std::array<char, id_characters>;

constexpr size_t longest_link = 256; // characters of a link's target and its NUL

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

// Where the socket of one service is: a name in a directory, and that as a socket address.
struct socket_place {
    descriptor_guard directory{-1};        // open for reading: flock() refuses an O_PATH descriptor
    std::array<char, longest_link> text{}; // from the bus directory on, or absolute
    const char *name = nullptr;            // the last component, in `text`
    sockaddr_un address{};
};

struct place_lock {
    const socket_place &place;
    bool held = false;

    explicit place_lock(const socket_place &locked) : place(locked) {}
    place_lock(const place_lock &) = delete;
    place_lock &operator=(const place_lock &) = delete;
    ~place_lock() {
        if (held) {
            // Not left to close(): a child forked meanwhile shares the open file and its lock.
            flock(place.directory.descriptor, LOCK_UN);
        }
    }

    int take() {
        const int64_t deadline = monotonic_ms() + lock_wait_ms;
        while (flock(place.directory.descriptor, LOCK_EX | LOCK_NB) != 0) {
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

bool is_trusted_link(const bus_directory &directory, const struct stat &status) {
    return S_ISLNK(status.st_mode) && status.st_uid == directory.owner;
}

// The text of `place`, and the directory that its last component is in. 0, or an errno value.
int read_place(const bus_directory &directory, uint8_t serv_id, socket_place &place,
               std::array<char, longest_link> &parent) {
    const id_text id = text_of(serv_id);
    parent = {"."};
    std::memcpy(place.text.data(), id.data(), id.size());
    place.name = place.text.data();
    struct stat status {};
    if (fstatat(directory.descriptor, id.data(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !is_trusted_link(directory, status)) {
        return 0;
    }
    const ssize_t length =
        readlinkat(directory.descriptor, id.data(), place.text.data(), place.text.size());
    if (length < 0) {
        return errno;
    }
    if (static_cast<size_t>(length) == place.text.size()) {
        return ENAMETOOLONG;
    }
    place.text[static_cast<size_t>(length)] = '\0';
    const std::string_view text(place.text.data());
    const size_t slash = text.rfind('/');
    if (slash != std::string_view::npos) {
        // With its slash: the root directory has no other name.
        parent = {};
        text.copy(parent.data(), slash + 1);
        place.name = place.text.data() + slash + 1;
    }
    return 0;
}

// Fills in `place`; it must be new. 0, or an errno value.
int find_place(const bus_directory &directory, uint8_t serv_id, socket_place &place) {
    std::array<char, longest_link> parent{};
    if (const int error = read_place(directory, serv_id, place, parent); error != 0) {
        return error;
    }
    const int opened =
        openat(directory.descriptor, parent.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0) {
        return errno;
    }
    place.directory.descriptor = opened;
    place.address.sun_family = AF_UNIX;
    constexpr size_t room = sizeof place.address.sun_path;
    int length =
        std::snprintf(place.address.sun_path, room, "%s%s",
                      place.text[0] == '/' ? "" : directory.base.sun_path, place.text.data());
    if (length < 0 || static_cast<size_t>(length) >= room) {
        length =
            std::snprintf(place.address.sun_path, room, "/proc/self/fd/%d/%s", opened, place.name);
    }
    return length < 0 || static_cast<size_t>(length) >= room ? ENAMETOOLONG : 0;
}

int remove_socket(const socket_place &place) {
    return unlinkat(place.directory.descriptor, place.name, 0) == 0 ? 0 : errno;
}

// 0 = nothing has the name any more.
int clear_the_name(const socket_place &place) {
    struct stat status {};
    if (fstatat(place.directory.descriptor, place.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    if (!S_ISSOCK(status.st_mode)) {
        return ENOTSOCK;
    }
    const descriptor_guard probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.descriptor < 0) {
        return errno;
    }
    if (connect(probe.descriptor, reinterpret_cast<const sockaddr *>(&place.address),
                sizeof place.address) == 0) {
        return EADDRINUSE;
    }
    return errno == ECONNREFUSED ? remove_socket(place) : errno;
}

// Sets mode and learns identity of the file just bound. Held by a descriptor, not looked up again:
// in a directory that others may write to, the name may already be something else.
int adopt_the_file(const socket_place &place, socket_identity &identity) {
    const descriptor_guard file(
        openat(place.directory.descriptor, place.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
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
    struct stat status {};
    if (directory.descriptor < 0 || fstat(directory.descriptor, &status) != 0) {
        return errno;
    }
    directory.owner = status.st_uid;
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
    socket_place place;
    place_lock lock(place);
    int error = find_place(directory, serv_id, place);
    if (error == 0) {
        error = lock.take();
    }
    if (error == 0) {
        error = clear_the_name(place);
    }
    if (error != 0) {
        return error;
    }
    if (bind(socket, reinterpret_cast<const sockaddr *>(&place.address), sizeof place.address) !=
        0) {
        return errno;
    }
    error = adopt_the_file(place, identity);
    if (error != 0) {
        remove_socket(place);
    }
    return error;
}

void directory_give_back(const bus_directory &directory, uint8_t serv_id,
                         const socket_identity &identity) {
    socket_place place;
    place_lock lock(place);
    if (find_place(directory, serv_id, place) != 0 || lock.take() != 0) {
        return; // the file stays, without an owner: the next starter replaces it
    }
    struct stat status {};
    if (fstatat(place.directory.descriptor, place.name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_dev == identity.device && status.st_ino == identity.inode) {
        remove_socket(place);
    }
}

int directory_owner(const bus_directory &directory, uint8_t serv_id, uid_t &owner) {
    struct stat status {};
    const id_text name = text_of(serv_id);
    int failed = fstatat(directory.descriptor, name.data(), &status, AT_SYMLINK_NOFOLLOW);
    if (failed == 0 && is_trusted_link(directory, status)) {
        failed = fstatat(directory.descriptor, name.data(), &status, 0);
    }
    if (failed != 0) {
        return errno;
    }
    if (!S_ISSOCK(status.st_mode)) {
        return ENOTSOCK;
    }
    owner = status.st_uid;
    return 0;
}

} // namespace mqutils
