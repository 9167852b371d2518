// What is delivered, what is dropped.

#include "bus_fixture.h"

namespace {

TEST_F(bus, registration_response_comes_first_on_a_thread_without_signals) {
    int blocked = 0;
    self.hook = [&](service &, const bus_msg &) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (const int signal : {SIGTERM, SIGUSR1, SIGRTMIN})
            blocked += sigismember(&mask, signal);
    };
    ASSERT_EQ(self.init(40), 0);
    ASSERT_TRUE(self.wait_for(1));
    constexpr std::array<unsigned char, 20> expected = {1, 0, 0, 40, 0x97, 1};
    EXPECT_EQ(std::memcmp(&self.messages[0].hdr, expected.data(), expected.size()), 0);
    EXPECT_EQ(blocked, 3);
}

// Service 41 is alive, 42 absent, 43 a plain file, 44 a link to nothing.
TEST_F(bus, drops_are_logged_and_the_next_good_one_arrives) {
    const struct {
        const char *name;
        std::string bytes;
        const char *reason; // empty = delivered
        int descriptor = -1;
    } rows[] = {
        {"empty", "", "shorter than a header"},
        {"byte short of a header", datagram(41, 40, 0, 0).substr(0, 19), "shorter than a header"},
        {"length one less", datagram(41, 40, 4, 5), "payload length is not that of the header"},
        {"length one more", datagram(41, 40, 6, 5), "payload length is not that of the header"},
        {"longest", datagram(41, 40, 65516, 65516), ""},
        {"one too long cut to fit", datagram(41, 40, 65516, 65517), "longer than 65536 bytes"},
        {"other service", datagram(41, 41, 0, 0), "addressed to another service"},
        {"bus as source", datagram(0, 40, 0, 0), "no such sending service"},
        {"file as source", datagram(43, 40, 0, 0), "no such sending service"},
        {"link to nothing as source", datagram(44, 40, 0, 0), "no such sending service"},
        {"descriptor attached", datagram(41, 40, 0, 0), "carries more than data", STDIN_FILENO},
    };
    ASSERT_EQ(peer.init(41), 0);
    scratch_dir::write(path_of(43), "no socket");
    std::filesystem::create_symlink(path_of(42), path_of(44));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        testing::internal::CaptureStderr();
        service receiver;
        ASSERT_EQ(receiver.init(40), 0);
        const int64_t descriptors = open_descriptors();
        ASSERT_TRUE(raw_send(40, row.bytes, row.descriptor));
        ASSERT_EQ(peer.notify(40, "good"), 0);
        const bool delivered = *row.reason == '\0';
        ASSERT_TRUE(receiver.wait_for(delivered ? 3 : 2));
        EXPECT_EQ(open_descriptors(), descriptors);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(receiver.messages[1].pld, delivered ? row.bytes.substr(20) : "good");
        EXPECT_EQ(receiver.messages.back().pld, "good");
        EXPECT_NE(log.find(row.reason), std::string::npos) << log;
    }
}

TEST_F(bus, sender_must_be_the_user_who_owns_the_socket) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs to become another user";
    const int foreign = raw_owner(42);
    ASSERT_EQ(chown(path_of(42).c_str(), 65534, 65534), 0);
    start();
    EXPECT_EQ(run_in_child([&] {
                  return setuid(65534) == 0 && raw_send(40, datagram(41, 40, 1, 1)) &&
                         raw_send(40, datagram(42, 40, 2, 2));
              }),
              1);
    ASSERT_TRUE(raw_send(40, datagram(42, 40, 3, 3))); // root is not the owner either
    ASSERT_EQ(peer.notify(40, "good"), 0);
    EXPECT_TRUE(self.wait_for(3));
    ASSERT_EQ(self.messages.size(), 3U);
    EXPECT_EQ(self.messages[1].pld, "xx");
    EXPECT_EQ(self.messages[2].pld, "good");
    close(foreign);
}

} // namespace
