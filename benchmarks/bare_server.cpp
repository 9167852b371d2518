// The least that a service of the daemon's kind can be: it receives a datagram on a socket of the
// given path, starts a detached thread with the daemon's stack, and sends 100 bytes back from it.
// With the path of a log socket it also sends as many datagrams there as the daemon has lines in
// its log for a buffered position: two before the thread starts, three from it before the reply.
//
// Usage: bare_server PATH [LOG-SOCKET]. Ends with status 0 at SIGTERM. Needs nothing of the
// project, so that it can be built for another machine with one call of the compiler.
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t stack_size = size_t{1024} * 1024;
constexpr size_t reply_size = 100;
constexpr int lines_before_thread = 2;
constexpr int lines_of_thread = 3;

// Set by main before the first thread, constant afterwards.
int log_fd = -1;

struct request {
    int fd;
    sockaddr_un from;
    socklen_t from_size;
};

sockaddr_un address_of(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string_view(path).copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

const sockaddr *generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

void log_lines(int count) {
    constexpr std::string_view line =
        "<30>Nov 22 09:00:00 location_service[12345]: gps_message_handler:123: "
        "ls_msg_req_handler_thread";
    for (int i = 0; log_fd >= 0 && i < count; ++i)
        send(log_fd, line.data(), line.size(), MSG_NOSIGNAL);
}

void *serve(void *param) {
    auto *asked = static_cast<request *>(param);
    const std::array<uint8_t, reply_size> reply = {};
    log_lines(lines_of_thread);
    sendto(asked->fd, reply.data(), reply.size(), 0, generic(asked->from), asked->from_size);
    delete asked;
    return nullptr;
}

// The program ends as one that is asked to: what watches it counts to the end.
void end(int) {
    exit(EXIT_SUCCESS);
}

int serve_all(int fd, const pthread_attr_t &attributes) {
    std::array<uint8_t, 256> datagram;
    while (true) {
        auto *asked = new (std::nothrow) request{fd, {}, sizeof(sockaddr_un)};
        pthread_t thread{};
        if (asked == nullptr ||
            recvfrom(fd, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr *>(&asked->from), &asked->from_size) < 0)
            break;
        log_lines(lines_before_thread);
        if (pthread_create(&thread, &attributes, serve, asked) != 0)
            break;
    }
    perror("bare server");
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        fputs("usage: bare_server PATH [LOG-SOCKET]\n", stderr);
        return 2;
    }
    const sockaddr_un own = address_of(argv[1]);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool good = bind(fd, generic(own), sizeof own) == 0;
    if (argc == 3) {
        const sockaddr_un log = address_of(argv[2]);
        log_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        good = good && connect(log_fd, generic(log), sizeof log) == 0;
    }
    if (!good) {
        perror(argv[1]);
        return EXIT_FAILURE;
    }
    std::signal(SIGTERM, end);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, stack_size);
    return serve_all(fd, attributes);
}
