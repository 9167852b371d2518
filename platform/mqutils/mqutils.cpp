// libmqutils: the calls of the bus library. What each promises is in mqutils.h.
//
// State: none here; the connections live in mqutils_connection.cpp. scm_conn_init takes an entry of
// that table, opens the directory, makes the socket, claims the id and starts the receive thread;
// scm_conn_exit waits for the last words to be read, gives the id back and ends the thread. Where
// they are not read in time the socket file stays, without an owner: by it they are believed when
// they are read, and the next starter replaces it.

#include "mqutils.h"

#include "ls_export.h"
#include "mqutils_connection.h"
#include "mqutils_directory.h"
#include "mqutils_receive.h"
#include "mqutils_send.h"

#include <pthread.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace mqutils {
namespace {

constexpr const char *DEFAULT_DIRECTORY = "/run/terminal-bus";
constexpr int DEFAULT_SEND_TIMEOUT_MS = 1000;
constexpr int MIN_SEND_TIMEOUT_MS = 10;
constexpr int MAX_SEND_TIMEOUT_MS = 10000;

enum message_type : uint8_t { request = 0, response = 1, notification = 2 };

// The environment of a privileged process is not its own: hence secure_getenv().
std::string_view environment(const char *name) {
    const char *value = secure_getenv(name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

const char *configured_directory() {
    const std::string_view value = environment("MQUTILS_DIR");
    return value.empty() ? DEFAULT_DIRECTORY : value.data();
}

int configured_send_timeout_ms() {
    const std::string_view value = environment("MQUTILS_SEND_TIMEOUT_MS");
    int parsed = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), parsed);
    if (value.empty() || error != std::errc() || end != value.data() + value.size())
        return DEFAULT_SEND_TIMEOUT_MS;
    return std::clamp(parsed, MIN_SEND_TIMEOUT_MS, MAX_SEND_TIMEOUT_MS);
}

// Never waits: a terminal that has just been switched on may have no entropy yet, but its clocks do
// not repeat.
uint32_t random_number() {
    uint32_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        number = static_cast<uint32_t>(now.tv_nsec) * 2654435761U ^
                 static_cast<uint32_t>(now.tv_sec) ^ static_cast<uint32_t>(getpid()) << 16;
    }
    return number;
}

int failed(int error) {
    errno = error;
    return -1;
}

// 0, or an errno value; the caller gives the reference back.
int set_up(connection &conn, scm_conn *record, uint8_t serv_id) {
    conn.on_message = record->on_message;
    conn.serv_id = serv_id;
    conn.process = getpid();
    conn.send_timeout_ms = configured_send_timeout_ms();
    conn.log_to_stderr = environment("MQUTILS_LOG") == "stderr";
    conn.first_txn_id = random_number();
    conn.transactions = 0;
    conn.stop = false;
    conn.receiver = pthread_t{};
    conn.buffer = nullptr;

    int error = directory_open(conn.directory, configured_directory());
    if (error != 0)
        return error;
    conn.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (conn.socket < 0)
        return errno;
    error = receive_prepare(conn);
    if (error == 0)
        error = send_prepare(conn, conn.socket);
    if (error == 0)
        error = directory_claim(conn.directory, serv_id, conn.socket, conn.identity);
    return error;
}

int fill(scm_conn *record, msg_hdr *hdr, const msg_hdr &values) {
    const int errno_before = errno;
    connection *conn = connection_acquire(record);
    if (conn == nullptr)
        return failed(ENOTCONN);
    *hdr = values;
    hdr->src_serv_id = conn->serv_id;
    if (hdr->msg_type != response)
        hdr->txn_id = conn->first_txn_id + static_cast<uint32_t>(conn->transactions.fetch_add(1));
    connection_release(*conn);
    errno = errno_before;
    return 0;
}

} // namespace
} // namespace mqutils

using namespace mqutils;

