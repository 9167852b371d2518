// The bus directory: see mqutils_directory.h.
//
// Taking an id is bind(), which fails where the name exists. Giving it back is unlink(), while the
// socket is still alive. Neither needs a lock. Only to replace what a dead owner left takes two
// steps, proof of death and removal, which must be one: of two starters the second would remove the
// first one's new socket. They hold flock() of the directory. The proof is the kernel's: connect()
// to a datagram socket succeeds as long as some process holds the bound socket, whatever became of
// its owner, and is refused afterwards. It is refused, too, in the moment that bind() needs between
// the file and the socket behind it: so a file is born with another mode than it gets then, and one
// that still has that mode is dead only when it is older than any such moment. The kernel drops the
// lock of a process that dies half-way; there is no lock file that could be removed under a waiter.
//
// Where the name of a service is a symbolic link, its target is the service's place: all of the
// above happens there, in the directory that the target is in. So a directory in which nobody may
// create anything can still give each service a place of its own. Only links of the user who owns
// the bus directory count; any other is what it always was, something in the way.
//
// Whoever may read a place's directory may hold that lock: waiting for it is bounded, and who meets
// no dead owner never asks for it. Owners need read, write and search permission there, senders
// only search permission.
//
// Who may send is the socket's group, to which the file is born: its directory's where that has the
// set-group-id bit, else that of its user.

#include "mqutils_directory.h"

#include "ls_clock.h"
#include "ls_descriptor.h"

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
#include <ctime>
#include <string_view>

namespace mqutils {
namespace {

constexpr int LOCK_WAIT_MS = 200; // the holder needs microseconds
constexpr int LOCK_RETRY_MS = 2;

// Members of the group may send: who it was, the receiver learns from the kernel. Nobody else can
// fill its short queue.
constexpr mode_t SOCKET_MODE = 0660;
constexpr mode_t NEWBORN_MODE = 0600;
constexpr time_t LONGEST_BIRTH_S = 1;

constexpr size_t ID_CHARACTERS = 4; // "255" and its NUL
using id_text = std::array<char, ID_CHARACTERS>;

constexpr size_t LONGEST_LINK = 256; // characters of a link's target and its NUL

id_text text_of(uint8_t serv_id) {
    id_text text{};
    std::to_chars(text.data(), text.data() + text.size() - 1, serv_id);
    return text;
}

// Where the socket of one service is: a name in a directory, and that as a socket address.
struct socket_place {
    ls_descriptor directory{-1};           // open for reading: flock() refuses an O_PATH descriptor
    std::array<char, LONGEST_LINK> text{}; // from the bus directory on, or absolute
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
            flock(place.directory.fd, LOCK_UN);
        }
    }

