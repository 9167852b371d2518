// The receive thread: see mqutils_receive.h.
//
// It runs with all signals blocked, delivers one message at a time in arrival order and answers to
// nobody but the stop flag. It touches the record of the service only to hand it to the callback:
// a callback that ends the connection may free the record.
//
// A datagram is looked at first, judged, and only then taken from the queue. The sender, which
// waits for that before it removes its socket file, so stays until the judge has seen the file.

#include "mqutils_receive.h"

#include "ls_clock.h"
#include "ls_signals_blocked.h"
#include "mqutils_drop_log.h"
#include "mqutils_policy.h"
#include "mqutils_send.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

static_assert(std::endian::native == std::endian::little, "headers go out as they are in memory");

namespace mqutils {

// What one datagram is read into; the payload may be read as any type. And what it is judged by.
struct receive_buffer {
    alignas(std::max_align_t) std::array<unsigned char, MAX_PAYLOAD_BYTES> payload;
    bus_msg msg;
    policy rules;
};

namespace {

constexpr uint32_t REGISTRATION_RESPONSE_ID = 407;
constexpr uint8_t REGISTRATION_SERV_ID = 0; // the bus itself; no service can have it
constexpr uint8_t RESPONSE_TYPE = 1;

// The callback runs on it. Sanitized frames are several times as large.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t STACK_BYTES = size_t{1024} * 1024;
#else
constexpr size_t STACK_BYTES = size_t{256} * 1024;
#endif

constexpr int FAILED_READ_PAUSE_MS = 100;

struct arrival {
    size_t bytes; // of the datagram, also where that is more than was read
    int flags;    // msg_flags of recvmsg()
    bool credentials_present;
    ucred credentials;
};

// Reads the next datagram and leaves it in the queue. False = nothing arrived; errno says why.
bool look_at_datagram(const connection &conn, receive_buffer &buffer, arrival &arrived) {
    std::array<iovec, 2> parts{
        {{&buffer.msg.hdr, sizeof buffer.msg.hdr}, {buffer.payload.data(), buffer.payload.size()}}};
    // Room for the credentials and nothing else: descriptors that a peer attaches do not get in.
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof(ucred))> control{};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    message.msg_control = control.data();
    message.msg_controllen = control.size();

