// A bus directory of its own for every test, services that keep what they receive, and raw sockets
// that do what the library would not.
#ifndef BUS_FIXTURE_H
#define BUS_FIXTURE_H

#include "child.h"
#include "ls_descriptor.h"
#include "mqutils.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct received {
    msg_hdr hdr;
    std::string pld;
};

// One connection. `hook` runs on the receive thread, before the message is kept.
struct service : scm_conn {
    service() : scm_conn{} {}
    std::function<void(service &, const bus_msg &)> hook;
    std::mutex lock;
    std::condition_variable arrived;
    std::vector<received> messages; // under lock; [0] is the registration response

    int init(uint8_t id) {
        on_message = [](scm_conn *record, bus_msg *msg) {
            auto &self = *static_cast<service *>(record);
            if (self.hook)
                self.hook(self, *msg);
            const std::lock_guard guard(self.lock);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(msg->pld) % alignof(std::max_align_t), 0U);
            const char *bytes = msg->pld == nullptr ? "" : static_cast<const char *>(msg->pld);
            self.messages.push_back({msg->hdr, std::string(bytes, msg->hdr.pld_len)});
            self.arrived.notify_all();
            return 0;
        };
        return scm_conn_init(this, id);
    }
    bool wait_for(size_t count) {
        std::unique_lock guard(lock);
        return arrived.wait_for(guard, milliseconds(10000),
                                [&] { return messages.size() >= count; });
    }
    int notify(uint8_t dst, const std::string &pld) {
        msg_hdr hdr{};
        const auto length = static_cast<uint32_t>(pld.size());
        return fill_notif_hdr(this, &hdr, length, 1010, dst) == 0 ? send_msg(this, &hdr, pld.data())
                                                                  : -1;
    }
    ~service() { scm_conn_exit(this); }
};

class bus : public testing::Test {
  protected:
    scratch_dir scratch;
    const std::string dir = scratch.path();
    service self, peer; // 40 and 41 once started

    void SetUp() override {
        setenv("MQUTILS_DIR", dir.c_str(), 1);
        ASSERT_EQ(chmod(dir.c_str(), 0777), 0); // other users take part in some tests
        setenv("MQUTILS_SEND_TIMEOUT_MS", "200", 1);
        setenv("MQUTILS_LOG", "stderr", 1);
    }
    void start() {
        ASSERT_EQ(self.init(40), 0);
        ASSERT_EQ(peer.init(41), 0);
    }
    [[nodiscard]] std::string path_of(int id) const { return dir + "/" + std::to_string(id); }

    [[nodiscard]] sockaddr_un address_of(int id) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_of(id).copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    // A socket that owns `id` and reads nothing by itself.
    [[nodiscard]] ls_descriptor raw_owner(int id) const {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = address_of(id);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(chmod(address.sun_path, 0660), 0);
        return ls_descriptor(fd);
    }
    [[nodiscard]] bool raw_send(int id, std::string bytes, int attached_fd = -1) const {
        const ls_descriptor from(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = address_of(id);
        iovec part{bytes.data(), bytes.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        const cmsghdr item{CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        std::memcpy(control.data(), &item, sizeof item);
        std::memcpy(control.data() + CMSG_LEN(0), &attached_fd, sizeof attached_fd);
        const msghdr message{&address, sizeof address, &part,
                             1,        control.data(), attached_fd < 0 ? 0 : control.size(),
                             0};
        return sendmsg(from.fd, &message, 0) == static_cast<ssize_t>(bytes.size());
    }
    // Runs `body` while this thread is interrupted by `handler` again and again.
    template <typename Body>
    static void under_signals(void (*handler)(int), std::chrono::microseconds interval, Body body) {
        signal(SIGUSR1, handler);
        std::jthread signals([interval, to = pthread_self()](const std::stop_token &stop) {
            while (!stop.stop_requested()) {
                pthread_kill(to, SIGUSR1);
                std::this_thread::sleep_for(interval);
            }
        });
        body();
    }
};

inline int64_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The bytes of a message 1010 with transaction id 7, mostly a notification.
inline std::string datagram(uint8_t src, uint8_t dst, uint32_t claimed_length, size_t length,
                            uint8_t type = 2) {
    const msg_hdr hdr{type, 0, src, dst, 1010, 7, claimed_length, 0};
    return std::string(reinterpret_cast<const char *>(&hdr), 20) + std::string(length, 'x');
}

// What goes to stderr meanwhile.
template <typename Body>
std::string logged_by(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

inline int64_t elapsed_ms(steady_clock::time_point since) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - since).count();
}

#endif
