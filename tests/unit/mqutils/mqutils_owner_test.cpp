// Who gets a service id, and how it is given back.

#include "bus_fixture.h"

#include <barrier>

namespace {

TEST_F(bus, of_racing_starters_one_wins_also_over_a_dead_owner) {
    constexpr int starters = 4;
    for (int round = 0; round < 100; ++round) {
        if (round % 2 == 1)
            static_cast<void>(raw_owner(40)); // leaves a stale socket
        std::array<service, starters> services;
        std::barrier start(starters);
        std::atomic<int> won{0}, refused{0};
        std::vector<std::jthread> threads;
        threads.reserve(starters);
        for (service &starter : services) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                const int result = starter.init(40);
                won += result == 0;
                refused += result != 0 && errno == EADDRINUSE;
            });
        }
        threads.clear();
        ASSERT_EQ(won, 1) << "round " << round;
        ASSERT_EQ(refused, starters - 1) << "round " << round;
    }
}

TEST_F(bus, exit_gives_everything_back_but_what_is_not_its_own_stays) {
    const int64_t descriptors = open_descriptors();
    for (int round = 0; round < 100; ++round) { // more than there are connections
        ASSERT_EQ(self.init(40), 0) << round << ": " << strerror(errno);
        ASSERT_EQ(scm_conn_exit(&self), 0);
        ASSERT_FALSE(std::filesystem::exists(path_of(40)));
        ASSERT_EQ(scm_conn_exit(&self), -1);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    ASSERT_EQ(self.init(40), 0);
    ASSERT_TRUE(std::filesystem::remove(path_of(40)));
    const ls_descriptor other = raw_owner(40); // a socket that is not its own stays
    EXPECT_EQ(scm_conn_exit(&self), 0);
    EXPECT_TRUE(std::filesystem::exists(path_of(40)));
    scratch_dir::write(path_of(41), "precious");
    EXPECT_EQ(peer.init(41), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(scratch_dir::read(path_of(41)), "precious");
    EXPECT_EQ(peer.init(0), -1) << "the bus itself";
}

TEST_F(bus, forked_child_does_not_end_its_parents_connection) {
    start();
    EXPECT_EQ(run_in_child([&] { return scm_conn_exit(&self) == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(peer.notify(40, "still there"), 0);
    EXPECT_TRUE(self.wait_for(2));
}

TEST_F(bus, exit_amid_traffic_refuses_sends_and_ends_callbacks) {
    ASSERT_EQ(peer.init(41), 0);
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> ended{false}, late{false};
        std::atomic<int> error{0};
        self.messages.clear();
        self.hook = [&](service &, const bus_msg &) { late = late || ended; };
        ASSERT_EQ(self.init(40), 0);
        std::jthread incoming([&] {
            while (peer.notify(40, "m") == 0 || errno == EAGAIN) {
            }
        });
        std::jthread outgoing([&] {
            while (self.notify(41, "m") == 0 || errno == EAGAIN) {
            }
            error = errno;
        });
        EXPECT_TRUE(self.wait_for(20));
        EXPECT_EQ(scm_conn_exit(&self), 0);
        ended = true;
        outgoing.join();
        EXPECT_EQ(error, ENOTCONN);
        EXPECT_FALSE(late);
    }
}

// The receiver learns who sent by looking at a file that exit removes.
TEST_F(bus, last_words_of_a_service_that_leaves_are_believed) {
    std::atomic<bool> hangs{false};
    self.hook = [&](service &, const bus_msg &) {
        do
            std::this_thread::sleep_for(milliseconds(10));
        while (hangs);
    };
    setenv("MQUTILS_SEND_TIMEOUT_MS", "1000", 1);
    start();
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(peer.notify(40, "goodbye"), 0);
    EXPECT_EQ(scm_conn_exit(&peer), 0);
    EXPECT_FALSE(std::filesystem::exists(path_of(41)));
    EXPECT_TRUE(self.wait_for(7));

    hangs = true; // longer than the sender waits
    ASSERT_EQ(peer.init(41), 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(peer.notify(40, "goodbye"), 0);
    EXPECT_EQ(scm_conn_exit(&peer), -1);
    EXPECT_EQ(errno, EAGAIN);
    hangs = false;
    EXPECT_TRUE(self.wait_for(10));
    EXPECT_EQ(peer.init(41), 0); // over what stayed behind
}

} // namespace