    const ssize_t bytes = recvmsg(conn.socket, &message, MSG_PEEK | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    if (bytes < 0)
        return false;
    arrived = {
        static_cast<size_t>(bytes), message.msg_flags, false, {0, static_cast<uid_t>(-1), 0}};
    for (cmsghdr *item = CMSG_FIRSTHDR(&message); item != nullptr;
         item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_CREDENTIALS &&
            item->cmsg_len == CMSG_LEN(sizeof(ucred))) {
            std::memcpy(&arrived.credentials, CMSG_DATA(item), sizeof arrived.credentials);
            arrived.credentials_present = true;
        }
    }
    return true;
}

// Takes the datagram just looked at from the queue: nobody else reads this socket.
void remove_datagram(const connection &conn) {
    recv(conn.socket, nullptr, 0, MSG_DONTWAIT);
}

// Whether `txn_id` is one of the last two thousand million that this connection gave out. A
// connection starts at a random id, so what was meant for the previous owner of the service id is
// not.
bool is_own_transaction(const connection &conn, uint32_t txn_id) {
    constexpr uint64_t longest_memory = UINT64_C(1) << 31;
    const uint64_t given_out = conn.transactions.load();
    const uint32_t newest = conn.first_txn_id + static_cast<uint32_t>(given_out) - 1;
    return newest - txn_id < std::min(given_out, longest_memory);
}

// Why the datagram must not be delivered; null = deliver it. The file is looked at anew for every
// message: a service may have given its id to another user since the last one.
const char *reason_to_drop(const connection &conn, const policy &rules, const msg_hdr &hdr,
                           const arrival &arrived) {
    if (arrived.bytes < sizeof(msg_hdr))
        return "shorter than a header";
    if ((arrived.flags & MSG_TRUNC) != 0)
        return "longer than 65536 bytes";
    if ((arrived.flags & MSG_CTRUNC) != 0)
        return "carries more than data";
    if (hdr.pld_len != arrived.bytes - sizeof(msg_hdr))
        return "payload length is not that of the header";
    if (hdr.dst_serv_id != conn.serv_id)
        return "addressed to another service";
    if (!arrived.credentials_present)
        return "sender unknown";
    uid_t owner = 0;
    if (directory_owner(conn.directory, hdr.src_serv_id, owner) != 0)
        return "no such sending service";
    if (owner != arrived.credentials.uid)
        return "sending service belongs to another user";
    if (!policy_allows(rules, hdr.msg_id, hdr.msg_type, hdr.src_serv_id))
        return "refused by the policy";
    if (hdr.msg_type == RESPONSE_TYPE && !is_own_transaction(conn, hdr.txn_id))
        return "answers no request of this connection";
    return nullptr;
}

void receive_one(connection &conn, receive_buffer &buffer, drop_log &log) {
    arrival arrived{};
    const bool has_arrived = look_at_datagram(conn, buffer, arrived);
    const int read_error = errno;
    if (conn.stop.load(std::memory_order_acquire))
        return;
    if (!has_arrived) {
        if (read_error != EINTR) {
            // No ordinary state of a datagram socket; do not spin on it.
            drop_log_write(log, ls_monotonic_ms(),
                           {strerrordesc_np(read_error), 0, -1, 0, 0, 0, 0});
            poll(nullptr, 0, FAILED_READ_PAUSE_MS);
        }
        return;
    }
    msg_hdr &hdr = buffer.msg.hdr;
    const char *reason = reason_to_drop(conn, buffer.rules, hdr, arrived);
    remove_datagram(conn);
    if (reason != nullptr) {
        const bool has_header = arrived.bytes >= sizeof hdr;
        drop_log_write(log, ls_monotonic_ms(),
                       {reason, arrived.bytes, has_header ? hdr.src_serv_id : -1,
                        has_header ? hdr.msg_id : 0, has_header ? hdr.msg_type : 0U,
                        arrived.credentials.pid, arrived.credentials.uid});
        return;
    }
    if (log.suppressed > 0)
        drop_log_flush(log, ls_monotonic_ms());
    buffer.msg.pld = hdr.pld_len > 0 ? buffer.payload.data() : nullptr;
    conn.on_message(conn.record, &buffer.msg);
}

void *receive_main(void *argument) {
    connection &conn = *static_cast<connection *>(argument);
    const std::unique_ptr<receive_buffer> buffer(conn.buffer);
    drop_log log{.serv_id = conn.serv_id, .target = {.to_stderr = conn.log_to_stderr}};

    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "mqutils-%u", conn.serv_id);
    pthread_setname_np(pthread_self(), name.data());
    send_never_waits_here();
    conn.receiver.store(pthread_self(), std::memory_order_release);

    buffer->msg = {};
    buffer->msg.hdr.msg_type = RESPONSE_TYPE;
    buffer->msg.hdr.src_serv_id = REGISTRATION_SERV_ID;
    buffer->msg.hdr.dst_serv_id = conn.serv_id;
    buffer->msg.hdr.msg_id = REGISTRATION_RESPONSE_ID;
    conn.on_message(conn.record, &buffer->msg);

    while (!conn.stop.load(std::memory_order_acquire))
        receive_one(conn, *buffer, log);
    drop_log_close(log);
    connection_release(conn);
    return nullptr;
}

} // namespace

int receive_start(connection &conn) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0)
        return error;
    pthread_t thread{};
    pthread_attr_setstacksize(&attributes, STACK_BYTES);
    {
        const ls_signals_blocked scope;
        error = pthread_create(&thread, &attributes, receive_main, &conn);
    }
    if (error == 0) {
        // The thread does the same: whichever is first, scm_conn_exit finds it.
        conn.receiver.store(thread, std::memory_order_release);
    }
    pthread_attr_destroy(&attributes);
    return error;
}

int receive_prepare(connection &conn) {
    const int on = 1;
    if (setsockopt(conn.socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        return errno;
    conn.buffer = new (std::nothrow) receive_buffer;
    if (conn.buffer == nullptr)
        return ENOMEM;
    log_target log{.to_stderr = conn.log_to_stderr};
    const int error = policy_read(conn.buffer->rules, conn.directory, conn.serv_id, log);
    log_close(log);
    return error;
}

void receive_abandon(connection &conn) {
    delete conn.buffer;
    conn.buffer = nullptr;
}

void receive_stop(connection &conn) {
    conn.stop.store(true, std::memory_order_release);
    // Ends the thread's recvmsg(), and refuses what senders still have in hand.
    shutdown(conn.socket, SHUT_RDWR);
}

bool receive_is_this_thread(const connection &conn) {
    return pthread_equal(conn.receiver.load(std::memory_order_acquire), pthread_self()) != 0;
}

} // namespace mqutils
