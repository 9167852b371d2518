// Who gets a service id.

#include "bus_fixture.h"

#include <atomic>
#include <barrier>
#include <csignal>
#include <fstream>
#include <thread>

namespace {

TEST_F(bus, second_owner_is_refused_and_the_first_keeps_working) {
    service first;
    service second;
    service other;
    const mode_t before = umask(0077);
    ASSERT_EQ(first.init(40), 0);
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(path_of(40).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666U); // other users may send, whatever the umask
    ASSERT_EQ(second.init(40), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    ASSERT_EQ(other.init(41), 0);
    EXPECT_EQ(other.notify(40, "still there"), 0);
    EXPECT_TRUE(first.wait_for(2));
}

TEST_F(bus, id_of_a_killed_owner_is_free) {
    EXPECT_EQ(in_child([] {
                  static service killed;
                  return killed.init(40) == 0 ? raise(SIGKILL) : 1;
              }),
              -1);
    ASSERT_TRUE(std::filesystem::is_socket(path_of(40)));
    service next;
    EXPECT_EQ(next.init(40), 0);
}

TEST_F(bus, of_racing_starters_one_wins) {
    constexpr int starters = 4;
    for (int round = 0; round < 100; ++round) {
        if (round % 2 == 0) {
            close(raw_owner(40)); // leaves a stale socket
        }
        std::array<service, starters> services;
        std::barrier start(starters);
        std::atomic<int> won{0};
        std::atomic<int> refused{0};
        std::vector<std::jthread> threads;
        threads.reserve(starters);
        for (service &self : services) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                const int result = self.init(40);
                won += result == 0;
                refused += result != 0 && errno == EADDRINUSE;
            });
        }
        threads.clear();
        ASSERT_EQ(won, 1) << "round " << round;
        ASSERT_EQ(refused, starters - 1) << "round " << round;
    }
}

TEST_F(bus, init_says_why_it_failed) {
    std::ofstream(path_of(40)) << "precious";
    std::filesystem::create_symlink(path_of(40), path_of(41));
    service used;
    ASSERT_EQ(used.init(42), 0);
    struct {
        const char *name;
        const char *directory;
        uint8_t id;
        bool without_callback;
        int error;
    } const rows[] = {
        {"id 0 is the bus", dir.c_str(), 0, false, EINVAL},
        {"no callback", dir.c_str(), 50, true, EINVAL},
        {"not a directory", "/dev/null", 50, false, ENOTDIR},
        {"a file in the way", dir.c_str(), 40, false, ENOTSOCK},
        {"a link to a file in the way", dir.c_str(), 41, false, ENOTSOCK},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        setenv("MQUTILS_DIR", row.directory, 1);
        scm_conn record{};
        record.on_message = row.without_callback ? nullptr : used.on_message;
        EXPECT_EQ(scm_conn_init(&record, row.id), -1);
        EXPECT_EQ(errno, row.error);
    }
    EXPECT_EQ(used.init(50), -1);
    EXPECT_EQ(errno, EISCONN);
    EXPECT_EQ(std::filesystem::file_size(path_of(40)), 8U);
}

TEST_F(bus, directory_permissions_decide_who_may_own) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs to become another user";
    }
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
    EXPECT_EQ(in_child([] {
                  static service stranger;
                  return setuid(65534) == 0 && stranger.init(40) == -1 ? errno : 0;
              }),
              EACCES);
}

TEST_F(bus, directory_with_a_long_or_relative_name) {
    const auto start = std::filesystem::current_path();
    // 104 characters with the slash leave just room for "255"; one more does not.
    for (const size_t length : {size_t{103}, size_t{104}, size_t{250}, size_t{0}}) {
        SCOPED_TRACE(length);
        std::string path = length == 0 ? "relative" : dir + "/";
        std::filesystem::current_path(dir);
        path.append(length == 0 ? 0 : length - path.size(), 'd');
        ASSERT_TRUE(std::filesystem::create_directory(path));
        use_directory(path);
        service long_named;
        service peer;
        ASSERT_EQ(long_named.init(255), 0);
        ASSERT_EQ(peer.init(254), 0);
        std::filesystem::current_path(start);
        EXPECT_EQ(peer.notify(255, "hello"), 0);
        EXPECT_TRUE(long_named.wait_for(2));
    }
}

} // namespace
