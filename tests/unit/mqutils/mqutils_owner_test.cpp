// Who gets a service id.

#include "bus_fixture.h"

#include <barrier>
#include <map>

namespace {

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

TEST_F(bus, what_is_in_the_way_stays) {
    scratch_dir::write(path_of(40), "precious");
    std::filesystem::create_symlink(path_of(40), path_of(41));
    ASSERT_EQ(self.init(42), 0);
    for (const auto &[id, error] :
         std::map<uint8_t, int>{{0, EINVAL}, {40, ENOTSOCK}, {41, ENOTSOCK}}) {
        EXPECT_EQ(peer.init(id), -1) << int{id};
        EXPECT_EQ(errno, error) << int{id};
    }
    EXPECT_EQ(scratch_dir::read(path_of(40)), "precious");
}

} // namespace
