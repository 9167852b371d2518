// lsctl stream --listen: sockets.
#include "stream_server.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "lsctl_text.h"

namespace {

constexpr int BACKLOG = 16;
constexpr int KERNEL_BUFFER = 32768; // bytes; the kernel doubles it

// A listening socket; -1 with errno.
int listen_at(const sockaddr *address, socklen_t size) {
    ls_descriptor made(socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    // A program that has just ended leaves its port occupied for a minute otherwise.
    if (made.fd < 0 || setsockopt(made.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        (address->sa_family == AF_INET6 &&
         setsockopt(made.fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) ||
        bind(made.fd, address, size) != 0 || ::listen(made.fd, BACKLOG) != 0)
        return -1;
    return made.release();
}

std::string listen_problem(uint16_t port) {
    if (errno == EADDRINUSE)
        return lsctl_format("port %u of this machine is in use by another program; choose another "
                            "one with --listen",
                            port);
    return lsctl_format("cannot listen on port %u: %s", port, std::strerror(errno));
}

void receive(stream_peer &peer) {
    std::array<char, GPSD_REQUEST_SIZE> piece{};
    const ssize_t size = recv(peer.socket.fd, piece.data(), piece.size(), 0);
    if (size > 0)
        peer.in.append(piece.data(), static_cast<size_t>(size));
    else if (size == 0 || (errno != EAGAIN && errno != EINTR))
        peer.gone = true;
}

void send_out(stream_peer &peer) {
    while (!peer.out.empty() && !peer.gone) {
        const ssize_t size = send(peer.socket.fd, peer.out.data(), peer.out.size(), MSG_NOSIGNAL);
        if (size > 0) {
            peer.out.erase(0, static_cast<size_t>(size));
        } else if (errno != EINTR) {
            peer.gone = errno != EAGAIN;
            return;
        }
    }
}

} // namespace

void stream_send(stream_peer &peer, const std::string &text) {
    peer.out += text;
    send_out(peer);
    if (peer.out.size() > STREAM_UNREAD_SIZE)
        peer.gone = true;
}

std::string stream_server::listen(uint16_t wanted_port) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(wanted_port);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int first = listen_at(reinterpret_cast<const sockaddr *>(&v4), sizeof v4);
    if (first < 0)
        return listen_problem(wanted_port);
    listeners.emplace_back(first);
    socklen_t size = sizeof v4;
    if (getsockname(first, reinterpret_cast<sockaddr *>(&v4), &size) != 0)
        return listen_problem(wanted_port);
    bound_port = ntohs(v4.sin_port);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(bound_port);
    v6.sin6_addr = in6addr_loopback;
    const int second = listen_at(reinterpret_cast<const sockaddr *>(&v6), sizeof v6);
    if (second >= 0)
        listeners.emplace_back(second);
    else if (errno == EADDRINUSE) // anything else: a machine without IPv6
        return listen_problem(bound_port);
    return {};
}

void stream_server::watch(std::vector<pollfd> &fds) const {
    for (const ls_descriptor &listener : listeners)
        fds.push_back({listener.fd, POLLIN, 0});
    for (const stream_peer &peer : peers) {
        // One whose POLL waits is not read before that is answered.
        int events = peer.poll_until ? 0 : POLLIN;
        if (!peer.out.empty())
            events |= POLLOUT;
        fds.push_back({peer.socket.fd, static_cast<short>(events), 0});
    }
}

std::vector<stream_peer *> stream_server::accept_from(int listener) {
    std::vector<stream_peer *> fresh;
    for (;;) {
        ls_descriptor made(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (made.fd < 0)
            return fresh; // EAGAIN; or one that has left already
        if (peers.size() >= STREAM_PEERS)
            continue; // closed
        const int on = 1;
        setsockopt(made.fd, SOL_SOCKET, SO_SNDBUF, &KERNEL_BUFFER, sizeof KERNEL_BUFFER);
        setsockopt(made.fd, SOL_SOCKET, SO_RCVBUF, &KERNEL_BUFFER, sizeof KERNEL_BUFFER);
        setsockopt(made.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        fresh.push_back(&peers.emplace_back(made.release()));
    }
}

std::vector<stream_peer *> stream_server::serve(const pollfd *fds) {
    const pollfd *at = fds + listeners.size();
    for (stream_peer &peer : peers) {
        const short happened = (at++)->revents;
        if ((happened & (POLLERR | POLLNVAL)) != 0)
            peer.gone = true;
        else if ((happened & (POLLIN | POLLHUP)) != 0)
            receive(peer);
        if ((happened & POLLOUT) != 0)
            send_out(peer);
    }
    std::vector<stream_peer *> fresh;
    for (const ls_descriptor &listener : listeners) {
        const auto more =
            (fds++)->revents != 0 ? accept_from(listener.fd) : std::vector<stream_peer *>();
        fresh.insert(fresh.end(), more.begin(), more.end());
    }
    return fresh;
}

void stream_server::sweep() {
    peers.remove_if([](const stream_peer &peer) { return peer.gone; });
}