    int take() {
        const int64_t deadline = ls_monotonic_ms() + LOCK_WAIT_MS;
        while (flock(place.directory.fd, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR)
                return errno;
            if (ls_monotonic_ms() >= deadline)
                return EBUSY;
            poll(nullptr, 0, LOCK_RETRY_MS);
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
               std::array<char, LONGEST_LINK> &parent) {
    const id_text id = text_of(serv_id);
    parent = {"."};
    std::memcpy(place.text.data(), id.data(), id.size());
    place.name = place.text.data();
    struct stat status {};
    if (fstatat(directory.descriptor, id.data(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !is_trusted_link(directory, status))
        return 0;
    const ssize_t length =
        readlinkat(directory.descriptor, id.data(), place.text.data(), place.text.size());
    if (length < 0)
        return errno;
    if (static_cast<size_t>(length) == place.text.size())
        return ENAMETOOLONG;
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
    std::array<char, LONGEST_LINK> parent{};
    if (const int error = read_place(directory, serv_id, place, parent); error != 0)
        return error;
    const int opened =
        openat(directory.descriptor, parent.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0)
        return errno;
    place.directory.fd = opened;
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
    return unlinkat(place.directory.fd, place.name, 0) == 0 ? 0 : errno;
}

// What has the name: 0 = nothing, ECONNREFUSED = the socket of a dead owner, EADDRINUSE = that of a
// live one, ENOTSOCK = something else, EPERM = a dead owner's that this user may not remove.
int look_at_name(const socket_place &place) {
    struct stat status {};
    struct stat parent {};
    if (fstatat(place.directory.fd, place.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : errno;
    if (!S_ISSOCK(status.st_mode))
        return ENOTSOCK;
    const ls_descriptor probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.fd < 0)
        return errno;
    if (connect(probe.fd, reinterpret_cast<const sockaddr *>(&place.address),
                sizeof place.address) == 0)
        return EADDRINUSE;
    if (errno != ECONNREFUSED || fstat(place.directory.fd, &parent) != 0)
        return errno == ENOENT ? 0 : errno; // its owner has just left
    const time_t age_s = time(nullptr) - status.st_ctim.tv_sec;
    if ((status.st_mode & S_IWGRP) == 0 && age_s >= 0 && age_s <= LONGEST_BIRTH_S)
        return EADDRINUSE;
    // The kernel would say so, too, but only behind the lock.
    const uid_t self = geteuid();
    const bool may_remove = (parent.st_mode & S_ISVTX) == 0 || self == status.st_uid ||
                            self == parent.st_uid || self == 0;
    return may_remove ? ECONNREFUSED : EPERM;
}

// 0, or an errno value: EADDRINUSE = something has the name.
int bind_socket(const socket_place &place, int socket) {
    // The file is born with the mode of the socket, less the mask of the process.
    if (fchmod(socket, NEWBORN_MODE) != 0 ||
        bind(socket, reinterpret_cast<const sockaddr *>(&place.address), sizeof place.address) != 0)
        return errno;
    return 0;
}

// The name is taken. Asks for the lock only when it seems to be by a dead owner.
int replace_dead_socket(const socket_place &place, int socket) {
    place_lock lock(place);
    int error = look_at_name(place);
    if (error == ECONNREFUSED) {
        error = lock.take();
        if (error == 0)
            error = look_at_name(place); // again: another starter may have been faster
        if (error == ECONNREFUSED)
            error = remove_socket(place);
    }
    return error == 0 ? bind_socket(place, socket) : error;
}

// Sets mode and learns identity of the file just bound. Held by a descriptor, not looked up again:
// in a directory that others may write to, the name may already be something else.
int adopt_the_file(const socket_place &place, socket_identity &identity) {
    const ls_descriptor file(
        openat(place.directory.fd, place.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0)
        return errno;
    if (!S_ISSOCK(status.st_mode) || status.st_uid != geteuid())
        return EADDRINUSE;
    identity = {status.st_dev, status.st_ino};
    // fchmod() refuses an O_PATH descriptor; its entry in /proc names the same file.
    std::array<char, sizeof "/proc/self/fd/-2147483648"> name{};
    std::snprintf(name.data(), name.size(), "/proc/self/fd/%d", file.fd);
    return chmod(name.data(), SOCKET_MODE) == 0 ? 0 : errno;
}

} // namespace

int directory_open(bus_directory &directory, const char *path) {
    directory.descriptor = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct stat status {};
    if (directory.descriptor < 0 || fstat(directory.descriptor, &status) != 0)
        return errno;
    directory.owner = status.st_uid;
    directory.base = {};
    directory.base.sun_family = AF_UNIX;
    constexpr size_t room = sizeof directory.base.sun_path - ID_CHARACTERS + 1;
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
    ls_close(directory.descriptor);
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
    int error = find_place(directory, serv_id, place);
    if (error == 0) {
        error = bind_socket(place, socket);
        if (error == EADDRINUSE)
            error = replace_dead_socket(place, socket);
    }
    if (error == 0) {
        error = adopt_the_file(place, identity);
        if (error != 0 && error != EADDRINUSE)
            remove_socket(place);
    }
    return error;
}

void directory_give_back(const bus_directory &directory, uint8_t serv_id,
                         const socket_identity &identity) {
    socket_place place;
    struct stat status {};
    if (find_place(directory, serv_id, place) == 0 &&
        fstatat(place.directory.fd, place.name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_dev == identity.device && status.st_ino == identity.inode)
        remove_socket(place);
}

int directory_owner(const bus_directory &directory, uint8_t serv_id, uid_t &owner) {
    struct stat status {};
    const id_text name = text_of(serv_id);
    int failed = fstatat(directory.descriptor, name.data(), &status, AT_SYMLINK_NOFOLLOW);
    if (failed == 0 && is_trusted_link(directory, status))
        failed = fstatat(directory.descriptor, name.data(), &status, 0);
    if (failed != 0)
        return errno;
    if (!S_ISSOCK(status.st_mode))
        return ENOTSOCK;
    owner = status.st_uid;
    return 0;
}

} // namespace mqutils
