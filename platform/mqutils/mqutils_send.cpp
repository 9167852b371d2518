// The sending half of a connection: see mqutils_send.h.

#include "mqutils_send.h"

#include "mqutils_clock.h"

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

// Datagrams that a peer has not read yet are charged to the sender's buffer. With the system's
// default a dozen clients that stopped reading would fill it, and stall the sends to all others.
constexpr int send_buffer_bytes = 4 * 1024 * 1024;

constexpr int retry_ms = 2;         // between two looks at a full peer
constexpr int linger_look_ms = 1;   // between two looks at our own backlog
constexpr int linger_settle_ms = 5; // from a peer's recvmsg() to its look at our socket file

// The kernel waits twice in one call: for room in our buffer, then in the peer's queue.
int kernel_wait_ms(const connection &conn) {
    return std::max(conn.send_timeout_ms / 4, 1);
}

int attempt(const connection &conn, const msghdr &message, int flags) {
    if (sendmsg(conn.socket, &message, MSG_NOSIGNAL | flags) >= 0) {
        return 0;
    }
    if (errno == EPIPE) {
        // Either end is being shut down.
        return connection_is_open(conn) ? ECONNREFUSED : ENOTCONN;
    }
    return errno;
}

bool is_worth_waiting(int error) {
    return error == EAGAIN || error == EINTR;
}

} // namespace

void send_never_waits_here() {
    on_a_receive_thread = true;
}

int send_prepare(const connection &conn) {
    const int wait_ms = kernel_wait_ms(conn);
    const timeval wait{wait_ms / 1000, suseconds_t{1000} * (wait_ms % 1000)};
    if (setsockopt(conn.socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) != 0) {
        return errno;
    }
    // The first needs CAP_NET_ADMIN, the second is cut to net.core.wmem_max: as much as we may.
    if (setsockopt(conn.socket, SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer_bytes,
                   sizeof send_buffer_bytes) != 0) {
        setsockopt(conn.socket, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes,
                   sizeof send_buffer_bytes);
    }
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

    conn.has_sent.store(true, std::memory_order_relaxed);
    int error = attempt(conn, message, MSG_DONTWAIT);
    if (on_a_receive_thread || !is_worth_waiting(error)) {
        return error;
    }
    // Full. Let the kernel wait as long as one such wait, interrupted late or not, still ends
    // within the bound; then look now and then. The bound holds whatever signals arrive.
    const int64_t deadline = monotonic_ms() + conn.send_timeout_ms;
    for (;;) {
        const int64_t left_ms = deadline - monotonic_ms();
        if (left_ms <= 0) {
            return EAGAIN;
        }
        if (!connection_is_open(conn)) {
            return ENOTCONN;
        }
        const bool may_block = left_ms >= 2 * int64_t{kernel_wait_ms(conn)};
        error = attempt(conn, message, may_block ? 0 : MSG_DONTWAIT);
        if (!is_worth_waiting(error)) {
            return error;
        }
        if (!may_block) {
            poll(nullptr, 0, static_cast<int>(std::min<int64_t>(left_ms, retry_ms)));
        }
    }
}

void send_linger(const connection &conn) {
    // A receiver believes a message by looking at our socket file. Removed too early, the last
    // words of a service that says something and leaves would be dropped as forged.
    if (on_a_receive_thread || !conn.has_sent.load(std::memory_order_relaxed)) {
        return;
    }
    const int64_t deadline = monotonic_ms() + conn.send_timeout_ms;
    int unread = 0;
    while (ioctl(conn.socket, SIOCOUTQ, &unread) == 0 && unread > 0 && monotonic_ms() < deadline) {
        poll(nullptr, 0, linger_look_ms);
    }
    poll(nullptr, 0, linger_settle_ms);
}

} // namespace mqutils
