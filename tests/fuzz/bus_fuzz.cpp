// What the bus library makes of datagrams, under any policy.
//
// The policy up to a NUL; then datagrams to service 40, each behind its size (2 bytes). Service 41
// is alive. A transaction id of 0 becomes one that service 40 has given out.
#include "fuzz_target.h"

#include "mqutils.h"

#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

int check(scm_conn *, bus_msg *msg) {
    fuzz_expect((msg->pld == nullptr) == (msg->hdr.pld_len == 0), "there is a payload or none");
    const uint8_t from = msg->hdr.src_serv_id;
    fuzz_expect(msg->hdr.dst_serv_id == 40, "it is for this service");
    fuzz_expect(from == 40 || from == 41 || (from == 0 && msg->hdr.msg_id == 407),
                "from a live one");
    return 0;
}

const sockaddr *address(const sockaddr_un &of) {
    return reinterpret_cast<const sockaddr *>(&of);
}

int make_sender() {
    setenv("MQUTILS_DIR", ".", 1);
    constexpr sockaddr_un own = {AF_UNIX, "41"};
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    fuzz_expect(bind(fd, address(own), sizeof own) == 0, "41 is there");
    return fd;
}

} // namespace

void fuzz(fuzz_input input) {
    static const int sender = make_sender();
    constexpr sockaddr_un to = {AF_UNIX, "40"};
    scratch_dir::write("policy", std::string(input.until('\0')));
    scm_conn conn = {};
    conn.on_message = check;
    fuzz_expect(scm_conn_init(&conn, 40) == 0, "a service comes up, whatever the policy says");
    fuzz_expect(connect(sender, address(to), sizeof to) == 0, "and can be reached");
    msg_hdr hdr = {};
    fill_request_hdr(&conn, &hdr, 0, 1003, 41);
    while (!input.rest.empty()) {
        const size_t length = input.number<uint16_t>();
        std::string datagram(input.take(length));
        constexpr size_t at = offsetof(msg_hdr, txn_id);
        if (datagram.size() > at && datagram.compare(at, 4, std::string(4, '\0')) == 0)
            datagram.replace(at, 4, reinterpret_cast<const char *>(&hdr.txn_id), 4);
        fuzz_expect(write(sender, datagram.data(), datagram.size()) >= 0, "it is sent");
        for (int unread = 1; unread != 0; sched_yield())
            fuzz_expect(ioctl(sender, SIOCOUTQ, &unread) == 0, "what is unread is told");
    }
    fuzz_expect(scm_conn_exit(&conn) == 0, "it leaves");
}
