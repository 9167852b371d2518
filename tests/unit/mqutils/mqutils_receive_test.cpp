// What is delivered, what is dropped, what the policy file has to do with it.

#include "bus_fixture.h"

#include <sched.h>
#include <sys/mount.h>

namespace {

TEST_F(bus, registration_response_comes_first_without_signals_and_its_callback_may_end_all) {
    int blocked = 0, result = -2;
    self.hook = [&](service &me, const bus_msg &) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (const int signal : {SIGTERM, SIGUSR1, SIGRTMIN})
            blocked += sigismember(&mask, signal);
        result = scm_conn_exit(&me);
    };
    ASSERT_EQ(peer.init(41), 0);
    ASSERT_EQ(self.init(40), 0);
    ASSERT_TRUE(self.wait_for(1));
    constexpr std::array<unsigned char, 20> expected = {1, 0, 0, 40, 0x97, 1};
    EXPECT_EQ(std::memcmp(&self.messages[0].hdr, expected.data(), expected.size()), 0);
    EXPECT_EQ(blocked, 3);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(peer.notify(40, "too late"), -1);
    EXPECT_EQ(self.notify(41, "too late"), -1);
}

// Service 41 is alive, 42 absent, 43 a plain file.
TEST_F(bus, drops_are_logged_and_the_next_good_one_arrives) {
    const struct {
        const char *name;
        std::string bytes;
        const char *reason; // empty = delivered
        int descriptor = -1;
    } rows[] = {
        {"byte short of a header", datagram(41, 40, 0, 0).substr(0, 19), "shorter than a header"},
        {"length one less", datagram(41, 40, 4, 5), "payload length is not that of the header"},
        {"length one more", datagram(41, 40, 6, 5), "payload length is not that of the header"},
        {"longest", datagram(41, 40, 65516, 65516), ""},
        {"one too long cut to fit", datagram(41, 40, 65516, 65517), "longer than 65536 bytes"},
        {"other service", datagram(41, 41, 0, 0), "addressed to another service"},
        {"absent source", datagram(42, 40, 0, 0), "no such sending service"},
        {"file as source", datagram(43, 40, 0, 0), "no such sending service"},
        {"answer that the previous owner of the id may have asked for", datagram(41, 40, 0, 0, 1),
         "answers no request of this connection"},
        {"descriptor attached", datagram(41, 40, 0, 0), "carries more than data", STDIN_FILENO},
    };
    ASSERT_EQ(peer.init(41), 0);
    scratch_dir::write(path_of(43), "no socket");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        testing::internal::CaptureStderr();
        service receiver;
        ASSERT_EQ(receiver.init(40), 0);
        ASSERT_TRUE(raw_send(40, "")); // the first drop opens the log
        ASSERT_EQ(peer.notify(40, "good"), 0);
        ASSERT_TRUE(receiver.wait_for(2));
        const int64_t descriptors = open_descriptors();
        ASSERT_TRUE(raw_send(40, row.bytes, row.descriptor));
        ASSERT_EQ(peer.notify(40, "good"), 0);
        const bool delivered = *row.reason == '\0';
        ASSERT_TRUE(receiver.wait_for(delivered ? 4 : 3));
        EXPECT_EQ(open_descriptors(), descriptors);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(receiver.messages[2].pld, delivered ? row.bytes.substr(20) : "good");
        EXPECT_EQ(receiver.messages.back().pld, "good");
        EXPECT_NE(log.find(row.reason), std::string::npos) << log;
    }
}

// /dev is the child's own; what would log to it must not wait for it.
TEST_F(bus, log_daemon_that_hangs_holds_up_nothing) {
    const int result = run_in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            return 77;
        const ls_descriptor hung(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        const auto *const log = reinterpret_cast<const sockaddr *>(&address);
        if (bind(hung.fd, log, sizeof address) != 0)
            return 1;
        while (sendto(hung.fd, "", 0, 0, log, sizeof address) == 0) {
        }
        std::array<char, 512> line{};
        const auto reads = [&] { return recv(hung.fd, line.data(), line.size() - 1, 0) >= 0; };
        unsetenv("MQUTILS_LOG"); // stderr would take the line
        start();
        const auto dropped_and_good = [&](size_t count) {
            return raw_send(40, "short") && peer.notify(40, "good") == 0 && self.wait_for(count);
        };
        const bool sent = dropped_and_good(2);
        while (reads()) {
        }
        // It lives again: the next line tells what was lost.
        const bool told = dropped_and_good(3) && reads();
        return sent && told && std::strstr(line.data(), "1 more datagrams dropped") ? 0 : 2;
    });
    if (result == 77)
        GTEST_SKIP() << "needs to make a mount namespace";
    EXPECT_EQ(result, 0);
}

