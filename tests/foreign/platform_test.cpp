// What the daemon must stand from libraries it has never met: their signals, their stacks, their
// threads.
#include "bench.h"

#include "line_peer.h"

#include <set>
#include <sys/resource.h>

namespace {

constexpr int OWN_SIGNALS = 50;
constexpr uint32_t HISTORY_CHANGED = WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE;

class signals : public bench, public testing::WithParamInterface<foreign_place> {};

TEST_P(signals, of_a_library_reach_it_and_the_daemon_blocks_only_its_own) {
    state->own_signals = GetParam();
    start();
    uint64_t own = 0;
    for (const int signal :
         {SIGTERM, SIGHUP, SIGTSTP, SIGRTMIN + 1, SIGRTMIN + 10, SIGRTMIN + 11, SIGRTMIN + 12})
        own |= uint64_t{1} << (signal - 1);
    EXPECT_EQ(state->born_mask[GetParam()], own) << std::hex << state->born_mask[GetParam()];
    for (int i = 0; i < OWN_SIGNALS && lives(); ++i) {
        kill(state->pid, SIGRTMIN + 5);
        usleep(2000);
    }
    kill(state->pid, SIGIO);
    EXPECT_TRUE(wait_until([&] {
        return (state->signals_taken == OWN_SIGNALS && state->sigio_taken == 1) || !lives();
    })) << state->signals_taken;
    EXPECT_EQ(ask("A"), nmea("A"));
    EXPECT_EQ(end(), 0);
}

INSTANTIATE_TEST_SUITE_P(in, signals, testing::Values(IN_RTC_INIT_TIMERS, IN_SCM_CONN_INIT),
                         [](const auto &row) {
                             return row.param == IN_SCM_CONN_INIT ? "scm_conn_init"
                                                                  : "rtc_init_timers";
                         });

// With no room for a queued signal the kernel reports a change as SIGIO instead.
TEST_F(bench, a_change_that_the_kernel_cannot_queue_is_still_read) {
    start();
    const rlimit none = {};
    ASSERT_EQ(prlimit(state->pid, RLIMIT_SIGPENDING, &none, nullptr), 0);
    const int before = now();
    scratch_dir::write("user/stub_location/stub_loc.gps",
                       "STATIC_LOCATION = ON\n7007.939,N,01131.000,E\n");
    await("static location is ON", before);
    EXPECT_TRUE(lives());
    EXPECT_EQ(end(), 0);
}

// As much as two messages, two log lines and two records of settings, one in the other.
TEST_F(bench, every_thread_carries_a_librarys_stack) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer keeps its own record of a thread on the thread's stack";
#endif
    state->stack_frames = 5;
    start();
    EXPECT_EQ(reply(deliver(LS_REQUEST_GET_POWER_MODE, 40)).size(), sizeof(ls_power_reply));
    EXPECT_EQ(ask("A"), nmea("A"));
    EXPECT_EQ(reply(deliver(LS_REQUEST_SET_POWER_MODE, LS_SERV_WS, {2, 0, 0, 0})).size(),
              sizeof(ls_power_reply));
    const int before = now();
    scratch_dir::write("user/stub_location/stub_loc.gps", "STATIC_LOCATION = OF\n");
    await("static location is OFF", before);
    EXPECT_EQ(end(), 0);
}

TEST_F(bench, changed_history_settings_are_applied_in_the_callback) {
    start();
    const int asked = now();
    reply(deliver(LS_REQUEST_GET_POWER_MODE, 40)); // the callback's end, and its worker's vote
    await("call on_message returned", asked);
    await("call pm_system_state_enable", await("call send_msg returns", asked));
    constexpr int burst = 20;
    const int before = now();
    int last = before;
    std::string calls, wanted;
    std::set<int> threads;
    for (int i = 0; i < burst; ++i)
        deliver(HISTORY_CHANGED, LS_SERV_WS, {}, LS_MSG_NOTIFICATION);
    for (int i = 0; i < burst; ++i) {
        last = await("call on_message returned", last) + 1;
        wanted += "call on_message 808\ncall pm_system_state_disable\n"
                  "call db_read_location_history_settings\ncall pm_system_state_enable\n"
                  "call on_message returned\n";
    }
    for (const foreign_event &event : events(before)) {
        if (event.line.starts_with("call "))
            calls += event.line + "\n";
        threads.insert(event.thread);
    }
    EXPECT_EQ(calls, wanted);
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_EQ(end(), 0);
}

class deletion : public bench, public testing::WithParamInterface<int> {};

// The timer's callback waits for the TA, whose answer comes through the thread that deletes the
// timer.
TEST_P(deletion, of_a_timer_whose_callback_waits_for_the_ta) {
    state->history = 1;
    state->deletion_waits = GetParam();
    ta_silent = true;
    start();
    const int asked = await(TO_TA);
    deliver(HISTORY_CHANGED, LS_SERV_WS, {}, LS_MSG_NOTIFICATION);
    const int applied = await("call on_message returned", asked);
    if (GetParam() != 0) // it ends by its wait time
        EXPECT_LT(await("semaphore timed out", asked), applied);
    ta_silent = false;
    answer_ta("GPGPQ,GGA"); // or late
    if (GetParam() == 0) {  // the acquisition is not disturbed
        await(TO_TA, applied);
        EXPECT_EQ(count("semaphore timed out"), 0);
    }
    await("call timer callback returned", asked);
    EXPECT_EQ(ask("A"), nmea("A"));
    EXPECT_EQ(end(), 0);
}

INSTANTIATE_TEST_SUITE_P(that, deletion, testing::Values(0, 1), [](const auto &row) {
    return row.param == 0 ? "returns_at_once" : "waits_for_the_callback";
});

} // namespace
