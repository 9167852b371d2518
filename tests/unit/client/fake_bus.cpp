#include "fake_bus.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

fake_bus fake;

static std::atomic<uint32_t> next_txn{1};

void fake_reset() {
    fake.init_errno.clear();
    fake.send_errno = 0;
    fake.service = nullptr;
    const std::lock_guard guard(fake.lock);
    fake.sent.clear();
}

std::vector<sent_message> fake_sent(uint32_t msg_id) {
    const std::lock_guard guard(fake.lock);
    std::vector<sent_message> found = fake.sent;
    std::erase_if(found, [msg_id](const sent_message &m) { return m.hdr.msg_id != msg_id; });
    return found;
}

void fake_deliver(msg_hdr hdr, bytes payload) {
    hdr.pld_len = static_cast<uint32_t>(payload.size());
    bus_msg msg{hdr, payload.empty() ? nullptr : payload.data()};
    const std::lock_guard guard(fake.delivery);
    if (fake.conn != nullptr) // a late reply may find nobody
        fake.conn->on_message(fake.conn, &msg);
}

void fake_reply(const msg_hdr &request, const bytes &payload) {
    msg_hdr hdr = request;
    hdr.msg_type = LS_MSG_RESPONSE;
    hdr.src_serv_id = request.dst_serv_id;
    hdr.dst_serv_id = request.src_serv_id;
    fake_deliver(hdr, payload);
}

void fake_send(ls_msg_type type, uint32_t msg_id, const bytes &payload) {
    fake_deliver({static_cast<uint8_t>(type), 0, LS_OWN_SERV_ID, 0, msg_id, 0, 0, 0}, payload);
}

play always(bytes reply) {
    return [reply = std::move(reply)](const sent_message &m) {
        bytes answer = reply;
        if (reply.size() == sizeof(ls_engg_cmd) && m.payload.size() == reply.size())
            std::copy_n(m.payload.begin() + 4, LS_ENGG_CMD_SIZE, answer.begin() + 4);
        fake_reply(m.hdr, answer);
    };
}

bytes padded(bytes head, size_t size, const bytes &tail, size_t at) {
    head.resize(size);
    std::copy(tail.begin(), tail.end(), head.begin() + static_cast<std::ptrdiff_t>(at));
    return head;
}

int scm_conn_init(scm_conn *conn, uint8_t serv_id) {
    errno = fake.init_errno[fake.init_errno.contains(serv_id) ? serv_id : -1];
    if (errno != 0)
        return -1;
    const std::lock_guard guard(fake.delivery);
    fake.conn = conn;
    fake.serv_id = serv_id;
    return 0;
}

int scm_conn_exit(scm_conn *) {
    const std::lock_guard guard(fake.delivery); // no callback runs after this
    fake.conn = nullptr;
    return 0;
}

int fill_request_hdr(scm_conn *, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id, uint8_t dst) {
    *hdr = {LS_MSG_REQUEST, 0, fake.serv_id, dst, msg_id, next_txn++, pld_len, 0};
    return 0;
}

int fill_notif_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id, uint8_t dst) {
    fill_request_hdr(conn, hdr, pld_len, msg_id, dst);
    hdr->msg_type = LS_MSG_NOTIFICATION;
    return 0;
}

int send_msg(scm_conn *, const msg_hdr *hdr, const void *pld) {
    if (fake.send_errno != 0) {
        errno = fake.send_errno;
        return -1;
    }
    const auto *payload = static_cast<const uint8_t *>(pld);
    const sent_message message{*hdr, bytes(payload, payload + hdr->pld_len)};
    std::unique_lock guard(fake.lock);
    fake.sent.push_back(message);
    guard.unlock();
    if (fake.service)
        fake.service(message);
    return 0;
}
