// What is delivered, what is dropped.

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

TEST_F(bus, late_answer_to_the_previous_owner_is_not_delivered_to_the_next) {
    msg_hdr asked{}, answer{};
    ASSERT_EQ(peer.init(41), 0);
    for (const bool late : {false, true}) {
        service tool; // the next one that takes the id
        ASSERT_EQ(tool.init(40), 0);
        ASSERT_EQ(late ? 0 : fill_request_hdr(&tool, &asked, 0, 1011, 41), 0);
        const bus_msg request{asked, nullptr};
        ASSERT_EQ(fill_response_hdr(&peer, &answer, &request, 4), 0);
        ASSERT_EQ(send_msg(&peer, &answer, "late"), 0);
        ASSERT_EQ(peer.notify(40, "good"), 0);
        ASSERT_TRUE(tool.wait_for(late ? 2 : 3));
        EXPECT_EQ(tool.messages[1].pld, late ? "good" : "late");
    }
}

// /dev is the child's own; what would log to it must not wait for it.
TEST_F(bus, log_daemon_that_hangs_holds_up_nothing) {
    const int result = run_in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            return 77;
        const int hung = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        if (bind(hung, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            return 1;
        while (sendto(hung, "", 0, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&address),
                      sizeof address) == 0) {
        }
        unsetenv("MQUTILS_LOG"); // stderr would take the line
        start();
        const auto dropped_and_good = [&](size_t count) {
            return raw_send(40, "short") && peer.notify(40, "good") == 0 && self.wait_for(count);
        };
        const bool sent = dropped_and_good(2);
        // It lives again: the next line tells what was lost.
        std::array<char, 512> line{};
        while (recv(hung, line.data(), line.size() - 1, MSG_DONTWAIT) >= 0) {
        }
        const bool again = dropped_and_good(3);
        recv(hung, line.data(), line.size() - 1, MSG_DONTWAIT);
        return sent && again && std::strstr(line.data(), "1 more datagrams dropped") ? 0 : 2;
    });
    if (result == 77)
        GTEST_SKIP() << "needs to make a mount namespace";
    EXPECT_EQ(result, 0);
}

} // namespace
