// Who gets a service id.

#include "bus_fixture.h"

#include <barrier>

namespace {

TEST_F(bus, of_racing_starters_one_wins_also_over_a_dead_owner) {
    constexpr int starters = 4;
    for (int round = 0; round < 100; ++round) {
        if (round % 2 == 1)
            close(raw_owner(40)); // leaves a stale socket
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

TEST_F(bus, what_is_in_the_way_stays) {
    scratch_dir::write(path_of(40), "precious");
    EXPECT_EQ(self.init(0), -1) << "the bus itself";
    EXPECT_EQ(self.init(40), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(scratch_dir::read(path_of(40)), "precious");
}

} // namespace
