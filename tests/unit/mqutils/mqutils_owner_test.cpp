// Who gets a service id.

#include "bus_fixture.h"

#include <barrier>

namespace {

TEST_F(bus, other_users_may_send_whatever_the_umask) {
    const mode_t before = umask(0077);
    ASSERT_EQ(self.init(40), 0);
    umask(before);
    EXPECT_EQ(std::filesystem::status(path_of(40)).permissions(), std::filesystem::perms{0666});
}

TEST_F(bus, of_racing_starters_one_wins_also_where_an_owner_was_killed) {
    EXPECT_EQ(run_in_child([] {
                  static service killed;
                  return killed.init(40) == 0 ? raise(SIGKILL) : 1;
              }),
              -1);
    constexpr int starters = 4;
    for (int round = 0; round < 100; ++round) {
        if (round % 2 == 1)
            close(raw_owner(40)); // leaves a stale socket
        ASSERT_EQ(std::filesystem::exists(path_of(40)), round == 0 || round % 2 == 1);
        std::array<service, starters> services;
        std::barrier start(starters);
        std::atomic<int> won{0};
        std::atomic<int> refused{0};
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

TEST_F(bus, init_says_why_it_failed) {
    scratch_dir::write(path_of(40), "precious");
    std::filesystem::create_symlink(path_of(40), path_of(41));
    ASSERT_EQ(self.init(42), 0);
    const struct {
        const char *name, *directory;
        uint8_t id;
        scm_msg_cb callback;
        int error;
    } rows[] = {
        {"id 0 is the bus", dir.c_str(), 0, self.on_message, EINVAL},
        {"no callback", dir.c_str(), 50, nullptr, EINVAL},
        {"not a directory", "/dev/null", 50, self.on_message, ENOTDIR},
        {"a file in the way", dir.c_str(), 40, self.on_message, ENOTSOCK},
        {"a link to a file in the way", dir.c_str(), 41, self.on_message, ENOTSOCK},
    };
    for (const auto &row : rows) {
        setenv("MQUTILS_DIR", row.directory, 1);
        scm_conn record{};
        record.on_message = row.callback;
        EXPECT_EQ(scm_conn_init(&record, row.id), -1) << row.name;
        EXPECT_EQ(errno, row.error) << row.name;
    }
    EXPECT_EQ(self.init(50), -1);
    EXPECT_EQ(errno, EISCONN);
    EXPECT_EQ(scratch_dir::read(path_of(40)), "precious");
}

TEST_F(bus, directory_with_a_long_or_relative_name) {
    // 104 characters with the slash leave just room for "255"; one more does not.
    for (const size_t length : {size_t{103}, size_t{104}, size_t{250}, size_t{0}}) {
        SCOPED_TRACE(length);
        std::string path = length == 0 ? "relative" : dir + "/";
        std::filesystem::current_path(dir);
        path.append(length == 0 ? 0 : length - path.size(), 'd');
        ASSERT_TRUE(std::filesystem::create_directory(path));
        use_directory(path);
        service long_named;
        ASSERT_EQ(long_named.init(255), 0);
        ASSERT_EQ(peer.init(254), 0);
        std::filesystem::current_path("/");
        EXPECT_EQ(peer.notify(255, "hello"), 0);
        EXPECT_TRUE(long_named.wait_for(2));
        EXPECT_EQ(scm_conn_exit(&peer), 0);
    }
}

} // namespace
