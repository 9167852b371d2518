// A bus in the test's hands. Each message of the test is delivered as it comes; what the daemon
// sends is reported. Successes are told by odd numbers, and errno is never kept.
#include "foreign_channel.h"
#include "mqutils.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

constexpr std::array<unsigned char, 8> registered = {'f', 'o', 'r', 'e', 'i', 'g', 'n', '!'};
std::atomic<bool> ended;
std::atomic<uint32_t> transactions;

// A record that the daemon has freed or never registered cannot be told from a stray pointer.
void check(const scm_conn *conn) {
    if (conn == nullptr || memcmp(conn->library, registered.data(), registered.size()) != 0)
        foreign_call("stray connection");
}

void deliver(scm_conn *conn) {
    std::vector<char> packet(size_t{128} * 1024);
    while (true) {
        const ssize_t size = recv(FOREIGN_SOCKET, packet.data(), packet.size(), 0);
        if (size == -1 && errno == EINTR)
            continue;
        if (size < static_cast<ssize_t>(sizeof(msg_hdr)) || ended)
            return;
        bus_msg message = {};
        memcpy(&message.hdr, packet.data(), sizeof(message.hdr));
        std::vector<char> payload(packet.data() + sizeof(message.hdr), packet.data() + size);
        message.pld = payload.empty() ? nullptr : payload.data();
        foreign_call("on_message", static_cast<int>(message.hdr.msg_id));
        errno = EXDEV;
        conn->on_message(conn, &message);
        foreign_call("on_message returned", static_cast<int>(message.hdr.msg_id));
    }
}

int fill(const scm_conn *conn, msg_hdr *hdr, const msg_hdr &wanted) {
    check(conn);
    *hdr = wanted;
    hdr->src_serv_id = 8;
    errno = EXDEV;
    return 9;
}

} // namespace

int scm_conn_init(scm_conn *conn, uint8_t) {
    memcpy(conn->library, registered.data(), registered.size());
    foreign_signals(IN_SCM_CONN_INIT);
    for (int i = 0; i < foreign().callback_threads; ++i)
        std::thread(deliver, conn).detach();
    foreign_pause(foreign().init_ms);
    errno = EXDEV;
    return 3;
}

int scm_conn_exit(scm_conn *conn) {
    check(conn);
    ended = true;
    errno = EXDEV;
    return 3;
}

int fill_request_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t size, uint32_t id, uint8_t to) {
    return fill(conn, hdr, {0, 0, 0, to, id, ++transactions, size, 0});
}

int fill_notif_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t size, uint32_t id, uint8_t to) {
    return fill(conn, hdr, {2, 0, 0, to, id, ++transactions, size, 0});
}

int fill_response_hdr(scm_conn *conn, msg_hdr *hdr, const bus_msg *req, uint32_t size) {
    return fill(conn, hdr,
                {1, 0, 0, req->hdr.src_serv_id, req->hdr.msg_id, req->hdr.txn_id, size, 0});
}

int send_msg(scm_conn *conn, const msg_hdr *hdr, const void *pld) {
    check(conn);
    foreign_stack(0);
    foreign_report(EVENT_SEND, 0, {reinterpret_cast<const char *>(hdr), sizeof(*hdr)},
                   {static_cast<const char *>(pld), hdr->pld_len});
    foreign_pause(foreign().send_ms);
    check(conn); // all of this is the library's until it returns
    foreign_call("send_msg returns", static_cast<int>(hdr->msg_id));
    errno = EXDEV;
    return ended ? -1 : 5;
}
