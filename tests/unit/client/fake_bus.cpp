#include "fake_bus.h"

#include <atomic>
#include <cerrno>

fake_bus fake;

namespace {

std::atomic<uint32_t> next_txn{1};

int fill(msg_hdr *hdr, uint8_t type, uint32_t pld_len, uint32_t msg_id, uint8_t dst) {
    *hdr = {};
    hdr->msg_type = type;
    hdr->src_serv_id = static_cast<uint8_t>(fake.serv_id);
    hdr->dst_serv_id = dst;
    hdr->msg_id = msg_id;
    hdr->txn_id = next_txn++;
    hdr->pld_len = pld_len;
    return 0;
}

} // namespace

void fake_reset() {
    fake.init_errno.clear();
    fake.send_errno = 0;
    fake.service = nullptr;
    const std::lock_guard guard(fake.lock);
    fake.sent.clear();
}

std::vector<sent_message> fake_sent(uint32_t msg_id) {
    const std::lock_guard guard(fake.lock);
    std::vector<sent_message> found;
    for (const sent_message &message : fake.sent) {
        if (message.hdr.msg_id == msg_id) {
            found.push_back(message);
        }
    }
    return found;
}

void fake_deliver(const msg_hdr &hdr, const bytes &payload) {
    bytes copy = payload;
    bus_msg msg{hdr, copy.empty() ? nullptr : copy.data()};
    const std::lock_guard guard(fake.delivery);
    if (fake.conn != nullptr) { // a late reply may find nobody
        fake.conn->on_message(fake.conn, &msg);
    }
}

void fake_reply(const msg_hdr &request, const bytes &payload) {
    msg_hdr hdr = request;
    hdr.msg_type = LS_MSG_RESPONSE;
    hdr.src_serv_id = request.dst_serv_id;
    hdr.dst_serv_id = request.src_serv_id;
    hdr.pld_len = static_cast<uint32_t>(payload.size());
    fake_deliver(hdr, payload);
}

void fake_send(ls_msg_type type, uint32_t msg_id, const bytes &payload) {
    msg_hdr hdr{};
    hdr.msg_type = type;
    hdr.src_serv_id = LS_OWN_SERV_ID;
    hdr.msg_id = msg_id;
    hdr.pld_len = static_cast<uint32_t>(payload.size());
    fake_deliver(hdr, payload);
}

bytes padded(bytes head, size_t size) {
    head.resize(size);
    return head;
}

int scm_conn_init(scm_conn *conn, uint8_t serv_id) {
    const int key = fake.init_errno.contains(serv_id) ? serv_id : -1;
    if (fake.init_errno[key] != 0) {
        errno = fake.init_errno[key];
        return -1;
    }
    const std::lock_guard guard(fake.delivery);
    fake.conn = conn;
    fake.serv_id = serv_id;
    return 0;
}

int scm_conn_exit(scm_conn *) {
    const std::lock_guard guard(fake.delivery); // no callback runs after this
    fake.conn = nullptr;
    fake.serv_id = -1;
    return 0;
}

int fill_request_hdr(scm_conn *, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id, uint8_t dst) {
    return fill(hdr, LS_MSG_REQUEST, pld_len, msg_id, dst);
}

int fill_notif_hdr(scm_conn *, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id, uint8_t dst) {
    return fill(hdr, LS_MSG_NOTIFICATION, pld_len, msg_id, dst);
}

int send_msg(scm_conn *, const msg_hdr *hdr, const void *pld) {
    if (fake.send_errno != 0) {
        errno = fake.send_errno;
        return -1;
    }
    sent_message message{*hdr, bytes(hdr->pld_len)};
    if (hdr->pld_len != 0) {
        std::memcpy(message.payload.data(), pld, hdr->pld_len);
    }
    {
        const std::lock_guard guard(fake.lock);
        fake.sent.push_back(message);
    }
    if (fake.service) {
        fake.service(message);
    }
    return 0;
}
