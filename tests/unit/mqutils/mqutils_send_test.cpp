// What goes out, how a send fails, how long it may take.

#include "bus_fixture.h"

#include <sys/resource.h>

namespace {

TEST_F(bus, headers_are_filled_whole) {
    ASSERT_EQ(self.init(40), 0);
    const bus_msg req{{0, 9, 41, 40, 0x01020304, 0xaabbccdd, 0, 0}, nullptr};
    std::array<msg_hdr, 3> hdrs{};
    std::memset(hdrs.data(), 0xee, sizeof hdrs);
    ASSERT_EQ(fill_request_hdr(&self, &hdrs[0], 2, 1003, 41), 0);
    ASSERT_EQ(fill_notif_hdr(&self, &hdrs[1], 0, 1014, 41), 0);
    ASSERT_EQ(fill_response_hdr(&self, &hdrs[2], &req, 1), 0);
    const uint32_t first_id = hdrs[0].txn_id; // whatever it is
    const msg_hdr expected[] = {{0, 0, 40, 41, 1003, first_id, 2, 0},
                                {2, 0, 40, 41, 1014, first_id + 1, 0, 0},
                                {1, 0, 40, 41, 0x01020304, 0xaabbccdd, 1, 0}};
    EXPECT_EQ(std::memcmp(hdrs.data(), expected, sizeof expected), 0);
}

TEST_F(bus, send_says_why_it_failed) {
    start();
    static_cast<void>(raw_owner(42)); // dead at once
    scm_conn copy = self;
    const std::string pld(65517, 'p');
    const struct {
        const char *name;
        scm_conn *conn;
        uint8_t src, dst;
        uint32_t length;
        const char *pld;
        int error;
    } rows[] = {
        {"longest", &self, 40, 41, 65516, pld.data(), 0},
        {"too long", &self, 40, 41, 65517, pld.data(), EMSGSIZE},
        {"length without payload", &self, 40, 41, 1, nullptr, EINVAL},
        {"another's name", &self, 41, 41, 0, nullptr, EINVAL},
        {"absent", &self, 40, 50, 0, nullptr, ENOENT},
        {"dead", &self, 40, 42, 0, nullptr, ECONNREFUSED},
        {"copied record", &copy, 40, 41, 0, nullptr, ENOTCONN},
    };
    for (const auto &row : rows) {
        const msg_hdr hdr{2, 0, row.src, row.dst, 1010, 0, row.length, 0};
        errno = 0;
        EXPECT_EQ(send_msg(row.conn, &hdr, row.pld), row.error == 0 ? 0 : -1) << row.name;
        EXPECT_EQ(errno, row.error) << row.name;
    }
}

TEST_F(bus, send_works_without_a_descriptor_to_spare) {
    start();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(peer.notify(40, "m"), 0) << strerror(errno);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(self.wait_for(2));
}

// With a signal every few milliseconds no single system call gets to the end of its wait.
TEST_F(bus, full_peer_is_waited_for_within_the_bound_whatever_signals_arrive) {
    ASSERT_EQ(self.init(40), 0);
    const ls_descriptor deaf = raw_owner(41);
    for (int sent = 0; self.notify(41, "m") == 0; ++sent)
        ASSERT_LT(sent, 10000);
    under_signals([](int) {}, milliseconds(7),
                  [&] {
                      const auto start = steady_clock::now();
                      EXPECT_EQ(self.notify(41, "m"), -1);
                      EXPECT_EQ(errno, EAGAIN);
                      EXPECT_GE(elapsed_ms(start), 190);
                      EXPECT_LT(elapsed_ms(start), 1000);
                  });
}

// The first callback fills the service's own queue: were it to wait there, nobody could empty it.
TEST_F(bus, receive_thread_never_waits_not_even_for_itself) {
    std::atomic<size_t> sent{0};
    std::atomic<int64_t> took_ms{-1};
    self.hook = [&](service &me, const bus_msg &msg) {
        if (msg.hdr.msg_id != 407)
            return;
        auto start = steady_clock::now();
        for (; me.notify(40, "to myself") == 0; ++sent)
            start = steady_clock::now();
        took_ms = elapsed_ms(start);
    };
    ASSERT_EQ(self.init(40), 0);
    ASSERT_TRUE(self.wait_for(1));
    EXPECT_LT(took_ms, 150);
    EXPECT_TRUE(self.wait_for(sent + 1));
}

// What one peer leaves unread is that peer's own loss.
TEST_F(bus, peer_that_reads_nothing_takes_no_room_from_another) {
    setenv("MQUTILS_SEND_TIMEOUT_MS", "10", 1);
    start();
    const std::string large(60000, 'm');
    const ls_descriptor deaf[] = {raw_owner(50), raw_owner(51), raw_owner(52), raw_owner(53),
                                  raw_owner(54)}; // more than the largest buffer in all
    for (uint8_t id = 50; id < 55; ++id)
        while (self.notify(id, large) == 0) {
        }
    for (size_t round = 0; round < 20; ++round) {
        ASSERT_EQ(self.notify(41, large), 0) << strerror(errno);
        ASSERT_TRUE(peer.wait_for(round + 2));
    }
}

service *handler_service = nullptr;
std::atomic<size_t> handler_sends{0};

TEST_F(bus, signal_handler_may_send_in_the_middle_of_a_send) {
    start();
    handler_service = &self;
    size_t sent = 0;
    const auto send_from_handler = [](int) {
        const int saved = errno;
        handler_sends += handler_service->notify(41, "") == 0 ? 1 : 0;
        errno = saved;
    };
    under_signals(send_from_handler, std::chrono::microseconds(50), [&] {
        for (; sent < 1000 || handler_sends < 100; ++sent)
            ASSERT_EQ(self.notify(41, std::string(300, 'm')), 0) << strerror(errno);
    });
    EXPECT_TRUE(peer.wait_for(1 + sent + handler_sends));
}

} // namespace
