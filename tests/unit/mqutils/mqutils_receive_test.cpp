// What is delivered, what is dropped.

#include "bus_fixture.h"

#include <pthread.h>

#include <csignal>
#include <cstddef>
#include <fstream>

namespace {

TEST_F(bus, registration_response_comes_first_on_a_thread_without_signals) {
    service self;
    int blocked = 0;
    std::array<char, 16> name{};
    self.hook = [&](service &, const bus_msg &) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (const int signal : {SIGTERM, SIGHUP, SIGALRM, SIGUSR1, SIGRTMIN, SIGRTMAX}) {
            blocked += sigismember(&mask, signal);
        }
        pthread_getname_np(pthread_self(), name.data(), name.size());
    };
    ASSERT_EQ(self.init(40), 0);
    ASSERT_TRUE(self.wait_for(1));
    const msg_hdr &hdr = self.messages[0].hdr;
    constexpr std::array<unsigned char, 20> expected = {1, 0, 0, 40, 0x97, 1};
    EXPECT_EQ(std::memcmp(&hdr, expected.data(), expected.size()), 0);
    EXPECT_EQ(blocked, 6);
    EXPECT_STREQ(name.data(), "mqutils-40");
    sigset_t mine;
    pthread_sigmask(SIG_BLOCK, nullptr, &mine);
    EXPECT_FALSE(sigismember(&mine, SIGTERM));
}

struct drop_row {
    const char *name;
    std::string bytes;
    const char *reason; // null = delivered
    bool with_descriptor = false;
};

// Service 41 is alive, 42 absent, 43 a plain file, 44 a link to the socket of 41.
const drop_row drop_rows[] = {
    {"empty", "", "shorter than a header"},
    {"byte_short_of_a_header", datagram(41, 40, 0, 0).substr(0, 19), "shorter than a header"},
    {"header_alone", datagram(41, 40, 0, 0), nullptr},
    {"length_one_less", datagram(41, 40, 4, 5), "payload length is not that of the header"},
    {"length_exact", datagram(41, 40, 5, 5), nullptr},
    {"length_one_more", datagram(41, 40, 6, 5), "payload length is not that of the header"},
    {"longest", datagram(41, 40, 65516, 65516), nullptr},
    {"one_too_long", datagram(41, 40, 65517, 65517), "longer than 65536 bytes"},
    {"one_too_long_cut_to_fit", datagram(41, 40, 65516, 65517), "longer than 65536 bytes"},
    {"other_service", datagram(41, 41, 0, 0), "addressed to another service"},
    {"absent_source", datagram(42, 40, 0, 0), "no such sending service"},
    {"bus_as_source", datagram(0, 40, 0, 0), "no such sending service"},
    {"file_as_source", datagram(43, 40, 0, 0), "no such sending service"},
    {"link_as_source", datagram(44, 40, 0, 0), "no such sending service"},
    {"descriptor_attached", datagram(41, 40, 0, 0), "carries more than data", true},
};

class drops : public bus, public testing::WithParamInterface<drop_row> {};

TEST_P(drops, are_logged_and_the_next_good_one_arrives) {
    const drop_row &row = GetParam();
    testing::internal::CaptureStderr();
    service self;
    service good;
    ASSERT_EQ(self.init(40), 0);
    ASSERT_EQ(good.init(41), 0);
    std::ofstream(path_of(43)) << "no socket";
    std::filesystem::create_symlink(path_of(41), path_of(44));
    const int64_t descriptors = open_descriptors();
    ASSERT_TRUE(raw_send(40, row.bytes, row.with_descriptor ? STDIN_FILENO : -1));
    ASSERT_EQ(good.notify(40, "good"), 0);
    const size_t expected = row.reason == nullptr ? 3 : 2;
    EXPECT_TRUE(self.wait_for(expected));
    EXPECT_EQ(open_descriptors(), descriptors);
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(self.messages.size(), expected);
    EXPECT_EQ(self.messages.back().pld, "good");
    if (row.reason == nullptr) {
        EXPECT_EQ(log, "");
        EXPECT_EQ(self.messages[1].pld, row.bytes.substr(20));
    } else {
        EXPECT_NE(log.find(row.reason), std::string::npos) << log;
        EXPECT_NE(log.find("service 40 dropped a datagram of " + std::to_string(row.bytes.size())),
                  std::string::npos)
            << log;
    }
}

INSTANTIATE_TEST_SUITE_P(rows, drops, testing::ValuesIn(drop_rows),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(bus, sender_must_be_the_user_who_owns_the_socket) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs to become another user";
    }
    service self;
    service owner;
    testing::internal::CaptureStderr();
    const int foreign = raw_owner(42);
    ASSERT_EQ(chown(path_of(42).c_str(), 65534, 65534), 0);
    ASSERT_EQ(self.init(40), 0);
    ASSERT_EQ(owner.init(41), 0);
    EXPECT_EQ(in_child([&] {
                  return setuid(65534) == 0 && raw_send(40, datagram(41, 40, 1, 1)) &&
                                 raw_send(40, datagram(42, 40, 2, 2))
                             ? 0
                             : 1;
              }),
              0);
    ASSERT_TRUE(raw_send(40, datagram(42, 40, 3, 3))); // root is not the owner either
    ASSERT_EQ(owner.notify(40, "good"), 0);
    EXPECT_TRUE(self.wait_for(3));
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(self.messages.size(), 3U);
    EXPECT_EQ(self.messages[1].pld, "xx");
    EXPECT_EQ(self.messages[2].pld, "good");
    EXPECT_NE(log.find("uid 65534): sending service belongs to another user"), std::string::npos);
    EXPECT_NE(log.find("uid 0): sending service belongs to another user"), std::string::npos);
    close(foreign);
}

TEST_F(bus, many_messages_arrive_in_order_and_aligned) {
    constexpr size_t count = 3000;
    service self;
    service peer;
    std::atomic<bool> aligned{true};
    self.hook = [&](service &, const bus_msg &msg) {
        if (reinterpret_cast<uintptr_t>(msg.pld) % alignof(std::max_align_t) != 0) {
            aligned = false;
        }
    };
    ASSERT_EQ(self.init(40), 0);
    ASSERT_EQ(peer.init(41), 0);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(peer.notify(40, std::to_string(i)), 0) << i << strerror(errno);
    }
    ASSERT_TRUE(self.wait_for(count + 1));
    EXPECT_TRUE(aligned);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(self.messages[i + 1].pld, std::to_string(i));
        ASSERT_EQ(self.messages[i + 1].hdr.txn_id, i + 1);
    }
}

TEST_F(bus, flood_of_rubbish_leaves_few_lines_and_their_number) {
    testing::internal::CaptureStderr();
    {
        service self;
        service good;
        ASSERT_EQ(self.init(40), 0);
        ASSERT_EQ(good.init(41), 0);
        for (int i = 0; i < 200; ++i) {
            ASSERT_TRUE(raw_send(40, "rubbish"));
        }
        ASSERT_EQ(good.notify(40, ""), 0);
        ASSERT_TRUE(self.wait_for(2));
    }
    const std::string log = testing::internal::GetCapturedStderr();
    // Five lines, the number of the rest, and at most one more window of a slow machine.
    EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 12) << log;
    EXPECT_NE(log.find(" more datagrams dropped without a line"), std::string::npos) << log;
}

} // namespace
