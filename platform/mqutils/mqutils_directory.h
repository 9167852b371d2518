// The bus directory: where the sockets of the services are, who may take one, who owns which.
//
// Thread contract: plain functions of their arguments, no state. directory_address and
// directory_owner may be called from a signal handler.
#ifndef MQUTILS_DIRECTORY_H
#define MQUTILS_DIRECTORY_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>

namespace mqutils {

struct bus_directory {
    int descriptor = -1;
    uid_t owner = 0;        // whose links say where a service's socket is
    sockaddr_un base{};     // the directory's name and a slash, to which a service id is appended
    size_t base_length = 0; // characters of base.sun_path in use
};

struct socket_identity {
    dev_t device = 0;
    ino_t inode = 0;
};

// Opens `path`. 0, or an errno value. A path too long for a socket address, and one that a later
// chdir would change, is addressed through /proc/self/fd.
int directory_open(bus_directory &directory, const char *path);
void directory_close(bus_directory &directory);

// The address of service `serv_id`.
sockaddr_un directory_address(const bus_directory &directory, uint8_t serv_id);

// Binds `socket` as service `serv_id`, at the target of its name where that is a link of the
// directory's owner, and says in `identity` which file that made. 0, or an errno value: EADDRINUSE
// = a live owner, ENOTSOCK = something that is no socket is in the way, EBUSY = a dead owner's
// socket is in the way and the place stayed locked, EACCES, EPERM, EROFS = no right to own a socket
// there.
int directory_claim(const bus_directory &directory, uint8_t serv_id, int socket,
                    socket_identity &identity);

// Removes the socket file of `serv_id` if it is still the one of `identity`. To be called while the
// socket is open: it keeps starters from replacing the file meanwhile.
void directory_give_back(const bus_directory &directory, uint8_t serv_id,
                         const socket_identity &identity);

// The user who owns the socket of `serv_id`, links followed as above. 0, or an errno value: ENOENT
// = no such service, ENOTSOCK = the file of that name is no socket.
int directory_owner(const bus_directory &directory, uint8_t serv_id, uid_t &owner);

} // namespace mqutils

#endif
