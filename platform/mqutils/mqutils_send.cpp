// The sending half of a connection: see mqutils_send.h.
//
// The kernel charges a datagram that its receiver has not read to the socket it was sent from, and
// stops that socket at its buffer's size, which nobody without privileges can raise beyond
// net.core.wmem_max. Therefore each peer is sent to from a socket of its own: what one peer leaves
// unread takes room from that peer alone. These sockets have no name; the receiver knows the sender
// by the credentials that the kernel adds. Where the process has no descriptor left for one, the
// bound socket stands in for it.

#include "mqutils_send.h"

#include "ls_clock.h"
#include "ls_descriptor.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace mqutils {
namespace {

// Initial-exec: the general model may allocate on first use, which a signal handler must not.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool on_a_receive_thread = false;

// What one peer may have unread. Cut to net.core.wmem_max, some 150 short messages on most systems.
constexpr int SEND_BUFFER_BYTES = 1024 * 1024;

constexpr int RETRY_MS = 2;       // between two looks at a full peer
constexpr int LINGER_LOOK_MS = 1; // between two looks at our own backlog

// The kernel waits twice in one call: for room in our buffer, then in the peer's queue. Short, so
// that little of the bound is left to looking now and then.
int kernel_wait_ms(const connection &conn) {
    return std::max(conn.send_timeout_ms / 16, 1);
}

// The socket for `peer`, opened at the first use. Of several threads, or a thread and a signal
// handler in the middle of it, one opens it for all.
int sending_socket(connection &conn, uint8_t peer) {
    std::atomic<int> &slot = conn.senders[peer];
    int held = slot.load();
    if (held != 0)
        return held - 1;
    ls_descriptor opened(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (opened.fd < 0 || send_prepare(conn, opened.fd) != 0)
        return conn.socket;
    return slot.compare_exchange_strong(held, opened.fd + 1) ? opened.release() : held - 1;
}

int attempt(const connection &conn, int socket, const msghdr &message, int flags) {
    if (sendmsg(socket, &message, MSG_NOSIGNAL | flags) >= 0)
        return 0;
    if (errno == EPIPE) {
        // Either end is being shut down.
        return connection_is_open(conn) ? ECONNREFUSED : ENOTCONN;
    }
    return errno;
}

bool is_worth_waiting(int error) {
    return error == EAGAIN || error == EINTR;
}

// Full. Let the kernel wait as long as one such wait, interrupted late or not, still ends within
// the bound; then look now and then. The bound holds whatever signals arrive.
int send_patiently(const connection &conn, int socket, const msghdr &message) {
    const int64_t deadline = ls_monotonic_ms() + conn.send_timeout_ms;
    for (;;) {
        const int64_t left_ms = deadline - ls_monotonic_ms();
        if (left_ms <= 0)
            return EAGAIN;
        if (!connection_is_open(conn))
            return ENOTCONN;
        const bool may_block = left_ms >= 2 * int64_t{kernel_wait_ms(conn)};
        const int error = attempt(conn, socket, message, may_block ? 0 : MSG_DONTWAIT);
        if (!is_worth_waiting(error))
            return error;
        if (!may_block)
            poll(nullptr, 0, static_cast<int>(std::min<int64_t>(left_ms, RETRY_MS)));
    }
}

bool has_unread(int socket) {
    int unread = 0;
    return ioctl(socket, SIOCOUTQ, &unread) == 0 && unread > 0;
}

bool has_unread(const connection &conn) {
    return has_unread(conn.socket) || std::any_of(
                                          conn.senders.begin(), conn.senders.end(),
                                          [](const auto &sender) {
                                              const int held = sender.load();
                                              return held != 0 && has_unread(held - 1);
                                          });
}

} // namespace

void send_never_waits_here() {
    on_a_receive_thread = true;
}

int send_prepare(const connection &conn, int socket) {
    const int wait_ms = kernel_wait_ms(conn);
    const timeval wait{wait_ms / 1000, suseconds_t{1000} * (wait_ms % 1000)};
    if (setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) != 0 ||
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_BYTES, sizeof SEND_BUFFER_BYTES) !=
            0)
        return errno;
    return 0;
}

int send_datagram(connection &conn, const msg_hdr &hdr, const void *pld) {
    sockaddr_un peer = directory_address(conn.directory, hdr.dst_serv_id);
    // sendmsg() reads through these pointers only.
    std::array<iovec, 2> parts{
        {{const_cast<msg_hdr *>(&hdr), sizeof hdr}, {const_cast<void *>(pld), hdr.pld_len}}};
    msghdr message{};
    message.msg_name = &peer;
    message.msg_namelen = sizeof peer;
    message.msg_iov = parts.data();
    message.msg_iovlen = hdr.pld_len > 0 ? 2 : 1;

    const int socket = sending_socket(conn, hdr.dst_serv_id);
    // Looked at after the socket is in its slot: either scm_conn_exit finds it there and shuts it,
    // or this finds the connection closed.
    if (!connection_is_open(conn))
        return ENOTCONN;
    const int error = attempt(conn, socket, message, MSG_DONTWAIT);
    return on_a_receive_thread || !is_worth_waiting(error) ? error
                                                           : send_patiently(conn, socket, message);
}

void send_stop(const connection &conn) {
    shutdown(conn.socket, SHUT_WR);
    for (const std::atomic<int> &sender : conn.senders)
        if (const int held = sender.load(); held != 0)
            shutdown(held - 1, SHUT_WR);
}

bool send_linger(const connection &conn) {
    const int64_t deadline = ls_monotonic_ms() + (on_a_receive_thread ? 0 : conn.send_timeout_ms);
    while (has_unread(conn)) {
        if (ls_monotonic_ms() >= deadline)
            return false;
        poll(nullptr, 0, LINGER_LOOK_MS);
    }
    return true;
}

} // namespace mqutils
