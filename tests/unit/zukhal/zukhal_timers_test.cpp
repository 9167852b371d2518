// Timers on the real clock, with the shortest interval there is, and votes.
#include "zukhal_fixture.h"

namespace {

// What callbacks saw and did; each test uses them in child processes of its own.
std::atomic<int> g_calls, g_once_calls;
std::atomic<bool> g_begun, g_go_on, g_returned, g_signals_blocked;
std::atomic<int> g_own, g_victim; // handles
int g_argument;                   // only its address counts

int count(void *) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    g_signals_blocked =
        sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGRTMIN + 1) == 1;
    g_calls++;
    return 0;
}

int wait_to_go_on(void *) {
    g_begun = true;
    EXPECT_TRUE(reached([] { return g_go_on.load(); }, 20s));
    g_returned = true;
    return 0;
}

int delete_itself_and_another(void *argument) {
    EXPECT_EQ(argument, &g_argument);
    g_once_calls++;
    EXPECT_EQ(rtc_del_timer(g_own), 0);
    EXPECT_EQ(rtc_del_timer(g_victim), 0);
    return 0;
}

using zukhal_timers = zukhal_fixture;

TEST_F(zukhal_timers, callbacks_of_32_come_each_interval_on_a_thread_without_signals) {
    in_child([] {
        EXPECT_EQ(rtc_start_timer(1, count, nullptr), 0) << "not started";
        ASSERT_EQ(rtc_init_timers(), 0);
        EXPECT_EQ(rtc_start_timer(0, count, nullptr), 0);
        EXPECT_EQ(rtc_del_timer(0), -1);
        g_own = rtc_start_timer(1, delete_itself_and_another, &g_argument);
        const auto start = steady_clock::now();
        ASSERT_GT(rtc_start_timer(1, count, nullptr), 0);
        g_victim = rtc_start_timer(3600, count, nullptr);
        for (int i = 3; i < 32; i++)
            EXPECT_GT(rtc_start_timer(UINT32_MAX, count, nullptr), 0);
        EXPECT_EQ(rtc_start_timer(1, count, nullptr), 0) << "all in use";
        EXPECT_TRUE(reached([] { return g_calls >= 2; }));
        EXPECT_GE(steady_clock::now() - start, 1995ms);
        EXPECT_TRUE(g_signals_blocked);
        EXPECT_EQ(g_once_calls, 1);
        EXPECT_EQ(rtc_del_timer(g_victim), -1) << "deleted by the other";
        EXPECT_EQ(rtc_exit(), 0);
        EXPECT_EQ(rtc_init_timers(), 0);
        for (int i = 0; i < 32; i++)
            EXPECT_GT(rtc_start_timer(1, count, nullptr), 0) << "exit frees all";
        EXPECT_EQ(rtc_exit(), 0);
    });
}

TEST_F(zukhal_timers, a_running_callback_holds_up_no_deletion_and_exit_for_its_bound) {
    in_child([] {
        ASSERT_EQ(rtc_init_timers(), 0);
        const int running = rtc_start_timer(1, wait_to_go_on, nullptr);
        ASSERT_TRUE(reached([] { return g_begun.load(); }));
        const int other = rtc_start_timer(1, count, nullptr);
        EXPECT_EQ(rtc_del_timer(running), 0);
        EXPECT_FALSE(g_returned) << "deletion waited";
        EXPECT_EQ(rtc_exit(), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_FALSE(g_returned) << "exit waited to the end";
        EXPECT_EQ(rtc_init_timers(), -1) << "the callback still runs";
        EXPECT_EQ(rtc_del_timer(other), 0) << "ended by exit";
        EXPECT_EQ(rtc_del_timer(other + 1), -1) << "there never was one";
        std::this_thread::sleep_for(1s); // the other would be due
        g_go_on = true;
        EXPECT_TRUE(reached([] { return rtc_exit() == 0; }, 20s));
        EXPECT_TRUE(g_returned) << "exit did not wait";
        EXPECT_EQ(g_calls, 0);
    });
}

using zukhal_votes = zukhal_fixture;

TEST_F(zukhal_votes, the_kernel_hears_of_the_first_and_the_last_vote) {
    in_child([] {
        errno = EILSEQ; // a handler may vote
        for (const int id : {3, 3, 0})
            EXPECT_EQ(pm_system_state_disable(id), 1);
        EXPECT_EQ(pm_system_state_enable(3), 1);
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(content("wake_lock"), "zukhal.3\nzukhal.0\n");
        EXPECT_EQ(content("wake_unlock"), "") << "one is left";
        EXPECT_EQ(pm_system_state_enable(3), 1);
        EXPECT_EQ(pm_system_state_enable(3), 1) << "never below zero";
        EXPECT_EQ(content("wake_unlock"), "zukhal.3\n");
        EXPECT_EQ(pm_system_state_disable(3), 1);
        EXPECT_EQ(content("wake_lock"), "zukhal.3\nzukhal.0\nzukhal.3\n");
    });
    std::filesystem::remove("wake_lock");
    std::filesystem::remove("wake_unlock");
    in_child([] { EXPECT_EQ(pm_system_state_disable(3), 1) << "a kernel without wake locks"; });
    EXPECT_EQ(content("log"), "");
}

void vote_and_take_back(int) {
    pm_system_state_disable(3);
    pm_system_state_enable(3);
}

TEST_F(zukhal_votes, threads_and_handlers_leave_the_kernel_in_the_state_of_the_count) {
    in_child([] {
        signal(SIGUSR1, vote_and_take_back);
        std::array<std::thread, 4> threads;
        std::atomic<size_t> done{0};
        for (std::thread &thread : threads)
            thread = std::thread([&done] {
                for (int i = 0; i < 2000; i++)
                    vote_and_take_back(0);
                done++;
            });
        while (done < threads.size()) // handlers interrupt votes, too
            for (std::thread &thread : threads) {
                std::this_thread::sleep_for(200us);
                pthread_kill(thread.native_handle(), SIGUSR1);
            }
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(content("wake_lock"), content("wake_unlock"));
        EXPECT_NE(content("wake_lock"), "");
        for (int id = 100; id <= 164; id++)
            EXPECT_EQ(pm_system_state_disable(id), id < 164) << "64 ids hold votes";
    });
}

} // namespace
