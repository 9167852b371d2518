// A bus directory of its own for every test, services that keep what they receive, and raw sockets
// that do what the library would not.
#ifndef BUS_FIXTURE_H
#define BUS_FIXTURE_H

#include "mqutils.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
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
            if (self.hook) {
                self.hook(self, *msg);
            }
            const std::lock_guard guard(self.lock);
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
    int notify(uint8_t dst, const std::string &pld, uint32_t msg_id = 1010) {
        msg_hdr hdr{};
        const auto length = static_cast<uint32_t>(pld.size());
        return fill_notif_hdr(this, &hdr, length, msg_id, dst) == 0
                   ? send_msg(this, &hdr, pld.data())
                   : -1;
    }
    ~service() { scm_conn_exit(this); }
};

class bus : public testing::Test {
  protected:
    std::string dir = (std::filesystem::temp_directory_path() / "mqutils.XXXXXX").string();

    void SetUp() override {
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        use_directory(dir);
        setenv("MQUTILS_SEND_TIMEOUT_MS", "200", 1);
        setenv("MQUTILS_LOG", "stderr", 1);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    void use_directory(const std::string &path) {
        setenv("MQUTILS_DIR", path.c_str(), 1);
        // Other users take part in some tests.
        ASSERT_EQ(chmod(path.c_str(), 0777), 0);
    }
    [[nodiscard]] std::string path_of(int id) const { return dir + "/" + std::to_string(id); }

    [[nodiscard]] sockaddr_un address_of(int id) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_of(id).copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    // A socket that owns `id` and reads nothing by itself.
    [[nodiscard]] int raw_owner(int id) const {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = address_of(id);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    [[nodiscard]] bool raw_send(int id, std::string bytes, int attached_fd = -1) const {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int room = 1 << 20;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        sockaddr_un address = address_of(id);
        iovec part{bytes.data(), bytes.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_name = &address;
        message.msg_namelen = sizeof address;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (attached_fd >= 0) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr *item = CMSG_FIRSTHDR(&message);
            *item = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            std::memcpy(CMSG_DATA(item), &attached_fd, sizeof attached_fd);
        }
        const ssize_t sent = sendmsg(fd, &message, 0);
        close(fd);
        return sent == static_cast<ssize_t>(bytes.size());
    }
    // Runs `body` in a child process; its result, or -1 when the child was killed.
    template <typename Body>
    static int in_child(Body body) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(body());
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

inline int64_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The bytes of a notification 1010 with transaction id 7.
inline std::string datagram(int src, int dst, size_t claimed_length, size_t length) {
    std::string bytes("\x02\x00\x00\x00\xf2\x03\x00\x00\x07\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                      "\x00",
                      20);
    bytes[2] = static_cast<char>(src);
    bytes[3] = static_cast<char>(dst);
    for (size_t i = 0; i < 4; ++i) {
        bytes[12 + i] = static_cast<char>(claimed_length >> (8 * i));
    }
    return bytes + std::string(length, 'x');
}

inline int64_t elapsed_ms(steady_clock::time_point since) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - since).count();
}

#endif
