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

std::vector<uint8_t> as_bytes(const msg_hdr &hdr, const void *payload) {
    std::vector<uint8_t> bytes(sizeof hdr + hdr.pld_len);
    memcpy(bytes.data(), &hdr, sizeof hdr);
    if (hdr.pld_len != 0)
        memcpy(bytes.data() + sizeof hdr, payload, hdr.pld_len);
    return bytes;
}

int on_message(scm_conn *, bus_msg *msg) {
    if (msg->hdr.src_serv_id == 0)
        return 0; // the bus itself: registered
    const std::lock_guard guard(lock);
    if (msg->hdr.reserved1 == sentinel)
        sentinel_came = true;
    else
        delivered.push_back(as_bytes(msg->hdr, msg->pld));
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
        const sockaddr_un own = address(sender_id);
        const sockaddr_un to = address(receiver_id);
        fuzz_expect(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
                        connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0,
                    "the sender is on the bus");
    }

    sockaddr_un address(uint8_t id) const {
        sockaddr_un out{};
        out.sun_family = AF_UNIX;
        snprintf(out.sun_path, sizeof out.sun_path, "%s/%u", dir.path().c_str(), id);
        return out;
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
    msg_hdr good = {};
    good.src_serv_id = sender_id;
    good.dst_serv_id = receiver_id;
    good.reserved1 = sentinel;
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
