#include "bench_client.h"

#include "ls_messages.h"

#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

// A server under an emulator that counts is slow; one that is gone is noticed all the same.
constexpr timeval patience{60, 0};

constexpr std::string_view gpsd_watch = "?WATCH={\"enable\":true};\n";
constexpr std::string_view gpsd_poll = "?POLL;\n";

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

template <typename Address>
const sockaddr *generic(const Address &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

int gpsd_socket(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, generic(address), sizeof address) != 0)
        perror("gpsd");
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return fd;
}

} // namespace

int bench_bound_socket(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un own = address_of(path);
    unlink(path.c_str());
    if (bind(fd, generic(own), sizeof own) != 0)
        perror(path.c_str());
    return fd;
}

bench_client::bench_client(const std::string &bus, uint8_t id, const bench_server &server)
    : wanted(server.reply_size) {
    if (server.socket.empty()) {
        join_gpsd(server.port);
        return;
    }
    fd = bench_bound_socket(bus + "/" + std::to_string(id));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    to = address_of(server.socket);
    request.src_serv_id = id;
    request.dst_serv_id = LS_OWN_SERV_ID;
    request.msg_id = LS_REQUEST_GET_POSITION;
}

// It takes 64 clients, and turns others away as long as it has not seen the last ones leave.
void bench_client::join_gpsd(uint16_t port) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        fd = gpsd_socket(port);
        send(fd, gpsd_watch.data(), gpsd_watch.size(), MSG_NOSIGNAL);
        if (has_line("{\"class\":\"WATCH\""))
            return;
        close(fd);
        fd = -1;
        filled = 0;
        usleep(50'000);
    }
}

bench_client::~bench_client() {
    close(fd);
}

bool bench_client::ask() {
    return to.sun_family == AF_UNIX ? ask_datagram() : ask_gpsd();
}

bool bench_client::ask_datagram() {
    ++request.txn_id;
    return sendto(fd, &request, sizeof request, 0, generic(to), sizeof to) == sizeof request &&
           recv(fd, reply.data(), reply.size(), 0) == static_cast<ssize_t>(wanted);
}

bool bench_client::ask_gpsd() {
    return send(fd, gpsd_poll.data(), gpsd_poll.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(gpsd_poll.size()) &&
           has_line("{\"class\":\"POLL\"");
}

bool bench_client::has_line(const char *start) {
    while (true) {
        const std::string_view text(reinterpret_cast<const char *>(reply.data()), filled);
        const size_t end = text.find('\n');
        if (end != std::string_view::npos) {
            const bool found = text.starts_with(start);
            filled -= end + 1;
            memmove(reply.data(), reply.data() + end + 1, filled);
            if (found)
                return true;
            continue;
        }
        const ssize_t count = recv(fd, reply.data() + filled, reply.size() - filled, 0);
        if (count <= 0)
            return false;
        filled += static_cast<size_t>(count);
    }
}

bool bench_client::was_success() const {
    uint32_t status = 0;
    memcpy(&status, reply.data() + sizeof(msg_hdr), sizeof status);
    return status == LS_STATUS_OK;
}