LS_EXPORT int scm_conn_init(scm_conn *record, uint8_t serv_id) {
    if (record == nullptr || record->on_message == nullptr || serv_id == 0)
        return failed(EINVAL);
    // The kernel tells receivers the real user, the socket file belongs to the effective one.
    if (getuid() != geteuid())
        return failed(EPERM);
    const int errno_before = errno;
    connection *used = connection_acquire(record);
    if (used != nullptr) {
        connection_release(*used);
        return failed(EISCONN);
    }
    connection *conn = connection_reserve();
    if (conn == nullptr)
        return failed(EMFILE);
    int error = set_up(*conn, record, serv_id);
    if (error != 0) {
        receive_abandon(*conn);
        connection_release(*conn);
        return failed(error);
    }
    // Open before the thread runs: its first callback may already send, or end the connection. The
    // reference kept here outlives even the latter.
    connection_open(*conn, record);
    connection_acquire(record);
    error = receive_start(*conn);
    if (error != 0) {
        connection_close(record);
        receive_abandon(*conn);
        directory_give_back(conn->directory, serv_id, conn->identity);
        connection_release(*conn); // the one of the thread that is not
        connection_release(*conn); // the one scm_conn_exit would have given back
    }
    connection_release(*conn);
    if (error != 0)
        return failed(error);
    errno = errno_before;
    return 0;
}

LS_EXPORT int scm_conn_exit(scm_conn *record) {
    if (record == nullptr)
        return failed(EINVAL);
    const int errno_before = errno;
    connection *conn = connection_close(record);
    if (conn == nullptr)
        return failed(ENOTCONN);
    bool all_read = true;
    if (conn->process == getpid()) {
        send_stop(*conn);
        all_read = send_linger(*conn);
        if (all_read)
            directory_give_back(conn->directory, conn->serv_id, conn->identity);
        receive_stop(*conn);
        if (receive_is_this_thread(*conn))
            pthread_detach(pthread_self());
        else
            pthread_join(conn->receiver.load(std::memory_order_acquire), nullptr);
    } else {
        // A forked child: the thread whose reference this is does not exist here.
        connection_release(*conn);
    }
    connection_release(*conn);
    if (!all_read)
        return failed(EAGAIN);
    errno = errno_before;
    return 0;
}

LS_EXPORT int fill_request_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                               uint8_t dst_serv_id) {
    if (conn == nullptr || hdr == nullptr)
        return failed(EINVAL);
    return fill(conn, hdr, {request, 0, 0, dst_serv_id, msg_id, 0, pld_len, 0});
}

LS_EXPORT int fill_notif_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                             uint8_t dst_serv_id) {
    if (conn == nullptr || hdr == nullptr)
        return failed(EINVAL);
    return fill(conn, hdr, {notification, 0, 0, dst_serv_id, msg_id, 0, pld_len, 0});
}

LS_EXPORT int fill_response_hdr(scm_conn *conn, msg_hdr *hdr, const bus_msg *req,
                                uint32_t pld_len) {
    if (conn == nullptr || hdr == nullptr || req == nullptr)
        return failed(EINVAL);
    return fill(
        conn, hdr,
        {response, 0, 0, req->hdr.src_serv_id, req->hdr.msg_id, req->hdr.txn_id, pld_len, 0});
}

LS_EXPORT int send_msg(scm_conn *record, const msg_hdr *hdr, const void *pld) {
    if (record == nullptr || hdr == nullptr || (hdr->pld_len > 0 && pld == nullptr))
        return failed(EINVAL);
    if (hdr->pld_len > MAX_PAYLOAD_BYTES)
        return failed(EMSGSIZE);
    const int errno_before = errno;
    connection *conn = connection_acquire(record);
    if (conn == nullptr)
        return failed(ENOTCONN);
    // A header that names another sender would only be dropped at the other end.
    const int error = hdr->src_serv_id != conn->serv_id ? EINVAL : send_datagram(*conn, *hdr, pld);
    connection_release(*conn);
    if (error != 0)
        return failed(error);
    errno = errno_before;
    return 0;
}