constexpr uint8_t request = 0, notification = 2;

class bus_policy : public bus {
  protected:
    void write(const std::string &text) const { scratch_dir::write(dir + "/policy", text); }

    // Whether 40 takes the message from 41; each policy here lets it take 1.
    [[nodiscard]] bool passes(uint32_t msg_id, uint8_t type) {
        service receiver;
        EXPECT_EQ(receiver.init(40), 0);
        for (const msg_hdr &hdr : {msg_hdr{type, 0, 41, 40, msg_id, 7, 0, 0},
                                   msg_hdr{notification, 0, 41, 40, 1, 7, 0, 0}})
            EXPECT_TRUE(raw_send(40, {reinterpret_cast<const char *>(&hdr), sizeof hdr}));
        EXPECT_TRUE(receiver.wait_for(2));
        const std::lock_guard guard(receiver.lock);
        return receiver.messages[1].hdr.msg_id == msg_id;
    }
};

TEST_F(bus_policy, says_what_passes_and_a_line_that_cannot_be_read_allows_nothing) {
    const struct {
        const char *lines; // behind one that allows message 1
        uint32_t msg_id;
        uint8_t type;
        bool passes, readable = true;
    } rows[] = {
        {"40: 18,1001-1007 request from any", 1007, request, true},
        {"40: 18,1001-1007 request from any", 1008, request, false},
        {"40: 18,1001-1007 request from any", 1007, notification, false},
        {"39-50 : 208 request,notification from 2,41-50 # SAL", 208, notification, true},
        {"39,41-50: 208 notification from any", 208, notification, false},
        {"40: 208 notification from 1-40,42-255", 208, notification, false},
        {"40: any any from any", 4294967295, notification, true},
        {"40: any any from any", 208, 3, false}, // there is no such type
        {"40: 18 request from 2\n40: other any from 41", 17, request, true},
        {"40: 18 request from 2\n40: other any from 41", 18, request, false},
        {"40 208 notification from any", 208, notification, false, false},
        {"256: 208 notification from any", 208, notification, false, false},
        {"40: 208 notice from any", 208, notification, false, false},
        {"40: 208 notification any", 208, notification, false, false},
        {"40: 208, notification from any", 208, notification, false, false},
        {"40: 209-208,208 notification from any", 208, notification, false, false},
        {"40: 208x notification from any", 208, notification, false, false},
        {"40: 208 notification from any 41", 208, notification, false, false},
        {"40: 208 notification from 0-255", 208, notification, false, false},
    };
    ASSERT_EQ(peer.init(41), 0);
    for (const auto &row : rows) {
        write(std::string("40: 1 notification from 41\n") + row.lines);
        bool passed = false;
        const std::string log = logged_by([&] { passed = passes(row.msg_id, row.type); });
        EXPECT_EQ(passed, row.passes) << row.lines;
        EXPECT_EQ(log.find("line 2 of the policy") == std::string::npos, row.readable)
            << row.lines << log;
        EXPECT_EQ(log.find("message " + std::to_string(row.msg_id) + ", type " +
                           std::to_string(row.type) + "; ") == std::string::npos,
                  row.passes)
            << row.lines << log;
    }
    write("39: 1 notification from 41"); // nothing about 40
    EXPECT_TRUE(passes(1003, request));
    write("nonsense"); // may have been meant for anybody
    service receiver;
    ASSERT_EQ(receiver.init(40), 0);
    ASSERT_EQ(peer.notify(40, "m"), 0);
    EXPECT_EQ(scm_conn_exit(&peer), 0); // it has been judged
    EXPECT_EQ(scm_conn_exit(&receiver), 0);
    EXPECT_EQ(receiver.messages.size(), 1U);
}

TEST_F(bus_policy, only_a_file_of_the_directorys_owner_is_believed) {
    const std::string path = dir + "/policy";
    const auto refused = [&] { return self.init(40) == -1 && errno == EBADMSG; };
    write("40: 1 notification from any");
    ASSERT_EQ(chmod(path.c_str(), 0664), 0);
    EXPECT_TRUE(refused());
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
        ASSERT_EQ(peer.init(41), 0);
        EXPECT_TRUE(passes(1003, request));
    }
    std::filesystem::rename(path, path + ".real");
    std::filesystem::create_symlink(path + ".real", path);
    EXPECT_TRUE(refused());
}

} // namespace
