// What the bus delivers of the datagrams that reach a service: the input is one datagram, sent raw
// from the socket of service 9 to service 8, and a good message behind it. The input must arrive as
// a message exactly when it is one, and never keep the good one from arriving.
#include "fuzz_target.h"

#include "mqutils.h"
#include "scratch_dir.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace {

constexpr uint8_t receiver_id = 8;
constexpr uint8_t sender_id = 9;
constexpr uint32_t sentinel = 0xC0FFEE;
constexpr auto patience = std::chrono::seconds(10);

// Under `lock`.
std::mutex lock;
std::condition_variable changed;
std::vector<std::vector<uint8_t>> delivered; // since the last input, without the good message
bool sentinel_came = false;

int on_message(scm_conn *, bus_msg *msg) {
    if (msg->hdr.src_serv_id == 0)
        return 0; // the bus itself: registered
    const std::lock_guard guard(lock);
    sentinel_came |= msg->hdr.reserved1 == sentinel;
    if (!sentinel_came) {
        const auto *const head = reinterpret_cast<const uint8_t *>(&msg->hdr);
        const auto *const payload = static_cast<const uint8_t *>(msg->pld);
        delivered.emplace_back(head, head + sizeof msg->hdr);
        delivered.back().insert(delivered.back().end(), payload, payload + msg->hdr.pld_len);
    }
    changed.notify_all();
    return 0;
}

struct bus {
    scratch_dir dir;
    scm_conn conn = {};
    int fd = -1;

    bus() {
        setenv("MQUTILS_DIR", dir.path().c_str(), 1);
        conn.on_message = on_message;
        fuzz_expect(scm_conn_init(&conn, receiver_id) == 0, "the service is on the bus");
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        fuzz_expect(use(bind, sender_id) && use(connect, receiver_id), "the sender is on the bus");
    }
    bool use(int (*call)(int, const sockaddr *, socklen_t), uint8_t id) const {
        sockaddr_un at = {AF_UNIX, {}};
        snprintf(at.sun_path, sizeof at.sun_path, "%s/%u", dir.path().c_str(), id);
        return call(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at) == 0;
    }
};

// The two services that have a socket here belong to this user; nobody else can be believed.
bool is_message(const uint8_t *data, size_t size) {
    msg_hdr hdr = {};
    if (size < sizeof hdr)
        return false;
    memcpy(&hdr, data, sizeof hdr);
    return hdr.pld_len == size - sizeof hdr && hdr.dst_serv_id == receiver_id &&
           (hdr.src_serv_id == sender_id || hdr.src_serv_id == receiver_id);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bus the_bus;
    msg_hdr hdr = {};
    memcpy(&hdr, data, std::min(size, sizeof hdr));
    if (hdr.reserved1 == sentinel)
        return 0; // would pass for the good one
    {
        const std::lock_guard guard(lock);
        delivered.clear();
        sentinel_came = false;
    }
    const msg_hdr good = {0, 0, sender_id, receiver_id, 0, 0, 0, sentinel};
    fuzz_expect(send(the_bus.fd, data, size, 0) == static_cast<ssize_t>(size) &&
                    send(the_bus.fd, &good, sizeof good, 0) == sizeof good,
                "datagrams go out");

    std::unique_lock held(lock);
    fuzz_expect(changed.wait_for(held, patience, [] { return sentinel_came; }),
                "the message behind it arrives");
    const std::vector<std::vector<uint8_t>> wanted(is_message(data, size) ? 1 : 0,
                                                   std::vector<uint8_t>(data, data + size));
    fuzz_expect(delivered == wanted, "a datagram is delivered as it is when it is a message");
    return 0;
}
